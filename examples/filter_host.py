"""A small host debugger around the event filter: the part to copy from.

The division of work.  `sys.monitoring` reports events; for each kind of event
one `CInitialCallback` decides in native code whether the host has to see it;
only then does the host's Python function, the second callback, run.  What the
filter decides by is written by the host into the records that the module keeps:

    CPerFile        one per source file   fBpSetByLineno: the host's breakpoints
    CPerCodeObject  one per code object   fEnabledBpLinenos, fReturnEventsNeededCount
    CPerThread      one per thread        the debug policy and the thread's name

`fEnabledBpLinenos` is the important one.  None, its first value, lets every
event of the code object through to Python; a set lets only LINE events on the
lines in it through, so an empty set makes the code object cost next to nothing.
"""

import contextlib
import reprlib
import sys
import threading

from brixbase import dlog

EVENTS = ("LINE", "PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME")
TOOL_NAME = "event filter demo"
_SHOWN_REPR = 44       # characters of a value in a report


class HostError(Exception):
    """The host cannot do what it was asked; the text is for the user."""


class Stop:
    """What a user sees of one stop: a place, and the value of one local variable."""

    def __init__(self, function, line, name, value):
        self.function = function
        self.line = line
        self.name = name         # None where the frame has no local variable yet
        self.value = value

    def place(self):
        return self.function, self.line


class Breakpoint:
    """A line of a source file; `local` names the variable to show, None the first one.

    With `returns`, what the function of that line returns or yields is shown too.
    """

    def __init__(self, path, line, function, local=None, returns=False):
        self.path = path
        self.line = line
        self.function = function
        self.local = local
        self.returns = returns
        self.clear()

    def clear(self):
        """Forget what was seen, before another run."""
        self.hits = 0
        self.stops = []            # the first few
        self.result_count = 0
        self.results = []          # the first few, as text


class Counts:
    """Events of one kind and how the filter answered them."""

    def __init__(self):
        self.all = self.disabled = self.ignored = self.forwarded = 0


class FilterHost:
    """Owns the tool id and the callbacks; `with FilterHost(...) as host:` cleans up.

    `internal_files` are the host's own source files: their code is never shown
    to the user, and the filter switches its events off for good.
    """

    def __init__(self, optmonitoring, internal_files, log_file=None, shown_stops=3):
        self._om = optmonitoring
        self._internal_files = internal_files
        self._log_file = log_file
        self._shown_stops = shown_stops
        self._tool_id = sys.monitoring.DEBUGGER_ID
        self._event_ids = {
            "LINE": optmonitoring.kPyLineEventId,
            "PY_START": optmonitoring.kPyStartEventId,
            "PY_RETURN": optmonitoring.kPyReturnEventId,
            "PY_YIELD": optmonitoring.kPyYieldEventId,
            "PY_RESUME": optmonitoring.kPyResumeEventId,
        }
        self._breakpoints = []
        self._thread_id = threading.get_ident()
        self.counts = {event: Counts() for event in EVENTS}
        self.second_calls = dict.fromkeys(EVENTS, 0)

    # -- set-up and tear-down ------------------------------------------------

    def __enter__(self):
        try:
            sys.monitoring.use_tool_id(self._tool_id, TOOL_NAME)
        except ValueError:
            raise HostError(
                "the monitoring tool id %d (sys.monitoring.DEBUGGER_ID) is taken by %r; "
                "stop that debugger first"
                % (self._tool_id, sys.monitoring.get_tool(self._tool_id))) from None
        try:
            self._configure()
        except BaseException:
            self.__exit__()
            raise
        return self

    def _configure(self):
        om = self._om
        if self._log_file is not None:
            # The module writes to the file object; the descriptor serves the few
            # places where no Python code may run.
            om.set_dprintf_file(self._log_file, self._log_file.fileno(), 0)
            om.set_dprintf_mask(om.kLogCore | om.kLogBreakpoints | om.kLogExceptions
                                | om.kLogInternalFailures | om.kLogThreading)
            dlog.SetLogFile(self._log_file)
        # Canonical names, since that is what the filter looks up in the table.
        om.SetInternalPathnameDict(
            {om.get_canonical_pathname(path): True for path in self._internal_files})
        om.CPerThread.SetDebugPolicyCallback(self._debug_policy)
        om.CPerThread.SetGetThreadNameCallback(self._thread_name)
        om.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(self._apply_breakpoints)

        second_callbacks = {"LINE": self._on_line,
                            "PY_START": self._on_other("PY_START"),
                            "PY_RETURN": self._on_result("PY_RETURN"),
                            "PY_YIELD": self._on_result("PY_YIELD"),
                            "PY_RESUME": self._on_other("PY_RESUME")}
        # The 1 allows DISABLE as the answer for internal code.
        self._initial_callbacks = {
            event: om.CInitialCallback(self._event_ids[event], second_callbacks[event], 1)
            for event in EVENTS}

    def __exit__(self, *exc_info):
        self.stop()
        for breakpoint in list(self._breakpoints):
            self.clear_breakpoint(breakpoint)
        # Not optmonitoring.reset(): it empties the registry of files and leaves the
        # records at their code objects, where the breakpoints of a later session
        # in this process would not find them.
        om = self._om
        om.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(None)
        om.CPerThread.SetDebugPolicyCallback(None)
        om.CPerThread.SetGetThreadNameCallback(None)
        om.SetInternalPathnameDict({})
        om.set_dprintf_file(None, -1, 0)
        dlog.SetLogFile(None)
        sys.monitoring.free_tool_id(self._tool_id)

    # -- running a program under the filter ----------------------------------

    @contextlib.contextmanager
    def filtering(self, counting=False):
        """Events are on inside the `with` block.

        With `counting`, every answer of the filter is tallied in `counts`.  That
        puts a Python function in front of the native one, for every event, so it
        is for reports and not for use.  The filter takes the file of a frozen
        module from the frame that it finds itself called from, which is then the
        tallying function: count only what has run under the filter before.
        """
        self.counts = {event: Counts() for event in EVENTS}
        self.second_calls = dict.fromkeys(EVENTS, 0)
        for breakpoint in self._breakpoints:
            breakpoint.clear()
        try:
            for event in EVENTS:
                callback = self._initial_callbacks[event].Callback
                if counting:
                    callback = self._tallying(event, callback)
                sys.monitoring.register_callback(
                    self._tool_id, self._event_ids[event], callback)
            # Everything but LINE for all code.  LINE is paid for by the size of
            # the code object on some interpreters, so it is switched on only in
            # code that holds a breakpoint: see _apply_breakpoints.
            wanted = 0
            for event in EVENTS:
                if event != "LINE":
                    wanted |= self._event_ids[event]
            sys.monitoring.set_events(self._tool_id, wanted)
            yield self
        finally:
            self.stop()

    def stop(self):
        """Events off.  What DISABLE switched off is armed again, for every tool."""
        sys.monitoring.set_events(self._tool_id, 0)
        for event in EVENTS:
            sys.monitoring.register_callback(self._tool_id, self._event_ids[event], None)
        sys.monitoring.restart_events()

    def _tallying(self, event, callback):
        counts = self.counts[event]
        second_calls = self.second_calls
        disable = sys.monitoring.DISABLE

        def tally(*args):
            before = second_calls[event]
            answer = callback(*args)
            counts.all += 1
            if second_calls[event] != before:
                counts.forwarded += 1
            elif answer is disable:
                counts.disabled += 1
            elif answer is None:
                counts.ignored += 1
            return answer

        return tally

    # -- breakpoints ---------------------------------------------------------

    def set_breakpoint(self, breakpoint):
        by_line = self._per_file(breakpoint).fBpSetByLineno
        if breakpoint.line in by_line:
            raise HostError("there is a breakpoint at %s:%d already"
                            % (breakpoint.path, breakpoint.line))
        by_line[breakpoint.line] = breakpoint
        self._breakpoints.append(breakpoint)
        self._apply_to_known_code(breakpoint)

    def clear_breakpoint(self, breakpoint):
        del self._per_file(breakpoint).fBpSetByLineno[breakpoint.line]
        self._breakpoints.remove(breakpoint)
        self._apply_to_known_code(breakpoint)

    def _per_file(self, breakpoint):
        """The module's record of the file: one, whatever name the file is known by."""
        return self._om.CPerFile.GetPerFile(
            self._om.get_canonical_pathname(breakpoint.path))

    def _apply_to_known_code(self, breakpoint):
        for record in list(self._per_file(breakpoint).fKnownPerCodeObjects):
            self._apply_breakpoints(record)

    def _apply_breakpoints(self, record):
        """Tell the filter, and the interpreter, what matters in one code object.

        Also the hook for new records: the module calls it in the first event of a
        code object, before that event is decided, so no line of it is missed.
        """
        code = record.fCodeObjectWeakRef()
        if code is None:
            return
        wanted = {}
        if record.fCanonicalPathname is not None:       # None: code from no file
            per_file = self._om.CPerFile.GetPerFile(record.fCanonicalPathname)
            if per_file.fBpSetByLineno and not record.fIsInternal:
                lines = {line for _, _, line in code.co_lines()}
                wanted = {line: breakpoint
                          for line, breakpoint in per_file.fBpSetByLineno.items()
                          if line in lines}
        record.fEnabledBpLinenos = set(wanted)
        # Lines of a def statement are in the code around it too; results are
        # wanted from the function alone.
        record.fReturnEventsNeededCount = sum(
            breakpoint.returns and breakpoint.function == code.co_name
            for breakpoint in wanted.values())
        local_events = self._event_ids["LINE"] if wanted else 0
        if local_events != sys.monitoring.get_local_events(self._tool_id, code):
            sys.monitoring.set_local_events(self._tool_id, code, local_events)

    # -- second callbacks: the events that the filter lets through ------------
    # Each is called with what the interpreter reported, and its result goes back
    # to the interpreter: None to go on, sys.monitoring.DISABLE to hear no more.

    def _on_line(self, code, line):
        self.second_calls["LINE"] += 1
        breakpoint = self._breakpoints_of(code)[line]
        breakpoint.hits += 1
        if len(breakpoint.stops) < self._shown_stops:
            stop = self._make_stop(breakpoint, code, line)
            breakpoint.stops.append(stop)
            self._om.dprintf(self._om.kLogBreakpoints, "stop at %s:%d in %s\n"
                             % (breakpoint.path, line, stop.function))
        # A debugger would now wait for its user; the program stands still
        # for as long as this function does not return.

    def _on_result(self, event):
        """PY_RETURN and PY_YIELD come for records with fReturnEventsNeededCount."""
        def on_result(code, offset, value):
            self.second_calls[event] += 1
            for breakpoint in self._breakpoints_of(code).values():
                if breakpoint.returns and breakpoint.function == code.co_name:
                    breakpoint.result_count += 1
                    if len(breakpoint.results) < self._shown_stops:
                        breakpoint.results.append(short_repr(value))
        return on_result

    def _on_other(self, event):
        """PY_START and PY_RESUME come only while stepping, which this host has not."""
        def on_other(code, offset):
            self.second_calls[event] += 1
        return on_other

    def _breakpoints_of(self, code):
        """The breakpoints (by line) that are enabled in a code object with a record."""
        record = self._om.CPerCodeObject.GetPerCodeObject(code, False)
        per_file = self._om.CPerFile.GetPerFile(record.fCanonicalPathname)
        return {line: per_file.fBpSetByLineno[line] for line in record.fEnabledBpLinenos}

    def _make_stop(self, breakpoint, code, line):
        # The nearest frame that is not the host's own is the program's.
        frame = self._om.GetNonInternalFrame()
        if frame is None or frame.f_code is not code:
            raise HostError("the frame of the event was not found")
        local_values = frame.f_locals
        name = breakpoint.local
        if name not in local_values:
            name = next(iter(local_values), None)
        value = None if name is None else short_repr(local_values[name])
        return Stop(code.co_name, line, name, value)

    # -- threads -------------------------------------------------------------

    def _debug_policy(self, thread_id):
        """Asked once per thread: 0 leaves it alone.  Here one thread is debugged."""
        return 1 if thread_id == self._thread_id else 0

    def _thread_name(self, per_thread):
        for thread in threading.enumerate():
            if thread.ident == per_thread.fThreadId:
                return thread.name
        return "thread %d" % per_thread.fThreadId

    def thread_name(self):
        """The name that the module keeps for the debugged thread."""
        return self._om.CPerThread.GetPerThread(self._thread_id).fThreadName


_short = reprlib.Repr()
_short.maxstring = _short.maxother = _short.maxlong = _SHOWN_REPR


def short_repr(value):
    """One line of text for any value, however large and whatever its repr does."""
    text = " ".join(_short.repr(value).split())
    return text if len(text) <= _SHOWN_REPR else text[:_SHOWN_REPR - 3] + "..."
