"""`initialize`: what the client says of itself is checked, and what this adapter can do is the answer."""

from __future__ import annotations

from brixdebug.dap.asking import RequestError

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any

    from brixdebug.dap.asking import Arguments

# Each is kept by the request, or the argument of one, that it names.
# ADD-REQUEST: its capability, if the protocol has one.
_OF_PROGRAM: dict[str, object] = {
    "supportsConfigurationDoneRequest": True,
    "supportsFunctionBreakpoints": True,
    "supportsDataBreakpoints": True,
    "supportsConditionalBreakpoints": True,
    "supportsHitConditionalBreakpoints": True,
    "supportsLogPoints": True,
    "supportsEvaluateForHovers": True,
    "supportsSetVariable": True,
    "supportsSetExpression": True,
    "supportsGotoTargetsRequest": True,
    "supportsStepInTargetsRequest": True,
    "supportsSingleThreadExecutionRequests": True,
    "supportsRestartFrame": True,
    "supportsTerminateThreadsRequest": True,
    "supportsCompletionsRequest": True,
    "completionTriggerCharacters": ["."],
    "supportsModulesRequest": True,
    "supportsLoadedSourcesRequest": True,
    "supportsExceptionFilterOptions": True,
    "supportsExceptionOptions": True,
    "supportsExceptionInfoRequest": True,
    "supportsBreakpointLocationsRequest": True,
    "supportsTerminateRequest": True,
    "supportTerminateDebuggee": True,
    "supportsDelayedStackTraceLoading": True,
    "supportsValueFormattingOptions": True,
    "supportsClipboardContext": True,
    "supportsCancelRequest": True,
    "supportsReadMemoryRequest": True,
    "supportsWriteMemoryRequest": True,
}
# Kept by the adapter's process alone: it starts the program again.
_OF_ADAPTER: dict[str, object] = {"supportsRestartRequest": True}

_CONDITION = "a class, a condition, or both: ValueError, if x > 1, OSError if $_exception.errno == 2"

_EXCEPTION_FILTERS: list[dict[str, object]] = [
    {"filter": "raised", "label": "Raised Exceptions", "default": False, "supportsCondition": True,
     "description": "Stop once where an exception is raised, in every thread", "conditionDescription": _CONDITION},
    {"filter": "uncaught", "label": "Uncaught Exceptions", "default": True, "supportsCondition": True,
     "description": "Stop where an exception would end a thread", "conditionDescription": _CONDITION},
    {"filter": "userUnhandled", "label": "User Uncaught Exceptions", "default": False, "supportsCondition": True,
     "description": "Stop where an exception leaves the user's own code for a library that has called it",
     "conditionDescription": _CONDITION},
]


def answer(arguments: Arguments, is_adapter: bool = False) -> dict[str, Any]:
    """The body of the answer to `initialize`; RequestError for arguments that are wrong."""
    for name in "linesStartAt1", "columnsStartAt1":
        arguments.flag(name)
    path_format = arguments.text("pathFormat", "path")
    if path_format not in ("path", "uri"):
        raise RequestError("initialize: 'pathFormat' has to be \"path\" or \"uri\", not %.80r" % path_format)
    return {**_OF_PROGRAM, **(_OF_ADAPTER if is_adapter else {}), "exceptionBreakpointFilters": _EXCEPTION_FILTERS}
