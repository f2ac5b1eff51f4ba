// The threads that read without a lock, and the wait for them.

#include "xpy_c_api_readers.h"

#include <pthread.h>
#include <sched.h>
#include <stdlib.h>
#include <time.h>

__thread tReader* own_reader;

static tReader* first_reader;  // places are only ever added, in front
static pthread_key_t key_of_readers;
static bool has_key;

static bool is_reading(uint64_t count)
{
    return count % 2 != 0;
}

// At the end of a thread. Code that runs after this on the thread gets another place.
static void leave_place(void* place)
{
    own_reader = nullptr;
    tReader* reader = static_cast<tReader*>(place);
    if (is_reading(XPy_Load(&reader->count)))  // the thread was ended there by force
        __atomic_fetch_add(&reader->count, 1, __ATOMIC_RELEASE);
    __atomic_store_n(&reader->is_taken, 0, __ATOMIC_RELEASE);
}

void init_readers(void)
{
    if (!has_key)
        has_key = pthread_key_create(&key_of_readers, leave_place) == 0;
}

static tReader* take_empty_place(void)
{
    for (tReader* reader = __atomic_load_n(&first_reader, __ATOMIC_ACQUIRE); reader; reader = reader->next) {
        uint32_t empty = 0;
        if (__atomic_compare_exchange_n(&reader->is_taken, &empty, 1, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
            return reader;
    }
    return nullptr;
}

static tReader* add_place(void)
{
    tReader* reader = static_cast<tReader*>(calloc(1, sizeof(tReader)));
    if (!reader)
        return nullptr;
    reader->is_taken = 1;
    reader->next = __atomic_load_n(&first_reader, __ATOMIC_RELAXED);
    while (!__atomic_compare_exchange_n(&first_reader, &reader->next, reader, true, __ATOMIC_SEQ_CST,
                                        __ATOMIC_RELAXED)) {
    }
    return reader;
}

tReader* add_reader(void)
{
    tReader* reader = has_key ? take_empty_place() : nullptr;
    if (!reader && has_key)
        reader = add_place();
    if (reader && pthread_setspecific(key_of_readers, reader) != 0) {
        __atomic_store_n(&reader->is_taken, 0, __ATOMIC_RELEASE);
        return nullptr;
    }
    own_reader = reader;
    return reader;
}

// A reader needs some nanoseconds, unless it is not running; then it may have less priority than this thread.
static void pause_for_reader(int round)
{
    static constexpr int kYields = 100;
    static constexpr timespec kNap = {0, 50 * 1000};
    if (round < kYields)
        sched_yield();
    else
        nanosleep(&kNap, nullptr);
}

void wait_for_readers(void)
{
    // Written back as they are, so that whoever begins to read later sees what was made unreachable before. A thread
    // that stops and begins again between our look and the end of the wait does so too: its own entry, an exchange,
    // comes behind our write in the order of the count, and x86-64 and aarch64 keep what was before that write before
    // it.
    for (tReader* reader = __atomic_fetch_add(&first_reader, 0, __ATOMIC_ACQ_REL); reader; reader = reader->next) {
        uint64_t before = __atomic_fetch_add(&reader->count, 0, __ATOMIC_ACQ_REL);
        if (reader == own_reader || !is_reading(before))
            continue;
        for (int round = 0; __atomic_load_n(&reader->count, __ATOMIC_ACQUIRE) == before; round++)
            pause_for_reader(round);
    }
}

void forget_other_readers(void)
{
    for (tReader* reader = first_reader; reader; reader = reader->next) {
        if (reader != own_reader && is_reading(reader->count))
            reader->count++;
        if (reader != own_reader)
            reader->is_taken = 0;
    }
}
