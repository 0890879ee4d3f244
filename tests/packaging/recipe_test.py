#!/usr/bin/env python3
"""What the Yocto recipe says is so in this tree: version, options, and every file that it names.

    recipe_test.py TREE BUILD

BUILD is a built tree; what `cmake --install` takes from it is put below a folder of the test. The
recipe itself is not built here: that needs a whole Yocto.
"""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

TREE, BUILD = pathlib.Path(), pathlib.Path()
# Of the classes that the recipe inherits, as oe-core has them, without merged /usr.
FOLDERS = {"PN": "log-consumer", "prefix": "/usr", "sbindir": "/usr/sbin", "bindir": "/usr/bin",
           "base_bindir": "/bin", "datadir": "/usr/share", "sysconfdir": "/etc",
           "nonarch_libdir": "/usr/lib", "systemd_system_unitdir": "/lib/systemd/system"}
# What a package takes by default, as far as it matters here; manual pages go to the -doc package.
DEFAULT_FILES = ["/usr/bin/", "/usr/sbin/", "/etc/", "/usr/share/man/"]
# Debian's name for what a recipe calls otherwise, or brings with the compiler.
DEBIAN_NAMES = {"openssl": "libssl-dev", "zlib": "zlib1g-dev", "systemd": "libsystemd-dev",
                "boost": "libboost-dev", "nlohmann-json": "nlohmann-json3-dev"}


class Recipe:
    def __init__(self, path):
        self.text = path.read_text()
        self.values = {}
        joined = self.text.replace("\\\n", " ")
        for name, value in re.findall(r'^([A-Z_]+(?::\$\{PN\})?) *(?:\?\?|\?|\+)?= *"([^"]*)"', joined,
                                      re.MULTILINE):
            self.values[name.replace(":${PN}", "")] = value

    def words(self, name):
        return re.sub(r"\$\{(\w+)\}", lambda found: FOLDERS.get(found[1], found[0]),
                      self.values[name]).split()

    def install_step(self):
        """The shell of do_install:append, ready to run."""
        body = re.search(r"^do_install:append\(\) \{\n(.*?)^\}", self.text,
                         re.MULTILINE | re.DOTALL)[1]
        return re.sub(r"\$\{(\w+)\}",
                      lambda found: FOLDERS.get(found[1], found[0]), body)


class RecipeTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.recipe = Recipe(TREE / "packaging/yocto/log-consumer/log-consumer_git.bb")
        cls.project = (TREE / "CMakeLists.txt").read_text()
        cls.folder = tempfile.TemporaryDirectory()
        cls.root = pathlib.Path(cls.folder.name)
        subprocess.run(["cmake", "--install", BUILD, "--prefix", "/usr"], check=True,
                       env={"DESTDIR": str(cls.root), "PATH": "/usr/bin:/bin"},
                       stdout=subprocess.DEVNULL)
        # The build's own /etc is below its prefix.
        for outside in cls.root.glob("usr/local/etc"):
            outside.rename(cls.root / "etc")
        subprocess.run(["sh", "-euc", f"D={cls.root}\n" + cls.recipe.install_step()], check=True)
        cls.installed = ["/" + str(path.relative_to(cls.root)) for path in cls.root.rglob("*")
                         if path.is_symlink() or path.is_file()]

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def test_version_is_the_projects(self):
        version = re.search(r"^project\(log_consumer VERSION ([0-9.]+)", self.project, re.MULTILINE)
        self.assertEqual(self.recipe.values["PV"].split("+")[0], version[1])

    def test_options_exist(self):
        options = re.findall(r"-D(LOG_CONSUMER_\w+)", self.recipe.text)
        self.assertTrue(options)
        for option in options:
            self.assertRegex(self.project, rf"(option|set)\({option} ")

    def test_every_installed_file_is_packaged(self):
        packaged = DEFAULT_FILES + [path + "/" for path in self.recipe.words("FILES")]
        units = FOLDERS["systemd_system_unitdir"] + "/"
        services = [units + name for name in self.recipe.words("SYSTEMD_SERVICE")]
        for path in self.installed:
            self.assertTrue(path in services or any(path.startswith(at) for at in packaged), path)

    def test_every_named_folder_has_files(self):
        for folder in self.recipe.words("FILES"):
            self.assertTrue([path for path in self.installed if path.startswith(folder + "/")],
                            folder)

    def test_named_files_are_installed(self):
        for name in self.recipe.words("SYSTEMD_SERVICE"):
            self.assertIn(f"{FOLDERS['systemd_system_unitdir']}/{name}", self.installed)
        for path in self.recipe.words("CONFFILES"):
            self.assertIn(path, self.installed)
        self.assertEqual((self.root / "usr/lib/log_consumer/bin/find").readlink(),
                         pathlib.Path("/bin/busybox"))

    def test_user_is_the_units(self):
        user = self.recipe.words("USERADD_PARAM")[-1]
        unit = (TREE / "packaging/log_consumer.service.in").read_text()
        self.assertIn(f"\nUser={user}\n", unit)
        self.assertRegex((TREE / "packaging/log_consumer.sysusers").read_text(), rf"^u {user} ")

    def test_dependencies_are_debians(self):
        installed = (TREE / "scripts/install-packages").read_text()
        build = re.search(r'^build="(.*)"$', installed, re.MULTILINE)[1].split()
        wanted = {name for name in build if name.startswith("lib") or name.endswith("-dev")}
        self.assertEqual({DEBIAN_NAMES[name] for name in self.recipe.words("DEPENDS")}, wanted)
        control = (TREE / "packaging/debian/control").read_text()
        for name in self.recipe.words("RDEPENDS"):
            self.assertRegex(control, rf"\nDepends: .*\b{name}\b")

    def test_terms_are_those_of_the_debian_package(self):
        self.assertEqual(self.recipe.values["LICENSE"], "CLOSED")
        self.assertIn("License: all-rights-reserved",
                      (TREE / "packaging/debian/copyright").read_text())
        # Where the tree names a licence, both have to follow.
        self.assertEqual([], list(TREE.glob("LICEN*")) + list(TREE.glob("COPYING*")))


if __name__ == "__main__":
    TREE, BUILD = map(pathlib.Path, (sys.argv.pop(1), sys.argv.pop(1)))
    unittest.main()
