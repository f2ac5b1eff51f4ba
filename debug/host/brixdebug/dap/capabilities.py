"""What is told of this adapter in the answer to `initialize`: each line is kept by the code it names."""

from __future__ import annotations

CAPABILITIES: dict[str, object] = {
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

_CONDITION = "a class, a condition, or both: ValueError, if x > 1, OSError if $_exception.errno == 2"

EXCEPTION_FILTERS: list[dict[str, object]] = [
    {"filter": "raised", "label": "Raised Exceptions", "default": False, "supportsCondition": True,
     "description": "Stop once where an exception is raised, in every thread", "conditionDescription": _CONDITION},
    {"filter": "uncaught", "label": "Uncaught Exceptions", "default": True, "supportsCondition": True,
     "description": "Stop where an exception would end a thread", "conditionDescription": _CONDITION},
    {"filter": "userUnhandled", "label": "User Uncaught Exceptions", "default": False, "supportsCondition": True,
     "description": "Stop where an exception leaves the user's own code for a library that has called it",
     "conditionDescription": _CONDITION},
]
