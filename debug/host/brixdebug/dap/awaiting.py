"""The logical stack of a task of asyncio: who awaits it, and who awaits that.

From 3.14 on the interpreter keeps who awaits a future.  Before, it is found in what asyncio
itself keeps to wake who waits.
"""

from __future__ import annotations

import sys
import types

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Iterator
    from types import FrameType
    from typing import Any

_MOST_TASKS = 50


def awaiting_stacks(frame: FrameType | None) -> list[tuple[str, list[FrameType]]]:
    """For the task that a thread runs, whose innermost frame is given: each task that waits for its end.

    A text that says so, and the frames of that task, the innermost first.
    """
    loop = loop_of(frame)
    asyncio: Any = sys.modules.get("asyncio")
    if loop is None or asyncio is None:
        return []
    task = asyncio.current_task(loop)
    found: list[tuple[str, list[FrameType]]] = []
    if task is None:
        return []
    waiters = {id(each._fut_waiter): each for each in asyncio.all_tasks(loop)
               if getattr(each, "_fut_waiter", None) is not None}
    wanted, seen = [task], {id(task)}
    while wanted and len(found) < _MOST_TASKS:
        awaited = wanted.pop(0)
        for each in _awaiters(awaited, waiters, asyncio.Task):
            if id(each) not in seen:
                seen.add(id(each))
                wanted.append(each)
                found.append(("%s is awaited by %s" % (awaited.get_name(), each.get_name()), _frames_of(each)))
    return found


def loop_of(frame: FrameType | None) -> Any:
    """The loop of asyncio that calls `frame`."""
    while frame is not None:
        if frame.f_code.co_name == "_run_once" and frame.f_globals.get("__name__") == "asyncio.base_events":
            return frame.f_locals.get("self")
        frame = frame.f_back
    return None


def _awaiters(future: Any, waiters: dict[int, Any], task_class: type) -> Iterator[Any]:
    """The tasks that wait for a future, or for one that stands for several."""
    kept = getattr(future, "_asyncio_awaited_by", None)
    if kept is not None:
        for each in kept:
            if isinstance(each, task_class):
                yield each
            else:
                yield from _awaiters(each, waiters, task_class)
        return
    direct = waiters.get(id(future))
    if direct is not None:
        yield direct
    for callback, _ in list(getattr(future, "_callbacks", None) or ()):
        parent = getattr(getattr(callback, "__self__", None), "_parent_task", None)      # of a task group
        if parent is not None:
            yield parent
        for each in _enclosed(callback):                 # the future of gather(), wait() and their like
            if id(each) in waiters:
                yield waiters[id(each)]


def _enclosed(callback: Any) -> Iterator[object]:
    """What a function has from around it, or is given when it is called."""
    yield from getattr(callback, "args", ())
    function = getattr(callback, "func", callback)
    if isinstance(function, types.FunctionType):
        for cell in function.__closure__ or ():
            try:
                yield cell.cell_contents
            except ValueError:                           # not bound
                continue


def _frames_of(task: Any) -> list[FrameType]:
    """Where a suspended task stands, the innermost first."""
    frames: list[FrameType] = []
    each = task.get_coro()
    while each is not None and len(frames) < sys.getrecursionlimit():
        for prefix, inner in ("cr", "cr_await"), ("gi", "gi_yieldfrom"), ("ag", "ag_await"):
            frame = getattr(each, prefix + "_frame", None)
            if frame is not None:
                frames.append(frame)
                each = getattr(each, inner)
                break
        else:
            break
    return frames[::-1]
