#!/usr/bin/env python3
"""check-budgets against figures that are made up."""
import json
import pathlib
import subprocess
import tempfile
import unittest

TREE = pathlib.Path(__file__).resolve().parents[2]
UPLOAD, SIZE, FOREIGN = "instructions of one upload", "bytes of log_consumer, stripped, amd64", "bytes of ppctl, stripped, armhf"


class CheckBudgets(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.kept = {"limits": {SIZE: 520}, "budgets": {UPLOAD: 10000, SIZE: 500}, "measured with": "another compiler"}

    def write(self, name, content):
        (self.folder / name).write_text(json.dumps(content))
        return self.folder / name

    def run_on(self, measured, *options):
        """(exit status, output)"""
        command = [TREE / "bench/check-budgets", "--budgets", self.write("budgets.json", self.kept),
                   "--measured", self.write("measured.json", measured), *options]
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60)
        return done.returncode, done.stdout

    def test_what_is_as_budgeted_passes(self):
        self.assertEqual(self.run_on({UPLOAD: 10000, SIZE: 500})[0], 0)

    def test_five_per_cent_more_pass(self):
        status, output = self.run_on({UPLOAD: 10500, SIZE: 500})
        self.assertEqual(status, 0, output)
        self.assertIn(f"{UPLOAD}: 10,500, 5.0% more than its budget of 10,000", output)

    def test_more_than_five_per_cent_more_is_named_with_its_growth(self):
        status, output = self.run_on({UPLOAD: 10600, SIZE: 500})
        self.assertEqual(status, 1)
        self.assertIn(f"GROWN: {UPLOAD}: 10,600, 6.0% more than its budget of 10,000", output)
        self.assertNotIn(f"GROWN: {SIZE}", output)

    def test_one_more_than_five_per_cent_fails(self):
        self.assertEqual(self.run_on({UPLOAD: 10501, SIZE: 500})[0], 1)

    def test_both_that_have_grown_are_named(self):
        status, output = self.run_on({UPLOAD: 20000, SIZE: 1000})
        self.assertEqual((status, output.count("GROWN: ")), (1, 2))

    def test_another_compiler_is_named_when_something_has_grown(self):
        self.assertIn("another compiler", self.run_on({UPLOAD: 20000, SIZE: 500})[1])
        self.assertNotIn("another compiler", self.run_on({UPLOAD: 10000, SIZE: 500})[1])

    def test_within_five_per_cent_but_above_its_limit_fails(self):
        status, output = self.run_on({UPLOAD: 10000, SIZE: 521})
        self.assertEqual(status, 1)
        self.assertIn("its limit is 520", output)

    def test_what_has_no_budget_fails(self):
        status, output = self.run_on({UPLOAD: 10000, SIZE: 500, FOREIGN: 7})
        self.assertEqual(status, 1)
        self.assertIn(f"{FOREIGN}: 7, has no budget", output)

    def test_what_is_not_built_is_said_and_passes(self):
        status, output = self.run_on({UPLOAD: 10000})
        self.assertEqual(status, 0)
        self.assertIn(f"{SIZE}: not measured", output)

    def test_a_gain_passes_and_says_how_to_keep_it(self):
        status, output = self.run_on({UPLOAD: 5000, SIZE: 500})
        self.assertEqual(status, 0)
        self.assertIn("50.0% less than its budget of 10,000; bench/check-budgets --renew", output)

    def test_renewing_writes_what_was_measured_and_keeps_the_rest(self):
        status, output = self.run_on({UPLOAD: 20000}, "--renew")
        self.assertEqual(status, 0, output)
        kept = json.loads((self.folder / "budgets.json").read_text())
        self.assertEqual(kept["budgets"], {UPLOAD: 20000, SIZE: 500})
        self.assertEqual(kept["limits"], self.kept["limits"])
        self.assertNotIn("another compiler", kept["measured with"])


unittest.main()
