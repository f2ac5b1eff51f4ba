"""The client is told of each thread of the program as it begins and as it ends."""

import subprocess
import sys
import unittest

from dap_client import AdapterTestCase
from host_support import child_environment
from session import line_of


class ThreadEventsTest(AdapterTestCase):
    def all_told(self, client):
        """Reasons and numbers of the `thread` events, up to the end of the session; none comes after the program's end."""
        names = []
        told = []
        for event in client.events:
            names.append(event["event"])
            if event["event"] == "thread":
                told.append((event["body"]["reason"], event["body"]["threadId"]))
        self.assertEqual(names[-2:], ["exited", "terminated"])
        return told

    def run_to_end(self, client):
        while not any(each["event"] == "terminated" for each in client.events):
            self.assertTrue(client.take())
        client.ask("disconnect")
        client.wait_for_end()

    def test_each_begin_and_each_end_is_told_of_once(self):
        path = self.program("""\
            import threading
            for _ in range(30):
                thread = threading.Thread(target=int)
                thread.start()
                thread.join()
        """)
        client = self.client()
        client.launch(path)
        self.run_to_end(client)
        numbers = range(2, 32)           # ids of the system are used again, numbers are not
        self.assertEqual(self.all_told(client), [("started", 1)] + [
            (reason, number) for number in numbers for reason in ("started", "exited")])

    def test_threads_that_run_at_once(self):
        path = self.program("""\
            import threading
            barrier = threading.Barrier(20)
            threads = [threading.Thread(target=barrier.wait) for _ in range(20)]
            for each in threads:
                each.start()
            for each in threads:
                each.join()
        """)
        client = self.client()
        client.launch(path)
        self.run_to_end(client)
        told = self.all_told(client)
        self.assertEqual(sorted(told), [("exited", n) for n in range(2, 22)] + [("started", n) for n in range(1, 22)])
        for number in range(2, 22):
            self.assertLess(told.index(("started", number)), told.index(("exited", number)))

    def test_threads_that_live_to_the_end_of_the_program_end_with_it(self):
        path = self.program("""\
            import threading
            begun = threading.Barrier(3)
            def work():
                begun.wait()
                threading.Event().wait()
            for _ in range(2):
                threading.Thread(target=work, daemon=True).start()
            begun.wait()
        """)
        client = self.client()
        client.launch(path)
        self.run_to_end(client)
        self.assertEqual(sorted(self.all_told(client)), [("exited", 2), ("exited", 3), ("started", 1), ("started", 2), ("started", 3)])

    def test_thread_of_no_threading_is_told_of_before_its_first_stop(self):
        path = self.program("""\
            import _thread
            ended = _thread.allocate_lock()
            ended.acquire()
            def work():
                x = 1                       # here
                ended.release()
            _thread.start_new_thread(work, ())
            ended.acquire()
        """)
        client = self.client()
        client.launch(path, {path: [line_of(path, "here")]})
        stop = client.wait_for_stop("breakpoint")
        self.assertEqual([each["body"] for each in client.events if each["event"] == "thread"], [
            {"reason": "started", "threadId": 1}, {"reason": "started", "threadId": stop["threadId"]}])
        client.go_on()
        self.run_to_end(client)
        self.assertEqual(self.all_told(client)[2:], [("exited", stop["threadId"])])

    def test_thread_has_its_name_when_it_is_told_of(self):
        path = self.program("""\
            import threading
            release = threading.Event()
            thread = threading.Thread(target=release.wait, name="worker")
            thread.start()
            thread.join()                   # waits
        """)
        client = self.client()
        client.launch(path)
        while client.wait_for("thread") != {"reason": "started", "threadId": 2}:
            pass
        self.assertEqual(client.ask("threads")["threads"], [{"id": 1, "name": "MainThread"}, {"id": 2, "name": "worker"}])
        client.ask("pause", threadId=1)
        stop = client.wait_for_stop("pause")
        frame = next(each for each in client.frames(stop["threadId"]) if each["name"] == "<module>")
        client.evaluate("release.set()", frame["id"])
        client.go_on()
        self.run_to_end(client)
        self.assertEqual(self.all_told(client), [("exited", 2)])


class AttachedThreadsTest(AdapterTestCase):
    def test_threads_that_there_are_come_first_for_each_client(self):
        path = self.program("""\
            import sys, threading
            import brixdebug
            release = threading.Event()
            thread = threading.Thread(target=release.wait)
            thread.start()
            print(brixdebug.listen(0), flush=True)
            sys.stdin.readline()
            release.set()
            thread.join()
        """, "served.py")
        process = subprocess.Popen([sys.executable, str(path)], env=child_environment(), stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, text=True)
        for each in (process.stdin.close, process.stdout.close, process.wait, process.kill):
            self.addCleanup(each)
        port = int(process.stdout.readline().rpartition(":")[2])
        for is_last in (False, True):
            client = self.client()
            client.begin("attach", {"connect": {"host": "127.0.0.1", "port": port}})
            self.assertEqual([client.wait_for("thread") for _ in range(2)], [
                {"reason": "started", "threadId": 1}, {"reason": "started", "threadId": 2}])
            if not is_last:
                client.ask("disconnect")
                client.wait_for_end()
        process.stdin.write("\n")
        process.stdin.flush()
        self.assertEqual(client.wait_for("thread"), {"reason": "exited", "threadId": 2})
        self.assertEqual(process.wait(), 0)


if __name__ == "__main__":
    unittest.main()
