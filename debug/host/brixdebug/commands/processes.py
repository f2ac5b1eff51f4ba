"""Processes that share the terminal: `info processes` and `process`."""

from __future__ import annotations

import os

from brixdebug.commands.base import CommandBase
from brixdebug.sharing import sharing, shown_state


class ProcessCommands(CommandBase):
    """Lists the processes that are debugged at this terminal, and lets another one have the prompt."""

    def show_processes(self) -> None:
        sharing.join()
        self.message("  %-8s%-8s%-15s%-25s %s" % ("Pid", "Parent", "State", "Program", "Place"))
        for row in sharing.rows():
            self.message("%s %-8d%-8d%-15s%-25s %s" % (
                ">" if row.pid == os.getpid() else " ", row.pid, row.parent, shown_state(row), row.name, row.place))

    def do_process(self, arg: str) -> None:
        """process PID

        Let process PID, which waits at a stop of its own, have the prompt (see info
        processes).  This process waits at its stop meanwhile, and has the prompt again
        when the other goes on.
        """
        if self._is_expression("process", arg):
            return
        try:
            pid = int(arg)
        except ValueError:
            self.error("Process id expected (see info processes)")
            return
        sharing.join()
        refusal = sharing.hand_to(pid)
        if refusal is not None:
            self.error(refusal)
        elif self.curframe is not None:
            self.print_stack_entry(self.stack[self.curindex])

    def other_processes(self) -> list[int]:
        """Their ids."""
        return [row.pid for row in sharing.rows() if row.pid != os.getpid()]
