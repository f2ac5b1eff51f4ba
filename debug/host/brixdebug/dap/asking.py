"""What requests are made of: typed access to their arguments, and the ways in which one can fail."""

from __future__ import annotations

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any


class RequestError(Exception):
    """The request cannot be served; the text is for the user, `short` for the client."""

    def __init__(self, text: str, short: str | None = None) -> None:
        super().__init__(text)
        self.short = short


class Arguments:
    """The `arguments` of one request; what has a wrong type is named."""

    def __init__(self, command: str, values: Any) -> None:
        if values is None:
            values = {}
        if not isinstance(values, dict):
            raise RequestError("%s: the arguments are no object" % command)
        self._command = command
        self.values: dict[str, Any] = values

    def _get(self, name: str, kind: type | tuple[type, ...], expected: str, default: Any) -> Any:
        value = self.values.get(name)
        if value is None:
            if default is not _NEEDED:
                return default
            raise RequestError("%s: the argument %r is missing" % (self._command, name))
        if not isinstance(value, kind) or isinstance(value, bool) and kind is not bool:
            raise RequestError("%s: %r has to be %s, not %.80r" % (self._command, name, expected, value))
        return value

    def integer(self, name: str, default: Any = None) -> Any:
        return self._get(name, int, "an integer", default)

    def needed_integer(self, name: str) -> int:
        value: int = self._get(name, int, "an integer", _NEEDED)
        return value

    def text(self, name: str, default: Any = None) -> Any:
        return self._get(name, str, "a string", default)

    def needed_text(self, name: str) -> str:
        value: str = self._get(name, str, "a string", _NEEDED)
        return value

    def flag(self, name: str) -> bool:
        value: bool = self._get(name, bool, "true or false", False)
        return value

    def object(self, name: str) -> Arguments:
        """An object inside, an empty one when it is missing."""
        return Arguments(self._command, self._get(name, dict, "an object", {}))

    def objects(self, name: str) -> list[Arguments]:
        values = self._get(name, list, "a list", [])
        return [Arguments(self._command, value) for value in values]

    def texts(self, name: str) -> list[str]:
        values = self._get(name, list, "a list", [])
        if not all(isinstance(value, str) for value in values):
            raise RequestError("%s: %r has to be a list of strings" % (self._command, name))
        return list(values)


_NEEDED: Any = object()
