// Module definitions for made-up interpreters, and the functions around them with stand-in entries.

#include <string.h>

#include <string>

#include "failing_malloc.h"
#include "gtest/gtest.h"
#include "hosted_support.h"
#include "xpy_c_api_internal.h"

// Of the leak checker, where the build has one.
extern "C" {
__attribute__((weak)) void __lsan_disable(void);
__attribute__((weak)) void __lsan_enable(void);
}

struct tSlot {
    int id;
    void* value;
};

static PyObject* create_function(PyObject*, PyModuleDef*)
{
    return nullptr;
}

static int exec_function(PyObject*)
{
    return 0;
}

static int traverse_function(PyObject*, int (*)(PyObject*, void*), void*)
{
    return 0;
}

static int clear_function(PyObject*)
{
    return 0;
}

static void free_function(void*) {}

static PyMethodDef gMethods[] = {{nullptr, nullptr, 0, nullptr}};

class ModuleDefinition : public ::testing::Test
{
  protected:
    // Definitions and slot arrays are never freed, and nobody keeps those of a made-up interpreter.
    void SetUp() override
    {
        if (__lsan_disable)
            __lsan_disable();
        memset(static_cast<void*>(&global_XPy_C_API_Data), 0, sizeof global_XPy_C_API_Data);
        api.initialized = 1;
        api.pyobject_offsets = {0, 8, -1, -1, -1};
        set_minor(13);
        fDef.m_name = "a name";
        fDef.m_doc = "a doc";
        fDef.m_size = 123;
        fDef.m_methods = gMethods;
        fDef.m_create = create_function;
        fDef.m_exec = exec_function;
        fDef.m_multiple_interp_flag = 2;
        fDef.m_no_gil_support_flag = 1;
        fDef.m_traverse = traverse_function;
        fDef.m_clear = clear_function;
        fDef.m_free = free_function;
    }

    void TearDown() override
    {
        if (__lsan_enable)
            __lsan_enable();
    }

    static void set_minor(int minor)
    {
        api.major_version = 3;
        api.minor_version = minor;
    }

    // The word at an offset of the definition; offsets are for a 16-byte header.
    static void* word(const PyModuleDef* def, size_t offset)
    {
        void* result;
        memcpy(&result, reinterpret_cast<const char*>(def) + offset, sizeof result);
        return result;
    }
    static const tSlot* slots(const PyModuleDef* def) { return static_cast<const tSlot*>(word(def, 72)); }

    // "1 2 4=1 3=2" for slots up to the end pair; "none" without an array.
    std::string slot_text(int minor)
    {
        set_minor(minor);
        const tSlot* slot = slots(XPy_CreatePy3ModuleDef(&fDef));
        if (!slot)
            return "none";
        std::string text;
        for (; slot->id; slot++) {
            text += text.empty() ? "" : " ";
            text += std::to_string(slot->id);
            if (slot->id > 2)
                text += "=" + std::to_string(reinterpret_cast<intptr_t>(slot->value));
        }
        EXPECT_EQ(slot->value, nullptr);
        return text;
    }

    XPyModuleDef fDef = {};

  private:
    tSavedTable fSavedTable;
};

// ---- XPyModuleDef ----

TEST(XPyModuleDefRecord, KeepsItsFieldOrder)
{
    EXPECT_EQ(offsetof(XPyModuleDef, m_name), 0u);
    EXPECT_EQ(offsetof(XPyModuleDef, m_doc), 8u);
    EXPECT_EQ(offsetof(XPyModuleDef, m_size), 16u);
    EXPECT_EQ(offsetof(XPyModuleDef, m_methods), 24u);
    EXPECT_EQ(offsetof(XPyModuleDef, m_create), 32u);
    EXPECT_EQ(offsetof(XPyModuleDef, m_exec), 40u);
    EXPECT_EQ(offsetof(XPyModuleDef, m_multiple_interp_flag), 48u);
    EXPECT_EQ(offsetof(XPyModuleDef, m_no_gil_support_flag), 52u);
    EXPECT_EQ(offsetof(XPyModuleDef, m_traverse), 56u);
    EXPECT_EQ(offsetof(XPyModuleDef, m_clear), 64u);
    EXPECT_EQ(offsetof(XPyModuleDef, m_free), 72u);
}

// ---- Fields ----

TEST_F(ModuleDefinition, FieldsStandBehindTheHeaderAndTheRestIsZero)
{
    PyModuleDef* def = XPy_CreatePy3ModuleDef(&fDef);
    ASSERT_NE(def, nullptr);
    EXPECT_STREQ(static_cast<char*>(word(def, 40)), "a name");
    EXPECT_STREQ(static_cast<char*>(word(def, 48)), "a doc");
    EXPECT_EQ(reinterpret_cast<intptr_t>(word(def, 56)), 123);
    EXPECT_EQ(word(def, 64), gMethods);
    EXPECT_EQ(word(def, 80), reinterpret_cast<void*>(traverse_function));
    EXPECT_EQ(word(def, 88), reinterpret_cast<void*>(clear_function));
    EXPECT_EQ(word(def, 96), reinterpret_cast<void*>(free_function));
    for (size_t offset = 0; offset < 40; offset += 8)
        EXPECT_EQ(word(def, offset), nullptr) << offset;
    for (size_t offset = 104; offset < 2048; offset += 8)
        EXPECT_EQ(word(def, offset), nullptr) << offset;
}

TEST_F(ModuleDefinition, FieldsMoveWithTheHeadersSize)
{
    api.pyobject_offsets.type = 24;
    PyModuleDef* def = XPy_CreatePy3ModuleDef(&fDef);
    EXPECT_STREQ(static_cast<char*>(word(def, 56)), "a name");
    EXPECT_EQ(word(def, 112), reinterpret_cast<void*>(free_function));
}

TEST_F(ModuleDefinition, BeforeMultiPhaseLoadingOnlyTheFirstFourFieldsAreSet)
{
    for (int with_create = 0; with_create < 2; with_create++) {
        set_minor(4);
        fDef.m_create = with_create ? create_function : nullptr;
        tCapturedFd errors;
        PyModuleDef* def = XPy_CreatePy3ModuleDef(&fDef);
        EXPECT_EQ(errors.text(),
                  with_create ? "Setting multi-phase module loading functions not supported before 3.5" : "");
        ASSERT_NE(def, nullptr);
        EXPECT_STREQ(static_cast<char*>(word(def, 40)), "a name");
        EXPECT_EQ(word(def, 64), gMethods);
        for (size_t offset = 72; offset <= 96; offset += 8)
            EXPECT_EQ(word(def, offset), nullptr) << offset;
    }
}

TEST_F(ModuleDefinition, EachFieldMissingFromTheTableIsReportedAndAnswersNull)
{
    for (const char* field :
         {"m_name", "m_doc", "m_size", "m_methods", "m_traverse", "m_clear", "m_free", "m_slots"}) {
        XPy_FieldWithSize* row = py3_mod_def_fields;
        while (strcmp(row->name, field) != 0)
            row++;
        row->name = "renamed";
        tCapturedFd errors;
        EXPECT_EQ(XPy_CreatePy3ModuleDef(&fDef), nullptr) << field;
        EXPECT_EQ(errors.text(), std::string("Unable to find field offset for: ") + field + "\n");
        row->name = field;
    }
}

// ---- Slots ----

TEST_F(ModuleDefinition, SlotsFollowTheVersion)
{
    EXPECT_EQ(slot_text(5), "1 2");
    EXPECT_EQ(slot_text(11), "1 2");
    EXPECT_EQ(slot_text(12), "1 2 3=2") << "no GIL slot before 3.13";
    EXPECT_EQ(slot_text(13), "1 2 4=1 3=2");
    EXPECT_EQ(slot_text(14), "1 2 4=1 3=2");
    const tSlot* slot = slots(XPy_CreatePy3ModuleDef(&fDef));
    EXPECT_EQ(slot[0].value, reinterpret_cast<void*>(create_function));
    EXPECT_EQ(slot[1].value, reinterpret_cast<void*>(exec_function));
}

TEST_F(ModuleDefinition, FreeThreadedDefinitionsAreMarkedFrom3Dot15On)
{
    static const struct {
        const char* what;
        int minor;
        XPy_PyObjectOffsets offsets;
        int debug;
        size_t flags_at;
        uint16_t flags;
    } kBuilds[] = {
        {"free-threaded 3.15", 15, {-1, 24, 10, -1, -1}, 0, 8, 4},
        {"free-threaded 3.16", 16, {-1, 24, 10, -1, -1}, 0, 8, 4},
        {"free-threaded 3.14", 14, {-1, 24, 10, -1, -1}, 0, 8, 0},
        {"free-threaded, reference-tracing 3.15", 15, {-1, 40, 26, -1, -1}, 1, 24, 4},
        {"ordinary 3.15", 15, {0, 8, -1, 4, 6}, 0, 8, 0},
    };
    for (const auto& build : kBuilds) {
        set_minor(build.minor);
        api.pyobject_offsets = build.offsets;
        api.pydebug_build = build.debug;
        const char* def = reinterpret_cast<const char*>(XPy_CreatePy3ModuleDef(&fDef));
        for (size_t at = 0; at < static_cast<size_t>(build.offsets.type); at += 2) {
            uint16_t halfword;
            memcpy(&halfword, def + at, sizeof halfword);
            EXPECT_EQ(halfword, at == build.flags_at ? build.flags : 0) << build.what << " at " << at;
        }
    }
}

TEST_F(ModuleDefinition, SlotsAreLeftOutWithTheirFunctions)
{
    fDef.m_create = nullptr;
    EXPECT_EQ(slot_text(13), "2 4=1 3=2");
    fDef.m_no_gil_support_flag = 0;
    EXPECT_EQ(slot_text(13), "2 3=2");
    fDef.m_multiple_interp_flag = 0;
    EXPECT_EQ(slot_text(13), "2 3=0") << "a zero flag still has its slot";
    fDef.m_create = create_function;
    fDef.m_exec = nullptr;
    EXPECT_EQ(slot_text(13), "1 3=0");
}

TEST_F(ModuleDefinition, WithoutFunctionsAndGilFlagThereIsNoSlotArray)
{
    fDef.m_create = nullptr;
    fDef.m_exec = nullptr;
    fDef.m_no_gil_support_flag = 0;
    for (int minor : {5, 11, 12, 13, 14})
        EXPECT_EQ(slot_text(minor), "none") << minor;
    fDef.m_no_gil_support_flag = 1;
    for (int minor : {5, 11, 12})
        EXPECT_EQ(slot_text(minor), "none") << minor;
    EXPECT_EQ(slot_text(13), "4=1 3=2");
    PyModuleDef* def = XPy_CreatePy3ModuleDef(&fDef);
    EXPECT_EQ(word(def, 96), reinterpret_cast<void*>(free_function));
}

// ---- Memory ----

TEST_F(ModuleDefinition, BothBuffersLiveOnAndEachCallMakesItsOwn)
{
    tHeapWatch watch;
    PyModuleDef* first = XPy_CreatePy3ModuleDef(&fDef);
    PyModuleDef* second = XPy_CreatePy3ModuleDef(&fDef);
    watch.stop();
    EXPECT_NE(first, second);
    EXPECT_NE(slots(first), slots(second));
    EXPECT_EQ(watch.allocations(), 4);
    EXPECT_EQ(watch.frees(), 0);
    EXPECT_EQ(watch.requested(1), 2048u);
    EXPECT_EQ(watch.requested(2), 80u);
}

TEST_F(ModuleDefinition, EitherAllocationFailingAnswersNull)
{
    for (int failing = 1; failing <= 2; failing++) {
        tHeapWatch watch(failing);
        PyModuleDef* def = XPy_CreatePy3ModuleDef(&fDef);
        watch.stop();
        EXPECT_EQ(def, nullptr) << failing;
    }
}

// ---- Creating modules ----

static PyModuleDef* gCreatedDef;
static int gCreatedApiVersion;
static PyObject* const kSomeObject = reinterpret_cast<PyObject*>(&gCreatedDef);

TEST_F(ModuleDefinition, Python3ModuleIsMadeFromASinglePhaseDefinition)
{
    api.api_version = 1013;
    api.PyModule_Create2 = [](PyModuleDef* def, int api_version) {
        gCreatedDef = def;
        gCreatedApiVersion = api_version;
        return kSomeObject;
    };
    EXPECT_EQ(XPy_InitModule("single", gMethods), kSomeObject);
    EXPECT_EQ(gCreatedApiVersion, 1013);
    EXPECT_STREQ(static_cast<char*>(word(gCreatedDef, 40)), "single");
    EXPECT_EQ(word(gCreatedDef, 48), nullptr);
    EXPECT_EQ(reinterpret_cast<intptr_t>(word(gCreatedDef, 56)), -1);
    EXPECT_EQ(word(gCreatedDef, 64), gMethods);
    for (size_t offset = 72; offset <= 96; offset += 8)
        EXPECT_EQ(word(gCreatedDef, offset), nullptr) << offset;
}

TEST_F(ModuleDefinition, Python2ModuleIsMadeWithOneCall)
{
    api.major_version = 2;
    api.minor_version = 7;
    api.api_version = 1013;
    api.Py_InitModule = [](const char* name, PyMethodDef* methods, const char* doc, PyObject* self, int api_version) {
        EXPECT_STREQ(name, "two");
        EXPECT_EQ(methods, gMethods);
        EXPECT_EQ(doc, nullptr);
        EXPECT_EQ(self, nullptr);
        EXPECT_EQ(api_version, 1013);
        return kSomeObject;
    };
    EXPECT_EQ(XPy_InitModule("two", gMethods), kSomeObject);
}

TEST_F(ModuleDefinition, MultiPhaseDefinitionIsHandedToTheInterpreter)
{
    api.PyModuleDef_Init = [](PyModuleDef* def) {
        gCreatedDef = def;
        return kSomeObject;
    };
    EXPECT_EQ(XPyModuleDef_Init(&fDef), kSomeObject);
    EXPECT_STREQ(static_cast<char*>(word(gCreatedDef, 40)), "a name");
    EXPECT_NE(slots(gCreatedDef), nullptr);
}

TEST_F(ModuleDefinition, OutOfMemoryIsRaised)
{
    static int gNoMemory;
    gNoMemory = 0;
    api.PyErr_NoMemory = []() -> PyObject* {
        gNoMemory++;
        return nullptr;
    };
    for (int i = 0; i < 2; i++) {
        tHeapWatch watch(1);
        PyObject* result = i ? XPy_InitModule("m", gMethods) : XPyModuleDef_Init(&fDef);
        watch.stop();
        EXPECT_EQ(result, nullptr);
        EXPECT_EQ(gNoMemory, i + 1);
    }
}

TEST_F(ModuleDefinition, BothStartTheBindingLayerUpFirstAndPassItsFailureOn)
{
    api.initialized = 0;
    tCapturedFd errors;
    EXPECT_EQ(XPy_InitModule("m", gMethods), nullptr);
    api.failed_to_initialize = 0;
    EXPECT_EQ(XPyModuleDef_Init(&fDef), nullptr);
    EXPECT_EQ(errors.text(), "Failed to find module init function\nFailed to find module init function\n");
}

// ---- The frame-evaluation hook ----

static struct {
    char before[40];
    XPy_EvalFrameFunc eval_frame;
} gInterpreter;
static struct {
    void* next;
    void* interp;
} gThread;
static XPy_EvalFrameFunc gInstalled;
static char gOldFunction, gNewFunction;

class EvalFrameHook : public ModuleDefinition
{
  protected:
    void SetUp() override
    {
        ModuleDefinition::SetUp();
        gThread = {nullptr, &gInterpreter};
        gInterpreter.eval_frame = &gOldFunction;
        gInstalled = &gOldFunction;
        api.tstate_offsets.interp = 8;
        api.interpreter_state_offsets.eval_frame = -1;
        api.PyThreadState_Get = []() { return reinterpret_cast<PyThreadState*>(&gThread); };
        api._PyInterpreterState_GetEvalFrameFunc = [](PyInterpreterState* interp) -> XPy_EvalFrameFunc {
            EXPECT_EQ(static_cast<void*>(interp), &gInterpreter);
            return gInstalled;
        };
        api._PyInterpreterState_SetEvalFrameFunc = [](PyInterpreterState* interp, XPy_EvalFrameFunc func) {
            EXPECT_EQ(static_cast<void*>(interp), &gInterpreter);
            gInstalled = func;
        };
    }

    struct tFamily {
        XPy_EvalFrameFunc (*get)();
        int (*set)(XPy_EvalFrameFunc);
    };
    static void expect_unsupported(const tFamily& family, int line)
    {
        EXPECT_EQ(family.get(), nullptr) << line;
        EXPECT_EQ(family.set(&gNewFunction), -1) << line;
        EXPECT_EQ(gInstalled, &gOldFunction) << line;
        EXPECT_EQ(gInterpreter.eval_frame, &gOldFunction) << line;
    }
    static constexpr tFamily kField = {XPy_GetEvalFrameFunctionNoThreadState, XPy_SetEvalFrameFunctionNoThreadState};
    static constexpr tFamily kWithThreadState = {XPy_GetEvalFrameFunctionWithThreadState,
                                                 XPy_SetEvalFrameFunctionWithThreadState};
    static constexpr tFamily kInterpreterFrame = {XPy_GetEvalFrameFunctionPyInterpreterFrame,
                                                  XPy_SetEvalFrameFunctionPyInterpreterFrame};
};

TEST_F(EvalFrameHook, FieldIsReadAndWrittenWhereItsOffsetIsKnown)
{
    expect_unsupported(kField, __LINE__);
    api.interpreter_state_offsets.eval_frame = 40;
    EXPECT_EQ(kField.get(), &gOldFunction);
    EXPECT_EQ(kField.set(&gNewFunction), 0);
    EXPECT_EQ(gInterpreter.eval_frame, &gNewFunction);
    EXPECT_EQ(kField.get(), &gNewFunction);
    EXPECT_EQ(kField.set(nullptr), 0) << "whatever it is given is installed";
    EXPECT_EQ(gInterpreter.eval_frame, nullptr);
    EXPECT_EQ(gInstalled, &gOldFunction);
}

TEST_F(EvalFrameHook, EntriesServeExactlyTheirVersions)
{
    for (int minor = 0; minor <= 15; minor++) {
        set_minor(minor);
        EXPECT_EQ(XPy_SupportsEvalFunctionWithThreadState(), minor == 9 || minor == 10) << minor;
        EXPECT_EQ(XPy_SupportsEvalFunctionPyInterpreterFrame(), minor == 11) << minor;
        if (minor != 9 && minor != 10)
            expect_unsupported(kWithThreadState, minor);
        if (minor != 11)
            expect_unsupported(kInterpreterFrame, minor);
        if (minor < 9 || minor > 11)
            continue;
        const tFamily& family = minor == 11 ? kInterpreterFrame : kWithThreadState;
        EXPECT_EQ(family.get(), &gOldFunction);
        EXPECT_EQ(family.set(&gNewFunction), 0);
        EXPECT_EQ(family.get(), &gNewFunction);
        EXPECT_EQ(family.set(&gOldFunction), 0);
    }
    api.major_version = 2;
    for (int minor : {9, 10, 11}) {
        api.minor_version = minor;
        EXPECT_FALSE(XPy_SupportsEvalFunctionWithThreadState());
        EXPECT_FALSE(XPy_SupportsEvalFunctionPyInterpreterFrame());
        expect_unsupported(kWithThreadState, minor);
        expect_unsupported(kInterpreterFrame, minor);
    }
}

TEST_F(EvalFrameHook, MissingEntriesAreUnsupported)
{
    for (int minor : {10, 11}) {
        const tFamily& family = minor == 11 ? kInterpreterFrame : kWithThreadState;
        auto supports =
            minor == 11 ? XPy_SupportsEvalFunctionPyInterpreterFrame : XPy_SupportsEvalFunctionWithThreadState;
        set_minor(minor);
        auto getter = api._PyInterpreterState_GetEvalFrameFunc;
        api._PyInterpreterState_GetEvalFrameFunc = nullptr;
        EXPECT_EQ(family.get(), nullptr);
        EXPECT_EQ(family.set(&gOldFunction), 0) << "the setter needs its own entry only";
        EXPECT_FALSE(supports());
        api._PyInterpreterState_GetEvalFrameFunc = getter;
        auto setter = api._PyInterpreterState_SetEvalFrameFunc;
        api._PyInterpreterState_SetEvalFrameFunc = nullptr;
        EXPECT_EQ(family.set(&gNewFunction), -1);
        EXPECT_EQ(family.get(), &gOldFunction);
        EXPECT_FALSE(supports());
        api._PyInterpreterState_SetEvalFrameFunc = setter;
    }
}

TEST_F(EvalFrameHook, WithoutAThreadOrAnInterpreterNothingIsTouched)
{
    api.interpreter_state_offsets.eval_frame = 40;
    for (int step = 0; step < 2; step++) {
        if (step == 0)
            gThread.interp = nullptr;
        else
            api.PyThreadState_Get = []() -> PyThreadState* { return nullptr; };
        set_minor(8);
        expect_unsupported(kField, __LINE__);
        set_minor(10);
        expect_unsupported(kWithThreadState, __LINE__);
        set_minor(11);
        expect_unsupported(kInterpreterFrame, __LINE__);
    }
}
