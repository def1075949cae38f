#!/usr/bin/env python3
"""Holds docs/log-lines.md complete: check_log_lines.py [ROOT].

Each text that src/ logs at WARN or above stands there once, as it is in the code, and nothing else does:

    - `[QoS] PUBREL编码失败: msg_id=%d` (ERROR): what it says, when it comes, what to do.

They are in one order from top to bottom, letters in either case alike, so that who sees a line finds it.
"""
import re
import sys
from pathlib import Path

LIST = "docs/log-lines.md"
CALL = re.compile(r"^(?!\s*//)(?!#define).*?\b(LOG_WARN|LOG_ERROR|LOG_FATAL|REFUSE)\(", re.MULTILINE)
LEVELS = {"LOG_WARN": "WARN", "LOG_ERROR": "ERROR", "LOG_FATAL": "FATAL", "REFUSE": "ERROR"}
LITERAL = re.compile(r'"((?:[^"\\\n]|\\.)*)"')
LITERALS = re.compile(r'(?:"(?:[^"\\\n]|\\.)*"\s*)+')
ENTRY = re.compile(r"^- `(.*)` \((WARN|ERROR|FATAL)\)")

# Texts that reach their call through a variable, and how those texts begin or go, in the files named.
CARRIED = {
    "line": ("handler/*.cpp", r"解码"),
    "line.text": ("stats/report.cpp", r".*: ?%llu"),
    "no_memory": ("handler/[ap]*.cpp", r".*malloc failed"),  # of acknowledge.cpp and publish.cpp, said in reply.cpp
    "row->too_short": ("codec/publish_decode.cpp", r".* buffer short - "),
    "row.incomplete": ("codec/subscribe.cpp", r".*: incomplete "),
}


def decoded(literals):
    text = "".join(LITERAL.findall(literals))
    return text.replace('\\"', '"').replace("\\\\", "\\").removesuffix("\\n")


def argument_behind(text, at):
    """The argument that begins at `at`: its literals joined, or what it is made of."""
    at += len(text[at:]) - len(text[at:].lstrip())
    if literals := LITERALS.match(text, at):
        return decoded(literals[0]), literals.end()
    end = re.compile(r"[,)]").search(text, at).start()
    return None, end


def calls_of(text):
    """Position, level, text or None, and for None the expression."""
    for call in CALL.finditer(text):
        at = call.end()
        if call[1] == "REFUSE":
            at = text.index(",", at) + 1
        said, end = argument_behind(text, at)
        expression = text[at:end].strip()
        if said == "%s" and text[end] == ",":
            said, behind = argument_behind(text, end + 1)
            expression = text[end + 1 : behind].strip()
        yield call.start(1), LEVELS[call[1]], said, expression


def carried_texts(root, expression):
    files, beginning = CARRIED[expression]
    for path in sorted((root / "src").glob(files)):
        for literals in LITERALS.finditer(path.read_text(encoding="utf-8")):
            if re.match(beginning, said := decoded(literals[0])):
                yield path, said


def collect(root):
    """{(text, level): where}, and faults."""
    lines, faults = {}, []
    for path in sorted((root / "src").rglob("*")):
        if path.suffix not in (".h", ".cpp"):
            continue
        text = path.read_text(encoding="utf-8")
        name = path.relative_to(root).as_posix()
        for at, level, said, expression in calls_of(text):
            where = f"{name}:{text.count(chr(10), 0, at) + 1}"
            if said is not None:
                lines.setdefault((said, level), where)
            elif expression not in CARRIED:
                faults.append(f"{where}: logs {expression}, and tools/check_log_lines.py does not know its texts")
            else:
                for other, said in carried_texts(root, expression):
                    lines.setdefault((said, level), other.relative_to(root).as_posix())
    return lines, faults


def listed(root):
    path = root / LIST
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines() if path.exists() else [], 1):
        if entry := ENTRY.match(line):
            yield number, (entry[1], entry[2])


def main():
    root = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).parent.parent).resolve()
    lines, faults = collect(root)
    seen, last = set(), ""
    for number, entry in listed(root):
        at = f"{LIST}:{number}"
        if entry not in lines:
            faults.append(f"{at}: nothing logs this at {entry[1]}: {entry[0]}")
        if entry in seen:
            faults.append(f"{at}: is there twice: {entry[0]}")
        if entry[0].casefold() < last:
            faults.append(f"{at}: is not in order: {entry[0]}")
        seen.add(entry)
        last = entry[0].casefold()
    for (said, level), where in lines.items():
        if (said, level) not in seen:
            faults.append(f"{where}: {LIST} lacks {level}: {said}")
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
