"""The commands that the prompt adds to pdb's: all are described, by `help` and in the user's guide; `info`."""

import json
import re
import unittest
from pathlib import Path

from host_support import check_child, scratch_folder
from session import Session, write_program

GUIDE = Path(__file__).resolve().parent.parent.parent / "docs" / "debugger.md"
SECTION = "## Commands that pdb lacks"

# Prints the commands of the prompt, and those of pdb.
SHOW = """
import json, pdb
import brixdebug

def commands(cls):
    return [name[len("do_"):] for name in dir(cls) if name.startswith("do_")]

print(json.dumps([commands(brixdebug.Debugger), commands(pdb.Pdb)]))
"""


# ADD-COMMAND: these fail until all places have it; what it does is tested in the module of its subject, or here.
class CommandsTest(unittest.TestCase):
    def setUp(self):
        there, of_pdb = json.loads(check_child(self, "-c", SHOW))
        self.added = set(there) - set(of_pdb)
        self.assertIn("threads", self.added)

    def test_help_describes_each(self):
        session = Session(self, "-m", "brixdebug", write_program(scratch_folder(self), "pass\n"))
        session.prompt()
        for name in sorted(self.added):
            with self.subTest(name):
                self.assertRegex(session.do("help " + name), r"^ *(Usage: )?%s\b" % name)
        session.end("quit")

    def test_table_of_the_guide_names_each(self):
        """And no other."""
        section = GUIDE.read_text(encoding="utf-8").partition(SECTION)[2].partition("\n## ")[0]
        cells = re.findall(r"^\| (`.*?) \|", section, re.M)
        self.assertEqual({re.match(r"`(\w+)", cell).group(1) for cell in cells}, self.added)

    def test_bare_name_of_a_variable(self):
        """It is the command where that does something without an argument, and else the variable."""
        session = Session(self, "-m", "brixdebug", write_program(scratch_folder(self), "pass\n"))
        session.prompt()
        needs_argument = {name: session.do(name).startswith("***") for name in sorted(self.added)}
        self.assertEqual({needs_argument["threads"], needs_argument["thread"]}, {True, False})
        for name, is_variable in needs_argument.items():
            with self.subTest(name):
                session.do("!%s = 'of the program'" % name)
                note = "(the command; the program's variable is !%s)\n" % name
                answer = session.do(name)
                if is_variable:
                    self.assertEqual(answer, "'of the program'\n")
                else:
                    self.assertEqual(answer[:len(note)], note)
                self.assertEqual(session.do("!" + name), "'of the program'\n")
        session.end("quit")


class InfoTest(unittest.TestCase):
    def setUp(self):
        self.folder = scratch_folder(self)

    def start(self, text):
        self.program = write_program(self.folder, text)
        session = Session(self, "-m", "brixdebug", self.program, cwd=self.folder)
        session.prompt()
        return session

    def test_duplicates(self):
        for name in "one", "two", "other":
            write_program(self.folder, "value = 1\n" if name != "other" else "value = 2\n", name + ".py")
        session = self.start("import one, two, other\nhere = 1\n")
        session.do("break one.py:1")
        self.assertIn("one.py(1)", session.do("continue"))
        self.assertIn("Breakpoint", session.do("break %s:2" % self.program))
        session.do("continue")
        self.assertEqual(session.do("info duplicates"),
                         "Equal contents:\n    %s\n    %s\n" % (self.folder / "one.py", self.folder / "two.py"))
        topics = "*** info duplicates, info processes, info threads, info watches is what there is\n"
        self.assertEqual(session.do("info"), topics)
        self.assertEqual(session.do("info breakpoints"), topics)
        self.assertIn("equal contents", session.do("help info"))
        session.do("info = [3]")
        self.assertEqual(session.do("info[0]"), "3\n")
        session.end("quit")

    def test_without_duplicates(self):
        session = self.start("here = 1\n")
        self.assertEqual(session.do("info duplicates"), "No two files have equal contents.\n")
        session.end("quit")


if __name__ == "__main__":
    unittest.main()
