"""Programs that the debugged program starts: those that may run Python get a few variables more than they were given.

The functions that start a program are wrapped while that is needed.  The debugged program's own environment stays as it
is, and so do the environments of other programs.
"""

from __future__ import annotations

import functools
import os
import re
import sys
import threading

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Iterable, Mapping
    from types import FrameType
    from typing import Any

    Added = Callable[[dict[bytes, bytes]], dict[bytes, bytes]]

# An interpreter with these options looks at no variables, or imports no `sitecustomize`.
_ISOLATED = re.compile(rb"-[bBdhiOPqsuvVx]*[EIS]")

# A process of multiprocessing's own, in which nothing of the program runs.
_HELPER = b"multiprocessing.resource_tracker"

_MAX_WORD = 4096

_here = threading.local()


class Spawning:
    """The wrappers; they do something while `added` answers with variables."""

    def __init__(self, added: Added) -> None:
        """`added`: called with the environment of a new process; what is to be set there too, empty for nothing."""
        self._added = added
        self._wrapped: list[tuple[Any, str, Any, Any]] = []      # module, name, original, wrapper

    def begin(self) -> None:
        if self._wrapped:
            return
        for module_name, name, wrap in _STARTERS:
            module: Any = sys.modules.get(module_name)
            if module_name == "_posixsubprocess":
                import _posixsubprocess as module     # subprocess takes it from there, whenever it is imported
            original = getattr(module, name, None)
            if original is not None:
                wrapper = functools.wraps(original)(wrap(original, self._environment))
                setattr(module, name, wrapper)
                self._wrapped.append((module, name, original, wrapper))

    def end(self) -> None:
        """What somebody else has put in the place of a wrapper stays."""
        originals = {id(wrapper): original for _, _, original, wrapper in self._wrapped}
        for module_name, name, _ in _STARTERS:
            module = sys.modules.get(module_name)
            original = originals.get(id(getattr(module, name, None)))
            if original is not None:
                setattr(module, name, original)
        self._wrapped.clear()

    def _environment(self, executables: Iterable[Any], words: Any, given: Mapping[bytes, bytes] | None
                     ) -> dict[bytes, bytes] | None:
        """The environment of a new process; None: as it was given."""
        if not self._wrapped:                # called through a reference that was taken while this was wrapped
            return None
        try:
            if not _may_run_python(executables, [os.fsencode(word) for word in words]):
                return None
            environment = dict(os.environb if given is None else given)
            added = self._added(environment)
        except Exception:                    # wrong arguments, for one: the original says what it thinks of them
            return None
        return {**environment, **added} if added else None


def is_starting(frame: FrameType | None) -> bool:
    """In a forked child: whether it exists only to become another program.  `frame` has called the fork."""
    return getattr(_here, "is_starting", False) or frame is not None and frame.f_code is _SPAWNVEF


_SPAWNVEF = getattr(getattr(os, "_spawnvef", None), "__code__", None)


def _may_run_python(executables: Iterable[Any], words: list[bytes]) -> bool:
    path = next((each for each in map(os.fsencode, executables) if os.path.exists(each)), b"")
    names_python = b"python" in os.path.basename(path)
    if any(_HELPER in word for word in words):
        return False
    if names_python or words and b"python" in os.path.basename(words[0]):
        return not _is_isolated(words[1:])
    return any(b"python" in word[:_MAX_WORD] or word.endswith(b".py") for word in [path, *words]) or _is_script(path)


def _is_isolated(options: list[bytes]) -> bool:
    for option in options:
        if not option.startswith(b"-") or option[1:2] in (b"c", b"m", b"-", b""):
            return False
        if _ISOLATED.match(option):
            return True
    return False


def _is_script(path: bytes) -> bool:
    """Whether it is a script for Python, such as pip makes of an entry point."""
    try:
        with open(path, "rb") as file:
            start = file.read(_MAX_WORD)
    except OSError:
        return False
    return start.startswith(b"#!") and b"python" in start.partition(b"\n\n")[0]


def _mapping(given: Mapping[Any, Any] | None) -> dict[bytes, bytes] | None:
    return None if given is None else {os.fsencode(name): os.fsencode(value) for name, value in given.items()}


# -- the wrappers: each calls the original once -------------------------------------------------------

def _wrap_fork_exec(original: Any, environment: Any) -> Any:
    def fork_exec(words: Any, executables: Any, close: Any, keep: Any, folder: Any, variables: Any, *rest: Any) -> Any:
        given = None
        if variables is not None:
            given = dict(each.split(b"=", 1) for each in variables if b"=" in each)
        changed = environment(executables, words, given)
        if changed is not None:
            variables = [b"%s=%s" % pair for pair in changed.items()]
        _here.is_starting = True
        try:
            return original(words, executables, close, keep, folder, variables, *rest)
        finally:
            _here.is_starting = False
    return fork_exec


def _wrap_posix_spawn(original: Any, environment: Any) -> Any:
    def posix_spawn(path: Any, words: Any, variables: Any, /, **options: Any) -> Any:
        changed = environment((path,), words, _mapping(variables))
        return original(path, words, variables if changed is None else changed, **options)
    return posix_spawn


def _wrap_execve(original: Any, environment: Any) -> Any:
    def execve(path: Any, argv: Any, env: Any) -> Any:
        changed = environment((path,), argv, _mapping(env))
        return original(path, argv, env if changed is None else changed)
    return execve


def _wrap_execv(original: Any, environment: Any) -> Any:
    with_environment = os.execve             # the original: this is wrapped first

    def execv(path: Any, argv: Any, /) -> Any:
        changed = environment((path,), argv, None)
        return original(path, argv) if changed is None else with_environment(path, argv, changed)
    return execv


_STARTERS: tuple[tuple[str, str, Callable[[Any, Any], Any]], ...] = (
    ("_posixsubprocess", "fork_exec", _wrap_fork_exec),
    ("subprocess", "_fork_exec", _wrap_fork_exec),
    ("os", "posix_spawn", _wrap_posix_spawn),
    ("os", "posix_spawnp", _wrap_posix_spawn),
    ("os", "execv", _wrap_execv),
    ("os", "execve", _wrap_execve),
)
