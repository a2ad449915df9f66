"""The manual's own lines on a machine that boots and has nothing yet: to a first copy, to the deployment
as an AgentX subagent, and to the removal. In the order of these tests."""

import pytest
from booted import wait_for
from first_copy import COPIED, IMAGE, follow, ground
from harness import SUCCESS, SYS_UP_TIME
from installation import STATION
from manual import SUBAGENT
from tftp_server import TftpServer

AGENT, UNIT = "snmpd", "orvex-flash-subagent"
DROP_IN = "/snmpd.service.d/10-orvex-flash.conf"


@pytest.fixture(name="fresh", scope="module")
def fixture_fresh(make_machine, packages):
    machine = make_machine()
    machine.run("systemctl", "disable", "--now", "atftpd.socket")  # whose port the server takes
    with ground(machine, packages):
        yield machine


# -- a first copy


def test_commands_of_the_manual_lead_from_nothing_to_a_copy(fresh):
    follow(fresh)
    assert fresh.path(COPIED).read_bytes() == IMAGE
    assert fresh.owner(COPIED).startswith("Debian-snmp:ruma-flash")


# -- a subagent


def mapped(machine, unit) -> str:
    """The files that the main process has in memory."""
    return machine.path(f"/proc/{machine.pid(unit)}/maps").read_text(encoding="utf-8")


@pytest.fixture(name="deployed", scope="module")
def fixture_deployed(fresh):
    fresh.set_up()
    fresh.run("bash", "-e", "-c", "\n".join(SUBAGENT))
    fresh.await_inventory()
    return fresh


def test_subagent_has_the_modules_and_the_master_has_not(deployed):
    for name in ("ruma_agent.so", "orvex_flash_mib.so"):
        assert name in mapped(deployed, UNIT)
        assert name not in mapped(deployed, AGENT)


def test_subagent_runs_as_the_agents_user_in_the_staging_directory(deployed):
    user = deployed.run("id", "-u", "Debian-snmp").strip()
    assert deployed.status_of(UNIT)["Uid"].split() == [user] * 4
    directory = deployed.run("readlink", f"/proc/{deployed.pid(UNIT)}/cwd").strip()
    assert directory == "/var/lib/ruma/staging"


def test_copy_by_the_subagent_succeeds(deployed):
    with deployed.network():
        server = TftpServer(STATION, {"image.bin": IMAGE})
    with server:
        deployed.begin_copy(31, "image.bin", "bootflash:subagent.bin")
        assert deployed.copy_result(31) == SUCCESS
    assert deployed.path("/var/lib/ruma/bootflash/subagent.bin").read_bytes() == IMAGE


def test_subagent_is_restarted_with_the_master(deployed):
    former = deployed.pid(UNIT)
    deployed.run("systemctl", "restart", AGENT)
    wait_for(lambda: deployed.running(UNIT) not in (0, former), "it is started again", timeout=20)
    deployed.await_inventory()


def test_subagent_stops_and_comes_back_with_the_master(deployed):
    deployed.run("systemctl", "stop", AGENT)
    wait_for(lambda: deployed.running(UNIT) == 0, "it has ended", timeout=20)
    deployed.run("systemctl", "start", AGENT)
    deployed.await_inventory()


def test_subagent_comes_back_at_boot(deployed):
    deployed.reboot()
    deployed.await_inventory()
    assert deployed.pid(UNIT)


# -- removed


@pytest.fixture(name="removed", scope="module")
def fixture_removed(deployed):
    deployed.run("systemctl", "disable", "--now", UNIT)
    deployed.apt("remove", "orvex-flash-mib")
    wait_for(lambda: deployed.get(SYS_UP_TIME), "the agent answers", timeout=20)
    return deployed


def test_agent_is_out_of_the_sandbox_after_the_removal(removed):
    assert DROP_IN not in removed.property_of(AGENT, "DropInPaths")
    assert removed.status_of(AGENT)["NoNewPrivs"] == "0"


@pytest.fixture(name="again", scope="module")
def fixture_again(removed, packages):
    removed.install(packages, "orvex-flash-mib")
    return removed


def test_service_manager_knows_the_sandbox_of_packages_that_are_installed_again(again):
    assert DROP_IN in again.property_of(AGENT, "DropInPaths")
    assert again.property_of(AGENT, "NeedDaemonReload") == "no"


def test_file_that_the_deployment_removed_does_not_come_back(again):
    fragments = {file.name for file in again.path("/etc/snmp/snmpd.conf.d").iterdir()}
    assert "orvex-flash.conf" in fragments
    assert "orvex-flash-modules.conf" not in fragments
