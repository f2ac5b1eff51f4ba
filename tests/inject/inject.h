// Failure injection for the module as it is built: linked with the module's own objects, it stands between them and
// the heap, the loader and the interpreter, and makes chosen calls fail. Never part of the module itself.
//
// One injection is armed at a time, for the thread that arms it; other threads' calls go through untouched. The
// visible functions are for ctypes.PyDLL, which keeps the interpreter lock.

#ifndef OPTMONITORING_TESTS_INJECT_H
#define OPTMONITORING_TESTS_INJECT_H

#include "xpy_c_api.h"

// What is counted and made to fail; 0 and up: one entry of the binding table, by its place in the list.
enum tInjectionTarget {
    kNothing = -4,
    kLookUps = -3,           // symbols looked up in the loader
    kInterpreterCalls = -2,  // every entry of the binding table that can fail
    kAllocations = -1,       // blocks of the C heap
};

// Arms: the calls FIRST to LAST (from 1) of TARGET that this thread makes from now on fail, and with them the
// exception class EXCEPTION [borrowed, to be kept alive by the caller] is raised where such a call raises one.
XPY_EXPORT void inject_arm(int target, int first, int last, PyObject* exception);

// Ends the injection, from any thread. Returns how many calls were counted.
XPY_EXPORT int inject_disarm(void);

// How many calls the last injection made fail, and the names of the first of them, null behind the last known one.
// [borrowed]
XPY_EXPORT int inject_failed_count(void);
XPY_EXPORT const char* inject_failed_name(int nth);

// Blocks of the C heap that the module's own code has allocated and not yet freed.
XPY_EXPORT long inject_live_blocks(void);

// The entries of the binding table: how many, their names, whether they can be made to fail, and how often in this
// process they were.
XPY_EXPORT int inject_entry_count(void);
XPY_EXPORT const char* inject_entry_name(int entry);
XPY_EXPORT int inject_entry_can_fail(int entry);
XPY_EXPORT int inject_entry_failures(int entry);

// Counts a call of NAME; true when it must fail.
bool is_to_fail(int target, const char* name, bool needs_memory = true);

// Raises the armed exception.
void raise_injected(void);

// The wrapper to be used for the symbol NAME, whose address is PTR; PTR itself where there is none.
void* wrap_symbol(const char* name, void* ptr);

#endif
