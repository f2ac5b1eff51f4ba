#include <vector>

#include "failing_malloc.h"
#include "fileops_hosted_support.h"

namespace {

constexpr int kMethodVarArgs = 1;  // METH_VARARGS

using LookupPystr = FileOpsHostedTest;
using RegisterPystr = FileOpsHostedTest;
using NameConversion = FileOpsHostedTest;
using ChecksumCallback = FileOpsHostedTest;

// ---- Look-up ----

TEST_F(LookupPystr, UnknownNameIsNone)
{
    EXPECT_EQ("(none)", lookup(tree.path("a.py")));
    EXPECT_EQ("(none)", lookup(tree.path("a.py"), ""));
    EXPECT_EQ("(none)", lookup(tree.path("a.py"), "sum"));
    EXPECT_EQ("", take_log());
}

TEST_F(LookupPystr, KnownNameIsANewString)
{
    std::string name = tree.file("a.py");
    register_name(name, "sum");
    EXPECT_EQ(name, lookup(name));
    EXPECT_EQ(name, lookup(tree.symlink(name, "link.py")));
    EXPECT_EQ(name, lookup("/elsewhere.py", "sum"));
    XPyOwned pathname(str(name));
    XPyOwned result(lookup_canonical_pathname_pystr(data, pathname.borrow(), api.Py_None));
    EXPECT_NE(pathname.borrow(), result.borrow());
    EXPECT_EQ(name, text_of(result.borrow()));
}

TEST_F(LookupPystr, NameInAngleBracketsIsTheSameObjectAndMakesNoEntry)
{
    for (const char* name : {"<string>", "<>", "<a> and <b>"}) {
        XPyOwned pathname(str(name));
        Py_ssize_t before = count_of(pathname.borrow());
        // The checksum is not even converted.
        XPyOwned result(lookup_canonical_pathname_pystr(data, pathname.borrow(), api.Py_True));
        EXPECT_EQ(pathname.borrow(), result.borrow());
        if (!is_immortal(pathname.borrow())) {
            EXPECT_EQ(before + 1, count_of(pathname.borrow()));
        }
    }
    EXPECT_EQ(0u, data->absname_cache.numEntries);
    EXPECT_EQ(0u, data->not_found_table.numEntries);
    EXPECT_EQ("", take_log());
}

TEST_F(LookupPystr, OneBracketMakesNoPseudoFile)
{
    tree.enter();
    for (const char* name : {"<", ">", "<x", "x>", "", "a<b>c"})
        EXPECT_EQ("(none)", lookup(name)) << name;
    EXPECT_EQ(6u, data->absname_cache.numEntries);
    take_log();
}

TEST_F(LookupPystr, PendingExceptionTurnsAMissIntoAReportedFailure)
{
    XPyOwned pathname(str("/no/such.py"));
    set_pending();
    EXPECT_EQ("(raised) ValueError: pending",
              outcome(lookup_canonical_pathname_pystr(data, pathname.borrow(), nullptr)));
    EXPECT_EQ("Failure in get_canonical_pathname_pystr()\n" + kPendingReport, take_log());
}

TEST_F(LookupPystr, CanonicalNameThatIsNoTextRaisesOnPython3)
{
    register_canonical_pathname(data, "/\xff.py", "sum", nullptr);
    std::string result = lookup("/elsewhere.py", "sum");
    if (api.major_version < 3)
        EXPECT_EQ("/\xff.py", result);
    else
        EXPECT_EQ(0u, result.find("(raised) UnicodeDecodeError: ")) << result;
    take_log();
}

// ---- Registration ----

TEST_F(RegisterPystr, FirstNameOfAFileIsReturnedForEveryName)
{
    std::string name = tree.file("a.py");
    EXPECT_EQ(name, register_name(name));
    EXPECT_EQ(name, register_name(tree.symlink(name, "link.py")));
    EXPECT_EQ(name, register_name(name));
    EXPECT_EQ(2u, data->canonical_by_name.numEntries);
}

TEST_F(RegisterPystr, RelativeCompiledNameRegistersTheSource)
{
    tree.enter();
    EXPECT_EQ(tree.path("m.py"), register_name("m.pyc"));
    EXPECT_EQ(tree.path("m.py"), lookup(tree.path("m.py")));
}

TEST_F(RegisterPystr, NonAsciiNamePassesAsUtf8)
{
    EXPECT_EQ("/\xc3\xa9.py", register_name("/\xc3\xa9.py", "\xc3\xbc"));
    EXPECT_EQ("/\xc3\xa9.py", lookup("/elsewhere.py", "\xc3\xbc"));
}

TEST_F(RegisterPystr, NameInAngleBracketsIsReturnedUnregistered)
{
    for (const char* name : {"<string>", "<>", "<a> and <b>"}) {
        XPyOwned pathname(str(name));
        EXPECT_EQ(name, outcome(register_canonical_pathname_pystr(data, pathname.borrow(), api.Py_True)));
    }
    EXPECT_EQ(0u, data->canonical_by_name.numEntries);
    EXPECT_EQ(0u, data->absname_cache.numEntries);
    EXPECT_EQ(0u, data->not_found_table.numEntries);
    EXPECT_EQ("", take_log());
}

TEST_F(RegisterPystr, NameInAngleBracketsIsANewPlainString)
{
    XPyOwned name(eval_python("type('Name', (str,), {})('<string>')"));
    XPyOwned result(register_canonical_pathname_pystr(data, name.borrow(), nullptr));
    ASSERT_TRUE(result);
    EXPECT_EQ(api.major_version < 3 ? api.PyString_Type_ptr : api.PyUnicode_Type_ptr,
              XPy_BorrowTypeInline(result.borrow()));
    EXPECT_EQ("<string>", text_of(result.borrow()));
}

TEST_F(RegisterPystr, NoneAndNullAreNoChecksum)
{
    XPyOwned pathname(str("/no/such.py"));
    EXPECT_EQ("/no/such.py", outcome(register_canonical_pathname_pystr(data, pathname.borrow(), api.Py_None)));
    EXPECT_EQ("/no/such.py", outcome(register_canonical_pathname_pystr(data, pathname.borrow(), nullptr)));
    EXPECT_EQ("/no/such.py", register_name("/no/such.py", ""));
    EXPECT_EQ(0u, data->canonical_by_checksum.numEntries);
}

TEST_F(RegisterPystr, FailedRegistrationIsNoneOrThePendingException)
{
    tree.enter_removed_folder();
    EXPECT_EQ("(none)", register_name("m.py"));
    XPyOwned pathname(str("m.py"));
    set_pending();
    EXPECT_EQ("(raised) ValueError: pending",
              outcome(register_canonical_pathname_pystr(data, pathname.borrow(), nullptr)));
    EXPECT_EQ(
        "getcwd() returned NULL; errno = 2\nFailure: register_canonical_pathname()\n"
        "getcwd() returned NULL; errno = 2\nFailure: register_canonical_pathname()\n" +
            kPendingReport,
        take_log());
}

TEST_F(RegisterPystr, EveryAllocationFailureIsAnAnswerAndTheNextTrySucceeds)
{
    std::string name = tree.file("a.py");
    XPyOwned pathname(str(name)), checksum(str("sum"));
    for (int failing = 1; failing <= 10; ++failing) {
        SCOPED_TRACE(failing);
        tFileOpsData* fresh = create_file_ops_data(dp);
        tHeapWatch heap(failing);
        PyObject* result = register_canonical_pathname_pystr(fresh, pathname.borrow(), checksum.borrow());
        heap.stop();
        EXPECT_EQ(failing == 10, heap.allocations() < failing);
        EXPECT_EQ(failing <= 2 || failing == 7 ? "(none)" : name, outcome(result));
        EXPECT_EQ(name, outcome(register_canonical_pathname_pystr(fresh, pathname.borrow(), checksum.borrow())));
        destroy_file_ops_data(fresh);
    }
}

// ---- Conversion of names and checksums ----

struct tBadText {
    const char* expression;  // of the Python object
    const char* error;       // where it is a pathname
};

std::vector<tBadText> bad_texts()
{
    std::vector<tBadText> rows = {
        {"5", "TypeError: pathname must be a string"},
        {"['/a.py']", "TypeError: pathname must be a string"},
        {"'/a\\0b.py'", "ValueError: pathname has an embedded null character"},
    };
    if (api.major_version < 3) {
        rows.push_back({"u'/\\xe9.py'", "ValueError: pathname cannot be converted to UTF-8"});
        rows.push_back({"u'/a\\0b.py'", "ValueError: pathname has an embedded null character"});
    } else {
        rows.push_back({"'/\\udc80.py'", "ValueError: pathname cannot be converted to UTF-8"});
        rows.push_back({"b'/a.py'", "TypeError: pathname must be a string"});
    }
    return rows;
}

TEST_F(NameConversion, BadPathnameRaisesInBothOperationsAndTouchesNoTable)
{
    for (const tBadText& row : bad_texts()) {
        SCOPED_TRACE(row.expression);
        XPyOwned bad(eval_python(row.expression));
        std::string error = row.error;
        EXPECT_EQ("(raised) " + error, outcome(lookup_canonical_pathname_pystr(data, bad.borrow(), nullptr)));
        EXPECT_EQ("Failure in get_canonical_pathname_pystr()\n" + (kReport + error) + "\n", take_log());
        EXPECT_EQ("(raised) " + error, outcome(register_canonical_pathname_pystr(data, bad.borrow(), nullptr)));
    }
    EXPECT_EQ(0u, data->canonical_by_name.numEntries);
    EXPECT_EQ(0u, data->absname_cache.numEntries);
    EXPECT_EQ(0u, data->not_found_table.numEntries);
}

TEST_F(NameConversion, BadChecksumCountsAsNoneInBothOperations)
{
    XPyOwned pathname(str("/no/such.py"));
    for (const tBadText& row : bad_texts()) {
        SCOPED_TRACE(row.expression);
        XPyOwned bad(eval_python(row.expression));
        EXPECT_EQ("(none)", outcome(lookup_canonical_pathname_pystr(data, pathname.borrow(), bad.borrow())));
    }
    EXPECT_EQ(0u, data->canonical_by_name.numEntries);
    EXPECT_EQ("", take_log());
    set_dp_data_mask(dp, 0);
    for (const tBadText& row : bad_texts()) {
        SCOPED_TRACE(row.expression);
        XPyOwned bad(eval_python(row.expression));
        EXPECT_EQ("/no/such.py", outcome(register_canonical_pathname_pystr(data, pathname.borrow(), bad.borrow())));
    }
    EXPECT_EQ(1u, data->canonical_by_name.numEntries);
    EXPECT_EQ(0u, data->canonical_by_checksum.numEntries);
}

TEST_F(NameConversion, SubclassesOfStringAndPython2TextAreStrings)
{
    XPyOwned derived(eval_python("type('S', (str,), {})('/no/such.py')"));
    EXPECT_EQ("/no/such.py", outcome(register_canonical_pathname_pystr(data, derived.borrow(), nullptr)));
    XPyOwned text(eval_python("u'/no/text.py'"));
    EXPECT_EQ("/no/text.py", outcome(register_canonical_pathname_pystr(data, text.borrow(), nullptr)));
    EXPECT_EQ("/no/text.py", outcome(lookup_canonical_pathname_pystr(data, text.borrow(), nullptr)));
}

TEST_F(NameConversion, EveryOperationLeavesTheCountsOfItsArgumentsAsTheyWere)
{
    set_dp_data_mask(dp, 0);  // Python code that writes a log uses None as well
    XPyOwned known(str(tree.file("a.py"))), missing(str(tree.path("b.py"))), pseudo(str("<a pseudo file>"));
    XPyOwned checksum(str("a sum")), number(eval_python("10 ** 30"));
    PyObject* const objects[] = {known.borrow(),    missing.borrow(), pseudo.borrow(),
                                 checksum.borrow(), number.borrow(),  api.Py_None};
    std::vector<Py_ssize_t> before;
    for (PyObject* object : objects)
        before.push_back(count_of(object));
    for (int round = 0; round < 3; ++round) {
        for (PyObject* name : {known.borrow(), missing.borrow(), pseudo.borrow(), number.borrow()}) {
            for (PyObject* sum : {checksum.borrow(), number.borrow(), api.Py_None}) {
                XPyOwned looked_up(lookup_canonical_pathname_pystr(data, name, sum));
                api.PyErr_Clear();
                XPyOwned registered(register_canonical_pathname_pystr(data, name, sum));
                api.PyErr_Clear();
            }
        }
    }
    for (size_t i = 0; i < before.size(); ++i)
        EXPECT_EQ(before[i], count_of(objects[i])) << i;
}

// ---- The checksum callback ----

TEST_F(ChecksumCallback, WithoutOneTheChecksumIsNone)
{
    XPyOwned pathname(str("/a.py"));
    EXPECT_EQ("(none)", outcome(get_checksum_for_pathname(data, pathname.borrow())));
    set_checksum_callback(data, borrow_global("recording"));
    EXPECT_EQ(0, set_checksum_callback(data, api.Py_None));
    EXPECT_EQ("(none)", outcome(get_checksum_for_pathname(data, pathname.borrow())));
    EXPECT_TRUE(is_true("calls == []"));
}

TEST_F(ChecksumCallback, NullCallbackGivesNone)
{
    set_checksum_callback(data, nullptr);
    XPyOwned pathname(str("/a.py"));
    EXPECT_EQ("(none)", outcome(get_checksum_for_pathname(data, pathname.borrow())));
}

TEST_F(ChecksumCallback, IsCalledWithThePathnameObjectAlone)
{
    XPyOwned pathname(str("/a.py"));
    api.PyDict_SetItemString(scope.borrow(), "pathname", pathname.borrow());
    EXPECT_EQ(0, set_checksum_callback(data, borrow_global("recording")));
    EXPECT_EQ("sum", outcome(get_checksum_for_pathname(data, pathname.borrow())));
    EXPECT_TRUE(is_true("len(calls) == 1 and len(calls[0][0]) == 1 and calls[0][0][0] is pathname"));
    EXPECT_TRUE(is_true("calls[0][1] == {}"));
    EXPECT_EQ("", take_log());
}

TEST_F(ChecksumCallback, ResultIsReturnedAsItIsWhateverItsType)
{
    XPyOwned pathname(str("/a.py"));
    set_checksum_callback(data, borrow_global("recording"));
    for (const char* expression : {"5", "['list']", "None", "object()", "b'bytes'"}) {
        XPyOwned value(eval_python(expression));
        api.PyDict_SetItemString(scope.borrow(), "answer", value.borrow());
        XPyOwned result(get_checksum_for_pathname(data, pathname.borrow()));
        EXPECT_EQ(value.borrow(), result.borrow()) << expression;
    }
}

TEST_F(ChecksumCallback, RaisingOneIsReportedClearedAndCountsAsNone)
{
    XPyOwned pathname(str("/a.py"));
    set_checksum_callback(data, borrow_global("raising"));
    PyObject* result = get_checksum_for_pathname(data, pathname.borrow());
    EXPECT_EQ(nullptr, api.PyErr_Occurred());
    EXPECT_EQ("(none)", outcome(result));
    EXPECT_EQ(std::string("Failure in get_checksum_for_pathname()\n") + kReport +
                  "Traceback (most recent call last):\n"
                  "  File \"/no/such/callbacks.py\", line 2, in raising\n"
                  "ValueError: boom\n",
              take_log());
}

TEST_F(ChecksumCallback, InterruptionsAreClearedToo)
{
    XPyOwned pathname(str("/a.py"));
    set_checksum_callback(data, borrow_global("interrupting"));
    EXPECT_EQ("(none)", outcome(get_checksum_for_pathname(data, pathname.borrow())));
    EXPECT_EQ("", take_error());
}

TEST_F(ChecksumCallback, IsNotCheckedToBeCallable)
{
    XPyOwned pathname(str("/a.py")), number(eval_python("5"));
    EXPECT_EQ(0, set_checksum_callback(data, number.borrow()));
    EXPECT_EQ("(none)", outcome(get_checksum_for_pathname(data, pathname.borrow())));
    EXPECT_EQ(std::string("Failure in get_checksum_for_pathname()\n") + kReport +
                  "TypeError: 'int' object is not callable\n",
              take_log());
}

TEST_F(ChecksumCallback, ReplacementMovesOneReference)
{
    XPyOwned first(XPy_NewRef(borrow_global("recording"))), second(XPy_NewRef(borrow_global("raising")));
    Py_ssize_t first_before = count_of(first.borrow()), second_before = count_of(second.borrow());
    set_checksum_callback(data, first.borrow());
    EXPECT_EQ(first_before + 1, count_of(first.borrow()));
    set_checksum_callback(data, first.borrow());
    EXPECT_EQ(first_before + 1, count_of(first.borrow()));
    set_checksum_callback(data, second.borrow());
    EXPECT_EQ(first_before, count_of(first.borrow()));
    EXPECT_EQ(second_before + 1, count_of(second.borrow()));
    set_checksum_callback(data, api.Py_None);
    EXPECT_EQ(second_before, count_of(second.borrow()));
}

TEST_F(ChecksumCallback, CallsLeaveTheCountsAsTheyWere)
{
    set_dp_data_mask(dp, 0);  // Python code that writes a log uses None as well
    XPyOwned pathname(str("/a.py"));
    for (const char* callback : {"[].append", "{}.get", "'text'.join", "int"}) {  // None twice, a text, an exception
        SCOPED_TRACE(callback);
        XPyOwned callable(eval_python(callback));
        set_checksum_callback(data, callable.borrow());
        // The first calls may let the interpreter's caches go of a None.
        for (int i = 0; i < 5; ++i)
            XPyOwned ignored(get_checksum_for_pathname(data, pathname.borrow()));
        Py_ssize_t pathname_before = count_of(pathname.borrow());
        Py_ssize_t callable_before = count_of(callable.borrow());
        Py_ssize_t none_before = count_of(api.Py_None);
        for (int i = 0; i < 5; ++i)
            XPyOwned ignored(get_checksum_for_pathname(data, pathname.borrow()));
        bool is_append = strcmp(callback, "[].append") == 0;  // the list keeps what it is given
        EXPECT_EQ(pathname_before + (is_append ? 5 : 0), count_of(pathname.borrow()));
        EXPECT_EQ(callable_before, count_of(callable.borrow()));
        EXPECT_EQ(none_before, count_of(api.Py_None));
    }
}

TEST_F(ChecksumCallback, ResultIsTheCallersAlone)
{
    XPyOwned pathname(str("/a.py")), answer(eval_python("['list']"));
    api.PyDict_SetItemString(scope.borrow(), "answer", answer.borrow());
    set_checksum_callback(data, borrow_global("recording"));
    Py_ssize_t before = count_of(answer.borrow());
    {
        XPyOwned result(get_checksum_for_pathname(data, pathname.borrow()));
        EXPECT_EQ(before + 1, count_of(answer.borrow()));
    }
    EXPECT_EQ(before, count_of(answer.borrow()));
}

// What the callback below resets.
struct tResetting {
    tFileOpsData** data;
    tDPData* dp;
    bool raises;
    bool callback_lives;  // after the reset: the callback still holds its self
} gResetting;

PyObject* reset_and_answer(PyObject* self, PyObject*)
{
    Py_ssize_t before = count_of(self);
    destroy_file_ops_data(*gResetting.data);
    gResetting.callback_lives = count_of(self) == before;
    *gResetting.data = create_file_ops_data(gResetting.dp);
    if (!gResetting.raises)
        return api.PyBool_FromLong(1);
    api.PyErr_SetString(api.PyExc_ValueError, "pending");
    return nullptr;
}

TEST_F(ChecksumCallback, ResetInsideItIsSurvived)
{
    static PyMethodDef definition = {"reset_and_answer", reset_and_answer, kMethodVarArgs, nullptr};
    XPyOwned pathname(str("/a.py"));
    for (bool raises : {false, true}) {
        gResetting = {&data, dp, raises, false};
        XPyOwned self(api.PyList_New(0));
        XPyOwned callback(api.PyCFunction_NewEx(&definition, self.borrow(), nullptr));
        set_checksum_callback(data, callback.borrow());
        callback.reset(nullptr);  // the record alone holds it, until the reset lets go of it
        register_canonical_pathname(data, "/a.py", nullptr, nullptr);
        XPyOwned result(get_checksum_for_pathname(data, pathname.borrow()));
        EXPECT_EQ(raises ? api.Py_None : api.Py_True, result.borrow());
        EXPECT_TRUE(gResetting.callback_lives);
        EXPECT_EQ(1, count_of(self.borrow()));
        EXPECT_EQ("", take_error());
        EXPECT_EQ("In destroy_file_ops_data()\n" +
                      (raises ? "Failure in get_checksum_for_pathname()\n" + kPendingReport : ""),
                  take_log());
        EXPECT_EQ(0u, data->canonical_by_name.numEntries);
        EXPECT_EQ(api.Py_None, data->checksum_callback);
    }
}

}  // namespace
