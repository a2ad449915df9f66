"""What docs/install.md says is what the packages bring. tests/packages runs its commands."""

import ast
import re

import pytest

from documents import REPOSITORY, marked

PACKAGING = REPOSITORY / "packaging"
DOCUMENT = (REPOSITORY / "docs" / "install.md").read_text()
FIRST_COPY = marked("docs/install.md", "first-copy")


def test_six_commands_at_most_lead_to_a_copy():
    assert len(FIRST_COPY) <= 6
    # Nor do several hide in one line.
    assert [line for line in FIRST_COPY if ";" in line or "&" in line] == []


def test_the_copy_is_begun_and_looked_at_as_an_snmpv3_user():
    tools = [line for line in FIRST_COPY if line.startswith("snmp")]
    assert [line.split()[0] for line in tools] == ["snmpset", "snmpget"]
    assert all("-v 3 -l authPriv" in line for line in tools)


def directories():
    """Path, mode, owner and group of the directories that the packages make for the platform."""
    for line in (PACKAGING / "systemd/tmpfiles.d/orvex-flash-mib.conf").read_text().splitlines():
        kind, path, mode, owner, group = (line.split() + [""] * 5)[:5]
        if kind == "d" and re.match("/var/lib/ruma/|/run/ruma", path):
            yield path, mode.lstrip("0"), owner, group


@pytest.mark.parametrize("path, mode, owner, group", directories())
def test_directory_is_described_as_it_is_made(path, mode, owner, group):
    name = path.removeprefix("/var/lib/ruma/") if path.endswith(("slot0", "logflash")) else path
    [row] = [line for line in DOCUMENT.splitlines() if line.startswith("|") and f"`{name}`" in line]
    assert f"`{owner}`" in row and re.search(rf"\b0?{mode}\b", row)
    assert group == owner or f"`{group}`" in row


def drop_in(key):
    text = (PACKAGING / "systemd/snmpd.service.d/10-orvex-flash.conf").read_text()
    return " ".join(re.findall(rf"^{key}=(.*)$", text, re.MULTILINE))


CHANGES = DOCUMENT.partition("### What changes for the agent")[2].partition("\n### ")[0]


def test_limits_of_the_agents_service_are_those_of_its_drop_in():
    for path in drop_in("ReadWritePaths").split():
        assert f"`{path.lstrip('-')}`" in CHANGES, path
    assert f"{drop_in('MemoryMax').rstrip('M')} MiB" in CHANGES
    assert f"{drop_in('TasksMax')} tasks" in CHANGES
    assert f"`UMask={drop_in('UMask')}`" in CHANGES


def excepted():
    """The tables that may differ once the packages are installed, by the test that compares them."""
    tree = ast.parse((REPOSITORY / "tests/services/test_agent.py").read_text())
    tables = {}
    for node in tree.body:
        if isinstance(node, ast.Assign) and node.targets[0].id in ("CHANGED", "GROWN"):
            tables |= ast.literal_eval(node.value)
    return {(what.partition(":")[0], oid) for oid, what in tables.items()}


def test_tables_that_differ_are_those_that_the_test_of_the_agent_excepts():
    rows = re.findall(r"^\| `([\w-]+)` \| `(\.1\.3\.[\d.]+)` \|", CHANGES, re.MULTILINE)
    assert len(rows) > 5
    assert sorted(rows) == sorted(excepted())
