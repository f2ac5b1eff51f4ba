"""The commands that pdb lacks, by subject; a debugger's class inherits them."""

from brixdebug.commands.breakpoints import BreakpointCommands
from brixdebug.commands.completion import CompletionCommands
from brixdebug.commands.evaluating import EvaluatingCommands
from brixdebug.commands.exceptions import ExceptionCommands
from brixdebug.commands.information import InformationCommands
from brixdebug.commands.processes import ProcessCommands
from brixdebug.commands.settings import SettingCommands
from brixdebug.commands.stack import StackCommands
from brixdebug.commands.threads import ThreadCommands
from brixdebug.commands.watches import WatchCommands


class Commands(CompletionCommands, BreakpointCommands, ExceptionCommands, WatchCommands,
               EvaluatingCommands, ThreadCommands, ProcessCommands, InformationCommands,
               SettingCommands, StackCommands):
    """All of them."""
