"""Values as text: bounded in size and in time, whatever the object's own code does.

The `__repr__` of a program's class may be slow, may raise, may never return.  It runs
in a thread of the debugger's own, which is left to itself when it takes too long.
"""

from __future__ import annotations

import _thread
import collections
import functools
import itertools
import math
import os
import sys
import threading

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Iterable, Iterator, Sequence
    from typing import Any

MAX_CHARACTERS = 1000         # of a value that is shown in a list
MAX_WHOLE_CHARACTERS = 1 << 20      # of one that is copied, or printed at the console
SLOW_SECONDS = 1.0            # for one value
PAGE_SECONDS = 5.0            # for all values of one answer

SLOW_TEXT = "<%s: its repr has not ended after %g s>"
_UNREACHED_TEXT = "<not shown: the values before took %g s>"

_MAX_DEPTH = 4
_MAX_DIGITS = 400

_BRACKETS: dict[type, tuple[str, str]] = {
    list: ("[", "]"), tuple: ("(", ")"), set: ("{", "}"), frozenset: ("frozenset({", "})"),
    dict: ("{", "}"), collections.deque: ("deque([", "])"),
}


class _Full(Exception):
    """The text has reached its size."""


class _Text:
    def __init__(self, limit: int) -> None:
        self._room = limit
        self.parts: list[str] = []

    def add(self, part: str) -> None:
        if len(part) > self._room:
            self.parts.append(part[:self._room] + "...")
            raise _Full
        self._room -= len(part)
        self.parts.append(part)


def render(value: object, limit: int = MAX_CHARACTERS, is_hex: bool = False) -> str:
    """The repr of `value`, cut at `limit` characters; what raises is named in its place.

    Of the standard containers no more is looked at than fits.  May call code of the program.
    """
    text = _Text(limit)
    try:
        _add(text, value, 0, [], limit, is_hex)
    except _Full:
        pass
    return "".join(text.parts)


def _add(text: _Text, value: Any, depth: int, inside: list[int], limit: int, is_hex: bool) -> None:
    kind = type(value)
    if kind in _BRACKETS:
        _add_container(text, value, depth, inside, limit, is_hex)
    elif kind is int:
        text.add(_int_text(value, is_hex))
    elif kind is str or kind is bytes or kind is bytearray:
        # Not the repr of a text of megabytes to show its first line.
        is_cut = len(value) > limit
        text.add(repr(value[:limit] if is_cut else value) + ("..." if is_cut else ""))
    else:
        text.add(_own_repr(value))


def _add_container(text: _Text, value: Any, depth: int, inside: list[int], limit: int, is_hex: bool) -> None:
    kind = type(value)
    if not value and kind in (set, frozenset):
        text.add(kind.__name__ + "()")
        return
    begin, end = _BRACKETS[kind]
    text.add(begin)
    if id(value) in inside or depth == _MAX_DEPTH:
        text.add("..." + end)
        return
    inside.append(id(value))
    try:
        for index, each in enumerate(_snapshot(value.items() if kind is dict else value, limit)):
            if index:
                text.add(", ")
            if kind is dict:
                _add(text, each[0], depth + 1, inside, limit, is_hex)
                text.add(": ")
                each = each[1]
            _add(text, each, depth + 1, inside, limit, is_hex)
    finally:
        inside.pop()
    if kind is tuple and len(value) == 1:
        text.add(",")
    text.add(end)


def _snapshot(values: Iterable[Any], limit: int) -> list[Any]:
    """The first of them; a thread may change their container while their reprs are made."""
    for _ in range(3):
        try:
            return list(itertools.islice(values, limit // 2 + 1))
        except RuntimeError:                 # it has changed its size meanwhile
            continue
    return []


def _int_text(value: int, is_hex: bool) -> str:
    if is_hex:
        return hex(value)
    digits = int(value.bit_length() * math.log10(2)) + 1
    limit = sys.get_int_max_str_digits()
    if digits > _MAX_DIGITS or limit and digits >= limit:
        return "<int of about %d digits>" % digits
    return repr(value)


def _own_repr(value: Any) -> str:
    try:
        text = repr(value)
    except BaseException as error:
        return "<%s: its repr raised %s>" % (type_name(type(value)), error_text(error))
    return text


def error_text(error: BaseException) -> str:
    try:
        text = str(error)
    except BaseException:
        text = ""
    return type_name(type(error)) + (": " + text[:200] if text else "")


def type_name(kind: type) -> str:
    """The name of a class without asking its metaclass."""
    module = type.__dict__["__module__"].__get__(kind)
    name: str = type.__dict__["__qualname__"].__get__(kind)
    return name if module in ("builtins", "__main__") or not isinstance(module, str) else module + "." + name


# -- in a thread of its own ------------------------------------------------------------------------

class Boxed:
    """Calls functions in a thread of the debugger's own, and waits only so long."""

    def __init__(self, adopt_thread: Callable[[], None]) -> None:
        """`adopt_thread` is called first in each new thread: no stop and no hold reaches it."""
        self._adopt_thread = adopt_thread
        self._worker: _Worker | None = None

    def call_each(self, calls: Sequence[Callable[[], Any]], on_slow: Callable[[int], Any],
                  seconds: float = SLOW_SECONDS, all_seconds: float = PAGE_SECONDS) -> list[Any]:
        """What each of `calls` returns, and `on_slow(index)` for one that does not return in time.

        A call that raises gives the exception itself as its result.
        """
        results: list[Any] = []
        spent = 0.0
        while len(results) < len(calls):
            if spent >= all_seconds:
                results += [on_slow(index) for index in range(len(results), len(calls))]
                break
            worker = self._take_worker()
            worker.begin(calls[len(results):])
            reached = worker.wait(seconds)
            results += reached
            if len(results) < len(calls):
                spent += seconds
                results.append(on_slow(len(results)))
            elif worker.is_alive():
                self._worker = worker
        return results

    def _take_worker(self) -> _Worker:
        worker, self._worker = self._worker, None
        if worker is None or not worker.is_alive():
            worker = _Worker(self._adopt_thread)
        return worker


class _Worker:
    """One such thread.  It is no `threading.Thread`: the program's own list of threads stays its own."""

    def __init__(self, adopt_thread: Callable[[], None]) -> None:
        self._adopt_thread = adopt_thread
        self._work = threading.Semaphore(0)
        self._progress = threading.Condition(threading.Lock())
        self._calls: Sequence[Callable[[], Any]] = ()
        self._results: list[Any] = []
        self._is_left = False
        self._process_id = os.getpid()
        _thread.start_new_thread(self._run, ())

    def is_alive(self) -> bool:
        return self._process_id == os.getpid()       # threads do not survive a fork

    def begin(self, calls: Sequence[Callable[[], Any]]) -> None:
        self._calls, self._results = calls, []
        self._work.release()

    def wait(self, seconds: float) -> list[Any]:
        """The results, in order, up to the first that does not come in time; the worker is of no use then."""
        with self._progress:
            while len(self._results) < len(self._calls):
                reached = len(self._results)
                if not self._progress.wait_for(lambda: len(self._results) > reached, seconds):
                    self._is_left = True
                    break
            return list(self._results)

    def _run(self) -> None:
        self._adopt_thread()
        while not self._is_left:
            self._work.acquire()
            for call in self._calls:
                try:
                    result = call()
                except BaseException as error:
                    result = error.with_traceback(None)
                with self._progress:
                    if self._is_left:
                        return
                    self._results.append(result)
                    self._progress.notify()
                del result
            self._calls = ()


def whole(boxed: Boxed, value: Any) -> str:
    """A text as it is, and the repr of anything else, without being cut."""
    def show() -> str:
        return str.__str__(value) if type(value) is str else repr(value)

    result = boxed.call_each([show], lambda index: SLOW_TEXT % (type_name(type(value)), PAGE_SECONDS), PAGE_SECONDS)[0]
    return result if isinstance(result, str) else "<%s: its repr raised %s>" % (type_name(type(value)), error_text(result))


def page(boxed: Boxed, values: Sequence[Any], limit: int = MAX_CHARACTERS, is_hex: bool = False) -> Iterator[str]:
    """The texts of several values, made in one go."""
    calls = [functools.partial(render, value, limit, is_hex) for value in values]

    def slow(index: int) -> str:
        return SLOW_TEXT % (type_name(type(values[index])), SLOW_SECONDS)

    for result in boxed.call_each(calls, slow):
        yield result if isinstance(result, str) else "<%s>" % error_text(result)
