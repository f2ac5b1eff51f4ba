// What a stand-in interpreter does, chosen by the test through the library's symbol "stub_state".

#ifndef OPTMONITORING_TESTS_STUB_PYTHON_H
#define OPTMONITORING_TESTS_STUB_PYTHON_H

struct tStubState {
    // chosen by the test
    int version[3];          // sys.version_info
    int api_version;         // sys.api_version
    int lacks_version_info;  // PySys_GetObject answers null for it
    int lacks_api_version;
    int failing_item;         // index whose PyObject_GetItem raises; -1: none
    int refuses_int_as_long;  // PyLong_AsSsize_t raises: Python 2, whose version numbers are of the small int type

    // written by the stand-in
    int pending;                // an exception is pending
    int version_reads;          // PySys_GetObject("version_info")
    int print_calls;            // PyErr_Print, which also clears
    int format_calls;           // PyErr_Format
    void* formatted_exception;  // its arguments
    const char* formatted_text;
    int live_references;  // new references handed out and not given back
};

#endif
