"""The commands of docs/install.md that lead from nothing to a copy. tests/packages runs them."""

from documents import marked

FIRST_COPY = marked("docs/install.md", "first-copy")


def test_six_commands_at_most_lead_to_a_copy():
    assert len(FIRST_COPY) <= 6
    # Nor do several hide in one line.
    assert [line for line in FIRST_COPY if ";" in line or "&" in line] == []


def test_the_copy_is_begun_and_looked_at_as_an_snmpv3_user():
    tools = [line for line in FIRST_COPY if line.startswith("snmp")]
    assert [line.split()[0] for line in tools] == ["snmpset", "snmpget"]
    assert all("-v 3 -l authPriv" in line for line in tools)
