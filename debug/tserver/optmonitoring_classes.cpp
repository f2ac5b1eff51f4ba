// What the four classes share: their bodies, members, hooks and the way back to the module.

#include "optmonitoring_internal.h"

Py_ssize_t gInitialCallbackBodyOffset = -1;
Py_ssize_t gPerThreadBodyOffset = -1;
Py_ssize_t gPerCodeObjectBodyOffset = -1;
Py_ssize_t gPerFileBodyOffset = -1;

// ---- From an instance to its class, body and module ----

PyTypeObject* borrow_base(PyTypeObject* type)
{
    return *static_cast<PyTypeObject**>(XPy_GetFieldAddress(type, api.typeobject_offsets.tp_base));
}

PyTypeObject* borrow_defining_class(PyObject* obj)
{
    // A subclass made in Python has no module of its own; ours is the class right below `object`, because it is the
    // one that gives the instances their layout.
    PyTypeObject* type = XPy_BorrowTypeInline(obj);
    for (PyTypeObject* base = borrow_base(type); base && borrow_base(base); base = borrow_base(base))
        type = base;
    return type;
}

PyObject* borrow_module_of(PyObject* obj)
{
    return api.PyType_GetModule(borrow_defining_class(obj));
}

tModuleState* state_of_class(PyTypeObject* cls)
{
    tModuleState* m = static_cast<tModuleState*>(api.PyType_GetModuleState(cls));
    if (!m && !api.PyErr_Occurred())
        api.PyErr_SetString(api.PyExc_SystemError, "optmonitoring: the class has no module state");
    if (!m || m->dp)
        return m;
    // The classes outlive a module that was cleared, for instance after a failed import.
    api.PyErr_SetString(api.PyExc_RuntimeError, "optmonitoring has been cleared");
    return nullptr;
}

tModuleState* state_of(PyObject* obj)
{
    return state_of_class(borrow_defining_class(obj));
}

void* find_body(PyObject* obj, PyTypeObject* cls, Py_ssize_t* body_offset)
{
    void* body = api.PyObject_GetTypeData(obj, cls);
    if (body)
        *body_offset = static_cast<char*>(body) - reinterpret_cast<char*>(obj);
    else if (!api.PyErr_Occurred())
        api.PyErr_SetString(api.PyExc_SystemError, "optmonitoring: the object has no body");
    return body;
}

void clear_object_members(PyObject* obj)
{
    void* slot = api.PyType_GetSlot(borrow_defining_class(obj), kSlotTpMembers);
    for (PyMemberDef* member = static_cast<PyMemberDef*>(slot); member && member->name; member++) {
        if (member->type == kMemberObject)
            XPy_SetMember(obj, reinterpret_cast<PyObject**>(reinterpret_cast<char*>(obj) + member->offset), nullptr);
    }
}

// ---- Class attributes ----

bool clear_if_raised(PyObject* exception)
{
    PyObject* raised = api.PyErr_Occurred();
    if (!raised || !api.PyErr_GivenExceptionMatches(raised, exception))
        return false;
    api.PyErr_Clear();
    return true;
}

// Classes have versions: the interpreter gives a class a new number after every change, once it is looked at again,
// and takes it away with the next change. Its own caches of class attributes go by that number.

// 3.12 takes a class's version away only after a replaced value has died, and what dies with a registry may ask for
// that registry: until then caches, the interpreter's too, have the dying value. The class's own dict is right.
static bool has_late_versions;

static uint32_t version_of(PyTypeObject* cls)
{
    void* field = XPy_GetFieldAddress(cls, gShortcutOffsets.type_version);
    return field ? *static_cast<uint32_t*>(field) : 0;
}

void init_class_versions(void)
{
    has_late_versions = gShortcutOffsets.type_version != -1 && api.minor_version == 12;  // PYVERSIONS
}

void mark_class(tClassMark* mark, PyTypeObject* cls)
{
    mark->version = version_of(cls);
    mark->cls = mark->version ? cls : nullptr;
}

// Remembers what was read, if it lies in the class's own dict as it is and is surely no descriptor: a registry as it
// was made, or a hook that is off.
static void remember_value(PyObject* cls, tClassAttr* attribute, PyObject* value)
{
    if (gShortcutOffsets.type_version == -1)
        return;  // nothing can be marked
    PyObject** own = api._PyObject_GetDictPtr(cls);
    if (!own || !*own || !(value == api.Py_None || is_plain_dict(value)))
        return;
    if (api.PyDict_GetItemWithError(*own, attribute->name.name) == value) {
        attribute->value = value;
        mark_class(&attribute->mark, as_type(cls));
    } else if (api.PyErr_Occurred()) {
        api.PyErr_Clear();
    }
}

static inline bool may_be_dying(const PyObject* value)
{
    return XPY_UNLIKELY(has_late_versions) && XPy_GetRefCnt(value) <= 0;
}

static void set_no_attribute(PyObject* cls, PyObject* name)
{
    XPyOwned class_name(api.PyObject_GetAttrString(cls, "__name__"));
    if (class_name)
        api.PyErr_Format(api.PyExc_AttributeError, "type object 'optmonitoring.%U' has no attribute '%U'",
                         class_name.borrow(), name);
}

// The attribute as PyObject_GetAttr() finds it, past the interpreter's cache. [new]
static PyObject* read_past_cache(PyObject* cls, tNameCache* cache)
{
    PyObject* name = borrow_cached_name(cache);
    PyObject** own = XPy_BorrowTypeInline(cls) == api.PyType_Type_ptr ? api._PyObject_GetDictPtr(cls) : nullptr;
    if (!name || !own || !*own)
        return name ? api.PyObject_GetAttr(cls, name) : nullptr;
    PyObject* value = api.PyDict_GetItemWithError(*own, name);
    if (value)
        return api.PyType_GetSlot(XPy_BorrowTypeInline(value), kSlotTpDescrGet) ? api.PyObject_GetAttr(cls, name)
                                                                                : XPy_NewRef(value);
    if (!api.PyErr_Occurred())
        set_no_attribute(cls, name);  // its one base is `object`
    return nullptr;
}

// A class gets its version when an attribute of it is looked up, and a class that nobody has looked at since its last
// change has none. Without a version there is nothing in the interpreter's cache that could be dying.
PyObject* read_class_attr(PyObject* cls, tNameCache* name)
{
    bool is_cached = has_late_versions && version_of(as_type(cls)) != 0;
    return is_cached ? read_past_cache(cls, name) : get_cached_attr(cls, name);
}

// Without the interpreter lock. Another thread may change the class between the two looks at its version, but no
// version is given twice in an interpreter.
static PyObject* find_shared_class_attr(PyObject* cls, tClassAttr* attribute)
{
    uint64_t before = gSharedShortcutOffsets.type_version == -1 ? 0 : get_class_state(as_type(cls));
    PyObject* value = read_class_attr(cls, &attribute->name);
    if (before && value == api.Py_None && get_class_state(as_type(cls)) == before)
        __atomic_store_n(&attribute->state_when_none, before, __ATOMIC_RELEASE);
    return value;
}

__attribute__((noinline)) static PyObject* find_class_attr(PyObject* cls, tClassAttr* attribute)
{
    if (gIsLockOff)
        return find_shared_class_attr(cls, attribute);
    forget_mark(&attribute->mark);
    PyObject* value = read_class_attr(cls, &attribute->name);
    if (value)
        remember_value(cls, attribute, value);
    return value;
}

PyObject* get_class_attr(PyObject* cls, tClassAttr* attribute)
{
    if (XPY_LIKELY(is_as_marked(&attribute->mark, as_type(cls)) && !may_be_dying(attribute->value)))
        return XPy_NewRef(attribute->value);
    return find_class_attr(cls, attribute);
}

int set_class_attr(PyObject* cls, tClassAttr* attribute, PyObject* value)
{
    // A class of an earlier interpreter may have had the same address and version.
    forget_mark(&attribute->mark);
    XPy_Store(&attribute->state_when_none, uint64_t{0});
    PyObject* name = borrow_cached_name(&attribute->name);
    return name ? api.PyObject_SetAttr(cls, name, value) : -1;
}

PyObject* make_none(void)
{
    return new_none();
}

PyObject* get_class_attr_or_make(PyObject* cls, tClassAttr* attribute, PyObject* (*make)(void))
{
    PyObject* value = get_class_attr(cls, attribute);
    if (value || !clear_if_raised(api.PyExc_AttributeError))
        return value;
    XPyOwned made(make());
    if (!made || set_class_attr(cls, attribute, made.borrow()) < 0)
        return nullptr;
    return made.detach();
}

// ---- Registries ----

int get_item_if_present(PyObject* mapping, PyObject* key, PyObject** item)
{
    int found;
    if (is_plain_dict(mapping)) {
        found = api.PyDict_GetItemRef(mapping, key, item);  // spares the KeyError
    } else {
        *item = api.PyObject_GetItem(mapping, key);
        found = *item ? 1 : -1;
    }
    return found < 0 && clear_if_raised(api.PyExc_KeyError) ? 0 : found;
}

int enter_unless_present(PyObject* registry, PyObject* key, PyObject* new_record, PyObject** found)
{
    if (gIsLockOff && is_plain_dict(registry))
        return XPy_EnterUnlessPresent(registry, key, new_record, found) < 0 ? -1 : 0;
    if (api.PyObject_SetItem(registry, key, new_record) < 0)
        return -1;
    *found = XPy_NewRef(new_record);
    return 0;
}

int delete_item_if_present(PyObject* mapping, PyObject* key)
{
    int result = is_plain_dict(mapping) ? api.PyDict_Pop(mapping, key, nullptr) : api.PyObject_DelItem(mapping, key);
    return result < 0 && !clear_if_raised(api.PyExc_KeyError) ? -1 : 0;
}

// ---- Announced constructions ----

static thread_local tAnnounced* innermost_announced;

tAnnounced::tAnnounced(PyObject* key) : fKey(key), fOuter(innermost_announced), fIsLate(false)
{
    innermost_announced = this;
}

tAnnounced::~tAnnounced()
{
    innermost_announced = fOuter;
}

tAnnounced* tAnnounced::take(PyObject* key)
{
    tAnnounced* announced = gIsLockOff ? innermost_announced : nullptr;
    if (!announced || announced->fKey != key)
        return nullptr;
    announced->fKey = nullptr;
    return announced;
}

// ---- Hooks ----

static int call_new_object_callback(PyObject* callback, PyObject* new_object)
{
    PyThreadState* tstate = api.PyThreadState_Get();
    add_to_thread_state_tracing(tstate, 1);  // the hook's own code is not to be monitored
    XPyOwned result(do_one_arg_call(callback, new_object));
    add_to_thread_state_tracing(tstate, -1);
    return result ? 0 : -1;
}

int CallNewObjectCallback_direct(tDPData* dp, PyObject* cls, tClassAttr* attribute, PyObject* new_object)
{
    XPyOwned callback(get_class_attr(cls, attribute));
    if (callback.borrow() == api.Py_None)
        return 0;
    if (!callback || call_new_object_callback(callback.borrow(), new_object) < 0)
        return fail_int(dp, "Exception in CallNewObjectCallback_direct\n");
    return 0;
}

PyObject* call_hook_setter(PyTypeObject* cls, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames,
                           int (*worker)(tModuleState*, PyObject*), const char* failure)
{
    tModuleState* m = state_of_class(cls);
    if (!m)
        return nullptr;
    PyObject* callback;
    const tFastArgInfo infos[] = {{"callback", 0, nullptr, &callback}, {nullptr, 0, nullptr, nullptr}};
    if (get_fastargs(infos, args, static_cast<size_t>(nargs), kwnames) < 0 || worker(m, callback) < 0)
        return fail_null(m->dp, failure);
    return new_none();
}

// ---- Constructors ----

int refuse_keywords(PyObject* self, PyObject* kwargs, const char* class_name)
{
    bool is_subclass = XPy_BorrowTypeInline(self) != borrow_defining_class(self);
    if (is_subclass || !kwargs || api.PyDict_Size(kwargs) == 0)
        return 0;
    api.PyErr_Format(api.PyExc_TypeError, "%s() takes no keyword arguments", class_name);
    return -1;
}
