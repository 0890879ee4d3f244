#!/usr/bin/env python3
"""Runs a scenario of the service on the virtual board and judges it.

    tests/board/scenario.py first           the whole chain, logs of all kinds

The machine boots with the programs and the logs, the scenario's script (scenarios/NAME.sh) runs in
it in virtual time, and what it left is compared afterwards (evidence.py). Prints a line for each
figure and each violation. Exit status: 0 all holds; 1 something does not; 2 wrong use; 3 the
machine did not run.
"""

import argparse
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

import boot
import evidence as ev

SCENARIOS = boot.HERE / "scenarios"
PROGRAMS = ["log_consumer", "pushpull_store", "upload_server", "ppctl"]


class Verdict:
    """Prints figures and violations as they are found."""

    def __init__(self):
        self.violations = 0

    def figure(self, name, value):
        print(f"  {name}: {value}", flush=True)

    def holds(self, name, violations):
        found = list(violations)
        self.violations += len(found)
        print(f"  {name}: {len(found)}", flush=True)
        for violation in found[:20]:
            print(f"    VIOLATED: {violation}", flush=True)

    def require(self, name, condition, seen=""):
        if not condition:
            self.violations += 1
        print(f"  {name}: {'yes' if condition else 'NO ' + str(seen)}", flush=True)


def make_payload(folder, programs, script, logs, settings):
    """What boot.py needs: go.sh, programs, logs; the settings are the script's arguments."""
    (folder / "bin").mkdir(parents=True)
    for name in PROGRAMS:
        subprocess.run(["strip", "-o", folder / "bin" / name, programs / name], check=True)
    shutil.copy(SCENARIOS / "lab.sh", folder)
    shutil.copy(SCENARIOS / f"{script}.sh", folder / "scenario.sh")
    words = " ".join(f"{name}={value}" for name, value in settings.items())
    (folder / "go.sh").write_text(f"#!/bin/sh\nexec env {words} bash ./scenario.sh\n")
    (folder / "go.sh").chmod(0o755)
    (folder / "seed").mkdir()
    for number, log in enumerate(logs):
        (folder / "seed" / str(number)).write_bytes(log.content)
    (folder / "seed.list").write_text(
        "".join(f"{number} {log.path}\n" for number, log in enumerate(logs)))


def play(options, script, logs, settings=None):
    """Boots the machine with this script; returns what it left."""
    results = pathlib.Path(options.results) / script
    shutil.rmtree(results, ignore_errors=True)
    with tempfile.TemporaryDirectory(prefix="board.") as scratch:
        payload = pathlib.Path(scratch) / "payload"
        make_payload(payload, pathlib.Path(options.programs), script, logs, settings or {})
        machine = boot.Machine(options.arch, not options.real_time, options.timeout, options.memory)
        status = machine.run(payload, results)
    if status != 0:
        raise boot.BoardError(f"{script}.sh ended with {status}\n" +
                              boot.last_lines(results / "log"))
    return ev.Evidence(results, logs)


def judge_delivery(verdict, evidence):
    """What holds wherever all files are to be sent in the end."""
    verdict.figure("files", len(evidence.fed))
    verdict.figure("uploads on the wire", len(evidence.uploads))
    verdict.holds("false marks", ev.false_marks(evidence))
    verdict.holds("losses", ev.losses(evidence))
    verdict.holds("uploads of unknown bytes, name or kind", ev.strangers(evidence))
    verdict.holds("files not sent in the end", ev.unsent(evidence))
    verdict.holds("claims of the service that are not so", ev.unmarked_claims(evidence))


def first(options):
    """The whole chain: boot, service manager, queues of full size, logs of all kinds."""
    logs = ev.make_logs(len(ev.KINDS) * 2, "first", largest=20000)
    evidence = play(options, "first", logs)
    verdict = Verdict()
    judge_delivery(verdict, evidence)
    verdict.holds("repeated uploads", ev.unexplained_repeats(evidence, []))
    odd = {name: evidence.files[f"{ev.LOGS}/debug/{name}"].mode
           for name in ("mode_0600.gz", "mode_0664.gz", "mode_0400.gz", "notes.txt")}
    verdict.require("what is not to be sent is left alone", odd == {
        "mode_0600.gz": 0o600, "mode_0664.gz": 0o664, "mode_0400.gz": 0o400,
        "notes.txt": 0o644}, odd)
    ready = evidence.text("ready")
    verdict.require("ready when it said so, as Type=notify with a watchdog",
                    all(word in ready for word in ("Type=notify", "ActiveState=active",
                                                   "SubState=running", "WatchdogUSec=30s")), ready)
    before = evidence.text("queues_before").split()
    verdict.require("the service's queue was not there before", before == ["pushpull"], before)
    queues = [json.loads(line) for line in evidence.text("queues").splitlines()]
    sizes = [(queue.get("max_messages"), queue.get("message_size")) for queue in queues
             if queue.get("name") == "/log_consumer"]
    verdict.require("it stands at 64 x 262144", sizes == [(64, 262144)], queues)
    mode = evidence.text("queue_mode").strip()
    verdict.require("with mode 0660", mode == "660 root", mode)
    verdict.require("restarted after a pass", "NRestarts=0" not in evidence.text("unit"))
    return verdict


def main():
    scenarios = {"first": first}
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("scenario", choices=scenarios)
    parser.add_argument("--programs", default=boot.TREE / "build" / "release" / "bin",
                        metavar="FOLDER", help="of the service and the lab (build/release/bin)")
    parser.add_argument("--results", metavar="FOLDER",
                        help="keep what the machine left there; a temporary folder unless told")
    parser.add_argument("--real-time", action="store_true", help="do not skip idle time")
    boot.add_options(parser)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="board.") as scratch:
        options.results = options.results or scratch
        try:
            verdict = scenarios[options.scenario](options)
        except boot.BoardError as error:
            print(f"scenario.py: {error}", file=sys.stderr)
            return 3
    print("all holds" if verdict.violations == 0 else f"{verdict.violations} violations")
    return 0 if verdict.violations == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
