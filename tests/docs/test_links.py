"""Documents lead to one another: every link has a target, and the README leads to all of them."""

import re
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
README = REPOSITORY / "README.md"
DOCUMENTS = [README, REPOSITORY / "CONTRIBUTING.md", *sorted((REPOSITORY / "docs").glob("*.md"))]


def anchors(path):
    """The anchors of a document's headings, as they are made of them where it is shown."""
    headings = re.findall(r"^#+ (.*)$", path.read_text(), re.MULTILINE)
    return {re.sub(r"[^\w -]", "", each.lower()).replace(" ", "-") for each in headings}


@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: path.name)
def test_links_have_targets(document):
    for link in re.findall(r"\]\(([^)]+)\)", document.read_text()):
        name, _, anchor = link.partition("#")
        target = document.parent / name if name else document
        assert target.exists(), link
        assert not anchor or anchor in anchors(target), link


# In the text of another document, by its name alone.
@pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: path.name)
def test_documents_that_are_named_exist(document):
    for name in re.findall(r"`((?:docs/)?\w+\.md)`", document.read_text()):
        assert any((folder / name).exists() for folder in (REPOSITORY, document.parent)), name


def test_readme_leads_to_every_document_and_manual_page():
    text = README.read_text()
    for document in DOCUMENTS[1:]:
        assert f"]({document.relative_to(REPOSITORY)})" in text, document.name
    for page in (REPOSITORY / "man").glob("*.[1-8]"):
        assert f"`{page.stem}({page.suffix[1:]})`" in text, page.name
