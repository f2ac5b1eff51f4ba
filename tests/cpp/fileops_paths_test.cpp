#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <type_traits>

#include "failing_malloc.h"
#include "fileops_system.h"
#include "fileops_test_support.h"
#include "gtest/gtest.h"

static_assert(sizeof(tUniqueFileno) == 16, "a 16-byte key without padding");
static_assert(offsetof(tUniqueFileno, dev) == 0, "");
static_assert(offsetof(tUniqueFileno, ino) == 8, "");
static_assert(std::is_same<decltype(tUniqueFileno::dev), uint64_t>::value, "");
static_assert(std::is_same<decltype(tUniqueFileno::ino), uint64_t>::value, "");

namespace {

using tNames = std::vector<std::string>;

// A record, real files, a clock under control.
class FileOpsTest : public ::testing::Test
{
  protected:
    const struct stat* examine(const std::string& name) { return __tracer_stat(record.get(), name.c_str()); }

    // The absolute name, or "(null)".
    std::string absolute(const std::string& name)
    {
        const char* result = get_absname(record.get(), name.c_str());
        return result ? result : "(null)";
    }
    std::string absolute_in(const char* directory, const std::string& name)
    {
        tPlainRecord fresh;
        watched.directory = directory;
        const char* result = get_absname(fresh.get(), name.c_str());
        watched.directory = nullptr;
        return result ? result : "(null)";
    }
    int same(const std::string& first, const std::string& second)
    {
        return samefile(record.get(), first.c_str(), second.c_str());
    }

    tTempTree tree;
    tWatchedSystem watched;
    tPlainRecord record;
};

using StatCache = FileOpsTest;
using NotFound = FileOpsTest;
using AbsoluteName = FileOpsTest;
using SameFile = FileOpsTest;

// Runs OPERATION on fresh records with its first, second, ... allocation failing, until none fails any more. Every
// failed run leaves the tables sound, and the next try on the same record succeeds. SUCCEEDED judges a result.
// Returns the number of allocations.
template <typename Operation, typename Judge>
int walk_allocation_failures(Operation operation, Judge succeeded)
{
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE(failing);
        tPlainRecord fresh;
        tHeapWatch heap(failing);
        auto result = operation(fresh.get());
        heap.stop();
        EXPECT_EQ("", table_faults(fresh.get()));
        if (heap.allocations() < failing) {
            EXPECT_TRUE(succeeded(result));
            return failing - 1;
        }
        EXPECT_FALSE(succeeded(result));
        EXPECT_TRUE(succeeded(operation(fresh.get())));
        EXPECT_EQ("", table_faults(fresh.get()));
    }
}

// ---- The stat cache ----

TEST_F(StatCache, ExaminesAFileOnceAndKeepsTheResult)
{
    std::string name = tree.file("a.py", "12345");
    const struct stat* first = examine(name);
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(5, first->st_size);
    EXPECT_EQ(first, examine(name));
    EXPECT_EQ(tNames({name}), watched.examined);
}

TEST_F(StatCache, HoldsTheResultAsClientDataUnderTheNameAsGiven)
{
    tree.file("a.py");
    tree.enter();
    const struct stat* plain = examine("a.py");
    const struct stat* dotted = examine("./a.py");
    ASSERT_NE(nullptr, plain);
    ASSERT_NE(nullptr, dotted);
    EXPECT_NE(plain, dotted);
    EXPECT_EQ(2u, record->stat_cache.numEntries);
    EXPECT_EQ(plain, record->stat_cache.findProc(&record->stat_cache, "a.py")->clientData);
    EXPECT_EQ(dotted, record->stat_cache.findProc(&record->stat_cache, "./a.py")->clientData);
    EXPECT_EQ(0u, record->not_found_table.numEntries);
    EXPECT_EQ(0u, record->absname_cache.numEntries);
}

TEST_F(StatCache, ReportsTheIdentityOfTheSystem)
{
    std::string name = tree.file("a.py");
    struct stat expected;
    ASSERT_EQ(0, stat(name.c_str(), &expected));
    const struct stat* result = examine(name);
    ASSERT_NE(nullptr, result);
    EXPECT_EQ(expected.st_dev, result->st_dev);
    EXPECT_EQ(expected.st_ino, result->st_ino);
    tUniqueFileno identity;
    memcpy(&identity, result, sizeof identity);  // the first two fields as they stand
    EXPECT_EQ(expected.st_dev, identity.dev);
    EXPECT_EQ(expected.st_ino, identity.ino);
}

TEST_F(StatCache, KeepsSizeAndExistenceOfTheFirstExaminationForever)
{
    std::string name = tree.file("a.py", "12345");
    const struct stat* first = examine(name);
    ASSERT_NE(nullptr, first);
    tree.file("a.py", "1234567890");
    EXPECT_EQ(5, examine(name)->st_size);
    tree.remove("a.py");
    watched.now += 1000000;
    EXPECT_EQ(first, examine(name));
    EXPECT_EQ(1u, watched.examined.size());
}

TEST_F(StatCache, FollowsSymbolicLinks)
{
    std::string name = tree.file("a.py", "12345");
    std::string link = tree.symlink(name, "link.py");
    const struct stat* through_link = examine(link);
    ASSERT_NE(nullptr, through_link);
    EXPECT_TRUE(S_ISREG(through_link->st_mode));
    EXPECT_EQ(examine(name)->st_ino, through_link->st_ino);
}

TEST_F(StatCache, FindsDirectories)
{
    const struct stat* result = examine(tree.folder("package"));
    ASSERT_NE(nullptr, result);
    EXPECT_TRUE(S_ISDIR(result->st_mode));
}

TEST_F(StatCache, CachedResultGoesBeforeAStandingMiss)
{
    std::string name = tree.file("a.py");
    const struct stat* result = examine(name);
    int is_new;
    CUt_HashEntry* miss = record->not_found_table.createProc(&record->not_found_table, name.c_str(), &is_new);
    miss->clientData = reinterpret_cast<CUt_ClientData>(static_cast<intptr_t>(watched.now));
    EXPECT_EQ(result, examine(name));
}

TEST_F(StatCache, EveryAllocationFailureReportsTheFileAbsentAndTheNextTryFindsIt)
{
    std::string name = tree.file("a.py");
    auto operation = [&](tFileOpsData* data) { return __tracer_stat(data, name.c_str()); };
    EXPECT_EQ(2, walk_allocation_failures(operation, [](const struct stat* result) { return result != nullptr; }));
}

TEST_F(StatCache, FailedInsertionFreesTheResultAndRemembersNothing)
{
    std::string name = tree.file("a.py");
    tHeapWatch heap(2);
    const struct stat* result = examine(name);
    heap.stop();
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ(sizeof(struct stat), heap.requested(1));
    EXPECT_EQ(1, heap.frees());
    EXPECT_EQ(0u, record->stat_cache.numEntries);
    EXPECT_EQ(0u, record->not_found_table.numEntries);
}

TEST_F(StatCache, FailedResultAllocationDoesNotExamineTheFile)
{
    std::string name = tree.file("a.py");
    tHeapWatch heap(1);
    const struct stat* result = examine(name);
    heap.stop();
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ(tNames(), watched.examined);
    EXPECT_EQ(0u, record->not_found_table.numEntries);
}

// ---- The not-found table ----

TEST_F(NotFound, MissIsStoredWithItsTimeInWholeSeconds)
{
    std::string name = tree.path("missing.py");
    EXPECT_EQ(nullptr, examine(name));
    EXPECT_EQ(1u, record->not_found_table.numEntries);
    CUt_HashEntry* entry = record->not_found_table.findProc(&record->not_found_table, name.c_str());
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(watched.now, static_cast<time_t>(reinterpret_cast<intptr_t>(entry->clientData)));
    EXPECT_EQ(0u, record->stat_cache.numEntries);
}

TEST_F(NotFound, MissIsBelievedWithoutASystemCallForTwoSeconds)
{
    std::string name = tree.path("late.py");
    EXPECT_EQ(nullptr, examine(name));
    tree.file("late.py");
    for (int second = 0; second <= 2; ++second) {
        EXPECT_EQ(nullptr, examine(name));
        watched.now += 1;
    }
    EXPECT_EQ(1u, watched.examined.size());
}

TEST_F(NotFound, FileCreatedMeanwhileIsFoundAfterThreeSeconds)
{
    std::string name = tree.path("late.py");
    EXPECT_EQ(nullptr, examine(name));
    tree.file("late.py");
    watched.now += 3;
    EXPECT_NE(nullptr, examine(name));
    EXPECT_EQ(2u, watched.examined.size());
    EXPECT_EQ(0u, record->not_found_table.numEntries);
    EXPECT_EQ(1u, record->stat_cache.numEntries);
}

TEST_F(NotFound, FileStillMissingAfterThreeSecondsStartsANewPeriod)
{
    std::string name = tree.path("missing.py");
    examine(name);
    watched.now += 3;
    EXPECT_EQ(nullptr, examine(name));
    watched.now += 2;
    EXPECT_EQ(nullptr, examine(name));
    EXPECT_EQ(2u, watched.examined.size());
    EXPECT_EQ(1u, record->not_found_table.numEntries);
}

TEST_F(NotFound, ClockSetBackByTwoSecondsIsStillWithinThePeriod)
{
    std::string name = tree.path("missing.py");
    examine(name);
    watched.now -= 2;
    examine(name);
    EXPECT_EQ(1u, watched.examined.size());
}

TEST_F(NotFound, ClockSetBackByThreeSecondsOrMoreEndsThePeriod)
{
    std::string name = tree.path("late.py");
    examine(name);
    watched.now -= 3;
    examine(name);
    EXPECT_EQ(2u, watched.examined.size());
    tree.file("late.py");
    watched.now -= 4;
    EXPECT_NE(nullptr, examine(name));
    EXPECT_EQ(3u, watched.examined.size());
}

TEST_F(NotFound, MissAtTimeZeroCounts)
{
    watched.now = 0;
    std::string name = tree.path("missing.py");
    examine(name);
    watched.now = 2;
    examine(name);
    EXPECT_EQ(1u, watched.examined.size());
}

TEST_F(NotFound, NamesThatCannotBeExaminedCountAsMissing)
{
    std::string below_a_file = tree.file("a.py") + "/x";
    std::string dangling = tree.symlink(tree.path("nowhere"), "dangling.py");
    std::string too_long = tree.path(std::string(5000, 'n'));
    for (const std::string& name : {std::string(), below_a_file, dangling, too_long})
        EXPECT_EQ(nullptr, examine(name)) << name;
    EXPECT_EQ(4u, record->not_found_table.numEntries);
}

TEST_F(NotFound, FailedInsertionOfAMissOnlyLosesTheMemory)
{
    std::string name = tree.path("missing.py");
    for (int failing = 1; failing <= 2; ++failing) {
        tPlainRecord fresh;
        tHeapWatch heap(failing);
        const struct stat* result = __tracer_stat(fresh.get(), name.c_str());
        heap.stop();
        EXPECT_EQ(nullptr, result);
        EXPECT_EQ(failing, heap.allocations());
        EXPECT_EQ(0u, fresh->not_found_table.numEntries);
        EXPECT_EQ(0u, fresh->stat_cache.numEntries);
        EXPECT_EQ(nullptr, __tracer_stat(fresh.get(), name.c_str()));
        EXPECT_EQ(1u, fresh->not_found_table.numEntries);
    }
}

TEST_F(NotFound, FreesTheUnusedResult)
{
    std::string name = tree.path("missing.py");
    tHeapWatch heap;
    examine(name);
    heap.stop();
    EXPECT_EQ(2, heap.allocations());
    EXPECT_EQ(1, heap.frees());
}

// ---- Absolute names ----

TEST_F(AbsoluteName, RelativeNameIsJoinedToTheRealCurrentDirectory)
{
    std::string folder = tree.folder("work");
    tree.enter("work");
    EXPECT_EQ(folder + "/m.py", absolute("m.py"));
    EXPECT_EQ(folder + "/deep/m.py", absolute("deep/m.py"));
}

TEST_F(AbsoluteName, DotsAndEmptyPartsAreRemoved)
{
    EXPECT_EQ("/home/u/a/b/c", absolute_in("/home/u", "a/./b//c/"));
    EXPECT_EQ("/home/x", absolute_in("/home/u", "a/../../x"));
    EXPECT_EQ("/home/u", absolute_in("/home/u", "."));
    EXPECT_EQ("/home/u", absolute_in("/home/u", ""));
    EXPECT_EQ("/home", absolute_in("/home/u", ".."));
    EXPECT_EQ("/home/u/x", absolute_in("/home/u", "././/./x/."));
    EXPECT_EQ("/home/u", absolute_in("/home/u", "a/b/../.."));
}

TEST_F(AbsoluteName, DirectoryEndingInASlashGetsNoSecondOne)
{
    EXPECT_EQ("/x", absolute_in("/", "x"));
    EXPECT_EQ("/home/u/x", absolute_in("/home/u/", "x"));
}

TEST_F(AbsoluteName, PartsOnlyBeginningWithDotsAreKept)
{
    EXPECT_EQ("/w/.../..a/.b/c.", absolute_in("/w", ".../..a/.b/c."));
}

TEST_F(AbsoluteName, KeepsNamesThatClimbAboveTheRootWithoutLeadingSlash)
{
    EXPECT_EQ("x", absolute_in("/", "../x"));
    EXPECT_EQ("x", absolute_in("/", "../../x"));
    EXPECT_EQ("x", absolute_in("/home/u", "../../../x"));
    EXPECT_EQ("x", absolute_in("/home/u", "../../../../x"));
    EXPECT_EQ("", absolute_in("/", ".."));
}

TEST_F(AbsoluteName, KeepsAnEmptyPartThatMovedToTheFront)
{
    EXPECT_EQ("/x", absolute_in("/", "..//x"));
}

TEST_F(AbsoluteName, KeepsTheRootItselfAsAnEmptyString)
{
    EXPECT_EQ("", absolute_in("/", "."));
    EXPECT_EQ("", absolute_in("/", ""));
    EXPECT_EQ("", absolute_in("/home/u", "../.."));
}

TEST_F(AbsoluteName, EmptyDirectoryAddsNothing)
{
    EXPECT_EQ("x", absolute_in("", "x"));
    EXPECT_EQ("x", absolute_in("", "./x"));
    EXPECT_EQ("x", absolute_in("", "../x"));
}

TEST_F(AbsoluteName, AbsoluteNamesAreTrustedAsTheyStand)
{
    for (const char* name : {"/home/u/../x", "/", "//a", "/a/./b//c/", "/a.pyc"})
        EXPECT_EQ(name, absolute(name));
    EXPECT_EQ(0, watched.directory_queries);
    EXPECT_EQ(5u, record->absname_cache.numEntries);
}

TEST_F(AbsoluteName, ResultBelongsToTheCache)
{
    const char name[] = "/home/u/x.py";
    const char* result = get_absname(record.get(), name);
    EXPECT_NE(name, result);
    EXPECT_EQ(result, stored_text(&record->absname_cache, name));
    EXPECT_EQ(result, get_absname(record.get(), name));
    EXPECT_EQ(result, get_absname_forward_slash_names(record.get(), name));
}

TEST_F(AbsoluteName, ResolutionIsLexical)
{
    tree.folder("real/deep");
    tree.symlink(tree.path("real/deep"), "link");
    tree.enter();
    EXPECT_EQ(tree.path("link/missing.py"), absolute("link/missing.py"));
    EXPECT_EQ(tree.path("x"), absolute("link/../x"));
    EXPECT_EQ(tNames(), watched.examined);
}

TEST_F(AbsoluteName, KeepsTheFirstResultThroughAChangeOfDirectory)
{
    tree.folder("one");
    tree.folder("two");
    tree.enter("one");
    const char* first = get_absname(record.get(), "m.py");
    tree.enter("two");
    EXPECT_EQ(first, get_absname(record.get(), "m.py"));
    EXPECT_EQ(tree.path("one/m.py"), first);
    EXPECT_EQ(1, watched.directory_queries);
    EXPECT_EQ(tree.path("two/m.py"), absolute("./m.py"));  // another name as given
    EXPECT_EQ(2u, record->absname_cache.numEntries);
}

TEST_F(AbsoluteName, BytesAboveAsciiPassUnchanged)
{
    EXPECT_EQ("/w/\xc3\xa9\xff.py", absolute_in("/w", "\xc3\xa9\xff.py"));
}

TEST_F(AbsoluteName, RemovedCurrentDirectoryGivesNullAndCachesNothing)
{
    tree.enter_removed_folder();
    EXPECT_EQ("(null)", absolute("m.py"));
    EXPECT_EQ(0u, record->absname_cache.numEntries);
    EXPECT_EQ("/abs/m.py", absolute("/abs/m.py"));
    tree.enter();
    EXPECT_EQ(tree.path("m.py"), absolute("m.py"));
}

TEST_F(AbsoluteName, ForbiddenCurrentDirectoryGivesNull)
{
    watched.directory_error = EACCES;
    EXPECT_EQ("(null)", absolute("m.py"));
    EXPECT_EQ(0u, record->absname_cache.numEntries);
}

TEST_F(AbsoluteName, ArrayOfPartsGrowsByTenEntriesWithOneForTheEnd)
{
    struct {
        int parts;  // with the root
        int growths;
    } cases[] = {{9, 1}, {10, 2}, {19, 2}, {20, 3}, {105, 11}};
    watched.directory = "/";
    for (const auto& c : cases) {
        std::string name = "p";
        for (int i = 2; i < c.parts; ++i)
            name += "/p";
        tPlainRecord fresh;
        tHeapWatch heap;
        const char* result = get_absname(fresh.get(), name.c_str());
        heap.stop();
        EXPECT_EQ("/" + name, result);
        // the joined string, the growing array, the result, the entry
        ASSERT_EQ(c.growths + 3, heap.allocations()) << c.parts;
        for (int growth = 1; growth <= c.growths; ++growth)
            EXPECT_EQ(growth * 10 * sizeof(char*), heap.requested(1 + growth)) << c.parts;
    }
}

TEST_F(AbsoluteName, EveryIntermediateBlockIsFreed)
{
    tree.enter();
    tHeapWatch heap;
    absolute("a/b/../c");
    heap.stop();
    // directory, joined string, parts; the directory was allocated by the system
    EXPECT_EQ(4, heap.allocations());
    EXPECT_EQ(3, heap.frees());
}

TEST_F(AbsoluteName, EntryMadeMeanwhileIsRefilledAndItsStringFreed)
{
    watched.directory = "/w";
    const char* inner = nullptr;
    watched.during_getcwd = [&] { inner = get_absname(record.get(), "m.py"); };
    tHeapWatch heap;
    const char* outer = get_absname(record.get(), "m.py");
    heap.stop();
    EXPECT_STREQ("/w/m.py", outer);
    // Per resolution: joined string, parts, result; once the entry. Freed: per resolution the directory, which the
    // system allocated, the joined string and the parts; and the string of the inner one.
    EXPECT_EQ(7, heap.allocations());
    EXPECT_EQ(7, heap.frees());
    EXPECT_TRUE(heap.freed(inner));
    EXPECT_EQ(1u, record->absname_cache.numEntries);
    EXPECT_EQ(outer, stored_text(&record->absname_cache, "m.py"));
}

TEST_F(AbsoluteName, ReplacedStringStaysForThoseWhoUseTheRecord)
{
    watched.directory = "/w";
    const char* inner = nullptr;
    watched.during_getcwd = [&] { inner = get_absname(record.get(), "m.py"); };
    tHeapWatch heap;
    {
        tFileOpsUse outer_use(record.get());
        {
            tFileOpsUse use(record.get());
            get_absname(record.get(), "m.py");
        }
        EXPECT_STREQ("/w/m.py", inner);
        watched.during_getcwd = [] {};
    }
    heap.stop();
    EXPECT_TRUE(heap.freed(inner));
}

TEST_F(AbsoluteName, EveryAllocationFailureGivesNullAndTheNextTrySucceeds)
{
    watched.directory = "/w";
    auto found = [](const char* result) { return result != nullptr; };
    EXPECT_EQ(2, walk_allocation_failures([](tFileOpsData* data) { return get_absname(data, "/a/m.py"); }, found));
    EXPECT_EQ(4, walk_allocation_failures([](tFileOpsData* data) { return get_absname(data, "m.py"); }, found));
    EXPECT_EQ(5, walk_allocation_failures(
                     [](tFileOpsData* data) { return get_absname(data, "a/b/c/d/e/f/g/h/i/j/k/m.py"); }, found));
}

// ---- Same file ----

TEST_F(SameFile, KeepsTheShortcutForNamesThatBeginWithTheFirst)
{
    EXPECT_EQ(1, same("/a/b.py", "/a/b.pyc"));
    EXPECT_EQ(1, same("/a/b", "/a/b/c/d.py"));
    EXPECT_EQ(1, same("/a/b.py", "/a/b.py"));
    EXPECT_EQ(1, same("", "/a/b.py"));
    EXPECT_EQ(tNames(), watched.examined);
}

TEST_F(SameFile, ShortcutGoesByTheFirstNameOnly)
{
    EXPECT_EQ(0, same("/no/such/b.pyc", "/no/such/b.py"));
    EXPECT_EQ(0, same("/no/such/b.py", ""));
}

TEST_F(SameFile, HardAndSymbolicLinksAreTheSameFile)
{
    std::string name = tree.file("a.py");
    EXPECT_EQ(1, same(name, tree.hard_link(name, "hard.py")));
    EXPECT_EQ(1, same(tree.symlink(name, "soft.py"), name));
}

TEST_F(SameFile, EqualContentsAreNotTheSameFile)
{
    EXPECT_EQ(0, same(tree.file("a.py", "x"), tree.file("b.py", "x")));
}

TEST_F(SameFile, MissingFilesAreNoFile)
{
    std::string name = tree.file("a.py");
    EXPECT_EQ(0, same(name, tree.path("missing.py")));
    EXPECT_EQ(0, same(tree.path("missing.py"), name));
    EXPECT_EQ(0, same(tree.path("missing.py"), tree.path("absent.py")));
}

TEST_F(SameFile, CompiledFilesDecideWhenBothExist)
{
    std::string a = tree.file("a.py"), b = tree.file("b.py");
    tree.hard_link(tree.file("a.pyc"), "b.pyc");
    EXPECT_EQ(1, same(a, b));
    EXPECT_EQ(tNames({a + "c", b + "c"}), watched.examined);

    std::string c = tree.file("c.py"), d = tree.hard_link(c, "d.py");
    tree.file("c.pyc");
    tree.file("d.pyc");
    EXPECT_EQ(0, same(c, d));
}

TEST_F(SameFile, OneCompiledFileLeavesTheDecisionToThePlainNames)
{
    std::string a = tree.file("a.py"), b = tree.hard_link(a, "b.py");
    tree.file("a.pyc");
    EXPECT_EQ(1, same(a, b));
    EXPECT_EQ(1, same(b, a));
    EXPECT_EQ(tNames({a + "c", b + "c", a, b}), watched.examined);  // the second test used the caches
}

TEST_F(SameFile, NamesAreExaminedThroughTheCaches)
{
    std::string a = tree.file("a.py"), b = tree.file("b.py");
    same(a, b);
    EXPECT_EQ(2u, record->stat_cache.numEntries);
    EXPECT_EQ(2u, record->not_found_table.numEntries);
    EXPECT_EQ(0u, record->absname_cache.numEntries);
}

TEST_F(SameFile, EveryAllocationFailureLeavesTheTablesSoundAndTheNextTrySucceeds)
{
    std::string name = tree.file("a.py");
    std::string link = tree.hard_link(name, "link.py");
    for (int failing = 1;; ++failing) {
        SCOPED_TRACE(failing);
        tPlainRecord fresh;
        tHeapWatch heap(failing);
        int result = samefile(fresh.get(), name.c_str(), link.c_str());
        heap.stop();
        EXPECT_EQ("", table_faults(fresh.get()));
        // Two compiled names, and two blocks for each of four examinations. The compiled files do not exist, so only
        // a failure in the examination of a plain name hides the truth.
        EXPECT_EQ(failing >= 7 && failing <= 10 ? 0 : 1, result);
        EXPECT_EQ(1, samefile(fresh.get(), name.c_str(), link.c_str()));
        if (heap.allocations() < failing) {
            EXPECT_EQ(11, failing);
            break;
        }
    }
}

TEST_F(SameFile, FreesTheCompiledNames)
{
    std::string a = tree.file("a.py"), b = tree.file("b.py");
    same(a, b);
    tHeapWatch heap;
    same(a, b);
    heap.stop();
    EXPECT_EQ(heap.allocations(), heap.frees());
}

// ---- Compiled-file suffixes ----

std::string pruned(std::string name)
{
    prune_py_c_or_o(&name[0]);
    return name.c_str();
}

TEST(PruneSuffix, CompiledSuffixLosesItsLastCharacter)
{
    EXPECT_EQ("m.py", pruned("m.pyc"));
    EXPECT_EQ("m.py", pruned("m.pyo"));
    EXPECT_EQ("/a/b.py", pruned("/a/b.pyc"));
    EXPECT_EQ("m.pyc.py", pruned("m.pyc.pyc"));
}

TEST(PruneSuffix, AnyMixOfCaseIsRecognisedAndTheRestKept)
{
    EXPECT_EQ("m.PY", pruned("m.PYC"));
    EXPECT_EQ("m.Py", pruned("m.PyO"));
    EXPECT_EQ("M.pY", pruned("M.pYc"));
}

TEST(PruneSuffix, SuffixAloneIsLongEnough)
{
    EXPECT_EQ(".py", pruned(".pyc"));
    EXPECT_EQ(".py", pruned(".pyo"));
}

TEST(PruneSuffix, OtherNamesStayAsTheyAre)
{
    for (const char* name : {"m.pyw", "pyc", "pyo", "", "c", "m.py", "m.pyd", "mpyc", "m.pyc ", "m.pyc/x"})
        EXPECT_EQ(name, pruned(name));
}

}  // namespace
