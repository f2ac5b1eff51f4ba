// Shared by the files that make records of code objects.

#ifndef OPTMONITORING_OPTMONITORING_PERCODEOBJECT_INTERNAL_H
#define OPTMONITORING_OPTMONITORING_PERCODEOBJECT_INTERNAL_H

#include "optmonitoring_internal.h"

// ---- Names (optmonitoring_percodeobject_names.cpp) ----

// Both names of a code object, null until they are found.
struct tPathnames {
    XPyOwned to_report;
    XPyOwned canonical;
};

// The names of a file that has been seen; false when they are not known.
bool find_known_pathnames(tModuleState* m, PyObject* filename, tPathnames* names);

// The pathname to report and the canonical one; -1 with an exception pending.
int find_pathnames(tModuleState* m, PyObject* code, PyObject* frame, tPathnames* names);

// Drops the known names, if they are this module's.
void forget_known_pathnames(tModuleState* m);

// ---- First events (optmonitoring_percodeobject_first.cpp) ----

// Whether the frame that runs on this thread is one of CODE, found without making an object of the frame. False
// leaves it open.
bool is_surely_running(PyThreadState* tstate, PyObject* code);

// ---- Construction (optmonitoring_percodeobject.cpp) ----

extern const char kPerCodeObjectInitFailure[];

int CPerCodeObject_init(PyObject* self, PyObject* args, PyObject* kwargs);

// Makes a record out of SELF, which may have its weak reference already, and whose NAMES may be known already. FRAME
// may be None, and null where there is one and the names are known: then no object needs to be made of it. 0, or -1
// with an exception pending.
int construct_record(tModuleState* m, PyObject* self, CPerCodeObjectBody* body, PyObject* code, PyObject* frame,
                     tPathnames* names);

// The record's attribute for it [new], which the program may have replaced, and the module's own method. [new] Null
// with an exception pending.
PyObject* get_death_callback(PyObject* self);
PyObject* make_death_callback(PyObject* self, PyTypeObject* cls);

// Sets the weak reference, whose callback [steals], perhaps null, keeps the record alive until its code object dies.
// 0, or -1 with an exception pending.
int set_code_weak_ref(PyObject* self, CPerCodeObjectBody* body, PyObject* code, PyObject* death_callback);

// Takes a half-made record apart: its weak reference, if it has one, would keep it alive for nothing.
void undo_record_start(PyObject* self);

#endif
