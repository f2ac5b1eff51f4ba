// Lets a file that was linked on a new machine load on an old one, down to glibc 2.17.
//
// Newer C libraries publish some old functions under a newer version as well, and the linker takes the newest. The
// link sends the module's calls of these functions here (--wrap, see CMakeLists.txt), and here they are bound to the
// version that every one of these libraries has: the first that glibc had for the processor.

#include <pthread.h>
#include <sys/stat.h>

extern "C" {

void* old_dlopen(const char* path, int flags);
void* old_dlsym(void* handle, const char* name);
int old_dlclose(void* handle);
int old_pthread_key_create(pthread_key_t* key, void (*destructor)(void*));
int old_pthread_setspecific(pthread_key_t key, const void* value);
int old_xstat(int version, const char* path, struct stat* result);

// A processor's first version, and the version of the record that `stat` fills, which was handed over before `stat`
// became a function of the library.
#if defined(__x86_64__)
#define FIRST_VERSION "GLIBC_2.2.5"
static constexpr int kStatVersion = 1;
#elif defined(__aarch64__)
#define FIRST_VERSION "GLIBC_2.17"
static constexpr int kStatVersion = 0;
#else
#error "glibc's first version for this processor is to be added"
#endif

__asm__(".symver old_dlopen, dlopen@" FIRST_VERSION);
__asm__(".symver old_dlsym, dlsym@" FIRST_VERSION);
__asm__(".symver old_dlclose, dlclose@" FIRST_VERSION);
__asm__(".symver old_pthread_key_create, pthread_key_create@" FIRST_VERSION);
__asm__(".symver old_pthread_setspecific, pthread_setspecific@" FIRST_VERSION);
__asm__(".symver old_xstat, __xstat@" FIRST_VERSION);

void* __wrap_dlopen(const char* path, int flags)
{
    return old_dlopen(path, flags);
}

void* __wrap_dlsym(void* handle, const char* name)
{
    return old_dlsym(handle, name);
}

int __wrap_dlclose(void* handle)
{
    return old_dlclose(handle);
}

// These were in the library of the threads, which every interpreter has loaded.
int __wrap_pthread_key_create(pthread_key_t* key, void (*destructor)(void*))
{
    return old_pthread_key_create(key, destructor);
}

int __wrap_pthread_setspecific(pthread_key_t key, const void* value)
{
    return old_pthread_setspecific(key, value);
}

int __wrap_stat(const char* path, struct stat* result)
{
    return old_xstat(kStatVersion, path, result);
}

}  // extern "C"
