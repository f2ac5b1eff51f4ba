"""What is told of this adapter in the answer to `initialize`: each line is kept by the code it names."""

from __future__ import annotations

CAPABILITIES: dict[str, object] = {
    "supportsConfigurationDoneRequest": True,
    "supportsConditionalBreakpoints": True,
    "supportsHitConditionalBreakpoints": True,
    "supportsLogPoints": True,
    "supportsEvaluateForHovers": True,
    "supportsSetVariable": True,
    "supportsSetExpression": True,
    "supportsGotoTargetsRequest": True,
    "supportsCompletionsRequest": True,
    "completionTriggerCharacters": ["."],
    "supportsModulesRequest": True,
    "supportsLoadedSourcesRequest": True,
    "supportsBreakpointLocationsRequest": True,
    "supportsTerminateRequest": True,
    "supportTerminateDebuggee": True,
    "supportsDelayedStackTraceLoading": True,
    "supportsValueFormattingOptions": True,
    "supportsClipboardContext": True,
    "supportsReadMemoryRequest": True,
}

EXCEPTION_FILTERS: list[dict[str, object]] = []
