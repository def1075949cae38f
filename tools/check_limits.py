#!/usr/bin/env python3
"""Holds docs/limits.md and docs/security.md to the code: check_limits.py [ROOT].

docs/limits.md names each number of src/base/limits.h at least once, with its value behind it:

    | packets that wait for one client: `CLIENT_SEND_SLOTS` 100, one of which stays empty | ...

Tests that either document names, as `suite.name`, exist.
"""
import re
import sys
from pathlib import Path

from list_deviations import test_names

HEADER = "src/base/limits.h"
LIMITS = "docs/limits.md"
DOCUMENTS = [LIMITS, "docs/security.md"]
NUMBER = re.compile(r"^\s+([A-Z][A-Z0-9_]+)\s*=\s*([^,/\n]+?)\s*,?\s*(?:/\*.*)?$", re.MULTILINE)
MENTION = re.compile(r"`([A-Z][A-Z0-9]*_[A-Z0-9_]+)`(?: ([0-9]+))?")
TEST = re.compile(r"`([A-Za-z]\w*)\.([A-Za-z]\w*)`")
OTHER_TEST = re.compile(r"add_test\(NAME\s+([\w.]+)")
SUFFIXES = {"c", "conf", "cpp", "dat", "h", "hpp", "json", "md", "py", "service", "sh", "tmp", "txt"}  # of files


def numbers_of(text):
    """{name: value} of the enum; a value is a sum of numbers and of names before it."""
    numbers = {}
    for name, value in NUMBER.findall(text):
        parts = [part.strip() for part in value.split("+")]
        numbers[name] = sum(numbers[part] if part in numbers else int(part) for part in parts)
    return numbers


def faults_of_limits(lines, numbers):
    named, valued = set(), set()
    families = {name.split("_")[0] for name in numbers}
    for at, line in enumerate(lines, 1):
        for name, value in MENTION.findall(line):
            if name.split("_")[0] not in families:
                continue  # a name of somebody else's
            named.add(name)
            if name not in numbers:
                yield f"{LIMITS}:{at}: {HEADER} has no {name}"
            elif value and int(value) != numbers[name]:
                yield f"{LIMITS}:{at}: {name} is {numbers[name]} and not {value}"
            elif value:
                valued.add(name)
    for name in numbers:
        if name not in named:
            yield f"{LIMITS} does not say what {name} means to users"
        elif name not in valued:
            yield f"{LIMITS} says nowhere that {name} is {numbers[name]}, as in `{name}` {numbers[name]}"


def faults_of_tests(name, lines, tests):
    for at, line in enumerate(lines, 1):
        for suite, test in TEST.findall(line):
            if test not in SUFFIXES and f"{suite}.{test}" not in tests:
                yield f"{name}:{at}: there is no test {suite}.{test}"


def lines_of(path):
    return path.read_text(encoding="utf-8").splitlines() if path.exists() else []


def main():
    root = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).parent.parent).resolve()
    tests = test_names(root)
    for path in (root / "tests").rglob("CMakeLists.txt"):
        tests |= set(OTHER_TEST.findall(path.read_text(encoding="utf-8")))
    numbers = numbers_of("\n".join(lines_of(root / HEADER)))
    faults = list(faults_of_limits(lines_of(root / LIMITS), numbers))
    for name in DOCUMENTS:
        faults += faults_of_tests(name, lines_of(root / name), tests)
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
