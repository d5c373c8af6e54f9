#!/usr/bin/env python3
"""Every report as JSON keeps to its schema: those made here, and those that the tests of the command line made before.

schema_test.py GSVE CLIP SCHEMAS REPORTS: SCHEMAS is the folder of the schemas, REPORTS that of the other tests' reports.
"""

import copy
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

import jsonschema

GSVE, CLIP, SCHEMAS, REPORTS = sys.argv[1:5]
CAPTIONS = "1\n00:00:00,500 --> 00:00:02,000\nOne\n\n2\n00:00:08,000 --> 00:00:09,000\nAfter the end\n"


def schema(kind):
    return json.loads((pathlib.Path(SCHEMAS) / f"{kind}-report.schema.json").read_text(encoding="utf-8"))


def validator(kind):
    found = schema(kind)
    jsonschema.Draft201909Validator.check_schema(found)
    return jsonschema.Draft201909Validator(found)


def kind_of(report):
    return "encode" if "encoder" in report else "inspect" if "gops" in report else None


class Reports(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.directory = pathlib.Path(cls.scratch.name)
        (cls.directory / "in.srt").write_text(CAPTIONS, encoding="utf-8")
        cls.source = cls.directory / "source.ts"
        subprocess.run(["ffmpeg", "-nostdin", "-v", "error", "-i", CLIP, "-f", "lavfi", "-i", "sine=d=4", "-map", "0:v",
                        "-map", "1:a", "-t", "4", "-c:v", "copy", "-c:a", "mp2", str(cls.source)], check=True)
        cls.validators = {kind: validator(kind) for kind in ("encode", "inspect")}

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    def gsve(self, *arguments, status=0):
        done = subprocess.run([GSVE, *map(str, arguments)], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, status, done.stderr)
        return json.loads(done.stdout)

    def encode(self, output, *arguments, status=0, source=None):
        return self.gsve("encode", source or self.source, self.directory / output, "-y", "--report", "json", *arguments,
                         status=status)

    def check(self, kind, report):
        errors = [f"{error.json_path}: {error.message}" for error in self.validators[kind].iter_errors(report)]
        self.assertEqual(errors, [])

    def test_of_encodings_keep_to_the_schema(self):
        damaged = self.directory / "damaged.ts"
        data = bytearray(self.source.read_bytes())
        data[len(data) // 2:len(data) // 2 + 5000] = bytes(5000)
        damaged.write_bytes(data[:-100])
        reports = {
            "plain": self.encode("plain.ts"),
            "captions": self.encode("captions.ts", "--captions", self.directory / "in.srt"),
            "input's captions": self.encode("again.ts", source=self.directory / "captions.ts"),
            "quality": self.encode("quality.m2v", "--quality", "--timecode", "10:00:00:00"),
            "loudness": self.encode("loud.mp4", "--loudness", "-23"),
            "damage": self.encode("damage.ts", source=damaged),
        }
        for name, report in reports.items():
            with self.subTest(name):
                self.check("encode", report)
        # Each part of the schema that may be null or empty was met full.
        self.assertGreater(len(reports["captions"]["captions"]["lost"]), 0)
        self.assertGreater(reports["quality"]["quality"]["psnr"]["mean"], 20)
        self.assertEqual(reports["quality"]["quality"]["pictures"], reports["quality"]["pictures"]["out"])
        self.assertIsNotNone(reports["loudness"]["streams"][0]["loudness_out"]["integrated"])
        self.assertGreater(len(reports["damage"]["damage"]["ranges"]), 0)

    def test_of_inspections_keep_to_the_schema(self):
        self.encode("inspected.m2v", "--captions", self.directory / "in.srt", "--timecode", "10:00:00:00")
        self.encode("inspected.mp4", "--set", "enable h.264 nal hrd=1")
        for name in ("inspected.m2v", "inspected.mp4"):
            for arguments in ([], ["--buffer"], ["--pictures"], ["--buffer", "--pictures"]):
                with self.subTest(name, arguments=arguments):
                    self.check("inspect", self.gsve("inspect", self.directory / name, "--json", *arguments))

    def test_with_anything_else_in_them_do_not(self):
        report = self.encode("else.ts")
        changes = [("a new key", lambda r: r.update(new=1)), ("a key less", lambda r: r.pop("bytes")),
                   ("another kind", lambda r: r.update(bytes="many")),
                   ("a new key within", lambda r: r["captions"].update(new=1)),
                   ("a negative count", lambda r: r["pictures"].update(out=-1))]
        for name, change in changes:
            changed = copy.deepcopy(report)
            change(changed)
            with self.subTest(name):
                self.assertFalse(self.validators["encode"].is_valid(changed))

    def test_that_other_tests_made_keep_to_the_schema(self):
        for path in sorted(pathlib.Path(REPORTS).glob("*.json")):
            report = json.loads(path.read_text(encoding="utf-8"))
            if kind := kind_of(report):
                with self.subTest(path.name):
                    self.check(kind, report)
            path.unlink()


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
