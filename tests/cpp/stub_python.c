/* A stand-in for an interpreter: just enough of it for the binding layer to start up. Every other symbol of the
   binding table stands in stub_python_symbols.c. Tests take symbols away from a copy of the library, see
   stub_image.h. */

#include <stddef.h>
#include <string.h>

#include "stub_python.h"

struct tStubState stub_state = {.version = {3, 12, 1}, .api_version = 1013, .failing_item = -1};

/* An object of the stand-in: a header of any layout, then a number. */
struct tStubObject {
    long header[6];
    long value;
};

static struct tStubObject stub_version_info;
static struct tStubObject stub_api_version;
static struct tStubObject stub_numbers[16];
static int stub_next_number;
static struct tStubObject stub_import_error;

static void* new_number(long value)
{
    struct tStubObject* number = &stub_numbers[stub_next_number++ % 16];
    number->value = value;
    stub_state.live_references++;
    return number;
}

static void* fail(void)
{
    stub_state.pending = 1;
    return NULL;
}

void Py_DecRef(void* obj)
{
    (void)obj;
    stub_state.live_references--;
}

void* PyErr_Occurred(void)
{
    return stub_state.pending ? &stub_import_error : NULL;
}

void PyErr_Print(void)
{
    stub_state.print_calls++;
    stub_state.pending = 0;
}

void* PyErr_Format(void* exception, const char* text, ...)
{
    stub_state.format_calls++;
    stub_state.formatted_exception = exception;
    stub_state.formatted_text = text;
    stub_state.pending = 1;
    return NULL;
}

void* PyExc_ImportError = &stub_import_error;

const char* Py_FileSystemDefaultEncoding = "stub-encoding";

void* PySys_GetObject(const char* name)
{
    if (strcmp(name, "version_info") == 0) {
        stub_state.version_reads++;
        return stub_state.lacks_version_info ? NULL : &stub_version_info;
    }
    if (strcmp(name, "api_version") == 0) {
        stub_api_version.value = stub_state.api_version;
        return stub_state.lacks_api_version ? NULL : &stub_api_version;
    }
    return NULL;
}

void* PyObject_GetItem(void* sequence, void* key)
{
    long index = ((struct tStubObject*)key)->value;
    if (sequence != &stub_version_info || index < 0 || index > 2 || index == stub_state.failing_item)
        return fail();
    return new_number(stub_state.version[index]);
}

static long number_value(void* number)
{
    return ((struct tStubObject*)number)->value;
}

void* PyInt_FromLong(long value)
{
    return new_number(value);
}

void* PyLong_FromSsize_t(long value)
{
    return new_number(value);
}

long PyInt_AsSsize_t(void* number)
{
    return number_value(number);
}

long PyLong_AsSsize_t(void* number)
{
    if (stub_state.refuses_int_as_long) {
        stub_state.pending = 1;
        return -1;
    }
    return number_value(number);
}

long long PyLong_AsLongLong(void* number)
{
    return number_value(number);
}

/* Module-creation entry points of every generation and build, and what only a free-threaded build exports. */
void Py_InitModule4_64(void) {}
void Py_InitModule4TraceRefs_64(void) {}
void PyModule_Create2(void) {}
void PyModule_Create2TraceRefs(void) {}
void _Py_GetThreadLocal_Addr(void) {}

/* The singletons. */
struct tStubObject _Py_NoneStruct;
struct tStubObject _Py_TrueStruct;
struct tStubObject _Py_FalseStruct;
struct tStubObject _Py_ZeroStruct;
