// Stands between the binding layer and the loader, and between it and the registration of fork handlers.

#include "loader_watch.h"

#include <errno.h>

#include "gtest/gtest.h"
#include "xpy_c_api.h"

static constexpr int kLazyAndGlobal = 257;

tLoaderWatch gLoaderWatch;
int gAtForkCalls;

extern "C" {
void* __real_dlopen(const char* path, int flags);
void* __wrap_dlopen(const char* path, int flags)
{
    void* handle = __real_dlopen(path, flags);
    if (gLoaderWatch.watching) {
        gLoaderWatch.opens += handle != nullptr;
        gLoaderWatch.unusual_flags += flags != kLazyAndGlobal;
    }
    return handle;
}

int __real_dlclose(void* handle);
int __wrap_dlclose(void* handle)
{
    gLoaderWatch.closes += gLoaderWatch.watching;
    return __real_dlclose(handle);
}

int __real_pthread_atfork(void (*prepare)(void), void (*parent)(void), void (*child)(void));
int __wrap_pthread_atfork(void (*prepare)(void), void (*parent)(void), void (*child)(void))
{
    EXPECT_EQ(prepare, nullptr);
    EXPECT_EQ(parent, nullptr);
    EXPECT_EQ(child, XPy_OnForkInChild);
    return ++gAtForkCalls == 1 ? EAGAIN : __real_pthread_atfork(prepare, parent, child);
}
}
