"""The numbers that the client knows breakpoints by, for those that the debugger knows them by."""

from __future__ import annotations


class BreakpointIds:
    """One number for the client may be several breakpoints: a function's name, found in several files."""

    def __init__(self) -> None:
        self._last = 0
        self._ids: dict[int, int] = {}               # debugger's number -> client's
        self._of_functions: set[int] = set()         # the debugger's numbers of those
        self.of_file: dict[str, list[int]] = {}      # path -> debugger's numbers of what the client has set there

    def new(self) -> int:
        self._last += 1
        return self._last

    def enter(self, number: int, breakpoint_id: int, is_function: bool = False) -> None:
        self._ids[number] = breakpoint_id
        if is_function:
            self._of_functions.add(number)

    def reason(self, number: int) -> str:
        """Of a stop there, in the protocol's words."""
        return "function breakpoint" if number in self._of_functions else "breakpoint"

    def drop(self, number: int) -> None:
        self._ids.pop(number, None)
        self._of_functions.discard(number)

    def of(self, number: int) -> int | None:
        return self._ids.get(number)
