"""Stops at exceptions: `catch`."""

from __future__ import annotations

import sys
import threading

from brixdebug.commands.threads import ThreadCommands
from brixdebug.exceptions import EXCEPTION_VARIABLE, ExceptionRule, parse_rule
from brixdebug.monitor import monitor

TYPE_CHECKING = False
if TYPE_CHECKING:
    from types import FrameType
    from typing import Any


# What pdb has made of the variable in the line that was typed.
_REPLACED_VARIABLE = '__pdb_convenience_variables["%s"]' % EXCEPTION_VARIABLE[1:]


class ExceptionCommands(ThreadCommands):
    """Chooses the exceptions to stop at, and shows one that has ended a thread."""

    def do_catch(self, arg: str) -> None:
        """catch [raised | uncaught] [CLASS] [if CONDITION]
        catch off

        Stop where an exception is raised, in every thread, or where one would end a
        thread: post mortem then, with the stack as it was.  With CLASS, at this class
        and its subclasses alone; with CONDITION, which is evaluated where it was raised
        and may name the exception $_exception, only when it is true.

        uncaught is on from the start.  catch off ends all; catch alone lists them.
        """
        if self._is_expression("catch", arg):
            return
        if not arg:
            self._show_rules()
        elif arg == "off":
            self.exception_stops.clear()
            self.exceptions_changed()
        else:
            try:
                rule = parse_rule(arg.replace(_REPLACED_VARIABLE, EXCEPTION_VARIABLE), self._resolve)
            except ValueError as error:
                self.error("Invalid catch: %s" % error)
                return
            self.exception_stops.add(rule)
            self.exceptions_changed()
            if not rule.is_known:
                self.message("%s is no name here: its class is found by it when one is raised." % rule.class_name)

    def _resolve(self, name: str) -> object:
        return eval(name, self.curframe.f_globals, self._variables())

    def _show_rules(self) -> None:
        if not self.exception_stops.rules:
            self.message("catch off")
        for rule in self.exception_stops.rules:
            self.message("catch %s" % rule)

    def user_uncaught(self, frame: FrameType, exception: BaseException, rule: ExceptionRule) -> None:
        thread_id = threading.get_ident()
        self.post_mortem_of = exception.__traceback__
        number = next(number for number, each, _ in self._numbered_threads() if each == thread_id)
        self.message("Uncaught exception in thread %d (%s). Entering post mortem debugging"
                     % (number, monitor.suspension.thread_name(thread_id)))
        self.message(self._format_exc(exception))
        died_of: Any = exception if sys.version_info >= (3, 13) else exception.__traceback__
        self.interaction(None, died_of)
