"""Runs the C++ tests that need an interpreter inside this one, any version from 2.7 on.

    PYTHON run_hosted.py HOSTED_TESTS_LIBRARY [GTEST_FILTER] [XML_REPORT]

Exit status: that of the tests.
"""
import ctypes
import os
import sys

import support      # noqa: F401 -- keeps counts changing and code objects dying on free-threaded 3.13


def main(arguments):
    if not 2 <= len(arguments) <= 4:
        sys.stderr.write(__doc__)
        return 2
    library = ctypes.PyDLL(os.path.abspath(arguments[1]))
    run = library.run_hosted_tests
    run.argtypes = [ctypes.c_char_p, ctypes.c_char_p]
    run.restype = ctypes.c_int
    words = [word.encode() for word in arguments[2:]] + [b"", b""]
    sys.stdout.flush()
    return run(words[0], words[1])


if __name__ == "__main__":
    sys.exit(main(sys.argv))
