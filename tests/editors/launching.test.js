"use strict";
/* Programs as they are started, and as they end. */

const assert = require("node:assert/strict");
const childProcess = require("node:child_process");
const path = require("node:path");
const { IS_OWN, PYTHON, scenario } = require("./session");

/** What a program of one text prints, started with `args`. */
async function printed(s, text, args = {}, name = "program.py") {
    await s.debug(s.write(name, text), {}, { args });
    assert.equal(await s.ended(), 0);
    return s.printed.stdout;
}

scenario("a program runs to its end", async (s) => {
    await s.debug(s.write("program.py", "x = 1\n"));
    assert.equal(await s.ended(), 0);
});

scenario("sys.exit gives the exit status", async (s) => {
    await s.debug(s.write("program.py", "import sys\nsys.exit(3)\n"));
    assert.equal(await s.ended(), 3);
});

scenario("sys.exit with a text prints it and ends with 1", async (s) => {
    await s.debug(s.write("program.py", "import sys\nsys.exit('no more')\n"));
    assert.equal(await s.ended(), 1);
    assert.equal(s.printed.stderr, "no more\n");
});

scenario("os._exit gives the exit status", async (s) => {
    await s.debug(s.write("program.py", "import os\nos._exit(5)\n"));
    assert.equal(await s.ended(), 5);
});

scenario("a program killed by a signal ends with 128 and its number", async (s) => {
    await s.debug(s.write("program.py", "import os, signal\nos.kill(os.getpid(), signal.SIGKILL)\n"));
    assert.equal(await s.ended(), 137);
});

scenario("an uncaught exception ends with 1 and a traceback of the program alone", async (s) => {
    const file = s.write("program.py", "def fail():\n    raise ValueError('on purpose')\nfail()\n");
    await s.debug(file, {}, { exceptions: [] });
    assert.equal(await s.ended(), 1);
    assert.match(s.printed.stderr, /^Traceback \(most recent call last\):\n  File ".*program\.py", line 3, in <module>\n/);
    assert.match(s.printed.stderr, /\nValueError: on purpose\n$/);
});

scenario("a syntax error ends with 1 and is shown", async (s) => {
    await s.debug(s.write("program.py", "x = 1\ny = (\n"), {}, { exceptions: [] });
    assert.equal(await s.ended(), 1);
    assert.match(s.printed.stderr, /SyntaxError: '\(' was never closed\n$/);
});

scenario("arguments as a list", async (s) => {
    assert.equal(await printed(s, "import sys; print(sys.argv[1:])", { args: ["-a", "two words", ""] }), "['-a', 'two words', '']\n");
});

scenario("arguments as one text are split as a shell does", async (s) => {
    assert.equal(await printed(s, "import sys; print(sys.argv[1:])", { args: "-a 'two words' b" }), "['-a', 'two words', 'b']\n");
});

scenario("numbers among the arguments", async (s) => {
    assert.equal(await printed(s, "import sys; print(sys.argv[1:])", { args: ["--port", 8080] }), "['--port', '8080']\n");
});

scenario("the program's own names", async (s) => {
    const text = "import sys; print(__name__, __file__ == sys.argv[0], __spec__, sys.path[0])";
    assert.equal(await printed(s, text), `__main__ True None ${s.folder}\n`);
});

const SURROUNDINGS = "import sys; print(sorted(globals())); print(sys.path[:2], sys.argv[1:], globals().get('__file__'), __name__, __package__)";
for (const [kind, args, command] of [
    ["program", { program: "here.py" }, ["here.py"]],
    ["folder", { program: "folder" }, ["folder"]],
    ["module", { module: "here" }, ["-m", "here"]],
    ["code", { code: SURROUNDINGS }, ["-c", SURROUNDINGS]]])
    scenario(`a ${kind} has the globals, the path and the arguments that it has without a debugger`, async (s) => {
        const files = { "here.py": s.write("here.py", SURROUNDINGS), folder: s.folder + "/folder" };
        s.write("folder/__main__.py", SURROUNDINGS);
        const whole = { ...args, ...(args.program ? { program: files[args.program] } : {}) };
        const plain = childProcess.execFileSync(PYTHON, command.map((each) => files[each] || each), { cwd: s.folder, encoding: "utf8" });
        await s.begin("launch", { ...whole, cwd: s.folder, console: "internalConsole" });
        assert.equal(await s.ended(), 0);
        assert.equal(s.printed.stdout, plain);
    });

scenario("the current folder", async (s) => {
    s.write("inner/there", "");
    assert.equal(await printed(s, "import os; print(os.getcwd())", { cwd: path.join(s.folder, "inner") }),
        path.join(s.folder, "inner") + "\n");
});

scenario("variables of the environment", async (s) => {
    assert.equal(await printed(s, "import os; print(os.environ['GIVEN'], os.environ['EMPTY'] == '')",
        { env: { GIVEN: "a=b c", EMPTY: "" } }), "a=b c True\n");
});

scenario("a variable of the environment that is null is not set", async (s) => {
    assert.equal(await printed(s, "import os; print('HOME' in os.environ)", { env: { HOME: null } }), "False\n");
});

scenario("a file of variables", async (s) => {
    const envFile = s.write("vars", "# a comment\nexport FIRST='a b'\nSECOND=two # more\n\nTHIRD=\"x\\ny\"\n");
    assert.equal(await printed(s, "import os; print([os.environ[n] for n in ('FIRST', 'SECOND', 'THIRD')])", { envFile }),
        "['a b', 'two', 'x\\ny']\n");
});

scenario("a module", async (s) => {
    s.write("some_module.py", "import sys; print(__name__, __spec__.name, sys.argv[1:])");
    await s.begin("launch", { module: "some_module", args: ["x"], cwd: s.folder, console: "internalConsole" });
    assert.equal(await s.ended(), 0);
    assert.equal(s.printed.stdout, "__main__ some_module ['x']\n");
});

scenario("a package with a __main__", async (s) => {
    s.write("some_package/__init__.py", "");
    s.write("some_package/__main__.py", "print(__name__, __package__)");
    await s.begin("launch", { module: "some_package", cwd: s.folder, console: "internalConsole" });
    assert.equal(await s.ended(), 0);
    assert.equal(s.printed.stdout, "__main__ some_package\n");
});

scenario("a folder with a __main__ file", async (s) => {
    s.write("folder/__main__.py", "print(__name__)");
    await s.debug(path.join(s.folder, "folder"));
    assert.equal(await s.ended(), 0);
    assert.equal(s.printed.stdout, "__main__\n");
});

scenario("code as a text", async (s) => {
    await s.begin("launch", { code: "import sys\nsys.exit(4)", cwd: s.folder, console: "internalConsole" });
    assert.equal(await s.ended(), 4);
});

scenario("code as lines", async (s) => {
    await s.begin("launch", { code: ["import sys", "sys.exit(4)"], cwd: s.folder, console: "internalConsole" });
    assert.equal(await s.ended(), 4);
});

scenario("a path with blanks and letters of other alphabets", async (s) => {
    const file = s.write("ein Ordner/dünn – ж.py", "x = 1\ny = 2  # here\n");
    await s.debug(file, { [file]: [2] });
    const { frame } = await s.stopped("breakpoint");
    assert.equal(frame.source.path, file);
});

scenario("stop on entry", async (s) => {
    await s.debug(s.write("program.py", "'a text'\nfirst = 1\nsecond = 2\n"), {}, { args: { stopOnEntry: true } });
    const { frame } = await s.stopped("entry");
    assert.equal(frame.line, 1);
    await s.goOn();
    assert.equal(await s.ended(), 0);
});

scenario("without debugging no breakpoint stops", async (s) => {
    const file = s.write("program.py", "print('there')\n");
    await s.debug(file, { [file]: [1] }, { args: { noDebug: true } });
    assert.equal(await s.ended(), 0);
    assert.equal(s.printed.stdout, "there\n");
});

scenario("the interpreter, and options of its own", async (s) => {
    assert.equal(await printed(s, "import sys; print(sys.flags.optimize, sys.executable != '')",
        { python: [PYTHON], pythonArgs: ["-O"] }), "1 True\n");
});

scenario("both streams of output, each with its category", async (s) => {
    await s.debug(s.write("program.py", "import sys\nprint('out ж', flush=True)\nprint('err', file=sys.stderr)\n"));
    assert.equal(await s.ended(), 0);
    assert.deepEqual([s.printed.stdout, s.printed.stderr], ["out ж\n", "err\n"]);
});

scenario("output of a child process", async (s) => {
    assert.equal(await printed(s, "import os; os.system('echo from a child')"), "from a child\n");
});

scenario("a burst of output comes whole and in order", async (s) => {
    const text = await printed(s, "for n in range(100000): print('line', n)");
    assert.equal(text, Array.from({ length: 100000 }, (_, n) => `line ${n}\n`).join(""));
});

scenario("standard input is at its end", async (s) => {
    assert.equal(await printed(s, "import sys; print(repr(sys.stdin.read()))"), "''\n");
});

scenario("what was printed before a stop is shown before it", async (s) => {
    const file = s.write("program.py", "print('before')\nx = 1\n");
    await s.debug(file, { [file]: [2] });
    await s.event("stopped");
    assert.equal(s.printed.stdout, "before\n");
});

scenario("the process is named in an event", async (s) => {
    const file = s.write("program.py", "import os; print(os.getpid())\n");
    await s.debug(file);
    const { systemProcessId, startMethod, isLocalProcess } = await s.event("process");
    await s.ended();
    assert.deepEqual([`${systemProcessId}\n`, startMethod, isLocalProcess], [s.printed.stdout, "launch", true]);
});

for (const kind of ["integratedTerminal", "externalTerminal"])
    scenario(`the editor's ${kind}`, async (s) => {
        const file = s.write("program.py", "import sys\nx = 1  # here\nsys.exit(4)\n");
        let asked, child;
        s.reverse.runInTerminal = (request) => {
            asked = request;
            const env = { ...process.env };
            for (const [name, value] of Object.entries(request.env || {}))
                if (value === null) delete env[name]; else env[name] = value;
            child = childProcess.spawn(request.args[0], request.args.slice(1), { cwd: request.cwd, env, stdio: "ignore" });
            s.served.push(child);
            return { processId: child.pid };
        };
        await s.debug(file, { [file]: [2] }, { args: { console: kind }, initialize: { supportsRunInTerminalRequest: true } });
        await s.stopped("breakpoint");
        assert.equal(asked.kind, kind.replace("Terminal", ""));
        await s.goOn();
        assert.equal(await s.ended(), 4);
    });

scenario("a refused terminal is a refused launch", async (s) => {
    await s.initialize({ supportsRunInTerminalRequest: true });
    const text = await s.refused("launch", { program: s.write("program.py", "pass\n"), console: "integratedTerminal" });
    assert.match(text, /this editor does not do that/);
});

scenario("an editor without terminals shows the output itself", async (s) => {
    assert.equal(await printed(s, "print('shown')", { console: "integratedTerminal" }), "shown\n");
});

const WRONG = [
    ["nothing to run", {}, /launch needs one of 'program', 'module' and 'code'/],
    ["two programs", { program: "x.py", module: "x" }, /given are 'program' and 'module'/],
    ["a program that is no text", { program: 7 }, /'program' must be a string, not 7/],
    ["a program that is not there", { program: "/no/such.py" }, /\/no\/such\.py/],
    ["arguments that are no list", { args: { a: 1 } }, /'args'/],
    ["an unknown console", { console: "window" }, /'console' must be one of/],
    ["an environment that is no object", { env: ["A=1"] }, /'env'/],
    ["a flag that is none", { stopOnEntry: "yes" }, /'stopOnEntry' must be true or false/],
    ["a folder that is not there", { cwd: "/no/such" }, /'cwd'/],
    ["a file of variables that is not there", { envFile: "/no/such" }, /'envFile' cannot be read/],
    ["an interpreter that does not start", { python: ["/no/python"] }, /\/no\/python/],
    ["sudo", { sudo: true }, /'sudo' is not supported/],
    ["code that cannot be split", { args: "'open" }, /'args' cannot be split/],
];
for (const [title, wrong, text] of WRONG)
    scenario(`refused: ${title}`, async (s) => {
        const program = "program" in wrong || title === "nothing to run" ? {} : { program: s.write("program.py", "pass\n") };
        await s.initialize();
        assert.match(await s.refused("launch", { console: "internalConsole", ...program, ...wrong }), text);
        await s.ask("disconnect", {});
    });

scenario("a setting without a meaning is said once, and the program runs", async (s) => {
    await s.debug(s.write("program.py", "print('there')\n"), {}, { args: { gevent: true, nonsense: 1 } });
    assert.equal(await s.ended(), 0);
    assert.equal(s.printed.stdout, "there\n");
    if (IS_OWN)
        assert.equal(s.printed.console, "These settings have no effect here: gevent, nonsense\n");
});
