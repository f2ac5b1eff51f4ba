// The debug log: domains, channels, outputs, message formatting and exception reports.
//
// A call site reaches a domain through its channel pointer, which is null while the domain is off or nothing is
// set to write to. The state exists per module (tDPData) and once for the process, for code without module state;
// the process-wide record is read and written without a lock, as its name says.

#ifndef OPTMONITORING_DPRINTF_H
#define OPTMONITORING_DPRINTF_H

#include "xpy_c_api.h"
#include "xpy_c_api_shared.h"

// The log's domains, single bits of a mask.
enum tDPrintfLogMask : int {
    kLogOther = 1,
    kLogFilenames = 2,
    kLogCore = 4,
    kLogBreakpoints = 8,
    kLogExceptions = 16,
    kLogIO = 32,
    kLogInternalFailures = 64,
    kLogThreading = 128,
    kLogInitialMonitoringCallbacks = 256,
    kLogSecondMonitoringCallbacks = 512,
};

constexpr int kDefaultLogMask = kLogCore | kLogExceptions | kLogInternalFailures;
constexpr int kMaxReprChars = 4000;  // of a text in a repr or frame buffer, terminator not counted

// One output channel.
struct tSingleDPData {
    int initialized;      // non-zero once the owning tDPData is initialised
    PyObject* file_obj;   // Python file object [owned]; null or None: none
    int fileno;           // native descriptor, -1: none
    void* win32_handle;   // stored and cleared only
    int in_dprint_count;  // non-zero while a message is being produced on this channel
};

// A log: its mask, its one real channel and the per-domain pointers to it.
struct tDPData {
    int initialized;
    tDPrintfLogMask mask;
    tSingleDPData shared_single_dp_data;
    tSingleDPData* core;
    tSingleDPData* filenames;
    tSingleDPData* internal_failures;
    tSingleDPData* threading;
    tSingleDPData* initial_monitoring_callbacks;
    tSingleDPData* second_monitoring_callbacks;
    char* _repr_str1;  // kMaxReprChars + 1 bytes [owned], null when it could not be allocated or was cleared
    char* _repr_str2;
};

extern "C" {
extern __attribute__((visibility("default"))) int gDPrintfMask;          // mask of code without module state
extern __attribute__((visibility("default"))) int gDPrintfNativeFileno;  // descriptor of dprint_no_tstate, -1: none
extern __attribute__((visibility("default"))) PyObject* gDPrintfFile;    // where all formatted output goes [owned]
extern __attribute__((visibility("default"))) tDPData gUnsafeGlobalDPData;  // log of code without module state
}

// ---- Channels, masks and outputs (dprintf_channels.cpp) ----

extern tSharedLock gLogLock;  // of the files of all logs

XPY_EXPORT bool valid_single_dp_native_file(const tSingleDPData* channel);
XPY_EXPORT bool valid_single_dp_py_file(const tSingleDPData* channel);
XPY_EXPORT bool valid_dp_native_file(const tDPData* data);
XPY_EXPORT bool valid_dp_py_file(const tDPData* data);

// A fresh record on the heap, or null. The caller owns it.
XPY_EXPORT tDPData* create_dp_data(void);

// Sets a record to its initial state: no output, the default mask, two new repr buffers. Without FORCE an
// initialised record is left as it is; with FORCE what it held is not released, so force only fresh records.
XPY_EXPORT void init_dp_data(tDPData* data, int force);

// Drops the outputs and the repr buffers; the mask stays and the record stays usable.
XPY_EXPORT void clear_dp_data(tDPData* data);

// Clears and frees a record; null is ignored.
XPY_EXPORT void free_dp_data(tDPData* data);

XPY_EXPORT void set_dp_data_mask(tDPData* data, int mask);
XPY_EXPORT int get_dp_data_mask(const tDPData* data);

// Replaces the outputs. FILE_OBJ [borrowed] may be null: a native-only channel.
XPY_EXPORT void set_dp_data_file_obj(tDPData* data, PyObject* file_obj, int fileno, void* win32_handle);

// The same for the process-wide state.
XPY_EXPORT void set_dprintf_mask(int mask);
XPY_EXPORT int get_dprintf_mask(void);
XPY_EXPORT void set_dprintf_file(PyObject* file_obj, int fileno, void* win32_handle);

// Writes TEXT to the channel's descriptor with one write() and returns its result; 0 without a descriptor.
XPY_EXPORT ssize_t write_str_to_native_file(const tSingleDPData* channel, const char* text);

// Formats with the C library and writes to the channel's descriptor. No interpreter involved.
XPY_EXPORT void do_dp_no_py_v(const tSingleDPData* channel, const char* format, va_list args);
XPY_EXPORT void do_dp_no_py(const tSingleDPData* channel, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Writes TEXT to gDPrintfNativeFileno when gDPrintfMask has a bit of MASK. Needs no thread state.
XPY_EXPORT void dprint_no_tstate(int mask, const char* text);

// Text that may be passed into a message: TEXT itself, or a remark in its place. [borrowed]
XPY_EXPORT const char* dprint_check_str(const char* text);
XPY_EXPORT const char* dprint_check_pystr(PyObject* obj);

// ---- Messages (dprintf_format.cpp) ----

// Logs on a channel (null: nothing) with the interpreter's own format codes. Pending exceptions survive.
XPY_EXPORT void do_dp(tSingleDPData* channel, const char* format, ...);
XPY_EXPORT void do_dp_v(tSingleDPData* channel, const char* format, va_list args);

// Logs through the process-wide state when gDPrintfMask has a bit of MASK.
XPY_EXPORT void do_dprintf(int mask, const char* format, ...);

// Logs PREFIX, the repr of OBJ and SUFFIX through the process-wide state.
XPY_EXPORT void do_dprintf_repr(int mask, const char* prefix, PyObject* obj, const char* suffix);

// Logs FORMAT, which has one %s for the repr of OBJ, through the process-wide state. "(NULL)" stands for a repr that
// raises or has no UTF-8 form; neither is reported. Python 3 alone.
void do_dprintf_repr_quietly(int mask, const char* format, PyObject* obj);

// The repr of OBJ in the record's first or second buffer, to be used before the next call. [borrowed]
XPY_EXPORT const char* get_dprintf_repr_str1(tDPData* data, PyObject* obj);
XPY_EXPORT const char* get_dprintf_repr_str2(tDPData* data, PyObject* obj);

// What the first buffer holds, or a remark where it is missing. [borrowed]
const char* borrow_dprintf_repr_str1(const tDPData* data);

// The position of FRAME in a static buffer shared by all callers. [borrowed]
XPY_EXPORT const char* get_dprintf_frame_str1(PyObject* frame);

// Whether the last text written to gDPrintfFile was refused with an exception.
extern bool gDPrintfFileRefuses;

// Whether FILE, which the caller holds, is the process-wide one and refuses texts: the last one, and now an empty one
// as well. A single refusal may be an interrupt that hit that write alone.
bool refuses_texts(PyObject* file);

// Stands for the first repr where its buffer is missing.
constexpr char kNoReprBuffer[] = "get_dprintf_repr_str1() failure: _repr_str1 is NULL";

// Arguments are evaluated only when the channel is on.
#define DO_DP(channel, ...)                           \
    do {                                              \
        if (XPY_UNLIKELY(XPy_Load(&(channel))))       \
            do_dp(XPy_Load(&(channel)), __VA_ARGS__); \
    } while (0)

// Logs a message with the reprs of two objects. Code that a repr runs may clear the record, and with it the buffers,
// so the texts are taken when both have been made.
#define DO_DP_TWO_REPRS(data, channel, format, first, second)                                 \
    do {                                                                                      \
        if (XPY_UNLIKELY(XPy_Load(&(channel)))) {                                             \
            get_dprintf_repr_str1(data, first);                                               \
            const char* second_text = get_dprintf_repr_str2(data, second);                    \
            do_dp(XPy_Load(&(channel)), format, borrow_dprintf_repr_str1(data), second_text); \
        }                                                                                     \
    } while (0)

// ---- Exception reports (dprintf_exceptions.cpp) ----

// Reports the pending exception, which stays pending, through the process-wide state or on a channel.
XPY_EXPORT void do_dlogexception(void);
XPY_EXPORT void do_dp_logexception(tSingleDPData* channel);

// Writes TEXT and the pending exception to the failures channel of DATA (null: nowhere); the exception stays pending.
// All failures of the module are reported through it.
void report_failure(tDPData* data, const char* text);

// The same, and returns what a failing function returns.
PyObject* fail_null(tDPData* data, const char* text);
int fail_int(tDPData* data, const char* text);

// For places that may not raise: reports, then clears the exception.
void clear_failure(tDPData* data, const char* text);

#endif
