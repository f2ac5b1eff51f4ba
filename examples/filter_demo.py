#!/usr/bin/env python3
"""Debug real programs through the native event filter and show what it saves.

Each program, a tool of the standard library, runs three times in this process:
plainly; under the filter with breakpoints set; and once more with every answer
of the filter counted.  The report shows the stops, the counts, and that the
program's output is the same each time.  Exit status: 0 all as expected, 1 a
check failed, 2 the demonstration could not run.

filter_host.py is the part to read for writing a host of one's own.
"""

# This file is kept readable for old interpreters, so that they get the message
# about the version and not a syntax error.
from __future__ import print_function

import argparse
import glob
import os
import shutil
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
HOST_DIR = os.path.normpath(os.path.join(HERE, "..", "debug", "host"))     # has brixbase
PROGRAM_NAMES = ("json", "tokenize", "ast")
NEEDS_MONITORING = """\
the event filter needs Python 3.12 or later (sys.monitoring); this is Python %d.%d, %s.
Start the demonstration with another interpreter, for example:
    python3.12 %s"""


class CannotRun(Exception):
    """The demonstration cannot run; the text is for the user."""


def parse_arguments(arguments):
    parser = argparse.ArgumentParser(
        description="Run programs of the standard library under the event filter, "
                    "show the stops and what the filter saved.")
    parser.add_argument("--module-dir", metavar="DIR",
                        default=os.path.normpath(os.path.join(HERE, "..", "build")),
                        help="folder of the built optmonitoring module (default: %(default)s)")
    parser.add_argument("--program", choices=PROGRAM_NAMES + ("all",), default="all",
                        help="the program to run (default: %(default)s)")
    parser.add_argument("--break", dest="breaks", action="append", default=[],
                        metavar="FILE_SUFFIX:FUNCTION_OR_LINE",
                        help="a breakpoint in place of the default ones, for example "
                             "json/encoder.py:_iterencode_dict; may be repeated")
    parser.add_argument("--log", metavar="FILE", help="write the module's log to FILE")
    parser.add_argument("--quiet", action="store_true", help="one line per program")
    return parser.parse_args(arguments)


def import_module(folder):
    """Import optmonitoring from `folder`; it imports brixbase from HOST_DIR."""
    if not glob.glob(os.path.join(folder, "optmonitoring.*")):
        raise CannotRun("no optmonitoring module in %s\n"
                        "Build it first, or name its folder with --module-dir DIR." % folder)
    sys.path.insert(0, folder)
    try:
        import optmonitoring
    except Exception as error:
        raise CannotRun("cannot load the optmonitoring module in %s: %s: %s"
                        % (folder, type(error).__name__, error))
    finally:
        sys.path.remove(folder)      # nothing else of a build folder is to be imported
    return optmonitoring


def own_files():
    """The host's own source files: the debugger does not debug itself."""
    base = os.path.join(HOST_DIR, "brixbase")
    return ([os.path.join(HERE, name) for name in (
        "filter_demo.py", "filter_host.py", "real_programs.py")]
            + [os.path.join(base, name) for name in ("__init__.py", "dlog.py")])


def find_breakpoints(program, breaks):
    """The breakpoints of the command line, or else the program's default ones."""
    from real_programs import find_breakpoint
    not_in = own_files()
    if not breaks:
        return [find_breakpoint(*place, not_in=not_in) for place in program.breakpoints]
    found = []
    for place in breaks:
        suffix, colon, where = place.rpartition(":")
        if not (suffix and colon and where):
            raise CannotRun("--break %s: expected FILE_SUFFIX:FUNCTION_OR_LINE" % place)
        if where.isdigit():
            found.append(find_breakpoint(suffix, line=int(where), not_in=not_in))
        else:
            found.append(find_breakpoint(suffix, where, not_in=not_in))
    return found


class Report(object):
    """One program's three runs and what was seen in them."""

    def __init__(self, program, breakpoints):
        self.program = program
        self.breakpoints = breakpoints

    def run(self, host, plain):
        from brixbase import dlog
        failures_before = dlog.GetExceptionCount()
        self.plain = plain
        for breakpoint in self.breakpoints:
            host.set_breakpoint(breakpoint)
        with host.filtering():
            self.filtered = self.program.run()
        self.second_calls = host.second_calls
        self.seen = [self._seen_at(breakpoint) for breakpoint in self.breakpoints]
        with host.filtering(counting=True):
            self.counted = self.program.run()
        self.counted_second_calls = host.second_calls
        self.counts = host.counts
        self.thread_name = host.thread_name()
        for breakpoint in self.breakpoints:
            host.clear_breakpoint(breakpoint)
        self.failures = dlog.GetExceptionCount() - failures_before

    @staticmethod
    def _seen_at(breakpoint):
        return (breakpoint.hits, breakpoint.result_count,
                [stop.place() for stop in breakpoint.stops])

    def total(self, name):
        return sum(getattr(counts, name) for counts in self.counts.values())

    def problems(self, all_must_be_hit):
        """What is not as it has to be, as texts."""
        if self.failures:
            yield "%d exceptions were kept from the program; see the log" % self.failures
        for run, output in (("under the filter", self.filtered),
                            ("while counting", self.counted)):
            if (output.digest, output.size) != (self.plain.digest, self.plain.size):
                yield "the output %s differs from the plain one" % run
        if self.seen != [self._seen_at(breakpoint) for breakpoint in self.breakpoints]:
            yield "the stops while counting differ from those before"
        if self.second_calls != self.counted_second_calls:
            yield "the second callbacks ran %s times, and while counting %s" % (
                self.second_calls, self.counted_second_calls)
        for event, counts in sorted(self.counts.items()):
            if counts.all != counts.disabled + counts.ignored + counts.forwarded:
                yield "%s: some answers were neither None nor DISABLE" % event
            if counts.forwarded != self.counted_second_calls[event]:
                yield "%s: %d answers came from the second callback, which ran %d times" % (
                    event, counts.forwarded, self.counted_second_calls[event])
        hits = sum(breakpoint.hits for breakpoint in self.breakpoints)
        if hits != self.counts["LINE"].forwarded:
            yield "%d stops, but %d LINE events let through" % (
                hits, self.counts["LINE"].forwarded)
        if not self.total("disabled"):
            yield "no event of the host's own code was switched off"
        for breakpoint in self.breakpoints if all_must_be_hit else ():
            if not breakpoint.hits:
                yield "never stopped at %s" % place_text(breakpoint)

    def print_summary(self):
        print("%s: %d stops at %d breakpoints; %d events, %d disabled, %d ignored, "
              "%d forwarded; output of %d bytes unchanged" % (
                  self.program.title, sum(b.hits for b in self.breakpoints),
                  len(self.breakpoints), self.total("all"), self.total("disabled"),
                  self.total("ignored"), self.total("forwarded"), self.plain.size))

    def print_in_full(self):
        print("== %s ==" % self.program.title)
        print("Stops in thread %s" % self.thread_name)
        for breakpoint in self.breakpoints:
            print("  %s: %s" % (place_text(breakpoint), times(breakpoint.hits)))
            for number, stop in enumerate(breakpoint.stops, 1):
                print("    %d. line %d in %s%s" % (
                    number, stop.line, stop.function,
                    "" if stop.name is None else ", %s = %s" % (stop.name, stop.value)))
            self._print_more(breakpoint.hits - len(breakpoint.stops), "stops")
            for number, result in enumerate(breakpoint.results, 1):
                print("    result %d: %s" % (number, result))
            self._print_more(breakpoint.result_count - len(breakpoint.results), "results")
        print("Events       reported  disabled   ignored  forwarded to Python")
        for event, counts in self.counts.items():
            self._print_counts(event, counts.all, counts.disabled, counts.ignored,
                               counts.forwarded)
        self._print_counts("all", *map(self.total, ("all", "disabled", "ignored",
                                                    "forwarded")))
        print("Output: %d bytes, unchanged under the filter (sha256 %s...)"
              % (self.plain.size, self.plain.digest[:16]))
        print("Time: %.2f s plain, %.2f s under the filter, %.2f s with every event counted"
              % (self.plain.seconds, self.filtered.seconds, self.counted.seconds))
        print()

    @staticmethod
    def _print_more(count, what):
        if count > 0:
            print("    and %d more %s" % (count, what))

    @staticmethod
    def _print_counts(name, *numbers):
        print("  %-9s %10d%10d%10d%10d" % ((name,) + numbers))


def place_text(breakpoint):
    """The last two parts of the path say enough."""
    path = "/".join(breakpoint.path.split(os.sep)[-2:])
    return "%s:%d %s" % (path, breakpoint.line, breakpoint.function)


def times(count):
    return {0: "never reached", 1: "1 stop"}.get(count, "%d stops" % count)


def run(options, folder):
    """Run the chosen programs; the exit status."""
    optmonitoring = import_module(options.module_dir)
    from filter_host import FilterHost
    from real_programs import make_programs

    programs = make_programs(folder)
    chosen = [programs[name] for name in PROGRAM_NAMES if options.program in (name, "all")]
    # The plain runs come first: they import what the programs need, so that
    # the other runs are alike, and breakpoints are looked for in what is imported.
    plain = [program.run() for program in chosen]
    log_file = open(options.log, "w", encoding="utf-8") if options.log else None
    try:
        reports = [Report(program, find_breakpoints(program, options.breaks))
                   for program in chosen]
        if not options.quiet:
            print("Python %d.%d.%d with %s" % (sys.version_info[:3]
                                               + (optmonitoring.__file__,)))
            print()
        status = 0
        with FilterHost(optmonitoring, own_files(), log_file) as host:
            for report, output in zip(reports, plain):
                report.run(host, output)
                problems = list(report.problems(all_must_be_hit=not options.breaks))
                if options.quiet and not problems:
                    report.print_summary()
                elif not problems:
                    report.print_in_full()
                for problem in problems:
                    status = 1
                    print("filter_demo: %s: %s" % (report.program.title, problem),
                          file=sys.stderr)
        return status
    finally:
        if log_file is not None:
            log_file.close()


def main(arguments=None):
    options = parse_arguments(arguments)
    folder = tempfile.mkdtemp(prefix="filter_demo.")
    try:
        if not hasattr(sys, "monitoring"):
            raise CannotRun(NEEDS_MONITORING % (sys.version_info[:2] + (
                sys.executable, os.path.relpath(os.path.join(HERE, "filter_demo.py")))))
        sys.path[:0] = [HERE, HOST_DIR]
        from filter_host import HostError
        try:
            return run(options, folder)
        except HostError as error:
            raise CannotRun(error)
    except (CannotRun, EnvironmentError) as error:
        print("filter_demo: %s" % error, file=sys.stderr)
        return 2
    finally:
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
