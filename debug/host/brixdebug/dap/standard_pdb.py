"""`pdb` in a program that an editor debugs: `pdb.set_trace()` and its like stop there.

What stands in `pdb` becomes ours when the program imports it, and not before: pdb, and the prompt that takes its place,
take longer to be imported than all that a session with an editor needs.
"""

from __future__ import annotations

import importlib.util
import sys

from brixbase import dlog

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Sequence
    from importlib.machinery import ModuleSpec
    from types import ModuleType
    from typing import Any


def take_over() -> None:
    """`pdb` is ours, or will be when it is imported."""
    if "pdb" in sys.modules:
        _take_over_now()
    elif _finder not in sys.meta_path:
        sys.meta_path.insert(0, _finder)


def give_up() -> None:
    """Nothing waits for `pdb` any more; what is ours already stays so."""
    if _finder in sys.meta_path:
        sys.meta_path.remove(_finder)


def _take_over_now() -> None:
    from brixdebug import entry

    entry.take_over()


class _Finder:
    """On `sys.meta_path` until the program imports `pdb`."""

    def find_spec(self, name: str, path: Sequence[str] | None = None, target: ModuleType | None = None) -> ModuleSpec | None:
        if name != "pdb":
            return None
        give_up()
        spec: Any = importlib.util.find_spec(name)
        if spec is not None and spec.loader is not None:
            spec.loader = _Loader(spec.loader)
        return spec          # type: ignore[no-any-return]


class _Loader:
    """That of `pdb`, and what is to happen when the module has been run."""

    def __init__(self, loader: Any) -> None:
        self._loader = loader

    def __getattr__(self, name: str) -> Any:
        return getattr(self._loader, name)

    def exec_module(self, module: ModuleType) -> None:
        if module.__spec__ is not None:
            module.__spec__.loader = module.__loader__ = self._loader
        self._loader.exec_module(module)
        try:
            _take_over_now()
        except Exception:                    # the program's import goes on
            dlog.LogException("pdb in an editor's session")


_finder: Any = _Finder()
