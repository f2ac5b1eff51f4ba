// File identity beside a model of it, over a file system, a clock and a current directory of the fuzzer's making.

#include <errno.h>
#include <sys/stat.h>
#include <time.h>

#include <map>

#include "fileops.h"
#include "fuzz_input.h"

// ---- The system ----

namespace {

typedef std::pair<uint64_t, uint64_t> tIdentity;  // device and inode

struct tSystem {
    bool is_on = false;
    std::map<std::string, tIdentity> files;
    std::string directory = "/";
    bool has_directory = true;
    int64_t now = 0;
    int examinations = 0;
};
tSystem gSystem;

}  // namespace

extern "C" {
time_t __real_time(time_t* result);
int __real_stat(const char* name, struct stat* result);
char* __real_getcwd(char* buffer, size_t size);

time_t __wrap_time(time_t* result)
{
    return gSystem.is_on ? gSystem.now : __real_time(result);
}

int __wrap_stat(const char* name, struct stat* result)
{
    if (!gSystem.is_on)
        return __real_stat(name, result);
    gSystem.examinations++;
    auto file = gSystem.files.find(name);
    if (file == gSystem.files.end()) {
        errno = ENOENT;
        return -1;
    }
    memset(result, 0, sizeof *result);
    result->st_dev = file->second.first;
    result->st_ino = file->second.second;
    return 0;
}

char* __wrap_getcwd(char* buffer, size_t size)
{
    if (!gSystem.is_on)
        return __real_getcwd(buffer, size);
    FUZZ_CHECK(!buffer && !size);
    if (gSystem.has_directory)
        return strdup(gSystem.directory.c_str());
    errno = ENOENT;
    return nullptr;
}
}

namespace {

// ---- The model ----

const std::string* found(const std::map<std::string, std::string>& names, const std::string& name)
{
    auto at = names.find(name);
    return at == names.end() ? nullptr : &at->second;
}

class tModel
{
  public:
    // Whether the file is there, as far as is known; its identity.
    bool stat(const std::string& name, tIdentity* identity)
    {
        auto known = fStats.find(name);
        if (known != fStats.end()) {
            *identity = known->second;
            return true;
        }
        auto missed = fMissing.find(name);
        if (missed != fMissing.end()) {
            int64_t age = gSystem.now - missed->second;
            if ((age < 0 ? -age : age) < 3)
                return false;
            fMissing.erase(missed);
        }
        examinations++;
        auto file = gSystem.files.find(name);
        if (file == gSystem.files.end()) {
            fMissing[name] = gSystem.now;
            return false;
        }
        *identity = fStats[name] = file->second;
        return true;
    }

    const std::string* absolute(const std::string& name)
    {
        if (const std::string* known = found(fAbsolute, name))
            return known;
        if (name.compare(0, 1, "/") == 0)
            return &(fAbsolute[name] = name);
        if (!gSystem.has_directory)
            return nullptr;
        const std::string& directory = gSystem.directory;
        bool needs_slash = !directory.empty() && directory.back() != '/';
        return &(fAbsolute[name] = cleaned(directory + (needs_slash ? "/" : "") + name));
    }

    int same(const std::string& first, const std::string& second)
    {
        if (second.compare(0, first.size(), first) == 0)
            return 1;
        tIdentity a, b;
        bool has_a = stat(first + "c", &a);
        bool has_b = stat(second + "c", &b);
        if (has_a && has_b)
            return a == b;
        has_a = stat(first, &a);
        has_b = stat(second, &b);
        return has_a && has_b && a == b;
    }

    static std::string pruned(const std::string& name)
    {
        if (name.size() < 4)
            return name;
        std::string suffix;
        for (char c : name.substr(name.size() - 4))
            suffix += static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
        return suffix == ".pyc" || suffix == ".pyo" ? name.substr(0, name.size() - 1) : name;
    }

    const std::string* look_up(const std::string& name, const std::string* checksum)
    {
        std::string prepared;
        if (!prepare(name, &prepared))
            return nullptr;
        if (const std::string* canonical = found(fByName, prepared))
            return canonical;
        tIdentity identity;
        if (stat(prepared, &identity) && fByIdentity.count(identity))
            return &fByIdentity[identity];
        return checksum && !checksum->empty() ? found(fByChecksum, *checksum) : nullptr;
    }

    const std::string* enter(const std::string& name, const std::string* checksum, bool* is_new)
    {
        std::string prepared;
        if (!prepare(name, &prepared))
            return nullptr;
        *is_new = !fByName.count(prepared);
        if (*is_new) {
            tIdentity identity;
            bool exists = stat(prepared, &identity);
            fByName[prepared] = exists ? fByIdentity.emplace(identity, prepared).first->second : prepared;
        }
        if (checksum && !checksum->empty())
            fByChecksum.emplace(*checksum, prepared);
        return &fByName[prepared];
    }

    int examinations = 0;

  private:
    // Without ".", empty and ".." parts; the empty part in front of a leading "/" is a part like others for "..".
    static std::string cleaned(const std::string& text)
    {
        std::vector<std::string> kept;
        size_t start = 0;
        for (;;) {
            size_t end = text.find('/', start);
            std::string part = text.substr(start, end == std::string::npos ? end : end - start);
            if (part == "..") {
                if (!kept.empty())
                    kept.pop_back();
            } else if (part != "." && (!part.empty() || kept.empty())) {
                kept.push_back(part);
            }
            if (end == std::string::npos)
                break;
            start = end + 1;
        }
        std::string result;
        for (size_t i = 0; i < kept.size(); i++)
            result += (i ? "/" : "") + kept[i];
        return result;
    }

    bool prepare(const std::string& name, std::string* prepared)
    {
        *prepared = pruned(name);
        if (prepared->compare(0, 1, "/") == 0)
            return true;
        const std::string* resolved = absolute(*prepared);
        if (resolved)
            *prepared = *resolved;
        return resolved;
    }

    std::map<std::string, tIdentity> fStats;
    std::map<std::string, int64_t> fMissing;
    std::map<std::string, std::string> fAbsolute;
    std::map<std::string, std::string> fByName;
    std::map<tIdentity, std::string> fByIdentity;
    std::map<std::string, std::string> fByChecksum;
};

// ---- The unit beside it ----

class tSubject
{
  public:
    explicit tSubject(tInput* input) : fInput(input)
    {
        api.PySys_GetObject = [](const char*) -> PyObject* { return nullptr; };
        api.PyErr_Clear = [] {};
        gSystem = tSystem();
        gSystem.is_on = true;
        fData = create_file_ops_data(nullptr);
    }
    ~tSubject()
    {
        destroy_file_ops_data(fData);
        gSystem.is_on = false;
    }
    tSubject(const tSubject&) = delete;
    tSubject& operator=(const tSubject&) = delete;

    void step()
    {
        switch (fInput->below(10)) {
            case 0:
                gSystem.directory = fInput->c_text(30);
                gSystem.has_directory = fInput->below(8) != 1;
                break;
            case 1:
                gSystem.now += fInput->flag() ? fInput->number(1) / 16 : fInput->number(5);
                break;
            case 2:
                gSystem.files[read_name()] = {fInput->number(1), fInput->number(1)};
                break;
            case 3:
                gSystem.files.erase(read_name());
                break;
            case 4:
                check_stat(read_name());
                break;
            case 5:
                check_absolute(read_name());
                break;
            case 6:
                check_same_file();
                break;
            case 7:
                check_pruned(read_name());
                break;
            case 8:
                check_look_up();
                break;
            default:
                check_registration();
        }
        FUZZ_SAME(fModel.examinations, gSystem.examinations);
    }

  private:
    // A name that was used before, or a new one.
    std::string read_name()
    {
        if (!fNames.empty() && fInput->flag())
            return fNames[fInput->below(static_cast<uint32_t>(fNames.size()))];
        fNames.push_back(fInput->c_text(60));
        return fNames.back();
    }

    void check_stat(const std::string& name)
    {
        tIdentity expected;
        bool exists = fModel.stat(name, &expected);
        const struct stat* result = __tracer_stat(fData, name.c_str());
        FUZZ_CHECK((result != nullptr) == exists);
        FUZZ_CHECK(!result || tIdentity(result->st_dev, result->st_ino) == expected);
    }
    void check_absolute(const std::string& name)
    {
        const std::string* expected = fModel.absolute(name);
        const char* result = get_absname(fData, name.c_str());
        FUZZ_SAME(shown(expected ? expected->c_str() : nullptr), shown(result));
        FUZZ_CHECK(get_absname_forward_slash_names(fData, name.c_str()) == result);
    }
    void check_same_file()
    {
        std::string first = read_name();
        std::string second = read_name();
        int expected = fModel.same(first, second);
        FUZZ_SAME(expected, samefile(fData, first.c_str(), second.c_str()));
    }
    void check_pruned(const std::string& name)
    {
        char* text = strdup(name.c_str());  // in a block of its own size
        prune_py_c_or_o(text);
        FUZZ_SAME(fModel.pruned(name), std::string(text));
        free(text);
    }
    void check_look_up()
    {
        std::string name = read_name();
        std::string checksum = fInput->c_text(3);
        bool has_checksum = fInput->flag();
        const std::string* expected = fModel.look_up(name, has_checksum ? &checksum : nullptr);
        const char* result =
            lookup_canonical_pathname(fData, name.c_str(), has_checksum ? checksum.c_str() : nullptr);
        FUZZ_SAME(shown(expected ? expected->c_str() : nullptr), shown(result));
    }
    void check_registration()
    {
        std::string name = read_name();
        std::string checksum = fInput->c_text(3);
        bool has_checksum = fInput->flag();
        bool is_new = false;
        const std::string* expected = fModel.enter(name, has_checksum ? &checksum : nullptr, &is_new);
        int16_t newly_registered = 7;
        const char* result = register_canonical_pathname(
            fData, name.c_str(), has_checksum ? checksum.c_str() : nullptr, &newly_registered);
        FUZZ_SAME(shown(expected ? expected->c_str() : nullptr), shown(result));
        FUZZ_SAME(expected ? is_new : 7, newly_registered);
    }

    tInput* fInput;
    tFileOpsData* fData;
    tModel fModel;
    std::vector<std::string> fNames;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    tInput input(data, size);
    tSubject subject(&input);
    while (!input.is_empty())
        subject.step();
    return 0;
}
