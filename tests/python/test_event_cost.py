"""What an event costs on the common path: a LINE event on a line without a breakpoint.

The figures are instruction counts, which do not depend on how busy the machine is.
"""

import collections
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import support

FEW, MANY = 500, 5500           # turns of the child's loop
EVENTS = 2 * (MANY - FEW)
LIMIT = 3                       # times the cost of a callback that does nothing

# what the common path has no need of
SLOW = re.compile(r"malloc|calloc|realloc|^_?free|PyObject_(Malloc|Calloc|Realloc|Free)|PyMem_|GetAttr|^_?PyDict|"
                  r"^_?PyUnicode|PyImport|PyWeakref|PyThread_tss|PyErr_(Set|Restore|Fetch|Format)|PyArg_|PyTuple_New")


def read_profile(path):
    """Instructions by function, callees not included; functions of the module as "module:NAME"."""
    costs, name, is_module, is_call = collections.Counter(), None, False, False
    with open(path) as stream:
        for line in stream:
            if line.startswith("ob="):
                is_module = "optmonitoring.so" in line
            elif line.startswith("fn="):
                name = ("module:" if is_module else "") + line[3:].strip().split("'")[0]
            elif line.startswith("calls="):
                is_call = True
            elif line[:1].isdigit():
                # the line after "calls=" is the callee's cost
                if not is_call:
                    costs[name] += int(line.split()[1])
                is_call = False
    return costs


@support.needs_monitoring
class InstructionCount(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not shutil.which("valgrind"):
            raise unittest.SkipTest("valgrind is not installed")
        cls.folder = tempfile.mkdtemp()
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        cls.growth = {mode: cls.measure(mode) for mode in ("bare", "nothing", "filter")}

    @classmethod
    def profile(cls, mode, count):
        path = os.path.join(cls.folder, "%s_%d" % (mode, count))
        environment = dict(os.environ, OPTMONITORING_DIR=support.module_dir(), PYTHONHASHSEED="0",
                           PYTHONDONTWRITEBYTECODE="1")
        child = subprocess.run(
            ["valgrind", "--tool=callgrind", "--compress-strings=no", "--compress-pos=no",
             "--callgrind-out-file=" + path, sys.executable, "-S", os.path.join(support.HERE, "child_event_cost.py"),
             mode, str(count)],
            env=environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True)
        if child.returncode != 0:
            raise AssertionError(child.stderr)
        return read_profile(path)

    @classmethod
    def measure(cls, mode):
        """By function, the instructions that MANY - FEW more turns cost."""
        growth = cls.profile(mode, MANY)
        growth.subtract(cls.profile(mode, FEW))
        return growth

    def per_event(self, mode):
        bare = sum(self.growth["bare"].values())
        return (sum(self.growth[mode].values()) - bare) / EVENTS

    def test_an_event_costs_at_most_three_times_nothing(self):
        nothing, ours = self.per_event("nothing"), self.per_event("filter")
        print("instructions per LINE event: %.0f for a callback that does nothing, %.0f for the filter (%.2f times)"
              % (nothing, ours, ours / nothing))
        self.assertGreater(nothing, 20)
        self.assertGreater(ours, nothing)
        self.assertLessEqual(ours, LIMIT * nothing)

    def test_every_event_reached_the_filter(self):
        functions = {name for name, cost in self.growth["filter"].items()
                     if name.startswith("module:") and cost >= EVENTS}
        self.assertTrue(any("CInitialCallback_Callback" in name for name in functions), functions)

    def test_the_common_road_allocates_and_looks_up_nothing(self):
        slow = {name: cost - self.growth["nothing"][name] for name, cost in self.growth["filter"].items()
                if SLOW.search(name) and cost - self.growth["nothing"][name] > EVENTS // 10}
        self.assertEqual(slow, {})

    def test_the_slow_steps_are_elsewhere(self):
        for step in ("PerThread", "Skip", "do_dp", "report", "create_or_update"):
            for name, cost in self.growth["filter"].items():
                if name.startswith("module:") and step in name and "GetExistingPerCode" not in name:
                    self.assertEqual(cost, 0, name)


@support.needs_monitoring
class Memory(unittest.TestCase):
    def test_the_common_road_takes_no_memory_even_for_a_moment(self):
        peaks = {mode: int(support.check_child(self, "child_event_cost.py", mode, 2000, "memory"))
                 for mode in ("nothing", "filter")}
        self.assertEqual(peaks["filter"], peaks["nothing"])


if __name__ == "__main__":
    unittest.main()
