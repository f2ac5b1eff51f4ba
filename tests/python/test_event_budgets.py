"""What an event costs may only fall: instructions above a C callback that does nothing, against the stored counts.

Counts belong to one interpreter and one compiler; elsewhere the tests are skipped.

    OPTMONITORING_DIR=BUILD PYTHON test_event_budgets.py --store

writes down the counts of this interpreter's version as the new limits.
"""

import json
import os
import sys
import sysconfig
import unittest

import support

sys.path.insert(0, os.path.join(support.HERE, "..", "..", "bench"))
import instructions

FLOOR = "floor"
PATHS = ("line_off", "line_collides_5", "line_collides_10000", "line_on", "line_skip_thread", "step_thread", "policy_0",
         "line_skip_thread_no_hook", "step_thread_no_hook", "policy_0_no_hook", "internal_none", "fork_child")
STORED = os.path.join(instructions.HERE, "stored_counts.json")
SLACK = 5


def setting():
    """The interpreter and the compiler of the module, to which the counts belong."""
    return "%d.%d.%d, %s" % (sys.version_info[:3] + (instructions.compilers_of(support.module_file()),))


def measure():
    """{path: instructions over the floor}, and those of the floor itself."""
    costs = instructions.measure(sys.executable, (FLOOR,) + PATHS, support.module_dir())
    for failure in costs.values():
        if isinstance(failure, Exception):
            raise failure
    return {path: instructions.over_floor(costs, path) for path in PATHS}, costs[FLOOR].per_event


def read_stored():
    try:
        with open(STORED) as stream:
            return json.load(stream)
    except FileNotFoundError:
        return {}


def store():
    stored = read_stored()
    stored[setting()] = {path: round(count, 2) for path, count in measure()[0].items()}
    with open(STORED, "w") as stream:
        json.dump(stored, stream, indent=2, sort_keys=True)
        stream.write("\n")
    print("%s: %s" % (setting(), stored[setting()]))


@support.needs_monitoring
class EventBudgets(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if hasattr(sys, "gettotalrefcount") or sysconfig.get_config_var("Py_GIL_DISABLED"):
            raise unittest.SkipTest("the counts are those of release builds")
        if not instructions.has_valgrind():
            raise unittest.SkipTest("valgrind is not installed")
        cls.stored = read_stored().get(setting())
        if cls.stored is None:
            raise unittest.SkipTest("no counts are stored for Python %s" % setting())
        cls.counts, cls.floor = measure()
        print("\ninstructions of an event, Python %s: floor %.1f" % (setting(), cls.floor))
        for path in PATHS:
            print("  %-18s %7.1f over the floor, stored %.1f" % (path, cls.counts[path], cls.stored[path]))

    def test_a_count_is_stored_for_every_road(self):
        self.assertEqual(sorted(self.stored), sorted(PATHS))

    def test_every_road_costs_something(self):
        for path in PATHS:
            self.assertGreater(self.counts[path], 0, path)

    def test_no_road_costs_more_than_stored(self):
        over = {path: (self.counts[path], self.stored[path]) for path in PATHS
                if self.counts[path] > self.stored[path] + SLACK}
        self.assertEqual(over, {}, "paths over their stored count (measured, stored)")


if __name__ == "__main__":
    if sys.argv[1:] == ["--store"]:
        store()
    else:
        unittest.main()
