#!/usr/bin/env python3
"""The host shown in README.md is examples/smallest_host.c, which other tests build and run."""
import sys

from project import ROOT

example = (ROOT / "examples/smallest_host.c").read_text(encoding="utf-8")
readme = (ROOT / "README.md").read_text(encoding="utf-8")
if "```c\n" + example + "```" not in readme:
    print("README.md does not show examples/smallest_host.c as it is")
    sys.exit(1)
