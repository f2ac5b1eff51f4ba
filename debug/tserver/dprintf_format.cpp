// Messages: formatted by the interpreter, written to the process-wide Python file, without a trace in the program.

#include <stdio.h>
#include <string.h>

#include "dbgcommon.h"
#include "dprintf_internal.h"

// ---- Writing ----

// Text object of a C string. [new]
static PyObject* text_from_str(const char* text)
{
    return api.major_version < 3 ? api.PyString_FromString(text) : api.PyUnicode_FromString(text);
}

// The remark that stands for a message which no formatter can make. [new]
static PyObject* text_without_formatter(void)
{
    static const char kNoConstructor[] = "DPRINTF error: no way to make a string\n";
    bool can_make = api.major_version < 3 ? api.PyString_FromString : api.PyUnicode_FromString;
    if (can_make)
        return text_from_str("DPRINTF error: PyUnicode_FromFormatV is NULL\n");
    return api.major_version < 3 ? api.PyBytes_FromString(kNoConstructor)
                                 : api.PyUnicode_FromStringAndSize(kNoConstructor, sizeof kNoConstructor - 1);
}

// The message as a text object, or a remark in its place; null when not even that can be made. [new]
static PyObject* format_message(const char* format, va_list args)
{
    PyObject* (*formatter)(const char*, va_list) =
        api.major_version < 3 ? api.PyString_FromFormatV : api.PyUnicode_FromFormatV;
    PyObject* text = formatter ? formatter(format, args) : text_without_formatter();
    if (text)
        return text;
    do_dlogexception();
    api.PyErr_Clear();
    text = text_from_str("DPRINTF error: exception while formatting string\n");
    if (text)
        return text;
    api.PyErr_Clear();
    text = text_from_str("DPRINTF error: unable to create output string\n");
    if (!text)
        api.PyErr_Clear();
    return text;
}

bool gDPrintfFileRefuses;

// Writes TEXT raw to FILE, which the caller holds; false when that raised, which is cleared.
static bool write_raw(PyObject* file, PyObject* text)
{
    static constexpr int kPyPrintRaw = 1;
    bool is_refused = api.PyFile_WriteObject(text, file, kPyPrintRaw) < 0;
    if (is_refused)
        api.PyErr_Clear();
    if (file == XPy_Load(&gDPrintfFile))  // else writing has run code that installed another
        XPy_Store(&gDPrintfFileRefuses, is_refused);
    return !is_refused;
}

bool refuses_texts(PyObject* file)
{
    if (!XPy_Load(&gDPrintfFileRefuses) || file != XPy_Load(&gDPrintfFile))
        return false;
    XPyOwned nothing(text_from_str(""));
    if (nothing)
        return !write_raw(file, nothing.borrow());
    api.PyErr_Clear();
    return true;
}

// Writes raw text to the process-wide file and flushes it; failures are cleared.
static void write_and_flush(PyObject* text)
{
    XPyOwned file(XPy_NewRefUnder(&gLogLock, &gDPrintfFile));  // writing may run code that replaces the file
    if (!file)
        return;
    write_raw(file.borrow(), text);
    XPyOwned flushed(api.PyObject_CallMethod(file.borrow(), "flush", nullptr));
    if (!flushed)
        api.PyErr_Clear();
}

// Formats and writes with the channel guarded against nested log calls.
static void write_guarded(tSingleDPData* channel, PyThreadState* tstate, const char* format, va_list args)
{
    if (!begin_message(channel))
        return;
    {
        tUntraced untraced(tstate);
        XPyHeldError held;
        XPyOwned text(format_message(format, args));
        if (text)
            write_and_flush(text.borrow());
    }
    end_message(channel);
}

void do_dp_v(tSingleDPData* channel, const char* format, va_list args)
{
    if (!channel || is_producing(channel))
        return;
    PyThreadState* tstate = borrow_current_thread_state_or_null();
    if (tstate)
        write_guarded(channel, tstate, format, args);
}

void do_dp(tSingleDPData* channel, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    do_dp_v(channel, format, args);
    va_end(args);
}

// The thread state with which a process-wide message may be written, or null.
static PyThreadState* borrow_process_wide_gate(int mask)
{
    if (!XPy_Load(&gDPrintfFile) || !(get_dprintf_mask() & mask))
        return nullptr;
    init_dp_data(&gUnsafeGlobalDPData, 0);
    PyThreadState* tstate = borrow_current_thread_state_or_null();
    return is_producing(&gUnsafeGlobalDPData.shared_single_dp_data) ? nullptr : tstate;
}

void do_dprintf(int mask, const char* format, ...)
{
    PyThreadState* tstate = borrow_process_wide_gate(mask);
    if (!tstate)
        return;
    va_list args;
    va_start(args, format);
    write_guarded(&gUnsafeGlobalDPData.shared_single_dp_data, tstate, format, args);
    va_end(args);
}

// The repr of OBJ for a message on the channel, whose nested log calls write nothing. [new]; null with an exception
// pending.
static PyObject* get_repr_guarded(tSingleDPData* channel, PyObject* obj)
{
    bool is_guarded =
        begin_message(channel);  // else another thread's message is being produced: nothing is written either
    PyObject* repr = api.PyObject_Repr(obj);
    if (is_guarded)
        end_message(channel);
    return repr;
}

// Writes the message; false, with the repr's exception pending, when there is no repr.
static bool write_repr(int mask, PyThreadState* tstate, const char* prefix, PyObject* obj, const char* suffix)
{
    tUntraced untraced(tstate);
    XPyOwned repr(get_repr_guarded(&gUnsafeGlobalDPData.shared_single_dp_data, obj));
    if (repr)
        do_dprintf(mask, "%s%s%s", prefix, dprint_check_pystr(repr.borrow()), suffix);
    return static_cast<bool>(repr);
}

void do_dprintf_repr(int mask, const char* prefix, PyObject* obj, const char* suffix)
{
    PyThreadState* tstate = borrow_process_wide_gate(mask);
    if (!tstate)
        return;
    XPyHeldError held;
    if (write_repr(mask, tstate, prefix, obj, suffix))
        return;
    do_dprintf(mask, "%s", "exception getting repr in DPRINTF_REPR\n");
    do_dlogexception();
    api.PyErr_Clear();
}

void do_dprintf_repr_quietly(int mask, const char* format, PyObject* obj)
{
    PyThreadState* tstate = borrow_process_wide_gate(mask);
    if (!tstate)
        return;
    tUntraced untraced(tstate);
    XPyHeldError held;
    XPyOwned repr(get_repr_guarded(&gUnsafeGlobalDPData.shared_single_dp_data, obj));
    const char* text = repr ? api._PyUnicode_AsString(repr.borrow()) : nullptr;
    if (!text)
        api.PyErr_Clear();
    do_dprintf(mask, format, dprint_check_str(text));
}

// ---- Texts in buffers ----

// Copies at most kMaxReprChars characters and ends the text. A null buffer gets nothing.
static void copy_limited(char* buffer, const char* text)
{
    if (!buffer)
        return;
    size_t length = strnlen(text, kMaxReprChars);
    memcpy(buffer, text, length);
    buffer[length] = '\0';
}

// BUFFER is a field of the record, read after the repr: the code that the repr runs may clear the record.
static void fill_str_with_repr(tDPData* data, char** buffer, PyObject* obj)
{
    PyThreadState* tstate = borrow_current_thread_state_or_null();
    if (!tstate) {
        copy_limited(*buffer, "fill_str_with_repr() failed: tstate is NULL");
        return;
    }
    if (is_producing(&data->shared_single_dp_data)) {
        copy_limited(*buffer, "fill_str_with_repr() failed: in_dprint_count is not 0");
        return;
    }
    tUntraced untraced(tstate);
    XPyHeldError held;
    XPyOwned repr(get_repr_guarded(&data->shared_single_dp_data, obj));
    if (repr) {
        const char* text = dprint_check_pystr(repr.borrow());  // which may log, and so run code too
        copy_limited(*buffer, text);
        return;
    }
    api.PyErr_Clear();
    copy_limited(*buffer, "exception getting repr in fill_str_with_repr()");
}

// Where the interpreter lock is off, each thread has buffers of its own.
static thread_local char shared_repr[2][kMaxReprChars + 1];

static const char* get_shared_repr(tDPData* data, int number, PyObject* obj)
{
    char* buffer = shared_repr[number];
    fill_str_with_repr(data, &buffer, obj);
    return buffer;
}

const char* get_dprintf_repr_str1(tDPData* data, PyObject* obj)
{
    if (gIsLockOff && data->_repr_str1)
        return get_shared_repr(data, 0, obj);
    if (data->_repr_str1)
        fill_str_with_repr(data, &data->_repr_str1, obj);
    return borrow_dprintf_repr_str1(data);
}

const char* borrow_dprintf_repr_str1(const tDPData* data)
{
    const char* text = gIsLockOff && data->_repr_str1 ? shared_repr[0] : data->_repr_str1;
    return text ? text : kNoReprBuffer;
}

const char* get_dprintf_repr_str2(tDPData* data, PyObject* obj)
{
    if (gIsLockOff && data->_repr_str2)
        return get_shared_repr(data, 1, obj);
    if (data->_repr_str2)
        fill_str_with_repr(data, &data->_repr_str2, obj);
    // Kept: the two functions' texts differ
    return data->_repr_str2 ? data->_repr_str2 : "<error generating repr: no buffer available>";
}

// ---- The frame text ----

static char frame_text[kMaxReprChars + 1];

static void append_frame_text(const char* format, ...) __attribute__((format(printf, 1, 2)));
static void append_frame_text(const char* format, ...)
{
    size_t used = strlen(frame_text);
    va_list args;
    va_start(args, format);
    vsnprintf(frame_text + used, sizeof frame_text - used, format, args);
    va_end(args);
}

static void append_code_static_str(PyObject* code)
{
    XPyOwned name(code ? get_code_name(code) : nullptr);
    XPyOwned filename(code ? get_code_filename(code) : nullptr);
    if (name && filename) {
        append_frame_text("%s (%s: %zd)", dprint_check_pystr(name.borrow()), dprint_check_pystr(filename.borrow()),
                          get_code_firstlineno(code));
        return;
    }
    if (XPy_Load(&gDPrintfFile)) {
        do_dprintf(kLogInternalFailures, "Failure in append_code_static_str()\n");
        do_dlogexception();
    }
}

const char* get_dprintf_frame_str1(PyObject* frame)
{
    frame_text[0] = '\0';
    if (!frame) {
        append_frame_text("%s", "<NULL>");
        return frame_text;
    }
    PyThreadState* tstate = borrow_current_thread_state_or_null();
    if (!tstate)
        return frame_text;
    tUntraced untraced(tstate);
    XPyHeldError held;
    append_frame_text("line %d of ", get_frame_lineno(frame));
    XPyOwned code(get_frame_code(frame));
    append_code_static_str(code.borrow());
    return frame_text;
}
