"use strict";
/* What the extension makes of a configuration, with a stand-in for the editor. */

const assert = require("node:assert/strict");
const Module = require("node:module");
const path = require("node:path");
const test = require("node:test");

const registered = {};
const vscode = {
    commands: { executeCommand: async () => "/chosen/python" },
    debug: {
        registerDebugConfigurationProvider: (type, provider) => { registered[type] = provider; return {}; },
        registerDebugAdapterDescriptorFactory: () => ({}),
    },
    window: {},
    workspace: {},
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
