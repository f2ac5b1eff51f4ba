"use strict";
/* The Debug Adapter Protocol as a JSON schema, and messages held against it.

   The schema is made from the declarations of the protocol's authors.  It knows each property: one that the protocol does
   not name is as wrong as a missing one, except in the arguments of `launch`, `attach` and `restart`, which are ours. */

const Ajv = require("ajv");
const fs = require("node:fs");
const path = require("node:path");

const SCHEMA_FILE = path.join(process.env.EDITORS_DIR || ".", "schema.json");
const OPEN_ARGUMENTS = ["LaunchRequestArguments", "AttachRequestArguments", "RestartArguments"];

/** Makes the schema from the declarations. */
function makeSchema() {
    const declarations = require.resolve("@vscode/debugprotocol/package.json").replace("package.json", "lib/debugProtocol.d.ts");
    const { createGenerator } = require("ts-json-schema-generator");
    const schema = createGenerator({ path: declarations, type: "*", skipTypeCheck: true, expose: "export" })
        .createSchema("*");
    for (const name of OPEN_ARGUMENTS)
        schema.definitions["DebugProtocol." + name].additionalProperties = true;
    return schema;
}

function readSchema() {
    if (!fs.existsSync(SCHEMA_FILE)) {
        const own = `${SCHEMA_FILE}.${process.pid}`;         // another process may be making it as well
        fs.writeFileSync(own, JSON.stringify(makeSchema()));
        fs.renameSync(own, SCHEMA_FILE);
    }
    return JSON.parse(fs.readFileSync(SCHEMA_FILE, "utf8"));
}

/** Checks the messages of one session, in both directions. */
class Conversation {
    static ajv = null;
    static names = null;

    constructor() {
        if (Conversation.ajv === null) {
            const schema = readSchema();
            Conversation.names = new Set(Object.keys(schema.definitions));
            Conversation.ajv = new Ajv({ strict: false, allowUnionTypes: true }).addSchema(schema, "dap");
        }
        this.problems = [];
        this.count = 0;
        this._wrong = new Map();             // side and seq of a request that is none -> what is wrong with it
    }

    /** `side`: who sends it, "client" or "adapter". */
    add(side, message) {
        this.count += 1;
        const wrong = Conversation.errors(message);
        if (message.type === "request" && side === "client") {
            if (wrong)
                this._wrong.set(message.seq, wrong);         // a test may send one; it has to be refused
        } else if (wrong) {
            this.problems.push(`${side}: ${wrong}: ${JSON.stringify(message).slice(0, 1000)}`);
        } else if (message.type === "response" && side === "adapter" && this._wrong.has(message.request_seq) && message.success) {
            this.problems.push(`adapter: accepted what the protocol does not have: ${this._wrong.get(message.request_seq)}`);
        }
    }

    /** What is wrong with a message, "" if nothing. */
    static errors(message) {
        const name = definition(message);
        if (!Conversation.names.has(name))
            return `the protocol has no ${name}`;
        const check = Conversation.ajv.getSchema(`dap#/definitions/${name}`);
        return check(message) ? "" : Conversation.ajv.errorsText(check.errors, { dataVar: message.command || message.event });
    }
}

function definition(message) {
    if (message.type === "response" && !message.success)
        return "DebugProtocol.ErrorResponse";
    const kinds = { request: ["command", "Request"], response: ["command", "Response"], event: ["event", "Event"] };
    const [key, suffix] = kinds[message.type] || ["type", "Message"];
    const name = String(message[key]);
    return `DebugProtocol.${name.charAt(0).toUpperCase()}${name.slice(1)}${suffix}`;
}

module.exports = { Conversation };
