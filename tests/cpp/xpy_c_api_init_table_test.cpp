// The record of the binding table, field by field, and the functions that work over a made-up one.

#include <stddef.h>
#include <string.h>

#include "dprintf.h"
#include "gtest/gtest.h"
#include "hosted_support.h"

// ---- The record ----

TEST(BindingTable, BeginsWithTheScalarFieldsInOrder)
{
    const size_t offsets[] = {
        offsetof(XPy_C_API_Data, initialized),     offsetof(XPy_C_API_Data, failed_to_initialize),
        offsetof(XPy_C_API_Data, major_version),   offsetof(XPy_C_API_Data, minor_version),
        offsetof(XPy_C_API_Data, micro_version),   offsetof(XPy_C_API_Data, api_version),
        offsetof(XPy_C_API_Data, pydebug_build),   offsetof(XPy_C_API_Data, can_update_refcount_directly),
        offsetof(XPy_C_API_Data, refcnt_is_32bit), offsetof(XPy_C_API_Data, cached_pid),
    };
    size_t expected = 0;
    for (size_t offset : offsets) {
        EXPECT_EQ(offset, expected);
        expected += 4;
    }
    EXPECT_EQ(offsetof(XPy_C_API_Data, dll_ptr), 40u);
    EXPECT_EQ(offsetof(XPy_C_API_Data, pyobject_offsets), 48u);
    EXPECT_EQ(offsetof(XPy_C_API_Data, tstate_offsets), 48u + 5 * 8);
    EXPECT_EQ(offsetof(XPy_C_API_Data, frame_offsets), 48u + 15 * 8);
    EXPECT_EQ(offsetof(XPy_C_API_Data, interpreter_state_offsets), 48u + 25 * 8);
    EXPECT_EQ(offsetof(XPy_C_API_Data, cframe_offsets), 48u + 26 * 8);
    EXPECT_EQ(offsetof(XPy_C_API_Data, typeobject_offsets), 48u + 27 * 8);
    EXPECT_EQ(offsetof(XPy_C_API_Data, max_align), 48u + 31 * 8);
}

TEST(BindingTable, OffsetRecordsKeepTheirFieldOrder)
{
    const size_t offsets[] = {offsetof(XPy_PyObjectOffsets, refcnt), offsetof(XPy_PyObjectOffsets, type),
                              offsetof(XPy_PyObjectOffsets, mutex),  offsetof(XPy_PyObjectOffsets, overflow),
                              offsetof(XPy_PyObjectOffsets, flags),  sizeof(XPy_PyObjectOffsets)};
    for (size_t i = 0; i < sizeof offsets / sizeof *offsets; i++)
        EXPECT_EQ(offsets[i], 8 * i);
    const size_t tstate[] = {offsetof(XPy_ThreadStateOffsets, next),
                             offsetof(XPy_ThreadStateOffsets, interp),
                             offsetof(XPy_ThreadStateOffsets, frame),
                             offsetof(XPy_ThreadStateOffsets, c_tracefunc),
                             offsetof(XPy_ThreadStateOffsets, c_traceobj),
                             offsetof(XPy_ThreadStateOffsets, thread_id),
                             offsetof(XPy_ThreadStateOffsets, tracing),
                             offsetof(XPy_ThreadStateOffsets, use_tracing),
                             offsetof(XPy_ThreadStateOffsets, cframe),
                             offsetof(XPy_ThreadStateOffsets, what_event),
                             sizeof(XPy_ThreadStateOffsets)};
    for (size_t i = 0; i < sizeof tstate / sizeof *tstate; i++)
        EXPECT_EQ(tstate[i], 8 * i);
    const size_t frame[] = {offsetof(XPy_FrameOffsets, lineno),
                            offsetof(XPy_FrameOffsets, code),
                            offsetof(XPy_FrameOffsets, builtins),
                            offsetof(XPy_FrameOffsets, trace),
                            offsetof(XPy_FrameOffsets, iblock),
                            offsetof(XPy_FrameOffsets, locals),
                            offsetof(XPy_FrameOffsets, globals),
                            offsetof(XPy_FrameOffsets, back),
                            offsetof(XPy_FrameOffsets, stacktop),
                            offsetof(XPy_FrameOffsets, state),
                            sizeof(XPy_FrameOffsets)};
    for (size_t i = 0; i < sizeof frame / sizeof *frame; i++)
        EXPECT_EQ(frame[i], 8 * i);
    const size_t type[] = {offsetof(XPy_TypeObjectOffsets, tp_basicsize),
                           offsetof(XPy_TypeObjectOffsets, tp_vectorcall_offset),
                           offsetof(XPy_TypeObjectOffsets, tp_flags), offsetof(XPy_TypeObjectOffsets, tp_base),
                           sizeof(XPy_TypeObjectOffsets)};
    for (size_t i = 0; i < sizeof type / sizeof *type; i++)
        EXPECT_EQ(type[i], 8 * i);
}

TEST(BindingTable, EntriesStandInTheListedOrder)
{
    struct tListed {
        const char* name;
        size_t offset;
    };
    const tListed listed[] = {
#define LISTED_FN(entry, presence) {#entry, offsetof(XPy_C_API_Data, entry)},
#include "xpy_c_api_entry_list.inc"
        {"Py_None", offsetof(XPy_C_API_Data, Py_None)},
        {"Py_True", offsetof(XPy_C_API_Data, Py_True)},
        {"Py_False", offsetof(XPy_C_API_Data, Py_False)},
        {"Py_FileSystemDefaultEncoding", offsetof(XPy_C_API_Data, Py_FileSystemDefaultEncoding)},
#define LISTED_EXC(exception) {#exception, offsetof(XPy_C_API_Data, exception)},
#include "xpy_c_api_entry_list.inc"
#define LISTED_TYPE(entry, symbol, presence) {#entry, offsetof(XPy_C_API_Data, entry)},
#include "xpy_c_api_entry_list.inc"
    };
    const size_t count = sizeof listed / sizeof *listed;
    EXPECT_EQ(count, 236u + 4 + 22 + 21);
    size_t expected = offsetof(XPy_C_API_Data, max_align) + 8;
    for (const tListed& entry : listed) {
        EXPECT_EQ(entry.offset, expected) << entry.name;
        expected += 8;
    }
    EXPECT_EQ(sizeof(XPy_C_API_Data), expected);
}

// ---- The log of code without module state ----

class GlobalLog : public ::testing::Test
{
  protected:
    void SetUp() override { api.initialized = 0; }
    void TearDown() override { set_dprintf_file(nullptr, -1, nullptr); }

  private:
    tSavedTable fSavedTable;
};

TEST_F(GlobalLog, SetDPrintfFileBeforeStartUpIsRefusedAndLogged)
{
    EXPECT_EQ(XPy_SetDPrintfFile(nullptr, -1, nullptr), 0);
    FILE* log = tmpfile();
    EXPECT_EQ(XPy_SetDPrintfNativeFile(fileno(log), nullptr), 1);
    EXPECT_EQ(XPy_SetDPrintfFile(nullptr, -1, nullptr), 0);
    char text[200] = "";
    rewind(log);
    text[fread(text, 1, sizeof text - 1, log)] = '\0';
    EXPECT_STREQ(text, "XPy_SetDPrintfFile() called when global_XPy_C_API_Data.initialized is false\n");
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.fileno, fileno(log)) << "the refused file changed nothing";
    fclose(log);
}

TEST_F(GlobalLog, SetDPrintfFileAfterStartUpReplacesTheOutput)
{
    api.initialized = 1;
    char handle[] = "handle";
    EXPECT_EQ(XPy_SetDPrintfFile(nullptr, 77, handle), 1);
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.fileno, 77);
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.win32_handle, static_cast<void*>(handle));
    EXPECT_EQ(XPy_SetDPrintfNativeFile(-1, nullptr), 1);
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.fileno, -1);
}

TEST_F(GlobalLog, SetDPrintfMaskAnswersThePreviousMask)
{
    int before = XPy_SetDPrintfMask(kLogOther | kLogIO);
    EXPECT_EQ(XPy_SetDPrintfMask(kLogCore), kLogOther | kLogIO);
    EXPECT_EQ(get_dprintf_mask(), kLogCore);
    EXPECT_EQ(XPy_SetDPrintfMask(before), kLogCore);
}

// ---- Reference counts, on made-up objects ----

static int gIncRefs;
static int gDecRefs;

class ReferenceCounts : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        gIncRefs = gDecRefs = 0;
        api.Py_IncRef = [](PyObject*) { gIncRefs++; };
        api.Py_DecRef = [](PyObject*) { gDecRefs++; };
        api.pyobject_offsets = {8, 16, -1, -1, -1};
        api.can_update_refcount_directly = 1;
        memset(fWords, 0x5a, sizeof fWords);
    }
    PyObject* obj() { return reinterpret_cast<PyObject*>(fWords); }
    void set32(uint32_t value) { memcpy(&fWords[1], &value, sizeof value); }
    uint32_t get32() const
    {
        uint32_t value;
        memcpy(&value, &fWords[1], sizeof value);
        return value;
    }

    int64_t fWords[4];

  private:
    tSavedTable fSavedTable;
};

TEST_F(ReferenceCounts, SixtyFourBitCountsChangeInPlace)
{
    api.refcnt_is_32bit = 0;
    fWords[1] = 5;
    XPy_DoIncRef(obj());
    EXPECT_EQ(fWords[1], 6);
    XPy_DoDecRef(obj());
    XPy_DoDecRef(obj());
    EXPECT_EQ(fWords[1], 4);
    EXPECT_EQ(XPy_GetRefCnt(obj()), 4);
    EXPECT_FALSE(XPy_IsImmortal(obj()));
    EXPECT_EQ(gIncRefs + gDecRefs, 0);
    EXPECT_EQ(fWords[0], 0x5a5a5a5a5a5a5a5a);
    EXPECT_EQ(fWords[2], 0x5a5a5a5a5a5a5a5a);
}

TEST_F(ReferenceCounts, SixtyFourBitCountsKnowNoImmortality)
{
    api.refcnt_is_32bit = 0;
    fWords[1] = 0xffffffff;
    EXPECT_FALSE(XPy_IsImmortal(obj()));
    XPy_DoIncRef(obj());
    EXPECT_EQ(fWords[1], 0x100000000);
}

TEST_F(ReferenceCounts, SixtyFourBitCountOfOneGoesThroughTheInterpreter)
{
    api.refcnt_is_32bit = 0;
    for (int64_t count : {INT64_C(1), INT64_C(0), INT64_C(-3)}) {
        fWords[1] = count;
        gDecRefs = 0;
        XPy_DoDecRef(obj());
        EXPECT_EQ(fWords[1], count);
        EXPECT_EQ(gDecRefs, 1);
    }
}

TEST_F(ReferenceCounts, ThirtyTwoBitCountsLeaveTheOtherHalfAlone)
{
    api.refcnt_is_32bit = 1;
    set32(2);
    XPy_DoIncRef(obj());
    EXPECT_EQ(get32(), 3u);
    XPy_DoDecRef(obj());
    EXPECT_EQ(get32(), 2u);
    EXPECT_EQ(XPy_GetRefCnt(obj()), 2);
    EXPECT_EQ(static_cast<uint64_t>(fWords[1]) >> 32, 0x5a5a5a5au);
    EXPECT_EQ(gIncRefs + gDecRefs, 0);
}

TEST_F(ReferenceCounts, ImmortalObjectsAreNeverWritten)
{
    api.refcnt_is_32bit = 1;
    for (uint32_t count : {0xffffffffu, 0x80000000u, 0xc0000000u}) {
        set32(count);
        EXPECT_TRUE(XPy_IsImmortal(obj()));
        XPy_DoIncRef(obj());
        XPy_DoDecRef(obj());
        EXPECT_EQ(get32(), count);
        EXPECT_EQ(XPy_GetRefCnt(obj()), static_cast<Py_ssize_t>(count));
    }
    EXPECT_EQ(gIncRefs + gDecRefs, 0);
}

TEST_F(ReferenceCounts, ThirtyTwoBitCountOfOneGoesThroughTheInterpreter)
{
    api.refcnt_is_32bit = 1;
    set32(1);
    XPy_DoDecRef(obj());
    EXPECT_EQ(get32(), 1u);
    EXPECT_EQ(gDecRefs, 1);
}

TEST_F(ReferenceCounts, WithoutDirectUpdatesEveryChangeGoesThroughTheInterpreter)
{
    api.can_update_refcount_directly = 0;
    for (int wide = 0; wide < 2; wide++) {
        api.refcnt_is_32bit = wide;
        gIncRefs = gDecRefs = 0;
        fWords[1] = 5;
        XPy_DoIncRef(obj());
        XPy_DoDecRef(obj());
        EXPECT_EQ(fWords[1], 5);
        EXPECT_EQ(gIncRefs, 1);
        EXPECT_EQ(gDecRefs, 1);
    }
}

TEST_F(ReferenceCounts, CallVariantsAlwaysGoThroughTheInterpreter)
{
    fWords[1] = 5;
    XPy_CallIncRef(obj());
    XPy_CallDecRef(obj());
    EXPECT_EQ(fWords[1], 5);
    EXPECT_EQ(gIncRefs, 1);
    EXPECT_EQ(gDecRefs, 1);
}

TEST_F(ReferenceCounts, UnknownCountOffsetMeansNoCountAndNoImmortality)
{
    api.pyobject_offsets.refcnt = -1;
    api.refcnt_is_32bit = 1;
    EXPECT_EQ(XPy_GetRefCnt(obj()), -1);
    EXPECT_FALSE(XPy_IsImmortal(obj()));
}

TEST_F(ReferenceCounts, BorrowedTypeGivesTheNewReferenceBack)
{
    static PyObject* gType;
    gType = obj();
    api.PyObject_Type = [](PyObject*) { return gType; };
    EXPECT_EQ(reinterpret_cast<PyObject*>(XPy_BorrowType(obj())), gType);
    EXPECT_EQ(gDecRefs, 1);
    gType = nullptr;
    EXPECT_EQ(XPy_BorrowType(obj()), nullptr);
    EXPECT_EQ(gDecRefs, 1);
}

// ---- Equality ----

TEST_F(ReferenceCounts, EqualityAsksTheRichComparisonFirst)
{
    static int gOperator;
    api.PyObject_RichCompareBool = [](PyObject*, PyObject*, int op) {
        gOperator = op;
        return -1;
    };
    EXPECT_EQ(XPy_PyObjectsEqual(obj(), obj()), -1);
    EXPECT_EQ(gOperator, 2);
    api.PyObject_RichCompareBool = [](PyObject* a, PyObject* b, int) { return static_cast<int>(a == b); };
    EXPECT_EQ(XPy_PyObjectsEqual(obj(), obj()), 1);
    EXPECT_EQ(XPy_PyObjectsEqual(obj(), nullptr), 0);
}

TEST_F(ReferenceCounts, EqualityWithoutRichComparisonUsesTheOrder)
{
    static int gOrder;
    static PyObject* gError;
    api.PyObject_RichCompareBool = nullptr;
    api.PyObject_Compare = [](PyObject*, PyObject*) { return gOrder; };
    api.PyErr_Occurred = []() { return gError; };
    gError = nullptr;
    gOrder = 0;
    EXPECT_EQ(XPy_PyObjectsEqual(obj(), obj()), 1);
    gOrder = 1;
    EXPECT_EQ(XPy_PyObjectsEqual(obj(), obj()), 0);
    gOrder = -1;
    EXPECT_EQ(XPy_PyObjectsEqual(obj(), obj()), 0) << "-1 is also the order 'less'";
    gError = obj();
    EXPECT_EQ(XPy_PyObjectsEqual(obj(), obj()), -1);
    gOrder = 0;
    EXPECT_EQ(XPy_PyObjectsEqual(obj(), obj()), 1) << "an error pending from before does not matter";
}
