"""Exceptions: raised, caught, passed on, replaced, grouped, and one that ends the program."""


class OwnError(Exception):
    pass


def raises(n):
    if n:
        raises(n - 1)                 # stop
    raise OwnError(n)


def passes_on():
    try:
        raises(2)
    finally:
        print("on its way")           # stop


def replaces():
    try:
        passes_on()
    except OwnError as error:
        raise LookupError("replaced") from error


def in_a_loop():
    for n in range(3):
        try:
            if n % 2:
                continue
            int("x")
        except ValueError:
            print(n)                  # stop if n == 2


def builtin_raises():
    return [].pop()


def stops_iteration():
    try:
        return next(iter(()))
    except StopIteration:
        return next(iter(()), "none")


def group():
    try:
        raise ExceptionGroup("group", [ValueError(1), OwnError(2)])
    except* ValueError as errors:
        print(len(errors.exceptions))
    except* OwnError:
        print("own")                  # stop


def main():
    try:
        replaces()
    except LookupError as error:
        print(repr(error), repr(error.__cause__))
    in_a_loop()
    try:
        builtin_raises()
    except IndexError:
        print("empty")
    print(stops_iteration())
    group()
    assert_that(False)


def assert_that(value):
    assert value, "the end"


main()
