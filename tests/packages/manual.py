#!/usr/bin/python3
"""The command lines of the installation manual that tests run. As a program: the packages of the
distribution that they ask for."""

import sys
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parents[1]))

from documents import marked  # noqa: E402, pylint: disable=C0413

FIRST_COPY = marked("docs/install.md", "first-copy")
BUILD = marked("docs/install.md", "build")
SUBAGENT = marked("docs/install.md", "subagent")


def packages() -> list[str]:
    wanted = [line for line in FIRST_COPY + BUILD if line.startswith("apt-get install ")]
    lines = [line.replace("\\\n", " ").split() for line in wanted]
    return [word for line in lines for word in line[2:] if word[0] not in "-."]


if __name__ == "__main__":
    print(*packages(), sep="\n")
