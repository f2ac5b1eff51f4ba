#include "dbgtracerhash_test_support.h"

// ---- Records: hosts read them, so the places of their fields are fixed ----

static_assert(sizeof(void*) == 8, "the offsets below are those of a 64-bit system");

static_assert(std::is_same<CUt_ClientData, void*>::value, "");
static_assert(offsetof(CUt_HashEntry, nextPtr) == 0, "");
static_assert(offsetof(CUt_HashEntry, tablePtr) == 8, "");
static_assert(offsetof(CUt_HashEntry, bucketPtr) == 16, "");
static_assert(offsetof(CUt_HashEntry, clientData) == 24, "");
static_assert(offsetof(CUt_HashEntry, key.bytes) == 32, "");
static_assert(offsetof(CUt_HashEntry, key.string) == 32, "");
static_assert(sizeof(CUt_HashEntry::key) == 4, "");
static_assert(sizeof(CUt_HashEntry) == 40, "");

static_assert(offsetof(CUt_HashTable, buckets) == 0, "");
static_assert(offsetof(CUt_HashTable, staticBuckets) == 8, "");
static_assert(offsetof(CUt_HashTable, numBuckets) == 40, "");
static_assert(offsetof(CUt_HashTable, numEntries) == 44, "");
static_assert(offsetof(CUt_HashTable, rebuildSize) == 48, "");
static_assert(offsetof(CUt_HashTable, downShift) == 52, "");
static_assert(offsetof(CUt_HashTable, mask) == 56, "");
static_assert(offsetof(CUt_HashTable, keyType) == 60, "");
static_assert(offsetof(CUt_HashTable, findProc) == 64, "");
static_assert(offsetof(CUt_HashTable, createProc) == 72, "");
static_assert(sizeof(CUt_HashTable) == 80, "");
static_assert(std::is_same<decltype(CUt_HashTable::numBuckets), uint32_t>::value, "");
static_assert(std::is_same<decltype(CUt_HashTable::numEntries), uint32_t>::value, "");
static_assert(std::is_same<decltype(CUt_HashTable::rebuildSize), uint32_t>::value, "");
static_assert(std::is_same<decltype(CUt_HashTable::downShift), int32_t>::value, "");
static_assert(std::is_same<decltype(CUt_HashTable::mask), int32_t>::value, "");
static_assert(std::is_same<decltype(CUt_HashTable::keyType), uint32_t>::value, "");

static_assert(offsetof(CUt_HashSearch, tablePtr) == 0, "");
static_assert(offsetof(CUt_HashSearch, nextIndex) == 8, "");
static_assert(offsetof(CUt_HashSearch, nextEntryPtr) == 16, "");
static_assert(sizeof(CUt_HashSearch) == 24, "");
static_assert(std::is_same<decltype(CUt_HashSearch::nextIndex), uint32_t>::value, "");

// ---- Initialisation ----

TEST(HashTable, InitMakesAnEmptyStringTable)
{
    tTestTable table(0);
    expect_empty(table, 0);
    EXPECT_EQ(CU_StringFind, table.findProc);
    EXPECT_EQ(CU_StringCreate, table.createProc);
}

TEST(HashTable, InitMakesAnEmptyArrayTable)
{
    for (uint32_t key_type : {1u, 16u}) {
        tTestTable table(key_type);
        expect_empty(table, key_type);
        EXPECT_EQ(CU_ArrayFind, table.findProc);
        EXPECT_EQ(CU_ArrayCreate, table.createProc);
    }
}

TEST(HashTable, InitAndEleventhEntryNeedNoBucketAllocation)
{
    tHeapWatch watch;
    tTestTable table;
    int is_new = -1;
    const char keys[][2] = {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j", "k"};
    for (const char* key : keys)
        CU_StringCreate(&table, key, &is_new);
    watch.stop();
    EXPECT_EQ(11, watch.allocations());
    EXPECT_EQ(table.staticBuckets, table.buckets);
    EXPECT_EQ(11u, table.numEntries);
}

// ---- Create and find ----

TEST(HashTable, FindInAnEmptyTableIsNull)
{
    tTestTable strings(0);
    EXPECT_EQ(nullptr, CU_StringFind(&strings, ""));
    EXPECT_EQ(nullptr, CU_StringFind(&strings, "a"));
    tTestTable arrays(16);
    EXPECT_EQ(nullptr, CU_ArrayFind(&arrays, array_key(0).c_str()));
}

// The new entry of KEY in an empty TABLE, by CREATE: one block of the heap, in bucket 3.
static CUt_HashEntry* create_and_check(tTestTable* table, const char* key, size_t key_size,
                                       CUt_HashEntry* (*create)(CUt_HashTable*, const char*, int*))
{
    int is_new = -1;
    tHeapWatch watch;
    CUt_HashEntry* entry = create(table, key, &is_new);
    watch.stop();
    EXPECT_EQ(1, is_new);
    EXPECT_EQ(1, watch.allocations());
    EXPECT_EQ(kFixedPart + key_size, watch.requested(1));
    EXPECT_EQ(entry, table->buckets[3]);
    EXPECT_EQ(1u, table->numEntries);
    if (!entry)
        return nullptr;
    EXPECT_EQ(nullptr, entry->nextPtr);
    EXPECT_EQ(table, entry->tablePtr);
    EXPECT_EQ(&table->staticBuckets[3], entry->bucketPtr);
    EXPECT_EQ(nullptr, entry->clientData);
    return entry;
}

TEST(HashTable, CreateFillsAllFieldsOfAStringEntry)
{
    tTestTable table;
    char key[] = "ab";  // 97 * 9 + 98 = 971, bucket 3
    CUt_HashEntry* entry = create_and_check(&table, key, sizeof(key), CU_StringCreate);
    ASSERT_NE(nullptr, entry);
    key[0] = 'x';  // the entry has its own copy
    EXPECT_STREQ("ab", text_of(entry));
}

TEST(HashTable, CreateFillsAllFieldsOfAnArrayEntry)
{
    tTestTable table(16);
    const std::string key = array_key(28);
    CUt_HashEntry* entry = create_and_check(&table, key.c_str(), 16, CU_ArrayCreate);
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(key, std::string(text_of(entry), 16));
}

TEST(HashTable, ArrayKeysMayHaveAnyLength)
{
    for (uint32_t length : {1u, 3u, 4u, 5u, 200u}) {
        tTestTable table(length);
        const std::string key(length, 'z');
        tHeapWatch watch;
        int is_new = -1;
        CUt_HashEntry* entry = CU_ArrayCreate(&table, key.data(), &is_new);
        watch.stop();
        EXPECT_EQ(kFixedPart + length, watch.requested(1));
        EXPECT_EQ(entry, CU_ArrayFind(&table, key.data()));
    }
}

TEST(HashTable, CreatingAnExistingKeyReturnsTheSameEntry)
{
    for (uint32_t key_type : {0u, 16u}) {
        tTestTable table(key_type);
        const std::string key = key_type ? array_key(7) : "name";
        CUt_HashEntry* entry = add(&table, key.c_str());
        int value = 0;
        entry->clientData = &value;
        const std::string again = key;
        int is_new = -1;
        tHeapWatch watch;
        CUt_HashEntry* second = table.createProc(&table, again.c_str(), &is_new);
        watch.stop();
        EXPECT_EQ(entry, second);
        EXPECT_EQ(0, is_new);
        EXPECT_EQ(0, watch.allocations());
        EXPECT_EQ(&value, entry->clientData);
        EXPECT_EQ(1u, table.numEntries);
    }
}

TEST(HashTable, StringsMatchUpToAndIncludingTheTerminator)
{
    tTestTable table;
    CUt_HashEntry* entry = add(&table, "path");
    EXPECT_EQ(entry, CU_StringFind(&table, "path"));
    EXPECT_EQ(entry, CU_StringFind(&table, "path\0more"));
    for (const char* other : {"pat", "path ", "Path", "patl", "paph", ""})  // "patl" shares the bucket
        EXPECT_EQ(nullptr, CU_StringFind(&table, other)) << other;
}

TEST(HashTable, ArraysMatchInAllBytesBeyondZeros)
{
    tTestTable table(16);
    std::string first(16, '\0');
    std::string second(16, '\0');
    first[0] = 1;
    second[15] = 1;  // the same sum, other bytes
    CUt_HashEntry* first_entry = add(&table, first.c_str());
    EXPECT_EQ(nullptr, CU_ArrayFind(&table, second.c_str()));
    CUt_HashEntry* second_entry = add(&table, second.c_str());
    EXPECT_EQ(first_entry, CU_ArrayFind(&table, first.c_str()));
    EXPECT_EQ(second_entry, CU_ArrayFind(&table, second.c_str()));
}

TEST(HashTable, NewEntriesHeadTheirChain)
{
    tTestTable table;
    CUt_HashEntry* one = add(&table, "1");
    CUt_HashEntry* five = add(&table, "5");
    CUt_HashEntry* nine = add(&table, "9");
    add(&table, "2");
    EXPECT_EQ((std::vector<std::string>{"9", "5", "1"}), chain(&table, 1));
    EXPECT_EQ((std::vector<std::string>{"2"}), chain(&table, 2));
    EXPECT_EQ(five, nine->nextPtr);
    EXPECT_EQ(one, five->nextPtr);
    EXPECT_EQ(nullptr, one->nextPtr);
    for (CUt_HashEntry* entry : {one, five, nine})
        EXPECT_EQ(&table.buckets[1], entry->bucketPtr);
}

TEST(HashTable, FindReturnsTheFirstMatchOfTheChain)
{
    tTestTable table;
    CUt_HashEntry* older = add(&table, "1");
    CUt_HashEntry* newer = add(&table, "5");
    newer->key.string[0] = '1';  // two entries with one key cannot be created; this forges them
    EXPECT_EQ(newer, CU_StringFind(&table, "1"));
    CU_DeleteHashEntry(newer);
    EXPECT_EQ(older, CU_StringFind(&table, "1"));
}

// ---- Hashes ----

struct tStringPlace {
    const char* key;
    long of_4;
    long of_16;
    long of_1024;
};

// h & mask, h from h = h * 9 + signed byte.
static const tStringPlace kStringPlaces[] = {
    {"", 0, 0, 0},
    {"a", 1, 1, 97},
    {"b", 2, 2, 98},
    {"ab", 3, 11, 971},
    {"ba", 3, 3, 979},
    {"\x80", 0, 0, 896},    // an unsigned byte would give 128
    {"\xff", 3, 15, 1023},  // ... 255
    {"a\377b", 2, 10, 778},
    {"\xc3\xa9", 0, 4, 388},
    {"/usr/lib/python3/os.py", 3, 11, 443},
    {"abcdefghijklmnopqrstuvwxyz", 3, 7, 263},
};

TEST(HashTable, StringKeysFallIntoTheLowBitsOfTheirHash)
{
    tTestTable of_4, of_16, of_1024;
    CU_RebuildTable(&of_16);
    for (int i = 0; i < 4; ++i)
        CU_RebuildTable(&of_1024);
    ASSERT_EQ(16u, of_16.numBuckets);
    ASSERT_EQ(1024u, of_1024.numBuckets);
    for (const tStringPlace& place : kStringPlaces) {
        EXPECT_EQ(place.of_4, bucket_of(add(&of_4, place.key))) << testing::PrintToString(place.key);
        EXPECT_EQ(place.of_16, bucket_of(add(&of_16, place.key))) << testing::PrintToString(place.key);
        EXPECT_EQ(place.of_1024, bucket_of(add(&of_1024, place.key))) << testing::PrintToString(place.key);
    }
}

TEST(HashTable, EmptyStringIsAKey)
{
    tTestTable table;
    CUt_HashEntry* entry = add(&table, "");
    EXPECT_EQ(0, bucket_of(entry));
    EXPECT_EQ(entry, CU_StringFind(&table, ""));
    EXPECT_EQ(nullptr, CU_StringFind(&table, "d"));  // bucket 0 too
}

TEST(HashTable, VeryLongStringsWrapTheHash)
{
    tTestTable table;
    const std::string high(100000, '\x80');
    const std::string low(100000, '\x7f');
    CUt_HashEntry* high_entry = add(&table, high.c_str());
    CUt_HashEntry* low_entry = add(&table, low.c_str());
    EXPECT_EQ(high_entry, CU_StringFind(&table, high.c_str()));
    EXPECT_EQ(low_entry, CU_StringFind(&table, low.c_str()));
}

struct tArrayPlace {
    int sum;
    long of_4;
    long of_16;
    long of_64;
    long of_256;
};

// (sum * 1103515245 >> downShift) & mask. One byte each, read as a signed number.
static const tArrayPlace kArrayPlaces[] = {
    {0, 0, 0, 0, 0},      {1, 0, 0, 1, 7},       {2, 0, 0, 3, 14},     {3, 0, 1, 5, 21},
    {10, 1, 4, 17, 70},   {19, 2, 8, 33, 134},   {28, 3, 12, 49, 198}, {97, 2, 11, 44, 176},
    {127, 2, 8, 33, 133}, {-128, 1, 7, 28, 115},  // as 128: 2, 8, 35, 140
    {-1, 3, 15, 62, 248},                         // as 255: 0, 1, 4, 18
    {-16, 2, 8, 35, 142},
};

TEST(HashTable, ArrayKeysFallIntoTheHighBitsOfTheProduct)
{
    tTestTable of_4(16), of_16(16), of_64(16), of_256(16);
    CU_RebuildTable(&of_16);
    for (int i = 0; i < 2; ++i)
        CU_RebuildTable(&of_64);
    for (int i = 0; i < 3; ++i)
        CU_RebuildTable(&of_256);
    of_4.rebuildSize = 1000;  // stays at 4 buckets however many entries it gets
    for (const tArrayPlace& place : kArrayPlaces) {
        const std::string key = array_key(place.sum);
        EXPECT_EQ(place.of_4, array_bucket_of(&of_4, key)) << place.sum;
        EXPECT_EQ(place.of_16, array_bucket_of(&of_16, key)) << place.sum;
        EXPECT_EQ(place.of_64, array_bucket_of(&of_64, key)) << place.sum;
        EXPECT_EQ(place.of_256, array_bucket_of(&of_256, key)) << place.sum;
    }
}

TEST(HashTable, LongArrayKeysUseTheWholeMultiplier)
{
    tTestTable table(4096);
    for (int i = 0; i < 5; ++i)
        CU_RebuildTable(&table);
    ASSERT_EQ(4096u, table.numBuckets);
    EXPECT_EQ(928, array_bucket_of(&table, std::string(4096, '\x7f')));
    EXPECT_EQ(806, array_bucket_of(&table, std::string(4096, '\x80')));
}

TEST(HashTable, ArrayHashCountsExactlyTheBytesOfTheKey)
{
    tTestTable table(3);
    EXPECT_EQ(2, array_bucket_of(&table, std::string("\x10\x02\x01\x09", 4)));  // 19; with the fourth byte 28: 3
    CUt_HashEntry* entry = CU_ArrayFind(&table, "\x10\x02\x01\x55");
    ASSERT_NE(nullptr, entry);
    EXPECT_EQ(1u, table.numEntries);
}

TEST(HashTable, BytesOf128AndAboveAreSummedAsNegative)
{
    tTestTable table(2);
    EXPECT_EQ(3, array_bucket_of(&table, "\xf0\x0f"));  // -16 + 15 = -1; as 255 it would be bucket 0
}

TEST(HashTable, KeepsPermutationsInOneBucketAndTellsThemApart)
{
    tTestTable table(16);
    const std::string forward("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x00", 16);  // 120
    const std::string backward(forward.rbegin(), forward.rend());
    CUt_HashEntry* first = add(&table, forward.data());
    CUt_HashEntry* second = add(&table, backward.data());
    EXPECT_EQ(1, bucket_of(first));
    EXPECT_EQ(1, bucket_of(second));
    EXPECT_NE(first, second);
    EXPECT_EQ(first, CU_ArrayFind(&table, forward.data()));
    EXPECT_EQ(second, CU_ArrayFind(&table, backward.data()));
    EXPECT_EQ(2u, table.numEntries);
    CU_RebuildTable(&table);
    EXPECT_EQ(5, bucket_of(first));
    EXPECT_EQ(5, bucket_of(second));
}

// ---- Growth ----

TEST(HashTable, TwelfthEntryGrowsTo16Buckets)
{
    tTestTable table;
    const std::vector<std::string> keys = numbered(0, 12);
    for (int i = 0; i < 11; ++i)
        add(&table, keys[i].c_str());
    expect_sizes(table, 4, 12, 28);
    EXPECT_EQ(table.staticBuckets, table.buckets);

    int is_new = -1;
    tHeapWatch watch;
    CUt_HashEntry* twelfth = CU_StringCreate(&table, keys[11].c_str(), &is_new);
    watch.stop();
    EXPECT_EQ(2, watch.allocations());  // the entry first, then the buckets
    EXPECT_EQ(kFixedPart + 4, watch.requested(1));
    EXPECT_EQ(16 * sizeof(CUt_HashEntry*), watch.requested(2));
    EXPECT_EQ(0, watch.frees());  // the old buckets are part of the table
    EXPECT_EQ(1, is_new);
    EXPECT_STREQ("k11", text_of(twelfth));
    expect_sizes(table, 16, 48, 26);
    EXPECT_NE(table.staticBuckets, table.buckets);
    expect_consistent(table);
    for (const std::string& key : keys) {
        CUt_HashEntry* entry = CU_StringFind(&table, key.c_str());
        ASSERT_NE(nullptr, entry) << key;
        EXPECT_EQ(key, text_of(entry));
    }
}

static void expect_growth_steps(CUt_HashTable* table, const std::vector<std::string>& keys)
{
    const struct {
        size_t entries;
        uint32_t buckets;
        uint32_t rebuild_size;
        int down_shift;
    } steps[] = {{11, 4, 12, 28},    {12, 16, 48, 26},    {47, 16, 48, 26},    {48, 64, 192, 24},
                 {191, 64, 192, 24}, {192, 256, 768, 22}, {767, 256, 768, 22}, {768, 1024, 3072, 20}};
    std::vector<CUt_HashEntry*> entries;
    for (const auto& step : steps) {
        while (entries.size() < step.entries)
            entries.push_back(add(table, keys[entries.size()].data()));
        EXPECT_EQ(step.entries, table->numEntries);
        expect_sizes(*table, step.buckets, step.rebuild_size, step.down_shift);
        expect_consistent(*table);
        for (size_t i = 0; i < entries.size(); ++i)
            ASSERT_EQ(entries[i], table->findProc(table, keys[i].data())) << i;
    }
}

TEST(HashTable, StringTableGrowsAt12And48And192And768)
{
    tTestTable table;
    expect_growth_steps(&table, numbered(0, 768));
}

TEST(HashTable, ArrayTableGrowsAt12And48And192And768)
{
    tTestTable table(16);
    std::vector<std::string> keys;
    for (int i = 0; i < 768; ++i) {
        std::string key(16, '\0');
        key[8] = static_cast<char>(i);
        key[9] = static_cast<char>(i >> 8);
        keys.push_back(key);
    }
    expect_growth_steps(&table, keys);
}

TEST(HashTable, GrowthFreesAnOldArrayOfItsOwn)
{
    tTestTable table;
    add_all(&table, numbered(0, 47));
    CUt_HashEntry** old_buckets = table.buckets;
    int is_new = -1;
    tHeapWatch watch;
    CU_StringCreate(&table, "last", &is_new);
    watch.stop();
    EXPECT_EQ(64u, table.numBuckets);
    EXPECT_EQ(1, watch.frees());
    EXPECT_TRUE(watch.freed(old_buckets));
}

TEST(HashTable, GrowthReversesEntriesThatStayTogether)
{
    tTestTable table;
    // Of 16 buckets these share number 1, then 5; of 4 all share number 1.
    add_all(&table, {"1", "5", "A", "E", "Q", "U", "a"});
    add_all(&table, {"b", "r", "c", "d"});
    EXPECT_EQ((std::vector<std::string>{"a", "U", "Q", "E", "A", "5", "1"}), chain(&table, 1));
    EXPECT_EQ((std::vector<std::string>{"r", "b"}), chain(&table, 2));
    add(&table, "q");  // heads bucket 1 and makes the table grow
    ASSERT_EQ(16u, table.numBuckets);
    EXPECT_EQ((std::vector<std::string>{"1", "A", "Q", "a", "q"}), chain(&table, 1));
    EXPECT_EQ((std::vector<std::string>{"5", "E", "U"}), chain(&table, 5));
    EXPECT_EQ((std::vector<std::string>{"b", "r"}), chain(&table, 2));
    EXPECT_EQ((std::vector<std::string>{"c"}), chain(&table, 3));
    EXPECT_EQ((std::vector<std::string>{"d"}), chain(&table, 4));
    expect_consistent(table);
}

TEST(HashTable, GrowthKeepsClientData)
{
    tTestTable table;
    std::vector<CUt_HashEntry*> entries = add_all(&table, numbered(0, 11));
    for (CUt_HashEntry* entry : entries)
        entry->clientData = entry;
    add(&table, "k11");
    for (CUt_HashEntry* entry : entries)
        EXPECT_EQ(entry, entry->clientData);
}
