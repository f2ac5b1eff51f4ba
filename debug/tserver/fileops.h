// File identity: absolute names, cached stat results, and one canonical name per file.
//
// All names are byte strings in the file system's encoding with "/" between the parts. Strings that functions return
// belong to the record and live as long as it does. The record is used under the interpreter lock.

#ifndef OPTMONITORING_FILEOPS_H
#define OPTMONITORING_FILEOPS_H

#include <sys/stat.h>

#include "dbgtracerhash.h"
#include "dprintf.h"
#include "xpy_c_api.h"
#include "xpy_c_api_shared.h"

// Of all tables, their entries and what counts their uses. An entry can be found by others as soon as it is there, so
// it is created and filled in one hold; what is found stays as long as the record.
extern tSharedLock gFileTablesLock;

// Identity of a file; a 16-byte hash key.
struct tUniqueFileno {
    uint64_t dev;
    uint64_t ino;
};

// The caches and registries of one module. Client data are heap copies owned by their table.
struct tFileOpsData {
    CUt_HashTable absname_cache;               // name as given -> absolute name
    CUt_HashTable lower_absname_cache;         // reserved
    CUt_HashTable not_found_table;             // name as given -> time of the failed stat, whole seconds
    CUt_HashTable stat_cache;                  // name as given -> struct stat
    CUt_HashTable unique_fileno_cache;         // reserved
    CUt_HashTable canonical_by_unique_fileno;  // tUniqueFileno -> canonical name
    CUt_HashTable canonical_by_name;           // absolute name -> canonical name
    CUt_HashTable canonical_by_checksum;       // checksum text -> first absolute name registered with it
    PyObject* os_mod;                          // [owned], may be null
    PyObject* checksum_callback;               // [owned], None: checksums are off
    tDPData* dp;                               // not owned
};

extern "C" {
extern __attribute__((visibility("default"))) int16_t gUseCanonicalPathnames;  // for the host; nothing here reads it
}

// ---- Absolute names and the stat cache (fileops_paths.cpp) ----

// Cached stat of NAME, or null when the file cannot be examined. Misses are remembered for 3 seconds.
XPY_EXPORT const struct stat* __tracer_stat(tFileOpsData* data, const char* name);

// Absolute form of NAME, resolved against the current directory once and for all, or null.
XPY_EXPORT const char* get_absname(tFileOpsData* data, const char* name);
XPY_EXPORT const char* get_absname_forward_slash_names(tFileOpsData* data, const char* name);

// 1 when both names denote one file, else 0.
XPY_EXPORT int samefile(tFileOpsData* data, const char* first, const char* second);

// Turns a compiled-file name into its source name, in place.
XPY_EXPORT void prune_py_c_or_o(char* name);

// ---- Canonical names (fileops_registry.cpp) ----

// A new record that logs through DP (which must outlive it), or null.
XPY_EXPORT tFileOpsData* create_file_ops_data(tDPData* dp);
tFileOpsData* replace_file_ops_data(tFileOpsData** field, tFileOpsData* data);  // what was in the field
XPY_EXPORT void destroy_file_ops_data(tFileOpsData* data);  // at once, or when nothing uses it any more

// Keeps the record, and with it every string that it returns, for the life of the scope: a log file is a Python
// object, whose write may reset the module in the middle of an operation.
class tFileOpsUse
{
  public:
    explicit tFileOpsUse(tFileOpsData* data);
    explicit tFileOpsUse(tFileOpsData* const* field);  // the record there, which another thread may replace
    tFileOpsData* data() const { return fData; }       // null: there was none
    ~tFileOpsUse();
    tFileOpsUse(const tFileOpsUse&) = delete;
    tFileOpsUse& operator=(const tFileOpsUse&) = delete;

  private:
    tFileOpsData* fData;
};

// Canonical name by name, by file identity, by CHECKSUM (may be null), in this order; null when unknown.
XPY_EXPORT const char* lookup_canonical_pathname(tFileOpsData* data, const char* name, const char* checksum);

// Canonical name of NAME, registered now if it is new (*NEWLY_REGISTERED, may be null, says so); null on failure.
XPY_EXPORT const char* register_canonical_pathname(tFileOpsData* data, const char* name, const char* checksum,
                                                   int16_t* newly_registered);

// ---- The same with Python strings, and checksums (fileops_pystr.cpp) ----

// Results are [new]; null with an exception pending. CHECKSUM: a string; anything else counts as none.
XPY_EXPORT PyObject* lookup_canonical_pathname_pystr(tFileOpsData* data, PyObject* pathname, PyObject* checksum);
XPY_EXPORT PyObject* register_canonical_pathname_pystr(tFileOpsData* data, PyObject* pathname, PyObject* checksum);

// Stores the host's checksum function [borrowed]; None switches checksums off. Returns 0.
XPY_EXPORT int set_checksum_callback(tFileOpsData* data, PyObject* callable);

PyObject* get_checksum_callback(const tFileOpsData* data);  // [new], or null

// The host's checksum of a file, or None; a failing callback is logged and counts as None. [new]
XPY_EXPORT PyObject* get_checksum_for_pathname(tFileOpsData* data, PyObject* pathname);

#endif
