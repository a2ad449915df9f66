"""The modules in a subagent of a stock master: what managers see, and what restarts do."""

import random
import re
import shutil
import signal
from pathlib import Path

import ber
import pytest
import test_bad_input as bad_input

from agentx import AgentxHost
from conftest import check_after, prepare
from harness import (
    BUILD,
    CREATE_AND_WAIT,
    DEVICE,
    FILE,
    IN_PROGRESS,
    NOTIFICATION,
    PARTITION,
    REPOSITORY,
    SCALAR,
    SCHEMES,
    SUCCESS,
    SYS_UP_TIME,
    TRAP_PORT,
    TRUE,
    V3_DIRECTIVES,
    CopyColumn,
    Host,
    MiscColumn,
    TrapReceiver,
    delete,
    wait_for,
)
from remotes import remote_of
from tftp_server import TftpServer

CONTENT = random.Random(9).randbytes(300_000)
COPY = dict(source="image.bin", destination="bootflash:image.bin")


@pytest.fixture(name="module_host", scope="module")
def fixture_module_host():
    host = AgentxHost()
    try:
        host.start()
        yield host
    finally:
        host.close()


@pytest.fixture(name="idle_host")
def fixture_idle_host():
    host = AgentxHost()
    try:
        yield host
    finally:
        host.close()


@pytest.fixture(name="host")
def fixture_host(idle_host):
    """A subagent of the test's own; whatever happens to its master, it ends as it was."""
    idle_host.start()
    descriptors = prepare(idle_host)
    yield idle_host
    check_after(idle_host, descriptors)


def held_copy(host, row=7, **columns):
    """A copy that stays in mid-transfer; its server."""
    server = host.enter(TftpServer(host.address, {"image.bin": CONTENT}, hold_at=10))
    host.start_copy(row, **COPY, **columns)
    wait_for(server.held.is_set, "the transfer reaches its middle")
    return server


def served_again(host):
    wait_for(host.served, "the master serves the module again", timeout=20)


# --- What managers see


def test_managers_see_the_same_inventory_as_in_an_agent(module_host):
    (module_host.flash() / "dir").mkdir()
    (module_host.flash() / "dir" / "image.bin").write_bytes(b"12345")
    wait_for(lambda: module_host.value(f"{FILE}.2.1.1.1") == 5, "the file is listed")
    alone = Host()
    try:
        (alone.flash() / "dir").mkdir()
        (alone.flash() / "dir" / "image.bin").write_bytes(b"12345")
        alone.start()
        wait_for(lambda: alone.value(f"{FILE}.2.1.1.1") == 5, "the file is listed")
        # Free space and times differ by themselves.
        varies = (f"{DEVICE}.3.", f"{PARTITION}.5.", f"{PARTITION}.14.", f"{FILE}.7.")
        expected, walked = (
            [pair for pair in host.walk() if not pair[0].startswith(varies)]
            for host in (alone, module_host)
        )
        assert len(expected) > 40
        assert walked == expected
        assert [name for name, _ in module_host.bulkwalk()] == [
            name for name, _ in module_host.walk()
        ]
    finally:
        alone.close()


@pytest.mark.parametrize("name", bad_input.ALL_CASES)
def test_refusals_are_those_of_an_agent_but_for_rows_that_are_absent(shared_host, name):
    """The status of FREE does not come through AgentX: that of RESERVE1 is the answer."""
    case = bad_input.ALL_CASES[name]
    free_answers = case.before == bad_input.ABSENT and case.answer == ber.NO_SUCH_NAME
    bad_input.check(
        shared_host, case, ber.WRONG_TYPE if free_answers and " given " in name else case.answer
    )


def test_1000_variables_in_one_request_are_answered(shared_host):
    answer = shared_host.sender.get(*[SCALAR] * 1000)
    assert [variable.value for variable in answer.variables] == [1] * 1000


def test_a_row_of_many_columns_is_created_in_one_request(shared_host):
    row = next(bad_input.ROWS)
    columns = [(f"{CopyColumn.ROW}.{row}", ber.integer(CREATE_AND_WAIT))]
    columns += [(f"{CopyColumn.SOURCE}.{row}", ber.octets(b"source"))]
    columns += [(f"{CopyColumn.DESTINATION}.{row}", ber.octets(b"bootflash:x"))]
    assert shared_host.set(*columns) == ber.NO_ERROR
    assert shared_host.value(f"{CopyColumn.SOURCE}.{row}") == b"source"


def test_the_users_of_the_master_are_nobody_here(idle_host):
    idle_host.master_directives = V3_DIRECTIVES
    idle_host.start()
    idle_host.snmpset(f"{CopyColumn.ROW}.7", "i", CREATE_AND_WAIT, version="3")
    with pytest.raises(Exception, match="inconsistentValue"):
        idle_host.snmpset(f"{CopyColumn.ROW}.7", "i", 1, version="3")
    said = idle_host.said()
    assert "invalidProtocol(4)" in said
    assert "user" not in "".join(line for line in said.splitlines() if "copy 7" in line)
    assert all("flashadmin" not in field for line in [*idle_host.error_log(), *idle_host.outcomes()] for field in line)


# --- Copies and deletes


def test_copies_are_recorded_and_files_deleted(module_host, module_tftp, ssh_server):
    (module_host.server_dir / "image.bin").write_bytes(CONTENT)
    assert module_host.copy(7, **COPY, **module_tftp.columns) == SUCCESS
    assert (module_host.flash() / "image.bin").read_bytes() == CONTENT
    remote = remote_of("sftp", ssh_server)
    (remote.home / "agentx.bin").write_bytes(CONTENT)
    columns = dict(source="agentx.bin", destination="bootflash:scripted.bin")
    assert module_host.copy(8, **columns, **remote.columns) == SUCCESS
    assert (module_host.flash() / "scripted.bin").read_bytes() == CONTENT
    assert delete(module_host, 3, b"bootflash:scripted.bin") == (ber.NO_ERROR, SUCCESS)
    assert not (module_host.flash() / "scripted.bin").exists()
    assert len(module_host.completions()) == 2


def test_an_abort_ends_the_copy(host):
    held_copy(host)
    assert host.destroy(7) == ber.NO_ERROR
    assert host.copy_status(7) is None


def test_completion_is_notified_through_the_master(idle_host):
    receiver = idle_host.enter(TrapReceiver(idle_host.address))
    idle_host.master_directives = [f"trap2sink {idle_host.address}:{TRAP_PORT} test"]
    idle_host.start()
    idle_host.start_atftpd()
    (idle_host.server_dir / "image.bin").write_bytes(CONTENT)
    assert idle_host.copy(7, notify=TRUE, **COPY) == SUCCESS

    def notified():
        variables = receiver.receive()
        return variables if variables[1].value == NOTIFICATION[1:] else None

    _uptime, _identity, status = wait_for(notified, "the notification", timeout=10)
    assert status.value == SUCCESS


# --- Reloads and restarts


def test_rows_and_copies_outlive_a_reload_of_the_subagent(host):
    server = held_copy(host)
    host.reload_agent()
    served_again(host)
    assert host.copy_status(7) == IN_PROGRESS
    server.release()
    assert host.finish_copy(7) == SUCCESS
    assert len(host.completions()) == 1


def test_rows_and_copies_outlive_a_reload_of_the_master(host):
    server = held_copy(host)
    host.master.signal(signal.SIGHUP)
    log = host.directory / "master.log"
    wait_for(lambda: log.read_text().count("NET-SNMP version") > 1, "the master has reloaded")
    served_again(host)
    assert host.copy_status(7) == IN_PROGRESS
    server.release()
    assert host.finish_copy(7) == SUCCESS


def test_rows_and_copies_outlive_a_restart_of_the_master(host):
    server = held_copy(host)
    host.master.stop()
    server.release()
    wait_for(host.completions, "the copy is recorded without a master")
    host.start_master()
    served_again(host)
    assert host.copy_status(7) == SUCCESS
    assert host.activate(7) == ber.NO_ERROR
    assert host.finish_copy(7) == SUCCESS


def test_a_refusal_is_reported_once_however_often_the_master_came_back(host):
    """With each master the agent registers everything again."""
    for _ in range(2):
        host.master.stop()
        host.start_master()
        served_again(host)
    assert host.set((f"{CopyColumn.ROW}.7", ber.integer(CREATE_AND_WAIT))) == ber.NO_ERROR
    assert host.activate(7) == ber.INCONSISTENT_VALUE
    assert [fields[1] for fields in host.outcomes()] == ["0x4a030001"]


def test_a_subagent_that_starts_first_waits_for_its_master(host):
    host.stop()
    host.start_daemon()
    host.launch_agent()
    wait_for(host.message_socket.exists, "the subagent has loaded the modules")
    host.start_master()
    served_again(host)
    assert host.value(SCALAR) == 1


def test_without_the_subagent_the_master_answers_no_such_object_and_the_rest(host):
    host.create_copy(7, **COPY)
    host.agent.stop()
    tags = [variable.tag for variable in host.variables(SCALAR, f"{DEVICE}.7.1", SYS_UP_TIME)]
    assert tags[:2] == [ber.NO_SUCH_OBJECT] * 2
    assert tags[2] not in (ber.NO_SUCH_OBJECT, ber.NO_SUCH_INSTANCE)
    host.start_agent()
    assert host.value(f"{DEVICE}.7.1") == b"bootflash"
    assert host.value(f"{MiscColumn.ROW}.7") is None
    assert host.copy_status(7) is None, "rows are the process's"


def test_a_subagent_restarts_while_a_copy_of_the_former_one_runs(host):
    server = held_copy(host)
    host.agent.stop()
    host.start_agent()
    server.release()
    wait_for(lambda: not host.strays(), "the former worker has ended", timeout=10)
    assert host.value(SCALAR) == 1


def test_a_killed_subagent_is_noticed_at_once(host):
    host.agent.kill()
    assert host.variables(SCALAR)[0].tag == ber.NO_SUCH_OBJECT
    host.start_agent()


def test_a_request_too_large_for_agentx_costs_the_module_seconds_only(host):
    """The master takes the subagent for hung, and leaves it until it comes back by itself."""
    answer = host.sender.get(*[SCALAR] * 2000, timeout=30)
    assert answer.error == ber.GEN_ERR
    served_again(host)
    assert host.value(SCALAR) == 1


# --- As a service


SERVICE = REPOSITORY / "packaging" / "systemd" / "orvex-flash-subagent.service"
SETTINGS = dict(
    line.split("=", 1) for line in SERVICE.read_text().splitlines() if re.match(r"\w+=", line)
)


def test_the_service_runs_what_is_tested_here(host):
    words = Path(f"/proc/{host.agent.pid}/cmdline").read_text().split("\0")
    started = SETTINGS["ExecStart"].split()
    assert started[0] == "/usr/sbin/snmpd"
    for option in (["-X"], ["-f"], ["-C"], ["-I", "dlmod"]):
        for line in (words, started):
            assert any(line[at : at + len(option)] == option for at in range(len(line))), option


def test_the_service_leaves_the_state_of_the_master_alone():
    name, _, directory = SETTINGS["Environment"].partition("=")
    assert name == "SNMP_PERSISTENT_DIR"
    assert SETTINGS["ExecStartPre"].split()[-1] == directory
    assert not directory.startswith("/var/lib/snmp")


def test_the_services_configuration_loads_both_modules_in_their_order(idle_host):
    installed = (BUILD / "packaging" / "agentx" / "orvex-flash-subagent.conf").read_text()
    loads = [line.split()[1:] for line in installed.splitlines() if line.startswith("dlmod ")]
    assert [name for name, _ in loads] == ["ruma_agent", "orvex_flash_mib"]
    others = [line for line in installed.splitlines() if line and line[0] != "#"]
    idle_host.agent_directives = [line for line in others if not line.startswith("dlmod ")]
    idle_host.start()
    assert idle_host.value(SCALAR) == 1


def test_it_connects_as_root_and_serves_and_reloads_as_another_user(idle_host):
    idle_host.agent_user = "nobody"
    for directory in (idle_host.run_dir, idle_host.state_dir, idle_host.work_dir):
        shutil.chown(directory, "nobody")
    for scheme in SCHEMES:
        shutil.chown(idle_host.flash(scheme), "nobody")
    idle_host.directory.chmod(0o755)
    # As Debian's master makes it: for root alone.
    idle_host.start()
    assert idle_host.agentx_socket.stat().st_uid == 0
    assert idle_host.agentx_socket.stat().st_mode & 0o022 == 0
    assert "\nUid:\t65534\t65534\t" in Path(f"/proc/{idle_host.agent.pid}/status").read_text()
    idle_host.reload_agent()
    served_again(idle_host)
    idle_host.start_atftpd()
    (idle_host.server_dir / "image.bin").write_bytes(CONTENT)
    assert idle_host.copy(7, **COPY) == SUCCESS
    assert (idle_host.flash() / "image.bin").owner() == "nobody"
