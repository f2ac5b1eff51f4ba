"""Has another Python process run a file: its main thread does so at the next safe point of its Python code."""

from __future__ import annotations

import os
import subprocess
import sys

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable

_remote_exec: Callable[[int, str], None] | None = getattr(sys, "remote_exec", None)     # from 3.14 on
_GDB_SECONDS = 60

# What gdb runs: nothing of the interpreter but the one function that may be called at any
# moment, in any thread; memory for its argument comes straight from the kernel.
_GDB_SCRIPT = """\
set confirm off
set pagination off
set $version = *(unsigned long *) &Py_Version
printf "\\nversion %%d.%%d\\n", ($version >> 24) & 0xff, ($version >> 16) & 0xff
if (($version >> 16) == 0x%(version)x)
  set $text = ((char *(*)(void *, unsigned long, int, int, int, long)) mmap)(0, 4096, 3, 0x22, -1, 0)
  set {char[%(size)d]} $text = "%(text)s"
  set $answer = ((int (*)(void *, void *)) Py_AddPendingCall)((void *) PyRun_SimpleString, $text)
  printf "\\nanswer %%d\\n", $answer
end
detach
"""


class InjectionError(RuntimeError):
    """The process cannot be reached; the text is for the user."""


def own_version() -> str:
    """Of the interpreter, as far as the two processes have to agree."""
    return "%d.%d" % sys.version_info[:2]


def inject(pid: int, path: str) -> None:
    """Have process `pid` run the file `path`, which only has to exist until then."""
    if not os.path.exists("/proc/%d" % pid):
        raise InjectionError("there is no process %d" % pid)
    if pid == os.getpid():
        raise InjectionError("process %d is this very one" % pid)
    if _remote_exec is None:
        _inject_with_gdb(pid, path)
        return
    try:
        _remote_exec(pid, path)
    except PermissionError as error:
        raise InjectionError(_NOT_PERMITTED % (pid, error)) from None
    except (RuntimeError, OSError) as error:
        raise InjectionError("process %d cannot be attached: %s.  This is Python %s; the process has to be one of the "
                             "same version that does not refuse (-X disable-remote-debug, "
                             "PYTHON_DISABLE_REMOTE_DEBUG)" % (pid, error, own_version())) from None


def take_back(pid: int) -> None:
    """The process has not run what was injected, and is not to run it any more."""
    if _remote_exec is not None:
        try:
            _remote_exec(pid, os.devnull)  # takes the place of the other
        except (OSError, RuntimeError):
            pass                              # it has ended


_NOT_PERMITTED = "process %d may not be attached (%s): it takes the same user, and on many systems the right to " \
                 "trace (root, or 0 in /proc/sys/kernel/yama/ptrace_scope)"


def _inject_with_gdb(pid: int, path: str) -> None:
    if "'" in path or '"' in path or "\\" in path:
        raise InjectionError("the name of the folder for temporary files, %s, has a quote in it" % os.path.dirname(path))
    # A process that has been given up on finds no file, and nothing of this in its __main__.
    text = "__import__('os').path.exists('%s') and exec(compile(open('%s').read(), '%s', 'exec'), {})" % ((path,) * 3)
    script = _GDB_SCRIPT % {"version": sys.hexversion >> 16, "size": len(text) + 1, "text": text}
    commands = path + ".gdb"
    with open(commands, "w") as file:
        file.write(script)
    try:
        ended = subprocess.run(["gdb", "-n", "-q", "-batch", "-p", str(pid), "-x", commands], stdin=subprocess.DEVNULL,
                               capture_output=True, text=True, timeout=_GDB_SECONDS)
    except FileNotFoundError:
        raise InjectionError("attaching takes gdb with Python %s, and there is none on PATH; from Python 3.14 on it "
                             "is not needed" % own_version()) from None
    except subprocess.TimeoutExpired:
        raise InjectionError("gdb did not get into process %d within %d seconds" % (pid, _GDB_SECONDS)) from None
    _check_answer(pid, ended.stdout.splitlines(), ended.stderr)


def _check_answer(pid: int, lines: list[str], errors: str) -> None:
    answers = dict(line.split(" ", 1) for line in lines if line.startswith(("version ", "answer ")))
    if answers.get("answer") == "0":
        return
    if "ptrace" in errors:
        raise InjectionError(_NOT_PERMITTED % (pid, "gdb: " + errors.strip().splitlines()[0]))
    version = answers.get("version")
    if version is None:
        raise InjectionError("process %d is no Python that gdb can see into" % pid)
    if version != own_version():
        raise InjectionError("process %d runs Python %s, and this is Python %s: start brixdebug with that one"
                             % (pid, version, own_version()))
    raise InjectionError("process %d did not take what gdb gave it: %s" % (pid, errors.strip()))
