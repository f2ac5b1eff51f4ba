"""Modules found through a relative entry of sys.path, and code with a relative name, before and after a chdir."""
import os
import sys

sys.path.insert(0, "lib")
import early

with open("lib/named.py") as stream:
    text = stream.read()
names = {}
exec(compile(text, "lib/named.py", "exec"), names)
print(early.count(1), names["count"](2))
os.chdir("elsewhere")
print(early.count(3), names["count"](4))              # stop
os.chdir("..")
import late
os.chdir("elsewhere")
print(late.count(5))
