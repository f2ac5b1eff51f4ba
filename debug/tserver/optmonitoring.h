// The monitoring module: its state, the bodies of its four classes and its entry points.

#ifndef OPTMONITORING_OPTMONITORING_H
#define OPTMONITORING_OPTMONITORING_H

#include "dbgcommon.h"
#include "dprintf.h"
#include "fileops.h"
#include "xpy_c_api.h"

// Kinds of pathnames; 1 and 2 are not used on purpose.
enum tPathnameKind {
    kRegularPathname = 0,
    kFrozenImportLibPathname = 3,
    kPseudoPathname = 4,
    kBrixShellPathname = 5,
};

// Per-module state; object references are owned and may be null before exec and after clear.
struct tModuleState {
    int kPyLineEventId;
    int kPyStartEventId;
    int kPyReturnEventId;
    int kPyYieldEventId;
    int kPyResumeEventId;
    PyObject* CInitialCallback;
    PyObject* monitoring_disabled;
    PyObject* threading_mod;
    tFileOpsData* file_ops_data;  // owned
    tDPData* dp;                  // owned
    PyObject* CPerFile;
    PyObject* CPerCodeObject;
    PyObject* CPerThread;
    int code_object_extra_index;
    PyObject* _gInternalPathnameDict;
    int save_and_restore_errno;  // 1: the callback preserves the program's errno
    pid_t _gThisProcessPid;      // the callback does nothing while this differs from the cached pid
    PyObject* _Log;
    PyObject* _LogException;
    Py_tss_t* _gPyTssKey;  // owned; reaches each thread's _tPyTssData
    PyObject* _gThreadStateDictKey;
};

// The bodies of the four classes. They lie behind the interpreter's object head, whose size depends on the build.

struct CInitialCallbackBody {
    PyObject* mod;            // [owned]
    tModuleState* mod_state;  // not owned
    int _fEventId;
    PyObject* fSecondCallback;  // [owned]
    int fCanReturnDisable;
    int fAnySuspendThread;                 // written by the host
    int fSteppingEventsNeededEveryThread;  // written by the host
};

// What a thread's storage slot points at. One per thread, allocated with malloc; the slot is its only holder.
struct _tPyTssData {
    PyObject* fPerThreadPtr;         // [borrowed]; null: stale
    PyThreadState* fThreadStatePtr;  // the thread state for which the pair was made
};

// ADD-MEMBER: its field, with its owner.
struct CPerThreadBody {
    PyObject* mod;            // [owned]
    tModuleState* mod_state;  // not owned; null once cleared
    PyObject* capsule_ptr;    // the capsule in the thread state's dict [borrowed]; it owns a reference to the record
    PyObject* fThreadId;
    char fSteppingEventsNeeded;
    PyObject* fOuterMostFrame;
    PyObject* fStopFrame;
    PyObject* fDontStopLinenoRange;
    PyObject* fReturnFrame;
    PyObject* fStopAtNextLine;
    int fDebugPolicy;  // -1 unknown, 0 not debugged
    PyObject* fSuspendLock;
    int fCheckSuspendLock;
    PyObject* fThreadName;
    int fExitingWithException;
    PyObject* fSteppingCodeObjects;
    _tPyTssData* _fPyTssData;  // the pair that points at this record, not owned
};

struct CPerCodeObjectBody {
    PyObject* fCodeObjectWeakRef;
    PyObject* fCanonicalPathname;
    PyObject* fPathnameToReport;
    PyObject* fIsInternal;
    PyObject* fEnabledBpLinenos;
    Py_ssize_t fSteppingEventsNeededCount;
    Py_ssize_t fReturnEventsNeededCount;
    int fUpdatePathnameNeeded;
};

struct CPerFileBody {
    PyObject* fCanonicalPathname;
    PyObject* fBpSetByLineno;
    PyObject* fKnownPerCodeObjects;
    PyObject* fChecksum;
};

// ---- Entry points (optmonitoring_module.cpp): for Python 3, and for Python 2 ----

XPY_EXPORT PyObject* PyInit_optmonitoring(void);
XPY_EXPORT void initoptmonitoring(void);

#endif
