// Accessors of attributes, generators, code objects, modules and texts.

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

#include "dbgcommon_internal.h"

void log_and_clear(const char* text)
{
    if (XPy_Load(&gDPrintfFile)) {
        do_dprintf(kLogInternalFailures, "%s", text);
        do_dlogexception();
    }
    api.PyErr_Clear();
}

// ---- Attributes ----

static PyObject* new_name(const char* text)
{
    return api.major_version < 3 ? api.PyString_FromString(text) : api.PyUnicode_FromString(text);
}

// The object of TEXT in *CACHE, made on first use; null with an exception pending. [borrowed]
static inline PyObject* borrow_name(PyObject** cache, const char* text)
{
    PyObject* known = __atomic_load_n(cache, __ATOMIC_ACQUIRE);
    if (known)
        return known;
    PyObject* made = new_name(text);
    if (!made || __atomic_compare_exchange_n(cache, &known, made, false, __ATOMIC_RELEASE, __ATOMIC_ACQUIRE))
        return made;
    XPy_DoDecRef(made);  // another thread was faster
    return known;
}

PyObject* borrow_cached_name(tNameCache* cache)
{
    return borrow_name(&cache->name, cache->text);
}

PyObject* get_cached_attr(PyObject* obj, tNameCache* cache)
{
    PyObject* name = borrow_cached_name(cache);
    return name ? api.PyObject_GetAttr(obj, name) : nullptr;
}

PyObject* borrow_attrib(PyObject* obj, tNameCache* cache)
{
    XPyOwned value(get_cached_attr(obj, cache));
    // A count of 1 is ours alone: the object would die on release, and its pointer be handed out.
    if (value && XPy_GetRefCnt(value.borrow()) != 1)
        return value.borrow();
    log_and_clear("borrow_attrib failed\n");
    return nullptr;
}

int get_istrue(PyObject* obj)
{
    if (obj == api.Py_True)
        return 1;
    if (obj == api.Py_False || obj == api.Py_None)
        return 0;
    return api.PyObject_IsTrue(obj);
}

int get_bool_attrib(PyObject* obj, const char* name, PyObject** cache)
{
    PyObject* known = borrow_name(cache, name);
    XPyOwned value(known ? api.PyObject_GetAttr(obj, known) : nullptr);
    if (!value)
        return -1;
    if (value.borrow() == api.Py_True)
        return 1;
    if (value.borrow() == api.Py_False)
        return 0;
    return api.PyObject_IsTrue(value.borrow());
}

int get_generator_suspended(PyObject* gen)
{
    static PyObject* gi_suspended;
    static PyObject* cr_suspended;
    if (XPy_IsInstance(gen, api.PyGen_Type_ptr))
        return get_bool_attrib(gen, "gi_suspended", &gi_suspended);
    if (XPy_IsInstance(gen, api.PyCoro_Type_ptr))
        return get_bool_attrib(gen, "cr_suspended", &cr_suspended);
    return 0;
}

// ---- Code objects ----

static tNameCache co_name = {"co_name", nullptr};
static tNameCache co_filename = {"co_filename", nullptr};

PyObject* borrow_code_name(PyObject* code)
{
    return borrow_attrib(code, &co_name);
}

PyObject* borrow_code_filename(PyObject* code)
{
    return borrow_attrib(code, &co_filename);
}

PyObject* get_code_name(PyObject* code)
{
    return XPy_NewRef(borrow_code_name(code));
}

// Reads the attribute through its descriptor in the type of code objects, which nobody can change: no search for the
// name. [new], or null, perhaps with an exception pending.
static PyObject* get_filename_by_descriptor(PyObject* code)
{
    typedef PyObject* (*tDescrGet)(PyObject*, PyObject*, PyObject*);
    static constexpr int kSlotDescrGet = 54;
    static PyObject* descriptor;  // like the names, made on first use and never released
    static tDescrGet get;         // there before the descriptor is
    PyObject* type = reinterpret_cast<PyObject*>(api.PyCode_Type_ptr);
    PyObject* known = __atomic_load_n(&descriptor, __ATOMIC_ACQUIRE);
    if (XPY_UNLIKELY(!known)) {
        known = get_cached_attr(type, &co_filename);
        void* slot = known ? api.PyType_GetSlot(XPy_BorrowTypeInline(known), kSlotDescrGet) : nullptr;
        XPy_Store(&get, reinterpret_cast<tDescrGet>(slot));
        __atomic_store_n(&descriptor, known, __ATOMIC_RELEASE);
    }
    tDescrGet getter = XPy_Load(&get);
    return getter ? getter(known, code, type) : nullptr;
}

PyObject* get_code_filename(PyObject* code)
{
    // PYVERSIONS: long before 3.12, slots of the interpreter's own types could not be asked for.
    bool is_code =
        api.major_version == 3 && api.minor_version >= 12 && XPy_BorrowTypeInline(code) == api.PyCode_Type_ptr;
    PyObject* filename = is_code ? get_filename_by_descriptor(code) : get_cached_attr(code, &co_filename);
    if (!filename)
        log_and_clear("Exception in get_code_filename()\n");
    return filename;
}

Py_ssize_t get_code_firstlineno(PyObject* code)
{
    static tNameCache co_firstlineno = {"co_firstlineno", nullptr};
    XPyOwned value(get_cached_attr(code, &co_firstlineno));
    Py_ssize_t lineno = value ? py_int_as_ssize_t(value.borrow()) : -1;
    if (lineno == -1 && api.PyErr_Occurred())
        log_and_clear("get_code_firstlineno");
    return lineno;
}

// ---- Numbers ----

PyObject* py_int_from_ssize_t(Py_ssize_t value)
{
    return api.major_version < 3 ? api.PyInt_FromSsize_t(value) : api.PyLong_FromSsize_t(value);
}

Py_ssize_t py_int_as_ssize_t(PyObject* obj)
{
    return api.major_version < 3 ? api.PyInt_AsSsize_t(obj) : api.PyLong_AsSsize_t(obj);
}

// ---- Modules and functions by name ----

PyObject* get_imported_module(const char* name)
{
    XPyOwned modules(XPy_NewRef(api.PySys_GetObject("modules")));
    XPyOwned key(modules ? new_name(name) : nullptr);
    return key ? api.PyObject_GetItem(modules.borrow(), key.borrow()) : nullptr;
}

void* lookup_python_function(const char* name)
{
    void* handle = dlopen(nullptr, RTLD_LAZY | RTLD_GLOBAL);
    if (!handle)
        return nullptr;
    void* ptr = dlsym(handle, name);
    dlclose(handle);
    return ptr;
}

// ---- Texts ----

const char* _pystring_to_c_string(PyObject* str)
{
    if (api.major_version < 3) {
        const char* text = api.PyString_AsString(str);
        if (!text)
            api.PyErr_Clear();
        return text;
    }
    const char* text = api._PyUnicode_AsString(str);
    if (text)
        return text;
    api.PyErr_Clear();
    // A subclass may have a repr without a UTF-8 form too, which is not taken apart further.
    do_dprintf_repr_quietly(kLogFilenames, "FAILURE: Could not convert unicode to UTF-8: %s", str);
    return nullptr;
}

char* _pystring_to_c_string_copy(PyObject* str)
{
    const char* text = _pystring_to_c_string(str);
    if (!text)
        return nullptr;
    char* copy = strdup(text);
    if (!copy)
        do_dprintf(kLogFilenames, "FAILURE: Out of memory copying string: %s", dprint_check_str(text));
    return copy;
}

static bool is_string(PyObject* obj)
{
    return XPy_IsInstance(obj, api.PyString_Type_ptr) || XPy_IsInstance(obj, api.PyUnicode_Type_ptr);
}

int string_objects_equal(PyObject* a, PyObject* b)
{
    if (!is_string(a) || !is_string(b))
        return 0;
    const char* text_a = _pystring_to_c_string(a);
    const char* text_b = text_a ? _pystring_to_c_string(b) : nullptr;
    return text_b && strcmp(text_a, text_b) == 0;
}

int pyobjects_equal(PyObject* a, PyObject* b)
{
    return XPy_PyObjectsEqual(a, b);
}

// ---- Calls ----

// Calls with COUNT arguments [borrowed].
static PyObject* call_with_tuple(PyObject* callable, PyObject* const* items, Py_ssize_t count)
{
    XPyOwned args(api.PyTuple_New(count));
    if (!args)
        return nullptr;
    for (Py_ssize_t i = 0; i < count; i++) {
        if (api.PyTuple_SetItem(args.borrow(), i, XPy_NewRef(items[i])) < 0)
            return nullptr;
    }
    return api.PyObject_CallObject(callable, args.borrow());
}

PyObject* do_one_arg_call(PyObject* callable, PyObject* a)
{
    PyObject* items[] = {a};
    return call_with_tuple(callable, items, 1);
}

PyObject* do_two_arg_call(PyObject* callable, PyObject* a, PyObject* b)
{
    PyObject* items[] = {a, b};
    return call_with_tuple(callable, items, 2);
}

PyObject* do_three_arg_call(PyObject* callable, PyObject* a, PyObject* b, PyObject* c)
{
    PyObject* items[] = {a, b, c};
    return call_with_tuple(callable, items, 3);
}
