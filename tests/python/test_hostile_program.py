"""A program that is not trusted cannot end the process through what it sees of the module."""

import unittest

from child_cases import test_class

HostileProgramTest = test_class("child_hostile", "HostileProgramTest")


if __name__ == "__main__":
    unittest.main()
