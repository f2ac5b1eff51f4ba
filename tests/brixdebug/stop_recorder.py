"""Runs programs under a debugger class with a script of commands and writes down every stop.

Each line of standard input is a JSON list of sessions that run side by side: [SESSION_FILE, RESULT_FILE, OUTPUT_FILE] for
each. A session has a process of its own, which is forked once all that is common to them has been imported; what it prints
goes to the output file. When all have ended, a line with the list of their exit statuses is printed.

The session file holds a JSON object:

    base         "settrace": bdb.Bdb on sys.settrace (see SettraceBdb); "samefile": the same, with files told apart by what
                 they are and not by name; "engine": brixdebug.engine.Bdb
    folder       only stops in files of this folder are written down
    program      the file to run as __main__
    breakpoints  [{"file", "line"}] with any of "condition", "ignore", "temporary", "function"
    commands     one text for each stop that is written down: "step", "next", "until", "until LINE", "return", "continue",
                 "quit", with orders before it, separated by ";": "break FILE LINE", "clear FILE LINE", "disable N",
                 "enable N"
    cycle        the commands for the stops after those, over and over
    locals       names whose values are written down at each stop
    threads      true: other threads are traced on sys.settrace too, as they always are by the engine

A stop in another file is answered with "step", on every base: the standard library may be stepped through, differently
on each version, and what follows has to be the same.
"""

import bdb
import contextlib
import io
import json
import os
import re
import sys
import types

# What the programs and the engine import: it is not to be stepped through on one base and not on the other.
import asyncio
import collections
import dataclasses
import functools
import importlib.util
import linecache
import logging
import threading
import traceback

STOPS_LIMIT = 20000      # a session that runs in circles ends


class SettraceBdb(bdb.Bdb):
    """bdb.Bdb of the running version, on sys.settrace.

    Before 3.14 it runs away when a function that was entered by a breakpoint ends and the command is "next" or "return":
    nothing traces the caller. Here the caller is traced, as it is from 3.14 on.
    """

    def __init__(self):
        if sys.version_info >= (3, 14):
            super().__init__(backend="settrace")
        else:
            super().__init__()

    def dispatch_return(self, frame, arg):
        trace = super().dispatch_return(frame, arg)
        caller = frame.f_back
        continues = self.stopframe is self.botframe and self.stoplineno == -1
        if sys.version_info < (3, 14) and not continues and caller not in (None, self.botframe) and not caller.f_trace:
            caller.f_trace = self.trace_dispatch
        return trace


class SamefileBdb(SettraceBdb):
    """Knows a file by any of its names."""

    def __init__(self):
        super().__init__()
        self._names = {}             # name -> the first name of the same file

    def canonic(self, filename):
        name = super().canonic(filename)
        if name not in self._names:
            self._names[name] = next((known for known in set(self._names.values()) if self._is_same(known, name)), name)
        return self._names[name]

    @staticmethod
    def _is_same(one, other):
        try:
            return os.path.samefile(one, other)
        except OSError:
            return False


def base_class(name):
    if name == "engine":
        from brixdebug import engine
        return engine.Bdb
    return {"settrace": SettraceBdb, "samefile": SamefileBdb}[name]


def make_recorder(base):

    class Recorder(base):

        def __init__(self, session):
            super().__init__()
            self.folder = session["folder"]
            self.local_names = session.get("locals", ())
            self.commands = list(session.get("commands", ()))
            self.cycle = session.get("cycle", ["continue"])
            self.stops = []
            self.answers = 0
            self.currentbp = 0

        # -- what a user of the class sees ---------------------------------

        def user_call(self, frame, argument_list):
            # Also called where nothing stops, in a file with breakpoints; pdb passes over those.
            self.stop("call", frame, None, answered=self.stop_here(frame))

        def user_line(self, frame):
            self.stop("line", frame, None)

        def user_return(self, frame, return_value):
            self.stop("return", frame, self.text(return_value))

        def user_exception(self, frame, exc_info):
            self.stop("exception", frame, "%s: %s" % (exc_info[0].__name__, self.text(exc_info[1])))

        def stop(self, event, frame, value, answered=True):
            place = self.place(frame.f_code.co_filename)
            if place is None:
                if answered:
                    self.set_step()
                return
            values = {name: self.text(frame.f_locals[name]) for name in self.local_names if name in frame.f_locals}
            self.stops.append([event, place, frame.f_lineno, frame.f_code.co_name, value, values,
                               self.currentbp, answered])
            self.currentbp = 0
            if not answered:
                return
            self.answers += 1
            if len(self.stops) > STOPS_LIMIT:
                self.set_quit()
            elif self.commands:
                self.obey(frame, self.commands.pop(0))
            else:
                self.obey(frame, self.cycle[self.answers % len(self.cycle)])

        # -- commands --------------------------------------------------------

        def obey(self, frame, command):
            *orders, last = [part.split() for part in command.split(";")]
            for order, *arguments in orders:
                if arguments[0].startswith("<"):
                    arguments = [" ".join(arguments[:-1]), arguments[-1]]
                getattr(self, "order_" + order)(*arguments)
            name, *arguments = last
            if name == "until":
                self.set_until(frame, *map(int, arguments))
            elif name in ("next", "return"):
                getattr(self, "set_" + name)(frame)
            else:
                getattr(self, "set_" + name)()

        def order_break(self, file, line):
            self.add({"file": file, "line": int(line)})

        def order_clear(self, file, line):
            self.demand(self.clear_break(os.path.join(self.folder, file), int(line)))

        def order_disable(self, number):
            self.get_bpbynumber(number).disable()

        def order_enable(self, number):
            self.get_bpbynumber(number).enable()

        def add(self, breakpoint):
            file = breakpoint["file"]
            self.demand(self.set_break(file if file.startswith("<") else os.path.join(self.folder, file),
                                       breakpoint["line"], breakpoint.get("temporary", False),
                                       breakpoint.get("condition"), breakpoint.get("function")))
            bdb.Breakpoint.bpbynumber[-1].ignore = breakpoint.get("ignore", 0)

        @staticmethod
        def demand(error):
            if error:
                raise SystemExit("stop_recorder: %s" % error)

        # -- what is written down ----------------------------------------------

        def place(self, filename):
            """The name within the folder; a relative name, or one that is no file's, as it stands; None for others."""
            if not os.path.isabs(filename):
                return None if filename.startswith("<frozen") else filename
            if filename.startswith(self.folder + os.sep):
                return filename[len(self.folder) + 1:]
            return None

        def text(self, value):
            text = re.sub(r"0x[0-9a-f]+|\b\d{9,}\b", "ID", repr(value))
            return text.replace(self.folder, "FOLDER")

        def stack(self, traceback):
            """Where a debugger that is started after the death of the program would stand."""
            frames, index = self.get_stack(None, traceback)
            places = [(self.place(frame.f_code.co_filename), line, frame.f_code.co_name) for frame, line in frames]
            return [list(place) for place in places if place[0] is not None]

    return Recorder


def run(session):
    recorder = make_recorder(base_class(session["base"]))(session)
    path = os.path.join(session["folder"], session["program"])
    module = types.ModuleType("__main__")
    module.__file__ = path
    sys.modules["__main__"] = module
    sys.argv = [path]
    sys.path.insert(0, os.path.dirname(path))
    os.chdir(session["folder"])
    with open(path, encoding="utf-8") as stream:
        code = compile(stream.read(), path, "exec", dont_inherit=True)
    for breakpoint in session.get("breakpoints", ()):
        recorder.add(breakpoint)
    if session.get("threads") and session["base"] != "engine":
        threading.settrace(recorder.trace_dispatch)
    ended, stack, output = "", [], io.StringIO()
    with contextlib.redirect_stdout(output):
        try:
            recorder.run(code, module.__dict__)
        except BaseException as error:
            ended = "%s: %s" % (type(error).__name__, recorder.text(error))
            stack = recorder.stack(error.__traceback__)
    return {"stops": recorder.stops, "ended": ended, "stack": stack, "output": output.getvalue(),
            "breakpoints": [[each.number, each.hits] for each in bdb.Breakpoint.bpbynumber if each]}


def record(session_file, result_file, output_file):
    for name, flags, number in ((os.devnull, os.O_RDONLY, 0), (output_file, os.O_WRONLY, 1)):
        opened = os.open(name, flags)
        os.dup2(opened, number)
        os.close(opened)
    os.dup2(1, 2)
    with open(session_file, encoding="utf-8") as stream:
        session = json.load(stream)
    result = run(session)
    with open(result_file, "w", encoding="utf-8") as stream:
        json.dump(result, stream)


def main():
    with open(0, "rb", buffering=0, closefd=False) as requests:     # a session's own standard input is not read from
        for request in requests:
            children = []
            for files in json.loads(request):
                child = os.fork()
                if child == 0:
                    return record(*files)
                children.append(child)
            print(json.dumps([os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) for child in children]), flush=True)


if __name__ == "__main__":
    main()
