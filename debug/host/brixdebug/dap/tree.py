"""Everything the client holds a number of: threads for good, frames and variables while the program stands still."""

from __future__ import annotations

import threading

import optmonitoring

from brixdebug.dap import rendering, variables
from brixdebug.dap.awaiting import awaiting_stacks, loop_of
from brixdebug.monitor import monitor
from brixdebug.suspension import debugged_frames

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Iterator
    from types import FrameType, TracebackType
    from typing import Any

    from brixdebug.dap.rendering import Boxed
    from brixdebug.dap.stopping import Stop
    from brixdebug.dap.variables import Child, Node


class Numbers:
    """Small numbers for things: what has one keeps it, and no number is given twice."""

    def __init__(self) -> None:
        self._numbers: dict[int, int] = {}
        self._things: dict[int, int] = {}
        self._last = 0
        self._lock = threading.Lock()

    def has(self, thing: int) -> bool:
        return thing in self._numbers

    def of(self, thing: int) -> int:
        with self._lock:
            if thing not in self._numbers:
                self._last += 1
                self._numbers[thing] = self._last
                self._things[self._last] = thing
            return self._numbers[thing]

    def forget(self, thing: int) -> None:
        """The thing is gone; another one in its place gets a number of its own."""
        with self._lock:
            self._things.pop(self._numbers.pop(thing, 0), None)

    def thing(self, number: int) -> int | None:
        return self._things.get(number)


def _places(frame: FrameType | None) -> Iterator[tuple[FrameType, int]]:
    while frame is not None:
        yield frame, frame.f_lineno or frame.f_code.co_firstlineno
        frame = frame.f_back


def _tracebacks(traceback: TracebackType | None) -> list[TracebackType]:
    """The innermost first, as frames are shown."""
    found = []
    while traceback is not None:
        found.append(traceback)
        traceback = traceback.tb_next
    return found[::-1]


class Frame:
    """A frame that the client has a number of."""

    def __init__(self, number: int, thread_id: int, frame: FrameType, line: int, label: str = "") -> None:
        self.number = number
        self.label = label                   # a line between frames, which stands for the next one
        self.thread_id = thread_id
        self.frame = frame
        self.line = line


class Tree:
    """The frames and variables of the stop that there is."""

    def __init__(self, boxed: Boxed) -> None:
        self.numbers = Numbers()
        self.numbers.of(threading.main_thread().ident or 0)      # always the first
        self.boxed = boxed
        self.stop: Stop | None = None
        self._frames: dict[int, Frame] = {}
        self._by_frame: dict[int, Frame] = {}
        self._awaiting: dict[int, list[Frame]] = {}      # by threads
        self._nodes: dict[int, Node] = {}
        self._frames_of_nodes: dict[int, Any] = {}       # where the expressions of a node's rows are evaluated
        self._places: dict[str, tuple[str, Any]] = {}    # data id -> expression and frame
        self._last_number = 0                # never given again: a late request must not reach something else
        self._numbering = threading.Lock()   # the stopped thread gives numbers too

    def begin(self, stop: Stop) -> None:
        self.forget()
        self.stop = stop

    def forget(self) -> None:
        """The program goes on: all numbers of frames and variables have lost their meaning, and hold nothing."""
        self.stop = None
        self._frames.clear()
        self._by_frame.clear()
        self._awaiting.clear()
        self._nodes.clear()
        self._frames_of_nodes.clear()
        self._places.clear()

    def forget_thread(self, thread_id: int) -> None:
        """One thread goes on, and the others stay where they are."""
        for number, each in list(self._frames.items()):
            if each.thread_id == thread_id:
                self._frames.pop(number, None)
                self._by_frame.pop(id(each.frame), None)
        self._awaiting.pop(thread_id, None)
        if self.stop is not None and self.stop.thread_id == thread_id:
            self.stop = None

    # -- threads and frames ------------------------------------------------------------------------

    def threads(self) -> list[tuple[int, str]]:
        """Number and name of each thread of the program, in the order of their numbers."""
        return sorted((self.thread_number(each), monitor.suspension.thread_name(each)) for each in debugged_frames())

    def thread_number(self, thread_id: int) -> int:
        """The number of a thread for clients: those of the system do not fit in theirs."""
        if not self.numbers.has(thread_id):
            for each in reversed(debugged_frames()):         # the interpreter lists the newest thread first
                self.numbers.of(each)
        return self.numbers.of(thread_id)

    def stack(self, thread_id: int) -> list[Frame]:
        """The frames of a thread that the user sees, the innermost first."""
        is_stopped = self.stop is not None and self.stop.thread_id == thread_id
        if is_stopped and self.stop is not None and self.stop.is_uncaught and self.stop.exception is not None:
            places = [(each.tb_frame, each.tb_lineno) for each in _tracebacks(self.stop.exception.__traceback__)]
            places += _places(self.stop.below.f_back if self.stop.below is not None else None)
        else:
            frame = self.stop.frame if is_stopped and self.stop is not None else debugged_frames().get(thread_id)
            places = list(_places(frame))
        return [self._numbered(thread_id, frame, line) for frame, line in places
                if not optmonitoring.IsInternalFrame(frame)]

    def stack_with_tasks(self, thread_id: int) -> list[Frame]:
        """`stack`, and below it those of the asyncio tasks that wait for the one that the thread runs."""
        frames = self.stack(thread_id)
        innermost = frames[0].frame if frames else None
        if loop_of(innermost) is not None and thread_id not in self._awaiting:
            found = self.boxed.call_each([lambda: awaiting_stacks(innermost)], lambda index: [])[0]
            self._awaiting[thread_id] = []
            for text, suspended in found if isinstance(found, list) else ():
                self._awaiting[thread_id] += self._labelled(thread_id, text, suspended)
        return frames + self._awaiting.get(thread_id, [])

    def _labelled(self, thread_id: int, text: str, frames: list[FrameType]) -> list[Frame]:
        if not frames:
            return []
        number = self._new_number()
        label = self._frames[number] = Frame(number, thread_id, frames[0], 0, text)
        return [label, *(self._numbered(thread_id, each, each.f_lineno) for each in frames)]

    def _numbered(self, thread_id: int, frame: FrameType, line: int) -> Frame:
        known = self._by_frame.get(id(frame))
        if known is None:
            number = self._new_number()
            known = Frame(number, thread_id, frame, line)
            self._by_frame[id(frame)] = self._frames[number] = known
        return known

    def _new_number(self) -> int:
        with self._numbering:
            self._last_number += 1
            return self._last_number

    def frame(self, number: int) -> Frame | None:
        return self._frames.get(number)

    # -- variables ---------------------------------------------------------------------------------

    def add(self, node: Node, frame: Any = None) -> int:
        """A number under which the client may ask for what `node` has.

        The expressions of its rows mean what they say in `frame`.
        """
        number = self._new_number()
        self._nodes[number] = node
        if frame is not None:
            self._frames_of_nodes[number] = frame
        return number

    def frame_of_node(self, number: int) -> Any:
        return self._frames_of_nodes.get(number)

    def add_place(self, expression: str, frame: Any) -> str:
        """A data id for the value of an expression, until the program goes on."""
        data_id = str(self._new_number())
        self._places[data_id] = expression, frame
        return data_id

    def place(self, data_id: str) -> tuple[str, Any] | None:
        return self._places.get(data_id)

    def node(self, number: int) -> Node | None:
        return self._nodes.get(number)

    def writable_memory(self) -> list[tuple[str, int]]:
        """Reference and size of all memory that the client knows and the program may write to."""
        return [(str(number), node.size) for number, node in list(self._nodes.items())
                if isinstance(node, variables.BytesNode) and node.is_writable]

    def rows(self, children: list[Child], is_hex: bool = False, frame: Any = None) -> list[dict[str, Any]]:
        """The protocol's form of variables: their reprs, and numbers for what can be opened."""
        shown = [child for child in children if child.get is None and not variables.is_a(child.value, variables.Node)]
        texts = iter(list(rendering.page(self.boxed, [child.value for child in shown], is_hex=is_hex)))
        return [self._row(child, texts, frame) for child in children]

    def _row(self, child: Child, texts: Any, frame: Any) -> dict[str, Any]:
        row: dict[str, Any] = {"name": child.name, "variablesReference": 0}
        hint: dict[str, Any] = {}
        if child.role:
            hint["kind"] = child.role
        if child.evaluate_name is not None:
            row["evaluateName"] = child.evaluate_name
        if variables.is_a(child.value, variables.Node):
            row["value"] = ""
            row["variablesReference"] = self.add(child.value, frame)
        elif child.get is not None:
            row["value"] = ""
            hint["lazy"] = True
            row["variablesReference"] = self.add(variables.LazyNode(child.get, child.evaluate_name), frame)
        else:
            row["value"] = next(texts)
            row.update(self.describe(child.value, child.evaluate_name, frame))
            if variables.is_a(child.value, str):
                hint["attributes"] = ["rawString"]
        if hint:
            row["presentationHint"] = hint
        return row

    def describe(self, value: Any, path: str | None, frame: Any = None) -> dict[str, Any]:
        """Type, and what can be opened, of a value."""
        # ADD-REQUEST: what answers say of a value, with the numbers that the request takes; `add` keeps them, `forget` ends them.
        about: dict[str, Any] = {"type": rendering.type_name(type(value)), "variablesReference": 0}
        node = variables.node_for(value, path, rendering.render)
        if node is not None:
            about["variablesReference"] = self.add(node, frame)
            if node.indexed_count():
                about["indexedVariables"] = node.indexed_count()
        if variables.has_memory(value):
            about["memoryReference"] = str(self.add(variables.BytesNode(value)))
        return about
