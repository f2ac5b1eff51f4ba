"use strict";
/* Children of the program: each is a session of its own. */

const assert = require("node:assert/strict");
const { IS_OWN, scenario } = require("./session");

/** Starts the program in a client that starts sessions; the sessions of its children come from `child()`. */
async function parent(s, text, { marks = ["here"], args = {} } = {}) {
    const file = s.write("program.py", text);
    const asked = [];
    s.reverse.startDebugging = (request) => { asked.push(request); };
    const lines = { [file]: marks.map((each) => s.line(file, each)) };
    await s.debug(file, lines, { args, initialize: { supportsStartDebuggingRequest: true } });
    return async () => {
        const { request, configuration } = await s.until("a child", () => asked.shift());
        const child = await s.another();
        await child.begin(request, configuration, lines);
        child.configuration = configuration;
        return child;
    };
}

const WAYS = {
    "os.fork": "import os\ndef work():\n    x = 5  # here\npid = os.fork()\nif pid == 0:\n    work()\n    os._exit(0)\nos.waitpid(pid, 0)\n",
    ...Object.fromEntries(["fork", "spawn", "forkserver"].map((method) => [`multiprocessing by ${method}`,
        `import multiprocessing\ndef work():\n    x = 5  # here\nif __name__ == "__main__":\n    context = multiprocessing.get_context("${method}")\n`
        + "    child = context.Process(target=work)\n    child.start()\n    child.join()\n    assert child.exitcode == 0\n"])),
    "a process pool": "from concurrent.futures import ProcessPoolExecutor\nimport multiprocessing\ndef work(n):\n    return n  # here\n"
        + "if __name__ == '__main__':\n    with ProcessPoolExecutor(1, multiprocessing.get_context('spawn')) as pool:\n        assert pool.submit(work, 5).result() == 5\n",
    "subprocess": "import subprocess, sys\nif len(sys.argv) == 1:\n    subprocess.run([sys.executable, __file__, 'child'], check=True)\nelse:\n    x = 5  # here\n",
};
for (const [title, text] of Object.entries(WAYS))
    scenario(`a breakpoint in a child: ${title}`, async (s) => {
        const next = await parent(s, text);
        let child = await next();
        // A fork server and its likes are children too; theirs is the one that stops.
        for (;;) {
            const first = child;
            const found = await Promise.race([
                first.event("stopped").then((event) => ({ event })),
                next().then((session) => ({ session }), () => new Promise(() => {}))]);
            if (found.event) {
                const [frame] = await first.frames(found.event.threadId);
                assert.equal(frame.line, s.line(s.folder + "/program.py", "here"));
                await first.ask("continue", { threadId: found.event.threadId });
                break;
            }
            child = found.session;
        }
        assert.equal(await s.ended(), 0);
    });

scenario("the session of a child says whose it is", async (s) => {
    const next = await parent(s, WAYS["os.fork"]);
    const child = await next();
    assert.match(child.configuration.name, /\d/);
    assert.equal(child.configuration.request || "attach", "attach");
    await child.stopped("breakpoint");
    assert.equal(await child.evaluate("1 + 1"), "2");
    await child.goOn();
    assert.equal(await s.ended(), 0);
});

scenario("without subProcess a child runs on through breakpoints", async (s) => {
    const file = s.write("program.py", WAYS["os.fork"] + "print('done')\n");
    await s.debug(file, { [file]: [s.line(file, "here")] }, {
        args: { subProcess: false }, initialize: { supportsStartDebuggingRequest: true } });
    assert.equal(await s.ended(), 0);
    assert.equal(s.printed.stdout, "done\n");
});

scenario("an editor that starts no sessions gets the program to its end", async (s) => {
    const file = s.write("program.py", WAYS.subprocess.replace("__file__, 'child'", "'-c', 'pass'").replace("x = 5  # here", "pass"));
    await s.debug(file);
    assert.equal(await s.ended(), 0);
    if (IS_OWN)
        assert.ok(s.printed.console === undefined || /connect|child/i.test(s.printed.console), s.printed.console);
});
