"""Children of a debugged program: what `breakpoint()` does in them.

A child that was forked is a copy of the debugger too.  One that was started anew (a process of
`multiprocessing` with spawn or forkserver, Python under `subprocess`) knows nothing of it but the environment:
PYTHONBREAKPOINT names one of the two functions that are asked of this module, unless the user
has set it.  The interpreter looks it up at each call of `breakpoint()`, in the debugged process as well.
"""

from __future__ import annotations

import pdb

from brixdebug import entry, processes

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any

def __getattr__(name: str) -> Callable[..., Any]:
    """What the interpreter calls for `breakpoint()`: no function of ours stands between that and the caller."""
    if name not in ("stop", "pass_by"):
        raise AttributeError("module %r has no attribute %r" % (__name__, name))
    if processes.is_free():
        return _pass_by
    if processes.is_of_session():
        return pdb.set_trace                  # as if there were no such variable
    if name == "pass_by":
        return _pass_by
    processes.follow()
    processes.are_children_followed = True
    return entry.set_trace


def _pass_by(*args: object, **keywords: object) -> None:
    processes.pass_by()
