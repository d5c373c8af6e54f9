#!/usr/bin/python3
"""Changes one room in one place at a time and sees whether a test notices.

A mutant is the room with one comparison, operator, constant or statement changed. A test suite that passes on
a mutant leaves a behaviour unchecked, unless the change makes no difference that anybody could see: those are
listed with their reason in equivalent-mutants.txt, by their text, so that the list outlives edits elsewhere.

The tests are built once. Of a mutant, the objects that include the changed file are compiled again, and linked in
front of the room's archive into the tests and the program that the tests run; the encoder's library is put in front
of the built one by LD_PRELOAD. Which tests are tried first is learned from earlier mutants of the same file. What
is known is kept in the build directory and not tried again, but for survivors.
"""

import argparse
import collections
import concurrent.futures
import dataclasses
import hashlib
import json
import os
import pathlib
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import threading
import time

from clang import cindex

ROOT = pathlib.Path(__file__).resolve().parent.parent
EQUIVALENT = ROOT / "tools/equivalent-mutants.txt"
GOAL = 95  # per cent
PROGRAM = "cli/gsve"  # what the tests of cli/ run


@dataclasses.dataclass(frozen=True)
class Room:
    """What is changed, and the folders of tests that could notice."""

    units: tuple  # patterns of the sources that are parsed
    files: tuple  # patterns of the files that are changed
    early: tuple  # folders of tests/
    late: tuple = ()  # for mutants that pass all others: they take long
    late_tests: tuple = ()  # beginnings of the names of early folders' tests that take long, too
    library: str = ""  # part of the link command of a shared library that stands in front of the built one


ROOMS = {
    "lib": Room(("lib/gsve.cpp",), ("lib/gsve.cpp", "lib/detail/**/*.h"), ("lib", "lib/scale"), ("encoding", "cli"),
                ("streams_", "caption_streams_", "state_grid_", "fault_", "threads_", "nothing_lost_"),
                "--version-script"),
    "captions": Room(("captions/*.cpp",), ("captions/*.cpp", "captions/*.h"), ("captions",)),
    "encoding": Room(("encoding/*.cpp",), ("encoding/*.cpp", "encoding/*.h"), ("encoding",), ("programme", "cli")),
    "programme": Room(("programme/*.cpp",), ("programme/*.cpp", "programme/*.h"), ("programme",), ("cli",)),
}  # fmt: skip
PROGRAMS = {
    "captions": ["captions_test"],
    "encoding": ["encoding_test"],
    "programme": ["programme_test", "ffmpeg_failures_test"],
}  # fmt: skip
COMPILING = 10  # seconds, of an object
MEMORY = 6 << 30


def fail(message):
    sys.exit(f"mutate: {message}")


# ---- Mutants ----------------------------------------------------------------------------------------------------

OPERATORS = {
    "<": ["<="], "<=": ["<"], ">": [">="], ">=": [">"], "==": ["!="], "!=": ["=="],
    "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "+=": ["-="], "-=": ["+="],
}  # fmt: skip

Kind = cindex.CursorKind
OPERATIONS = {Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR}
CONTROL = {Kind.IF_STMT, Kind.FOR_STMT, Kind.WHILE_STMT, Kind.DO_STMT, Kind.CXX_FOR_RANGE_STMT}
FUNCTIONS = {
    Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR, Kind.FUNCTION_TEMPLATE,
    Kind.STRUCT_DECL, Kind.CLASS_DECL, Kind.VAR_DECL, Kind.ENUM_DECL,
}  # fmt: skip


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str  # from the root of the sources
    begin: int
    end: int
    text: str  # what stands in place of [begin, end)
    key: str


def changed_number(literal):
    """The neighbours of an integer literal, in its own base and with its suffix."""
    digits = re.fullmatch(r"(0[xX][0-9a-fA-F']+|[0-9']+)([uUlLzZ]*)", literal)
    if not digits:
        return []
    number, suffix = digits.group(1).replace("'", ""), digits.group(2)
    in_hex = number[:2] in ("0x", "0X")
    value = int(number, 16 if in_hex else 10)
    shown = (lambda n: f"{n:#x}") if in_hex else str
    return [shown(value + 1) + suffix, f"({shown(value - 1)}{suffix})" if value == 0 else shown(value - 1) + suffix]


def changed_real(literal):
    return [] if float(re.sub("[fFlL']", "", literal)) == 0 else [f"({literal} * 1.01)"]


class Sources:
    """The mutants of a room's files."""

    def __init__(self, root, room, arguments_of):
        self.root = root
        self.files = {str(path.relative_to(root)) for pattern in room.files for path in root.glob(pattern)}
        self.found = []
        self.texts = {}
        self.names = {}  # from the root, of the files as clang calls them
        self.keys = collections.Counter()
        self.places = set()
        self.done = set()  # files that an earlier unit showed
        for unit in sorted(str(path.relative_to(root)) for pattern in room.units for path in root.glob(pattern)):
            parsed = cindex.Index.create().parse(str(root / unit), args=arguments_of(unit))
            errors = [str(d) for d in parsed.diagnostics if d.severity >= cindex.Diagnostic.Error]
            if errors:
                fail(f"clang does not understand {unit}:\n" + "\n".join(errors))
            self.seen = set()
            for child in parsed.cursor.get_children():
                self.visit(child, None, "")
            self.done |= self.seen

    def file_of(self, cursor):
        file = cursor.location.file
        if file is None:
            return None
        if file.name not in self.names:
            self.names[file.name] = os.path.relpath(os.path.realpath(file.name), self.root)
        name = self.names[file.name]
        if name not in self.files or name in self.done:
            return None
        self.seen.add(name)
        if name not in self.texts:
            self.texts[name] = (self.root / name).read_bytes()
        return name

    def visit(self, cursor, parent, function):
        file = self.file_of(cursor)
        if file is None:
            return
        if cursor.kind in FUNCTIONS and cursor.spelling and (not parent or parent.kind != Kind.DECL_STMT):
            function = cursor.spelling
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        children = list(cursor.get_children())
        text = self.texts[file][begin:end].decode()

        def add(first, last, replacement):
            self.add(file, function, first, last, replacement)

        if parent is not None and self.is_statement(cursor, parent):
            add(begin, end, "")
        if cursor.kind == Kind.INTEGER_LITERAL:
            for other in changed_number(text):
                add(begin, end, other)
        elif cursor.kind == Kind.FLOATING_LITERAL:
            for other in changed_real(text):
                add(begin, end, other)
        elif cursor.kind == Kind.CXX_BOOL_LITERAL_EXPR:
            add(begin, end, {"true": "false", "false": "true"}[text])
        operands = children if cursor.kind in OPERATIONS else []
        if cursor.kind == Kind.CALL_EXPR and cursor.spelling.startswith("operator"):
            operands = list(cursor.get_arguments())
        if len(operands) == 2 and all(operands):
            first, last = operands[0].extent.end.offset, operands[1].extent.start.offset
            between = self.texts[file][first:last].decode()
            start = first + len(between) - len(between.lstrip())
            for other in OPERATORS.get(between.strip(), []):
                add(start, start + len(between.strip()), other)
        for child in children:
            self.visit(child, cursor, function)

    def is_statement(self, cursor, parent):
        """An expression that stands as a statement, or a guard: what can go without another word."""
        if cursor.kind == Kind.IF_STMT:
            return parent.kind == Kind.COMPOUND_STMT and len(list(cursor.get_children())) == 2
        if not cursor.kind.is_expression():
            return False
        if parent.kind == Kind.COMPOUND_STMT:
            return True
        if parent.kind not in CONTROL:
            return False
        # The body of a control statement comes last, its condition does not.
        siblings = list(parent.get_children())
        bodies = siblings[1:] if parent.kind == Kind.IF_STMT else siblings[-1:]
        return cursor in bodies

    def add(self, file, function, begin, end, replacement):
        place = (file, begin, end, replacement)
        if place in self.places:  # of a header that is included several times
            return
        self.places.add(place)
        text = self.texts[file]
        old = text[begin:end].decode()
        first = text.rfind(b"\n", 0, begin) + 1
        last = text.find(b"\n", end)
        marked = f"{text[first:begin].decode()}[[{old} => {replacement}]]{text[end:last].decode()}"
        key = f"{file}: {function}: {' '.join(marked.split())}"
        self.keys[key] += 1
        if self.keys[key] > 1:
            key += f" (no. {self.keys[key]})"
        self.found.append(Mutant(file, begin, end, replacement, key))


def shuffled(mutants, seed):
    """In an order that the seed fixes and edits elsewhere do not move, with all files in it from the start: a
    file's share grows with the root of its size."""
    by_file = collections.defaultdict(list)
    for mutant in mutants:
        by_file[mutant.file].append((hashlib.sha256(f"{seed} {mutant.key}".encode()).digest(), mutant))
    ranked = []
    for of_file in by_file.values():
        of_file.sort(key=lambda entry: entry[0])
        ranked += [((n + 0.5) / len(of_file) ** 0.5, hash_, mutant) for n, (hash_, mutant) in enumerate(of_file)]
    return [mutant for _, _, mutant in sorted(ranked, key=lambda entry: entry[:2])]


class Explained:
    """Lines at the margin are mutants, one that ends in " *" all those that begin so; the indented lines below them
    give the reason."""

    def __init__(self, path, room):
        self.reasons = {}
        waiting, reason = [], []
        for line in path.read_text().splitlines() + ["end"]:
            if not line.strip() or line.startswith("#"):
                continue
            if line[0].isspace():
                reason.append(line.strip())
                continue
            if reason:
                self.reasons.update((key, " ".join(reason)) for key in waiting if key.startswith(f"{room}/"))
                waiting, reason = [], []
            waiting.append(line.strip())
        if waiting != ["end"]:
            fail(f"{path.name}: no reason for {waiting[0]}")

    def pattern(self, key):
        for pattern in self.reasons:
            if key == pattern or (pattern.endswith(" *") and key.startswith(pattern[:-1])):
                return pattern
        return None

    def check(self, mutants):
        used = {self.pattern(mutant.key) for mutant in mutants}
        stale = [pattern for pattern in self.reasons if pattern not in used]
        if stale:
            fail(f"{EQUIVALENT.name} names what is no longer there:\n" + "\n".join(stale))


# ---- Building and running ---------------------------------------------------------------------------------------


@dataclasses.dataclass
class Test:
    name: str
    program: str  # in the build directory
    seconds: float = 0.0


def run(command, **more):
    return subprocess.run(command, check=True, capture_output=True, text=True, **more).stdout


def update_copy(source):
    """Copies what git knows or would add, leaving alone what has not changed."""
    names = run(["git", "-C", ROOT, "ls-files", "-co", "--exclude-standard", "-z"]).split("\0")
    for name in filter(None, names):
        original, copy = ROOT / name, source / name
        if not original.is_file():
            copy.unlink(missing_ok=True)
        elif not copy.exists() or copy.read_bytes() != original.read_bytes():
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(original, copy)
    clips = source / ".cache"
    if not clips.exists():
        clips.symlink_to(ROOT / ".cache")


class Bench:
    """The built tests, and how to run them on a mutant."""

    def __init__(self, directory, room, jobs, left_out, frozen):
        self.source = directory / "source"
        self.build = directory / "build"
        if not frozen:
            update_copy(self.source)
        flags = ["-DGSVE_BUILD_TESTS=ON", "-DGSVE_WERROR=OFF", "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"]
        flags += ["-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O1"]
        run(["cmake", "-G", "Ninja", "-S", self.source, "-B", self.build, *flags])
        self.commands = run(["ninja", "-C", self.build, "-t", "commands"]).splitlines()
        self.compiling = {}  # the command that makes each object
        self.linking = {}  # or program, or shared library
        self.members = {}  # objects of each archive
        for command in self.commands:
            output = re.search(r" -o (\S+)", command)
            archive = re.search(r" qc (\S+\.a) ", command)
            if archive:
                self.members[archive.group(1)] = re.findall(r"\S+\.cpp\.o", command)
            elif output and " -c " in command:
                self.compiling[output.group(1)] = command
            elif output:
                self.linking[output.group(1)] = command
        self.library = next((t for t, c in self.linking.items() if room.library in c), "") if room.library else ""
        self.unit = min(str(path.relative_to(self.source)) for pattern in room.units for path in self.source.glob(pattern))
        self.jobs = jobs
        self.includes = {}
        self.frozen = frozen
        self.durations = directory / "durations.json"
        early = [test for folder in room.early for test in self.tests_in(folder)]
        late = [test for test in early if test.name.startswith(room.late_tests)] if room.late_tests else []
        self.early = [test for test in early if test not in late and test.name not in left_out]
        late += [test for folder in room.late for test in self.tests_in(folder)]
        self.late = [test for test in late if test.name not in left_out]

    def tests_in(self, folder):
        names = sorted(path.stem for path in (self.source / "tests" / folder).glob("*_test.cpp"))
        names = PROGRAMS.get(folder, names)
        return [Test(name, f"tests/{folder}/{name}") for name in names]

    def tree_of_worker(self, tree):
        """Sources of the worker's own, as they are."""
        if tree.exists():
            shutil.rmtree(tree)
        shutil.copytree(self.source, tree / "source", symlinks=True)

    def prepare(self, tests, tree):
        """Builds the tests and runs each on the library as it is, compiled the way that mutants are."""
        programs = [test.program for test in tests] + [PROGRAM] * any(runs_the_program(test) for test in tests)
        subprocess.run(["ninja", "-C", self.build, f"-j{self.jobs}", *programs], check=True, stdout=sys.stderr)
        self.includes = self.read_includes()
        known = json.loads(self.durations.read_text()) if self.durations.exists() else {}
        made = Made(self, self.unit, tree)
        try:
            for test in tests:
                made.target(test.program)
            if self.library:
                made.target(self.library)
            if any(runs_the_program(test) for test in tests):
                made.target(PROGRAM)
        except DoesNotCompile:
            fail(f"{self.unit} as it is does not compile the way that mutants do")
        for test in tests:
            # A frozen test takes as long as it took; otherwise it has to pass first.
            if not self.frozen or test.name not in known:
                begin = time.monotonic()
                if not self.passes(test, made, 900):
                    fail(f"{test.name} fails on the sources as they are")
                known[test.name] = time.monotonic() - begin
            test.seconds = known[test.name]
        self.durations.write_text(json.dumps(known, indent=1))

    def read_includes(self):
        """The project's files that each object is made from."""
        includes = collections.defaultdict(set)
        target, prefix = None, f"{self.source}/"
        for line in run(["ninja", "-C", self.build, "-t", "deps"]).splitlines():
            if line and not line[0].isspace():
                target = line.split(":")[0]
            elif line.strip():
                path = os.path.normpath(self.build / line.strip())
                if path.startswith(prefix):
                    includes[target].add(path.removeprefix(prefix))
        return includes

    def clang_arguments(self, unit):
        words = shlex.split(next(c for c in self.compiling.values() if c.endswith(f" {self.source / unit}")))
        arguments = [word for word in words if word.startswith(("-I", "-D", "-std="))]
        for flag, path in zip(words, words[1:]):
            if flag == "-isystem":
                arguments += [flag, path]
        return arguments + run(["pkg-config", "--cflags", "libavcodec"]).split()

    def objects(self, target, file):
        """The target's objects that are made from the file: its own, and its archives'."""
        command = self.linking[target]
        own = re.findall(r"\S+\.cpp\.o", command)
        of_archives = [o for a, members in self.members.items() if f" {a}" in command for o in members]
        return [o for o in own + of_archives if file in self.includes[o]]

    def passes(self, test, made, timeout):
        environment = os.environ | {"GTEST_FAIL_FAST": "1", "GTEST_BRIEF": "1"}
        if self.library:
            environment["LD_PRELOAD"] = str(made.target(self.library))
        if runs_the_program(test):
            environment["GSVE_PROGRAM"] = str(made.target(PROGRAM))
        program = made.target(test.program)

        def limit():
            os.setsid()
            resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 30, 1 << 30))

        process = subprocess.Popen([program], cwd=self.build / "tests", env=environment, preexec_fn=limit,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            return process.wait(timeout) == 0
        except subprocess.TimeoutExpired:
            return False
        finally:
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()


class DoesNotCompile(Exception):
    pass


class Made:
    """What one mutant is made into, each thing once; what does not include the changed file is taken as built."""

    def __init__(self, bench, file, tree):
        self.bench, self.file, self.tree = bench, file, tree
        self.made = {}

    def target(self, target):
        """A program or library."""
        if target not in self.made:
            self.made[target] = self.link(target)
        return self.made[target]

    def changes(self, target):
        return len(self.bench.objects(target, self.file))

    def link(self, target):
        objects = self.bench.objects(target, self.file)
        if not objects:
            return self.bench.build / target
        program = self.tree / pathlib.Path(target).name
        command = self.bench.linking[target]
        command = command.replace(f"-Wl,--dependency-file={target}.d", "")
        in_archives = []
        for object_ in objects:
            made = self.object(object_)
            if f" {object_} " in command:
                command = command.replace(f" {object_} ", f" {made} ")
            else:
                in_archives.append(str(made))  # what stands here already is not taken from the archive
        command = command.replace(f" -o {target} ", f" {' '.join(in_archives)} -o {program} ")
        self.run(command)
        return program

    def object(self, object_):
        if object_ not in self.made:
            self.made[object_] = self.tree / object_.replace("/", "_")
            command = re.sub(r" -MD -MT \S+ -MF \S+", "", self.bench.compiling[object_]).removeprefix("ccache ")
            # Also where the sources are a directory of headers: tests find the room's there.
            command = re.sub(re.escape(str(self.bench.source)) + r"(?=/|\s|$)", f"{self.tree}/source", command)
            self.run(command.replace(f" -o {object_} ", f" -o {self.made[object_]} "))
        return self.made[object_]

    def run(self, command):
        if subprocess.run(command, shell=True, cwd=self.bench.build, capture_output=True, timeout=600).returncode:
            raise DoesNotCompile()


def runs_the_program(test):
    return test.program.startswith("tests/cli/")


class Trial:
    """One mutant before the tests."""

    def __init__(self, bench, knowledge):
        self.bench = bench
        self.knowledge = knowledge

    def __call__(self, mutant, tests, tree):
        changed = tree / "source" / mutant.file
        text = changed.read_bytes()
        changed.write_bytes(text[: mutant.begin] + mutant.text.encode() + text[mutant.end :])
        try:
            return self.outcome(mutant, tests, Made(self.bench, mutant.file, tree))
        except DoesNotCompile:
            return "does not compile", ""
        finally:
            changed.write_bytes(text)

    def outcome(self, mutant, tests, made):
        kills = self.knowledge.kills(mutant.file)

        def promise(test):
            return (kills[test.name] + 0.1) / (test.seconds + COMPILING * made.changes(test.program))

        for test in sorted(tests, key=promise, reverse=True):
            if not self.bench.passes(test, made, 10 + 8 * test.seconds):
                return "killed", test.name
        return "survived", ""


class Knowledge:
    """What became of each mutant, kept from run to run."""

    def __init__(self, path):
        self.path = path
        self.lock = threading.Lock()
        self.outcomes = json.loads(path.read_text()) if path.exists() else {}

    def note(self, mutant, outcome, test):
        with self.lock:
            self.outcomes[mutant.key] = {"file": mutant.file, "outcome": outcome, "test": test}
            temporary = self.path.with_suffix(".new")
            temporary.write_text(json.dumps(self.outcomes, indent=1))
            temporary.replace(self.path)

    def outcome(self, mutant):
        return self.outcomes.get(mutant.key, {}).get("outcome")

    def kills(self, file):
        with self.lock:
            return collections.Counter(o["test"] for o in self.outcomes.values() if o["file"] == file and o["test"])


def report(mutants, knowledge, explained):
    table = collections.defaultdict(collections.Counter)
    survivors = []
    for mutant in mutants:
        outcome = knowledge.outcome(mutant)
        if outcome in ("survived", "suspect"):
            outcome = "equivalent" if explained.pattern(mutant.key) else "survived"
        table[mutant.file][outcome] += 1
        if outcome == "survived":
            survivors.append(mutant.key)
    columns = ("killed", "survived", "equivalent", "does not compile")
    print(f"\n{'':44}{'places':>8}" + "".join(f"{c:>18}" for c in columns))
    total = sum(table.values(), collections.Counter())
    for file, counts in sorted(table.items()) + [("all", total)]:
        print(f"{file:44}{sum(counts.values()):>8}" + "".join(f"{counts[c]:>18}" for c in columns))
    if survivors:
        print("\nSurvivors:\n" + "\n".join(sorted(survivors)))
    tried = total["killed"] + total["survived"]
    rate = 100 * total["killed"] / tried if tried else 100
    explained_ = total["equivalent"] + total["does not compile"]
    print(f"\n{total['killed']} of {tried} mutants killed, {rate:.1f} %, of {sum(total.values()) - explained_} places; "
          f"the goal is {GOAL} %")
    return rate >= GOAL


def main():
    parser = argparse.ArgumentParser(description="mutation testing, room by room")
    parser.add_argument("directory", type=pathlib.Path, help="where to build and to keep what is known")
    parser.add_argument("room", choices=ROOMS)
    parser.add_argument("--minutes", type=float, default=10,
                        help="how long to try mutants, and then again those that passed, on the late tests (default 10)")
    parser.add_argument("--seed", default="1", help="picks the order in which mutants are tried")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--only", default="", metavar="REGEX", help="try only the mutants that match this")
    parser.add_argument("--without", action="append", default=[], metavar="TEST", help="leave a test out")
    parser.add_argument("--frozen", action="store_true", help="keep to the sources of the last run")
    parser.add_argument("--new", action="store_true", help="leave alone what survived already")
    parser.add_argument("--list", action="store_true", help="print the mutants in order and end")
    options = parser.parse_args()

    directory, room = options.directory.resolve(), ROOMS[options.room]
    directory.mkdir(exist_ok=True)
    bench = Bench(directory, room, options.jobs, options.without, options.frozen)
    mutants = Sources(bench.source, room, bench.clang_arguments).found
    explained = Explained(EQUIVALENT, options.room)
    explained.check(mutants)
    ordered = [m for m in shuffled(mutants, options.seed) if re.search(options.only, m.key)]
    if options.list:
        print("\n".join(m.key for m in ordered))
        return 0
    knowledge = Knowledge(directory / "results.json")
    trial = Trial(bench, knowledge)
    trees = [directory / f"worker{n}" for n in range(options.jobs)]

    def try_all(mutants, tests, passed):
        if not mutants or not tests:
            return
        for tree in trees:
            bench.tree_of_worker(tree)
        bench.prepare(tests, trees[0])
        waiting = collections.deque(mutants)
        deadline = time.monotonic() + 60 * options.minutes

        def work(tree):
            while time.monotonic() < deadline:
                try:
                    mutant = waiting.popleft()
                except IndexError:
                    return
                outcome, test = trial(mutant, tests, tree)
                outcome = passed if outcome == "survived" else outcome
                knowledge.note(mutant, outcome, test)
                print(f"{outcome:>16} {test:24} {mutant.key}", file=sys.stderr, flush=True)

        with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
            for future in [pool.submit(work, tree) for tree in trees]:
                future.result()

    open_ = [m for m in ordered if not explained.pattern(m.key)]
    again = [] if options.new else [m for m in open_ if knowledge.outcome(m) == "survived"]
    new = [m for m in open_ if knowledge.outcome(m) is None]
    try_all(again + new, bench.early, "suspect" if bench.late else "survived")
    try_all([m for m in open_ if knowledge.outcome(m) == "suspect"], bench.late, "survived")
    return 0 if report(mutants, knowledge, explained) else 1


if __name__ == "__main__":
    sys.exit(main())
