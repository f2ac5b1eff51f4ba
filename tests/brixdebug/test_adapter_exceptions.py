"""Exception filters of the debug adapter: what leaves the user's own code, and the older form of the options."""

import unittest

from dap_client import AdapterTestCase
from session import line_of, write_program

LIBRARY = """\
    def call(function, *arguments):
        return function(*arguments)

    def call_guarded(function, *arguments):
        try:
            return function(*arguments)
        except Exception:
            return None
"""

PROGRAM = """\
    import contextlib, sys, threading
    sys.path.insert(0, "FOLDER")
    import library

    def fail(kind):
        raise kind("on purpose")                # raise

    def passes_on(kind):
        fail(kind)                              # passes on

    def catches():
        try:
            library.call(passes_on, KeyError)
        except KeyError:
            pass

    @contextlib.contextmanager
    def manager():
        yield

    def inside():
        try:
            with manager():
                fail(IndexError)
        except IndexError:
            pass

    def own_alone():
        try:
            fail(OSError)
        except OSError:
            pass

    def ends():
        sys.exit()

    library.call_guarded(passes_on, ValueError)
    library.call_guarded(catches)
    library.call(library.call_guarded, inside)
    own_alone()
    thread = threading.Thread(target=passes_on, args=(TypeError,), name="worker")
    thread.start()
    thread.join()
    try:
        library.call(ends)
    except SystemExit:
        pass
"""


class UserUnhandledTest(AdapterTestCase):
    def stops(self, settings=None, **asked):
        """(exception, thread) of each stop, to the end."""
        packages = self.folder / "site-packages"
        packages.mkdir(exist_ok=True)
        write_program(packages, LIBRARY, "library.py")
        self.path = self.program(PROGRAM.replace("FOLDER", str(packages)))
        client = self.client()
        client.ask("initialize", adapterID="x")
        begun = client.send("launch", program=str(self.path), console="internalConsole", **(settings or {}))
        client.wait_for("initialized")
        self.rows = client.ask("setExceptionBreakpoints", {"filters": [], **asked})["breakpoints"]
        client.ask("configurationDone")
        client.wait_for_answer(begun)
        found, self.stacks, self.infos, self.descriptions = [], [], [], []
        while True:
            while not any(each["event"] in ("stopped", "exited") for each in client.events):
                client.take()
            if any(each["event"] == "exited" for each in client.events):
                break
            stop = client.wait_for_stop("exception")
            names = {each["id"]: each["name"] for each in client.ask("threads")["threads"]}
            found.append((stop["text"], names[stop["threadId"]]))
            self.descriptions.append(stop["description"])
            self.stacks.append([(each["name"], each["line"]) for each in client.frames(stop["threadId"])])
            self.infos.append(client.ask("exceptionInfo", threadId=stop["threadId"]))
            client.go_on()
        self.assertEqual(client.finish(), 0)
        return found

    def test_stops_once_where_an_exception_leaves_ones_own_code(self):
        self.assertEqual(self.stops(filters=["userUnhandled"]), [
            ("ValueError", "MainThread"), ("KeyError", "MainThread"), ("TypeError", "worker")])
        self.assertEqual(self.stacks[0][:3], [
            ("fail", line_of(self.path, "raise")), ("passes_on", line_of(self.path, "passes on")), ("call_guarded", 6)])
        self.assertEqual(self.stacks[0][-1][0], "<module>")
        self.assertEqual({info["breakMode"] for info in self.infos}, {"userUnhandled"})
        self.assertEqual(self.descriptions[0], "Exception that user code has not handled")

    def test_uncaught_does_not_stop_again_for_the_same(self):
        self.assertEqual(self.stops(filters=["userUnhandled", "uncaught"]), [
            ("ValueError", "MainThread"), ("KeyError", "MainThread"), ("TypeError", "worker")])
        self.assertEqual(self.stops(filters=["uncaught"]), [("TypeError", "worker")])

    def test_class_and_condition(self):
        self.assertEqual(self.stops(filterOptions=[{"filterId": "userUnhandled", "condition": "LookupError"}]),
                         [("KeyError", "MainThread")])
        self.assertEqual(self.stops(filterOptions=[{"filterId": "userUnhandled", "condition": "if kind is ValueError"}]),
                         [("ValueError", "MainThread")])

    def test_needs_libraries_to_be_told_from_ones_own(self):
        self.assertEqual(self.stops({"justMyCode": False}, filters=["userUnhandled"]), [])
        self.assertEqual(self.rows, [{"verified": False, "reason": "failed",
                                      "message": "with 'justMyCode' off no code is a library's"}])

    def test_raised_stops_once_and_not_on_the_way_up(self):
        self.assertEqual([name for name, _ in self.stops(filters=["raised"])],
                         ["ValueError", "KeyError", "IndexError", "OSError", "TypeError", "SystemExit"])

    def test_exception_options(self):
        language = {"names": ["Python Exceptions"]}
        self.assertEqual(self.stops(exceptionOptions=[
            {"path": [language, {"names": ["KeyError", "OSError"]}], "breakMode": "always"},
            {"path": [language], "breakMode": "unhandled"},
            {"path": [language, {"names": ["ValueError"]}], "breakMode": "never"}]),
            [("KeyError", "MainThread"), ("OSError", "MainThread"), ("TypeError", "worker")])
        self.assertEqual(self.rows, [{"verified": True}] * 3)


if __name__ == "__main__":
    unittest.main()
