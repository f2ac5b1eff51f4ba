"""Breakpoint lines in sets of every shape: the filter reports a line exactly when the set holds it."""
import random
import sys
import unittest

import support

optmonitoring = support.load() if hasattr(sys, "monitoring") else None

REPORTED = "reported"


class Number(int):
    """An int of another type."""


class Lines(set):
    """A set of another type."""


class Never:
    """Equal to nothing, but with the hash of a line."""

    def __hash__(self):
        return 5

    def __eq__(self, other):
        return False


SMALL_LINES = list(range(300)) + [1000, 1 << 15, 99999]
ODD_LINES = [-1, -2, -5, True, False, Number(5), 5.0, 5.5, (1 << 30) - 1, 1 << 30, (1 << 30) + 5, 1 << 60,
             (1 << 61) - 1, 1 << 61, (1 << 61) + 4, 1 << 64, -(1 << 61), "5", None, (5,)]


def emptied(lines):
    for line in list(lines):
        lines.discard(line)
    return lines


def with_removed(lines, removed):
    for line in removed:
        lines.discard(line)
    return lines


@support.needs_monitoring
class LineSetTest(unittest.TestCase):
    def setUp(self):
        namespace = {}
        exec(compile("def program():\n    pass\n", "/nowhere/program.py", "exec"), namespace)
        self.code = namespace["program"].__code__
        self.callback = optmonitoring.CInitialCallback(optmonitoring.kPyLineEventId, lambda code, line: REPORTED, 1)
        self.record = optmonitoring.CPerCodeObject.GetPerCodeObject(self.code, True, sys._getframe())
        # with its name and policy known, this thread's record is ready for the skip decision
        optmonitoring.CPerThread.SetGetThreadNameCallback(lambda record: "a thread")
        optmonitoring.CPerThread.SetDebugPolicyCallback(lambda thread_id: 1)
        self.addCleanup(optmonitoring.CPerThread.SetGetThreadNameCallback, None)
        self.addCleanup(optmonitoring.CPerThread.SetDebugPolicyCallback, None)

    def check(self, lines, candidates):
        self.record.fEnabledBpLinenos = lines
        for line in candidates:
            expected = REPORTED if line in lines else None
            for every_thread in (0, 1):  # by the line alone, and by the skip decision
                self.callback.fSteppingEventsNeededEveryThread = every_thread
                self.assertEqual(self.callback.Callback(self.code, line), expected, "%r in %r" % (line, lines))

    def test_sets_of_every_size(self):
        for size in (0, 1, 2, 4, 5, 8, 30, 100, 1000):
            self.check(set(range(1, 3 * size + 1, 3)), SMALL_LINES + ODD_LINES)

    def test_lines_that_share_their_low_bits(self):
        self.check({8, 16, 24, 32}, SMALL_LINES + ODD_LINES)
        self.check({1 << 20, 1 << 29}, SMALL_LINES + ODD_LINES + [1 << 20, 1 << 29])

    def test_lines_that_collide_with_others_in_sets_of_every_size(self):
        """A table has at most 16 times as many entries as the set; the low bits of the candidates are those of members."""
        for size in (1, 4, 5, 18, 19, 20, 76, 77, 300, 1000, 10000):
            for step in (1, 3):
                lines = set(range(10, 10 + step * size, step))
                some = sorted(lines)[::max(1, size // 5)]
                self.check(lines, {line + (1 << bits) for line in some for bits in range(3, 20)} | set(some))

    def test_keys_of_other_types_that_collide(self):
        class Counting:
            """Equal to nothing, but with the hash of a line; counts how often it was asked."""
            asked = 0

            def __hash__(self):
                return 13

            def __eq__(self, other):
                Counting.asked += 1
                return False

        for lines in ({5, Counting()}, {5, Counting(), 13}, set(range(20, 60)) | {Counting()}):
            self.record.fEnabledBpLinenos = lines
            Counting.asked = 0
            expected = REPORTED if any(line == 13 for line in lines if isinstance(line, int)) else None
            self.assertEqual(self.callback.Callback(self.code, 13), expected)
            self.assertGreater(Counting.asked, 0)

    def test_large_and_negative_lines(self):
        self.check({(1 << 30) - 1, 1 << 30, 1 << 61, (1 << 61) + 4, 1 << 64, -1, -2, 0}, SMALL_LINES + ODD_LINES)

    def test_sets_with_removed_lines(self):
        self.check(emptied(set(range(100))), SMALL_LINES + ODD_LINES)
        self.check(with_removed(set(range(100)), range(0, 100, 2)), SMALL_LINES + ODD_LINES)
        self.check(with_removed({5, 13, 21}, [5]), SMALL_LINES + ODD_LINES)

    def test_members_of_other_types(self):
        self.check({5.0, True, Number(7), "5"}, SMALL_LINES + ODD_LINES)
        self.check({Never(), 6}, SMALL_LINES + ODD_LINES)
        self.check({Never(), 5}, SMALL_LINES + ODD_LINES)

    def test_collections_of_other_types(self):
        self.check(frozenset({5, 8}), SMALL_LINES + ODD_LINES)
        self.check(Lines({5, 8}), SMALL_LINES + ODD_LINES)

    def test_a_set_that_changes_between_events(self):
        lines = set()
        for line in range(1, 200):
            self.check(lines, [line - 1, line, line + 1])
            lines.add(line)
            self.check(lines, [line - 1, line, line + 1])

    def test_random_sets(self):
        random.seed(20261)
        for _ in range(200):
            bits = random.choice([3, 6, 10, 16, 29, 31])
            lines = {random.getrandbits(bits) for _ in range(random.randrange(40))}
            self.check(lines, [random.getrandbits(bits) for _ in range(50)] + sorted(lines))


if __name__ == "__main__":
    unittest.main()
