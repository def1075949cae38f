#!/usr/bin/env python3
"""Collects the deliberate departures from the MQTT standards: list_deviations.py [--check] [ROOT].

Each stands as a comment at the code that departs:

    // QUIRK(short-name): what differs, from which statement [MQTT-x.y.z-n], and why it stays.
    //   standard profile: lifted (ids)
    //   test: suite.name

The line before the last says what is so in the standard profile: "lifted", with the rule that lifts it (RULES, below)
and if need be how, behind a colon; or "stays", with the reason behind a colon.

The list is docs/deviations.md; --check compares it instead of writing it. Either way a departure is a fault if it has
no statement of the standard or one that cannot exist, does not say what is so in the standard profile, has no test or
one that does not exist, or has the name of another one.
"""
import re
import sys
import textwrap
from pathlib import Path

START = re.compile(r"^\s*(?://|/?\*)\s*QUIRK\(([a-z0-9-]+)\):\s*(.*)$")
MORE = re.compile(r"^\s*(?://|\*(?!/))\s?(.*)$")
PART = re.compile(r"^\s*(standard profile|test):\s*(.*)$")
LIFTED = re.compile(r"lifted \(([a-z -]+)\)(?:: (\S.*))?")
STAYS = re.compile(r"stays: (\S.*)")
# [MQTT-3.1.2-24], [MQTT 3.1.1 3.2.2.3], or the bare number of a chapter of version 5.0.
STATEMENT = re.compile(r"\[(MQTT[- ][^\]]+)\]|\b((?:MQTT \d[.\d]* )?(?!3\.1\.1\b(?!\.\d))\d+\.\d+(?:\.\d+)+)")
WELL_FORMED = re.compile(r"MQTT-\d+\.\d+\.\d+-\d+(?: of (?:3\.1\.1|5\.0))?|(?:MQTT (?:3\.1\.1|5\.0) )?\d+(?:\.\d+)+")
GTEST = re.compile(r"\bTEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)")

# The rules of the standard profile, and what each says.
RULES = {
    "wire": "packets have the form of the level that CONNECT named, with all properties, over TCP alone",
    "ids": "client ids of any length, each of them found; a second connection of an id takes the first one over",
    "own messages": "a client gets its own messages too, unless its subscription says No Local",
    "wildcards": "`+`, `#`, topics that begin with `$` and shared subscriptions match as the standards say",
    "sessions": "a session lasts as long as its client asked, over every end of a connection and of the broker",
    "delivery": "each QoS keeps its promise, in order, within what the receiver takes, until the message expires",
    "retained": "retained messages have their own QoS, properties and expiry, and go out as the subscription says",
    "wills": "a will is published when the standards say, whole, and as any other message",
    "keep-alive": "one and a half times what the client said, by what it sends; 0 is off",
    "sizes": "packets up to the maximum that the host set, to each client up to its own",
    "strictness": "what a standard calls an error ends the connection, at 5.0 with its reason code",
}

HEAD = """# Deviations

Where the broker departs from the MQTT standards on purpose, as the comments `QUIRK(name)` in the code say. Written by
`tools/list_deviations.py`; edit the comments, then run `./dev format`. MQTT-x.y.z-n is a statement and x.y.z a chapter
of version 5.0 where no other version is named.

This is the native profile, which the broker has by itself. `tarn_sdk_mqtt_broker_set_profile()` with
`TARN_PROFILE_STANDARD`, or `tarn-broker --standard`, has another serve the clients, in which nearly all of this is
lifted. Each departure says which rule of the standard profile lifts it, or why it stays.

## The standard profile

The rules of the standard profile hold together; nobody can have one without the others.

"""

STAY = """
These stay, since functions that the modules export for hosts are the same in both profiles. No client meets them:

"""


class Quirk:
    def __init__(self, name, file, line, text):
        self.name, self.file, self.line = name, file, line
        self.text, self.in_standard, self.tests = text, "", []

    def statements(self):
        found = [named or number for named, number in STATEMENT.findall(self.text)]
        return list(dict.fromkeys(one for several in found for one in several.split(", ")))

    def rule(self):
        """Which lifts it; None if it stays."""
        lifted = LIFTED.fullmatch(self.in_standard)
        return lifted[1] if lifted else None

    def reason_to_stay(self):
        stays = STAYS.fullmatch(self.in_standard)
        return stays[1] if stays else None

    def add(self, part, text):
        """A line of its comment, and which part of it that is."""
        if part == "test":
            self.tests += re.findall(r"[^\s,;]+", text)
        elif part == "standard profile":
            self.in_standard = f"{self.in_standard} {text.strip()}".strip()
        else:
            self.text += " " + text.strip()


def quirks_of(path, name_in_list):
    quirk = part = None
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        start, more = START.match(line), MORE.match(line)
        if start:
            if quirk:
                yield quirk
            quirk, part = Quirk(start[1], name_in_list, number, start[2]), None
        elif quirk and more and more[1].strip():
            text = more[1]
            if begins := PART.match(text):
                part, text = begins.groups()
            quirk.add(part, text)
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


def fault_of_profile(quirk):
    if not quirk.in_standard:
        return "does not say what is so in the standard profile"
    if quirk.reason_to_stay():
        return None
    if not quirk.rule():
        return f"says of the standard profile neither 'lifted (rule)' nor 'stays: reason', but '{quirk.in_standard}'"
    return None if quirk.rule() in RULES else f"is lifted by {quirk.rule()}, which is no rule of the standard profile"


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
        if fault := fault_of_profile(quirk):
            yield f"{at} {fault}"
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


def link(quirk):
    return f"[{quirk.name}](#{quirk.name})"


def rendered_profile(quirks):
    parts = ["| rule | what it says | lifts |\n|---|---|---|\n"]
    for rule, says in RULES.items():
        lifted = ", ".join(link(quirk) for quirk in quirks if quirk.rule() == rule)
        parts.append(f"| {rule} | {says} | {lifted or '-'} |\n")
    staying = [quirk for quirk in quirks if quirk.reason_to_stay()]
    if staying:
        parts.append(STAY)
    for quirk in staying:
        parts.append(f"- {link(quirk)}: {quirk.reason_to_stay().removesuffix('.')}.\n")
    return "".join(parts)


def rendered(quirks):
    parts = [HEAD, rendered_profile(quirks)]
    for quirk in quirks:
        tests = ", ".join(f"`{test}`" for test in quirk.tests)
        parts += [f"\n## {quirk.name}\n\n", paragraph(as_sentence(quirk.text)), "\n"]
        parts += [f"- Standard: {', '.join(quirk.statements())}\n- Standard profile: {quirk.in_standard}\n"]
        parts += [f"- Code: `{quirk.file}`\n- Test: {tests}\n"]
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
