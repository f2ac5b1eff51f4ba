"""What TAB completes: the arguments of our commands, by a table, and expressions anywhere in a line."""

from __future__ import annotations

import ast
import bdb
import builtins
import pdb
import re

from brixdebug.commands.information import InformationCommands
from brixdebug.commands.processes import ProcessCommands
from brixdebug.commands.settings import SettingCommands
from brixdebug.commands.threads import ThreadCommands
from brixdebug.conditions import HIT_OPERATORS
from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable, Iterable
    from typing import Any

# The attribute chain that ends a text, and what may stand before its first dot.
_CHAIN = re.compile(r"[\w$]*(\.\w*)*$")
_BRACKETS = {")": "(", "]": "[", "}": "{"}

_INDEXED = (dict, list, tuple, str)


class CompletionCommands(ThreadCommands, ProcessCommands, InformationCommands, SettingCommands):
    """Stands before the other classes of commands: their arguments are completed here."""

    def _complete_word(self, kinds: tuple[str, ...], text: str, line: str, begidx: int, endidx: int) -> list[str]:
        """The word that is typed, which may have begun before `text`: `kinds` says what each word is, the last all others."""
        begin = line.rfind(" ", 0, begidx) + 1
        index = len(line[:begin].split()) - 1
        kind = kinds[min(index, len(kinds) - 1)]
        if kind == "expression":
            return self._complete_expression(text, line, begidx, endidx)
        if kind == "location":
            return pdb.Pdb._complete_location(self, text, line, begidx, endidx)
        typed, skipped = line[begin:endidx], begidx - begin
        words: Iterable[str] = getattr(self, "_words_of_" + kind)()
        found = sorted({each[skipped:] for each in words if each.startswith(typed)})
        return found or self._complete_expression(text, line, begidx, endidx) if kind in _WITH_EXPRESSIONS else found

    # -- the words there are of each kind ------------------------------------------------------

    def _words_of_setting(self) -> Iterable[str]:
        return self.settings

    def _words_of_switch(self) -> Iterable[str]:
        return "on", "off"

    def _words_of_topic(self) -> Iterable[str]:
        return self.info_topics

    def _words_of_thread(self) -> Iterable[str]:
        return [str(number) for number, _, _ in self._numbered_threads()]

    def _words_of_process(self) -> Iterable[str]:
        return [str(pid) for pid in self.other_processes()]

    def _words_of_breakpoint(self) -> Iterable[str]:
        return [str(number) for number, each in enumerate(bdb.Breakpoint.bpbynumber) if each is not None]

    def _words_of_watch(self) -> Iterable[str]:
        return [str(each.number) for each in monitor.watches.active]

    def _words_of_comparison(self) -> Iterable[str]:
        return HIT_OPERATORS

    def _words_of_class(self) -> Iterable[str]:
        frame = self.curframe
        names = {**vars(builtins), **({**frame.f_globals, **frame.f_locals} if frame is not None else {})}
        return ["if"] + [name for name, each in names.items() if isinstance(each, type) and issubclass(each, BaseException)]

    def _words_of_rule(self) -> Iterable[str]:
        return ["raised", "uncaught", "off", *self._words_of_class()]

    def _words_of_condition(self) -> Iterable[str]:
        return ["if"]

    # -- expressions ---------------------------------------------------------------------------

    def _complete_expression(self, text: str, line: str, begidx: int, endidx: int) -> list[str]:
        """Names and attributes, wherever in the line; an attribute may need another thread."""
        chain: Any = _CHAIN.search(text)
        before, chain = text[:chain.start()], chain.group()
        run = monitor.suspension.evaluation.run
        try:
            if chain.startswith("."):
                found = run(self._attributes_of, line[:begidx] + before, chain)
            else:
                found = run(super()._complete_expression, chain, line, begidx + len(before), endidx)
        except Exception:
            return []                 # the program's own code may be asked for attributes
        return [before + each for each in found]

    def _attributes_of(self, before: str, chain: str) -> list[str]:
        """Those of the element that stands before a dot.  Nothing is called for it."""
        source = _last_operand(before)
        if source is None or self.curframe is None:
            return []
        *path, last = chain.split(".")[1:]
        value = _evaluate(ast.parse(source, mode="eval").body, {**self.curframe.f_globals, **self.curframe.f_locals})
        for name in path:
            value = getattr(value, name)
        prefix = ".".join(["", *path, ""])
        return [prefix + each for each in dir(value) if each.startswith(last)]

    def completenames(self, text: str, line: str, begidx: int, endidx: int) -> list[str]:
        if text.startswith("!"):
            return self._complete_expression(text, line, begidx, endidx)
        return super().completenames(text, line, begidx, endidx)

    def completedefault(self, text: str, line: str, begidx: int, endidx: int) -> list[str]:
        found: list[str] = monitor.suspension.evaluation.run(super().completedefault, text, line, begidx, endidx)
        return found or self._complete_expression(text, line, begidx, endidx)

    for _name, _function in list(vars(pdb.Pdb).items()):
        if _name.startswith("complete_") and _function is pdb.Pdb._complete_expression:
            locals()[_name] = _complete_expression
    del _name, _function


# command -> the kinds of its words, the last for all that follow
# ADD-COMMAND: what TAB proposes for its arguments; no row for a command without arguments.
_ARGUMENTS: dict[str, tuple[str, ...]] = {
    "set": ("setting", "switch"),
    "info": ("topic",),
    "thread": ("thread",),
    "process": ("process",),
    "catch": ("rule", "class", "condition", "expression"),
    "hits": ("breakpoint", "comparison"),
    "condition": ("breakpoint", "expression"),
    "watch": ("expression",),
    "unwatch": ("watch",),
    "dprintf": ("location", "expression"),
}

# Kinds in whose place an expression may stand too.
_WITH_EXPRESSIONS = ("class", "rule", "condition")


def _completer_of(kinds: tuple[str, ...]) -> Callable[..., list[str]]:
    def complete(self: CompletionCommands, text: str, line: str, begidx: int, endidx: int) -> list[str]:
        return self._complete_word(kinds, text, line, begidx, endidx)
    return complete


for _command, _kinds in _ARGUMENTS.items():
    setattr(CompletionCommands, "complete_" + _command, _completer_of(_kinds))


def _last_operand(text: str) -> str | None:
    """The end of `text` that is a name with brackets behind it."""
    index = len(text)
    while index and text[index - 1] in _BRACKETS:
        depth, index = 1, index - 1
        closing = text[index]
        while index and depth:
            index -= 1
            depth += (text[index] == closing) - (text[index] == _BRACKETS[closing])
        chain: Any = _CHAIN.search(text[:index])
        index = chain.start()
    return text[index:] or None


def _evaluate(node: ast.AST, names: dict[str, Any]) -> Any:
    """The value of an expression of names, attributes, literals and elements of plain containers; ValueError for others."""
    if isinstance(node, ast.Name):
        return names[node.id]
    if isinstance(node, ast.Attribute):
        return getattr(_evaluate(node.value, names), node.attr)
    if isinstance(node, ast.Subscript):
        container = _evaluate(node.value, names)
        if type(container) in _INDEXED:
            return container[_evaluate(node.slice, names)]
        raise ValueError
    return ast.literal_eval(node)
