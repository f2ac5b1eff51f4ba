#include "fake_python.h"

#include <stdarg.h>
#include <stdio.h>

#include "fuzz_input.h"

tFakeType kFakeStr = {"str", nullptr};
tFakeType kFakeStrSubclass = {"str subclass", &kFakeStr};
tFakeType kFakeInt = {"int", nullptr};
tFakeType kFakeDict = {"dict", nullptr};
tFakeType kFakeTuple = {"tuple", nullptr};
tFakeType kFakeFile = {"file", nullptr};
tFakeType kFakeFrame = {"frame", nullptr};
tFakeType kFakeCode = {"code", nullptr};
tFakeType kFakeException = {"exception", nullptr};
tFakeType kFakeOther = {"other", nullptr};

tFakePython gFake;

static int gLiveObjects;
static constexpr int kTracingOffset = 8;
static constexpr Py_ssize_t kEndless = 1 << 30;  // the count of what the interpreter keeps anyway

// ---- Objects ----

tFake* new_fake(const tFakeType* type, const std::string& text)
{
    gLiveObjects++;
    return new tFake{1, type, text, {}, 0, nullptr, false, false};
}

tFake* new_fake_int(int64_t number)
{
    tFake* fake = new_fake(&kFakeInt);
    fake->number = number;
    return fake;
}

tFake* fake_ref(tFake* fake)
{
    if (fake)
        fake->count++;
    return fake;
}

void release_fake(tFake* fake)
{
    if (!fake || --fake->count > 0)
        return;
    FUZZ_CHECK(fake->count == 0);
    gLiveObjects--;
    for (tFake* item : fake->items)
        release_fake(item);
    release_fake(fake->repr);
    delete fake;
}

static void inc_ref(PyObject* obj)
{
    FUZZ_CHECK(as_fake(obj)->count > 0);
    fake_ref(as_fake(obj));
}

static void dec_ref(PyObject* obj)
{
    FUZZ_CHECK(as_fake(obj)->count > 0);
    release_fake(as_fake(obj));
}

static int is_subtype(PyTypeObject* type, PyTypeObject* base)
{
    const tFakeType* wanted = reinterpret_cast<tFakeType*>(base);
    for (const tFakeType* each = reinterpret_cast<tFakeType*>(type); each; each = each->base) {
        if (each == wanted)
            return 1;
    }
    return 0;
}

static bool is_a(const tFake* fake, const tFakeType* type)
{
    return fake->type == type || fake->type->base == type;
}

static PyTypeObject* as_type_object(const tFakeType* type)
{
    return reinterpret_cast<PyTypeObject*>(const_cast<tFakeType*>(type));
}

static tFake* endless(const tFakeType* type, const std::string& text)
{
    tFake* fake = new tFake{kEndless, type, text, {}, 0, nullptr, false, false};
    return fake;
}

// ---- Exceptions ----

static void raise(const std::string& text)
{
    release_fake(gFake.pending);
    gFake.pending = new_fake(&kFakeException, text);
}

static PyObject* raise_null(const std::string& text)
{
    raise(text);
    return nullptr;
}

static int raise_int(const std::string& text)
{
    raise(text);
    return -1;
}

static void err_set_string(PyObject* type, const char* text)
{
    raise(as_fake(type)->text + ": " + text);
}

static PyObject* err_occurred()
{
    return as_object(gFake.pending);
}

static void err_clear()
{
    tFake* old = gFake.pending;
    gFake.pending = nullptr;
    release_fake(old);
}

static void err_fetch(PyObject** type, PyObject** value, PyObject** traceback)
{
    *type = as_object(gFake.pending);
    *value = *traceback = nullptr;
    gFake.pending = nullptr;
}

static void err_restore(PyObject* type, PyObject* value, PyObject* traceback)
{
    FUZZ_CHECK(!value && !traceback);
    err_clear();
    gFake.pending = as_fake(type);
}

static void err_display(PyObject* type, PyObject*, PyObject*)
{
    FUZZ_CHECK(!gFake.pending);
    gFake.events.push_back("display " + as_fake(type)->text + " on " + gFake.sys_stderr->text);
}

// ---- Texts ----

static const char* str_as_utf8_and_size(PyObject* obj, Py_ssize_t* size)
{
    FUZZ_CHECK(!gFake.pending);
    tFake* fake = as_fake(obj);
    if (!is_a(fake, &kFakeStr) || fake->refuses) {
        raise(fake->refuses ? "no UTF-8" : "not a str");
        return nullptr;
    }
    if (size)
        *size = static_cast<Py_ssize_t>(fake->text.size());
    return fake->text.c_str();
}

static const char* str_as_utf8(PyObject* obj)
{
    return str_as_utf8_and_size(obj, nullptr);
}

static PyObject* str_from_c(const char* text)
{
    if (gFake.constructions_that_raise > 0) {
        gFake.constructions_that_raise--;
        return raise_null("no str");
    }
    return as_object(new_fake(&kFakeStr, text));
}

static PyObject* str_from_c_and_size(const char* text, Py_ssize_t size)
{
    return as_object(new_fake(&kFakeStr, std::string(text, static_cast<size_t>(size))));
}

// The formats of the targets are those that the C library reads the same way.
static PyObject* str_from_format(const char* format, va_list args)
{
    FUZZ_CHECK(!gFake.pending);
    if (gFake.formatting_raises)
        return raise_null("bad format");
    char* text;
    FUZZ_CHECK(vasprintf(&text, format, args) >= 0);
    PyObject* str = as_object(new_fake(&kFakeStr, text));
    free(text);
    return str;
}

static PyObject* object_repr(PyObject* obj)
{
    FUZZ_CHECK(!gFake.pending);
    tFake* repr = as_fake(obj)->repr;
    return repr ? as_object(fake_ref(repr)) : raise_null("no repr");
}

// ---- Containers, numbers and attributes ----

static Py_ssize_t tuple_size(PyObject* obj)
{
    tFake* fake = as_fake(obj);
    return fake->type == &kFakeTuple ? static_cast<Py_ssize_t>(fake->items.size()) : raise_int("not a tuple");
}

static PyObject* tuple_get_item(PyObject* obj, Py_ssize_t index)
{
    FUZZ_CHECK(index >= 0 && index < tuple_size(obj));
    return as_object(as_fake(obj)->items[static_cast<size_t>(index)]);
}

static int dict_contains(PyObject* obj, PyObject* key)
{
    FUZZ_CHECK(!gFake.pending);
    tFake* dict = as_fake(obj);
    FUZZ_CHECK(dict->type == &kFakeDict);
    if (gFake.during_look_up)
        gFake.during_look_up();
    if (dict->refuses)
        return raise_int("no look-up");
    for (tFake* each : dict->items) {
        if (each->text == as_fake(key)->text)
            return 1;
    }
    return 0;
}

static PyObject* int_from_ssize(Py_ssize_t value)
{
    return as_object(new_fake_int(value));
}

static Py_ssize_t int_as_ssize(PyObject* obj)
{
    tFake* fake = as_fake(obj);
    return fake->type == &kFakeInt ? fake->number : raise_int("not an int");
}

static PyObject* get_attr(PyObject* obj, PyObject* name)
{
    FUZZ_CHECK(!gFake.pending);
    tFake* fake = as_fake(obj);
    const std::string& attribute = as_fake(name)->text;
    if (fake->type == &kFakeCode && attribute == "co_firstlineno")
        return int_from_ssize(fake->number);
    tFake* value = nullptr;
    if (fake->type == &kFakeCode && (attribute == "co_name" || attribute == "co_filename"))
        value = fake->items[attribute == "co_filename"];
    return value ? as_object(fake_ref(value)) : raise_null("no attribute " + attribute);
}

static int frame_lineno(PyFrameObject* frame)
{
    return static_cast<int>(reinterpret_cast<tFake*>(frame)->number);
}

static PyCodeObject* frame_code(PyFrameObject* frame)
{
    return reinterpret_cast<PyCodeObject*>(fake_ref(reinterpret_cast<tFake*>(frame)->items[0]));
}

// ---- Files ----

static int write_object(PyObject* obj, PyObject* file, int flags)
{
    FUZZ_CHECK(!gFake.pending && flags == 1);
    tFake* text = fake_ref(as_fake(obj));
    tFake* to = fake_ref(as_fake(file));
    bool refuses = to->refuses;
    gFake.events.push_back(to->text + " <- " + (refuses ? "nothing" : text->text));
    if (gFake.during_write)
        gFake.during_write();
    release_fake(text);
    release_fake(to);
    return refuses ? raise_int("no writing") : 0;
}

static PyObject* call_method(PyObject* obj, const char* name, const char* format, ...)
{
    FUZZ_CHECK(!gFake.pending && !format);
    gFake.events.push_back(as_fake(obj)->text + "." + name + "()");
    return as_fake(obj)->refuses_flush ? raise_null("no flush") : as_object(fake_ref(as_fake(api.Py_None)));
}

static PyObject* sys_get(const char* name)
{
    FUZZ_CHECK(strcmp(name, "stderr") == 0);
    return as_object(gFake.sys_stderr);
}

static int sys_set(const char* name, PyObject* value)
{
    FUZZ_CHECK(strcmp(name, "stderr") == 0);
    tFake* old = gFake.sys_stderr;
    gFake.sys_stderr = fake_ref(as_fake(value));
    release_fake(old);
    return 0;
}

// ---- The thread state ----

static struct {
    int64_t first;
    int32_t tracing;
    int32_t last;
} gThreadState;

static PyThreadState* this_thread_state()
{
    return gFake.has_thread_state ? reinterpret_cast<PyThreadState*>(&gThreadState) : nullptr;
}

// Asked for by name, behind the binding table.
extern "C" {
XPY_EXPORT PyThreadState* PyGILState_GetThisThreadState(void);
XPY_EXPORT int PyGILState_Check(void);

PyThreadState* PyGILState_GetThisThreadState(void)
{
    return this_thread_state();
}

int PyGILState_Check(void)
{
    return 1;
}
}

void set_fake_tracing(int tracing)
{
    gFake.tracing = gThreadState.tracing = tracing;
}

// ---- Start and end ----

static void bind_objects()
{
    static tFake* const none = endless(&kFakeOther, "None");
    static tFake* const type_error = endless(&kFakeOther, "TypeError");
    static tFake* const value_error = endless(&kFakeOther, "ValueError");
    none->count = type_error->count = value_error->count = kEndless;
    api.Py_None = as_object(none);
    api.PyExc_TypeError = as_object(type_error);
    api.PyExc_ValueError = as_object(value_error);
    api.PyUnicode_Type_ptr = as_type_object(&kFakeStr);
    api.PyDict_Type_ptr = as_type_object(&kFakeDict);
    api.PyFrame_Type_ptr = as_type_object(&kFakeFrame);
    api.PyCode_Type_ptr = as_type_object(&kFakeCode);
}

static void bind_functions()
{
    api.Py_IncRef = inc_ref;
    api.Py_DecRef = dec_ref;
    api.PyType_IsSubtype = is_subtype;
    api.PyErr_SetString = err_set_string;
    api.PyErr_Occurred = err_occurred;
    api.PyErr_Clear = err_clear;
    api.PyErr_Fetch = err_fetch;
    api.PyErr_Restore = err_restore;
    api.PyErr_Display = err_display;
    api.PyErr_NormalizeException = [](PyObject**, PyObject**, PyObject**) {};
    api.PyUnicode_AsUTF8AndSize = str_as_utf8_and_size;
    api._PyUnicode_AsString = str_as_utf8;
    api.PyUnicode_FromString = str_from_c;
    api.PyUnicode_FromStringAndSize = str_from_c_and_size;
    api.PyUnicode_FromFormatV = str_from_format;
    api.PyObject_Repr = object_repr;
    api.PyTuple_Size = tuple_size;
    api.PyTuple_GetItem = tuple_get_item;
    api.PyDict_Contains = dict_contains;
    api.PyLong_FromSsize_t = int_from_ssize;
    api.PyLong_AsSsize_t = int_as_ssize;
    api.PyObject_GetAttr = get_attr;
    api.PyFrame_GetLineNumber = frame_lineno;
    api.PyFrame_GetCode = frame_code;
    api.PyFile_WriteObject = write_object;
    api.PyObject_CallMethod = call_method;
    api.PySys_GetObject = sys_get;
    api.PySys_SetObject = sys_set;
    api.PyThreadState_Get = this_thread_state;
    api.PyThreadState_EnterTracing = [](PyThreadState*) { set_fake_tracing(gFake.tracing + 1); };
    api.PyThreadState_LeaveTracing = [](PyThreadState*) { set_fake_tracing(gFake.tracing - 1); };
}

void start_fake_python(bool direct)
{
    global_XPy_C_API_Data = XPy_C_API_Data();
    api.initialized = 1;
    api.major_version = 3;
    api.minor_version = 11;
    api.can_update_refcount_directly = direct;
    api.pyobject_offsets = {offsetof(tFake, count), offsetof(tFake, type), -1, -1, -1};
    api.tstate_offsets.tracing = kTracingOffset;
    bind_objects();
    bind_functions();
    gFake = tFakePython();
    set_fake_tracing(0);
    gLiveObjects = 0;
}

void check_fake_python_is_clean()
{
    release_fake(gFake.sys_stderr);
    gFake.sys_stderr = nullptr;
    FUZZ_CHECK(!gFake.pending);
    FUZZ_SAME(0, gLiveObjects);
    FUZZ_SAME(0, gFake.tracing);
    FUZZ_SAME(kEndless, as_fake(api.Py_None)->count);
}
