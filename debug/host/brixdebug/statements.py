"""Statements that share a line: where each begins in the source, and at which instruction in the code."""

from __future__ import annotations

import ast
import bisect
import dis

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Iterable
    from types import CodeType

    # first line and column, last line and column; columns are bytes, from 0, as the compiler counts them
    Span = tuple[int, int, int, int]

_INSTRUCTION_BYTES = 2


def spans(tree: ast.AST) -> dict[int, list[Span]]:
    """The statements of the lines on which more than one begins, in their order."""
    found: dict[int, list[Span]] = {}
    for node in ast.walk(tree):
        if isinstance(node, ast.stmt):
            found.setdefault(node.lineno, []).append(
                (node.lineno, node.col_offset, node.end_lineno or node.lineno, node.end_col_offset or node.col_offset))
    return {line: sorted(each) for line, each in found.items() if len(each) > 1}


def with_code(found: dict[int, list[Span]], codes: Iterable[CodeType]) -> dict[int, list[Span]]:
    """Those with an instruction to stop at, after the first of each line: none where the code has no columns."""
    places: dict[int, list[Span]] = {line: [] for line in found}
    for code in codes if found else ():
        for line, end_line, column, end_column in code.co_positions():
            if line in places and end_line is not None and column is not None and end_column is not None:
                places[line].append((line, column, end_line, end_column))
    kept = {line: [span for index, span in enumerate(of_line)
                   if not index or any(_is_inside(place, span) for place in places[line])]
            for line, of_line in found.items()}
    return {line: each for line, each in kept.items() if len(each) > 1}


def _is_inside(place: Span, span: Span) -> bool:
    return place[0] == span[0] and span[:2] <= place[:2] and place[2:] <= span[2:]


def end_of_instruction(code: CodeType, offset: int) -> int:
    """Where the instruction at `offset`, with its caches, ends."""
    offsets = [each.offset for each in dis.get_instructions(code)]
    index = bisect.bisect_right(offsets, offset)
    return offsets[index] if index < len(offsets) else len(code.co_code)


def offset_in(code: CodeType, span: Span) -> int | None:
    """The first instruction of a statement; None when `code` has none of it, or no columns."""
    for index, (line, end_line, column, end_column) in enumerate(code.co_positions()):
        if line is None or end_line is None or column is None or end_column is None:
            continue
        if _is_inside((line, column, end_line, end_column), span):
            return index * _INSTRUCTION_BYTES
    return None
