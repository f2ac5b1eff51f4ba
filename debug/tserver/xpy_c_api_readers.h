// Reads without a lock, where no interpreter lock keeps threads apart.
//
// Events are too frequent to take a lock, and to count a reference that all threads share. So the thread says that it
// is reading, in a place of its own, and borrows; who takes something away that may be borrowed, which is rare, first
// makes it unreachable and then waits until no thread is reading any more that was when the wait began.
//
// The interpreter's own stop of all threads would do as well, but waits for whatever they are computing, and a child
// that is forked meanwhile can never stop its threads again.

#ifndef OPTMONITORING_XPY_C_API_READERS_H
#define OPTMONITORING_XPY_C_API_READERS_H

#include "xpy_c_api.h"

// A thread's place. Places are never freed, but given to other threads.
struct tReader {
    uint64_t count;  // of entries and exits: odd while the thread is reading
    uint32_t is_taken;
    tReader* next;
    char unused[104];  // the counts of two threads lie in different cache lines
};

// Once per process. Where the C library has run out of keys no thread can be a reader.
void init_readers(void);

// Makes this thread a reader; null when out of memory or keys.
tReader* add_reader(void);

extern __thread tReader* own_reader;  // not thread_local, which would ask for initial values at each use

// This thread reads to the end of the scope, if READING says so: what it borrows there stays valid as long. It must
// not wait for anything and run no code of the program.
class XPyReading
{
  public:
    XPyReading() : fReader(own_reader)
    {
        if (XPY_UNLIKELY(!fReader))
            fReader = add_reader();
        // In order before everything that is read: who waits sees this, or this thread sees what was changed.
        if (XPY_LIKELY(fReader != nullptr))
            __atomic_exchange_n(&fReader->count, XPy_Load(&fReader->count) + 1, __ATOMIC_SEQ_CST);
    }
    ~XPyReading()
    {
        if (XPY_LIKELY(fReader != nullptr))
            __atomic_store_n(&fReader->count, XPy_Load(&fReader->count) + 1, __ATOMIC_RELEASE);
    }
    XPyReading(const XPyReading&) = delete;
    XPyReading& operator=(const XPyReading&) = delete;
    explicit operator bool() const { return XPY_LIKELY(fReader != nullptr); }

  private:
    tReader* fReader;
};

// Waits until each other thread has stopped reading, or begun again. What has been made unreachable before may be
// released afterwards.
void wait_for_readers(void);

// In a forked child: the other threads are gone, in the middle of their reads perhaps.
void forget_other_readers(void);

#endif
