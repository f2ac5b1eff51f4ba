// The argument parser of the fast calls: any descriptors, any mix of positional and keyword arguments.

#include <memory>

#include "fake_python.h"
#include "fuzz_input.h"
#include "optmonitoring_internal.h"

namespace {

// Names of descriptors, and of the keywords beside other texts.
const char* const kNames[] = {"a", "b", "frame", "pathname", "create", "A", ""};
constexpr uint32_t kNameCount = sizeof kNames / sizeof *kNames;
constexpr size_t kOffsetFlag = static_cast<size_t>(1) << 63;

struct tCall {
    std::vector<tFastArgInfo> infos;
    std::vector<PyObject*> values;     // what the parser stored, one for each descriptor
    std::vector<PyObject*> arguments;  // positional ones first
    size_t positional = 0;
    tFake* names = nullptr;  // [owned]
};

tFake* read_name(tInput* input)
{
    uint32_t kind = input->below(16);
    if (kind == 1)
        return new_fake(&kFakeOther);
    bool is_known = kind != 2 && kind != 3;
    tFake* name = new_fake(kind & 4 ? &kFakeStr : &kFakeStrSubclass,
                           is_known ? std::string(kNames[input->below(kNameCount)]) : input->text(4));
    name->refuses = kind == 3;
    return name;
}

void read_call(tInput* input, tCall* call)
{
    uint32_t info_count = input->below(6);
    call->values.assign(info_count, nullptr);
    for (uint32_t i = 0; i < info_count; i++) {
        int pos = static_cast<int>(input->below(8)) - 2;
        PyObject* default_value = input->flag() ? as_object(new_fake(&kFakeOther)) : nullptr;
        call->infos.push_back({kNames[input->below(kNameCount)], pos, default_value, &call->values[i]});
    }
    call->infos.push_back({nullptr, 0, nullptr, nullptr});
    call->positional = input->below(7);
    uint32_t keywords = input->below(5);
    for (size_t i = 0; i < call->positional + keywords; i++)
        call->arguments.push_back(as_object(new_fake(&kFakeOther)));
    if (!keywords && input->flag())
        return;
    call->names = new_fake(input->below(32) == 1 ? &kFakeOther : &kFakeTuple);
    for (uint32_t i = 0; i < keywords; i++)
        call->names->items.push_back(read_name(input));
}

void release_call(tCall* call)
{
    for (const tFastArgInfo& info : call->infos)
        release_fake(as_fake(info.default_value));
    for (PyObject* each : call->arguments)
        release_fake(as_fake(each));
    release_fake(call->names);
}

// The exception's text, "" when the arguments are accepted; what has been stored.
std::string model(const tCall& call, std::vector<PyObject*>* stored)
{
    if (call.names && call.names->type != &kFakeTuple)
        return "not a tuple";
    std::vector<tFake*> names = call.names ? call.names->items : std::vector<tFake*>();
    stored->assign(call.infos.size() - 1, nullptr);
    size_t matches = 0;
    int largest = -1;
    for (size_t i = 0; call.infos[i].name; i++) {
        const tFastArgInfo& info = call.infos[i];
        largest = info.pos > largest ? info.pos : largest;
        PyObject* value = nullptr;
        if (info.pos >= 0 && static_cast<size_t>(info.pos) < call.positional)
            value = call.arguments[static_cast<size_t>(info.pos)];
        for (size_t k = 0; k < names.size(); k++) {
            if (names[k]->refuses)
                return "no UTF-8";
            if (names[k]->type == &kFakeOther)
                return "not a str";
            if (std::string(names[k]->text.c_str()) != info.name)
                continue;
            if (value)
                return "TypeError: argument has both a positional value and a keyword value";
            value = call.arguments[call.positional + k];
            matches++;
            break;
        }
        if (!value)
            value = info.default_value;
        if (!value)
            return "TypeError: argument is missing";
        (*stored)[i] = value;
    }
    if (names.size() > matches)
        return "TypeError: Excess keyword arguments passed to function";
    if (static_cast<int>(call.positional) > largest + 1)
        return "TypeError: Excess positional arguments passed to function";
    return "";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    tInput input(data, size);
    start_fake_python(input.flag());
    tCall call;
    read_call(&input, &call);
    std::vector<PyObject*> expected(call.values.size());
    std::string error = model(call, &expected);
    // the vector and the descriptors in blocks of exactly their sizes
    std::unique_ptr<PyObject*[]> vector(new PyObject*[call.arguments.size()]);
    std::copy(call.arguments.begin(), call.arguments.end(), vector.get());
    std::unique_ptr<tFastArgInfo[]> infos(new tFastArgInfo[call.infos.size()]);
    std::copy(call.infos.begin(), call.infos.end(), infos.get());

    int result = get_fastargs(infos.get(), vector.get(), call.positional | (input.flag() ? kOffsetFlag : 0),
                              as_object(call.names));
    FUZZ_SAME(error, gFake.pending ? gFake.pending->text : "");
    FUZZ_SAME(error.empty() ? 0 : -1, result);
    FUZZ_CHECK(call.values == expected);
    api.PyErr_Clear();
    for (PyObject* each : call.arguments)
        FUZZ_SAME(1, as_fake(each)->count);
    release_call(&call);
    check_fake_python_is_clean();
    return 0;
}
