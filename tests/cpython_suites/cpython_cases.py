"""Shared by what runs CPython's own tests: the cases of a suite, and the lists of those that are known to end differently.

A list is a JSON file of rows: `tests` are names, `reason` says why, `versions` (["3.14", ...]; default: all) where.
"""

import json
import os
import unittest


def cases_of(suite):
    for part in suite:
        if isinstance(part, unittest.TestSuite):
            yield from cases_of(part)
        else:
            yield part


def listed(path, version):
    """{test: its row} of the rows for one version."""
    with open(path) as stream:
        rows = json.load(stream)
    for row in rows:
        if not row.get("reason"):
            raise SystemExit("%s: no reason for %s" % (os.path.basename(path), ", ".join(row["tests"])))
    return {test: row for row in rows if version in row.get("versions", [version]) for test in row["tests"]}
