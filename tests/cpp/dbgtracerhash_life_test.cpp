#include <algorithm>

#include "dbgtracerhash_test_support.h"

// ---- Deletion of entries ----

// Deletes one of the chain "9", "5", "1" of bucket 1.
static void expect_after_delete(const char* key, const std::vector<std::string>& left)
{
    tTestTable table;
    add_all(&table, {"1", "5", "9", "2"});
    CUt_HashEntry* entry = CU_StringFind(&table, key);
    ASSERT_NE(nullptr, entry);
    int value = 0;
    entry->clientData = &value;  // not a heap block: freeing it would crash
    tHeapWatch watch;
    CU_DeleteHashEntry(entry);
    watch.stop();
    EXPECT_EQ(1, watch.frees());
    EXPECT_TRUE(watch.freed(entry));
    EXPECT_EQ(left, chain(&table, 1));
    EXPECT_EQ((std::vector<std::string>{"2"}), chain(&table, 2));
    EXPECT_EQ(3u, table.numEntries);
    EXPECT_EQ(nullptr, CU_StringFind(&table, key));
    for (const std::string& other : left)
        EXPECT_NE(nullptr, CU_StringFind(&table, other.c_str()));
}

TEST(HashTable, DeletesTheHeadOfAChain)
{
    expect_after_delete("9", {"5", "1"});
}

TEST(HashTable, DeletesFromTheMiddleOfAChain)
{
    expect_after_delete("5", {"9", "1"});
}

TEST(HashTable, DeletesTheTailOfAChain)
{
    expect_after_delete("1", {"9", "5"});
}

TEST(HashTable, DeletesTheOnlyEntryOfABucket)
{
    tTestTable table(16);
    CU_DeleteHashEntry(add(&table, array_key(28).c_str()));
    EXPECT_EQ(nullptr, table.buckets[3]);
    EXPECT_EQ(0u, table.numEntries);
}

TEST(HashTable, ADeletedKeyCanBeCreatedAgain)
{
    tTestTable table;
    CUt_HashEntry* entry = add(&table, "name");
    entry->clientData = &table;
    CU_DeleteHashEntry(entry);
    entry = add(&table, "name");
    EXPECT_EQ(nullptr, entry->clientData);
    EXPECT_EQ(1u, table.numEntries);
}

TEST(HashTable, NeverShrinks)
{
    tTestTable table;
    std::vector<CUt_HashEntry*> entries = add_all(&table, numbered(0, 48));
    CUt_HashEntry** buckets = table.buckets;
    for (CUt_HashEntry* entry : entries)
        CU_DeleteHashEntry(entry);
    EXPECT_EQ(0u, table.numEntries);
    EXPECT_EQ(buckets, table.buckets);
    expect_sizes(table, 64, 192, 24);
    expect_consistent(table);
}

TEST(HashTable, DeallocOfAnEntryFreesItsClientData)
{
    tTestTable table;
    add_all(&table, {"1", "5", "9"});
    CUt_HashEntry* entry = CU_StringFind(&table, "5");
    void* data = malloc(24);
    entry->clientData = data;
    tHeapWatch watch;
    CU_DeallocHashEntry(entry);
    watch.stop();
    EXPECT_EQ(2, watch.frees());
    EXPECT_TRUE(watch.freed(data));
    EXPECT_TRUE(watch.freed(entry));
    EXPECT_EQ((std::vector<std::string>{"9", "1"}), chain(&table, 1));
    EXPECT_EQ(2u, table.numEntries);
}

TEST(HashTable, DeallocOfAnEntryWithoutClientDataFreesTheEntryOnly)
{
    tTestTable table;
    CUt_HashEntry* entry = add(&table, "1");
    tHeapWatch watch;
    CU_DeallocHashEntry(entry);
    watch.stop();
    EXPECT_EQ(1, watch.frees());
    EXPECT_TRUE(watch.freed(entry));
    EXPECT_EQ(0u, table.numEntries);
}

// ---- Deletion of tables ----

TEST(HashTable, DeleteFreesEveryEntryAndNoClientData)
{
    tTestTable table;
    std::vector<CUt_HashEntry*> entries = add_all(&table, {"1", "5", "2"});
    int value = 0;
    for (CUt_HashEntry* entry : entries)
        entry->clientData = &value;
    tHeapWatch watch;
    CU_DeleteHashTable(&table);
    watch.stop();
    table.ended = true;
    EXPECT_EQ(3, watch.frees());
    for (CUt_HashEntry* entry : entries)
        EXPECT_TRUE(watch.freed(entry));
}

TEST(HashTable, DeleteFreesAGrownBucketArray)
{
    tTestTable table;
    std::vector<CUt_HashEntry*> entries = add_all(&table, numbered(0, 12));
    CUt_HashEntry** buckets = table.buckets;
    tHeapWatch watch;
    CU_DeleteHashTable(&table);
    watch.stop();
    table.ended = true;
    EXPECT_EQ(13, watch.frees());
    EXPECT_TRUE(watch.freed(buckets));
    for (CUt_HashEntry* entry : entries)
        EXPECT_TRUE(watch.freed(entry));
}

TEST(HashTable, DeallocFreesEveryNonNullClientData)
{
    for (int count : {3, 12}) {
        tTestTable table;
        std::vector<CUt_HashEntry*> entries = add_all(&table, numbered(0, count));
        std::vector<void*> data;
        for (size_t i = 1; i < entries.size(); ++i) {  // the first entry keeps its null
            data.push_back(malloc(8));
            entries[i]->clientData = data.back();
        }
        CUt_HashEntry** buckets = table.buckets;
        tHeapWatch watch;
        CU_DeallocHashTable(&table);
        watch.stop();
        table.ended = true;
        EXPECT_EQ(count + (count - 1) + (count == 12 ? 1 : 0), watch.frees());
        EXPECT_EQ(count == 12, watch.freed(buckets));
        for (CUt_HashEntry* entry : entries)
            EXPECT_TRUE(watch.freed(entry));
        for (void* block : data)
            EXPECT_TRUE(watch.freed(block));
        EXPECT_EQ(CU_BogusFind, table.findProc);
        EXPECT_EQ(CU_BogusCreate, table.createProc);
    }
}

TEST(HashTable, ADeletedTableFindsAndCreatesNothing)
{
    for (uint32_t key_type : {0u, 16u}) {
        tTestTable table(key_type);
        const std::string key = array_key('a');
        add(&table, key.c_str());
        CU_DeleteHashTable(&table);
        table.ended = true;
        EXPECT_EQ(CU_BogusFind, table.findProc);
        EXPECT_EQ(CU_BogusCreate, table.createProc);
        int is_new = -1;
        tHeapWatch watch;
        CUt_HashEntry* found = table.findProc(&table, key.c_str());
        CUt_HashEntry* created = table.createProc(&table, key.c_str(), &is_new);
        watch.stop();
        EXPECT_EQ(nullptr, found);
        EXPECT_EQ(nullptr, created);
        EXPECT_EQ(-1, is_new);
        EXPECT_EQ(0, watch.allocations());
    }
}

TEST(HashTable, DeletionLeavesCountersAndBucketPointers)
{
    tTestTable table;
    add_all(&table, {"1", "5", "2"});
    CUt_HashEntry* head = table.buckets[1];
    CU_DeleteHashTable(&table);
    table.ended = true;
    EXPECT_EQ(3u, table.numEntries);
    EXPECT_EQ(table.staticBuckets, table.buckets);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(head), reinterpret_cast<uintptr_t>(table.buckets[1]));
    expect_sizes(table, 4, 12, 28);
}

TEST(HashTable, ADeletedTableCanBeInitialisedAgain)
{
    tTestTable table;
    add_all(&table, numbered(0, 12));
    CU_DeleteHashTable(&table);
    CU_InitHashTable(&table, 16);
    expect_empty(table, 16);
    EXPECT_NE(nullptr, add(&table, array_key(1).c_str()));
}

// ---- Iteration ----

TEST(HashTable, IterationGoesBucketByBucketFromEachHead)
{
    tTestTable table;
    add_all(&table, {"3", "1", "5", "9"});  // buckets 0 and 2 stay empty
    CUt_HashSearch search;
    memset(&search, 0xA5, sizeof(search));
    CUt_HashEntry* entry = CU_FirstHashEntry(&table, &search);
    ASSERT_NE(nullptr, entry);
    EXPECT_STREQ("9", text_of(entry));
    EXPECT_EQ(&table, search.tablePtr);
    EXPECT_EQ(2u, search.nextIndex);
    EXPECT_EQ(entry->nextPtr, search.nextEntryPtr);

    EXPECT_STREQ("5", text_of(CU_NextHashEntry(&search)));
    EXPECT_STREQ("1", text_of(CU_NextHashEntry(&search)));
    EXPECT_EQ(2u, search.nextIndex);
    EXPECT_EQ(nullptr, search.nextEntryPtr);
    EXPECT_STREQ("3", text_of(CU_NextHashEntry(&search)));
    EXPECT_EQ(4u, search.nextIndex);
    for (int i = 0; i < 2; ++i) {  // the end is lasting
        EXPECT_EQ(nullptr, CU_NextHashEntry(&search));
        EXPECT_EQ(4u, search.nextIndex);
        EXPECT_EQ(nullptr, search.nextEntryPtr);
    }
}

TEST(HashTable, IterationOfAnEmptyTableEndsAtOnce)
{
    tTestTable table;
    CUt_HashSearch search;
    memset(&search, 0xA5, sizeof(search));
    EXPECT_EQ(nullptr, CU_FirstHashEntry(&table, &search));
    EXPECT_EQ(&table, search.tablePtr);
    EXPECT_EQ(4u, search.nextIndex);
    EXPECT_EQ(nullptr, search.nextEntryPtr);
    EXPECT_EQ(nullptr, CU_NextHashEntry(&search));
}

TEST(HashTable, IterationVisitsEveryEntryOfAGrownTableOnce)
{
    tTestTable table;
    const std::vector<std::string> keys = numbered(0, 200);
    add_all(&table, keys);
    std::multiset<std::string> seen;
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&table, &search); entry; entry = CU_NextHashEntry(&search))
        seen.insert(text_of(entry));
    EXPECT_EQ(std::multiset<std::string>(keys.begin(), keys.end()), seen);
    EXPECT_EQ(256u, search.nextIndex);
}

TEST(HashTable, TheReturnedEntryMayBeDeletedDuringIteration)
{
    tTestTable table;
    const std::vector<std::string> keys = numbered(0, 60);
    add_all(&table, keys);
    std::multiset<std::string> seen;
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&table, &search); entry; entry = CU_NextHashEntry(&search)) {
        seen.insert(text_of(entry));
        CU_DeleteHashEntry(entry);
    }
    EXPECT_EQ(std::multiset<std::string>(keys.begin(), keys.end()), seen);
    EXPECT_EQ(0u, table.numEntries);
    expect_consistent(table);
}

// ---- Statistics ----

// The text for BUCKETS buckets, LENGTHS[n] of them with n entries and OVERFLOWING with ten or more.
static std::string stats_text(int entries, int buckets, const std::vector<int>& lengths, int overflowing,
                              const char* average)
{
    std::string text = std::to_string(entries) + " entries in table, " + std::to_string(buckets) + " buckets\n";
    for (size_t i = 0; i < lengths.size(); ++i)
        text += "number of buckets with " + std::to_string(i) + " entries: " + std::to_string(lengths[i]) + "\n";
    text += "number of buckets with 10 or more entries: " + std::to_string(overflowing) + "\n";
    return text + "average search distance for entry: " + average;
}

TEST(HashTable, StatsOfOneEntryPerBucket)
{
    tTestTable table;
    add_all(&table, {"a", "b", "c", "d"});
    EXPECT_EQ(
        "4 entries in table, 4 buckets\n"
        "number of buckets with 0 entries: 0\n"
        "number of buckets with 1 entries: 4\n"
        "number of buckets with 2 entries: 0\n"
        "number of buckets with 3 entries: 0\n"
        "number of buckets with 4 entries: 0\n"
        "number of buckets with 5 entries: 0\n"
        "number of buckets with 6 entries: 0\n"
        "number of buckets with 7 entries: 0\n"
        "number of buckets with 8 entries: 0\n"
        "number of buckets with 9 entries: 0\n"
        "number of buckets with 10 or more entries: 0\n"
        "average search distance for entry: 1.0",
        stats(&table));
}

TEST(HashTable, StatsOfUnevenChains)
{
    tTestTable table;
    add_all(&table, {"1", "5", "9", "2"});  // 3/4 * 4/2 + 1/4 * 2/2 = 1.75
    EXPECT_EQ(stats_text(4, 4, {2, 1, 0, 1, 0, 0, 0, 0, 0, 0}, 0, "1.8"), stats(&table));
}

TEST(HashTable, StatsCountNineEntriesInTheHistogram)
{
    tTestTable table;
    add_all(&table, std::vector<std::string>(kBucketOne.begin(), kBucketOne.begin() + 9));
    EXPECT_EQ(stats_text(9, 4, {3, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 0, "5.0"), stats(&table));
}

TEST(HashTable, StatsCountTenEntriesAsOverflow)
{
    tTestTable table;
    add_all(&table, std::vector<std::string>(kBucketOne.begin(), kBucketOne.begin() + 10));
    EXPECT_EQ(stats_text(10, 4, {3, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 1, "5.5"), stats(&table));
}

TEST(HashTable, StatsCountElevenEntriesAsOverflow)
{
    tTestTable table;
    add_all(&table, kBucketOne);
    EXPECT_EQ(stats_text(11, 4, {3, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 1, "6.0"), stats(&table));
}

TEST(HashTable, StatsOfAGrownTable)
{
    tTestTable table;
    // Twelve of sixteen buckets with one entry each.
    add_all(&table, {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k", "l"});
    EXPECT_EQ(stats_text(12, 16, {4, 12, 0, 0, 0, 0, 0, 0, 0, 0}, 0, "1.0"), stats(&table));
}

TEST(HashTable, KeepsNotANumberInTheStatsOfAnEmptyTable)
{
    tTestTable table;
    const std::vector<int> lengths = {4, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    const std::string text = stats(&table);
    // The sign of 0.0 / 0.0 is the processor's choice.
    EXPECT_TRUE(text == stats_text(0, 4, lengths, 0, "nan") || text == stats_text(0, 4, lengths, 0, "-nan")) << text;
}

TEST(HashTable, StatsTextIsABlockOf900Bytes)
{
    tTestTable table;
    add(&table, "a");
    tHeapWatch watch;
    char* text = CU_HashStats(&table);
    watch.stop();
    EXPECT_EQ(1, watch.allocations());
    EXPECT_EQ(900u, watch.requested(1));
    free(text);
}

TEST(HashTable, StatsWithoutMemoryAreNull)
{
    tTestTable table;
    add(&table, "a");
    tHeapWatch watch(1);
    char* text = CU_HashStats(&table);
    watch.stop();
    EXPECT_EQ(nullptr, text);
    EXPECT_EQ(1u, table.numEntries);
}

// ---- Failed allocations ----

TEST(HashTable, AFailedEntryAllocationLeavesTheTableAsItWas)
{
    for (uint32_t key_type : {0u, 16u}) {
        tTestTable table(key_type);
        add(&table, array_key('a').c_str() + (key_type ? 0 : 5));
        CUt_HashTable before = table;
        const std::string key = key_type ? array_key('e') : "e";
        int is_new = -1;
        tHeapWatch watch(1);
        CUt_HashEntry* entry = table.createProc(&table, key.c_str(), &is_new);
        watch.stop();
        EXPECT_EQ(nullptr, entry);
        EXPECT_EQ(1, is_new);
        EXPECT_EQ(1, watch.allocations());
        EXPECT_EQ(0, memcmp(&before, static_cast<CUt_HashTable*>(&table), sizeof(before)));
        expect_consistent(table);
        EXPECT_EQ(nullptr, table.findProc(&table, key.c_str()));
        add(&table, key.c_str());  // with memory it works again
        EXPECT_EQ(2u, table.numEntries);
    }
}

TEST(HashTable, AFailedTwelfthEntryDoesNotGrowTheTable)
{
    tTestTable table;
    add_all(&table, numbered(0, 11));
    int is_new = -1;
    tHeapWatch watch(1);
    CUt_HashEntry* entry = CU_StringCreate(&table, "k11", &is_new);
    watch.stop();
    EXPECT_EQ(nullptr, entry);
    EXPECT_EQ(1, is_new);
    EXPECT_EQ(1, watch.allocations());
    EXPECT_EQ(11u, table.numEntries);
    expect_sizes(table, 4, 12, 28);
}

TEST(HashTable, AnExistingKeyNeedsNoMemory)
{
    tTestTable table;
    CUt_HashEntry* entry = add(&table, "name");
    int is_new = -1;
    tHeapWatch watch(1);
    CUt_HashEntry* again = CU_StringCreate(&table, "name", &is_new);
    watch.stop();
    EXPECT_EQ(entry, again);
    EXPECT_EQ(0, is_new);
}

static std::vector<CUt_HashEntry*> walk(CUt_HashTable* table)
{
    std::vector<CUt_HashEntry*> seen;
    CUt_HashSearch search;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(table, &search); entry; entry = CU_NextHashEntry(&search))
        seen.push_back(entry);
    EXPECT_EQ(std::max<uint32_t>(table->numBuckets, table->mask + 1), search.nextIndex);
    return seen;
}

static void expect_same_entries(std::vector<CUt_HashEntry*> expected, std::vector<CUt_HashEntry*> seen)
{
    std::sort(expected.begin(), expected.end());
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(expected, seen);
}

// A failed growth leaves everything but numBuckets, which nothing that walks the table goes by.
static void expect_failed_growth(CUt_HashTable* table, const std::vector<std::string>& keys)
{
    std::vector<CUt_HashEntry*> entries;
    for (size_t i = 0; i + 1 < keys.size(); ++i)
        entries.push_back(add(table, keys[i].data()));
    const CUt_HashTable before = *table;
    int is_new = -1;
    tHeapWatch watch(2);  // the entry is made, the buckets are not
    entries.push_back(table->createProc(table, keys.back().data(), &is_new));
    watch.stop();
    ASSERT_NE(nullptr, entries.back());
    EXPECT_EQ(2, watch.allocations());
    EXPECT_EQ(0, watch.frees());
    EXPECT_EQ(1, is_new);
    EXPECT_EQ(before.numEntries + 1, table->numEntries);
    EXPECT_EQ(before.buckets, table->buckets);
    EXPECT_EQ(4 * before.numBuckets, table->numBuckets);
    EXPECT_EQ(before.mask, table->mask);
    EXPECT_EQ(before.downShift, table->downShift);
    EXPECT_EQ(before.rebuildSize, table->rebuildSize);

    for (size_t i = 0; i < keys.size(); ++i)
        EXPECT_EQ(entries[i], table->findProc(table, keys[i].data())) << i;
    is_new = -1;
    EXPECT_EQ(entries[0], table->createProc(table, keys[0].data(), &is_new));
    EXPECT_EQ(0, is_new);
    expect_same_entries(entries, walk(table));
    char* stats = CU_HashStats(table);
    EXPECT_EQ(
        std::to_string(entries.size()) + " entries in table, " + std::to_string(4 * before.numBuckets) + " buckets\n",
        std::string(stats).substr(0, std::string(stats).find('\n') + 1));
    free(stats);
    CU_DeleteHashEntry(entries.back());
    entries.pop_back();
    for (CUt_HashEntry* entry : entries)
        CU_DeleteHashEntry(entry);
    EXPECT_EQ(0u, table->numEntries);
    for (uint32_t i = 0; i < before.numBuckets; ++i)
        EXPECT_EQ(nullptr, table->buckets[i]);
    EXPECT_TRUE(walk(table).empty());
}

TEST(HashTable, KeepsFourfoldNumBucketsAfterAFailedGrowth)
{
    tTestTable table;
    expect_failed_growth(&table, numbered(0, 12));
    EXPECT_EQ(table.staticBuckets, table.buckets);
}

TEST(HashTable, KeepsFourfoldNumBucketsAfterAFailedLaterGrowth)
{
    tTestTable table;
    expect_failed_growth(&table, numbered(0, 48));
    EXPECT_EQ(15, table.mask);
}

TEST(HashTable, KeepsFourfoldNumBucketsOfAnArrayTableAfterAFailedGrowth)
{
    tTestTable table(16);
    std::vector<std::string> keys;
    for (int i = 0; i < 12; ++i)
        keys.push_back(array_key(i));
    expect_failed_growth(&table, keys);
}

TEST(HashTable, KeepsMultiplyingNumBucketsWithEachFailedGrowth)
{
    tTestTable table;
    std::vector<CUt_HashEntry*> entries = add_all(&table, numbered(0, 11));
    for (uint32_t count : {16u, 64u, 256u}) {
        const std::string key = "more" + std::to_string(count);
        int is_new = -1;
        tHeapWatch watch(2, 100);
        entries.push_back(CU_StringCreate(&table, key.c_str(), &is_new));
        watch.stop();
        EXPECT_EQ(2, watch.allocations());
        EXPECT_EQ(count * sizeof(CUt_HashEntry*), watch.requested(2));
        EXPECT_EQ(count, table.numBuckets);
        EXPECT_EQ(3, table.mask);
        EXPECT_EQ(12u, table.rebuildSize);
        EXPECT_EQ(table.staticBuckets, table.buckets);
        EXPECT_EQ(entries.back(), CU_StringFind(&table, key.c_str()));
    }
    EXPECT_EQ(14u, table.numEntries);
    expect_same_entries(entries, walk(&table));
}

TEST(HashTable, EndsAfterAFailedGrowth)
{
    CUt_HashTable table;
    CU_InitHashTable(&table, 0);
    std::vector<CUt_HashEntry*> entries = add_all(&table, numbered(0, 11));
    for (CUt_HashEntry* entry : entries)
        entry->clientData = strdup("data");
    int is_new = -1;
    tHeapWatch watch(2);
    entries.push_back(CU_StringCreate(&table, "last", &is_new));
    watch.stop();
    tHeapWatch end;
    CU_DeallocHashTable(&table);
    end.stop();
    EXPECT_EQ(23, end.frees());  // entries and client data, each once
}

TEST(HashTable, GrowsAfterAFailedGrowth)
{
    tTestTable table;
    std::vector<CUt_HashEntry*> entries = add_all(&table, numbered(0, 11));
    int is_new = -1;
    tHeapWatch watch(2);
    entries.push_back(CU_StringCreate(&table, "k11", &is_new));
    watch.stop();
    entries.push_back(add(&table, "k12"));
    EXPECT_EQ(15, table.mask);
    EXPECT_EQ(48u, table.rebuildSize);
    EXPECT_EQ(26u, table.downShift);
    EXPECT_EQ(64u, table.numBuckets);
    expect_same_entries(entries, walk(&table));
    for (int i = 0; i < 13; ++i)
        EXPECT_EQ(entries[i], CU_StringFind(&table, ("k" + std::to_string(i)).c_str())) << i;
    for (CUt_HashEntry* entry : add_all(&table, numbered(13, 100)))  // and grows again
        entries.push_back(entry);
    expect_same_entries(entries, walk(&table));
}

TEST(HashTable, GrowsEvenWhenFailuresHaveMadeNumBucketsOverflow)
{
    tTestTable table;
    std::vector<CUt_HashEntry*> entries = add_all(&table, numbered(0, 11));
    for (int i = 11; i < 31; ++i) {
        const std::string key = "k" + std::to_string(i);
        int is_new = -1;
        tHeapWatch watch(2, 100);
        entries.push_back(CU_StringCreate(&table, key.c_str(), &is_new));
        watch.stop();
    }
    EXPECT_EQ(0u, table.numBuckets);
    CUt_HashSearch search;
    size_t seen = 0;
    for (CUt_HashEntry* entry = CU_FirstHashEntry(&table, &search); entry; entry = CU_NextHashEntry(&search))
        ++seen;
    EXPECT_EQ(entries.size(), seen);
    EXPECT_EQ(nullptr, CU_NextHashEntry(&search));
    entries.push_back(add(&table, "k31"));
    EXPECT_EQ(15, table.mask);
    expect_same_entries(entries, walk(&table));
}
