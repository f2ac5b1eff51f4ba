// A folder of real files for one test, and the current directory put back after it.

#ifndef OPTMONITORING_TESTS_FILEOPS_TEST_SUPPORT_H
#define OPTMONITORING_TESTS_FILEOPS_TEST_SUPPORT_H

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

class tTempTree
{
  public:
    tTempTree() : fPrevious(open(".", O_RDONLY | O_DIRECTORY))
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "fileops_XXXXXX").string();
        if (fPrevious < 0 || !mkdtemp(&pattern[0]))
            abort();
        fRoot = std::filesystem::canonical(pattern).string();
    }
    ~tTempTree()
    {
        if (fchdir(fPrevious) != 0)
            abort();
        close(fPrevious);
        std::error_code ignored;
        std::filesystem::remove_all(fRoot, ignored);
    }
    tTempTree(const tTempTree&) = delete;
    tTempTree& operator=(const tTempTree&) = delete;

    // Full names of things in the tree; the makers return them too.
    std::string path(const std::string& name) const { return fRoot + "/" + name; }
    const std::string& root() const { return fRoot; }

    std::string file(const std::string& name, const std::string& text = "pass\n") const
    {
        std::ofstream(path(name), std::ios::trunc) << text;
        return path(name);
    }
    std::string folder(const std::string& name) const
    {
        std::filesystem::create_directories(path(name));
        return path(name);
    }
    std::string symlink(const std::string& target, const std::string& name) const
    {
        std::filesystem::create_symlink(target, path(name));
        return path(name);
    }
    std::string hard_link(const std::string& target, const std::string& name) const
    {
        std::filesystem::create_hard_link(target, path(name));
        return path(name);
    }
    void remove(const std::string& name) const { std::filesystem::remove_all(path(name)); }

    // Makes NAME ("": the tree itself) the current directory.
    std::string enter(const std::string& name = "") const
    {
        std::string full = name.empty() ? fRoot : path(name);
        std::filesystem::current_path(full);
        return full;
    }
    // Leaves the process in a directory that no longer exists.
    void enter_removed_folder() const
    {
        enter(std::filesystem::relative(folder("removed"), fRoot).string());
        remove("removed");
    }

  private:
    int fPrevious;
    std::string fRoot;
};

#endif
