"""Steps that pass by the code of libraries."""

import unittest

from host_support import check_child, scratch_folder
from session import line_of, run_session, write_program

LIBRARY = """\
    def apply(function, value):
        result = function(value)                 # apply
        return helper(result)

    def helper(value):
        return value + 1                         # helper
"""

PROGRAM = """\
    import json, sys
    sys.path.insert(0, "FOLDER")
    import library

    class Encoder(json.JSONEncoder):
        def default(self, value):
            return str(value)                    # default

    def double(value):
        return value * 2                         # double

    def main():
        text = json.dumps([1, 2])                # dumps
        number = library.apply(double, 3)        # call
        text = json.dumps(main, cls=Encoder)     # encode
        number = sorted([2, 1], key=double)      # sorted
        print("end", number)                     # end

    main()
"""


class JustMyCodeTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        folder = scratch_folder(self)
        packages = folder / "environment" / "lib" / "site-packages"
        packages.mkdir(parents=True)
        self.library = write_program(packages, LIBRARY, "library.py")
        self.path = write_program(folder, PROGRAM.replace("FOLDER", str(packages)))

    def session(self, *commands):
        child = run_session("-m", "brixdebug", self.path, commands=commands)
        self.assertEqual(child.stderr, "")
        output, _, _ = child.stdout.replace("(Pdb) ", "").partition("The program finished and will be restarted")
        return output.splitlines()

    def places(self, *commands):
        """(mark of the line, function) of each stop in the program's own file."""
        marks = {line_of(self.path, mark): mark for mark in ("dumps", "call", "encode", "sorted", "end", "double", "default")}
        found = []
        for line in self.session(*commands):
            if line.startswith("> "):
                place, _, function = line[2:].rpartition(")")[0].rpartition(")")
                name, _, number = place.rpartition("(")
                found.append((marks.get(int(number), number) if name == str(self.path) else name.rpartition("/")[2],
                              function.rstrip("(")))
        return found[1:]

    def start(self, mark):
        return ["tbreak %d" % line_of(self.path, mark), "c"]

    def test_off_at_first(self):
        lines = self.session("set just-my-code", "q")
        self.assertIn("*** set just-my-code on, or off; it is off", lines)
        self.assertEqual(self.places(*self.start("dumps"), "s", "q")[-1], ("__init__.py", "dumps"))

    def test_step_passes_by_libraries_and_stops_in_ones_own_function_that_they_call(self):
        places = self.places("set just-my-code on", *self.start("dumps"), "s", "s", "s", "s", "s", "q")
        self.assertEqual([place for place in places if place[0] != "9"],
                         [("dumps", "main"), ("call", "main"), ("double", "double"), ("double", "double"), ("encode", "main")])

    def test_return_and_next_out_of_a_function_that_a_library_called(self):
        for command in ("return", "next"):
            with self.subTest(command=command):
                places = self.places("set just-my-code on", *self.start("default"), command, "next", "q")
                self.assertEqual(places, [("default", "default"), ("default", "default"), ("sorted", "main")])

    def test_breakpoints_hold_in_libraries_and_next_steps_there(self):
        places = self.places("set just-my-code on", *self.start("call"), "tbreak library.apply", "c", "next", "next", "q")
        self.assertEqual(places, [("call", "main"), ("library.py", "apply"), ("library.py", "apply"), ("library.py", "apply")])

    def test_where_folds_libraries(self):
        lines = self.session("set just-my-code on", *self.start("default"), "where", "q")
        folded = [line for line in lines if line.startswith("  [")]
        self.assertEqual(folded[-1].rpartition(":")[2], " json/__init__.py, json/encoder.py]")
        self.assertRegex(folded[-1], r"^  \[[0-9]+ frames of libraries: ")
        self.assertTrue([line for line in lines if line.startswith("> %s(%d)default()" % (self.path, line_of(self.path, "default")))])
        shown = self.session(*self.start("default"), "where", "q")
        self.assertFalse([line for line in shown if line.startswith("  [")])
        self.assertTrue([line for line in shown if line.endswith("encode()")])

    def test_where_after_restart(self):
        """What runs the program is not shown as a library's either."""
        child = run_session("-m", "brixdebug", self.path, commands=[
            "break %d" % line_of(self.path, "double"), "set just-my-code on", "restart", "continue", "where", "q"])
        self.assertEqual(child.stderr, "")
        self.assertEqual(child.stdout.count("double()"), 2, child.stdout)
        self.assertNotIn("<string>", child.stdout)

    def test_exceptions_of_libraries_stop_where_ones_own_code_gets_them(self):
        with self.path.open("a") as file:
            file.write('\ndef broken():\n    try:\n        json.loads("{")\n    except ValueError:\n        pass\nbroken()\n')
        lines = self.session("set just-my-code on", "catch raised ValueError", "c", "p __name__", "down", "p __name__", "c", "q")
        self.assertTrue([line for line in lines if line.startswith("json.decoder.JSONDecodeError: ")], lines)
        self.assertLess(lines.index("'__main__'"), lines.index("'json'"))

    def test_code_that_a_library_has_made_is_a_librarys(self):
        self.library.write_text("""\
import linecache
def make():
    text = "def made(function):\\n    return function()\\n"
    linecache.cache["<made here>"] = len(text), None, text.splitlines(True), "<made here>"
    namespace = {}
    exec(compile(text, "<made here>", "exec"), namespace)
    return namespace["made"]
""")
        self.path.write_text("import sys\nsys.path.insert(0, %r)\nimport library\nmade = library.make()\n"
                             "def own():\n    return 1             # own\nmade(own)   # made\n" % str(self.library.parent))
        lines = self.session("set just-my-code on", "tbreak 7", "c", "s", "s", "q")
        self.assertIn("> %s(6)own()" % self.path, lines)
        self.assertFalse([line for line in lines if "made here" in line], lines)

    def test_off_again(self):
        places = self.places("set just-my-code on", *self.start("dumps"), "set just-my-code off", "s", "q")
        self.assertEqual(places, [("dumps", "main"), ("__init__.py", "dumps")])

    def test_libraries_are_answered_in_native_code(self):
        folder = scratch_folder(self)
        path = write_program(folder, """\
            import json, sys
            from brixdebug.engine import Bdb
            from brixdebug.monitor import monitor
            calls = []
            def counted(callback):
                def count(code, offset):
                    calls.append(code.co_filename)
                    return callback(code, offset)
                return count
            callbacks = monitor.switches._second_callbacks
            for event in sys.monitoring.events.PY_START, sys.monitoring.events.PY_RESUME:
                callbacks[event] = counted(callbacks[event])

            class Stepper(Bdb):
                def user_line(self, frame):
                    self.set_step()
                def user_call(self, frame, arguments): pass
                def user_return(self, frame, value): pass
                def user_exception(self, frame, info): pass

            def program():
                json.dumps({"a": [1, 2, {"b": 3}]}, indent=1)
                own()
            def own():
                return 1
            json.dumps({"a": [1, 2, {"b": 3}]}, indent=1)
            stepper = Stepper()
            stepper.just_my_code = True
            stepper.runcall(program)
            print([name for name in calls if "json" in name], __file__ in calls)
        """)
        self.assertEqual(check_child(self, path), "[] True\n")


if __name__ == "__main__":
    unittest.main()
