// The armed injection, and the wrappers of the heap and the loader. The link routes calls here:
//
//     -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=strdup,--wrap=free,--wrap=vasprintf,--wrap=getcwd
//     -Wl,--wrap=dlsym

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "inject.h"

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
char* __real_strdup(const char* text);
void __real_free(void* block);
int __real_vasprintf(char** text, const char* format, va_list args);
char* __real_getcwd(char* buffer, size_t size);
void* __real_dlsym(void* handle, const char* name);
}

// ---- The injection ----

constexpr int kNamesKept = 64;

struct tInjection {
    int target;
    int first;
    int last;
    int counted;
    int failed;
    const char* names[kNamesKept];  // of the failed calls
    pthread_t thread;
    PyObject* exception;  // [borrowed]
};

static tInjection gInjection = {kNothing, 0, 0, 0, 0, {}, 0, nullptr};
static void (*gSetObject)(PyObject*, PyObject*);
static PyObject* gNone;

void inject_arm(int target, int first, int last, PyObject* exception)
{
    // looked up here, because start-up itself may be what fails
    *reinterpret_cast<void**>(&gSetObject) = __real_dlsym(RTLD_DEFAULT, "PyErr_SetObject");
    gNone = static_cast<PyObject*>(__real_dlsym(RTLD_DEFAULT, "_Py_NoneStruct"));
    gInjection = {kNothing, first, last, 0, 0, {}, pthread_self(), exception};
    gInjection.target = target;
}

int inject_disarm(void)
{
    gInjection.target = kNothing;
    return gInjection.counted;
}

int inject_failed_count(void)
{
    return gInjection.failed;
}

const char* inject_failed_name(int nth)
{
    return nth >= 0 && nth < kNamesKept ? gInjection.names[nth] : nullptr;
}

bool is_to_fail(int target, const char* name, bool needs_memory)
{
    tInjection* armed = &gInjection;
    if (armed->target != target || !pthread_equal(armed->thread, pthread_self()))
        return false;
    armed->counted += 1;
    if (armed->counted < armed->first || armed->counted > armed->last || (armed->failed && !needs_memory))
        return false;
    if (armed->failed < kNamesKept)
        armed->names[armed->failed] = name;
    armed->failed += 1;
    return true;
}

void raise_injected(void)
{
    gSetObject(gInjection.exception, gNone);
}

// ---- The heap ----

static long gLiveBlocks;

long inject_live_blocks(void)
{
    return __atomic_load_n(&gLiveBlocks, __ATOMIC_RELAXED);
}

static void* count_block(void* block)
{
    if (block)
        __atomic_add_fetch(&gLiveBlocks, 1, __ATOMIC_RELAXED);
    return block;
}

static bool is_allocation_to_fail(const char* name)
{
    bool fails = is_to_fail(kAllocations, name);
    if (fails)
        errno = ENOMEM;
    return fails;
}

extern "C" {

void* __wrap_malloc(size_t size)
{
    return is_allocation_to_fail("malloc") ? nullptr : count_block(__real_malloc(size));
}

void* __wrap_calloc(size_t count, size_t size)
{
    return is_allocation_to_fail("calloc") ? nullptr : count_block(__real_calloc(count, size));
}

void* __wrap_realloc(void* block, size_t size)
{
    if (is_allocation_to_fail("realloc"))
        return nullptr;
    void* grown = __real_realloc(block, size);
    return block ? grown : count_block(grown);
}

char* __wrap_strdup(const char* text)
{
    return is_allocation_to_fail("strdup") ? nullptr : static_cast<char*>(count_block(__real_strdup(text)));
}

void __wrap_free(void* block)
{
    if (block)
        __atomic_sub_fetch(&gLiveBlocks, 1, __ATOMIC_RELAXED);
    __real_free(block);
}

int __wrap_vasprintf(char** text, const char* format, va_list args)
{
    if (is_allocation_to_fail("vasprintf"))
        return -1;
    int length = __real_vasprintf(text, format, args);
    if (length >= 0)
        count_block(*text);
    return length;
}

char* __wrap_getcwd(char* buffer, size_t size)
{
    if (is_allocation_to_fail("getcwd"))
        return nullptr;
    char* directory = __real_getcwd(buffer, size);
    return buffer ? directory : static_cast<char*>(count_block(directory));
}

// ---- The loader ----

void* __wrap_dlsym(void* handle, const char* name)
{
    // every interpreter has this one, and what stands in for it calls a function of Python 2 alone
    bool is_kept = strcmp(name, "PyLong_FromSsize_t") == 0;
    void* ptr = !is_kept && is_to_fail(kLookUps, name) ? nullptr : __real_dlsym(handle, name);
    return ptr ? wrap_symbol(name, ptr) : nullptr;
}
}
