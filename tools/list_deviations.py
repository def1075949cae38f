#!/usr/bin/env python3
"""Collects the deliberate departures from the MQTT standards: list_deviations.py [--check] [ROOT].

Each stands as a comment at the code that departs:

    // QUIRK(short-name): what differs, from which statement [MQTT-x.y.z-n], and why it stays.
    //   test: suite.name

The list is docs/deviations.md; --check compares it instead of writing it. Either way a departure without a statement
of the standard or with one that cannot exist, without a test or with one that does not exist, or with the name of
another one is a fault.
"""
import re
import sys
import textwrap
from pathlib import Path

START = re.compile(r"^\s*(?://|/?\*)\s*QUIRK\(([a-z0-9-]+)\):\s*(.*)$")
MORE = re.compile(r"^\s*(?://|\*(?!/))\s?(.*)$")
TEST = re.compile(r"^\s*test:\s*(.*)$")
# [MQTT-3.1.2-24], [MQTT 3.1.1 3.2.2.3], or the bare number of a chapter of version 5.0.
STATEMENT = re.compile(r"\[(MQTT[- ][^\]]+)\]|\b((?:MQTT \d[.\d]* )?(?!3\.1\.1\b(?!\.\d))\d+\.\d+(?:\.\d+)+)")
WELL_FORMED = re.compile(r"MQTT-\d+\.\d+\.\d+-\d+(?: of (?:3\.1\.1|5\.0))?|(?:MQTT (?:3\.1\.1|5\.0) )?\d+(?:\.\d+)+")
GTEST = re.compile(r"\bTEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)")

HEAD = """# Deviations

Where the broker departs from the MQTT standards on purpose, as the comments `QUIRK(name)` in the code say. Written by
`tools/list_deviations.py`; edit the comments, then run `./dev format`. MQTT-x.y.z-n is a statement and x.y.z a chapter of
version 5.0 where no other version is named.
"""


class Quirk:
    def __init__(self, name, file, line, text):
        self.name, self.file, self.line = name, file, line
        self.text, self.tests = text, []

    def statements(self):
        found = [named or number for named, number in STATEMENT.findall(self.text)]
        return list(dict.fromkeys(one for several in found for one in several.split(", ")))


def quirks_of(path, name_in_list):
    quirk = None
    in_tests = False
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        start, more = START.match(line), MORE.match(line)
        if start:
            if quirk:
                yield quirk
            quirk, in_tests = Quirk(start[1], name_in_list, number, start[2]), False
        elif quirk and more and more[1].strip():
            test = TEST.match(more[1])
            if test or in_tests:
                in_tests = True
                quirk.tests += re.findall(r"[^\s,;]+", test[1] if test else more[1])
            else:
                quirk.text += " " + more[1].strip()
        elif quirk:
            yield quirk
            quirk = None
    if quirk:
        yield quirk


def collect(root):
    quirks = []
    for path in sorted((root / "src").rglob("*")):
        if path.suffix in (".h", ".cpp"):
            quirks += quirks_of(path, path.relative_to(root).as_posix())
    return sorted(quirks, key=lambda quirk: quirk.name)


def test_names(root):
    names = set()
    for path in (root / "tests").rglob("*_test.cpp"):
        names |= {f"{suite}.{name}" for suite, name in GTEST.findall(path.read_text(encoding="utf-8"))}
    return names


def faults_of(quirks, tests):
    seen = {}
    for quirk in quirks:
        at = f"{quirk.file}:{quirk.line}: QUIRK({quirk.name})"
        if quirk.name in seen:
            yield f"{at} is also at {seen[quirk.name]}"
        seen[quirk.name] = f"{quirk.file}:{quirk.line}"
        if not quirk.statements():
            yield f"{at} names no statement of the standard, as in [MQTT-3.1.2-24]"
        for statement in quirk.statements():
            if not WELL_FORMED.fullmatch(statement):
                yield (
                    f"{at} names {statement}, which is neither a statement as in [MQTT-3.1.2-24 of 3.1.1] "
                    "nor a chapter as in [MQTT 5.0 3.1.2.4]"
                )
        if not quirk.tests:
            yield f"{at} names no test"
        for test in quirk.tests:
            if test not in tests:
                yield f"{at} names the test {test}, which does not exist"


def as_sentence(text):
    text = text.strip()
    return text[:1].upper() + text[1:] + ("" if text.endswith(".") else ".")


def paragraph(text):
    return textwrap.fill(text, 120, break_long_words=False, break_on_hyphens=False) + "\n"


def rendered(quirks):
    parts = [HEAD]
    for quirk in quirks:
        tests = ", ".join(f"`{test}`" for test in quirk.tests)
        parts += [f"\n## {quirk.name}\n\n", paragraph(as_sentence(quirk.text)), "\n"]
        parts += [f"- Standard: {', '.join(quirk.statements())}\n- Code: `{quirk.file}`\n- Test: {tests}\n"]
    return "".join(parts)


def main():
    arguments = [word for word in sys.argv[1:] if word != "--check"]
    root = Path(arguments[0] if arguments else Path(__file__).parent.parent).resolve()
    target = root / "docs/deviations.md"
    quirks = collect(root)
    faults = list(faults_of(quirks, test_names(root)))
    text = rendered(quirks)
    if "--check" not in sys.argv:
        target.parent.mkdir(exist_ok=True)
        target.write_text(text, encoding="utf-8")
    elif not target.exists() or target.read_text(encoding="utf-8") != text:
        faults.append("docs/deviations.md is stale: run ./dev format")
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
