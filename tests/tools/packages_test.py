#!/usr/bin/env python3
"""The Debian packages, installed into a clean system and used there.

Needs root, and the preset `package`, built. The clean system is made once, from the mirror that this computer's apt
uses, and kept in build/clean-system.tar; it has what the packages depend on and nothing else.
"""
import os
import pathlib
import re
import subprocess
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BUILD = ROOT / "build/package"
SYSTEM = ROOT / "build/clean-system.tar"
SOURCES = ("/etc/apt/sources.list.d/debian.sources", "/etc/apt/sources.list")
VERSION = (ROOT / "VERSION").read_text().strip()


def run(*command, **options):
    """What the command printed; all of it is shown when it failed."""
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=300,
                            **options)
    if result.returncode != 0:
        raise AssertionError(f"{command} ended with {result.returncode}:\n{result.stdout}{result.stderr}")
    return result.stdout


def make_clean_system():
    if not SYSTEM.exists():
        print("making a clean system (once, half a minute) ...", flush=True)
        new = SYSTEM.with_name("clean-system-new.tar")
        sources = [path for path in SOURCES if pathlib.Path(path).exists()]
        run("mmdebstrap", "--variant=essential", "--format=tar", "--include=python3,libstdc++6", "bookworm", new, *sources)
        new.rename(SYSTEM)


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        make_clean_system()
        print("making and installing the packages ...", flush=True)
        for old in BUILD.glob("*.deb"):
            old.unlink()
        run("cpack", "--preset", "package", cwd=ROOT)
        cls.packages = sorted(BUILD.glob("*.deb"))
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.system = pathlib.Path(folder.name)
        run("tar", "-xf", SYSTEM, "-C", cls.system, "--exclude=./dev/*")
        for package in cls.packages:
            (cls.system / package.name).write_bytes(package.read_bytes())
        cls.inside("dpkg", "--install", *[f"/{package.name}" for package in cls.packages])

    @classmethod
    def inside(cls, *command):
        return run("chroot", cls.system, *command, env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"})

    def test_are_the_two_of_this_version(self):
        self.assertEqual([package.name.split("_")[:2] for package in self.packages],
                         [["libqel-dev", VERSION], ["qel-host", VERSION]])

    def test_lintian_finds_no_error(self):
        found = subprocess.run(["lintian", "--allow-root", "--fail-on", "error", *self.packages], capture_output=True,
                               text=True)
        self.assertEqual((found.returncode, re.findall("^E:.*", found.stdout, re.M)), (0, []), found.stderr)

    def test_the_tools_say_what_they_are(self):
        self.assertEqual(self.inside("qel-host", "--version"), f"qel-host {VERSION}\n")
        self.assertIn("Usage: qel-host", self.inside("qel-host", "--help"))
        self.assertIn("usage: qel-where", self.inside("qel-where", "--help"))

    def test_qel_where_knows_the_loaders_of_its_release(self):
        ids = [re.search("Build ID: (.*)", run("readelf", "-n", ROOT / f"build/{preset}/src/qel_application_loader"))[1]
               for preset in ("product", "product-i586")]
        self.assertEqual(self.inside("qel-where", "--version"),
                         f"qel-where {VERSION}\nloader {ids[0]}\nloader {ids[1]}\n")
        place = re.search("(?m)^[A-Z]{3}[0-9]+ +(qel_utility/qel_string:[0-9]+)", self.inside("qel-where", "--list"))[1]
        loader = self.system / "loader"
        loader.write_bytes((ROOT / "build/product/src/qel_application_loader.stripped").read_bytes())
        self.assertIn("check ", self.inside("qel-where", "--loader", "/loader", place))

    def test_manual_pages_and_completion_are_there(self):
        for name in ("man/man1/qel-host.1.gz", "man/man1/qel-where.1.gz", "qel-loader/qel_link.lua"):
            self.assertTrue((self.system / "usr/share" / name).is_file(), name)
        self.assertEqual(self.inside("bash", "-euc", "cd /usr/share/bash-completion/completions; . ./qel-host; "
                                     "complete -p qel-host | grep -c qel-host"), "1\n")

    def test_an_example_is_built_on_the_libraries_and_runs_there(self):
        """With this computer's compiler; the clean system has none."""
        [folder] = self.system.glob("usr/lib/*/pkgconfig")
        flags = run("pkg-config", "--cflags", "--libs", "qel_tolbrin",
                    env=dict(os.environ, PKG_CONFIG_LIBDIR=str(folder))).split()
        self.assertEqual(run("pkg-config", "--modversion", "qel_tolbrin",
                             env=dict(os.environ, PKG_CONFIG_LIBDIR=str(folder))), f"{VERSION}\n")
        self.assertTrue(any(flag.startswith(f"-L{self.system}") for flag in flags), flags)
        run("g++", "-std=c++20", "host_answers.cpp", "link.cpp", "-o", self.system / "host_answers", *flags,
            cwd=ROOT / "examples")
        host = subprocess.Popen(["chroot", self.system, "/host_answers", "good morning", "/tmp/link", "--listen"],
                                stdout=subprocess.DEVNULL)
        self.addCleanup(host.wait)
        self.addCleanup(host.kill)
        while not (self.system / "tmp/link").exists():
            self.assertIsNone(host.poll(), "the example has ended")
            time.sleep(0.01)
        self.assertEqual(self.inside("qel-host", "query", "text", "--socket", "/tmp/link"), '"good morning"\n')

    def test_removing_them_leaves_nothing(self):
        run("cp", "-a", self.system, f"{self.system}.purged")
        self.addCleanup(run, "rm", "-rf", f"{self.system}.purged")
        run("chroot", f"{self.system}.purged", "dpkg", "--purge", "qel-host", "libqel-dev",
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"})
        self.assertEqual([str(path) for path in pathlib.Path(f"{self.system}.purged/usr").rglob("*qel*")], [])


if __name__ == "__main__":
    unittest.main()
