#!/usr/bin/python3
"""Prints how much of each room a coverage build's tests have run, and fails where it is too little.

In each room every line has to run, but for those that coverage-exceptions.txt explains, and 95 % of the branches.
Branches that only an exception takes are not counted: one hides behind nearly every call.
"""

import argparse
import collections
import json
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
EXCEPTIONS = ROOT / "tools/coverage-exceptions.txt"
GOAL = 95  # per cent of the branches
ROOMS = ("lib", "captions", "encoding", "programme")


def read_exceptions(path):
    """Lines at the margin are "FILE: SOURCE LINE", the indented ones below them their reason."""
    reasons = {}
    waiting, explained = [], False
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        if line[0].isspace():
            if not waiting:
                sys.exit(f"coverage: {path.name}:{number}: a reason for no line")
            reasons.update({key: reasons.get(key, "") + " " + line.strip() for key in waiting})
            explained = True
            continue
        if explained:
            waiting, explained = [], False
        waiting.append(" ".join(line.split()))
    if waiting and not explained:
        sys.exit(f"coverage: {path.name}: no reason for {waiting[0]}")
    return reasons


def measure(rooms, directories):
    filters = [word for room in rooms for word in ("--filter", f"{room}/")]
    command = ["gcovr", "--root", ROOT, *filters, "--json", "--exclude-throw-branches",
               "--exclude-unreachable-branches", *directories]
    return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE, cwd=ROOT).stdout)["files"]


class Coverage:
    """Of one room."""

    def __init__(self, room, files, exceptions):
        self.room = room
        self.exceptions = {key for key in exceptions if key.startswith(f"{room}/")}
        self.known = set()
        self.missed, self.partial = [], []
        self.totals = collections.Counter()
        for file in sorted(files, key=lambda f: f["file"]):
            if file["file"].startswith(f"{room}/"):
                self.add(file)
        row(f"all of {room}/", self.totals)
        print()

    def add(self, file):
        source = (ROOT / file["file"]).read_text().splitlines()
        counts = collections.Counter()
        for line in file["lines"]:
            if line["gcovr/noncode"]:
                continue
            number = line["line_number"]
            shown = f"{file['file']}:{number}: {source[number - 1].strip()}"
            key = f"{file['file']}: {' '.join(source[number - 1].split())}"
            self.known.add(key)
            counts["lines"] += 1
            counts["branches"] += len(line["branches"])
            counts["taken"] += sum(branch["count"] > 0 for branch in line["branches"])
            if any(branch["count"] == 0 for branch in line["branches"]):
                self.partial.append(shown)
            if line["count"] > 0:
                counts["run"] += 1
            elif key in self.exceptions:
                counts["explained"] += 1
            else:
                self.missed.append(shown)
        self.totals += counts
        row(file["file"], counts)

    def report(self, with_branches):
        """Prints the verdict, and gives it."""
        totals = self.totals
        if not totals["lines"] or not totals["branches"]:
            sys.exit(f"coverage: nothing was counted in {self.room}/")
        branches = 100 * totals["taken"] / totals["branches"]
        print(f"{self.room}/: {100 * totals['run'] / totals['lines']:.1f} % of the lines were run, {branches:.1f} % of the "
              f"branches taken; the goal is {GOAL} % of the branches, and every line that has no exception")
        if with_branches:
            print("\nBranches not taken:\n" + "\n".join(self.partial) + "\n")
        if self.missed:
            print("\nNot run:\n" + "\n".join(self.missed) + "\n")
        stale = sorted(self.exceptions - self.known)
        if stale:
            print(f"\nIn {EXCEPTIONS.name}, and no longer there:\n" + "\n".join(stale) + "\n")
        return not self.missed and not stale and branches >= GOAL


def main():
    parser = argparse.ArgumentParser(description="coverage, room by room")
    parser.add_argument("rooms", help="separated by commas, of " + ", ".join(ROOMS))
    parser.add_argument("directory", nargs="+", type=pathlib.Path, help="where the objects' counters lie")
    parser.add_argument("--branches", action="store_true", help="name the lines whose branches were not all taken")
    options = parser.parse_args()

    rooms = options.rooms.split(",")
    if not set(rooms) <= set(ROOMS):
        parser.error(f"the rooms are {', '.join(ROOMS)}")
    exceptions = read_exceptions(EXCEPTIONS)
    files = measure(rooms, options.directory)
    print(f"{'':40}{'lines':>8}{'run':>8}{'explained':>11}{'branches':>10}{'taken':>8}")
    found = [Coverage(room, files, exceptions) for room in rooms]
    return 0 if all([coverage.report(options.branches) for coverage in found]) else 1


def row(name, counts):
    print(f"{name:40}{counts['lines']:>8}{counts['run']:>8}{counts['explained']:>11}"
          f"{counts['branches']:>10}{counts['taken']:>8}")


if __name__ == "__main__":
    sys.exit(main())
