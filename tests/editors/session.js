"use strict";
/* Scenarios: sessions of VS Code's own DebugClient with the adapter.

   scenario("a condition", async (s) => {
       const file = s.write("program.py", "for i in range(10):\n    x = i  # here\n");
       await s.debug(file, { [file]: [{ line: s.line(file, "here"), condition: "i == 7" }] });
       await s.stopped("breakpoint");
       assert.equal(await s.evaluate("i"), "7");
       await s.goOn();
       assert.equal(await s.ended(), 0);
   });

   Each message of both sides is held against the protocol's schema.  ADAPTER names the adapter (adapters/NAME.py), PYTHON
   the interpreter, for the adapter and for the program. */

const assert = require("node:assert/strict");
const childProcess = require("node:child_process");
const fs = require("node:fs");
const net = require("node:net");
const os = require("node:os");
const path = require("node:path");
const { test } = require("node:test");
const { DebugClient } = require("@vscode/debugadapter-testsupport");
const { Conversation } = require("./protocol");
const { DIFFERENCES, SOMETIMES } = require("./differences");

const ADAPTER = process.env.ADAPTER || "brixdebug";
const IS_OWN = ADAPTER === "brixdebug";
const PYTHON = process.env.PYTHON || "python3";
const MILLISECONDS = Number(process.env.SCENARIO_MILLISECONDS || 60000);      // what waits longer has failed

class Session extends DebugClient {
    /** `folder`: for the scenario's files, and the adapter's current one. */
    constructor(folder) {
        super(PYTHON, path.join(__dirname, "adapters", ADAPTER + ".py"), "python", { cwd: folder, detached: true });
        this.defaultTimeout = MILLISECONDS;
        this.folder = folder;
        this.conversation = new Conversation();
        this.events = [];                    // those that nobody has waited for, output apart
        this.printed = {};                   // category -> text so far
        this.reverse = {};                   // command of the adapter's requests -> function of its arguments -> body
        this.errors = "";                    // the adapter's own standard error
        this.answers = [];                   // failed responses, whole
        this.isOver = false;
        this._woken = [];
    }

    // -- messages ----------------------------------------------------------------------------

    async start(port) {
        if (port === undefined)
            await super.start();
        else
            await this._connectTo(port);
        const stream = this._adapterProcess ? this._adapterProcess.stdout : this._socket;
        if (this._adapterProcess)
            this._adapterProcess.stderr.on("data", (data) => { this.errors += data; });
        stream.on("error", () => {});        // a peer that goes at once
        stream.on("close", () => { this.isOver = true; this._wake(); });
        this.outputStream.on("error", () => {});
    }

    /** As DebugClient does it, and again until the program listens. */
    async _connectTo(port) {
        const end = Date.now() + MILLISECONDS;
        while (!this._socket) {
            const socket = typeof port === "string" ? net.createConnection(port) : net.createConnection(port, "127.0.0.1");
            const error = await new Promise((resolve) => socket.once("connect", () => resolve(null)).once("error", resolve));
            if (error === null) {
                this._socket = socket;
                this.connect(socket, socket);
            } else if (Date.now() > end) {
                throw error;
            }
        }
    }

    doSend(command, args, callback) {
        const message = { type: "request", seq: this.sequence, command };
        if (args && Object.keys(args).length > 0)
            message.arguments = args;
        this.conversation.add("client", message);
        super.doSend(command, args, (response) => {
            if (!response.success)
                this.answers.push(response);
            callback(response);
        });
    }

    dispatch(body) {
        const message = JSON.parse(body);
        this.conversation.add("adapter", message);
        if (message.type === "request") {
            this._answer(message);
            this._wake();
            return;
        }
        if (message.type === "event" && message.event === "output") {
            const category = message.body.category || "console";
            this.printed[category] = (this.printed[category] || "") + message.body.output;
        } else if (message.type === "event") {
            this.events.push(message);
        }
        this._wake();
        super.dispatch(body);
    }

    _answer(request) {
        const handler = this.reverse[request.command];
        const response = { seq: this.sequence++, type: "response", request_seq: request.seq, command: request.command };
        try {
            if (!handler)
                throw new Error("this editor does not do that");
            Object.assign(response, { success: true, body: handler(request.arguments) || {} });
        } catch (error) {
            Object.assign(response, { success: false, message: error.message, body: {} });
        }
        this.conversation.add("client", response);
        const json = JSON.stringify(response);
        this.outputStream.write(`Content-Length: ${Buffer.byteLength(json)}\r\n\r\n${json}`);
    }

    _wake() {
        const woken = this._woken;
        this._woken = [];
        for (const each of woken)
            each();
    }

    /** What `find` returns, as soon as that is not undefined; it is called again after each message. */
    async until(what, find) {
        const end = Date.now() + MILLISECONDS;
        for (;;) {
            const found = find();
            if (found !== undefined)
                return found;
            const left = end - Date.now();
            if (this.isOver || left <= 0)
                throw new Error(`${this.isOver ? "the adapter ended" : "nothing came"} while waiting for ${what}; events: `
                                + `${this.events.map((each) => each.event)}; printed: ${JSON.stringify(this.printed)}; `
                                + `the adapter said: ${this.errors}`);
            await new Promise((resolve) => {
                const timer = setTimeout(resolve, left);
                this._woken.push(() => { clearTimeout(timer); resolve(); });
            });
        }
    }

    /** The body of the next event of that name (and for which `fits` holds); the others stay. */
    async event(name, fits = () => true) {
        return this.until(`the event ${name}`, () => {
            const index = this.events.findIndex((each) => each.event === name && fits(each.body || {}));
            return index < 0 ? undefined : this.events.splice(index, 1)[0].body || {};
        });
    }

    async output(category, text) {
        return this.until(`${text} on ${category}`, () => (this.printed[category] || "").includes(text) || undefined);
    }

    /** The body of the response, which has to be a success. */
    async ask(command, args) {
        return (await within(this.send(command, args), `an answer to ${command}`)).body;
    }

    /** The message of the response, which has to be a failure. */
    async refused(command, args) {
        let body;
        try {
            body = await this.ask(command, args);
        } catch (error) {
            return error.message;
        }
        throw new assert.AssertionError({ message: `${command} succeeded: ${JSON.stringify(body)}` });
    }

    // -- beginning ------------------------------------------------------------------------------

    write(name, text) {
        const file = path.join(this.folder, name);
        fs.mkdirSync(path.dirname(file), { recursive: true });
        fs.writeFileSync(file, text);
        return file;
    }

    /** The number of the line whose comment ends in `mark`. */
    line(file, mark) {
        const index = fs.readFileSync(file, "utf8").split("\n").findIndex((each) => each.endsWith("# " + mark));
        assert.notEqual(index, -1, `no line is marked ${mark}`);
        return index + 1;
    }

    async initialize(more = {}) {
        this.capabilities = await this.ask("initialize", {
            adapterID: "python", pathFormat: "path", linesStartAt1: true, columnsStartAt1: true, ...more });
    }

    /** initialize, launch or attach, breakpoints (file -> lines, or the protocol's objects), configurationDone. */
    async begin(request, args, breakpoints = {}, { initialize = {}, exceptions = null, configure = async () => {} } = {}) {
        await this.initialize(initialize);
        const begun = this.ask(request, args);
        begun.catch(() => {});
        await Promise.race([this.event("initialized"), begun.then(() => new Promise(() => {}))]);     // or a refusal
        this.breakpoints = {};
        for (const [file, rows] of Object.entries(breakpoints))
            this.breakpoints[file] = await this.setBreakpoints(file, rows);
        if (exceptions)
            this.filters = await this.ask("setExceptionBreakpoints", Array.isArray(exceptions) ? { filters: exceptions } : exceptions);
        await configure();
        await this.ask("configurationDone");
        await begun;
    }

    /** `launch` with breakpoints: of the name that DebugClient has left. */
    async debug(program, breakpoints, { args = {}, ...options } = {}) {
        await this.begin("launch", { program, console: "internalConsole", cwd: this.folder, ...args }, breakpoints, options);
    }

    async setBreakpoints(file, rows) {
        const breakpoints = rows.map((each) => (typeof each === "number" ? { line: each } : each));
        return (await this.ask("setBreakpoints", { source: { path: file }, breakpoints })).breakpoints;
    }

    // -- stops ----------------------------------------------------------------------------------

    /** The next stop: its event, with `frame`, the innermost one, and `frames`. */
    async stopped(reason) {
        const event = await this.event("stopped");
        if (reason)
            assert.equal(event.reason, reason);
        this.thread = event.threadId;
        event.frames = await this.frames(event.threadId);
        event.frame = event.frames[0];
        this.frame = event.frame.id;
        this.frameLine = event.frame.line;
        return event;
    }

    async frames(threadId = this.thread) {
        return (await this.ask("stackTrace", { threadId })).stackFrames;
    }

    async goOn(command = "continue", args = {}) {
        await this.ask(command, { threadId: this.thread, ...args });
    }

    /** A step, and where it ends: function and line. */
    async step(command) {
        await this.goOn(command);
        const { frame } = await this.stopped("step");
        return [frame.name, frame.line];
    }

    async evaluate(expression, context = "watch", frameId = this.frame) {
        return (await this.ask("evaluate", { expression, context, frameId })).result;
    }

    async refusal(expression, context = "watch") {
        return this.refused("evaluate", { expression, context, frameId: this.frame });
    }

    async variables(variablesReference, more = {}) {
        return (await this.ask("variables", { variablesReference, ...more })).variables;
    }

    async scope(name = "Locals", frameId = this.frame) {
        return (await this.ask("scopes", { frameId })).scopes.find((each) => each.name === name);
    }

    async local(name, frameId = this.frame) {
        const rows = await this.variables((await this.scope("Locals", frameId)).variablesReference);
        return rows.find((each) => each.name === name);
    }

    /** The rows of what a variable has in it, without the groups of special names. */
    async children(row, more = {}) {
        return (await this.variables(row.variablesReference, more)).filter(
            (each) => !/^(special|function|class|protected) variables$|^len\(\)$/.test(each.name));
    }

    async threadNames() {
        return (await this.ask("threads")).threads.map((each) => each.name);
    }

    // -- ending ---------------------------------------------------------------------------------

    /** The program's exit status, once it has ended. */
    async ended() {
        const { exitCode } = await this.event("exited");
        await this.event("terminated");
        return exitCode;
    }

    /** No process of the session is left, and what was said was the protocol's. */
    async close() {
        const process_ = this._adapterProcess;
        if (!this.isOver)
            await Promise.race([this.send("disconnect", {}).catch(() => {}), closedOrLater(this, 20000)]);
        if (process_ && process_.exitCode === null && process_.signalCode === null) {
            process_.stdin.end();            // one that was not begun ends by that
            const ended = new Promise((resolve) => process_.on("exit", resolve));
            await Promise.race([ended, new Promise((resolve) => setTimeout(resolve, 5000).unref())]);
            try {
                process.kill(-process_.pid, "SIGKILL");
            } catch { /* it has ended */ }
        }
        this.stopAdapter();
    }
}

function closedOrLater(session, milliseconds) {
    return new Promise((resolve) => {
        const timer = setTimeout(resolve, milliseconds);
        session._woken.push(function again() {
            if (session.isOver) { clearTimeout(timer); resolve(); } else session._woken.push(again);
        });
    });
}

function within(promise, what, milliseconds = MILLISECONDS) {
    let timer;
    const late = new Promise((_, reject) => { timer = setTimeout(() => reject(new Error(`${what} did not come`)), milliseconds); });
    return Promise.race([promise, late]).finally(() => clearTimeout(timer));
}

/** A program that lets clients in: a child with `port`, read from its standard error. */
async function serve(s, args, more = {}) {
    const child = childProcess.spawn(PYTHON, args, { cwd: s.folder, stdio: ["ignore", "pipe", "pipe"], ...more });
    s.served.push(child);
    child.text = { out: "", err: "" };
    child.stdout.on("data", (data) => { child.text.out += data; });
    child.ended = new Promise((resolve) => child.on("close", (code, signal) => resolve(code === null ? signal : code)));
    child.said = (pattern) => within(new Promise((resolve) => {
        const look = () => {
            const match = pattern.exec(child.text.err);
            if (match) resolve(match);
        };
        child.stderr.on("data", look);
        look();
    }), `${pattern} from the program`);
    child.stderr.on("data", (data) => { child.text.err += data; });
    return child;
}

/** A program that waits for clients at `child.port`. */
async function listening(s, text, { waits = true, options = [] } = {}) {
    const file = s.write("served.py", text);
    const more = [...(waits ? ["--wait-for-client"] : []), ...options, file];
    let child;
    if (IS_OWN) {
        child = await serve(s, ["-m", "brixdebug", "--listen", "0", ...more]);
        child.port = Number((await child.said(/listening at 127\.0\.0\.1:(\d+)\n/))[1]);
    } else {
        const port = await freePort();
        child = await serve(s, ["-m", "debugpy", "--listen", `${port}`, ...more]);
        child.port = port;
    }
    child.file = file;
    return child;
}

function freePort() {
    return new Promise((resolve) => {
        const server = net.createServer().listen(0, "127.0.0.1", () => {
            const { port } = server.address();
            server.close(() => resolve(port));
        });
    });
}

async function run(body, t) {
    const folder = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), "scenario-")));
    const sessions = [];
    const make = async (port) => {
        const session = new Session(folder);
        session.served = sessions.served;
        session.another = make;
        sessions.push(session);
        await session.start(port);
        return session;
    };
    sessions.served = [];
    try {
        await body(await make(), t);
    } finally {
        for (const each of sessions)
            await each.close();
        for (const child of sessions.served)
            child.kill("SIGKILL");
        fs.rmSync(folder, { recursive: true, force: true });
    }
    if (IS_OWN)
        assert.deepEqual(sessions.flatMap((each) => each.conversation.problems), []);
}

/** A test that a session of its own runs.  With the reference adapter, those of `differences.js` have to fail, or may. */
function scenario(title, body) {
    const difference = IS_OWN ? undefined : DIFFERENCES[title];
    const sometimes = IS_OWN ? undefined : SOMETIMES[title];
    test(title, { timeout: 3 * MILLISECONDS }, async (t) => {
        if (sometimes !== undefined) {
            await run(body, t).catch(() => t.diagnostic(`differs: ${sometimes}`));
            return;
        }
        if (difference === undefined) {
            await run(body, t);
            return;
        }
        await assert.rejects(run(body, t), undefined, `no difference any more: ${difference}`);
        t.diagnostic(`differs: ${difference}`);
    });
}

module.exports = { IS_OWN, PYTHON, freePort, listening, scenario, serve };
