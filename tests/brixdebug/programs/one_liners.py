"""Functions, loops and whole suites on one line; comprehensions, which are code of their own on some versions."""
double = lambda n: n * 2
def add(a, b): return a + b           # stop
def twice(f, n): return f(f(n))
def nothing(): pass                   # stop


def main():
    for n in range(3): add(n, 1)
    total = 0
    while total < 3: total += 1       # stop
    print([double(n) for n in range(2)])
    print({n: double(n) for n in range(2) if n}, {n for n in "aab"} == {"a", "b"})      # stop
    print(sum(n for n in range(3)), sorted([3, 1, 2], key=lambda n: -n))
    print([[a * b for a in range(2)]
           for b in range(2)
           if b])
    print(twice(double, 3)); nothing(); total = 0
    if total: print("never")
    else: print("always")
    for n in range(4): continue
    for n in range(2):
        for m in range(2): total += n * m
    print(any(map(lambda n: n == 1,   # stop
                  range(3))), total)
    x = [i for i in range(3)]; y = (lambda: x)(); print(y is x)


main()
