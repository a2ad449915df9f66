"""Workers that end without a report: what goes with them, and what becomes of their rows."""

import contextlib
import os
import signal
import subprocess

import ber
import pytest

from conftest import check_after, prepare
from harness import (
    ACTIVE,
    ADDRESSES,
    CREATE_AND_GO,
    IN_PROGRESS,
    NOT_IN_SERVICE,
    SCP,
    SUCCESS,
    TFTP,
    TRANSFER_ERROR,
    TRAP_PORT,
    TRUE,
    CopyColumn,
    TrapReceiver,
    copy_columns,
    live_children,
    process_state,
    processes,
    wait_for,
)
from remotes import PROTOCOLS, HeldCopy
from test_ageout import DAY, Clock
from tftp_server import TftpServer

ROW = HeldCopy.ROW
HELD = [(protocol, verb) for protocol in PROTOCOLS for verb in ("get", "put")]
# What is left of a transfer must be gone by then: a second's grace, and time to see it.
BOUND = 3
# In place of a transfer: tells its process group, which is its worker, under the source's name in the
# working directory. A confined worker may do as much.
STAND_IN = """#!/bin/sh
read -r _ _ _ _ group _ < /proc/$$/stat
echo $group > "${1##*:}"
exec sleep 1000
"""
STUBBORN = STAND_IN.replace("read", "trap '' TERM\nread", 1)
CONTENT = b"content" * 50_000
TFTP_COPY = {"protocol": TFTP, "source": "image.bin", "destination": "bootflash:image.bin"}


def reporting(host):
    host.agent_settings["report_lost_workers"] = "true"
    host.agent_directives = [f"trap2sink {host.address}:{TRAP_PORT} test"]


@pytest.fixture(name="reporting_host")
def fixture_reporting_host(idle_host):
    """A running host that reports lost workers, which leaves no zombie behind."""
    reporting(idle_host)
    idle_host.start()
    descriptors = prepare(idle_host)
    yield idle_host
    check_after(idle_host, descriptors)
    wait_for(lambda: not children(idle_host), "the agent has no zombie")


@pytest.fixture(name="station")
def fixture_station(reporting_host):
    """Receives the notifications of the host."""
    return reporting_host.enter(TrapReceiver(reporting_host.address))


@pytest.fixture(name="reported", params=HELD, ids=" ".join)
def fixture_reported(request, reporting_host, station):
    """A copy that stands still in its middle and is to be notified."""
    copy = HeldCopy(reporting_host, *request.param)
    copy.server.columns["notify"] = TRUE
    copy.start()
    return copy


def children(host):
    """The agent's children, zombies as well."""
    return [pid for pid in processes() if (process_state(pid) or ())[1:] == (host.agent.pid,)]


def worker_of(host):
    [worker] = live_children(host.agent.pid)
    return worker


def notified(station, timeout=5.0):
    """The copy status of the next completion notification; None when none comes."""
    while (variables := station.receive(timeout)) is not None:
        for variable in variables:
            if f".{variable.name}" == CopyColumn.STATUS:
                return variable.value
    return None


def transfer_is_gone(host):
    wait_for(lambda: not host.strays(), "no process of the transfer is left", BOUND)


def stand_in(host, script=STAND_IN):
    """Lets copies by SCP stand still at once, without a server."""
    (host.scripts / "scp.expect").write_text(script, encoding="ascii")


def columns_of(row):
    names = {"source": f"source{row}", "destination": f"bootflash:file{row}"}
    return names | {"protocol": SCP, "user": "user", "password": "word"}


def stand_in_worker(host, row):
    """The worker of a row that a stand-in serves."""
    name = host.work_dir / f"source{row}"
    told = wait_for(lambda: name.exists() and name.read_text(), "the stand-in runs")
    worker = int(told)
    name.unlink()
    assert worker in live_children(host.agent.pid)
    return worker


def start_standing_in(host, row, **columns):
    host.start_copy(row, **columns_of(row), **columns)
    return stand_in_worker(host, row)


def go(host, *rows):
    """createAndGo of several rows in one request."""
    pairs = []
    for row in rows:
        pairs.append((f"{CopyColumn.ROW}.{row}", ber.integer(CREATE_AND_GO)))
        pairs += copy_columns(row, server=host.address, **columns_of(row))
    return host.set(*pairs)


# --- The transfer goes with its worker, whatever the configuration says


def test_killed_worker_takes_every_process_of_its_transfer_with_it(host, held):
    worker = worker_of(host)
    os.kill(worker, signal.SIGKILL)
    transfer_is_gone(host)
    if held.protocol != "tftp":
        assert held.flash_files() == set()
    if held.verb == "get":
        assert held.destination() is None
    # Nothing else is done about it.
    assert host.copy_status(ROW) == IN_PROGRESS
    assert host.value(f"{CopyColumn.ROW}.{ROW}") == ACTIVE
    assert children(host) == [worker]
    assert host.completions() == []


def test_processes_that_ignore_sigterm_are_killed(host):
    stand_in(host, STUBBORN)
    os.kill(start_standing_in(host, ROW), signal.SIGKILL)
    transfer_is_gone(host)


@pytest.mark.provokes("ruma_agent: copy … failed: …: its worker has ended without a report: …")
def test_lost_worker_is_in_the_agents_log(host):
    stand_in(host)
    os.kill(start_standing_in(host, ROW), signal.SIGKILL)
    wait_for(lambda: "its worker has ended without a report" in host.logs(), "the agent logs it")


def test_next_copy_is_held_up_without_reports(host):
    stand_in(host)
    os.kill(start_standing_in(host, ROW), signal.SIGKILL)
    transfer_is_gone(host)
    host.create_copy(8, **columns_of(8))
    assert host.activate(8) == ber.GEN_ERR
    assert host.destroy(ROW) == ber.NO_ERROR
    assert host.activate(8) == ber.NO_ERROR
    assert host.destroy(8) == ber.NO_ERROR
    transfer_is_gone(host)


# --- The row is completed


def test_lost_worker_completes_its_row_as_a_failed_transfer(reporting_host, station, reported):
    os.kill(worker_of(reporting_host), signal.SIGKILL)
    assert reporting_host.finish_copy(ROW) == TRANSFER_ERROR
    assert notified(station) == TRANSFER_ERROR
    wait_for(lambda: not children(reporting_host), "the worker is reaped")
    transfer_is_gone(reporting_host)
    if reported.protocol != "tftp":
        assert reported.flash_files() == set()
    assert len(reporting_host.completions()) == 1
    assert notified(station, timeout=0.3) is None


def test_next_copy_starts_after_a_lost_worker(reporting_host):
    held = HeldCopy(reporting_host, "tftp", "get")
    held.start()
    os.kill(worker_of(reporting_host), signal.SIGKILL)
    assert reporting_host.finish_copy(ROW) == TRANSFER_ERROR
    server = reporting_host.enter(TftpServer(reporting_host.address, {"image.bin": CONTENT}))
    assert reporting_host.copy(8, server=reporting_host.address, **TFTP_COPY) == SUCCESS
    assert len(server.requests) == 1


def test_row_of_a_lost_worker_ages_out(idle_host):
    reporting(idle_host)
    clock = Clock(idle_host)
    idle_host.start()
    stand_in(idle_host)
    os.kill(start_standing_in(idle_host, ROW), signal.SIGKILL)
    assert idle_host.finish_copy(ROW) == TRANSFER_ERROR
    clock.advance_to(300)
    assert idle_host.copy_status(ROW) == TRANSFER_ERROR
    clock.advance_to(310)
    assert idle_host.copy_status(ROW) is None


@pytest.mark.parametrize("days", [-1, 1])
def test_lost_worker_is_reported_when_the_time_of_day_is_set_meanwhile(idle_host, days):
    reporting(idle_host)
    clock = Clock(idle_host, uptime=False)
    idle_host.start()
    stand_in(idle_host)
    worker = start_standing_in(idle_host, ROW)
    clock.advance_to(days * DAY)
    os.kill(worker, signal.SIGKILL)
    assert idle_host.finish_copy(ROW) == TRANSFER_ERROR
    wait_for(lambda: not children(idle_host), "the worker is reaped")


def test_processes_that_ignore_sigterm_are_killed_before_the_row_is_completed(reporting_host):
    stand_in(reporting_host, STUBBORN)
    os.kill(start_standing_in(reporting_host, ROW), signal.SIGKILL)
    assert reporting_host.finish_copy(ROW) == TRANSFER_ERROR
    wait_for(lambda: not reporting_host.strays(), "what was killed is gone", timeout=0.5)


def test_worker_whose_message_nobody_received_is_lost(reporting_host):
    held = HeldCopy(reporting_host, "tftp", "get")
    held.start()
    reporting_host.message_socket.unlink()
    reporting_host.message_socket.mkdir()
    held.server.release()
    assert reporting_host.finish_copy(ROW) == TRANSFER_ERROR
    assert held.destination() == held.content


def test_worker_that_reports_is_not_lost(reporting_host, station):
    reporting_host.enter(TftpServer(reporting_host.address, {"image.bin": CONTENT}))
    for row in range(1, 11):
        columns = {"server": reporting_host.address, "notify": TRUE}
        assert reporting_host.copy(row, **columns, **TFTP_COPY) == SUCCESS
        assert notified(station) == SUCCESS
    assert len(reporting_host.completions()) == 10
    assert "without a report" not in reporting_host.logs()


def test_stopped_worker_is_not_lost(reporting_host):
    held = HeldCopy(reporting_host, "tftp", "get")
    held.start()
    stopped = worker_of(reporting_host)
    os.kill(stopped, signal.SIGSTOP)
    # Another one is, so that the agent has looked at both.
    stand_in(reporting_host)
    assert go(reporting_host, 8) == ber.NO_ERROR
    os.kill(stand_in_worker(reporting_host, 8), signal.SIGKILL)
    assert reporting_host.finish_copy(8) == TRANSFER_ERROR
    assert reporting_host.copy_status(ROW) == IN_PROGRESS
    os.kill(stopped, signal.SIGCONT)
    held.server.release()
    assert reporting_host.finish_copy(ROW) == SUCCESS
    assert held.destination() == held.content


# --- Several workers


@pytest.mark.parametrize("order", [(0, 1, 2), (2, 0, 1)])
def test_workers_of_one_request_are_told_apart(reporting_host, order):
    stand_in(reporting_host)
    rows = [8, 3000000000, 5]
    assert go(reporting_host, *rows) == ber.NO_ERROR
    workers = [stand_in_worker(reporting_host, row) for row in rows]
    for position, number in enumerate(order):
        os.kill(workers[number], signal.SIGKILL)
        assert reporting_host.finish_copy(rows[number]) == TRANSFER_ERROR
        for other in order[position + 1 :]:
            assert reporting_host.copy_status(rows[other]) == IN_PROGRESS
    assert not reporting_host.strays()


def test_all_workers_are_lost_at_once(reporting_host):
    stand_in(reporting_host)
    rows = range(1, 11)
    for row in rows:
        assert go(reporting_host, row) == ber.NO_ERROR
    workers = [stand_in_worker(reporting_host, row) for row in rows]
    for worker in workers:
        os.kill(worker, signal.SIGKILL)
    for row in rows:
        assert reporting_host.finish_copy(row) == TRANSFER_ERROR
    assert len(reporting_host.completions()) == len(rows)
    transfer_is_gone(reporting_host)


# --- Aborts


def test_aborted_worker_whose_row_is_destroyed_is_reaped_and_not_notified(
    reporting_host, station, reported
):
    assert reporting_host.destroy(ROW) == ber.NO_ERROR
    transfer_is_gone(reporting_host)
    wait_for(lambda: not children(reporting_host), "the worker is reaped")
    assert reporting_host.copy_status(ROW) is None
    assert reported.flash_files() == set()
    assert notified(station, timeout=0.3) is None


def test_aborted_worker_whose_row_stays_completes_it(reporting_host, station, reported):
    pair = (f"{CopyColumn.ROW}.{ROW}", ber.integer(NOT_IN_SERVICE))
    assert reporting_host.set(pair) == ber.NO_ERROR
    assert reporting_host.finish_copy(ROW) == TRANSFER_ERROR
    assert reporting_host.value(f"{CopyColumn.ROW}.{ROW}") == NOT_IN_SERVICE
    assert notified(station) == TRANSFER_ERROR
    assert reported.flash_files() == set()
    transfer_is_gone(reporting_host)


def test_row_created_again_is_not_completed_by_its_former_worker(reporting_host, station):
    stand_in(reporting_host)
    former = start_standing_in(reporting_host, ROW, notify=TRUE)
    os.kill(former, signal.SIGSTOP)  # so that it does not end when its row is destroyed
    assert reporting_host.destroy(ROW) == ber.NO_ERROR
    held = HeldCopy(reporting_host, "tftp", "get")
    held.server.columns["notify"] = TRUE
    held.start()
    os.kill(former, signal.SIGKILL)
    wait_for(lambda: former not in children(reporting_host), "the former worker is reaped")
    assert reporting_host.copy_status(ROW) == IN_PROGRESS
    held.server.release()
    assert reporting_host.finish_copy(ROW) == SUCCESS
    assert notified(station) == SUCCESS
    assert notified(station, timeout=0.3) is None


def test_report_of_a_former_worker_does_not_complete_a_row_that_was_created_again(host):
    def start(row):
        address = ADDRESSES.take()
        server = host.enter(TftpServer(address, {"image.bin": CONTENT}, hold_at=10))
        status = (f"{CopyColumn.ROW}.{row}", ber.integer(CREATE_AND_GO))
        assert host.set(status, *copy_columns(row, server=address, **TFTP_COPY)) == ber.NO_ERROR
        wait_for(server.held.is_set, "the transfer reaches its middle")
        return server

    former_server = start(7)
    [former] = live_children(host.agent.pid)
    start(8)
    # Ends the worker that was started last, not the row's own.
    assert host.destroy(7) == host.destroy(8) == ber.NO_ERROR
    server = start(7)
    former_server.release()
    wait_for(lambda: former not in children(host), "the former worker has reported", timeout=20)
    assert host.copy_status(7) == IN_PROGRESS
    server.release()
    assert host.finish_copy(7) == SUCCESS


# --- Starts without a worker


@contextlib.contextmanager
def no_more_processes(host):
    """Every fork of the agent fails. Its own user says so, since it takes no rights."""

    def prlimit(*options):
        command = ["prlimit", f"--pid={host.agent.pid}", *options]
        settings = {"user": host.agent_user, "cwd": "/", "text": True}
        return subprocess.run(command, check=True, stdout=subprocess.PIPE, **settings).stdout

    former = prlimit("--nproc", "--noheadings", "--output=SOFT").strip()
    prlimit("--nproc=0:")
    yield
    prlimit(f"--nproc={former}:")


@pytest.mark.provokes("ruma_agent: copy … failed: …: its worker could not be forked: …")
def test_start_whose_fork_fails_is_reported(user_host):
    reporting(user_host)
    user_host.start()
    station = user_host.enter(TrapReceiver(user_host.address))
    user_host.enter(TftpServer(user_host.address, {"image.bin": CONTENT}))
    with no_more_processes(user_host):
        user_host.start_copy(ROW, notify=TRUE, **TFTP_COPY)
        assert user_host.finish_copy(ROW) == TRANSFER_ERROR
    assert notified(station) == TRANSFER_ERROR
    assert "its worker could not be forked" in user_host.logs()
    assert user_host.copy(8, notify=TRUE, **TFTP_COPY) == SUCCESS
    assert notified(station) == SUCCESS
    assert children(user_host) == []


def test_start_whose_fork_fails_stays_in_progress_without_reports(user_host):
    user_host.start()
    with no_more_processes(user_host):
        user_host.start_copy(ROW, **TFTP_COPY)
        wait_for(lambda: "could not be forked" in user_host.logs(), "the agent has seen it")
    assert user_host.copy_status(ROW) == IN_PROGRESS
    assert user_host.completions() == []
    assert user_host.destroy(ROW) == ber.NO_ERROR
    assert user_host.copy_status(ROW) is None


# --- Reloads


@pytest.fixture(name="reloaded_host")
def fixture_reloaded_host(idle_host):
    """A running host that reports lost workers and whose agent may be reloaded: with somebody to
    notify, the stock agent opens a socket more each time."""
    reporting(idle_host)
    idle_host.start()
    return idle_host


def test_worker_lost_during_a_reload_is_reported_once(reloaded_host):
    station = reloaded_host.enter(TrapReceiver(reloaded_host.address))
    # Not done with its transfer for a second after its death.
    stand_in(reloaded_host, STUBBORN)
    worker = start_standing_in(reloaded_host, ROW, notify=TRUE)
    os.kill(worker, signal.SIGKILL)
    for _ in range(3):
        reloaded_host.reload_agent()
    assert reloaded_host.finish_copy(ROW) == TRANSFER_ERROR
    assert notified(station) == TRANSFER_ERROR
    assert notified(station, timeout=0.3) is None
    assert len(reloaded_host.completions()) == 1
    assert children(reloaded_host) == []


def test_worker_started_before_a_reload_is_watched_after_it(reloaded_host):
    stand_in(reloaded_host)
    worker = start_standing_in(reloaded_host, ROW)
    reloaded_host.reload_agent()
    assert reloaded_host.copy_status(ROW) == IN_PROGRESS
    os.kill(worker, signal.SIGKILL)
    assert reloaded_host.finish_copy(ROW) == TRANSFER_ERROR
    assert len(reloaded_host.completions()) == 1
    assert children(reloaded_host) == []


# --- The watch itself


def test_watching_leaves_no_trace(idle_host):
    """A fork for another reason, too, makes the platform look at the rows."""
    other = ".1.3.6.1.4.1.32473.99"
    idle_host.agent_directives = [f"pass {other} /bin/true"]
    idle_host.start()
    idle_host.create_copy(ROW, **columns_of(ROW))
    idle_host.clear_trace()
    assert idle_host.value(other + ".0") is None
    assert idle_host.trace() == []
