"""What is inside a value: its variables, page by page, without running more of the program than has to be.

Attributes are read from where they are kept; a property is a call, and is made when the
user asks for it.  Containers of the standard library are paged by index.
"""

from __future__ import annotations

import collections
import itertools
import sys
import types

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Buffer, Callable, Iterator, Mapping, Sequence
    from typing import Any

_SIMPLE_KEYS = (str, int, bool, float, bytes, type(None))
_NO_CHILDREN = (type(None), bool, int, float, complex, str, bytes, type(NotImplemented), type(Ellipsis),
                types.CodeType, types.BuiltinFunctionType, range)
_SEQUENCES = (list, tuple, collections.deque)
_SETS = (set, frozenset)
_TUPLE_FIELD = type(collections.namedtuple("_Sample", "field").__dict__["field"])
_MAPPINGS = (dict, types.MappingProxyType, collections.OrderedDict, collections.defaultdict, collections.Counter)


def is_a(value: object, kinds: type | tuple[type, ...]) -> bool:
    """What `isinstance` says, without asking the object, whose own `__class__` may do anything."""
    return issubclass(type(value), kinds)


class Child:
    """One variable as a row: a name and a value, or a call that gives it."""

    __slots__ = ("evaluate_name", "get", "name", "role", "value")

    def __init__(self, name: str, value: Any, evaluate_name: str | None = None, role: str = "",
                 get: Callable[[], Any] | None = None) -> None:
        self.name = name
        self.value = value
        self.evaluate_name = evaluate_name       # an expression that gives the value in the frame
        self.role = role                         # the protocol's "kind": "property", "method", ...
        self.get = get                           # set: the value is asked for when the row is opened


class Node:
    """Something that can be opened in a tree."""

    def named(self) -> list[Child]:
        return []

    def indexed_count(self) -> int:
        return 0

    def indexed(self, start: int, count: int) -> list[Child]:
        return []

    def assign(self, name: str, value: Any) -> None:
        """Raises what the assignment raises; LookupError when there is no such variable."""
        raise LookupError("it cannot be assigned to")


class NamesNode(Node):
    """The variables of a scope, or any other names and values."""

    def __init__(self, names: Callable[[], Mapping[str, Any]],
                 assign: Callable[[str, Any], None] | None = None) -> None:
        self._names = names
        self._assign = assign

    def named(self) -> list[Child]:
        return [Child(name, value, name) for name, value in _items(self._names())]

    def assign(self, name: str, value: Any) -> None:
        if self._assign is None:
            return super().assign(name, value)
        self._assign(name, value)


class FixedNode(Node):
    """Rows that are known: a group of another node's."""

    def __init__(self, children: Sequence[Child], owner: Node | None = None) -> None:
        self._children = list(children)
        self._owner = owner

    def named(self) -> list[Child]:
        return self._children

    def assign(self, name: str, value: Any) -> None:
        if self._owner is None:
            return super().assign(name, value)
        self._owner.assign(name, value)


class LazyNode(Node):
    """One value that is asked for when the row is opened."""

    def __init__(self, get: Callable[[], Any], evaluate_name: str | None) -> None:
        self._get = get
        self._evaluate_name = evaluate_name

    def named(self) -> list[Child]:
        return [Child("", self._get(), self._evaluate_name)]


class SequenceNode(Node):
    def __init__(self, value: Any, path: str | None) -> None:
        self._value = value
        self._path = path

    def named(self) -> list[Child]:
        extra = _attribute_children(self._value, self._path) if type(self._value) not in _SEQUENCES else []
        return [*extra, _length_child(self._value, self._path)]

    def indexed_count(self) -> int:
        return _length(self._value)

    def indexed(self, start: int, count: int) -> list[Child]:
        plain = _PLAIN_KINDS[type(self._value).__iter__]
        values = itertools.islice(self._value, start, start + count) if plain is collections.deque \
            else plain.__getitem__(self._value, slice(start, start + count))
        return [Child(str(index), value, self._path and "%s[%d]" % (self._path, index))
                for index, value in enumerate(values, start)]

    def assign(self, name: str, value: Any) -> None:
        self._value[int(name)] = value


class SetNode(Node):
    def __init__(self, value: Any, path: str | None) -> None:
        self._value = value
        self._path = path

    def named(self) -> list[Child]:
        return [_length_child(self._value, self._path)]

    def indexed_count(self) -> int:
        return _length(self._value)

    def indexed(self, start: int, count: int) -> list[Child]:
        values = _tried(lambda: list(itertools.islice(self._value, start, start + count)))
        return [Child(str(index), value) for index, value in enumerate(values, start)]


class MappingNode(Node):
    """A dict: its rows have the keys as names, and are paged by their order."""

    def __init__(self, value: Any, path: str | None, show_key: Callable[[Any], str]) -> None:
        self._value = value
        self._path = path
        self._show_key = show_key

    def named(self) -> list[Child]:
        extra = _attribute_children(self._value, self._path) if type(self._value) not in _MAPPINGS else []
        return [*extra, _length_child(self._value, self._path)]

    def indexed_count(self) -> int:
        return _length(self._value)

    def indexed(self, start: int, count: int) -> list[Child]:
        items = _tried(lambda: list(itertools.islice(_items_view(self._value), start, start + count)))
        return [Child(self._show_key(key), value, self._path_of(key)) for key, value in items]

    def _path_of(self, key: Any) -> str | None:
        if self._path is None or type(key) not in _SIMPLE_KEYS:
            return None
        return "%s[%r]" % (self._path, key)

    def assign(self, name: str, value: Any) -> None:
        for key, _ in _items(self._value):
            if self._show_key(key) == name:
                self._value[key] = value
                return
        raise LookupError("there is no key %s" % name)


class ObjectNode(Node):
    """Any other object: what it keeps, what its class adds, and its methods, in groups."""

    def __init__(self, value: Any, path: str | None) -> None:
        self._value = value
        self._path = path

    def named(self) -> list[Child]:
        return _attribute_children(self._value, self._path)

    def assign(self, name: str, value: Any) -> None:
        setattr(self._value, name, value)


def node_for(value: Any, path: str | None, show_key: Callable[[Any], str]) -> Node | None:
    """What `value` has inside; None when it is shown whole.  `path` is an expression that gives it, if there is one."""
    kind = type(value)
    if kind in _NO_CHILDREN:
        return None
    if path is not None and not path.isidentifier() and not path.endswith(("]", ")")) \
            and not path.replace(".", "").isidentifier():
        path = "(%s)" % path
    if is_a(value, _MAPPINGS) and kind.__iter__ in _PLAIN_KINDS:
        return MappingNode(value, path, show_key)
    if is_a(value, _SEQUENCES) and kind.__iter__ in _PLAIN_KINDS:
        return SequenceNode(value, path)
    if is_a(value, _SETS) and kind.__iter__ in _PLAIN_KINDS:
        return SetNode(value, path)
    return ObjectNode(value, path)


# A subclass that iterates in its own way is not taken for what it derives from.
_PLAIN_KINDS: dict[Any, Any] = {kind.__iter__: kind for kind in (*_SEQUENCES, *_SETS, *_MAPPINGS)}


def _length(value: Any) -> int:
    """As the standard class has it, whatever a subclass says."""
    length: int = _PLAIN_KINDS[type(value).__iter__].__len__(value)
    return length


def _length_child(value: Any, path: str | None) -> Child:
    return Child("len()", _length(value), path and "len(%s)" % path, "virtual")


# -- attributes ------------------------------------------------------------------------------------

def _attribute_children(value: Any, path: str | None) -> list[Child]:
    groups: dict[str, list[Child]] = {"special variables": [], "function variables": [], "class variables": []}
    children = []
    seen = set()
    for name, each in itertools.chain(_own_attributes(value), _slot_values(value)):
        if name not in seen:
            seen.add(name)
            child = Child(name, each, _attribute_path(path, name), "property")
            groups["special variables"].append(child) if _is_special(name) else children.append(child)
    for owner, name, each in _class_attributes(value):
        if name in seen:
            continue
        seen.add(name)
        child = _class_child(value, path, owner, name, each)
        group = "special variables" if _is_special(name) else \
            "function variables" if child.role == "method" else "class variables"
        if child.role == "property" and not _is_special(name):
            children.append(child)
        elif child.get is None:
            groups[group].append(child)
    children.sort(key=lambda child: child.name.startswith("_"))
    return [Child(title, FixedNode(rows, ObjectNode(value, path)), None, "virtual")
            for title, rows in groups.items() if rows] + children


def _is_special(name: str) -> bool:
    return name.startswith("__") and name.endswith("__")


def _attribute_path(path: str | None, name: str) -> str | None:
    return "%s.%s" % (path, name) if path is not None and name.isidentifier() else None


def _own_attributes(value: Any) -> Iterator[tuple[str, Any]]:
    """What the object's own dict has; no code of its class is run."""
    try:
        names = type.__dict__["__dict__"].__get__(value) if is_a(value, type) \
            else object.__getattribute__(value, "__dict__")
    except Exception:
        return
    if is_a(names, (dict, types.MappingProxyType)):
        for name, each in _items(names):
            if is_a(name, str):
                yield name, each


def _mro(kind: type) -> tuple[type, ...]:
    mro: tuple[type, ...] = type.__dict__["__mro__"].__get__(kind)
    return mro


def _slot_values(value: Any) -> Iterator[tuple[str, Any]]:
    for owner in _mro(type(value)):
        for name, each in _items(type.__dict__["__dict__"].__get__(owner)):
            if is_a(each, types.MemberDescriptorType) and not _is_special(name):
                try:
                    yield name, each.__get__(value)
                except Exception:            # not set
                    continue


def _class_attributes(value: Any) -> Iterator[tuple[type, str, Any]]:
    if is_a(value, (type, types.ModuleType)):
        return
    for owner in _mro(type(value)):
        if owner is not object:
            for name, each in _items(type.__dict__["__dict__"].__get__(owner)):
                if is_a(name, str) and not is_a(each, types.MemberDescriptorType):
                    yield owner, name, each


def _class_child(value: Any, path: str | None, owner: type, name: str, each: Any) -> Child:
    path = _attribute_path(path, name)
    if is_a(each, _TUPLE_FIELD):
        return Child(name, each.__get__(value), path, "property")
    if is_a(each, (property, types.GetSetDescriptorType)) or type(each).__name__ == "cached_property":
        return Child(name, None, path, "property", get=lambda: getattr(value, name))
    if is_a(each, (types.FunctionType, classmethod, staticmethod, types.MethodDescriptorType,
                         types.WrapperDescriptorType, types.ClassMethodDescriptorType, types.BuiltinFunctionType)):
        return Child(name, each, path, "method")
    return Child(name, each, path, "class")


def _items_view(names: Any) -> Any:
    """The pairs as the standard class has them, whatever a subclass makes of `items`."""
    kind: Any = _PLAIN_KINDS.get(type(names).__iter__)
    return names.items() if kind is None else kind.items(names)


def _items(names: Any) -> list[tuple[Any, Any]]:
    """The pairs at this moment; another thread may change the mapping meanwhile."""
    return _tried(lambda: list(_items_view(names)))


def _tried(take: Callable[[], list[Any]]) -> list[Any]:
    for _ in range(10):
        try:
            return take()
        except RuntimeError:                 # changed while it was walked
            continue
    return []


class BytesNode(Node):
    """Memory to be read and written: the bytes of an object."""

    def __init__(self, value: Buffer) -> None:
        self._value = value

    @property
    def size(self) -> int:
        with memoryview(self._value) as view:
            return view.nbytes

    @property
    def is_writable(self) -> bool:
        try:
            with memoryview(self._value) as view:
                return not view.readonly
        except ValueError:                   # it has been released
            return False

    def read(self, start: int, count: int) -> bytes:
        """At most `count` bytes from `start` on; nothing outside of the object."""
        with memoryview(self._value) as view:
            data = view.cast("B") if view.c_contiguous else memoryview(view.tobytes())
            return bytes(data[max(0, start):max(0, start + count)])

    def write(self, start: int, data: bytes, is_partial: bool) -> tuple[int, int]:
        """Where bytes have been written to, and how many; `is_partial`: those that fall inside of the object are enough.

        Raises TypeError for what is read-only, ValueError for what is not in one piece or has been released, LookupError
        outside of the object.
        """
        with memoryview(self._value) as view:
            if view.readonly:
                raise TypeError("it is read-only")
            if not view.c_contiguous:
                raise ValueError("it is not in one piece")
            first, end = max(0, start), min(view.nbytes, start + len(data))
            if first > end or not is_partial and end - first < len(data):
                raise LookupError("it has %d bytes" % view.nbytes)
            if first < end:
                view.cast("B")[first:end] = data[first - start:end - start]
            return first, end - first


def has_memory(value: object) -> bool:
    """Whether the bytes of `value` are shown as memory."""
    kind: Any = getattr(sys.modules.get("array"), "array", None)
    return is_a(value, (bytes, bytearray, memoryview)) or kind is not None and is_a(value, kind)
