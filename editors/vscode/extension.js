"use strict";
/* The interpreter that the user chose in the editor runs the adapter, and the program if its configuration names none. */

const vscode = require("vscode");

const TYPE = "brixdebug";
const DEFAULT = { name: "Python: this file", type: TYPE, request: "launch", program: "${file}", console: "integratedTerminal" };

/** The path, undefined where no extension offers a choice. */
async function chosenInterpreter(folder) {
    try {
        return await vscode.commands.executeCommand("python.interpreterPath", { workspaceFolder: folder && folder.uri.fsPath });
    } catch {
        return undefined;                    // nobody knows the command
    }
}

const configurations = {
    async resolveDebugConfiguration(folder, given) {
        const isNone = !given.type && !given.request && !given.name;     // there is no launch.json
        if (isNone && vscode.window.activeTextEditor?.document.languageId !== "python")
            return given;
        const configuration = isNone ? { ...DEFAULT } : given;
        if (configuration.request === "launch" && !configuration.python && !configuration.pythonPath) {
            const python = await chosenInterpreter(folder);
            if (python)
                configuration.python = python;
        }
        if (configuration.request === "launch" && !configuration.cwd && folder)
            configuration.cwd = folder.uri.fsPath;       // where the user looks for modules
        return configuration;
    },
};

/** What a session's configuration names, or for a child's session that of the program which has started it. */
const namedInterpreter = (session) => session &&
    (session.configuration.python || session.configuration.pythonPath || namedInterpreter(session.parentSession));

const adapters = {
    async createDebugAdapterDescriptor(session) {
        const own = vscode.workspace.getConfiguration(TYPE, session.workspaceFolder).get("adapterPython");
        const [command] = [own || namedInterpreter(session) || await chosenInterpreter(session.workspaceFolder) || "python3"].flat();
        return new vscode.DebugAdapterExecutable(command, ["-m", "brixdebug.dap"]);
    },
};

exports.activate = (context) => {
    context.subscriptions.push(vscode.debug.registerDebugConfigurationProvider(TYPE, configurations),
                               vscode.debug.registerDebugAdapterDescriptorFactory(TYPE, adapters));
};
