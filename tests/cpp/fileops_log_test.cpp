// What the file-identity unit writes to the filenames and internal_failures channels, in order.

#include "failing_malloc.h"
#include "fileops_hosted_support.h"

namespace {

using FileOpsRecordLog = FileOpsHostedTest;
using FilenamesLog = FileOpsHostedTest;
using FailuresLog = FileOpsHostedTest;

// ---- The record ----

TEST_F(FileOpsRecordLog, NewRecordHoldsTheOsModuleAndNoCallback)
{
    XPyOwned os(eval_python("__import__('os')"));
    EXPECT_EQ(os.borrow(), data->os_mod);
    EXPECT_EQ(api.Py_None, data->checksum_callback);
    EXPECT_EQ(dp, data->dp);
}

TEST_F(FileOpsRecordLog, RecordOwnsOneReferenceToEachOfItsObjects)
{
    set_dp_data_mask(dp, 0);  // Python code that writes a log uses None as well
    XPyOwned os(XPy_NewRef(data->os_mod));
    Py_ssize_t os_before = count_of(os.borrow()), none_before = count_of(api.Py_None);
    tFileOpsData* other = create_file_ops_data(dp);
    bool none_counts = !is_immortal(api.Py_None);
    EXPECT_EQ(os_before + 1, count_of(os.borrow()));
    EXPECT_EQ(none_before + (none_counts ? 1 : 0), count_of(api.Py_None));
    destroy_file_ops_data(other);
    EXPECT_EQ(os_before, count_of(os.borrow()));
    EXPECT_EQ(none_before, count_of(api.Py_None));
}

TEST_F(FileOpsRecordLog, MissingOsModuleIsReportedClearedAndKeptAsNull)
{
    XPyOwned modules(eval_python("__import__('sys').modules"));
    XPyOwned key(str("os")), os(XPy_NewRef(data->os_mod));
    ASSERT_EQ(0, api.PyObject_DelItem(modules.borrow(), key.borrow()));
    tFileOpsData* other = create_file_ops_data(dp);
    api.PyObject_SetItem(modules.borrow(), key.borrow(), os.borrow());
    ASSERT_NE(nullptr, other);
    EXPECT_EQ(nullptr, other->os_mod);
    EXPECT_EQ("", take_error());
    EXPECT_EQ(std::string("Failure to find os module\n") + kReport + "KeyError: 'os'\n", take_log());
    destroy_file_ops_data(other);
}

TEST_F(FileOpsRecordLog, DestructionIsLoggedFirst)
{
    XPyOwned callback(XPy_NewRef(borrow_global("recording")));
    Py_ssize_t before = count_of(callback.borrow());
    set_checksum_callback(data, callback.borrow());
    destroy_file_ops_data(data);
    data = nullptr;
    EXPECT_EQ("In destroy_file_ops_data()\n", take_log());
    EXPECT_EQ(before, count_of(callback.borrow()));
}

// ---- The filenames channel ----

TEST_F(FilenamesLog, ResolutionShowsEveryPartAsItIsLookedAt)
{
    std::string folder = tree.enter();
    std::string expected = "In __posix_absname: resolving a/./b//../c in " + folder + "\n";
    int index = 0;
    size_t at = 0;
    for (size_t end; at <= folder.size(); at = end + 1) {
        end = folder.find('/', at) == std::string::npos ? folder.size() : folder.find('/', at);
        expected += "parts[" + std::to_string(index++) + "] = " + folder.substr(at, end - at) + "\n";
    }
    const struct {
        int offset;
        const char* part;
    } rest[] = {{0, "a"}, {1, "."}, {1, "b"}, {2, ""}, {2, ".."}, {1, "c"}};
    for (const auto& row : rest)
        expected += "parts[" + std::to_string(index + row.offset) + "] = " + row.part + "\n";
    expected += "resolved a/./b//../c to " + folder + "/a/c\n";

    EXPECT_EQ(folder + "/a/c", get_absname(data, "a/./b//../c"));
    EXPECT_EQ(expected, take_log());
    get_absname(data, "a/./b//../c");
    EXPECT_EQ("", take_log());  // the cache is silent
}

TEST_F(FilenamesLog, ClimbingAboveTheRootShowsTheRemovals)
{
    std::filesystem::current_path("/");
    EXPECT_STREQ("x", get_absname(data, "../../x"));
    EXPECT_EQ(
        "In __posix_absname: resolving ../../x in /\n"
        "parts[0] = \nparts[1] = ..\nparts[0] = ..\nparts[0] = x\n"
        "resolved ../../x to x\n",
        take_log());
}

TEST_F(FilenamesLog, AbsoluteNameIsOnlyResolved)
{
    get_absname(data, "/home/u/../x");
    EXPECT_EQ("resolved /home/u/../x to /home/u/../x\n", take_log());
}

TEST_F(FilenamesLog, FailedDirectoryQueryShowsItsErrno)
{
    tree.enter_removed_folder();
    EXPECT_EQ(nullptr, get_absname(data, "m.py"));
    EXPECT_EQ("getcwd() returned NULL; errno = 2\n", take_log());
}

TEST_F(FilenamesLog, OnlyTheNameAndDirectoryOfTheFirstLineAreKeptToAscii)
{
    std::filesystem::current_path("/");
    get_absname(data, "\xc3\xa9");
    EXPECT_EQ(
        "In __posix_absname: resolving (non-ascii string) in /\n"
        "parts[0] = \nparts[1] = \xc3\xa9\n"
        "resolved \xc3\xa9 to /\xc3\xa9\n",
        take_log());
}

TEST_F(FilenamesLog, IsSilentUnlessTheChannelIsSetAndWritesToAPythonFile)
{
    std::string name = tree.file("a.py"), other = tree.file("b.py");
    tree.enter();
    auto use_everything = [&](const char* prefix) {
        get_absname(data, (std::string(prefix) + "/x").c_str());
        register_name(name, "sum");
        register_name(other, "sum");
        tFileOpsData* second = create_file_ops_data(dp);
        destroy_file_ops_data(second);
    };
    set_dp_data_mask(dp, kLogInternalFailures | kLogCore);
    use_everything("p");
    EXPECT_EQ("", take_log());

    tCapturedFd native;  // a channel of a descriptor alone
    set_dp_data_mask(dp, kLogFilenames);
    set_dp_data_file_obj(dp, nullptr, 2, nullptr);
    ASSERT_NE(nullptr, dp->filenames);
    use_everything("q");
    set_dp_data_file_obj(dp, api.Py_None, 2, nullptr);
    ASSERT_NE(nullptr, dp->filenames);
    use_everything("r");
    EXPECT_EQ("", native.text());
    EXPECT_EQ("", take_log());

    set_dp_data_file_obj(dp, log.borrow(), -1, nullptr);
    use_everything("s");
    EXPECT_NE("", take_log());
}

TEST_F(FilenamesLog, RegistrationWritesThreeLines)
{
    std::string name = tree.file("a.py");
    register_name(name);
    EXPECT_EQ(registered_lines(name, name), take_log());
    std::string link = tree.symlink(name, "link.pyc");
    tree.symlink(name, "link.py");
    register_name(link);
    EXPECT_EQ(registered_lines(link, name), take_log());  // the name as it was given
    register_name("/\xc3\xa9.py");
    EXPECT_EQ(registered_lines("/\xc3\xa9.py", "/\xc3\xa9.py"), take_log());
}

TEST_F(FilenamesLog, DuplicateChecksumIsReportedOnceWithBothNames)
{
    std::string first = tree.file("a.py"), second = tree.file("b.py");
    register_name(first, "sum");
    EXPECT_EQ(registered_lines(first, first), take_log());
    EXPECT_EQ(second, register_name(second, "sum"));
    EXPECT_EQ("Duplicate files for checksum: canonical = '" + first + "'; other = '" + second + "'\n" +
                  registered_lines(second, second),
              take_log());
    EXPECT_EQ(first, lookup("/no/third.py", "sum"));
    EXPECT_EQ("", take_log());
}

TEST_F(FilenamesLog, DuplicateLineNamesTheNameBeingRegistered)
{
    std::string name = tree.file("a.py");
    std::string link = tree.symlink(name, "link.py");
    register_name(name, "sum");
    take_log();
    EXPECT_EQ(name, register_name(link, "sum"));
    EXPECT_EQ("Duplicate files for checksum: canonical = '" + name + "'; other = '" + link + "'\n" +
                  registered_lines(link, name),
              take_log());
    register_name("/no/such.py", "");
    EXPECT_EQ(registered_lines("/no/such.py", "/no/such.py"), take_log());
}

// ---- The internal_failures channel ----

TEST_F(FailuresLog, EachAllocationFailureOfARegistrationHasItsLine)
{
    set_dp_data_mask(dp, kLogInternalFailures);
    std::string name = tree.file("a.py");
    const char* const expected[] = {
        "Failure: get_absname_for_canonical()\nFailure: register_canonical_pathname()\n",
        "Failure: register_canonical_pathname()\n",
        "",  // the file counts as absent
        "",
        "Failure: register_canonical_in_by_unique_fileno()\n",
        "Failure: register_canonical_in_by_unique_fileno()\n",
        "Failure: register_canonical_pathname()\n",
        "Failure: register_canonical_in_by_checksum()\n",
        "Failure: register_canonical_in_by_checksum()\n",
        "",  // nothing fails
    };
    int failing = 0;
    for (const char* lines : expected) {
        failing += 1;
        SCOPED_TRACE(failing);
        tFileOpsData* fresh = create_file_ops_data(dp);
        tHeapWatch heap(failing);
        register_canonical_pathname(fresh, name.c_str(), "sum", nullptr);
        heap.stop();
        EXPECT_EQ(failing == 10, heap.allocations() < failing);
        EXPECT_EQ(lines, take_log());
        EXPECT_STREQ(name.c_str(), register_canonical_pathname(fresh, name.c_str(), "sum", nullptr));
        destroy_file_ops_data(fresh);
        EXPECT_EQ("", take_log());
    }
}

TEST_F(FailuresLog, PendingExceptionIsReportedWithTheFailureAndStays)
{
    set_dp_data_mask(dp, kLogInternalFailures);
    std::string name = tree.file("a.py");
    const struct {
        int failing;
        std::string lines;
    } cases[] = {
        {1, "Failure: get_absname_for_canonical()\n" + kPendingReport + "Failure: register_canonical_pathname()\n" +
                kPendingReport},
        {2, "Failure: register_canonical_pathname()\n" + kPendingReport},
        {5, "Failure: register_canonical_in_by_unique_fileno()\n" + kPendingReport},
        {8, "Failure: register_canonical_in_by_checksum()\n" + kPendingReport},
    };
    for (const auto& c : cases) {
        tFileOpsData* fresh = create_file_ops_data(dp);
        set_pending();
        tHeapWatch heap(c.failing);
        register_canonical_pathname(fresh, name.c_str(), "sum", nullptr);
        heap.stop();
        EXPECT_EQ("ValueError: pending", take_error());
        EXPECT_EQ(c.lines, take_log());
        destroy_file_ops_data(fresh);
    }
}

TEST_F(FailuresLog, LookupReportsOnlyAFailedCopy)
{
    set_dp_data_mask(dp, kLogInternalFailures);
    tHeapWatch heap(1);
    const char* result = lookup_canonical_pathname(data, "/no/such.py", nullptr);
    heap.stop();
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ("Failure: get_absname_for_canonical()\n", take_log());
    tree.enter_removed_folder();
    EXPECT_EQ(nullptr, lookup_canonical_pathname(data, "m.py", nullptr));
    EXPECT_EQ("", take_log());
}

TEST_F(FailuresLog, RegistrationWithoutCurrentDirectoryIsReported)
{
    tree.enter_removed_folder();
    EXPECT_EQ(nullptr, register_canonical_pathname(data, "m.py", nullptr, nullptr));
    EXPECT_EQ("getcwd() returned NULL; errno = 2\nFailure: register_canonical_pathname()\n", take_log());
}

TEST_F(FailuresLog, IsSilentWhenTheChannelIsOff)
{
    set_dp_data_mask(dp, kLogCore);
    tree.enter_removed_folder();
    register_canonical_pathname(data, "m.py", nullptr, nullptr);
    set_checksum_callback(data, borrow_global("raising"));
    XPyOwned pathname(str("/a.py"));
    EXPECT_EQ("(none)", outcome(get_checksum_for_pathname(data, pathname.borrow())));
    EXPECT_EQ("", take_error());
    EXPECT_EQ("(raised) TypeError: pathname must be a string",
              outcome(lookup_canonical_pathname_pystr(data, api.Py_None, nullptr)));
    EXPECT_EQ("", take_log());
}

}  // namespace
