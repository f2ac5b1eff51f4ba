"""The table of the variants of event_paths.py: what each is called, and what it is compared with.

A variant's `untraced` is the same loop that nobody watches; its `floor` the same loop with a C callback that does
nothing.  `forwards`: every event goes on to a second callback, whose call is counted apart.  `once`: every event is
the first one of something, of which COUNT have to be made.  `in_threads`: the events are those of new threads.
"""

import collections

Variant = collections.namedtuple("Variant", "name title untraced floor forwards once in_threads")


def _row(name, title, untraced="none", floor="floor", forwards=False, once=False, in_threads=False):
    return Variant(name, title, untraced, floor, forwards, once, in_threads)


_ROWS = (
    _row("none", "no tracing", None, None),
    _row("none_call", "no tracing, calls", None, None),
    _row("none_generator", "no tracing, generator", None, None),
    _row("floor", "LINE, C callback that does nothing", floor=None),
    _row("floor_start", "PY_START, C callback that does nothing", "none_call", None),
    _row("floor_return", "PY_RETURN, C callback that does nothing", "none_call", None),
    _row("floor_yield", "PY_YIELD, C callback that does nothing", "none_generator", None),
    _row("floor_resume", "PY_RESUME, C callback that does nothing", "none_generator", None),
    _row("py_noop", "Python callback that does nothing"),
    _row("py_filter", "Python dictionary of sets"),
    _row("settrace", "`settrace` function that does nothing"),
    _row("bdb", "`bdb`"),
    _row("bdb_monitoring", "`bdb`, monitoring backend"),
    _row("debugpy", "debugpy"),
    _row("line_off", "LINE off the breakpoint lines"),
    _row("line_on", "LINE on a breakpoint line", forwards=True),
    _row("line_skip_thread", "LINE skipped with the thread's record"),
    _row("step_thread", "LINE, stepping needed in the thread", forwards=True),
    _row("step_code", "LINE, stepping needed in the code object", forwards=True),
    _row("policy_0", "LINE, policy 0"),
    _row("line_skip_thread_no_hook", "LINE skipped with the thread's record, no name hook"),
    _row("step_thread_no_hook", "LINE, stepping needed in the thread, no name hook", forwards=True),
    _row("policy_0_no_hook", "LINE, policy 0, no name hook"),
    _row("line_off_5", "LINE off 5 breakpoint lines"),
    _row("line_off_100", "LINE off 100 breakpoint lines"),
    _row("line_off_10000", "LINE off 10,000 breakpoint lines"),
    _row("line_collides_5", "LINE, every line in the place of one of 5"),
    _row("line_collides_100", "LINE, every line in the place of one of 100"),
    _row("line_collides_10000", "LINE, every line in the place of one of 10,000"),
    _row("any_suspend", "LINE, another thread to be suspended"),
    _row("internal_disable", "LINE, internal code answered DISABLE"),
    _row("internal_none", "LINE, internal code answered None"),
    _row("fork_child", "LINE, fork child before the update"),
    _row("start_skipped", "PY_START skipped", "none_call", "floor_start"),
    _row("return_skipped", "PY_RETURN skipped", "none_call", "floor_return"),
    _row("yield_skipped", "PY_YIELD skipped", "none_generator", "floor_yield"),
    _row("resume_skipped", "PY_RESUME skipped", "none_generator", "floor_resume"),
    _row("none_first_same_file", "no tracing, new code object, same file", None, None, once=True),
    _row("none_first_new_file", "no tracing, new code object, new file", None, None, once=True),
    _row("none_thread", "no tracing, new thread", None, None, once=True, in_threads=True),
    _row("floor_first_same_file", "first event, same file, C callback that does nothing", "none_first_same_file", None,
         once=True),
    _row("floor_first_new_file", "first event, new file, C callback that does nothing", "none_first_new_file", None,
         once=True),
    _row("floor_thread", "first event of a thread, C callback that does nothing", "none_thread", None, once=True,
         in_threads=True),
    _row("first_event_same_file", "first event of a code object, same file", "none_first_same_file",
         "floor_first_same_file", once=True),
    _row("first_event_new_file", "first event of a code object, new file", "none_first_new_file",
         "floor_first_new_file", once=True),
    _row("new_thread", "first event of a thread", "none_thread", "floor_thread", once=True, in_threads=True),
)

VARIANTS = {row.name: row for row in _ROWS}

FLOORS = tuple(row.name for row in _ROWS if row.untraced and not row.floor)
RIVALS = ("py_noop", "py_filter", "settrace", "bdb", "bdb_monitoring", "debugpy")
PATHS = tuple(row.name for row in _ROWS if row.floor and row.name not in RIVALS)


def with_references(names):
    """The variants, and those that they are compared with, in the table's order."""
    needed = {reference for name in names
              for reference in (name, VARIANTS[name].untraced, VARIANTS[name].floor)}
    return [name for name in VARIANTS if name in needed]
