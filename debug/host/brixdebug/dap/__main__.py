"""`python -m brixdebug.dap`: the adapter that an editor starts."""

from __future__ import annotations

import argparse
import os
import sys

from brixdebug.dap import door
from brixdebug.dap.adapter import Adapter
from brixdebug.dap.wire import Wire


def main() -> None:
    parser = argparse.ArgumentParser(
        prog="python -m brixdebug.dap",
        description="A debug adapter for editors, over standard input and output unless a port is given.")
    parser.add_argument("--port", metavar="[HOST:]PORT", help="wait for one client there instead")
    options = parser.parse_args()
    if options.port is None:
        Adapter(_standard_streams()).run()
        return
    try:
        address = door.parse_address(options.port)
        if door.needs_secret(address):
            raise door.DoorError("%s can be reached from other machines, where anybody could run programs here; "
                                 "use the loopback" % options.port)
        listener, address = door.listen_at(address)
    except door.DoorError as error:
        parser.error(str(error))
    print("brixdebug.dap: listening at %s" % door.show_address(address), flush=True)
    with listener:
        connection, _ = listener.accept()
    Adapter(Wire(connection.fileno(), connection.fileno(), connection)).run()


def _standard_streams() -> Wire:
    """Standard input and output for the protocol alone: what is printed here goes to standard error."""
    wire = Wire(os.dup(0), os.dup(1))
    null = os.open(os.devnull, os.O_RDONLY)
    os.dup2(null, 0)
    os.dup2(2, 1)
    os.close(null)
    sys.stdout = sys.stderr
    return wire


if __name__ == "__main__":
    main()
