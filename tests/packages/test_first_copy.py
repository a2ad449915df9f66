"""From nothing to a copy, by the very lines of the manual, without a service manager."""

import pytest
from first_copy import COPIED, IMAGE, follow, ground


@pytest.fixture(name="machine", scope="module")
def fixture_machine(make_installation, new):
    with ground(make_installation("first-copy"), new) as machine:
        yield machine


def test_commands_of_the_manual_lead_from_nothing_to_a_copy(machine):
    follow(machine)
    assert machine.path(COPIED).read_bytes() == IMAGE


def test_file_belongs_to_the_agents_user(machine):
    assert machine.owner(COPIED).startswith("Debian-snmp:ruma-flash")
