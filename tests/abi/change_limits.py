#!/usr/bin/env python3
"""Changes each limit in a copy of the headers and compiles them:
change_limits.py COMPILER PROJECT_DIR HEADER...

A limit that is the size of an array in an exported record or global is part of the binary interface. With another value
the headers must not compile; were the array a bare number, they would, and the code would write past its end.
"""
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

# What fixes the layout, or is bound to one that does.
FIXED = {
    "CODEC_CLIENT_ID_MAX", "CODEC_CREDENTIAL_MAX", "CODEC_FILTERS_MAX", "CODEC_PAYLOAD_MAX", "CODEC_REASON_MAX",
    "CODEC_TOPIC_MAX",
    "NETIP_CLIENTS_MAX", "NETIP_EPOLL_EVENTS", "NETIP_IP_CHARS", "NETIP_RX_SIZE",
    "CLIENT_CONTENT_CHARS", "CLIENT_CORRELATION_MAX", "CLIENT_LOCKS", "CLIENT_MAX", "CLIENT_SEND_SLOT_BYTES",
    "CLIENT_WILL_MAX",
    "QOS_PAYLOAD_MAX", "QOS_TOPIC_CHARS",
}
LIMIT = re.compile(r"^(    ([A-Z][A-Z0-9_]+) *= )(\d+)(?=,| *\n)", re.MULTILINE)


def compiles(compiler, copy, source):
    command = [compiler, "-std=gnu11", "-fsyntax-only", "-I", str(copy), str(source)]
    return subprocess.run(command, stderr=subprocess.DEVNULL, check=False).returncode == 0


def main(compiler, project, headers):
    with tempfile.TemporaryDirectory() as folder:
        copy = Path(folder) / "src"
        shutil.copytree(project / "src", copy, ignore=shutil.ignore_patterns("*.cpp"))
        shutil.copytree(project / "include", copy, dirs_exist_ok=True)
        source = copy / "all.c"
        source.write_text("".join(f'#include "{header}"\n' for header in headers), encoding="utf-8")
        limits = copy / "base/limits.h"
        text = limits.read_text(encoding="utf-8")
        if not compiles(compiler, copy, source):
            sys.exit("the headers do not compile as they are")

        let_pass = []
        seen = set()
        for match in LIMIT.finditer(text):
            name, value = match[2], int(match[3])
            seen.add(name)
            verdicts = []
            for other in (2 * value, value // 2):
                limits.write_text(text[:match.start(3)] + str(other) + text[match.end(3):], encoding="utf-8")
                verdicts.append("compiles" if compiles(compiler, copy, source) else "refused")
            print(f"{name}: doubled {verdicts[0]}, halved {verdicts[1]}")
            if name in FIXED and "compiles" in verdicts:
                let_pass.append(name)
        if let_pass:
            sys.exit("compiled with another " + ", ".join(let_pass))
        if not FIXED <= seen:
            sys.exit("no such limit: " + ", ".join(sorted(FIXED - seen)))


if __name__ == "__main__":
    main(sys.argv[1], Path(sys.argv[2]), sys.argv[3:])
