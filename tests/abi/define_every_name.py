#!/usr/bin/env python3
"""Writes a C file that defines every function of the list under its own name: define_every_name.py LIST FILE."""
import sys

from check_library import read_list


def main():
    list_path, out_path = sys.argv[1:]
    functions = [name for name, (_, kind, _) in read_list(list_path).items() if kind == "functions"]
    with open(out_path, "w", encoding="utf-8") as out:
        out.write("void taken_over(const char *name);\n")
        for name in functions:
            out.write(f'void {name}(void);\nvoid {name}(void) {{ taken_over("{name}"); }}\n')


if __name__ == "__main__":
    main()
