#!/usr/bin/env python3
"""Fails when a function in src/ is longer than the limit, counted from its opening line to its closing brace.

A function is what starts at the left margin with a line ending in "{" (not a namespace, class, struct,
enum or union, not an initialiser list) and ends at the next "}" at the left margin; the code is laid out
that way throughout (.clang-format). Usage: check-function-length.py [SOURCE_ROOT] [--limit N] [--list N]
"""
import os
import re
import sys

LIMIT = 120
NOT_FUNCTION = re.compile(r"^(namespace|class|struct|enum|union|extern|template\s*<[^>]*>\s*(class|struct))\b|=\s*\{$")


def functions(path):
    with open(path, encoding="utf-8", errors="replace") as source:
        lines = source.read().splitlines()
    start = None
    for number, line in enumerate(lines, 1):
        if start is None:
            if line and not line[0].isspace() and line.rstrip().endswith("{") and not line.startswith(("}", "#", "//")):
                if not NOT_FUNCTION.search(line.strip()):
                    start = number
        elif line.startswith("}"):
            yield start, number, lines[start - 1].strip()
            start = None


def main(argv):
    root = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "src")
    limit, listing = LIMIT, 0
    args = iter(argv)
    for arg in args:
        if arg == "--limit":
            limit = int(next(args))
        elif arg == "--list":
            listing = int(next(args))
        else:
            root = arg
    found = []
    for folder, _, files in os.walk(root):
        for name in sorted(files):
            if name.endswith(".cpp"):
                path = os.path.join(folder, name)
                for first, last, signature in functions(path):
                    found.append((last - first + 1, os.path.relpath(path, root), first, signature))
    found.sort(reverse=True)
    for length, path, first, signature in found[:listing]:
        print("%4d %s:%d %s" % (length, path, first, signature[:90]))
    long = [f for f in found if f[0] > limit]
    for length, path, first, signature in long:
        print("check-function-length: %s:%d is %d lines (limit %d): %s" % (path, first, length, limit, signature[:80]))
    if not long:
        print("check-function-length: every function of %d is at most %d lines" % (len(found), limit))
    return 1 if long else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
