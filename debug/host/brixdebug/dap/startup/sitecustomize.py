"""Takes a new Python process of a debugged program into the debugger, before the program's first line.

Any interpreter may find this file on PYTHONPATH; it does something in those alone that the debugger is for.  Afterwards
nothing of this is left in the environment and on `sys.path`, and the `sitecustomize` of the installation is imported.
"""

import os
import sys


def _take_variables():  # type: ignore[no-untyped-def]
    """The environment becomes what the program that started this process wanted it to be."""
    text = os.environ.pop("BRIXDEBUG_CHILD", None)
    path = os.environ.pop("BRIXDEBUG_PYTHONPATH", None)
    if text is not None:
        if path is None:
            os.environ.pop("PYTHONPATH", None)
        else:
            os.environ["PYTHONPATH"] = path
    here = os.path.dirname(os.path.abspath(__file__))
    sys.path[:] = [folder for folder in sys.path if folder != here]
    sys.path_importer_cache.pop(here, None)
    return text


def _start(text):  # type: ignore[no-untyped-def]
    import json
    folders = json.loads(text)["folders"]
    sys.path[:0] = folders
    try:
        from brixdebug.dap import program
    except Exception:                        # another interpreter may not be able to load the debugger
        return
    finally:
        del sys.path[:len(folders)]
    program.begin_child(text)


_text = _take_variables()  # type: ignore[no-untyped-call]
if _text is not None and sys.version_info >= (3, 12):
    _start(_text)  # type: ignore[no-untyped-call]
del sys.modules["sitecustomize"]
import sitecustomize  # type: ignore[import-not-found]  # noqa: E402, F401
