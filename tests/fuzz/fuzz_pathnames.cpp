// Pathname kinds, and the host's table of internal pathnames, whose look-ups may raise or replace the table.

#include "dprintf.h"
#include "fake_python.h"
#include "fuzz_input.h"
#include "optmonitoring_internal.h"

namespace {

tModuleState gState;

// ---- The model ----

bool begins(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

int model_kind(const std::string& text)
{
    if (text.empty())
        return 4;
    if (text.front() == '<' && text.back() == '>')
        return begins(text, "<frozen") ? 3 : 4;
    return begins(text, "x-brixide-python-shell://") ? 5 : 0;
}

bool is_str(const tFake* fake)
{
    return fake->type == &kFakeStr || fake->type->base == &kFakeStr;
}

// ---- Objects ----

std::string read_text(tInput* input)
{
    static const char* const kStarts[] = {"", "<", "<frozen", "x-brixide-python-shell://", "X-brixide"};
    static const char* const kEnds[] = {"", ">", "\0>", "/"};
    std::string text = kStarts[input->below(5)];
    if (!text.empty())
        text.resize(text.size() - input->below(2));
    return text + input->text(12) + kEnds[input->below(4)];
}

// A pathname: a str most of the time.
tFake* read_pathname(tInput* input)
{
    uint32_t kind = input->below(16);
    if (kind == 1)
        return fake_ref(as_fake(api.Py_None));
    tFake* pathname = new_fake(kind == 2 ? &kFakeOther : kind & 4 ? &kFakeStrSubclass : &kFakeStr, read_text(input));
    pathname->refuses = kind == 3;
    if (input->flag())
        pathname->repr = new_fake(&kFakeStr, "a repr");
    return pathname;
}

tFake* read_table(tInput* input)
{
    tFake* table = new_fake(input->below(8) == 1 ? &kFakeOther : &kFakeDict);
    for (uint32_t i = input->below(4); i > 0; i--)
        table->items.push_back(new_fake(&kFakeStr, read_text(input)));
    table->refuses = input->below(8) == 1;
    return table;
}

// ---- Calls ----

std::vector<std::string> logged(const std::string& text)
{
    return {"log <- " + text, "log.flush()"};
}

// What the failure of a step leaves in the log: its line, and the report.
void expect_failure(std::vector<std::string>* expected, const std::string& step, const std::string& error)
{
    for (const std::string& text : {step, std::string("EXCEPTION IN DEBUG TRACER:\n")}) {
        for (const std::string& event : logged(text))
            expected->push_back(event);
    }
    expected->push_back("display " + error + " on log");
}

std::string error_of(const tFake* pathname)
{
    if (is_str(pathname))
        return pathname->refuses ? "no UTF-8" : "";
    return pathname->refuses ? "no UTF-8" : "not a str";
}

void check_kind(tInput* input)
{
    tFake* pathname = read_pathname(input);
    std::string error = error_of(pathname);
    int kind = error.empty() ? model_kind(pathname->text) : -1;
    std::vector<std::string> expected;
    if (kind < 0)
        expect_failure(&expected, "Exception in GetPathnameKind_direct\n", error);
    PyObject* argument = as_object(pathname);
    if (input->flag()) {
        FUZZ_SAME(kind, GetPathnameKind_direct(gState.dp, argument));
    } else {
        if (kind < 0)
            expect_failure(&expected, "Exception in GetPathnameKind\n", error);
        tFake* result = as_fake(GetPathnameKind(nullptr, &argument, 1, nullptr));
        FUZZ_CHECK((result != nullptr) == (kind >= 0));
        FUZZ_CHECK(!result || (result->type == &kFakeInt && result->number == kind));
        release_fake(result);
    }
    FUZZ_SAME(error, gFake.pending ? gFake.pending->text : "");
    FUZZ_CHECK(gFake.events == expected);
    api.PyErr_Clear();
    FUZZ_CHECK(pathname->count == 1 || argument == api.Py_None);
    release_fake(pathname);
}

void check_utf8(tInput* input)
{
    tFake* pathname = read_pathname(input);
    std::string error = error_of(pathname);
    if (error.empty() && pathname->text.find('\0') != std::string::npos)
        error = "ValueError: pathname has an embedded null character";
    Py_ssize_t length = -7;
    const char* text = need_utf8(as_object(pathname), &length);
    FUZZ_SAME(error, gFake.pending ? gFake.pending->text : "");
    FUZZ_CHECK(error.empty() ? text == pathname->text.c_str() : !text);
    FUZZ_CHECK(!text || static_cast<size_t>(length) == pathname->text.size());
    api.PyErr_Clear();
    release_fake(pathname);
}

void set_table(tFake* table)
{
    PyObject* argument = as_object(table);
    tFake* result = as_fake(SetInternalPathnameDict(nullptr, &argument, 1, nullptr));
    FUZZ_CHECK(as_object(result) == api.Py_None && gState._gInternalPathnameDict == argument);
    release_fake(result);
    release_fake(table);
}

void check_internal(tInput* input)
{
    tFake* table = as_fake(gState._gInternalPathnameDict);
    tFake* pathname = read_pathname(input);
    bool is_none = as_object(pathname) == api.Py_None;
    bool is_internal = false;
    for (const tFake* each : table->items)
        is_internal |= is_str(pathname) && each->text == pathname->text;
    is_internal = is_internal && table->type == &kFakeDict && !table->refuses;
    if (input->below(4) == 1)
        gFake.during_look_up = [] { set_table(new_fake(&kFakeDict)); };
    int result = IsInternalPathname(gState.dp, gState._gInternalPathnameDict, as_object(pathname));
    gFake.during_look_up = nullptr;
    FUZZ_SAME(is_internal, result);
    std::vector<std::string> expected;
    if (!is_str(pathname) && !is_none) {
        std::string repr = pathname->repr ? "a repr" : "exception getting repr in fill_str_with_repr()";
        expected = logged("IsInternalPathname() called with non-str instance: " + repr + "\n");
    }
    FUZZ_CHECK(gFake.events == expected);
    FUZZ_CHECK(!gFake.pending);
    release_fake(pathname);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    tInput input(data, size);
    start_fake_python(input.flag());
    api.PyModule_GetState = [](PyObject*) -> void* { return &gState; };
    gFake.sys_stderr = new_fake(&kFakeFile, "stderr");
    gState.dp = create_dp_data();
    tFake* log = new_fake(&kFakeFile, "log");
    set_dprintf_file(as_object(log), -1, nullptr);
    set_dp_data_file_obj(gState.dp, as_object(log), -1, nullptr);
    release_fake(log);
    set_table(read_table(&input));
    while (!input.is_empty()) {
        gFake.events.clear();
        switch (input.below(4)) {
            case 0:
                check_kind(&input);
                break;
            case 1:
                check_utf8(&input);
                break;
            case 2:
                set_table(read_table(&input));
                break;
            default:
                check_internal(&input);
        }
    }
    XPy_ClearField(&gState._gInternalPathnameDict);
    set_dprintf_file(nullptr, -1, nullptr);
    free_dp_data(gState.dp);
    check_fake_python_is_clean();
    return 0;
}
