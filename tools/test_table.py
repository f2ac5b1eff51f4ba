"""Prints what the test runs of all interpreters wrote down, one line each.

    python3 tools/test_table.py RESULTS_FOLDER

Every file there is one run: a JSON file of run_tests.py, or a GoogleTest report cpp_INTERPRETER.xml. Exit status 1 when
a test failed or nothing ran.
"""
import collections
import glob
import json
import os
import sys
import xml.etree.ElementTree


def read_json(name):
    with open(name) as stream:
        return json.load(stream)


def read_googletest(name):
    run = {"interpreter": os.path.basename(name)[len("cpp_"):-len(".xml")], "passed": 0, "failed": 0, "skipped": {}}
    for case in xml.etree.ElementTree.parse(name).iter("testcase"):
        skip = case.find("skipped")
        if case.find("failure") is not None:
            run["failed"] += 1
        elif skip is not None:
            reason = skip.get("message").strip().splitlines()[-1]
            run["skipped"][reason] = run["skipped"].get(reason, 0) + 1
        else:
            run["passed"] += 1
    return run


def read_runs(folder):
    runs = [read_json(name) for name in sorted(glob.glob(os.path.join(folder, "*.json")))]
    return runs + [read_googletest(name) for name in sorted(glob.glob(os.path.join(folder, "cpp_*.xml")))]


def version_key(name):
    numbers = name.split("-")[0].split(".")
    return [int(n) if n.isdigit() else 0 for n in numbers], name


def main(folder):
    table = collections.defaultdict(lambda: [0, 0, collections.Counter()])
    for run in read_runs(folder):
        row = table[run["interpreter"]]
        row[0] += run["passed"]
        row[1] += run["failed"]
        row[2].update(run["skipped"])
    print("\n%-22s %8s %8s %8s" % ("interpreter", "passed", "failed", "skipped"))
    for name in sorted(table, key=version_key):
        passed, failed, skipped = table[name]
        print("%-22s %8d %8d %8d" % (name, passed, failed, sum(skipped.values())))
        for reason, count in sorted(skipped.items()):
            print("%26s x %s" % (count, reason))
    totals = [sum(row[0] for row in table.values()), sum(row[1] for row in table.values()),
              sum(sum(row[2].values()) for row in table.values())]
    print("\n%d passed, %d failed, %d skipped" % tuple(totals))
    return 0 if totals[0] and not totals[1] else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
