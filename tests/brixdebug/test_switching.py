"""What the debugger has switched on in `sys.monitoring`, and when: nothing that it does not need.

And what that must not cost: a breakpoint holds wherever and whenever it is set.
"""

import textwrap
import unittest

from host_support import check_child, scratch_folder
from session import write_program

# Of every child: a debugger that notes its stops, and what it takes to see what is switched on.
PRELUDE = """\
    import sys, threading
    from brixdebug import engine
    from brixdebug.monitor import monitor

    E = sys.monitoring.events
    NAMES = ("PY_START", "PY_RESUME", "PY_THROW", "PY_RETURN", "PY_YIELD", "PY_UNWIND", "RAISE", "LINE", "JUMP",
             "STOP_ITERATION", "INSTRUCTION")

    class Debugger(engine.Bdb):
        def __init__(self):
            super().__init__()
            self.stops = []
            self.command = self.set_continue
        def user_line(self, frame):
            self.stops.append((frame.f_code.co_name, frame.f_lineno))
            self.command()
        def begin(self):
            self.reset()
            self.botframe = sys._getframe(1)
            self.set_continue()
            self.start_trace()
        def lines(self):
            return [line for _, line in self.stops]

    def tools():
        return [sys.monitoring.get_tool(number) for number in range(6)]

    def names(events):
        return sorted(name for name in NAMES if events & getattr(E, name))

    def filter_id():
        return tools().index("brixdebug filter")

    def global_events():
        return names(sys.monitoring.get_events(filter_id()))

    def local_events(code):
        return names(sys.monitoring.get_local_events(filter_id(), code))

    def first_line(function):
        return function.__code__.co_firstlineno

    debugger = Debugger()
    """

NOTHING = "[None, None, None, None, None, None]"
FIND = "['PY_RESUME', 'PY_START', 'PY_THROW']"


# CHANGE-ANSWER: what the debugger has switched on and off.
class SwitchingTestCase(unittest.TestCase):

    def setUp(self):
        self.folder = scratch_folder(self)

    def run_program(self, text, **environment):
        program = write_program(self.folder, textwrap.dedent(PRELUDE) + textwrap.dedent(text))
        return check_child(self, program, cwd=self.folder, **environment)

    def check(self, text, *lines, **environment):
        self.assertEqual(self.run_program(text, **environment).splitlines(), list(lines))


class NothingTest(SwitchingTestCase):

    def test_import_takes_nothing(self):
        self.check("import brixdebug; print(tools())", NOTHING)

    def test_without_breakpoints_and_steps_nothing_is_on(self):
        self.check("""\
            def function(): return 1
            debugger.begin()
            print(tools())
            function()
            debugger.set_break(__file__, first_line(function))
            print(tools())
            debugger.clear_all_breaks()
            print(tools())
            debugger.stop_trace()
            """, NOTHING, "['brixdebug', None, None, None, 'brixdebug filter', None]", NOTHING)

    def test_after_continue_without_breakpoints_nothing_is_on(self):
        self.check("""\
            debugger.set_trace()
            here = 1
            print(tools(), len(debugger.stops))
            here = 2
            print(len(debugger.stops))
            """, NOTHING + " 1", "1")

    def test_everything_is_given_back_at_the_end(self):
        """Ids, events, callbacks, and the places that were switched off."""
        self.check("""\
            def function():
                return 1
            def other():
                return function()
            debugger.set_break(__file__, first_line(function) + 1)
            debugger.begin()
            tool = filter_id()
            other(), other()
            debugger.stop_trace()
            print(tools(), len(debugger.stops))
            seen = []
            for number in (0, tool):
                sys.monitoring.use_tool_id(number, "another")
                callbacks = [sys.monitoring.register_callback(number, getattr(E, name), None) for name in NAMES]
                locals_on = [sys.monitoring.get_local_events(number, each.__code__) for each in (function, other)]
                print(callbacks == [None] * len(NAMES), locals_on, sys.monitoring.get_events(number))
                sys.monitoring.register_callback(number, E.PY_START, lambda code, _: seen.append(code.co_name))
                sys.monitoring.set_events(number, E.PY_START)
                other()
                sys.monitoring.set_events(number, 0)
                sys.monitoring.free_tool_id(number)
            print(seen.count("other"), seen.count("function"))
            """, NOTHING + " 2", "True [0, 0] 0", "True [0, 0] 0", "2 2")

    def test_frames_and_debuggers_are_not_kept(self):
        """After a continue without breakpoints, or a quit.  The last debugger stays, as a frame's trace function."""
        for command in "set_continue", "set_quit", "set_next_and_continue":
            with self.subTest(command):
                self.check("""\
                    import gc, weakref
                    class Marker: pass
                    markers = []
                    def session(command):
                        debugger = Debugger()
                        def next_and_continue():
                            debugger.command = debugger.set_continue
                            debugger.set_step()
                        debugger.set_next_and_continue = next_and_continue
                        debugger.command = getattr(debugger, command)
                        marker = Marker()
                        markers.append(weakref.ref(marker))
                        try:
                            debugger.set_trace()
                            here = 1
                            here = 2
                        except engine.BdbQuit:
                            pass
                        return weakref.ref(debugger)
                    debuggers = [session(%r) for _ in range(3)]
                    gc.collect()
                    print([each() for each in markers[:-1]], [each() for each in debuggers[:-1]], tools())
                    """ % command, "[None, None] [None, None] " + NOTHING)

    def test_records_do_not_grow_from_session_to_session(self):
        self.check("""\
            import gc, optmonitoring
            def session():
                source = "def function():\\n    return 1\\nfunction()\\n"
                code = compile(source, __file__ + "x.py", "exec")
                debugger = Debugger()
                debugger.set_break(__file__, 1)
                debugger.begin()
                exec(code, {})
                debugger.set_step()
                exec(code, {})
                debugger.clear_all_breaks()
                debugger.stop_trace()
            def count():
                gc.collect()
                return (len(optmonitoring.CPerCodeObject._fPerCodeObjectDict), len(monitor.switches._local_events),
                        len(monitor.switches._lines), len(optmonitoring.CPerThread.GetAllPerThreads()))
            session(); session()
            before = count()
            for _ in range(20):
                session()
            print([now - then for now, then in zip(count(), before)])
            """, "[0, 0, 0, 0]")


class PassedFilesTest(SwitchingTestCase):
    """Code of files without breakpoints is switched off at once, and found when it is needed."""

    def setUp(self):
        super().setUp()
        write_program(self.folder, """\
            def function():
                return 1
            def generator():
                yield 1
                yield 2
            one_line = lambda: 1
            """, "library.py")

    def check_library(self, text, *lines):
        self.check("""\
            import library, optmonitoring
            def other():
                return 1
            debugger.set_break(__file__, first_line(other) + 1)
            debugger.begin()
            generator = library.generator()
            next(generator)
            library.function()
            library.one_line()
            path = library.__file__
            """ + text + """
            other()
            print([name for name, _ in debugger.stops])
            debugger.stop_trace()
            """, *lines)

    def test_its_code_gets_no_records(self):
        """Its name alone tells that nobody waits there."""
        self.check_library("""
            codes = [each.__code__ for each in (library.function, library.generator, library.one_line)]
            print(sum(optmonitoring.CPerCodeObject.GetPerCodeObject(code, False) is not None for code in codes))
            """, "0", "['other']")

    def test_breakpoint_in_a_function_that_ran(self):
        self.check_library("""
            debugger.set_break(path, first_line(library.function) + 1)
            library.function()
            """, "['function', 'other']")

    def test_breakpoint_in_a_function_on_one_line_that_ran(self):
        self.check_library("""
            debugger.set_break(path, first_line(library.one_line))
            library.one_line()
            """, "['<lambda>', 'other']")

    def test_breakpoint_in_a_suspended_generator(self):
        self.check_library("""
            debugger.set_break(path, first_line(library.generator) + 2)
            next(generator)
            """, "['generator', 'other']")

    def test_breakpoint_in_a_function_that_did_not_run(self):
        self.check_library("""
            exec(compile("def late():\\n    return 1\\n", path, "exec"), globals())
            debugger.set_break(path, 2)
            late()
            """, "['late', 'other']")

    def test_breakpoint_in_another_threads_function(self):
        self.check_library("""
            go = threading.Event()
            thread = threading.Thread(target=lambda: (go.wait(), library.function()))
            thread.start()
            debugger.set_break(path, first_line(library.function) + 1)
            go.set()
            thread.join()
            """, "['function', 'other']")

    def test_breakpoint_set_again(self):
        self.check_library("""
            for _ in range(3):
                debugger.set_break(path, first_line(library.function) + 1)
                library.function()
                debugger.clear_break(path, first_line(library.function) + 1)
                library.function()
            """, "['function', 'function', 'function', 'other']")

    def test_steps_go_into_its_functions(self):
        self.check_library("""
            debugger.command = debugger.set_step
            other()
            library.function()
            debugger.command = debugger.set_continue
            """, "['other', 'function', 'other']")

    def test_end_of_the_interpreter(self):
        """Functions that begin when the modules have been taken apart."""
        self.check_library("""
            class Late:
                def __del__(self):
                    library.function()
            sys.late = Late()
            debugger.stop_trace = lambda: None
            """, "['other']")


class OnTest(SwitchingTestCase):

    def test_breakpoint(self):
        """The start of functions everywhere; lines only in code with a breakpoint, and never without its start."""
        self.check("""\
            def function():
                return 1
            def other():
                return function()
            one_line = lambda: 1
            debugger.begin()
            debugger.set_break(__file__, first_line(function) + 1)
            other()
            print(global_events())
            print(local_events(function.__code__), local_events(other.__code__), local_events(one_line.__code__))
            debugger.set_break(__file__, first_line(one_line))
            one_line()
            print("LINE" in local_events(one_line.__code__), "PY_START" in local_events(one_line.__code__))
            debugger.clear_break(__file__, first_line(function) + 1)
            print(local_events(function.__code__), global_events())
            print(len(debugger.stops))
            debugger.stop_trace()
            """, FIND, "['JUMP', 'LINE', 'PY_START'] [] []", "True True", "[] " + FIND, "2")

    def test_lines_are_never_on_everywhere(self):
        """Seen from inside of each stop of a long step-through."""
        self.check("""\
            events = set()
            def look():
                events.update(global_events())
                debugger.set_step() if len(debugger.stops) < 30 else debugger.set_continue()
            def inner(n):
                for i in range(n):
                    yield i
            def outer():
                return [n for n in inner(3)] + list(map(lambda n: n + 1, [1, 2]))
            debugger.command = look
            debugger.set_trace()
            outer()
            outer()
            outer()
            print(len(debugger.stops), "LINE" in events, "PY_RETURN" in events, "INSTRUCTION" in events,
                  "JUMP" in events, "RAISE" in events)
            print(tools())
            """, "30 False False False False True", NOTHING)

    def test_stepped_code_has_lines_and_its_start(self):
        self.check("""\
            found = []
            def function():
                a = 1
                b = 2
            def look():
                found.append(local_events(function.__code__))
                debugger.set_step() if len(found) < 3 else debugger.set_continue()
            debugger.command = look
            debugger.set_break(__file__, first_line(function) + 1)
            debugger.begin()
            function()
            print(found)
            debugger.stop_trace()
            """.replace("print(found)", "print(all({'LINE', 'PY_START'} <= set(each) for each in found), len(found))"),
            "True 3")

    def test_each_breakpoint_line_is_reported_each_time_and_others_cost_nothing(self):
        """A line without a breakpoint, in a function that has one, is not asked about over and over."""
        self.check("""\
            asked = 0
            class Counting(Debugger):
                def break_here(self, frame):
                    global asked
                    asked += 1
                    return super().break_here(frame)
            debugger = Counting()
            def function():
                total = 0
                for n in range(100):
                    total += n
                    total -= 1
                return total
            debugger.set_break(__file__, first_line(function) + 4)
            debugger.begin()
            function(), function()
            debugger.stop_trace()
            print(len(debugger.stops), asked)
            """, "200 200")


    def test_every_record_is_made_with_a_frame(self):
        """One that is made without has a name that nobody can refine: every event of its code would fail."""
        self.check("""\
            import asyncio, concurrent.futures, json, optmonitoring, threading
            def generate(): yield from (n for n in range(3))
            async def wait(): await asyncio.sleep(0); return [n async for n in agenerate()]
            async def agenerate(): yield 1
            class Dying:
                def __del__(self): self.x = 1
            def everything():
                list(generate())
                asyncio.run(wait())
                json.loads("[1]", object_hook=lambda each: each)
                with concurrent.futures.ThreadPoolExecutor(2) as pool: list(pool.map(lambda n: n, range(3)))
                Dying()
                exec("x = 1", {})
                eval("(lambda: 1)()")
                sorted([2, 1], key=lambda n: -n)
            debugger.set_break(__file__, first_line(everything) + 1)
            debugger.begin()
            everything()
            debugger.command = debugger.set_step
            steps = 0
            def some_steps():
                global steps
                steps += 1
                debugger.set_step() if steps < 500 else debugger.set_continue()
            debugger.command = some_steps
            everything()
            debugger.stop_trace()
            codes = [each.fCodeObjectWeakRef() for each in optmonitoring.CPerCodeObject._fPerCodeObjectDict.values()]
            for code in codes:
                if code is not None:
                    optmonitoring.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())
            print(len(codes) > 50, steps)
            """, "True 500")


class TakenTest(SwitchingTestCase):

    def test_taken_id_of_debuggers(self):
        self.check("""\
            sys.monitoring.use_tool_id(sys.monitoring.DEBUGGER_ID, "another")
            def function():
                return 1
            debugger.set_break(__file__, first_line(function) + 1)
            try:
                debugger.begin()
            except RuntimeError as error:
                print(error)
            print(tools())
            function()
            sys.monitoring.free_tool_id(sys.monitoring.DEBUGGER_ID)
            debugger.begin()
            function()
            print(debugger.lines() == [first_line(function) + 1])
            debugger.stop_trace()
            """, "the monitoring tool id 0 (sys.monitoring.DEBUGGER_ID) is taken by 'another'; stop that debugger first",
            "['another', None, None, None, None, None]", "True")

    def test_the_filter_has_a_second_choice(self):
        self.check("""\
            sys.monitoring.use_tool_id(4, "another")
            def function():
                return 1
            debugger.set_break(__file__, first_line(function) + 1)
            debugger.begin()
            function()
            print(tools(), len(debugger.stops))
            debugger.stop_trace()
            print(tools())
            """, "['brixdebug', None, None, 'brixdebug filter', 'another', None] 1",
            "[None, None, None, None, 'another', None]")

    def test_no_id_for_the_filter(self):
        self.check("""\
            sys.monitoring.use_tool_id(4, "one")
            sys.monitoring.use_tool_id(3, "two")
            def function():
                return 1
            debugger.begin()
            print(debugger.set_break(__file__, first_line(function) + 1))
            print(tools(), sys.monitoring.get_events(4), debugger.breaks)
            function()
            """, "the monitoring tool ids 4 and 3 are taken by 'one' and 'two'; stop one of these tools first",
            "[None, None, None, 'two', 'one', None] 0 {}")

    def test_command_line_says_so(self):
        write_program(self.folder, "here = 1\n", "program.py")
        write_program(self.folder, "import sys; sys.monitoring.use_tool_id(0, 'coverage')\n", "sitecustomize.py")
        from host_support import child_environment, run_child
        path = child_environment()["PYTHONPATH"]
        child = run_child("-m", "brixdebug", self.folder / "program.py", input="q\n",
                          PYTHONPATH="%s:%s" % (self.folder, path))
        self.assertEqual((child.returncode, child.stdout, child.stderr), (
            2, "*** the monitoring tool id 0 (sys.monitoring.DEBUGGER_ID) is taken by 'coverage'; "
            "stop that debugger first\n", ""))

    def test_other_tools_keep_their_events(self):
        """Another tool sees the same calls with the debugger as without, also at places that it switched off itself."""
        self.check("""\
            seen = []
            def see(code, _):
                seen.append(code.co_name)
            sys.monitoring.use_tool_id(2, "profiler")
            sys.monitoring.register_callback(2, E.PY_START, see)
            sys.monitoring.set_events(2, E.PY_START)
            def function():
                return 1
            debugger.set_break(__file__, first_line(function) + 1)
            debugger.begin()
            function(), function()
            debugger.stop_trace()
            function()
            sys.monitoring.set_events(2, 0)
            print(seen.count("function"), len(debugger.stops), sys.monitoring.get_tool(2))
            """, "3 2 profiler")


class WheneverTest(SwitchingTestCase):
    """A breakpoint holds from the next pass on."""

    def test_set_moved_and_removed_by_another_thread(self):
        self.check("""\
            import queue
            orders, done = queue.SimpleQueue(), queue.SimpleQueue()
            def function():
                a = 1
                b = 2
                c = 3
            def other():
                while order := orders.get():
                    order()
                    done.put(None)
            def ask(order):
                orders.put(order)
                done.get()
                del debugger.stops[:]
                function(), function()
                print([line - first_line(function) for line in debugger.lines()])
            debugger.begin()
            thread = threading.Thread(target=other)
            thread.start()
            function()
            first = first_line(function)
            ask(lambda: debugger.set_break(__file__, first + 1))
            ask(lambda: (debugger.clear_break(__file__, first + 1), debugger.set_break(__file__, first + 3)))
            ask(lambda: debugger.set_break(__file__, first + 2))
            ask(lambda: debugger.clear_break(__file__, first + 3))
            ask(lambda: debugger.clear_all_breaks())
            ask(lambda: debugger.set_break(__file__, first + 1))
            orders.put(None)
            thread.join()
            debugger.stop_trace()
            """, "[1, 1]", "[3, 3]", "[2, 3, 2, 3]", "[2, 2]", "[]", "[1, 1]")

    def test_set_by_another_thread_in_the_running_loop(self):
        """It never returns before it has stopped; nothing but the debugger ends it."""
        for loop in "while go:\n    n += 1\n    m = n", "while go: n += 1", "while go: n = function()":
            with self.subTest(loop):
                self.check("""\
                    go = True
                    def function():
                        return 1
                    def run():
                        n = 0
                    LOOP
                    class Ending(Debugger):
                        def user_line(self, frame):
                            global go
                            super().user_line(frame)
                            go = False
                    debugger = Ending()
                    debugger.begin()
                    other_break = first_line(function) + 1
                    thread = threading.Thread(target=lambda: debugger.set_break(__file__, LINE))
                    thread.start()
                    run()
                    thread.join()
                    print(len(debugger.stops) > 0)
                    debugger.stop_trace()
                    """.replace(" " * 20 + "LOOP", textwrap.indent(loop, " " * 24)).replace(
                        "LINE", "other_break" if "function" in loop else
                        "first_line(run) + %d" % (2 if loop.count("\n") == 0 else 4)), "True")

    def test_set_while_threads_end(self):
        """Many at a time, each with a record that goes with it."""
        self.check("""\
            def function():
                return 1
            def beget():
                while go:
                    thread = threading.Thread(target=exec, args=("1",))
                    thread.start()
                    thread.join()
            go = True
            debugger.set_break(__file__, 1)
            debugger.begin()
            sys.setswitchinterval(1e-6)
            threads = [threading.Thread(target=beget) for _ in range(40)]
            for thread in threads:
                thread.start()
            try:
                for _ in range(300):
                    debugger.set_break(__file__, first_line(function) + 1)
                    debugger.clear_break(__file__, first_line(function) + 1)
            finally:
                go = False
            for thread in threads:
                thread.join()
            debugger.set_break(__file__, first_line(function) + 1)
            function()
            debugger.stop_trace()
            print(debugger.stops == [("function", first_line(function) + 1)])
            """, "True")

    def test_race_of_setting_and_first_pass(self):
        """The function's first pass and the breakpoint come at the same time, over and over: the pass after must stop."""
        self.check("""\
            import linecache, os
            missed = 0
            debugger.set_break(__file__, 1)
            debugger.begin()
            sys.setswitchinterval(1e-5)
            for n in range(300):
                scope = {}
                path = os.path.abspath("%d.py" % (n % 7))
                with open(path, "w") as file:
                    file.write("\\n" * 9 + ("def function():\\n  return 1" if n % 2 else "function = lambda: 1"))
                linecache.checkcache()
                exec(compile(open(path).read(), path, "exec"), scope)
                function, line = scope["function"], 11 if n % 2 else 10
                barrier = threading.Barrier(2)
                def pass_first():
                    barrier.wait()
                    for _ in range(n % 11):
                        pass
                    function()
                thread = threading.Thread(target=pass_first)
                thread.start()
                barrier.wait()
                for _ in range(n % 13):
                    pass
                assert debugger.set_break(path, line) is None
                thread.join()
                del debugger.stops[:]
                function(), function()
                missed += len(debugger.stops) != 2
                debugger.clear_all_file_breaks(path)
            debugger.stop_trace()
            print("missed", missed)
            """, "missed 0")

    def test_file_that_is_not_imported_yet(self):
        write_program(self.folder, "def function():\n    return 1\nx = 1\nfunction()\n", "later.py")
        self.check("""\
            import os
            debugger.set_break(os.path.abspath("later.py"), 2)
            debugger.set_break(os.path.abspath("later.py"), 3)
            debugger.begin()
            import later
            later.function()
            debugger.stop_trace()
            print(debugger.stops)
            """, "[('<module>', 3), ('function', 2), ('function', 2)]")

    def test_suspended_generators(self):
        """Made before the breakpoint was set, before the debugger began, and before events were switched on at all."""
        self.check("""\
            def generate():
                while True:
                    yield 1
                    a = 2
            old = generate()
            next(old)
            debugger.begin()
            older = generate()
            next(older)
            debugger.set_break(__file__, first_line(generate) + 3)
            for generator in old, older, generate():
                next(generator), next(generator)
                print(len(debugger.stops))
            debugger.stop_trace()
            """, "2", "4", "5")

    def test_equal_code_objects_stop_each(self):
        write_program(self.folder, "def function():\n    return 1\n", "text.py")
        self.check("""\
            import os
            path = os.path.abspath("text.py")
            def make():
                scope = {}
                exec(compile(open(path).read(), path, "exec"), scope)
                return scope["function"]
            first, second = make(), make()
            print(first.__code__ is not second.__code__, first.__code__ == second.__code__)
            first()
            debugger.begin()
            first()
            debugger.set_break(path, 2)
            third = make()
            for function in first, second, third, second, first:
                function()
            print(len(debugger.stops))
            debugger.clear_break(path, 2)
            for function in first, second, third:
                function()
            print(len(debugger.stops), tools() == [None] * 6)
            debugger.stop_trace()
            """, "True True", "5", "5 True")

    def test_equal_code_in_two_files(self):
        for name in "one", "two":
            write_program(self.folder, "def function():\n    return 1\n", name + ".py")
        self.check("""\
            import os, one, two
            one.function(), two.function()
            debugger.begin()
            debugger.set_break(os.path.abspath("two.py"), 2)
            one.function(), two.function(), one.function()
            print(len(debugger.stops), [line for line in debugger.stops])
            debugger.stop_trace()
            """, "1 [('function', 2)]")

    def test_internal_files_never_stop(self):
        self.check("""\
            import bdb, os, pdb, cmd, brixdebug.breakpoints, brixbase.dlog
            for module in bdb, pdb, cmd, brixdebug.breakpoints, brixbase.dlog:
                for line in range(1, 900):
                    debugger.set_break(module.__file__, line)
            debugger.begin()
            brixbase.dlog.SetLogFile(None)
            brixdebug.breakpoints.is_pseudo_file("x")
            cmd.Cmd().onecmd
            bdb.Breakpoint.clearBreakpoints
            print(debugger.stops)
            debugger.stop_trace()
            """, "[]")

    def test_added_internal_file(self):
        write_program(self.folder, "def function():\n    return 1\n", "own.py")
        self.check("""\
            import own
            from brixdebug import internal
            internal.add_internal_file(own.__file__)
            debugger.set_break(own.__file__, 2)
            debugger.begin()
            own.function()
            print(debugger.stops)
            def wrapper():
                own.function()
                return 1
            debugger.command = debugger.set_step
            debugger.set_step()
            wrapper()
            debugger.stop_trace()
            print([name for name, _ in debugger.stops[:2]])
            """, "[]", "['wrapper', 'wrapper']")

    def test_sessions_one_after_the_other(self):
        self.check("""\
            def function():
                return 1
            for line, expected in (1, 1), (0, 0), (1, 1):
                debugger = Debugger()
                debugger.set_break(__file__, first_line(function) + 1)
                debugger.begin()
                function()
                if not line:
                    debugger.clear_all_breaks()
                del debugger.stops[:]
                function()
                debugger.stop_trace()
                function()
                debugger.clear_all_breaks()
                print(len(debugger.stops), tools() == [None] * 6)
            """, "1 True", "0 True", "1 True")

    def test_second_debugger_takes_over(self):
        """As with `sys.settrace`, the last that starts has the events."""
        self.check("""\
            def function():
                return 1
            second = Debugger()
            for each in debugger, second:
                each.set_break(__file__, first_line(function) + 1)
            debugger.begin()
            function()
            second.begin()
            function()
            second.stop_trace()
            function()
            print(len(debugger.stops), len(second.stops), tools() == [None] * 6)
            debugger.begin()
            function()
            print(len(debugger.stops), len(second.stops))
            debugger.stop_trace()
            """, "1 1 True", "2 1")


if __name__ == "__main__":
    unittest.main()
