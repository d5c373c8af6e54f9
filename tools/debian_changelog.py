#!/usr/bin/env python3
"""Prints debian/changelog, made from CHANGELOG.md.

    debian_changelog.py VERSION SUITE SUFFIX DATE

VERSION is the header's. What is not released yet stands above that version where it is released, and below it where it
is not, by the time of the last commit, DATE (seconds since 1970). SUFFIX tells one release of Debian from another:
4.0.0+20261122.203000~deb12.
"""

import datetime
import pathlib
import re
import sys
import textwrap

ROOT = pathlib.Path(__file__).resolve().parent.parent


def sections(text):
    """Each release's name, its date where it has one, and its items."""
    for block in re.split(r"^## ", text, flags=re.M)[1:]:
        heading, _, body = block.partition("\n")
        name, date = re.fullmatch(r"\[(.+?)\](?: - (\S+))?", heading.strip()).groups()
        items = [" ".join(item.split()) for item in re.findall(r"^- (.+?)(?=^- |^#|\Z|^$)", body, flags=re.M | re.S)]
        yield name, date, items


def entry(version, suite, items, maintainer, time):
    lines = [f"gsve ({version}) {suite}; urgency=medium", ""]
    for item in items:
        lines += textwrap.wrap(item, 78, initial_indent="  * ", subsequent_indent="    ", break_long_words=False)
    return "\n".join([*lines, "", f" -- {maintainer}  {time:%a, %d %b %Y %H:%M:%S} +0000", ""])


def main():
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    version, suite, suffix, seconds = sys.argv[1:]
    now = datetime.datetime.fromtimestamp(int(seconds), datetime.timezone.utc)
    control = (ROOT / "packaging/debian/control").read_text()
    maintainer = re.search(r"^Maintainer: (.+)$", control, flags=re.M).group(1)
    releases = list(sections((ROOT / "CHANGELOG.md").read_text()))
    sign = "+" if any(name == version for name, _, _ in releases) else "~"
    for name, date, items in releases:
        if not items:
            continue
        if date is None:
            print(entry(f"{version}{sign}{now:%Y%m%d.%H%M%S}{suffix}", suite, items, maintainer, now))
        else:
            noon = datetime.datetime.fromisoformat(date).replace(hour=12)
            print(entry(name + suffix, suite, items, maintainer, noon))


if __name__ == "__main__":
    main()
