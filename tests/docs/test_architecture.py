"""docs/architecture.md says which folder of the host platform includes whose headers."""

import re
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
HOST = REPOSITORY / "platform" / "host"
COMMON = {"base", "config"}


def documented():
    text = (REPOSITORY / "docs" / "architecture.md").read_text()
    rows = re.findall(r"^\| ((?:`\w+`(?:, )?)*) ?\| ((?:`\w+/\w+\.h`(?:, )?)+) \|", text, re.MULTILINE)
    folders = []
    for left, headers in rows:
        folders = re.findall(r"\w+", left) or folders  # an empty field repeats the one above
        yield from ((folder, header) for folder in folders for header in re.findall(r"[\w/]+\.h", headers))


def included():
    for path in HOST.glob("*/*.*"):
        if path.suffix in (".cpp", ".h"):
            for header in re.findall(r'^#include "(\w+/\w+\.h)"', path.read_text(), re.MULTILINE):
                folder = header.partition("/")[0]
                if (HOST / folder).is_dir() and folder not in COMMON | {path.parent.name}:
                    yield path.parent.name, header


def test_headers_that_folders_include_of_one_another_are_listed():
    assert sorted(documented()) == sorted(set(included()))
