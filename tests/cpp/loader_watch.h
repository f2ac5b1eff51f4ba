// Watches the binding layer's use of the dynamic loader and of fork handlers.
//
// The executable that contains loader_watch.cpp must be linked with
//
//     -Wl,--wrap=dlopen,--wrap=dlclose,--wrap=pthread_atfork
//
// and uses the real functions behind the watch.

#ifndef OPTMONITORING_TESTS_LOADER_WATCH_H
#define OPTMONITORING_TESTS_LOADER_WATCH_H

struct tLoaderWatch {
    bool watching;      // set by the test while the binding layer runs, not the tests themselves
    int opens;          // handles that dlopen gave
    int closes;         // calls of dlclose
    int unusual_flags;  // calls of dlopen with other flags than lazy and global
};

extern tLoaderWatch gLoaderWatch;

// Registrations asked for since the process started. The very first is refused.
extern int gAtForkCalls;

#endif
