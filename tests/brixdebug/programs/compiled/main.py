"""Code that was compiled at run time: under names that are no files, under this file's name, and made by the library."""
import collections
import dataclasses
import linecache

TEXT = """\
def shown(n):
    n += 1
    return n

result = shown(1)
"""


def run_known():
    """Its lines can be looked up, so a debugger can set a breakpoint there."""
    name = "<program known>"
    linecache.cache[name] = len(TEXT), None, TEXT.splitlines(True), name
    code = compile(TEXT, name, "exec")
    for _ in range(2):                # stop
        names = {}
        exec(code, names)
        print(names["shown"](5))


def run_unknown():
    exec("a = 1\nb = a + 1\nprint(a, b)")
    print(eval("a + 1", {"a": 1}))    # stop
    exec(compile("\n\nfor n in range(2):\n    print(n)\n", "<program two>", "exec"), {})
    exec(compile("print('same name')\n", "<program two>", "exec"), {})


def run_as_this_file():
    # Its line 8 is a line of this file's text; code is told apart by file and line alone.
    exec(compile("\n" * 30 + "pass\nprint('here')\n", __file__, "exec"), {})


@dataclasses.dataclass
class Made:
    number: int


def run_made_by_the_library():
    Pair = collections.namedtuple("Pair", "first second")
    print(Made(1) == Made(1), Pair(1, 2)._replace(first=3))


run_known()
run_unknown()
run_as_this_file()
run_made_by_the_library()
