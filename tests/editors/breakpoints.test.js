"use strict";
/* Breakpoints: where they hold, under which conditions, and what they do there. */

const assert = require("node:assert/strict");
const { scenario } = require("./session");

const LOOP = "for i in range(20):\n    x = i  # here\nprint('done')  # after\n";

/** A program, launched with one breakpoint at the line marked "here"; `more` is the breakpoint's own. */
async function launchAtMark(s, text, more = {}, options = {}) {
    const file = s.write("program.py", text);
    await s.debug(file, { [file]: [{ line: s.line(file, "here"), ...more }] }, options);
    [s.row] = s.breakpoints[file];
    return file;
}

/** Goes on from stop to stop up to the end: the values of `expression` at each. */
async function valuesAtStops(s, expression) {
    const values = [];
    for (;;) {
        const next = await s.until("a stop or the end", () =>
            s.events.find((each) => each.event === "stopped" || each.event === "exited"));
        if (next.event === "exited")
            return values;
        await s.stopped("breakpoint");
        values.push(await s.evaluate(expression));
        await s.goOn();
    }
}

scenario("a breakpoint is hit where it was set", async (s) => {
    const file = s.write("program.py", "def f():\n    return 1  # here\nf()\n");
    await s.hitBreakpoint({ program: file, cwd: s.folder, console: "internalConsole" }, { path: file, line: 2 });
});

scenario("a breakpoint is verified with its line and a number of its own", async (s) => {
    await launchAtMark(s, LOOP);
    assert.deepEqual([s.row.verified, s.row.line, typeof s.row.id], [true, 2, "number"]);
});

scenario("a stop names the breakpoint that it is at", async (s) => {
    const file = s.write("program.py", "x = 1\ny = 2\n");
    await s.debug(file, { [file]: [1, 2] });
    for (const row of s.breakpoints[file]) {
        const { hitBreakpointIds } = await s.stopped("breakpoint");
        assert.deepEqual(hitBreakpointIds, [row.id]);
        await s.goOn();
    }
});

scenario("a breakpoint on a comment holds at the next statement", async (s) => {
    const file = s.write("program.py", "def f():\n    # a comment\n\n    x = 1\n    return x\nf()\n");
    await s.debug(file, { [file]: [2] });
    const { frame } = await s.stopped("breakpoint");
    assert.deepEqual([frame.name, frame.line], ["f", 4]);
    assert.equal(s.breakpoints[file][0].line, 4);
});

scenario("a breakpoint after the last statement is not verified, with the reason", async (s) => {
    const file = s.write("program.py", "x = 1\n# the end\n");
    await s.debug(file, { [file]: [2] });
    const [row] = s.breakpoints[file];
    assert.equal(row.verified, false);
    assert.match(row.message, /no statement/);
    assert.equal(await s.ended(), 0);
});

scenario("a breakpoint in a file that is not there is not verified, with the reason", async (s) => {
    await s.debug(s.write("program.py", "x = 1\n"), { "/no/such/file.py": [1] });
    const [row] = s.breakpoints["/no/such/file.py"];
    assert.equal(row.verified, false);
    assert.match(row.message, /\/no\/such\/file\.py/);
});

scenario("a breakpoint inside of a statement of several lines", async (s) => {
    const file = s.write("program.py", "def g(n):\n    return n\nx = [\n    g(1),\n    g(2),  # here\n]\n");
    await s.debug(file, { [file]: [5] });
    const { frame } = await s.stopped("breakpoint");
    assert.equal(frame.line, 5);
});

const PLACES = {
    "a class body": "class A:\n    x = 1  # here\n",
    "a method": "class A:\n    def f(self):\n        return 1  # here\nA().f()\n",
    "a decorator's function": "def d(f):\n    def inner(*a):\n        return f(*a)  # here\n    return inner\n@d\ndef f(a): return a\nf(1)\n",
    "a lambda": "f = (lambda a:\n     a + 1)  # here\nf(1)\n",
    "a generator": "def g():\n    yield 1\n    yield 2  # here\nlist(g())\n",
    "a comprehension": "x = [\n    i * 2  # here\n    for i in (1,)]\n",
    "a coroutine": "import asyncio\nasync def f():\n    await asyncio.sleep(0)\n    return 1  # here\nasyncio.run(f())\n",
    "an except clause": "try:\n    1 / 0\nexcept ZeroDivisionError:\n    x = 1  # here\n",
    "a finally clause": "try:\n    x = 1\nfinally:\n    x = 2  # here\n",
    "a match statement": "match 5:\n    case 5:\n        x = 1  # here\n",
    "a with statement": "import contextlib\nwith contextlib.suppress(KeyError):\n    x = 1  # here\n",
    "a __del__ method": "class A:\n    def __del__(self):\n        x = 1  # here\na = A()\ndel a\n",
    "a thread": "import threading\ndef f():\n    x = 1  # here\nt = threading.Thread(target=f)\nt.start()\nt.join()\n",
    "a thread pool": "from concurrent.futures import ThreadPoolExecutor\ndef f(n):\n    return n  # here\n"
                     + "with ThreadPoolExecutor(1) as pool:\n    list(pool.map(f, [1]))\n",
    "an exit function": "import atexit\ndef f():\n    x = 1  # here\natexit.register(f)\n",
    "a signal handler": "import signal\ndef f(*_):\n    x = 1  # here\nsignal.signal(signal.SIGUSR1, f)\n"
                        + "signal.raise_signal(signal.SIGUSR1)\n",
    "a sort key": "def key(n):\n    return -n  # here\nsorted([1], key=key)\n",
    "a function of a type": "f = type('T', (), {'__call__': lambda self:\n    1})()  \nf()\nx = 2  # here\n",
};
for (const [title, text] of Object.entries(PLACES))
    scenario(`a breakpoint in ${title}`, async (s) => {
        const file = await launchAtMark(s, text);
        const { frame } = await s.stopped("breakpoint");
        assert.deepEqual([frame.source.path, frame.line], [file, s.line(file, "here")]);
        await s.goOn();
        assert.equal(await s.ended(), 0);
    });

scenario("a breakpoint in a module that is imported later", async (s) => {
    const module = s.write("later.py", "def f():\n    return 1\n");
    const file = s.write("program.py", "import later\nlater.f()\n");
    await s.debug(file, { [module]: [2] });
    const { frames } = await s.stopped("breakpoint");
    assert.deepEqual(frames.map((each) => [each.source.path, each.line]), [[module, 2], [file, 2]]);
});

scenario("breakpoints of two files", async (s) => {
    const module = s.write("later.py", "y = 1\n");
    const file = s.write("program.py", "import later\nx = 1\n");
    await s.debug(file, { [module]: [1], [file]: [2] });
    assert.equal((await s.stopped("breakpoint")).frame.source.path, module);
    await s.goOn();
    assert.equal((await s.stopped("breakpoint")).frame.source.path, file);
});

scenario("a link to a file and the file are one", async (s) => {
    const file = s.write("inner/real.py", "x = 1\ny = 2\n");
    const link = s.folder + "/link.py";
    require("node:fs").symlinkSync(file, link);
    await s.debug(link, { [file]: [2] });
    assert.equal((await s.stopped("breakpoint")).frame.line, 2);
});

scenario("breakpoint() stops", async (s) => {
    await s.debug(s.write("program.py", "x = 1\nbreakpoint()\ny = 2\n"));
    const stop = await s.event("stopped");
    const [frame] = await s.frames(stop.threadId);
    assert.ok([2, 3].includes(frame.line), `line ${frame.line}`);
});

scenario("a prompt that the program opens itself is a stop", async (s) => {
    await s.debug(s.write("program.py", "import pdb\npdb.Pdb().set_trace()\npdb.set_trace()\ny = 2\n"));
    for (const line of [3, 4]) {
        assert.equal((await s.stopped("breakpoint")).frame.line, line);
        await s.goOn();
    }
    assert.equal(await s.ended(), 0);
    assert.equal(s.printed.stdout, undefined);
});

// -- conditions ------------------------------------------------------------------------------

scenario("a condition", async (s) => {
    await launchAtMark(s, LOOP, { condition: "i in (3, 7)" });
    assert.deepEqual(await valuesAtStops(s, "i"), ["3", "7"]);
});

scenario("a condition that is no expression is refused with the reason", async (s) => {
    await launchAtMark(s, LOOP, { condition: "i =" });
    assert.equal(s.row.verified, false);
    assert.match(s.row.message, /invalid syntax/);
    assert.equal(await s.ended(), 0);
});

scenario("a condition sees globals, locals and free variables", async (s) => {
    await launchAtMark(s, "g = 1\ndef outer():\n    free = 2\n    def inner(own):\n        return free + own  # here\n"
                          + "    inner(3)\n    inner(4)\nouter()\n", { condition: "g == 1 and free == 2 and own == 4" });
    assert.deepEqual(await valuesAtStops(s, "own"), ["4"]);
});

for (const [hitCondition, values] of Object.entries({
    "3": ["2"], "== 3": ["2"], "% 8": ["7", "15"], ">= 19": ["18", "19"], "> 19": ["19"], "<= 2": ["0", "1"], "< 2": ["0"] }))
    scenario(`a hit condition: ${hitCondition}`, async (s) => {
        await launchAtMark(s, LOOP, { hitCondition });
        assert.deepEqual(await valuesAtStops(s, "i"), values);
    });

scenario("a condition and a hit condition hold together", async (s) => {
    await launchAtMark(s, LOOP, { condition: "i % 2 == 0", hitCondition: "% 4" });
    assert.deepEqual(await valuesAtStops(s, "i"), ["6", "14"]);
});

scenario("a hit condition that is none is refused with the reason", async (s) => {
    await launchAtMark(s, LOOP, { hitCondition: "often" });
    assert.equal(s.row.verified, false);
    assert.match(s.row.message, /hit condition/);
    assert.equal(await s.ended(), 0);
});

// -- log points ------------------------------------------------------------------------------

scenario("a log point prints and does not stop", async (s) => {
    await launchAtMark(s, "for i in range(3):\n    x = i  # here\n", { logMessage: "i is {i}, twice {i * 2}" });
    assert.equal(await s.ended(), 0);
    const text = (s.printed.console || "") + (s.printed.stdout || "");
    assert.equal(text, "i is 0, twice 0\ni is 1, twice 2\ni is 2, twice 4\n");
});

scenario("a log point with a condition", async (s) => {
    await launchAtMark(s, LOOP, { logMessage: "{i}", condition: "i > 17" });
    assert.equal(await s.ended(), 0);
    assert.match((s.printed.console || "") + (s.printed.stdout || ""), /^18\n19\n/);
});

scenario("an expression of a log point that fails leaves the others", async (s) => {
    await launchAtMark(s, "x = 1  # here\n", { logMessage: "before {1 / 0} after {40 + 2}" });
    assert.equal(await s.ended(), 0);
    assert.equal(s.printed.console, "before <ZeroDivisionError: division by zero> after 42\n");
});

scenario("braces of a log point's own", async (s) => {
    await launchAtMark(s, "x = 1\ny = 2  # here\n", { logMessage: "{{x}} was {x}" });
    assert.equal(await s.ended(), 0);
    assert.equal(s.printed.console, "{x} was 1\n");
});

// -- changes ---------------------------------------------------------------------------------

scenario("breakpoints are replaced while the program stands", async (s) => {
    const file = s.write("program.py", "a = 1\nb = 2\nc = 3\nd = 4\n");
    await s.debug(file, { [file]: [1, 2] });
    await s.stopped("breakpoint");
    await s.setBreakpoints(file, [4]);
    await s.goOn();
    assert.equal((await s.stopped("breakpoint")).frame.line, 4);
    await s.goOn();
    assert.equal(await s.ended(), 0);
});

scenario("breakpoints are set and cleared while the program runs", async (s) => {
    const file = s.write("program.py", "import time\nrunning = True\nwhile running:\n    time.sleep(0.01)  # here\n");
    await s.debug(file);
    await s.setBreakpoints(file, [4]);
    await s.stopped("breakpoint");
    await s.setBreakpoints(file, []);
    await s.evaluate("globals().update(running=False)", "repl");
    await s.goOn();
    assert.equal(await s.ended(), 0);
});

scenario("a condition is changed while the program stands", async (s) => {
    const file = await launchAtMark(s, LOOP);
    await s.stopped("breakpoint");
    await s.setBreakpoints(file, [{ line: 2, condition: "i == 19" }]);
    await s.goOn();
    assert.deepEqual(await valuesAtStops(s, "i"), ["19"]);
});

scenario("1,000 breakpoints", async (s) => {
    const file = s.write("program.py", Array.from({ length: 1000 }, (_, n) => `x${n} = ${n}\n`).join(""));
    await s.debug(file, { [file]: Array.from({ length: 1000 }, (_, n) => ({ line: n + 1, condition: n === 998 ? null : "False" }))
        .map((each) => (each.condition ? each : { line: each.line })) });
    assert.ok(s.breakpoints[file].every((each, n) => each.verified && each.line === n + 1));
    assert.equal((await s.stopped("breakpoint")).frame.line, 999);
});

scenario("lines that can have a breakpoint", async (s) => {
    const file = s.write("program.py", "def f(a):\n    # no\n    x = (a +\n         1)\n    return x\n");
    await s.debug(file, {}, { args: { stopOnEntry: true } });
    await s.stopped("entry");
    const { breakpoints } = await s.ask("breakpointLocations", { source: { path: file }, line: 1, endLine: 5 });
    assert.deepEqual([...new Set(breakpoints.map((each) => each.line))], [1, 3, 4, 5]);
});

scenario("a breakpoint that is never reached costs the program no stop", async (s) => {
    const file = s.write("program.py", "def never():\n    return 1  # here\nfor n in range(100000):\n    pass\n");
    await s.debug(file, { [file]: [2] });
    assert.equal(await s.ended(), 0);
    assert.deepEqual(s.events.filter((each) => each.event === "stopped"), []);
});

scenario("lines counted from 0", async (s) => {
    const file = s.write("program.py", "x = 1\ny = 2\n");
    await s.debug(file, { [file]: [1] }, { initialize: { linesStartAt1: false, columnsStartAt1: false } });
    const { frame } = await s.stopped("breakpoint");
    assert.deepEqual([s.breakpoints[file][0].line, frame.line, frame.column], [1, 1, 0]);
    assert.equal(await s.evaluate("x"), "1");
});

scenario("files named by URIs", async (s) => {
    const file = s.write("a b%41é.py", "x = 1\ny = 2\n");
    const uri = require("node:url").pathToFileURL(file).href;
    await s.debug(file, { [uri]: [2] }, { initialize: { pathFormat: "uri" } });
    const { frame } = await s.stopped("breakpoint");
    assert.equal(require("node:url").fileURLToPath(frame.source.path), file);
});
