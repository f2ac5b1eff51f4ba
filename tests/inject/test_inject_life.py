"""Failures while the module, its threads and code objects come and go.

Deaths have no caller to tell: whatever fails there, no exception is left behind, no crash, and the other records are as
they were. What a failed death leaves is stated: a record may live on.
"""

import gc
import sys
import threading
import unittest

import inject_support
from inject_support import ALLOCATIONS, INTERPRETER_CALLS, TO_THE_END, Injected, lib, support
import scenarios

if hasattr(sys, "monitoring"):
    import state
    from filter_support import new_function

TARGETS = {"allocation": ALLOCATIONS, "call": INTERPRETER_CALLS}


def unraisable(action):
    """What the interpreter had to say about exceptions without a caller."""
    said = []
    hook, sys.unraisablehook = sys.unraisablehook, lambda args: said.append(repr(args.exc_value))
    try:
        action()
    finally:
        sys.unraisablehook = hook
    return said


@support.needs_monitoring
class Life(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.om = support.load()
        from brixbase import dlog
        cls.dlog = dlog

    def walk(self, target, prepare, act, check, burst, log):
        """ACT gets what PREPARE made, a list that holds it alone; CHECK tells what is wrong afterwards."""
        faults, n = [], 1
        while True:
            scenarios.start(self.om, log)
            inputs = prepare()
            said = []
            outcome = []

            def run():
                outcome.append(inject_support.Outcome(target, n, TO_THE_END if burst else n, lambda: act(inputs)))

            said = unraisable(run)
            outcome = outcome[0]
            failed = outcome.failed
            if failed:
                for fault in (outcome.error and repr(outcome.error), said and "unraisable: %s" % said,
                              outcome.stderr_fault, check(), scenarios.faults_of_registries(self.om)):
                    if fault:
                        faults.append("%d%s: %s (%r)" % (n, " and later ones" if burst else "", fault, outcome))
            del outcome
            scenarios.end(self.om, self.dlog, {})
            if not failed:
                break
            n += 1
        self.assertEqual("\n".join(faults), "")
        return n - 1

    def walk_all(self, prepare, act, check=lambda: None):
        steps = 0
        for log in (False, True):
            for target in TARGETS.values():
                for burst in (False, True):
                    with self.subTest(log=log, target=target, burst=burst):
                        steps += self.walk(target, prepare, act, check, burst, log)
        return steps

    # ---- Code objects ----

    def test_death_of_a_code_object(self):
        om = self.om

        def prepare():
            dying = new_function(filename="/nowhere/a.py").__code__
            self.other = new_function(filename="/nowhere/a.py").__code__
            om.CPerCodeObject.GetPerCodeObject(dying, True, sys._getframe())
            om.CPerCodeObject.GetPerCodeObject(self.other, True, sys._getframe())
            inputs = [dying]
            del dying
            gc.collect()        # the functions, which hold them as well
            return inputs

        def act(inputs):
            inputs.clear()
            support.bury_code()

        def check():
            # what the failure left of the dead one is not looked at
            registry = om.CPerCodeObject._fPerCodeObjectDict
            known = om.CPerFile.GetPerFile("/nowhere/a.py").fKnownPerCodeObjects
            record = om.CPerCodeObject.GetPerCodeObject(self.other, False)
            if record is None or record not in known or record not in registry.values():
                return "the other record is gone"
            for key in [key for key in registry if key() is None]:
                known.discard(registry.pop(key))
            for left in [left for left in known if left.fCodeObjectWeakRef() is None]:
                known.discard(left)

        self.assertGreater(self.walk_all(prepare, act, check), 20)

    # ---- Threads ----

    def in_thread_to_its_end(self, first):
        """Runs FIRST in a new thread and returns after the thread's state is gone."""
        done = threading.Event()
        import _thread
        count = _thread._count()

        def run():
            first()
            done.set()

        _thread.start_new_thread(run, ())
        done.wait()
        while _thread._count() > count:
            pass

    def test_death_of_a_thread(self):
        om = self.om
        for log in (False, True):
            for target in TARGETS.values():
                for burst in (False, True):
                    with self.subTest(log=log, target=target, burst=burst):
                        self.walk_thread_deaths(om, log, target, burst)

    def walk_thread_deaths(self, om, log, target, burst):
        faults, n = [], 1
        while True:
            scenarios.start(om, log)
            mine = om.CPerThread.GetPerThread()

            def live():
                om.CPerThread.GetPerThread()
                lib.inject_arm(target, n, TO_THE_END if burst else n, Injected)

            said = unraisable(lambda: self.in_thread_to_its_end(live))
            lib.inject_disarm()
            failed = lib.inject_failed_count()
            if failed and said:
                faults.append("%d: unraisable: %s" % (n, said))
            if om.CPerThread.GetPerThread() is not mine:
                faults.append("%d: this thread's record is another" % n)
            del mine
            scenarios.end(om, self.dlog, {})
            if not failed:
                break
            n += 1
        self.assertEqual("\n".join(faults), "")

    # ---- Modules ----

    def test_a_further_copy(self):
        """Each successful copy takes a code-extra index for good, so this walk is short of repetitions."""
        for target in TARGETS.values():
            for burst in (False, True):
                with self.subTest(target=target, burst=burst):
                    self.walk_copies(target, burst)

    def walk_copies(self, target, burst):
        blocks = lib.inject_live_blocks()
        state.clear_module(state.new_module())
        definition = lib.inject_live_blocks() - blocks      # each import makes one, and the interpreter keeps it
        faults, n = [], 1
        while True:
            blocks = lib.inject_live_blocks()
            outcome = inject_support.Outcome(target, n, TO_THE_END if burst else n, state.new_module)
            if outcome.error is None:       # the log does without its buffers, and the file tables without `os`
                state.clear_module(outcome.value)
                outcome.value = "a module"      # cleared, it is not to be looked at
            elif scenarios.judge_error(outcome.error) and str(outcome.error) != "No sys.monitoring attribute":
                faults.append("%d: %r" % (n, outcome))
            growth = lib.inject_live_blocks() - blocks
            if growth not in (0, definition):
                faults.append("%d: %+d blocks (%r)" % (n, growth, outcome))
            if not outcome.failed:
                break
            n += 1
        self.assertEqual("\n".join(faults), "")
        self.assertIsNone(outcome.error)

    def test_clearing(self):
        for target in TARGETS.values():
            n = 1
            while True:
                module = state.new_module()
                module.register_canonical_pathname("/nowhere/a.py")
                before = lib.inject_live_blocks()
                outcome = inject_support.Outcome(target, n, n, lambda: state.clear_module(module))
                self.assertEqual((outcome.error, outcome.value), (None, 0), repr(outcome))
                self.assertLess(lib.inject_live_blocks(), before)
                if not outcome.failed:
                    break
                n += 1

    def test_growth_of_the_file_tables(self):
        """A growth that fails, the next one that succeeds, and the tables' end."""
        names = ["/nowhere/%d.py" % n for n in range(60)]       # grows them twice

        def register():
            return [self.om.register_canonical_pathname(name) for name in names]

        n = 1
        while True:
            self.om.reset()
            outcome = inject_support.Outcome(ALLOCATIONS, n, n, register)
            self.assertEqual(register(), names, repr(outcome))
            self.om.reset()
            if not outcome.failed:
                break
            n += 1
        self.assertGreater(n, 2 * len(names))


if __name__ == "__main__":
    unittest.main()
