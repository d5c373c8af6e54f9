#!/usr/bin/env python3
"""Whole encodes beside FFmpeg's command line doing the same work.

Both get the same source and the same options for the same codec libraries, which have one thread; captions are
inserted on our side only. Runs alternate, and each figure is the median of the ratios of neighbouring runs: below 1
is less than FFmpeg's. Time is with all processors, CPU time with both programs pinned to one, memory is the most that
was resident. A check beside the figures: both outputs have as many pictures, and about as many bytes.
"""

import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile

BITRATE = 4_000_000

# What the encoder library sets unasked, in the words of FFmpeg's command line.
COMMON = ["-threads", "1", "-b:v", f"{BITRATE}", "-maxrate", f"{BITRATE}", "-bt", f"{BITRATE // 5}",
          "-bufsize", f"{BITRATE // 4}", "-bf", "2", "-qmin", "2", "-qmax", "63", "-flags2", "fast",
          "-qdiff", "32768"]  # fmt: skip
H264 = [*COMMON, "-c:v", "libx264", "-g", "15", "-keyint_min", "15", "-minrate", f"{BITRATE}", "-profile:v", "main",
        "-preset", "superfast", "-coder", "vlc", "-mbtree", "1", "-crf_max", "63", "-noise_reduction", "5",
        "-x264-params", "trellis=0:scenecut=0:mixed-refs=0:me=dia:subme=0:aq-mode=0:b-adapt=0:deblock=1:"
        "rc-lookahead=0:ref=0:weightb=0:weightp=0"]  # fmt: skip
MPEG2 = [*COMMON, "-c:v", "mpeg2video", "-g", "15", "-minrate", "0", "-mbd", "bits", "-dia_size", "-2",
         "-pre_dia_size", "-2", "-mepre", "0", "-me_range", "16", "-noise_reduction", "5", "-p_mask", "0.8",
         "-scplx_mask", "0.02", "-tcplx_mask", "0.005"]  # fmt: skip
FIELDS = ["-flags", "+ildct"]
OURS_MPEG2 = ["--set", "min bitrate=0"]

# Name, source, codec, our options, FFmpeg's.
CASES = [
    ("MPEG-2 1080i to H.264", "mpeg2", "h.264", [], [*FIELDS, *H264]),
    ("MPEG-2 1080i to H.264 720p", "mpeg2", "h.264", ["--set", "resize=1280x720", "--set", "resize deinterlace=2"],
     ["-vf", "scale=1280:720:flags=fast_bilinear", *H264]),
    ("MPEG-2 1080i to H.264, deinterlaced", "mpeg2", "h.264", ["--set", "resize deinterlace=3"],
     ["-vf", "pp=lb", *H264]),
    ("MPEG-2 1080i to MPEG-2 480 lines", "mpeg2", "mpeg-2",
     [*OURS_MPEG2, "--colour", "keep", "--set", "resize=720x480", "--set", "resize deinterlace=2"],
     ["-vf", "scale=720:480:flags=fast_bilinear", *MPEG2]),
    ("H.264 1080p to H.264", "h264", "h.264", [], H264),
    ("H.264 1080p to H.264 720p", "h264", "h.264", ["--set", "resize=1280x720"],
     ["-vf", "scale=1280:720:flags=fast_bilinear", *H264]),
]  # fmt: skip


def make_sources(directory, ffmpeg, clip, seconds):
    """The clip, enlarged and with grain, as a broadcast source and as a web one."""
    paths = {"mpeg2": f"{directory}/mpeg2.ts", "h264": f"{directory}/h264.ts"}
    subprocess.run(
        [ffmpeg, "-nostdin", "-v", "error", "-y", "-stream_loop", "-1", "-i", clip, "-t", str(seconds), "-vf",
         "scale=1920:1080,fps=25,noise=alls=6:allf=t,setfield=tff", "-pix_fmt", "yuv420p", "-c:v", "mpeg2video",
         "-flags", "+ilme+ildct", "-b:v", "15M", "-maxrate", "18M", "-bufsize", "8M", "-g", "12", "-bf", "2", "-an",
         paths["mpeg2"]],
        check=True)  # fmt: skip
    subprocess.run(
        [ffmpeg, "-nostdin", "-v", "error", "-y", "-i", paths["mpeg2"], "-vf", "setfield=prog", "-c:v", "libx264",
         "-preset", "veryfast", "-b:v", "8M", "-an", paths["h264"]],
        check=True)  # fmt: skip
    with open(f"{directory}/captions.srt", "w", encoding="utf-8") as file:
        for n in range(seconds // 2):
            file.write(f"{n + 1}\n00:00:{2 * n:02},200 --> 00:00:{2 * n + 1:02},600\nCaption {n + 1}\n\n")
    return paths


def run(command, processor=None):
    """Wall time and CPU time in seconds, and the most resident memory in bytes."""
    begin = os.times().elapsed
    # Started small: what is resident counts from the fork on.
    prefix = ["taskset", "-c", str(processor)] if processor is not None else []
    process = subprocess.Popen([*prefix, *command], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.PIPE)  # fmt: skip
    errors = process.stderr.read()
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit(f"failed: {' '.join(command)}\n{errors.decode()}")
    return os.times().elapsed - begin, usage.ru_utime + usage.ru_stime, usage.ru_maxrss * 1024


def pictures_and_bytes(path):
    probe = subprocess.run(
        ["ffprobe", "-v", "error", "-count_packets", "-select_streams", "v", "-show_entries",
         "stream=nb_read_packets", "-of", "csv=p=0", path],
        check=True, capture_output=True, text=True)  # fmt: skip
    return int(probe.stdout.split()[0].strip(",")), os.path.getsize(path)


def compare(case, paths, directory, options):
    name, source, codec, ours, theirs = case
    out = {"gsve": f"{directory}/gsve.ts", "ffmpeg": f"{directory}/ffmpeg.ts"}
    commands = {
        "gsve": [options.gsve, "encode", paths[source], out["gsve"], "-y", "-q", "--codec", codec, "--set",
                 f"bitrate={BITRATE}", "--set", "maximum threads=1", "--captions", f"{directory}/captions.srt", *ours],
        "ffmpeg": [options.ffmpeg, "-nostdin", "-v", "error", "-y", "-i", paths[source], *theirs, "-an",
                   out["ffmpeg"]],
    }  # fmt: skip
    ratios = {"time": [], "cpu": [], "memory": []}
    seconds = {"gsve": [], "ffmpeg": []}
    for n in range(options.rounds):
        order = list(commands) if n % 2 == 0 else list(reversed(commands))
        free = {program: run(commands[program]) for program in order}
        pinned = {program: run(commands[program], options.processor) for program in order}
        for program, figures in free.items():
            seconds[program].append(figures[0])
        ratios["time"].append(free["gsve"][0] / free["ffmpeg"][0])
        ratios["memory"].append(free["gsve"][2] / free["ffmpeg"][2])
        ratios["cpu"].append(pinned["gsve"][1] / pinned["ffmpeg"][1])
    made = {program: pictures_and_bytes(path) for program, path in out.items()}
    if made["gsve"][0] != made["ffmpeg"][0] or not 0.85 < made["gsve"][1] / made["ffmpeg"][1] < 1.15:
        print(f"  not the same work: {made['gsve']} pictures and bytes, FFmpeg's {made['ffmpeg']}", file=sys.stderr)
    return {"case": name, "seconds": statistics.median(seconds["gsve"]),
            **{key: statistics.median(values) for key, values in ratios.items()},
            "time_range": [min(ratios["time"]), max(ratios["time"])]}  # fmt: skip


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("gsve")
    parser.add_argument("clip")
    parser.add_argument("--ffmpeg", default="ffmpeg")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=12, help="of each source")
    parser.add_argument("--processor", type=int, default=1, help="for the figures of CPU time")
    parser.add_argument("--case", type=int, action="append", help="run these alone, counted from 0")
    parser.add_argument("--json", action="store_true")
    options = parser.parse_args()
    version = subprocess.run([options.ffmpeg, "-version"], check=True, capture_output=True, text=True)
    results = []
    with tempfile.TemporaryDirectory() as directory:
        paths = make_sources(directory, options.ffmpeg, options.clip, options.seconds)
        if not options.json:
            print(version.stdout.split(" Copyright")[0])
            print(f"{'':38}{'time':>7}{'(range)':>14}{'CPU':>7}{'memory':>8}{'seconds':>9}")
        for number, case in enumerate(CASES):
            if options.case and number not in options.case:
                continue
            result = compare(case, paths, directory, options)
            results.append(result)
            if not options.json:
                low, high = result["time_range"]
                print(f"{result['case']:38}{result['time']:7.2f}{f'{low:.2f}-{high:.2f}':>14}{result['cpu']:7.2f}"
                      f"{result['memory']:8.2f}{result['seconds']:9.2f}", flush=True)  # fmt: skip
    if options.json:
        print(json.dumps(results, indent=1))


if __name__ == "__main__":
    main()
