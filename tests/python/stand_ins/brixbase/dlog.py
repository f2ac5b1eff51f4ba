"""Stand-in for the host's log: both functions record their positional arguments."""

import sys

log_calls = []              # argument tuples of Log
exception_calls = []        # (argument tuple of LogException, the exception being handled)


def Log(*args):
    log_calls.append(args)


def LogException(*args):
    exception_calls.append((args, sys.exc_info()[1]))


def forget():
    """Drop the recorded calls, and with them the exceptions that they keep alive."""
    del log_calls[:]
    del exception_calls[:]
