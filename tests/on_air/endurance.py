#!/usr/bin/python3
"""Keeps srt-to-udp.pipeline on the air while its sender is killed and started again, and tells what the receiver saw.

endurance.py GSVE PLUGIN_DIRECTORY MINUTES
"""

import pathlib
import signal
import sys
import tempfile
import time

import stage

RESTARTS = 5
AWAY = 5  # seconds
PAUSE = 0.5  # seconds without a packet, which a receiver's buffer would not bridge


def caption_summary(tools, film, received):
    sent, found = stage.caption_pairs(tools, film), stage.caption_pairs(tools, received)
    runs = stage.caption_runs(found, sent)
    return len(found), runs


def gaps_in(times, usual):
    """Seconds of each step that is longer than one and a half."""
    ordered = sorted(pts for pts, _ in times)
    return [(end - begin) / 90000 for begin, end in zip(ordered, ordered[1:]) if end - begin > 1.5 * usual]


def pauses_in(arrivals):
    return [later - sooner for (sooner, _), (later, _) in zip(arrivals, arrivals[1:]) if later - sooner > PAUSE]


def listed(values):
    return f"{len(values)}" + (f" ({', '.join(f'{value:.3f}' for value in values)} s)" if values else "")


def play(tools, minutes, receiver, film):
    port, turn = stage.free_port(), minutes * 60 / (RESTARTS + 1)
    process = stage.on_air(tools, "srt-to-udp", {"input": f"srt://127.0.0.1:{port}?mode=listener&latency=500",
                                                 "port": receiver.port, **stage.SMALL, **stage.SIZE})
    memory, recovery, sender = [], [], None
    try:
        process.wait_for("on the air: backup")
        for number in range(RESTARTS + 1):
            started = time.monotonic()
            sender = stage.srt_sender(tools, film, port)
            process.wait_for("on the air: main", number + 2)
            recovery.append(time.monotonic() - started)
            if number == 0:
                memory.append(("with the first picture", process.memory()))
            time.sleep(max(turn - AWAY - recovery[-1], 1))
            memory.append((f"in turn {number + 1}", process.memory()))
            if number < RESTARTS:
                sender.kill()
                sender.close()
                time.sleep(AWAY)
        status = stage.stop(process)
    finally:
        process.close()
        if sender:
            sender.close()
    return status, memory, recovery, process.log()


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # what was started is ended
    gsve, plugins, minutes = sys.argv[1], sys.argv[2], float(sys.argv[3])
    with tempfile.TemporaryDirectory() as scratch:
        tools = stage.Tools(pathlib.Path(gsve).resolve(), pathlib.Path(plugins).resolve(), pathlib.Path(scratch))
        film = stage.film(tools, "film", int(minutes * 60 / (RESTARTS + 1)) + 30)
        receiver = stage.Receiver(tools.scratch / "received.ts")
        status, memory, recovery, log = play(tools, minutes, receiver, film)
        path = receiver.stop()
        stream, errors = stage.read_stream(path), stage.decoding_errors(path)
        pairs, runs = caption_summary(tools, film, path)
    video, sound = (stream.times[pid] for pid in sorted(stream.times))
    rates = stream.mux_rates()
    duration = (max(pts for pts, _ in video) - min(pts for pts, _ in video)) / 90000
    turns = sum("on the air: main" in line for line in log) - 1
    lost_inside = None if runs is None else max(len(runs) - turns, 0)
    figures = [
        ("received", f"{duration:.1f} s, {stream.packets} packets, {len(video)} pictures"),
        ("sender killed and started", f"{RESTARTS} times, away for {AWAY} s each"),
        ("main programme on the air again",
         ", ".join(f"{value:.1f}" for value in recovery) + " s after its sender's start"),
        ("gaps of the pictures", listed(gaps_in(video, stage.PICTURE))),
        ("gaps of the sound", listed(gaps_in(sound, 1920))),
        ("pauses of the packets", f"{listed(pauses_in(receiver.arrivals))} over {PAUSE} s"),
        ("continuity errors", str(len(stream.continuity))),
        ("mux rate", f"{min(rates):.0f} to {max(rates):.0f} bits/s"),
        ("decoding errors", str(len(errors))),
        ("caption byte pairs received", str(pairs)),
        ("caption pieces", f"{'foreign pairs' if runs is None else runs}, {turns} turns of the main programme"),
        ("places where captions were lost", "unknown" if lost_inside is None else str(lost_inside)),
        ("warnings", str(sum("captions-lost" in line or "remedy" in line for line in log))),
        ("memory", ", ".join(f"{kilobytes / 1024:.1f} MiB {when}" for when, kilobytes in memory)),
        ("exit status", str(status)),
    ]
    for name, value in figures:
        print(f"{name:34} {value}")
    gaps = gaps_in(video, stage.PICTURE) or gaps_in(sound, 1920) or pauses_in(receiver.arrivals)
    if status or errors or stream.continuity or gaps or lost_inside != 0:
        print("\n".join(["", "The log:", *log, *errors[:20]]))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
