"""pdb's commands on the engine, and the commands that pdb has not.

The command loop, the parsing and the commands are the standard `pdb.Pdb`'s,
inherited; its module-level functions run as they are, with `Debugger` in the
place of `Pdb`.
"""

import pdb
import sys
import threading

from brixbase import dlog

from brixdebug import compat, files, log
from brixdebug.engine import Bdb, BdbQuit
from brixdebug.monitor import monitor

_STATES = ("at the prompt", "held", "running")


class Debugger(pdb.Pdb, Bdb):
    """`pdb.Pdb` for every thread."""

    follows_fork = False

    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self._thread_numbers = {}
        self._errors_shown = False

    # -- stops ---------------------------------------------------------------------

    def interaction(self, *args, **kwargs):
        """One thread is at the prompt; the others wait for it."""
        with monitor.reporter.lock, monitor.suspension.others_held():
            try:
                return super().interaction(*args, **kwargs)
            finally:
                self.stop_states.selected = None

    def sigint_handler(self, signum, frame):
        state = self.stop_states.own()
        muted, state.is_muted = state.is_muted, True
        try:
            super().sigint_handler(signum, frame)
        finally:
            state.is_muted = muted

    def reaches_program(self, exception):
        return isinstance(exception, (BdbQuit, pdb.Restart)) or not isinstance(exception, Exception)

    if not compat.HAS_TRACE_METHODS:
        do_debug = compat.rebind(pdb.Pdb.do_debug, sys=compat.sys_with_trace_methods,
                                 Pdb=lambda *args: Debugger(*args))


# pdb's own functions, which make a Debugger where they made a Pdb.

def _rebound(name):
    return compat.rebind(getattr(pdb, name), **_globals)


_globals = {"Pdb": Debugger}
if hasattr(pdb, "_post_mortem"):
    _globals["_post_mortem"] = _rebound("_post_mortem")
_globals["post_mortem"] = _rebound("post_mortem")

post_mortem = _globals["post_mortem"]
pm = _rebound("pm")
run = _rebound("run")
runeval = _rebound("runeval")
runcall = _rebound("runcall")
runctx = compat.rebind(pdb.runctx, run=run)
set_trace = _rebound("set_trace")


def main():
    """The command line: pdb's, and `--log FILE` and `--log-domains NAMES` before it."""
    compat.rebind(pdb.main, **_globals)()
