"""Runs a program the way the interpreter would: as `__main__`, with its own arguments and its own tracebacks."""

from __future__ import annotations

import builtins
import importlib.machinery
import os
import runpy
import signal
import sys
import types

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from types import CodeType, FrameType, TracebackType
    from typing import Any

_runpy: Any = runpy

_ZIP_END = b"PK\5\6"                         # begins the last record of a zip file, which may end in a comment
_MOST_ZIP_END = 22 + 0xffff


def _cached(path: str | None) -> dict[str, str | None]:
    """What modules have of their compiled file's name."""
    return {"__cached__": path} if sys.version_info < (3, 15) else {}         # PYVERSIONS


class Program:
    """What is to be run: code, and the module that it runs in."""

    def __init__(self, kind: str, name: str, arguments: list[str]) -> None:
        """`kind`: "program" (a file or folder), "module" or "code".  Raises ImportError or OSError."""
        module = types.ModuleType("__main__")
        names = module.__dict__
        names.update(__builtins__=builtins, __spec__=None, __package__=None, __loader__=None)
        if sys.version_info < (3, 14):                                        # PYVERSIONS
            names["__annotations__"] = {}
        self.name = name
        self.was_interrupted = False
        self._load: Callable[[], CodeType]
        if kind == "module":
            sys.path[0:0] = [os.getcwd()]
            sys.argv[:] = ["-m", *arguments]
            _, spec, code = _runpy._get_module_details(name)
            names.update(__file__=spec.origin, **_cached(spec.cached), __loader__=spec.loader, __spec__=spec,
                         __package__=spec.parent)
            sys.argv[:] = [spec.origin, *arguments]
            self._load = lambda: code
        elif kind == "code":
            sys.path[0:0] = [""]
            sys.argv[:] = ["-c", *arguments]
            self._load = lambda: compile(name, "<string>", "exec", dont_inherit=True)
            self.name = "-c"
        elif os.path.isdir(name) or _is_zip_file(name):
            sys.path[0:0] = [name]
            sys.argv[:] = [name, *arguments]
            _, spec, code = _runpy._get_main_module_details()
            names.update(__file__=spec.origin, **_cached(spec.cached), __loader__=spec.loader, __spec__=spec, __package__="")
            self._load = lambda: code
        else:
            path = os.path.abspath(name)
            sys.path[0:0] = [os.path.dirname(os.path.realpath(path))]
            sys.argv[:] = [name, *arguments]
            names.update(__file__=path, **_cached(None),
                         __loader__=importlib.machinery.SourceFileLoader("__main__", path))
            self._load = lambda: _compiled(path)
        self.module = module

    def run(self, on_exception: Callable[[BaseException, FrameType], None]) -> int:
        """Run it to its end; the exit status that it asks for.  Nothing gets out of here.

        `on_exception` is called with an exception that nobody has caught, before it is reported.
        """
        sys.modules["__main__"] = self.module
        try:
            exec(self._load(), self.module.__dict__)
        except SystemExit as error:
            return _exit_status(error.code)
        except BaseException as error:
            self.was_interrupted = isinstance(error, KeyboardInterrupt)
            error.__traceback__ = _programs_part(error.__traceback__)
            on_exception(error, sys._getframe())
            return _report(error)
        return 0


def _is_zip_file(path: str) -> bool:
    """Whether the interpreter takes it for one, by its end; `zipfile` is not imported for other files."""
    with open(path, "rb") as file:
        file.seek(max(0, os.path.getsize(path) - _MOST_ZIP_END))
        if _ZIP_END not in file.read():
            return False
    import zipfile

    return zipfile.is_zipfile(path)


def _compiled(path: str) -> CodeType:
    with open(path, "rb") as file:
        return compile(file.read(), path, "exec", dont_inherit=True)


def _exit_status(code: object) -> int:
    if code is None:
        return 0
    if isinstance(code, int):
        return code & 0xff
    print(code, file=sys.stderr)
    return 1


def _report(error: BaseException) -> int:
    """What the interpreter does with an exception that nobody has caught, without the frames from here."""
    sys.last_type, sys.last_value, sys.last_traceback = type(error), error, error.__traceback__
    sys.last_exc = error
    try:
        sys.excepthook(type(error), error, error.__traceback__)
    except BaseException:
        sys.__excepthook__(type(error), error, error.__traceback__)
    return 128 + signal.SIGINT if isinstance(error, KeyboardInterrupt) else 1


def _programs_part(traceback: TracebackType | None) -> TracebackType | None:
    while traceback is not None and traceback.tb_frame.f_code.co_filename == __file__:
        traceback = traceback.tb_next
    return traceback
