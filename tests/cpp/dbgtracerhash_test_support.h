// Helpers of the hash table's tests: tables that end with the test, keys, and a look into the chains.

#ifndef OPTMONITORING_DBGTRACERHASH_TEST_SUPPORT_H
#define OPTMONITORING_DBGTRACERHASH_TEST_SUPPORT_H

#include <stddef.h>
#include <stdlib.h>
#include <string.h>

#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "dbgtracerhash.h"
#include "failing_malloc.h"
#include "gtest/gtest.h"

constexpr size_t kFixedPart = sizeof(CUt_HashEntry) - 4;  // bytes of an entry's block without its key

// A table for one test, ended with it. Tests that end it themselves say so through `ended`.
struct tTestTable : CUt_HashTable {
    explicit tTestTable(uint32_t key_type = 0)
    {
        memset(static_cast<CUt_HashTable*>(this), 0xA5, sizeof(CUt_HashTable));
        CU_InitHashTable(this, key_type);
    }
    ~tTestTable()
    {
        if (!ended)
            CU_DeleteHashTable(this);
    }
    bool ended = false;
};

// Creates an entry that must be new.
inline CUt_HashEntry* add(CUt_HashTable* table, const char* key)
{
    int is_new = -1;
    CUt_HashEntry* entry = table->createProc(table, key, &is_new);
    EXPECT_NE(nullptr, entry);
    EXPECT_EQ(1, is_new);
    return entry;
}

inline std::vector<CUt_HashEntry*> add_all(CUt_HashTable* table, const std::vector<std::string>& keys)
{
    std::vector<CUt_HashEntry*> entries;
    for (const std::string& key : keys)
        entries.push_back(add(table, key.c_str()));
    return entries;
}

// "k0", "k1", ...
inline std::vector<std::string> numbered(int first, int count)
{
    std::vector<std::string> keys;
    for (int i = first; i < first + count; ++i)
        keys.push_back("k" + std::to_string(i));
    return keys;
}

// A 16-byte key whose bytes sum to SUM.
inline std::string array_key(int sum)
{
    std::string key(16, '\0');
    key[5] = static_cast<char>(sum);
    return key;
}

inline const char* text_of(const CUt_HashEntry* entry)
{
    return reinterpret_cast<const char*>(entry) + offsetof(CUt_HashEntry, key);
}

inline std::vector<std::string> chain(const CUt_HashTable* table, uint32_t bucket)
{
    std::vector<std::string> keys;
    for (CUt_HashEntry* entry = table->buckets[bucket]; entry; entry = entry->nextPtr)
        keys.push_back(text_of(entry));
    return keys;
}

inline long bucket_of(const CUt_HashEntry* entry)
{
    return entry->bucketPtr - entry->tablePtr->buckets;
}

inline long array_bucket_of(CUt_HashTable* table, const std::string& key)
{
    return bucket_of(add(table, key.c_str()));
}

inline void expect_sizes(const CUt_HashTable& table, uint32_t buckets, uint32_t rebuild_size, int down_shift)
{
    EXPECT_EQ(buckets, table.numBuckets);
    EXPECT_EQ(static_cast<int32_t>(buckets) - 1, table.mask);
    EXPECT_EQ(rebuild_size, table.rebuildSize);
    EXPECT_EQ(down_shift, table.downShift);
}

// Every entry stands in the chain that its bucketPtr heads, and nowhere else.
inline void expect_consistent(const CUt_HashTable& table)
{
    uint32_t entries = 0;
    for (uint32_t i = 0; i < table.numBuckets; ++i) {
        for (CUt_HashEntry* entry = table.buckets[i]; entry; entry = entry->nextPtr) {
            EXPECT_EQ(&table.buckets[i], entry->bucketPtr);
            EXPECT_EQ(&table, entry->tablePtr);
            ++entries;
        }
    }
    EXPECT_EQ(entries, table.numEntries);
}

inline std::string stats(CUt_HashTable* table)
{
    char* text = CU_HashStats(table);
    std::string copy = text ? text : "(null)";
    free(text);
    return copy;
}

// One-character keys that fall into bucket 1 of 4.
const std::vector<std::string> kBucketOne = {"1", "5", "9", "A", "E", "I", "M", "Q", "U", "Y", "]"};

inline void expect_empty(const CUt_HashTable& table, uint32_t key_type)
{
    EXPECT_EQ(table.staticBuckets, table.buckets);
    for (CUt_HashEntry* bucket : table.staticBuckets)
        EXPECT_EQ(nullptr, bucket);
    EXPECT_EQ(0u, table.numEntries);
    EXPECT_EQ(key_type, table.keyType);
    expect_sizes(table, 4, 12, 28);
}

#endif
