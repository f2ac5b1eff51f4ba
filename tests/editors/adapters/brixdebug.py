"""Starts the debug adapter; a client that can name one file alone names this one."""

import runpy
import sys

sys.path.pop(0)
sys.argv[:] = ["brixdebug.dap"]
runpy.run_module("brixdebug.dap", run_name="__main__", alter_sys=True)
