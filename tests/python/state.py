"""The module's state and definition as seen through ctypes, and further copies of the module."""

import _imp
import ctypes
import importlib.util

import support

# What exec publishes, in its order.
EVENTS = ["LINE", "PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME"]
EVENT_CONSTANTS = ["kPyLineEventId", "kPyStartEventId", "kPyReturnEventId", "kPyYieldEventId", "kPyResumeEventId"]
CLASSES = ["CInitialCallback", "CPerCodeObject", "CPerFile", "CPerThread"]
CONSTANTS = [
    ("kLogOther", 1), ("kLogFilenames", 2), ("kLogCore", 4), ("kLogBreakpoints", 8), ("kLogExceptions", 16),
    ("kLogIO", 32), ("kLogInternalFailures", 64), ("kLogThreading", 128), ("kLogInitialMonitoringCallbacks", 256),
    ("kLogSecondMonitoringCallbacks", 512), ("kRegularPathname", 0), ("kFrozenImportLibPathname", 3),
    ("kPseudoPathname", 4), ("kBrixShellPathname", 5),
]
Ptr = ctypes.c_void_p
Int = ctypes.c_int


class ModuleState(ctypes.Structure):
    """The state block, field by field."""

    _fields_ = [
        ("kPyLineEventId", Int),
        ("kPyStartEventId", Int),
        ("kPyReturnEventId", Int),
        ("kPyYieldEventId", Int),
        ("kPyResumeEventId", Int),
        ("CInitialCallback", Ptr),
        ("monitoring_disabled", Ptr),
        ("threading_mod", Ptr),
        ("file_ops_data", Ptr),
        ("dp", Ptr),
        ("CPerFile", Ptr),
        ("CPerCodeObject", Ptr),
        ("CPerThread", Ptr),
        ("code_object_extra_index", Int),
        ("_gInternalPathnameDict", Ptr),
        ("save_and_restore_errno", Int),
        ("_gThisProcessPid", Int),
        ("_Log", Ptr),
        ("_LogException", Ptr),
        ("_gPyTssKey", Ptr),
        ("_gThreadStateDictKey", Ptr),
    ]

POINTERS = [name for name, kind in ModuleState._fields_ if kind is Ptr]


class MethodDef(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("function", Ptr), ("flags", Int), ("doc", ctypes.c_char_p)]


class Slot(ctypes.Structure):
    _fields_ = [("id", Int), ("value", Ptr)]


class ModuleDef(ctypes.Structure):
    """The interpreter's module definition."""

    _fields_ = [
        ("head", ctypes.c_byte * (object.__basicsize__ + 24)),
        ("name", ctypes.c_char_p),
        ("doc", ctypes.c_char_p),
        ("size", ctypes.c_ssize_t),
        ("methods", ctypes.POINTER(MethodDef)),
        ("slots", ctypes.POINTER(Slot)),
        ("traverse", Ptr),
        ("clear", Ptr),
        ("free", Ptr),
    ]


def _python_function(name, result, *arguments):
    function = getattr(ctypes.pythonapi, name)
    function.restype = result
    function.argtypes = arguments
    return function


_get_state = _python_function("PyModule_GetState", Ptr, ctypes.py_object)
_get_def = _python_function("PyModule_GetDef", Ptr, ctypes.py_object)
_get_slot = _python_function("PyType_GetSlot", Ptr, ctypes.py_object, Int)
_get_thread_dict = _python_function("PyThreadState_GetDict", Ptr)

_SLOT_TP_CLEAR = 51


def state_of(module):
    """The module's live state; writing a field changes the module."""
    return ModuleState.from_address(_get_state(module))


def definition_of(module):
    return ModuleDef.from_address(_get_def(module))


def object_at(address):
    """The object at an address that a live object's holder gave."""
    return ctypes.cast(address, ctypes.py_object).value


def thread_dict():
    """This thread's state dict."""
    return object_at(_get_thread_dict())


def create_module():
    """A further copy of the module that has not been executed."""
    support.add_paths()
    return _imp.create_dynamic(importlib.util.spec_from_file_location("optmonitoring", support.module_file()))


def new_module():
    """A further, executed copy of the module. Each takes a code-extra index for good: use few."""
    module = create_module()
    _imp.exec_dynamic(module)
    return module


def clear_module(module):
    """What the garbage collector does with an unreachable module, its dict included; returns the status."""
    clear = ctypes.PYFUNCTYPE(Int, ctypes.py_object)(_get_slot(type(module), _SLOT_TP_CLEAR))
    return clear(module)
