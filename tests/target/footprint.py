"""Prints what the module takes on each architecture; exits with 1 when a limit is broken.

Usage: footprint.py CHECKOUT ARCHITECTURE=BUILD...
The module's sources are compiled with -fcallgraph-info=su in each build.
"""

import re
import subprocess
import sys
import tempfile
from collections import Counter
from pathlib import Path

KIB = 1024
# Of text and data together, on the device's architecture.
SIZE_LIMIT = {"i386": 96 * KIB}
FRAME_LIMIT = 40 * KIB
# A larger frame has its reason beside it in stack-frames.txt.
FRAME_WITHOUT_REASON = 8 * KIB
UNWANTED = ("libstdc++", "libgcc_s")


def output(*command) -> str:
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Module:
    """What the tools say about a built module."""

    def __init__(self, build):
        self.objects = build / "platform/apps/flash/CMakeFiles/flash_objects.dir"
        module = build / "lib/orvex_flash_mib.so"
        with tempfile.NamedTemporaryFile() as stripped:
            output("strip", "-o", stripped.name, module)
            sizes = output("size", "-B", stripped.name).splitlines()[1].split()
            self.file = Path(stripped.name).stat().st_size
        self.text, self.data, self.bss = map(int, sizes[:3])
        dynamic = output("readelf", "-dW", module)
        self.needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
        symbols = output("nm", "-D", "--defined-only", module).splitlines()
        self.exported = sorted(line.split()[-1].split("@")[0] for line in symbols)
        self.relocations = Counter(
            re.findall(r"^[0-9a-f]+ +[0-9a-f]+ +(R_\w+)", output("readelf", "-rW", module), re.M)
        )
        self.frames, self.calls = self._call_graph()

    def _call_graph(self):
        """Bytes of each frame, and which functions call which; calls by pointer are not known."""
        frames, calls = {}, {}
        graphs = list(self.objects.glob("*.ci"))
        assert graphs, f"{self.objects} holds no call graphs"
        for graph in graphs:
            text = graph.read_text()
            for name, label in re.findall(r'node: \{ title: "([^"]*)" label: "([^"]*)"', text):
                size = re.search(r"\\n(\d+) bytes", label)
                if size:
                    frames[name] = int(size[1])
            for caller, called in re.findall(
                r'edge: \{ sourcename: "([^"]*)" targetname: "([^"]*)"', text
            ):
                calls.setdefault(caller, set()).add(called)
        return frames, calls

    def deepest(self):
        """The path of calls with the largest frames together: bytes, and the functions."""
        known = {}

        def below(name, above):
            if name in above or name not in self.frames:
                return 0, ()
            if name not in known:
                paths = [below(called, above | {name}) for called in self.calls.get(name, ())]
                size, path = max(paths, default=(0, ()))
                known[name] = self.frames[name] + size, (name, *path)
            return known[name]

        return max(below(name, frozenset()) for name in self.frames)


def readable(name) -> str:
    """The function's own name, without namespaces, parameters and what the compiler made of it."""
    plain = output("c++filt", name.rpartition(":")[2]).strip()
    plain = plain.replace("(anonymous namespace)::", "")
    return re.sub(r"(\(.*|\[.*)", "", plain).strip()


def reasons(path) -> dict:
    lines = (line for line in path.read_text().splitlines() if line and not line.startswith("#"))
    return dict(line.split(None, 1) for line in lines)


def table(rows) -> None:
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    for row in rows:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())


def main() -> int:
    checkout = Path(sys.argv[1])
    modules = {}
    for argument in sys.argv[2:]:
        architecture, _, build = argument.partition("=")
        modules[architecture] = Module(Path(build))
    listed = sorted((checkout / "platform/apps/flash/exports.txt").read_text().split())
    reason = reasons(Path(__file__).with_name("stack-frames.txt"))
    broken = []

    def row(title, value):
        return title, *(str(value(module)) for module in modules.values())

    rows = [
        ("", *modules),
        row("text, bytes", lambda module: module.text),
        row("data, bytes", lambda module: module.data),
        row("bss, bytes", lambda module: module.bss),
        row("text and data, bytes", lambda module: module.text + module.data),
        row("stripped file, bytes", lambda module: module.file),
        row("exported names", lambda module: len(module.exported)),
        row("relocations", lambda module: sum(module.relocations.values())),
    ]
    kinds = sorted({kind for module in modules.values() for kind in module.relocations})
    rows += [row(f"  {kind}", lambda module, kind=kind: module.relocations[kind]) for kind in kinds]
    rows += [
        row("largest frame, bytes", lambda module: max(module.frames.values())),
        row("deepest path of direct calls, bytes", lambda module: module.deepest()[0]),
    ]
    table(rows)
    for architecture, module in modules.items():
        print(f"\n{architecture} needs: {' '.join(module.needed)}")
        print(f"{architecture} deepest path: {' > '.join(map(readable, module.deepest()[1]))}")
        large = {name: size for name, size in module.frames.items() if size > FRAME_WITHOUT_REASON}
        for name, size in sorted(large.items(), key=lambda frame: -frame[1]):
            function = readable(name)
            print(f"{architecture} frame of {size} bytes: {function}: {reason.get(function, '')}")
            if function not in reason:
                broken.append(f"{architecture}: {function} has no reason in stack-frames.txt")
            if size > FRAME_LIMIT:
                broken.append(f"{architecture}: the frame of {function} is over {FRAME_LIMIT} bytes")
        limit = SIZE_LIMIT.get(architecture)
        if limit is not None and module.text + module.data > limit:
            broken.append(f"{architecture}: text and data are over {limit} bytes")
        broken += [f"{architecture}: needs {name}" for name in module.needed
                   if name.startswith(UNWANTED)]
        broken += [f"{architecture}: exports {name}, which is not in exports.txt"
                   for name in sorted(set(module.exported) - set(listed))]
        broken += [f"{architecture}: does not export {name}"
                   for name in sorted(set(listed) - set(module.exported))]
    print()
    for text in broken:
        print(f"BROKEN: {text}")
    print("all limits hold" if not broken else f"{len(broken)} limits broken")
    return 1 if broken else 0


sys.exit(main())
