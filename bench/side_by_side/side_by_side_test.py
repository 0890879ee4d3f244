#!/usr/bin/env python3
"""The comparison's sums, tables and picture, without running anything."""
import pathlib
import sys
import unittest
import xml.etree.ElementTree

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from side_by_side import figures, floor, picture, trial  # noqa: E402

SVG = "{http://www.w3.org/2000/svg}"


def outcome(**changed):
    values = {figure.key: 10.0 for figure in figures.FIGURES}
    return {**values, "pass_seconds": 24.12, **changed}


def case(service_cpu, tls=False, files=4):
    """A case of which each round's service took so many times the loop's own processor time."""
    return {"bytes": 100_000, "tls": tls, "files": files,
            "pairs": [{"service": outcome(cpu_own=cpu), "loop": outcome(cpu_own=1.0)} for cpu in service_cpu]}


def row_of(rows, title):
    return next(row for row in rows if row[0] == title)


class Floor(unittest.TestCase):
    def test_a_file_takes_its_pause_and_one_look(self):
        self.assertEqual(floor.floor_of(1), 6)
        self.assertEqual(floor.floor_of(20), 120)

    def test_playing_it_gives_the_sum_wherever_the_polls_lie_within_a_second(self):
        for lag in (0.01, 0.25, 0.5, 0.99, 1.0):
            self.assertAlmostEqual(floor.play(20, lag), floor.floor_of(20), msg=f"lag {lag}")

    def test_a_poll_just_missed_costs_one_second_once(self):
        for lag in (1.01, 1.5, 1.99):
            self.assertAlmostEqual(floor.play(20, lag), floor.floor_of(20) + 1, msg=f"lag {lag}")

    def test_own_time_uses_the_lag_up_and_then_costs_a_second(self):
        self.assertAlmostEqual(floor.play(2, 0.5, own=0.1), 2 * 6.1)
        self.assertAlmostEqual(floor.play(20, 0.5, own=0.1), 20 * 6.1 + 2)

    def test_nothing_beats_the_floor(self):
        for lag in (0.05, 0.7, 1.3, 2.0):
            for own in (0.0, 0.013, 0.2):
                for files in (1, 7, 20):
                    self.assertGreaterEqual(floor.play(files, lag, own) + 1e-9, floor.floor_of(files))


class Ratios(unittest.TestCase):
    own_cpu = figures.FIGURES[0]

    def test_median_and_spread_of_the_rounds(self):
        result = figures.compare(self.own_cpu, case([0.05, 0.02, 0.04])["pairs"], 4)
        self.assertAlmostEqual(result.ratio, 0.04)
        self.assertAlmostEqual(result.least, 0.02)
        self.assertAlmostEqual(result.most, 0.05)
        self.assertAlmostEqual(result.loop, 250.0, msg="milliseconds per file")

    def test_a_loop_that_needed_nothing(self):
        self.assertEqual(figures.ratio_of(0, 0), 1.0)
        self.assertEqual(figures.ratio_of(1, 0), float("inf"))

    def test_ratios_far_below_one_read_the_other_way_up(self):
        for ratio, words in ((0, "0"), (0.05, "1/20"), (0.4, "1/2.5"), (0.5, "1/2"), (0.99, "0.99"), (3, "3.00")):
            self.assertEqual(figures.fraction(ratio), words)


class Tables(unittest.TestCase):
    def test_goals_differ_with_tls(self):
        title = Ratios.own_cpu.title
        for tls, ratio, judgement in ((False, 0.05, "reached"), (False, 0.051, "short"), (True, 0.04, "short"),
                                      (True, 0.025, "reached")):
            row = row_of(figures.case_rows(case([ratio], tls)), title)
            self.assertEqual(row[-1], judgement, f"{ratio} {tls}")

    def test_without_a_goal_nothing_is_judged(self):
        self.assertEqual(row_of(figures.case_rows(case([1])), "connections opened")[-2:], ["", ""])

    def test_title_and_pass(self):
        lines = figures.case_table(case([1, 1], tls=True)).splitlines()
        self.assertEqual(lines[0], "4 files of 100 kB, TLS, 2 rounds")
        self.assertEqual(lines[-1], "pass 24.12 s, its pauses and polls alone 24 s: 1.005 (1.005 .. 1.005)")

    def test_columns_are_aligned(self):
        self.assertEqual(figures.aligned([["a", "bb"], ["ccc", "d"]]), ["a   | bb", "ccc |  d"])

    def test_memory_against_its_goal(self):
        size = 16 * figures.MIB
        table = figures.memory_table([{"bytes_each": size, "tls": False, "peak_kib": 55.6 * 1024, "base_kib": 7 * 1024,
                                       "private_kib": 49 * 1024, "last_kib": 8 * 1024},
                                      {"bytes_each": size, "tls": True, "peak_kib": 55.7 * 1024, "base_kib": 7 * 1024,
                                       "private_kib": 49 * 1024, "last_kib": 8 * 1024}]).splitlines()
        self.assertRegex(table[1], r"16 MiB \| plain \| 55.6 MiB \| 55.6 MiB \| reached \| +3.04 S \| +49.0 MiB \| +8.0 MiB")
        self.assertRegex(table[2], r"TLS.* short ")


class Picture(unittest.TestCase):
    def test_a_dot_for_each_case_and_figure(self):
        cases = [case([0.03, 0.04]), case([0.02, 0.01], tls=True)]
        root = xml.etree.ElementTree.fromstring(picture.draw(cases))
        dots = root.findall(f"{SVG}circle")
        self.assertEqual(len(dots), len(cases) * (len(figures.FIGURES) + 1), "and one each in the legend")

    def test_less_is_further_left(self):
        position = picture.scale(0.01, 10)
        self.assertLess(position(0.1), position(1))
        self.assertEqual(position(0.0001), picture.LEFT)
        self.assertEqual(position(100), picture.WIDTH - picture.RIGHT)


class Counters(unittest.TestCase):
    def test_pairs_of_lines(self):
        self.assertEqual(trial.counters("Tcp: OutSegs ActiveOpens\nTcp: 12 3\nIp: Forwarding\nIp: 1\n"),
                         {"Tcp": {"OutSegs": 12, "ActiveOpens": 3}, "Ip": {"Forwarding": 1}})

    def test_several_starts_are_one_sum(self):
        start = {"status": 0, "peak_kib": 5, "idle_kib": 4, "base_kib": 3, "last_kib": 3, "cpu_own": 1.0, "written": 2}
        total = trial.sum_of([start, {**start, "peak_kib": 7, "base_kib": 1}])
        self.assertEqual(total, {**start, "peak_kib": 7, "cpu_own": 2.0, "written": 4})

    def test_a_pass_lasts_from_its_first_kind_to_its_last(self):
        lines = [{"time": "2026-02-03T09:05:00.500Z", "text": "Bypassing random delay values for all log types\n"},
                 {"time": "2026-02-03T09:05:01.000Z", "text": "Bypassing random delay values for all log types\n"},
                 {"time": "2026-02-03T09:05:06.750Z", "text": "No files found in debug! Resetting"}]
        self.assertAlmostEqual(trial.pass_seconds(lines), 6.25)
        self.assertIsNone(trial.pass_seconds(lines[:2]))


if __name__ == "__main__":
    unittest.main()
