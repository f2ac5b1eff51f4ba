"""Records come and go with what they are of, thousands of times, and leave nothing behind.

With OPTMONITORING_LONG in the environment it is thousands; otherwise some hundreds, to be done soon.
"""

import os
import unittest

import support
from child_cases import test_class

LifeTest = test_class("child_life", "LifeTest")

EXIT = """
import sys, threading
import support
m = support.load()
from child_cases import new_program, watch
way = sys.argv[1]
log = open("/dev/null", "w")
m.set_dprintf_file(log, -1, 0)
m.set_dprintf_mask(1023)
m.set_checksum_callback(lambda name: "sum")
function, generator = new_program()
inside = threading.Event()
context = watch(m, function, lambda *args: None)
callbacks = context.__enter__()
m.CPerFile.GetPerFile("/nowhere/a.py")
records = []

def held():
    record = m.CPerThread.GetPerThread()
    records.append(record)
    record.fSuspendLock.acquire()
    record.fCheckSuspendLock = 1
    for callback in callbacks.values():
        callback.fAnySuspendThread = 1
    inside.set()
    function(1)

def busy():
    inside.set()
    while True:
        function(1)

function(1)
if way == "held":
    threading.Thread(target=held, daemon=True).start()
    inside.wait()
elif way == "busy":
    for _ in range(4):
        threading.Thread(target=busy, daemon=True).start()
    inside.wait()
elif way == "closed log":
    log.close()
    function(2)
elif way == "recorded threads":
    wait = threading.Event()
    for _ in range(8):
        threading.Thread(target=lambda: (m.CPerThread.GetPerThread(), inside.set(), wait.wait()), daemon=True).start()
    inside.wait()
elif way == "suspended generator":
    kept = generator()
    next(kept)
elif way == "exception":
    raise SystemExit("7")
sys.exit(5)
"""
WAYS = ("plain", "held", "busy", "closed log", "recorded threads", "suspended generator")


@support.needs_monitoring
class ExitTest(unittest.TestCase):
    """The interpreter ends with records alive everywhere."""


def _make_test(way):
    def test(self):
        for _ in range(3):
            status, out, err = support.run_child(EXIT, way, environment={"PYTHONMALLOC": os.environ.get("PYTHONMALLOC", "debug")})
            self.assertEqual((status, out, err), (5, "", ""))
    return test


for _way in WAYS:
    setattr(ExitTest, "test_" + _way.replace(" ", "_"), _make_test(_way))


if __name__ == "__main__":
    unittest.main()
