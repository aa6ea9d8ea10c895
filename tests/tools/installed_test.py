#!/usr/bin/env python3
"""What `cmake --install` puts somewhere: libraries that the examples build against, as their page says, and
talk over; tools that run there; manual pages that have the options that the programs have.

The environment names the build folder: QEL_BUILD.
"""
import os
import pathlib
import re
import subprocess
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BUILD = pathlib.Path(os.environ["QEL_BUILD"])


def run(command, timeout=60, **options):
    """The finished process; what it printed is shown when it failed."""
    result = subprocess.run(command, capture_output=True, text=True, timeout=timeout, **options)
    if result.returncode != 0:
        raise AssertionError(f"{command} ended with {result.returncode}:\n{result.stdout}{result.stderr}")
    return result.stdout


def block(page, lead):
    """The first indented lines of a page after the line `lead`."""
    text = (ROOT / page).read_text().split(f"\n{lead}\n", 1)[1]
    return re.search(r"^(?:    .*\n)+", text, re.M)[0].replace("\n    ", "\n")[4:].splitlines()


class Installed(unittest.TestCase):
    """Installs once, into a folder of its own."""

    @classmethod
    def setUpClass(cls):
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.prefix = pathlib.Path(scratch.name) / "installed"
        cls.out = pathlib.Path(scratch.name) / "out"
        cls.out.mkdir()
        for component in ("development", "host"):
            run(["cmake", "--install", BUILD, "--prefix", cls.prefix, "--component", component])
        environment = dict(os.environ, PREFIX=str(cls.prefix), OUT=str(cls.out))
        run(["bash", "-euc", "\n".join(block("examples/README.md", "## Build"))], cwd=ROOT / "examples",
            env=environment)

    def start(self, *command):
        process = subprocess.Popen([str(word) for word in command], stdout=subprocess.DEVNULL)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def ask(self, link, path):
        while not link.exists():
            time.sleep(0.01)
        return run([self.out / "qel_application_asks", link, path])

    def test_the_examples_talk_to_each_other(self):
        link = self.out / "both"
        self.start(self.out / "host_answers", "good morning", link, "--listen")
        self.assertEqual(self.ask(link, "/dev/null"),
                         "the host says: good morning\nthe host has /dev/null: yes\n")

    def test_the_cabinets_example_talks_to_qel_host(self):
        root, link = self.out / "root", self.out / "served"
        root.mkdir()
        self.start(self.prefix / "bin/qel-host", "serve", root, "--listen", link, "--text", "here I am")
        self.assertEqual(self.ask(link, "/missing"),
                         "the host says: here I am\nthe host has /missing: no\n")

    def test_qel_host_talks_to_the_hosts_example(self):
        link = self.out / "asked"
        self.start(self.out / "host_answers", "good evening", link, "--listen")
        answer = run([self.prefix / "bin/qel-host", "query", "text", "--socket", link])
        self.assertEqual(answer, '"good evening"\n')

    def test_the_first_try_of_qel_host_works_as_written(self):
        environment = dict(os.environ, PATH=f"{self.prefix}/bin:{os.environ['PATH']}")
        lines = [line.replace("/tmp/", f"{self.out}/try/")
                 for line in block("host/README.md", "A first try, with two terminals and no cabinet:")]
        self.assertEqual(len(lines), 5)
        server = subprocess.Popen(["bash", "-c", lines[0].replace("&& ", "&& exec ")], env=environment,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(server.wait)
        self.addCleanup(server.terminate)
        answers, sent, exists, trace = [run(["bash", "-euc", line], cwd=ROOT, env=environment)
                                        for line in lines[1:]]
        self.assertRegex(answers, r"^connect_answer \(38\)")
        self.assertEqual((sent, exists), ("", "1\n"))
        self.assertEqual((self.out / "try/root/docs/README.md").read_bytes(), (ROOT / "README.md").read_bytes())
        self.assertIn("file_end", trace)

    def test_the_cabinets_example_is_static(self):
        self.assertIn("not a dynamic executable", subprocess.run(
            ["ldd", self.out / "qel_application_asks"], capture_output=True, text=True).stderr)

    def test_every_installed_header_compiles_by_itself(self):
        headers = sorted((self.prefix / "include/qel_loader").rglob("*.h"))
        self.assertGreater(len(headers), 15)
        flags = run(["pkg-config", "--cflags", "qel_tolbrin"],
                    env=dict(os.environ, PKG_CONFIG_PATH=str(self.prefix / "lib/pkgconfig"))).split()
        for header in headers:
            run(["g++", "-std=c++17", "-Wall", "-Wextra", "-Werror", "-fsyntax-only", *flags, "-include", header,
                 "-x", "c++", "/dev/null"])

    def test_a_c_program_uses_every_installed_header_and_links(self):
        source, program = self.out / "caller.c", self.out / "caller"
        folder = self.prefix / "include/qel_loader"
        headers = sorted(header.relative_to(folder) for header in folder.rglob("*.h"))
        source.write_text("".join(f'#include "{header}"\n' for header in headers) +
                          (ROOT / "tests/tools/caller.c").read_text())
        flags = run(["pkg-config", "--cflags", "--libs", "qel_tolbrin"],
                    env=dict(os.environ, PKG_CONFIG_PATH=str(self.prefix / "lib/pkgconfig"))).split()
        for standard in ("c11", "gnu17"):
            run(["gcc", f"-std={standard}", "-Wall", "-Wextra", "-Wpedantic", "-Werror", source, *flags, "-o", program])
            self.assertEqual(run([program]), "3 /a/c x 1 2D00000018000000 E5CC\nstopped at 47: answer == 42\n")

    def test_internal_headers_stay_at_home(self):
        names = {header.name for header in (self.prefix / "include").rglob("*.h")}
        self.assertIn("qel_comms.h", names)
        self.assertFalse(names & {"internal.h", "build.h"})

    def test_qel_where_knows_the_places_without_the_source_tree(self):
        where = run([self.prefix / "bin/qel-where", "KCW1964"], cwd="/")
        self.assertEqual(where, run([ROOT / "host/where/qel-where", "KCW1964"]))


class For32BitCabinets(unittest.TestCase):
    """Builds the product's libraries, if need be, and the application on them, as the page says."""

    @classmethod
    def setUpClass(cls):
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.out = pathlib.Path(scratch.name) / "out"
        page = block("examples/README.md", "## Build for a 32-bit cabinet")
        assert "product_facts" in page[-1]
        cls.build, cls.checking = "\n".join(page[:-1]), page[-1]
        cls.environment = dict(os.environ, PREFIX=f"{scratch.name}/installed", OUT=str(cls.out))
        run(["bash", "-euc", cls.build], cwd=ROOT, env=cls.environment, timeout=300)
        cls.application = cls.out / "qel_application_asks"

    def test_the_cabinets_example_has_the_instructions_of_an_i586_only(self):
        printed = run(["bash", "-euc", self.checking], cwd=ROOT, env=self.environment)
        self.assertRegex(printed, r"qel_application_asks: \d{4,} instructions, none of them later than the i586")

    def test_later_instructions_are_found(self):
        program = self.out / "later"
        run(["gcc", "-m32", "-nostdlib", "-static", "-x", "assembler", "-", "-o", program],
            input=".globl _start\n_start: cmovne %eax, %ebx\n")
        result = subprocess.run([ROOT / "tools/product_facts.sh", "--i586", program], capture_output=True, text=True)
        self.assertEqual(result.returncode, 1)
        self.assertIn("`cmovne' is not supported on `i586'", result.stderr)

    def test_the_cabinets_example_talks_to_qel_host(self):
        link = self.out / "link"
        server = subprocess.Popen([BUILD / "host/qel-host", "serve", self.out, "--listen", link, "--text", "32 bits"],
                                  stdout=subprocess.DEVNULL)
        self.addCleanup(server.wait)
        self.addCleanup(server.kill)
        while not link.exists():
            time.sleep(0.01)
        self.assertEqual(run([self.application, link, "/missing"]),
                         "the host says: 32 bits\nthe host has /missing: no\n")


class ManualPages(unittest.TestCase):
    PAGES = {
        "qel-host.1": [["host/qel-host"]],
        "qel-factory.1": [["factory/qel-factory"]],
    }

    def options_of(self, command):
        """The long options in a program's help, and in that of its commands."""
        text = run([BUILD / command[0], *command[1:], "--help"])
        options = set(re.findall(r"^ +(?:-\w,)?(--[a-z][a-z-]+)", text, re.M))
        commands = text.split("Subcommands:")[1:]
        for name in re.findall(r"^  ([a-z][a-z-]+) ", commands[0], re.M) if commands else []:
            options |= self.options_of([*command, name])
        return options

    def described_in(self, page):
        text = (ROOT / "docs/man" / page).read_text()
        return {"-" + option for option in re.findall(r"(?:Fl|\|) (-[a-z-]+)", text)} | {"--help"}

    def test_have_exactly_the_options_of_the_programs(self):
        for page, commands in self.PAGES.items():
            self.assertEqual(self.described_in(page), set().union(*map(self.options_of, commands)), page)

    def test_the_script_run_has_all_commands_of_the_factory(self):
        printed = run([ROOT / "run", "--help"])
        factory = run([BUILD / "factory/qel-factory", "--help"]).split("Subcommands:")[1]
        commands = set(re.findall(r"^  ([a-z][a-z-]+) ", factory, re.M))
        self.assertIn("make-stick", commands)
        self.assertEqual(set(re.findall(r"^  ([a-z][a-z-]+) ", printed, re.M)), commands)

    def test_have_exactly_the_options_of_qel_where(self):
        options = re.findall(r"^  (--[a-z]+)", run([ROOT / "host/where/qel-where", "--help"]), re.M)
        self.assertEqual(self.described_in("qel-where.1"), {*options, "--help"})

    def test_pass_the_checker(self):
        pages = sorted((ROOT / "docs/man").iterdir())
        self.assertEqual(len(pages), 4)
        run(["mandoc", "-T", "lint", "-W", "warning", *pages])


class Run(unittest.TestCase):
    """The script, where nothing is installed or built yet."""

    def refused(self, *words):
        result = subprocess.run([ROOT / "run", *words], capture_output=True, text=True, env={"PATH": "/usr/bin:/bin"})
        self.assertEqual((result.returncode, result.stdout), (2, ""))
        return result.stderr

    def test_refuses_words_it_does_not_know_before_it_sets_anything_up(self):
        ending = " (./run --help lists them all)\n"
        self.assertEqual(self.refused("--secnds", "20"), "error: unknown option: --secnds" + ending)
        self.assertEqual(self.refused("--mode", "0", "-x"), "error: unknown option: -x" + ending)
        self.assertEqual(self.refused("instal"), "error: unknown command: instal" + ending)


if __name__ == "__main__":
    unittest.main()
