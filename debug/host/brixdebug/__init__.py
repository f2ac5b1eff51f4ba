"""A debugger with pdb's commands whose breakpoints cost next to nothing and hold in every thread.

    python -m brixdebug [-c COMMAND]... [-m MODULE | SCRIPT] ARGS

or, inside a program, `brixdebug.set_trace()` (also through `breakpoint()` with
PYTHONBREAKPOINT=brixdebug.set_trace), `post_mortem`, `pm`, `run`, `runeval`,
`runctx`, `runcall`, and whatever else `pdb` exports: each does what the function of `pdb`
of that name does.  Under the command line `breakpoint()` and `pdb.set_trace()` are ours.

An author of a debugger finds the engine in `brixdebug.engine`: `Bdb`, to be
used where `bdb.Bdb` was.
"""

import sys

if sys.version_info < (3, 12):
    raise ImportError("brixdebug needs Python 3.12 or later, for sys.monitoring; this is %d.%d"
                      % sys.version_info[:2])

try:
    import optmonitoring
except ModuleNotFoundError as error:
    if error.name != "optmonitoring":
        raise
    raise ImportError("brixdebug needs the module optmonitoring (the file optmonitoring.so); "
                      "put the folder that holds it on PYTHONPATH") from None

from brixdebug.commandline import main
from brixdebug.debugger import Debugger
from brixdebug.entry import help, pm, post_mortem, run, runcall, runctx, runeval, set_trace
from brixdebug.streams import NoTerminal
from brixdebug.version import __version__

_FOR_EDITORS = ("breakpoint", "is_client_connected", "listen", "wait_for_client")


def __getattr__(name: str) -> object:
    """What is for editors is imported when it is asked for."""
    if name in _FOR_EDITORS:
        from brixdebug.dap import program
        return getattr(program, name)
    raise AttributeError("module %r has no attribute %r" % (__name__, name))


Pdb = Debugger                # the name of the class in `pdb`

__all__ = ["Debugger", "NoTerminal", "Pdb", "help", "main", "pm", "post_mortem", "run", "runcall",
           "runctx", "runeval", "set_trace"]

if sys.version_info >= (3, 14):
    from pdb import get_default_backend, set_default_backend

    from brixdebug.entry import set_trace_async
    __all__ += ["get_default_backend", "set_default_backend", "set_trace_async"]
