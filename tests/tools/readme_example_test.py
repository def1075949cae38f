#!/usr/bin/env python3
"""The hosts shown in README.md are those of examples/, and it names all the others."""
import sys

from project import ROOT

readme = (ROOT / "README.md").read_text(encoding="utf-8")
wrong = []
for example in sorted((ROOT / "examples").glob("*.c*")):
    if example.stem == "smallest_host":
        is_there = f"```{example.suffix[1:]}\n{example.read_text(encoding='utf-8')}```" in readme
    else:
        is_there = f"`{example.name}`" in readme
    if not is_there:
        wrong.append(example.name)
if wrong:
    print("README.md does not show these as they are:", *wrong)
    sys.exit(1)
