// Absolute names by text alone, stat results cached, and the same-file test.

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <time.h>
#include <unistd.h>

#include "fileops_internal.h"

static constexpr time_t kNotFoundSeconds = 3;  // how long a failed stat is believed
static constexpr size_t kPartsGrowth = 10;     // entries by which the array of parts grows

// ---- The stat cache ----

// Whether the failed stat of NAME is recent enough to be believed; an old entry is dropped.
static bool is_known_missing(tFileOpsData* data, const char* name)
{
    XPyLocked locked(&gFileTablesLock);
    CUt_HashEntry* entry = data->not_found_table.findProc(&data->not_found_table, name);
    if (!entry)
        return false;
    time_t age = time(nullptr) - static_cast<time_t>(reinterpret_cast<intptr_t>(entry->clientData));
    if (age > -kNotFoundSeconds && age < kNotFoundSeconds)
        return true;
    CU_DeleteHashEntry(entry);
    return false;
}

static void remember_missing(tFileOpsData* data, const char* name)
{
    int is_new;
    XPyLocked locked(&gFileTablesLock);
    CUt_HashEntry* entry = data->not_found_table.createProc(&data->not_found_table, name, &is_new);
    if (entry)
        entry->clientData = reinterpret_cast<CUt_ClientData>(static_cast<intptr_t>(time(nullptr)));
}

static const struct stat* find_stat(tFileOpsData* data, const char* name)
{
    XPyLocked locked(&gFileTablesLock);
    CUt_HashEntry* cached = data->stat_cache.findProc(&data->stat_cache, name);
    return cached ? static_cast<const struct stat*>(cached->clientData) : nullptr;
}

// Keeps RESULT [steals]; what another thread has kept meanwhile stays. Null when out of memory.
static const struct stat* keep_stat(tFileOpsData* data, const char* name, struct stat* result)
{
    int is_new;
    XPyLocked locked(&gFileTablesLock);
    CUt_HashEntry* entry = data->stat_cache.createProc(&data->stat_cache, name, &is_new);
    if (!entry || !is_new) {
        free(result);
        return entry ? static_cast<const struct stat*>(entry->clientData) : nullptr;
    }
    entry->clientData = result;
    return result;
}

const struct stat* __tracer_stat(tFileOpsData* data, const char* name)
{
    if (const struct stat* cached = find_stat(data, name))
        return cached;
    if (is_known_missing(data, name))
        return nullptr;
    struct stat* result = static_cast<struct stat*>(malloc(sizeof(struct stat)));
    if (!result)
        return nullptr;
    if (stat(name, result) != 0) {
        free(result);
        remember_missing(data, name);
        return nullptr;
    }
    return keep_stat(data, name, result);
}

// ---- Parts of a name ----

// The parts of a split name; pointers into the split text, ended by a null entry.
struct tParts {
    char** items;
    size_t count;
    size_t room;
};

static bool add_part(tParts* parts, char* part)
{
    if (parts->count + 1 >= parts->room) {
        size_t room = parts->room + kPartsGrowth;
        char** grown = static_cast<char**>(realloc(parts->items, room * sizeof(char*)));
        if (!grown)
            return false;
        parts->items = grown;
        parts->room = room;
    }
    parts->items[parts->count++] = part;
    parts->items[parts->count] = nullptr;
    return true;
}

// Splits TEXT in place at every "/"; a leading or trailing "/" gives an empty part.
static bool split_parts(char* text, tParts* parts)
{
    for (char* part = text;;) {
        char* end = strchr(part, '/');
        if (end)
            *end = '\0';
        if (!add_part(parts, part))
            return false;
        if (!end)
            return true;
        part = end + 1;
    }
}

static void remove_parts(tParts* parts, size_t first, size_t count)
{
    memmove(parts->items + first, parts->items + first + count, (parts->count + 1 - first - count) * sizeof(char*));
    parts->count -= count;
}

// Removes ".", empty and ".." parts. Kept: ".." directly behind the root removes the root's empty part as well, so
// that a name that climbs above "/" comes out without a leading "/".
static void clean_parts(tFileOpsData* data, tParts* parts)
{
    for (size_t i = 0; parts->items[i];) {
        const char* part = parts->items[i];
        DO_FILENAMES(data, "parts[%i] = %s\n", static_cast<int>(i), part);
        if (strcmp(part, ".") == 0 || (*part == '\0' && i >= 1)) {
            remove_parts(parts, i, 1);
        } else if (strcmp(part, "..") == 0) {
            if (i >= 1)
                remove_parts(parts, --i, 2);
            else
                remove_parts(parts, 0, 1);
        } else {
            i++;
        }
    }
}

// The parts with "/" between them, to be freed by the caller; null when out of memory.
static char* join_parts(const tParts* parts)
{
    size_t length = 1;
    for (size_t i = 0; i < parts->count; i++)
        length += strlen(parts->items[i]) + 1;
    char* joined = static_cast<char*>(malloc(length));
    if (!joined)
        return nullptr;
    char* end = joined;
    for (size_t i = 0; i < parts->count; i++) {
        if (i > 0)
            *end++ = '/';
        end = stpcpy(end, parts->items[i]);
    }
    *end = '\0';
    return joined;
}

// Cleans TEXT, which is overwritten. The result is to be freed by the caller; null when out of memory.
static char* clean_name(tFileOpsData* data, char* text)
{
    tParts parts = {nullptr, 0, 0};
    char* cleaned = nullptr;
    if (split_parts(text, &parts)) {
        clean_parts(data, &parts);
        cleaned = join_parts(&parts);
    }
    free(parts.items);
    return cleaned;
}

// ---- Absolute names ----

static char* join_directory(const char* directory, const char* name)
{
    size_t length = strlen(directory);
    bool needs_slash = length > 0 && directory[length - 1] != '/';
    char* joined = static_cast<char*>(malloc(length + needs_slash + strlen(name) + 1));
    if (!joined)
        return nullptr;
    char* end = stpcpy(joined, directory);
    if (needs_slash)
        *end++ = '/';
    strcpy(end, name);
    return joined;
}

// NAME resolved against the current directory, to be freed by the caller; null on failure.
static char* resolve_relative(tFileOpsData* data, const char* name)
{
    char* directory = getcwd(nullptr, 0);
    if (!directory) {
        DO_FILENAMES(data, "getcwd() returned NULL; errno = %i\n", errno);
        return nullptr;
    }
    DO_FILENAMES(data, "In __posix_absname: resolving %s in %s\n", dprint_check_str(name),
                 dprint_check_str(directory));
    char* joined = join_directory(directory, name);
    free(directory);
    char* resolved = joined ? clean_name(data, joined) : nullptr;
    free(joined);
    return resolved;
}

static const char* find_absname(tFileOpsData* data, const char* name)
{
    XPyLocked locked(&gFileTablesLock);
    CUt_HashEntry* cached = data->absname_cache.findProc(&data->absname_cache, name);
    return cached ? static_cast<const char*>(cached->clientData) : nullptr;
}

// Keeps RESULT [steals], or where another thread has resolved the name meanwhile, that. Null when out of memory.
static const char* keep_absname(tFileOpsData* data, const char* name, char* result)
{
    int is_new;
    XPyLocked locked(&gFileTablesLock);
    CUt_HashEntry* entry = data->absname_cache.createProc(&data->absname_cache, name, &is_new);
    if (!entry || (gIsLockOff && !is_new)) {
        free(result);
        return entry ? static_cast<const char*>(entry->clientData) : nullptr;
    }
    if (entry->clientData)  // resolved meanwhile, by code that the log's file ran
        free_when_unused(data, entry->clientData);
    entry->clientData = result;
    return result;
}

const char* get_absname_forward_slash_names(tFileOpsData* data, const char* name)
{
    if (const char* cached = find_absname(data, name))
        return cached;
    char* result = *name == '/' ? strdup(name) : resolve_relative(data, name);
    if (!result)
        return nullptr;
    const char* kept = keep_absname(data, name, result);
    if (kept)
        DO_FILENAMES(data, "resolved %s to %s\n", name, kept);
    return kept;
}

const char* get_absname(tFileOpsData* data, const char* name)
{
    return get_absname_forward_slash_names(data, name);
}

// ---- Same file ----

static bool same_identity(const struct stat* a, const struct stat* b)
{
    return a->st_dev == b->st_dev && a->st_ino == b->st_ino;
}

// NAME + "c", the compiled-file name of a source file; to be freed by the caller.
static char* compiled_name(const char* name)
{
    size_t length = strlen(name);
    char* compiled = static_cast<char*>(malloc(length + 2));
    if (compiled) {
        memcpy(compiled, name, length);
        strcpy(compiled + length, "c");
    }
    return compiled;
}

int samefile(tFileOpsData* data, const char* first, const char* second)
{
    // Kept: a name is the same file as any longer name that it begins.
    if (strncmp(first, second, strlen(first)) == 0)
        return 1;
    char* first_compiled = compiled_name(first);
    char* second_compiled = compiled_name(second);
    const struct stat* a = first_compiled ? __tracer_stat(data, first_compiled) : nullptr;
    const struct stat* b = second_compiled ? __tracer_stat(data, second_compiled) : nullptr;
    free(first_compiled);
    free(second_compiled);
    if (!a || !b) {
        a = __tracer_stat(data, first);
        b = __tracer_stat(data, second);
    }
    return a && b && same_identity(a, b);
}

void prune_py_c_or_o(char* name)
{
    size_t length = strlen(name);
    if (length <= 3)
        return;
    const char* suffix = name + length - 4;
    if (strcasecmp(suffix, ".pyc") == 0 || strcasecmp(suffix, ".pyo") == 0)
        name[length - 1] = '\0';
}
