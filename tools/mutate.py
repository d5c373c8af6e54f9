#!/usr/bin/python3
"""Changes the library in one place at a time and sees whether a test notices.

A mutant is the library with one comparison, operator, constant or statement changed. A test suite that passes on
a mutant leaves a behaviour unchecked, unless the change makes no difference that anybody could see: those are
listed with their reason in equivalent-mutants.txt, by their text, so that the list outlives edits elsewhere.

The tests are built once. A mutant is compiled by itself and put in front of the library by LD_PRELOAD; tests that
include the changed header are compiled again. Which tests are tried first is learned from earlier mutants of the
same file. What is known is kept in the build directory and not tried again, but for survivors.
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
FOREIGN = ("captions_", "host_", "install_")  # tests of other parts, or of a library that they build themselves
# For mutants that pass all others: they take long.
LATE = ("cli_", "third_party_", "streams_", "caption_streams_", "state_grid_", "fault_", "threads_", "nothing_lost_")
COMPILING = 10  # seconds
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
    """The mutants of a translation unit's own files."""

    def __init__(self, root, unit, arguments):
        self.root = root
        self.found = []
        self.texts = {}
        self.keys = collections.Counter()
        self.places = set()
        parsed = cindex.Index.create().parse(str(root / unit), args=arguments)
        errors = [str(d) for d in parsed.diagnostics if d.severity >= cindex.Diagnostic.Error]
        if errors:
            fail("clang does not understand the library:\n" + "\n".join(errors))
        for child in parsed.cursor.get_children():
            self.visit(child, None, "")

    def file_of(self, cursor):
        file = cursor.location.file
        if file is None:
            return None
        try:
            name = str(pathlib.Path(file.name).resolve().relative_to(self.root))
        except ValueError:
            return None
        if name != "lib/gsve.cpp" and not name.startswith("lib/detail/"):
            return None
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

    def __init__(self, path):
        self.reasons = {}
        waiting, reason = [], []
        for line in path.read_text().splitlines() + ["end"]:
            if not line.strip() or line.startswith("#"):
                continue
            if line[0].isspace():
                reason.append(line.strip())
                continue
            if reason:
                self.reasons.update((key, " ".join(reason)) for key in waiting)
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

    def __init__(self, directory, jobs, left_out, frozen):
        self.source = directory / "source"
        self.build = directory / "build"
        if not frozen:
            update_copy(self.source)
        flags = ["-DGSVE_BUILD_TESTS=ON", "-DGSVE_WERROR=OFF", "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"]
        flags += ["-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O1"]
        run(["cmake", "-G", "Ninja", "-S", self.source, "-B", self.build, *flags])
        self.commands = run(["ninja", "-C", self.build, "-t", "commands"]).splitlines()
        link = next(c for c in self.commands if "--version-script" in c)
        self.library = re.search(r" -o (\S+)", link).group(1)
        self.jobs = jobs
        self.includes = {}
        sources = sorted((self.source / "tests").glob("*_test.cpp"))
        names = [path.stem for path in sources if not path.stem.startswith(FOREIGN) and path.stem not in left_out]
        self.frozen = frozen
        self.durations = directory / "durations.json"
        self.early = [Test(name, f"tests/{name}") for name in names if not name.startswith(LATE)]
        self.late = [Test(name, f"tests/{name}") for name in names if name.startswith(LATE)]

    def prepare(self, tests, tree):
        """Builds the tests and runs each on the library as it is, compiled the way that mutants are."""
        programs = [test.program for test in tests]
        subprocess.run(["ninja", "-C", self.build, f"-j{self.jobs}", *programs], check=True, stdout=sys.stderr)
        self.includes = self.read_includes()
        known = json.loads(self.durations.read_text()) if self.frozen and self.durations.exists() else {}
        library = None
        for test in tests:
            if test.name not in known:
                library = library or self.make(self.library, tree)
                begin = time.monotonic()
                if not self.passes(self.build / test.program, library, 600):
                    fail(f"{test.name} fails on the library as it is")
                known[test.name] = time.monotonic() - begin
            test.seconds = known[test.name]
        self.durations.write_text(json.dumps(known, indent=1))

    def read_includes(self):
        """The library's files that each test program includes."""
        includes = {}
        target = None
        for line in run(["ninja", "-C", self.build, "-t", "deps"]).splitlines():
            if line and not line[0].isspace():
                match = re.match(r"tests/CMakeFiles/(\w+)\.dir/\1\.cpp\.o:", line)
                target = match and f"tests/{match.group(1)}"
            elif target and line.strip().startswith(f"{self.source}/lib/detail/"):
                includes.setdefault(target, set()).add(os.path.relpath(line.strip(), self.source))
        return includes

    def clang_arguments(self):
        command = next(c for c in self.commands if c.endswith("lib/gsve.cpp"))
        return [a for a in shlex.split(command) if a.startswith(("-I", "-D", "-std="))] + run(
            ["pkg-config", "--cflags", "libavcodec"]).split()

    def make(self, target, tree, timeout=600):
        """Builds one program or library from the sources in `tree`; None where it does not compile."""
        link = next(c for c in self.commands if f" -o {target} " in c)
        object_ = re.search(r"\S+\.dir/\w+\.cpp\.o", link).group(0)
        compile_ = next(c for c in self.commands if f" -o {object_} -c " in c)
        made, made_object = tree / pathlib.Path(target).name, tree / pathlib.Path(object_).name
        compile_ = re.sub(r" -MD -MT \S+ -MF \S+", "", compile_).removeprefix("ccache ")
        compile_ = compile_.replace(f"{self.source}/lib", f"{tree}/lib").replace(object_, str(made_object))
        link = link.replace(object_, str(made_object)).replace(f" -o {target} ", f" -o {made} ")
        link = link.replace(f"-Wl,--dependency-file={target}.d", "")
        for command in (compile_, link):
            if subprocess.run(command, shell=True, cwd=self.build, capture_output=True, timeout=timeout).returncode:
                return None
        return made

    def passes(self, program, library, timeout):
        def limit():
            os.setsid()
            resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 30, 1 << 30))

        environment = os.environ | {"LD_PRELOAD": str(library), "GTEST_FAIL_FAST": "1", "GTEST_BRIEF": "1"}
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


class Trial:
    """One mutant before the tests."""

    def __init__(self, bench, knowledge):
        self.bench = bench
        self.knowledge = knowledge

    def __call__(self, mutant, tests, tree):
        shutil.rmtree(tree, ignore_errors=True)
        shutil.copytree(self.bench.source / "lib", tree / "lib")
        text = (tree / mutant.file).read_bytes()
        (tree / mutant.file).write_bytes(text[: mutant.begin] + mutant.text.encode() + text[mutant.end :])
        library = self.bench.make(self.bench.library, tree)
        if library is None:
            return "does not compile", ""
        kills = self.knowledge.kills(mutant.file)

        def includes(test):
            return mutant.file in self.bench.includes.get(test.program, ())

        def promise(test):
            return (kills[test.name] + 0.1) / (test.seconds + (COMPILING if includes(test) else 0))

        for test in sorted(tests, key=promise, reverse=True):
            program = self.bench.build / test.program
            if includes(test):
                program = self.bench.make(test.program, tree)
                if program is None:
                    return "does not compile", ""
            if not self.bench.passes(program, library, 10 + 8 * test.seconds):
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
    print(f"\n{total['killed']} of {tried} mutants killed, {rate:.1f} %; the goal is {GOAL} %")
    return rate >= GOAL


def main():
    parser = argparse.ArgumentParser(description="mutation testing of the library")
    parser.add_argument("directory", type=pathlib.Path, help="where to build and to keep what is known")
    parser.add_argument("--minutes", type=float, default=10, help="how long to try mutants (default 10)")
    parser.add_argument("--seed", default="1", help="picks the order in which mutants are tried")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--only", default="", metavar="REGEX", help="try only the mutants that match this")
    parser.add_argument("--without", action="append", default=[], metavar="TEST", help="leave a test out")
    parser.add_argument("--frozen", action="store_true", help="keep to the sources of the last run")
    parser.add_argument("--list", action="store_true", help="print the mutants in order and end")
    options = parser.parse_args()

    directory = options.directory.resolve()
    directory.mkdir(exist_ok=True)
    bench = Bench(directory, options.jobs, options.without, options.frozen)
    mutants = Sources(bench.source, "lib/gsve.cpp", bench.clang_arguments()).found
    explained = Explained(EQUIVALENT)
    explained.check(mutants)
    ordered = [m for m in shuffled(mutants, options.seed) if re.search(options.only, m.key)]
    if options.list:
        print("\n".join(m.key for m in ordered))
        return 0
    knowledge = Knowledge(directory / "results.json")
    trial = Trial(bench, knowledge)
    trees = [directory / f"worker{n}" for n in range(options.jobs)]

    def try_all(mutants, tests, deadline, passed):
        if not mutants:
            return
        shutil.copytree(bench.source / "lib", trees[0] / "lib", dirs_exist_ok=True)
        bench.prepare(tests, trees[0])
        waiting = collections.deque(mutants)

        def work(tree):
            while time.monotonic() < deadline():
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
    again = [m for m in open_ if knowledge.outcome(m) == "survived"]
    new = [m for m in open_ if knowledge.outcome(m) is None]
    end = None

    def deadline():
        nonlocal end
        end = end or time.monotonic() + 60 * options.minutes
        return end

    try_all(again + new, bench.early, deadline, "suspect")
    try_all([m for m in open_ if knowledge.outcome(m) == "suspect"], bench.late, lambda: float("inf"), "survived")
    return 0 if report(mutants, knowledge, explained) else 1


if __name__ == "__main__":
    sys.exit(main())
