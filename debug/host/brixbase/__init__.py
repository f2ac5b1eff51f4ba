"""The host debugger's base package: what the event filter needs from its host.

`optmonitoring` imports `brixbase.dlog` while it is loaded, so a folder with
this package has to be on `sys.path` before the module is imported.
"""
