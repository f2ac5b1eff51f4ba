"use strict";
/* What the extension makes of a configuration, with a stand-in for the editor. */

const assert = require("node:assert/strict");
const Module = require("node:module");
const path = require("node:path");
const test = require("node:test");

const registered = {}, adapters = {};
const vscode = {
    commands: { executeCommand: async () => "/chosen/python" },
    debug: {
        registerDebugConfigurationProvider: (type, provider) => { registered[type] = provider; return {}; },
        registerDebugAdapterDescriptorFactory: (type, factory) => { adapters[type] = factory; return {}; },
    },
    window: {},
    workspace: { getConfiguration: () => ({ get: () => undefined }) },
    DebugAdapterExecutable: class { constructor(command, args) { Object.assign(this, { command, args }); } },
};
const load = Module._load;
Module._load = (name, ...rest) => name === "vscode" ? vscode : load(name, ...rest);
require(path.join(__dirname, "..", "..", "editors", "vscode", "extension.js")).activate({ subscriptions: [] });

const resolve = (folder, given) => registered.brixdebug.resolveDebugConfiguration(folder && { uri: { fsPath: folder } }, given);
const MODULE = { type: "brixdebug", name: "x", request: "launch", module: "gunicorn" };
const ATTACH = { type: "brixdebug", name: "x", request: "attach", connect: { port: 1 } };

test("a program runs in the folder that is open, by the interpreter that is chosen", async () => {
    assert.deepEqual(await resolve("/work", { ...MODULE }), { ...MODULE, cwd: "/work", python: "/chosen/python" });
    assert.deepEqual(await resolve(undefined, { ...MODULE }), { ...MODULE, python: "/chosen/python" });
});

test("what a configuration says itself holds", async () => {
    const given = { ...MODULE, cwd: "/elsewhere", python: "/own/python" };
    assert.deepEqual(await resolve("/work", { ...given }), given);
    assert.deepEqual(await resolve("/work", { ...ATTACH }), ATTACH);
});

test("sessions of children have the adapter of the program that started them", async () => {
    const program = { configuration: { ...MODULE, python: ["/own/python", "-X", "dev"] } };
    const child = { configuration: ATTACH, parentSession: program };
    for (const session of [program, child, { configuration: ATTACH, parentSession: child }])
        assert.deepEqual({ ...await adapters.brixdebug.createDebugAdapterDescriptor(session) },
            { command: "/own/python", args: ["-m", "brixdebug.dap"] });
    assert.equal((await adapters.brixdebug.createDebugAdapterDescriptor({ configuration: ATTACH })).command, "/chosen/python");
});
