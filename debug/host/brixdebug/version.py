"""The version of everything in this tree: the package, the command line and the pages take it from here."""

__version__ = "0.1.0"
