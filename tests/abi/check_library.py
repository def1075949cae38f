#!/usr/bin/env python3
"""Compares a built libtarn_sdk_mqtt_broker.so with what hosts were promised: check_library.py LIBRARY LIST.

The names, versions and data sizes are those of LIST; calls inside the library cannot be taken over by a host that
defines one of the names; data can, because that is how a host and the library share one copy of it; and the library
stays loaded once it is.
"""
import re
import subprocess
import sys


def readelf(library, *options):
    return subprocess.run(["readelf", "-W", *options, library], check=True, capture_output=True, text=True).stdout


def read_list(path):
    """{name: (version, kind, size)}, where size is None for functions."""
    promised = {}
    with open(path, encoding="utf-8") as lines:
        for line in lines:
            words = line.split("#")[0].split()
            if not words:
                continue
            if words[0].startswith("["):
                version, kind = " ".join(words).strip("[]").split()
                continue
            promised[words[0]] = (version, kind, int(words[1]) if kind == "data" else None)
    return promised


def exported(library):
    """The same of the library itself. Version nodes are symbols too; they are left out."""
    found = {}
    row = re.compile(r"\s*\d+: \w+\s+(\d+|0x\w+) (\w+)\s+(GLOBAL|WEAK)\s+DEFAULT\s+(\w+) (\S+)")
    for match in map(row.match, readelf(library, "--dyn-syms").splitlines()):
        if not match or match[4] in ("UND", "ABS"):
            continue
        name, _, version = match[5].partition("@@")
        is_data = match[2] == "OBJECT"
        found[name] = (version, "data" if is_data else "functions", int(match[1], 0) if is_data else None)
    return found


def compare(promised, found, sizes_are_comparable):
    for name in sorted(promised.keys() - found.keys()):
        yield f"{name} is promised but not exported"
    for name in sorted(found.keys() - promised.keys()):
        yield f"{name} is exported but not promised"
    for name in sorted(promised.keys() & found.keys()):
        want, have = promised[name], found[name]
        if want[:2] != have[:2] or (sizes_are_comparable and want[2] != have[2]):
            yield f"{name} is {have}, promised was {want}"


def interposable_calls(library, found):
    """Relocations by which the loader would bind the library's own calls to somebody else's function."""
    for line in readelf(library, "-r").splitlines():
        match = re.search(r"R_\w+\s+\S+\s+(\w+)@", line)
        if match and found.get(match[1], ("", ""))[1] == "functions":
            yield f"a call of {match[1]} can be taken over by the host"


def dynamic_section(library):
    text = readelf(library, "-d")
    if "Library soname: [libtarn_sdk_mqtt_broker.so.2]" not in text:
        yield "the soname is not libtarn_sdk_mqtt_broker.so.2"
    flags = re.findall(r"\((?:FLAGS|FLAGS_1)\)\s+(.*)", text)
    words = set(" ".join(flags).replace("Flags:", "").split())
    for flag, meaning in (("NODELETE", "dlclose would unmap running code"), ("NOW", "the call tables stay writable")):
        if flag not in words:
            yield f"{flag} is missing: {meaning}"
    if "SYMBOLIC" in words or "(SYMBOLIC)" in text:
        yield "linked with -Bsymbolic: host and library would see different data"
    if "TEXTREL" in words or "(TEXTREL)" in text:
        yield "code is relocated at load time"
    for line in readelf(library, "-l").splitlines():
        if "GNU_STACK" in line and "RWE" in line:
            yield "the stack would be executable"


def ends_without_memory(library):
    """To note the destructor of a thread_local the C library allocates, and ends the process where it cannot."""
    if re.search(r"UND\s+__cxa_thread_atexit", readelf(library, "--dyn-syms")):
        yield "a thread_local has a destructor: without memory the C library ends the process"


def main():
    library, list_path = sys.argv[1:]
    found = exported(library)
    is_x86_64 = "X86-64" in readelf(library, "-h")
    faults = [
        *compare(read_list(list_path), found, is_x86_64),
        *interposable_calls(library, found),
        *dynamic_section(library),
        *ends_without_memory(library),
    ]
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
