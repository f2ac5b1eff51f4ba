#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <type_traits>

#include "failing_malloc.h"
#include "fileops_system.h"
#include "fileops_test_support.h"
#include "gtest/gtest.h"

// ---- The record: hosts and other units read it, so the places of its fields are fixed ----

static_assert(offsetof(tFileOpsData, absname_cache) == 0, "");
static_assert(offsetof(tFileOpsData, lower_absname_cache) == 1 * sizeof(CUt_HashTable), "");
static_assert(offsetof(tFileOpsData, not_found_table) == 2 * sizeof(CUt_HashTable), "");
static_assert(offsetof(tFileOpsData, stat_cache) == 3 * sizeof(CUt_HashTable), "");
static_assert(offsetof(tFileOpsData, unique_fileno_cache) == 4 * sizeof(CUt_HashTable), "");
static_assert(offsetof(tFileOpsData, canonical_by_unique_fileno) == 5 * sizeof(CUt_HashTable), "");
static_assert(offsetof(tFileOpsData, canonical_by_name) == 6 * sizeof(CUt_HashTable), "");
static_assert(offsetof(tFileOpsData, canonical_by_checksum) == 7 * sizeof(CUt_HashTable), "");
static_assert(offsetof(tFileOpsData, os_mod) == 640, "");
static_assert(offsetof(tFileOpsData, checksum_callback) == 648, "");
static_assert(offsetof(tFileOpsData, dp) == 656, "");
static_assert(sizeof(tFileOpsData) == 664, "");
static_assert(std::is_same<decltype(tFileOpsData::os_mod), PyObject*>::value, "");
static_assert(std::is_same<decltype(tFileOpsData::checksum_callback), PyObject*>::value, "");
static_assert(std::is_same<decltype(tFileOpsData::dp), tDPData*>::value, "");
static_assert(std::is_same<decltype(gUseCanonicalPathnames), int16_t>::value, "");

namespace {

constexpr int16_t kUntouched = 7;  // of a flag that no operation has set

tUniqueFileno identity_of(const std::string& name)
{
    struct stat result;
    if (stat(name.c_str(), &result) != 0)
        return {0, 0};
    return {result.st_dev, result.st_ino};
}

// The canonical name held under the identity of the file NAME, or null.
const char* stored_by_identity(tFileOpsData* data, const std::string& name)
{
    tUniqueFileno identity = identity_of(name);
    CUt_HashTable* table = &data->canonical_by_unique_fileno;
    CUt_HashEntry* entry = table->findProc(table, reinterpret_cast<const char*>(&identity));
    return entry ? static_cast<const char*>(entry->clientData) : nullptr;
}

class RegistryTest : public ::testing::Test
{
  protected:
    // Results as texts, "(null)" for null.
    std::string lookup(const std::string& name, const char* checksum = nullptr)
    {
        const char* result = lookup_canonical_pathname(record.get(), name.c_str(), checksum);
        return result ? result : "(null)";
    }
    std::string register_name(const std::string& name, const char* checksum = nullptr)
    {
        flag = kUntouched;
        const char* result = register_canonical_pathname(record.get(), name.c_str(), checksum, &flag);
        return result ? result : "(null)";
    }

    tTempTree tree;
    tWatchedSystem watched;
    tPlainRecord record;
    int16_t flag = kUntouched;  // what the last registration made of it
};

using FileOpsRecord = RegistryTest;
using CanonicalLookup = RegistryTest;
using CanonicalRegister = RegistryTest;
using CanonicalChecksum = RegistryTest;
using CanonicalMemory = RegistryTest;

// ---- Creation and destruction ----

TEST(FileOpsSwitch, UseOfCanonicalPathnamesIsOnAtFirst)
{
    EXPECT_EQ(1, gUseCanonicalPathnames);
}

TEST_F(FileOpsRecord, HasEightEmptyTablesOneOfThemKeyedByIdentity)
{
    const CUt_HashTable* string_tables[] = {&record->absname_cache,        &record->lower_absname_cache,
                                            &record->not_found_table,      &record->stat_cache,
                                            &record->unique_fileno_cache,  &record->canonical_by_name,
                                            &record->canonical_by_checksum};
    for (const CUt_HashTable* table : string_tables) {
        EXPECT_EQ(0u, table->keyType);
        EXPECT_EQ(0u, table->numEntries);
        EXPECT_EQ(&CU_StringFind, table->findProc);
    }
    EXPECT_EQ(16u, record->canonical_by_unique_fileno.keyType);
    EXPECT_EQ(0u, record->canonical_by_unique_fileno.numEntries);
    EXPECT_EQ(&CU_ArrayFind, record->canonical_by_unique_fileno.findProc);
}

TEST_F(FileOpsRecord, KeepsTheLogStateItWasGiven)
{
    tDPData log = {};
    tFileOpsData* data = create_file_ops_data(&log);
    ASSERT_NE(nullptr, data);
    EXPECT_EQ(&log, data->dp);
    EXPECT_EQ(nullptr, data->os_mod);  // no interpreter, no modules
    destroy_file_ops_data(data);
}

TEST_F(FileOpsRecord, CreationWithoutMemoryGivesNull)
{
    tHeapWatch heap(1);
    tFileOpsData* data = create_file_ops_data(nullptr);
    heap.stop();
    EXPECT_EQ(nullptr, data);
    EXPECT_EQ(1, heap.allocations());
    EXPECT_LE(sizeof(tFileOpsData), heap.requested(1));
}

TEST_F(FileOpsRecord, DestructionEndsTheTablesInOrderAndTheTimesLast)
{
    tFileOpsData* data = record.get();
    const tEndedTable expected[] = {
        {&data->absname_cache, true},
        {&data->lower_absname_cache, true},
        {&data->stat_cache, true},
        {&data->unique_fileno_cache, true},
        {&data->canonical_by_unique_fileno, true},
        {&data->canonical_by_name, true},
        {&data->canonical_by_checksum, true},
        {&data->not_found_table, false},
    };
    record.end();
    ASSERT_EQ(8u, watched.ended_tables.size());
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(expected[i].table, watched.ended_tables[i].table) << i;
        EXPECT_EQ(expected[i].with_client_data, watched.ended_tables[i].with_client_data) << i;
    }
}

TEST_F(FileOpsRecord, DestructionFreesEveryBlockOfAFilledRecordAndTheReservedTables)
{
    std::string name = tree.file("a.py");
    tree.enter();
    int is_new;
    tHeapWatch heap;
    tFileOpsData* data = create_file_ops_data(nullptr);
    data->lower_absname_cache.createProc(&data->lower_absname_cache, "k", &is_new)->clientData = strdup("lower");
    data->unique_fileno_cache.createProc(&data->unique_fileno_cache, "k", &is_new)->clientData = strdup("identity");
    register_canonical_pathname(data, "a.py", "sum", nullptr);
    lookup_canonical_pathname(data, "/missing.py", nullptr);
    destroy_file_ops_data(data);
    heap.stop();
    EXPECT_TRUE(heap.freed(data));
    // A growing block counts as freed and as allocated, and the directory's name comes from the system.
    EXPECT_EQ(heap.allocations(), heap.frees() - 1);
}

TEST_F(FileOpsRecord, ReservedTablesStayEmpty)
{
    std::string name = tree.file("a.py");
    register_name(name, "sum");
    lookup("other.py", "sum");
    EXPECT_EQ(0u, record->lower_absname_cache.numEntries);
    EXPECT_EQ(0u, record->unique_fileno_cache.numEntries);
}

// ---- Look-up ----

TEST_F(CanonicalLookup, UnknownNameIsNullAndStaysUnregistered)
{
    EXPECT_EQ("(null)", lookup(tree.file("a.py")));
    EXPECT_EQ("(null)", lookup("/no/such.py", "sum"));
    EXPECT_EQ(0u, record->canonical_by_name.numEntries);
    EXPECT_EQ(0u, record->canonical_by_unique_fileno.numEntries);
    EXPECT_EQ(0u, record->canonical_by_checksum.numEntries);
}

TEST_F(CanonicalLookup, RegisteredNameIsFoundWithoutExaminingTheFile)
{
    register_name("/no/such.py");
    watched.examined.clear();
    const char* result = lookup_canonical_pathname(record.get(), "/no/such.py", nullptr);
    EXPECT_STREQ("/no/such.py", result);
    EXPECT_EQ(stored_text(&record->canonical_by_name, "/no/such.py"), result);
    EXPECT_TRUE(watched.examined.empty());
}

TEST_F(CanonicalLookup, UnregisteredLinkGivesTheNameOfItsFile)
{
    std::string name = tree.file("a.py");
    register_name(name);
    EXPECT_EQ(name, lookup(tree.symlink(name, "link.py")));
    EXPECT_EQ(name, lookup(tree.hard_link(name, "hard.py")));
    EXPECT_EQ(name, lookup(tree.path("../") + std::filesystem::path(tree.root()).filename().string() + "/a.py"));
    EXPECT_EQ(1u, record->canonical_by_name.numEntries);
}

TEST_F(CanonicalLookup, ChecksumAnswersLast)
{
    std::string first = tree.file("a.py"), second = tree.file("b.py"), third = tree.file("c.py");
    register_name(first, "sum");
    register_name(second);
    EXPECT_EQ(second, lookup(second, "sum"));
    EXPECT_EQ(second, lookup(tree.hard_link(second, "link.py"), "sum"));
    EXPECT_EQ(first, lookup(third, "sum"));
    EXPECT_EQ(first, lookup("/no/such.py", "sum"));
    EXPECT_EQ("(null)", lookup(third, "other sum"));
    EXPECT_EQ("(null)", lookup(third));
}

TEST_F(CanonicalLookup, EmptyChecksumCountsAsNone)
{
    int is_new;
    CUt_HashTable* table = &record->canonical_by_checksum;
    table->createProc(table, "", &is_new)->clientData = strdup("/trap.py");
    EXPECT_EQ("(null)", lookup("/no/such.py", ""));
}

TEST_F(CanonicalLookup, NameIsPreparedAsInRegistration)
{
    tree.folder("w");
    std::string folder = tree.enter("w");
    register_name("m.py");
    EXPECT_EQ(folder + "/m.py", lookup("m.pyc"));
    EXPECT_EQ(folder + "/m.py", lookup("./x/../m.pyo"));
    EXPECT_EQ(folder + "/m.py", lookup(folder + "/m.pyc"));
    EXPECT_EQ("(null)", lookup(folder + "/m.PYC"));  // m.PY is another name
}

TEST_F(CanonicalLookup, RelativeNameWithoutCurrentDirectoryIsNullEvenWithAKnownChecksum)
{
    register_name("/a.py", "sum");
    tree.enter_removed_folder();
    EXPECT_EQ("(null)", lookup("m.py", "sum"));
    EXPECT_EQ("/a.py", lookup("/m.py", "sum"));
}

// ---- Registration ----

TEST_F(CanonicalRegister, FirstNameOfAFileIsItsCanonicalName)
{
    std::string name = tree.file("a.py");
    EXPECT_EQ(name, register_name(name));
    EXPECT_EQ(1, flag);
    EXPECT_STREQ(name.c_str(), stored_text(&record->canonical_by_name, name));
    EXPECT_STREQ(name.c_str(), stored_by_identity(record.get(), name));
}

TEST_F(CanonicalRegister, SecondNameOfAFileIsNewButGetsTheFirstName)
{
    std::string name = tree.file("a.py");
    register_name(name);
    std::string link = tree.symlink(name, "link.py");
    EXPECT_EQ(name, register_name(link));
    EXPECT_EQ(1, flag);
    EXPECT_EQ(name, lookup(link));
    EXPECT_STREQ(name.c_str(), stored_text(&record->canonical_by_name, link));
    EXPECT_EQ(1u, record->canonical_by_unique_fileno.numEntries);
}

TEST_F(CanonicalRegister, RepeatedRegistrationIsNotNew)
{
    std::string name = tree.file("a.py");
    const char* first = register_canonical_pathname(record.get(), name.c_str(), nullptr, nullptr);
    EXPECT_EQ(name, register_name(name));
    EXPECT_EQ(0, flag);
    EXPECT_EQ(first, register_canonical_pathname(record.get(), name.c_str(), nullptr, nullptr));
    EXPECT_EQ(1u, record->canonical_by_name.numEntries);
}

TEST_F(CanonicalRegister, ResultBelongsToTheNameEntry)
{
    std::string name = tree.file("a.py");
    const char* result = register_canonical_pathname(record.get(), name.c_str(), "sum", nullptr);
    EXPECT_EQ(stored_text(&record->canonical_by_name, name), result);
    // Every table has a copy of its own.
    EXPECT_NE(stored_by_identity(record.get(), name), result);
    EXPECT_NE(stored_text(&record->canonical_by_checksum, "sum"), result);
    EXPECT_NE(stored_text(&record->canonical_by_checksum, "sum"), stored_by_identity(record.get(), name));
}

TEST_F(CanonicalRegister, FileThatCannotBeExaminedIsItsOwnCanonicalName)
{
    EXPECT_EQ("/no/such.py", register_name("/no/such.py"));
    EXPECT_EQ(1, flag);
    EXPECT_EQ(0u, record->canonical_by_unique_fileno.numEntries);
}

TEST_F(CanonicalRegister, CompiledNameInTheCurrentDirectoryRegistersTheSource)
{
    tree.folder("w");
    std::string folder = tree.enter("w");
    EXPECT_EQ(folder + "/m.py", register_name("m.pyc"));
    EXPECT_EQ(1, flag);
    EXPECT_EQ(folder + "/m.py", register_name("m.pyo"));
    EXPECT_EQ(0, flag);
    EXPECT_EQ(folder + "/m.py", register_name(folder + "/m.py"));
    EXPECT_EQ(0, flag);
    EXPECT_EQ(folder + "/n.PY", register_name("n.PYO"));
}

TEST_F(CanonicalRegister, AbsoluteNameIsUsedAsItStands)
{
    EXPECT_EQ("/no/./such/../x.py", register_name("/no/./such/../x.pyc"));
    EXPECT_EQ(0u, record->absname_cache.numEntries);
    std::string name = tree.file("a.py");
    register_name(name);
    std::string roundabout = tree.folder("p") + "/../a.py";
    EXPECT_EQ(name, register_name(roundabout));
    EXPECT_EQ(1, flag);
    EXPECT_NE(nullptr, stored_text(&record->canonical_by_name, roundabout));
}

TEST_F(CanonicalRegister, RelativeNameIsResolvedThroughTheAbsnameCacheWithoutItsCompiledSuffix)
{
    tree.enter();
    register_name("m.pyc");
    EXPECT_EQ(1u, record->absname_cache.numEntries);
    EXPECT_EQ(tree.path("m.py"), stored_text(&record->absname_cache, "m.py"));
}

TEST_F(CanonicalRegister, KeepsTheFirstCanonicalNameOfAReplacedOrMovedFile)
{
    std::string name = tree.file("a.py"), other = tree.file("b.py");
    register_name(name);
    register_name(other);
    std::filesystem::rename(other, name);
    watched.now += 1000;
    EXPECT_EQ(name, register_name(name));
    EXPECT_EQ(other, lookup(other));
    EXPECT_EQ(other, lookup(tree.hard_link(name, "link.py")));  // the file behind it was b.py
}

TEST_F(CanonicalRegister, FileWithoutANameUnderItsIdentityGetsItsOwn)
{
    std::string name = tree.file("a.py");
    tUniqueFileno identity = identity_of(name);
    int is_new;
    CUt_HashTable* table = &record->canonical_by_unique_fileno;
    CUt_HashEntry* entry = table->createProc(table, reinterpret_cast<const char*>(&identity), &is_new);
    EXPECT_EQ(name, register_name(name));
    EXPECT_EQ(nullptr, entry->clientData);
}

TEST_F(CanonicalRegister, FailedPreparationGivesNullAndLeavesTheFlagAlone)
{
    tree.enter_removed_folder();
    EXPECT_EQ("(null)", register_name("m.py", "sum"));
    EXPECT_EQ(kUntouched, flag);
    EXPECT_EQ(0u, record->canonical_by_name.numEntries);
    EXPECT_EQ(0u, record->canonical_by_checksum.numEntries);
    EXPECT_EQ("/m.py", register_name("/m.py"));
}

TEST_F(CanonicalRegister, FailedNameEntryClearsTheFlag)
{
    int16_t newly = kUntouched;
    tHeapWatch heap(2);
    const char* result = register_canonical_pathname(record.get(), "/no/such.py", nullptr, &newly);
    heap.stop();
    EXPECT_EQ(nullptr, result);
    EXPECT_EQ(0, newly);
}

TEST_F(CanonicalRegister, ManyFilesKeepTheirNamesThroughTableGrowth)
{
    std::vector<std::string> names;
    for (int i = 0; i < 60; ++i)
        names.push_back(tree.file("file" + std::to_string(i) + ".py"));
    for (const std::string& name : names)
        EXPECT_EQ(name, register_name(name, name.c_str()));
    for (const std::string& name : names) {
        EXPECT_EQ(name, lookup(name));
        EXPECT_EQ(name, lookup("/elsewhere.py", name.c_str()));
        EXPECT_EQ(name, stored_by_identity(record.get(), name));
    }
    EXPECT_EQ("", table_faults(record.get()));
    EXPECT_EQ(60u, record->canonical_by_name.numEntries);
}

// ---- Checksums ----

TEST_F(CanonicalChecksum, DuplicatesKeepTheirOwnNamesAndLookupGivesTheFirst)
{
    std::string first = tree.file("a.py"), second = tree.file("b.py");
    EXPECT_EQ(first, register_name(first, "sum"));
    EXPECT_EQ(second, register_name(second, "sum"));
    EXPECT_EQ(1, flag);
    EXPECT_EQ(1u, record->canonical_by_checksum.numEntries);
    EXPECT_EQ(first, lookup("/no/third.py", "sum"));
}

TEST_F(CanonicalChecksum, HoldsTheNameBeingRegisteredNotItsCanonicalName)
{
    std::string name = tree.file("a.py");
    register_name(name);
    std::string link = tree.symlink(name, "link.py");
    EXPECT_EQ(name, register_name(link, "sum"));
    EXPECT_EQ(link, lookup("/no/such.py", "sum"));
}

TEST_F(CanonicalChecksum, IsAddedToANameThatWasRegisteredBefore)
{
    register_name("/no/such.py");
    register_name("/no/such.py", "sum");
    EXPECT_EQ(0, flag);
    register_name("/no/such.py", "second sum");
    EXPECT_EQ("/no/such.py", lookup("/other.py", "sum"));
    EXPECT_EQ("/no/such.py", lookup("/other.py", "second sum"));
}

TEST_F(CanonicalChecksum, EmptyChecksumCountsAsNone)
{
    register_name("/no/such.py", "");
    EXPECT_EQ(0u, record->canonical_by_checksum.numEntries);
}

// ---- Memory ----

struct tOutcome {
    std::string result;  // of the registration
    int16_t flag;
    uint32_t names;       // entries of canonical_by_name
    uint32_t identities;  // of canonical_by_unique_fileno
    uint32_t checksums;   // of canonical_by_checksum
};

bool operator==(const tOutcome& a, const tOutcome& b)
{
    return a.result == b.result && a.flag == b.flag && a.names == b.names && a.identities == b.identities &&
           a.checksums == b.checksums;
}

void PrintTo(const tOutcome& o, std::ostream* out)
{
    *out << o.result << ", flag " << o.flag << ", entries " << o.names << " " << o.identities << " " << o.checksums;
}

// Registers NAME with a checksum in a fresh record while the allocations FAILING to LAST fail.
tOutcome register_failing(tPlainRecord* fresh, const std::string& name, int failing, int last, int* allocations)
{
    int16_t flag = kUntouched;
    tHeapWatch heap(failing, last);
    const char* result = register_canonical_pathname(fresh->get(), name.c_str(), "sum", &flag);
    heap.stop();
    *allocations = heap.allocations();
    return {result ? result : "(null)", flag, (*fresh)->canonical_by_name.numEntries,
            (*fresh)->canonical_by_unique_fileno.numEntries, (*fresh)->canonical_by_checksum.numEntries};
}

TEST_F(CanonicalMemory, EachFailureOfARegistrationHasItsOutcomeAndTheNextTrySucceeds)
{
    std::string name = tree.file("a.py");
    const tOutcome expected[] = {
        {"(null)", kUntouched, 0, 0, 0},  // the copy of the name
        {"(null)", 0, 0, 0, 0},           // the name entry
        {name, 1, 1, 0, 1},               // the stat result: the file counts as absent
        {name, 1, 1, 0, 1},               // the stat entry
        {name, 1, 1, 0, 1},               // the identity entry
        {name, 1, 1, 0, 1},               // its copy of the name
        {"(null)", 0, 0, 1, 0},           // the name entry's copy
        {name, 1, 1, 1, 0},               // the checksum entry
        {name, 1, 1, 1, 0},               // its copy of the name
        {name, 1, 1, 1, 1},               // nothing fails
    };
    int failing = 0;
    for (const tOutcome& outcome : expected) {
        failing += 1;
        SCOPED_TRACE(failing);
        tPlainRecord fresh;
        int allocations;
        EXPECT_EQ(outcome, register_failing(&fresh, name, failing, failing, &allocations));
        EXPECT_EQ(failing == 10, allocations < failing);
        EXPECT_EQ("", table_faults(fresh.get()));
        EXPECT_STREQ(name.c_str(), register_canonical_pathname(fresh.get(), name.c_str(), "sum", nullptr));
        EXPECT_STREQ(name.c_str(), lookup_canonical_pathname(fresh.get(), "/other.py", "sum"));
        EXPECT_EQ("", table_faults(fresh.get()));
    }
}

TEST_F(CanonicalMemory, SeveralFailuresInARowLeaveTheTablesSound)
{
    std::string name = tree.file("a.py");
    for (int failing = 1; failing <= 9; ++failing) {
        for (int last = failing; last <= 10; ++last) {
            SCOPED_TRACE(std::to_string(failing) + " to " + std::to_string(last));
            tPlainRecord fresh;
            int allocations;
            register_failing(&fresh, name, failing, last, &allocations);
            EXPECT_EQ("", table_faults(fresh.get()));
            EXPECT_STREQ(name.c_str(), register_canonical_pathname(fresh.get(), name.c_str(), "sum", nullptr));
        }
    }
}

TEST_F(CanonicalMemory, FailuresOfARelativeRegistrationLeaveTheTablesSound)
{
    tree.file("a.py");
    tree.enter();
    int failing = 0;
    int allocations;
    do {
        failing += 1;
        SCOPED_TRACE(failing);
        tPlainRecord fresh;
        tOutcome outcome = register_failing(&fresh, "a.pyc", failing, failing, &allocations);
        // copy, joined name, parts, result, cache entry; then as for an absolute name
        EXPECT_EQ(failing <= 6 || failing == 11 ? "(null)" : tree.path("a.py"), outcome.result);
        EXPECT_EQ("", table_faults(fresh.get()));
        EXPECT_EQ(tree.path("a.py"), register_canonical_pathname(fresh.get(), "a.pyc", "sum", nullptr));
    } while (allocations >= failing);
    EXPECT_EQ(14, failing);
}

TEST_F(CanonicalMemory, FailureInALinkRegistrationNeverChangesTheFirstName)
{
    std::string name = tree.file("a.py");
    std::string link = tree.symlink(name, "link.py");
    // copy, name entry, stat result, stat entry, copy of the canonical name
    for (int failing = 1; failing <= 6; ++failing) {
        SCOPED_TRACE(failing);
        tPlainRecord fresh;
        register_canonical_pathname(fresh.get(), name.c_str(), nullptr, nullptr);
        tHeapWatch heap(failing);
        const char* result = register_canonical_pathname(fresh.get(), link.c_str(), nullptr, nullptr);
        heap.stop();
        EXPECT_EQ(failing == 6, heap.allocations() < failing);
        // Without its examination the file counts as absent, and the link stands for itself.
        std::string expected = failing == 3 || failing == 4 ? link : failing == 6 ? name : "(null)";
        EXPECT_EQ(expected, result ? result : "(null)");
        EXPECT_EQ("", table_faults(fresh.get()));
        EXPECT_STREQ(name.c_str(), stored_by_identity(fresh.get(), name));
        EXPECT_STREQ(name.c_str(), lookup_canonical_pathname(fresh.get(), name.c_str(), nullptr));
    }
}

TEST_F(CanonicalMemory, EachFailureOfALookupGivesNullAndTheNextTryFinds)
{
    std::string name = tree.file("a.py");
    std::string link = tree.symlink(name, "link.py");
    for (int failing = 1; failing <= 4; ++failing) {
        SCOPED_TRACE(failing);
        tPlainRecord fresh;
        register_canonical_pathname(fresh.get(), name.c_str(), nullptr, nullptr);
        tHeapWatch heap(failing);
        const char* result = lookup_canonical_pathname(fresh.get(), link.c_str(), nullptr);
        heap.stop();
        EXPECT_EQ(failing == 4, heap.allocations() < failing);
        EXPECT_EQ(failing == 4 ? name : "(null)", result ? result : "(null)");
        EXPECT_EQ("", table_faults(fresh.get()));
        EXPECT_STREQ(name.c_str(), lookup_canonical_pathname(fresh.get(), link.c_str(), nullptr));
    }
}

TEST_F(CanonicalMemory, LookupOfAKnownNameFreesItsOnlyBlock)
{
    register_name("/no/such.py");
    tHeapWatch heap;
    lookup_canonical_pathname(record.get(), "/no/such.pyc", nullptr);
    heap.stop();
    EXPECT_EQ(1, heap.allocations());
    EXPECT_EQ(1, heap.frees());
}

}  // namespace
