"""Breakpoints on functions, which hold at the first line that runs."""


def plain(n):                         # stop function
    """A docstring is no line that runs."""

    result = n + 1
    return result


@staticmethod
def decorated(n):                     # stop function
    return n * 2


def generator(n):                     # stop function
    while n:
        yield n
        n -= 1


def outer():
    def inner(): return "inner"       # stop function
    return inner()


async def coroutine():                # stop function
    return "awaited"


def recursive(n):                     # stop function once
    if n:
        return recursive(n - 1)
    return n


print(plain(1), decorated(2), list(generator(2)), outer(), recursive(2))
try:
    coroutine().send(None)
except StopIteration as stop:
    print(stop.value)
for n in range(2):
    plain(n)
