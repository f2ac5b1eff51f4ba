#include "dbgtracerhash.h"

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

constexpr uint32_t kStringKeys = 0;
constexpr uint32_t kStaticBuckets = 4;
constexpr uint32_t kGrowthFactor = 4;
constexpr uint32_t kEntriesPerBucket = 3;  // average chain length at which the table grows
constexpr int32_t kFirstDownShift = 28;
constexpr int64_t kArrayMultiplier = 1103515245;
constexpr uint32_t kHistogramSlots = 10;
constexpr size_t kStatsSize = 900;  // bytes; ample for twelve lines of 32-bit numbers

// ---- Keys and buckets ----

// The key as plain bytes of the entry's block: it runs past the member that declares it.
static char* key_of(CUt_HashEntry* entry)
{
    return reinterpret_cast<char*>(entry) + offsetof(CUt_HashEntry, key);
}

// Kept: bytes from 0x80 on count as negative numbers, in both kinds of keys.
static uint32_t signed_byte(char byte)
{
    return static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(byte)));
}

static CUt_HashEntry** string_bucket(const CUt_HashTable* table, const char* key)
{
    uint32_t hash = 0;
    // An entry's key goes on behind the record, where the analyzer does not see it written.
    for (; *key; ++key)  // NOLINT(clang-analyzer-core.uninitialized.Branch)
        hash = hash * 9 + signed_byte(*key);
    return &table->buckets[hash & static_cast<uint32_t>(table->mask)];
}

// Kept: the hash is made of the sum of the bytes only, so permutations of one key share a bucket.
static CUt_HashEntry** array_bucket(const CUt_HashTable* table, const char* key)
{
    uint32_t sum = 0;
    for (uint32_t i = 0; i < table->keyType; ++i)
        sum += signed_byte(key[i]);
    int64_t product = static_cast<int32_t>(sum) * kArrayMultiplier;
    return &table->buckets[static_cast<uint32_t>(product >> table->downShift) & static_cast<uint32_t>(table->mask)];
}

// ---- Finding and creating ----

static CUt_HashEntry* find_string(CUt_HashEntry* chain, const char* key)
{
    while (chain && strcmp(key_of(chain), key) != 0)
        chain = chain->nextPtr;
    return chain;
}

static CUt_HashEntry* find_array(CUt_HashEntry* chain, const char* key, size_t key_size)
{
    while (chain && memcmp(key_of(chain), key, key_size) != 0)
        chain = chain->nextPtr;
    return chain;
}

// Links a new entry at the head of BUCKET and grows the table when it is due; null, and no change, without memory.
static CUt_HashEntry* add_entry(CUt_HashTable* table, CUt_HashEntry** bucket, const char* key, size_t key_size)
{
    size_t block_size = sizeof(CUt_HashEntry) - sizeof(CUt_HashEntry::key) + key_size;
    CUt_HashEntry* entry = static_cast<CUt_HashEntry*>(malloc(block_size));
    if (!entry)
        return nullptr;
    entry->tablePtr = table;
    entry->bucketPtr = bucket;
    entry->clientData = nullptr;
    memcpy(key_of(entry), key, key_size);
    entry->nextPtr = *bucket;
    *bucket = entry;
    table->numEntries += 1;
    if (table->numEntries >= table->rebuildSize)
        CU_RebuildTable(table);
    return entry;
}

CUt_HashEntry* CU_StringFind(CUt_HashTable* table, const char* key)
{
    return find_string(*string_bucket(table, key), key);
}

CUt_HashEntry* CU_ArrayFind(CUt_HashTable* table, const char* key)
{
    return find_array(*array_bucket(table, key), key, table->keyType);
}

CUt_HashEntry* CU_BogusFind(CUt_HashTable*, const char*)
{
    return nullptr;
}

CUt_HashEntry* CU_StringCreate(CUt_HashTable* table, const char* key, int* new_entry)
{
    CUt_HashEntry** bucket = string_bucket(table, key);
    CUt_HashEntry* found = find_string(*bucket, key);
    *new_entry = found ? 0 : 1;
    return found ? found : add_entry(table, bucket, key, strlen(key) + 1);
}

CUt_HashEntry* CU_ArrayCreate(CUt_HashTable* table, const char* key, int* new_entry)
{
    CUt_HashEntry** bucket = array_bucket(table, key);
    CUt_HashEntry* found = find_array(*bucket, key, table->keyType);
    *new_entry = found ? 0 : 1;
    return found ? found : add_entry(table, bucket, key, table->keyType);
}

CUt_HashEntry* CU_BogusCreate(CUt_HashTable*, const char*, int*)
{
    return nullptr;
}

// ---- The table ----

void CU_InitHashTable(CUt_HashTable* table, uint32_t key_type)
{
    for (CUt_HashEntry*& bucket : table->staticBuckets)
        bucket = nullptr;
    table->buckets = table->staticBuckets;
    table->numBuckets = kStaticBuckets;
    table->numEntries = 0;
    table->rebuildSize = kStaticBuckets * kEntriesPerBucket;
    table->downShift = kFirstDownShift;
    table->mask = kStaticBuckets - 1;
    table->keyType = key_type;
    table->findProc = key_type == kStringKeys ? CU_StringFind : CU_ArrayFind;
    table->createProc = key_type == kStringKeys ? CU_StringCreate : CU_ArrayCreate;
}

static void free_buckets(CUt_HashTable* table, CUt_HashEntry** buckets)
{
    if (buckets != table->staticBuckets)
        free(buckets);
}

// Moves the entries of an old bucket to the heads of their new ones; those that stay together are reversed.
static void move_chain(CUt_HashTable* table, CUt_HashEntry* chain)
{
    while (chain) {
        CUt_HashEntry* entry = chain;
        chain = entry->nextPtr;
        const char* key = key_of(entry);
        entry->bucketPtr = table->keyType == kStringKeys ? string_bucket(table, key) : array_bucket(table, key);
        entry->nextPtr = *entry->bucketPtr;
        *entry->bucketPtr = entry;
    }
}

// How many buckets are in use. Kept: a growth that failed leaves numBuckets four times too large, each further one
// again, so nothing that walks the array goes by it.
static uint32_t bucket_count(const CUt_HashTable* table)
{
    return static_cast<uint32_t>(table->mask) + 1;
}

// The size of the array to grow into: numBuckets, unless failed growths have made that overflow.
static uint32_t grown_size(const CUt_HashTable* table)
{
    uint32_t needed = kGrowthFactor * bucket_count(table);
    return table->numBuckets < needed ? needed : table->numBuckets;
}

void CU_RebuildTable(CUt_HashTable* table)
{
    CUt_HashEntry** old_buckets = table->buckets;
    uint32_t old_count = bucket_count(table);
    table->numBuckets *= kGrowthFactor;
    table->buckets = static_cast<CUt_HashEntry**>(calloc(grown_size(table), sizeof(CUt_HashEntry*)));
    if (!table->buckets) {
        table->buckets = old_buckets;
        return;
    }
    table->rebuildSize *= kGrowthFactor;
    table->downShift -= 2;
    table->mask = 4 * table->mask + 3;
    for (uint32_t i = 0; i < old_count; ++i)
        move_chain(table, old_buckets[i]);
    free_buckets(table, old_buckets);
}

// ---- Deletion ----

void CU_DeleteHashEntry(CUt_HashEntry* entry)
{
    CUt_HashEntry** link = entry->bucketPtr;
    while (*link != entry)
        link = &(*link)->nextPtr;
    *link = entry->nextPtr;
    entry->tablePtr->numEntries -= 1;
    free(entry);
}

void CU_DeallocHashEntry(CUt_HashEntry* entry)
{
    free(entry->clientData);
    CU_DeleteHashEntry(entry);
}

static void free_chain(CUt_HashEntry* chain, bool with_client_data)
{
    while (chain) {
        CUt_HashEntry* entry = chain;
        chain = entry->nextPtr;
        if (with_client_data)
            free(entry->clientData);
        free(entry);
    }
}

// The counters and bucket pointers stay as they are: the procedures alone keep callers off the freed memory.
static void delete_table(CUt_HashTable* table, bool with_client_data)
{
    uint32_t count = bucket_count(table);
    for (uint32_t i = 0; i < count; ++i)
        free_chain(table->buckets[i], with_client_data);
    free_buckets(table, table->buckets);
    table->findProc = CU_BogusFind;
    table->createProc = CU_BogusCreate;
}

void CU_DeleteHashTable(CUt_HashTable* table)
{
    delete_table(table, false);
}

void CU_DeallocHashTable(CUt_HashTable* table)
{
    delete_table(table, true);
}

// ---- Walking the whole table ----

CUt_HashEntry* CU_FirstHashEntry(CUt_HashTable* table, CUt_HashSearch* search)
{
    search->tablePtr = table;
    search->nextIndex = 0;
    search->nextEntryPtr = nullptr;
    return CU_NextHashEntry(search);
}

// The cursor is moved past the entry before the caller sees it, so that the caller may delete it.
CUt_HashEntry* CU_NextHashEntry(CUt_HashSearch* search)
{
    while (!search->nextEntryPtr) {
        if (search->nextIndex >= bucket_count(search->tablePtr)) {
            if (search->nextIndex < search->tablePtr->numBuckets)
                search->nextIndex = search->tablePtr->numBuckets;
            return nullptr;
        }
        search->nextEntryPtr = search->tablePtr->buckets[search->nextIndex++];
    }
    CUt_HashEntry* entry = search->nextEntryPtr;
    search->nextEntryPtr = entry->nextPtr;
    return entry;
}

static uint32_t chain_length(const CUt_HashEntry* chain)
{
    uint32_t length = 0;
    for (; chain; chain = chain->nextPtr)
        ++length;
    return length;
}

char* CU_HashStats(CUt_HashTable* table)
{
    int with_length[kHistogramSlots] = {};
    int longer = 0;
    double average = 0.0;
    uint32_t count = bucket_count(table);
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = chain_length(table->buckets[i]);
        ++(length < kHistogramSlots ? with_length[length] : longer);
        // Kept: an empty table divides 0 by 0 here and reports a not-a-number.
        average += length / static_cast<double>(table->numEntries) * (length + 1.0) / 2.0;
    }

    char* text = static_cast<char*>(malloc(kStatsSize));
    if (!text)
        return nullptr;
    char* end = text + kStatsSize;
    char* out = text;
    out += snprintf(out, static_cast<size_t>(end - out), "%d entries in table, %d buckets\n",
                    static_cast<int>(table->numEntries), static_cast<int>(table->numBuckets));
    for (uint32_t i = 0; i < kHistogramSlots; ++i)
        out += snprintf(out, static_cast<size_t>(end - out), "number of buckets with %d entries: %d\n",
                        static_cast<int>(i), with_length[i]);
    out += snprintf(out, static_cast<size_t>(end - out), "number of buckets with %d or more entries: %d\n",
                    static_cast<int>(kHistogramSlots), longer);
    snprintf(out, static_cast<size_t>(end - out), "average search distance for entry: %.1f", average);
    return text;
}
