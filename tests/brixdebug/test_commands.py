"""The commands that the prompt adds to pdb's are described: by `help`, and in the user's guide."""

import json
import re
import unittest
from pathlib import Path

from host_support import check_child, scratch_folder
from session import Session, write_program

GUIDE = Path(__file__).resolve().parent.parent.parent / "docs" / "debugger.md"
SECTION = "## The commands that pdb has not"

# Prints the commands of the prompt, those of pdb, and those that do something without an argument.
SHOW = """
import json, pdb
import brixdebug
from brixdebug.commands.base import _BARE_COMMANDS

def commands(cls):
    return [name[len("do_"):] for name in dir(cls) if name.startswith("do_")]

print(json.dumps([commands(brixdebug.Debugger), commands(pdb.Pdb), sorted(_BARE_COMMANDS)]))
"""


class CommandsTest(unittest.TestCase):
    def setUp(self):
        there, of_pdb, bare = json.loads(check_child(self, "-c", SHOW))
        self.added, self.bare = set(there) - set(of_pdb), set(bare)
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

    def test_those_without_an_argument_are_commands(self):
        self.assertEqual(self.bare - self.added, set())


if __name__ == "__main__":
    unittest.main()
