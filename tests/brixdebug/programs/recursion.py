"""Recursion: one code object, many frames."""


def factorial(n):
    if n <= 1:
        return 1                      # stop
    below = factorial(n - 1)
    return n * below                  # stop if n == 3


def is_even(n):
    return True if n == 0 else is_odd(n - 1)


def is_odd(n):
    return False if n == 0 else is_even(n - 1)          # stop after 1


def down(n):
    if n:
        down(n - 1)
    return n                          # stop once


print(factorial(4))
print(is_even(5))
print(down(3))
print([factorial(n) for n in (0, 3)])
