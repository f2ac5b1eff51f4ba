"""The interpreter's warning of a fork in a process with several threads: not for the debugger's own."""

from __future__ import annotations

import threading
import warnings

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any


class _OwnThreads:
    """Stands for the pattern of a filter."""

    def match(self, text: str) -> bool:
        # The debugger's threads are not among those of `threading`.
        return "is multi-threaded" in text and threading.active_count() <= 1


_FILTER: Any = ("ignore", _OwnThreads(), DeprecationWarning, None, 0)


def hide() -> None:
    """The program is warned of its own threads alone, as without the debugger."""
    filters: Any = warnings.filters
    if _FILTER not in filters:
        filters.insert(0, _FILTER)


def show() -> None:
    """The program's filters are as they were."""
    filters: Any = warnings.filters
    if _FILTER in filters:
        filters.remove(_FILTER)
