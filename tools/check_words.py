#!/usr/bin/env python3
"""Holds the code to docs/glossary.md: check_words.py [ROOT].

The last table of the glossary lists the words that are not used, where not, and what is said instead:

    | `settle`, `say_*` | names, comments in src/, files | what is said instead |

A plain word stands for its forms (settles, settled, settling), alone or as a part of a name: parts are what stands
between underscores, or from one capital letter to the next. A pattern with * is a whole name, and so is a word with an
underscore. Names are identifiers in code, files are names of files and folders. Texts in quotes are not looked at.

Frozen names are left alone: those in tests/abi/exported_symbols.txt, and the types, fields and numbers that the
installed headers declare.
"""
import re
import sys
from pathlib import Path

GLOSSARY = "docs/glossary.md"
HEADING = "## Words that are not used"
FOLDERS = ["src", "include", "broker", "tests", "bench", "fuzz", "examples"]
CODE = {".c", ".cpp", ".h", ".hpp"}
ROW = re.compile(r"^\|([^|]+)\|([^|]+)\|([^|]+)\|$")
PLACE = re.compile(r"^(names|comments|files)(?: in ((?:[\w/]+/ ?)+))?$")
TOKEN = re.compile(
    r"(?P<comment>//[^\n]*|/\*.*?\*/)"
    r'|(?P<text>R"\w*\((?:.|\n)*?\)\w*"|"(?:[^"\\\n]|\\.)*"|\'(?:[^\'\\\n]|\\.)+\')',
    re.DOTALL,
)
NAME = re.compile(r"[A-Za-z_]\w*")
PART = re.compile(r"[A-Z]+(?![a-z])|[A-Z]?[a-z]+")
BODY = re.compile(r"\b(?:struct|enum)\b[^;{}()]*\{([^{}]*)\}\s*(\w*)")


def forms_of(word):
    stem = word.removesuffix("e")
    return {word, word + "s", stem + "ed", stem + "ing"}


class Refused:
    """One word or pattern of the table, where it is refused, and what is said instead."""

    def __init__(self, word, places, instead):
        self.word, self.places, self.instead = word, places, instead
        self.whole = re.compile(re.escape(word).replace(r"\*", r"\w+")) if "*" in word or "_" in word else None
        self.forms = forms_of(word)

    def is_refused(self, kind, path):
        return any(kind == what and (not below or path.startswith(below)) for what, below in self.places)

    def is_in(self, name):
        if self.whole:
            return self.whole.fullmatch(name) is not None
        return any(part.lower() in self.forms for part in PART.findall(name))


def read_glossary(root):
    """The refused words, and faults of the table itself."""
    path = root / GLOSSARY
    lines = path.read_text(encoding="utf-8").splitlines() if path.exists() else []
    if HEADING not in lines:
        return [], [f"{GLOSSARY}: has no chapter '{HEADING}'"]
    refused, faults = [], []
    for number, line in enumerate(lines[lines.index(HEADING) :], lines.index(HEADING) + 1):
        row = ROW.match(line)
        if not row or "`" not in row[1]:
            continue
        places = []
        for place in row[2].split(","):
            if found := PLACE.match(place.strip()):
                places.append((found[1], tuple((found[2] or "").split())))
            else:
                faults.append(f"{GLOSSARY}:{number}: says neither names, comments nor files: {place.strip()}")
        refused += [Refused(word, places, row[3].strip()) for word in re.findall(r"`([^`]+)`", row[1])]
    return refused, faults or ([] if refused else [f"{GLOSSARY}: refuses no word"])


def pieces_of(text):
    """(kind, position, piece) of code and comments."""
    at = 0
    for token in TOKEN.finditer(text):
        yield "names", at, text[at : token.start()]
        if token["comment"]:
            yield "comments", token.start(), token[0]
        at = token.end()
    yield "names", at, text[at:]


def code_of(text):
    return "".join(piece for kind, _, piece in pieces_of(text) if kind == "names")


def frozen_names(root):
    names = set()
    symbols = root / "tests/abi/exported_symbols.txt"
    if symbols.exists():
        for line in symbols.read_text(encoding="utf-8").splitlines():
            if line and line[0] not in "#[":
                names.add(line.split()[0])
    headers = sorted((root / "include").glob("*.h"))
    install = root / "cmake/install.cmake"
    listed = install.exists() and re.search(r"set\(TARN_MODULE_HEADERS\s+([^)]*)\)", install.read_text(encoding="utf-8"))
    headers += [root / "src" / name for name in (listed[1].split() if listed else [])]
    for header in headers:
        if header.exists():
            for body, name in BODY.findall(code_of(header.read_text(encoding="utf-8"))):
                names.update(NAME.findall(body), {name})
    return names


def faults_in_text(name, text, refused, frozen):
    for kind, at, piece in pieces_of(text):
        words = [word for word in refused if word.is_refused(kind, name)]
        for found in NAME.finditer(piece):
            if found[0] in frozen:
                continue
            for word in words:
                if word.is_in(found[0]):
                    number = text.count("\n", 0, at + found.start()) + 1
                    what = "name" if kind == "names" else "comment"
                    yield f"{name}:{number}: {what} says {found[0]}: {word.instead}"


def faults_in_path(name, refused):
    for part in Path(name).parts:
        for word in refused:
            if word.is_refused("files", name) and word.is_in(part.split(".")[0]):
                yield f"{name}:1: file name says {part}: {word.instead}"


def check(root):
    refused, faults = read_glossary(root)
    frozen = frozen_names(root)
    for folder in FOLDERS:
        for path in sorted((root / folder).rglob("*")):
            if not path.is_file() or "__pycache__" in path.parts:
                continue
            name = path.relative_to(root).as_posix()
            faults += faults_in_path(name, refused)
            if path.suffix in CODE:
                faults += faults_in_text(name, path.read_text(encoding="utf-8"), refused, frozen)
    return faults


def main():
    root = Path(sys.argv[1]) if len(sys.argv) > 1 else Path(__file__).resolve().parent.parent
    faults = check(root)
    for fault in faults:
        print(fault)
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
