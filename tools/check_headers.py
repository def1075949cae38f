#!/usr/bin/env python3
"""Checks that the installed headers explain themselves: check_headers.py [ROOT].

Such a header opens with a comment that begins with its name. Every function and global in it has another comment
directly above: its own, or that of the group it stands in. A blank line ends a group; a line of heading explains
nothing. For a global a comment behind it does as well.
"""
import re
import sys
from pathlib import Path

from check_layers import installed_headers

PUBLIC = "include/tarn_sdk_mqtt_broker.h"

COMMENT = re.compile(r"/\*.*?\*/", re.DOTALL)
PREPROCESSOR = re.compile(r"^[ \t]*#(.*\\\n)*.*$", re.MULTILINE)
HEADING = re.compile(r"/\* -{4,}.*\*/")
ABOVE, BEHIND, KEEP = "\1", "\2", "\3"  # what lines are made into

NEITHER = re.compile(r'typedef\b|(enum|struct|union)\b[^({]*[{;]|extern "C"|TARN_[A-Z_]+\b|_?[Ss]tatic_assert\b|}')
FUNCTION = re.compile(r"(\w+)\s*\(")
GUARD = re.compile(r"\s*TARN_GUARDED_BY\(\w+\)")
SHARED = re.compile(r"\bTARN_SHARED\(([^()]*)\)")
GLOBAL = re.compile(r"extern\b.*?(\w+)\s*(\[[^]]*\]\s*)*;")


def marked(text):
    """The header with a mark for each comment, and no preprocessor; every line stays in its place."""

    def mark(match):
        before = text[text.rfind("\n", 0, match.start()) + 1 : match.start()]
        after = text[match.end() :].split("\n", 1)[0]
        sign = BEHIND if before.strip() or after.strip() else ABOVE
        if match.start() == 0 or HEADING.fullmatch(match[0]):
            sign = ""
        return sign + ("\n" + sign) * match[0].count("\n")

    without = COMMENT.sub(mark, text)
    return PREPROCESSOR.sub(lambda match: KEEP + ("\n" + KEEP) * match[0].count("\n"), without)


def statements(text):
    """(line number, statement, whether a comment stands above it or its group) of all that is not inside braces."""
    above, started, statement, depth = False, 0, "", 0
    for number, line in enumerate(marked(text).splitlines(), 1):
        code = line.strip(" \t" + ABOVE)
        if not statement:
            if ABOVE in line:
                above = True
            if not code and ABOVE not in line:
                above = False
            started = number
        if not code.strip(BEHIND + KEEP):
            continue
        statement = f"{statement} {code}".strip()
        bare = code.replace(BEHIND, "").strip()
        if not bare.startswith('extern "C"'):
            depth = max(0, depth + bare.count("{") - bare.count("}"))
        if depth == 0 and (bare.endswith((";", "{", "}")) or bare.startswith("TARN_API_")):
            yield started, SHARED.sub(r"\1", GUARD.sub("", statement)), above
            above = above and declared(statement) is not None
            statement = ""


def declared(statement):
    """The function or global that a statement declares, or None."""
    if NEITHER.match(statement):
        return None
    name = FUNCTION.search(statement) or GLOBAL.match(statement)
    return name and name[1]


def faults_of(name, text):
    """(line number, what is wrong) of one header."""
    if not text.startswith(f"/*\n * {name} - "):
        yield 1, "does not begin with its name and what it is for"
    for number, statement, above in statements(text):
        declares = declared(statement)
        is_explained = above or ("(" not in statement and BEHIND in statement)
        if declares and not is_explained:
            yield number, f"{declares} has no comment above"


def check(root):
    for header in sorted({"src/" + header for header in installed_headers(root)} | {PUBLIC}):
        path = root / header
        if not path.exists():
            continue  # check_layers.py tells
        for number, fault in faults_of(path.name, path.read_text(encoding="utf-8")):
            yield f"{header}:{number}: {fault}"


def main():
    root = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).parent.parent).resolve()
    faults = list(check(root))
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
