"""The debug adapter: editors that speak the Debug Adapter Protocol, on the same engine as the prompt.

    python -m brixdebug.dap                     the adapter that an editor starts
    python -m brixdebug --listen ... PROGRAM    a program that waits for an editor itself

The adapter process starts programs and relays; the protocol is answered inside the
debugged program (`server`), so that an editor may as well connect there directly.
"""
