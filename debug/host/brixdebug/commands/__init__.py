"""The commands that pdb has not, by what they are about; a debugger's class gets them by inheriting."""

from brixdebug.commands.information import InformationCommands
from brixdebug.commands.settings import SettingCommands
from brixdebug.commands.threads import ThreadCommands


class Commands(ThreadCommands, InformationCommands, SettingCommands):
    """All of them."""
