"""What removal of the packages leaves of the agent's service."""

import pytest
from booted import MAIN_PACKAGES


@pytest.fixture(name="removed", scope="module")
def fixture_removed(make_machine, packages):
    machine = make_machine()
    machine.install_and_set_up(packages)
    assert machine.status_of("snmpd")["NoNewPrivs"] == "1"
    machine.apt("remove", *MAIN_PACKAGES)
    return machine


def test_agent_runs_outside_of_the_sandbox_at_once(removed):
    assert removed.status_of("snmpd")["NoNewPrivs"] == "0"
    assert removed.property_of("snmpd", "WorkingDirectory") == ""
