"""Puts small faults into the module, one by one, and runs the unit tests against each.

A fault is a turned condition, a call or an assignment left out, two statements exchanged, a changed
constant, operator, character of a text, or return value. Each is made in a copy of the source; the
source is compiled without optimisation, linked with the unchanged others into a library, and the
programs of tests/unit run with it, those first that have found most faults in that source, until
one fails; then the strict build's. They run in a sandbox that holds no other process and no
writable file system: a faulty "kill" or "unlink" finds nothing.

Faults that no test noticed are listed, with the reason if survivors.txt names one. Results are kept
in the results file, so that a run that was ended goes on where it stopped; they hold as long as the
faulty source is the same and tests are only added. --again runs the survivors once more, --fresh
everything. --sanitize runs what survives under the sanitizers too, as scripts/test runs the unit
tests.
"""

import argparse
import collections
import fcntl
import json
import os
import queue
import random
import re
import shlex
import shutil
import subprocess
import sys
import threading
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import mutants

MODULE = "platform/apps/flash"
SOURCES = ("orvex_flash_mib.cpp", "flash_rows.cpp", "flash_inventory.cpp", "flash_write.cpp",
           "flash_copy.cpp", "flash_validate.cpp")
# The headers that hold code, with the sources in which a fault of theirs is tried out.
HEADERS = {
    "include/flash_answer.h": ("orvex_flash_mib.cpp", "flash_rows.cpp", "flash_inventory.cpp"),
    "flash_strict.h": ("flash_write.cpp", "flash_copy.cpp"),
}
# The program over the strict module, and its source that looks at the header by itself.
STRICT_PROGRAM, STRICT_SOURCE, STRICT_HEADER = "strict_build", "strict_names.cpp", "flash_strict.h"

WALL_SECONDS = 40
# Seconds of processor time, bytes of a file, bytes of memory. The sanitizers take terabytes.
SANITIZED_LIMITS = ("--cpu=20", f"--fsize={64 << 20}")
LIMITS = (*SANITIZED_LIMITS, f"--as={2 << 30}")

NOT_COMPILING, FAILED, CRASHED, TIMED_OUT, SURVIVED = (
    "not compiling", "test failed", "crashed", "timed out", "survived",
)


class Flavour:
    """The module as a library, standard or strict, and the test programs that run with it."""

    def __init__(self, work: Path, programs, strict: bool):
        self.original, self.programs = work / ("strict" if strict else "standard"), programs
        self.flags = ["-DORVEX_FLASH_STRICT"] if strict else []
        self.objects = {source: self.original / f"{source}.o" for source in SOURCES}


class Build:
    """A build of the unit tests, with the module as a library that can be replaced."""

    def __init__(self, checkout: Path, build: Path, limits):
        self.checkout, self.build, self.limits = checkout, build, limits
        self.work = build / "mutation"
        self.commands = {
            entry["file"]: entry["command"]
            for entry in json.loads((build / "compile_commands.json").read_text())
        }
        # Each a source or a folder of sources.
        programs = sorted(path.stem for path in (checkout / "tests/unit").glob("*_test*"))
        self.standard = Flavour(self.work, programs, strict=False)
        self.strict = Flavour(self.work, [STRICT_PROGRAM], strict=True)
        self.links = {}  # the command that links a program
        self.flags = []  # of every linking
        self.tests = {}  # how many each program has

    def run(self, command, **options):
        return subprocess.run(list(map(str, command)), cwd=self.build, capture_output=True,
                              text=True, errors="replace", check=False, **options)

    def must(self, command) -> None:
        done = self.run(command)
        if done.returncode != 0:
            sys.exit(f"{' '.join(map(str, command))}\n{done.stdout}{done.stderr}")

    def compile_command(self, source: Path, copy: Path, output: Path, flags):
        """Compiles a copy as its source is compiled; what a fault leaves unused is no error."""
        words = shlex.split(self.commands[str(source)])
        if words[0].endswith("ccache"):
            words = words[1:]
        words[words.index("-o") + 1] = output
        words[words.index("-c") + 1] = copy
        words[1:1] = ["-I", copy.parent]  # a faulty header comes before the good one
        # The tests see the module from outside the library. What a fault leaves uninitialised is
        # not zero by chance.
        return [*words, "-w", "-fvisibility=default", "-ftrivial-auto-var-init=pattern", *flags]

    def library_command(self, objects, output: Path):
        return ["g++", "-shared", "-Wl,-soname,libflash.so", *self.flags, *objects, "-o", output]

    def link_command(self, program: str, library: Path, output: Path, replaced=None):
        """Links a program with the module's library; `replaced` are objects by their sources."""
        words = []
        for word in self.links[program]:
            if "flash_objects.dir" in word:
                continue
            source = Path(word).name.removesuffix(".o")
            words.append((replaced or {}).get(source, word))
        words[words.index("-o") + 1] = output
        # The library calls the fakes, which the linker does not know from an archive alone.
        fakes = next(place for place, word in enumerate(words) if "ruma_fakes.a" in str(word))
        words[fakes : fakes + 1] = [
            "-Wl,--whole-archive", words[fakes], "-Wl,--no-whole-archive", library
        ]
        return words

    def prepare(self, jobs: int) -> None:
        """Builds the module's libraries without a fault and the programs, and runs them."""
        shutil.rmtree(self.work, ignore_errors=True)
        (self.work / "bin").mkdir(parents=True)
        everything = [(flavour, program) for flavour in (self.standard, self.strict)
                      for program in flavour.programs]
        for _, program in everything:
            listed = self.run(["ninja", "-t", "commands", f"bin/{program}"]).stdout.splitlines()
            self.links[program] = shlex.split(listed[-1].split("&&")[1])
        self.flags = [word for word in self.links[STRICT_PROGRAM]
                      if word.startswith(("-Wl,--wrap=", "-fsanitize"))]
        for flavour in (self.standard, self.strict):
            flavour.original.mkdir()
            for source, output in flavour.objects.items():
                path = self.checkout / MODULE / source
                self.must(self.compile_command(path, path, output, flavour.flags))
            self.must(self.library_command(flavour.objects.values(),
                                           flavour.original / "libflash.so"))

        def link(one):
            flavour, program = one
            self.must(self.link_command(program, flavour.original / "libflash.so",
                                        self.work / "bin" / program))

        with ThreadPoolExecutor(jobs) as pool:
            list(pool.map(link, everything))
        for flavour, program in everything:
            outcome, output = self.test(program, flavour.original)
            if outcome is not None:
                sys.exit(f"{program} fails without a fault:\n{output}")
            self.tests[program] = passed(output)

    def test(self, program: str, libraries: Path):
        """Runs a program with the module found in a directory: None when all of its tests passed,
        or how it failed; and what it printed."""
        binary = libraries / program
        if not binary.exists():
            binary = self.work / "bin" / program
        command = [
            "prlimit", *self.limits, "--core=0",
            "bwrap", "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc",
            "--tmpfs", "/tmp", "--tmpfs", "/var/tmp", "--ro-bind", self.checkout, self.checkout,
            "--unshare-all", "--die-with-parent", "--new-session", "--cap-drop", "ALL",
            "--chdir", "/tmp", binary, "--gtest_brief=1", "--gtest_fail_fast",
        ]
        environment = {**os.environ, "LD_LIBRARY_PATH": str(libraries)}
        try:
            done = self.run(command, env=environment, timeout=WALL_SECONDS,
                            stdin=subprocess.DEVNULL)
        except subprocess.TimeoutExpired:
            return TIMED_OUT, ""
        if done.stderr.startswith("bwrap:"):
            sys.exit(done.stderr)
        if done.returncode in (128 + 9, 128 + 24):  # SIGXCPU, and SIGKILL a second later
            return TIMED_OUT, done.stdout
        if "[  FAILED  ]" in done.stdout:
            return FAILED, done.stdout
        count = passed(done.stdout)  # a program that ends early has not passed
        if done.returncode != 0 or count != self.tests.get(program, count):
            return CRASHED, done.stdout + done.stderr
        return None, done.stdout

    # --- One fault -------------------------------------------------------------------------------

    def arguments(self, file: str):
        """How libclang is to read a file: what only the strict build does is code too."""
        words = shlex.split(self.commands[str(self.checkout / MODULE / SOURCES[0])])
        wanted = [word for word in words if word.startswith(("-D", "-I", "-std"))]
        return [*wanted, "-DORVEX_FLASH_STRICT", *(["-xc++"] if file.endswith(".h") else [])]

    def attempt(self, mutant, slot: Path, order):
        """Tries a fault out: how it ended, and which test noticed it."""
        shutil.rmtree(slot, ignore_errors=True)
        slot.mkdir()
        name = mutant.file.removeprefix(f"{MODULE}/")
        sources = HEADERS.get(name, (name,))
        for source in sources:
            shutil.copy(self.checkout / MODULE / source, slot)
        (slot / Path(name).name).write_bytes(mutant.faulty())
        outcome = self.attempt_flavour(self.standard, sources, slot, order(self.standard))
        if outcome[0] != SURVIVED:
            return outcome
        if name == STRICT_HEADER and not self.replace_strict_program(slot):
            return NOT_COMPILING, ""
        return self.attempt_flavour(self.strict, sources, slot, self.strict.programs)

    def attempt_flavour(self, flavour: Flavour, sources, slot: Path, programs):
        objects = dict(flavour.objects)
        for source in sources:
            objects[source] = slot / f"{source}.o"
            command = self.compile_command(self.checkout / MODULE / source, slot / source,
                                           objects[source], flavour.flags)
            if self.run(command).returncode != 0:
                return NOT_COMPILING, ""
        link = self.library_command(objects.values(), slot / "libflash.so")
        if self.run(link).returncode != 0:
            return NOT_COMPILING, ""
        for program in programs:
            outcome, output = self.test(program, slot)
            if outcome is not None:
                named = re.search(r"\[  FAILED  \] ([\w/.]+)", output)
                return outcome, f"{program} {named[1] if named else ''}".strip()
        return SURVIVED, ""

    def replace_strict_program(self, slot: Path) -> bool:
        """Compiles the strict program's look at the header anew."""
        source = self.checkout / "tests/unit" / STRICT_SOURCE
        output = slot / f"{STRICT_SOURCE}.o"
        command = self.compile_command(source, source, output, ["-I", slot])
        command[1:1] = ["-I", slot]
        link = self.link_command(STRICT_PROGRAM, self.strict.original / "libflash.so",
                                 slot / STRICT_PROGRAM, {STRICT_SOURCE: output})
        return self.run(command).returncode == 0 and self.run(link).returncode == 0


def passed(output: str) -> int:
    found = re.search(r"\[  PASSED  \] (\d+) test", output)
    return int(found[1]) if found else 0


class Results:
    """What became of each fault, kept in a file line by line."""

    def __init__(self, path: Path, fresh: bool, again: bool):
        self.path, self.lock = path, threading.Lock()
        self.known = {}
        self.noticed = collections.Counter()  # (file, program): faults found
        if fresh:
            path.unlink(missing_ok=True)
        if path.exists():
            for line in path.read_text().splitlines():
                key, outcome, by, file, *_ = line.split("\t")
                self.learn(key, outcome, by, file)
        if again:
            self.known = {key: one for key, one in self.known.items() if one[0] != SURVIVED}

    def learn(self, key, outcome, by, file) -> None:
        self.known[key] = outcome, by
        if by:
            self.noticed[file, by.split()[0]] += 1

    def add(self, mutant, outcome, by) -> None:
        with self.lock, self.path.open("a") as file:
            self.learn(mutant.key, outcome, by, mutant.file)
            print(mutant.key, outcome, by, mutant.file, mutant.line, mutant.name(), sep="\t",
                  file=file)

    def order(self, flavour: Flavour, file: str):
        """The programs, those first that are most likely to notice a fault in a file."""
        own = Path(file).stem.removeprefix("flash_")[:5]
        return sorted(flavour.programs,
                      key=lambda one: (-self.noticed[file, one], own not in one, one))


def attempt_all(build: Build, waiting, results: Results, jobs: int) -> None:
    """Tries faults out, `jobs` at once, each in a directory of its own."""
    if not waiting:
        return
    build.prepare(jobs)
    slots = queue.SimpleQueue()
    for number in range(jobs):
        slots.put(build.work / f"slot{number}")

    def attempt(mutant):
        slot = slots.get()
        try:
            outcome = build.attempt(mutant, slot,
                                    lambda flavour: results.order(flavour, mutant.file))
            results.add(mutant, *outcome)
        finally:
            slots.put(slot)

    with ThreadPoolExecutor(jobs) as pool:
        for number, _ in enumerate(pool.map(attempt, waiting), 1):
            if number % 50 == 0:
                print(f"{number} of {len(waiting)} tried", flush=True)


def report(sample, results, reasons) -> int:
    count = collections.Counter(results.known[mutant.key][0] for mutant in sample)
    killed = count[FAILED] + count[CRASHED] + count[TIMED_OUT]
    print("\nNot noticed:")
    argued = 0
    for mutant in sample:
        if results.known[mutant.key][0] == SURVIVED:
            reason = reasons.get(mutant.name())
            argued += reason is not None
            print(f"{mutant.file}:{mutant.line}: {mutant.name().partition(' ')[2]}")
            print(f"    {reason or 'NO REASON LISTED'}")
    print("\nBy file: killed of those that compile")
    for file in dict.fromkeys(mutant.file for mutant in sample):
        outcomes = [results.known[mutant.key][0] for mutant in sample if mutant.file == file]
        compiling = [one for one in outcomes if one != NOT_COMPILING]
        print(f"  {file}: {len(compiling) - compiling.count(SURVIVED)} of {len(compiling)}")
    compiling = killed + count[SURVIVED]
    print(
        f"\n{len(sample)} mutants: {count[NOT_COMPILING]} not compiling, "
        f"{count[FAILED]} killed by a failing test, "
        f"{count[CRASHED] + count[TIMED_OUT]} killed by a crash or time-out, "
        f"{count[SURVIVED]} survived ({argued} with a reason): "
        f"{100 * killed / max(compiling, 1):.1f} percent killed"
    )
    return 0


def listed_reasons(path: Path) -> dict:
    """Lines of a fault's name, a tab, and why it stays unnoticed."""
    lines = (line for line in path.read_text().splitlines() if line and not line.startswith("#"))
    return dict(line.split("\t", 1) for line in lines)


def main() -> int:
    parser = argparse.ArgumentParser(
        prog="scripts/mutate", description=__doc__,
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sample", type=int, metavar="N", help="try N of the faults (all)")
    parser.add_argument("--seed", type=int, default=1, metavar="S", help="which N (1)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), metavar="J",
                        help="how many at once (one a processor)")
    parser.add_argument("--file", action="append", metavar="F",
                        help="only faults in this file of the module; can be repeated")
    parser.add_argument("--results", type=Path, metavar="FILE",
                        help="the results file (build/mutate/results.tsv)")
    parser.add_argument("--again", action="store_true", help="try survivors once more")
    parser.add_argument("--fresh", action="store_true", help="forget earlier results")
    parser.add_argument("--sanitize", action="store_true",
                        help="try what survives under the sanitizers as well")
    parser.add_argument("--list", action="store_true", help="list the faults and try none")
    arguments = parser.parse_args()

    checkout = Path(os.environ["root"])
    files = [f"{MODULE}/{name}" for name in (*SOURCES, *HEADERS)]
    if arguments.file:
        wanted = {Path(file).name for file in arguments.file}
        known = {Path(file).name: file for file in files}
        if not wanted <= known.keys():
            parser.error(f"--file takes one of {', '.join(known)}")
        files = [file for name, file in known.items() if name in wanted]
    build = Build(checkout, checkout / "build/mutate", LIMITS)
    sample = [
        mutant for file in files for mutant in mutants.find(checkout, file, build.arguments(file))
    ]
    total = len(sample)
    if arguments.sample is not None:
        # Each fault has its own lot: a change of one file leaves the draw from the others alone.
        lots = {mutant.key: random.Random(f"{arguments.seed} {mutant.key}").random()
                for mutant in sample}
        drawn = set(sorted(lots, key=lots.get)[: arguments.sample])
        sample = [mutant for mutant in sample if mutant.key in drawn]
    if arguments.list:
        for mutant in sample:
            print(f"{mutant.file}:{mutant.line}: {mutant.name().partition(' ')[2]}")
        return 0

    lock = (build.build / "lock").open("w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        parser.error("another run works in build/mutate")
    results = Results(arguments.results or build.build / "results.tsv", arguments.fresh,
                      arguments.again)
    waiting = [mutant for mutant in sample if mutant.key not in results.known]
    print(f"{total} faults can be made, {len(sample)} chosen, {len(waiting)} to try", flush=True)
    attempt_all(build, waiting, results, arguments.jobs)
    if arguments.sanitize:
        waiting = [mutant for mutant in sample if results.known[mutant.key][0] == SURVIVED]
        print(f"{len(waiting)} survivors to try under the sanitizers", flush=True)
        sanitized = Build(checkout, checkout / "build/asan", SANITIZED_LIMITS)
        attempt_all(sanitized, waiting, results, arguments.jobs)
    reasons = listed_reasons(Path(__file__).with_name("survivors.txt"))
    return report(sample, results, reasons)


sys.exit(main())
