#!/usr/bin/env python3
"""Holds the manual pages and the completion against what the program says of itself.

    manual_test.py PROGRAM PAGES HEADER

PAGES is the folder with man/ and the completion.
"""

import json
import os
import pathlib
import pty
import re
import select
import shlex
import subprocess
import sys
import tempfile
import textwrap
import unittest

PROGRAM, PAGES, HEADER = (None, None, None)


def run(*arguments):
    return subprocess.run(arguments, capture_output=True, text=True, check=True).stdout


def listed(text, heading):
    """The indented lines under a heading of --help."""
    found = re.search(rf"^{heading}:\n((?:  .*\n?)+)", text, flags=re.M)
    return [line for line in found.group(1).splitlines() if re.match(r"  \S", line)] if found else []


def commands(words=()):
    """Every command as words, the program itself first, as --help tells of them."""
    yield words
    for line in listed(run(PROGRAM, *words, "--help"), "Subcommands"):
        yield from commands((*words, line.split()[0]))


def options(words):
    """Every option of a command, those of groups of options as well: a group's lines are indented once more."""
    lines = run(PROGRAM, *words, "--help").splitlines()
    return [re.sub(r"\{.*", "", name) for line in lines if re.match(r" {2,4}-", line) for name in line.split()[0].split(",")]


def page(words):
    return PAGES / "man/man1" / ("-".join(("gsve", *words)) + ".1")


def plain(path):
    return re.sub(r"\\(&|%|:|f[BRI])", "", path.read_text()).replace("\\-", "-")


class Shell:
    """An interactive bash on a terminal, whose lines are completed as a user's are."""

    # What follows a typed line: all that is offered, put into the line (M-*); the line given out; an empty one.
    ALL, TAB = b"\x1b*", b"\t"
    SETUP = """
        PS1= HISTFILE=
        bind 'set enable-bracketed-paste off'
        bind 'set completion-query-items 0'
        give_out() { printf '%%s\\0' "$READLINE_LINE" >&%d; READLINE_LINE=; }
        bind -x '"\\C-xg": give_out'
        source %s
        printf 'ready\\0' >&%d
    """

    def __init__(self, directory, completion):
        self.results, given = os.pipe()
        setup = directory.parent / "setup.bash"
        setup.write_text(textwrap.dedent(self.SETUP) % (given, shlex.quote(str(completion)), given))
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            os.set_inheritable(given, True)
            os.chdir(directory)
            environment = {"PATH": "/usr/bin:/bin", "TERM": "dumb", "LC_ALL": "C.UTF-8", "INPUTRC": "/dev/null"}
            os.execve("/bin/bash", ["bash", "--noprofile", "--rcfile", str(setup), "-i"], environment)
        os.close(given)
        self.wait_for("ready")

    def wait_for(self, expected=None):
        """What the shell gives out next. What the terminal shows is not looked at, but has to be taken off."""
        result = b""
        while not result.endswith(b"\0"):
            ready, _, _ = select.select([self.results, self.terminal], [], [], 60)
            if not ready:
                raise TimeoutError(f"bash said {result} and nothing more")
            if self.terminal in ready:
                os.read(self.terminal, 65536)
            if self.results in ready:
                result += os.read(self.results, 65536)
        text = result[:-1].decode()
        assert expected in (None, text), text
        return text

    def line_after(self, line, key):
        os.write(self.terminal, line.encode() + key + b"\x18g")
        return self.wait_for()

    def close(self):
        os.close(self.terminal)
        os.close(self.results)
        os.waitpid(self.process, 0)


class Pages(unittest.TestCase):
    def test_there_is_one_for_each_command_and_no_other(self):
        expected = {page(words).name for words in commands()}
        self.assertGreaterEqual(len(expected), 6)
        self.assertEqual({path.name for path in (PAGES / "man/man1").iterdir()}, expected)
        self.assertEqual([path.name for path in (PAGES / "man/man7").iterdir()], ["gsve-settings.7"])

    def test_explain_every_option_that_help_has(self):
        for words in commands():
            text = plain(page(words))
            for name in options(words):
                self.assertRegex(text, rf"(?m)^\.TP\n(.*, )?{re.escape(name)}(,| |$)", f"{words} {name}")

    def test_have_the_sections_of_the_readme_that_name_their_command(self):
        text = plain(page(("encode",)))
        for heading in (".SH DESCRIPTION", ".SS Sound", ".SH CARRY CAPTIONS", ".SH EXAMPLES", ".SH EXIT STATUS"):
            self.assertIn(heading, text)
        self.assertIn("gsve inspect city.mp4 --scc city.scc", plain(page(("inspect",))))

    def test_have_what_every_page_has(self):
        for path in sorted((PAGES / "man").glob("*/*")):
            headings = re.findall(r"(?m)^\.SH (.*)\n(?!\.SH)", path.read_text())
            self.assertEqual(headings[:3], ["NAME", "SYNOPSIS", "DESCRIPTION"], path.name)
            self.assertEqual(headings[-1], "SEE ALSO", path.name)
            self.assertEqual("OPTIONS" in headings, path.suffix == ".1", path.name)

    def test_have_nothing_that_only_the_repository_has(self):
        docs = HEADER.parent.parent / "docs"
        for path in sorted((PAGES / "man").glob("*/*")):
            text = plain(path)
            installed = re.findall(r"/usr/share/doc/gsve/(\S+)\.gz\b", text)
            self.assertEqual([name for name in installed if not (docs / name).is_file()], [], path.name)
            own = re.sub(r"/usr/share/doc/gsve/\S+", "", text)
            for word in (r"\./dev\b", r"\b(?:build|bench|docs|examples|tests|tools)/", r"\.md\b"):
                self.assertNotRegex(own, word, path.name)
        self.assertIn("/usr/share/doc/gsve/farm.md.gz", plain(page(("farm",))))

    def test_have_command_lines_that_fit_a_terminal_of_80_columns(self):
        for path in sorted((PAGES / "man").glob("*/*")):
            for block in re.findall(r"(?ms)^\.nf\n(.*?)^\.fi$", plain(path)):
                for line in block.replace("\\e\n", "\\\n").splitlines():
                    if line.startswith("gsve "):
                        self.assertLessEqual(len(line), 69, path.name)
        self.assertIn('gsve encode film.mov film.m2v --set "gop size=12" \\e\n    --set "closed gop=1"\n',
                      plain(page(("encode",))))

    def test_show_no_example_twice(self):
        for path in sorted((PAGES / "man/man1").iterdir()):
            lines = [line for line in plain(path).splitlines() if re.match(r"gsve \w+ .*\.(ts|mp4|json)", line)]
            self.assertEqual(len(lines), len(set(lines)), path.name)

    def test_have_no_fault_that_man_knows(self):
        for path in sorted((PAGES / "man").glob("*/*")):
            shown = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", str(path)],
                                   capture_output=True, text=True, check=True,
                                   env={"LC_ALL": "C.UTF-8", "MANROFFSEQ": "", "MANWIDTH": "80", "PATH": "/usr/bin:/bin"})
            self.assertEqual(shown.stderr, "", path.name)
            self.assertGreater(len(shown.stdout), 500, path.name)

    def test_explain_every_setting(self):
        text = plain(PAGES / "man/man7/gsve-settings.7")
        settings = json.loads(run(PROGRAM, "settings", "--json"))
        self.assertGreater(len(settings), 40)
        for setting in settings:
            found = re.search(rf"\.TP\n{re.escape(setting['key'])}\n(.*)\n\.br\n(.*)", text)
            self.assertIsNotNone(found, setting["key"])
            self.assertEqual(found.group(1).replace("\\(ti", "~"), setting["meaning"])
            self.assertIn(f"Default: {setting['default'] or 'not given'}.", found.group(2))

    def test_are_of_the_headers_version(self):
        numbers = re.findall(r"^#define GSVE_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)$", HEADER.read_text(), flags=re.M)
        version = "gsve " + ".".join(numbers)
        self.assertEqual(len(numbers), 3)
        self.assertTrue(run(PROGRAM, "--version").startswith(version + " "))
        for path in (PAGES / "man").glob("*/*"):
            self.assertIn(f'"{version}"', path.read_text().splitlines()[0])


class Completion(unittest.TestCase):
    FILES = {"film.mov", "plan.json"}

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        directory = pathlib.Path(cls.folder.name) / "here"
        directory.mkdir()
        for name in cls.FILES:
            (directory / name).touch()
        cls.shell = Shell(directory, PAGES / "gsve")
        cls.addClassCleanup(cls.shell.close)

    def offered(self, line):
        """All that is offered at the end of a line."""
        before = line[:re.search(r"[^ =]*$", line).start()]
        after = self.shell.line_after(line, Shell.ALL)
        self.assertTrue(after.startswith(before), after)
        return set(after[len(before):].split())

    def line_after_tab(self, line):
        return self.shell.line_after(line, Shell.TAB)

    def test_offers_the_commands_of_every_command_and_files_to_those_without(self):
        found = list(commands())
        self.assertIn(("farm", "submit"), found)
        for words in found:
            inner = {other[-1] for other in found if other[:-1] == words and other != words}
            if words == ("help",):
                inner = {other[0] for other in found if len(other) == 1}
            self.assertEqual(self.offered(" ".join(("gsve", *words, ""))), inner or self.FILES, words)

    def test_offers_every_option_of_every_command(self):
        for words in commands():
            line = " ".join(("gsve", *words, "-"))
            self.assertEqual(self.offered(line), set(options(words)), words)

    def test_offers_options_after_arguments_and_other_options(self):
        self.assertEqual(self.offered("gsve farm submit plan.json --cpus 2 --at"), {"--at-once"})
        self.assertEqual(self.offered("gsve encode film.mov film.ts --codec=h.264 --set=bitrate=1 --stri"), {"--strict"})
        self.assertEqual(self.offered('gsve encode --set "gop size=12" --strea'), {"--streams"})

    def test_offers_a_commands_options_and_no_files_where_its_name_is_an_argument(self):
        self.assertEqual(self.offered("gsve encode farm --decoder"), {"--decoder-threads"})

    def test_offers_the_choices_of_every_option_that_has_some_apart_and_after_an_equals_sign(self):
        tested = 0
        for words in commands():
            for line in run(PROGRAM, *words, "--help").splitlines():
                found = re.match(r" {2,4}(\S+) \S+:\{([^}]+)\}", line)
                if not found:
                    continue
                for name in found.group(1).split(","):
                    choices = set(found.group(2).split(","))
                    start = " ".join(("gsve", *words, name))
                    self.assertEqual(self.offered(start + " "), choices, start)
                    if name.startswith("--"):
                        self.assertEqual(self.offered(start + "="), choices, start)
                    tested += 1
        self.assertGreater(tested, 12)

    def test_offers_files_to_options_that_have_no_choices(self):
        for line in ("gsve encode --rate ", "gsve encode --captions=", "gsve farm submit --files-from ",
                     "gsve encode --report html=", "gsve inspect --report=html="):
            self.assertEqual(self.offered(line), self.FILES, line)

    def test_completes_the_word_that_was_begun(self):
        for line, after in {
                "gsve enc": "gsve encode ",
                "gsve farm sub": "gsve farm submit ",
                "gsve help fa": "gsve help farm ",
                "gsve farm submit pl": "gsve farm submit plan.json ",
                "gsve farm submit --output-d": "gsve farm submit --output-directory ",
                "gsve farm submit --codec=m": "gsve farm submit --codec=mpeg-2 ",
                "gsve encode --codec=h": "gsve encode --codec=h.26",
                "gsve encode --codec h.264": "gsve encode --codec h.264 ",
                "gsve encode --sound=e": "gsve encode --sound=eac3 ",
                "gsve encode --captions=fi": "gsve encode --captions=film.mov ",
                "gsve encode --report ht": "gsve encode --report html=",
                "gsve inspect --report=": "gsve inspect --report=html=",
        }.items():
            self.assertEqual(self.line_after_tab(line), after)

    def test_completes_settings_as_the_word_was_begun(self):
        for line, after in {
                "gsve encode --set gop\\ si": "gsve encode --set gop\\ size=",
                'gsve encode -s "gop si': 'gsve encode -s "gop size=',
                "gsve encode --set=reso": "gsve encode --set=reso",
                "gsve encode --set=temp": "gsve encode --set=temporal\\ complexity\\ masking=",
                'gsve encode --set="temp': 'gsve encode --set="temporal complexity masking=',
                "gsve farm submit --set encoder=m": "gsve farm submit --set encoder=mpeg-2 ",
                'gsve encode --set "h.264 preset=slower': 'gsve encode --set "h.264 preset=slower" ',
                "gsve encode --set chroma\\ format=4:2:2": "gsve encode --set chroma\\ format=4:2:2 ",
        }.items():
            self.assertEqual(self.line_after_tab(line), after)
        self.assertEqual(self.offered("gsve encode --set enable="), {"0", "1"})

    def test_offers_every_setting(self):
        keys = [setting["key"] for setting in json.loads(run(PROGRAM, "settings", "--json"))]
        for key in keys:
            self.assertIn(key + "=", self.shell.line_after(f'gsve encode --set "{key}', Shell.ALL))


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    PROGRAM, PAGES, HEADER = sys.argv[1], pathlib.Path(sys.argv[2]).resolve(), pathlib.Path(sys.argv[3])
    unittest.main(argv=sys.argv[:1])
