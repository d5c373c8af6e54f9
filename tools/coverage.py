#!/usr/bin/python3
"""Prints how much of the library a coverage build's tests have run, and fails where it is too little.

Every line has to run, but for those that coverage-exceptions.txt explains, and 95 % of the branches. Branches that
only an exception takes are not counted: one hides behind nearly every call.
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


def measure(directories):
    command = ["gcovr", "--root", ROOT, "--filter", "lib/", "--json", "--exclude-throw-branches",
               "--exclude-unreachable-branches", *directories]
    return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE, cwd=ROOT).stdout)["files"]


def main():
    parser = argparse.ArgumentParser(description="coverage of the library")
    parser.add_argument("directory", nargs="+", type=pathlib.Path, help="where the objects' counters lie")
    parser.add_argument("--branches", action="store_true", help="name the lines whose branches were not all taken")
    options = parser.parse_args()

    exceptions = read_exceptions(EXCEPTIONS)
    known = set()
    missed, partial = [], []
    totals = collections.Counter()
    print(f"{'':44}{'lines':>8}{'run':>8}{'explained':>11}{'branches':>10}{'taken':>8}")
    for file in sorted(measure(options.directory), key=lambda f: f["file"]):
        source = (ROOT / file["file"]).read_text().splitlines()
        counts = collections.Counter()
        for line in file["lines"]:
            if line["gcovr/noncode"]:
                continue
            number = line["line_number"]
            shown = f"{file['file']}:{number}: {source[number - 1].strip()}"
            key = f"{file['file']}: {' '.join(source[number - 1].split())}"
            known.add(key)
            counts["lines"] += 1
            counts["branches"] += len(line["branches"])
            counts["taken"] += sum(branch["count"] > 0 for branch in line["branches"])
            if any(branch["count"] == 0 for branch in line["branches"]):
                partial.append(shown)
            if line["count"] > 0:
                counts["run"] += 1
            elif key in exceptions:
                counts["explained"] += 1
            else:
                missed.append(shown)
        totals += counts
        row(file["file"], counts)
    row("all", totals)

    lines = 100 * (totals["run"] + totals["explained"]) / totals["lines"]
    branches = 100 * totals["taken"] / totals["branches"]
    print(f"\n{100 * totals['run'] / totals['lines']:.1f} % of the lines were run, {branches:.1f} % of the branches "
          f"taken; the goal is {GOAL} % of the branches, and every line that has no exception")
    if options.branches:
        print("\nBranches not taken:\n" + "\n".join(partial))
    if missed:
        print("\nNot run:\n" + "\n".join(missed))
    stale = sorted(set(exceptions) - known)
    if stale:
        print(f"\nIn {EXCEPTIONS.name}, and no longer there:\n" + "\n".join(stale))
    return 0 if lines == 100 and not stale and branches >= GOAL else 1


def row(name, counts):
    print(f"{name:44}{counts['lines']:>8}{counts['run']:>8}{counts['explained']:>11}"
          f"{counts['branches']:>10}{counts['taken']:>8}")


if __name__ == "__main__":
    sys.exit(main())
