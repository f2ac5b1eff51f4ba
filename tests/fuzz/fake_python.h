// A stand-in for the interpreter, as far as the fuzzed units use it: objects that are counted, one pending exception,
// one thread state, and a list of what the log did. Whatever may fail does so when it is asked to.

#ifndef OPTMONITORING_TESTS_FAKE_PYTHON_H
#define OPTMONITORING_TESTS_FAKE_PYTHON_H

#include <string>
#include <vector>

#include "xpy_c_api.h"

struct tFake;

// The kinds of objects. The units take the addresses for type objects.
struct tFakeType {
    const char* name;
    const tFakeType* base;
};
extern tFakeType kFakeStr, kFakeStrSubclass, kFakeInt, kFakeDict, kFakeTuple, kFakeFile, kFakeFrame, kFakeCode,
    kFakeException, kFakeOther;

struct tFake {
    Py_ssize_t count;  // like the next, where the header has it
    const tFakeType* type;
    std::string text;           // of a str; of an exception; of a file's name
    std::vector<tFake*> items;  // [owned] of a tuple; a dict's keys; name and filename of code, either may be null
    int64_t number;             // of an int; a frame's current line, a code object's first
    tFake* repr;                // [owned] null: taking it raises
    bool refuses;               // a str: has no UTF-8; a dict: its look-up raises; a file: writing raises
    bool refuses_flush;
};

inline PyObject* as_object(tFake* fake)
{
    return reinterpret_cast<PyObject*>(fake);
}
inline tFake* as_fake(PyObject* obj)
{
    return reinterpret_cast<tFake*>(obj);
}

// Objects made here are [new].
tFake* new_fake(const tFakeType* type, const std::string& text = "");
tFake* new_fake_int(int64_t number);
tFake* fake_ref(tFake* fake);  // FAKE with a new reference; null stays null
void release_fake(tFake* fake);

struct tFakePython {
    bool has_thread_state = true;
    int tracing = 0;  // change it with set_fake_tracing
    bool formatting_raises = false;
    int constructions_that_raise = 0;    // of str from a C string: so many of the next ones
    tFake* pending = nullptr;            // [owned]
    tFake* sys_stderr = nullptr;         // [owned] null: missing
    std::vector<std::string> events;     // what was written to the log's files
    void (*during_write)() = nullptr;    // run within a write
    void (*during_look_up)() = nullptr;  // run within a dict's look-up
};
extern tFakePython gFake;

void set_fake_tracing(int tracing);

// Fills the binding table and forgets everything. DIRECT: counts are changed in the objects.
void start_fake_python(bool direct);

// Ends the process unless every object has been released and nothing is pending.
void check_fake_python_is_clean();

#endif
