#include "fileops_system.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>

static constexpr time_t kStartOfClock = 1000000;

static tWatchedSystem* gWatched;

tWatchedSystem::tWatchedSystem() : now(kStartOfClock)
{
    if (gWatched)
        abort();
    gWatched = this;
}

tWatchedSystem::~tWatchedSystem()
{
    gWatched = nullptr;
}

extern "C" {
time_t __real_time(time_t* result);
int __real_stat(const char* name, struct stat* result);
char* __real_getcwd(char* buffer, size_t size);
char* __real_strdup(const char* text);
void __real_CU_DeallocHashTable(CUt_HashTable* table);
void __real_CU_DeleteHashTable(CUt_HashTable* table);

time_t __wrap_time(time_t* result)
{
    if (!gWatched)
        return __real_time(result);
    if (result)
        *result = gWatched->now;
    return gWatched->now;
}

int __wrap_stat(const char* name, struct stat* result)
{
    if (gWatched)
        gWatched->examined.push_back(name);
    return __real_stat(name, result);
}

char* __wrap_getcwd(char* buffer, size_t size)
{
    if (!gWatched)
        return __real_getcwd(buffer, size);
    gWatched->directory_queries += 1;
    if (gWatched->during_getcwd) {
        std::function<void()> action;
        action.swap(gWatched->during_getcwd);
        action();
    }
    if (gWatched->directory_error) {
        errno = gWatched->directory_error;
        return nullptr;
    }
    if (!gWatched->directory)
        return __real_getcwd(buffer, size);
    if (buffer || size)
        abort();  // the unit asks the system to allocate the buffer
    return __real_strdup(gWatched->directory);
}

void __wrap_CU_DeallocHashTable(CUt_HashTable* table)
{
    if (gWatched)
        gWatched->ended_tables.push_back({table, true});
    __real_CU_DeallocHashTable(table);
}

void __wrap_CU_DeleteHashTable(CUt_HashTable* table)
{
    if (gWatched)
        gWatched->ended_tables.push_back({table, false});
    __real_CU_DeleteHashTable(table);
}
}

// ---- Records ----

tPlainRecord::tPlainRecord() : fSavedGetObject(api.PySys_GetObject), fSavedClear(api.PyErr_Clear)
{
    api.PySys_GetObject = [](const char*) -> PyObject* { return nullptr; };
    api.PyErr_Clear = [] {};
    fData = create_file_ops_data(nullptr);
    if (!fData)
        abort();
}

tPlainRecord::~tPlainRecord()
{
    end();
    api.PySys_GetObject = fSavedGetObject;
    api.PyErr_Clear = fSavedClear;
}

void tPlainRecord::end()
{
    if (fData)
        destroy_file_ops_data(fData);
    fData = nullptr;
}

const char* stored_text(CUt_HashTable* table, const std::string& key)
{
    CUt_HashEntry* entry = table->findProc(table, key.c_str());
    return entry ? static_cast<const char*>(entry->clientData) : nullptr;
}

static std::string faults_of(CUt_HashTable* table, const std::string& name, bool needs_data)
{
    uint32_t entries = 0;
    std::string faults;
    CUt_HashSearch search;
    for (CUt_HashEntry* e = CU_FirstHashEntry(table, &search); e; e = CU_NextHashEntry(&search)) {
        entries += 1;
        if (needs_data && !e->clientData)
            faults += name + " has an entry without data\n";
    }
    if (entries != table->numEntries)
        faults += name + " miscounts its entries\n";
    return faults;
}

std::string table_faults(tFileOpsData* data)
{
    return faults_of(&data->absname_cache, "absname_cache", true) +
           faults_of(&data->not_found_table, "not_found_table", false) +
           faults_of(&data->stat_cache, "stat_cache", true) +
           faults_of(&data->canonical_by_unique_fileno, "canonical_by_unique_fileno", true) +
           faults_of(&data->canonical_by_name, "canonical_by_name", true) +
           faults_of(&data->canonical_by_checksum, "canonical_by_checksum", true);
}
