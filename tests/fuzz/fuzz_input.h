// What every fuzz target uses: the fuzzer's bytes read as decisions, and checks that end the process.

#ifndef OPTMONITORING_TESTS_FUZZ_INPUT_H
#define OPTMONITORING_TESTS_FUZZ_INPUT_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Ends the process, which makes the input a finding, unless the condition holds.
#define FUZZ_CHECK(condition)                                                              \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                       \
        }                                                                                  \
    } while (0)

inline std::string shown(const std::string& text)
{
    return "\"" + text + "\"";
}
inline std::string shown(const char* text)
{
    return text ? shown(std::string(text)) : "null";
}
inline std::string shown(long long number)
{
    return std::to_string(number);
}

// The same for two values; a difference is shown.
#define FUZZ_SAME(expected, actual) check_same(expected, actual, #actual, __FILE__, __LINE__)

template <typename T, typename U>
void check_same(const T& expected, const U& actual, const char* what, const char* file, int line)
{
    if (expected == actual)
        return;
    fprintf(stderr, "%s:%d: %s\nexpected %s\nbut got  %s\n", file, line, what, shown(expected).c_str(),
            shown(actual).c_str());
    abort();
}

// The fuzzer's bytes, taken from the front; zeros when they have run out.
class tInput
{
  public:
    tInput(const uint8_t* data, size_t size) : fData(data), fSize(size) {}

    bool is_empty() const { return fSize == 0; }
    uint8_t byte()
    {
        if (fSize == 0)
            return 0;
        fSize--;
        return *fData++;
    }
    bool flag() { return byte() & 1; }
    uint32_t below(uint32_t limit) { return (limit <= 256 ? byte() : byte() | byte() << 8u) % limit; }
    int64_t number(size_t bytes)  // little-endian, with a sign
    {
        uint64_t bits = 0;
        for (size_t i = 0; i < bytes; i++)
            bits |= static_cast<uint64_t>(byte()) << (8 * i);
        uint64_t sign = static_cast<uint64_t>(1) << (8 * bytes - 1);
        return static_cast<int64_t>((bits ^ sign) - sign);
    }
    std::string bytes(size_t count)
    {
        std::string result;
        for (size_t i = 0; i < count; i++)
            result += static_cast<char>(byte());
        return result;
    }
    // A text of any bytes, as many as the next byte says.
    std::string text(size_t limit)
    {
        size_t count = byte() % (limit + 1);
        return bytes(count < fSize ? count : fSize);
    }
    // The same without null characters.
    std::string c_text(size_t limit)
    {
        std::string result = text(limit);
        for (size_t at; (at = result.find('\0')) != std::string::npos;)
            result.erase(at, 1);
        return result;
    }

  private:
    const uint8_t* fData;
    size_t fSize;
};

#endif
