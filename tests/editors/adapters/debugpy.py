"""Starts the reference adapter; a client that can name one file alone names this one."""

import runpy
import sys

sys.path.pop(0)                 # this file has the package's name
sys.argv[:] = ["debugpy.adapter"]
runpy.run_module("debugpy.adapter", run_name="__main__", alter_sys=True)
