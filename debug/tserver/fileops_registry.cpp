// The registry of canonical names: the first name registered for a file, or for a checksum, stays the canonical one.

#include <stdlib.h>
#include <string.h>

#include "dbgcommon.h"
#include "fileops_internal.h"

int16_t gUseCanonicalPathnames = 1;
tSharedLock gFileTablesLock;

// ---- The record ----

struct tFileTable {
    CUt_HashTable tFileOpsData::*table;
    uint32_t key_type;
    bool owns_data;  // client data are heap blocks
};

// In order of destruction.
static const tFileTable kFileTables[] = {
    {&tFileOpsData::absname_cache, 0, true},
    {&tFileOpsData::lower_absname_cache, 0, true},
    {&tFileOpsData::stat_cache, 0, true},
    {&tFileOpsData::unique_fileno_cache, 0, true},
    {&tFileOpsData::canonical_by_unique_fileno, sizeof(tUniqueFileno), true},
    {&tFileOpsData::canonical_by_name, 0, true},
    {&tFileOpsData::canonical_by_checksum, 0, true},
    {&tFileOpsData::not_found_table, 0, false},  // times
};

// A string that was replaced while operations were under way.
struct tReplacedText {
    tReplacedText* next;
    void* text;
};

// The record as it is allocated. The fields of a tFileOpsData are published, for hosts that read its tables, so what
// counts its uses lies behind them.
struct tCountedFileOps {
    tFileOpsData data;
    int uses;                 // operations under way that run code of the program
    bool is_dropped;          // destroyed by the last of them,
    tReplacedText* replaced;  // which also frees these [owned]
};

static tCountedFileOps* counted(tFileOpsData* data)
{
    return reinterpret_cast<tCountedFileOps*>(data);
}

tFileOpsUse::tFileOpsUse(tFileOpsData* data) : fData(data)
{
    XPyLocked locked(&gFileTablesLock);
    counted(data)->uses++;
}

tFileOpsUse::tFileOpsUse(tFileOpsData* const* field)
{
    XPyLocked locked(&gFileTablesLock);
    fData = *field;
    if (fData)
        counted(fData)->uses++;
}

tFileOpsData* replace_file_ops_data(tFileOpsData** field, tFileOpsData* data)
{
    XPyLocked locked(&gFileTablesLock);
    tFileOpsData* old = *field;
    *field = data;
    return old;
}

static void free_replaced(tFileOpsData* data)
{
    while (tReplacedText* replaced = counted(data)->replaced) {
        counted(data)->replaced = replaced->next;
        free(replaced->text);
        free(replaced);
    }
}

// Ends a use; whether it was the last one of a record that has been dropped.
static bool end_use(tFileOpsData* data)
{
    XPyLocked locked(&gFileTablesLock);
    if (--counted(data)->uses != 0)
        return false;
    free_replaced(data);
    return counted(data)->is_dropped;
}

tFileOpsUse::~tFileOpsUse()
{
    if (fData && end_use(fData))
        destroy_file_ops_data(fData);
}

void free_when_unused(tFileOpsData* data, void* text)
{
    if (counted(data)->uses == 0) {
        free(text);
        return;
    }
    tReplacedText* replaced = static_cast<tReplacedText*>(malloc(sizeof(tReplacedText)));
    if (!replaced)
        return;  // out of memory: never freed, as somebody may be reading it
    *replaced = {counted(data)->replaced, text};
    counted(data)->replaced = replaced;
}

tFileOpsData* create_file_ops_data(tDPData* dp)
{
    tCountedFileOps* record = static_cast<tCountedFileOps*>(calloc(1, sizeof(tCountedFileOps)));
    if (!record)
        return nullptr;
    tFileOpsData* data = &record->data;
    data->dp = dp;
    for (const tFileTable& row : kFileTables)
        CU_InitHashTable(&(data->*row.table), row.key_type);
    data->os_mod = get_imported_module("os");
    if (!data->os_mod)
        clear_failure(dp, "Failure to find os module\n");
    data->checksum_callback = XPy_NewRef(api.Py_None);
    return data;
}

// Whether nothing uses the record, which then is this caller's; otherwise the last use destroys it.
static bool begin_destruction(tFileOpsData* data)
{
    XPyLocked locked(&gFileTablesLock);
    if (counted(data)->uses) {
        counted(data)->is_dropped = true;
        return false;
    }
    counted(data)->uses = 1;  // the log's file may run code that comes here again
    return true;
}

void destroy_file_ops_data(tFileOpsData* data)
{
    if (!begin_destruction(data))
        return;
    DO_FILENAMES(data, "In destroy_file_ops_data()\n");
    for (const tFileTable& row : kFileTables) {
        if (row.owns_data)
            CU_DeallocHashTable(&(data->*row.table));
        else
            CU_DeleteHashTable(&(data->*row.table));
    }
    XPy_ClearField(&data->os_mod);
    XPy_ClearField(&data->checksum_callback);
    free(data);
}

// ---- Name preparation ----

// An absolute source name: a private copy, or a name that its cache owns.
struct tPreparedName {
    const char* name;
    char* copy;  // to be freed, or null
};

static bool get_absname_for_canonical(tFileOpsData* data, const char* name, tPreparedName* prepared)
{
    prepared->copy = strdup(name);
    prepared->name = prepared->copy;
    if (!prepared->copy) {
        report_failure(data->dp, "Failure: get_absname_for_canonical()\n");
        return false;
    }
    prune_py_c_or_o(prepared->copy);
    if (*prepared->copy == '/')
        return true;
    prepared->name = get_absname(data, prepared->copy);
    free(prepared->copy);
    prepared->copy = nullptr;
    return prepared->name != nullptr;
}

// ---- Look-up ----

static const char* found_name(const CUt_HashEntry* entry)
{
    return entry ? static_cast<const char*>(entry->clientData) : nullptr;
}

static tUniqueFileno identity_of(const struct stat* result)
{
    return {static_cast<uint64_t>(result->st_dev), static_cast<uint64_t>(result->st_ino)};
}

static const char* key_of(const tUniqueFileno* identity)
{
    return reinterpret_cast<const char*>(identity);
}

// Sets *NAME to the canonical name under KEY; false when there is no such entry.
static bool find_name(CUt_HashTable* table, const char* key, const char** name)
{
    XPyLocked locked(&gFileTablesLock);
    CUt_HashEntry* entry = table->findProc(table, key);
    *name = found_name(entry);
    return entry;
}

static const char* look_up_prepared(tFileOpsData* data, const char* name, const char* checksum)
{
    const char* found;
    if (find_name(&data->canonical_by_name, name, &found) && found)
        return found;
    if (const struct stat* result = __tracer_stat(data, name)) {
        tUniqueFileno identity = identity_of(result);
        if (find_name(&data->canonical_by_unique_fileno, key_of(&identity), &found))
            return found;
    }
    if (!checksum || !*checksum)
        return nullptr;
    return find_name(&data->canonical_by_checksum, checksum, &found) ? found : nullptr;
}

const char* lookup_canonical_pathname(tFileOpsData* data, const char* name, const char* checksum)
{
    tPreparedName prepared;
    if (!get_absname_for_canonical(data, name, &prepared))
        return nullptr;
    const char* canonical = look_up_prepared(data, prepared.name, checksum);
    free(prepared.copy);
    return canonical;
}

// ---- Registration ----

// The entry under KEY, which gets a copy of NAME when it is new; null when out of memory.
static CUt_HashEntry* add_name(CUt_HashTable* table, const char* key, const char* name, bool* is_new)
{
    int was_made;
    XPyLocked locked(&gFileTablesLock);
    CUt_HashEntry* entry = table->createProc(table, key, &was_made);
    *is_new = was_made;
    if (!entry || !was_made)
        return entry;
    entry->clientData = strdup(name);
    if (entry->clientData)
        return entry;
    CU_DeleteHashEntry(entry);
    return nullptr;
}

// The canonical name of the file that NAME denotes: the first name registered for its identity, else NAME.
static const char* register_canonical_in_by_unique_fileno(tFileOpsData* data, const char* name)
{
    const struct stat* result = __tracer_stat(data, name);
    if (!result)
        return name;
    tUniqueFileno identity = identity_of(result);
    bool is_new;
    CUt_HashEntry* entry = add_name(&data->canonical_by_unique_fileno, key_of(&identity), name, &is_new);
    if (entry)
        return entry->clientData ? found_name(entry) : name;
    report_failure(data->dp, "Failure: register_canonical_in_by_unique_fileno()\n");
    return name;
}

static void register_canonical_in_by_checksum(tFileOpsData* data, const char* name, const char* checksum)
{
    bool is_new;
    CUt_HashEntry* entry = add_name(&data->canonical_by_checksum, checksum, name, &is_new);
    if (entry && !is_new)
        DO_FILENAMES(data, "Duplicate files for checksum: canonical = '%s'; other = '%s'\n", found_name(entry), name);
    if (!entry)
        report_failure(data->dp, "Failure: register_canonical_in_by_checksum()\n");
}

// register_prepared() where others can see an entry as soon as it is there: the name is found first. Of two threads
// that register one name at once, the first one's canonical name stays.
static const char* register_shared(tFileOpsData* data, const char* name, int16_t* newly_registered)
{
    const char* canonical;
    if (find_name(&data->canonical_by_name, name, &canonical))
        return canonical;
    bool is_new;
    canonical = register_canonical_in_by_unique_fileno(data, name);
    CUt_HashEntry* entry = add_name(&data->canonical_by_name, name, canonical, &is_new);
    if (entry && is_new && newly_registered)
        *newly_registered = 1;
    return found_name(entry);
}

// The entry of a prepared name with its canonical name in it, or null.
static CUt_HashEntry* register_prepared(tFileOpsData* data, const char* name, int16_t* newly_registered)
{
    int is_new;
    CUt_HashEntry* entry = data->canonical_by_name.createProc(&data->canonical_by_name, name, &is_new);
    if (!entry || !is_new)
        return entry;
    entry->clientData = strdup(register_canonical_in_by_unique_fileno(data, name));
    if (!entry->clientData) {
        CU_DeleteHashEntry(entry);
        return nullptr;
    }
    if (newly_registered)
        *newly_registered = 1;
    return entry;
}

const char* register_canonical_pathname(tFileOpsData* data, const char* name, const char* checksum,
                                        int16_t* newly_registered)
{
    tPreparedName prepared;
    if (!get_absname_for_canonical(data, name, &prepared)) {
        report_failure(data->dp, "Failure: register_canonical_pathname()\n");
        return nullptr;
    }
    if (newly_registered)
        *newly_registered = 0;
    CUt_HashEntry* entry = nullptr;
    const char* canonical = nullptr;
    if (gIsLockOff) {
        canonical = register_shared(data, prepared.name, newly_registered);
    } else {
        entry = register_prepared(data, prepared.name, newly_registered);
        canonical = found_name(entry);
    }
    if (gIsLockOff ? !canonical : !entry)
        report_failure(data->dp, "Failure: register_canonical_pathname()\n");
    else if (checksum && *checksum)
        register_canonical_in_by_checksum(data, prepared.name, checksum);
    free(prepared.copy);
    return canonical;
}
