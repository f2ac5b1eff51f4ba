// Shared by the files of the binding layer alone.

#ifndef OPTMONITORING_XPY_C_API_INTERNAL_H
#define OPTMONITORING_XPY_C_API_INTERNAL_H

#include "xpy_c_api.h"

// ---- Layout tables (xpy_c_api_layout_tables.cpp) ----

extern XPy_FieldWithSize pre312_pyobject_fields[];
extern XPy_FieldWithSize py312_13_64bit_pyobject_fields[];
extern XPy_FieldWithSize py314_64bit_pyobject_fields[];
extern XPy_FieldWithSize free_t_pyobject_fields[];
extern XPy_FieldWithSize typeobject_fields[];
extern XPy_FieldWithSize py2_tstate_fields[];
extern XPy_FieldWithSize py3d0_tstate_fields[];
extern XPy_FieldWithSize py3d4_tstate_fields[];
extern XPy_FieldWithSize py3d7_tstate_fields[];
extern XPy_FieldWithSize py3d10_tstate_fields[];
extern XPy_FieldWithSize py3d11_tstate_fields[];
extern XPy_FieldWithSize py3d12_tstate_fields[];
extern XPy_FieldWithSize py3d13_tstate_fields[];
extern XPy_FieldWithSize py3d14_tstate_fields[];
extern XPy_FieldWithSize py3d15_tstate_fields[];
extern XPy_FieldWithSize frame_fields_pre_py3d4[];
extern XPy_FieldWithSize frame_fields_py3d4[];
extern XPy_FieldWithSize frame_fields_py3d7[];
extern XPy_FieldWithSize frame_fields_py3d10[];
extern XPy_FieldWithSize py3d10_cframe_fields[];
extern XPy_FieldWithSize py3d12_cframe_fields[];
extern XPy_FieldWithSize py3d6_interpreter_state_fields[];
extern XPy_FieldWithSize py3d7_interpreter_state_fields[];
extern XPy_FieldWithSize py3d7_core_config_fields[];
extern XPy_FieldWithSize py3d7_main_interpreter_config_fields[];
extern XPy_FieldWithSize py3d8_interpreter_state_fields[];
extern XPy_FieldWithSize py3d8_pyconfig_fields[];
extern XPy_FieldWithSize py3_mod_def_fields[];
extern XPy_FieldWithSize py3d12_set_fields[];
extern XPy_FieldWithSize py3d12_type_tail_fields[];
extern XPy_FieldWithSize py3d12_int_fields[];
extern XPy_FieldWithSize py3d12_interpreter_frame_fields[];

// Bytes of the two list links that a reference-tracing build puts in front of every object header.
static constexpr Py_ssize_t kTraceRefsHeader = 16;

// ---- Offsets of the running interpreter (xpy_c_api_layout.cpp) ----
// Each needs major_version and minor_version; all but the first need pyobject_offsets.

void InitPyObjectOffsets(bool free_threaded);
void InitTypeObjectOffsets(void);
void InitFrameOffsets(void);
void InitThreadStateOffsets(void);
void InitCFrameOffsets(void);
void InitShortcutOffsets(void);
void InitInterpreterStateOffsets(void);

// ---- Fallbacks (xpy_c_api_backups.cpp): the table's entries where the interpreter lacks the function ----

#define XPY_FN_OR(result, entry, parameters, range, fallback) extern "C" result fallback parameters;
#define XPY_FN_NEED_OR(result, entry, parameters, range, fallback) extern "C" result fallback parameters;
#define XPY_FN_UNICODE_OR(result, entry, parameters, range, prefix, suffix, fallback) \
    extern "C" result fallback parameters;
#include "xpy_c_api_entries.inc"

// ---- The native log of start-up (xpy_c_api_init.cpp) ----

// Writes to the process-wide log's descriptor, if it has one; the interpreter cannot format anything yet.
void log_startup(const char* format, ...) __attribute__((format(printf, 1, 2)));

#endif
