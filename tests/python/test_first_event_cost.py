"""The first event of a code object costs at most one and a half times what making such an object in Python costs.

Both are instructions of the same run of the same interpreter, so the ratio depends on neither machine nor load.
"""

import os
import sys
import sysconfig
import unittest

import support

sys.path.insert(0, os.path.join(support.HERE, "..", "..", "bench"))


@support.needs_monitoring
class FirstEventCost(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        import first_event
        if hasattr(sys, "gettotalrefcount") or sysconfig.get_config_var("Py_GIL_DISABLED"):
            raise unittest.SkipTest("the costs are those of release builds")
        if not first_event.has_valgrind():
            raise unittest.SkipTest("valgrind is not installed")
        cls.limit = first_event.LIMIT
        cls.costs = first_event.measure(sys.executable, support.module_dir(), with_new_files=False)
        print("\ninstructions of a first event: %(same_file).0f; of an object with __slots__ %(slots).0f, "
              "with a __dict__ %(dict).0f" % cls.costs)

    def test_everything_costs_something(self):
        for name in ("slots", "dict", "same_file"):
            self.assertGreater(self.costs[name], 0, name)

    def test_it_costs_no_more_than_one_and_a_half_objects(self):
        for baseline in ("slots", "dict"):
            self.assertLessEqual(self.costs["same_file_to_" + baseline], self.limit, baseline)


if __name__ == "__main__":
    unittest.main()
