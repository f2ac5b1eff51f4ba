// Watches the C heap while one call runs, and makes a chosen allocation fail.
//
// The executable that contains failing_malloc.cpp must be linked with
//
//     -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=strdup,--wrap=free
//
// which routes the calls made by the objects of that link through the watch and on to the real functions. Nothing is
// replaced, so the same options serve plain builds, sanitizer builds of both compilers, and valgrind; without them
// the link fails without __real_malloc. Calls made inside shared libraries (vasprintf, say) are not seen.

#ifndef OPTMONITORING_TESTS_FAILING_MALLOC_H
#define OPTMONITORING_TESTS_FAILING_MALLOC_H

#include <stddef.h>

// Observes from construction to stop(). One watch at a time, and only one thread. Make assertions after stop().
class tHeapWatch
{
  public:
    // The allocation FAILING (1 is the first one) returns null, and so do later ones up to LAST; 0: none.
    explicit tHeapWatch(int failing = 0) : tHeapWatch(failing, failing) {}
    tHeapWatch(int failing, int last);
    ~tHeapWatch() { stop(); }
    tHeapWatch(const tHeapWatch&) = delete;
    tHeapWatch& operator=(const tHeapWatch&) = delete;

    void stop();

    int allocations() const;          // requests for memory, failed ones included
    size_t requested(int nth) const;  // bytes asked for by the NTH (from 1) allocation
    int frees() const;                // blocks given back; free(null) does not count
    bool freed(const void* block) const;
};

#endif
