// The debug log beside a model of it: masks, channels, messages, reports, texts of limited length, in any order,
// while formatting, writing and taking a repr may fail, and a file's write may log or change the log itself.

#include "dbgcommon.h"
#include "dprintf.h"
#include "fake_python.h"
#include "fuzz_input.h"
#include "fuzz_log_model.h"

// ---- The descriptor ----

static constexpr int kDescriptor = 7777;
static constexpr ssize_t kWritten = 77;

extern "C" {
ssize_t __real_write(int fd, const void* bytes, size_t size);

ssize_t __wrap_write(int fd, const void* bytes, size_t size)
{
    if (fd != kDescriptor)
        return __real_write(fd, bytes, size);
    gFake.events.push_back("fd <- " + std::string(static_cast<const char*>(bytes), size));
    return kWritten;
}
}

namespace {

// ---- The unit beside it ----

tInput* gInput;
tModel gModel;
tDPData* gData;
tFake* gFiles[3];  // [owned]

PyObject* (*gFormatter)(const char*, va_list);

// ---- What a file's write does to the log ----

enum tAction { kNothing, kLogOwn, kLogGlobal, kDropFile, kChangeFile, kClearOwn, kChangeOwnFile, kActionCount };
tAction gAction;
bool gIsActing;

void tModel::act()
{
    if (is_acting)
        return;
    is_acting = true;
    switch (gAction) {
        case kLogOwn:
            write(&own.channel, "nested");
            break;
        case kLogGlobal:
            dprintf(kLogCore, "nested");
            break;
        case kDropFile:
        case kChangeFile:
            file = global.channel.file = gAction == kDropFile ? nullptr : gFiles[2];
            refuses = false;
            fileno = global.channel.fileno = -1;
            initialize_global();
            break;
        case kClearOwn:
        case kChangeOwnFile:
            own.channel.file = gAction == kClearOwn ? nullptr : gFiles[1];
            own.channel.fileno = -1;
            own.has_buffers = own.has_buffers && gAction != kClearOwn;
            break;
        default:
            break;
    }
    is_acting = false;
}

void act()
{
    if (gIsActing)
        return;
    gIsActing = true;
    switch (gAction) {
        case kLogOwn:
            do_dp(&gData->shared_single_dp_data, "nested");
            break;
        case kLogGlobal:
            do_dprintf(kLogCore, "nested");
            break;
        case kDropFile:
        case kChangeFile:
            set_dprintf_file(gAction == kDropFile ? nullptr : as_object(gFiles[2]), -1, nullptr);
            break;
        case kClearOwn:
            clear_dp_data(gData);
            break;
        case kChangeOwnFile:
            set_dp_data_file_obj(gData, as_object(gFiles[1]), -1, nullptr);
            break;
        default:
            break;
    }
    gIsActing = false;
}

// ---- Comparing ----

void check_channels(const tDPData& data, const tModelLog& model)
{
    const tSingleDPData* const channels[] = {data.core,
                                             data.filenames,
                                             data.internal_failures,
                                             data.threading,
                                             data.initial_monitoring_callbacks,
                                             data.second_monitoring_callbacks};
    for (size_t i = 0; i < kDomainCount; i++)
        FUZZ_CHECK(channels[i] == (model.is_on(i) ? &data.shared_single_dp_data : nullptr));
    const tSingleDPData& shared = data.shared_single_dp_data;
    FUZZ_CHECK(shared.file_obj == as_object(model.channel.file));
    FUZZ_CHECK(!shared.initialized || shared.fileno == model.channel.fileno);
    FUZZ_SAME(model.channel.busy, shared.in_dprint_count);
    FUZZ_CHECK(!data.initialized == !model.channel.is_initialized);
    FUZZ_CHECK((data._repr_str1 != nullptr) == model.has_buffers);
    FUZZ_CHECK((data._repr_str2 != nullptr) == model.has_buffers);
    FUZZ_CHECK(valid_dp_py_file(&data) == model.channel.has_file());
    FUZZ_CHECK(valid_dp_native_file(&data) == model.channel.has_descriptor());
}

void check_everything(const std::string& pending)
{
    FUZZ_SAME(gModel.events.size(), gFake.events.size());
    for (size_t i = 0; i < gModel.events.size(); i++)
        FUZZ_SAME(gModel.events[i], gFake.events[i]);
    FUZZ_SAME(pending, gFake.pending ? gFake.pending->text : "");
    FUZZ_SAME(gModel.tracing, gFake.tracing);
    FUZZ_CHECK(gDPrintfFile == as_object(gModel.file));
    FUZZ_SAME(gModel.mask, get_dprintf_mask());
    FUZZ_SAME(gModel.fileno, gDPrintfNativeFileno);
    FUZZ_SAME(gModel.own.mask, get_dp_data_mask(gData));
    check_channels(*gData, gModel.own);
    check_channels(gUnsafeGlobalDPData, gModel.global);
}

// A text of any length up to more than the buffers hold.
std::string read_text()
{
    std::string text = gInput->c_text(16);
    for (uint32_t doublings = gInput->below(4) == 1 ? gInput->below(12) : 0; doublings > 0; doublings--)
        text += text;
    return text.substr(0, 9000);
}

tFake* read_str()
{
    uint32_t kind = gInput->below(16);
    tFake* str = new_fake(kind == 1 ? &kFakeOther : kind & 2 ? &kFakeStrSubclass : &kFakeStr, read_text());
    str->refuses = kind == 4;
    if (kind == 4 && gInput->flag())
        str->repr = new_fake(&kFakeStr, gInput->c_text(8));
    return str;
}

// An object with or without a repr.
tFake* read_object()
{
    tFake* object = new_fake(&kFakeOther);
    if (gInput->below(8) != 1)
        object->repr = read_str();
    return object;
}

tFake* read_file()
{
    uint32_t index = gInput->below(5);
    return index < 3 ? gFiles[index] : index == 3 ? nullptr : as_fake(api.Py_None);
}

int read_fileno()
{
    return gInput->flag() ? kDescriptor : -1;
}

int read_mask()
{
    return gInput->flag() ? 1023 : static_cast<int>(gInput->number(2));
}

// One of the two logs' channels, seldom none.
tSingleDPData* read_channel(tModelChannel** model)
{
    switch (gInput->below(8)) {
        case 1:
            *model = nullptr;
            return nullptr;
        case 2:
        case 3:
            *model = &gModel.global.channel;
            return &gUnsafeGlobalDPData.shared_single_dp_data;
        default:
            *model = &gModel.own.channel;
            return &gData->shared_single_dp_data;
    }
}

// ---- Steps ----

void change_outputs()
{
    tFake* file = read_file();
    int fileno = read_fileno();
    switch (gInput->below(6)) {
        case 0: {
            set_dprintf_file(as_object(file), fileno, nullptr);
            bool is_file = file && as_object(file) != api.Py_None;
            gModel.file = is_file ? file : nullptr;
            gModel.refuses = false;
            gModel.fileno = is_file ? fileno : -1;
            gModel.initialize_global();
            gModel.global.channel.file = file;
            gModel.global.channel.fileno = fileno;
            break;
        }
        case 1:
            set_dp_data_file_obj(gData, as_object(file), fileno, nullptr);
            gModel.own.channel.file = file;
            gModel.own.channel.fileno = fileno;
            break;
        case 2:
            gModel.mask = gModel.global.mask = read_mask();
            set_dprintf_mask(gModel.mask);
            gModel.initialize_global();
            break;
        case 3:
            gModel.own.mask = read_mask();
            set_dp_data_mask(gData, gModel.own.mask);
            break;
        case 4:
            clear_dp_data(gData);
            gModel.own.channel.file = nullptr;
            gModel.own.channel.fileno = -1;
            gModel.own.has_buffers = false;
            break;
        default: {
            init_dp_data(gData, 0);  // does nothing to a record in use
            free_dp_data(gData);
            gData = create_dp_data();
            gModel.own = tModelLog();
            gModel.own.channel.is_initialized = gModel.own.has_buffers = true;
        }
    }
}

void change_surroundings()
{
    switch (gInput->below(9)) {
        case 0:
            gFake.has_thread_state = gInput->below(4) != 1;
            break;
        case 1:
            gFake.formatting_raises = gInput->flag();
            break;
        case 2:
            api.PyUnicode_FromFormatV = gInput->flag() ? nullptr : gFormatter;
            break;
        case 3:
            gFake.constructions_that_raise = gModel.constructions_that_raise = static_cast<int>(gInput->below(4));
            break;
        case 4:
            gFiles[gInput->below(3)]->refuses = gInput->flag();
            break;
        case 5:
            gFiles[gInput->below(3)]->refuses_flush = gInput->flag();
            break;
        case 6:
            gModel.tracing = static_cast<int>(gInput->below(4));
            set_fake_tracing(gModel.tracing);
            break;
        case 7:
            gAction = static_cast<tAction>(gInput->below(kActionCount));
            break;
        default: {
            tFake* file = read_file();
            release_fake(gFake.sys_stderr);
            gFake.sys_stderr = fake_ref(file);
        }
    }
}

void write_message()
{
    std::string text = read_text();
    std::string other = gInput->c_text(4);
    int number = static_cast<int>(gInput->number(4));
    std::string expected = text + " " + std::to_string(number) + other;
    if (gInput->flag()) {
        tModelChannel* model;
        tSingleDPData* channel = read_channel(&model);
        if (model)
            gModel.write(model, expected);
        do_dp(channel, "%s %i%s", text.c_str(), number, other.c_str());
    } else {
        int mask = read_mask();
        gModel.dprintf(mask, expected);
        do_dprintf(mask, "%s %i%s", text.c_str(), number, other.c_str());
    }
}

void write_repr()
{
    tFake* object = read_object();
    int mask = read_mask();
    bool is_open = gModel.file && (gModel.mask & mask);
    if (is_open)
        gModel.initialize_global();
    if (is_open && gFake.has_thread_state && !gModel.global.channel.busy) {
        if (object->repr) {
            gModel.tracing++;
            gModel.dprintf(mask, "[" + gModel.check_pystr(object->repr) + "]\n");
            gModel.tracing--;
        } else {
            gModel.dprintf(mask, "exception getting repr in DPRINTF_REPR\n");
            gModel.dlogexception("no repr");
        }
    }
    do_dprintf_repr(mask, "[", as_object(object), "]\n");
    release_fake(object);
}

void write_report(const std::string& pending)
{
    switch (gInput->below(3)) {
        case 0:
            gModel.dlogexception(pending);
            do_dlogexception();
            break;
        case 1: {
            tModelChannel* model;
            tSingleDPData* channel = read_channel(&model);
            if (model)
                gModel.report(model, pending);
            do_dp_logexception(channel);
            break;
        }
        default: {
            std::string text = read_text();
            if (gModel.own.is_on(2)) {
                gModel.write(&gModel.own.channel, text);
                gModel.report(&gModel.own.channel, pending);
            }
            report_failure(gData, text.c_str());
        }
    }
}

void fill_buffer()
{
    tFake* object = read_object();
    bool is_first = gInput->flag();
    std::string expected;
    if (!gModel.own.has_buffers) {
        // no buffer is filled, and no repr taken
    } else if (!gFake.has_thread_state) {
        expected = "fill_str_with_repr() failed: tstate is NULL";
    } else if (gModel.own.channel.busy) {
        expected = "fill_str_with_repr() failed: in_dprint_count is not 0";
    } else {
        gModel.tracing++;
        expected = object->repr ? gModel.check_pystr(object->repr) : "exception getting repr in fill_str_with_repr()";
        gModel.tracing--;
    }
    // the log's file may have cleared the record
    if (!gModel.own.has_buffers)
        expected = is_first ? kNoFirstBuffer : kNoSecondBuffer;
    const char* text = (is_first ? get_dprintf_repr_str1 : get_dprintf_repr_str2)(gData, as_object(object));
    FUZZ_SAME(expected.substr(0, kLimit), std::string(text));
    FUZZ_CHECK(!gModel.own.has_buffers || text == (is_first ? gData->_repr_str1 : gData->_repr_str2));
    release_fake(object);
}

// What reading a name or a filename that is not to be had leaves in the log.
void expect_missing_attribute(const char* text, const char* attribute)
{
    if (!gModel.file)
        return;
    gModel.dprintf(kLogInternalFailures, text);
    gModel.dlogexception(std::string("no attribute ") + attribute);
}

void name_frame()
{
    if (gInput->below(16) == 1) {
        FUZZ_SAME(std::string("<NULL>"), std::string(get_dprintf_frame_str1(nullptr)));
        return;
    }
    tFake* code = new_fake(&kFakeCode);
    for (int i = 0; i < 2; i++)
        code->items.push_back(gInput->below(8) == 1 ? nullptr : read_str());
    code->number = gInput->number(4);
    tFake* frame = new_fake(&kFakeFrame);
    frame->number = static_cast<int>(gInput->number(4));
    frame->items.push_back(code);
    tFake* name = code->items[0];
    tFake* filename = code->items[1];

    std::string expected;
    if (gFake.has_thread_state) {
        gModel.tracing++;
        expected = "line " + std::to_string(frame->number) + " of ";
        if (!name)
            expect_missing_attribute("borrow_attrib failed\n", "co_name");
        if (!filename)
            expect_missing_attribute("Exception in get_code_filename()\n", "co_filename");
        if (name && filename) {
            std::string shown_name = gModel.check_pystr(name);
            std::string shown_filename = gModel.check_pystr(filename);
            expected += shown_name + " (" + shown_filename + ": " + std::to_string(code->number) + ")";
        } else if (gModel.file) {
            gModel.dprintf(kLogInternalFailures, "Failure in append_code_static_str()\n");
        }
        gModel.tracing--;
    }
    FUZZ_SAME(expected.substr(0, kLimit), std::string(get_dprintf_frame_str1(as_object(frame))));
    release_fake(frame);
}

void write_natively()
{
    std::string text = read_text();
    if (gInput->flag()) {
        int mask = read_mask();
        if ((gModel.mask & mask) && gModel.fileno != -1)
            gModel.events.push_back("fd <- " + text);
        dprint_no_tstate(mask, text.c_str());
        return;
    }
    tModelChannel* model;
    tSingleDPData* channel = read_channel(&model);
    bool writes = model && model->has_descriptor();
    if (writes)
        gModel.events.push_back("fd <- " + text);
    if (gInput->flag())
        do_dp_no_py(channel, "%s", text.c_str());
    else
        FUZZ_SAME(writes ? kWritten : 0, write_str_to_native_file(channel, text.c_str()));
}

// ---- One input ----

void step()
{
    std::string pending = gInput->below(4) == 1 ? "pending" : "";
    if (!pending.empty())
        gFake.pending = new_fake(&kFakeException, pending);
    switch (gInput->below(9)) {
        case 0:
        case 1:
            change_outputs();
            break;
        case 2:
            change_surroundings();
            break;
        case 3:
            write_message();
            break;
        case 4:
            write_repr();
            break;
        case 5:
            write_report(pending);
            break;
        case 6:
            fill_buffer();
            break;
        case 7:
            name_frame();
            break;
        default:
            write_natively();
    }
    check_everything(pending);
    api.PyErr_Clear();
    gFake.events.clear();
    gModel.events.clear();
}

// The unit makes the names of attributes once, and keeps them for the life of the process.
void make_names()
{
    static bool are_made;
    if (are_made)
        return;
    are_made = true;
    start_fake_python(false);
    PyObject* code = as_object(new_fake(&kFakeCode));
    as_fake(code)->items = {nullptr, nullptr};
    get_code_name(code);
    get_code_filename(code);
    get_code_firstlineno(code);
    release_fake(as_fake(code));
}

void start(tInput* input)
{
    make_names();
    gInput = input;
    gAction = kNothing;
    gModel = tModel();
    start_fake_python(input->flag());
    for (int i = 0; i < 3; i++)
        gFiles[i] = new_fake(&kFakeFile, "file " + std::to_string(i));
    gFake.sys_stderr = new_fake(&kFakeFile, "stderr");
    gFake.during_write = act;
    gFormatter = api.PyUnicode_FromFormatV;
    gDPrintfMask = 84;
    gDPrintfFileRefuses = false;
    gUnsafeGlobalDPData = tDPData();
    gData = create_dp_data();
    gModel.own.channel.is_initialized = gModel.own.has_buffers = true;
}

void end()
{
    set_fake_tracing(0);
    set_dprintf_file(nullptr, -1, nullptr);
    free_dp_data(gData);
    clear_dp_data(&gUnsafeGlobalDPData);
    for (tFake* file : gFiles)
        release_fake(file);
    check_fake_python_is_clean();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    tInput input(data, size);
    start(&input);
    while (!input.is_empty())
        step();
    end();
    return 0;
}
