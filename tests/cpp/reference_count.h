// How many references an object has, on every build of the interpreter.

#ifndef OPTMONITORING_TESTS_REFERENCE_COUNT_H
#define OPTMONITORING_TESTS_REFERENCE_COUNT_H

#include "xpy_c_api.h"

// A free-threaded interpreter splits the count, which the module does not read: what the object's own thread holds,
// and what the others hold, above two bits of state.
static constexpr Py_ssize_t kOwnCountOffset = 12;
static constexpr Py_ssize_t kOthersCountOffset = 16;

static constexpr const char* kNoCount = "this build keeps no count that tells whether a value is ours alone";

// Whether the module can tell that it holds the only reference: it needs a count at one place.
inline bool sees_only_references()
{
    return api.pyobject_offsets.refcnt != -1;
}

// Whether references to OBJ are not counted.
inline bool is_immortal(const PyObject* obj)
{
    if (api.pyobject_offsets.refcnt != -1)
        return XPy_IsImmortal(obj);
    return *static_cast<uint32_t*>(XPy_GetFieldAddress(obj, kOwnCountOffset)) == UINT32_MAX;
}

inline Py_ssize_t count_of(const PyObject* obj)
{
    if (api.pyobject_offsets.refcnt != -1)
        return XPy_GetRefCnt(obj);
    uint32_t own = *static_cast<uint32_t*>(XPy_GetFieldAddress(obj, kOwnCountOffset));
    Py_ssize_t others = *static_cast<Py_ssize_t*>(XPy_GetFieldAddress(obj, kOthersCountOffset));
    return is_immortal(obj) ? own : own + (others >> 2);
}

#endif
