"""Every allocation and every interpreter call of every operation fails once, and the module bears it.

After each failure: no crash, the stated result, registries that are sound, the next try succeeds, and nothing is lost.
"""

import unittest

import inject_support
from inject_support import ALLOCATIONS, INTERPRETER_CALLS, support
import scenarios


@support.needs_monitoring
class Walks(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.om = support.load()
        from brixbase import dlog
        cls.dlog = dlog

    def check(self, group, log, target, burst):
        source = scenarios.Scenarios(self.om, self.dlog, log)
        self.addCleanup(source.close)
        holdings = inject_support.Holdings(self.om)
        faults, steps = [], 0
        for scenario in getattr(source, group)():
            walk = inject_support.Walk(scenario, target, burst, holdings,
                                       lambda: scenarios.faults_of_registries(self.om))
            walk.run()
            faults += walk.faults
            steps += walk.steps
        self.assertEqual("\n".join(faults), "")
        self.assertGreater(steps, 0)


def add_tests():
    targets = {"allocations": ALLOCATIONS, "calls": INTERPRETER_CALLS}
    for group in ("functions", "classes", "events"):
        for log in (False, True):
            for what, target in targets.items():
                for burst in (False, True):
                    def test(self, group=group, log=log, target=target, burst=burst):
                        self.check(group, log, target, burst)
                    name = "test_%s_%s_%s%s" % (group, "bursts_of_failing" if burst else "failing", what,
                                                "_while_logging" if log else "")
                    setattr(Walks, name, test)


add_tests()

if __name__ == "__main__":
    unittest.main()
