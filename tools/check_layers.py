#!/usr/bin/env python3
"""Checks who includes whom below src/ and broker/: check_layers.py [ROOT].

The modules stand in layers; a file includes headers of its own module and of lower ones. The calls that go up are few
and listed here with their reasons. Of another module only its headers for others may be included: the plain C ones,
which are installed, and its face with what that includes. Such a header itself takes no more of other modules than
types, so that including it never drags a module in.

The exported functions of a module that has a face are for hosts: they turn away null pointers and make plain numbers of
results, in <module>_c.cpp or where SHELLS says. The library itself calls the face.
"""
import re
import sys
from pathlib import Path

# From the bottom up.
LAYERS = ["base", "log", "tls", "codec", "net", "stats", "persist", "sub", "client", "qos", "standard", "handler", "api"]

# The one C++ header of a module, with all that others may use of it.
FACES = {
    "api": "api/api.hpp",
    "client": "client/client.hpp",
    "codec": "codec/codec.hpp",
    "handler": "handler/handler.hpp",
    "log": "log/log.h",
    "net": "net/net.hpp",
    "persist": "persist/persist.hpp",
    "qos": "qos/qos.hpp",
    "standard": "standard/standard.hpp",
    "stats": "stats/stats.hpp",
    "sub": "sub/sub.hpp",
}

# Folders inside a module with a face of their own; their other headers are private to them.
FOLDER_FACES = {"codec/standard": "codec/standard/standard_codec.hpp"}

# Where the exported functions of a module are, if not in <module>/<module>_c.cpp.
SHELLS = {"stats": "api/stats_c.cpp"}

# Exported functions that the library hands on by address: who is given it. They stand where their work is done.
CALLBACKS = {
    "mqtt_netip_event_cb": "the network layer, whose callback hosts see in g_netip_cb",
    "on_netip_send_ready": "the network layer, likewise",
    "send_thread_proc": "the send thread",
}

# (module, header above it): why the call goes up.
UPWARD = {
    ("persist", "sub/sub.hpp"): "loading fills the subscription table and the retained store",
    ("client", "qos/qos.hpp"): "a released record takes its pending deliveries with it",
    ("client", "handler/handler.hpp"): "the network callback hands packets up, a close starts the will",
    ("handler", "api/api.hpp"): "the host's callbacks are asked and told",
    ("standard", "api/api.hpp"): "likewise, in the standard profile",
}

PROTOTYPE = re.compile(r"^(?!#|typedef|extern|TARN_)\w[\w\s*]*?\b(\w+)\([^;{]*\);", re.MULTILINE)
NO_CODE = re.compile(r"//[^\n]*|/\*.*?\*/|\"(?:[^\"\\\n]|\\.)*\"", re.DOTALL)
INCLUDE = re.compile(r'^\s*#\s*include\s+(["<])([^">]+)[">]')


def installed_headers(root):
    """The list in cmake/install.cmake."""
    text = (root / "cmake/install.cmake").read_text(encoding="utf-8")
    listed = re.search(r"set\(TARN_MODULE_HEADERS\s+([^)]*)\)", text)
    return set(listed[1].split()) if listed else set()


def includes(path, source_dir):
    """(line number, header relative to src/) of each include that names a file of the library."""
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        if match[1] == "<":
            if match[2] == "tarn_sdk_mqtt_broker.h":
                yield number, "api/" + match[2]
            elif match[2].startswith("tarn_sdk_mqtt_broker/"):
                yield number, match[2].removeprefix("tarn_sdk_mqtt_broker/")
            continue
        target = (path.parent / match[2]).resolve()
        if not target.exists():
            target = (source_dir / match[2]).resolve()
        if target.is_relative_to(source_dir):
            yield number, target.relative_to(source_dir).as_posix()
        elif target.is_relative_to(source_dir.parent / "broker"):
            yield number, None
        else:
            yield number, None if target.is_relative_to(path.parent.resolve()) else match[2]


def source_files(source_dir):
    return sorted(path for path in source_dir.rglob("*") if path.is_file())


def owner_of(name):
    """The folder with a face that this file belongs to, or else its module."""
    folder = name.rpartition("/")[0]
    return folder if folder in FOLDER_FACES else name.split("/")[0]


def parts_of_faces(root):
    """The faces and what they include of their own modules or folders, which may be included without the rest."""
    for owner, face in {**FACES, **FOLDER_FACES}.items():
        if (root / "src" / face).exists():
            yield face
            for _, header in includes(root / "src" / face, root / "src"):
                if header and header.startswith(owner + "/"):
                    yield header


def fault_of(source, header, shared, used_upward):
    """What is wrong with this include, or None. Both names are relative to src/."""
    module, other = source.split("/")[0], header.split("/")[0]
    if owner_of(header) in FOLDER_FACES and owner_of(header) != owner_of(source) and header not in shared:
        return f"{header} is private to {owner_of(header)}/"
    if module == other:
        return None
    if other not in LAYERS:
        return f"{header} belongs to no module"
    if other != "base" and header not in shared:
        return f"{header} is private to {other}/"
    if source in shared and other != "base" and not header.endswith("_types.h"):
        return f"a header for other modules takes only types of {other}/, not {header}"
    if LAYERS.index(other) < LAYERS.index(module):
        return None
    used_upward.add((module, header))
    return None if (module, header) in UPWARD else f"{other}/ is above {module}/, and {header} is no listed exception"


def exported_functions(root):
    """{name: module} of the functions that the installed headers of modules with a face declare."""
    names = {}
    for header in sorted(installed_headers(root)):
        module, path = header.split("/")[0], root / "src" / header
        if module in FACES and path.exists():
            names |= dict.fromkeys(PROTOTYPE.findall(NO_CODE.sub("", path.read_text(encoding="utf-8"))), module)
    return names


def calls_as_hosts(root):
    """(file, line number, function, module) of each use of such a function outside its header and its shell."""
    names = {name: module for name, module in exported_functions(root).items() if name not in CALLBACKS}
    if not names:
        return
    use = re.compile(rf"\b({'|'.join(sorted(names))})\b")
    apart = installed_headers(root) | {SHELLS.get(module, f"{module}/{module}_c.cpp") for module in FACES}
    for path in source_files(root / "src"):
        source = path.relative_to(root / "src").as_posix()
        if source in apart:
            continue
        code = NO_CODE.sub(lambda cut: "\n" * cut[0].count("\n"), path.read_text(encoding="utf-8"))
        for found in use.finditer(code):
            yield source, code.count("\n", 0, found.start()) + 1, found[1], names[found[1]]


def check_calls(root):
    for source, number, name, module in calls_as_hosts(root):
        yield f"src/{source}:{number}: {name} is for hosts; the library has {FACES[module]}"


def check(root):
    source_dir = (root / "src").resolve()
    shared = installed_headers(root) | {*parts_of_faces(root), "api/tarn_sdk_mqtt_broker.h"}
    used_upward = set()
    for path in source_files(source_dir):
        source = path.relative_to(source_dir).as_posix()
        module = source.split("/")[0]
        if module not in LAYERS:
            yield f"src/{source}: {module}/ is in no layer"
            continue
        for number, header in includes(path, source_dir):
            fault = fault_of(source, header, shared, used_upward) if header else None
            if fault:
                yield f"src/{source}:{number}: {fault}"
    for module, header in sorted(UPWARD.keys() - used_upward):
        yield f"tools/check_layers.py: nothing in {module}/ includes {header} any more"
    for header in sorted({*FACES.values(), *FOLDER_FACES.values()} | installed_headers(root)):
        if not (source_dir / header).exists():
            yield f"{header} is listed but does not exist"
    for path in sorted((root / "broker").rglob("*.[ch]*")):
        for number, header in includes(path, source_dir):
            if header and header not in installed_headers(root) | {"api/tarn_sdk_mqtt_broker.h"}:
                name = path.relative_to(root).as_posix()
                yield f"{name}:{number}: tarn-broker lives on the installed headers alone, not {header}"
    yield from check_calls(root)


def main():
    root = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).parent.parent).resolve()
    faults = list(check(root))
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
