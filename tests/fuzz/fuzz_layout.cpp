// The search for fields in the interpreter's structures, and what is read and written through it: arbitrary tables,
// every version's offsets, and objects that are nothing but arbitrary memory, each in a block of exactly its size.

#include <memory>
#include <set>

#include "fuzz_input.h"
#include "optmonitoring_fastpath_internal.h"
#include "optmonitoring_percodeobject_internal.h"
#include "xpy_c_api_internal.h"

namespace {

// ---- The model of the search ----

int64_t model_size(const XPy_FieldWithSize& row)
{
    std::string name = row.name;
    if (name != "<PyObject_HEAD>" && name != "<PyObject_VAR_HEAD>")
        return row.size;
    if (api.pyobject_offsets.type < 1)
        return -1;
    return api.pyobject_offsets.type + (name == "<PyObject_HEAD>" ? 8 : 16);
}

int64_t model_offset(const char* name, const XPy_FieldWithSize* table)
{
    int64_t end = 0;
    for (size_t i = 0; table[i].name; i++) {
        int64_t size = model_size(table[i]);
        if (size < 1)
            return -1;
        int64_t alignment = size < 8 ? size : 8;
        while (i > 0 && end % alignment)
            end++;
        if (name && std::string(table[i].name) == name)
            return end;
        end += size;
    }
    return name ? -1 : end;
}

// ---- Standard error ----

// Keeps what the unit writes to standard error.
class tStderr
{
  public:
    tStderr() : fSaved(stderr) { stderr = open_memstream(&fText, &fSize); }
    ~tStderr()
    {
        if (stderr != fSaved)
            text();
        free(fText);
    }
    tStderr(const tStderr&) = delete;
    tStderr& operator=(const tStderr&) = delete;
    std::string text()
    {
        fclose(stderr);
        stderr = fSaved;
        return fText;
    }

  private:
    FILE* fSaved;
    char* fText = nullptr;
    size_t fSize = 0;
};

// ---- Arbitrary tables ----

const char* const kNames[] = {"a", "b", "tracing", "ob_type", "", "<PyObject_HEAD>", "<PyObject_VAR_HEAD>", "<"};
constexpr size_t kNameCount = sizeof kNames / sizeof *kNames;

void check_any_table(tInput* input)
{
    api.pyobject_offsets.type = input->number(1);
    size_t count = input->below(12);
    std::unique_ptr<XPy_FieldWithSize[]> table(new XPy_FieldWithSize[count + 1]);
    for (size_t i = 0; i < count; i++)
        table[i] = {kNames[input->below(kNameCount)],
                    static_cast<Py_ssize_t>(input->flag() ? 1 << input->below(6) : input->number(2))};
    table[count] = {nullptr, 0};
    if (input->flag()) {
        const char* name = kNames[input->below(kNameCount)];
        int64_t size = input->number(2);
        SetFieldSize(table.get(), name, size);
        for (size_t i = 0; i < count; i++) {
            if (strcmp(table[i].name, name) == 0) {
                FUZZ_SAME(size, table[i].size);
                break;
            }
        }
    }
    for (const char* name : kNames) {
        int64_t expected = model_offset(name, table.get());
        FUZZ_SAME(expected, FindFieldOffsetMissingOk(name, table.get()));
        tStderr captured;
        Py_ssize_t offset = FindFieldOffset(name, table.get());
        std::string text = captured.text();
        FUZZ_SAME(expected, offset);
        FUZZ_SAME(expected == -1 ? "Unable to find field offset for: " + std::string(name) + "\n" : "", text);
    }
    FUZZ_SAME(model_offset(nullptr, table.get()), FindSizeOfAllFields(table.get()));
}

// ---- Every version's offsets ----

struct tVersion {
    int major;
    int minor;
    bool free_threaded;
    bool traces_references;

    bool is_py3(int first, int last = 1000) const { return major == 3 && minor >= first && minor <= last; }
};

void check_header_offsets(const tVersion& v)
{
    XPy_PyObjectOffsets expected = {0, 8, -1, -1, -1};
    if (v.free_threaded)
        expected = {-1, 24, 10, -1, -1};
    else if (v.is_py3(14))
        expected = {0, 8, -1, 4, 6};
    for (Py_ssize_t* offset :
         {&expected.refcnt, &expected.type, &expected.mutex, &expected.overflow, &expected.flags}) {
        if (*offset != -1 && v.traces_references)
            *offset += 16;
    }
    FUZZ_CHECK(memcmp(&expected, &api.pyobject_offsets, sizeof expected) == 0);
}

const XPy_FieldWithSize* model_frame_table(const tVersion& v)
{
    if (v.major == 2 || v.is_py3(0, 3))
        return frame_fields_pre_py3d4;
    if (v.is_py3(4, 6))
        return frame_fields_py3d4;
    if (v.is_py3(7, 9))
        return frame_fields_py3d7;
    return v.is_py3(10, 10) ? frame_fields_py3d10 : nullptr;
}

void check_frame_offsets(const tVersion& v)
{
    XPy_FrameOffsets expected = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
    if (const XPy_FieldWithSize* table = model_frame_table(v)) {
        expected = {model_offset("f_lineno", table),
                    model_offset("f_code", table),
                    model_offset("f_builtins", table),
                    model_offset("f_trace", table),
                    model_offset("f_iblock", table),
                    model_offset("f_locals", table),
                    model_offset("f_globals", table),
                    model_offset("f_back", table),
                    v.is_py3(10) ? -1 : model_offset("f_stacktop", table),
                    v.is_py3(10) ? model_offset("f_state", table) : -1};
    }
    FUZZ_CHECK(memcmp(&expected, &api.frame_offsets, sizeof expected) == 0);
}

const XPy_FieldWithSize* model_thread_table(const tVersion& v)
{
    static const XPy_FieldWithSize* const kFrom3d10[] = {py3d10_tstate_fields, py3d11_tstate_fields,
                                                         py3d12_tstate_fields, py3d13_tstate_fields,
                                                         py3d14_tstate_fields, py3d15_tstate_fields};
    if (v.major == 2)
        return py2_tstate_fields;
    if (v.is_py3(0, 3))
        return py3d0_tstate_fields;
    if (v.is_py3(4, 6))
        return py3d4_tstate_fields;
    if (v.is_py3(7, 9))
        return py3d7_tstate_fields;
    return v.is_py3(10, 15) ? kFrom3d10[v.minor - 10] : nullptr;
}

void check_thread_offsets(const tVersion& v)
{
    XPy_ThreadStateOffsets expected = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    if (const XPy_FieldWithSize* table = model_thread_table(v)) {
        expected.next = model_offset("next", table);
        expected.interp = model_offset("interp", table);
        expected.frame = v.is_py3(11) ? -1 : model_offset("frame", table);
        expected.c_tracefunc = model_offset("c_tracefunc", table);
        expected.c_traceobj = model_offset("c_traceobj", table);
        expected.thread_id = model_offset("thread_id", table);
        expected.tracing = model_offset("tracing", table);
        expected.use_tracing = v.is_py3(10) ? -1 : model_offset("use_tracing", table);
        const char* frame_link = v.is_py3(13) ? "current_frame" : "cframe";
        expected.cframe = v.is_py3(11) ? model_offset(frame_link, table) : -1;
        expected.what_event = v.is_py3(12) ? model_offset("what_event", table) : -1;
    }
    FUZZ_CHECK(memcmp(&expected, &api.tstate_offsets, sizeof expected) == 0);
}

void check_other_offsets(const tVersion& v)
{
    Py_ssize_t header = api.pyobject_offsets.type + 16;  // of objects with a size
    FUZZ_SAME(header + 8, api.typeobject_offsets.tp_basicsize);
    FUZZ_SAME(header + 4 * 8, api.typeobject_offsets.tp_vectorcall_offset);
    FUZZ_SAME(header + 18 * 8, api.typeobject_offsets.tp_flags);
    FUZZ_SAME(header + 29 * 8, api.typeobject_offsets.tp_base);
    FUZZ_SAME(8, api.max_align);
    int current_frame = v.is_py3(12, 12) ? 0 : v.is_py3(10, 11) ? 8 : -1;
    FUZZ_SAME(current_frame, api.cframe_offsets.current_frame);
    const XPy_FieldWithSize* table = v.is_py3(6, 6)   ? py3d6_interpreter_state_fields
                                     : v.is_py3(7, 7) ? py3d7_interpreter_state_fields
                                     : v.is_py3(8, 8) ? py3d8_interpreter_state_fields
                                                      : nullptr;
    Py_ssize_t eval_frame = table ? model_offset("eval_frame", table) : -1;
    FUZZ_CHECK(!table || eval_frame > 0);
    FUZZ_SAME(eval_frame, api.interpreter_state_offsets.eval_frame);
}

tVersion check_version(tInput* input)
{
    tVersion v;
    v.major = input->below(8) == 1 ? 2 : 3;
    v.minor = static_cast<int>(input->below(24));
    v.free_threaded = v.is_py3(13) && input->flag();
    v.traces_references = input->flag();
    api.major_version = v.major;
    api.minor_version = v.minor;
    api.pydebug_build = v.traces_references;
    tStderr captured;
    InitPyObjectOffsets(v.free_threaded);
    InitTypeObjectOffsets();
    InitFrameOffsets();
    InitThreadStateOffsets();
    InitCFrameOffsets();
    InitInterpreterStateOffsets();
    InitShortcutOffsets();
    std::string text = captured.text();
    FUZZ_SAME(model_thread_table(v) ? "" : "Cannot find tstate fields for this python version\n", text);
    check_header_offsets(v);
    check_frame_offsets(v);
    check_thread_offsets(v);
    check_other_offsets(v);
    api.refcnt_is_32bit = v.is_py3(12);
    api.can_update_refcount_directly = !v.traces_references && api.pyobject_offsets.refcnt != -1;
    return v;
}

// ---- Memory in place of objects ----

// A block of exactly this size with arbitrary contents.
class tImage
{
  public:
    tImage(tInput* input, Py_ssize_t size)
        : fBytes(static_cast<char*>(malloc(static_cast<size_t>(size)))), fSize(size)
    {
        // a few bytes of the input go a long way
        std::string pattern = input->bytes(1 + input->below(16));
        for (Py_ssize_t i = 0; i < size; i++)
            fBytes[i] = pattern[static_cast<size_t>(i) % pattern.size()];
    }
    ~tImage() { free(fBytes); }
    tImage(const tImage&) = delete;
    tImage& operator=(const tImage&) = delete;

    template <typename T>
    T get(Py_ssize_t offset) const
    {
        FUZZ_CHECK(offset >= 0 && offset + static_cast<Py_ssize_t>(sizeof(T)) <= fSize);
        T value;
        memcpy(&value, fBytes + offset, sizeof value);
        return value;
    }
    template <typename T>
    void set(Py_ssize_t offset, T value)
    {
        FUZZ_CHECK(offset >= 0 && offset + static_cast<Py_ssize_t>(sizeof(T)) <= fSize);
        memcpy(fBytes + offset, &value, sizeof value);
    }
    std::string contents() const { return std::string(fBytes, static_cast<size_t>(fSize)); }
    PyObject* object() const { return reinterpret_cast<PyObject*>(fBytes); }
    PyThreadState* thread_state() const { return reinterpret_cast<PyThreadState*>(fBytes); }
    char* address() const { return fBytes; }

  private:
    char* fBytes;
    Py_ssize_t fSize;
};

int gIncRefs;
int gDecRefs;

void check_reference_counts(tInput* input)
{
    tImage object(input, api.pyobject_offsets.type + 8);
    object.set<int64_t>(api.pyobject_offsets.type, 0x5555);
    FUZZ_CHECK(XPy_BorrowTypeInline(object.object()) == reinterpret_cast<PyTypeObject*>(0x5555));

    Py_ssize_t at = api.pyobject_offsets.refcnt;
    bool is_32bit = api.refcnt_is_32bit;
    int64_t count = input->flag() ? input->number(1) : input->number(is_32bit ? 4 : 7);
    if (at != -1)
        is_32bit ? object.set<int32_t>(at, static_cast<int32_t>(count)) : object.set<int64_t>(at, count);
    bool is_immortal = at != -1 && is_32bit && count < 0;
    FUZZ_CHECK(XPy_IsImmortal(object.object()) == is_immortal);
    int64_t stored = at == -1 ? -1 : is_32bit ? static_cast<int64_t>(static_cast<uint32_t>(count)) : count;
    FUZZ_SAME(stored, XPy_GetRefCnt(object.object()));

    bool direct = api.can_update_refcount_directly;
    for (int step : {1, -1}) {
        std::string expected = object.contents();
        bool calls = !direct || (step < 0 && count <= 1 && !is_immortal);
        if (!calls && !is_immortal) {
            count += step;
            if (is_32bit && static_cast<int32_t>(count) != count)
                count = static_cast<int32_t>(count);  // counted into the immortal range
            memcpy(&expected[static_cast<size_t>(at)], &count, is_32bit ? 4 : 8);
        }
        gIncRefs = gDecRefs = 0;
        step > 0 ? XPy_DoIncRef(object.object()) : XPy_DoDecRef(object.object());
        FUZZ_SAME(calls && step > 0, gIncRefs);
        FUZZ_SAME(calls && step < 0, gDecRefs);
        FUZZ_CHECK(object.contents() == expected);
        is_immortal = at != -1 && is_32bit && count < 0;
    }
}

// A thread state that ends behind its last known field; without known fields it has none.
void check_thread_state(tInput* input)
{
    const XPy_ThreadStateOffsets& offsets = api.tstate_offsets;
    tImage state(input, offsets.thread_id ? offsets.thread_id + 8 : 0);
    PyThreadState* tstate = state.thread_state();
    bool is_known = offsets.thread_id;
    FUZZ_SAME(is_known ? state.get<uint64_t>(offsets.thread_id) : 0, get_thread_state_thread_id(tstate));
    FUZZ_SAME(is_known ? state.get<int32_t>(offsets.tracing) : 0, get_thread_state_tracing(tstate));
    FUZZ_CHECK(borrow_thread_state_traceobj(tstate) ==
               (is_known ? state.get<PyObject*>(offsets.c_traceobj) : nullptr));
    bool has_event = is_known && offsets.what_event != -1;
    FUZZ_SAME(has_event ? state.get<int32_t>(offsets.what_event) : -1, get_thread_state_what_event(tstate));

    bool has_use = is_known && offsets.use_tracing != -1;
    FUZZ_SAME(has_use ? state.get<int32_t>(offsets.use_tracing) : 1, get_thread_state_use_tracing(tstate));
    std::string expected = state.contents();
    int32_t value = static_cast<int32_t>(input->number(4));
    if (has_use)
        memcpy(&expected[static_cast<size_t>(offsets.use_tracing)], &value, sizeof value);
    set_thread_state_use_tracing(tstate, value);
    FUZZ_CHECK(state.contents() == expected);
}

// The interpreter's own record of the running frame: one word, which names the code object.
void check_running_code(tInput* input, const tVersion& v)
{
    if (!api.tstate_offsets.thread_id)
        return;
    tImage state(input, api.tstate_offsets.thread_id + 8);
    tImage frame(input, 8);
    tImage cframe(input, 8);
    bool has_frame = input->flag();
    bool is_it = input->flag();
    PyObject* code = reinterpret_cast<PyObject*>(0x7fff00001230);
    uintptr_t word = (is_it ? 0x7fff00001230 : 0x7fff00001240) + (v.is_py3(14) ? input->below(8) : 0);
    frame.set<uintptr_t>(0, word);
    if (v.is_py3(12, 12)) {
        cframe.set<char*>(0, has_frame ? frame.address() : nullptr);
        state.set<char*>(api.tstate_offsets.cframe, cframe.address());
    } else if (v.is_py3(13)) {
        state.set<char*>(api.tstate_offsets.cframe, has_frame ? frame.address() : nullptr);
    }
    FUZZ_CHECK(is_surely_running(state.thread_state(), code) == (v.is_py3(12, 15) && has_frame && is_it));
}

// A frame object that ends behind its last known field.
void check_frame(tInput* input)
{
    Py_ssize_t at = api.frame_offsets.iblock;
    tImage frame(input, at == -1 ? 0 : at + 4);
    FUZZ_SAME(at == -1 ? -1 : frame.get<int32_t>(at), get_frame_iblock(frame.object()));
}

// ---- Sets of line numbers ----

// A set's table, filled by the interpreter's own rules of probing.
class tSetTable
{
  public:
    explicit tSetTable(size_t mask)
        : fMask(mask), fEntries(static_cast<tSetEntry*>(calloc(mask + 1, sizeof(tSetEntry))))
    {
    }
    ~tSetTable() { free(fEntries); }
    tSetTable(const tSetTable&) = delete;
    tSetTable& operator=(const tSetTable&) = delete;

    // Full tables take nothing more, as sets have grown long before.
    void add(size_t hash)
    {
        tSetEntry* entry = find(hash);
        if (!entry || entry->key || fUsed * 5 >= fMask * 3)
            return;
        entry->key = reinterpret_cast<PyObject*>(0x1000);
        entry->hash = static_cast<Py_ssize_t>(hash);
        fUsed++;
    }
    void discard(size_t hash)
    {
        tSetEntry* entry = find(hash);
        if (entry && entry->key)
            *entry = {reinterpret_cast<PyObject*>(0x2000), -1};
    }
    bool contains(size_t hash)
    {
        tSetEntry* entry = find(hash);
        return entry && entry->key;
    }
    void set_keys(PyObject* key)
    {
        for (size_t i = 0; i <= fMask; i++) {
            if (fEntries[i].key && fEntries[i].hash != -1)
                fEntries[i].key = key;
        }
    }
    size_t mask() const { return fMask; }
    tSetEntry* entries() const { return fEntries; }

  private:
    // The entry of a hash or the free one where its search ends.
    tSetEntry* find(size_t hash)
    {
        constexpr size_t kLinearProbes = 9;
        size_t perturb = hash;
        for (size_t i = hash & fMask;;) {
            size_t last = i + kLinearProbes <= fMask ? i + kLinearProbes : i;
            for (size_t k = i; k <= last; k++) {
                if (!fEntries[k].key || fEntries[k].hash == static_cast<Py_ssize_t>(hash))
                    return &fEntries[k];
            }
            perturb >>= 5;
            i = (i * 5 + 1 + perturb) & fMask;
        }
    }

    size_t fMask;
    size_t fUsed = 0;
    tSetEntry* fEntries;
};

void check_line_sets(tInput* input, const tVersion& v)
{
    gLinenoPeek = tLinenoPeek();
    api.PySet_Type_ptr = reinterpret_cast<PyTypeObject*>(0x5550);
    api.PyLong_Type_ptr = reinterpret_cast<PyTypeObject*>(0x5560);
    init_lineno_peek();
    bool is_known = v.is_py3(12, 15) && !v.free_threaded;
    FUZZ_SAME(is_known, gLinenoPeek.set_type != nullptr);

    Py_ssize_t header = api.pyobject_offsets.type + 8;
    tSetTable table((8u << input->below(5)) - 1);
    tImage set(input, header + 4 * 8);  // fill, used, mask, table
    tImage number(input, header + 12);  // tag and one digit
    bool is_set = input->below(8) != 1;
    bool is_int = input->below(8) != 1;
    set.set<uintptr_t>(api.pyobject_offsets.type, is_set ? 0x5550 : 0x5570);
    set.set<size_t>(header + 16, table.mask());
    set.set<tSetEntry*>(header + 24, table.entries());
    for (uint32_t i = input->below(40); i > 0; i--) {
        size_t hash = input->flag() ? input->below(64) : static_cast<size_t>(input->number(4) & 0x3fffffff);
        input->below(4) == 1 ? table.discard(hash) : table.add(hash);
    }

    number.set<uintptr_t>(api.pyobject_offsets.type, is_int ? 0x5560 : 0x5570);
    bool is_small = input->below(4) != 1;
    uint64_t tag = is_small ? 8 + (input->flag() ? 4 : 0) : static_cast<uint64_t>(input->number(2));
    uint32_t digit = input->flag() ? input->below(64) : static_cast<uint32_t>(input->number(4) & 0x3fffffff);
    number.set<uint64_t>(header, tag);
    number.set<uint32_t>(header + 8, digit);
    bool is_decidable = is_known && is_set && is_int && (tag == 8 || tag == 12) && digit != 0;
    table.set_keys(number.object());  // read where the hash is that of the number
    tLinenoFound found = find_lineno(set.object(), number.object());
    tLinenoFound expected = table.contains(digit) ? kLinenoPresent : kLinenoAbsent;
    FUZZ_SAME(is_decidable ? expected : kLinenoOpen, found);
}

// The rows that start-up sizes are unsized again, so that each input finds the tables as they were built.
void forget_sizes()
{
    SetFieldSize(py3d7_interpreter_state_fields, "core_config", -1);
    SetFieldSize(py3d7_interpreter_state_fields, "config", -1);
    SetFieldSize(py3d8_interpreter_state_fields, "config", -1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    tInput input(data, size);
    global_XPy_C_API_Data = XPy_C_API_Data();
    api.Py_IncRef = [](PyObject*) { gIncRefs++; };
    api.Py_DecRef = [](PyObject*) { gDecRefs++; };
    forget_sizes();
    if (input.flag()) {
        check_any_table(&input);
        return 0;
    }
    tVersion version = check_version(&input);
    while (!input.is_empty()) {
        switch (input.below(5)) {
            case 0:
                check_reference_counts(&input);
                break;
            case 1:
                check_thread_state(&input);
                break;
            case 2:
                check_running_code(&input, version);
                break;
            case 3:
                check_frame(&input);
                break;
            default:
                check_line_sets(&input, version);
        }
    }
    return 0;
}
