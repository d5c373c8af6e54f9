#!/usr/bin/python3
"""gsve farm on a real cluster, as its user sees it.

farm_test.py GSVE [TEST...]
"""

import hashlib
import html.parser
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from cluster import Cluster, NODES

GSVE = None
CLUSTER = None
SCRATCH = None
DEADLINE = 300  # seconds; what is waited for takes up to thirty
INSIDE = "--inside"  # the namespaces
PROGRAMS = ("ffmpeg", "ffprobe", "unshare", "setpriv", "mount", "parallel", "jq")
EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples" / "farm"
# In the place of ssh: what a server does with a command is to give it to a shell.
SSH = """#!/bin/sh
until [ "$1" = -- ]; do shift; done
shift
exec sh -c "$*"
"""
# Blocks of ten: more chunks than that are several arrays.
ARRAY_SIZE = 11
JOB_COUNT = 200
ODD = "-it's \"one\" $(touch pwned) `touch pwned`;&|>pwned %j %% 50%a\n\tÄ 映画 *?[x] "
BACKSLASH = "back\\slash \\n %a"


def run(*command, **options):
    return subprocess.run([*map(str, command)], capture_output=True, text=True, timeout=DEADLINE,
                          stdin=subprocess.DEVNULL, check=False, **options)


def checked(*command, **options):
    """Standard output."""
    result = run(*command, **options)
    if result.returncode != 0:
        raise AssertionError(f"{command}: {result.returncode}: {result.stderr}")
    return result.stdout


def film(path, seconds=8, picture="testsrc2=s=320x180:r=25", sound=440):
    # A file: in front, since a name may look like a protocol or an option.
    checked("ffmpeg", "-v", "error", "-f", "lavfi", "-i", picture, "-f", "lavfi", "-i", f"sine=f={sound}:r=48000",
            "-t", seconds, "-c:v", "mpeg2video", "-q:v", 4, "-c:a", "mp2", "-y", f"file:{path}")
    return path


def pictures(path):
    """Hashes of the decoded pictures."""
    frames = checked("ffmpeg", "-v", "error", "-i", f"file:{path}", "-map", "0:v", "-f", "framemd5", "-")
    return [line.split(",")[-1].strip() for line in frames.splitlines() if not line.startswith("#")]


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


class Page(html.parser.HTMLParser):
    """What a page says, and which elements it has."""

    def __init__(self, text):
        super().__init__()
        self.elements, self.text = [], ""
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        self.elements.append(tag)

    def handle_data(self, data):
        self.text += data


class Farm(unittest.TestCase):
    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(dir=SCRATCH))
        self.addCleanup(self.end_all)

    def end_all(self):
        CLUSTER.run("scancel", f"--user={os.geteuid()}")
        self.wait_until(lambda: not CLUSTER.run("squeue", "--noheader").strip(), "the queue to be empty")

    def wait_until(self, happened, what):
        deadline = time.monotonic() + DEADLINE
        while True:
            result = happened()
            if result:
                return result
            self.assertLess(time.monotonic(), deadline, f"waited for {what}")
            time.sleep(0.2)

    # The program

    def gsve(self, *arguments, status=0):
        result = run(GSVE, *arguments, env=CLUSTER.environment(), cwd=self.directory)
        self.assertEqual(result.returncode, status, f"{arguments}: {result.stderr}{result.stdout}")
        return result.stdout if status == 0 else result.stderr

    def plan(self, source, name="film", chunks="2s", *options):
        """A plan beside its source. Each chunk takes one processor, as a node has."""
        plan = source.parent / f"{name}.plan.json"
        self.gsve("plan", "--chunks", chunks, "--set", "bitrate=400000", "--set", "maximum threads=1", *options, "-y",
                  "-o", plan, source, source.parent / f"{name}.mp4")
        return plan

    def status(self, *plans):
        result = run(GSVE, "farm", "status", "--json", *plans, env=CLUSTER.environment())
        works = json.loads(result.stdout)["works"]
        self.assertEqual(result.returncode, 1 if any(work["failed"] for work in works) else 0, result.stderr)
        return works

    def states(self, plan):
        return {task["name"]: task["state"] for task in self.status(plan)[0]["tasks"]}

    def wait_for_end(self, *plans):
        """For nothing to be running or waiting."""
        def works():
            now = self.status(*plans)
            return all(task["state"] in ("done", "failed", "blocked") for work in now for task in work["tasks"]) and now
        return self.wait_until(works, "the end")

    def assert_done(self, *plans):
        works = self.wait_for_end(*plans)
        for work in works:
            self.assertEqual([task for task in work["tasks"] if task["state"] != "done"], [])
        return works

    def failures(self, work):
        return {task["name"]: task["why"] for task in work["tasks"] if task["state"] == "failed"}

    def joined_by_hand(self, plan, output):
        """The same plan without a cluster."""
        other = self.directory / "by-hand"
        count = len(json.loads(plan.read_text(encoding="utf-8"))["chunks"])
        for task in [*range(count), "sound"]:
            self.gsve("chunk", "--directory", other, "-q", plan, task)
        self.gsve("join", "--directory", other, "-q", plan, output)
        return output

    def data_of(self, plan, chunk):
        return next(path for path in plan.with_suffix("").glob(f"chunk-{chunk:05d}.*") if path.suffix != ".json")


class WholeFilm(Farm):
    def test_is_what_the_plan_gives_without_a_cluster(self):
        source = film(self.directory / "source.ts")
        plan = self.plan(source)
        self.assertIn("tasks submitted", self.gsve("farm", "submit", plan))
        work = self.assert_done(plan)[0]
        self.assertEqual([task["name"] for task in work["tasks"]],
                         [*[f"chunk {n}" for n in range(4)], "sound", "join"])
        output = self.directory / "film.mp4"
        self.assertEqual(len(pictures(output)), 200)
        self.assertEqual(digest(output), digest(self.joined_by_hand(plan, self.directory / "other.mp4")))
        for task in work["tasks"]:
            self.assertRegex(pathlib.Path(task["log"]).read_text(encoding="utf-8"), r"\Agsve farm: begins \d+ on node")

        self.assertIn("nothing to submit", self.gsve("farm", "submit", plan))
        self.assertIn("nothing to submit", self.gsve("farm", "retry", self.directory))

    def test_of_more_chunks_than_an_array_may_have_is_several_arrays(self):
        plan = self.plan(film(self.directory / "source.ts"), "film", "0.4s", "--set", "gop size=12")
        self.gsve("farm", "submit", plan)
        work = self.assert_done(plan)[0]
        arrays = {task["job"].split("_")[0] for task in work["tasks"] if task["name"].startswith("chunk")}
        self.assertGreater(len(work["tasks"]), ARRAY_SIZE + 2)
        self.assertEqual(len(arrays), 2)
        logs = sorted(path.name for path in plan.with_suffix("").glob("log-000*.txt"))
        self.assertEqual(logs, [f"log-{n:05d}.txt" for n in range(len(work["tasks"]) - 2)])
        self.assertEqual(len(pictures(self.directory / "film.mp4")), 200)

    def test_passes_under_any_name(self):
        for name in (ODD, BACKSLASH):
            with self.subTest(name=name):
                directory = self.directory / name
                directory.mkdir()
                source = film(directory / f"{name}.ts")
                plan = self.plan(source, name)
                self.gsve("farm", "submit", plan)
                works = self.assert_done(directory)
                self.assertEqual([work["name"] for work in works], [str(plan)])
                self.assertEqual(len(pictures(directory / f"{name}.mp4")), 200)
                logs = [task["log"] for task in works[0]["tasks"]]
                self.assertTrue(all(os.path.getsize(log) > 0 for log in logs), logs)

                page = self.directory / "page.html"
                text = self.gsve("farm", "status", "--html", page, "-y", directory)
                self.assertEqual(len(text.splitlines()), 2, "a name's newlines are none of the table's")
                self.assertNotIn("\t", text)
                self.assertIn("touch pwned" if name == ODD else "back\\slash", Page(page.read_text("utf-8")).text)
        self.assertEqual([path for path in self.directory.rglob("*") if path.name == "pwned"], [])

    def test_of_a_name_that_begins_with_a_dash_needs_no_path(self):
        film(self.directory / "-source.ts")
        self.gsve("plan", "--chunks", "4s", "--set", "maximum threads=1", "-o", "./-film.plan.json", "--",
                  "./-source.ts", "./-film.mp4")
        self.gsve("farm", "submit", "--", "-film.plan.json")
        self.assert_done(self.directory / "-film.plan.json")
        self.assertEqual(len(pictures(self.directory / "-film.mp4")), 200)


class TwoPlans(Farm):
    def test_at_once_give_each_its_film(self):
        plans, sources = [], {}
        for name, picture in (("one", "testsrc2=s=320x180:r=25"), ("two", "testsrc=s=320x180:r=25")):
            directory = self.directory / name
            directory.mkdir()
            sources[name] = film(directory / "source.ts", picture=picture)
            plans.append(self.plan(sources[name], name))
        self.gsve("farm", "submit", *plans)
        self.assertEqual([work["name"] for work in self.assert_done(*plans)], [str(plan) for plan in plans])
        for plan in plans:
            name = plan.parent.name
            other = self.directory / f"{name}.mp4"
            self.gsve("encode", "-q", "--set", "bitrate=400000", sources[name], other)
            self.assertEqual(len(pictures(plan.parent / f"{name}.mp4")), len(pictures(other)))
            self.assertGreater(self.likeness(plan.parent / f"{name}.mp4", sources[name]), 25)

    def likeness(self, output, source):
        """PSNR in dB."""
        log = run("ffmpeg", "-hide_banner", "-nostats", "-i", output, "-i", source, "-lavfi",
                  "[0:v]setpts=N/TB/25[a];[1:v]setpts=N/TB/25[b];[a][b]psnr", "-f", "null", "-").stderr
        return float(log.split("average:")[1].split()[0])


class LostNode(Farm):
    def test_has_its_chunk_done_by_another_one(self):
        source = film(self.directory / "source.ts", 4, "testsrc2=s=640x360:r=25")
        plan = self.plan(source, "film", "10s", "--set", "h.264 preset=veryslow")
        self.gsve("farm", "submit", plan)
        part = self.wait_until(lambda: self.stopped_chunk(plan), "the chunk to be under way")
        task = next(task for task in self.status(plan)[0]["tasks"] if task["name"] == "chunk 0")
        self.assertEqual(task["state"], "running")
        self.assertIn(task["node"], NODES)
        CLUSTER.kill(task["node"])
        try:
            self.assertTrue(part.exists())
            self.assert_done(plan)
        finally:
            CLUSTER.start_node(task["node"])
            self.wait_until(lambda: CLUSTER.states() == ["idle"] * len(NODES), "the node to come back")
        log = pathlib.Path(task["log"]).read_text(encoding="utf-8")
        nodes = [line.split()[-1] for line in log.splitlines() if line.startswith("gsve farm: begins")]
        self.assertEqual(nodes[0], task["node"])
        self.assertGreater(len(nodes), 1)
        self.assertEqual(len(pictures(self.directory / "film.mp4")), 100)

    def stopped_chunk(self, plan):
        """What a chunk has written, once it has written anything, with the program stopped in the middle."""
        parts = [path for path in plan.with_suffix("").glob(".chunk-00000*.part")]
        if not parts:
            return None
        for entry in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                command = (entry / "cmdline").read_bytes().split(b"\0")
            except OSError:
                continue
            if command[:-1] == [os.fsencode(GSVE), b"chunk", os.fsencode(plan), b"0"]:
                os.kill(int(entry.name), signal.SIGSTOP)
        return parts[0] if parts[0].exists() else None


class FailedChunk(Farm):
    def test_is_told_with_its_last_line_each_time_and_done_once_it_can_be(self):
        plan = self.plan(film(self.directory / "source.ts"))
        work = plan.with_suffix("")
        # A directory in its place is what the chunk's data cannot replace.
        data = work / "chunk-00001.h264"
        (data / "in-its-place").mkdir(parents=True)
        self.gsve("farm", "submit", plan)
        for attempt in range(2):
            failed = self.wait_for_end(plan)[0]
            self.assertEqual(list(self.failures(failed)), ["chunk 1"])
            self.assertRegex(self.failures(failed)["chunk 1"], "gsve: .*chunk-00001")
            self.assertEqual(self.states(plan)["join"], "blocked")
            self.assertFalse((self.directory / "film.mp4").exists())
            log = (work / "log-00001.txt").read_text(encoding="utf-8")
            self.assertEqual(log.count("gsve farm: begins"), attempt + 1)
            text = run(GSVE, "farm", "status", plan, env=CLUSTER.environment()).stdout
            self.assertIn("chunk 1: gsve: ", text)
            self.assertRegex(text, r" 4 of 6 +66 % +0 +1 +1")
            page = self.directory / "page.html"
            run(GSVE, "farm", "status", "-y", "--html", page, plan, env=CLUSTER.environment())
            self.assertIn("1 of 6 tasks failed", Page(page.read_text(encoding="utf-8")).text)
            if attempt == 1:
                shutil.rmtree(data)
            self.assertIn(": 2 tasks submitted", self.gsve("farm", "retry", plan))
        self.assert_done(plan)
        self.assertEqual(len(pictures(self.directory / "film.mp4")), 200)


class FullDisk(Farm):
    def test_fails_with_what_is_missing_and_goes_on_once_there_is_room(self):
        disk = SCRATCH / "disk"
        plan = self.plan(film(disk / "source.ts"), "film", "2s", "--set", "bitrate=2000000")
        self.fill(disk / "ballast", disk)
        self.gsve("farm", "submit", plan)
        failures = self.failures(self.wait_for_end(plan)[0])
        self.assertEqual(sorted(failures), ["chunk 0", "chunk 1", "chunk 2", "chunk 3", "sound"])
        for why in failures.values():
            self.assertIn("No space left on device", why)
        self.assertEqual([path for path in plan.with_suffix("").iterdir() if path.name.startswith("chunk")], [])
        (disk / "ballast").unlink()
        self.gsve("farm", "retry", plan)
        self.assert_done(plan)
        self.assertEqual(len(pictures(disk / "film.mp4")), 200)

    def fill(self, path, disk):
        """But for what logs and records take."""
        left = os.statvfs(disk)
        with open(path, "wb") as file:
            file.write(bytes(left.f_bavail * left.f_frsize - (64 << 10)))


class ChangedSource(Farm):
    def test_is_refused_by_each_chunk_until_it_is_planned_again(self):
        source = film(self.directory / "source.ts")
        plan = self.plan(source)
        film(source, 8, "testsrc=s=320x180:r=25")
        self.gsve("farm", "submit", plan)
        failures = self.failures(self.wait_for_end(plan)[0])
        self.assertEqual(sorted(failures), ["chunk 0", "chunk 1", "chunk 2", "chunk 3", "sound"])
        for why in failures.values():
            self.assertRegex(why, "gsve: .*source.ts")
        self.assertFalse((self.directory / "film.mp4").exists())
        plan = self.plan(source)
        self.gsve("farm", "submit", plan)
        self.assert_done(plan)
        self.assertEqual(digest(self.directory / "film.mp4"),
                         digest(self.joined_by_hand(plan, self.directory / "other.mp4")))

    def test_after_the_film_was_made_leaves_nothing_of_the_old_one(self):
        source = film(self.directory / "source.ts")
        plan = self.plan(source)
        self.gsve("farm", "submit", plan)
        self.assert_done(plan)
        film(source, 8, "testsrc=s=320x180:r=25")
        plan = self.plan(source)
        self.assertIn("exists", self.gsve("farm", "submit", plan, status=2))
        self.assertIn(": 6 tasks submitted", self.gsve("farm", "submit", "-y", plan))
        self.assert_done(plan)
        self.assertEqual(digest(self.directory / "film.mp4"),
                         digest(self.joined_by_hand(plan, self.directory / "other.mp4")))


class TamperedChunk(Farm):
    def test_is_found_by_the_joining_and_done_again_by_retry(self):
        plan = self.plan(film(self.directory / "source.ts"))
        self.set_nodes("drain")
        self.gsve("farm", "submit", plan)
        join = next(task["job"] for task in self.status(plan)[0]["tasks"] if task["name"] == "join")
        CLUSTER.run("scontrol", "hold", join)
        self.set_nodes("resume")
        self.wait_until(lambda: list(self.states(plan).values()) == ["done"] * 5 + ["waiting"], "all but the joining")
        data = self.data_of(plan, 2)
        whole = data.read_bytes()
        middle = len(whole) // 2
        data.write_bytes(whole[:middle] + bytes([whole[middle] ^ 1]) + whole[middle + 1:])
        CLUSTER.run("scontrol", "release", join)
        failures = self.failures(self.wait_for_end(plan)[0])
        self.assertEqual(list(failures), ["join"])
        self.assertIn("gsve: chunk 2 has other data than it was left with", failures["join"])
        self.assertFalse((self.directory / "film.mp4").exists())
        self.assertIn(": 2 tasks submitted", self.gsve("farm", "retry", plan))
        self.assert_done(plan)
        self.assertEqual(data.read_bytes(), whole)
        self.assertEqual(len(pictures(self.directory / "film.mp4")), 200)

    def set_nodes(self, state):
        CLUSTER.run("scontrol", "update", f"NodeName={','.join(NODES)}", f"State={state}", "Reason=test")


class Orders(Farm):
    """What is not the user's own is data."""

    def test_of_a_plan_to_write_elsewhere_need_the_users_word(self):
        source = film(self.directory / "source.ts")
        (self.directory / "plans").mkdir()
        plan = self.directory / "plans" / "film.plan.json"
        output = self.directory / "film.mp4"
        self.gsve("plan", "--chunks", "4s", "--set", "maximum threads=1", "-o", plan, source, output)
        self.assertIn("--output", self.gsve("farm", "submit", plan, status=2))
        self.assertEqual(CLUSTER.run("squeue", "--noheader"), "")
        self.gsve("farm", "submit", "--output", output, plan)
        self.assert_done(plan)
        self.assertEqual(len(pictures(output)), 200)

    def test_of_a_forged_record_are_none(self):
        plan = self.plan(film(self.directory / "source.ts"))
        work = plan.with_suffix("")
        work.mkdir()
        job = {"id": "1", "task": "join", "first": 0, "tasks": []}
        for forged in ({"id": "--user=root"}, {"id": ""}, {"task": "touch"}, {"task": "", "first": 3, "tasks": [1]}):
            with self.subTest(forged=forged):
                record = {"work": "", "jobs": [job | forged]}
                (work / "submission.json").write_text(json.dumps(record), encoding="utf-8")
                for command in ("submit", "status", "retry"):
                    self.assertIn("record of the submission", self.gsve("farm", command, plan, status=1))
        self.assertEqual(CLUSTER.run("squeue", "--noheader"), "")

    def test_are_refused_where_there_is_no_plan(self):
        self.gsve("farm", "submit", self.directory / "none.json", status=1)
        (self.directory / "film.json").write_text("{}", encoding="utf-8")
        self.assertIn("film.json", self.gsve("farm", "submit", self.directory / "film.json", status=2))
        self.assertIn("nothing there was submitted", self.gsve("farm", "status", self.directory, status=2))
        plan = self.plan(film(self.directory / "source.ts"))
        self.assertIn("not submitted", self.gsve("farm", "status", plan, status=2))


class Files(Farm):
    SMALL = ("--set", "bitrate=400000", "--set", "maximum threads=1")

    def test_are_a_task_each_and_chunks_where_they_are_long(self):
        inputs, outputs = self.directory / "in", self.directory / f"out{ODD}"
        inputs.mkdir()
        lengths = {f"{ODD}1": 1, "-2": 2, "long": 8}
        for name, seconds in lengths.items():
            film(inputs / f"{name}.mpg", seconds)
        broken = inputs / "broken.mpg"
        broken.write_text("no film", encoding="ascii")
        files = sorted(str(path) for path in inputs.iterdir())
        names = self.directory / "names"
        names.write_bytes(b"\0".join(os.fsencode(file) for file in files[1:]))
        self.gsve("farm", "submit", "--output-directory", outputs, "--files-from", names, "--format", "mp4",
                  "--longest", "5s", "--chunks", "2s", *self.SMALL, files[0])
        works = {pathlib.Path(work["name"]).name: work for work in self.wait_for_end(outputs)}
        self.assertEqual(sorted(works), ["files-1.json", "long.plan.json"])
        failures = self.failures(works["files-1.json"])
        self.assertEqual(list(failures), ["broken.mp4"])
        self.assertRegex(failures["broken.mp4"], r"gsve: .*broken\.mpg")
        self.assertEqual(len(works["files-1.json"]["tasks"]), 3)
        self.assertEqual(len(works["long.plan.json"]["tasks"]), 6)
        for name, seconds in lengths.items():
            self.assertEqual(len(pictures(outputs / f"{name}.mp4")), 25 * seconds)

        film(broken, 1)
        self.gsve("farm", "retry", outputs)
        self.assert_done(outputs)
        self.assertEqual(len(pictures(outputs / "broken.mp4")), 25)
        self.assertEqual([path for path in self.directory.rglob("*") if path.name == "pwned"], [])

    def test_of_a_number_near_the_clusters_limit_are_several_to_a_task(self):
        first, inputs = film(self.directory / "first.mpg", 1, "testsrc2=s=64x64:r=25"), self.directory / "in"
        inputs.mkdir()
        for number in range(JOB_COUNT + 1):
            os.link(first, inputs / f"{number:03d}.mpg")
        names = "".join(f"{path}\n" for path in sorted(inputs.iterdir()))
        (self.directory / "names").write_text(names, encoding="ascii")
        outputs = self.directory / "out"
        self.gsve("farm", "submit", "--output-directory", outputs, "--files-from", self.directory / "names",
                  "--sbatch=--hold", *self.SMALL)
        self.assertEqual(len(CLUSTER.run("squeue", "--noheader", "--array").splitlines()), 67)
        tasks = self.status(outputs)[0]["tasks"]
        self.assertEqual([task["name"] for task in tasks[:2]], ["000.ts to 002.ts", "003.ts to 005.ts"])
        (inputs / "004.mpg").unlink()
        self.assertIn("004.mpg", self.gsve("farm", "encode", outputs / "files-1.json", 1, status=1))
        self.assertEqual(sorted(path.name for path in outputs.glob("*.ts")), ["003.ts", "005.ts"])
        before = (outputs / "003.ts").stat().st_mtime_ns
        os.link(first, inputs / "004.mpg")
        self.gsve("farm", "encode", outputs / "files-1.json", 1)
        self.assertEqual(len(pictures(outputs / "004.ts")), 25)
        self.assertEqual((outputs / "003.ts").stat().st_mtime_ns, before, "it is encoded once")
        states = [task["state"] for task in self.status(outputs)[0]["tasks"]]
        self.assertEqual(states[:3], ["waiting", "done", "waiting"])

    def test_that_would_replace_each_other_or_are_there_are_refused(self):
        for name in ("a", "b"):
            (self.directory / name).mkdir()
            film(self.directory / name / "film.mpg", 1)
        a, b = self.directory / "a" / "film.mpg", self.directory / "b" / "film.mpg"
        outputs = self.directory / "out"
        self.assertIn("both become film.ts", self.gsve("farm", "submit", "--output-directory", outputs, a, b, status=2))
        outputs.mkdir()
        (outputs / "film.ts").write_text("mine", encoding="ascii")
        self.assertIn("exists", self.gsve("farm", "submit", "--output-directory", outputs, a, status=2))
        self.gsve("farm", "submit", "--codec", "h.264", self.directory / "a", status=2)
        self.gsve("farm", "submit", status=2)
        self.assertEqual((outputs / "film.ts").read_text(encoding="ascii"), "mine")
        self.assertEqual(CLUSTER.run("squeue", "--noheader"), "")


class WithoutSlurm(Farm):
    def test_parallel_does_what_is_left_of_a_plan_of_any_name(self):
        ssh = self.directory / "ssh"
        ssh.write_text(SSH, encoding="ascii")
        ssh.chmod(0o755)
        directory = self.directory / ODD
        directory.mkdir()
        plan = self.plan(film(directory / "source.ts"), ODD)
        obstacle = plan.with_suffix("") / "chunk-00001.h264"
        (obstacle / "in-its-place").mkdir(parents=True)
        environment = os.environ | {"PARALLEL_SSH": str(ssh), "HOME": str(self.directory),
                                    "PATH": f"{pathlib.Path(GSVE).parent}:{os.environ['PATH']}"}
        environment.pop("SHELL", None)  # as services and containers run
        command = [EXAMPLES / "parallel.sh", plan, "host1,host2"]
        failed = run(*command, env=environment, cwd=self.directory)
        self.assertNotEqual(failed.returncode, 0)
        self.assertIn("chunk-00001", failed.stderr)
        shutil.rmtree(obstacle)
        before = self.data_of(plan, 0).stat().st_mtime_ns
        checked(*command, env=environment, cwd=self.directory)
        self.assertEqual(self.data_of(plan, 0).stat().st_mtime_ns, before, "it is encoded once")
        self.assertEqual(len(pictures(directory / f"{ODD}.mp4")), 200)
        self.assertEqual([path for path in self.directory.rglob("*") if path.name == "pwned"], [])


class Sizing(Farm):
    def test_gives_processors_and_memory_as_the_plan_takes_them(self):
        plan = self.plan(film(self.directory / "source.ts"))
        self.gsve("farm", "submit", "--at-once", 1, "--sbatch=--begin=now+1hour", plan)
        jobs = {}
        for line in CLUSTER.run("squeue", "--noheader", "--format=%F|%C|%m|%E|%i").splitlines():
            number, *rest = line.split("|")
            jobs[number] = rest
        chunks, sound, join = [jobs[number] for number in sorted(jobs, key=int)]
        self.assertEqual([jobs[0] for jobs in (chunks, sound, join)], ["1", "1", "1"])
        self.assertRegex(chunks[1], r"^2\d\dM$")
        self.assertTrue(chunks[3].endswith("_[0-3%1]"), chunks)
        self.assertEqual(join[2].count("afterok:"), 2, join)

    def test_by_the_user_comes_first(self):
        plan = self.plan(film(self.directory / "source.ts"))
        self.gsve("farm", "submit", "--memory", 77, "--sbatch=--begin=now+1hour", plan)
        self.assertEqual(set(CLUSTER.run("squeue", "--noheader", "--format=%m").split()), {"77M"})

    def test_that_no_node_has_is_refused_in_slurms_words(self):
        plan = self.plan(film(self.directory / "source.ts"))
        self.assertRegex(self.gsve("farm", "submit", "--memory", 10_000_000, plan, status=1), "gsve: sbatch: ")


def setUpModule():
    CLUSTER.up()


def tearDownModule():
    CLUSTER.down()


def in_namespaces(disk, command):
    """The command with a small disk of its own, and processes that end with it."""
    mount = ["sh", "-c", 'mount -t tmpfs -o size=8m tmpfs "$1" && shift && exec "$@"', "sh", str(disk)]
    root, user = [], []
    if os.geteuid() != 0:  # who may mount only as what is root in there, which Slurm is not to be
        root = ["--user", "--map-root-user"]
        user = ["--user", f"--map-user={os.getuid()}", f"--map-group={os.getgid()}"]
    return ["setpriv", "--pdeathsig", "KILL", "unshare", *root, "--mount", *mount, "unshare", *user, "--mount", "--pid",
            "--fork", "--kill-child", "--mount-proc", *command]


def main():
    missing = [program for program in PROGRAMS if not shutil.which(program)]
    if missing:
        sys.exit(f"farm_test: {', '.join(missing)} not found; ./dev farm test installs them")
    with tempfile.TemporaryDirectory(prefix="gsve-farm-") as scratch:
        disk = pathlib.Path(scratch) / "disk"
        disk.mkdir()
        command = [sys.executable, __file__, INSIDE, scratch, *sys.argv[1:]]
        sys.exit(subprocess.call(in_namespaces(disk, command)))


def main_inside(scratch, gsve, *tests):
    global GSVE, CLUSTER, SCRATCH
    GSVE = str(pathlib.Path(gsve).resolve())
    SCRATCH = pathlib.Path(scratch)
    CLUSTER = Cluster(SCRATCH / "cluster", ARRAY_SIZE, JOB_COUNT)
    CLUSTER.directory.mkdir()
    unittest.main(argv=[sys.argv[0], *tests], verbosity=2)


if __name__ == "__main__":
    if sys.argv[1:2] == [INSIDE]:
        main_inside(*sys.argv[2:])
    else:
        main()
