"""The picture of docs/architecture.md is drawn from its source in the tree."""

import hashlib
import re
from pathlib import Path

DOCS = Path(__file__).resolve().parents[2] / "docs"


def test_picture_is_drawn_of_the_present_source():
    source = hashlib.sha256((DOCS / "processes.dot").read_bytes()).hexdigest()
    [drawn] = re.findall(r"processes\.dot, sha256 ([0-9a-f]{64})", (DOCS / "processes.svg").read_text())
    assert drawn == source, "run scripts/draw"


def test_picture_is_shown():
    assert "](processes.svg)" in (DOCS / "architecture.md").read_text()
