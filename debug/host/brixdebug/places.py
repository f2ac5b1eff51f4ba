"""Places that our tools have switched off (DISABLE), and how they are armed again.

`sys.monitoring.restart_events` arms the places of all tools: another tool would see events
again that it has switched off for good.  It is called only while there is no other tool.
Beside one, the events of our tools alone are taken off the code objects and put on again:
the interpreter then arms all places of the code for these tools, and for no other.
"""

from __future__ import annotations

import collections
import itertools
import operator
import sys
import weakref

import optmonitoring

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Iterable
    from types import CodeType
    from typing import Any

_monitoring = sys.monitoring
_TOOL_IDS = range(6)                # those that tools may take
_MOST_DEAD = 1000                   # notes of code that is gone, before they are looked through

# Switched on and off again, to have the interpreter look at a code object without events of
# its own: few functions have such a place.
_PROBE = _monitoring.events.PY_YIELD


class SwitchedOff:
    """The code objects in which our tools have switched places off since they were last armed."""

    def __init__(self) -> None:
        self._codes: dict[int, weakref.ref[CodeType]] = {}
        self._looked_through_at = _MOST_DEAD

    def note(self, code: CodeType) -> None:
        """A callback of ours is going to answer DISABLE for a place of `code`."""
        self._codes[id(code)] = weakref.ref(code)
        if len(self._codes) > self._looked_through_at:
            self._codes = {key: each for key, each in list(self._codes.items()) if each() is not None}
            self._looked_through_at = 2 * len(self._codes) + _MOST_DEAD

    def arm_again(self, tool_ids: tuple[int, ...]) -> None:
        """Arm all places of our tools, and of no other."""
        codes, self._codes = self._codes, {}
        if not _are_others(tool_ids):
            _monitoring.restart_events()
            return
        _arm_again(tool_ids, _alive(codes.values()))

    def give_back(self, tool_ids: tuple[int, ...]) -> None:
        """Arm all places before the tools' ids are freed: the next user of an id would find them off.

        Nothing is switched on any longer.
        """
        codes, self._codes = self._codes, {}
        if _are_others(tool_ids):
            internal = [record.fCodeObjectWeakRef
                        for record in list(optmonitoring.CPerCodeObject._fPerCodeObjectDict.values())
                        if record.fIsInternal]         # switched off by the filter itself
            _arm_again(tool_ids, _alive([*codes.values(), *internal]))
        for tool_id in tool_ids:
            _monitoring.free_tool_id(tool_id)
        if not _are_others(()):
            _monitoring.restart_events()


def _are_others(tool_ids: tuple[int, ...]) -> bool:
    return any(_monitoring.get_tool(tool_id) is not None
               for tool_id in _TOOL_IDS if tool_id not in tool_ids)


def _alive(references: Iterable[Any]) -> list[CodeType]:
    return [code for code in [reference() for reference in references] if code is not None]


def _arm_again(tool_ids: tuple[int, ...], codes: list[CodeType]) -> None:
    calls: list[tuple[Any, ...]] = []
    for tool_id in tool_ids:
        events = _monitoring.get_events(tool_id)
        calls.append((_monitoring.set_events, tool_id, 0))
        for code in codes:
            local_events = _monitoring.get_local_events(tool_id, code)
            calls.append((_monitoring.set_local_events, tool_id, code, 0 if local_events else _PROBE))
            calls.append((_monitoring.set_local_events, tool_id, code, local_events))
        calls.append((_monitoring.set_events, tool_id, events))
    # From C code at one go: with the interpreter's lock no other thread runs between the two, and passes a breakpoint.
    collections.deque(itertools.starmap(operator.call, calls), maxlen=0)
