// Stands between the file-identity unit and the system: counts examinations of files, sets the clock, and answers for
// the current directory. Without instructions every call goes on to the system.
//
// The executable that contains fileops_system.cpp must be linked with
//
//     -Wl,--wrap=time,--wrap=stat,--wrap=getcwd,--wrap=CU_DeallocHashTable,--wrap=CU_DeleteHashTable

#ifndef OPTMONITORING_TESTS_FILEOPS_SYSTEM_H
#define OPTMONITORING_TESTS_FILEOPS_SYSTEM_H

#include <time.h>

#include <functional>
#include <string>
#include <vector>

#include "fileops.h"

struct tEndedTable {
    const CUt_HashTable* table;
    bool with_client_data;
};

// Observes, and gives the answers set in its fields, while it lives. One at a time.
class tWatchedSystem
{
  public:
    tWatchedSystem();
    ~tWatchedSystem();
    tWatchedSystem(const tWatchedSystem&) = delete;
    tWatchedSystem& operator=(const tWatchedSystem&) = delete;

    time_t now;                             // what the clock shows; it does not move
    std::vector<std::string> examined;      // names given to stat(), in order
    int directory_queries = 0;              // calls of getcwd()
    const char* directory = nullptr;        // the current directory; null: the real one
    int directory_error = 0;                // errno of a failing getcwd(); 0: it does not fail
    std::function<void()> during_getcwd;    // run once inside the next getcwd()
    std::vector<tEndedTable> ended_tables;  // hash tables deleted, in order
};

// A record made without an interpreter, with no log; ended with the test. While it lives, create_file_ops_data can
// run: there are no modules and no errors.
class tPlainRecord
{
  public:
    tPlainRecord();
    ~tPlainRecord();
    tPlainRecord(const tPlainRecord&) = delete;
    tPlainRecord& operator=(const tPlainRecord&) = delete;

    void end();  // destroys the record now
    tFileOpsData* get() const { return fData; }
    tFileOpsData* operator->() const { return fData; }

  private:
    decltype(api.PySys_GetObject) fSavedGetObject;
    decltype(api.PyErr_Clear) fSavedClear;
    tFileOpsData* fData;
};

// The client data of KEY as text, or null when there is no such entry.
const char* stored_text(CUt_HashTable* table, const std::string& key);

// What is wrong with the record's tables: half-made entries, wrong counts; empty when nothing is.
std::string table_faults(tFileOpsData* data);

#endif
