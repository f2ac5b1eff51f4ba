"""The pages for people: what they tell to type works, what they point at is there, and no message is missing."""

import collections
import glob
import importlib.machinery
import importlib.util
import os
import re
import subprocess
import sys
import tempfile
import unittest

import support

ROOT = os.path.dirname(os.path.dirname(support.HERE))
HOST = os.path.join(ROOT, "debug", "host")
NATIVE = os.path.join(ROOT, "debug", "tserver")
PAGES = sorted(["README.md", "CONTRIBUTING.md", "CHANGELOG.md"] +
               [os.path.relpath(each, ROOT) for each in glob.glob(os.path.join(ROOT, "docs", "*.md"))])
SECONDS = 120           # after which an example is ended: none waits for anything
TAGS = {"python", "sh", "console",      # are run
        "text", "mermaid"}              # are not

# `given`: code that is run before it; `file`: the file of the reader's folder that it is a part of
Block = collections.namedtuple("Block", "page line tag given file text")


def read(page):
    with open(os.path.join(ROOT, page), encoding="utf-8") as stream:
        return stream.read()


def blocks(page):
    """The fenced blocks of a page.

    A comment `<!-- given: CODE -->` right above one is run before it. `<!-- file: NAME -->` says that a reader puts the block at
    the end of that file; the sessions after it run in the folder of these files.
    """
    found, notes, start = [], {}, None
    for number, line in enumerate(read(page).splitlines(), 1):
        if line.startswith("```") and start is None:
            start, tag, text = number, line[3:].strip(), []
        elif line.startswith("```"):
            found.append(Block(page, start, tag, notes.get("given", "").replace("\\n", "\n"), notes.get("file"),
                               "\n".join(text) + "\n"))
            notes, start = {}, None
        elif start is not None:
            text.append(line)
        elif line.strip():
            match = re.match(r"<!-- (given|file): (.*) -->$", line)
            notes = dict([match.groups()]) if match else {}
    return found


def each_block(*tags):
    return [block for page in PAGES for block in blocks(page) if block.tag in tags]


def run(command, cwd=ROOT, **more):
    """Exit status and everything written."""
    environment = dict(os.environ, PYTHONPATH=os.pathsep.join([support.module_dir(), HOST]), PYTHONDONTWRITEBYTECODE="1",
                       **more)
    done = subprocess.run(command, cwd=cwd, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, universal_newlines=True, timeout=SECONDS)
    return done.returncode, done.stdout


def console_commands(text):
    """[(command, the output expected)] of a block with a prompt."""
    found = []
    for line in text.splitlines():
        if line.startswith("$ "):
            found.append((line[2:], []))
        else:
            found[-1][1].append(line)
    return [(command, "\n".join(lines).strip()) for command, lines in found]


class Examples(unittest.TestCase):
    def test_every_block_says_what_it_is(self):
        for page in PAGES:
            for block in blocks(page):
                with self.subTest(page=page, line=block.line):
                    self.assertIn(block.tag, TAGS)

    def test_every_block_is_fenced(self):
        """An indented one could not say what it is."""
        for page in PAGES:
            text = re.sub(r"^```.*?^```$", "", read(page), flags=re.M | re.S)
            with self.subTest(page=page):
                self.assertEqual(re.findall(r"\n\n( {4}.*)", text), [])

    def test_python(self):
        for block in each_block("python"):
            if block.file:
                continue        # run by a session
            with self.subTest(page=block.page, line=block.line), tempfile.TemporaryDirectory() as folder:
                status, out = run([sys.executable, "-c", block.given + "\n" + block.text], cwd=folder)
                self.assertEqual(status, 0, out)

    def test_commands(self):
        for block in each_block("sh"):
            with self.subTest(page=block.page, line=block.line):
                status, out = run(["sh", "-euc", block.text])
                self.assertEqual(status, 0, out)

    def test_sessions(self):
        for page in PAGES:
            with tempfile.TemporaryDirectory() as folder, tempfile.TemporaryDirectory() as programs:
                with open(os.path.join(programs, "python"), "w") as stream:
                    stream.write('#!/bin/sh\nexec "%s" "$@"\n' % sys.executable)
                os.chmod(stream.name, 0o755)
                where = {"cwd": ROOT}
                for block in blocks(page):
                    if block.file:
                        where = {"cwd": folder, "PATH": programs + os.pathsep + os.environ["PATH"]}
                        with open(os.path.join(folder, block.file), "a") as stream:
                            stream.write(block.text)
                    elif block.tag == "console":
                        self.check_session(block, where)

    def check_session(self, block, where):
        for command, expected in console_commands(block.text):
            with self.subTest(page=block.page, line=block.line, command=command):
                _, out = run(["sh", "-c", command], **where)
                pattern = ".*".join(map(re.escape, expected.split("...")))
                self.assertRegex(out.strip(), re.compile(pattern + r"\Z", re.S))

    def test_every_file_is_run_by_a_session(self):
        """Or imported by one that is."""
        for page in PAGES:
            files = {block.file: block.text for block in blocks(page) if block.file}
            used = "".join(block.text for block in blocks(page) if block.tag == "console") + "".join(files.values())
            for name in files:
                with self.subTest(page=page, file=name):
                    self.assertRegex(used, r"python %s\b|import %s\b" % (re.escape(name), re.escape(name[:-len(".py")])))

    def test_they_are_found(self):
        self.assertTrue(each_block("python"))
        self.assertTrue(each_block("sh"))


class Names(unittest.TestCase):
    def test_no_link_is_dead(self):
        for page in PAGES:
            for target in re.findall(r"\]\(([^)\s]+)\)", read(page)):
                if not re.match(r"[a-z]+:", target):
                    with self.subTest(page=page, link=target):
                        name, _, anchor = target.partition("#")
                        path = os.path.normpath(os.path.join(os.path.dirname(page), name)) if name else page
                        self.assertTrue(os.path.exists(os.path.join(ROOT, path)))
                        if anchor:
                            heads = re.findall(r"^#+ (.*)$", read(path), re.M)
                            self.assertIn(anchor, [re.sub(r"[^\w\- ]", "", head).lower().replace(" ", "-") for head in heads])

    def make_targets(self):
        return set(re.findall(r"^([a-z][a-z0-9-]*):.*##", read("Makefile"), re.M))

    def test_make_targets(self):
        targets = self.make_targets()
        for page in PAGES:
            # in code alone: between backticks, or at the start of a line of a block
            for target in re.findall(r"(?:`|^(?: {4})?)make ([a-z][a-z0-9-]*)", read(page), re.M):
                with self.subTest(page=page, target=target):
                    self.assertIn(target, targets)

    def test_every_make_target_is_documented(self):
        documented = set(re.findall(r"\bmake ([a-z][a-z0-9-]*)", read("CONTRIBUTING.md")))
        self.assertEqual(self.make_targets() - documented - {"clean", "setup", "interpreters"}, set())

    def test_help_of_make_has_every_target_in_a_group(self):
        status, out = run(["make", "--no-print-directory", "help"])
        self.assertEqual(status, 0, out)
        groups = [group.splitlines() for group in out.split("\n\n")]
        self.assertEqual([group[0] for group in groups], re.findall(r"^##@ (.*)", read("Makefile"), re.M))
        listed = [re.match(r"  ([a-z0-9-]+) +\S", line).group(1) for group in groups for line in group[1:]]
        self.assertEqual(sorted(listed), sorted(self.make_targets() - {"help"}))

    def test_marked_places(self):
        words = set(re.findall(r"`((?:ADD|CHANGE)-[A-Z]+)`", read("CONTRIBUTING.md")))
        marked = collections.defaultdict(set)
        for part in "debug", "docs", "tests":
            for path in glob.glob(os.path.join(ROOT, part, "**", "*.*"), recursive=True):
                if path.endswith((".cpp", ".h", ".py", ".pyi", ".js", ".md")):
                    for word in re.findall(r"(?:#|//|<!--) ((?:ADD|CHANGE)-[A-Z]+): ", read(path)):
                        marked[word].add(part)
        self.assertEqual(set(marked), words)
        for word in words:
            with self.subTest(word):
                self.assertLessEqual({"debug", "tests"}, marked[word])

    def test_modules_to_be_run(self):
        sys.path.insert(0, HOST)
        self.addCleanup(sys.path.remove, HOST)
        for page in PAGES:
            for name in re.findall(r"python[0-9.]* -m ([a-z][\w.]*)", read(page)):
                with self.subTest(page=page, module=name):
                    package, _, inner = name.partition(".")
                    found = importlib.util.find_spec(package)
                    self.assertTrue(found)
                    for part in inner.split(".") if inner else ():        # without importing what it is in
                        found = importlib.machinery.PathFinder.find_spec(part, found.submodule_search_locations)
                        self.assertTrue(found)

    def test_files_of_the_tree(self):
        for page in PAGES:
            for name in re.findall(r"`((?:bench|debug|docs|examples|tests|tools)/[\w./-]*\w/?)(?:`| )", read(page)):
                if re.search(r"/[A-Z]+\b(?!\.)", name):
                    continue        # a place-holder
                with self.subTest(page=page, name=name):
                    self.assertTrue(os.path.exists(os.path.join(ROOT, name)))

    def test_names_of_the_native_code(self):
        """A function that architecture.md names is there; the names from "Failures" on are patterns, and the tests'."""
        files = sorted(os.listdir(NATIVE))
        code = "\n".join(re.sub(r"//.*", "", read(os.path.join("debug/tserver", name)))
                         for name in files if name.endswith((".cpp", ".h", ".inc")))
        known = set(re.findall(r"\w+", code)) | {name.partition(".")[0].partition("_")[0] for name in files}
        page, _, _ = read("docs/architecture.md").partition("\n## Failures\n")
        for name in re.findall(r"`([A-Za-z]\w*)(?:\(\))?`", page):
            with self.subTest(name=name):
                self.assertTrue(name in known)

    def test_presets(self):
        status, out = run(["cmake", "--list-presets"])
        self.assertEqual(status, 0, out)
        presets = set(re.findall(r'^  "(\w+)"', out, re.M))
        for page in PAGES:
            for name in re.findall(r"--preset (\w+)", read(page)):
                with self.subTest(page=page, preset=name):
                    self.assertIn(name, presets)


class Version(unittest.TestCase):
    """It stands in brixdebug/version.py, from which the package and the command line take it; the others have to agree."""

    def test_all_say_the_same(self):
        version = re.search(r'^__version__ = "(\d+\.\d+\.\d+)"$', read("debug/host/brixdebug/version.py"), re.M).group(1)
        self.assertEqual(re.search(r"^## (\S+?),? ", read("CHANGELOG.md"), re.M).group(1), version)
        self.assertEqual(re.search(r'^  "version": "(.*)"', read("editors/vscode/package.json"), re.M).group(1), version)
        self.assertNotRegex(read("pyproject.toml"), r"(?m)^version *=")


class Changes(unittest.TestCase):
    def test_newest_version_has_each_change_once_in_its_section(self):
        newest = read("CHANGELOG.md").split("\n## ")[1]
        before, *sections = newest.split("\n### ")
        self.assertEqual(re.findall(r"^- .*", before, re.M), [])
        self.assertEqual(sorted(section.splitlines()[0] for section in sections), ["Added", "Changed", "Fixed"])
        entries = collections.Counter(re.findall(r"^- .*(?:\n  .*)*", newest, re.M))
        self.assertEqual([entry for entry, count in entries.items() if count > 1], [])


class Units(unittest.TestCase):
    def test_includes_follow_the_table(self):
        rows = re.findall(r"^\| `(\w+)` \| (nobody|.*?) \| [^|]+ \|$", read("docs/architecture.md"), re.M)
        knows = {unit: set(re.findall(r"`(\w+)`", others)) | {unit} for unit, others in rows}
        units = sorted(knows, key=len, reverse=True)

        def unit_of(name):
            return next((unit for unit in units if name.startswith(unit)), None)

        seen = set()
        for name in sorted(os.listdir(NATIVE)):
            unit = unit_of(name)
            if unit and name.endswith((".cpp", ".h", ".inc")):
                included = re.findall(r'^#include "([^"]+)"', read(os.path.join("debug/tserver", name)), re.M)
                with self.subTest(file=name):
                    self.assertEqual({unit_of(each) for each in included} - knows[unit], set())
                seen.add(unit)
        self.assertEqual(seen, {"dbgtracerhash", "xpy_c_api", "dprintf", "dbgcommon", "fileops", "optmonitoring"})


# ---- Messages ----

# Calls whose texts are read by people.
SPEAKING = {"DO_DP", "DO_DP_TWO_REPRS", "DO_FILENAMES", "LOG", "XPY_GONE", "append_frame_text", "clear_failure", "copy_limited",
            "do_dp", "do_dp_no_py", "do_dprintf", "do_dprintf_repr_quietly", "fail_int", "fail_null", "fputs", "fprintf",
            "log_and_clear", "log_startup", "PyErr_Format", "PyErr_SetString", "report_failure", "text_from_str",
            "write_str_to_native_file"}
ONLY_PLACES = {"%s", "%s%s%s"}      # formats without a word
TOKEN = re.compile(r"""//[^\n]* | \#include[^\n]* | '(?:\\.|[^'\\])*' | "(?:\\.|[^"\\])*" | [A-Za-z_]\w* | \s+ | \\ | .""",
                   re.X | re.S)


def texts(source):
    """[(text, the calls that it stands in)]: neighbouring literals are one text."""
    found, calls, word, joined = [], [], "", False
    for token in TOKEN.findall(source):
        if token[0] == '"':
            if joined:
                found[-1][0].append(token[1:-1])
            else:
                found.append(([token[1:-1]], list(calls)))
            joined = True
        elif not token.isspace() and token != "\\" and not token.startswith("//"):
            joined = False
            if token == "(":
                calls.append(word)
            elif token == ")" and calls:
                calls.pop()
            word = token if re.match(r"\w", token) else ""
    return [("".join(parts), around) for parts, around in found]


def as_documented(text):
    return text[:-2] if text.endswith("\\n") else text


def messages_of(name):
    """(the messages, all texts) of a native file, without the ends of their lines."""
    with open(os.path.join(NATIVE, name), encoding="utf-8") as stream:
        found = texts(stream.read())
    spoken = {as_documented(text) for text, calls in found
              if text and (text.endswith("\\n") or SPEAKING.intersection(calls))}
    return spoken - ONLY_PLACES, {as_documented(text) for text, _ in found}


def documented_messages():
    """{native file: [message]} of the page."""
    documented, name = {}, None
    for line in read("docs/debug-log.md").splitlines():
        head = re.match(r"### ([\w.]+)$", line)
        row = re.match(r"\| `(.*?)` \|", line)
        if line.startswith("#"):
            name = head.group(1) if head else None
        elif row and name:
            documented.setdefault(name, []).append(row.group(1))
    return documented


class Messages(unittest.TestCase):
    maxDiff = None

    def test_every_message_is_documented(self):
        documented = documented_messages()
        for name in sorted(os.listdir(NATIVE)):
            if name.endswith((".cpp", ".h", ".inc")):
                with self.subTest(file=name):
                    self.assertEqual(sorted(messages_of(name)[0] - set(documented.get(name, []))), [])

    def test_every_documented_message_is_written(self):
        for name, rows in documented_messages().items():
            with self.subTest(file=name):
                self.assertEqual(sorted(set(rows) - messages_of(name)[1]), [])
                self.assertEqual([row for row, count in collections.Counter(rows).items() if count > 1], [])

    def test_every_row_is_whole(self):
        for line in read("docs/debug-log.md").splitlines():
            if line.startswith("| `"):
                cells = re.sub(r"`[^`]*`", "code", line).strip("|").split("|")
                with self.subTest(row=line):
                    self.assertIn(len(cells), (3, 4))
                    self.assertTrue(all(cell.strip() for cell in cells))

    def test_masks(self):
        optmonitoring = support.load()
        rows = re.findall(r"^\| [\w/ ]+ \| (\d+) \| `(kLog\w+)` \|", read("docs/debug-log.md"), re.M)
        self.assertEqual({name: int(mask) for mask, name in rows},
                         {name: getattr(optmonitoring, name) for name in dir(optmonitoring) if name.startswith("kLog")})


if __name__ == "__main__":
    unittest.main()
