"""A module whose text changes between two imports; breakpoints stay at their lines."""
import importlib
import os

import changing

OLD = changing.answer
print(changing.answer(1))
with open(changing.__file__) as stream:
    text = stream.read()
with open(changing.__file__, "w") as stream:
    stream.write(text.replace("n + 1", "n + 100"))
os.utime(changing.__file__, (1, 1))
importlib.reload(changing)
print(changing.answer(1), OLD(1))
with open(changing.__file__, "w") as stream:
    stream.write("# one line more\n" + text)
os.utime(changing.__file__, (2, 2))
importlib.reload(changing)
print(changing.answer(1), changing.other(2))          # stop
