"""The argument parser of the fast-call methods, seen through the module's functions and class methods."""

import ctypes
import sys
import unittest

import support

if hasattr(sys, "monitoring"):
    optmonitoring = support.load()
    py_object = ctypes.py_object

MISSING = "argument is missing"
BOTH = "argument has both a positional value and a keyword value"
EXCESS_KEYWORDS = "Excess keyword arguments passed to function"
EXCESS_POSITIONAL = "Excess positional arguments passed to function"
OFFSET_FLAG = 1 << 63           # on the positional count: the interpreter may use the place before the vector


def _vector(values):
    return (ctypes.py_object * len(values))(*values) if values else None


def vectorcall(function, positional=(), keywords=(), names=None, flag=0):
    """Call through the interpreter. NAMES is passed as it is in place of the names in KEYWORDS, pairs."""
    call = ctypes.PYFUNCTYPE(py_object, py_object, ctypes.c_void_p, ctypes.c_size_t, ctypes.c_void_p)(
        ("PyObject_Vectorcall", ctypes.pythonapi))
    names = tuple(name for name, _ in keywords) if names is None else names
    vector = _vector(list(positional) + [value for _, value in keywords])
    return call(function, ctypes.addressof(vector) if vector else None, len(positional) | flag, id(names))


def direct_call(function, positional=(), values=(), names=None, flag=0):
    """Call the C function itself; NAMES may be any object, None is passed as a null pointer."""
    get_function = ctypes.pythonapi.PyCFunction_GetFunction
    get_function.restype, get_function.argtypes = ctypes.c_void_p, [py_object]
    call = ctypes.PYFUNCTYPE(py_object, py_object, ctypes.c_void_p, ctypes.c_size_t, ctypes.c_void_p)(
        get_function(function))
    vector = _vector(list(positional) + list(values))
    return call(optmonitoring, ctypes.addressof(vector) if vector else None, len(positional) | flag,
                None if names is None else id(names))


def new_code():
    return compile("pass", "<fastargs>", "exec")


class FastArgs(unittest.TestCase):

    def setUp(self):
        optmonitoring.reset()
        self.kind = optmonitoring.GetPathnameKind
        self.get = optmonitoring.CPerCodeObject.GetPerCodeObject

    def fails(self, message, function, *args, **kwargs):
        with self.assertRaises(TypeError) as caught:
            function(*args, **kwargs)
        self.assertIs(type(caught.exception), TypeError)
        self.assertEqual(str(caught.exception), message)


@support.needs_monitoring
class EveryFunctionTest(FastArgs):
    """Each fast-call method with its arguments' names, positions and defaults."""

    def test_functions_without_arguments(self):
        for function in (optmonitoring.reset, optmonitoring.UpdateThisProcessPid):
            self.assertIsNone(function())
            self.assertIsNone(function(*(), **{}))
            self.fails(EXCESS_POSITIONAL, function, None)
            self.fails(EXCESS_KEYWORDS, function, a=None)
            self.fails(EXCESS_KEYWORDS, function, None, a=None)

    def test_functions_with_one_required_argument(self):
        m = optmonitoring
        for function, name, value in [
                (m.GetPathnameKind, "pathname", "/a.py"), (m.SetInternalPathnameDict, "d", {}),
                (m.IsInternalFrame, "frame", None), (m.AddToThreadStateTracing, "count", 0),
                (m.CPerFile.SetNewPerFileCreatedCallback, "callback", None),
                (m.CPerThread.SetNewPerThreadCreatedCallback, "callback", None),
                (m.CPerThread.SetDebugPolicyCallback, "callback", None),
                (m.CPerThread.SetGetThreadNameCallback, "callback", None),
                (m.CPerCodeObject.SetNewPerCodeObjectCreatedCallback, "callback", None)]:
            self.assertEqual(function(value), function(**{name: value}))
            self.fails(MISSING, function)
            self.fails(BOTH, function, value, **{name: value})
            self.fails(EXCESS_POSITIONAL, function, value, value)
            self.fails(EXCESS_POSITIONAL, function, value, value, value)
            self.fails(EXCESS_KEYWORDS, function, value, other=value)
            self.fails(EXCESS_KEYWORDS, function, other=value, **{name: value})
            self.fails(MISSING, function, other=value)
            self.fails(MISSING, function, **{name.upper(): value})
            self.fails(MISSING, function, **{name + "x": value})
            self.fails(MISSING, function, **{name[:-1]: value})
            self.fails(MISSING, function, **{"": value})

    def test_optional_argument(self):
        get = optmonitoring.GetNonInternalFrame
        here = sys._getframe()
        self.assertIs(get(), here)
        self.assertIs(get(None), here)
        self.assertIs(get(back_count=0), here)
        self.fails(BOTH, get, 0, back_count=0)
        self.fails(EXCESS_POSITIONAL, get, 0, 0)
        self.fails(EXCESS_KEYWORDS, get, Back_count=0)
        self.fails(EXCESS_KEYWORDS, get, 0, count=0)

    def test_any_mix_of_positions_and_keywords(self):
        code = new_code()
        record = self.get(code)
        frame = None
        for args, kwargs in [
                ((code,), {}), ((code, False), {}), ((code, False, frame), {}), ((code,), {"create": False}),
                ((code,), {"frame": frame}), ((code, False), {"frame": frame}),
                ((code,), {"frame": frame, "create": False}), ((), {"code_object": code}),
                ((), {"frame": frame, "create": False, "code_object": code}),
                ((), {"create": False, "code_object": code})]:
            self.assertIs(self.get(*args, **kwargs), record, (args, kwargs))

    def test_defaults_of_several_arguments(self):
        self.assertIsNone(self.get(new_code(), False))
        self.assertIsNone(self.get(new_code(), create=None))
        self.assertIsInstance(self.get(new_code()), optmonitoring.CPerCodeObject)
        self.assertIsInstance(self.get(frame=sys._getframe(), code_object=new_code()), optmonitoring.CPerCodeObject)

    def test_errors_with_several_arguments(self):
        code = new_code()
        self.fails(MISSING, self.get)
        self.fails(MISSING, self.get, create=True, frame=None)
        self.fails(BOTH, self.get, code, code_object=code)
        self.fails(BOTH, self.get, code, True, create=True)
        self.fails(BOTH, self.get, code, True, None, frame=None)
        self.fails(EXCESS_POSITIONAL, self.get, code, True, None, None)
        self.fails(EXCESS_KEYWORDS, self.get, code, other=1)
        self.fails(EXCESS_KEYWORDS, self.get, code, True, None, other=1)

    def test_first_problem_is_reported(self):
        code = new_code()
        # descriptors in order, then excess keywords, then excess positional values
        self.fails(BOTH, self.get, code, True, code_object=code, other=1)
        self.fails(MISSING, self.get, create=True, other=1)
        self.fails(EXCESS_KEYWORDS, self.get, code, True, None, None, other=1)

    def test_other_methods_with_two_arguments(self):
        per_file = optmonitoring.CPerFile.GetPerFile
        self.assertIsNone(per_file(create=False, pathname="/fastargs/a.py"))
        self.assertIs(per_file("/fastargs/a.py"), per_file("/fastargs/a.py", create=False))
        self.fails(MISSING, per_file, create=False)
        self.fails(EXCESS_POSITIONAL, per_file, "/fastargs/a.py", False, 1)
        per_thread = optmonitoring.CPerThread.GetPerThread
        self.assertIsNone(per_thread(thread_id=1, create=False))
        self.assertIs(per_thread(create=True), per_thread(None, False))
        self.fails(BOTH, per_thread, None, thread_id=None)
        self.fails(EXCESS_KEYWORDS, per_thread, name=1)
        with_checksum = optmonitoring.CPerFile.GetPerFileSetForChecksum
        self.assertEqual(with_checksum(checksum="sum"), with_checksum("sum"))
        self.fails(MISSING, with_checksum)


@support.needs_monitoring
class KeywordNamesTest(FastArgs):
    """Names that only a caller in C can pass."""

    def test_calls_through_the_vector_protocol(self):
        self.assertEqual(vectorcall(self.kind, ["<x>"]), 4)
        self.assertEqual(vectorcall(self.kind, [], [("pathname", "<x>")]), 4)
        code = new_code()
        self.assertIsNone(vectorcall(self.get, [code], [("frame", None), ("create", False)]))

    def test_null_and_empty_names_mean_no_keywords(self):
        self.assertEqual(direct_call(self.kind, ["<x>"]), 4)
        self.assertEqual(direct_call(self.kind, ["<x>"], names=()), 4)
        self.fails(MISSING, direct_call, self.kind, names=())

    def test_offset_flag_of_the_count_is_masked_off(self):
        self.assertEqual(vectorcall(self.kind, ["<x>"], flag=OFFSET_FLAG), 4)
        self.assertEqual(direct_call(self.kind, ["<x>"], flag=OFFSET_FLAG), 4)
        self.assertEqual(direct_call(self.kind, [], ["<x>"], ("pathname",), flag=OFFSET_FLAG), 4)
        self.fails(MISSING, direct_call, self.kind, flag=OFFSET_FLAG)
        self.fails(EXCESS_POSITIONAL, direct_call, self.kind, ["a", "b"], flag=OFFSET_FLAG)

    def test_keyword_values_follow_the_positional_ones(self):
        self.fails(EXCESS_KEYWORDS, vectorcall, self.kind, ["<x>"], [("other", "/a.py")])
        self.fails(BOTH, vectorcall, self.kind, ["<x>"], [("other", "/a.py"), ("pathname", "b")])

    def test_a_name_given_twice_is_in_excess(self):
        self.fails(EXCESS_KEYWORDS, vectorcall, self.kind, [], [("pathname", "<x>"), ("pathname", "/a.py")])

    def test_first_of_two_equal_names_counts(self):
        code = new_code()
        self.fails(EXCESS_KEYWORDS, vectorcall, self.get, [], [("code_object", code), ("code_object", 1)])

    def test_name_that_is_no_str_fails_when_it_is_reached(self):
        with self.assertRaises(TypeError) as caught:
            vectorcall(self.kind, [], [(1, "/a.py"), ("pathname", "<x>")])
        self.assertEqual(str(caught.exception), "bad argument type for built-in operation")
        # behind the match it is not read, and counts as one name too many
        self.fails(EXCESS_KEYWORDS, vectorcall, self.kind, [], [("pathname", "<x>"), (1, "/a.py")])

    def test_name_that_is_no_str_fails_with_a_positional_value_too(self):
        self.fails("bad argument type for built-in operation", vectorcall, self.kind, ["<x>"], [(1, "/a.py")])

    def test_name_that_is_no_str_is_not_read_without_descriptors(self):
        self.fails(EXCESS_KEYWORDS, vectorcall, optmonitoring.reset, [], [(1, "/a.py")])

    def test_name_without_utf8_fails_with_the_interpreters_exception(self):
        with self.assertRaises(UnicodeEncodeError):
            self.kind(**{"\udc80": "/a.py"})
        with self.assertRaises(UnicodeEncodeError):
            self.kind("/a.py", **{"\udc80": "/a.py"})

    def test_names_are_compared_as_c_strings(self):
        self.assertEqual(self.kind(**{"pathname\0rest": "<x>"}), 4)
        self.fails(MISSING, self.kind, **{"path\0name": "<x>"})
        self.fails(MISSING, self.kind, **{"p\u00e1thname": "<x>"})

    def test_names_that_are_no_tuple_fail(self):
        with self.assertRaises(SystemError):
            direct_call(self.kind, ["<x>"], names=["pathname"])

    def test_subclass_of_str_as_name(self):
        class Name(str):
            pass

        self.assertEqual(vectorcall(self.kind, [], [(Name("pathname"), "<x>")]), 4)


@support.needs_monitoring
class ReferencesTest(FastArgs):
    """Values are borrowed: no call changes a count for good."""

    def test_counts_after_good_and_bad_calls(self):
        value = "".join(["<", "references>"])
        before = sys.getrefcount(value)
        for _ in range(10):
            self.kind(value)
            self.kind(pathname=value)
            self.fails(BOTH, self.kind, value, pathname=value)
            self.fails(EXCESS_POSITIONAL, self.kind, value, value)
            self.fails(EXCESS_KEYWORDS, self.kind, value, other=value)
        self.assertEqual(sys.getrefcount(value), before)

    def test_defaults_are_not_counted(self):
        out = support.check_child(self, """
import sys, support
m = support.load()
before = sys.getrefcount(True), sys.getrefcount(None)
code = compile("pass", "<x>", "exec")
for _ in range(1000):
    m.CPerCodeObject.GetPerCodeObject(code, create=False)
    m.GetNonInternalFrame()
print(abs(sys.getrefcount(True) - before[0]) < 10, abs(sys.getrefcount(None) - before[1]) < 10)
""")
        self.assertEqual(out, "True True\n")

    def test_calls_do_not_leak(self):
        def use():
            self.kind("<x>")
            for args, kwargs in [((), {}), (("a", "b"), {}), (("a",), {"pathname": "a"}), (("a",), {"x": 1})]:
                try:
                    self.kind(*args, **kwargs)
                except TypeError:
                    pass

        support.assert_no_leak(self, use)


if __name__ == "__main__":
    unittest.main()
