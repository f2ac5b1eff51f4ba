// The argument parser of every fast-call method: fills descriptors without a tuple or a dictionary.

#include <string.h>

#include "optmonitoring_internal.h"

static constexpr size_t kArgumentsOffsetFlag = static_cast<size_t>(1) << (8 * sizeof(size_t) - 1);

// Index of NAME among the keyword names, -1 when it is not there, -2 with an exception pending.
static Py_ssize_t find_name_index_in_kwnames(const char* name, PyObject* kwnames, Py_ssize_t count)
{
    for (Py_ssize_t i = 0; i < count; i++) {
        PyObject* kwname = api.PyTuple_GetItem(kwnames, i);
        const char* text = kwname ? api.PyUnicode_AsUTF8AndSize(kwname, nullptr) : nullptr;
        if (!text && api.PyErr_Occurred())
            return -2;
        if (text && strcmp(text, name) == 0)
            return i;
    }
    return -1;
}

static int raise_type_error(const char* text)
{
    api.PyErr_SetString(api.PyExc_TypeError, text);
    return -1;
}

// Chooses one argument's value; counts a keyword match.
static int get_one_fastarg(const tFastArgInfo* info, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames,
                           Py_ssize_t kwcount, Py_ssize_t* matches)
{
    PyObject* positional = info->pos >= 0 && info->pos < nargs ? args[info->pos] : nullptr;
    Py_ssize_t index = find_name_index_in_kwnames(info->name, kwnames, kwcount);
    if (index == -2)
        return -1;
    if (positional && index >= 0)
        return raise_type_error("argument has both a positional value and a keyword value");
    if (index >= 0)
        (*matches)++;
    PyObject* given = index >= 0 ? args[nargs + index] : positional;
    if (!given && !info->default_value)
        return raise_type_error("argument is missing");
    *info->value_ptr = given ? given : info->default_value;
    return 0;
}

int get_fastargs(const tFastArgInfo* infos, PyObject* const* args, size_t nargsf, PyObject* kwnames)
{
    Py_ssize_t nargs = static_cast<Py_ssize_t>(nargsf & ~kArgumentsOffsetFlag);
    Py_ssize_t kwcount = kwnames ? api.PyTuple_Size(kwnames) : 0;
    if (kwcount < 0)
        return -1;
    Py_ssize_t matches = 0;
    int largest_pos = -1;
    for (const tFastArgInfo* info = infos; info->name; info++) {
        if (get_one_fastarg(info, args, nargs, kwnames, kwcount, &matches) < 0)
            return -1;
        if (info->pos > largest_pos)
            largest_pos = info->pos;
    }
    if (kwcount > matches)
        return raise_type_error("Excess keyword arguments passed to function");
    if (nargs > largest_pos + 1)
        return raise_type_error("Excess positional arguments passed to function");
    return 0;
}
