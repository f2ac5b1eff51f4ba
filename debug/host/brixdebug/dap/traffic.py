"""The messages of one connection, written to a file: a line each, with the time and the direction."""

from __future__ import annotations

import json
import os
import re
import time

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any

_HIDDEN = ("secret",)            # whoever reads the file is not to come in by it
_HIDDEN_IN_TEXT = re.compile(r'("(?:%s)": )"[^"]*"' % "|".join(_HIDDEN))      # how to attach to a child, for one


class TrafficFile:
    def __init__(self, where: str | bool) -> None:
        """The path of a file to write to the end of; True for a new one in the folder of temporary files.

        Raises OSError.
        """
        if isinstance(where, str):
            self.path = os.path.abspath(where)
            descriptor = os.open(self.path, os.O_WRONLY | os.O_APPEND | os.O_CREAT | os.O_CLOEXEC, 0o600)
        else:
            import tempfile                  # takes longer than all the rest to be imported
            descriptor, self.path = tempfile.mkstemp(prefix="brixdebug-", suffix=".log")
        self._file = open(descriptor, "a", encoding="utf-8", buffering=1)

    def note(self, direction: str, message: dict[str, Any]) -> None:
        """`direction` as seen from here: "<-" for what has come, "->" for what goes.  Raises nothing."""
        now = time.time()
        stamp = time.strftime("%H:%M:%S", time.localtime(now)) + ".%03d" % (now % 1 * 1000)
        try:
            self._file.write("%s %s %s\n" % (stamp, direction, json.dumps(_shown(message))))
        except (OSError, ValueError):        # the disk is full: the session goes on
            pass


def _shown(value: Any) -> Any:
    if isinstance(value, dict):
        return {name: "..." if name in _HIDDEN else _shown(each) for name, each in value.items()}
    if isinstance(value, str):
        return _HIDDEN_IN_TEXT.sub(r'\1"..."', value)
    return [_shown(each) for each in value] if isinstance(value, list) else value
