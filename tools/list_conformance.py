#!/usr/bin/env python3
"""Lists the numbered statements of MQTT 3.1.1 and 5.0 with the tests for them: list_conformance.py [--check] [ROOT].

tests/standard/statements.txt has the statements, one a line: number, whom it binds, what it says; behind it the reason
if a server's statement has no test. A test is for the statements that comments name in it or between it and the test
before, [MQTT-3.1.2-4] for 5.0 and 3.1.1 [MQTT-3.1.2-4] for 3.1.1.

The list is docs/conformance.md; --check compares it instead of writing it. Either way it is a fault if a statement that
binds a server has neither a test nor a reason, or both, and if a test names a statement that does not exist.
"""
import re
import sys
from pathlib import Path

STATEMENTS = "tests/standard/statements.txt"
TARGET = "docs/conformance.md"
# Folders with tests, and what their names begin with in ctest.
FOLDERS = {
    "tests/standard": "standard.",
    "tests/unit/codec_standard": "unit.codec_standard.",
    "tests/unit/standard": "unit.standard.",
}
SECTION = re.compile(r"== (3\.1\.1|5\.0)")
STATEMENT = re.compile(r"(\d[\d.-]*-\d+)\s+(server|client)\s+(\S.*)")
REASON = re.compile(r"\s+no test: (\S.*)")
TEST = re.compile(r"\bTEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)")
TAG = re.compile(r"(?P<old>3\.1\.1[\s/]*)?\[MQTT-(?P<number>[\d.-]+)\]")

HEAD = """# Conformance

The numbered statements of MQTT 3.1.1 and 5.0, and the tests that hold the standard profile to them. Written by
`tools/list_conformance.py` from `tests/standard/statements.txt` and from comments in tests such as [MQTT-3.1.2-4]; after a
change run `./dev format`. What a statement says is put in short here; the standards have the last word. The native
profile departs from some of them, see [deviations.md](deviations.md).
"""


class Statement:
    def __init__(self, version, number, binds, text, line):
        self.version, self.number, self.binds, self.text, self.line = version, number, binds, text, line
        self.reason, self.tests = "", []


def read_statements(root):
    """The statements by version and number, in their order, and faults of the file."""
    statements, faults = {}, []
    version, last = "", None
    for line, text in enumerate((root / STATEMENTS).read_text(encoding="utf-8").splitlines(), 1):
        section, statement, reason = SECTION.fullmatch(text), STATEMENT.fullmatch(text), REASON.fullmatch(text)
        if section:
            version, last = section[1], None
        elif statement and version:
            last = Statement(version, *statement.groups(), line)
            if (version, last.number) in statements:
                faults.append(f"{STATEMENTS}:{line}: {version} {last.number} stands there twice")
            statements[version, last.number] = last
        elif reason and last:
            last.reason = reason[1]
        elif text and not text.startswith("#"):
            faults.append(f"{STATEMENTS}:{line}: is neither a statement nor a reason")
    return statements, faults


def tags_of(text):
    """(name of the test, version, number, position) of each statement that a file of tests names."""
    tests = [(found.start(), f"{found[1]}.{found[2]}") for found in TEST.finditer(text)]
    for tag in TAG.finditer(text):
        # Within a test, which ends with a brace in the first column, or before the next one.
        before = [test for test in tests if test[0] < tag.start()]
        end = text.find("\n}", before[-1][0]) if before else -1
        if before and (end < 0 or tag.start() < end):
            name = before[-1][1]
        else:
            name = next((test[1] for test in tests if test[0] > tag.start()), "")
        yield name, "3.1.1" if tag["old"] else "5.0", tag["number"], tag.start()


def collect_tests(root, statements):
    faults = []
    for folder, prefix in FOLDERS.items():
        for path in sorted((root / folder).glob("*_test.cpp")):
            text = path.read_text(encoding="utf-8")
            for name, version, number, at in tags_of(text):
                place = f"{path.relative_to(root).as_posix()}:{text.count(chr(10), 0, at) + 1}"
                statement = statements.get((version, number))
                if not statement:
                    faults.append(f"{place}: {version} has no statement {number}")
                elif not name:
                    faults.append(f"{place}: there is no test behind [MQTT-{number}]")
                elif prefix + name not in statement.tests:
                    statement.tests.append(prefix + name)
    return faults


def faults_of(statements):
    for one in statements.values():
        at = f"{STATEMENTS}:{one.line}: {one.version} {one.number}"
        if one.binds == "client" and one.reason:
            yield f"{at} binds clients and needs no reason"
        elif one.tests and one.reason:
            yield f"{at} has a test, {one.tests[0]}, and a reason why it has none"
        elif one.binds == "server" and not one.tests and not one.reason:
            yield f"{at} has neither a test nor a reason"


def table(rows):
    yield "\n| statement | what it says | tests |\n|---|---|---|\n"
    for one in rows:
        tests = ", ".join(f"`{test}`" for test in one.tests)
        yield f"| MQTT-{one.number} | {one.text} | {tests or ('none: ' + one.reason if one.reason else 'none')} |\n"


def chapter(version, statements):
    server = [one for one in statements if one.binds == "server"]
    client = [one for one in statements if one.binds == "client"]
    tested = sum(1 for one in server if one.tests)
    yield f"\n## MQTT {version}\n\n"
    yield f"{len(server)} statements that a server can follow or break: {tested} have tests, "
    yield f"{len(server) - tested} a reason why none.\n"
    yield from table(server)
    yield f"\n{len(client)} that bind clients alone:\n"
    yield from table(client)


def rendered(statements):
    parts = [HEAD]
    for version in dict.fromkeys(one.version for one in statements.values()):
        parts += chapter(version, [one for one in statements.values() if one.version == version])
    return "".join(parts)


def main():
    arguments = [word for word in sys.argv[1:] if word != "--check"]
    root = Path(arguments[0] if arguments else Path(__file__).parent.parent).resolve()
    target = root / TARGET
    statements, faults = read_statements(root)
    faults += collect_tests(root, statements)
    faults += faults_of(statements)
    text = rendered(statements)
    if "--check" not in sys.argv:
        target.parent.mkdir(exist_ok=True)
        target.write_text(text, encoding="utf-8")
    elif not target.exists() or target.read_text(encoding="utf-8") != text:
        faults.append(f"{TARGET} is stale: run ./dev format")
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
