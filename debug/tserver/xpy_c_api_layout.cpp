// Structure layouts: where the running interpreter keeps the fields that we read and write in place.

#include <stdio.h>
#include <string.h>

#include <initializer_list>

#include "xpy_c_api_internal.h"

static constexpr Py_ssize_t kPointerSize = 8;
static constexpr Py_ssize_t kMaxAlignment = 8;  // of any field in the interpreter's structures
static constexpr int kAndLater = 1000;

// A table and the 3.x minor versions that it serves, both included; Python 2 counts as major 2. PYVERSIONS
struct tLayoutRange {
    int major;
    int first;
    int last;
    XPy_FieldWithSize* table;
};

static const tLayoutRange kPyObjectLayouts[] = {
    {2, 0, kAndLater, pre312_pyobject_fields},
    {3, 0, 11, pre312_pyobject_fields},
    {3, 12, 13, py312_13_64bit_pyobject_fields},
    {3, 14, kAndLater, py314_64bit_pyobject_fields},
};

static const tLayoutRange kFrameLayouts[] = {
    {2, 0, kAndLater, frame_fields_pre_py3d4},
    {3, 0, 3, frame_fields_pre_py3d4},
    {3, 4, 6, frame_fields_py3d4},
    {3, 7, 9, frame_fields_py3d7},
    {3, 10, 10, frame_fields_py3d10},
};

static const tLayoutRange kThreadStateLayouts[] = {
    {2, 0, kAndLater, py2_tstate_fields}, {3, 0, 3, py3d0_tstate_fields},    {3, 4, 6, py3d4_tstate_fields},
    {3, 7, 9, py3d7_tstate_fields},       {3, 10, 10, py3d10_tstate_fields}, {3, 11, 11, py3d11_tstate_fields},
    {3, 12, 12, py3d12_tstate_fields},    {3, 13, 13, py3d13_tstate_fields}, {3, 14, 14, py3d14_tstate_fields},
    {3, 15, 15, py3d15_tstate_fields},
};

static const tLayoutRange kCFrameLayouts[] = {
    {3, 10, 11, py3d10_cframe_fields},
    {3, 12, 12, py3d12_cframe_fields},
};

static const tLayoutRange kSetLayouts[] = {{3, 12, 15, py3d12_set_fields}};
static const tLayoutRange kIntLayouts[] = {{3, 12, 15, py3d12_int_fields}};
static const tLayoutRange kTypeTailLayouts[] = {{3, 12, 15, py3d12_type_tail_fields}};
static const tLayoutRange kInterpreterFrameLayouts[] = {{3, 12, 15, py3d12_interpreter_frame_fields}};

template <size_t N>
static XPy_FieldWithSize* find_layout(const tLayoutRange (&ranges)[N])
{
    for (const tLayoutRange& range : ranges) {
        if (api.major_version == range.major && api.minor_version >= range.first && api.minor_version <= range.last)
            return range.table;
    }
    return nullptr;
}

// Size of a row; a header marker has the size of the running interpreter's object header.
static Py_ssize_t row_size(const XPy_FieldWithSize& row)
{
    Py_ssize_t header_words = 0;
    if (strcmp(row.name, "<PyObject_HEAD>") == 0)
        header_words = 1;
    else if (strcmp(row.name, "<PyObject_VAR_HEAD>") == 0)
        header_words = 2;
    else
        return row.size;
    return api.pyobject_offsets.type < 1 ? -1 : api.pyobject_offsets.type + header_words * kPointerSize;
}

static Py_ssize_t align_up(Py_ssize_t offset, Py_ssize_t size)
{
    Py_ssize_t alignment = size <= kMaxAlignment ? size : kMaxAlignment;
    return (offset + alignment - 1) / alignment * alignment;
}

Py_ssize_t FindFieldOffsetMissingOk(const char* name, const XPy_FieldWithSize* table)
{
    Py_ssize_t offset = 0;
    for (const XPy_FieldWithSize* row = table; row->name; row++) {
        Py_ssize_t size = row_size(*row);
        if (size < 1)
            return -1;
        if (row != table)
            offset = align_up(offset, size);
        if (name && strcmp(row->name, name) == 0)
            return offset;
        offset += size;
    }
    return name ? -1 : offset;
}

Py_ssize_t FindFieldOffset(const char* name, const XPy_FieldWithSize* table)
{
    Py_ssize_t offset = FindFieldOffsetMissingOk(name, table);
    if (offset == -1)
        fprintf(stderr, "Unable to find field offset for: %s\n", name ? name : "(NULL)");
    return offset;
}

Py_ssize_t FindSizeOfAllFields(const XPy_FieldWithSize* table)
{
    return FindFieldOffsetMissingOk(nullptr, table);
}

static XPy_FieldWithSize* find_row(XPy_FieldWithSize* table, const char* name)
{
    for (XPy_FieldWithSize* row = table; row->name; row++) {
        if (strcmp(row->name, name) == 0)
            return row;
    }
    return nullptr;
}

void SetFieldSize(XPy_FieldWithSize* table, const char* name, Py_ssize_t size)
{
    if (XPy_FieldWithSize* row = find_row(table, name))
        row->size = size;
}

void InitPyObjectOffsets(bool free_threaded)
{
    XPy_PyObjectOffsets& offsets = api.pyobject_offsets;
    offsets = {-1, -1, -1, -1, -1};
    if (free_threaded) {
        // No refcnt: a count is split between its owner and the others, so direct updates stay off.
        offsets.type = FindFieldOffset("ob_type", free_t_pyobject_fields);
        offsets.mutex = FindFieldOffset("ob_mutex", free_t_pyobject_fields);
    } else {
        const XPy_FieldWithSize* table = find_layout(kPyObjectLayouts);
        if (!table)
            table = pre312_pyobject_fields;  // the version numbers could not be read
        offsets.refcnt = FindFieldOffset("ob_refcnt", table);
        offsets.type = FindFieldOffset("ob_type", table);
        if (table == py314_64bit_pyobject_fields) {
            offsets.overflow = FindFieldOffset("ob_overflow", table);
            offsets.flags = FindFieldOffset("ob_flags", table);
        }
    }
    if (api.pydebug_build) {
        for (Py_ssize_t* offset :
             {&offsets.refcnt, &offsets.type, &offsets.mutex, &offsets.overflow, &offsets.flags}) {
            if (*offset != -1)
                *offset += kTraceRefsHeader;
        }
    }
    log_startup("pyobject_offsets: refcnt=%i type=%i mutex=%i overflow=%i flags=%i\n",
                static_cast<int>(offsets.refcnt), static_cast<int>(offsets.type), static_cast<int>(offsets.mutex),
                static_cast<int>(offsets.overflow), static_cast<int>(offsets.flags));
}

void InitTypeObjectOffsets(void)
{
    XPy_TypeObjectOffsets& offsets = api.typeobject_offsets;
    offsets.tp_basicsize = FindFieldOffset("tp_basicsize", typeobject_fields);
    offsets.tp_vectorcall_offset = FindFieldOffset("tp_vectorcall_offset", typeobject_fields);
    offsets.tp_flags = FindFieldOffset("tp_flags", typeobject_fields);
    offsets.tp_base = FindFieldOffset("tp_base", typeobject_fields);
    api.max_align = kMaxAlignment;
    log_startup("typeobject: tp_basicsize offset = %i, tp_vectorcall_offset offset = %i, max_align = %i\n",
                static_cast<int>(offsets.tp_basicsize), static_cast<int>(offsets.tp_vectorcall_offset),
                static_cast<int>(api.max_align));
}

void InitFrameOffsets(void)
{
    XPy_FrameOffsets& offsets = api.frame_offsets;
    offsets = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
    const XPy_FieldWithSize* table = find_layout(kFrameLayouts);
    if (!table)
        return;  // from 3.11 on frames are no plain objects with these fields
    offsets.lineno = FindFieldOffset("f_lineno", table);
    offsets.code = FindFieldOffset("f_code", table);
    offsets.builtins = FindFieldOffset("f_builtins", table);
    offsets.trace = FindFieldOffset("f_trace", table);
    offsets.iblock = FindFieldOffset("f_iblock", table);
    offsets.locals = FindFieldOffset("f_locals", table);
    offsets.globals = FindFieldOffset("f_globals", table);
    offsets.back = FindFieldOffset("f_back", table);
    if (table == frame_fields_py3d10)
        offsets.state = FindFieldOffset("f_state", table);
    else
        offsets.stacktop = FindFieldOffset("f_stacktop", table);
}

void InitThreadStateOffsets(void)
{
    const XPy_FieldWithSize* table = find_layout(kThreadStateLayouts);
    if (!table) {
        fputs("Cannot find tstate fields for this python version\n", stderr);
        return;  // the offsets stay 0, and nothing reads through them
    }
    XPy_ThreadStateOffsets& offsets = api.tstate_offsets;
    offsets.next = FindFieldOffset("next", table);
    offsets.interp = FindFieldOffset("interp", table);
    offsets.c_tracefunc = FindFieldOffset("c_tracefunc", table);
    offsets.c_traceobj = FindFieldOffset("c_traceobj", table);
    offsets.tracing = FindFieldOffset("tracing", table);
    offsets.use_tracing = FindFieldOffsetMissingOk("use_tracing", table);
    offsets.thread_id = FindFieldOffset("thread_id", table);
    offsets.what_event = FindFieldOffsetMissingOk("what_event", table);
    bool py3 = api.major_version >= 3;
    if (!py3 || api.minor_version <= 10) {
        offsets.frame = FindFieldOffset("frame", table);
        offsets.cframe = -1;
    } else {
        offsets.frame = -1;
        offsets.cframe = FindFieldOffset(api.minor_version <= 12 ? "cframe" : "current_frame", table);
    }
}

void InitCFrameOffsets(void)
{
    const XPy_FieldWithSize* table = find_layout(kCFrameLayouts);
    api.cframe_offsets.current_frame = table ? FindFieldOffset("current_frame", table) : -1;
}

XPy_ShortcutOffsets gShortcutOffsets = {-1, -1, -1, -1, -1, -1};
XPy_ShortcutOffsets gSharedShortcutOffsets = {-1, -1, -1, -1, -1, -1};

static void init_object_shortcuts(XPy_ShortcutOffsets* offsets)
{
    if (const XPy_FieldWithSize* set = find_layout(kSetLayouts)) {
        offsets->set_mask = FindFieldOffset("mask", set);
        offsets->set_table = FindFieldOffset("table", set);
    }
    if (const XPy_FieldWithSize* number = find_layout(kIntLayouts)) {
        offsets->int_tag = FindFieldOffset("lv_tag", number);
        offsets->int_digit = FindFieldOffset("ob_digit", number);
    }
    if (const XPy_FieldWithSize* tail = find_layout(kTypeTailLayouts))
        offsets->type_version = api.typeobject_offsets.tp_base + FindFieldOffset("tp_version_tag", tail);
}

void InitShortcutOffsets(void)
{
    gShortcutOffsets = {-1, -1, -1, -1, -1, -1};
    gSharedShortcutOffsets = gShortcutOffsets;
    if (const XPy_FieldWithSize* frame = find_layout(kInterpreterFrameLayouts))
        gShortcutOffsets.frame_code = FindFieldOffset("f_executable", frame);
    // No known place of the count: the build is free-threaded.
    init_object_shortcuts(api.pyobject_offsets.refcnt == -1 ? &gSharedShortcutOffsets : &gShortcutOffsets);
}

// Gives the nested structure's row of TABLE its size; false when that cannot be computed, which is reported, or when
// the table has no such row, which is not.
static bool size_nested(XPy_FieldWithSize* table, const char* row_name, const XPy_FieldWithSize* nested)
{
    Py_ssize_t size = FindSizeOfAllFields(nested);
    if (size == -1) {
        fputs("Unable to find size of all fields\n", stderr);
        return false;
    }
    SetFieldSize(table, row_name, size);
    return find_row(table, row_name) != nullptr;
}

void InitInterpreterStateOffsets(void)
{
    Py_ssize_t& eval_frame = api.interpreter_state_offsets.eval_frame;
    eval_frame = -1;
    if (api.major_version != 3)
        return;
    switch (api.minor_version) {
        case 6:
            eval_frame = FindFieldOffset("eval_frame", py3d6_interpreter_state_fields);
            break;
        case 7:
            if (size_nested(py3d7_interpreter_state_fields, "core_config", py3d7_core_config_fields) &&
                size_nested(py3d7_interpreter_state_fields, "config", py3d7_main_interpreter_config_fields))
                eval_frame = FindFieldOffset("eval_frame", py3d7_interpreter_state_fields);
            break;
        case 8:
            if (size_nested(py3d8_interpreter_state_fields, "config", py3d8_pyconfig_fields))
                eval_frame = FindFieldOffset("eval_frame", py3d8_interpreter_state_fields);
            break;
        default:
            break;  // other versions have functions for it, or no such hook
    }
}
