"""Command lines in the documents, for tests that run them as they stand there."""

import re
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[1]


def commands(block):
    """The command lines of a block, each with the lines that it continues on."""
    return re.split(r"(?<!\\)\n", block.rstrip("\n"))


def marked(document, marker):
    """The command lines of the block behind the comment that begins with `marker`."""
    text = (REPOSITORY / document).read_text(encoding="utf-8")
    blocks = re.findall(rf"^<!-- {marker}\b[^\n]*-->\n```\n(.*?)^```$", text, re.M | re.S)
    assert len(blocks) == 1, f"{document} has {len(blocks)} blocks {marker}"
    return commands(blocks[0])
