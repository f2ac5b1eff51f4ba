"use strict";
/* Scenarios in which the reference adapter, debugpy 1.8, does otherwise, each with what it does.

   `make test-reference` runs the scenarios with it, but for attaching and children: those of the first table have to fail
   there, those of the second may, and all others have to pass. */

const DEFAULT_TEXT = "has a text of its own, which does not name the argument so";
const SHELL = "splits a text only in a terminal's shell";
const NO_PAGES = "has no pages: it sends the first 300 elements, methods among them";

// ADD-REQUEST: what debugpy does otherwise, and why.
const DIFFERENCES = {
    // launching
    "a program killed by a signal ends with 128 and its number": "ends with 256 less the number",
    "an uncaught exception ends with 1 and a traceback of the program alone": "the traceback begins with the debugger's own frames",
    "arguments as one text are split as a shell does": SHELL,
    "numbers among the arguments": "refuses numbers",
    "a program has the globals, the path and the arguments that it has without a debugger": "its package is a text, not None",
    "a module has the globals, the path and the arguments that it has without a debugger":
        "its globals and its first folder are those of the debugger's own start",
    "a code has the globals, the path and the arguments that it has without a debugger": "runs it in builtins, not in __main__",
    "a file of variables": "leaves envFile to the editor",
    "without debugging no breakpoint stops": "sends no initialized event then",
    "a refused terminal is a refused launch": "waits for ever",
    "an editor without terminals shows the output itself": "refuses the launch",
    "refused: nothing to run": DEFAULT_TEXT,
    "refused: two programs": DEFAULT_TEXT,
    "refused: a program that is no text": DEFAULT_TEXT,
    "refused: a program that is not there": DEFAULT_TEXT,
    "refused: arguments that are no list": DEFAULT_TEXT,
    "refused: an unknown console": DEFAULT_TEXT,
    "refused: an environment that is no object": DEFAULT_TEXT,
    "refused: a flag that is none": DEFAULT_TEXT,
    "refused: a folder that is not there": DEFAULT_TEXT,
    "refused: a file of variables that is not there": "leaves envFile to the editor",
    "refused: sudo": "starts sudo",
    "refused: code that cannot be split": SHELL,
    // steps and threads
    "what a function returned is shown after it": "shows it in a group of its own, which it names otherwise",
    "what calls returned is shown after the step over them": "shows it in a group of its own, the last value for each name",
    "a step off a raise goes on in the caller's handler": "loses the step: the program runs on",
    "steps in a loop": "calls a step that ends at a breakpoint's line a stop at the breakpoint",
    "step in goes into the class's __init__": "names functions without their class",
    "go to a line of another function is refused": "goes to some other line",
    "pause stops a thread that waits in C code": "waits for the end of the C code",
    "steps stay in their thread": "the step never ends: the other threads wait for the one that makes it",
    // exceptions
    "raised stops once for each exception, not in every frame on its way": "stops in every frame on its way",
    "a condition of a filter: a class": "has no options of filters",
    "a condition of a filter that is none is refused with the reason": "does not answer for each filter",
    "information: what it came from": "shows no inner exceptions",
    "information: the exceptions of a group": "shows no inner exceptions",
    "information without an exception is refused": "answers with the text that there is none",
    // breakpoints
    "files named by URIs": "refuses an editor that does so",
    "a prompt that the program opens itself is a stop": "the prompt opens on the program's standard output",
    "a breakpoint on a comment holds at the next statement": "moves it back, to the def",
    "a breakpoint after the last statement is not verified, with the reason": "verifies it",
    "a breakpoint in a file that is not there is not verified, with the reason": "has a text of its own",
    "a breakpoint in an exit function": "does not stop there any more",
    "a condition that is no expression is refused with the reason": "verifies it",
    "a condition and a hit condition hold together": "stops if either holds",
    "a hit condition that is none is refused with the reason": "verifies it",
    "an expression of a log point that fails leaves the others": "drops the whole message",
    "braces of a log point's own": "has none",
    "lines that can have a breakpoint": "does not answer breakpointLocations",
    "lines counted from 0": "answers setBreakpoints with lines counted from 1",
    // values
    "locals are those of the frame, in their order": "puts classes into a group",
    "properties run when the user asks for them": "runs them at once",
    "a page of a long list": NO_PAGES,
    "a page of a long tuple and a long dict": NO_PAGES,
    "a tree of a million elements": NO_PAGES,
    "values are short in lists of variables, and whole on the clipboard": "cuts what goes to the clipboard",
    "a repr that does not end is shown as such, beside the others": "waits for its end",
    "a repr that raises is shown as such": "has a text of its own",
    "a repr that recurses without end": "has a text of its own",
    "a dict whose len lies": "believes it",
    "an expression that exits does not end the program": "does not answer",
    "a value that is none is refused, and nothing is changed": "answers success",
    "memory of bytes": "has no readMemory",
    "bytes are written into a bytearray, and not into bytes": "has no writeMemory",
    "modules, with their files": "lists those alone that it has shown frames of",
    "loaded sources": "does not answer loadedSources",
    "the text of code that is in no file": "does not look for it where the program keeps it",
    "numbers of a stop that has gone are refused": "answers with what they were",
    // the protocol
    'refused, and the session goes on: next {"threadId":true}': "takes true for the number 1",
    "what needs a stop is refused while the program runs": "answers with an empty list",
    "only events of the protocol are sent": "sends events of its own",
    "what is offered is there: no capability's request is unknown": "offers what the protocol does not have (supportsDebuggerProperties)",
    // requests that not every adapter has
    "a breakpoint on the function buy": "stops at the line of the def",
    "a breakpoint on the function sell": "stops at the line of the def",
    "a breakpoint on the function Shop.sell": "finds functions by their bare names alone",
    "a breakpoint on the function __main__.Shop.sell": "finds functions by their bare names alone",
    "a breakpoint on the second statement of a line": "has no columns",
    "the statements of a line that can have a breakpoint": "does not answer breakpointLocations",
    "a data breakpoint stops where an attribute changes": "has no data breakpoints",
    "a data breakpoint on a local variable": "has no data breakpoints",
    "a function is started again": "has no restartFrame",
    "a step of one thread leaves the others where they are": "ignores singleThread",
    "an expression that does not end is cancelled": "has no cancel",
    "an exception that leaves the user's own code": "shows the frame under another name",
    "messages are written to a file": "takes logToFile for a log of its own",
};

// By the interpreter's version, the machine's speed, or chance.
const SOMETIMES = {
    "a folder has the globals, the path and the arguments that it has without a debugger": "has no __annotations__ before 3.14",
    "step in goes into a generator, and next over its yield stays in it": "goes to the caller from some version on",
    "100 threads reach a breakpoint": "a stopped thread may not be found for an expression",
    "what was printed before a stop is shown before it": "may show it later",
    "a log point with a condition": "shows messages after what the program has printed later",
    "1,000 breakpoints": "may take longer than a scenario waits",
};

module.exports = { DIFFERENCES, SOMETIMES };
