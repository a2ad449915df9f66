"""The event history of a running agent: what it records, for how long, and about which row."""

import json

import ber
import pytest

from harness import (
    CREATE_AND_WAIT,
    FROM_FLASH,
    PROGRAMS,
    SUCCESS,
    TFTP,
    CopyColumn,
    MiscColumn,
    Process,
    copy_columns,
    delete,
    live_children,
    wait_for,
)
from remotes import HeldCopy
from tftp_server import TftpServer

REFUSED = "Putting to  the tftp server failed : The server refuses access: as the test wants"


@pytest.fixture(name="quiet_host")
def fixture_quiet_host(idle_host):
    """A running host whose configuration says nothing about traces."""
    idle_host.trace_debug = False
    idle_host.start()
    return idle_host


def fail_a_copy(host, row=1):
    """A copy that the server refuses."""
    host.enter(TftpServer(host.address, error_at=(1, 2)))
    (host.flash() / "log").write_bytes(b"text")
    host.copy(row, command=FROM_FLASH, source="bootflash:log", destination="sent")


def records(host, *options):
    return [json.loads(line) for line in host.trace("--json", *options)]


def debug_records(host):
    return [record for record in records(host) if record["level"] == "debug"]


def test_a_walk_of_10000_variables_with_debug_on_leaves_the_earlier_failure(host):
    fail_a_copy(host)
    for number in range(1700):
        (host.flash() / f"file{number}").touch()
    walked = len(host.bulkwalk())
    while walked < 10_000:
        walked += len(host.bulkwalk())
    shown = host.trace()
    assert not any("Entering RESERVE1" in line for line in shown), "the walk was too short"
    assert any(REFUSED in line for line in shown)
    assert any(REFUSED in line for line in host.trace("--errors"))


def test_1200_polls_of_a_row_that_has_gone_leave_the_earlier_failure(quiet_host):
    fail_a_copy(quiet_host)
    for _ in range(1200):
        quiet_host.value(f"{CopyColumn.STATUS}.99")
    shown = records(quiet_host)
    assert any(REFUSED in record["text"] for record in shown)
    polled = [record for record in shown if "header_flashCopyEntry" in record["text"]]
    assert sum(record["repeats"] + 1 for record in polled) >= 1200


def test_debug_messages_are_not_recorded_unless_asked_for(quiet_host):
    quiet_host.value(f"{CopyColumn.STATUS}.1")
    assert [record["level"] for record in records(quiet_host)] == ["error"]


def test_configuration_asks_for_debug_messages(host):
    host.value(f"{CopyColumn.STATUS}.1")
    assert debug_records(host)


def test_running_agent_records_debug_messages_as_soon_as_it_is_told(quiet_host):
    for state, expected in (("on", True), ("off", False), ("on", True), ("default", False)):
        quiet_host.trace("--debug", state)
        quiet_host.clear_trace()
        quiet_host.value(f"{CopyColumn.STATUS}.1")
        assert bool(debug_records(quiet_host)) == expected


def test_running_worker_records_debug_messages_as_soon_as_it_is_told(quiet_host):
    copy = HeldCopy(quiet_host, "tftp", "get")
    copy.start()
    [worker] = live_children(quiet_host.agent.pid)
    quiet_host.trace("--debug", "on")
    copy.server.release()
    assert quiet_host.finish_copy(copy.ROW) == SUCCESS
    assert worker in {record["pid"] for record in debug_records(quiet_host)}


def test_a_reload_keeps_what_was_asked_for_and_a_restart_does_not(quiet_host):
    quiet_host.trace("--debug", "on")
    quiet_host.reload_agent()
    quiet_host.clear_trace()
    quiet_host.value(f"{CopyColumn.STATUS}.1")
    assert debug_records(quiet_host)
    quiet_host.agent.stop()
    quiet_host.start_agent()
    quiet_host.clear_trace()
    quiet_host.value(f"{CopyColumn.STATUS}.1")
    assert not debug_records(quiet_host)


def test_history_is_the_agents_users_though_the_agent_begins_as_root(user_host):
    user_host.start()
    assert (user_host.run_dir / "event-history").owner() == "nobody"
    user_host.agent.stop()
    user_host.start_agent()  # which begins as root once more
    assert user_host.trace()
    assert "no event history" not in user_host.logs()


def test_records_survive_a_restart_of_the_agent(host):
    fail_a_copy(host)
    host.agent.stop()
    host.start_agent()
    assert any(REFUSED in line for line in host.trace("--errors"))


# --- Rows


def texts_of(host, row):
    return [record["text"] for record in records(host, "--row", str(row))]


def test_records_of_a_copy_name_its_row_from_its_creation_to_its_end(host):
    fail_a_copy(host, row=4294967295)
    shown = records(host, "--row", "4294967295")
    assert {(record["table"], record["row"]) for record in shown} == {("copy", 4294967295)}
    assert len({record["pid"] for record in shown}) == 2, "the agent's and the worker's"
    texts = [record["text"] for record in shown]
    for text in ("set_orvexFlashCopyProtocol : Entering RESERVE1", REFUSED, "Copy is done"):
        assert any(text in each for each in texts), text


def test_records_of_one_row_are_not_those_of_another(host):
    fail_a_copy(host, row=7)
    host.create_copy(8, source="image.bin", destination="bootflash:image.bin")
    assert any(REFUSED in text for text in texts_of(host, 7))
    assert texts_of(host, 8)
    assert not any(REFUSED in text for text in texts_of(host, 8))


def test_records_of_a_deletion_name_the_row_of_their_table(host):
    (host.flash() / "old").touch()
    delete(host, 7, b"bootflash:old")
    shown = records(host, "--row", "7")
    assert {(record["table"], record["row"]) for record in shown} == {("miscOp", 7)}


def test_records_of_a_request_for_two_rows_name_none(host):
    host.clear_trace()
    pairs = [(f"{CopyColumn.ROW}.{row}", ber.integer(CREATE_AND_WAIT)) for row in (7, 8)]
    assert host.set(*pairs) == ber.NO_ERROR
    pairs = [(f"{MiscColumn.ROW}.7", ber.integer(CREATE_AND_WAIT))]
    pairs += copy_columns(7, server=host.address, source="a", destination="b", protocol=TFTP)
    assert host.set(*pairs) == ber.NO_ERROR
    shown = records(host)
    assert any("RESERVE1" in record["text"] for record in shown)
    assert all(record["row"] is None for record in shown)


def test_a_row_in_a_text_does_not_make_it_the_records_row(host):
    host.clear_trace()
    name = "bootflash:(index = 9)"
    host.create_copy(7, source="a", destination=name)
    assert any(name in text for text in texts_of(host, 7))
    assert texts_of(host, 9) == []


def test_follow_shows_a_copy_while_it_runs(host):
    log = host.directory / "followed"
    command = [PROGRAMS / "ruma-trace", "--follow", "--row", str(HeldCopy.ROW)]
    viewer = Process(command, log, host.directory, host.environment)
    try:
        copy = HeldCopy(host, "tftp", "get")
        copy.start()
        wait_for(lambda: "In set_orvexFlashCopyProtocol" in log.read_text(), "the row is set")
        assert "Copy is done with status" not in log.read_text()
        copy.server.release()
        host.finish_copy(copy.ROW)
        wait_for(lambda: "Copy is done with status" in log.read_text(), "the copy is done")
    finally:
        viewer.stop()
