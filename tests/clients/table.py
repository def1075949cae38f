"""Writes docs/clients.md from what driver.py found."""
import checks
import notes

LEVELS = {4: "3.1.1", 5: "5.0"}

HEAD = """# Stock clients

What stock clients can do with `tarn-broker --standard`, and with the native profile, which is the default. Written by
`./dev clients`, which puts every client at MQTT 3.1.1 and at 5.0 through the same checks; edit `tests/clients/`, not
this file. What a check sends must arrive once, in order, with its topic, payload and QoS.

✓ it works · – the client has no such thing · a number: it does not, or differently; what to know stands below the table

| column | client | version |
|---|---|---|
"""

INTRODUCTIONS = {
    "standard": """
## The standard profile

`tarn-broker --standard`, or a host that calls `tarn_sdk_mqtt_broker_set_profile(broker, TARN_PROFILE_STANDARD)`.

""",
    "native": """
## The native profile

`tarn-broker`. It departs from the standards on purpose ([deviations](deviations.md)): stock clients of 3.1.1 do well
with short messages, most of those of 5.0 do not connect.

""",
}


def letters(columns):
    """{title of a client: its letter}"""
    titles = list(dict.fromkeys(column.title for column in columns))
    return {title: chr(ord("A") + number) for number, title in enumerate(titles)}


class Numbers:
    """The texts of notes get numbers in the order in which they are met."""

    def __init__(self):
        self.used = []

    def of(self, found):
        texts = [note.in_markdown() for note in found]
        self.used += [text for text in texts if text not in self.used]
        return " ".join(str(self.used.index(text) + 1) for text in texts)


def cell(profile, column, check, result, numbers):
    if result is None or result[0] == "none":
        return "–"
    if result[0] == "ok":
        return "✓"
    return numbers.of(notes.of(profile, column.name, check.name)) or "✗"


def lines_of(profile, columns, results):
    letter = letters(columns)
    numbers = Numbers()
    yield "| | " + " | ".join(f"{letter[column.title]} {LEVELS[column.level]}" for column in columns) + " |"
    yield "|---|" + ":-:|" * len(columns)
    for check in checks.CHECKS:
        cells = [cell(profile, column, check, results[profile, column.name].get(check.name), numbers)
                 for column in columns]
        yield f"| {check.title} | " + " | ".join(cells) + " |"
    ended = [of_column[check.name][0] for column in columns for of_column in [results[profile, column.name]]
             for check in checks.CHECKS if check.name in of_column]
    yield f"\n{ended.count('ok')} of {len(ended) - ended.count('none')} work.\n"
    for number, text in enumerate(numbers.used, 1):
        yield f"{number}. {text}"


def write(path, columns, results):
    versions = {column.title: results["standard", column.name].get("version", "?") for column in columns}
    with open(path, "w", encoding="utf-8") as out:
        out.write(HEAD)
        for title, letter in letters(columns).items():
            out.write(f"| {letter} | {title} | {versions[title]} |\n")
        for profile in "standard", "native":
            out.write(INTRODUCTIONS[profile])
            for line in lines_of(profile, columns, results):
                out.write(line + "\n")
