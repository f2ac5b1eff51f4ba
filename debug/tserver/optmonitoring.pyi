"""A native filter between `sys.monitoring` and a Python debugger.

For every event native code decides whether to ignore it, to switch it off at that place for good, to hold the thread
on its suspend lock, or to hand it to the debugger's Python code: its second callback. It decides by what the debugger
writes into the records of code objects, files and threads.
"""

from collections.abc import Callable
from types import CodeType, FrameType, ModuleType
from typing import Any, ClassVar, Final, Literal, NoReturn, Protocol, TypeAlias, overload
from weakref import ReferenceType

from typing_extensions import disjoint_base

class _SuspendLock(Protocol):
    def acquire(self) -> object: ...
    def release(self) -> object: ...

class _LogFile(Protocol):
    def write(self, text: str, /) -> object: ...
    def flush(self) -> object: ...

_SecondCallback: TypeAlias = Callable[..., object]
_ChecksumCallback: TypeAlias = Callable[[str], str | None]

# ---- Constants ----

kPyLineEventId: Final[int]
"""`sys.monitoring.events.LINE`."""
kPyStartEventId: Final[int]
"""`sys.monitoring.events.PY_START`."""
kPyReturnEventId: Final[int]
"""`sys.monitoring.events.PY_RETURN`."""
kPyYieldEventId: Final[int]
"""`sys.monitoring.events.PY_YIELD`."""
kPyResumeEventId: Final[int]
"""`sys.monitoring.events.PY_RESUME`."""

kLogOther: Final = 1
"""Log domain: what no other domain takes."""
kLogFilenames: Final = 2
"""Log domain: canonical pathnames."""
kLogCore: Final = 4
"""Log domain: the module's own life."""
kLogBreakpoints: Final = 8
"""Log domain: breakpoints; the module itself writes nothing there."""
kLogExceptions: Final = 16
"""Log domain: exceptions."""
kLogIO: Final = 32
"""Log domain: input and output."""
kLogInternalFailures: Final = 64
"""Log domain: failures of the module and of its hooks."""
kLogThreading: Final = 128
"""Log domain: threads that are held and let go."""
kLogInitialMonitoringCallbacks: Final = 256
"""Log domain: every decision of the filter."""
kLogSecondMonitoringCallbacks: Final = 512
"""Log domain: second callbacks; the module itself writes nothing there."""

kRegularPathname: Final = 0
"""Kind of pathname: a file's."""
kFrozenImportLibPathname: Final = 3
"""Kind of pathname: a frozen module's, such as `<frozen importlib._bootstrap>`."""
kPseudoPathname: Final = 4
"""Kind of pathname: none of a file, such as `<string>` or the empty one."""
kBrixShellPathname: Final = 5
"""Kind of pathname: the interactive shell's."""

# ---- The filter ----

@disjoint_base
class CInitialCallback:
    """The filter for one kind of event: register its method `Callback` with `sys.monitoring`.

    CInitialCallback(event_id, second_callback, can_return_disable): what the filter lets through is handed to
    second_callback. With can_return_disable 0 it never answers DISABLE for internal code.
    """

    fAnySuspendThread: int
    """Not 0: threads look at their fCheckSuspendLock."""
    fSteppingEventsNeededEveryThread: int
    """Not 0: no line is answered before the record of the thread is looked at."""
    @property
    def _mod(self) -> ModuleType:
        """The module of the class."""
    @property
    def _fSecondCallback(self) -> _SecondCallback:
        """The callable that is handed what the filter lets through."""
    @property
    def _fCanReturnDisable(self) -> int:
        """Whether internal code may be answered with DISABLE."""
    def __init__(self, event_id: int, second_callback: _SecondCallback, can_return_disable: int, /) -> None: ...
    def Callback(self, code: object, /, *args: Any, **kwargs: Any) -> Any:
        """Decide one event: the callable for sys.monitoring.register_callback.

        Answers None, sys.monitoring.DISABLE, or what the second callback returns. Never raises.
        """

# ---- The records ----

@disjoint_base
class CPerThread:
    """The record of one thread.

    CPerThread(thread_id) makes one without looking for an older one; ask GetPerThread for the record of a thread.
    """

    _fPerThreadDict: ClassVar[dict[int, CPerThread]]
    _fDebugPolicyCallback: ClassVar[Callable[[int], int] | None]
    _fNewPerThreadCreatedCallback: ClassVar[Callable[[CPerThread], object] | None]
    _fGetThreadNameCallback: ClassVar[Callable[[CPerThread], object] | None]

    # ADD-MEMBER: its type, and what help() shows of it.
    @property
    def mod(self) -> ModuleType:
        """The module of the class."""
    @property
    def fThreadId(self) -> int:
        """The thread's id, as threading.get_ident() has it."""
    fSteppingEventsNeeded: bool
    """Whether all events of the thread go on to the second callback, but for LINE in code with a set of lines."""
    fOuterMostFrame: Any
    """The debugger's own, for stepping; not read by the filter."""
    fStopFrame: Any
    """The debugger's own, for stepping; not read by the filter."""
    fDontStopLinenoRange: Any
    """The debugger's own, for stepping; not read by the filter."""
    fReturnFrame: Any
    """The debugger's own, for stepping; not read by the filter."""
    fStopAtNextLine: Any
    """The debugger's own, for stepping; not read by the filter."""
    fDebugPolicy: int
    """0: the thread is not debugged; -1: ask the debug policy callback at the next event."""
    fSuspendLock: _SuspendLock
    """Any object with acquire() and release(): held by the debugger, it holds the thread."""
    fCheckSuspendLock: int
    """Not 0: the thread passes through fSuspendLock at its next event."""
    @property
    def fThreadName(self) -> Any:
        """What the thread name callback has answered, None before."""
    fExitingWithException: int
    """The debugger's own; not read by the filter."""
    fSteppingCodeObjects: set[Any]
    """The debugger's own, a set at first; not read by the filter."""
    def __init__(self, thread_id: int, /) -> None: ...
    @overload
    @classmethod
    def GetPerThread(cls, thread_id: int | None = None, create: Literal[True] = True) -> CPerThread:
        """The record of a thread, None: the calling one; made when there is none and create is true."""
    @overload
    @classmethod
    def GetPerThread(cls, thread_id: int | None = None, create: object = True) -> CPerThread | None: ...
    @classmethod
    def GetAllPerThreads(cls) -> list[CPerThread]:
        """A new list of all records."""
    @classmethod
    def SetDebugPolicyCallback(cls, callback: Callable[[int], int] | None) -> None:
        """Set the hook that is asked, once for each thread, with its id: 0 leaves the thread alone."""
    @classmethod
    def SetNewPerThreadCreatedCallback(cls, callback: Callable[[CPerThread], object] | None) -> None:
        """Set the hook that is called with each new record."""
    @classmethod
    def SetGetThreadNameCallback(cls, callback: Callable[[CPerThread], object] | None) -> None:
        """Set the hook that is called with a record to get the thread's name; None: ask again at the next event."""
    def GetDebugPolicy(self) -> int:
        """The thread's debug policy; asks the hook when it is not known. Without a hook it is 1."""
    def FindThreadName(self) -> int:
        """Ask the thread name callback, if fThreadName is None; always 0."""

@disjoint_base
class CPerCodeObject:
    """The record of one code object.

    CPerCodeObject(code_object, frame) makes one in place of an older one; ask GetPerCodeObject for the record of a code
    object.
    """

    _fPerCodeObjectDict: ClassVar[dict[ReferenceType[CodeType], CPerCodeObject]]
    _fNewPerCodeObjectCreatedCallback: ClassVar[Callable[[CPerCodeObject], object] | None]

    @property
    def fCodeObjectWeakRef(self) -> ReferenceType[CodeType]:
        """A weak reference to the code object."""
    @property
    def fCanonicalPathname(self) -> str | None:
        """The one name of the file, the key of its CPerFile; None for code that is of no file."""
    @property
    def fPathnameToReport(self) -> str:
        """The file's name to show: absolute, as the program knows it."""
    @property
    def fIsInternal(self) -> bool:
        """Whether the file is one of the debugger's own."""
    fEnabledBpLinenos: set[int] | frozenset[int] | None
    """The lines whose LINE events go on to the second callback; None, as at first: all events do."""
    fSteppingEventsNeededCount: int
    """Not 0: all events of the code object go on to the second callback, in every thread."""
    fReturnEventsNeededCount: int
    """Not 0: PY_RETURN and PY_YIELD go on to the second callback."""
    def __init__(self, code_object: CodeType, frame: FrameType | None, /) -> None: ...
    @overload
    @classmethod
    def GetPerCodeObject(
        cls, code_object: CodeType, create: Literal[True] = True, frame: FrameType | None = None
    ) -> CPerCodeObject:
        """The record of a code object; made when there is none and create is true.

        frame is one that runs the code: give it whenever there is one. A later call with a frame fails for a record
        that was made without.
        """
    @overload
    @classmethod
    def GetPerCodeObject(
        cls, code_object: CodeType, create: object = True, frame: FrameType | None = None
    ) -> CPerCodeObject | None: ...
    @classmethod
    def SetNewPerCodeObjectCreatedCallback(cls, callback: Callable[[CPerCodeObject], object] | None) -> None:
        """Set the hook that is called with each new record, before its first event is decided."""
    def _cb_code_object_dealloc(self, weak_ref: object) -> None:
        """For the module: the code object has died."""

@disjoint_base
class CPerFile:
    """The record of one source file.

    CPerFile(pathname) makes one that GetPerFile does not know; ask GetPerFile for the record of a file.
    """

    _fPerFilesDict: ClassVar[dict[str, CPerFile]]
    _fByChecksum: ClassVar[dict[str, set[CPerFile]]]
    _fNewPerFileCreatedCallback: ClassVar[Callable[[CPerFile], object] | None]

    @property
    def fCanonicalPathname(self) -> str:
        """The one name of the file."""
    @property
    def fBpSetByLineno(self) -> dict[int, Any]:
        """The debugger's own breakpoints by line; not read by the filter."""
    @property
    def fKnownPerCodeObjects(self) -> set[CPerCodeObject]:
        """The records of the file's code objects that live."""
    @property
    def fChecksum(self) -> str | None:
        """What the checksum callback has answered for the file."""
    def __init__(self, pathname: str, /) -> None: ...
    @overload
    @classmethod
    def GetPerFile(cls, pathname: str, create: Literal[True] = True) -> CPerFile:
        """The record of a file by its canonical pathname; made when there is none and create is true."""
    @overload
    @classmethod
    def GetPerFile(cls, pathname: str, create: object = True) -> CPerFile | None: ...
    @classmethod
    def GetPerFileSetForChecksum(cls, checksum: str | None) -> set[CPerFile]:
        """The records of the files that had this checksum at first: the live set, or a new empty one."""
    @classmethod
    def GetAllPerFiles(cls) -> list[CPerFile]:
        """A new list of all records."""
    @classmethod
    def SetNewPerFileCreatedCallback(cls, callback: Callable[[CPerFile], object] | None) -> None:
        """Set the hook that is called with each new record."""
    def UpdateChecksum(self) -> None:
        """Ask the checksum callback again; the index by checksum keeps the file under its old one."""

# ---- Names of files ----

def get_canonical_pathname(pathname: str, checksum: str | None = None) -> str | None:
    """The one name of a file, whichever link or form of its name is given; None for what is no file's name.

    A name that is not known yet is registered: the first name of a file is its canonical one.
    """

def lookup_canonical_pathname(pathname: str, checksum: str | None = None) -> str | None:
    """The one name of a file that is known by any name or, with a checksum, by its contents; else None."""

def register_canonical_pathname(pathname: str, checksum: str | None = None) -> str:
    """Enter a name of a file; the file's canonical pathname."""

def set_checksum_callback(callback: _ChecksumCallback | None) -> None:
    """Set the hook that is called with the pathname of each new file; None answers: no checksum."""

def get_checksum_callback() -> _ChecksumCallback | None:
    """The hook that is set."""

def GetPathnameKind(pathname: str) -> int:
    """One of kRegularPathname, kFrozenImportLibPathname, kPseudoPathname, kBrixShellPathname."""

# ---- The debugger's own code ----

def SetInternalPathnameDict(d: dict[str, Any]) -> None:
    """Set the table whose keys are the canonical pathnames of the debugger's own files.

    It is looked at when the record of a code object is made. The values do not matter.
    """

def IsInternalFrame(frame: object) -> bool:
    """Whether a frame runs the debugger's own code; False for what is no frame."""

def GetNonInternalFrame(back_count: int | None = None) -> FrameType | None:
    """The nearest frame of the calling thread that is not internal, or the back_count-th further out."""

# ---- The log ----

def set_dprintf_file(file_obj: _LogFile | None, fileno: int, win32_handle: int, /) -> None:
    """Set the dprintf file. Args are (file_obj, fileno, win32_handle), Invalid fileno is -1; invalid win32_handle is 0"""

def set_dprintf_mask(mask: int, /) -> None:
    """Set the dprintf mask -- use bitwise or'd (|'d) kLog* constants"""

def get_dprintf_mask(*args: object) -> NoReturn:
    """Set the dprintf mask -- use bitwise or'd (|'d) kLog* constants"""
    # Kept: every call is a TypeError, and the text is the setter's.

def dprintf(domain: int, s: str | Callable[[], str]) -> None:
    """dprintf(domain: int, s: str | callable) -- writes s to dprintf log if enabled for given domain. The s arg mayy be a callback to be called if domain is enabled; callable will be called w/o args and needs to return a str"""

# ---- The process and the session ----

def UpdateThisProcessPid() -> None:
    """Decide events in this process too: after a fork every event of the child is answered None before this call."""

def AddToThreadStateTracing(count: int) -> None:
    """Add to the counter of the calling thread that switches its monitoring off while it is not 0."""

def reset() -> None:
    """Begin anew for another session: no log, no hooks, no registered names, empty registries of records."""
