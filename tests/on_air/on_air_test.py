#!/usr/bin/python3
"""The pipelines of examples/on-air/, by what a receiver gets of them.

on_air_test.py GSVE PLUGIN_DIRECTORY [TEST...]
"""

import json
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest

import stage

TOOLS = None
FILM_SECONDS = 20
PROGRAMS = ("ffmpeg", "ffprobe", "gst-launch-1.0", "systemd-analyze")


class Stage(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.tools = TOOLS._replace(scratch=pathlib.Path(scratch.name))

    def start(self, process):
        self.addCleanup(process.close)
        return process

    def receiver(self):
        receiver = stage.Receiver(self.tools.scratch / "received.ts")
        self.addCleanup(receiver.stop)
        return receiver

    def on_air(self, pipeline, variables, *options, more=None):
        return self.start(stage.on_air(self.tools, pipeline, variables, *options, more=more))

    def sender(self, film, port):
        return self.start(stage.srt_sender(self.tools, film, port))

    def pipeline(self, text):
        path = self.tools.scratch / "own.pipeline"
        path.write_text(text, encoding="utf-8")
        return path

    def assert_sound_stream(self, path, rate=stage.MUX_RATE, video="h264", audio="aac"):
        """What holds for each stream that leaves, whatever happened to its inputs."""
        stream = stage.read_stream(path)
        self.assertEqual(path.stat().st_size % 188, 0)
        self.assertEqual(stream.broken_sync, [])
        self.assertEqual(stream.continuity, [])
        self.assertEqual(stream.announced, [])
        rates = stream.mux_rates()
        self.assertGreater(len(rates), 20)
        for each in rates:
            self.assertAlmostEqual(each, rate, delta=rate / 1000)
        self.assertEqual(stage.decoding_errors(path), [])
        self.assertEqual(self.codecs(path), [video, audio])
        for times in stream.times.values():
            decoded = [dts for _, dts in times]
            self.assertEqual(decoded, sorted(set(decoded)))
        return stream

    def codecs(self, path):
        listed = stage.run("ffprobe", "-v", "error", "-show_entries", "stream=codec_name", "-of", "json", path)
        return [each["codec_name"] for each in json.loads(listed)["streams"]]

    def assert_no_gap(self, stream):
        """Picture and sound go on at their rate."""
        pictures, sound = (sorted(pts for pts, _ in stream.times[pid]) for pid in sorted(stream.times))
        for begin, end in zip(pictures, pictures[1:]):
            self.assertLess(end - begin, 1.6 * stage.PICTURE)
        frames = [end - begin for begin, end in zip(sound, sound[1:])]
        self.assertLess(max(frames) - min(frames), 5)

    def assert_captions(self, received, film, most_runs, other=None):
        """All that came was sent so, in at most so many pieces."""
        found, sent = stage.caption_pairs(self.tools, received), stage.caption_pairs(self.tools, film)
        if other:
            sent += stage.caption_pairs(self.tools, other)
        runs = stage.caption_runs(found, sent)
        self.assertIsNotNone(runs, f"{found} has what is not in {sent}")
        self.assertLessEqual(len(runs), most_runs, runs)
        return runs


class File(Stage):
    def send(self, film):
        receiver = self.receiver()
        process = self.on_air("file-to-udp", {"input": film, "port": receiver.port, **stage.SMALL}, "--latency", 500)
        self.assertEqual(process.wait(), 0, process.log())
        return receiver.stop()

    def test_leaves_whole_with_captions_and_sound_at_a_constant_rate(self):
        for codec in ("h.264", "mpeg-2"):
            with self.subTest(codec=codec):
                film = stage.film(self.tools, f"film-{codec}", 4, codec=codec)
                received = self.send(film)
                stream = self.assert_sound_stream(received)
                self.assert_no_gap(stream)
                self.assertEqual(len(stream.times[min(stream.times)]), 120)
                pairs = stage.caption_pairs(self.tools, film)
                self.assertGreater(len(pairs), 50)
                self.assertEqual(stage.caption_pairs(self.tools, received), pairs)


class Restart(Stage):
    def test_of_the_sender_leaves_no_gap_and_its_captions_go_on(self):
        film, port, receiver = stage.film(self.tools, "film", FILM_SECONDS), stage.free_port(), self.receiver()
        process = self.on_air("srt-to-udp", {"input": f"srt://127.0.0.1:{port}?mode=listener&latency=300",
                                             "port": receiver.port, **stage.SMALL, **stage.SIZE},
                              "--return-after", 500, "--latency", 2000)
        process.wait_for("on the air: backup")
        sender = self.sender(film, port)
        process.wait_for("on the air: main", 2)  # the first time it was only hoped for
        receiver.wait_for_seconds(4)
        sender.kill()
        process.wait_for("input main: has gone away")
        process.wait_for("on the air: backup", 2)
        self.sender(film, port)
        process.wait_for("on the air: main", 3)
        receiver.wait_for_seconds(4)
        self.assertEqual(stage.stop(process), 0, process.log())
        received = receiver.stop()

        self.assert_no_gap(self.assert_sound_stream(received))
        turns = sum("on the air: main" in line for line in process.log()) - 1
        runs = self.assert_captions(received, film, turns)
        self.assertGreater(len(runs), 1, "captions of both times")
        self.assertGreater(sum(runs), 30)


    def test_with_another_rate_leaves_the_backup_on_the_air(self):
        film, port, receiver = stage.film(self.tools, "film", FILM_SECONDS), stage.free_port(), self.receiver()
        process = self.on_air("srt-to-udp", {"input": f"srt://127.0.0.1:{port}?mode=listener&latency=300",
                                             "port": receiver.port, **stage.SMALL, **stage.SIZE, "rate": "25/1"},
                              "--latency", 2000)
        process.wait_for("on the air: backup")
        self.sender(film, port)
        process.wait_for("input main: ", 2)  # each time that it was built again
        receiver.wait_for_seconds(2)
        self.assertEqual(stage.stop(process), 0, process.log())
        stream = self.assert_sound_stream(receiver.stop())
        self.assertGreater(len(stream.times[min(stream.times)]), 50)


class Hls(Stage):
    def test_has_segments_that_begin_with_key_pictures_and_a_playlist_that_ends(self):
        film, port = stage.film(self.tools, "film", FILM_SECONDS), stage.free_port()
        directory = self.tools.scratch / "hls"
        directory.mkdir()
        process = self.on_air("srt-to-hls", {"input": f"srt://127.0.0.1:{port}?mode=listener&latency=300",
                                             "directory": directory, "segment-seconds": 1, "video-rate": 900_000,
                                             "sound-rate": 128_000, **stage.SIZE},
                              "--return-after", 500, "--latency", 2000)
        self.sender(film, port)
        process.wait_for("input main: is there")
        self.wait_for_segments(directory / "playlist.m3u8", 5)
        self.assertEqual(stage.stop(process), 0, process.log())

        durations, names = self.assert_playlist(directory / "playlist.m3u8")
        self.assertGreaterEqual(len(names), 5)
        latest = None
        for duration, name in zip(durations, names):
            with self.subTest(segment=name):
                latest = self.assert_segment(directory / name, duration, latest)
        whole = self.tools.scratch / "whole.ts"
        whole.write_bytes(b"".join((directory / name).read_bytes() for name in names))
        turns = sum("on the air: main" in line for line in process.log())
        runs = self.assert_captions(whole, film, turns)
        self.assertGreater(sum(runs), 15)

    def wait_for_segments(self, playlist, count):
        deadline = time.monotonic() + stage.DEADLINE
        while not playlist.exists() or playlist.read_text(encoding="utf-8").count("#EXTINF") < count:
            self.assertLess(time.monotonic(), deadline, f"there are not {count} segments")
            time.sleep(0.1)

    def assert_playlist(self, path):
        lines = path.read_text(encoding="utf-8").split("\n")
        self.assertEqual(lines[0], "#EXTM3U")
        self.assertIn("#EXT-X-ENDLIST", lines)
        longest = next(int(line.split(":")[1]) for line in lines if line.startswith("#EXT-X-TARGETDURATION:"))
        durations = [float(line.split(":")[1].split(",")[0]) for line in lines if line.startswith("#EXTINF:")]
        for duration in durations:
            self.assertLessEqual(round(duration), longest)
        names = [line for line in lines if line and not line.startswith("#")]
        self.assertEqual(len(names), len(durations))
        return durations, [name.split("/")[-1] for name in names]

    def assert_segment(self, path, duration, latest):
        self.assertEqual(stage.decoding_errors(path), [])
        self.assertEqual(self.codecs(path), ["h264", "aac"])
        packets = json.loads(stage.run("ffprobe", "-v", "error", "-select_streams", "v", "-show_entries",
                                       "packet=pts,flags", "-of", "json", path))["packets"]
        self.assertTrue(packets[0]["flags"].startswith("K"))
        times = sorted(int(packet["pts"]) for packet in packets)
        self.assertAlmostEqual((times[-1] - times[0]) / 90000, duration, delta=0.3)
        if latest is not None:
            self.assertAlmostEqual(times[0] - latest, stage.PICTURE, delta=0.6 * stage.PICTURE)
        return times[-1]


class Switch(Stage):
    RED, BLUE = "red", "blue"

    def test_takes_the_backup_while_the_main_sender_is_away(self):
        main = stage.film(self.tools, "main", FILM_SECONDS, "color=c=red")
        backup = stage.film(self.tools, "backup", FILM_SECONDS * 2, "color=c=blue")
        ports, receiver = [stage.free_port(), stage.free_port()], self.receiver()
        uri = "srt://127.0.0.1:{}?mode=listener&latency=300"
        process = self.on_air("main-and-backup", {"main": uri.format(ports[0]), "backup": uri.format(ports[1]),
                                                  "port": receiver.port, **stage.SMALL, **stage.SIZE},
                              "--return-after", 500, "--latency", 2500)
        process.wait_for("on the air: main")
        sender = self.sender(main, ports[0])
        process.wait_for("input main: is there")
        self.sender(backup, ports[1])
        process.wait_for("input backup: is there")
        receiver.wait_for_seconds(3)
        sender.kill()
        process.wait_for("on the air: backup")
        times_main = sum("on the air: main" in line for line in process.log())
        receiver.wait_for_seconds(3)
        self.sender(main, ports[0])
        process.wait_for("on the air: main", times_main + 1)
        receiver.wait_for_seconds(3)
        self.assertEqual(stage.stop(process), 0, process.log())
        received = receiver.stop()

        self.assert_no_gap(self.assert_sound_stream(received, video="mpeg2video", audio="ac3"))
        seen = self.colours(received)
        self.assertEqual([seen[0], seen[-1]], [self.RED, self.RED])
        self.assertIn(self.BLUE, seen)
        self.assert_captions(received, main, len(seen) + 2, backup)
        self.assert_text(received, {"main": 2, "backup": 1})

    def colours(self, path):
        """What is seen, one after the other."""
        data = subprocess.run(["ffmpeg", "-v", "error", "-i", str(path), "-vf", "scale=1:1", "-f", "rawvideo",
                               "-pix_fmt", "rgb24", "-"],
                              capture_output=True, timeout=stage.DEADLINE * 5, check=True).stdout
        seen = []
        for at in range(0, len(data), 3):
            red, green, blue = data[at:at + 3]
            self.assertTrue(green < 100 and abs(red - blue) > 100, f"picture {at // 3} is {red, green, blue}")
            colour = self.RED if red > blue else self.BLUE
            if seen[-1:] != [colour]:
                seen.append(colour)
        return seen

    def assert_text(self, path, least):
        shown = stage.run(self.tools.gsve, "inspect", path)
        for name, count in least.items():
            self.assertGreaterEqual(len(set(re.findall(rf"\b{name} \d+", shown))), count, shown)


class Wrapper(Stage):
    SOURCE = ("videotestsrc is-live=true ! video/x-raw,width=64,height=64,framerate=30/1 ! gsveenc name=encoder "
              "codec=mpeg-2 bitrate=500000")

    def test_refuses_files_and_variables_that_do_not_fit(self):
        cases = {
            "": "no section [output]",
            "fakesrc ! fakesink": "begins without a section",
            "[output]\nfakesrc ! fakesink\n[other]": "unknown section [other]",
            "[backup]\nfakesrc\n[output]\nfakesrc ! fakesink": "no [main]",
            "[output]\nfakesrc ! fakesink name=${sink}": "'sink'",
            "[variables]\nsink =\n[output]\nfakesrc ! fakesink name=${sink}": "--set sink=VALUE",
            "[variables]\nsink\n[output]\nfakesrc ! fakesink": "not NAME = VALUE",
            "[output]\nno-such-element ! fakesink": "no-such-element",
            "[main]\nfakesrc\n[output]\nfakesrc ! fakesink": "input-selectors",
        }
        for text, complaint in cases.items():
            with self.subTest(text=text):
                process = self.on_air(self.pipeline(text), {})
                self.assertEqual(process.wait(), 2)
                self.assertIn(complaint, "\n".join(process.log()))

    def test_takes_any_value_as_a_value(self):
        out = self.tools.scratch / 'a "name" with ! filesink location=other \\ in it.bin'
        text = ("[variables]\nout =\n[output]\n"
                "fakesrc num-buffers=3 sizetype=fixed filltype=zero ! filesink location=${out}")
        process = self.on_air(self.pipeline(text), {"out": out})
        self.assertEqual(process.wait(), 0, process.log())
        self.assertEqual(out.stat().st_size, 3 * 4096)

        process = self.on_air(self.pipeline(text), {}, more={"ON_AIR_OUT": str(out) + "2"})
        self.assertEqual(process.wait(), 0, process.log())
        self.assertTrue(pathlib.Path(str(out) + "2").exists())

    def test_fails_where_the_output_fails(self):
        process = self.on_air(self.pipeline(f"[output]\n{self.SOURCE} ! filesink location=/nowhere/at-all"), {})
        self.assertEqual(process.wait(), 1)
        self.assertTrue(any("/nowhere/at-all" in line for line in process.log()), process.log())

    def test_warns_of_lost_captions(self):
        film = stage.film(self.tools, "film", 2)
        text = ("[variables]\ninput =\n[output]\nfilesrc location=${input} ! tsdemux ! h264parse ! avdec_h264 "
                "! gsveenc codec=mpeg-2 enable-cea-708=0 enable-eia-608=0 ! fakesink")
        process = self.on_air(self.pipeline(text), {"input": film})
        self.assertEqual(process.wait(), 0, process.log())
        process.wait_for("gsveenc-captions-lost")

    def test_ends_the_stream_when_it_is_stopped(self):
        out = self.tools.scratch / "out.mp4"
        process = self.on_air(self.pipeline(
            f"[output]\n{self.SOURCE.replace('mpeg-2', 'h.264')} ! h264parse ! mp4mux ! filesink location={out}"), {})
        process.wait_for("the first buffer has left")
        self.assertEqual(stage.stop(process), 0, process.log())
        self.assertEqual(stage.decoding_errors(out), [], "without its end, the file has no index")


class Supervision(Stage):
    def setUp(self):
        super().setUp()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.socket.close)
        self.socket.bind(str(self.tools.scratch / "notify"))
        self.socket.settimeout(stage.DEADLINE)
        self.more = {"NOTIFY_SOCKET": str(self.tools.scratch / "notify"), "WATCHDOG_USEC": "1000000"}

    def told(self, until):
        """All that is told up to the first that begins so."""
        heard = []
        while not heard or not heard[-1].startswith(until):
            heard.append(self.socket.recv(65536).decode())
        return heard

    def test_hears_ready_status_and_watchdog_while_buffers_leave(self):
        process = self.on_air(self.slate(), {}, more=self.more)
        self.assertEqual(self.told("READY=1"), ["READY=1"])
        self.assertRegex(self.told("STATUS=")[-1], "on the air: main; .*vbr=")
        for _ in range(4):
            self.told("WATCHDOG=1")
        self.assertEqual(stage.stop(process), 0, process.log())
        self.assertEqual(self.told("STOPPING=1")[-1], "STOPPING=1")

    def test_hears_no_watchdog_once_nothing_leaves(self):
        film, port = stage.film(self.tools, "film", FILM_SECONDS), stage.free_port()
        process = self.on_air(self.slate(f"srtsrc uri=srt://127.0.0.1:{port}?mode=listener ! decodebin name=d "
                                         "d. ! video/x-raw ! queue name=video d. ! audio/x-raw ! queue name=audio"),
                              {}, more=self.more)
        sender = self.sender(film, port)
        self.told("WATCHDOG=1")
        sender.kill()
        process.wait_for("nothing has come to")
        self.socket.setblocking(False)
        try:  # what was told before
            while self.socket.recv(65536):
                pass
        except BlockingIOError:
            pass
        self.socket.settimeout(2)  # twice as long as the watchdog waits
        with self.assertRaises(TimeoutError):
            self.told("WATCHDOG=1")

    def slate(self, main=None):
        main = main or ("videotestsrc is-live=true ! video/x-raw,framerate=30/1 ! queue name=video "
                        "audiotestsrc is-live=true ! queue name=audio")
        return self.pipeline(f"[main]\n{main}\n[output]\n"
                             "input-selector name=video ! gsveenc codec=mpeg-2 ! fakesink name=pictures sync=true\n"
                             "input-selector name=audio ! fakesink name=sound sync=true")

    def test_unit_is_valid_and_hardened(self):
        text = (stage.EXAMPLES / "on-air@.service").read_text(encoding="utf-8")
        text, replaced = re.subn(r"^ExecStart=\S+", f"ExecStart={stage.EXAMPLES / 'on-air'}", text, flags=re.M)
        self.assertEqual(replaced, 1)
        for line in ("Type=notify", "Restart=always", "DynamicUser=yes", "ProtectSystem=strict", "NoNewPrivileges=yes"):
            self.assertIn(line, text.splitlines())
        unit = self.tools.scratch / "on-air@city.service"
        unit.write_text(text, encoding="utf-8")
        checked = subprocess.run(["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", str(unit)],
                                 capture_output=True, text=True, timeout=stage.DEADLINE, check=False)
        self.assertEqual((checked.returncode, checked.stdout + checked.stderr), (0, ""))
        stage.run("systemd-analyze", "security", "--offline=yes", "--threshold=20", unit)  # of 100; 96 is a bare unit


def main():
    global TOOLS
    gsve, plugins, *tests = sys.argv[1:]
    missing = [program for program in PROGRAMS if not shutil.which(program)]
    if missing:
        sys.exit(f"on_air_test: {', '.join(missing)} not found; ./dev on-air and ./dev test install them")
    with tempfile.TemporaryDirectory() as scratch:
        TOOLS = stage.Tools(pathlib.Path(gsve).resolve(), pathlib.Path(plugins).resolve(), pathlib.Path(scratch))
        unittest.main(argv=[sys.argv[0], *tests], verbosity=2)


if __name__ == "__main__":
    main()
