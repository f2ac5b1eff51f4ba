// Accessors: one fact of a frame, thread state, code object, generator or traceback each, on every interpreter.
//
// Each accessor hides the version question: a field at a known offset, else an entry of the binding table, else the
// Python attribute. None leaves an exception pending unless its comment says so.

#ifndef OPTMONITORING_DBGCOMMON_H
#define OPTMONITORING_DBGCOMMON_H

#include "xpy_c_api.h"

// A process-lifetime name object, made on first use. Null with an exception pending when it cannot be made.
// [borrowed]
struct tNameCache {
    const char* text;
    PyObject* name;
};
XPY_EXPORT PyObject* borrow_cached_name(tNameCache* cache);

// Reads an attribute through a cached name. [new]; null with an exception pending.
PyObject* get_cached_attr(PyObject* obj, tNameCache* cache);

// ---- Frames (dbgcommon_frames.cpp); null and -1 also stand for failures ----

XPY_EXPORT int is_frame_object(PyObject* obj);
XPY_EXPORT PyObject* get_frame_back(PyObject* frame);              // calling frame [new]
XPY_EXPORT int get_frame_lineno(PyObject* frame);                  // current line
XPY_EXPORT PyObject* get_frame_code(PyObject* frame);              // [new]
XPY_EXPORT PyObject* get_frame_generator(PyObject* frame);         // [new]
XPY_EXPORT PyObject* get_frame_builtins(PyObject* frame);          // [new]
XPY_EXPORT PyObject* get_frame_globals(PyObject* frame);           // [new]
XPY_EXPORT PyObject* get_frame_locals(PyObject* frame);            // [new]
XPY_EXPORT int get_frame_iblock(PyObject* frame);                  // block stack depth, -1 when unknown
XPY_EXPORT PyObject* borrow_frame_trace(PyObject* frame);          // trace function [borrowed]
XPY_EXPORT void set_frame_trace(PyObject* frame, PyObject* func);  // func [borrowed], may be null
XPY_EXPORT int is_frame_trace_lines_supported(void);
XPY_EXPORT int set_frame_trace_lines(PyObject* frame, int flag);  // 0, or -1 on failure
XPY_EXPORT PyObject* get_frame_filename(PyObject* frame);         // [new]; null without code
XPY_EXPORT PyObject* get_frame_code_name(PyObject* frame);        // [new]; None without code
XPY_EXPORT int is_outermost_frame(PyObject* frame);
XPY_EXPORT int get_stack_depth(PyThreadState* tstate);          // frames on the thread's stack; null: this thread
XPY_EXPORT int get_frame_suspended_generator(PyObject* frame);  // 1: the frame of a suspended generator
XPY_EXPORT PyObject* get_traceback_frame(PyObject* tb);         // [new]
XPY_EXPORT PyObject* borrow_traceback_frame(PyObject* tb);      // [borrowed]
XPY_EXPORT PyObject* borrow_traceback_next(PyObject* tb);       // [borrowed]

// ---- Thread states (dbgcommon_threads.cpp) ----

// The calling thread's state if it has one and holds the interpreter lock, else null. Safe on any thread.
XPY_EXPORT PyThreadState* borrow_current_thread_state_or_null(void);

XPY_EXPORT PyObject* get_thread_state_frame(PyThreadState* tstate);        // [new]
XPY_EXPORT PyObject* borrow_thread_state_traceobj(PyThreadState* tstate);  // [borrowed]
XPY_EXPORT PyInterpreterState* borrow_thread_state_interp(PyThreadState* tstate);
XPY_EXPORT uint64_t get_thread_state_thread_id(PyThreadState* tstate);
XPY_EXPORT int get_thread_state_use_tracing(PyThreadState* tstate);  // 1 when unknown
XPY_EXPORT void set_thread_state_use_tracing(PyThreadState* tstate, int value);
XPY_EXPORT int get_thread_state_tracing(PyThreadState* tstate);  // 0 when unknown
XPY_EXPORT void increment_thread_state_tracing(PyThreadState* tstate);
XPY_EXPORT void decrement_thread_state_tracing(PyThreadState* tstate);
XPY_EXPORT void add_to_thread_state_tracing(PyThreadState* tstate, Py_ssize_t n);

// Raises the tracing counter, so that the thread's Python code is not traced, until the end of the scope.
class tUntraced
{
  public:
    explicit tUntraced(PyThreadState* tstate) : fTState(tstate) { increment_thread_state_tracing(fTState); }
    ~tUntraced() { decrement_thread_state_tracing(fTState); }
    tUntraced(const tUntraced&) = delete;
    tUntraced& operator=(const tUntraced&) = delete;

  private:
    PyThreadState* fTState;
};

XPY_EXPORT int get_thread_state_what_event(PyThreadState* tstate);  // -1 when unknown
XPY_EXPORT int set_thread_state_trace_cfunc(PyThreadState* tstate, Py_tracefunc func, PyObject* obj);

// ---- Other objects (dbgcommon_objects.cpp) ----

// Reads an attribute whose owner keeps the value alive [borrowed]; null on failure, which is logged and cleared.
XPY_EXPORT PyObject* borrow_attrib(PyObject* obj, tNameCache* cache);

// The attribute's truth: 1, 0, or -1 with an exception pending.
XPY_EXPORT int get_bool_attrib(PyObject* obj, const char* name, PyObject** cache);

XPY_EXPORT int get_generator_suspended(PyObject* gen);        // 1, 0, or -1 with an exception pending
XPY_EXPORT PyObject* borrow_code_name(PyObject* code);        // [borrowed]
XPY_EXPORT PyObject* borrow_code_filename(PyObject* code);    // [borrowed]
XPY_EXPORT PyObject* get_code_name(PyObject* code);           // [new]
XPY_EXPORT PyObject* get_code_filename(PyObject* code);       // [new]
XPY_EXPORT Py_ssize_t get_code_firstlineno(PyObject* code);   // -1 on failure
XPY_EXPORT PyObject* get_imported_module(const char* name);   // [new]; null with the look-up's exception pending
XPY_EXPORT const char* _pystring_to_c_string(PyObject* str);  // UTF-8 text owned by the object, null on failure
XPY_EXPORT char* _pystring_to_c_string_copy(PyObject* str);   // the same, to be freed by the caller
XPY_EXPORT int string_objects_equal(PyObject* a, PyObject* b);
XPY_EXPORT int pyobjects_equal(PyObject* a, PyObject* b);   // 1, 0, or -1 with an exception pending
XPY_EXPORT void* lookup_python_function(const char* name);  // in the process's namespace, null when absent

// Calls with one to three arguments [borrowed]; the result [new], or null with an exception pending.
XPY_EXPORT PyObject* do_one_arg_call(PyObject* callable, PyObject* a);
XPY_EXPORT PyObject* do_two_arg_call(PyObject* callable, PyObject* a, PyObject* b);
XPY_EXPORT PyObject* do_three_arg_call(PyObject* callable, PyObject* a, PyObject* b, PyObject* c);

// True is 1, False and None are 0, anything else its truth value; -1 with an exception pending.
int get_istrue(PyObject* obj);

// An int of the running interpreter generation: to [new] and from (-1 with an exception pending on failure).
PyObject* py_int_from_ssize_t(Py_ssize_t value);
Py_ssize_t py_int_as_ssize_t(PyObject* obj);

#endif
