"""Generators: suspended and resumed, from loops, by send, throw and close, and through `yield from`."""


def counting(limit):
    n = 0
    while n < limit:
        sent = yield n                # stop
        if sent:
            n = sent
        n += 1
    return "counted"


def tolerant():
    while True:
        try:
            yield "ready"
        except ValueError as error:
            print("took", error)      # stop
        finally:
            print("leaving")


def delegating():
    result = yield from counting(2)
    print(result)                     # stop
    yield from (x * x for x in range(2))
    return result


def with_cleanup():
    try:
        yield 1
        yield 2
    finally:
        print("cleaned up")           # stop


def main():
    for n in counting(2):
        print(n)
    numbers = counting(9)
    next(numbers)
    print(numbers.send(5))            # stop
    numbers.close()
    patient = tolerant()
    print(next(patient))
    print(patient.throw(ValueError("thrown")))
    try:
        patient.throw(KeyError("out"))
    except KeyError:
        print("came out")
    print(list(delegating()))
    started = with_cleanup()
    next(started)
    started.close()
    dropped = [with_cleanup()]        # no variable itself: 3.12's copies of those would keep it
    next(dropped[0])
    dropped.clear()
    pairs = zip(counting(2), (letter for letter in "ab"))
    print(dict(pairs))
    first, *rest = counting(3)
    print(first, rest)


main()
