"use strict";
/* The protocol itself: what is said in which state, and nothing but the protocol. */

const assert = require("node:assert/strict");
const { scenario } = require("./session");

async function standing(s) {
    const file = s.write("program.py", "x = 1\ny = 2\n");
    await s.debug(file, { [file]: [1] });
    await s.stopped("breakpoint");
    return file;
}

scenario("initialize comes first", async (s) => {
    await s.refused("threads");
});

scenario("initialize comes once", async (s) => {
    await s.initialize();
    await s.refused("initialize", { adapterID: "python" });
});

scenario("requests before launch are refused", async (s) => {
    await s.initialize();
    for (const command of ["threads", "configurationDone"])
        await s.refused(command);
});

scenario("an unknown request is refused, and the session goes on", async (s) => {
    await standing(s);
    await s.refused("nonsense", {});
    assert.equal(await s.evaluate("x + 1 if 'x' in globals() else 2"), "2");
});

for (const [command, args] of [
    ["stackTrace", { threadId: "1" }], ["stackTrace", {}], ["variables", { variablesReference: "x" }], ["evaluate", { expression: 1 }],
    ["evaluate", {}], ["setBreakpoints", { source: 5 }], ["next", { threadId: true }], ["scopes", { frameId: [] }],
    ["setVariable", { variablesReference: 1 }], ["completions", { text: 5, column: 1 }]])
    scenario(`refused, and the session goes on: ${command} ${JSON.stringify(args)}`, async (s) => {
        await standing(s);
        await s.refused(command, args);
        assert.equal(await s.evaluate("1 + 1"), "2");
    });

for (const [command, args] of [["stackTrace", { threadId: 9999 }], ["variables", { variablesReference: 99999 }], ["scopes", { frameId: 99999 }],
    ["evaluate", { expression: "1", frameId: 99999 }]])
    scenario(`a number that was never given is refused: ${command}`, async (s) => {
        await standing(s);
        await s.refused(command, args);
        assert.equal(await s.evaluate("1 + 1"), "2");
    });

scenario("what needs a stop is refused while the program runs", async (s) => {
    await s.debug(s.write("program.py", "import time\nprint('ready', flush=True)\ntime.sleep(1000)\n"));
    await s.output("stdout", "ready");
    await s.refused("scopes", { frameId: 1 });
    await s.refused("variables", { variablesReference: 1 });
});

scenario("requests sent together are answered in their order, each once", async (s) => {
    await standing(s);
    const order = [];
    await Promise.all(Array.from({ length: 50 }, (_, n) =>
        s.ask("evaluate", { expression: `${n}`, context: "watch", frameId: s.frame }).then(({ result }) => order.push(Number(result)))));
    assert.deepEqual(order, Array.from({ length: 50 }, (_, n) => n));
});

scenario("what is offered is there: no capability's request is unknown", async (s) => {
    await s.initialize();
    // ADD-REQUEST: its capability; this fails until it is here.
    const requests = {
        supportsFunctionBreakpoints: ["setFunctionBreakpoints", { breakpoints: [] }],
        supportsSetVariable: ["setVariable", { variablesReference: 0, name: "x", value: "1" }],
        supportsRestartFrame: ["restartFrame", { frameId: 0 }],
        supportsGotoTargetsRequest: ["gotoTargets", { source: { path: "/x" }, line: 1 }],
        supportsStepInTargetsRequest: ["stepInTargets", { frameId: 0 }],
        supportsCompletionsRequest: ["completions", { text: "x", column: 1 }],
        supportsModulesRequest: ["modules", { startModule: 0 }],
        supportsExceptionInfoRequest: ["exceptionInfo", { threadId: 1 }],
        supportsLoadedSourcesRequest: ["loadedSources", {}],
        supportsDataBreakpoints: ["dataBreakpointInfo", { name: "x" }],
        supportsReadMemoryRequest: ["readMemory", { memoryReference: "0", count: 1 }],
        supportsWriteMemoryRequest: ["writeMemory", { memoryReference: "0", data: "" }],
        supportsDisassembleRequest: ["disassemble", { memoryReference: "0", instructionCount: 1 }],
        supportsCancelRequest: ["cancel", {}],
        supportsBreakpointLocationsRequest: ["breakpointLocations", { source: { path: "/x" }, line: 1 }],
        supportsSetExpression: ["setExpression", { expression: "x", value: "1" }],
        supportsTerminateThreadsRequest: ["terminateThreads", { threadIds: [] }],
        supportsInstructionBreakpoints: ["setInstructionBreakpoints", { breakpoints: [] }],
        supportsStepBack: ["stepBack", { threadId: 1 }],
    };
    const ofOtherRequests = [
        "supportsConfigurationDoneRequest", "supportsConditionalBreakpoints", "supportsHitConditionalBreakpoints", "supportsLogPoints",
        "supportsEvaluateForHovers", "supportsSingleThreadExecutionRequests", "supportsExceptionFilterOptions", "supportsExceptionOptions",
        "supportsTerminateRequest", "supportTerminateDebuggee", "supportsDelayedStackTraceLoading", "supportsValueFormattingOptions",
        "supportsClipboardContext", "supportsRestartRequest",
    ];
    const unknown = Object.keys(s.capabilities).filter((name) => name.startsWith("support") && !(name in requests)
        && !ofOtherRequests.includes(name));
    assert.deepEqual(unknown, [], "capabilities that this scenario does not know");
    const offered = Object.entries(requests).filter(([capability]) => s.capabilities[capability]);
    assert.ok(offered.length >= 8, `${offered}`);
    const file = s.write("program.py", "x = 1\n");
    const begun = s.ask("launch", { program: file, console: "internalConsole", cwd: s.folder });
    await s.event("initialized");
    await s.setBreakpoints(file, [1]);
    await s.ask("configurationDone");
    await begun;
    await s.stopped("breakpoint");
    for (const [, [command, args]] of offered)
        await s.send(command, args).catch((error) => assert.doesNotMatch(error.message, /not supported|unknown/i, command));
});

scenario("only events of the protocol are sent", async (s) => {
    await standing(s);
    await s.step("next");
    await s.goOn();
    await s.ended();
    assert.deepEqual(s.conversation.problems, []);
});

scenario("nothing is said after the answer to disconnect", async (s) => {
    await standing(s);
    await s.ask("disconnect", {});
    const before = s.conversation.count;
    await s.until("the end", () => s.isOver || undefined).catch(() => {});
    assert.equal(s.conversation.count, before);
});
