"""The signatures of the binding table against the declarations in each interpreter's own headers.

For every interpreter with headers a C++ file includes Python.h and then redeclares, through the macros of
xpy_c_api_entries.inc, each function that the interpreter exports: a wrong signature is a conflicting declaration and
does not compile. The same in C for functions that only the private headers declare. Needs Python 3 and GCC.
"""
import collections
import glob
import json
import os
import re
import subprocess
import sys
import tempfile
import unittest

import support

ROOT = os.path.join(support.HERE, os.pardir, os.pardir)
SOURCES = os.path.join(ROOT, "debug", "tserver")
ENTRIES = os.path.join(SOURCES, "xpy_c_api_entries.inc")

# An error inside a macro is reported where the macro is used: the line of the list, which names the entry.
COMPILER_OPTIONS = ["-fsyntax-only", "-w", "-ftrack-macro-expansion=0", "-fdiagnostics-color=never", "-I", SOURCES]
CXX = ["g++", "-std=c++17", "-x", "c++"] + COMPILER_OPTIONS
CC = ["gcc", "-std=gnu11", "-x", "c", "-DPy_BUILD_CORE"] + COMPILER_OPTIONS

# ---- Differences that cannot matter ----
# PYVERSIONS: first and last version, both included. Each row has to be needed in each of its versions.

FOR_EVER = (99, 99)
Types = collections.namedtuple("Types", "result parameters")    # the header's, which are redeclared in place of ours
MACRO = "undefined before the function is redeclared"
RENAMED = "left alone: the redeclaration is renamed with it"
PRIVATE = "declared by the private headers alone: redeclared in C"
UNDECLARED = "exported, but no header declares it: nothing to compare with"
# another signature: not called through the table, but in the file that is named, and neither are these other entries
Uncalled = collections.namedtuple("Uncalled", "file others")

Difference = collections.namedtuple("Difference", "symbol first last kind reason")

INLINE_MACRO = "the macro stands for an inline copy of the function"
CONST = "const in the header or in ours alone"
LONG = "thread ids are signed there; as wide, and compared for equality alone"
HOOK = "a pointer to a function, which we only hand on"

DIFFERENCES = [Difference(*row) for row in [
    ("PyArg_ParseTupleAndKeywords", (3, 13), FOR_EVER,
     Types("int", "(PyObject*, PyObject*, const char*, const char* const*, ...)"), CONST),
    ("PyModule_GetName", (2, 7), (2, 7), Types("char*", "(PyObject*)"), CONST),
    ("PySys_GetObject", (2, 7), (2, 7), Types("PyObject*", "(char*)"), CONST),
    ("PySys_SetObject", (2, 7), (2, 7), Types("int", "(char*, PyObject*)"), CONST),
    ("PyUnicode_AsUTF8AndSize", (3, 6), (3, 6), Types("char*", "(PyObject*, Py_ssize_t*)"), CONST),
    ("PyUnicode_AsUTF8", (3, 6), (3, 6), Types("char*", "(PyObject*)"), CONST),
    ("PyThread_get_thread_ident", (2, 7), (3, 6), Types("long", "(void)"), LONG),
    ("PyThread_start_new_thread", (2, 7), (3, 6), Types("long", "(void (*)(void*), void*)"), LONG),
    ("PyThread_acquire_lock_timed", (3, 6), FOR_EVER,
     Types("PyLockStatus", "(PyThread_type_lock, long long, int)"), "an enumeration, returned as an int"),
    ("_PyInterpreterState_GetEvalFrameFunc", (3, 9), FOR_EVER,
     Types("_PyFrameEvalFunction", "(PyInterpreterState*)"), HOOK),
    ("_PyInterpreterState_SetEvalFrameFunc", (3, 9), FOR_EVER,
     Types("void", "(PyInterpreterState*, _PyFrameEvalFunction)"), HOOK),
    ("PyObject_CallMethod", (2, 7), (2, 7), Types("PyObject*", "(PyObject*, char*, char*, ...)"), CONST),
    ("PyMethod_New", (2, 7), (2, 7), Uncalled(None, ()), "2.7's third parameter is the class"),
    # the fallback of _PyThreadState_SetCurrent, its only user, passes the runtime on 3.8
    ("_PyThreadState_Init", (3, 8), (3, 8), Uncalled("xpy_c_api_backups.cpp", ("_PyThreadState_SetCurrent",)),
     "3.8's first parameter is the runtime"),

    ("PyRun_String", (2, 7), FOR_EVER, MACRO, "the macro calls PyRun_StringFlags"),
    ("PySequence_Length", (2, 7), FOR_EVER, MACRO, "the macro is PySequence_Size"),
    ("Py_FatalError", (3, 9), FOR_EVER, MACRO, "the macro adds the name of the calling function"),
    ("PyCFunction_NewEx", (3, 9), FOR_EVER, MACRO, "the macro calls PyCMethod_New"),
    ("PyVectorcall_NARGS", (3, 12), FOR_EVER, MACRO, INLINE_MACRO),
    ("PyMutex_Lock", (3, 13), FOR_EVER, MACRO, INLINE_MACRO),
    ("PyMutex_Unlock", (3, 13), FOR_EVER, MACRO, INLINE_MACRO),

    ("PyRun_String", (2, 7), (3, 7), UNDECLARED, "a macro alone"),
    ("PyEval_CallObjectWithKeywords", (3, 13), FOR_EVER, UNDECLARED, "kept for extensions built for older versions"),
    ("_PyThreadState_Init", (3, 9), (3, 12), PRIVATE, "moved to the private headers"),
    ("_PyThreadState_Init", (3, 13), FOR_EVER, UNDECLARED, "kept for extensions built for older versions"),
    ("_PyThreadState_SetCurrent", (3, 11), (3, 11), PRIVATE, "of the private headers from the start"),
]] + [
    Difference("PyUnicode" + suffix, (2, 7), (2, 7), RENAMED, "a narrow or a wide build's name")
    for suffix in ("_AsEncodedString", "_Contains", "_FromEncodedObject", "_FromFormat", "_FromFormatV",
                   "_FromString", "_FromStringAndSize", "_FromWideChar")
]

# ---- The list and the interpreters ----


def read_entries():
    """{entry: (line of the list, [symbols it is looked up by])} of the function entries."""
    entries = {}
    with open(ENTRIES) as stream:
        for number, line in enumerate(stream, 1):
            match = re.match(r"XPY_(FN|ALSO)(\w*)\s*\((.*)\)$", line.strip())
            if not match:
                continue
            words = [word.strip(' "') for word in match.group(3).split(",")]
            if match.group(1) == "FN":
                entries[words[1]] = number, [words[1]]
            else:
                symbol = words[1] + "PyUnicode" + words[2] if match.group(2) else words[1]
                entries[words[0]][1].append(symbol)
    return entries


ENTRY_LINES = read_entries()
SYMBOLS = [symbol for _, symbols in ENTRY_LINES.values() for symbol in symbols]

# Runs in the interpreter, from 2.7 on. The last line of its output counts: a start-up hook may print too.
QUESTION = """
import ctypes, json, sys, sysconfig
def exports(name):
    names = [name.replace("PyUnicode", "PyUnicode" + kind) for kind in ("", "UCS2", "UCS4")]
    return any(hasattr(ctypes.pythonapi, each) for each in names)
print(json.dumps([sysconfig.get_path("include"), [name for name in sys.argv[1:] if exports(name)]]))
"""


class Interpreter(object):
    def __init__(self, name, version, command, **_):
        self.name = name
        self.version = tuple(version[:2])
        output = subprocess.check_output(command + ["-c", QUESTION] + SYMBOLS, universal_newlines=True)
        self.include, self.exported = json.loads(output.splitlines()[-1])
        self.has_headers = os.path.isfile(os.path.join(self.include, "Python.h"))

    def options(self):
        private = os.path.join(self.include, "internal")
        # an unpacked interpreter's configuration header stands elsewhere below the folder of all headers
        return ["-I", self.include, "-I", private, "-I", os.path.join(private, "mimalloc"),
                "-idirafter", os.path.dirname(self.include)]

    def differences(self, *kinds):
        """{symbol: kind} of the rows for this version with one of these kinds, or with a kind of these types."""
        return {row.symbol: row.kind for row in DIFFERENCES
                if row.symbol in self.exported and row.first <= self.version <= row.last and
                (row.kind in kinds or type(row.kind) in kinds)}

    def left_out(self):
        return self.differences(PRIVATE, UNDECLARED, Uncalled)


def find_interpreters():
    listed = subprocess.check_output([sys.executable, os.path.join(ROOT, "tools", "interpreters"), "list", "--json"],
                                     universal_newlines=True)
    return [Interpreter(**fields) for fields in json.loads(listed)]


# ---- The generated file ----

PROLOGUE = """
#include <Python.h>
#include <frameobject.h>
#include <structmember.h>
#include <pythread.h>
#ifdef Py_BUILD_CORE
#include "internal/pycore_pystate.h"
#endif
typedef void (*XPy_FreeFunc)(void*);
typedef void* XPy_EvalFrameFunc;
#ifdef __cplusplus
#define DECLARED(symbol) typedef decltype(&symbol) declared_##symbol;
#define REDECLARE extern "C"
#else
#define DECLARED(symbol) typedef __typeof__(&symbol) declared_##symbol;
#define REDECLARE extern
#endif
"""

EXPANSION = """
#define XPY_FN(result, entry, parameters, ...) CHECK_##entry(result, parameters)
#define XPY_FN_OPT(result, entry, parameters, ...) CHECK_##entry(result, parameters)
#define XPY_FN_OR(result, entry, parameters, ...) CHECK_##entry(result, parameters)
#define XPY_FN_NEED_OR(result, entry, parameters, ...) CHECK_##entry(result, parameters)
#define XPY_FN_UNICODE(result, entry, parameters, ...) CHECK_##entry(result, parameters)
#define XPY_FN_UNICODE_OR(result, entry, parameters, ...) CHECK_##entry(result, parameters)
#define XPY_FN_FOUND(result, entry, parameters) CHECK_##entry(result, parameters)
#include "xpy_c_api_entries.inc"
"""


def macro_check(symbol, kind):
    """A macro has to be in the table, and what the table calls a macro has to be one."""
    if kind is None:
        return "#ifdef %s\n#error a macro that is not in the table\n#endif\n" % symbol
    undefine = "#undef %s\n" % symbol if kind == MACRO else ""
    return "#ifndef %s\n#error the table calls it a macro\n#endif\n" % symbol + undefine


def generate(symbols, macros, types):
    """The file that checks these symbols, some of them with other types than ours."""
    parts = [PROLOGUE]
    for symbol in symbols:
        number = SYMBOLS.index(symbol) + 1
        check = macro_check(symbol, macros.get(symbol)) + "DECLARED(%s)\n" % symbol
        parts += ['#line %d "symbols"\n%s\n' % (number, line) for line in check.splitlines()]
    for entry, (_, names) in ENTRY_LINES.items():
        text = ""
        for name in names:
            if name in symbols:
                result, parameters = types.get(name, ("result", "parameters"))
                text += " REDECLARE %s %s %s;" % (result, name, parameters)
        parts.append("#define CHECK_%s(result, parameters)%s\n" % (entry, text))
    return "".join(parts) + EXPANSION


def compile_errors(compiler, interpreter, source):
    """{symbol or entry: first error text}; {} when the file compiles. An error elsewhere fails the test."""
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "check")
        with open(path, "w") as stream:
            stream.write(source)
        result = subprocess.run(compiler + interpreter.options() + [path], stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, universal_newlines=True, env=dict(os.environ, LC_ALL="C"))
    by_line = {number: entry for entry, (number, _) in ENTRY_LINES.items()}
    errors = {}
    for line in result.stderr.splitlines():
        match = re.match(r"([^:]+):(\d+):(?:\d+:)? (?:fatal )?error: (.*)", line)
        if not match:
            continue
        file, number, text = os.path.basename(match.group(1)), int(match.group(2)), match.group(3)
        if file == "symbols":
            errors.setdefault(SYMBOLS[number - 1], text)
        elif file == os.path.basename(ENTRIES):
            errors.setdefault(by_line[number], text)
        else:
            raise AssertionError("%s: %s" % (interpreter.name, line))
    if bool(errors) != (result.returncode != 0):
        raise AssertionError(result.stderr)
    return errors


def check_public(interpreter, left_out, types):
    symbols = [symbol for symbol in interpreter.exported if symbol not in left_out]
    source = generate(symbols, interpreter.differences(MACRO, RENAMED), types)
    return compile_errors(CXX, interpreter, source)


class SignatureTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.interpreters = find_interpreters()

    def for_each(self, check):
        """Calls it with each interpreter that has headers, inside a sub-test."""
        checked = 0
        for interpreter in self.interpreters:
            with self.subTest(interpreter=interpreter.name):
                if not interpreter.has_headers:
                    self.skipTest("headers of this interpreter are not present")
                checked += 1
                check(interpreter)
        self.assertGreater(checked, 0)

    def test_list_is_read_completely(self):
        with open(ENTRIES) as stream:
            lines = [line for line in stream if re.match(r"XPY_FN\w*\s*\(", line)]
        self.assertEqual(len(ENTRY_LINES), len(lines))
        self.assertGreater(len(lines), 200)
        self.assertEqual([row.symbol for row in DIFFERENCES if row.symbol not in SYMBOLS], [])

    def test_public_declarations_agree(self):
        def check(interpreter):
            errors = check_public(interpreter, interpreter.left_out(), interpreter.differences(Types))
            self.assertEqual(errors, {})
        self.for_each(check)

    def test_private_declarations_agree(self):
        def check(interpreter):
            private = interpreter.differences(PRIVATE)
            if private:
                self.assertEqual(compile_errors(CC, interpreter, generate(private, {}, {})), {})
        self.for_each(check)

    def test_each_row_of_the_table_is_needed(self):
        entry_of = {name: entry for entry, (_, names) in ENTRY_LINES.items() for name in names}

        def check(interpreter):
            needed = set(interpreter.left_out()) | set(interpreter.differences(Types))
            found = check_public(interpreter, {}, {})
            self.assertEqual({entry_of[name] for name in found}, {entry_of[name] for name in needed})
        self.for_each(check)

    def test_wrong_signatures_do_not_compile(self):
        wrong = {
            "PyDict_New": Types("int", "(void)"),                                   # another result
            "PyList_Append": Types("int", "(PyObject*)"),                           # a parameter is missing
            "PyList_GetItem": Types("PyObject*", "(PyObject*, int)"),               # narrower
            "PyTuple_New": Types("PyObject*", "(size_t)"),                          # another sign
            "PyErr_Format": Types("PyObject*", "(PyObject*, const char*)"),         # not variadic
            "PyType_IsSubtype": Types("int", "(PyTypeObject*, PyObject*)"),         # another pointer
        }

        def check(interpreter):
            types = dict(interpreter.differences(Types), **wrong)
            errors = check_public(interpreter, interpreter.left_out(), types)
            self.assertEqual(set(errors), set(wrong))
            for symbol, text in errors.items():
                self.assertIn("conflicting declaration", text, symbol)
        self.for_each(check)

    def test_wrong_private_signature_does_not_compile(self):
        def check(interpreter):
            private = interpreter.differences(PRIVATE)
            wrong = {symbol: Types("int", "(PyThreadState*)") for symbol in private}
            if private:
                self.assertEqual(set(compile_errors(CC, interpreter, generate(private, {}, wrong))), set(private))
        self.for_each(check)

    def test_keeps_functions_of_another_signature_uncalled(self):
        for row in DIFFERENCES:
            if isinstance(row.kind, Uncalled):
                self.assertEqual(files_that_call(row.symbol), [row.kind.file] if row.kind.file else [], row.symbol)
                for other in row.kind.others:
                    self.assertEqual(files_that_call(other), [], other)


def files_that_call(entry):
    """Names of the module's source files that use the entry of the table."""
    names = []
    for path in glob.glob(os.path.join(SOURCES, "*.cpp")) + glob.glob(os.path.join(SOURCES, "*.h")):
        with open(path) as stream:
            if re.search(r"\bapi\.%s\b" % entry, stream.read()):
                names.append(os.path.basename(path))
    return sorted(names)


if __name__ == "__main__":
    unittest.main()
