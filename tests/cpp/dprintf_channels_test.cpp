// The log's records, masks and native output. Most of it needs no interpreter and runs in both test programs; what
// needs Python objects is hosted, what makes the C heap fail is plain.

#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <type_traits>

#include "log_test_support.h"
#ifndef HOSTED_TESTS
#include "failing_malloc.h"
#endif

// ---- Records: hosts read them, so the places of their fields are fixed ----

static_assert(offsetof(tSingleDPData, initialized) == 0, "");
static_assert(offsetof(tSingleDPData, file_obj) == 8, "");
static_assert(offsetof(tSingleDPData, fileno) == 16, "");
static_assert(offsetof(tSingleDPData, win32_handle) == 24, "");
static_assert(offsetof(tSingleDPData, in_dprint_count) == 32, "");
static_assert(sizeof(tSingleDPData) == 40, "");
static_assert(std::is_same<decltype(tSingleDPData::win32_handle), void*>::value, "");

static_assert(offsetof(tDPData, initialized) == 0, "");
static_assert(offsetof(tDPData, mask) == 4, "");
static_assert(offsetof(tDPData, shared_single_dp_data) == 8, "");
static_assert(offsetof(tDPData, core) == 48, "");
static_assert(offsetof(tDPData, filenames) == 56, "");
static_assert(offsetof(tDPData, internal_failures) == 64, "");
static_assert(offsetof(tDPData, threading) == 72, "");
static_assert(offsetof(tDPData, initial_monitoring_callbacks) == 80, "");
static_assert(offsetof(tDPData, second_monitoring_callbacks) == 88, "");
static_assert(offsetof(tDPData, _repr_str1) == 96, "");
static_assert(offsetof(tDPData, _repr_str2) == 104, "");
static_assert(sizeof(tDPData) == 112, "");

static_assert(kLogOther == 1 && kLogFilenames == 2 && kLogCore == 4 && kLogBreakpoints == 8, "");
static_assert(kLogExceptions == 16 && kLogIO == 32 && kLogInternalFailures == 64 && kLogThreading == 128, "");
static_assert(kLogInitialMonitoringCallbacks == 256 && kLogSecondMonitoringCallbacks == 512, "");
static_assert(kDefaultLogMask == 84, "");

namespace {

// Read before any test can change them.
const int kMaskAtLoad = gDPrintfMask;
const int kNativeFilenoAtLoad = gDPrintfNativeFileno;
const PyObject* const kFileAtLoad = gDPrintfFile;
const int kInitializedAtLoad = gUnsafeGlobalDPData.initialized;

constexpr int kAllDomains = 1023;

struct tDomain {
    int bit;
    tSingleDPData* tDPData::*channel;  // null: the domain has none
};

const tDomain kDomains[] = {
    {1, nullptr},
    {2, &tDPData::filenames},
    {4, &tDPData::core},
    {8, nullptr},
    {16, nullptr},
    {32, nullptr},
    {64, &tDPData::internal_failures},
    {128, &tDPData::threading},
    {256, &tDPData::initial_monitoring_callbacks},
    {512, &tDPData::second_monitoring_callbacks},
};

// The bits of the domains whose channel is on; each one that is on must be the record's one channel.
int domains_on(tDPData* data)
{
    int bits = 0;
    for (const tDomain& domain : kDomains) {
        if (!domain.channel || !(data->*domain.channel))
            continue;
        EXPECT_EQ(data->*domain.channel, &data->shared_single_dp_data);
        bits |= domain.bit;
    }
    return bits;
}

class DprintfChannels : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        reset_log();
        fData = create_dp_data();
        ASSERT_NE(fData, nullptr);
    }
    void TearDown() override
    {
        free_dp_data(fData);
        gDPrintfNativeFileno = -1;
        reset_log();
    }

    tDPData* fData = nullptr;
    tWire fWire;
};

// ---- Globals and validity ----

TEST_F(DprintfChannels, GlobalsStartWithMask84AndNoOutput)
{
    EXPECT_EQ(kMaskAtLoad, 84);
    EXPECT_EQ(kNativeFilenoAtLoad, -1);
    EXPECT_EQ(kFileAtLoad, nullptr);
    EXPECT_EQ(kInitializedAtLoad, 0);
}

TEST_F(DprintfChannels, NativeFileIsValidWhenInitialisedAndNotMinusOne)
{
    tSingleDPData channel = {1, nullptr, 0, nullptr, 0};
    EXPECT_TRUE(valid_single_dp_native_file(&channel));
    channel.fileno = -2;
    EXPECT_TRUE(valid_single_dp_native_file(&channel));
    channel.fileno = -1;
    EXPECT_FALSE(valid_single_dp_native_file(&channel));
    channel.fileno = 3;
    channel.initialized = 0;
    EXPECT_FALSE(valid_single_dp_native_file(&channel));
}

TEST_F(DprintfChannels, PyFileIsValidWhenInitialisedAndNotNull)
{
    int object = 0;
    tSingleDPData channel = {1, reinterpret_cast<PyObject*>(&object), -1, nullptr, 0};
    EXPECT_TRUE(valid_single_dp_py_file(&channel));
    channel.initialized = 0;
    EXPECT_FALSE(valid_single_dp_py_file(&channel));
    channel.initialized = 1;
    channel.file_obj = nullptr;
    EXPECT_FALSE(valid_single_dp_py_file(&channel));
}

TEST_F(DprintfChannels, RecordIsValidOnlyWhenInitialisedItself)
{
    int object = 0;
    tDPData data = {};
    data.shared_single_dp_data = {1, reinterpret_cast<PyObject*>(&object), 5, nullptr, 0};
    EXPECT_FALSE(valid_dp_native_file(&data));
    EXPECT_FALSE(valid_dp_py_file(&data));
    data.initialized = 1;
    EXPECT_TRUE(valid_dp_native_file(&data));
    EXPECT_TRUE(valid_dp_py_file(&data));
    data.shared_single_dp_data.initialized = 0;
    EXPECT_FALSE(valid_dp_native_file(&data));
    EXPECT_FALSE(valid_dp_py_file(&data));
}

// ---- Life of a record ----

TEST_F(DprintfChannels, FreshRecordHasMask84EmptyBuffersAndNoOutput)
{
    EXPECT_EQ(fData->initialized, 1);
    EXPECT_EQ(fData->mask, 84);
    EXPECT_EQ(fData->shared_single_dp_data.initialized, 1);
    EXPECT_EQ(fData->shared_single_dp_data.file_obj, nullptr);
    EXPECT_EQ(fData->shared_single_dp_data.fileno, -1);
    EXPECT_EQ(fData->shared_single_dp_data.win32_handle, nullptr);
    EXPECT_EQ(fData->shared_single_dp_data.in_dprint_count, 0);
    EXPECT_EQ(domains_on(fData), 0);
    EXPECT_STREQ(fData->_repr_str1, "");
    EXPECT_STREQ(fData->_repr_str2, "");
    EXPECT_NE(fData->_repr_str1, fData->_repr_str2);
}

TEST_F(DprintfChannels, InitWithoutForceLeavesAnInitialisedRecord)
{
    set_dp_data_file_obj(fData, nullptr, fWire.writer(), nullptr);
    set_dp_data_mask(fData, 2);
    fData->shared_single_dp_data.in_dprint_count = 1;
    char* buffer = fData->_repr_str1;
    init_dp_data(fData, 0);
    EXPECT_EQ(fData->mask, 2);
    EXPECT_EQ(fData->shared_single_dp_data.fileno, fWire.writer());
    EXPECT_EQ(fData->shared_single_dp_data.in_dprint_count, 1);
    EXPECT_EQ(fData->_repr_str1, buffer);
    EXPECT_EQ(domains_on(fData), 2);
}

TEST_F(DprintfChannels, InitWithoutForceInitialisesAFreshRecord)
{
    tDPData data = {};
    init_dp_data(&data, 0);
    EXPECT_EQ(data.initialized, 1);
    EXPECT_EQ(data.mask, 84);
    EXPECT_EQ(data.shared_single_dp_data.fileno, -1);
    clear_dp_data(&data);
}

TEST_F(DprintfChannels, ForcedInitResetsTheRecordAndAllocatesNewBuffers)
{
    char* old1 = fData->_repr_str1;
    char* old2 = fData->_repr_str2;
    strcpy(old1, "old text");
    set_dp_data_file_obj(fData, nullptr, fWire.writer(), this);
    set_dp_data_mask(fData, kAllDomains);
    fData->shared_single_dp_data.in_dprint_count = 1;
    init_dp_data(fData, 1);
    EXPECT_EQ(fData->mask, 84);
    EXPECT_EQ(fData->shared_single_dp_data.fileno, -1);
    EXPECT_EQ(fData->shared_single_dp_data.win32_handle, nullptr);
    EXPECT_EQ(fData->shared_single_dp_data.in_dprint_count, 0);
    EXPECT_EQ(domains_on(fData), 0);
    EXPECT_NE(fData->_repr_str1, old1);
    EXPECT_STREQ(fData->_repr_str1, "");
    EXPECT_STREQ(old1, "old text");  // still allocated: a forced start does not free
    free(old1);
    free(old2);
}

TEST_F(DprintfChannels, ClearDropsOutputsAndBuffersAndKeepsMaskAndFlags)
{
    set_dp_data_file_obj(fData, nullptr, fWire.writer(), this);
    set_dp_data_mask(fData, kAllDomains);
    clear_dp_data(fData);
    EXPECT_EQ(fData->initialized, 1);
    EXPECT_EQ(fData->shared_single_dp_data.initialized, 1);
    EXPECT_EQ(fData->mask, kAllDomains);
    EXPECT_EQ(fData->shared_single_dp_data.file_obj, nullptr);
    EXPECT_EQ(fData->shared_single_dp_data.fileno, -1);
    EXPECT_EQ(fData->shared_single_dp_data.win32_handle, nullptr);
    EXPECT_EQ(domains_on(fData), 0);
    EXPECT_EQ(fData->_repr_str1, nullptr);
    EXPECT_EQ(fData->_repr_str2, nullptr);
    clear_dp_data(fData);  // once more does no harm
}

TEST_F(DprintfChannels, ClearedRecordLogsAgainAfterAnOutputIsSet)
{
    set_dp_data_mask(fData, kLogThreading | kLogCore);
    clear_dp_data(fData);
    set_dp_data_file_obj(fData, nullptr, fWire.writer(), nullptr);
    EXPECT_EQ(domains_on(fData), kLogThreading | kLogCore);
    do_dp_no_py(fData->threading, "again\n");
    EXPECT_EQ(fWire.take(), tTexts({"again\n"}));
    EXPECT_EQ(fData->_repr_str1, nullptr);
    EXPECT_EQ(fData->_repr_str2, nullptr);
    init_dp_data(fData, 0);
    EXPECT_EQ(fData->_repr_str1, nullptr);
    init_dp_data(fData, 1);
    EXPECT_STREQ(fData->_repr_str1, "");
    EXPECT_STREQ(fData->_repr_str2, "");
}

TEST_F(DprintfChannels, FreeIgnoresNull)
{
    free_dp_data(nullptr);
}

#ifndef HOSTED_TESTS

TEST_F(DprintfChannels, CreateAllocatesTheRecordAndTwoBuffersOf4001Bytes)
{
    tHeapWatch watch;
    tDPData* data = create_dp_data();
    watch.stop();
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(watch.allocations(), 3);
    EXPECT_EQ(watch.requested(1), sizeof(tDPData));
    EXPECT_EQ(watch.requested(2), 4001u);
    EXPECT_EQ(watch.requested(3), 4001u);
    free_dp_data(data);
}

TEST_F(DprintfChannels, CreateIsNullWhenTheRecordCannotBeAllocated)
{
    tHeapWatch watch(1);
    tDPData* data = create_dp_data();
    watch.stop();
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(watch.allocations(), 1);
}

TEST_F(DprintfChannels, FailedBufferAllocationLeavesThatBufferNull)
{
    for (int failing : {2, 3}) {
        tHeapWatch watch(failing);
        tDPData* data = create_dp_data();
        watch.stop();
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(data->initialized, 1);
        EXPECT_EQ(data->_repr_str1 == nullptr, failing == 2);
        EXPECT_EQ(data->_repr_str2 == nullptr, failing == 3);
        EXPECT_STREQ(failing == 2 ? data->_repr_str2 : data->_repr_str1, "");
        free_dp_data(data);
    }
}

TEST_F(DprintfChannels, MissingBuffersAreReportedByTwoDifferentTexts)
{
    tHeapWatch watch(2, 3);
    tDPData* data = create_dp_data();
    watch.stop();
    ASSERT_NE(data, nullptr);
    EXPECT_STREQ(get_dprintf_repr_str1(data, nullptr), "get_dprintf_repr_str1() failure: _repr_str1 is NULL");
    EXPECT_STREQ(get_dprintf_repr_str2(data, nullptr), "<error generating repr: no buffer available>");
    free_dp_data(data);
}

TEST_F(DprintfChannels, WithoutAnInterpreterTheReprBuffersSaySo)
{
    EXPECT_STREQ(get_dprintf_repr_str1(fData, nullptr), "fill_str_with_repr() failed: tstate is NULL");
    EXPECT_STREQ(get_dprintf_repr_str2(fData, nullptr), "fill_str_with_repr() failed: tstate is NULL");
}

TEST_F(DprintfChannels, FreeReleasesBuffersAndRecord)
{
    tDPData* data = create_dp_data();
    char* first = data->_repr_str1;
    char* second = data->_repr_str2;
    tHeapWatch watch;
    free_dp_data(data);
    watch.stop();
    EXPECT_EQ(watch.frees(), 3);
    EXPECT_TRUE(watch.freed(first));
    EXPECT_TRUE(watch.freed(second));
    EXPECT_TRUE(watch.freed(data));
}

TEST_F(DprintfChannels, ForcedInitFreesNothing)
{
    tDPData copy = *fData;
    tHeapWatch watch;
    init_dp_data(fData, 1);
    watch.stop();
    EXPECT_EQ(watch.frees(), 0);
    EXPECT_EQ(watch.allocations(), 2);
    free(copy._repr_str1);
    free(copy._repr_str2);
}

#endif

// ---- Masks and channel assignment ----

TEST_F(DprintfChannels, EachBitSwitchesItsOwnChannel)
{
    set_dp_data_file_obj(fData, nullptr, fWire.writer(), nullptr);
    for (const tDomain& domain : kDomains) {
        set_dp_data_mask(fData, domain.bit);
        EXPECT_EQ(get_dp_data_mask(fData), domain.bit);
        EXPECT_EQ(domains_on(fData), domain.channel ? domain.bit : 0) << domain.bit;
        set_dp_data_mask(fData, kAllDomains & ~domain.bit);
        EXPECT_EQ(domains_on(fData) & domain.bit, 0) << domain.bit;
    }
    set_dp_data_mask(fData, kAllDomains);
    EXPECT_EQ(domains_on(fData), 2 + 4 + 64 + 128 + 256 + 512);
    set_dp_data_mask(fData, 0);
    EXPECT_EQ(domains_on(fData), 0);
}

TEST_F(DprintfChannels, DefaultMaskSwitchesCoreAndFailures)
{
    set_dp_data_file_obj(fData, nullptr, fWire.writer(), nullptr);
    EXPECT_EQ(domains_on(fData), kLogCore | kLogInternalFailures);
}

TEST_F(DprintfChannels, WithoutOutputEveryChannelIsNull)
{
    EXPECT_EQ(get_dp_data_mask(fData), 84);
    EXPECT_EQ(domains_on(fData), 0);
    set_dp_data_mask(fData, kAllDomains);
    EXPECT_EQ(domains_on(fData), 0);
    do_dp_no_py(fData->core, "lost\n");
    EXPECT_EQ(fWire.take(), tTexts());
}

TEST_F(DprintfChannels, TakingTheOutputAwaySwitchesAllChannelsOff)
{
    set_dp_data_file_obj(fData, nullptr, fWire.writer(), nullptr);
    EXPECT_NE(domains_on(fData), 0);
    set_dp_data_file_obj(fData, nullptr, -1, nullptr);
    EXPECT_EQ(domains_on(fData), 0);
}

TEST_F(DprintfChannels, NativeHandleIsStored)
{
    set_dp_data_file_obj(fData, nullptr, 7, this);
    EXPECT_EQ(fData->shared_single_dp_data.fileno, 7);
    EXPECT_EQ(fData->shared_single_dp_data.win32_handle, this);
    set_dp_data_file_obj(fData, nullptr, -1, nullptr);
}

// ---- The process-wide state ----

TEST_F(DprintfChannels, ProcessWideMaskIsSetInBothPlaces)
{
    set_dprintf_mask(kLogThreading);
    EXPECT_EQ(gDPrintfMask, kLogThreading);
    EXPECT_EQ(get_dprintf_mask(), kLogThreading);
    EXPECT_EQ(get_dp_data_mask(&gUnsafeGlobalDPData), kLogThreading);
}

TEST_F(DprintfChannels, FirstUseInitialisesTheProcessWideRecord)
{
    clear_dp_data(&gUnsafeGlobalDPData);
    gUnsafeGlobalDPData = tDPData();
    set_dprintf_mask(kLogFilenames);
    EXPECT_EQ(gUnsafeGlobalDPData.initialized, 1);
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.fileno, -1);
    EXPECT_EQ(gUnsafeGlobalDPData.mask, kLogFilenames);
    EXPECT_STREQ(gUnsafeGlobalDPData._repr_str1, "");

    clear_dp_data(&gUnsafeGlobalDPData);
    gUnsafeGlobalDPData = tDPData();
    set_dprintf_file(nullptr, fWire.writer(), nullptr);
    EXPECT_EQ(gUnsafeGlobalDPData.initialized, 1);
    EXPECT_EQ(gUnsafeGlobalDPData.mask, 84);
    EXPECT_EQ(domains_on(&gUnsafeGlobalDPData), kLogCore | kLogInternalFailures);
}

TEST_F(DprintfChannels, NullFileKeepsTheDescriptorInTheChannelOnly)
{
    gDPrintfNativeFileno = fWire.writer();
    set_dprintf_file(nullptr, fWire.writer(), this);
    EXPECT_EQ(gDPrintfFile, nullptr);
    EXPECT_EQ(gDPrintfNativeFileno, -1);
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.fileno, fWire.writer());
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.win32_handle, this);
    do_dp_no_py(gUnsafeGlobalDPData.core, "native\n");
    EXPECT_EQ(fWire.take(), tTexts({"native\n"}));
}

TEST_F(DprintfChannels, BindingLayersSetFileReachesTheProcessWideChannel)
{
    EXPECT_EQ(XPy_SetDPrintfNativeFile(fWire.writer(), nullptr), 1);
    EXPECT_EQ(domains_on(&gUnsafeGlobalDPData), kLogCore | kLogInternalFailures);
    EXPECT_EQ(XPy_SetDPrintfMask(kLogThreading), 84);
    EXPECT_EQ(domains_on(&gUnsafeGlobalDPData), kLogThreading);
}

// ---- Native output ----

TEST_F(DprintfChannels, TextGoesOutInOneWriteAndItsResultIsReturned)
{
    tSingleDPData channel = {1, nullptr, fWire.writer(), nullptr, 0};
    EXPECT_EQ(write_str_to_native_file(&channel, "one\n"), 4);
    EXPECT_EQ(write_str_to_native_file(&channel, "and %s two\n"), 11);
    EXPECT_EQ(fWire.take(), tTexts({"one\n", "and %s two\n"}));
}

TEST_F(DprintfChannels, NothingIsWrittenWithoutADescriptor)
{
    tSingleDPData channel = {1, nullptr, -1, nullptr, 0};
    EXPECT_EQ(write_str_to_native_file(nullptr, "lost"), 0);
    EXPECT_EQ(write_str_to_native_file(&channel, "lost"), 0);
    channel = {0, nullptr, fWire.writer(), nullptr, 0};
    EXPECT_EQ(write_str_to_native_file(&channel, "lost"), 0);
    EXPECT_EQ(fWire.take(), tTexts());
}

TEST_F(DprintfChannels, FailedWriteReturnsMinusOne)
{
    tSingleDPData channel = {1, nullptr, -2, nullptr, 0};
    EXPECT_EQ(write_str_to_native_file(&channel, "lost"), -1);
}

TEST_F(DprintfChannels, ShortWriteIsNotRetried)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    int capacity = fcntl(ends[1], F_SETPIPE_SZ, 4096);
    ASSERT_GT(capacity, 0);
    tSingleDPData channel = {1, nullptr, ends[1], nullptr, 0};
    std::string text(static_cast<size_t>(capacity) + 100, 'x');
    EXPECT_EQ(write_str_to_native_file(&channel, text.c_str()), capacity);
    close(ends[0]);
    close(ends[1]);
}

void forward_to_v(const tSingleDPData* channel, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    do_dp_no_py_v(channel, format, args);
    va_end(args);
}

TEST_F(DprintfChannels, NativeMessagesAreFormattedByTheCLibrary)
{
    tSingleDPData channel = {1, nullptr, fWire.writer(), nullptr, 0};
    do_dp_no_py(&channel, "%s is %5.2f or %#x%%\n", "it", 1.5, 255);
    forward_to_v(&channel, "%i and %c\n", -3, 'c');
    EXPECT_EQ(fWire.take(), tTexts({"it is  1.50 or 0xff%\n", "-3 and c\n"}));
}

TEST_F(DprintfChannels, NativeMessagesNeedAChannelWithADescriptor)
{
    tSingleDPData closed = {1, nullptr, -1, nullptr, 0};
    tSingleDPData fresh = {0, nullptr, fWire.writer(), nullptr, 0};
    do_dp_no_py(nullptr, "%s", "lost");
    do_dp_no_py(&closed, "%s", "lost");
    do_dp_no_py(&fresh, "%s", "lost");
    forward_to_v(nullptr, "%s", "lost");
    EXPECT_EQ(fWire.take(), tTexts());
}

TEST_F(DprintfChannels, FailedFormattingWritesARemark)
{
    static const wchar_t kUnencodable[] = {0xd800, 0};  // a surrogate: no locale has bytes for it
    tSingleDPData channel = {1, nullptr, fWire.writer(), nullptr, 0};
    do_dp_no_py(&channel, "%ls\n", kUnencodable);
    EXPECT_EQ(fWire.take(), tTexts({"sprintf_to_malloced_str() failed\n"}));
}

TEST_F(DprintfChannels, NoTstateOutputNeedsTheMaskAndADescriptor)
{
    dprint_no_tstate(kLogCore, "lost\n");
    gDPrintfNativeFileno = fWire.writer();
    dprint_no_tstate(kLogThreading, "lost\n");
    EXPECT_EQ(fWire.take(), tTexts());
    dprint_no_tstate(kLogCore, "%s is not a format\n");
    dprint_no_tstate(kLogThreading | kLogExceptions, "one bit is enough\n");
    EXPECT_EQ(fWire.take(), tTexts({"%s is not a format\n", "one bit is enough\n"}));
    gDPrintfMask = kLogIO;  // a domain without a channel
    dprint_no_tstate(kLogIO, "io\n");
    dprint_no_tstate(kLogCore, "lost\n");
    EXPECT_EQ(fWire.take(), tTexts({"io\n"}));
}

// ---- Texts for messages ----

TEST_F(DprintfChannels, CheckStrReplacesNull)
{
    EXPECT_STREQ(dprint_check_str(nullptr), "(NULL)");
}

TEST_F(DprintfChannels, CheckStrLeavesAnyTextAloneWithoutALogFile)
{
    const char* text = "caf\xc3\xa9";
    EXPECT_EQ(dprint_check_str(text), text);
}

TEST_F(DprintfChannels, CheckStrReplacesNonAsciiTextForALogFile)
{
    int object = 0;
    tSwapped<PyObject*> file(gDPrintfFile, reinterpret_cast<PyObject*>(&object));
    const char* ascii = "plain ~\x7f\n";
    EXPECT_EQ(dprint_check_str(ascii), ascii);
    EXPECT_STREQ(dprint_check_str("caf\xc3\xa9"), "(non-ascii string)");
    EXPECT_STREQ(dprint_check_str("\x80"), "(non-ascii string)");
    EXPECT_STREQ(dprint_check_str("\xff"), "(non-ascii string)");
    EXPECT_STREQ(dprint_check_str(""), "");
    EXPECT_STREQ(dprint_check_str(nullptr), "(NULL)");
}

TEST_F(DprintfChannels, CheckPystrReplacesNull)
{
    EXPECT_STREQ(dprint_check_pystr(nullptr), "(NULL PyObject*)");
}

#ifdef HOSTED_TESTS

// ---- Python files and strings ----

class DprintfPyFiles : public tHostedTest
{
  protected:
    void SetUp() override
    {
        tHostedTest::SetUp();
        fData = create_dp_data();
    }
    void TearDown() override
    {
        free_dp_data(fData);
        tHostedTest::TearDown();
    }
    tDPData* fData = nullptr;
    tWire fWire;
};

TEST_F(DprintfPyFiles, NoneCountsAsNoFile)
{
    set_dp_data_file_obj(fData, api.Py_None, -1, nullptr);
    EXPECT_EQ(fData->shared_single_dp_data.file_obj, api.Py_None);
    EXPECT_FALSE(valid_dp_py_file(fData));
    EXPECT_EQ(domains_on(fData), 0);
    set_dp_data_file_obj(fData, api.Py_None, fWire.writer(), nullptr);
    EXPECT_EQ(domains_on(fData), kLogCore | kLogInternalFailures);
}

TEST_F(DprintfPyFiles, PyFileAloneSwitchesTheChannelsOn)
{
    run("file = Log()");
    set_dp_data_file_obj(fData, var("file"), -1, nullptr);
    EXPECT_TRUE(valid_dp_py_file(fData));
    EXPECT_EQ(domains_on(fData), kLogCore | kLogInternalFailures);
}

TEST_F(DprintfPyFiles, RecordOwnsOneReferenceToItsFile)
{
    run("first = Log()\nsecond = Log()");
    Py_ssize_t before = count_of(var("first"));
    set_dp_data_file_obj(fData, var("first"), -1, nullptr);
    EXPECT_EQ(count_of(var("first")), before + 1);
    set_dp_data_file_obj(fData, var("first"), -1, nullptr);
    EXPECT_EQ(count_of(var("first")), before + 1);
    set_dp_data_file_obj(fData, var("second"), -1, nullptr);
    EXPECT_EQ(count_of(var("first")), before);
    EXPECT_EQ(count_of(var("second")), before + 1);
    clear_dp_data(fData);
    EXPECT_EQ(count_of(var("second")), before);
}

TEST_F(DprintfPyFiles, ProcessWideStateOwnsTwoReferencesToItsFile)
{
    run("file = Log()");
    Py_ssize_t before = count_of(var("file"));
    set_dprintf_file(var("file"), fWire.writer(), this);
    EXPECT_EQ(count_of(var("file")), before + 2);
    EXPECT_EQ(gDPrintfFile, var("file"));
    EXPECT_EQ(gDPrintfNativeFileno, fWire.writer());
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.file_obj, var("file"));
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.fileno, fWire.writer());
    EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.win32_handle, this);
    dprint_no_tstate(kLogCore, "native\n");
    EXPECT_EQ(fWire.take(), tTexts({"native\n"}));
    set_dprintf_file(nullptr, -1, nullptr);
    EXPECT_EQ(count_of(var("file")), before);
}

TEST_F(DprintfPyFiles, NoneWithADescriptorLeavesANativeChannelOnly)
{
    set_dprintf_file(api.Py_None, fWire.writer(), nullptr);
    EXPECT_EQ(gDPrintfFile, nullptr);
    EXPECT_EQ(gDPrintfNativeFileno, -1);
    EXPECT_TRUE(valid_dp_native_file(&gUnsafeGlobalDPData));
    dprint_no_tstate(kLogCore, "lost\n");
    do_dp_no_py(gUnsafeGlobalDPData.core, "native\n");
    EXPECT_EQ(fWire.take(), tTexts({"native\n"}));
}

TEST_F(DprintfPyFiles, FieldsAreClearedBeforeTheFileIsReleased)
{
    run("class Dying(Log):\n    def __del__(self): native(None)");
    int deaths = 0;
    native_hook() = [&](PyObject*) {
        deaths++;
        EXPECT_EQ(gDPrintfFile, nullptr);
        EXPECT_EQ(fData->shared_single_dp_data.file_obj, nullptr);
        EXPECT_EQ(gUnsafeGlobalDPData.shared_single_dp_data.file_obj, nullptr);
    };
    set_dp_data_file_obj(fData, XPyOwned(eval("Dying()")).borrow(), -1, nullptr);
    clear_dp_data(fData);
    EXPECT_EQ(deaths, 1);
    set_dp_data_file_obj(fData, XPyOwned(eval("Dying()")).borrow(), -1, nullptr);
    set_dp_data_file_obj(fData, nullptr, -1, nullptr);
    EXPECT_EQ(deaths, 2);
    set_dprintf_file(XPyOwned(eval("Dying()")).borrow(), -1, nullptr);
    set_dprintf_file(nullptr, -1, nullptr);
    EXPECT_EQ(deaths, 3);
}

TEST_F(DprintfPyFiles, CheckPystrTakesStringsAndTheirSubclasses)
{
    run("class Sub(type('')): pass\nclass USub(type(u'')): pass");
    run("plain = 'plain'\ntext = u'text'\nsub = Sub('sub')\nusub = USub(u'usub')");
    EXPECT_STREQ(dprint_check_pystr(var("plain")), "plain");
    EXPECT_STREQ(dprint_check_pystr(var("text")), "text");
    EXPECT_STREQ(dprint_check_pystr(var("sub")), "sub");
    EXPECT_STREQ(dprint_check_pystr(var("usub")), "usub");
}

TEST_F(DprintfPyFiles, CheckPystrRefusesOtherObjects)
{
    run("number = 3\nlisted = ['a']\nraw = b'raw'\narray = bytearray(b'raw')");
    EXPECT_STREQ(dprint_check_pystr(var("number")), "(non-PyString PyObject*)");
    EXPECT_STREQ(dprint_check_pystr(var("listed")), "(non-PyString PyObject*)");
    EXPECT_STREQ(dprint_check_pystr(var("array")), "(non-PyString PyObject*)");
    EXPECT_STREQ(dprint_check_pystr(api.Py_None), "(non-PyString PyObject*)");
    EXPECT_STREQ(dprint_check_pystr(var("raw")), api.major_version < 3 ? "raw" : "(non-PyString PyObject*)");
}

TEST_F(DprintfPyFiles, CheckPystrHidesNonAsciiTextFromALogFile)
{
    run("text = b'caf\\xc3\\xa9' if sys.version_info[0] < 3 else u'caf\\xe9'");
    EXPECT_STREQ(dprint_check_pystr(var("text")), "caf\xc3\xa9");
    open_log();
    EXPECT_STREQ(dprint_check_pystr(var("text")), "(non-ascii string)");
}

TEST_F(DprintfPyFiles, CheckPystrOfATextWithoutUtf8FormIsTheRemarkForNull)
{
    run("text = u'caf\\xe9' if sys.version_info[0] < 3 else u'\\ud800'");  // Python 2 converts to ASCII
    EXPECT_STREQ(dprint_check_pystr(var("text")), "(NULL)");
}

#endif

}  // namespace
