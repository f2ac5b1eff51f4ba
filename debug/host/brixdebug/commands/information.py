"""`info` and its topics."""

from __future__ import annotations

from brixdebug import files
from brixdebug.commands.base import CommandBase


class InformationCommands(CommandBase):
    """Says what is known of the program."""

    # topic of `info` -> name of the method that shows it
    info_topics = {"duplicates": "_show_duplicates", "processes": "show_processes",
                   "threads": "show_threads", "watches": "_show_watches"}

    def do_info(self, arg: str) -> None:
        """info duplicates
        info processes
        info threads
        info watches

        duplicates: list the files of the program that have equal contents; a breakpoint
        in one of them does not stop in the others.  processes: list the processes that
        are debugged at this terminal (see process).  threads: what `threads`
        does.  watches: list what is watched.
        """
        arg = arg.strip()
        if self._is_expression("info", arg):
            return
        if arg not in self.info_topics:
            self.error("info %s is what there is" % ", info ".join(self.info_topics))
            return
        getattr(self, self.info_topics[arg])()

    def _show_duplicates(self) -> None:
        files.update_checksums()
        groups = files.duplicates()
        if not groups:
            self.message("No two files have equal contents.")
        for group in groups:
            self.message("Equal contents:")
            for name in group:
                self.message("    %s" % name)
