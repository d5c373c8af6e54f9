#!/usr/bin/env python3
"""What a programme in chunks has of the programme in one piece: pictures, captions, time codes, sound, rate, buffer, and
the quality behind each join. Fails where something is missing or the quality is below its mark.
"""

import argparse
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

BEHIND = 12  # pictures after a join
MARKS = {"h.264": 0.3, "mpeg-2": 1.0}  # dB


def output_of(*command):
    result = subprocess.run([*map(str, command)], capture_output=True, text=True, check=False)
    if result.returncode != 0:
        raise SystemExit(f"{command}: {result.stderr}")
    return result.stdout


def make_source(directory, clip, seconds):
    source = directory / "source.ts"
    # Forwards and backwards, without a cut that real films have seldom.
    output_of("ffmpeg", "-nostdin", "-v", "error", "-y", "-i", clip, "-f", "lavfi", "-i", "sine=f=440:r=48000",
              "-filter_complex", "[0:v]scale=720:404,split[a][b];[b]reverse[r];[a][r]concat=n=2,loop=-1:380,"
              "setpts=N/25/TB[v]", "-map", "[v]", "-map", "1:a", "-t", seconds, "-c:v", "mpeg2video", "-q:v", 2, "-g", 12,
              "-bf", 2, "-c:a", "mp2", source)  # fmt: skip
    captions = directory / "captions.srt"
    with captions.open("w", encoding="utf-8") as file:
        for n in range(seconds // 2):
            minute, second = divmod(2 * n, 60)
            file.write(f"{n + 1}\n00:{minute:02}:{second:02},200 --> 00:{minute:02}:{second + 1:02},600\n"
                       f"Caption {n + 1}\n\n")
    return source, captions


class Stream:
    """What readers find in a finished programme."""

    def __init__(self, gsve, path, source):
        inspected = json.loads(output_of(gsve, "inspect", path, "--json", "--buffer", "--pictures"))
        self.pictures = inspected["pictures"]["total"]
        self.report = inspected
        scc = path.with_suffix(".scc")
        output_of(gsve, "inspect", path, "--scc", scc, "-y")
        self.captions = scc.read_text(encoding="ascii")
        self.pairs = sum(len(line.split()) - 1 for line in self.captions.splitlines()[1:] if line)
        self.buffer = "holds" if "holds" in output_of(gsve, "inspect", path, "--buffer") else "does not hold"
        sound = subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", path, "-map", "0:a", "-f", "s32le", "-"],
                               capture_output=True, check=True).stdout  # fmt: skip
        self.samples, self.sound = len(sound) // 4, hashlib.sha256(sound).hexdigest()
        self.times = output_of("ffprobe", "-v", "error", "-select_streams", "v", "-show_entries", "packet=pts", "-of",
                               "csv=p=0", path).split()  # fmt: skip
        self.bytes = path.stat().st_size
        figures = path.with_suffix(".psnr")
        output_of("ffmpeg", "-nostdin", "-v", "fatal", "-i", path, "-i", source, "-lavfi",
                  f"[0:v]setpts=N/25/TB[a];[1:v]setpts=N/25/TB[b];[a][b]psnr=stats_file={figures}", "-f", "null", "-")
        self.quality = [min(float(value), 60.0)
                        for value in re.findall(r"psnr_avg:(\S+)", figures.read_text(encoding="ascii"))]  # fmt: skip

    def timecodes(self):
        """By the picture that is shown first in each GOP, where it is closed, and the others."""
        lines = {}
        for gop in self.report["gops"]:
            lines[(gop["picture"], gop["closed"])] = gop.get("timecode")
        return lines


def join(gsve, plan):
    """Returns which chunks had to save bits for those behind them, as the program asked for."""
    mended = []
    while True:
        result = subprocess.run([gsve, "join", plan, "-y"], capture_output=True, text=True, check=False)
        advice = re.search(r"(\d+) --save (\d+)$", result.stderr)
        if result.returncode == 0 or not advice or len(mended) > 100:
            break
        mended.append(advice[1])
        output_of(gsve, "chunk", plan, advice[1], "--save", advice[2], "-q")
    if result.returncode != 0:
        raise SystemExit(result.stderr)
    return sorted(set(mended), key=int)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("gsve")
    parser.add_argument("clip")
    parser.add_argument("--codec", default="h.264", choices=sorted(MARKS))
    parser.add_argument("--seconds", type=int, default=40)
    parser.add_argument("--chunks", default="5s")
    options = parser.parse_args()
    gsve = os.path.abspath(options.gsve)
    with tempfile.TemporaryDirectory() as folder:
        directory = pathlib.Path(folder)
        source, captions = make_source(directory, options.clip, options.seconds)
        job = ["--codec", options.codec, "--captions", captions, "--set", "bitrate=2500000",
               "--set", "enable h.264 nal hrd=1"]  # fmt: skip
        if options.codec == "mpeg-2":
            job += ["--timecode", "10:00:00:00"]
        one, joined, plan = directory / "one.ts", directory / "joined.ts", directory / "film.plan.json"
        output_of(gsve, "encode", source, one, "-q", "--set", "maximum threads=1", *job)
        output_of(gsve, "plan", source, joined, "--chunks", options.chunks, "-o", plan, *job)
        chunks = json.loads(plan.read_text(encoding="utf-8"))["chunks"]
        for task in ["sound", *range(len(chunks))]:
            output_of(gsve, "chunk", plan, task, "-q")
        mended = join(gsve, plan)
        whole, parts = Stream(gsve, one, source), Stream(gsve, joined, source)
        begins = [chunk["range"]["begin"] for chunk in chunks][1:]
        lost = []
        for begin in begins:
            behind = slice(begin, begin + BEHIND)
            lost.append((sum(whole.quality[behind]) - sum(parts.quality[behind])) / BEHIND)
        mean = sum(lost) / len(lost)
        codes, same = parts.timecodes(), whole.timecodes()
        both = [key for key in codes if key in same]
        unlike = sum(codes[key] != same[key] for key in both)
        rows = [
            ("pictures", whole.pictures, parts.pictures, whole.pictures == parts.pictures),
            ("caption byte pairs", whole.pairs, parts.pairs, whole.captions == parts.captions),
            ("time codes of equal GOPs", len(both), len(both) - unlike, unlike == 0),
            ("samples of sound", whole.samples, parts.samples, whole.sound == parts.sound),
            ("times of pictures", len(whole.times), len(parts.times), sorted(whole.times) == sorted(parts.times)),
            ("bytes", whole.bytes, parts.bytes, abs(parts.bytes / whole.bytes - 1) < 0.05),
            ("decoder's buffer", whole.buffer, parts.buffer, parts.buffer == whole.buffer),
            ("PSNR, dB", f"{sum(whole.quality) / len(whole.quality):.2f}",
             f"{sum(parts.quality) / len(parts.quality):.2f}", True),
            (f"lost behind {len(begins)} joins, dB", f"{MARKS[options.codec]} at most",
             f"{mean:.2f}, {max(lost):.2f} at worst", mean <= MARKS[options.codec]),
        ]  # fmt: skip
    print(f"{options.codec}, {len(begins) + 1} chunks{'':18}one piece               in chunks")
    for name, before, after, good in rows:
        print(f"{name:32}{before!s:24}{after!s:26}{'' if good else 'NOT THE SAME'}")
    if mended:
        print(f"last GOPs encoded again for the buffer: chunks {', '.join(mended)}")
    sys.exit(0 if all(good for *_, good in rows) else 1)


if __name__ == "__main__":
    main()
