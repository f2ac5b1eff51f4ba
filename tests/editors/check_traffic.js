"use strict";
/* Holds the recorded traffic of tests against the protocol's schema.

   python3 run_node.py check_traffic.js FOLDER

   FOLDER has a file for each session, with a line for each message: {"from": "client" or "adapter", "message": ...}. */

const fs = require("node:fs");
const path = require("node:path");
const { Conversation } = require("./protocol");
const { writeReport } = require("./report");

function checkFile(file) {
    const conversation = new Conversation();
    for (const line of fs.readFileSync(file, "utf8").split("\n"))
        if (line) {
            const { from, message } = JSON.parse(line);
            conversation.add(from, message);
        }
    return conversation;
}

function main([folder]) {
    const files = fs.existsSync(folder) ? fs.readdirSync(folder).filter((name) => name.endsWith(".jsonl")) : [];
    let messages = 0, bad = 0;
    for (const file of files) {
        const { count, problems } = checkFile(path.join(folder, file));
        messages += count;
        bad += problems.length > 0;
        for (const each of problems)
            console.log(`${file}: ${each}`);
    }
    console.log(`${messages} messages of ${files.length} sessions, ${bad} sessions with wrong ones`);
    writeReport({ passed: files.length - bad, failed: bad, skipped: files.length ? {} : { "no session was recorded": 1 } });
    process.exitCode = bad ? 1 : 0;
}

main(process.argv.slice(2));
