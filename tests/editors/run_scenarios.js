"use strict";
/* Runs the scenarios: python3 run_node.py run_scenarios.js [FILE...] */

const fs = require("node:fs");
const path = require("node:path");
const { run } = require("node:test");
const { spec } = require("node:test/reporters");
const { writeReport } = require("./report");

// How programs let clients in, how children come to sessions of their own, and what the extension adds is each adapter's own affair.
const OWN_FILES = ["attaching.test.js", "children.test.js", "extension.test.js"];

function files(named) {
    const isOwn = (process.env.ADAPTER || "brixdebug") === "brixdebug";
    const names = named.length ? named : fs.readdirSync(__dirname).filter(
        (name) => name.endsWith(".test.js") && (isOwn || !OWN_FILES.includes(name)));
    return names.map((name) => path.join(__dirname, name));
}

const result = { passed: 0, failed: 0, skipped: {} };
const stream = run({ files: files(process.argv.slice(2)), concurrency: 2 });
stream.on("test:pass", () => { result.passed += 1; });
stream.on("test:fail", () => { result.failed += 1; process.exitCode = 1; });
stream.compose(spec).pipe(process.stdout);
process.on("exit", () => {
    if (!result.passed)
        process.exitCode = 1;
    writeReport(result);
});
