#!/usr/bin/env python3
"""Compiles and runs each step of the guide, and compares what it prints with what the guide says.

    embedding_test.py GUIDE WORK                  against the installed packages, by pkg-config
    embedding_test.py GUIDE WORK SOURCE BUILD     against a build
"""

import concurrent.futures
import difflib
import os
import pathlib
import re
import subprocess
import sys

STEPS = 10
HOST = [f"-lorb_utils_v4_{name}" for name in ("comm", "io", "h264", "mpeg12_video", "misc")]


def steps(guide):
    """Number, program and expected output of each numbered section."""
    sections = re.split(r"^## (\d+)\. .*$", guide, flags=re.M)
    for number, text in zip(sections[1::2], sections[2::2]):
        text = re.split(r"^## ", text, flags=re.M)[0]
        programs = re.findall(r"^```cpp\n(.*?)^```$", text, flags=re.M | re.S)
        outputs = re.findall(r"^```text\n(.*?)^```$", text, flags=re.M | re.S)
        if len(programs) != 1 or len(outputs) != 1 or not outputs[0].strip():
            sys.exit(f"step {number} has {len(programs)} programs and {len(outputs)} outputs")
        yield int(number), programs[0], outputs[0]


def pkg_config(*arguments):
    return subprocess.run(["pkg-config", *arguments], capture_output=True, text=True, check=True).stdout.split()


def flags(arguments):
    if not arguments:
        return pkg_config("--cflags", "--libs", "gsve", "libavcodec") + HOST
    source, build = (os.path.abspath(path) for path in arguments)
    libraries = [f"{build}/lib", f"{build}/host"]
    return [
        *(f"-I{source}/{path}" for path in ("lib", "host/include", "host/reference/include")),
        *pkg_config("--cflags", "--libs", "libavcodec"),
        *(f"-L{path}" for path in libraries), *(f"-Wl,-rpath,{path}" for path in libraries),
        "-lorb_utils_v4_general_video_streaming_encoder", *HOST,
    ]


def trouble_with(step, work, link):
    """What is wrong with a step, or nothing."""
    number, program, expected = step
    directory = work / f"step-{number}"
    directory.mkdir(parents=True, exist_ok=True)
    source = directory / "host.cpp"
    source.write_text(program)
    compiler = ["g++", "-std=c++20", "-Wall", "-Wextra", "-Werror", "-pthread", str(source), "-o", str(directory / "host")]
    built = subprocess.run(compiler + link, capture_output=True, text=True)
    if built.returncode:
        return f"step {number} does not compile:\n{built.stderr}"
    # In front of a codec that hangs; ten times and more what a step takes.
    run = subprocess.run([str(directory / "host")], capture_output=True, text=True, cwd=directory, timeout=60)
    if run.returncode:
        return f"step {number} ended with {run.returncode}:\n{run.stderr}"
    if run.stdout != expected:
        lines = difflib.unified_diff(expected.splitlines(), run.stdout.splitlines(), "guide", "program", lineterm="")
        return f"step {number} prints something else:\n" + "\n".join(lines)
    return None


def main():
    if len(sys.argv) not in (3, 5):
        sys.exit(__doc__)
    guide, work = (pathlib.Path(path) for path in sys.argv[1:3])
    found = list(steps(guide.read_text()))
    if [number for number, _, _ in found] != list(range(1, STEPS + 1)):
        sys.exit(f"{guide} has the steps {[number for number, _, _ in found]}")
    link = flags(sys.argv[3:])
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        troubles = [text for text in pool.map(lambda step: trouble_with(step, work, link), found) if text]
    if troubles:
        sys.exit("\n".join(troubles))
    print(f"The guide's {len(found)} steps compile, and print what it says.")


if __name__ == "__main__":
    main()
