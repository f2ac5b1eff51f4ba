// The log's records, masks and outputs, and the output path that needs no interpreter.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "dbgcommon.h"
#include "dprintf_internal.h"

int gDPrintfMask = kDefaultLogMask;
int gDPrintfNativeFileno = -1;
PyObject* gDPrintfFile;
tDPData gUnsafeGlobalDPData;
tSharedLock gLogLock;

static constexpr size_t kMaxNativeWrite = UINT32_MAX;  // bytes

// ---- Validity ----

// Python None counts as no file; before start-up there is no None to compare with.
static bool is_py_file(const PyObject* file_obj)
{
    return file_obj && file_obj != api.Py_None;
}

bool valid_single_dp_native_file(const tSingleDPData* channel)
{
    return channel->initialized && XPy_Load(&channel->fileno) != -1;
}

bool valid_single_dp_py_file(const tSingleDPData* channel)
{
    return channel->initialized && is_py_file(XPy_Load(&channel->file_obj));
}

bool valid_dp_native_file(const tDPData* data)
{
    return data->initialized && valid_single_dp_native_file(&data->shared_single_dp_data);
}

bool valid_dp_py_file(const tDPData* data)
{
    return data->initialized && valid_single_dp_py_file(&data->shared_single_dp_data);
}

// ---- Records ----

struct tDomainChannel {
    tDPrintfLogMask bit;
    tSingleDPData* tDPData::*channel;
};

static const tDomainChannel kDomainChannels[] = {
    {kLogCore, &tDPData::core},
    {kLogFilenames, &tDPData::filenames},
    {kLogInternalFailures, &tDPData::internal_failures},
    {kLogThreading, &tDPData::threading},
    {kLogInitialMonitoringCallbacks, &tDPData::initial_monitoring_callbacks},
    {kLogSecondMonitoringCallbacks, &tDPData::second_monitoring_callbacks},
};

// Where others change the log meanwhile, the last one to come here sees what all of them have changed.
static void assign_channels(tDPData* data)
{
    XPyLocked locked(&gLogLock);
    bool has_output = valid_dp_py_file(data) || valid_dp_native_file(data);
    int mask = has_output ? get_dp_data_mask(data) : 0;
    for (const tDomainChannel& domain : kDomainChannels)
        XPy_Store(&(data->*domain.channel), mask & domain.bit ? &data->shared_single_dp_data : nullptr);
}

static char* new_repr_buffer(void)
{
    char* buffer = static_cast<char*>(malloc(kMaxReprChars + 1));
    if (buffer)
        buffer[0] = '\0';
    return buffer;
}

tDPData* create_dp_data(void)
{
    tDPData* data = static_cast<tDPData*>(calloc(1, sizeof(tDPData)));
    if (data)
        init_dp_data(data, 1);
    return data;
}

void init_dp_data(tDPData* data, int force)
{
    if (!force && data->initialized)
        return;
    tSingleDPData* shared = &data->shared_single_dp_data;
    shared->file_obj = nullptr;
    shared->fileno = -1;
    shared->win32_handle = nullptr;
    shared->in_dprint_count = 0;
    data->mask = static_cast<tDPrintfLogMask>(kDefaultLogMask);
    assign_channels(data);
    data->_repr_str1 = new_repr_buffer();
    data->_repr_str2 = new_repr_buffer();
    data->initialized = 1;
    shared->initialized = 1;
}

static void free_repr_buffer(char** buffer)
{
    free(__atomic_exchange_n(buffer, nullptr, __ATOMIC_RELAXED));
}

void clear_dp_data(tDPData* data)
{
    tSingleDPData* shared = &data->shared_single_dp_data;
    XPy_SetFieldUnder(&gLogLock, &shared->file_obj, nullptr);
    XPy_Store(&shared->fileno, -1);
    XPy_Store<void*>(&shared->win32_handle, nullptr);
    assign_channels(data);
    free_repr_buffer(&data->_repr_str1);
    free_repr_buffer(&data->_repr_str2);
}

void free_dp_data(tDPData* data)
{
    if (!data)
        return;
    clear_dp_data(data);
    free(data);
}

void set_dp_data_mask(tDPData* data, int mask)
{
    XPy_Store(&data->mask, static_cast<tDPrintfLogMask>(mask));
    assign_channels(data);
}

int get_dp_data_mask(const tDPData* data)
{
    return XPy_Load(&data->mask);
}

void set_dp_data_file_obj(tDPData* data, PyObject* file_obj, int fileno, void* win32_handle)
{
    tSingleDPData* shared = &data->shared_single_dp_data;
    XPy_SetFieldUnder(&gLogLock, &shared->file_obj, nullptr);
    XPy_SetFieldUnder(&gLogLock, &shared->file_obj, file_obj);  // the old file's end may have set another
    XPy_Store(&shared->fileno, fileno);
    XPy_Store(&shared->win32_handle, win32_handle);
    assign_channels(data);
}

// ---- The process-wide state ----

void set_dprintf_mask(int mask)
{
    XPy_Store(&gDPrintfMask, mask);
    init_dp_data(&gUnsafeGlobalDPData, 0);
    set_dp_data_mask(&gUnsafeGlobalDPData, mask);
}

int get_dprintf_mask(void)
{
    return XPy_Load(&gDPrintfMask);
}

void set_dprintf_file(PyObject* file_obj, int fileno, void* win32_handle)
{
    XPy_SetFieldUnder(&gLogLock, &gDPrintfFile, nullptr);
    XPy_Store(&gDPrintfNativeFileno, -1);
    XPy_Store(&gDPrintfFileRefuses, false);  // that was the old file
    if (is_py_file(file_obj)) {
        XPy_SetFieldUnder(&gLogLock, &gDPrintfFile, file_obj);  // the old file's end may have set another
        XPy_Store(&gDPrintfNativeFileno, fileno);
    }
    init_dp_data(&gUnsafeGlobalDPData, 0);
    set_dp_data_file_obj(&gUnsafeGlobalDPData, file_obj, fileno, win32_handle);
}

// ---- Native output ----

static ssize_t write_text(int fileno, const char* text)
{
    size_t length = strlen(text);
    return write(fileno, text, length < kMaxNativeWrite ? length : kMaxNativeWrite);
}

ssize_t write_str_to_native_file(const tSingleDPData* channel, const char* text)
{
    if (!channel || !valid_single_dp_native_file(channel))
        return 0;
    return write_text(XPy_Load(&channel->fileno), text);
}

void do_dp_no_py_v(const tSingleDPData* channel, const char* format, va_list args)
{
    if (!channel || !valid_single_dp_native_file(channel))
        return;
    char* text = nullptr;
    if (vasprintf(&text, format, args) < 0) {
        write_str_to_native_file(channel, "sprintf_to_malloced_str() failed\n");
        return;
    }
    write_str_to_native_file(channel, text);
    free(text);
}

void do_dp_no_py(const tSingleDPData* channel, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    do_dp_no_py_v(channel, format, args);
    va_end(args);
}

void dprint_no_tstate(int mask, const char* text)
{
    int fileno = XPy_Load(&gDPrintfNativeFileno);
    if (!(get_dprintf_mask() & mask) || fileno == -1)
        return;
    ssize_t ignored = write_text(fileno, text);
    (void)ignored;
}

// ---- Texts for messages ----

const char* dprint_check_str(const char* text)
{
    if (!text)
        return "(NULL)";
    if (!XPy_Load(&gDPrintfFile))
        return text;  // nothing will print it
    for (const char* p = text; *p; p++) {
        if (*p & 0x80)
            return "(non-ascii string)";
    }
    return text;
}

const char* dprint_check_pystr(PyObject* obj)
{
    if (!obj)
        return "(NULL PyObject*)";
    if (XPy_IsInstance(obj, api.PyString_Type_ptr))
        return dprint_check_str(api.PyString_AsString(obj));
    if (XPy_IsInstance(obj, api.PyUnicode_Type_ptr))
        return dprint_check_str(_pystring_to_c_string(obj));
    return "(non-PyString PyObject*)";
}
