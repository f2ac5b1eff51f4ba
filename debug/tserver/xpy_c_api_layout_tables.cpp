// The layout tables: the leading fields of the interpreter structures that we touch, per family of versions.
//
// Rows only: the interpreter's own member names and their sizes in bytes on 64-bit builds. The tables are writable
// because a row of size -1 is a nested structure that start-up sizes. Which table serves which version is said in
// xpy_c_api_layout.cpp. PYVERSIONS: a new version's thread state is a new table here.

#include "xpy_c_api_internal.h"

// clang-format off

XPy_FieldWithSize pre312_pyobject_fields[] = {
    {"ob_refcnt", 8}, {"ob_type", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py312_13_64bit_pyobject_fields[] = {
    {"ob_refcnt", 4}, {"ob_refcnt_high", 4}, {"ob_type", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py314_64bit_pyobject_fields[] = {
    {"ob_refcnt", 4}, {"ob_overflow", 2}, {"ob_flags", 2}, {"ob_type", 8},
    {nullptr, 0},
};

XPy_FieldWithSize free_t_pyobject_fields[] = {
    {"ob_tid", 8}, {"ob_flags", 2}, {"ob_mutex", 1}, {"ob_gc_bits", 1}, {"ob_ref_local", 4},
    {"ob_ref_shared", 8}, {"ob_type", 8},
    {nullptr, 0},
};

XPy_FieldWithSize typeobject_fields[] = {
    {"<PyObject_VAR_HEAD>", -1}, {"tp_name", 8}, {"tp_basicsize", 8}, {"tp_itemsize", 8}, {"tp_dealloc", 8},
    {"tp_vectorcall_offset", 8}, {"tp_getattr", 8}, {"tp_setattr", 8}, {"tp_as_async", 8}, {"tp_repr", 8},
    {"tp_as_number", 8}, {"tp_as_sequence", 8}, {"tp_as_mapping", 8}, {"tp_hash", 8}, {"tp_call", 8},
    {"tp_str", 8}, {"tp_getattro", 8}, {"tp_setattro", 8}, {"tp_as_buffer", 8}, {"tp_flags", 8}, {"tp_doc", 8},
    {"tp_traverse", 8}, {"tp_clear", 8}, {"tp_richcompare", 8}, {"tp_weaklistoffset", 8}, {"tp_iter", 8},
    {"tp_iternext", 8}, {"tp_methods", 8}, {"tp_members", 8}, {"tp_getset", 8}, {"tp_base", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py2_tstate_fields[] = {
    {"next", 8}, {"interp", 8}, {"frame", 8}, {"recursion_depth", 4}, {"tracing", 4}, {"use_tracing", 4},
    {"c_profilefunc", 8}, {"c_tracefunc", 8}, {"c_profileobj", 8}, {"c_traceobj", 8}, {"curexc_type", 8},
    {"curexc_value", 8}, {"curexc_traceback", 8}, {"exc_type", 8}, {"exc_value", 8}, {"exc_traceback", 8},
    {"dict", 8}, {"tick_counter", 4}, {"gilstate_counter", 4}, {"async_exc", 8}, {"thread_id", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d0_tstate_fields[] = {
    {"next", 8}, {"interp", 8}, {"frame", 8}, {"recursion_depth", 4}, {"overflowed", 1},
    {"recursion_critical", 1}, {"tracing", 4}, {"use_tracing", 4}, {"c_profilefunc", 8}, {"c_tracefunc", 8},
    {"c_profileobj", 8}, {"c_traceobj", 8}, {"curexc_type", 8}, {"curexc_value", 8}, {"curexc_traceback", 8},
    {"exc_type", 8}, {"exc_value", 8}, {"exc_traceback", 8}, {"dict", 8}, {"tick_counter", 4},
    {"gilstate_counter", 4}, {"async_exc", 8}, {"thread_id", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d4_tstate_fields[] = {
    {"prev", 8}, {"next", 8}, {"interp", 8}, {"frame", 8}, {"recursion_depth", 4}, {"overflowed", 1},
    {"recursion_critical", 1}, {"tracing", 4}, {"use_tracing", 4}, {"c_profilefunc", 8}, {"c_tracefunc", 8},
    {"c_profileobj", 8}, {"c_traceobj", 8}, {"curexc_type", 8}, {"curexc_value", 8}, {"curexc_traceback", 8},
    {"exc_type", 8}, {"exc_value", 8}, {"exc_traceback", 8}, {"dict", 8}, {"gilstate_counter", 4},
    {"async_exc", 8}, {"thread_id", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d7_tstate_fields[] = {
    {"prev", 8}, {"next", 8}, {"interp", 8}, {"frame", 8}, {"recursion_depth", 4}, {"overflowed", 1},
    {"recursion_critical", 1}, {"stackcheck_counter", 4}, {"tracing", 4}, {"use_tracing", 4},
    {"c_profilefunc", 8}, {"c_tracefunc", 8}, {"c_profileobj", 8}, {"c_traceobj", 8}, {"curexc_type", 8},
    {"curexc_value", 8}, {"curexc_traceback", 8}, {"exc_state", 32}, {"exc_info", 8}, {"dict", 8},
    {"gilstate_counter", 4}, {"async_exc", 8}, {"thread_id", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d10_tstate_fields[] = {
    {"prev", 8}, {"next", 8}, {"interp", 8}, {"frame", 8}, {"recursion_depth", 4}, {"recursion_headroom", 4},
    {"stackcheck_counter", 4}, {"tracing", 4}, {"cframe", 8}, {"c_profilefunc", 8}, {"c_tracefunc", 8},
    {"c_profileobj", 8}, {"c_traceobj", 8}, {"curexc_type", 8}, {"curexc_value", 8}, {"curexc_traceback", 8},
    {"exc_state", 32}, {"exc_info", 8}, {"dict", 8}, {"gilstate_counter", 4}, {"async_exc", 8},
    {"thread_id", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d11_tstate_fields[] = {
    {"prev", 8}, {"next", 8}, {"interp", 8}, {"_initialized", 4}, {"_static", 4}, {"recursion_remaining", 4},
    {"recursion_limit", 4}, {"recursion_headroom", 4}, {"tracing", 4}, {"tracing_what", 4}, {"cframe", 8},
    {"c_profilefunc", 8}, {"c_tracefunc", 8}, {"c_profileobj", 8}, {"c_traceobj", 8}, {"curexc_type", 8},
    {"curexc_value", 8}, {"curexc_traceback", 8}, {"exc_info", 8}, {"dict", 8}, {"gilstate_counter", 4},
    {"async_exc", 8}, {"thread_id", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d12_tstate_fields[] = {
    {"prev", 8}, {"next", 8}, {"interp", 8}, {"status", 4}, {"py_recursion_remaining", 4},
    {"py_recursion_limit", 4}, {"c_recursion_remaining", 4}, {"recursion_headroom", 4}, {"tracing", 4},
    {"what_event", 4}, {"cframe", 8}, {"c_profilefunc", 8}, {"c_tracefunc", 8}, {"c_profileobj", 8},
    {"c_traceobj", 8}, {"current_exception", 8}, {"exc_info", 8}, {"dict", 8}, {"gilstate_counter", 4},
    {"async_exc", 8}, {"thread_id", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d13_tstate_fields[] = {
    {"prev", 8}, {"next", 8}, {"interp", 8}, {"eval_breaker", 8}, {"_status", 4}, {"whence", 4}, {"state", 4},
    {"py_recursion_remaining", 4}, {"py_recursion_limit", 4}, {"c_recursion_remaining", 4},
    {"recursion_headroom", 4}, {"tracing", 4}, {"what_event", 4}, {"current_frame", 8}, {"c_profilefunc", 8},
    {"c_tracefunc", 8}, {"c_profileobj", 8}, {"c_traceobj", 8}, {"current_exception", 8}, {"exc_info", 8},
    {"dict", 8}, {"gilstate_counter", 4}, {"async_exc", 8}, {"thread_id", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d14_tstate_fields[] = {
    {"prev", 8}, {"next", 8}, {"interp", 8}, {"eval_breaker", 8}, {"_status", 4}, {"holds_gil", 4},
    {"_whence", 4}, {"state", 4}, {"py_recursion_remaining", 4}, {"py_recursion_limit", 4},
    {"recursion_headroom", 4}, {"tracing", 4}, {"what_event", 4}, {"current_frame", 8}, {"c_profilefunc", 8},
    {"c_tracefunc", 8}, {"c_profileobj", 8}, {"c_traceobj", 8}, {"current_exception", 8}, {"exc_info", 8},
    {"dict", 8}, {"gilstate_counter", 4}, {"async_exc", 8}, {"thread_id", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d15_tstate_fields[] = {
    {"prev", 8}, {"next", 8}, {"interp", 8}, {"eval_breaker", 8}, {"_status", 4}, {"holds_gil", 4},
    {"gil_requested", 4}, {"_whence", 4}, {"state", 4}, {"py_recursion_remaining", 4},
    {"py_recursion_limit", 4}, {"recursion_headroom", 4}, {"tracing", 4}, {"what_event", 4},
    {"current_frame", 8}, {"base_frame", 8}, {"last_profiled_frame", 8}, {"last_profiled_frame_seq", 8},
    {"c_profilefunc", 8}, {"c_tracefunc", 8}, {"c_profileobj", 8}, {"c_traceobj", 8}, {"current_exception", 8},
    {"exc_info", 8}, {"dict", 8}, {"gilstate_counter", 4}, {"async_exc", 8}, {"thread_id", 8},
    {nullptr, 0},
};

XPy_FieldWithSize frame_fields_pre_py3d4[] = {
    {"<PyObject_VAR_HEAD>", -1}, {"f_back", 8}, {"f_code", 8}, {"f_builtins", 8}, {"f_globals", 8},
    {"f_locals", 8}, {"f_valuestack", 8}, {"f_stacktop", 8}, {"f_trace", 8}, {"f_exc_type", 8},
    {"f_exc_value", 8}, {"f_exc_traceback", 8}, {"f_tstate", 8}, {"f_lasti", 4}, {"f_lineno", 4},
    {"f_iblock", 4},
    {nullptr, 0},
};

XPy_FieldWithSize frame_fields_py3d4[] = {
    {"<PyObject_VAR_HEAD>", -1}, {"f_back", 8}, {"f_code", 8}, {"f_builtins", 8}, {"f_globals", 8},
    {"f_locals", 8}, {"f_valuestack", 8}, {"f_stacktop", 8}, {"f_trace", 8}, {"f_exc_type", 8},
    {"f_exc_value", 8}, {"f_exc_traceback", 8}, {"f_gen", 8}, {"f_lasti", 4}, {"f_lineno", 4}, {"f_iblock", 4},
    {nullptr, 0},
};

XPy_FieldWithSize frame_fields_py3d7[] = {
    {"<PyObject_VAR_HEAD>", -1}, {"f_back", 8}, {"f_code", 8}, {"f_builtins", 8}, {"f_globals", 8},
    {"f_locals", 8}, {"f_valuestack", 8}, {"f_stacktop", 8}, {"f_trace", 8}, {"f_trace_lines", 1},
    {"f_trace_opcodes", 1}, {"f_gen", 8}, {"f_lasti", 4}, {"f_lineno", 4}, {"f_iblock", 4},
    {nullptr, 0},
};

XPy_FieldWithSize frame_fields_py3d10[] = {
    {"<PyObject_VAR_HEAD>", -1}, {"f_back", 8}, {"f_code", 8}, {"f_builtins", 8}, {"f_globals", 8},
    {"f_locals", 8}, {"f_valuestack", 8}, {"f_trace", 8}, {"f_stackdepth", 4}, {"f_trace_lines", 1},
    {"f_trace_opcodes", 1}, {"f_gen", 8}, {"f_lasti", 4}, {"f_lineno", 4}, {"f_iblock", 4}, {"f_state", 1},
    {nullptr, 0},
};

XPy_FieldWithSize py3d10_cframe_fields[] = {
    {"use_tracing", 1}, {"current_frame", 8}, {"previous", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d12_cframe_fields[] = {
    {"current_frame", 8}, {"previous", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d6_interpreter_state_fields[] = {
    {"next", 8}, {"tstate_head", 8}, {"modules", 8}, {"modules_by_index", 8}, {"sysdict", 8}, {"builtins", 8},
    {"importlib", 8}, {"codec_search_path", 8}, {"codec_search_cache", 8}, {"codec_error_registry", 8},
    {"codecs_initialized", 4}, {"fscodec_initialized", 4}, {"dlopenflags", 4}, {"builtins_copy", 8},
    {"import_func", 8}, {"eval_frame", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d7_interpreter_state_fields[] = {
    {"next", 8}, {"tstate_head", 8}, {"id", 8}, {"id_refcount", 8}, {"id_mutex", 8}, {"modules", 8},
    {"modules_by_index", 8}, {"sysdict", 8}, {"builtins", 8}, {"importlib", 8}, {"check_interval", 4},
    {"num_threads", 8}, {"pythread_stacksize", 8}, {"codec_search_path", 8}, {"codec_search_cache", 8},
    {"codec_error_registry", 8}, {"codecs_initialized", 4}, {"fscodec_initialized", 4}, {"core_config", -1},
    {"config", -1}, {"dlopenflags", 4}, {"builtins_copy", 8}, {"import_func", 8}, {"eval_frame", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d7_core_config_fields[] = {
    {"install_signal_handlers", 4}, {"ignore_environment", 4}, {"use_hash_seed", 4}, {"hash_seed", 8},
    {"allocator", 8}, {"dev_mode", 4}, {"faulthandler", 4}, {"tracemalloc", 4}, {"import_time", 4},
    {"show_ref_count", 4}, {"show_alloc_count", 4}, {"dump_refs", 4}, {"malloc_stats", 4},
    {"coerce_c_locale", 4}, {"coerce_c_locale_warn", 4}, {"utf8_mode", 4}, {"program_name", 8}, {"argc", 4},
    {"argv", 8}, {"program", 8}, {"nxoption", 4}, {"xoptions", 8}, {"nwarnoption", 4}, {"warnoptions", 8},
    {"module_search_path_env", 8}, {"home", 8}, {"nmodule_search_path", 4}, {"module_search_paths", 8},
    {"executable", 8}, {"prefix", 8}, {"base_prefix", 8}, {"exec_prefix", 8}, {"base_exec_prefix", 8},
    {"_disable_importlib", 4},
    {nullptr, 0},
};

XPy_FieldWithSize py3d7_main_interpreter_config_fields[] = {
    {"install_signal_handlers", 4}, {"argv", 8}, {"executable", 8}, {"prefix", 8}, {"base_prefix", 8},
    {"exec_prefix", 8}, {"base_exec_prefix", 8}, {"warnoptions", 8}, {"xoptions", 8}, {"module_search_path", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d8_interpreter_state_fields[] = {
    {"next", 8}, {"tstate_head", 8}, {"id", 8}, {"id_refcount", 8}, {"requires_idref", 4}, {"id_mutex", 8},
    {"finalizing", 4}, {"modules", 8}, {"modules_by_index", 8}, {"sysdict", 8}, {"builtins", 8},
    {"importlib", 8}, {"check_interval", 4}, {"num_threads", 8}, {"pythread_stacksize", 8},
    {"codec_search_path", 8}, {"codec_search_cache", 8}, {"codec_error_registry", 8}, {"codecs_initialized", 4},
    {"fscodec.encoding", 8}, {"fscodec.errors", 8}, {"fscodec.error_handler", 8}, {"config", -1},
    {"dlopenflags", 4}, {"dict", 8}, {"builtins_copy", 8}, {"import_func", 8}, {"eval_frame", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d8_pyconfig_fields[] = {
    {"_config_init", 4}, {"isolated", 4}, {"use_environment", 4}, {"dev_mode", 4},
    {"install_signal_handlers", 4}, {"use_hash_seed", 4}, {"hash_seed", 8}, {"faulthandler", 4},
    {"tracemalloc", 4}, {"import_time", 4}, {"show_ref_count", 4}, {"show_alloc_count", 4}, {"dump_refs", 4},
    {"malloc_stats", 4}, {"filesystem_encoding", 8}, {"filesystem_errors", 8}, {"pycache_prefix", 8},
    {"parse_argv", 4}, {"argv", 16}, {"program_name", 8}, {"xoptions", 16}, {"warnoptions", 16},
    {"site_import", 4}, {"bytes_warning", 4}, {"inspect", 4}, {"interactive", 4}, {"optimization_level", 4},
    {"parser_debug", 4}, {"write_bytecode", 4}, {"verbose", 4}, {"quiet", 4}, {"user_site_directory", 4},
    {"configure_c_stdio", 4}, {"buffered_stdio", 4}, {"stdio_encoding", 8}, {"stdio_errors", 8},
    {"check_hash_pycs_mode", 8}, {"pathconfig_warnings", 4}, {"pythonpath_env", 8}, {"home", 8},
    {"module_search_paths_set", 4}, {"module_search_paths", 16}, {"executable", 8}, {"base_executable", 8},
    {"prefix", 8}, {"base_prefix", 8}, {"exec_prefix", 8}, {"base_exec_prefix", 8},
    {"skip_source_first_line", 4}, {"run_command", 8}, {"run_module", 8}, {"run_filename", 8},
    {"_install_importlib", 4}, {"_init_main", 4},
    {nullptr, 0},
};

XPy_FieldWithSize py3_mod_def_fields[] = {
    {"<PyObject_HEAD>", -1}, {"m_base.m_init", 8}, {"m_base.m_index", 8}, {"m_base.m_copy", 8}, {"m_name", 8},
    {"m_doc", 8}, {"m_size", 8}, {"m_methods", 8}, {"m_slots", 8}, {"m_traverse", 8}, {"m_clear", 8},
    {"m_free", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d12_set_fields[] = {
    {"<PyObject_HEAD>", -1}, {"fill", 8}, {"used", 8}, {"mask", 8}, {"table", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d12_type_tail_fields[] = {
    {"tp_base", 8}, {"tp_dict", 8}, {"tp_descr_get", 8}, {"tp_descr_set", 8}, {"tp_dictoffset", 8}, {"tp_init", 8},
    {"tp_alloc", 8}, {"tp_new", 8}, {"tp_free", 8}, {"tp_is_gc", 8}, {"tp_bases", 8}, {"tp_mro", 8},
    {"tp_cache", 8}, {"tp_subclasses", 8}, {"tp_weaklist", 8}, {"tp_del", 8}, {"tp_version_tag", 4},
    {nullptr, 0},
};

XPy_FieldWithSize py3d12_interpreter_frame_fields[] = {
    {"f_executable", 8},
    {nullptr, 0},
};

XPy_FieldWithSize py3d12_int_fields[] = {
    {"<PyObject_HEAD>", -1}, {"lv_tag", 8}, {"ob_digit", 4},
    {nullptr, 0},
};

// clang-format on
