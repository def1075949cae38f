"""Writes docs/clients.md from what driver.py found."""
import checks
import notes

HEAD = """# Stock clients

What stock clients can do with `tarn-broker`, as it comes (the native profile) and with `--standard`. Written by
`./dev clients`, which runs each check with each client at MQTT 3.1.1 and 5.0; edit `tests/clients/`, not this file. Each
message that a check sends must arrive once, with its topic, payload and QoS.

`✓` it works · `–` the client has no such thing · a number: it does not, and below the table stands what to know. Where a
check has other words than `✓` for one column only, that is this client's own way.
"""

CLIENTS_HEAD = """
| column | client |
|---|---|
"""

PROFILE_HEADS = {
    "standard": "\n## `tarn-broker --standard`\n\n",
    "native": "\n## `tarn-broker`, the native profile\n\n"
              "It departs from the standards on purpose, see [deviations](deviations.md). Clients of 3.1.1 that send short\n"
              "texts do well; most of those of 5.0 do not connect.\n\n",
}


def letters(columns):
    """{column name: its heading}: a letter for the client, and the level."""
    titles = list(dict.fromkeys(column.title for column in columns))
    return {column.name: f"{chr(ord('A') + titles.index(column.title))} {LEVELS[column.level]}" for column in columns}


LEVELS = {4: "3.1.1", 5: "5.0"}


def cell(result, numbers):
    if result is None or result[0] == "none":
        return "–"
    if result[0] == "ok":
        return "✓"
    return " ".join(str(number) for number in numbers) or "✗"


def write_profile(out, profile, columns, headings, results):
    out.write(PROFILE_HEADS[profile])
    out.write("| | " + " | ".join(headings[column.name] for column in columns) + " |\n")
    out.write("|---|" + ":-:|" * len(columns) + "\n")
    used = []
    for check in checks.CHECKS:
        cells = []
        for column in columns:
            result = results[profile, column.name].get(check.name)
            numbers = []
            if result and result[0] == "failed":
                for note in notes.of(profile, column.name, check.name):
                    if note not in used:
                        used.append(note)
                    numbers.append(used.index(note) + 1)
            cells.append(cell(result, numbers))
        out.write(f"| {check.title} | " + " | ".join(cells) + " |\n")
    ok = sum(result[0] == "ok" for column in columns for result in results[profile, column.name].values())
    asked = sum(result[0] != "none" for column in columns for result in results[profile, column.name].values())
    out.write(f"\n{ok} of {asked} work.\n")
    if used:
        out.write("\n")
    for number, note in enumerate(used, 1):
        out.write(f"{number}. {note.in_markdown()}\n")


def write(path, columns, results):
    headings = letters(columns)
    with open(path, "w", encoding="utf-8") as out:
        out.write(HEAD + CLIENTS_HEAD)
        for letter, title, text in {(headings[column.name].split()[0], column.title, column.about): 0
                                    for column in columns}:
            out.write(f"| {letter} | {title}: {text} |\n")
        for profile in "standard", "native":
            write_profile(out, profile, columns, headings, results)
