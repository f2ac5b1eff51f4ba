"""A debugger with pdb's commands whose breakpoints cost next to nothing and hold in every thread.

    python -m brixdebug [-c COMMAND]... [-m MODULE | SCRIPT] ARGS

or, inside a program, `brixdebug.set_trace()` (also through `breakpoint()` with
PYTHONBREAKPOINT=brixdebug.set_trace), `post_mortem`, `pm`, `run`, `runeval`,
`runctx`, `runcall`, and whatever else `pdb` exports: each does what the function of `pdb`
of that name does.  Under the command line `breakpoint()` and `pdb.set_trace()` are ours.

An author of a debugger finds the engine in `brixdebug.engine`: `Bdb`, to be
used where `bdb.Bdb` was.
"""

import importlib.util
import sys

if sys.version_info < (3, 12):
    raise ImportError("brixdebug needs Python 3.12 or later, for sys.monitoring; this is %d.%d"
                      % sys.version_info[:2])

from brixdebug import builds
from brixdebug.version import __version__

_module = importlib.util.find_spec("optmonitoring")
if _module is None:
    raise ImportError("brixdebug needs the module optmonitoring (the file optmonitoring.so); "
                      "put the folder that holds it on PYTHONPATH")
builds.check(_module.origin)

TYPE_CHECKING = False
if TYPE_CHECKING:
    from brixdebug.__main__ import main
    from brixdebug.dap.program import breakpoint, is_client_connected, listen, wait_for_client
    from brixdebug.debugger import Debugger
    from brixdebug.debugger import Debugger as Pdb
    from brixdebug.entry import help, pm, post_mortem, run, runcall, runctx, runeval, set_trace
    from brixdebug.streams import NoTerminal

# Name here -> module, and its name there.  It is imported when the name is asked for: the prompt takes longer to load than
# all that the debug adapter needs, and either does without the other.
_HOMES = {
    "main": ("brixdebug.__main__", "main"),
    "Debugger": ("brixdebug.debugger", "Debugger"),
    "Pdb": ("brixdebug.debugger", "Debugger"),           # the name of the class in `pdb`
    "NoTerminal": ("brixdebug.streams", "NoTerminal"),
    **{name: ("brixdebug.entry", name) for name in
       ("help", "pm", "post_mortem", "run", "runcall", "runctx", "runeval", "set_trace")},
    **{name: ("brixdebug.dap.program", name) for name in
       ("breakpoint", "is_client_connected", "listen", "wait_for_client")},
}

_WITHOUT_PROMPT = "brixdebug.__main__", "brixdebug.dap.program"

__all__ = ["Debugger", "NoTerminal", "Pdb", "help", "main", "pm", "post_mortem", "run", "runcall",
           "runctx", "runeval", "set_trace"]

if sys.version_info >= (3, 14):
    if TYPE_CHECKING:
        from pdb import get_default_backend, set_default_backend

        from brixdebug.entry import set_trace_async
    _HOMES["get_default_backend"] = "pdb", "get_default_backend"
    _HOMES["set_default_backend"] = "pdb", "set_default_backend"
    _HOMES["set_trace_async"] = "brixdebug.entry", "set_trace_async"
    __all__ += ["get_default_backend", "set_default_backend", "set_trace_async"]


def __getattr__(name: str) -> object:
    if name not in _HOMES:
        raise AttributeError("module %r has no attribute %r" % (__name__, name))
    module, there = _HOMES[name]
    if module not in _WITHOUT_PROMPT:
        importlib.import_module("pdb")        # before what derives from it: it loads the prompt in an editor's session
    value = globals()[name] = getattr(importlib.import_module(module), there)
    return value


def __dir__() -> list[str]:
    return sorted({*globals(), *_HOMES})
