// The layout rule, the tables row by row, and the offsets chosen for each version: no interpreter needed.

#include <string.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "hosted_support.h"
#include "xpy_c_api_internal.h"

// A table with nothing known of the interpreter but what the test says.
class Layout : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        memset(static_cast<void*>(&global_XPy_C_API_Data), 0, sizeof global_XPy_C_API_Data);
        api.pyobject_offsets = {0, 8, -1, -1, -1};
    }

    static void set_version(int major, int minor)
    {
        api.major_version = major;
        api.minor_version = minor;
    }

  private:
    tSavedTable fSavedTable;
};

// "name:size name:size": the header's size is ignored, so it is not written.
static std::string rows_of(const XPy_FieldWithSize* table)
{
    std::string text;
    for (const XPy_FieldWithSize* row = table; row->name; row++) {
        text += text.empty() ? "" : " ";
        text += row->name;
        if (row->name[0] != '<')
            text += ":" + std::to_string(row->size);
    }
    return text;
}

TEST_F(Layout, TablesHoldTheInterpretersFields)
{
    // nested structures without a size yet, whatever an earlier test has computed
    SetFieldSize(py3d7_interpreter_state_fields, "core_config", -1);
    SetFieldSize(py3d7_interpreter_state_fields, "config", -1);
    SetFieldSize(py3d8_interpreter_state_fields, "config", -1);
    static const struct {
        const char* name;
        const XPy_FieldWithSize* table;
        const char* rows;
    } kTables[] = {
        // clang-format off
        {"pre312_pyobject_fields", pre312_pyobject_fields,
         "ob_refcnt:8 ob_type:8"},
        {"py312_13_64bit_pyobject_fields", py312_13_64bit_pyobject_fields,
         "ob_refcnt:4 ob_refcnt_high:4 ob_type:8"},
        {"py314_64bit_pyobject_fields", py314_64bit_pyobject_fields,
         "ob_refcnt:4 ob_overflow:2 ob_flags:2 ob_type:8"},
        {"free_t_pyobject_fields", free_t_pyobject_fields,
         "ob_tid:8 ob_flags:2 ob_mutex:1 ob_gc_bits:1 ob_ref_local:4 ob_ref_shared:8 ob_type:8"},
        {"typeobject_fields", typeobject_fields,
         "<PyObject_VAR_HEAD> tp_name:8 tp_basicsize:8 tp_itemsize:8 tp_dealloc:8 tp_vectorcall_offset:8 "
         "tp_getattr:8 tp_setattr:8 tp_as_async:8 tp_repr:8 tp_as_number:8 tp_as_sequence:8 tp_as_mapping:8 "
         "tp_hash:8 tp_call:8 tp_str:8 tp_getattro:8 tp_setattro:8 tp_as_buffer:8 tp_flags:8 tp_doc:8 "
         "tp_traverse:8 tp_clear:8 tp_richcompare:8 tp_weaklistoffset:8 tp_iter:8 tp_iternext:8 tp_methods:8 "
         "tp_members:8 tp_getset:8 tp_base:8"},
        {"py2_tstate_fields", py2_tstate_fields,
         "next:8 interp:8 frame:8 recursion_depth:4 tracing:4 use_tracing:4 c_profilefunc:8 c_tracefunc:8 "
         "c_profileobj:8 c_traceobj:8 curexc_type:8 curexc_value:8 curexc_traceback:8 exc_type:8 exc_value:8 "
         "exc_traceback:8 dict:8 tick_counter:4 gilstate_counter:4 async_exc:8 thread_id:8"},
        {"py3d0_tstate_fields", py3d0_tstate_fields,
         "next:8 interp:8 frame:8 recursion_depth:4 overflowed:1 recursion_critical:1 tracing:4 use_tracing:4 "
         "c_profilefunc:8 c_tracefunc:8 c_profileobj:8 c_traceobj:8 curexc_type:8 curexc_value:8 "
         "curexc_traceback:8 exc_type:8 exc_value:8 exc_traceback:8 dict:8 tick_counter:4 gilstate_counter:4 "
         "async_exc:8 thread_id:8"},
        {"py3d4_tstate_fields", py3d4_tstate_fields,
         "prev:8 next:8 interp:8 frame:8 recursion_depth:4 overflowed:1 recursion_critical:1 tracing:4 "
         "use_tracing:4 c_profilefunc:8 c_tracefunc:8 c_profileobj:8 c_traceobj:8 curexc_type:8 curexc_value:8 "
         "curexc_traceback:8 exc_type:8 exc_value:8 exc_traceback:8 dict:8 gilstate_counter:4 async_exc:8 "
         "thread_id:8"},
        {"py3d7_tstate_fields", py3d7_tstate_fields,
         "prev:8 next:8 interp:8 frame:8 recursion_depth:4 overflowed:1 recursion_critical:1 "
         "stackcheck_counter:4 tracing:4 use_tracing:4 c_profilefunc:8 c_tracefunc:8 c_profileobj:8 "
         "c_traceobj:8 curexc_type:8 curexc_value:8 curexc_traceback:8 exc_state:32 exc_info:8 dict:8 "
         "gilstate_counter:4 async_exc:8 thread_id:8"},
        {"py3d10_tstate_fields", py3d10_tstate_fields,
         "prev:8 next:8 interp:8 frame:8 recursion_depth:4 recursion_headroom:4 stackcheck_counter:4 tracing:4 "
         "cframe:8 c_profilefunc:8 c_tracefunc:8 c_profileobj:8 c_traceobj:8 curexc_type:8 curexc_value:8 "
         "curexc_traceback:8 exc_state:32 exc_info:8 dict:8 gilstate_counter:4 async_exc:8 thread_id:8"},
        {"py3d11_tstate_fields", py3d11_tstate_fields,
         "prev:8 next:8 interp:8 _initialized:4 _static:4 recursion_remaining:4 recursion_limit:4 "
         "recursion_headroom:4 tracing:4 tracing_what:4 cframe:8 c_profilefunc:8 c_tracefunc:8 c_profileobj:8 "
         "c_traceobj:8 curexc_type:8 curexc_value:8 curexc_traceback:8 exc_info:8 dict:8 gilstate_counter:4 "
         "async_exc:8 thread_id:8"},
        {"py3d12_tstate_fields", py3d12_tstate_fields,
         "prev:8 next:8 interp:8 status:4 py_recursion_remaining:4 py_recursion_limit:4 "
         "c_recursion_remaining:4 recursion_headroom:4 tracing:4 what_event:4 cframe:8 c_profilefunc:8 "
         "c_tracefunc:8 c_profileobj:8 c_traceobj:8 current_exception:8 exc_info:8 dict:8 gilstate_counter:4 "
         "async_exc:8 thread_id:8"},
        {"py3d13_tstate_fields", py3d13_tstate_fields,
         "prev:8 next:8 interp:8 eval_breaker:8 _status:4 whence:4 state:4 py_recursion_remaining:4 "
         "py_recursion_limit:4 c_recursion_remaining:4 recursion_headroom:4 tracing:4 what_event:4 "
         "current_frame:8 c_profilefunc:8 c_tracefunc:8 c_profileobj:8 c_traceobj:8 current_exception:8 "
         "exc_info:8 dict:8 gilstate_counter:4 async_exc:8 thread_id:8"},
        {"py3d14_tstate_fields", py3d14_tstate_fields,
         "prev:8 next:8 interp:8 eval_breaker:8 _status:4 holds_gil:4 _whence:4 state:4 "
         "py_recursion_remaining:4 py_recursion_limit:4 recursion_headroom:4 tracing:4 what_event:4 "
         "current_frame:8 c_profilefunc:8 c_tracefunc:8 c_profileobj:8 c_traceobj:8 current_exception:8 "
         "exc_info:8 dict:8 gilstate_counter:4 async_exc:8 thread_id:8"},
        {"py3d15_tstate_fields", py3d15_tstate_fields,
         "prev:8 next:8 interp:8 eval_breaker:8 _status:4 holds_gil:4 gil_requested:4 _whence:4 state:4 "
         "py_recursion_remaining:4 py_recursion_limit:4 recursion_headroom:4 tracing:4 what_event:4 "
         "current_frame:8 base_frame:8 last_profiled_frame:8 last_profiled_frame_seq:8 c_profilefunc:8 "
         "c_tracefunc:8 c_profileobj:8 c_traceobj:8 current_exception:8 exc_info:8 dict:8 gilstate_counter:4 "
         "async_exc:8 thread_id:8"},
        {"frame_fields_pre_py3d4", frame_fields_pre_py3d4,
         "<PyObject_VAR_HEAD> f_back:8 f_code:8 f_builtins:8 f_globals:8 f_locals:8 f_valuestack:8 "
         "f_stacktop:8 f_trace:8 f_exc_type:8 f_exc_value:8 f_exc_traceback:8 f_tstate:8 f_lasti:4 f_lineno:4 "
         "f_iblock:4"},
        {"frame_fields_py3d4", frame_fields_py3d4,
         "<PyObject_VAR_HEAD> f_back:8 f_code:8 f_builtins:8 f_globals:8 f_locals:8 f_valuestack:8 "
         "f_stacktop:8 f_trace:8 f_exc_type:8 f_exc_value:8 f_exc_traceback:8 f_gen:8 f_lasti:4 f_lineno:4 "
         "f_iblock:4"},
        {"frame_fields_py3d7", frame_fields_py3d7,
         "<PyObject_VAR_HEAD> f_back:8 f_code:8 f_builtins:8 f_globals:8 f_locals:8 f_valuestack:8 "
         "f_stacktop:8 f_trace:8 f_trace_lines:1 f_trace_opcodes:1 f_gen:8 f_lasti:4 f_lineno:4 f_iblock:4"},
        {"frame_fields_py3d10", frame_fields_py3d10,
         "<PyObject_VAR_HEAD> f_back:8 f_code:8 f_builtins:8 f_globals:8 f_locals:8 f_valuestack:8 f_trace:8 "
         "f_stackdepth:4 f_trace_lines:1 f_trace_opcodes:1 f_gen:8 f_lasti:4 f_lineno:4 f_iblock:4 f_state:1"},
        {"py3d10_cframe_fields", py3d10_cframe_fields,
         "use_tracing:1 current_frame:8 previous:8"},
        {"py3d12_cframe_fields", py3d12_cframe_fields,
         "current_frame:8 previous:8"},
        {"py3d6_interpreter_state_fields", py3d6_interpreter_state_fields,
         "next:8 tstate_head:8 modules:8 modules_by_index:8 sysdict:8 builtins:8 importlib:8 "
         "codec_search_path:8 codec_search_cache:8 codec_error_registry:8 codecs_initialized:4 "
         "fscodec_initialized:4 dlopenflags:4 builtins_copy:8 import_func:8 eval_frame:8"},
        {"py3d7_interpreter_state_fields", py3d7_interpreter_state_fields,
         "next:8 tstate_head:8 id:8 id_refcount:8 id_mutex:8 modules:8 modules_by_index:8 sysdict:8 builtins:8 "
         "importlib:8 check_interval:4 num_threads:8 pythread_stacksize:8 codec_search_path:8 "
         "codec_search_cache:8 codec_error_registry:8 codecs_initialized:4 fscodec_initialized:4 "
         "core_config:-1 config:-1 dlopenflags:4 builtins_copy:8 import_func:8 eval_frame:8"},
        {"py3d7_core_config_fields", py3d7_core_config_fields,
         "install_signal_handlers:4 ignore_environment:4 use_hash_seed:4 hash_seed:8 allocator:8 dev_mode:4 "
         "faulthandler:4 tracemalloc:4 import_time:4 show_ref_count:4 show_alloc_count:4 dump_refs:4 "
         "malloc_stats:4 coerce_c_locale:4 coerce_c_locale_warn:4 utf8_mode:4 program_name:8 argc:4 argv:8 "
         "program:8 nxoption:4 xoptions:8 nwarnoption:4 warnoptions:8 module_search_path_env:8 home:8 "
         "nmodule_search_path:4 module_search_paths:8 executable:8 prefix:8 base_prefix:8 exec_prefix:8 "
         "base_exec_prefix:8 _disable_importlib:4"},
        {"py3d7_main_interpreter_config_fields", py3d7_main_interpreter_config_fields,
         "install_signal_handlers:4 argv:8 executable:8 prefix:8 base_prefix:8 exec_prefix:8 "
         "base_exec_prefix:8 warnoptions:8 xoptions:8 module_search_path:8"},
        {"py3d8_interpreter_state_fields", py3d8_interpreter_state_fields,
         "next:8 tstate_head:8 id:8 id_refcount:8 requires_idref:4 id_mutex:8 finalizing:4 modules:8 "
         "modules_by_index:8 sysdict:8 builtins:8 importlib:8 check_interval:4 num_threads:8 "
         "pythread_stacksize:8 codec_search_path:8 codec_search_cache:8 codec_error_registry:8 "
         "codecs_initialized:4 fscodec.encoding:8 fscodec.errors:8 fscodec.error_handler:8 config:-1 "
         "dlopenflags:4 dict:8 builtins_copy:8 import_func:8 eval_frame:8"},
        {"py3_mod_def_fields", py3_mod_def_fields,
         "<PyObject_HEAD> m_base.m_init:8 m_base.m_index:8 m_base.m_copy:8 m_name:8 m_doc:8 m_size:8 "
         "m_methods:8 m_slots:8 m_traverse:8 m_clear:8 m_free:8"},
        // clang-format on
    };
    for (const auto& expected : kTables)
        EXPECT_EQ(rows_of(expected.table), expected.rows) << expected.name;
}

TEST_F(Layout, ConfigurationRecordOf3Dot8Has54MembersAnd360Bytes)
{
    size_t count = 0;
    for (const XPy_FieldWithSize* row = py3d8_pyconfig_fields; row->name; row++) {
        std::string name = row->name;
        bool is_list = name == "argv" || name == "xoptions" || name == "warnoptions" || name == "module_search_paths";
        EXPECT_EQ(row->size == 16, is_list) << name;
        EXPECT_TRUE(row->size == 4 || row->size == 8 || row->size == 16) << name;
        count++;
    }
    EXPECT_EQ(count, 54u);
    EXPECT_EQ(FindSizeOfAllFields(py3d8_pyconfig_fields), 360);
    EXPECT_STREQ(py3d8_pyconfig_fields[0].name, "_config_init");
    EXPECT_STREQ(py3d8_pyconfig_fields[1].name, "isolated");
    EXPECT_STREQ(py3d8_pyconfig_fields[2].name, "use_environment");
    EXPECT_STREQ(py3d8_pyconfig_fields[52].name, "_install_importlib");
    EXPECT_STREQ(py3d8_pyconfig_fields[53].name, "_init_main");
}

// ---- The layout rule ----

TEST_F(Layout, FieldsAreAlignedToTheirSizeUpToEight)
{
    const XPy_FieldWithSize table[] = {{"a", 4},  {"b", 1}, {"c", 8}, {"d", 2},
                                       {"e", 32}, {"f", 1}, {"g", 4}, {nullptr, 0}};
    EXPECT_EQ(FindFieldOffsetMissingOk("a", table), 0);
    EXPECT_EQ(FindFieldOffsetMissingOk("b", table), 4);
    EXPECT_EQ(FindFieldOffsetMissingOk("c", table), 8);
    EXPECT_EQ(FindFieldOffsetMissingOk("d", table), 16);
    EXPECT_EQ(FindFieldOffsetMissingOk("e", table), 24);
    EXPECT_EQ(FindFieldOffsetMissingOk("f", table), 56);
    EXPECT_EQ(FindFieldOffsetMissingOk("g", table), 60);
    EXPECT_EQ(FindFieldOffsetMissingOk(nullptr, table), 64);
    EXPECT_EQ(FindSizeOfAllFields(table), 64);
}

TEST_F(Layout, TotalSizeHasNoTailPadding)
{
    const XPy_FieldWithSize table[] = {{"a", 8}, {"b", 1}, {nullptr, 0}};
    EXPECT_EQ(FindSizeOfAllFields(table), 9);
    const XPy_FieldWithSize empty[] = {{nullptr, 0}};
    EXPECT_EQ(FindSizeOfAllFields(empty), 0);
    EXPECT_EQ(FindFieldOffsetMissingOk("a", empty), -1);
}

TEST_F(Layout, HeadersTakeTheRunningInterpretersSizeWhateverTheRowSays)
{
    const XPy_FieldWithSize head[] = {{"<PyObject_HEAD>", 3}, {"first", 8}, {nullptr, 0}};
    const XPy_FieldWithSize var_head[] = {{"<PyObject_VAR_HEAD>", -1}, {"first", 8}, {nullptr, 0}};
    EXPECT_EQ(FindFieldOffsetMissingOk("first", head), 16);
    EXPECT_EQ(FindFieldOffsetMissingOk("first", var_head), 24);
    api.pyobject_offsets.type = 24;
    EXPECT_EQ(FindFieldOffsetMissingOk("first", head), 32);
    EXPECT_EQ(FindFieldOffsetMissingOk("first", var_head), 40);
}

TEST_F(Layout, UnknownHeaderMakesTheSearchFail)
{
    const XPy_FieldWithSize table[] = {{"<PyObject_HEAD>", 16}, {"first", 8}, {nullptr, 0}};
    const XPy_FieldWithSize plain[] = {{"first", 8}, {"second", 8}, {nullptr, 0}};
    for (Py_ssize_t type : {-1, 0}) {
        api.pyobject_offsets.type = type;
        EXPECT_EQ(FindFieldOffsetMissingOk("first", table), -1);
        EXPECT_EQ(FindSizeOfAllFields(table), -1);
        EXPECT_EQ(FindFieldOffsetMissingOk("second", plain), 8);
    }
}

TEST_F(Layout, NothingIsFoundFromAnUnsizedRowOn)
{
    XPy_FieldWithSize table[] = {{"a", 8}, {"nested", -1}, {"b", 8}, {nullptr, 0}};
    EXPECT_EQ(FindFieldOffsetMissingOk("a", table), 0);
    EXPECT_EQ(FindFieldOffsetMissingOk("nested", table), -1);
    EXPECT_EQ(FindFieldOffsetMissingOk("b", table), -1);
    EXPECT_EQ(FindSizeOfAllFields(table), -1);
    SetFieldSize(table, "absent", 5);
    EXPECT_EQ(FindFieldOffsetMissingOk("b", table), -1);
    SetFieldSize(table, "nested", 20);
    EXPECT_EQ(table[1].size, 20);
    EXPECT_EQ(FindFieldOffsetMissingOk("nested", table), 8);
    EXPECT_EQ(FindFieldOffsetMissingOk("b", table), 32);
    SetFieldSize(table, "nested", 0);
    EXPECT_EQ(FindFieldOffsetMissingOk("b", table), -1);
}

TEST_F(Layout, NamesAreComparedExactly)
{
    const XPy_FieldWithSize table[] = {{"next", 8}, {"next_unique_id", 8}, {nullptr, 0}};
    EXPECT_EQ(FindFieldOffsetMissingOk("next_unique_id", table), 8);
    EXPECT_EQ(FindFieldOffsetMissingOk("nex", table), -1);
    EXPECT_EQ(FindFieldOffsetMissingOk("Next", table), -1);
    EXPECT_EQ(FindFieldOffsetMissingOk("", table), -1);
}

TEST_F(Layout, OnlyThePrintingLookUpReportsAMiss)
{
    const XPy_FieldWithSize table[] = {{"a", 8}, {nullptr, 0}};
    tCapturedFd silent;
    EXPECT_EQ(FindFieldOffsetMissingOk("zzz", table), -1);
    EXPECT_EQ(FindFieldOffset("a", table), 0);
    EXPECT_EQ(silent.text(), "");
    tCapturedFd printing;
    EXPECT_EQ(FindFieldOffset("zzz", table), -1);
    EXPECT_EQ(printing.text(), "Unable to find field offset for: zzz\n");
}

TEST_F(Layout, FieldAddressOfAnUnknownOffsetIsNull)
{
    char record[16] = "";
    EXPECT_EQ(XPy_GetFieldAddress(record, 0), record);
    EXPECT_EQ(XPy_GetFieldAddress(record, 12), record + 12);
    EXPECT_EQ(XPy_GetFieldAddress(record, -1), nullptr);
}

// ---- Object headers ----

struct tHeader {
    Py_ssize_t refcnt, type, mutex, overflow, flags;
};

static void expect_header(const tHeader& expected, int line)
{
    const XPy_PyObjectOffsets& actual = api.pyobject_offsets;
    EXPECT_EQ(actual.refcnt, expected.refcnt) << "line " << line;
    EXPECT_EQ(actual.type, expected.type) << "line " << line;
    EXPECT_EQ(actual.mutex, expected.mutex) << "line " << line;
    EXPECT_EQ(actual.overflow, expected.overflow) << "line " << line;
    EXPECT_EQ(actual.flags, expected.flags) << "line " << line;
}

TEST_F(Layout, ObjectHeaderFollowsTheVersion)
{
    static const struct {
        int major, minor;
        tHeader header;
    } kVersions[] = {
        {2, 7, {0, 8, -1, -1, -1}},  {3, 0, {0, 8, -1, -1, -1}},  {3, 11, {0, 8, -1, -1, -1}},
        {3, 12, {0, 8, -1, -1, -1}}, {3, 13, {0, 8, -1, -1, -1}}, {3, 14, {0, 8, -1, 4, 6}},
        {3, 15, {0, 8, -1, 4, 6}},   {3, 40, {0, 8, -1, 4, 6}},
    };
    for (const auto& version : kVersions) {
        set_version(version.major, version.minor);
        api.pyobject_offsets = {99, 99, 99, 99, 99};
        InitPyObjectOffsets(false);
        expect_header(version.header, version.minor);
    }
}

TEST_F(Layout, FreeThreadedHeaderHasATypeAndAMutexOnly)
{
    for (int minor : {13, 14}) {
        set_version(3, minor);
        InitPyObjectOffsets(true);
        expect_header({-1, 24, 10, -1, -1}, __LINE__);
    }
}

TEST_F(Layout, DebugHeaderIs16BytesLonger)
{
    api.pydebug_build = 1;
    set_version(3, 11);
    InitPyObjectOffsets(false);
    expect_header({16, 24, -1, -1, -1}, __LINE__);
    set_version(3, 14);
    InitPyObjectOffsets(true);
    expect_header({-1, 40, 26, -1, -1}, __LINE__);
}

// ---- Type objects ----

TEST_F(Layout, TypeObjectFieldsFollowTheHeader)
{
    InitTypeObjectOffsets();
    EXPECT_EQ(api.typeobject_offsets.tp_basicsize, 32);
    EXPECT_EQ(api.typeobject_offsets.tp_vectorcall_offset, 56);
    EXPECT_EQ(api.typeobject_offsets.tp_flags, 168);
    EXPECT_EQ(api.typeobject_offsets.tp_base, 256);
    EXPECT_EQ(api.max_align, 8);
}

TEST_F(Layout, TypeObjectWithoutAHeaderIsReportedFieldByField)
{
    api.pyobject_offsets.type = -1;
    tCapturedFd errors;
    InitTypeObjectOffsets();
    EXPECT_EQ(errors.text(),
              "Unable to find field offset for: tp_basicsize\n"
              "Unable to find field offset for: tp_vectorcall_offset\n"
              "Unable to find field offset for: tp_flags\n"
              "Unable to find field offset for: tp_base\n");
    EXPECT_EQ(api.typeobject_offsets.tp_base, -1);
}

// ---- Frames ----

TEST_F(Layout, FrameOffsetsFollowTheVersion)
{
    static const struct {
        int major, minor;
        XPy_FrameOffsets offsets;  // lineno code builtins trace iblock locals globals back stacktop state
    } kVersions[] = {
        {2, 7, {124, 32, 40, 80, 128, 56, 48, 24, 72, -1}}, {3, 0, {124, 32, 40, 80, 128, 56, 48, 24, 72, -1}},
        {3, 3, {124, 32, 40, 80, 128, 56, 48, 24, 72, -1}}, {3, 4, {124, 32, 40, 80, 128, 56, 48, 24, 72, -1}},
        {3, 6, {124, 32, 40, 80, 128, 56, 48, 24, 72, -1}}, {3, 7, {108, 32, 40, 80, 112, 56, 48, 24, 72, -1}},
        {3, 9, {108, 32, 40, 80, 112, 56, 48, 24, 72, -1}}, {3, 10, {100, 32, 40, 72, 104, 56, 48, 24, -1, 108}},
        {3, 11, {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1}},  {3, 14, {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1}},
    };
    tCapturedFd errors;
    for (const auto& version : kVersions) {
        set_version(version.major, version.minor);
        api.frame_offsets = {9, 9, 9, 9, 9, 9, 9, 9, 9, 9};
        InitFrameOffsets();
        EXPECT_EQ(memcmp(&api.frame_offsets, &version.offsets, sizeof version.offsets), 0)
            << version.major << "." << version.minor;
    }
    EXPECT_EQ(errors.text(), "");
}

// ---- Thread states ----

TEST_F(Layout, ThreadStateOffsetsFollowTheVersion)
{
    static const struct {
        int major, minor;
        XPy_ThreadStateOffsets offsets;
        // next interp frame c_tracefunc c_traceobj thread_id tracing use_tracing cframe what_event
    } kVersions[] = {
        {2, 7, {0, 8, 16, 48, 64, 144, 28, 32, -1, -1}},     {3, 0, {0, 8, 16, 48, 64, 144, 32, 36, -1, -1}},
        {3, 3, {0, 8, 16, 48, 64, 144, 32, 36, -1, -1}},     {3, 4, {8, 16, 24, 56, 72, 152, 40, 44, -1, -1}},
        {3, 6, {8, 16, 24, 56, 72, 152, 40, 44, -1, -1}},    {3, 7, {8, 16, 24, 64, 80, 176, 44, 48, -1, -1}},
        {3, 9, {8, 16, 24, 64, 80, 176, 44, 48, -1, -1}},    {3, 10, {8, 16, 24, 64, 80, 176, 44, -1, -1, -1}},
        {3, 11, {8, 16, -1, 72, 88, 152, 44, -1, 56, -1}},   {3, 12, {8, 16, -1, 72, 88, 136, 44, -1, 56, 48}},
        {3, 13, {8, 16, -1, 88, 104, 152, 60, -1, 72, 64}},  {3, 14, {8, 16, -1, 88, 104, 152, 60, -1, 72, 64}},
        {3, 15, {8, 16, -1, 112, 128, 176, 64, -1, 72, 68}},
    };
    tCapturedFd errors;
    for (const auto& version : kVersions) {
        set_version(version.major, version.minor);
        api.tstate_offsets = {9, 9, 9, 9, 9, 9, 9, 9, 9, 9};
        InitThreadStateOffsets();
        const Py_ssize_t* actual = &api.tstate_offsets.next;
        const Py_ssize_t* expected = &version.offsets.next;
        for (int i = 0; i < 10; i++)
            EXPECT_EQ(actual[i], expected[i]) << version.major << "." << version.minor << " field " << i;
    }
    EXPECT_EQ(errors.text(), "");
}

TEST_F(Layout, VersionsWithoutAThreadStateTableAreReportedAndKeepZeros)
{
    set_version(3, 16);
    tCapturedFd errors;
    InitThreadStateOffsets();
    EXPECT_EQ(errors.text(), "Cannot find tstate fields for this python version\n");
    const XPy_ThreadStateOffsets zero = {};
    EXPECT_EQ(memcmp(&api.tstate_offsets, &zero, sizeof zero), 0);
}

TEST_F(Layout, CurrentFrameRecordExistsFrom3Dot10To3Dot12)
{
    static const struct {
        int major, minor;
        Py_ssize_t current_frame;
    } kVersions[] = {{2, 7, -1}, {3, 9, -1}, {3, 10, 8}, {3, 11, 8}, {3, 12, 0}, {3, 13, -1}, {3, 14, -1}};
    for (const auto& version : kVersions) {
        set_version(version.major, version.minor);
        api.cframe_offsets.current_frame = 77;
        InitCFrameOffsets();
        EXPECT_EQ(api.cframe_offsets.current_frame, version.current_frame) << version.major << "." << version.minor;
    }
}

// ---- What short cuts read ----

TEST_F(Layout, ShortcutsAreKnownFrom3Dot12To3Dot15)
{
    static const struct {
        int major, minor;
        bool is_known;
    } kVersions[] = {{2, 7, false}, {3, 11, false}, {3, 12, true}, {3, 13, true},
                     {3, 14, true}, {3, 15, true},  {3, 16, false}};
    for (const auto& version : kVersions) {
        for (bool free_threaded : {false, true}) {
            SCOPED_TRACE(version.minor);
            set_version(version.major, version.minor);
            InitPyObjectOffsets(free_threaded);
            InitTypeObjectOffsets();
            gShortcutOffsets = gSharedShortcutOffsets = {77, 77, 77, 77, 77, 77};
            InitShortcutOffsets();
            EXPECT_EQ(gShortcutOffsets.frame_code, version.is_known ? 0 : -1);
            EXPECT_EQ(gSharedShortcutOffsets.frame_code, -1);
            for (bool is_shared : {false, true}) {
                const XPy_ShortcutOffsets& offsets = is_shared ? gSharedShortcutOffsets : gShortcutOffsets;
                bool is_read = version.is_known && is_shared == free_threaded;
                int head = is_shared ? 16 : 0;  // by which the header is longer
                EXPECT_EQ(offsets.set_mask, is_read ? 32 + head : -1);
                EXPECT_EQ(offsets.set_table, is_read ? 40 + head : -1);
                EXPECT_EQ(offsets.int_tag, is_read ? 16 + head : -1);
                EXPECT_EQ(offsets.int_digit, is_read ? 24 + head : -1);
                EXPECT_EQ(offsets.type_version, is_read ? 384 + head : -1);
            }
        }
    }
}

// ---- Interpreter states ----

TEST_F(Layout, EvalFrameIsKnownFrom3Dot6To3Dot8)
{
    static const struct {
        int major, minor;
        Py_ssize_t eval_frame;
    } kVersions[] = {{2, 6, -1},  {2, 7, -1},  {3, 5, -1}, {3, 6, 112},
                     {3, 7, 464}, {3, 8, 568}, {3, 9, -1}, {3, 14, -1}};
    tCapturedFd errors;
    for (const auto& version : kVersions) {
        set_version(version.major, version.minor);
        api.interpreter_state_offsets.eval_frame = 77;
        InitInterpreterStateOffsets();
        EXPECT_EQ(api.interpreter_state_offsets.eval_frame, version.eval_frame)
            << version.major << "." << version.minor;
    }
    EXPECT_EQ(errors.text(), "");
}

TEST_F(Layout, EvalFrameIsNotFoundBeforeBothNestedSizesAreKnown)
{
    SetFieldSize(py3d7_interpreter_state_fields, "core_config", -1);
    SetFieldSize(py3d7_interpreter_state_fields, "config", -1);
    EXPECT_EQ(FindFieldOffsetMissingOk("eval_frame", py3d7_interpreter_state_fields), -1);
    SetFieldSize(py3d7_interpreter_state_fields, "core_config", FindSizeOfAllFields(py3d7_core_config_fields));
    EXPECT_EQ(FindFieldOffsetMissingOk("eval_frame", py3d7_interpreter_state_fields), -1);
    SetFieldSize(py3d7_interpreter_state_fields, "config", FindSizeOfAllFields(py3d7_main_interpreter_config_fields));
    EXPECT_EQ(FindFieldOffsetMissingOk("eval_frame", py3d7_interpreter_state_fields), 464);
}

// Changes one value for the length of a scope.
template <typename T>
class tChanged
{
  public:
    tChanged(T* place, T value) : fPlace(place), fSaved(*place) { *place = value; }
    ~tChanged() { *fPlace = fSaved; }
    tChanged(const tChanged&) = delete;
    tChanged& operator=(const tChanged&) = delete;

  private:
    T* fPlace;
    T fSaved;
};

TEST_F(Layout, NestedStructureWithoutASizeIsReportedAndLeavesEvalFrameUnknown)
{
    static const struct {
        int minor;
        XPy_FieldWithSize* nested;
    } kCases[] = {
        {7, py3d7_core_config_fields}, {7, py3d7_main_interpreter_config_fields}, {8, py3d8_pyconfig_fields}};
    for (const auto& broken : kCases) {
        tChanged<Py_ssize_t> size(&broken.nested[1].size, -1);
        set_version(3, broken.minor);
        tCapturedFd errors;
        InitInterpreterStateOffsets();
        EXPECT_EQ(errors.text(), "Unable to find size of all fields\n");
        EXPECT_EQ(api.interpreter_state_offsets.eval_frame, -1);
    }
}

static XPy_FieldWithSize* row_named(XPy_FieldWithSize* table, const char* name)
{
    while (table->name && strcmp(table->name, name) != 0)
        table++;
    return table;
}

TEST_F(Layout, MissingRowOfANestedStructureEndsTheStepSilently)
{
    static const struct {
        int minor;
        XPy_FieldWithSize* table;
        const char* row;
    } kCases[] = {{7, py3d7_interpreter_state_fields, "core_config"},
                  {7, py3d7_interpreter_state_fields, "config"},
                  {8, py3d8_interpreter_state_fields, "config"}};
    for (const auto& broken : kCases) {
        XPy_FieldWithSize* row = row_named(broken.table, broken.row);
        ASSERT_NE(row->name, nullptr);
        tChanged<const char*> name(&row->name, "renamed");
        tChanged<Py_ssize_t> size(&row->size, 8);
        set_version(3, broken.minor);
        tCapturedFd errors;
        InitInterpreterStateOffsets();
        EXPECT_EQ(errors.text(), "");
        EXPECT_EQ(api.interpreter_state_offsets.eval_frame, -1) << broken.row;
    }
}

TEST_F(Layout, LostFieldIsReportedAndTheOthersAreStillFound)
{
    set_version(3, 12);
    XPy_FieldWithSize* row = row_named(py3d12_tstate_fields, "tracing");
    tChanged<const char*> name(&row->name, "renamed");
    tCapturedFd errors;
    InitThreadStateOffsets();
    EXPECT_EQ(errors.text(), "Unable to find field offset for: tracing\n");
    EXPECT_EQ(api.tstate_offsets.tracing, -1);
    EXPECT_EQ(api.tstate_offsets.thread_id, 136);
}
