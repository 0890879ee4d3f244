#!/usr/bin/env python3
"""What scripts/install-packages brings for a purpose lets CMake configure on a bare machine.

    install_packages_test.py TREE

A machine of CI has every package, so a library that only one folder looks for would be missed there
and then stop a newcomer's first command.
"""

import pathlib
import re
import sys
import unittest

TREE = pathlib.Path()
DEBIAN_NAMES = {"ZLIB": "zlib1g-dev", "OpenSSL": "libssl-dev", "Boost": "libboost-dev",
                "nlohmann_json": "nlohmann-json3-dev", "PkgConfig": "pkg-config",
                "libsystemd": "libsystemd-dev", "GTest": "libgtest-dev libgmock-dev",
                "benchmark": "libbenchmark-dev", "Threads": "g++"}


def purposes():
    """Purpose to its packages, variables replaced as the shell does."""
    values = {}
    text = (TREE / "scripts/install-packages").read_text()
    for name, words in re.findall(r'^(\w+)="(.+)"$', text, re.MULTILINE):
        values[name] = re.sub(r"\$(\w+)", lambda found: values[found[1]], words)
    return {name: set(words.split()) for name, words in values.items()}


def required(folders):
    """Debian's names for what the CMakeLists.txt of these folders cannot do without."""
    found = set()
    for folder in folders:
        for path in (TREE / folder).rglob("CMakeLists.txt") if folder else [TREE / "CMakeLists.txt"]:
            text = path.read_text()
            found |= set(re.findall(r"find_package\((\w+)[^)]*\bREQUIRED", text))
            found |= set(re.findall(r"pkg_check_modules\([^)]*\b(lib\w+)\)", text))
    return {package for name in found for package in DEBIAN_NAMES[name].split()}


class InstallPackagesTest(unittest.TestCase):
    # The folders that LOG_CONSUMER_BUILD_TESTS adds need what the tests of every preset need.
    EVERY_PRESET = ["", "lab", "tests", "tools", "log_consumer", "pushpull_data", "compat", "utility",
                    "os", "packaging", "docs"]

    def test_demo_configures(self):
        self.assertEqual(set(), required(self.EVERY_PRESET + ["bench"]) - purposes()["demo"])

    def test_test_configures(self):
        self.assertEqual(set(), required(self.EVERY_PRESET + ["bench"]) - purposes()["test"])

    def test_fuzz_configures(self):
        self.assertEqual(set(), required(self.EVERY_PRESET) - purposes()["fuzz"])


if __name__ == "__main__":
    TREE = pathlib.Path(sys.argv.pop(1))
    unittest.main()
