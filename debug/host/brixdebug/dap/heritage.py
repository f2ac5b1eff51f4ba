"""What a process has to know of those that it comes from, to get a session of its own."""

from __future__ import annotations

import json
import os

import optmonitoring

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any

# Variables of a new process; taken away by `startup/sitecustomize.py` before the program sees them.
VARIABLE = "BRIXDEBUG_CHILD"
PATH_VARIABLE = "BRIXDEBUG_PYTHONPATH"       # what PYTHONPATH was, if it was set

_HERE = os.path.dirname(os.path.abspath(__file__))
STARTUP_FOLDER = os.path.join(_HERE, "startup")


class Heritage:
    """Handed down from process to process."""

    def __init__(self, desks: list[tuple[str, str]], host: str, ends_program: bool, prints_to_client: bool) -> None:
        self.desks = desks                       # where to ask for a session, the oldest first: name of a socket, and token
        self.host = host                         # of this machine, as the client reaches it
        self.ends_program = ends_program         # the program is nothing without its client
        self.prints_to_client = prints_to_client # the client gets what is printed by another way

    def to_text(self) -> str:
        """For the environment of a new process."""
        folders = list(dict.fromkeys([os.path.dirname(os.path.dirname(_HERE)),
                                     os.path.dirname(os.path.abspath(optmonitoring.__file__))]))
        return json.dumps({**vars(self), "folders": folders})

    @classmethod
    def from_text(cls, text: str) -> Heritage:
        values: dict[str, Any] = json.loads(text)
        values.pop("folders")
        values["desks"] = [(name, token) for name, token in values["desks"]]
        return cls(**values)
