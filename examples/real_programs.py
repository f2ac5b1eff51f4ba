"""The programs that the demonstration debugs: tools of the standard library.

Nobody wrote them for this purpose, and their sources differ from one Python
version to the next, so breakpoints are found by file, function and source text.
"""

import ast
import hashlib
import html.entities
import importlib.util
import io
import json
import os
import runpy
import sys
import time
import unicodedata

from filter_host import Breakpoint, HostError


class Program:
    """`main(path)` runs the tool on the input file and prints to sys.stdout.

    `breakpoints` are the arguments of `find_breakpoint` for those set by default.
    """

    def __init__(self, title, path, main, breakpoints):
        self.title = title
        self.path = path
        self.main = main
        self.breakpoints = breakpoints

    def run(self):
        """Run in this process; its output is kept, everything else is as on a terminal."""
        kept = _KeptBytes()
        stdout, argv = sys.stdout, sys.argv
        sys.stdout = io.TextIOWrapper(kept, encoding="utf-8", newline="\n")
        started = time.perf_counter()
        try:
            self.main(self.path)
            if not sys.stdout.closed:
                sys.stdout.flush()
        except SystemExit as stopped:
            if stopped.code not in (None, 0):
                raise HostError("%s ended with %r" % (self.title, stopped.code)) from None
        finally:
            seconds = time.perf_counter() - started
            sys.stdout, sys.argv = stdout, argv
        return Output(kept.digest.hexdigest(), kept.size, seconds)


class Output:
    def __init__(self, digest, size, seconds):
        self.digest = digest
        self.size = size           # bytes
        self.seconds = seconds


class _KeptBytes(io.RawIOBase):
    """Takes what the program writes; some programs close their output, so no buffer.

    It is called while the program runs: code of the host in the middle of code of
    the program, which is what the table of internal files is for.
    """

    def __init__(self):
        self.digest = hashlib.sha256()
        self.size = 0

    def writable(self):
        return True

    def write(self, data):
        self.digest.update(data)
        self.size += len(data)
        return len(data)


def make_programs(folder):
    """The programs by name; `folder` receives the input file of the first."""
    json_path = os.path.join(folder, "characters.json")
    with open(json_path, "w", encoding="utf-8") as out:
        json.dump(_real_data(), out)
    return {
        "json": Program(
            "python -m json.tool characters.json", json_path,
            lambda path: _run_module("json.tool", path),
            [("json/decoder.py", "JSONDecoder.decode", "raw_decode", "s"),
             ("json/encoder.py", "_iterencode_dict", "yield _encoder(key)", "key"),
             ("json/encoder.py", "_iterencode_list", "if isinstance(value, str)", "value"),
             ("json/tool.py", "main", "json.dump(obj", "obj")]),
        "tokenize": Program(
            "python -m tokenize _pydecimal.py", _source_of("_pydecimal"),
            lambda path: _run_module("tokenize", path),
            [("tokenize.py", "detect_encoding", "bom_found = False", "readline", True),
             ("tokenize.py", "_generate_tokens_from_c_tokenizer",
              "yield TokenInfo._make(info)", "info")]),
        "ast": Program(
            "python -m ast typing.py, ast.unparse", _source_of("typing"), _dump_and_unparse,
            [("ast.py", "dump._format", "args = []", "cls", True),
             ("ast.py", "NodeVisitor.visit", "getattr(self, method", "method"),
             ("ast.py", "unparse", None, "ast_obj")]),
    }


def _run_module(name, path):
    """What `python -m name path` does, in this process."""
    sys.argv = [name, path]
    runpy.run_module(name, run_name="__main__", alter_sys=True)


def _dump_and_unparse(path):
    _run_module("ast", path)
    with open(path, encoding="utf-8") as source:
        print(ast.unparse(ast.parse(source.read())))


def _source_of(module_name):
    return importlib.util.find_spec(module_name).origin


def _real_data():
    """Some hundred kilobytes of nested data, the same in every run of one Python."""
    characters = {}
    for number in range(0x20, 0x1000):
        character = chr(number)
        if unicodedata.name(character, None) is not None:
            characters["U+%04X" % number] = {
                "name": unicodedata.name(character),
                "category": unicodedata.category(character),
                "numeric": unicodedata.numeric(character, None),
                "mirrored": bool(unicodedata.mirrored(character)),
                "decomposition": unicodedata.decomposition(character).split(),
            }
    return {"modules": sorted(sys.stdlib_module_names),
            "entities": [[name, text] for name, text in sorted(html.entities.html5.items())],
            "characters": characters}


# -- finding breakpoints -----------------------------------------------------

def find_breakpoint(file_suffix, function=None, text=None, local=None, returns=False,
                    line=None, not_in=()):
    """The breakpoint at a place in a module that has been imported.

    The place is `line`, or the first line of `function` that contains `text`, or
    else the first line of its body.  `function` is a name or the end of a
    qualified name without "<locals>" ("Class.method", "outer.inner").  Files in
    `not_in` are not considered.  Raises HostError when there is no such place.
    """
    path = _find_file(file_suffix, not_in)
    with open(path, "rb") as file:
        source = file.read()
    codes = list(_all_code(compile(source, path, "exec", dont_inherit=True)))
    if line is not None:
        for code in reversed(codes):                  # innermost first
            if line in _lines(code):
                return Breakpoint(path, line, code.co_name, local, returns)
        raise HostError("no code on line %d of %s" % (line, path))
    found = [code for code in codes
             if ("." + _dotted(code)).endswith("." + function)]
    if not found:
        raise HostError("no function %r in %s" % (function, path))
    if len(found) > 1:
        raise HostError("%r in %s is any of %s" % (
            function, path, ", ".join(
                "%s (line %d)" % (_dotted(code), code.co_firstlineno) for code in found)))
    code = found[0]
    lines = _lines(code)
    source_lines = source.decode("utf-8", "replace").splitlines()
    line = next((number for number in sorted(lines)
                 if text is not None and text in source_lines[number - 1]),
                lines[0])
    return Breakpoint(path, line, code.co_name, local, returns)


def _find_file(file_suffix, not_in):
    paths = set()
    for module in list(sys.modules.values()):
        spec = getattr(module, "__spec__", None)
        for path in (getattr(module, "__file__", None), spec and spec.origin):
            if isinstance(path, str) and path.endswith(".py") and os.path.isfile(path):
                paths.add(os.path.abspath(path))
    # Run with run_module, these are not in sys.modules any more.
    paths.update(_source_of(name) for name in ("json.tool", "tokenize", "ast"))
    found = sorted(path for path in paths.difference(not_in)
                   if ("/" + path).endswith("/" + file_suffix.lstrip("/")))
    if not found:
        raise HostError("no imported source file ends with %r" % file_suffix)
    if len(found) > 1:
        raise HostError("%r is any of %s" % (file_suffix, ", ".join(found)))
    return found[0]


def _all_code(code):
    yield code
    for constant in code.co_consts:
        if isinstance(constant, type(code)):
            yield from _all_code(constant)


def _dotted(code):
    return code.co_qualname.replace(".<locals>", "")


def _lines(code):
    """Lines of the code in the order of its instructions, the body before the head."""
    lines = list(dict.fromkeys(line for _, _, line in code.co_lines() if line))
    return sorted(lines, key=lambda line: line == code.co_firstlineno)
