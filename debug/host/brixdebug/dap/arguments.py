"""The arguments of `launch` and `attach`: one row each, with what may be given and what it means here.

They are those that Python's editors have had for years, so that a configuration written
before works when its `type` is changed.
"""

from __future__ import annotations

import os
import re
import shlex

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any

CONSOLES = ("internalConsole", "integratedTerminal", "externalTerminal")


class ArgumentError(Exception):
    """An argument that cannot be used; the text names it."""


class Settings:
    """What a session was asked for; the names are the protocol's, in Python's spelling."""

    def __init__(self, request: str) -> None:
        self.request = request
        self.program: str | None = None
        self.module: str | None = None
        self.code: str | None = None
        self.args: list[str] = []
        self.cwd: str | None = None
        self.env: dict[str, str | None] = {}                  # None: not set
        self.env_file: str | None = None
        self.python: list[str] = []                           # the command; empty: the adapter's own
        self.stop_on_entry = False
        self.just_my_code = True
        self.console = "integratedTerminal"
        self.console_title = "Python"
        self.redirect_output: bool | None = None              # None: as the console needs it
        self.show_return_value = True
        self.sub_process = True
        self.path_mappings: list[tuple[str, str]] = []        # editor's, program's
        self.rules: list[dict[str, Any]] = []
        self.connect: dict[str, Any] | None = None
        self.listen: dict[str, Any] | None = None
        self.process_id: int | None = None
        self.log_to_file: bool | str = False
        self.no_debug = False
        self.secret: str | None = None
        self.ignored: list[str] = []                          # given, and without a meaning here


# -- what an argument may be: each takes name and value, and returns what is kept -------------------

def _wrong(name: str, expected: str, value: object) -> ArgumentError:
    return ArgumentError("%r must be %s, not %.80r" % (name, expected, value))


def _text(name: str, value: Any) -> str:
    if not isinstance(value, str):
        raise _wrong(name, "a string", value)
    if "\0" in value:
        raise ArgumentError("%r has a null character in it" % name)
    return value


def _texts(name: str, value: Any) -> list[str]:
    if not isinstance(value, list):
        raise _wrong(name, "a list of strings", value)
    return [_text(name, each) if isinstance(each, str) else _number_text(name, each) for each in value]


def _number_text(name: str, value: Any) -> str:
    if isinstance(value, (int, float)) and not isinstance(value, bool):
        return str(value)                    # "args": [8080] is written often
    raise _wrong(name, "a list of strings", value)


def _texts_or_line(name: str, value: Any) -> list[str]:
    """A list, or one string that is split as a shell splits it."""
    if not isinstance(value, str):
        return _texts(name, value)
    try:
        return shlex.split(value)
    except ValueError as error:
        raise ArgumentError("%r cannot be split into words: %s" % (name, error)) from None


def _text_or_lines(name: str, value: Any) -> str:
    return value if isinstance(value, str) else "\n".join(_texts(name, value))


def _text_or_texts(name: str, value: Any) -> list[str]:
    return [_text(name, value)] if isinstance(value, str) else _texts(name, value)


def _flag(name: str, value: Any) -> bool:
    if not isinstance(value, bool):
        raise _wrong(name, "true or false", value)
    return value


def _flag_or_text(name: str, value: Any) -> bool | str:
    return value if isinstance(value, bool) else _text(name, value)


def _console(name: str, value: Any) -> str:
    if value not in CONSOLES:
        raise _wrong(name, "one of " + ", ".join(CONSOLES), value)
    return str(value)


def _environment(name: str, value: Any) -> dict[str, str | None]:
    if not isinstance(value, dict):
        raise _wrong(name, "an object of names and strings", value)
    kept: dict[str, str | None] = {}
    for key, each in value.items():
        if not key or "=" in key or "\0" in key:
            raise ArgumentError("%r has a name that no variable can have: %r" % (name, key))
        kept[key] = None if each is None else \
            _text(name, each) if isinstance(each, str) else _number_text(name, each)
    return kept


def _process_id(name: str, value: Any) -> int:
    if isinstance(value, str) and value.isascii() and value.isdigit():
        value = int(value)
    if not isinstance(value, int) or isinstance(value, bool) or value <= 0:
        raise _wrong(name, "the number of a process", value)
    return value


def _end_point(name: str, value: Any) -> dict[str, Any]:
    """`{"host": ..., "port": ...}`, or `{"path": ...}` for a Unix socket."""
    if isinstance(value, (int, str)) and not isinstance(value, bool):
        value = {"port": value}
    if not isinstance(value, dict):
        raise _wrong(name, 'an object like {"host": "127.0.0.1", "port": 5678}', value)
    if "path" in value:
        return {"path": _text(name + ".path", value["path"])}
    port = value.get("port")
    if isinstance(port, str) and port.isascii() and port.isdigit():
        port = int(port)
    if not isinstance(port, int) or isinstance(port, bool) or not 0 <= port <= 65535:
        raise _wrong(name + ".port", "a number from 0 to 65535", port)
    return {"host": _text(name + ".host", value.get("host", "127.0.0.1")), "port": port}


def _mappings(name: str, value: Any) -> list[tuple[str, str]]:
    if not isinstance(value, list) or not all(isinstance(each, dict) for each in value):
        raise _wrong(name, 'a list of objects with "localRoot" and "remoteRoot"', value)
    return [(_text(name + ".localRoot", each.get("localRoot")),
             _text(name + ".remoteRoot", each.get("remoteRoot"))) for each in value]


def _rules(name: str, value: Any) -> list[dict[str, Any]]:
    if not isinstance(value, list):
        raise _wrong(name, "a list of objects", value)
    for each in value:
        if not isinstance(each, dict) or not isinstance(each.get("include"), bool) \
                or isinstance(each.get("path"), str) == isinstance(each.get("module"), str):
            raise _wrong(name, 'a list of objects with "include" and one of "path" and "module"', each)
    return list(value)


_LAUNCH, _ATTACH, _BOTH = ("launch",), ("attach",), ("launch", "attach")

# name in the protocol, requests that have it, what it may be, field of Settings
_ROWS: tuple[tuple[str, tuple[str, ...], Callable[[str, Any], Any], str], ...] = (
    ("program", _LAUNCH, _text, "program"),
    ("module", _LAUNCH, _text, "module"),
    ("code", _LAUNCH, _text_or_lines, "code"),
    ("args", _LAUNCH, _texts_or_line, "args"),
    ("cwd", _LAUNCH, _text, "cwd"),
    ("env", _LAUNCH, _environment, "env"),
    ("envFile", _LAUNCH, _text, "env_file"),
    ("python", _LAUNCH, _text_or_texts, "python"),
    ("pythonPath", _LAUNCH, _text_or_texts, "python"),
    ("pythonArgs", _LAUNCH, _texts_or_line, "_python_args"),
    ("stopOnEntry", _LAUNCH, _flag, "stop_on_entry"),
    ("console", _LAUNCH, _console, "console"),
    ("consoleTitle", _LAUNCH, _text, "console_title"),
    ("consoleName", _LAUNCH, _text, "console_title"),
    ("noDebug", _LAUNCH, _flag, "no_debug"),
    ("sudo", _LAUNCH, _flag, "_sudo"),
    ("justMyCode", _BOTH, _flag, "just_my_code"),
    ("redirectOutput", _BOTH, _flag, "redirect_output"),
    ("showReturnValue", _BOTH, _flag, "show_return_value"),
    ("subProcess", _BOTH, _flag, "sub_process"),
    ("pathMappings", _BOTH, _mappings, "path_mappings"),
    ("rules", _BOTH, _rules, "rules"),
    ("logToFile", _BOTH, _flag_or_text, "log_to_file"),
    ("connect", _ATTACH, _end_point, "connect"),
    ("listen", _ATTACH, _end_point, "listen"),
    ("host", _ATTACH, _text, "_host"),
    ("port", _ATTACH, lambda name, value: _end_point(name, {"port": value})["port"], "_port"),
    ("processId", _ATTACH, _process_id, "process_id"),
    ("secret", _BOTH, _text, "secret"),
)
_BY_NAME = {row[0]: row for row in _ROWS}

# What holds for the children of a program as for itself.
INHERITED = ("justMyCode", "redirectOutput", "showReturnValue", "subProcess", "pathMappings", "rules", "logToFile")

# What editors put beside their users' own arguments: nothing to be said of.
_EDITORS_OWN = frozenset((
    "name", "type", "request", "presentation", "internalConsoleOptions", "preLaunchTask", "postDebugTask",
    "debugServer", "serverReadyAction", "restart", "windows", "linux", "osx", "purpose",
    "suppressMultipleSessionWarning", "workspaceFolder"))


def parse(request: str, arguments: Any) -> Settings:
    """The settings of a `launch` or `attach`; ArgumentError names what is wrong."""
    if not isinstance(arguments, dict):
        raise ArgumentError("%s needs arguments" % request)
    settings = Settings(request)
    extra: dict[str, Any] = {}
    for name, value in arguments.items():
        row = _BY_NAME.get(name)
        if row is None or request not in row[1]:
            if name not in _EDITORS_OWN and not name.startswith("_"):
                settings.ignored.append(name)
        elif value is not None:
            target = extra if row[3].startswith("_") else settings.__dict__
            target[row[3]] = row[2](name, value)
    if arguments.get("python") is not None and arguments.get("pythonPath") is not None:
        raise ArgumentError("'pythonPath' is an older name for 'python': one of them is enough")
    _finish(settings, extra)
    return settings


def ignored_text(settings: Settings) -> str:
    """What is to be said where there are arguments without a meaning."""
    return "These settings have no effect here: %s\n" % ", ".join(sorted(settings.ignored))


def _finish(settings: Settings, extra: dict[str, Any]) -> None:
    """What arguments mean together."""
    settings.python = settings.python + extra.get("_python_args", []) if settings.python \
        else [""] + extra["_python_args"] if "_python_args" in extra else []
    if extra.get("_sudo"):
        raise ArgumentError("'sudo' is not supported: start the program with `sudo python -m brixdebug --listen "
                            "PORT PROGRAM` in a terminal, and attach to it")
    if settings.request == "launch":
        given = [name for name in ("program", "module", "code") if getattr(settings, name)]
        if len(given) != 1:
            raise ArgumentError("launch needs one of 'program', 'module' and 'code'%s"
                                % ("; given are " + " and ".join(map(repr, given)) if given else ""))
        return
    if "_host" in extra and "_port" not in extra:
        raise ArgumentError("'host' needs 'port'")
    given = [name for name, value in (("connect", settings.connect), ("listen", settings.listen),
                                      ("processId", settings.process_id), ("port", extra.get("_port"))) if value is not None]
    if given == ["port"]:
        settings.connect = {"host": extra.get("_host", "127.0.0.1"), "port": extra["_port"]}
    if len(given) > 1:
        raise ArgumentError("attach needs one of 'connect', 'listen' and 'processId'; given are "
                            + " and ".join(map(repr, given)))


_ENV_LINE = re.compile(r"\s*(?:export\s+)?([A-Za-z_][A-Za-z0-9_.]*)\s*=\s*(.*?)\s*\Z", re.DOTALL)


def read_env_file(path: str) -> dict[str, str]:
    """The variables of a file of `NAME=value` lines; ArgumentError when it cannot be read."""
    variables: dict[str, str] = {}
    try:
        with open(path, encoding="utf-8") as file:
            lines = file.read().splitlines()
    except (OSError, UnicodeDecodeError) as error:
        raise ArgumentError("'envFile' cannot be read: %s" % error) from None
    for number, line in enumerate(lines, 1):
        if not line.strip() or line.lstrip().startswith("#"):
            continue
        match = _ENV_LINE.match(line)
        if match is None:
            raise ArgumentError("'envFile': line %d of %s is not NAME=value" % (number, path))
        variables[match[1]] = _unquoted(match[2])
    return variables


def _unquoted(value: str) -> str:
    if len(value) >= 2 and value[0] == value[-1] and value[0] in "'\"":
        inner = value[1:-1]
        return inner if value[0] == "'" else inner.replace("\\n", "\n").replace('\\"', '"')
    return re.sub(r"\s+#.*\Z", "", value)


def environment_of(settings: Settings) -> dict[str, str | None]:
    """What is set, or not set (None), beside what the program's process has anyway."""
    variables: dict[str, str | None] = {}
    if settings.env_file:
        variables.update(read_env_file(os.path.join(settings.cwd or "", settings.env_file)))
    variables.update(settings.env)
    return variables
