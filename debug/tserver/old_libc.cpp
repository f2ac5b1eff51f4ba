// Lets a file that was linked on a new machine load on an old one, down to glibc 2.17.
//
// Newer C libraries publish some old functions under a newer version as well, and the linker takes the newest. The
// link sends the module's calls of these functions here (--wrap, see CMakeLists.txt), and here they are bound to the
// version that every one of these libraries has. Only for glibc on x86-64: other machines' first versions have other
// names.

#include <sys/stat.h>

extern "C" {

void* old_dlopen(const char* path, int flags);
void* old_dlsym(void* handle, const char* name);
int old_dlclose(void* handle);
int old_xstat(int version, const char* path, struct stat* result);

__asm__(".symver old_dlopen, dlopen@GLIBC_2.2.5");
__asm__(".symver old_dlsym, dlsym@GLIBC_2.2.5");
__asm__(".symver old_dlclose, dlclose@GLIBC_2.2.5");
__asm__(".symver old_xstat, __xstat@GLIBC_2.2.5");

// What `stat` was before it became a function of the library: this record's version, and what it is filled by.
static constexpr int kStatVersion = 1;

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

int __wrap_stat(const char* path, struct stat* result)
{
    return old_xstat(kStatVersion, path, result);
}

}  // extern "C"
