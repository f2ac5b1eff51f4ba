"""`with`, `try` and `finally`, `match`, `else` of loops: lines that are left and come back to."""
import contextlib


class Manager:
    def __init__(self, swallows):
        self.swallows = swallows

    def __enter__(self):
        return self                   # stop

    def __exit__(self, *exc_info):
        return self.swallows


@contextlib.contextmanager
def tagged(name):
    print("<%s>" % name)
    try:
        yield name                    # stop
    finally:
        print("</%s>" % name)


def returns_in_try():
    try:
        return "from try"
    finally:
        print("finally")              # stop


def loops():
    for n in range(3):
        try:
            if n == 0:
                continue
            if n == 1:
                break
        finally:
            print("after", n)         # stop if n == 1
    else:
        print("never")
    while n < 2:
        n += 1
    else:
        print("done")


def matches(value):
    match value:
        case [first, *_] if first:
            return first
        case {"key": found}:
            return found              # stop
        case _:
            return None


def main():
    with Manager(True):
        raise ValueError("swallowed")
    with Manager(False) as one, \
            tagged("b") as two:
        print(one.swallows, two)
    with (tagged("c"),
          tagged("d")):
        print("inside")
    print(returns_in_try())
    loops()
    print(matches([1, 2]), matches({"key": 3}), matches(0))
    try:
        pass
    except ValueError:
        print("never")
    else:
        print("else")
    finally:
        print("finally")


main()
