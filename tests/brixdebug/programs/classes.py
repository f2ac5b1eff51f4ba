"""Decorators, dataclasses, properties, class bodies and special methods."""
import dataclasses
import functools


def traced(function):
    @functools.wraps(function)
    def wrapper(*args, **keywords):
        print("calling", function.__name__)      # stop
        return function(*args, **keywords)
    return wrapper


def repeated(times):
    def decorate(function):
        def wrapper(*args):
            return [function(*args) for _ in range(times)]
        return wrapper
    return decorate


@traced
@repeated(2)
def greet(
        name,
        greeting="hello"):
    return greeting + name            # stop


@dataclasses.dataclass(order=True)
class Point:
    x: int
    y: int = 0
    tags: list = dataclasses.field(default_factory=lambda: ["new"])

    def __post_init__(self):
        self.x += 1                   # stop

    @property
    def length(self):
        return self.x + self.y        # stop

    @classmethod
    def origin(cls):
        return cls(-1)

    @staticmethod
    def helper(): return "static"

    def __getattr__(self, name):
        return name.upper()


class Meta(type):
    def __new__(mcs, name, bases, namespace):
        return super().__new__(mcs, name, bases, namespace)

    def __call__(cls, *args):
        return super().__call__(*args)                  # stop


class Made(metaclass=Meta):
    number = sum(n for n in range(3))

    def __init__(self, value):
        self.value = value

    def __del__(self):
        print("gone", self.value)     # stop


print(greet(" you"))
print(Point(1, 2), Point(1) < Point(2), Point.origin().length, Point(0).nothing, Point.helper())
Made(1)
kept = Made(2)
del kept
print(functools.reduce(lambda a, b: a + b, [1, 2, 3]))
