#!/usr/bin/env python3
"""The runner and the judge are judged themselves.

A clean record passes, each planted wrong is found, and a machine counts as run only by its marker.
"""

import dataclasses
import datetime
import gzip
import json
import pathlib
import shutil
import tempfile
import unittest
import unittest.mock

import boot
import evidence as ev
import scenario

NOON = 1_800_000_000.0
BOUNDARY = "frontier"


def multipart(log):
    name = pathlib.PurePath(log.path).name
    body = (f"--{BOUNDARY}\r\nContent-Disposition: form-data; name=\"LogType\"\r\n\r\n{log.kind}"
            f"\r\n--{BOUNDARY}\r\nContent-Disposition: form-data; name=\"Data\"; "
            f"filename=\"{name}\"\r\n\r\n").encode() + log.content + f"\r\n--{BOUNDARY}--".encode()
    return (f"POST /v1/Upload HTTP/1.1\r\nContent-Type: multipart/form-data; boundary={BOUNDARY}"
            f"\r\nContent-Length: {len(body)}\r\n\r\n").encode() + body


class Record:
    """A results folder, made by hand."""

    def __init__(self, folder, logs):
        self.folder, self.logs = folder, logs
        self.events, self.files, self.journal = [], {}, []
        self.written = {}
        for log in logs:
            self.files[log.path] = (0o644, NOON, log.content)

    def upload(self, log, time, status=200, outcome="answered", request=None):
        number = len(self.events) + 1
        if request is None:
            request = log.content if log.kind is None else multipart(log)
        (self.folder / "requests").mkdir(exist_ok=True)
        (self.folder / "requests" / f"{number}.request").write_bytes(request)
        moment = datetime.datetime.fromtimestamp(time, datetime.timezone.utc)
        moment = moment.isoformat(timespec="milliseconds").replace("+00:00", "Z")
        self.events.append({"event": "upload", "upload": number, "status": status,
                            "time": moment, "outcome": outcome,
                            "request": f"/results/requests/{number}.request"})

    def mark(self, log, time, mode=0o400):
        self.files[log.path] = (mode, time, self.files[log.path][2])

    def say(self, text):
        self.journal.append({"__REALTIME_TIMESTAMP": str(int(NOON * 1e6)), "_PID": "7",
                             "SYSLOG_IDENTIFIER": "LogConsumer", "MESSAGE": text})

    def read(self):
        (self.folder / "fed").write_text("".join(f"{n}\n" for n in range(len(self.logs))))
        (self.folder / "uploads.jsonl").write_text(
            "".join(json.dumps(event) + "\n" for event in self.events))
        (self.folder / "journal").write_text(
            "".join(json.dumps(line) + "\n" for line in self.journal))
        lines = []
        for path, (mode, changed, content) in self.files.items():
            copy = self.folder / "logs" / pathlib.PurePath(path).relative_to(ev.LOGS)
            copy.parent.mkdir(parents=True, exist_ok=True)
            copy.write_bytes(content)
            written = self.written.get(path, NOON - 1)
            lines.append(f"{mode:o} {changed} {written} {len(content)} {path}\n")
        (self.folder / "files").write_text("".join(lines))
        return ev.Evidence(self.folder, self.logs)


class Oracle(unittest.TestCase):
    def setUp(self):
        folder = pathlib.Path(tempfile.mkdtemp(prefix="board."))
        self.addCleanup(shutil.rmtree, folder)
        self.logs = ev.make_logs(4, "oracle")  # raw, multipart, raw, multipart
        self.record = Record(folder, self.logs)

    def send_all(self):
        for number, log in enumerate(self.logs):
            self.record.upload(log, NOON + 10 * number)
            self.record.mark(log, NOON + 10 * number + 1)

    def violations(self, kills=()):
        seen = self.record.read()
        return {check.__name__: list(check(seen)) for check in (
            ev.false_marks, ev.losses, ev.strangers, ev.unsent, ev.unmarked_claims)} | {
                "unexplained_repeats": list(ev.unexplained_repeats(seen, kills))}

    def found(self, kills=()):
        return {name: len(list(found)) for name, found in self.violations(kills).items() if found}

    def test_a_clean_record_has_no_violation(self):
        self.send_all()
        self.record.say(f"Sending {self.logs[0].path} went okay")
        self.assertEqual(self.found(), {})

    def test_mark_without_any_upload_is_false(self):
        self.send_all()
        self.record.events.pop()
        self.assertEqual(self.found(), {"false_marks": 1})

    def test_mark_before_the_answer_is_false(self):
        self.send_all()
        self.record.mark(self.logs[1], NOON + 9.9)
        self.assertEqual(self.found(), {"false_marks": 1})

    def test_mark_within_the_delay_of_the_answer_is_false(self):
        self.send_all()
        self.assertEqual(len(list(ev.false_marks(self.record.read(), answer_delay=0.9))), 0)
        self.assertEqual(len(list(ev.false_marks(self.record.read(), answer_delay=1.1))), 4)

    def test_mark_after_an_answer_other_than_200_is_false(self):
        self.send_all()
        self.record.events[1]["status"] = 500
        self.assertEqual(self.found(), {"false_marks": 1})

    def test_mark_after_an_answer_that_did_not_go_out_is_false(self):
        self.send_all()
        self.record.events[1]["outcome"] = "closed in the answer"
        self.assertEqual(self.found(), {"false_marks": 1})

    def test_mark_after_an_upload_of_other_bytes_is_false(self):
        self.send_all()
        other = ev.Log(self.logs[1].path, gzip.compress(b"other"))
        (self.record.folder / "requests" / "2.request").write_bytes(multipart(other))
        self.assertEqual(self.found(), {"false_marks": 1, "strangers": 1})

    def test_mark_after_a_request_that_was_cut_off_is_false(self):
        self.send_all()
        request = self.record.folder / "requests" / "2.request"
        request.write_bytes(request.read_bytes()[:-1])
        self.assertEqual(self.found(), {"false_marks": 1})

    def test_missing_changed_and_strangely_moded_files_are_losses(self):
        self.send_all()
        del self.record.files[self.logs[0].path]
        mode, changed, content = self.record.files[self.logs[1].path]
        self.record.files[self.logs[1].path] = (mode, changed, content[:-1])
        self.record.mark(self.logs[2], NOON + 21, mode=0o444)
        self.assertEqual(self.found(), {"losses": 3, "unsent": 1})

    def test_same_bytes_written_again_are_a_loss(self):
        self.send_all()
        self.record.written[self.logs[2].path] = NOON + 25
        self.assertEqual(self.found(), {"losses": 1})

    def test_upload_under_another_name_is_a_stranger(self):
        self.send_all()
        renamed = ev.Log(self.logs[1].path + "x.gz", self.logs[1].content)
        (self.record.folder / "requests" / "2.request").write_bytes(multipart(renamed))
        self.assertEqual(self.found(), {"strangers": 1})

    def send_measurement_as_report(self):
        """As after a kill in the middle of find."""
        self.send_all()
        request = self.record.folder / "requests" / "2.request"
        request.write_bytes(self.logs[1].content)
        return list(ev.strangers(self.record.read(), kills=[NOON + 3]))

    def test_a_kill_excuses_a_finder_kinds_file_sent_as_another_finder_kinds(self):
        self.assertEqual(self.send_measurement_as_report(), [])
        self.assertEqual(len(list(ev.strangers(self.record.read(), kills=[]))), 1)
        self.assertEqual(len(list(ev.strangers(self.record.read(), kills=[NOON + 11]))), 1)

    def test_file_that_still_waits_is_unsent(self):
        self.send_all()
        self.record.mark(self.logs[3], NOON + 31, mode=0o644)
        self.assertEqual(self.found(), {"unsent": 1})

    def test_claim_about_a_file_that_waits_is_found(self):
        self.record.say(f"Sending {self.logs[0].path} went okay")
        self.assertEqual(self.found(), {"unmarked_claims": 1, "unsent": 4})

    def test_repeat_needs_a_kill_between_the_two(self):
        self.send_all()
        self.record.upload(self.logs[3], NOON + 40)
        self.assertEqual(self.found(kills=[NOON + 29, NOON + 41]), {"unexplained_repeats": 1})
        self.assertEqual(self.found(kills=[NOON + 35]), {})

    def test_kill_explains_one_repeat_only(self):
        self.record.upload(self.logs[0], NOON)
        self.record.upload(self.logs[1], NOON + 1)
        self.record.upload(self.logs[0], NOON + 40)
        self.record.upload(self.logs[1], NOON + 41)
        self.assertEqual(self.found(kills=[NOON + 10])["unexplained_repeats"], 2)

    def test_repeat_of_a_file_that_others_had_followed_is_found(self):
        self.send_all()
        self.record.upload(self.logs[2], NOON + 40)
        self.assertEqual(self.found(kills=[NOON + 35]), {"unexplained_repeats": 1})


class Told:
    """What a judge asks an evidence for: texts by their file, lines by nothing."""

    def __init__(self, lines=(), **texts):
        self.lines, self.texts = list(lines), texts

    def text(self, name):
        return self.texts[name]

    def service_lines(self, text):
        return [line for line in self.lines if text in line.text]

    manager_lines = service_lines


def violations_of(judge, *arguments, **named):
    verdict = scenario.Verdict()
    with unittest.mock.patch("builtins.print"):
        judge(verdict, *arguments, **named)
    return verdict.violations


def line(seconds, text, pid=7):
    return ev.Line(NOON + seconds, "LogConsumer", pid, 6, "", text)


class Length(unittest.TestCase):
    """A scenario whose script ended early would hold well, and show nothing."""

    def violations(self, seconds):
        told = Told([line(0, "Starting log_consumer.service")], faults_end=f"{NOON + seconds} 3\n")
        return violations_of(scenario.judge_length, told, 2)

    def test_the_whole_time_is_as_it_should_be(self):
        self.assertEqual(self.violations(2 * 3600 - 1), 0)

    def test_an_early_end_is_found(self):
        self.assertEqual(self.violations(1.9 * 3600), 1)


class Recovery(unittest.TestCase):
    def violations(self, seconds, answer_delay=0):
        told = Told(faults_end=f"{NOON} 10\n", settled=f"{NOON + seconds} 0\n")
        return violations_of(scenario.judge_recovery, told, answer_delay)

    def test_eight_seconds_a_file_and_a_minute_are_granted(self):
        self.assertEqual(self.violations(140), 0)
        self.assertEqual(self.violations(141), 1)

    def test_so_is_the_answer_that_is_awaited(self):
        self.assertEqual(self.violations(310, answer_delay=170), 0)
        self.assertEqual(self.violations(311, answer_delay=170), 1)


class Passes(unittest.TestCase):
    """Uploads at these seconds; lines of the service at others."""

    def violations(self, uploads, *lines, **named):
        told = Told([line(*each) for each in lines])
        told.uploads = [ev.Upload(number, NOON + seconds, True, "answered", None, None, b"")
                        for number, seconds in enumerate(uploads)]
        self.passes = [(each.pid, each.seconds, each.uploads, each.whole)
                       for each in ev.passes(told)]
        return violations_of(scenario.judge_passes, told, **named)

    KIND = "Bypassing random delay values for all log types\n"
    END = "No files found in debug! Resetting"

    def test_eight_seconds_a_file_and_fifteen_are_granted(self):
        self.assertEqual(self.violations([10, 20], (3, self.KIND), (9, self.KIND),
                                         (34, self.END)), 0)
        self.assertEqual(self.passes, [(7, 31, 2, True)])
        self.assertEqual(self.violations([10, 20], (3, self.KIND), (34.5, self.END)), 1)

    def test_an_upload_before_or_behind_the_pass_grants_nothing(self):
        self.assertEqual(self.violations([2, 10, 35], (3, self.KIND), (27, self.END)), 1)

    def test_so_is_the_answer_that_is_awaited(self):
        self.assertEqual(self.violations([100], (0, self.KIND), (193, self.END),
                                         answer_delay=170), 0)
        self.assertEqual(self.violations([100], (0, self.KIND), (194, self.END),
                                         answer_delay=170), 1)

    def test_each_pass_is_judged_not_the_longest_alone(self):
        self.assertEqual(self.violations([10, 20], (0, self.KIND), (31, self.END),
                                         (40, self.KIND), (56, self.END)), 1)

    def test_a_pass_that_its_process_did_not_end_is_judged_by_its_last_line(self):
        cut = [(0, self.KIND), (23, "Got 200 good resp from server")]
        self.assertEqual(self.violations([], *cut), 0)
        self.assertEqual(self.passes, [(7, 23, 0, False)])
        self.assertEqual(self.violations([], *cut, (24, "still there")), 1)
        self.assertEqual(self.violations([], *cut, (53, "still there"), stopped=30), 0)

    def test_another_process_is_another_pass(self):
        self.violations([], (0, self.KIND), (9, self.KIND, 8), (10, self.END, 8),
                        (20, "Build@ then"), (30, self.KIND), (32, self.END))
        self.assertEqual(sorted(self.passes),
                         [(7, 0, 0, False), (7, 2, 0, True), (8, 1, 0, True)])

    def test_without_any_pass_nothing_was_shown(self):
        self.assertEqual(self.violations([1, 2], (0, "Connecting to 127.0.0.1:8080")), 1)


class Tries(unittest.TestCase):
    def violations(self, data, relay):
        told = Told([line(at, "Data upload client connection failed") for at in data] +
                    [line(at, "Relay server client connection failed") for at in relay])
        return violations_of(scenario.judge_tries, told, "failed")

    def test_each_server_is_judged_by_itself(self):
        self.assertEqual(self.violations([0, 5, 10], [1, 6, 11]), 0)
        self.assertEqual(self.violations([0, 4.9, 10], [1, 6, 11]), 1)
        self.assertEqual(self.violations([0, 5, 10], [1, 6, 10.9]), 1)


class Memory(unittest.TestCase):
    """Looks at one process, a minute apart: resident and anonymous KiB, descriptors, threads."""

    def violations(self, *looks, hours=24, warm_up=60):
        samples = "".join(f"{NOON + 60 * minute} 7 {' '.join(map(str, look))}\n"
                          for minute, look in enumerate(looks))
        return violations_of(scenario.judge_memory, Told(samples=samples), warm_up, hours)

    def test_what_stays_is_as_it_should_be(self):
        self.assertEqual(self.violations(*[(7000, 1100, 18, 5)] * 6), 0)

    def test_growth_of_resident_memory_is_found(self):
        looks = [(7000, 1100, 18, 5)] * 4
        self.assertEqual(self.violations(*looks, (7256, 1100, 18, 5)), 0)
        self.assertEqual(self.violations(*looks, (7257, 1100, 18, 5)), 1)

    def test_drift_of_its_own_memory_is_found(self):
        self.assertEqual(self.violations(*[(7000, 1100, 18, 5)] * 3, *[(7000, 1400, 18, 5)] * 3), 1)

    def test_a_descriptor_or_a_thread_more_is_found(self):
        looks = [(7000, 1100, 18, 5)] * 4
        self.assertEqual(self.violations(*looks, (7000, 1100, 19, 5)), 1)
        self.assertEqual(self.violations(*looks, (7000, 1100, 18, 6)), 1)

    def test_a_long_run_without_a_warm_process_shows_nothing(self):
        self.assertEqual(self.violations((7000, 1100, 18, 5), hours=1, warm_up=3600), 0)
        self.assertEqual(self.violations((7000, 1100, 18, 5), hours=3, warm_up=3600), 1)


class Trips(unittest.TestCase):
    def test_only_the_service_killed_for_its_silence_counts(self):
        told = Told([line(1, "Killing process 9 (log_consumer) with signal SIGABRT."),
                     line(2, "Killing process 9 (log_consumer) with signal SIGKILL."),
                     line(3, "Killing process 10 (fuser) with signal SIGABRT.")])
        self.assertEqual(list(scenario.trips(told)), [(NOON + 1, 9)])


class Machine(unittest.TestCase):
    """Runs with a stand-in for the emulator, a shell command that gets the emulator's arguments."""

    def run_with(self, emulator, timeout=60):
        with tempfile.TemporaryDirectory(prefix="board.") as folder:
            folder = pathlib.Path(folder)
            for name in ("root.cpio", "vmlinuz", "go.sh"):
                (folder / name).touch()
            stand_in = dataclasses.replace(boot.ARCHITECTURES["amd64"],
                                           emulator=["sh", "-c", emulator, "sh"])
            with unittest.mock.patch.object(boot, "root_for", lambda _: folder), \
                    unittest.mock.patch.dict(boot.ARCHITECTURES, {"amd64": stand_in}):
                return boot.Machine(timeout=timeout).run(folder, folder / "results")

    MARKER = 'marker=$(echo "$*" | sed "s/.*board.marker=\\([^ ]*\\).*/\\1/"); '
    RESULTS = ('out=$(echo "$*" | sed "s/.*file=\\([^,]*out.tar\\).*/\\1/"); '
               'tar cf "$out" -C /etc hostname; ')

    def test_the_status_stands_behind_the_marker(self):
        self.assertEqual(self.run_with(self.MARKER + self.RESULTS + 'echo "x $marker 4"'), 4)

    def test_an_emulator_that_ends_well_without_the_marker_did_not_run(self):
        with self.assertRaisesRegex(boot.BoardError, "without the marker\n.*Kernel panic"):
            self.run_with(self.RESULTS + "echo Kernel panic")

    def test_marker_of_another_run_does_not_count(self):
        with self.assertRaisesRegex(boot.BoardError, "without the marker"):
            self.run_with(self.RESULTS + "echo 0123456789abcdef0123456789abcdef 0")

    def test_a_machine_that_does_not_end_is_killed(self):
        with self.assertRaisesRegex(boot.BoardError, "did not end within 1 s\n.*booting"):
            self.run_with("echo booting; exec sleep 600", timeout=1)


if __name__ == "__main__":
    unittest.main()
