// A loaded copy of the stand-in interpreter from which the test has taken symbols away.

#ifndef OPTMONITORING_TESTS_STUB_IMAGE_H
#define OPTMONITORING_TESTS_STUB_IMAGE_H

#include <dlfcn.h>
#include <elf.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "stub_python.h"

class tStubImage
{
  public:
    // ABSENT: the names that the copy does not export. The copy stays loaded as long as the object lives, so that the
    // pointers found in it stay good.
    explicit tStubImage(const std::vector<std::string>& absent)
    {
        std::ifstream source(STUB_PYTHON_PATH, std::ios::binary);
        std::vector<char> bytes((std::istreambuf_iterator<char>(source)), std::istreambuf_iterator<char>());
        if (bytes.empty()) {
            ADD_FAILURE() << "cannot read " << STUB_PYTHON_PATH;
            return;
        }
        for (const std::string& name : absent)
            EXPECT_EQ(take_away(bytes, name), 1) << name;
        char path[] = "/tmp/stub_python_XXXXXX";
        int fd = mkstemp(path);
        fPath = path;
        EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
        fHandle = dlopen(path, RTLD_LAZY | RTLD_LOCAL);
        if (!fHandle)
            ADD_FAILURE() << dlerror();
    }
    ~tStubImage()
    {
        if (fHandle)
            dlclose(fHandle);
        unlink(fPath.c_str());
    }
    tStubImage(const tStubImage&) = delete;
    tStubImage& operator=(const tStubImage&) = delete;

    const char* path() const { return fPath.c_str(); }
    void* symbol(const char* name) const { return dlsym(fHandle, name); }
    tStubState& state() const { return *static_cast<tStubState*>(symbol("stub_state")); }

  private:
    // Makes the exported symbol an undefined one, which the loader does not find. The number of symbols changed.
    static int take_away(std::vector<char>& bytes, const std::string& name)
    {
        const Elf64_Ehdr* header = reinterpret_cast<const Elf64_Ehdr*>(bytes.data());
        const Elf64_Shdr* sections = reinterpret_cast<const Elf64_Shdr*>(bytes.data() + header->e_shoff);
        int changed = 0;
        for (int i = 0; i < header->e_shnum; i++) {
            if (sections[i].sh_type != SHT_DYNSYM)
                continue;
            const char* names = bytes.data() + sections[sections[i].sh_link].sh_offset;
            Elf64_Sym* symbols = reinterpret_cast<Elf64_Sym*>(bytes.data() + sections[i].sh_offset);
            for (size_t k = 0; k < sections[i].sh_size / sizeof(Elf64_Sym); k++) {
                if (symbols[k].st_shndx == SHN_UNDEF || name != names + symbols[k].st_name)
                    continue;
                symbols[k].st_shndx = SHN_UNDEF;
                symbols[k].st_value = 0;
                changed++;
            }
        }
        return changed;
    }

    std::string fPath;
    void* fHandle = nullptr;
};

#endif
