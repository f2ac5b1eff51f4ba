"""Which code is the user's own, and which a library's: told by the pathname and its kind."""

from __future__ import annotations

import os
import site
import sysconfig

import optmonitoring

# Folders of installed packages, wherever they are.
_PACKAGE_FOLDERS = ("site-packages", "dist-packages")

# Names of what a user has typed.
_TYPED = ("<stdin>", "<console>", "<doctest ", "<ipython-input-", "<python-input-")

_answers: dict[str, bool] = {}        # file name -> whether it is a library's
_library_folders: tuple[str, ...] = ()


def is_library(filename: str) -> bool:
    """True for the standard library, for installed packages, and for code that they have made."""
    answer = _answers.get(filename)
    if answer is None:
        kind = optmonitoring.GetPathnameKind(filename)
        if kind == optmonitoring.kRegularPathname:
            answer = _is_in_library(filename)
        else:                         # other names are those of code that a library has made
            answer = kind != optmonitoring.kBrixShellPathname and not filename.startswith(_TYPED)
        _answers[filename] = answer
    return answer


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
