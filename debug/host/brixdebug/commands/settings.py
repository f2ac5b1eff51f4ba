"""`set` and what it switches."""

from __future__ import annotations

import keyword

from brixdebug.commands.base import CommandBase


class SettingCommands(CommandBase):
    """Switches what can be on or off."""

    # name for `set` -> the debugger's attribute that is true when it is on
    settings = {"follow-fork": "follows_fork", "hold-others": "holds_others", "just-my-code": "just_my_code"}

    def do_set(self, arg: str) -> None:
        """set
        set follow-fork on|off
        set hold-others on|off
        set just-my-code on|off

        Without argument, show how all are set.

        follow-fork: whether the children that the program starts are debugged too.
        Off, as it is at first, they run free of the debugger.

        hold-others: whether the other threads stand still while one is at the prompt.
        On, as it is at first, they go on for an expression that has not ended after a
        second, until it ends.  A breakpoint that another reaches stops it either way,
        when the prompt is free.

        just-my-code: whether steps pass by the code of the standard library and of
        installed packages, and where shows its frames as one line (where COUNT shows
        them all).  Off at first.  Breakpoints hold there either way.
        """
        if self._is_expression("set", arg):
            return
        words = arg.split()
        if words and keyword.iskeyword(words[0]):
            self.default("set " + arg)        # the built-in type, or a name of the program
            return
        if not words:
            for name, attribute in self.settings.items():
                self.message("set %s %s" % (name, "on" if getattr(self, attribute) else "off"))
            return
        if words[0] not in self.settings:
            self.error("set %s is what there is" % ", set ".join(self.settings))
            return
        attribute = self.settings[words[0]]
        if words[1:] not in (["on"], ["off"]):
            self.error("set %s on, or off; it is %s"
                       % (words[0], "on" if getattr(self, attribute) else "off"))
            return
        setattr(self, attribute, words[1] == "on")
