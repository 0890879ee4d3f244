#!/usr/bin/env python3
"""Runs a scenario of the service on the virtual board and judges it.

    tests/board/scenario.py first           the whole chain, logs of all kinds
    tests/board/scenario.py kill            SIGKILL at random moments
    tests/board/scenario.py slow            hours with a server that takes 170 s for each answer
    tests/board/scenario.py nameless        hours with a server whose name cannot be resolved
    tests/board/scenario.py dead            hours with a server that does not listen
    tests/board/scenario.py stopped         the process is stopped and has to be killed
    tests/board/scenario.py stuck           its configuration thread alone is stopped
    tests/board/scenario.py endurance       logs all day

The machine boots with the programs and the logs, the scenario's script (scenarios/NAME.sh) runs in
it in virtual time, and what it left is compared afterwards (evidence.py). Prints a line for each
figure and each check, one that begins with FAIL for each violation. Exit status: 0 all holds; 1 something does not; 2 wrong use; 3 the
machine did not run.
"""

import argparse
import collections
import json
import math
import pathlib
import re
import shutil
import statistics
import subprocess
import sys
import tempfile

import boot
import evidence as ev

SCENARIOS = boot.HERE / "scenarios"
PROGRAMS = ["log_consumer", "pushpull_store", "upload_server", "ppctl", "stop_thread"]
WATCHDOG_SECONDS = 30    # as scenarios/lab.sh sets it
MEMORY_KIB = 256         # how much resident memory may grow after the warm-up
SECONDS_BETWEEN_TRIES = 5
SECONDS_A_FILE = 8       # 5 of pause, up to 2 until the next poll, up to 1 until the answer is seen
SECONDS_OF_SEARCH = 15   # a second of each kind, for find and fuser
SECONDS_TO_RECOVER = 60  # what the end of a fault finds at work, a restart, both connections
SLOW_ANSWER_SECONDS = 170  # as scenarios/watchdog.sh tells the server
CONNECTED_SECONDS = 12   # after its start the service has both its connections
KILL_ANSWER_DELAY = 0.4  # seconds, as scenarios/kill.sh tells the server


class Verdict:
    """Prints figures and violations as they are found."""

    def __init__(self):
        self.violations = 0

    def figure(self, name, value):
        print(f"  figure {name}: {value}", flush=True)

    def holds(self, name, violations):
        found = list(violations)
        self.violations += len(found)
        self.figure(name, len(found))
        for violation in found[:20]:
            print(f"  FAIL {name}: {violation}", flush=True)

    def require(self, name, condition, seen=""):
        if not condition:
            self.violations += 1
        print(f"  ok {name}" if condition else f"  FAIL {name}: {seen}", flush=True)


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
        (folder / "seed" / str(number)).chmod(0o644)
    (folder / "seed.list").write_text(
        "".join(f"{number} {log.path}\n" for number, log in enumerate(logs)))


def play(options, script, logs, settings=None):
    """Boots the machine with this script; returns what it left."""
    results = pathlib.Path(options.results) / script
    if options.judge_only:
        return ev.Evidence(results, logs)
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


def judge_delivery(verdict, evidence, answer_delay=0.0, kills=()):
    """What holds wherever all files are to be sent in the end."""
    verdict.figure("files", len(evidence.fed))
    verdict.figure("uploads on the wire", len(evidence.uploads))
    verdict.holds("false marks", ev.false_marks(evidence, answer_delay))
    verdict.holds("losses", ev.losses(evidence))
    verdict.holds("uploads of unknown bytes, name or kind", ev.strangers(evidence, kills))
    verdict.holds("files not sent in the end", ev.unsent(evidence))
    verdict.holds("claims of the service that are not so", ev.unmarked_claims(evidence))
    # Or lines may be missing, and with them what they would have told.
    starts = len(evidence.manager_lines("Starting log_consumer.service"))
    restarts = int(re.search(r"NRestarts=(\d+)", evidence.text("unit"))[1])
    verdict.require("the journal is whole: it has every start", 0 <= starts - restarts - 1 <= 1,
                    (starts, restarts))


def judge_passes(verdict, evidence, answer_delay=0.0, stopped=0):
    """No pass takes longer than its pauses and the server's answers allow.

    One that its process did not live to end may have been at one more file, and have been held up as
    long as the process was stopped.
    """
    passes = list(ev.passes(evidence))
    longest = max(passes, key=lambda each: each.seconds, default=None)
    verdict.require("there was a pass", longest)
    if not longest:
        return
    verdict.figure("longest pass", f"{longest.seconds:.1f} s, {longest.uploads} uploads, "
                   f"{'whole' if longest.whole else 'cut short'}; "
                   f"{sum(each.whole for each in passes)} of {len(passes)} passes were whole")

    def allowed(each):
        cut = 0 if each.whole else SECONDS_A_FILE + answer_delay + stopped
        return SECONDS_OF_SEARCH + (SECONDS_A_FILE + answer_delay) * each.uploads + cut

    verdict.holds("passes longer than their pauses", (
        f"of process {each.pid}, {each.uploads} uploads: {each.seconds:.1f} s, "
        f"{allowed(each):.1f} allowed" for each in passes if each.seconds > allowed(each)))


def first(options):
    """The whole chain: boot, service manager, queues of full size, logs of all kinds."""
    logs = ev.make_logs(len(ev.KINDS) * 2, "first", largest=20000)
    evidence = play(options, "first", logs)
    verdict = Verdict()
    judge_delivery(verdict, evidence)
    judge_passes(verdict, evidence)
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


def kill(options):
    """SIGKILL at random moments, each followed by a restart."""
    logs = ev.make_logs(options.kills + 100, f"kill {options.seed}")
    evidence = play(options, "kill", logs, {"kills": options.kills, "seed": options.seed})
    kills = [float(line.split()[0]) for line in evidence.text("kills").splitlines()]
    verdict = Verdict()
    verdict.figure("seed", options.seed)
    verdict.require("kills as many as asked for", len(kills) == options.kills, len(kills))
    verdict.figure("kills between an answer and its mark",
                   len(ev.answered_unmarked(evidence, kills, KILL_ANSWER_DELAY)))
    verdict.figure("kills while a request was not whole",
                   sum(upload.content is None for upload in evidence.uploads))
    judge_delivery(verdict, evidence, KILL_ANSWER_DELAY, kills)
    judge_passes(verdict, evidence, KILL_ANSWER_DELAY)
    verdict.figure("files sent as another kind, found by find before the kill",
                   len(list(ev.misdirected(evidence, kills))))
    verdict.figure("uploads repeated", len(list(ev.repeats(evidence))))
    verdict.holds("repeats that no kill explains", ev.unexplained_repeats(evidence, kills))
    verdict.figure("virtual hours", f"{(kills[-1] - kills[0]) / 3600:.2f}")
    judge_recovery(verdict, evidence)
    return verdict


def trips(evidence):
    """(time, pid) of every process that the service manager killed for its silence."""
    for line in evidence.manager_lines("Killing process"):
        found = re.search(r"Killing process (\d+) \(log_consumer\) with signal SIGABRT", line.text)
        if found:
            yield line.time, int(found[1])


def judge_memory(verdict, evidence, warm_up, hours, connecting=False, ended=None):
    """Nothing grows in a process that is `warm_up` seconds old, nor from one process to the next.

    While the service is connecting, a look-up's socket comes and goes, and so do a connection's
    thread and descriptors; otherwise they are constant. `ended`: when which process ceased to work.
    """
    samples = [ev.Sample.of(line) for line in evidence.text("samples").splitlines()]
    usual = statistics.mode(sample.threads for sample in samples)
    least = usual - 1 if connecting else usual  # with fewer a process is starting or ending
    samples = [sample for sample in samples if sample.threads >= least and
               sample.time < (ended or {}).get(sample.pid, math.inf)]
    first, ages = {}, collections.defaultdict(list)
    for sample in samples:
        born = first.setdefault(sample.pid, sample.time)
        if sample.time - born >= warm_up:
            ages[sample.pid].append(sample)
    grown = [max(sample.resident for sample in warm) - warm[0].resident for warm in ages.values()]
    every = [sample for warm in ages.values() for sample in warm]
    verdict.figure("samples of resident memory", f"{len(every)} warm of {len(samples)}, in "
                   f"{len(ages)} processes")
    if not every:
        verdict.require("the run was too short for a warm process", hours * 3600 <= 2 * warm_up)
        return
    resident = [sample.resident for sample in every]
    verdict.figure("resident memory, KiB", f"{min(resident)} to {max(resident)}")
    verdict.figure("of it anonymous, KiB", f"{min(sample.anonymous for sample in every)} to "
                   f"{max(sample.anonymous for sample in every)}")
    verdict.require(f"no process grows by more than {MEMORY_KIB} KiB (most: {max(grown)})",
                    max(grown) <= MEMORY_KIB)
    # How many pages of files are mapped changes with the addresses that a start draws; what the
    # service takes for itself does not.
    own = [sample.anonymous for sample in every]
    third = max(1, len(own) // 3)
    drift = statistics.mean(own[-third:]) - statistics.mean(own[:third])
    verdict.require(f"from the first third to the last the service's own memory drifts by at most "
                    f"{MEMORY_KIB} KiB ({drift:+.0f})", abs(drift) <= MEMORY_KIB)
    held = [(sample.descriptors, sample.threads) for sample in every]
    verdict.figure("descriptors and threads (samples)", ", ".join(
        f"{d} and {t} ({count})" for (d, t), count in collections.Counter(held).most_common()))
    half = len(held) // 2
    if connecting:
        verdict.require("descriptors and threads do not grow", max(held[half:]) <= max(held[:half]))
    else:
        verdict.require("descriptors and threads are constant", len(set(held)) == 1)


def judge_tries(verdict, evidence, outcome):
    """Each server by itself is tried no more often than the service's pauses say."""
    for server in ("Data upload", "Relay server"):
        lines = evidence.service_lines(f"{server} client connection {outcome}")
        gap = min(later.time - line.time for line, later in zip(lines, lines[1:])
                  if line.pid == later.pid)
        verdict.require(f"{server}: tries are at least {SECONDS_BETWEEN_TRIES} s apart "
                        f"(least: {gap:.1f})", gap >= SECONDS_BETWEEN_TRIES)


def judge_length(verdict, evidence, hours):
    """The script had its whole time: one that ended early would show nothing, and well."""
    began = evidence.manager_lines("Starting log_consumer.service")[0].time
    ended = float(evidence.text("faults_end").split()[0])
    verdict.require(f"it lasted {hours} hours", ended - began >= hours * 3600 - 60,
                    f"{(ended - began) / 3600:.2f}")


def judge_recovery(verdict, evidence, answer_delay=0):
    """Liveness: what waits at the end of the fault is sent as fast as the service's pauses allow."""
    end, waiting = map(float, evidence.text("faults_end").split())
    settled, _ = map(float, evidence.text("settled").split())
    verdict.figure("after the fault", f"{waiting:.0f} waiting files sent in {settled - end:.0f} s")
    allowed = SECONDS_TO_RECOVER + answer_delay + SECONDS_A_FILE * waiting
    verdict.require(f"within {allowed:.0f} s", settled - end <= allowed, f"{settled - end:.0f}")


def watchdog(options, server):
    logs = ev.make_logs(20 + 22 * options.hours if server == "slow" else 14, f"watchdog {server}")
    evidence = play(options, "watchdog", logs, {"server": server, "hours": options.hours,
                                                "stops": options.stops})
    verdict = Verdict()
    judge_delivery(verdict, evidence)
    answer_delay = SLOW_ANSWER_SECONDS if server == "slow" else 0
    judge_passes(verdict, evidence, answer_delay, WATCHDOG_SECONDS)
    judge_recovery(verdict, evidence, answer_delay)
    if server not in ("stopped", "stuck"):
        judge_length(verdict, evidence, options.hours)
    killed = list(trips(evidence))
    verdict.figure("times that the watchdog tripped", len(killed))
    verdict.holds("repeats that no kill explains",
                  ev.unexplained_repeats(evidence, [time for time, _ in killed]))
    return verdict, evidence, killed


def slow(options):
    """Answers that take almost as long as the service waits must not trip the watchdog."""
    verdict, evidence, killed = watchdog(options, "slow")
    verdict.require("the watchdog never tripped", not killed, killed)
    judge_memory(verdict, evidence, CONNECTED_SECONDS, options.hours)
    return verdict


def nameless(options):
    """Nor must one whose name is looked up in vain all the time."""
    verdict, evidence, killed = watchdog(options, "nameless")
    verdict.require("the watchdog never tripped", not killed, killed)
    verdict.figure("look-ups in vain",
                   len(evidence.service_lines("Data upload client connection failed")))
    judge_tries(verdict, evidence, "failed")
    judge_memory(verdict, evidence, 3600, options.hours, connecting=True)
    return verdict


def dead(options):
    """After four hours without activity the watchdog is the recovery; nothing else trips it."""
    verdict, evidence, killed = watchdog(options, "dead")
    given_up = {line.pid: line.time
                for line in evidence.service_lines("PushpullLC thread: reset due to no activity")}
    verdict.figure("processes that gave up after four hours without activity", len(given_up))
    verdict.require("every trip is of such a process, and within two watchdog times",
                    all(pid in given_up and 0 < time - given_up[pid] < 2 * WATCHDOG_SECONDS
                        for time, pid in killed), killed)
    verdict.require("each of them was killed", len(killed) == len(given_up))
    verdict.require("as often as four hours pass", len(killed) == int(options.hours / 4.02),
                    len(killed))
    verdict.figure("connections tried", len(evidence.service_lines("Connecting to")))
    judge_tries(verdict, evidence, "sent")
    judge_memory(verdict, evidence, 3600, options.hours, connecting=True, ended=given_up)
    return verdict


def stopped(options, what="stopped"):
    """A process that is stuck as a whole is killed and started again."""
    verdict, evidence, killed = watchdog(options, what)
    stops = {int(line.split()[1]): float(line.split()[0])
             for line in evidence.text("stops").splitlines()}
    verdict.figure("processes stopped", len(stops))
    verdict.require("each of them, and no other, was killed for its silence",
                    sorted(stops) == sorted(pid for _, pid in killed), (stops, killed))
    waits = [time - stops[pid] for time, pid in killed if pid in stops]
    verdict.figure("seconds from the stop to the kill", [round(wait, 1) for wait in waits])
    verdict.require("within the watchdog's time", all(wait <= WATCHDOG_SECONDS + 1
                                                      for wait in waits))
    return verdict


def stuck(options):
    """So is one whose configuration thread is stuck while the upload engine lives on."""
    return stopped(options, "stuck")


def endurance(options):
    """Logs all the time, and a restart after each pass: nothing grows, nothing is left over."""
    logs = ev.make_logs(options.files, "endurance", largest=3000)
    evidence = play(options, "endurance", logs, {"hours": options.hours, "files": options.files})
    verdict = Verdict()
    judge_length(verdict, evidence, options.hours)
    verdict.require("all logs were given", len(evidence.fed) == options.files, len(evidence.fed))
    judge_delivery(verdict, evidence)
    judge_passes(verdict, evidence)
    judge_recovery(verdict, evidence)
    verdict.holds("repeated uploads", ev.unexplained_repeats(evidence, []))
    verdict.figure("restarts", re.search(r"NRestarts=(\d+)", evidence.text("unit"))[1])
    verdict.require("the watchdog never tripped", not list(trips(evidence)))
    judge_memory(verdict, evidence, CONNECTED_SECONDS, options.hours)
    return verdict


def main():
    scenarios = {"first": first, "kill": kill, "slow": slow, "nameless": nameless, "dead": dead,
                 "stopped": stopped, "stuck": stuck, "endurance": endurance}
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("scenario", choices=scenarios)
    parser.add_argument("--programs", default=boot.TREE / "build" / "release" / "bin",
                        metavar="FOLDER", help="of the service and the lab (build/release/bin)")
    parser.add_argument("--results", metavar="FOLDER",
                        help="keep what the machine left there; a temporary folder unless told")
    parser.add_argument("--kills", type=int, default=250, metavar="N", help="(%(default)s)")
    parser.add_argument("--hours", type=int, default=24, metavar="N", help="virtual (%(default)s)")
    parser.add_argument("--stops", type=int, default=3, metavar="N", help="(%(default)s)")
    parser.add_argument("--files", type=int, default=10000, metavar="N", help="(%(default)s)")
    parser.add_argument("--judge-only", action="store_true",
                        help="judge what an earlier run left in --results")
    parser.add_argument("--seed", type=int, default=1, metavar="N",
                        help="of the moments of the kills (%(default)s)")
    parser.add_argument("--real-time", action="store_true", help="do not skip idle time")
    boot.add_options(parser)
    parser.set_defaults(timeout=21600)  # what the longest takes on a busy machine, and more
    options = parser.parse_args()
    boot.end_cleanly_on_sigterm()
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
