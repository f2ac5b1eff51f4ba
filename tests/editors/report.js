"use strict";
/* What a run came to, for the table of results. */

const fs = require("node:fs");

/** `result`: passed and failed, numbers, and skipped, an object of reasons and numbers. */
function writeReport(result) {
    const { EDITORS_REPORT: file, EDITORS_INTERPRETER: interpreter, EDITORS_SUITE: suite } = process.env;
    if (file)
        fs.writeFileSync(file, JSON.stringify({ interpreter, suite, ...result }));
}

module.exports = { writeReport };
