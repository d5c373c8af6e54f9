"""What the tests of examples/on-air/ and ./dev on-air share: films with numbered captions, programs and their logs, and
a receiver that records."""

import collections
import os
import pathlib
import signal
import socket
import subprocess
import threading
import time

from transport_stream import TransportStream

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples" / "on-air"
DEADLINE = 60  # seconds; what is waited for takes a few
WIDTH, HEIGHT = 320, 180
RATE = "30000/1001"
MUX_RATE = 1_500_000
PICTURE = 3003  # ticks of 90 kHz
SMALL = {"video-rate": 900_000, "sound-rate": 128_000, "mux-rate": MUX_RATE}
SIZE = {"width": WIDTH, "height": HEIGHT, "rate": RATE}

Tools = collections.namedtuple("Tools", "gsve plugins scratch")


def run(*command, **options):
    """A program's standard output."""
    result = subprocess.run([*map(str, command)], capture_output=True, text=True, timeout=DEADLINE * 5, check=False,
                            **options)
    if result.returncode != 0:
        raise AssertionError(f"{command}: {result.stderr}")
    return result.stdout


def free_port():
    """Free for UDP, on which SRT stands, too."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


# Films


def _with_parity(character):
    value = ord(character)
    return value if value.bit_count() % 2 else value | 0x80


def _words(text):
    text += " " * (len(text) % 2)
    return " ".join(f"{_with_parity(a):02x}{_with_parity(b):02x}" for a, b in zip(text[::2], text[1::2]))


def numbered_captions(name, seconds):
    """SCC: a row that rolls up each second, with a number of its own."""
    lines = ["Scenarist_SCC V1.0\n"]
    for second in range(seconds):
        time_code = f"{second // 3600:02d}:{second // 60 % 60:02d}:{second % 60:02d}:05"
        lines.append(f"{time_code}\t9425 9425 94ad 94ad 9470 9470 {_words(f'{name} {second:06d}')}\n")
    return "\n".join(lines)


def film(tools, name, seconds, picture="testsrc2", codec="h.264"):
    """A film with numbered captions and sound."""
    path, captions = tools.scratch / f"{name}.ts", tools.scratch / f"{name}.captions.scc"
    plain = tools.scratch / f"{name}.plain.ts"
    captions.write_text(numbered_captions(name, seconds), encoding="ascii")
    source = f"{picture}{':' if '=' in picture else '='}s={WIDTH}x{HEIGHT}:r={RATE}"
    run("ffmpeg", "-v", "error", "-f", "lavfi", "-i", source, "-f", "lavfi", "-i", "sine=f=440:r=48000",
        "-t", seconds, "-c:v", "mpeg2video", "-q:v", 4, "-c:a", "mp2", plain)
    run(tools.gsve, "encode", plain, path, "--codec", codec, "--captions", captions, "--set", "bitrate=800000",
        "--quiet")
    plain.unlink()
    return path


def caption_pairs(tools, stream):
    """The byte pairs of CC1 as a receiver reads them, in order."""
    found = tools.scratch / "found.scc"
    run(tools.gsve, "inspect", stream, "--scc", found, "-y")
    if not found.exists():
        return []
    return [pair for line in found.read_text(encoding="ascii").splitlines()[1:] for pair in line.split()[1:]]


def caption_runs(found, sent):
    """Splits what was received into pieces that stand in what was sent as they are; None: something else came, too."""
    runs, at = [], 0
    while at < len(found):
        longest = 0
        for begin in range(len(sent)):
            length = 0
            while (at + length < len(found) and begin + length < len(sent) and
                   found[at + length] == sent[begin + length]):
                length += 1
            longest = max(longest, length)
        if longest == 0:
            return None
        runs.append(longest)
        at += longest
    return runs


# Processes


class Process:
    """A program whose log is read as it comes."""

    def __init__(self, command, environment):
        self.lines, self._news = [], threading.Condition()
        self._process = subprocess.Popen([*map(str, command)], env=environment, text=True, stdin=subprocess.DEVNULL,
                                         stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        self.pid = self._process.pid
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self._process.stderr:
            with self._news:
                self.lines.append(line.rstrip("\n"))
                self._news.notify_all()
        with self._news:
            self.lines.append(None)
            self._news.notify_all()

    def log(self):
        return [line for line in self.lines if line is not None]

    def wait_for(self, text, times=1):
        """For the log to have said something so often."""
        def said():
            return sum(line is not None and text in line for line in self.lines) >= times or self.lines[-1:] == [None]
        with self._news:
            self._news.wait_for(said, DEADLINE)
            if sum(text in line for line in self.log()) < times:
                raise AssertionError(f"'{text}' did not come {times} times: {self.log()}")

    def signal(self, number):
        self._process.send_signal(number)

    def kill(self):
        self._process.kill()
        self.wait()

    def wait(self):
        status = self._process.wait(DEADLINE)
        self._reader.join(DEADLINE)
        return status

    def memory(self):
        """Resident, in kilobytes."""
        for line in pathlib.Path(f"/proc/{self.pid}/status").read_text(encoding="ascii").splitlines():
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
        raise AssertionError(f"{self.pid} has no resident memory")

    def close(self):
        if self._process.poll() is None:
            self.kill()
        self._process.stderr.close()


def environment(tools, more=None):
    base = {name: value for name, value in os.environ.items()
            if not name.startswith("ON_AIR_") and name not in ("NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID")}
    own = {"GST_PLUGIN_PATH": str(tools.plugins), "GST_REGISTRY": str(tools.scratch / "registry.bin")}
    return base | own | (more or {})


def on_air(tools, pipeline, variables, *options, more=None):
    path = EXAMPLES / f"{pipeline}.pipeline" if isinstance(pipeline, str) else pipeline
    sets = [item for name, value in variables.items() for item in ("--set", f"{name}={value}")]
    return Process(["/usr/bin/python3", EXAMPLES / "on-air", path, *sets, *options], environment(tools, more))


def srt_sender(tools, source, port):
    return on_air(tools, "file-to-srt", {"input": source, "output": f"srt://127.0.0.1:{port}?mode=caller", **SMALL},
                  "--latency", 500)


class Receiver:
    """Records what comes to a port over UDP."""

    def __init__(self, path):
        self.path, self.bytes, self.arrivals = path, 0, []
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        buffer = 8 << 20  # what comes while this process has to wait for its turn
        try:
            self._socket.setsockopt(socket.SOL_SOCKET, 33, buffer)  # SO_RCVBUFFORCE
        except PermissionError:
            self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, buffer)
        self._socket.bind(("127.0.0.1", 0))
        self._socket.settimeout(0.1)
        self.port = self._socket.getsockname()[1]
        self._open, self._news = True, threading.Condition()
        self._thread = threading.Thread(target=self._record, daemon=True)
        self._thread.start()

    def _record(self):
        with open(self.path, "wb") as file:
            while True:
                try:
                    data = self._socket.recv(65536)
                except TimeoutError:
                    if not self._open:
                        return
                    continue
                file.write(data)
                with self._news:
                    self.bytes += len(data)
                    self.arrivals.append((time.monotonic(), self.bytes))
                    self._news.notify_all()

    def wait_for_seconds(self, seconds):
        """For so much more of a stream, by its rate."""
        goal = self.bytes + seconds * MUX_RATE / 8
        with self._news:
            if not self._news.wait_for(lambda: self.bytes >= goal, DEADLINE + 10 * seconds):
                raise AssertionError(f"{self.bytes} bytes of {goal} came")

    def stop(self):
        """What has been sent has come: it was on this machine."""
        self._open = False
        self._thread.join(DEADLINE)
        self._socket.close()
        return self.path


def read_stream(path):
    return TransportStream(path.read_bytes())


def decoding_errors(path):
    result = subprocess.run(["ffmpeg", "-v", "repeat+error", "-i", str(path), "-f", "null", "-"],
                            capture_output=True, text=True, timeout=DEADLINE * 5, check=False)
    # What is decoded goes nowhere, at a coarser clock than that of the stream, of which FFmpeg complains.
    return [line for line in result.stderr.splitlines() if line.strip() and not line.startswith("[null @")]


def stop(process):
    process.signal(signal.SIGTERM)
    return process.wait()
