"""The debugger's own code: the filter never stops in it."""

from __future__ import annotations

import bdb
import cmd
import importlib
import os
import pdb

import brixbase
import optmonitoring

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any

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
    files = [bdb.__file__, cmd.__file__, pdb.__file__, importlib.__file__,
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
