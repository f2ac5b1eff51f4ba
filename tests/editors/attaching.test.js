"use strict";
/* Programs that let editors in, and the ends of sessions. */

const assert = require("node:assert/strict");
const fs = require("node:fs");
const net = require("node:net");
const path = require("node:path");
const { IS_OWN, freePort, listening, scenario, serve } = require("./session");

const LOOP = "import time\nrunning = True\ndef tick():\n    return 1  # tick\nwhile running:\n    tick()\n    time.sleep(0.005)\n";

/** Attaches over the adapter's standard streams, or directly where `s` is connected already. */
async function attach(s, child, more = {}, breakpoints = undefined) {
    await s.begin("attach", { connect: { host: "127.0.0.1", port: child.port }, ...more },
        breakpoints || { [child.file]: [s.line(child.file, "tick")] });
}

async function stopTheLoop(s) {
    await s.evaluate("globals().update(running=False)", "repl");
    await s.setBreakpoints(s.servedFile, []);
    await s.goOn();
}

scenario("attach to a program that waits, from its first line", async (s) => {
    const child = await listening(s, "x = 1  # first\nprint('done')\n");
    const client = await s.another(child.port);
    await attach(client, child, {}, { [child.file]: [1] });
    assert.equal((await client.stopped("breakpoint")).frame.line, 1);
    await client.goOn();
    await client.event("terminated");
    assert.equal(await child.ended, 0);
    assert.equal(child.text.out, "done\n");
});

scenario("attach to a program that runs already", async (s) => {
    const child = await listening(s, LOOP, { waits: false });
    const client = await s.another(child.port);
    await attach(client, child);
    client.servedFile = child.file;
    assert.equal((await client.stopped("breakpoint")).frame.name, "tick");
    await stopTheLoop(client);
    assert.equal(await child.ended, 0);
});

scenario("attach through the adapter's standard streams", async (s) => {
    const child = await listening(s, LOOP);
    s.servedFile = child.file;
    await attach(s, child);
    await s.stopped("breakpoint");
    await stopTheLoop(s);
    assert.equal(await child.ended, 0);
});

scenario("the program goes on after disconnect, and takes another client", async (s) => {
    const child = await listening(s, LOOP);
    for (let n = 0; n < 3; n += 1) {
        const client = await s.another(child.port);
        client.servedFile = child.file;
        await attach(client, child);
        await client.stopped("breakpoint");
        if (n === 2)
            await stopTheLoop(client);
        else
            await client.ask("disconnect", { terminateDebuggee: false });
    }
    assert.equal(await child.ended, 0);
});

scenario("the program goes on when its client dies", async (s) => {
    const child = await listening(s, LOOP);
    const client = await s.another(child.port);
    await attach(client, child);
    await client.stopped("breakpoint");
    client._socket.destroy();
    let next;
    for (let isIn = false; !isIn;) {         // who comes before the program has noticed is refused
        next = await s.another(child.port);
        next.servedFile = child.file;
        isIn = await Promise.race([attach(next, child).then(() => true), next.until("the end", () => next.isOver || undefined)
            .then(() => false, () => false)]);
    }
    await next.stopped("breakpoint");
    await stopTheLoop(next);
    assert.equal(await child.ended, 0);
});

scenario("disconnect may end the program", async (s) => {
    const child = await listening(s, LOOP);
    const client = await s.another(child.port);
    await attach(client, child);
    await client.stopped("breakpoint");
    await client.ask("disconnect", { terminateDebuggee: true });
    await child.ended;
});

scenario("a second client is refused, and the first not disturbed", async (s) => {
    const child = await listening(s, LOOP);
    const first = await s.another(child.port);
    await attach(first, child);
    await first.stopped("breakpoint");
    const second = await s.another(child.port);
    await second.until("the end of the connection", () => second.isOver || undefined).catch(() => {});
    assert.ok(second.isOver);
    assert.equal(await first.evaluate("1 + 1"), "2");
});

scenario("a program that lets clients in by its own code", async (s) => {
    const port = await freePort();
    const name = IS_OWN ? "brixdebug" : "debugpy";
    const file = s.write("own.py", `import ${name}\n${name}.listen(${port})\n${name}.wait_for_client()\n`
        + `x = ${name}.is_client_connected()\n${name}.breakpoint()\ny = 1\n`);
    const child = await serve(s, [file]);
    const client = await s.another(port);
    await client.begin("attach", { connect: { host: "127.0.0.1", port } });
    const { threadId } = await client.event("stopped");
    const [frame] = await client.frames(threadId);
    assert.ok([5, 6].includes(frame.line), `line ${frame.line}`);
    assert.equal(await client.evaluate("x", "watch", frame.id), "True");
    await client.ask("continue", { threadId });
    assert.equal(await child.ended, 0);
});

scenario("paths of another machine are mapped", async (s) => {
    const child = await listening(s, LOOP);
    const client = await s.another(child.port);
    const mine = "/editor/side";
    const theirs = path.join(mine, "served.py");
    await attach(client, child, { pathMappings: [{ localRoot: mine, remoteRoot: s.folder }] }, { [theirs]: [4] });
    const { frame } = await client.stopped("breakpoint");
    assert.equal(frame.source.path, theirs);
});

scenario("attach where nobody listens is refused", async (s) => {
    await s.initialize();
    assert.match(await s.refused("attach", { connect: { host: "127.0.0.1", port: await freePort() } }), /refused|reach/i);
});

scenario("attach without a place is refused", async (s) => {
    await s.initialize();
    assert.match(await s.refused("attach", { name: "nowhere" }), /connect/);
});

// -- who may come in ----------------------------------------------------------------------------

scenario("a secret lets in who gives it", async (s) => {
    const secret = s.write("secret", "open sesame\n");
    fs.chmodSync(secret, 0o600);
    const child = await listening(s, LOOP, { options: ["--secret-file", secret] });
    for (const given of [{}, { secret: "wrong" }]) {
        const stranger = await s.another(child.port);
        await stranger.initialize();
        assert.match(await stranger.refused("attach", given), /secret/);
    }
    const client = await s.another(child.port);
    await attach(client, child, { secret: "open sesame" });
    await client.stopped("breakpoint");
});

scenario("nothing is answered before the secret was given", async (s) => {
    const secret = s.write("secret", "open sesame\n");
    fs.chmodSync(secret, 0o600);
    const child = await listening(s, LOOP, { options: ["--secret-file", secret] });
    const stranger = await s.another(child.port);
    await stranger.initialize();
    for (const [command, args] of [["evaluate", { expression: "1" }], ["threads", {}], ["disconnect", { terminateDebuggee: true }]])
        await stranger.send(command, args).then(() => {}, () => {});
    const client = await s.another(child.port);
    await attach(client, child, { secret: "open sesame" });
    await client.stopped("breakpoint");
});

const GARBAGE = {
    "another protocol": "GET / HTTP/1.1\r\nHost: x\r\n\r\n",
    "a long line": "x".repeat(1000000),
    "a header of a gigabyte": "Content-Length: 1073741824\r\n\r\n",
    "half a message": "Content-Length: 50\r\n\r\n{",
    "a list for a message": "Content-Length: 5\r\n\r\n[1,2]",
    "text that is no JSON": "Content-Length: 3\r\n\r\n{}}",
    "nothing": "",
};
for (const [title, text] of Object.entries(GARBAGE))
    scenario(`a peer that sends ${title} is dropped, and the program goes on`, async (s) => {
        const child = await listening(s, LOOP);
        await new Promise((resolve) => {
            const socket = net.createConnection(child.port, "127.0.0.1", () => socket.end(text));
            socket.on("data", () => {});
            socket.on("error", () => {});
            socket.on("close", resolve);
        });
        const client = await s.another(child.port);
        await attach(client, child);
        await client.stopped("breakpoint");
    });

// -- ends -----------------------------------------------------------------------------------------

function isAlive(processId) {
    try {
        process.kill(processId, 0);
        return fs.readFileSync(`/proc/${processId}/stat`, "utf8").split(") ").at(-1)[0] !== "Z";
    } catch {
        return false;
    }
}

/** The process of a program that sleeps, launched with `lines` as breakpoints. */
async function sleeper(s, lines = []) {
    const file = s.write("program.py", "import time\nx = 1\ntime.sleep(1000)\n");
    await s.debug(file, { [file]: lines });
    const { systemProcessId } = await s.event("process");
    if (lines.length)
        await s.stopped("breakpoint");
    return systemProcessId;
}

async function gone(processId) {
    for (let n = 0; n < 6000 && isAlive(processId); n += 1)
        await new Promise((resolve) => setTimeout(resolve, 10));
    assert.ok(!isAlive(processId), `process ${processId} lives`);
}

scenario("disconnect ends a program that was launched", async (s) => {
    const processId = await sleeper(s);
    await s.ask("disconnect", {});
    await gone(processId);
});

scenario("disconnect from a stop ends it as well", async (s) => {
    const processId = await sleeper(s, [2]);
    await s.ask("disconnect", {});
    await gone(processId);
});

scenario("a killed adapter leaves no program", async (s) => {
    const processId = await sleeper(s);
    s._adapterProcess.kill("SIGKILL");
    await gone(processId);
});

scenario("an editor that goes leaves no program", async (s) => {
    const processId = await sleeper(s, [2]);
    s._adapterProcess.stdin.end();
    await gone(processId);
});

scenario("terminate lets the program clean up", async (s) => {
    await s.debug(s.write("program.py", "import signal, sys, time\ndef end(*_):\n    print('cleaned up')\n    sys.exit(7)\n"
        + "signal.signal(signal.SIGTERM, end)\nprint('ready', flush=True)\ntime.sleep(1000)\n"));
    await s.output("stdout", "ready");
    await s.ask("terminate", {});
    assert.equal(await s.ended(), 7);
    assert.match(s.printed.stdout, /cleaned up/);
});

scenario("restart runs the program again", async (s) => {
    const file = s.write("program.py", "import os\nprint(os.getpid())\nx = 1\n");
    await s.debug(file, { [file]: [3] });
    await s.stopped("breakpoint");
    await s.ask("restart", {});
    await s.event("initialized");
    await s.setBreakpoints(file, [3]);
    await s.ask("configurationDone");
    await s.stopped("breakpoint");
    await s.goOn();
    assert.equal(await s.ended(), 0);
    const [first, second] = s.printed.stdout.trim().split("\n");
    assert.notEqual(first, second);
});
