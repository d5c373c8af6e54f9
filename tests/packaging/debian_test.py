#!/usr/bin/env python3
"""Holds the Debian packages' files against what the build makes, without building a package.

    debian_test.py SOURCE BUILD
"""

import fnmatch
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

SOURCE, BUILD = (None, None)
ENCODER = "liborb_utils_v4_general_video_streaming_encoder.so.4"
HOST = [f"liborb_utils_v4_{name}.so" for name in ("comm", "h264", "io", "misc", "mpeg12_video")]


def run(*arguments, text=None):
    return subprocess.run(arguments, capture_output=True, text=True, check=True, input=text).stdout


def debian(name):
    return (SOURCE / "packaging/debian" / name).read_text()


def promised(package):
    """The symbols that a package's symbols file lists, by library."""
    libraries, current = {}, None
    for line in debian(f"{package}.symbols").splitlines():
        if line.startswith("lib"):
            current = libraries.setdefault(line.split()[0], set())
        elif match := re.fullmatch(r' (?:\(c\+\+\)"(.+)@Base"|(\S+)@Base) 4\.0\.0~( 1)?', line):
            current.add(match.group(1) or match.group(2))
        elif not line.startswith(("*", "|", "#")):
            sys.exit(f"{package}.symbols: {line}")
    return libraries


def exported(library):
    lines = run("nm", "-D", "--defined-only", str(library)).splitlines()
    return set(run("c++filt", text="\n".join(line.split()[-1].split("@")[0] for line in lines)).splitlines())


class Symbols(unittest.TestCase):
    def test_of_the_encoder_are_those_that_it_exports(self):
        self.assertEqual(promised("libgsve4"), {ENCODER: exported(BUILD / "lib" / ENCODER)})

    def test_of_the_reference_host_are_those_that_it_exports(self):
        self.assertEqual(promised("libgsve-host-reference"), {name: exported(BUILD / "host" / name) for name in HOST})


class Names(unittest.TestCase):
    def test_have_the_binary_contracts_major_version(self):
        major = re.search(r"^#define GSVE_VERSION_MAJOR (\d+)$", (SOURCE / "lib/gsve.h").read_text(), flags=re.M).group(1)
        control = debian("control")
        for name in ("libgsve-host", "libgsve-host-dev"):
            self.assertRegex(control, rf"(?m)^Provides: {name} \(= {major}\)$")
            # Files of the same names: one of any version keeps out any other.
            self.assertRegex(control, rf"(?m)^Conflicts: {name}\nReplaces: {name}$")
            depends = re.findall(rf"\| {name} \((.+?)\)", control + debian("libgsve-host-reference.symbols"))
            self.assertEqual(set(depends), {f"= {major}"})
        self.assertIn(f"Package: libgsve{major}\n", control)
        self.assertEqual(set(re.findall(r"libgsve-host-reference(?:-dev)? \(<< (\d+)~\)", control)), {str(int(major) + 1)})


class Files(unittest.TestCase):
    def test_that_are_installed_have_a_package_each(self):
        patterns = []
        for package in re.findall(r"^Package: (\S+)$", debian("control"), flags=re.M):
            for line in debian(f"{package}.install").splitlines():
                patterns.append(line.replace("usr/lib/*/", "lib/").removeprefix("usr/"))
        self.assertGreaterEqual(len(patterns), 10)
        with tempfile.TemporaryDirectory() as prefix:
            run("cmake", "--install", str(BUILD), "--prefix", prefix)
            files = [str(path.relative_to(prefix)) for path in pathlib.Path(prefix).rglob("*") if not path.is_dir()]
        self.assertGreater(len(files), 20)
        for file in files:
            takers = [pattern for pattern in patterns if fnmatch.fnmatch(file, pattern) or file.startswith(pattern + "/")]
            self.assertEqual(len(takers), 1, f"{file} goes into {takers}")
        for pattern in patterns:
            self.assertTrue(any(fnmatch.fnmatch(file, pattern) or file.startswith(pattern + "/") for file in files), pattern)


class Copyright(unittest.TestCase):
    """The notices of what is compiled in, as the release of Debian that it is built on has them."""

    ROOMS = ("captions", "encoding", "programme", "report", "cli", "gstreamer", "packaging")

    def setUp(self):
        self.words = " ".join(debian("copyright").split())

    def headers(self):
        """The installed headers that the sources include, with those that these include."""
        includes = set()
        for room in self.ROOMS:
            for path in [*(SOURCE / room).rglob("*.h"), *(SOURCE / room).rglob("*.cpp")]:
                includes.update(re.findall(r"^#include <(?:CLI|fmt|nlohmann)/.+>$", path.read_text(), flags=re.M))
        self.assertGreaterEqual(len(includes), 5)
        needed = run("g++", "-std=c++20", "-M", "-x", "c++", "-", text="\n".join(sorted(includes)) + "\n").split()
        return [pathlib.Path(path) for path in needed if re.search(r"/include/(CLI|fmt|nlohmann)/", path)]

    def test_has_the_notices_of_the_installed_headers(self):
        release = re.search(r"^VERSION_CODENAME=(\w+)$", pathlib.Path("/etc/os-release").read_text(), flags=re.M)
        if not release or release.group(1) not in ("bookworm", "trixie"):
            self.skipTest("no packages are made for this release")
        notices = set()
        for path in self.headers():
            text = re.sub(r"^\s*//+ ?", "", path.read_text(encoding="utf-8"), flags=re.M)
            text = text.replace("SPDX-FileCopyrightText:", "Copyright (c)").replace("Bjoern", "Björn")
            for notice in re.findall(r"Copyright (?:\(c\) )?(?:\d{4}|\w+ \w+ \d{4}).*(?:\nunder .+)?", text):
                notices.add(" ".join(notice.split()).rstrip("."))
        self.assertGreaterEqual(len(notices), 8, notices)
        for notice in notices:
            self.assertIn(notice, self.words)

    def test_has_the_notice_and_the_permission_of_the_charts(self):
        licence = (SOURCE / "report/page/uPlot.LICENSE").read_text()
        name, notice, *permission = [" ".join(block.split()) for block in licence.split("\n\n")]
        self.assertEqual(name, "The MIT License (MIT)")
        for text in (notice, *permission):
            self.assertIn(text, self.words)


class Changelog(unittest.TestCase):
    def test_has_the_headers_version_and_the_form_of_debians(self):
        text = run(str(SOURCE / "tools/debian_changelog.py"), "9.8.7", "bookworm", "~deb12", "1700000000")
        entries = re.findall(r"^gsve \((\S+)\) bookworm; urgency=medium$", text, flags=re.M)
        self.assertEqual(entries[-1], "4.0.0~deb12")
        if len(entries) > 1:
            self.assertIn(entries[0], ["9.8.7~20231114.221320~deb12", "9.8.7~deb12"])
        trailers = re.findall(r"^ -- .+ <\S+@\S+>  \w{3}, \d\d \w{3} \d{4} \d\d:\d\d:\d\d \+0000$", text, flags=re.M)
        self.assertEqual(len(trailers), len(entries))
        for line in text.splitlines():
            self.assertRegex(line, r"^(|gsve .*|  \* \S.*|    \S.*| -- .*)$")


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    SOURCE, BUILD = (pathlib.Path(path) for path in sys.argv[1:3])
    unittest.main(argv=sys.argv[:1])
