// What `help()` says of the methods, each text beginning with the signature, and of the members of the classes. The
// stubs, optmonitoring.pyi, say the same. The texts of the module's functions are in optmonitoring_module.cpp.

#ifndef OPTMONITORING_OPTMONITORING_DOCS_H
#define OPTMONITORING_OPTMONITORING_DOCS_H

// ---- CInitialCallback ----

inline constexpr char kDocCInitialCallback[] =
    "The filter for one kind of event: register its method `Callback` with `sys.monitoring`.\n\n"
    "CInitialCallback(event_id, second_callback, can_return_disable): what the filter lets through is handed to "
    "second_callback. With can_return_disable 0 it never answers DISABLE for internal code.";
inline constexpr char kDocCInitialCallback_fAnySuspendThread[] = "Not 0: threads look at their fCheckSuspendLock.";
inline constexpr char kDocCInitialCallback_fSteppingEventsNeededEveryThread[] =
    "Not 0: no line is answered before the record of the thread is looked at.";
inline constexpr char kDocCInitialCallback_mod[] = "The module of the class.";
inline constexpr char kDocCInitialCallback_fSecondCallback[] =
    "The callable that is handed what the filter lets through.";
inline constexpr char kDocCInitialCallback_fCanReturnDisable[] =
    "Whether internal code may be answered with DISABLE.";
inline constexpr char kDocCInitialCallback_Callback[] =
    "Callback($self, code, /, *args, **kwargs)\n--\n\nDecide one event: the callable for "
    "sys.monitoring.register_callback.\n\nAnswers None, sys.monitoring.DISABLE, or what the second callback returns. "
    "Never raises.";

// ---- CPerThread ----

inline constexpr char kDocCPerThread[] =
    "The record of one thread.\n\n"
    "CPerThread(thread_id) makes one without looking for an older one; ask GetPerThread for the record of a thread.";
// ADD-MEMBER: what help() shows of it, kDocCPerThread_NAME.
inline constexpr char kDocCPerThread_mod[] = "The module of the class.";
inline constexpr char kDocCPerThread_fThreadId[] = "The thread's id, as threading.get_ident() has it.";
inline constexpr char kDocCPerThread_fSteppingEventsNeeded[] =
    "Whether all events of the thread go on to the second callback, but for LINE in code with a set of lines.";
inline constexpr char kDocCPerThread_fOuterMostFrame[] = "The debugger's own, for stepping; not read by the filter.";
inline constexpr char kDocCPerThread_fStopFrame[] = "The debugger's own, for stepping; not read by the filter.";
inline constexpr char kDocCPerThread_fDontStopLinenoRange[] =
    "The debugger's own, for stepping; not read by the filter.";
inline constexpr char kDocCPerThread_fReturnFrame[] = "The debugger's own, for stepping; not read by the filter.";
inline constexpr char kDocCPerThread_fStopAtNextLine[] = "The debugger's own, for stepping; not read by the filter.";
inline constexpr char kDocCPerThread_fDebugPolicy[] =
    "0: the thread is not debugged; -1: ask the debug policy callback at the next event.";
inline constexpr char kDocCPerThread_fSuspendLock[] =
    "Any object with acquire() and release(): held by the debugger, it holds the thread.";
inline constexpr char kDocCPerThread_fCheckSuspendLock[] =
    "Not 0: the thread passes through fSuspendLock at its next event.";
inline constexpr char kDocCPerThread_fThreadName[] = "What the thread name callback has answered, None before.";
inline constexpr char kDocCPerThread_fExitingWithException[] = "The debugger's own; not read by the filter.";
inline constexpr char kDocCPerThread_fSteppingCodeObjects[] =
    "The debugger's own, a set at first; not read by the filter.";
inline constexpr char kDocCPerThread_GetPerThread[] =
    "GetPerThread($type, thread_id=None, create=True)\n--\n\nThe record of a thread, None: the calling one; made "
    "when there is none and create is true.";
inline constexpr char kDocCPerThread_GetAllPerThreads[] = "GetAllPerThreads($type)\n--\n\nA new list of all records.";
inline constexpr char kDocCPerThread_SetDebugPolicyCallback[] =
    "SetDebugPolicyCallback($type, callback)\n--\n\nSet the hook that is asked, once for each thread, with its id: 0 "
    "leaves the thread alone.";
inline constexpr char kDocCPerThread_SetNewPerThreadCreatedCallback[] =
    "SetNewPerThreadCreatedCallback($type, callback)\n--\n\nSet the hook that is called with each new record.";
inline constexpr char kDocCPerThread_SetGetThreadNameCallback[] =
    "SetGetThreadNameCallback($type, callback)\n--\n\nSet the hook that is called with a record to get the thread's "
    "name; None: ask again at the next event.";
inline constexpr char kDocCPerThread_GetDebugPolicy[] =
    "GetDebugPolicy($self)\n--\n\nThe thread's debug policy; asks the hook when it is not known. Without a hook it "
    "is 1.";
inline constexpr char kDocCPerThread_FindThreadName[] =
    "FindThreadName($self)\n--\n\nAsk the thread name callback, if fThreadName is None; always 0.";

// ---- CPerCodeObject ----

inline constexpr char kDocCPerCodeObject[] =
    "The record of one code object.\n\n"
    "CPerCodeObject(code_object, frame) makes one in place of an older one; ask GetPerCodeObject for the record of a "
    "code object.";
inline constexpr char kDocCPerCodeObject_fCodeObjectWeakRef[] = "A weak reference to the code object.";
inline constexpr char kDocCPerCodeObject_fCanonicalPathname[] =
    "The one name of the file, the key of its CPerFile; None for code that is of no file.";
inline constexpr char kDocCPerCodeObject_fPathnameToReport[] =
    "The file's name to show: absolute, as the program knows it.";
inline constexpr char kDocCPerCodeObject_fIsInternal[] = "Whether the file is one of the debugger's own.";
inline constexpr char kDocCPerCodeObject_fEnabledBpLinenos[] =
    "The lines whose LINE events go on to the second callback; None, as at first: all events do.";
inline constexpr char kDocCPerCodeObject_fSteppingEventsNeededCount[] =
    "Not 0: all events of the code object go on to the second callback, in every thread.";
inline constexpr char kDocCPerCodeObject_fReturnEventsNeededCount[] =
    "Not 0: PY_RETURN and PY_YIELD go on to the second callback.";
inline constexpr char kDocCPerCodeObject_GetPerCodeObject[] =
    "GetPerCodeObject($type, code_object, create=True, frame=None)\n--\n\nThe record of a code object; made when "
    "there is none and create is true.\n\nframe is one that runs the code: give it whenever there is one. A later "
    "call with a frame fails for a record that was made without.";
inline constexpr char kDocCPerCodeObject_SetNewPerCodeObjectCreatedCallback[] =
    "SetNewPerCodeObjectCreatedCallback($type, callback)\n--\n\nSet the hook that is called with each new record, "
    "before its first event is decided.";
inline constexpr char kDocCPerCodeObject_cb_code_object_dealloc[] =
    "_cb_code_object_dealloc($self, weak_ref)\n--\n\nFor the module: the code object has died.";

// ---- CPerFile ----

inline constexpr char kDocCPerFile[] =
    "The record of one source file.\n\n"
    "CPerFile(pathname) makes one that GetPerFile does not know; ask GetPerFile for the record of a file.";
inline constexpr char kDocCPerFile_fCanonicalPathname[] = "The one name of the file.";
inline constexpr char kDocCPerFile_fBpSetByLineno[] =
    "The debugger's own breakpoints by line; not read by the filter.";
inline constexpr char kDocCPerFile_fKnownPerCodeObjects[] = "The records of the file's code objects that live.";
inline constexpr char kDocCPerFile_fChecksum[] = "What the checksum callback has answered for the file.";
inline constexpr char kDocCPerFile_GetPerFile[] =
    "GetPerFile($type, pathname, create=True)\n--\n\nThe record of a file by its canonical pathname; made when there "
    "is none and create is true.";
inline constexpr char kDocCPerFile_GetPerFileSetForChecksum[] =
    "GetPerFileSetForChecksum($type, checksum)\n--\n\nThe records of the files that had this checksum at first: the "
    "live set, or a new empty one.";
inline constexpr char kDocCPerFile_GetAllPerFiles[] = "GetAllPerFiles($type)\n--\n\nA new list of all records.";
inline constexpr char kDocCPerFile_SetNewPerFileCreatedCallback[] =
    "SetNewPerFileCreatedCallback($type, callback)\n--\n\nSet the hook that is called with each new record.";
inline constexpr char kDocCPerFile_UpdateChecksum[] =
    "UpdateChecksum($self)\n--\n\nAsk the checksum callback again; the index by checksum keeps the file under its "
    "old one.";

#endif
