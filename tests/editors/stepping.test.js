"use strict";
/* Steps, and how threads go on and stand. */

const assert = require("node:assert/strict");
const { scenario } = require("./session");

/** A program that stands at the line marked "here". */
async function standing(s, text) {
    const file = s.write("program.py", text);
    await s.debug(file, { [file]: [s.line(file, "here")] });
    await s.stopped("breakpoint");
    return file;
}

const CALLS = `\
def inner(n):
    m = n + 1
    return m                # inner
def outer():
    a = inner(1)            # here
    return a
outer()
end = 1
`;

scenario("next goes over a call", async (s) => {
    await standing(s, CALLS);
    assert.deepEqual(await s.step("next"), ["outer", 6]);
});

scenario("step in goes into a call", async (s) => {
    await standing(s, CALLS);
    assert.deepEqual(await s.step("stepIn"), ["inner", 2]);
});

scenario("step out goes back to the line of the call", async (s) => {
    await standing(s, CALLS);
    await s.step("stepIn");
    assert.deepEqual(await s.step("stepOut"), ["outer", 5]);
});

scenario("next at the end of a function goes back to its caller", async (s) => {
    await standing(s, CALLS);
    await s.step("next");
    assert.deepEqual(await s.step("next"), ["<module>", 7]);
    assert.deepEqual(await s.step("next"), ["<module>", 8]);
});

scenario("next at the end of the program ends it", async (s) => {
    const file = s.write("program.py", "x = 1\n");
    await s.debug(file, { [file]: [1] });
    await s.stopped("breakpoint");
    await s.goOn("next");
    assert.equal(await s.ended(), 0);
});

scenario("a breakpoint inside of what next goes over stops", async (s) => {
    const file = await standing(s, CALLS);
    await s.setBreakpoints(file, [3]);
    await s.goOn("next");
    const { frame } = await s.stopped("breakpoint");
    assert.deepEqual([frame.name, frame.line], ["inner", 3]);
});

scenario("next in a recursion stays in its own frame", async (s) => {
    await standing(s, "def f(n):\n    if n:\n        f(n - 1)\n    return n\nf(3)  # here\nx = 1\n");
    await s.step("stepIn");
    await s.step("next");
    assert.deepEqual(await s.step("next"), ["f", 4]);
    assert.equal(await s.evaluate("n"), "3");
});

scenario("what a function returned is shown after it", async (s) => {
    await standing(s, CALLS);
    await s.step("stepIn");
    await s.step("stepOut");
    const row = (await s.variables((await s.scope()).variablesReference)).find((each) => each.name.startsWith("(return) "));
    assert.deepEqual([row.name, row.value], ["(return) inner", "2"]);
});

scenario("what calls returned is shown after the step over them", async (s) => {
    await standing(s, `\
def one(n):
    return n + 1
def two(n):
    return [n]
x = two(one(1)) + two(5)    # here
y = len(x)
z = 1
`);
    const returned = async () => (await s.variables((await s.scope()).variablesReference)).filter(
        (each) => each.name.startsWith("(return) ")).map((each) => [each.name, each.value]);
    await s.step("next");
    assert.deepEqual(await returned(), [["(return) one", "2"], ["(return) two", "[2]"], ["(return) two", "[5]"]]);
    await s.step("next");
    assert.deepEqual(await returned(), []);
});

scenario("a step off a raise goes on in the caller's handler", async (s) => {
    await standing(s, "def fail():\n    raise ValueError  # here\ntry:\n    fail()\nexcept ValueError:\n    x = 1\n");
    const lines = [];
    for (let n = 0; n < 3; n += 1)
        lines.push((await s.step("next"))[1]);
    assert.deepEqual(lines, [4, 5, 6]);
});

scenario("steps in a loop", async (s) => {
    await standing(s, "for i in range(2):  # here\n    x = i\ny = 1\n");
    const lines = [];
    while (lines.at(-1) !== 3)
        lines.push((await s.step("next"))[1]);
    assert.deepEqual(lines, [2, 1, 2, 1, 3]);
});

scenario("steps through try and finally", async (s) => {
    await standing(s, "def f():\n    try:\n        return 1  # here\n    finally:\n        x = 2\nf()\ny = 1\n");
    assert.deepEqual(await s.step("next"), ["f", 5]);
});

scenario("step in goes into a generator, and next over its yield stays in it", async (s) => {
    await standing(s, "def g():\n    yield 1\n    yield 2\ny = 1  # here\nfor i in g():\n    x = i\n");
    await s.step("next");
    assert.deepEqual(await s.step("stepIn"), ["g", 2]);
    assert.deepEqual(await s.step("next"), ["g", 3]);
});

scenario("next over an await stays in the coroutine", async (s) => {
    await standing(s, "import asyncio\nasync def f(n):\n    await asyncio.sleep(0.01)  # here\n    return n\n"
                      + "async def main():\n    await asyncio.gather(f(1))\nasyncio.run(main())\n");
    assert.deepEqual(await s.step("next"), ["f", 4]);
});

scenario("step in goes into the class's __init__", async (s) => {
    await standing(s, "class A:\n    def __init__(self):\n        self.x = 1\na = A()  # here\n");
    assert.deepEqual(await s.step("stepIn"), ["A.__init__", 3]);
});

scenario("step in goes through C code to the function that it calls", async (s) => {
    await standing(s, "def key(n):\n    return -n\nx = sorted([1], key=key)  # here\n");
    assert.deepEqual(await s.step("stepIn"), ["key", 2]);
});

scenario("step in where nothing is called goes to the next line", async (s) => {
    await standing(s, "x = 1  # here\ny = 2\n");
    assert.deepEqual(await s.step("stepIn"), ["<module>", 2]);
});

scenario("step out of the module runs the program to its end", async (s) => {
    await standing(s, "x = 1  # here\ny = 2\n");
    await s.goOn("stepOut");
    assert.equal(await s.ended(), 0);
});

scenario("continue says that all threads go on", async (s) => {
    await standing(s, "x = 1  # here\n");
    const body = await s.ask("continue", { threadId: s.thread });
    assert.notEqual(body.allThreadsContinued, false);
    assert.equal(await s.ended(), 0);
});

scenario("continue runs to the next breakpoint", async (s) => {
    const file = await standing(s, "x = 1  # here\ny = 2\nz = 3\n");
    await s.setBreakpoints(file, [3]);
    await s.goOn();
    assert.equal((await s.stopped("breakpoint")).frame.line, 3);
});

scenario("go to another line", async (s) => {
    const file = await standing(s, "x = 1  # here\nx = 2\nx = 3\nprint(x)\n");
    await s.step("next");
    const { targets } = await s.ask("gotoTargets", { source: { path: file }, line: 4 });
    await s.ask("goto", { threadId: s.thread, targetId: targets[0].id });
    assert.equal((await s.stopped("goto")).frame.line, 4);
    await s.goOn();
    assert.equal(await s.ended(), 0);
    assert.equal(s.printed.stdout, "1\n");
});

scenario("go to a line of another function is refused", async (s) => {
    const file = await standing(s, "def f():\n    return 1\nx = f()  # here\n");
    const { targets } = await s.ask("gotoTargets", { source: { path: file }, line: 2 });
    if (targets.length)
        await s.refused("goto", { threadId: s.thread, targetId: targets[0].id });
    assert.deepEqual(await s.evaluate("1 + 1"), "2");
});

// -- pausing ---------------------------------------------------------------------------------

scenario("pause stops a thread in Python code", async (s) => {
    await s.debug(s.write("program.py", "print('ready', flush=True)\nn = 0\nwhile n >= 0:\n    n += 1\n"));
    await s.output("stdout", "ready");
    await s.ask("pause", { threadId: (await s.ask("threads")).threads[0].id });
    const { frame } = await s.stopped("pause");
    assert.equal(frame.name, "<module>");
    await s.evaluate("globals().update(n=-10)", "repl");
    await s.goOn();
    assert.equal(await s.ended(), 0);
});

scenario("pause stops a thread that waits in C code", async (s) => {
    await s.debug(s.write("program.py", "import time\nprint('ready', flush=True)\ntime.sleep(1000)\n"));
    await s.output("stdout", "ready");
    await s.ask("pause", { threadId: (await s.ask("threads")).threads[0].id });
    const { frame } = await s.stopped("pause");
    assert.deepEqual([frame.name, frame.line], ["<module>", 3]);
});

// -- threads ---------------------------------------------------------------------------------

const THREADS = `\
import threading
ready = threading.Barrier(4)
go = threading.Event()
def work(n):
    ready.wait()
    go.wait()
    total = n + 1           # work
threads = [threading.Thread(target=work, args=(n,), name=f"worker {n}") for n in range(3)]
for each in threads:
    each.start()
ready.wait()
x = 1                       # here
go.set()
for each in threads:
    each.join()
`;

scenario("threads have their names, in the order of their start", async (s) => {
    await standing(s, THREADS);
    assert.deepEqual(await s.threadNames(), ["MainThread", "worker 0", "worker 1", "worker 2"]);
});

scenario("every thread's stack is shown while one stands at a breakpoint", async (s) => {
    await standing(s, THREADS);
    const { threads } = await s.ask("threads");
    for (const each of threads.slice(1)) {
        const names = (await s.frames(each.id)).map((frame) => frame.name);
        assert.ok(names.includes("work"), `${each.name}: ${names}`);
    }
});

scenario("all threads stand while one stands", async (s) => {
    await standing(s, "import threading, time\nn = 0\ndef count():\n    global n\n    while n >= 0:\n        n += 1\n"
                      + "t = threading.Thread(target=count)\nt.start()\nwhile n < 10:\n    time.sleep(0.001)\nx = 1  # here\nn = -10\n");
    const before = await s.evaluate("n");
    assert.equal(await s.evaluate("__import__('time').sleep(0.05) or n"), before);
    await s.goOn();
    assert.equal(await s.ended(), 0);
});

scenario("a breakpoint is hit by each thread once", async (s) => {
    const file = await standing(s, THREADS);
    await s.setBreakpoints(file, [s.line(file, "work")]);
    await s.goOn();
    const seen = [];
    for (let n = 0; n < 3; n += 1) {
        await s.stopped("breakpoint");
        seen.push(await s.evaluate("n"));
        await s.goOn();
    }
    assert.deepEqual(seen.sort(), ["0", "1", "2"]);
    assert.equal(await s.ended(), 0);
});

scenario("steps stay in their thread", async (s) => {
    const file = await standing(s, THREADS);
    await s.setBreakpoints(file, [{ line: s.line(file, "work"), condition: "n == 1" }]);
    await s.goOn();
    const { threadId } = await s.stopped("breakpoint");
    await s.goOn("next");
    const stop = await s.stopped("step");
    assert.equal(stop.threadId, threadId);
});

scenario("variables of another thread", async (s) => {
    await standing(s, THREADS);
    const worker = (await s.ask("threads")).threads.find((each) => each.name === "worker 2");
    const frame = (await s.frames(worker.id)).find((each) => each.name === "work");
    assert.equal((await s.local("n", frame.id)).value, "2");
    assert.equal(await s.evaluate("n * 10", "watch", frame.id), "20");
});

scenario("100 threads reach a breakpoint", async (s) => {
    const file = s.write("program.py", "import threading\ndef f(n):\n    x = n  # here\n"
        + "ts = [threading.Thread(target=f, args=(n,)) for n in range(100)]\n"
        + "for t in ts: t.start()\nfor t in ts: t.join()\nprint('all')\n");
    await s.debug(file, { [file]: [{ line: 3, condition: "n % 10 == 0" }] });
    const seen = new Set();
    for (let n = 0; n < 10; n += 1) {
        await s.stopped("breakpoint");
        seen.add(await s.evaluate("n"));
        await s.goOn();
    }
    assert.equal(seen.size, 10);
    assert.equal(await s.ended(), 0);
});
