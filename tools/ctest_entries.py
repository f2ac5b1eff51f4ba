"""What ctest knows of the tests of a build folder: one entry for each test module in each interpreter."""
import collections
import json
import re
import subprocess

# `group`, `interpreter`, `module`: brixdebug, 3.14.10, test_stops; None where an entry's name has no such part.
Entry = collections.namedtuple("Entry", "name group interpreter module labels command environment folder")


def split(name):
    """(group, interpreter, module): brixdebug_3.14.10.test_stops, cpp_3.12.1 (no module), fuzz_hash (the group alone)."""
    found = re.match(r"([a-z]+)_(\d[\w.-]*?|any)(?:\.([a-z]\w*))?$", name)
    return found.groups() if found else (name, None, None)


def entries(build, *options):
    """The entries that ctest chooses by these options."""
    out = subprocess.check_output(["ctest", "--show-only=json-v1", *options], cwd=build, universal_newlines=True)
    found = []
    for test in json.loads(out)["tests"]:
        properties = {each["name"]: each["value"] for each in test.get("properties", ())}
        found.append(Entry(test["name"], *split(test["name"]), properties.get("LABELS", []), test.get("command", []),
                           dict(each.split("=", 1) for each in properties.get("ENVIRONMENT", ())),
                           properties.get("WORKING_DIRECTORY", build)))
    return found
