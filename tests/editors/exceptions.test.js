"use strict";
/* Stops at exceptions, and what is shown of them. */

const assert = require("node:assert/strict");
const { scenario } = require("./session");

const CHAIN = `\
def fail(n):
    if n:
        fail(n - 1)
    raise ValueError("on purpose")          # raise
def guarded():
    try:
        fail(2)
    except ValueError:
        pass
guarded()
try:
    fail(0)
except ValueError as error:
    error.add_note("a note")
    raise RuntimeError("outer") from error  # outer
`;

const debug = (s, text, exceptions) => s.debug(s.write("program.py", text), {}, { exceptions });

scenario("the filters are offered in the answer to initialize", async (s) => {
    await s.initialize();
    const filters = s.capabilities.exceptionBreakpointFilters.map((each) => [each.filter, each.default]);
    assert.deepEqual(filters.filter(([name]) => ["raised", "uncaught"].includes(name)), [["raised", false], ["uncaught", true]]);
});

scenario("without filters nothing stops", async (s) => {
    await debug(s, CHAIN, []);
    assert.equal(await s.ended(), 1);
});

scenario("uncaught stops where the exception was raised", async (s) => {
    await debug(s, CHAIN, ["uncaught"]);
    const { text, frame } = await s.stopped("exception");
    assert.equal(frame.line, 15);
    assert.match(text, /RuntimeError/);
    await s.goOn();
    assert.equal(await s.ended(), 1);
});

scenario("uncaught leaves caught ones alone", async (s) => {
    await debug(s, "try:\n    int('x')\nexcept ValueError:\n    pass\n", ["uncaught"]);
    assert.equal(await s.ended(), 0);
});

scenario("uncaught shows the variables of where it was raised", async (s) => {
    await debug(s, "def fail(n):\n    raise ValueError(n)\nfail(7)\n", ["uncaught"]);
    const { frames } = await s.stopped("exception");
    assert.deepEqual(frames.map((each) => [each.name, each.line]), [["fail", 2], ["<module>", 3]]);
    assert.equal(await s.evaluate("n"), "7");
});

scenario("uncaught in a thread", async (s) => {
    await debug(s, "import threading\ndef f():\n    1 / 0\nt = threading.Thread(target=f, name='worker')\nt.start()\nt.join()\n", ["uncaught"]);
    const { frame, threadId } = await s.stopped("exception");
    assert.deepEqual([frame.name, frame.line], ["f", 3]);
    const { threads } = await s.ask("threads");
    assert.equal(threads.find((each) => each.id === threadId).name, "worker");
    await s.goOn();
    assert.equal(await s.ended(), 0);
});

scenario("sys.exit is no uncaught exception", async (s) => {
    await debug(s, "import sys\nsys.exit(0)\n", ["uncaught"]);
    assert.equal(await s.ended(), 0);
});

scenario("raised stops where an exception is raised, though it is caught", async (s) => {
    await debug(s, "try:\n    raise ValueError('x')\nexcept ValueError:\n    pass\n", ["raised"]);
    const { frame } = await s.stopped("exception");
    assert.equal(frame.line, 2);
    await s.goOn();
    assert.equal(await s.ended(), 0);
});

scenario("raised stops once for each exception, not in every frame on its way", async (s) => {
    await debug(s, "def f(n):\n    if n: f(n - 1)\n    else: raise ValueError\ntry:\n    f(5)\nexcept ValueError:\n    pass\n", ["raised"]);
    await s.stopped("exception");
    await s.goOn();
    assert.equal(await s.ended(), 0);
});

scenario("raised leaves the ends of iterations alone", async (s) => {
    await debug(s, "class It:\n    def __iter__(self): return self\n    def __next__(self): raise StopIteration\nfor i in It(): pass\n"
                   + "x = [i for i in (j for j in (1, 2))]\n", ["raised"]);
    assert.equal(await s.ended(), 0);
});

scenario("an exception that C code raises", async (s) => {
    await debug(s, "try:\n    int('x')\nexcept ValueError:\n    pass\n", ["raised"]);
    assert.equal((await s.stopped("exception")).frame.line, 2);
});

scenario("a condition of a filter: a class", async (s) => {
    await debug(s, "for kind in (KeyError, ValueError):\n    try:\n        raise kind()\n    except LookupError: pass\n    except ValueError: pass\n",
        { filters: [], filterOptions: [{ filterId: "raised", condition: "LookupError" }] });
    assert.match((await s.stopped("exception")).text, /KeyError/);
    await s.goOn();
    assert.equal(await s.ended(), 0);
});

scenario("a condition of a filter that is none is refused with the reason", async (s) => {
    await debug(s, "x = 1\n", { filters: ["often"], filterOptions: [{ filterId: "raised", condition: "if x =" }] });
    assert.deepEqual(s.filters.breakpoints.map((each) => each.verified), [false, false]);
    assert.ok(s.filters.breakpoints.every((each) => each.message));
});

scenario("filters are changed while the program stands", async (s) => {
    const file = s.write("program.py", "x = 1\ntry:\n    raise ValueError\nexcept ValueError:\n    pass\n");
    await s.debug(file, { [file]: [1] }, { exceptions: [] });
    await s.stopped("breakpoint");
    await s.ask("setExceptionBreakpoints", { filters: ["raised"] });
    await s.goOn();
    assert.equal((await s.stopped("exception")).frame.line, 3);
});

async function information(s, text) {
    await debug(s, text, ["uncaught"]);
    await s.stopped("exception");
    return s.ask("exceptionInfo", { threadId: s.thread });
}

scenario("information: class, text and mode", async (s) => {
    const { exceptionId, description, breakMode } = await information(s, "raise ValueError('on purpose')\n");
    assert.match(exceptionId, /ValueError$/);
    assert.match(description, /on purpose/);
    assert.equal(breakMode, "unhandled");
});

scenario("information: what it came from", async (s) => {
    const { details } = await information(s, CHAIN);
    assert.equal(details.typeName, "RuntimeError");
    const [inner] = details.innerException;
    assert.equal(inner.typeName, "ValueError");
    assert.match(inner.message, /on purpose\na note/);
});

scenario("information: the exceptions of a group", async (s) => {
    const { details } = await information(s, "raise ExceptionGroup('several', [KeyError('a'), OSError('b')])\n");
    assert.deepEqual(details.innerException.map((each) => each.typeName), ["KeyError", "OSError"]);
});

scenario("information: the traceback is the program's alone", async (s) => {
    const { details } = await information(s, "def f():\n    1 / 0\nf()\n");
    const files = [...details.stackTrace.matchAll(/File "([^"]*)"/g)].map((each) => each[1]);
    assert.ok(files.length >= 2 && files.every((each) => each.startsWith(s.folder)), details.stackTrace);
});

scenario("information of an exception whose text fails", async (s) => {
    const { exceptionId } = await information(s, "class Bad(Exception):\n    def __str__(self): raise KeyError('no')\nraise Bad\n");
    assert.match(exceptionId, /Bad$/);
});

scenario("information without an exception is refused", async (s) => {
    const file = s.write("program.py", "x = 1\n");
    await s.debug(file, { [file]: [1] });
    await s.stopped("breakpoint");
    await s.refused("exceptionInfo", { threadId: s.thread });
});
