"""Two files with the same text are two files."""
from a import mod as first
from b import mod as second

print(first.where(), second.where(), first.where())
