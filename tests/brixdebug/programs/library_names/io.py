"""A program with the name of a library module, and modules with the names of the debugger's own."""
from tools import bdb, engine, threading


def main():
    print(bdb.doubled(2))             # stop
    print(engine.doubled(3), threading.doubled(4))


main()
