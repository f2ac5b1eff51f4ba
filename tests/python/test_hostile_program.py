"""A program that is not trusted cannot end the process through what it sees of the module."""

import types
import unittest

import support
from child_cases import test_class

HostileProgramTest = test_class("child_hostile", "HostileProgramTest")


@support.needs_monitoring
class AllIsTriedTest(unittest.TestCase):
    def assert_named(self, table, *kinds):
        module = support.load()
        for class_name, names in table.items():
            with self.subTest(class_name):
                self.assertEqual(set(names), {name for name, value in vars(getattr(module, class_name)).items()
                                              if isinstance(value, kinds)})

    def test_members(self):
        from child_hostile import FIELDS
        self.assert_named(FIELDS, types.MemberDescriptorType)

    def test_methods(self):
        from child_hostile import METHODS
        self.assert_named(METHODS, types.MethodDescriptorType, types.ClassMethodDescriptorType)


if __name__ == "__main__":
    unittest.main()
