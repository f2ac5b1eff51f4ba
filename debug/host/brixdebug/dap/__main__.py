"""`python -m brixdebug.dap`: the adapter that an editor starts."""

from __future__ import annotations

import os
import sys

from brixdebug.dap import door
from brixdebug.dap.adapter import Adapter
from brixdebug.dap.wire import Wire

TYPE_CHECKING = False
if TYPE_CHECKING:
    import argparse
    import socket

_STRANGER_SECONDS = 10        # to begin a session


def main() -> None:
    if len(sys.argv) > 1:                # most editors give no options: what those take need not be loaded then
        _run_with_options()
    else:
        Adapter(_standard_streams()).run()


def _run_with_options() -> None:
    import argparse

    from brixdebug import log

    parser = argparse.ArgumentParser(
        prog="python -m brixdebug.dap",
        description="A debug adapter for editors, over standard input and output unless a port is given.")
    parser.add_argument("--port", metavar="[HOST:]PORT", help="wait for one client there instead; also unix:PATH")
    parser.add_argument("--secret-file", metavar="FILE", help="what a client has to know; needed beyond the loopback")
    parser.add_argument("--log", metavar="FILE", help="write what the debugger does in programs to the end of FILE")
    parser.add_argument("--log-domains", metavar="NAME,...", help="of this only: %s" % ", ".join(log.DOMAINS))
    options = parser.parse_args()
    _hand_log_on(parser, options.log, options.log_domains)
    if options.port is None:
        Adapter(_standard_streams()).run()
        return
    try:
        address = door.parse_address(options.port)
        secret = door.secret_for(address, options.secret_file)
        listener, address = door.listen_at(address)
    except door.DoorError as error:
        parser.error(str(error))
    print("brixdebug.dap: listening at %s" % door.show_address(address), flush=True)
    _serve_one(listener, secret)


def _hand_log_on(parser: argparse.ArgumentParser, path: str | None, domains: str | None) -> None:
    """Programs get it in their environment; what cannot be is said here."""
    from brixdebug import log

    if path is None:
        if domains is not None:
            parser.error("--log-domains goes with --log FILE")
        return
    try:
        log.domain_mask(log.parse_domains(domains or ""))
        open(path, "a").close()
    except (OSError, ValueError) as error:
        parser.error(str(error))
    os.environ["BRIXDEBUG_LOG"] = os.path.abspath(path)
    if domains is not None:
        os.environ["BRIXDEBUG_LOG_DOMAINS"] = domains


def _serve_one(listener: socket.socket, secret: str | None) -> None:
    """Strangers are sent away; the first who launches or attaches is the client, and nobody else gets in then."""
    is_served = False
    while not is_served:
        connection, _ = listener.accept()
        with connection:
            adapter = Adapter(Wire(connection.fileno(), connection.fileno(), connection), secret,
                              on_begin=listener.close, stranger_seconds=_STRANGER_SECONDS)
            adapter.run()
        is_served = listener.fileno() < 0


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
