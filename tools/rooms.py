#!/usr/bin/env python3
"""Checks what each room of the house includes.

    rooms.py BUILD

Reads the dependency files that the compiler wrote for the objects in BUILD, so that nothing hides behind another
header: every file that a room's objects were made from has to be one that the room may know. Then compiles each
header of the public rooms by itself. Prints what is wrong, and exits with 1 where anything is.
"""

import collections
import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys

# What a header belongs to: the first pattern that its path matches. System headers that match none are free.
FFMPEG = ("libavcodec", "libavutil", "libavformat", "libavfilter", "libswresample", "libswscale", "libavdevice")
KINDS = [
    (r"^lib/gsve\.h$", "gsve.h"),
    (r"^lib/", "lib"),
    (r"^host/include/", "host/include"),
    (r"^host/reference/include/", "host/reference"),
    (r"^(captions|encoding|programme|report|gstreamer|cli)/", r"\1"),
    (r"^(host|tests|fuzz|bench)/", r"\1"),
    (r"/(%s)/" % "|".join(FFMPEG), r"\1"),
    (r"/(fmt|nlohmann|CLI|gst|glib-2\.0)/", r"\1"),
    (r"/(fstream|filesystem)$", "files"),
    (r"/(termios|sys/ioctl)\.h$", "terminal"),
]

ENCODER = ["gsve.h", "host/include", "libavcodec", "libavutil"]
MEDIA = ["libavformat", "libavfilter", "libswresample", "files"]
MAY_KNOW = {
    "lib": ["lib"] + ENCODER,
    "captions": ["captions", "fmt", "files"],
    # The status report is read back from the reference host's packet, and diagnostics come through its library.
    "encoding": ["encoding", "captions", "fmt", "host/reference"] + ENCODER,
    "programme": ["programme", "encoding", "captions", "fmt", "host/reference"] + ENCODER + MEDIA,
    "report": ["report", "programme", "encoding", "captions", "fmt", "nlohmann"],
    "gstreamer": ["gstreamer", "encoding", "captions", "fmt", "gst", "glib-2.0", "host/reference"] + ENCODER,
    "cli": ["cli", "report", "programme", "encoding", "captions", "fmt", "nlohmann", "CLI", "terminal",
            "host/reference"] + ENCODER + MEDIA,
}
# Opened by standard headers that the room may use, not by the room.
FREE_BEHIND_OTHERS = {"files", "terminal"}
PUBLIC = ["captions", "encoding"]


def kind_of(path):
    for pattern, kind in KINDS:
        match = re.search(pattern, path)
        if match:
            return match.expand(kind)
    return None


def objects(build):
    """Each object's files, its source first, as ninja remembers them of the compiler."""
    listing = subprocess.run(["ninja", "-C", build, "-t", "deps"], capture_output=True, text=True, check=True)
    for block in listing.stdout.split("\n\n"):
        lines = block.splitlines()
        if len(lines) > 1 and lines[0].split(":")[0].endswith(".o"):
            yield lines[0].split(":")[0], [line.strip() for line in lines[1:]]


def relative(path, build, root):
    path = os.path.normpath(os.path.join(build, path))
    return os.path.relpath(path, root) if path.startswith(str(root) + os.sep) else path


def includes_itself(root, source, kind):
    """Whether a file of the room names a header of that kind, which else came with the standard library's."""
    names = {"files": r"<(fstream|filesystem)>", "terminal": r"<(termios\.h|sys/ioctl\.h)>"}[kind]
    return re.search(r"#include\s+" + names, (root / source).read_text())


def broken_rules(build, root):
    wrong = collections.defaultdict(set)
    seen = collections.Counter()
    for _, files in objects(build):
        files = [relative(path, build, root) for path in files]
        room = files[0].split("/")[0]
        if room not in MAY_KNOW:
            continue
        seen[room] += 1
        own = [path for path in files if path.startswith(room + "/")]
        for path in files:
            kind = kind_of(path)
            if kind is None or kind in MAY_KNOW[room]:
                continue
            if kind in FREE_BEHIND_OTHERS and not any(includes_itself(root, f, kind) for f in own):
                continue
            wrong[room, kind].add((files[0], path))
    return wrong, seen


def lone_headers(root):
    headers = [path for room in PUBLIC for path in sorted((root / room).glob("*.h"))]
    flags = subprocess.run(["pkg-config", "--cflags", "libavcodec", "libavutil"], capture_output=True, text=True,
                           check=True).stdout.split()
    command = ["g++", "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Werror", "-x", "c++", f"-I{root}",
               f"-I{root}/lib", f"-I{root}/host/include", *flags]

    def compile_alone(header):
        text = f'#include "{header.relative_to(root)}"\n'
        return header, subprocess.run([*command, "-"], input=text, capture_output=True, text=True)

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        results = list(pool.map(compile_alone, headers))
    return len(headers), [(header, run.stderr) for header, run in results if run.returncode]


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    root = pathlib.Path(__file__).resolve().parent.parent
    build = str(pathlib.Path(sys.argv[1]).resolve())
    wrong, seen = broken_rules(build, root)
    for (room, kind), places in sorted(wrong.items()):
        source, header = sorted(places)[0]
        print(f"{room}/ may not know {kind}: {source} includes {header} (and {len(places) - 1} more)")
    missing = [room for room in MAY_KNOW if (root / room).is_dir() and not seen[room]]
    for room in missing:
        print(f"{room}/ has no object in {build}: build it first")
    count, broken = lone_headers(root)
    for header, errors in broken:
        print(f"{header.relative_to(root)} does not compile alone:\n{errors}")
    if wrong or missing or broken:
        sys.exit(1)
    print(f"{sum(seen.values())} objects in {len(seen)} rooms include what their rooms may know; "
          f"{count} headers compile alone.")


if __name__ == "__main__":
    main()
