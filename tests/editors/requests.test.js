"use strict";
/* Requests that not every adapter has. */

const assert = require("node:assert/strict");
const { scenario } = require("./session");

async function standing(s, text, options = {}) {
    const file = s.write("program.py", text);
    await s.debug(file, { [file]: [s.line(file, "here")] }, options);
    await s.stopped("breakpoint");
    return file;
}

const SHOP = `\
class Shop:
    def sell(self, n):
        price = n * 2
        return price
def buy(n):
    price = n * 3
    return price
shop = Shop()       # here
print(shop.sell(1), buy(1))
`;

for (const [name, line] of [["buy", 6], ["sell", 3], ["Shop.sell", 3], ["__main__.Shop.sell", 3]])
    scenario(`a breakpoint on the function ${name}`, async (s) => {
        await s.debug(s.write("program.py", SHOP), {}, {
            configure: async () => { await s.ask("setFunctionBreakpoints", { breakpoints: [{ name }] }); } });
        const { frame } = await s.stopped("function breakpoint");
        assert.equal(frame.line, line);
        await s.goOn();
        assert.equal(await s.ended(), 0);
    });

scenario("a breakpoint on a function with a condition", async (s) => {
    await s.debug(s.write("program.py", "def f(n):\n    return n\nfor n in range(5):\n    f(n)\n"), {}, {
        configure: async () => { await s.ask("setFunctionBreakpoints", { breakpoints: [{ name: "f", condition: "n == 3" }] }); } });
    await s.stopped("function breakpoint");
    assert.equal(await s.evaluate("n"), "3");
});

scenario("a breakpoint on the second statement of a line", async (s) => {
    const file = s.write("program.py", "a = 1; b = a + 1; c = 3\n");
    await s.debug(file, { [file]: [{ line: 1, column: 8 }] });
    await s.stopped("breakpoint");
    assert.equal(await s.evaluate("a"), "1");
    assert.match(await s.refusal("b"), /NameError/);
});

scenario("the statements of a line that can have a breakpoint", async (s) => {
    const file = await standing(s, "a = 1; b = 2\nc = 3  # here\n");
    const { breakpoints } = await s.ask("breakpointLocations", { source: { path: file }, line: 1 });
    assert.deepEqual(breakpoints.map((each) => [each.line, each.column || 1]), [[1, 1], [1, 8]]);
});

scenario("a data breakpoint stops where an attribute changes", async (s) => {
    await standing(s, "class A: pass\na = A()\na.x = 1\ny = 1  # here\ny = 2\na.x = 5\ny = 3\n");
    const row = await s.local("a");
    const { dataId } = await s.ask("dataBreakpointInfo", { variablesReference: row.variablesReference, name: "x" });
    const { breakpoints } = await s.ask("setDataBreakpoints", { breakpoints: [{ dataId }] });
    assert.equal(breakpoints[0].verified, true);
    await s.goOn();
    await s.stopped("data breakpoint");
    assert.equal(await s.evaluate("a.x"), "5");
});

scenario("a data breakpoint on a local variable", async (s) => {
    await standing(s, "def f():\n    total = 0\n    x = 1  # here\n    for n in range(3):\n        x = n\n    total = 7\n    return total\nf()\n");
    const { variablesReference } = await s.scope();
    const { dataId } = await s.ask("dataBreakpointInfo", { variablesReference, name: "total" });
    await s.ask("setDataBreakpoints", { breakpoints: [{ dataId }] });
    await s.goOn();
    await s.stopped("data breakpoint");
    assert.equal(await s.evaluate("total"), "7");
});

scenario("step into the second of several calls", async (s) => {
    await standing(s, "def f(): return 1\ndef g(n): return n\nx = g(f())  # here\n");
    const { targets } = await s.ask("stepInTargets", { frameId: s.frame });
    const target = targets.find((each) => each.label.includes("g"));
    await s.goOn("stepIn", { targetId: target.id });
    assert.equal((await s.stopped("step")).frame.name, "g");
});

scenario("a function is started again", async (s) => {
    await standing(s, "def f(n):\n    print('begun')\n    return n  # here\nf(1)\n");
    await s.ask("restartFrame", { frameId: s.frame });
    const { frame } = await s.stopped();
    assert.equal(frame.line, 2);
    await s.goOn();
    await s.stopped("breakpoint");
    await s.goOn();
    assert.equal(await s.ended(), 0);
    assert.equal(s.printed.stdout, "begun\nbegun\n");
});

const PAIR = `\
import threading, time
counts, over = [0, 0], False
def count(n):
    while not over:
        counts[n] += 1
        time.sleep(0.001)
def work():
    x = 1           # here
    x = 2
    x = 3
counter = threading.Thread(target=count, args=(0,))
counter.start()
worker = threading.Thread(target=work)
worker.start()
worker.join()
over = True
counter.join()
`;

scenario("a step of one thread leaves the others where they are", async (s) => {
    await standing(s, PAIR);
    const before = await s.evaluate("counts[0]");
    await s.goOn("next", { singleThread: true });
    await s.stopped("step");
    assert.equal(await s.evaluate("counts[0]"), before);
    await s.goOn();
    assert.equal(await s.ended(), 0);
});

scenario("an expression that does not end is cancelled", async (s) => {
    await standing(s, "x = 1  # here\n");
    const seq = s.sequence;
    const slow = s.refused("evaluate", { expression: "while True: pass", context: "repl", frameId: s.frame });
    await s.ask("cancel", { requestId: seq });
    assert.match(await slow, /cancel/i);
    assert.equal(await s.evaluate("x if 'x' in globals() else 5"), "5");
});

const LIBRARY = ["import json\nclass Own:\n    pass\ndef default(value):\n    raise ValueError('own')\ntry:\n    json.dumps(Own(), default=default)  # here\n"
                 + "except ValueError:\n    pass\ny = 1\n"][0];

scenario("steps leave libraries alone", async (s) => {
    await standing(s, "import json\nx = json.loads('1')  # here\ny = 2\n");
    assert.deepEqual(await s.step("stepIn"), ["<module>", 3]);
});

scenario("steps go into libraries where the user wants that", async (s) => {
    await standing(s, "import json\nx = json.loads('1')  # here\ny = 2\n", { args: { justMyCode: false } });
    assert.equal((await s.step("stepIn"))[0], "loads");
});

scenario("an exception that leaves the user's own code", async (s) => {
    await s.debug(s.write("program.py", LIBRARY), {}, { exceptions: ["userUnhandled"] });
    const { frame } = await s.stopped("exception");
    assert.equal(frame.name, "default");
    await s.goOn();
    assert.equal(await s.ended(), 0);
});

scenario("messages are written to a file", async (s) => {
    const file = s.folder + "/traffic";
    await s.debug(s.write("program.py", "x = 1\n"), {}, { args: { logToFile: file } });
    assert.equal(await s.ended(), 0);
    assert.match(require("node:fs").readFileSync(file, "utf8"), /"launch"/);
});
