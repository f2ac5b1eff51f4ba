"""The program runs on and no stop is missed, whatever fails around the module: hooks, log files, memory, modules."""

import unittest

from child_cases import test_class

SurroundingsTest = test_class("child_reliability", "SurroundingsTest")


if __name__ == "__main__":
    unittest.main()
