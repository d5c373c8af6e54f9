#!/usr/bin/env python3
"""Holds the manual pages and the completion against what the program says of itself.

    manual_test.py PROGRAM PAGES HEADER

PAGES is the folder with man/ and the completion.
"""

import json
import pathlib
import re
import subprocess
import sys
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
    names = []
    for line in listed(run(PROGRAM, *words, "--help"), "Options"):
        for name in line.split()[0].split(","):
            names.append(re.sub(r"\{.*", "", name))
    return names


def page(words):
    return PAGES / "man/man1" / ("-".join(("gsve", *words)) + ".1")


def plain(path):
    return path.read_text().replace("\\-", "-").replace("\\&", "").replace("\\fB", "").replace("\\fR", "").replace("\\fI", "")


def completions(*words):
    """What bash offers for the last word."""
    script = """
        compopt() { :; }  # there is no line that is being completed
        source "$1"; shift
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
        _gsve
        printf '%s\\n' "${COMPREPLY[@]}"
    """
    return run("bash", "-c", script, "bash", str(PAGES / "gsve"), "gsve", *words).split("\n")[:-1]


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
    def test_offers_commands_first(self):
        self.assertEqual(completions("enc"), ["encode"])
        self.assertLessEqual({words[0] for words in commands() if words}, set(completions("")))

    def test_offers_every_option_of_a_command(self):
        for words in commands():
            if len(words) == 1 and words != ("help",):
                self.assertEqual(set(completions(*words, "-")), set(options(words)), words)

    def test_offers_the_values_that_an_option_takes(self):
        self.assertEqual(completions("encode", "--codec", ""), ["mpeg-2", "h.264", "h.265"])
        self.assertEqual(completions("inspect", "--field", ""), ["1", "2"])
        self.assertEqual(completions("encode", "--rate", ""), [""])

    def test_offers_keys_of_settings_as_the_word_was_begun(self):
        self.assertEqual(completions("encode", "--set", "bitr"), ["bitrate=", "bitrate\\ tolerance="])
        self.assertEqual(completions("encode", "-s", '"gop s'), ["gop size=", "gop synchronization="])
        self.assertEqual(completions("encode", "-s", "gop\\ si"), ["gop\\ size="])


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    PROGRAM, PAGES, HEADER = sys.argv[1], pathlib.Path(sys.argv[2]), pathlib.Path(sys.argv[3])
    unittest.main(argv=sys.argv[:1])
