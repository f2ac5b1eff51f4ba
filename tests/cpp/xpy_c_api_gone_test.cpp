// The fallbacks that only report, each called once inside an interpreter.

#include <string>

#include "hosted_support.h"
#include "xpy_c_api_internal.h"

class GoneFunctions : public HostedTest
{
};

struct tReporting {
    const char* name;
    const char* text;
    bool raises;
    bool (*fails)();  // calls the fallback; true when it answers its failure value
};

template <typename T>
static bool is_null(T* value)
{
    return value == nullptr;
}

static const tReporting kReporting[] = {
    {"PyUnicode_AsUTF8AndSize", "PyUnicode_AsUTF8AndSize not available", true,
     [] { return is_null(Backup_PyUnicode_AsUTF8AndSize(nullptr, nullptr)); }},
    {"PyType_GetSlot", "PyType_GetSlot not available", true,
     [] { return is_null(Backup_PyType_GetSlot(nullptr, 1)); }},
    {"PyType_GetModuleState", "PyType_GetModuleState() not available before 3.9", false,
     [] { return is_null(Backup_PyType_GetModuleState(nullptr)); }},
    {"PyType_GetModule", "PyType_GetModule() not available before 3.9", false,
     [] { return is_null(Backup_PyType_GetModule(nullptr)); }},
    {"PyType_GetModuleByDef", "PyType_GetModule() not available before 3.9", false,
     [] { return is_null(Backup_PyType_GetModuleByType(nullptr, nullptr)); }},
    {"PyType_FromModuleAndSpec", "PyType_FromModuleAndSpec() not available before 3.9", false,
     [] { return is_null(Backup_PyType_FromModuleAndSpec(nullptr, nullptr, nullptr)); }},
    {"PyType_FromMetaclass", "PyType_FromMetaclass() not available before 3.12", false,
     [] { return is_null(Backup_PyType_FromMetaclass(nullptr, nullptr, nullptr, nullptr)); }},
    {"PyModule_GetState", "PyModule_GetState() not available before 3.9", false,
     [] { return is_null(Backup_PyModule_GetState(nullptr)); }},
    {"PyThread_acquire_lock_timed", "Backup_PyThread_acquire_lock_timed() called\n", false,
     [] { return Backup_PyThread_acquire_lock_timed(nullptr, 1, 0) == 0; }},
    {"PyThread_tss_alloc", "PyThread_tss_alloc not available", true,
     [] { return is_null(Backup_PyThread_tss_alloc()); }},
    {"PyThread_tss_free", "PyThread_tss_free not available", false,
     [] {
         Backup_PyThread_tss_free(nullptr);
         return true;
     }},
    {"PyThread_tss_create", "PyThread_tss_create not available", true,
     [] { return Backup_PyThread_tss_create(nullptr) == -1; }},
    {"PyThread_tss_delete", "PyThread_tss_delete not available", false,
     [] {
         Backup_PyThread_tss_delete(nullptr);
         return true;
     }},
    {"PyThread_tss_set", "PyThread_tss_set not available", true,
     [] { return Backup_PyThread_tss_set(nullptr, nullptr) == -1; }},
    {"PyThread_tss_get", "PyThread_tss_get not available", true,
     [] { return is_null(Backup_PyThread_tss_get(nullptr)); }},
    {"PyThreadState_GetDict", "Backup_PyThreadState_GetDict called\n", false,
     [] { return is_null(Backup_PyThreadState_GetDict()); }},
    {"PyObject_VectorcallDict", "Backup_PyObject_VectorcallDict called\n", false,
     [] { return is_null(Backup_PyObject_VectorcallDict(nullptr, nullptr, 0, nullptr)); }},
    {"PyObject_CallFunctionObjArgs", "PyObject_CallFunctionObjArgs not available", true,
     [] { return is_null(Backup_PyObject_CallFunctionObjArgs(nullptr, nullptr)); }},
    {"_PyEval_SetTrace", "Backup__PyEval_SetTrace() called\n", false,
     [] { return Backup__PyEval_SetTrace(nullptr, nullptr, nullptr) == -1; }},
    {"PyEval_SetTraceAllThreads", "Backup_PyEval_SetTraceAllThreads called\n", false,
     [] {
         Backup_PyEval_SetTraceAllThreads(nullptr, nullptr);
         return true;
     }},
    {"_PyEval_RequestCodeExtraIndex", "_PyEval_RequestCodeExtraIndex not available", true,
     [] { return Backup_PyUnstable_Eval_RequestCodeExtraIndex(nullptr) == -1; }},
    {"PyErr_SetRaisedException", "PyErr_SetRaisedException not available", false,
     [] {
         Backup_PyErr_SetRaisedException(nullptr);
         return true;
     }},
    {"PyErr_GetRaisedException", "PyErr_GetRaisedException not available", false,
     [] { return is_null(Backup_PyErr_GetRaisedException()); }},
    {"PyErr_SetHandledException", "PyErr_SetHandledException not available", false,
     [] {
         Backup_PyErr_SetHandledException(nullptr);
         return true;
     }},
    {"PyErr_GetHandledException", "PyErr_GetHandledException not available", false,
     [] { return is_null(Backup_PyErr_GetHandledException()); }},
    {"_PyCode_GetExtra", "_PyCode_GetExtra not available", true,
     [] { return Backup_PyUnstable_Code_GetExtra(nullptr, 0, nullptr) == -1; }},
    {"_PyCode_SetExtra", "_PyCode_SetExtra not available", true,
     [] { return Backup_PyUnstable_Code_SetExtra(nullptr, 0, nullptr) == -1; }},
    {"PyCapsule_New", "PyCapsule not available", true,
     [] { return is_null(Backup_PyCapsule_New(nullptr, nullptr, nullptr)); }},
    {"PyCapsule_GetPointer", "PyCapsule not available", true,
     [] { return is_null(Backup_PyCapsule_GetPointer(nullptr, nullptr)); }},
    {"PyCapsule_SetDestructor", "PyCapsule not available", true,
     [] { return Backup_PyCapsule_SetDestructor(nullptr, nullptr) == -1; }},
    {"PyCMethod_New", "PyCMethod_New not available", true,
     [] { return is_null(Backup_PyCMethod_New(nullptr, nullptr, nullptr, nullptr)); }},
};

TEST_F(GoneFunctions, UnavailableFunctionsReportTheirTextAndAnswerTheFailureValue)
{
    EXPECT_EQ(sizeof kReporting / sizeof *kReporting, 31u);
    for (const tReporting& reporting : kReporting) {
        tCapturedFd errors;
        bool failed = reporting.fails();
        EXPECT_EQ(errors.text(), reporting.text) << reporting.name;
        EXPECT_TRUE(failed) << reporting.name;
        EXPECT_EQ(take_error(), reporting.raises ? std::string("RuntimeError: ") + reporting.text : "")
            << reporting.name;
    }
}
