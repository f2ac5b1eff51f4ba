// Shared by the files of the monitoring unit alone: constants of the interpreter, what the four classes share,
// and the functions that one file has for the others.

#ifndef OPTMONITORING_OPTMONITORING_INTERNAL_H
#define OPTMONITORING_OPTMONITORING_INTERNAL_H

#include "dbgcommon.h"
#include "optmonitoring.h"
#include "xpy_c_api_shared.h"

static constexpr const char* kSourceName = "optmonitoring";  // named in bad-internal-call errors

// Method flags.
static constexpr int kMethVarargs = 0x1;
static constexpr int kMethVarargsKeywords = 0x3;
static constexpr int kMethFast = 0x82;       // fast call with keywords
static constexpr int kMethInstance = 0x282;  // and with the defining class
static constexpr int kMethClass = 0x292;     // and called on the class

// Member types and flags.
static constexpr int kMemberInt = 1;
static constexpr int kMemberBool = 14;
static constexpr int kMemberObject = 16;  // AttributeError when unset
static constexpr int kMemberSsize = 19;
static constexpr int kMemberReadOnly = 1;

// Type slots and flags.
static constexpr int kSlotTpClear = 51;
static constexpr int kSlotTpDescrGet = 54;
static constexpr int kSlotTpInit = 60;
static constexpr int kSlotTpMethods = 64;
static constexpr int kSlotTpNew = 65;
static constexpr int kSlotTpMembers = 72;
static constexpr int kSlotTpFinalize = 80;
static constexpr unsigned int kTypeBaseType = 1u << 10;

static constexpr int kPyEq = 2;  // operator codes of equality and inequality
static constexpr int kPyNe = 3;

// What every class is made from. Sizes and offsets are relative to the body until start-up has added the head.
struct tClassInfo {
    const char* attribute;  // name in the module
    PyType_Spec* spec;
    PyMemberDef* members;     // ended by a row without a name
    Py_ssize_t* body_offset;  // bytes from the object to its body, -1 until first needed
};

extern Py_ssize_t gInitialCallbackBodyOffset;
extern Py_ssize_t gPerThreadBodyOffset;
extern Py_ssize_t gPerCodeObjectBodyOffset;
extern Py_ssize_t gPerFileBodyOffset;

// ---- Locks of what the threads share ----

extern tSharedLock gInternalTableLock;   // the table of internal names in the module's state
extern tSharedLock gKnownPathnamesLock;  // the names of files that have been seen
extern tSharedLock gLeftExceptionsLock;  // the addresses of exceptions that failed events have left
extern tSharedLock gPairsLock;           // which pair of a thread's storage points at which record

// ---- The module's methods (optmonitoring_module.cpp) ----

PyObject* UpdateThisProcessPid(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);
PyObject* AddToThreadStateTracing(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);

// ---- Life of the state (optmonitoring_exec.cpp, optmonitoring_reset.cpp) ----

// 0, or -1 with an exception pending; what a failed exec has made is released again.
int optmonitoring_exec(PyObject* module);

// Releases everything that the state owns; any of it may be missing. Returns 0.
int optmonitoring_mod_clear(PyObject* module);

PyObject* optmonitoring_reset(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);

// The state's file tables, of which USE is a use; null with an exception pending after a reset that ran out of memory
// or a clear.
tFileOpsData* need_file_ops(tModuleState* m, const tFileOpsUse& use);

// ---- Module functions (optmonitoring_functions.cpp) ----

PyObject* lookup_canonical_pathname_wrap(PyObject* module, PyObject* args, PyObject* kwargs);
PyObject* register_canonical_pathname_wrap(PyObject* module, PyObject* args, PyObject* kwargs);
PyObject* get_canonical_pathname_wrap(PyObject* module, PyObject* args, PyObject* kwargs);
PyObject* set_dprintf_file_wrap(PyObject* module, PyObject* args);
PyObject* set_dprintf_mask_wrap(PyObject* module, PyObject* args);
PyObject* get_dprintf_mask_wrap(PyObject* module, PyObject* args);
PyObject* dprintf_wrap(PyObject* module, PyObject* args, PyObject* kwargs);
PyObject* set_checksum_callback_wrap(PyObject* module, PyObject* args, PyObject* kwargs);
PyObject* get_checksum_callback_wrap(PyObject* module, PyObject* args, PyObject* kwargs);

// ---- Fast arguments (optmonitoring_fastargs.cpp) ----

// One argument; a null name ends a list.
struct tFastArgInfo {
    const char* name;
    int pos;                  // position, negative: keyword only
    PyObject* default_value;  // null: required
    PyObject** value_ptr;     // where the value is stored [borrowed]
};

// Parses a fast call's arguments. 0, or -1 with TypeError pending.
int get_fastargs(const tFastArgInfo* infos, PyObject* const* args, size_t nargsf, PyObject* kwnames);

// ---- What the classes share (optmonitoring_classes.cpp) ----

// The class that TYPE derives from, null for `object`. [borrowed]
PyTypeObject* borrow_base(PyTypeObject* type);

// The class below `object` from which OBJ's type derives: the one of ours that owns its body. [borrowed]
PyTypeObject* borrow_defining_class(PyObject* obj);

// The module and its state behind an instance of one of our classes or of a subclass; null with an exception pending.
PyObject* borrow_module_of(PyObject* obj);
tModuleState* state_of(PyObject* obj);
tModuleState* state_of_class(PyTypeObject* cls);

// Finds a body for the first time and caches its distance. Null with an exception pending.
void* find_body(PyObject* obj, PyTypeObject* cls, Py_ssize_t* body_offset);

template <typename T>
static inline T* get_body(PyObject* obj, PyTypeObject* cls, Py_ssize_t* body_offset)
{
    if (XPY_UNLIKELY(*body_offset == -1))
        return static_cast<T*>(find_body(obj, cls, body_offset));
    return reinterpret_cast<T*>(reinterpret_cast<char*>(obj) + *body_offset);
}

static inline PyTypeObject* as_type(PyObject* cls)
{
    return reinterpret_cast<PyTypeObject*>(cls);
}

// Releases the object members of the class's member table in table order, each set to null first.
void clear_object_members(PyObject* obj);

// The state of a class when something was found out about it. That holds until somebody changes the class: the
// interpreter takes a class's version away as soon as an attribute is set.
struct tClassMark {
    PyTypeObject* cls;  // null: no finding
    uint32_t version;
};

// Whether the class is as it was when it was marked. The version and what it vouches for are written under the
// interpreter lock, which the caller holds: plain loads, in any order.
static inline bool is_as_marked(const tClassMark* mark, PyTypeObject* cls)
{
    const char* address = reinterpret_cast<const char*>(cls);
    return mark->cls == cls &&
           *reinterpret_cast<const uint32_t*>(address + gShortcutOffsets.type_version) == mark->version;
}

// Takes a mark away. Where the interpreter lock is off no class is marked, and nothing is written.
static inline void forget_mark(tClassMark* mark)
{
    if (mark->cls)
        mark->cls = nullptr;
}

// Once per process, after the binding layer has started up.
void init_class_versions(void);

// Marks the class as it is now; does nothing where the interpreter gives classes no usable versions.
void mark_class(tClassMark* mark, PyTypeObject* cls);

// An attribute of a class: a registry, or a host hook.
struct tClassAttr {
    tNameCache name;
    tClassMark mark;  // when VALUE was found
    PyObject* value;  // a plain dict, or None [borrowed from the class's own dict]
    // Without the interpreter lock nothing that may go can be remembered: only with which state of the class the
    // attribute was None, as get_class_state() told. 0: not known.
    uint64_t state_when_none;
};

// The class and its version in one word, which changes with each change of the class; 0 when it has no version.
// Without the interpreter lock alone.
static inline uint64_t get_class_state(PyTypeObject* cls)
{
    const char* address = reinterpret_cast<const char*>(cls);
    uint64_t version = __atomic_load_n(
        reinterpret_cast<const uint32_t*>(address + gSharedShortcutOffsets.type_version), __ATOMIC_ACQUIRE);
    return version ? version << 32 | static_cast<uint32_t>(reinterpret_cast<uintptr_t>(cls) >> 4) : 0;
}

// Reads a class attribute. [new]; null with an exception pending.
PyObject* read_class_attr(PyObject* cls, tNameCache* name);

// The same for what events read: remembers what was found for as long as nobody changes the class. [new]
PyObject* get_class_attr(PyObject* cls, tClassAttr* attribute);

// Enters NEW_RECORD under KEY in a registry and sets *FOUND [new] to it. Without the interpreter lock several threads
// may miss the same record at once: the first one enters its own, and the others get that. 0, or -1 with an exception
// pending.
int enter_unless_present(PyObject* registry, PyObject* key, PyObject* new_record, PyObject** found);

// Says on this thread, for the life of the scope, that a class is called to make a record of KEY because there is
// none. Without the interpreter lock several threads may come to this at once: the first record that is registered
// stays, and the construction of another one ends early, unregistered and unseen by the host's hook. Constructions
// that nobody has announced replace what is there, as do all with the interpreter lock.
class tAnnounced
{
  public:
    explicit tAnnounced(PyObject* key);
    ~tAnnounced();
    tAnnounced(const tAnnounced&) = delete;
    tAnnounced& operator=(const tAnnounced&) = delete;
    bool is_late() const { return fIsLate; }  // another record was registered first
    void set_late() { fIsLate = true; }

    // The announcement of a record of KEY on this thread, which is then answered; null: none.
    static tAnnounced* take(PyObject* key);

  private:
    PyObject* fKey;  // [borrowed], null: answered
    tAnnounced* fOuter;
    bool fIsLate;
};

// Sets one. 0, or -1 with an exception pending.
int set_class_attr(PyObject* cls, tClassAttr* attribute, PyObject* value);

// Reads a class attribute; when it is missing, what MAKE returns [new] is stored there first. [new]
PyObject* get_class_attr_or_make(PyObject* cls, tClassAttr* attribute, PyObject* (*make)(void));
PyObject* make_none(void);

// Calls the class's new-record hook, if any, with the tracing counter raised. 0, or -1 with an exception pending.
int CallNewObjectCallback_direct(tDPData* dp, PyObject* cls, tClassAttr* attribute, PyObject* new_object);

// A class's method that sets a hook: one argument, which WORKER stores. FAILURE is reported when either fails.
PyObject* call_hook_setter(PyTypeObject* cls, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames,
                           int (*worker)(tModuleState*, PyObject*), const char* failure);

// The registries are the host's to replace, so any mapping may stand there: item access, where KeyError means absent.
// 1 with *ITEM [new], 0 when absent, -1 with an exception pending.
int get_item_if_present(PyObject* mapping, PyObject* key, PyObject** item);

// Deletes a key that may be absent. 0, or -1 with an exception pending.
int delete_item_if_present(PyObject* mapping, PyObject* key);

// Whether the pending exception is of this kind; then it is cleared.
bool clear_if_raised(PyObject* exception);

// Refuses keyword arguments of a constructor: 0, or -1 with TypeError pending. Those of a subclass are left to its
// __new__.
int refuse_keywords(PyObject* self, PyObject* kwargs, const char* class_name);

// ---- A look into sets of line numbers (optmonitoring_linenos.cpp) ----

// Once per process, after the binding layer has started up.
void init_lineno_peek(void);

// ---- CPerThread (optmonitoring_perthread.cpp, optmonitoring_perthread_tss.cpp) ----

extern tClassInfo kPerThreadClass;
int CPerThread_ClsInit(tModuleState* m);
int CPerThread_ClsReset(tModuleState* m);

// Class attributes with the host's hooks for the policies and the names of threads.
extern tClassAttr gDebugPolicyCallback;
extern tClassAttr gGetThreadNameCallback;

// The body of a record; null with an exception pending when OBJ is none.
CPerThreadBody* need_per_thread(tModuleState* m, PyObject* obj);

// The record of a thread (None: this one), made when absent and CREATE is true. [new], None, or null.
PyObject* CPerThread_GetPerThread_direct(tModuleState* m, PyObject* thread_id, PyObject* create);

// This thread's record with its name looked up. [new], None, or null.
PyObject* CInitialCallback_GetPerThreadCalledFromCallback(tModuleState* m);

// The thread's policy; -1 with or without an exception pending.
int CPerThread_GetDebugPolicy_direct(tModuleState* m, PyObject* per_thread);

int CPerThread_FindThreadName_direct(tModuleState* m, PyObject* per_thread);
int CPerThread_ClearPerThreadForCurrentThread(tModuleState* m);
int CPerThread_Clear_direct(tModuleState* m, PyObject* per_thread);
int CPerThread_TryRegisterThreadStateDictCapsule_direct(tModuleState* m, PyObject* per_thread);

// The record behind this thread's slot [new]; None when there is none or it was stale; null with an exception
// pending.
PyObject* CPerThread_FastGetExistingPerThreadFromPyTss(tModuleState* m);

// The record behind the capsule in this thread state's dict [new], None, or null.
PyObject* CPerThread_GetExistingPerThreadFromThreadStateDict(tModuleState* m);

// Whether the record's death runs the module's own finalizer: the program's classes and changes may replace it.
bool CPerThread_HasOwnFinalizer(PyObject* per_thread);

int CPerThread_StorePerThreadForCurrentThreadInPyTss_direct(tModuleState* m, PyObject* per_thread);
int CPerThread_DiscardPerThread_direct(tModuleState* m, PyObject* per_thread);
PyObject* CPerThread_get_fPerThreadDict(tModuleState* m);  // [new]

// ---- CPerFile (optmonitoring_perfile.cpp) ----

extern tClassInfo kPerFileClass;
int CPerFile_ClsInit(tModuleState* m);
int CPerFile_ClsReset(tModuleState* m);

// The record of a canonical pathname, made when absent and CREATE is true. [new], None, or null.
PyObject* CPerFile_GetPerFile_direct(tDPData* dp, PyObject* per_file_class, PyObject* pathname, PyObject* create);

// Enters the record in (REMOVE: takes it out of) the set of a checksum; None: its own. 0 or -1.
int CPerFile_UpdateByChecksum_direct(tModuleState* m, PyObject* per_file, PyObject* checksum, int16_t remove);

// ---- CPerCodeObject (optmonitoring_percodeobject*.cpp) ----

extern tClassInfo kPerCodeObjectClass;
int CPerCodeObject_ClsInit(tModuleState* m);
int CPerCodeObject_ClsReset(tModuleState* m);

// Result [new], None when absent and not to be made, null with an exception pending.
PyObject* CPerCodeObject_GetPerCodeObject_direct(tModuleState* m, PyObject* code, PyObject* create, PyObject* frame);
PyObject* CPerCodeObject_GetExistingPerCodeObject_direct(tModuleState* m, PyObject* code);

// The frame that runs, or None. [new]; null with an exception pending.
PyObject* get_running_frame(void);

// Makes the record of a code object that is seen for the first time, as a call of the class with the running frame
// would. False when it cannot be sure that there is no record yet and that a call would do the same: nothing has
// happened then, and nothing is pending. *RECORD is [new], or null with an exception pending.
bool CPerCodeObject_TryCreate(tModuleState* m, PyObject* code, PyObject** record);

// Drops what was found out about files and about the class; whenever the module starts, and whenever its file tables
// go.
void CPerCodeObject_ForgetFindings(tModuleState* m);

// What a call of the class makes: a record [new], or None where the program has made it so; null with an exception
// pending, also for anything else that the program has made it return.
PyObject* CPerCodeObject_Create_direct(tModuleState* m, PyObject* code, PyObject* frame);

// The same because there is no record: where another thread registers one first, that one.
PyObject* CPerCodeObject_CreateMissing(tModuleState* m, PyObject* code, PyObject* frame);

// Sets *RECORD to the record in the code object's extra slot [new]; null: none. 0, or -1 with an exception pending.
int CPerCodeObject_GetFromSlot(tModuleState* m, PyObject* code, PyObject** record);

// Without the interpreter lock: puts the record of a construction that was announced into the code object's slot,
// unless there is one. 1: there is one, 0: it is in, or nobody has announced it, -1 with an exception pending.
int CPerCodeObject_ClaimSlot(tModuleState* m, PyObject* record, PyObject* code);

// Takes the record out of the slot again, if it is the one there.
void CPerCodeObject_LeaveSlot(tModuleState* m, PyObject* record, PyObject* code);

// The pathname to report, or with CANONICAL the canonical one (None for pseudo files). [new] or null.
PyObject* CPerCodeObject_GetPathnameToUse_direct(tModuleState* m, PyObject* code, PyObject* frame, int16_t canonical);

int CPerCodeObject_UpdatePathnameFromFrame_direct(tModuleState* m, PyObject* per_code_object, PyObject* frame);
int CPerCodeObject_AddToPerFile_direct(tModuleState* m, PyObject* per_code_object);
int CPerCodeObject_RemoveFromPerFile_direct(tModuleState* m, PyObject* per_code_object);
int CPerCodeObject_RegisterPerCodeObject_direct(tModuleState* m, PyObject* per_code_object, PyObject* code);
int CPerCodeObject_cb_code_object_dealloc_direct(tModuleState* m, PyObject* per_code_object);
PyObject* CPerCodeObject_get_fPerCodeObjectDict(tModuleState* m);  // [new]

// The registry if it is a plain dict [new]; else null, perhaps with an exception pending.
PyObject* CPerCodeObject_GetPlainRegistry(tModuleState* m);

// Whether the record's weak reference leads to this very code object: 1, 0, or -1 with an exception pending.
int CPerCodeObject_BelongsTo(PyObject* record, CPerCodeObjectBody* body, PyObject* code);

// Free function of the code objects' extra slot; EXTRA is the record [steals] or null. Leaves no exception behind.
void FreeCodeObjectExtra(void* extra);

// The body of a record; null with an exception pending when OBJ is none.
CPerCodeObjectBody* need_per_code_object(tModuleState* m, PyObject* obj);

// Once per process, before the class is made: without the interpreter lock a record has one more field.
void CPerCodeObject_MakeRoomForHeldLines(void);

// Without the interpreter lock: the frozenset of line numbers that events may look into [borrowed], or null. The
// record holds it for them: what the program puts into fEnabledBpLinenos may be released at any moment, and what is
// no frozenset may change.
static inline PyObject** borrow_held_lines(const CPerCodeObjectBody* body)
{
    return reinterpret_cast<PyObject**>(const_cast<CPerCodeObjectBody*>(body + 1));
}

// Holds LINENOS, which fEnabledBpLinenos has, if it is such a frozenset, and nothing otherwise.
void CPerCodeObject_HoldLines(CPerCodeObjectBody* body, PyObject* linenos);

// 0, or -1 with TypeError pending when OBJ is no code object.
int check_code_object(PyObject* obj);

// ---- Pathname kinds and internal frames (optmonitoring_pathnames.cpp) ----

// A tPathnameKind, or -1 with an exception pending.
int GetPathnameKind_direct(tDPData* dp, PyObject* pathname);

// The module's table of internal names. [new], or null.
PyObject* new_internal_table(tModuleState* m);

// 1 or 0; never fails.
int IsInternalPathname(tDPData* dp, PyObject* internal_table, PyObject* pathname);

// 1, 0, or -1 with an exception pending.
int IsInternalFrame_direct(tModuleState* m, PyObject* frame);

// A frame or None [new]; null with an exception pending.
PyObject* GetNonInternalFrame_direct(tModuleState* m, PyObject* back_count);

// UTF-8 of a str without embedded nulls [borrowed from it]; null with an exception pending.
const char* need_utf8(PyObject* str, Py_ssize_t* length);

PyObject* GetPathnameKind(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);
PyObject* SetInternalPathnameDict(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);
PyObject* IsInternalFrame(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);
PyObject* GetNonInternalFrame(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);

// ---- CInitialCallback (optmonitoring_{initialcallback,skipsecond,suppressed}.cpp) ----

extern tClassInfo kInitialCallbackClass;

// Once per process: the method that events call is the one for this interpreter.
void CInitialCallback_ChooseCallback(void);

// One call's context, on the stack.
struct CInitialCallback_Callback_Ctx {
    tModuleState* m;
    PyObject* per_thread;       // the thread's record or None [owned]
    PyObject* per_code_object;  // [owned]
    PyObject* lineno_obj;       // line number of a LINE event, else None [owned]
    int saved_errno;
    int errno_was_saved;
};

// Hands the pending exception to the host's LogException as the handled one; nothing is pending afterwards.
void CallLogExceptionWithCurrentRaisedException(tModuleState* m);

// 1: the event is of no interest, 0: call the second callback, -1: failed, with an exception pending.
int CInitialCallback_SkipSecondCallback_direct(CInitialCallback_Callback_Ctx* ctx, CInitialCallbackBody* body,
                                               PyObject* code);

// ---- Helpers ----

// The descriptor list of a function without arguments.
static constexpr tFastArgInfo kNoArguments[] = {{nullptr, 0, nullptr, nullptr}};

// Class attribute with the host's hook for new code-object records.
extern tClassAttr gNewPerCodeObjectCreatedCallback;

// A fast method of an instance or a class.
typedef PyObject* (*tDefiningClassMethod)(PyObject* self, PyTypeObject* cls, PyObject* const* args, Py_ssize_t nargs,
                                          PyObject* kwnames);

// A method's function for its table; a macro, so that the tables are constants and need no start-up code.
#define AS_METHOD(function) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(function))

// A row of a class's member table: a field of its body, with the text that `help()` shows. NAMED_MEMBER: the name in
// Python is another one.
#define MEMBER(cls, field, type, flags) NAMED_MEMBER(#field, cls, field, type, flags)
#define NAMED_MEMBER(name, cls, field, type, flags)                        \
    {                                                                      \
        name, type, offsetof(cls##Body, field), flags, kDoc##cls##_##field \
    }

// The slots of one of the four classes.
#define CLASS_SLOTS(cls)                                                                                        \
    {kSlotTpMethods, kMethods}, {kSlotTpInit, reinterpret_cast<void*>(cls##_init)}, {kSlotTpMembers, kMembers}, \
        {kSlotTpFinalize, reinterpret_cast<void*>(cls##_finalize)}, {0, nullptr},

static inline tDPData* dp_of(tModuleState* m)
{
    return m ? m->dp : nullptr;
}

// Whether no operation on the mapping is one of the program's own.
static inline bool is_plain_dict(PyObject* mapping)
{
    return XPy_BorrowTypeInline(mapping) == api.PyDict_Type_ptr;
}

// None as the result of a method. [new]
static inline PyObject* new_none(void)
{
    return XPy_NewRef(api.Py_None);
}

// The body of one of our own instances behind its known class.
static inline CPerThreadBody* per_thread_body(PyObject* obj, PyTypeObject* cls)
{
    return get_body<CPerThreadBody>(obj, cls, &gPerThreadBodyOffset);
}
static inline CPerCodeObjectBody* per_code_object_body(PyObject* obj, PyTypeObject* cls)
{
    return get_body<CPerCodeObjectBody>(obj, cls, &gPerCodeObjectBodyOffset);
}
static inline CPerFileBody* per_file_body(PyObject* obj, PyTypeObject* cls)
{
    return get_body<CPerFileBody>(obj, cls, &gPerFileBodyOffset);
}
static inline CInitialCallbackBody* initial_callback_body(PyObject* obj, PyTypeObject* cls)
{
    return get_body<CInitialCallbackBody>(obj, cls, &gInitialCallbackBodyOffset);
}

#endif
