"""The debugger's own code: the filter never stops in it."""

from __future__ import annotations

import bdb
import importlib
import os

import brixbase
import optmonitoring

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any

# Files of the standard library, which need not be loaded.
_OF_DEBUGGERS = "bdb.py", "cmd.py", "pdb.py"

_added: set[str] = set()


def add_internal_file(path: str) -> None:
    """Never stop in the code of `path`; for a debugger built on the engine: its own files.

    Call it before that code runs under the debugger: what has run keeps what it was.
    """
    _added.add(os.path.abspath(path))


def pathname_table() -> dict[Any, bool]:
    """The table that the filter asks: canonical names as keys."""
    names: list[Any] = ["<frozen importlib._bootstrap>", "<frozen importlib._bootstrap_external>",
             "<frozen zipimport>"]
    library = os.path.dirname(bdb.__file__)
    files = [*(os.path.join(library, name) for name in _OF_DEBUGGERS), importlib.__file__,
             importlib._bootstrap.__file__, importlib._bootstrap_external.__file__]
    for package in (__file__, brixbase.__file__):
        folder = os.path.dirname(os.path.abspath(package))
        files += [os.path.join(inner, name) for inner, _, inner_names in os.walk(folder)
                  for name in inner_names if name.endswith(".py")]
    files += _added
    # Both the name as it stands, which is what frozen code reports, and the canonical one.
    names += files
    names += [optmonitoring.get_canonical_pathname(name) for name in files]
    return dict.fromkeys(names, True)
