#include "failing_malloc.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

extern "C" {
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
char* __real_strdup(const char* text);
void __real_free(void* block);
}

constexpr int kRemembered = 4096;

// Fixed storage: the watch itself must not allocate.
struct tObservation {
    bool active;
    int first_failing;
    int last_failing;
    int allocations;
    int frees;
    size_t requested[kRemembered];
    uintptr_t freed[kRemembered];  // addresses only, the blocks are gone
};

static tObservation gObservation;

// Counts an allocation; true when it must fail.
static bool note_allocation(size_t size)
{
    tObservation* o = &gObservation;
    if (!o->active)
        return false;
    if (o->allocations == kRemembered)
        abort();
    o->requested[o->allocations++] = size;
    return o->allocations >= o->first_failing && o->allocations <= o->last_failing;
}

static void note_free(void* block)
{
    tObservation* o = &gObservation;
    if (!o->active || !block)
        return;
    if (o->frees == kRemembered)
        abort();
    o->freed[o->frees++] = reinterpret_cast<uintptr_t>(block);
}

extern "C" {

void* __wrap_malloc(size_t size)
{
    return note_allocation(size) ? nullptr : __real_malloc(size);
}

void* __wrap_calloc(size_t count, size_t size)
{
    return note_allocation(count * size) ? nullptr : __real_calloc(count, size);
}

void* __wrap_realloc(void* block, size_t size)
{
    if (note_allocation(size))
        return nullptr;
    note_free(block);
    return __real_realloc(block, size);
}

char* __wrap_strdup(const char* text)
{
    return note_allocation(strlen(text) + 1) ? nullptr : __real_strdup(text);
}

void __wrap_free(void* block)
{
    note_free(block);
    __real_free(block);
}
}

tHeapWatch::tHeapWatch(int failing, int last)
{
    if (gObservation.active)
        abort();
    gObservation = tObservation();
    gObservation.first_failing = failing;
    gObservation.last_failing = last;
    gObservation.active = true;
}

void tHeapWatch::stop()
{
    gObservation.active = false;
}

int tHeapWatch::allocations() const
{
    return gObservation.allocations;
}

size_t tHeapWatch::requested(int nth) const
{
    return nth >= 1 && nth <= gObservation.allocations ? gObservation.requested[nth - 1] : 0;
}

int tHeapWatch::frees() const
{
    return gObservation.frees;
}

bool tHeapWatch::freed(const void* block) const
{
    for (int i = 0; i < gObservation.frees; ++i)
        if (gObservation.freed[i] == reinterpret_cast<uintptr_t>(block))
            return true;
    return false;
}
