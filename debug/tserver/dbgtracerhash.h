// A chained hash table keyed by strings or by byte arrays of one length, with a client-data word per entry.
//
// Records are the caller's; keys are stored inside the entries; nothing is locked; client data belong to the caller
// unless a "Dealloc" operation is used. Callers find and create through the table's findProc and createProc.

#ifndef OPTMONITORING_DBGTRACERHASH_H
#define OPTMONITORING_DBGTRACERHASH_H

#include <stdint.h>

#define CU_EXPORT extern "C" __attribute__((visibility("default")))

typedef void* CUt_ClientData;

struct CUt_HashTable;

// One heap block: the fixed fields, then the key, which runs past the end of the record.
struct CUt_HashEntry {
    CUt_HashEntry* nextPtr;     // next in the same bucket
    CUt_HashTable* tablePtr;    // the table that owns the entry
    CUt_HashEntry** bucketPtr;  // the bucket slot that heads the chain
    CUt_ClientData clientData;  // the caller's value, null in a new entry
    union {
        char bytes[4];
        char string[4];
    } key;
};

typedef CUt_HashEntry* (*CUt_FindProc)(CUt_HashTable* table, const char* key);
typedef CUt_HashEntry* (*CUt_CreateProc)(CUt_HashTable* table, const char* key, int* new_entry);

struct CUt_HashTable {
    CUt_HashEntry** buckets;  // staticBuckets until the first growth
    CUt_HashEntry* staticBuckets[4];
    uint32_t numBuckets;  // 4, 16, 64, ...
    uint32_t numEntries;
    uint32_t rebuildSize;  // grow when numEntries reaches this
    int32_t downShift;     // right shift of the multiplicative hash of array keys
    int32_t mask;          // numBuckets - 1
    uint32_t keyType;      // 0: string keys, else the length of an array key in bytes
    CUt_FindProc findProc;
    CUt_CreateProc createProc;
};

// An iteration cursor.
struct CUt_HashSearch {
    CUt_HashTable* tablePtr;
    uint32_t nextIndex;
    CUt_HashEntry* nextEntryPtr;
};

// Makes TABLE empty and usable; KEY_TYPE 0 for strings, n > 0 for n-byte arrays.
CU_EXPORT void CU_InitHashTable(CUt_HashTable* table, uint32_t key_type);

// The entry of KEY, or null.
CU_EXPORT CUt_HashEntry* CU_StringFind(CUt_HashTable* table, const char* key);
CU_EXPORT CUt_HashEntry* CU_ArrayFind(CUt_HashTable* table, const char* key);
CU_EXPORT CUt_HashEntry* CU_BogusFind(CUt_HashTable* table, const char* key);

// The entry of KEY, made when absent (*NEW_ENTRY 1, else 0); null when it could not be allocated (*NEW_ENTRY 1).
CU_EXPORT CUt_HashEntry* CU_StringCreate(CUt_HashTable* table, const char* key, int* new_entry);
CU_EXPORT CUt_HashEntry* CU_ArrayCreate(CUt_HashTable* table, const char* key, int* new_entry);
CU_EXPORT CUt_HashEntry* CU_BogusCreate(CUt_HashTable* table, const char* key, int* new_entry);

// Unlinks and frees an entry; the Dealloc form also free()s its client data.
CU_EXPORT void CU_DeleteHashEntry(CUt_HashEntry* entry);
CU_EXPORT void CU_DeallocHashEntry(CUt_HashEntry* entry);

// Frees all entries and a grown bucket array; later finds and creates answer null. The Dealloc form also free()s
// the client data.
CU_EXPORT void CU_DeleteHashTable(CUt_HashTable* table);
CU_EXPORT void CU_DeallocHashTable(CUt_HashTable* table);

// Iteration: the entry just returned may be deleted, nothing else may change.
CU_EXPORT CUt_HashEntry* CU_FirstHashEntry(CUt_HashTable* table, CUt_HashSearch* search);
CU_EXPORT CUt_HashEntry* CU_NextHashEntry(CUt_HashSearch* search);

// A text about the chains, to be freed by the caller, or null.
CU_EXPORT char* CU_HashStats(CUt_HashTable* table);

// Grows the bucket array by four.
CU_EXPORT void CU_RebuildTable(CUt_HashTable* table);

#endif
