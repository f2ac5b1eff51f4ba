"""What the calls return that a step passes over: rows before the variables of the stepped function."""

import sys
import unittest

from dap_client import AdapterTestCase
from host_support import check_child
from session import line_of

MARK = "(return) "
PY_RETURN = sys.monitoring.events.PY_RETURN


class ReturnsTestCase(AdapterTestCase):
    def stopped(self, text, mark="here", **arguments):
        """A client whose program has stopped at the line marked MARK."""
        self.path = self.program(text)
        client = self.client()
        client.launch(self.path, {self.path: [line_of(self.path, mark)]}, **arguments)
        client.wait_for_stop("breakpoint")
        return client

    def returned(self, client, frame_id):
        """The rows (name, value) of what has been returned to a frame."""
        reference = client.ask("scopes", frameId=frame_id)["scopes"][0]["variablesReference"]
        rows = client.ask("variables", variablesReference=reference)["variables"]
        return [(row["name"].removeprefix(MARK), row["value"]) for row in rows if row["name"].startswith(MARK)]

    def step(self, client, command="next", reason="step"):
        """What has been returned, after a step."""
        client.go_on(command)
        self.event = client.wait_for_stop(reason)
        return self.returned(client, self.event["frame"]["id"])

    def finish(self, client):
        client.go_on()
        self.assertEqual(client.finish(), 0)


class StepOverTest(ReturnsTestCase):
    def test_calls_are_shown_in_their_order(self):
        client = self.stopped("""\
            def one(n): return n + 1
            def two(n): return [n]
            x = two(one(1)) + two(0) + [len("abc")]         # here
            y = 1
            z = one(2)
            end = 1
        """)
        self.assertEqual(self.step(client), [("one", "2"), ("two", "[2]"), ("two", "[0]")])
        self.assertEqual(self.step(client), [])
        self.assertEqual(self.step(client), [("one", "3")])
        self.finish(client)

    def test_what_is_called(self):
        client = self.stopped("""\
            import functools
            class Kind:
                def __init__(self): self.n = 1
                def method(self): return "method"
                @classmethod
                def of_class(cls): return "class"
                @staticmethod
                def alone(): return "static"
                def __call__(self): return "object"
            def add(a, b=0, *more, **named): return a + b
            kind = Kind()
            bound = kind.method
            partial = functools.partial(add, 1)
            x = Kind(), kind.method(), bound(), Kind.of_class(), kind.alone(), kind(), partial(1), add(*[1], **{"b": 2})    # here
            end = 1
        """)
        self.assertEqual(self.step(client), [
            ("Kind.method", "'method'"), ("Kind.method", "'method'"), ("Kind.of_class", "'class'"), ("Kind.alone", "'static'"),
            ("Kind.__call__", "'object'"), ("add", "2"), ("add", "3")])
        self.finish(client)

    def test_calls_of_called_functions_are_not_shown(self):
        client = self.stopped("""\
            def inner(): return 1
            def outer(): return inner() + 1
            x = inner() + outer()                           # here
            end = 1
        """)
        self.assertEqual(self.step(client), [("inner", "1"), ("outer", "2")])
        self.finish(client)

    def test_recursion(self):
        client = self.stopped("""\
            def factorial(n):
                if n < 2: return 1
                return n * factorial(n - 1)                 # here
            x = factorial(4)
            end = 1
        """)
        client.set_breakpoints(self.path, [])
        self.assertEqual(self.step(client), [("factorial", "6"), ("factorial", "24")])
        self.assertEqual(self.event["frame"]["name"], "<module>")
        self.assertEqual(self.step(client), [])
        self.finish(client)

    def test_generators_return_nothing_that_is_shown_and_coroutines_do(self):
        client = self.stopped("""\
            import asyncio
            def numbers():
                yield 1
                return 2
            async def value():
                await asyncio.sleep(0.01)
                return 3
            async def main():
                x = list(numbers())                         # here
                for y in numbers():
                    pass
                z = await value()
                return z
            asyncio.run(main())
        """)
        for line in 10, 11, 10, 12:
            self.assertEqual(self.step(client), [])
            self.assertEqual(self.event["frame"]["line"], line)
        self.assertEqual(self.step(client), [("value", "3")])
        self.assertEqual(self.event["frame"]["line"], 13)
        self.finish(client)

    def test_call_that_raises(self):
        client = self.stopped("""\
            def fine(): return 1
            def fails(): raise ValueError
            try:
                x = fine() + fails() + fine()               # here
            except ValueError:
                end = 1
        """)
        self.assertEqual(self.step(client), [("fine", "1")])
        self.assertEqual(self.event["frame"]["line"], 5)
        self.finish(client)

    def test_step_that_ends_at_a_breakpoint_inside(self):
        client = self.stopped("""\
            def first(): return 1
            def second():
                return first() + 1                          # inside
            x = first() + second() + first()                # here
            end = 1
        """)
        client.set_breakpoints(self.path, [line_of(self.path, "inside")])
        self.assertEqual(self.step(client, reason="breakpoint"), [])
        caller = client.frames(1)[1]
        self.assertEqual(self.returned(client, caller["id"]), [("first", "1")])
        self.assertEqual(self.step(client), [("first", "1"), ("second", "2")])      # out of it: what that step has passed
        self.assertEqual(self.step(client), [("first", "1")])
        self.finish(client)

    def test_step_in_shows_what_it_passes_by(self):
        client = self.stopped("""\
            import textwrap
            x = textwrap.dedent(" a")                       # here
            end = 1
        """)
        self.assertEqual(self.step(client, "stepIn"), [("dedent", "'a'")])
        self.finish(client)

    def test_first_fifty(self):
        client = self.stopped("""\
            def same(n): return n
            x = %s              # here
            y = same(1)
            end = 1
        """ % ", ".join("same(%d)" % n for n in range(60)))
        self.assertEqual(self.step(client), [("same", str(n)) for n in range(50)])
        self.assertEqual(self.step(client), [("same", "1")])
        self.finish(client)


class EffectsTest(ReturnsTestCase):
    def test_other_threads_in_the_same_functions(self):
        client = self.stopped("""\
            import threading
            def same(n): return n
            def run():
                count = 0
                while not is_over:
                    count += same(-1)
            is_over = False
            threads = [threading.Thread(target=run) for _ in range(3)]
            for each in threads: each.start()
            x = [same(1), same(2)]                          # here
            x = [same(3), same(4)]
            is_over = True
            for each in threads: each.join()
        """)
        self.assertEqual(self.step(client), [("same", "1"), ("same", "2")])
        self.assertEqual(self.step(client), [("same", "3"), ("same", "4")])
        self.finish(client)

    def test_step_of_another_thread(self):
        client = self.stopped("""\
            import threading
            def same(n): return n
            def run():
                while not is_over:
                    x = same(7)
            is_over = False
            thread = threading.Thread(target=run, name="other")
            thread.start()
            here = 1                                        # here
            is_over = True
            thread.join()
        """)
        thread_id = next(row["id"] for row in client.ask("threads")["threads"] if row["name"] == "other")
        values = []
        while not values:                    # it was held at some line of the loop
            client.ask("next", threadId=thread_id, singleThread=True)
            stop = client.wait_for_stop("step")
            self.assertEqual(stop["threadId"], thread_id)
            values = self.returned(client, stop["frame"]["id"])
        self.assertEqual(values, [("same", "7")])
        self.finish(client)

    def test_nothing_stays_switched_on(self):
        client = self.stopped("""\
            import sys
            def events(): return sys.monitoring.get_local_events(sys.monitoring.DEBUGGER_ID, events.__code__)
            x = events()                                    # here
            y = events()
            print("free:", events())
        """)
        self.assertEqual(self.step(client), [("events", str(PY_RETURN))])
        self.finish(client)
        self.assertEqual(client.output["stdout"], "free: 0\n")

    def test_option_that_is_off(self):
        client = self.stopped("""\
            import sys
            def events(): return sys.monitoring.get_local_events(sys.monitoring.DEBUGGER_ID, events.__code__)
            x = events()                                    # here
            print("stepped:", x)
        """, showReturnValue=False)
        self.assertEqual(self.step(client), [])
        self.finish(client)
        self.assertEqual(client.output["stdout"], "stepped: 0\n")

    def test_values_are_released_by_the_next_step(self):
        client = self.stopped("""\
            import weakref
            class Kind: pass
            alive = weakref.WeakSet()
            def make():
                kind = Kind()
                alive.add(kind)
                return kind
            make()                                          # here
            first = 1
            second = len(alive)
            end = 1
        """)
        self.assertEqual([name for name, _ in self.step(client)], ["make"])
        self.step(client)
        self.step(client)
        self.assertEqual(client.evaluate("second", self.event["frame"]["id"]), "0")
        self.finish(client)

    def test_value_whose_repr_does_not_end(self):
        client = self.stopped("""\
            import time
            class Slow:
                def __repr__(self):
                    while True: time.sleep(0.01)
            class Failing:
                def __repr__(self): raise ValueError("no")
                def __getattribute__(self, name): raise ValueError("no")
                __class__ = property(lambda self: 1 / 0)
            def slow(): return Slow()
            def failing(): return Failing()
            x = slow(), failing()                           # here
            end = 1
        """)
        rows = self.step(client)
        self.assertEqual([name for name, _ in rows], ["slow", "failing"])
        self.assertTrue(all(value.startswith("<") for _, value in rows), rows)
        self.finish(client)

    def test_row_cannot_be_assigned_to(self):
        client = self.stopped("def one(): return 1\nx = one()  # here\nend = 1\n")
        self.step(client)
        scope = client.ask("scopes", frameId=self.event["frame"]["id"])["scopes"][0]["variablesReference"]
        self.assertEqual(client.refused("setVariable", variablesReference=scope, name="(return) one", value="2"),
                         "(return) one cannot be set: LookupError: it is what a function has returned")
        self.finish(client)

    def test_programs_own_tools_see_what_they_see_without_it(self):
        text = """\
            import sys
            seen = []
            def one(n): return n
            class Kind:
                def method(self): return one(2)
            def work():
                x = one(1) + Kind().method() + len("a")     # here
                return x
            events = sys.monitoring.events
            sys.monitoring.use_tool_id(2, "own")
            for event in "CALL", "C_RETURN", "PY_START", "PY_RETURN":
                sys.monitoring.register_callback(2, getattr(events, event), lambda code, *rest, event=event: seen.append((event, code.co_name)))
            sys.monitoring.set_events(2, events.CALL | events.PY_START | events.PY_RETURN)
            profiled = []
            sys.setprofile(lambda frame, event, argument: profiled.append((event, frame.f_code.co_name)))
            work()
            sys.setprofile(None)
            sys.monitoring.set_events(2, 0)
            print([each for each in seen if each[1] in ("one", "method", "work")])
            print(profiled)
        """
        client = self.stopped(text)
        self.step(client)
        self.finish(client)
        plain = check_child(self, str(self.path))
        self.assertEqual(client.output["stdout"], plain)

    def test_what_another_tool_has_switched_off_stays_off(self):
        client = self.stopped("""\
            import sys
            def one(n): return n
            def two(n): return n
            events = sys.monitoring.events
            seen = []
            def see(code, offset, value):
                seen.append(code.co_name)
                return sys.monitoring.DISABLE
            sys.monitoring.use_tool_id(2, "own")
            sys.monitoring.register_callback(2, events.PY_RETURN, see)
            sys.monitoring.set_local_events(2, one.__code__, events.PY_RETURN)
            one(1)
            x = one(2) + two(3)                             # here
            y = one(4) + two(5)
            print(seen)
        """)
        self.assertEqual(self.step(client), [("one", "2"), ("two", "3")])
        self.assertEqual(self.step(client), [("one", "4"), ("two", "5")])
        self.finish(client)
        self.assertEqual(client.output["stdout"], "['one']\n")


if __name__ == "__main__":
    unittest.main()
