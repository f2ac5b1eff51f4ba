"""Which code is the user's own, and which a library's: decided by the pathname and its kind, or by a rule."""

from __future__ import annotations

import os
import re
import site
import sys
import sysconfig

import optmonitoring

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Sequence

# Folders of installed packages, wherever they are.
_PACKAGE_FOLDERS = ("site-packages", "dist-packages")

# Names of what a user has typed.
_TYPED = ("<stdin>", "<console>", "<doctest ", "<ipython-input-", "<python-input-")

_answers: dict[str, bool] = {}        # file name -> whether it is a library's
_library_folders: tuple[str, ...] = ()
_rules: tuple[Rule, ...] = ()
_decides_by_place = True              # what no rule names is decided by its pathname


class Rule:
    """What is the user's own (`is_own`), or is not: files by a pattern of pathnames, or a module with all inside it."""

    def __init__(self, is_own: bool, path: str | None = None, module: str | None = None) -> None:
        """In `path`, `*` stands for a part of one name and `**` for any folders."""
        self.is_own = is_own
        self._module = module
        self._matches_path = re.compile(_translated(path)).match if path is not None else None

    def names(self, filename: str) -> bool:
        if self._matches_path is not None:
            return self._matches_path(filename) is not None \
                or self._matches_path(os.path.abspath(filename)) is not None
        # A module is there before any code of it, or of a module inside it, runs.
        names = getattr(sys.modules.get(self._module or ""), "__dict__", {})
        if filename == names.get("__file__"):
            return True
        folders = names.get("__path__", ())
        return any(filename.startswith(folder + os.sep) for folder in folders if isinstance(folder, str))


def _translated(path: str) -> str:
    """The regular expression of a pattern."""
    if os.sep not in path:
        path = "**/" + path
    parts = re.split(r"(\*\*/?|\*|\?)", path)
    wild = {"**/": "(?:.*/)?", "**": ".*", "*": "[^/]*", "?": "[^/]"}
    return "".join(wild.get(part) or re.escape(part) for part in parts) + r"(?:/.*)?\Z"


def set_rules(rules: Sequence[Rule], decides_by_place: bool = True) -> None:
    """The first rule that names a file decides; without `decides_by_place`, all other code is the user's."""
    global _rules, _decides_by_place, _answers
    _rules, _decides_by_place = tuple(rules), decides_by_place
    _answers = {}                         # an answer by the old rules that comes late goes with the old table


def is_library(filename: str) -> bool:
    """True for the standard library, for installed packages, and for code that they have made."""
    answers = _answers
    answer = answers.get(filename)
    if answer is None:
        rule = next((each for each in _rules if each.names(filename)), None)
        answer = not rule.is_own if rule is not None else _decides_by_place and _is_by_place(filename)
        answers[filename] = answer
    return answer


def _is_by_place(filename: str) -> bool:
    kind = optmonitoring.GetPathnameKind(filename)
    if kind == optmonitoring.kRegularPathname:
        return _is_in_library(filename)
    # Other names are those of code that a library has made.
    return kind != optmonitoring.kBrixShellPathname and not filename.startswith(_TYPED)


def _is_in_library(filename: str) -> bool:
    name = os.path.abspath(filename)
    parts = name.split(os.sep)
    return any(folder in parts for folder in _PACKAGE_FOLDERS) \
        or name.startswith(_library_folders or _find_library_folders())


def _find_library_folders() -> tuple[str, ...]:
    global _library_folders
    folders = [sysconfig.get_path(name) for name in ("stdlib", "platstdlib", "purelib", "platlib")]
    folders.append(os.path.dirname(os.__file__))
    if site.ENABLE_USER_SITE:
        folders.append(site.getusersitepackages())
    found = {form + os.sep for folder in folders if folder
             for form in (os.path.abspath(folder), os.path.realpath(folder))}
    _library_folders = tuple(found)
    return _library_folders
