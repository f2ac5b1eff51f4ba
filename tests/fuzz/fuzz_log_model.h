// The model of the debug log that fuzz_log.cpp compares the unit with.

#ifndef OPTMONITORING_TESTS_FUZZ_LOG_MODEL_H
#define OPTMONITORING_TESTS_FUZZ_LOG_MODEL_H

#include <string>
#include <vector>

#include "dprintf.h"
#include "fake_python.h"

namespace {

constexpr int kDomains[] = {4, 2, 64, 128, 256, 512};
constexpr size_t kDomainCount = sizeof kDomains / sizeof *kDomains;
constexpr size_t kLimit = 4000;
constexpr char kNoFirstBuffer[] = "get_dprintf_repr_str1() failure: _repr_str1 is NULL";
constexpr char kNoSecondBuffer[] = "<error generating repr: no buffer available>";
constexpr char kHead[] = "EXCEPTION IN DEBUG TRACER:\n";

struct tModelChannel {
    bool is_initialized = false;
    tFake* file = nullptr;  // None counts as one that is not valid
    int fileno = -1;
    int busy = 0;

    bool has_file() const { return is_initialized && file && as_object(file) != api.Py_None; }
    bool has_descriptor() const { return is_initialized && fileno != -1; }
};

struct tModelLog {
    int mask = 84;
    bool has_buffers = false;
    tModelChannel channel;

    bool is_on(size_t domain) const
    {
        return (channel.has_file() || channel.has_descriptor()) && (mask & kDomains[domain]);
    }
};

struct tModel {
    tModelLog own;     // of the module
    tModelLog global;  // of the process
    int mask = 84;
    int fileno = -1;
    tFake* file = nullptr;
    bool refuses = false;  // the last writing to this very file failed
    std::vector<std::string> events;

    std::string check_str(const std::string& text) const
    {
        if (!file)
            return text;
        for (char c : text) {
            if (c & 0x80)
                return "(non-ascii string)";
        }
        return text;
    }
    std::string check_pystr(const tFake* obj)
    {
        if (obj->type != &kFakeStr && obj->type != &kFakeStrSubclass)
            return "(non-PyString PyObject*)";
        if (!obj->refuses)
            return check_str(obj->text.c_str());
        if (file && (mask & kLogFilenames)) {
            std::string shown_form = obj->repr ? check_str(obj->repr->text.c_str()) : "(NULL)";
            dprintf(kLogFilenames, "FAILURE: Could not convert unicode to UTF-8: " + shown_form);
        }
        return "(NULL)";
    }

    void initialize_global()
    {
        if (!global.channel.is_initialized)
            global.channel.busy = 0;
        global.channel.is_initialized = true;
        global.has_buffers = true;
    }
    void write(tModelChannel* channel, const std::string& text)
    {
        if (!gFake.has_thread_state || channel->busy)
            return;
        channel->busy = 1;
        tracing++;
        std::string formatted;
        if (format(text, &formatted))
            write_text(formatted);
        tracing--;
        channel->busy--;
    }
    void dprintf(int domains, const std::string& text)
    {
        if (!file || !(mask & domains))
            return;
        initialize_global();
        write(&global.channel, text);
    }
    void report(tModelChannel* channel, const std::string& exception)
    {
        if (exception.empty() || !gFake.has_thread_state || tracing >= 2 || channel->busy)
            return;
        channel->busy = 1;
        tracing++;
        if (file)
            dprintf(kLogCore, kHead);
        tracing--;
        if (!gFake.sys_stderr || as_object(gFake.sys_stderr) == api.Py_None)
            return;  // and the channel stays busy
        tFake* to = channel->file;
        if (!(refuses && to == file && file && refuses_an_empty_text()))
            events.push_back("display " + exception + " on " + (to ? to->text : "None"));
        channel->busy--;
    }
    void dlogexception(const std::string& exception)
    {
        if (!file)
            return;
        initialize_global();
        report(&global.channel, exception);
    }

    int tracing = 0;
    int constructions_that_raise = 0;

  private:
    // The text as it is written; false when not even a remark can be made.
    bool format(const std::string& text, std::string* formatted)
    {
        bool has_formatter = api.PyUnicode_FromFormatV;
        if (has_formatter && !gFake.formatting_raises) {
            *formatted = text;
            return true;
        }
        *formatted = "DPRINTF error: PyUnicode_FromFormatV is NULL\n";
        if (!has_formatter && construct())
            return true;
        dlogexception(has_formatter ? "bad format" : "no str");
        *formatted = "DPRINTF error: exception while formatting string\n";
        if (construct())
            return true;
        *formatted = "DPRINTF error: unable to create output string\n";
        return construct();
    }
    bool construct()
    {
        if (constructions_that_raise == 0)
            return true;
        constructions_that_raise--;
        return false;
    }
    void write_text(const std::string& text)
    {
        if (!file)
            return;
        tFake* to = file;
        write_raw(to, text);
        events.push_back(to->text + ".flush()");
    }
    void write_raw(tFake* to, const std::string& text)
    {
        events.push_back(to->text + " <- " + (to->refuses ? "nothing" : text));
        act();
        if (to == file)
            refuses = to->refuses;
    }
    bool refuses_an_empty_text()
    {
        tFake* to = file;
        if (!construct())
            return true;
        write_raw(to, "");
        return to->refuses;
    }
    void act();

    bool is_acting = false;
};

}  // namespace

#endif
