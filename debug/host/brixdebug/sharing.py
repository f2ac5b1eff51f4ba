"""One terminal, several processes: one of them has its prompt there, in the order of their stops, and the others wait.

A process has the terminal as long as it stands at its prompt.  While it evaluates an
expression, or makes a step, it keeps the terminal for a second; then whoever waits takes it,
and it gets it back when it stands again.  Nobody hands the terminal on: those who wait look
at the roster, so a process may end at any moment.
"""

from __future__ import annotations

import atexit
import contextlib
import os
import sys
import time

from brixbase import dlog

from brixdebug.evaluation import SECONDS
from brixdebug.monitor import monitor
from brixdebug.raising import is_of_signal_handler
from brixdebug.roster import Roster, Row, begin_of, expected_path, forget_changes

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import Any

RUNNING, WAITING, PROMPTING, STEPPING, EVALUATING = "running", "waiting", "at the prompt", "stepping", "evaluating"

# One in these states has the terminal; the others say what it does when somebody else has taken that.
_HAVING = {PROMPTING: EVALUATING, STEPPING: RUNNING}

# How often one that waits looks, for each process that goes before it; and how seldom at most.
_LOOK_SECONDS = 0.03
_MOST_LOOK_SECONDS = 0.5

# One that is alone looks for others when so much time has passed: nobody types faster.
_BETWEEN_LOOKS_SECONDS = 0.05

# The program may replace what it finds in the module.
_sleep, _now = time.sleep, time.monotonic


def _own_name() -> str:
    """What the user calls this process."""
    try:
        folder, name = os.path.split(sys.argv[0])
    except (AttributeError, IndexError, TypeError):
        return ""                             # the program keeps something of its own there
    if name == "__main__.py":
        name = os.path.basename(folder)       # of a package that was started by its name
    current: Any = getattr(sys.modules.get("multiprocessing.process"), "_current_process", None)
    if current is not None and getattr(current, "_parent_pid", None) is not None:
        name += " (%s)" % current.name
    return name


class Sharing:
    """This process's part."""

    def __init__(self) -> None:
        self._roster: Roster | None = None
        self.is_on = False                    # other processes may want the terminal: there is a roster
        self._pid = 0                         # of the process that has joined
        self._expected: str | None = None     # what another process makes that joins
        self._next_look = 0.0                 # for that, seconds
        self._depth = 0                       # prompts inside of prompts
        self.is_waiting = False
        self.on_left_behind: Callable[[], object] | None = None       # whose terminal it was has been killed
        self._is_left_behind = False
        self.interruption: BaseException | None = None       # of a signal handler: raised when the prompt has ended

    def _use(self, roster: Roster | None) -> None:
        self._roster = roster
        self.is_on = roster is not None

    def expect_others(self) -> None:
        """Join when another process has: looked at before each prompt, which costs next to nothing."""
        self._expected = expected_path()

    def join(self) -> None:
        """From now on other processes may want the terminal."""
        if self._roster is not None:
            return
        self._pid = os.getpid()
        self._use(Roster.find())
        if self._roster is not None:
            self._enter_row(PROMPTING if self._depth else RUNNING)
            atexit.register(self._leave_for_good, os.getpid())

    def forget_parents(self) -> None:
        """In a child: forget what is its parent's.  The child may get a debugger of its own later."""
        self.is_waiting = False
        if not monitor.turn.lock._is_owned():
            self._depth = 0                   # the prompt was another thread's
            self.interruption = None
        forget_changes()
        if self._roster is not None and self._pid != os.getpid():
            self._use(None)

    def follow_parent(self) -> None:
        """In a child that is debugged as its parent is; where that has a prompt the child has one."""
        roster = self._roster
        self.forget_parents()
        if roster is not None:
            self._pid = os.getpid()
            self._use(roster)
            self._enter_row(EVALUATING if self._depth else RUNNING)

    def _enter_row(self, state: str) -> None:
        def edit(rows: dict[int, Row]) -> None:
            _drop_dead(rows)
            own = _own_row(rows, os.getpid())
            own.state, own.ticket = state, _now()
        self._change(edit)

    def _change(self, edit: Any) -> Any:
        """What `edit` returns; None, and no more sharing, where the roster cannot be used.

        It is done whatever a signal handler of the program raises meanwhile, for the others rely on it.
        """
        result, pid = None, os.getpid()
        while self._roster is not None:
            try:
                result = self._roster.change(edit)
                break
            except BaseException as error:
                if is_of_signal_handler(error):
                    self.interruption = error
                    continue
                if os.getpid() != pid:        # a child by now, which may have no part in this
                    pid = os.getpid()
                    continue
                roster = self._roster
                self._use(None)
                roster.abandon()              # nobody is to wait for what its row says
                if not isinstance(error, OSError):
                    dlog.LogException("sharing the terminal")
        if self.interruption is not None and self._depth == 0:
            raise self.pop_interruption()     # type: ignore[misc]
        return result

    def pop_interruption(self) -> BaseException | None:
        """What a signal handler has raised since the prompt was asked for; None while there is one."""
        if self._depth:
            return None
        interruption, self.interruption = self.interruption, None
        return interruption

    def _leave_for_good(self, pid: int) -> None:
        if self._roster is not None and pid == os.getpid():
            self._change(lambda rows: rows.pop(pid, None))
            roster = self._roster
            self._use(None)
            if roster is not None:
                roster.remove_if_empty()

    # -- the turns ---------------------------------------------------------------------

    def begin_prompt(self, place: str) -> None:
        if self._depth == 0:
            self.interruption = None         # the program has ended of something else
        self._depth += 1
        if self._roster is not None:
            self.take(place)

    def look_for_others(self) -> bool:
        """Whether the terminal is shared; commands from a file, which follow each other at once, do not look each time."""
        if self._roster is None and self._expected is not None:
            now = _now()
            if now >= self._next_look:
                self._next_look = now + _BETWEEN_LOOKS_SECONDS
                if os.access(self._expected, os.F_OK):
                    self.join()
        return self._roster is not None

    def end_prompt(self, is_step: bool) -> None:
        """The program goes on; with `is_step` it is to stop again soon."""
        try:
            if self._depth == 1 and self.is_on:
                self._go_on(STEPPING if is_step else RUNNING)
        finally:
            self._depth -= 1

    def take(self, place: str | None = None) -> None:
        """Wait until the terminal is this process's."""
        if self._roster is None:
            return
        ticket = _now()
        is_taken = False
        self.is_waiting = True
        while not is_taken:
            try:
                is_taken = self._wait(ticket, place)
            except BaseException as error:    # of a signal handler: the stop is not lost
                self.interruption = error
        self.is_waiting = False
        is_left_behind, self._is_left_behind = self._is_left_behind, False
        if is_left_behind and self.on_left_behind is not None:
            with contextlib.suppress(Exception):
                self.on_left_behind()

    def _wait(self, ticket: float, place: str | None) -> bool:
        while True:
            waits_for = self._change(lambda rows: self._try(rows, os.getpid(), ticket, place))
            if not waits_for:
                return True
            _sleep(min(_LOOK_SECONDS * waits_for, _MOST_LOOK_SECONDS))

    def _try(self, rows: dict[int, Row], pid: int, ticket: float, place: str | None) -> int:
        """How many go before process `pid`; 0: the terminal is its own."""
        own = _own_row(rows, pid)
        if place is not None:
            own.place, own.name = place, _own_name()
        if own.state == RUNNING:
            own.ticket = ticket
        if own.state not in _HAVING:
            own.state = WAITING
            before = [row for row in list(rows.values()) if row is not own and _goes_before(row, own)]
            while before and not before[0].is_alive():
                before.pop(0)
            if before:
                return len(before)
            for row in list(rows.values()):
                if row.state in _HAVING:
                    self._is_left_behind |= not row.is_alive()
                    row.state = _HAVING[row.state]
        own.state, own.since = PROMPTING, 0.0
        return 0

    def _go_on(self, state: str) -> None:
        def edit(rows: dict[int, Row]) -> None:
            own = _own_row(rows, os.getpid())
            own.state, own.since = state, _now()
        self._change(edit)

    def begin_evaluation(self) -> None:
        if self._depth and self.is_on:
            self._go_on(PROMPTING)

    def end_evaluation(self) -> None:
        """The prompt comes next: wait for the terminal, if it has gone to another process."""
        if self._depth:
            self.take()

    def hand_to(self, pid: int) -> str | None:
        """Let process `pid` have the terminal, and wait until it is free again; a text says why not."""
        def edit(rows: dict[int, Row]) -> str | None:
            _drop_dead(rows)
            other, own = rows.get(pid), _own_row(rows, os.getpid())
            if other is None or not other.is_alive():
                return "There is no process %d here (see info processes)" % pid
            if other is own:
                return "Process %d is the one at the prompt" % pid
            if other.state != WAITING:
                return "Process %d is %s: it gets the prompt when it stops" % (pid, other.state)
            other.ticket = min(row.ticket for row in list(rows.values())) - 1.0
            own.state = RUNNING
            return None
        refusal: str | None = self._change(edit)
        if refusal is None:
            self.take()
        return refusal

    # -- who is there ------------------------------------------------------------------

    def rows(self) -> list[Row]:
        """Of the living, in the order of their beginnings."""
        def edit(rows: dict[int, Row]) -> list[Row]:
            _drop_dead(rows)
            return sorted(filter(Row.is_alive, list(rows.values())), key=lambda row: (row.began, row.pid))
        return self._change(edit) or []

    @property
    def is_anothers(self) -> bool:
        """Another process has the terminal; may be asked in a signal handler."""
        if self._roster is None:
            return False
        own = os.getpid()
        return self.is_waiting or any(row.state in _HAVING and row.pid != own and row.is_alive()
                                      for row in self._roster.peek().values())

    @property
    def has_others(self) -> bool:
        """Other processes have their prompts at this terminal too."""
        return self._roster is not None and len(self._roster.peek()) > 1


def _own_row(rows: dict[int, Row], pid: int) -> Row:
    own, began = rows.get(pid), begin_of(pid) or 0
    if own is None or own.began != began:     # process ids are used again
        own = rows[pid] = Row(pid, began, os.getppid(), RUNNING, name=_own_name())
    return own


def _drop_dead(rows: dict[int, Row]) -> None:
    """Drop the rows of dead processes, but not one that had the terminal: whoever takes it has to know."""
    for row in list(rows.values()):
        if row.state not in _HAVING and not row.is_alive():
            rows.pop(row.pid, None)


def shown_state(row: Row) -> str:
    """What the process does, as the user sees it."""
    return _HAVING.get(row.state, row.state) if row.since else row.state


def _goes_before(row: Row, own: Row) -> bool:
    if row.state in _HAVING:
        return not row.since or _now() - row.since < SECONDS
    return row.state == WAITING and row.ticket < own.ticket


sharing = Sharing()
os.register_at_fork(after_in_child=sharing.forget_parents)
monitor.suspension.evaluation.on_begin = sharing.begin_evaluation
monitor.suspension.evaluation.on_end = sharing.end_evaluation
