"""The processes that are debugged at one terminal: a row for each in a file that all of them find.

The file is found by the terminal and the process group, so a child finds it however it was
started, and what runs in the background of the same terminal has another one.  It lies in a
folder that nobody else can enter, and is changed under a lock.  The lock is never held longer
than a change takes: a process may die at any time, and leaves a row that says when it began.
"""

from __future__ import annotations

import contextlib
import fcntl
import os
import stat
import struct
import threading

TYPE_CHECKING = False
if TYPE_CHECKING:
    from collections.abc import Callable
    from typing import TypeVar

    T = TypeVar("T")

_FOLDERS = "/dev/shm", "/tmp"
_TIOCGDEV = 0x80045432        # the number of the terminal that a descriptor is, also of /dev/tty
_SIZE = 1 << 20               # of a file, at most
_NONE = -1                    # in place of a descriptor

_changing: list[Roster] = []  # once for each call that changes one


class Row:
    """What the others know of a process."""

    __slots__ = ("pid", "began", "parent", "state", "ticket", "since", "name", "place")

    def __init__(self, pid: int, began: int, parent: int, state: str, ticket: float = 0.0, since: float = 0.0,
                 name: str = "", place: str = "") -> None:
        self.pid = pid
        self.began = began                    # in the kernel's count: process ids are used again
        self.parent = parent
        self.state = state
        self.ticket = ticket                  # the lowest goes first
        self.since = since                    # when the program went on, seconds; 0: it stands
        self.name = name
        self.place = place                    # where it stopped last

    def format(self) -> str:
        values = (self.pid, self.began, self.parent, self.state, self.ticket, self.since, self.name, self.place)
        return "\t".join(_one_field(str(value)) for value in values) + "\n"

    @classmethod
    def parse(cls, line: str) -> Row | None:
        """None for what a process has left that was killed while it wrote."""
        try:
            pid, began, parent, state, ticket, since, name, place = line.split("\t")
            return cls(int(pid), int(began), int(parent), state, float(ticket), float(since), name, place)
        except ValueError:
            return None

    def is_alive(self) -> bool:
        return begin_of(self.pid) == self.began


def _one_field(text: str) -> str:
    return " ".join(text.split())


def begin_of(pid: int) -> int | None:
    """When process `pid` began; None when it has ended, though nobody may have asked how."""
    try:
        descriptor = os.open("/proc/%d/stat" % pid, os.O_RDONLY)
        try:
            fields = os.read(descriptor, 4096).rpartition(b")")[2].split()
        finally:
            os.close(descriptor)
        return None if fields[0] in b"ZX" else int(fields[19])
    except (OSError, ValueError, IndexError):
        return None


def _terminal_name() -> str | None:
    """The name of the terminal at descriptor 0; of the controlling terminal if that is the null device."""
    for path in None, "/dev/tty":
        try:
            descriptor = os.dup(0) if path is None else os.open(path, os.O_RDONLY)
        except OSError:
            continue
        try:
            status = os.fstat(descriptor)
            if os.isatty(descriptor):
                number = struct.unpack("I", fcntl.ioctl(descriptor, _TIOCGDEV, bytes(4)))[0]
                return "terminal-%d" % number
            if not stat.S_ISCHR(status.st_mode):
                return "file-%d-%d" % (status.st_dev, status.st_ino)
        except OSError:
            continue
        finally:
            os.close(descriptor)
    return None


def _own_name() -> str | None:
    """The name of the file for this process's terminal."""
    name = _terminal_name()
    return None if name is None else "%d-%s%s" % (os.getpgrp(), name, _namespace_suffix())


def _namespace_suffix() -> str:
    """The end of file names in our namespace of process ids: containers may have folders in common."""
    try:
        return "-%d" % os.stat("/proc/self/ns/pid").st_ino
    except OSError:
        return "-0"


def _folder_name() -> str:
    return "brixdebug-%d" % os.geteuid()


def expected_path() -> str | None:
    """Where the file is, once another process of this terminal has made it."""
    name = _own_name()
    paths = [os.path.join(each, _folder_name()) for each in _FOLDERS if os.access(each, os.W_OK)]
    path = next((each for each in paths if not os.path.lexists(each) or _is_safe(each)), None)
    return None if name is None or path is None else os.path.join(path, name)


def _is_safe(path: str) -> bool:
    """True for a folder that nobody else can enter, and nobody else has made; False for anything else of that name."""
    try:
        status = os.lstat(path)
    except OSError:
        return False
    return stat.S_ISDIR(status.st_mode) and status.st_uid == os.geteuid() and not stat.S_IMODE(status.st_mode) & 0o077


def _make_safe(path: str) -> bool:
    """Make `path` a safe folder, or see that it is one; False where neither succeeds."""
    while not _is_safe(path):
        try:
            os.mkdir(path, 0o700)
        except FileExistsError:
            if os.path.lexists(path) and not _is_safe(path):
                return False
            continue                          # another process has made it, or removed it
        except OSError:
            return False
        with contextlib.suppress(OSError):    # another process has removed it already
            descriptor = os.open(path, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC)
            try:
                os.fchmod(descriptor, 0o700)  # whatever the program's umask has made of it
            finally:
                os.close(descriptor)
    return True


class ForkedMeanwhile(OSError):
    """Raised in the child of a process that was in the middle of a change."""


class Roster:
    """The file; its name may come to stand for another file, which is noticed."""

    def __init__(self, path: str) -> None:
        self._path = path
        self._lock = threading.RLock()        # of the threads of this process
        self._depth = 0                       # changes inside of changes
        self._descriptor = _NONE              # while the file is locked
        self._rows: dict[int, Row] | None = None      # while they are changed
        self._written = ""                    # what stands in the file then
        self._writes = 0                      # how often that was

    @classmethod
    def find(cls) -> Roster | None:
        """The one for this process's terminal; None where there is no terminal or no place for a file."""
        name = _own_name()
        folder = next(filter(_make_safe, (os.path.join(each, _folder_name()) for each in _FOLDERS)), None)
        if name is None or folder is None:
            return None
        roster = cls(os.path.join(folder, name))
        try:
            if not os.path.exists(roster._path):
                with contextlib.suppress(FileNotFoundError):      # another process has removed the folder
                    roster._remove_forgotten(folder)
            roster.change(lambda rows: None)
        except OSError:
            return None
        return roster

    def _remove_forgotten(self, folder: str) -> None:
        """What was left by processes that were killed."""
        for name in os.listdir(folder):
            if name.endswith(_namespace_suffix()):
                Roster(os.path.join(folder, name)).remove_if_empty()

    # -- reading and writing -----------------------------------------------------------

    def peek(self) -> dict[int, Row]:
        """The rows as they are, for a signal handler: it may have interrupted a change."""
        try:
            descriptor = os.open(self._path, os.O_RDONLY | os.O_CLOEXEC)
        except OSError:
            return {}
        try:
            return _read(descriptor)
        finally:
            os.close(descriptor)

    def change(self, edit: Callable[[dict[int, Row]], T]) -> T:
        """What `edit` returns, which looks at the rows and changes them; nobody else does so meanwhile.

        A handler of a signal may come in between.  It may change the rows too, so `edit` goes through lists of them.
        Where it forks, the child gets an OSError, and has changed nothing.
        """
        pid = os.getpid()
        _changing.append(self)                # before the lock is taken, which a child has a copy of
        try:
            with self._lock:
                return self._change_locked(edit, pid)
        except ValueError:                    # no descriptor any more
            if pid != os.getpid():
                raise ForkedMeanwhile from None
            raise
        finally:
            if pid == os.getpid():
                _changing.remove(self)

    def _change_locked(self, edit: Callable[[dict[int, Row]], T], pid: int) -> T:
        self._depth += 1
        try:
            self._open_locked()
            rows = self._rows
            if self._depth == 1 or rows is None:
                rows = self._read_rows()
            result = edit(rows)
            if pid != os.getpid():
                raise ForkedMeanwhile
            self._write()
            return result
        finally:
            if pid == os.getpid():
                self._depth -= 1
                if self._depth == 0:
                    self._rows = None
                    self._close()

    def _read_rows(self) -> dict[int, Row]:
        writes = -1
        while writes != self._writes:         # those of a change inside of this one
            writes = self._writes
            rows = _read(self._descriptor)
            text = _format(rows)
        self._rows, self._written = rows, text
        return rows

    def _write(self) -> None:
        text = _format(self._rows or {})
        if text != self._written:
            data = text.encode("utf-8", "replace")
            os.pwrite(self._descriptor, data, 0)
            os.ftruncate(self._descriptor, len(data))
            self._written = text
            self._writes += 1

    def _open_locked(self) -> None:
        """Locked anew where it is open, which takes no time: the change around this one may not have come to that."""
        folder = os.path.dirname(self._path)
        while True:
            if self._descriptor < 0:
                # The last one to leave has removed it, and what is there now may be another user's.
                if not _make_safe(folder):
                    raise PermissionError("%s is not ours" % folder)
                try:
                    descriptor = os.open(self._path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC | os.O_NOFOLLOW, 0o600)
                except FileNotFoundError:     # it has been removed meanwhile
                    continue
                if self._descriptor < 0:
                    self._descriptor = descriptor
                else:                         # a change inside of this one has opened it
                    os.close(descriptor)
            fcntl.flock(self._descriptor, fcntl.LOCK_EX)
            if os.fstat(self._descriptor).st_nlink:
                return
            self._close()                     # somebody has removed it meanwhile

    def _close(self) -> None:
        if self._descriptor >= 0:
            fcntl.flock(self._descriptor, fcntl.LOCK_UN)        # also for the copy that a child has
            descriptor, self._descriptor = self._descriptor, _NONE
            if descriptor >= 0:
                os.close(descriptor)

    def after_fork_in_child(self) -> None:
        """The parent was in the middle of a change, in another thread or in a handler of a signal in this one."""
        self._lock = threading.RLock()
        self._depth = 0
        self._rows = None
        descriptor, self._descriptor = self._descriptor, _NONE
        if descriptor >= 0:
            os.close(descriptor)

    def abandon(self) -> None:
        """This process cannot open the file any longer: the others begin a new one, in which it has no row."""
        if _is_safe(os.path.dirname(self._path)):
            with contextlib.suppress(OSError):
                os.unlink(self._path)

    def remove_if_empty(self) -> None:
        """Remove the file when no process of it lives, and the folder after the last file."""
        def edit(rows: dict[int, Row]) -> None:
            if not any(row.is_alive() for row in list(rows.values())):
                os.unlink(self._path)
        with contextlib.suppress(OSError):
            self.change(edit)
            os.rmdir(os.path.dirname(self._path))


def forget_changes() -> None:
    """In a child: those that its parent was in the middle of."""
    for roster in _changing:
        roster.after_fork_in_child()
    _changing.clear()


def _format(rows: dict[int, Row]) -> str:
    return "".join([row.format() for row in list(rows.values())])


def _read(descriptor: int) -> dict[int, Row]:
    text = os.pread(descriptor, _SIZE, 0).decode("utf-8", "replace")
    rows = filter(None, map(Row.parse, text.splitlines()))
    return {row.pid: row for row in rows}
