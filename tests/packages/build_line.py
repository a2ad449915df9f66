#!/usr/bin/python3
"""How to build from source, as the documents say it. As a program: the packages that it asks for."""

import re
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]


def commands() -> str:
    """The block of commands that installs what a build needs, builds and installs."""
    for document in [*sorted((REPOSITORY / "docs").glob("*.md")), REPOSITORY / "README.md"]:
        text = document.read_text(encoding="utf-8")
        fenced = re.findall(r"^```\w*\n(.*?)^```", text, re.MULTILINE | re.DOTALL)
        for block in fenced + re.findall(r"(?:^(?: {4}.*)\n)+", text, re.MULTILINE):
            if "apt-get install" in block and "cmake --install" in block:
                return "".join(line.removeprefix("    ") + "\n" for line in block.splitlines())
    raise AssertionError("no document says how to build from source")


def packages() -> list[str]:
    lines = commands().replace("\\\n", " ").splitlines()
    words = [line.split() for line in lines if line.startswith("apt-get install")]
    return [word for line in words for word in line[2:] if not word.startswith("-")]


if __name__ == "__main__":
    print(*packages(), sep="\n")
