#!/usr/bin/env python3
"""One programme in chunks beside one piece: what dividing it costs, and what a second machine of one processor gains.

A node is a process that is pinned to one processor and takes the next task as long as there is one. Everything
alternates; each figure is the median of the rounds. Time is that of all tasks and the join, processor time that of
all chunks beside the encoding of the same job in one piece, on one thread as the chunks are.
"""

import argparse
import json
import os
import pathlib
import queue
import statistics
import subprocess
import tempfile
import threading
import time


def make_source(path, ffmpeg, clip, seconds):
    """1080 lines with grain, and sound."""
    subprocess.run(
        [ffmpeg, "-nostdin", "-v", "error", "-y", "-stream_loop", "-1", "-i", clip, "-f", "lavfi", "-i",
         "sine=f=440:r=48000", "-t", str(seconds), "-map", "0:v", "-map", "1:a", "-vf",
         "setpts=N/25/TB,scale=1920:1080,noise=alls=6:allf=t", "-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset",
         "ultrafast", "-g", "50", "-b:v", "12M", "-c:a", "mp2", path],
        check=True)  # fmt: skip


def run(command, processor=None):
    """Wall time and processor time in seconds."""
    begin = time.monotonic()
    process = subprocess.Popen(
        command, stdout=subprocess.DEVNULL,
        preexec_fn=None if processor is None else lambda: os.sched_setaffinity(0, {processor}))  # fmt: skip
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise SystemExit(f"{' '.join(command)} failed")
    return time.monotonic() - begin, usage.ru_utime + usage.ru_stime


def work(gsve, plan, tasks, processors):
    """All tasks on so many nodes, then the join: wall time, and the processor time of the chunks."""
    waiting, spent = queue.SimpleQueue(), []
    for task in tasks:
        waiting.put(task)

    def node(processor):
        while True:
            try:
                task = waiting.get_nowait()
            except queue.Empty:
                return
            spent.append((task, run([gsve, "chunk", plan, task, "-q"], processor)[1]))

    begin = time.monotonic()
    nodes = [threading.Thread(target=node, args=(processor,)) for processor in processors]
    for thread in nodes:
        thread.start()
    for thread in nodes:
        thread.join()
    join = run([gsve, "join", plan, "-q", "-y"], processors[0])
    return time.monotonic() - begin, sum(cpu for task, cpu in spent if task != "sound"), join[0]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("gsve")
    parser.add_argument("clip")
    parser.add_argument("--ffmpeg", default="ffmpeg")
    parser.add_argument("--seconds", type=int, default=240)
    parser.add_argument("--chunks", default="60s")
    parser.add_argument("--codec", default="h.264")
    parser.add_argument("--rounds", type=int, default=1)
    options = parser.parse_args()
    processors = sorted(os.sched_getaffinity(0))[:2]
    if len(processors) < 2:
        raise SystemExit("two processors are needed")
    gsve = os.path.abspath(options.gsve)
    job = ["--codec", options.codec, "--set", "bitrate=6000000"]
    rounds = []
    with tempfile.TemporaryDirectory() as directory:
        source = f"{directory}/source.ts"
        make_source(source, options.ffmpeg, options.clip, options.seconds)
        for _ in range(options.rounds):
            plan = f"{directory}/film.plan.json"
            whole = run([gsve, "encode", source, f"{directory}/whole.ts", "-q", "-y", "--no-sound", "--set",
                         "maximum threads=1", "--decoder-threads", "1", *job], processors[0])  # fmt: skip
            planning = run([gsve, "plan", source, f"{directory}/out.ts", "--chunks", options.chunks, "-o", plan, "-y",
                            "-q", *job], processors[0])  # fmt: skip
            chunks = len(json.loads(pathlib.Path(plan).read_text(encoding="utf-8"))["chunks"])
            tasks = ["sound", *map(str, range(chunks))]
            one, cpu, join = work(gsve, plan, tasks, processors[:1])
            two = work(gsve, plan, tasks, processors)[0]
            rounds.append({"two nodes' time of one's": two / one, "processor time of the chunks": cpu / whole[1],
                           "time of the plan": planning[0] / whole[0], "time of the join": join / whole[0],
                           "seconds": (whole[0], planning[0], one, two)})  # fmt: skip
            figures = ", ".join(f"{seconds:.1f}" for seconds in rounds[-1]["seconds"])
            print(f"one piece, plan, one node, two nodes: {figures} s; {chunks} chunks", flush=True)
    marks = {"two nodes' time of one's": 0.56, "processor time of the chunks": 1.10, "time of the plan": 0.02}
    print(f"\n{options.seconds} s of 1080 lines to {options.codec}, chunks of {options.chunks}")
    for name in ("two nodes' time of one's", "processor time of the chunks", "time of the plan", "time of the join"):
        mark = f"   (mark {marks[name]:.2f})" if name in marks else ""
        print(f"{name:30}{statistics.median(figures[name] for figures in rounds):8.3f}{mark}")


if __name__ == "__main__":
    main()
