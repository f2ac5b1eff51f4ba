"""A module whose source is gone when it runs, and one that never had any."""
import os
import sys

import doomed

os.remove(doomed.__file__)
print(doomed.answer(1))
print(doomed.answer(2))               # stop
code = compile("def orphan(n):\n    n += 1\n    return n\n", os.path.join(os.path.dirname(__file__), "never.py"), "exec")
names = {}
exec(code, names)
print(names["orphan"](3))
