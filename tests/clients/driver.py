#!/usr/bin/env python3
"""Puts stock clients through the checks of checks.py against the broker program: driver.py --broker PROGRAM ...

Each client at each level is a column, which runs in a process and a network namespace of its own (column.py), some of
them at a time. --table FILE runs both profiles and writes docs/clients.md; otherwise the standard profile alone is run,
and a failed check that notes.py does not name is a failure of the whole (exit status 1). Clients that are not installed
are left out; with --all that is a failure too.
"""
import argparse
import json
import os
import pathlib
import shutil
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass

import checks
import notes
import table

HERE = pathlib.Path(__file__).resolve().parent
PROFILES = {"native": [], "standard": ["--standard"]}
SKIPPED = 77  # as an exit status
SYSTEM_PYTHON = "/usr/bin/python3"  # where the distribution's packages are


@dataclass
class Column:
    name: str
    title: str
    level: int
    kind: str
    command: list
    needs: str  # a file; the column is left out without it


def python_with_paho():
    for python in sys.executable, SYSTEM_PYTHON:
        if pathlib.Path(python).exists() and not subprocess.run([python, "-c", "import paho.mqtt.client"],
                                                                capture_output=True).returncode:
            return python
    return "no python with paho-mqtt"


def columns_of(arguments):
    agents = pathlib.Path(arguments.agents)
    script = str(HERE / "agents/mqttjs.js")
    node = shutil.which("node") or "no node"
    modules = pathlib.Path(arguments.npm) / "node_modules"
    python = python_with_paho()
    sub = shutil.which("mosquitto_sub") or "no mosquitto_sub"
    mosquitto = shutil.which("mosquitto") or "no mosquitto"

    def both(name, title, kind, command, needs):
        for level in 4, 5:
            yield Column(f"{name}_{level}", title, level, kind, command, needs)

    def javascript(name, title, package):
        return both(name, title, "agent", ["env", f"NODE_PATH={modules}", node, script, package],
                    str(modules / package / "package.json"))

    yield from both("mosquitto", "mosquitto_pub, _sub, _rr", "tools", [], sub)
    for name, title in ("paho_sync", "Paho C, MQTTClient"), ("paho_async", "Paho C, MQTTAsync"):
        yield from both(name, title, "agent", [str(agents / name)], str(agents / name))
    yield from both("paho_python", "Paho Python", "agent", [python, str(HERE / "agents/paho_python.py")], python)
    yield from javascript("mqttjs4", "MQTT.js 4", "mqtt")
    yield from javascript("mqttjs5", "MQTT.js 5", "mqtt5")
    yield Column("bridge_default", "Mosquitto as bridge, as it comes", 4, "bridge", ["default"], mosquitto)
    yield from both("bridge", "Mosquitto as bridge, version set", "bridge", ["set"], mosquitto)


def namespace():
    """The command that gives a process a network of its own."""
    for options in (["-n"], ["-rn"]):
        if subprocess.run(["unshare", *options, "true"], capture_output=True).returncode == 0:
            return ["unshare", *options]
    return None


def run_column(arguments, column, profile, own_network):
    """{check: (result, text)}, with "none" for what was not asked of this column."""
    command = [*own_network, sys.executable, str(HERE / "column.py"), "--broker", arguments.broker, "--name",
               column.name, "--kind", column.kind, "--level", str(column.level), "--only", arguments.only]
    for option in PROFILES[profile]:
        command.append(f"--broker-option={option}")
    if arguments.quick:
        known = [check.name for check in checks.CHECKS if notes.of(profile, column.name, check.name)]
        command += ["--quick", *(f"--skip={name}" for name in known)]
    done = subprocess.run([*command, "--", *column.command], capture_output=True, text=True)
    results = {}
    for line in done.stdout.splitlines():
        one = json.loads(line)
        if "version" in one:
            results["version"] = one["version"]
            continue
        results[one["check"]] = (one["result"], one["text"])
        if arguments.verbose or one["result"] == "failed":
            seconds = one.get("seconds", 0)
            print(f"{profile} {column.name} {one['check']}: {one['result']} {one['text']} ({seconds} s)", flush=True)
    if done.returncode:
        results["broker"] = ("failed", f"the column ended with {done.returncode}: {done.stderr[-1500:]}")
        print(f"{profile} {column.name} {results['broker'][1]}", flush=True)
    return results


def run_all(arguments, columns, profiles, own_network):
    """{(profile, column name): {check: (result, text)}}"""
    with ThreadPoolExecutor(arguments.jobs) as pool:
        running = {(profile, column.name): pool.submit(run_column, arguments, column, profile, own_network)
                   for profile in profiles for column in columns}
        return {key: future.result() for key, future in running.items()}


def checks_in(of_column):
    return [(name, result) for name, result in of_column.items() if name != "version"]


def count(results):
    """Per profile how many checks ended how, and the failed ones that nobody explains."""
    unexplained = []
    for profile in sorted({profile for profile, _ in results}):
        ended = {"ok": 0, "failed": 0, "none": 0}
        for (own, column), of_column in results.items():
            if own != profile:
                continue
            for name, (result, text) in checks_in(of_column):
                ended[result] += 1
                if result == "failed" and not notes.of(profile, column, name):
                    unexplained.append(f"{profile} {column} {name}: {text}")
        print(f"{profile}: {ended['ok']} ok, {ended['failed']} failed, {ended['none']} not possible with the client")
    return unexplained


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--broker", required=True, type=os.path.abspath, help="the program")
    parser.add_argument("--agents", required=True, type=os.path.abspath, help="the folder of the built clients")
    parser.add_argument("--npm", required=True, type=os.path.abspath, help="the folder with node_modules")
    parser.add_argument("--profile", choices=PROFILES, default="standard")
    parser.add_argument("--columns", default="", help="names of columns with commas between; all")
    parser.add_argument("--only", default=".*", help="checks whose whole name this pattern matches")
    parser.add_argument("--quick", action="store_true", help="without the checks that mostly wait, or that are known to fail")
    parser.add_argument("--all", action="store_true", help="a client that is missing is a failure")
    parser.add_argument("--jobs", type=int, default=8, help="columns at a time")
    parser.add_argument("--verbose", action="store_true")
    parser.add_argument("--table", help="run both profiles and write this file")
    arguments = parser.parse_args()

    os.environ["PATH"] += ":/usr/sbin:/sbin"
    if notes.unknown_quirks():
        print("notes.py names what docs/deviations.md does not have:", *notes.unknown_quirks())
        return 1
    own_network = namespace()
    if own_network is None:
        print("no network namespace here")
        return SKIPPED
    columns = [one for one in columns_of(arguments)
               if not arguments.columns or one.name in arguments.columns.split(",")]
    missing = [one.name for one in columns if not pathlib.Path(one.needs).exists()]
    if missing:
        print("not installed:", *missing)
        if arguments.all:
            return 1
    columns = [one for one in columns if one.name not in missing]
    profiles = list(PROFILES) if arguments.table else [arguments.profile]
    results = run_all(arguments, columns, profiles, own_network)
    unexplained = count(results)
    if arguments.table:
        table.write(arguments.table, columns, results)
    if unexplained:
        print("failed without a reason in notes.py:", *unexplained, sep="\n  ")
    return 1 if unexplained else 0


if __name__ == "__main__":
    sys.exit(main())
