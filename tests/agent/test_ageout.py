"""The age-out of copy rows, in an agent whose clock the test sets (libfaketime)."""

import os
import random
import signal
from pathlib import Path

import ber
import pytest

from harness import (
    CREATE_AND_GO,
    CREATE_AND_WAIT,
    IN_PROGRESS,
    NEW_ROW,
    SUCCESS,
    CopyColumn,
    copy_columns,
    live_children,
    wait_for,
)
from tftp_server import TftpServer

CONTENT = random.Random(3).randbytes(100_000)
COPY_ARGUMENTS = dict(source="image.bin", destination="bootflash:image.bin")
DAY = 86400
LINE_CARD_COPY = 2
INVALID_PROTOCOL = 4


class Clock:
    """The agent's clock: how far it is ahead of the machine's.

    Its time of day and its uptime go together, as in a machine that was asleep, or the time of day
    alone is set.
    """

    def __init__(self, host, uptime=True):
        [library] = Path("/usr/lib").glob("*/faketime/libfaketime.so.1")
        self._host = host
        self._offset = host.directory / "clock"
        self.advance_to(0)
        # What a worker starts shares memory with this library, in a directory that is not the worker's.
        host.agent_settings["confine"] = "false"
        host.agent_environment = {
            "LD_PRELOAD": str(library),
            "FAKETIME_TIMESTAMP_FILE": str(self._offset),
            "FAKETIME_NO_CACHE": "1",
            "FAKETIME_DONT_FAKE_MONOTONIC": "0" if uptime else "1",
        }

    def advance_to(self, seconds):
        """Sets the clock, and has the agent look at it when it runs."""
        following = self._offset.with_suffix(".new")
        following.write_text(f"{seconds:+d}", encoding="ascii")
        following.rename(self._offset)
        if self._host.agent is not None:
            # The agent deals with alarms that are due after each request.
            for _ in range(3):
                assert self._host.copy_status(0) is None


@pytest.fixture(name="clock")
def fixture_clock(idle_host):
    """The clock of a running host."""
    clock = Clock(idle_host)
    idle_host.start()
    return clock


@pytest.fixture(name="server")
def fixture_server(idle_host, clock):
    return idle_host.enter(TftpServer(idle_host.address, {"image.bin": CONTENT}))


def test_finished_row_goes_after_305_seconds_and_not_before(idle_host, clock, server):
    assert idle_host.copy(7, **COPY_ARGUMENTS) == SUCCESS
    clock.advance_to(300)
    assert idle_host.copy_status(7) == SUCCESS
    clock.advance_to(310)
    assert idle_host.copy_status(7) is None


def test_finished_row_goes_after_305_seconds_also_after_reloads(idle_host, clock, server):
    assert idle_host.copy(7, **COPY_ARGUMENTS) == SUCCESS
    for _ in range(2):
        idle_host.reload_agent()
    clock.advance_to(300)
    assert idle_host.copy_status(7) == SUCCESS
    clock.advance_to(310)
    assert idle_host.copy_status(7) is None


def test_copy_of_before_a_reload_goes_after_305_seconds(idle_host, clock):
    held = idle_host.enter(TftpServer(idle_host.address, {"image.bin": CONTENT}, hold_at=10))
    idle_host.start_copy(7, **COPY_ARGUMENTS)
    wait_for(held.held.is_set, "the transfer reaches its middle")
    idle_host.reload_agent()
    held.release()
    assert idle_host.finish_copy(7) == SUCCESS
    clock.advance_to(300)
    assert idle_host.copy_status(7) == SUCCESS
    clock.advance_to(310)
    assert idle_host.copy_status(7) is None


def test_row_that_is_being_filled_in_stays_for_305_seconds(idle_host, clock, server):
    assert idle_host.copy(7, **COPY_ARGUMENTS) == SUCCESS
    clock.advance_to(200)
    assert idle_host.set((f"{CopyColumn.ROW}.8", ber.integer(CREATE_AND_WAIT))) == ber.NO_ERROR
    clock.advance_to(310)
    assert idle_host.copy_status(7) is None
    assert idle_host.copy_status(8) == NEW_ROW
    clock.advance_to(620)
    assert idle_host.copy_status(8) is None


def test_outcome_without_a_transfer_counts_from_the_creation_of_its_row(idle_host, clock, server):
    """That of a refused activation, and of a line-card copy."""
    for row, columns in ((8, dict(protocol=LINE_CARD_COPY)), (9, dict(source=None))):
        idle_host.create_copy(row, **(COPY_ARGUMENTS | columns))
    assert idle_host.copy(7, **COPY_ARGUMENTS) == SUCCESS
    clock.advance_to(300)
    assert idle_host.activate(8) == ber.NO_ERROR
    assert idle_host.activate(9) == ber.INCONSISTENT_VALUE
    outcomes = [idle_host.copy_status(row) for row in (8, 9)]
    assert outcomes == [SUCCESS, INVALID_PROTOCOL]
    clock.advance_to(310)
    assert [idle_host.copy_status(row) for row in (8, 9)] == [None, None]


def test_row_in_progress_stays_when_the_clock_steps_a_day_forward(idle_host, clock):
    held = idle_host.enter(TftpServer(idle_host.address, {"image.bin": CONTENT}, hold_at=10))
    idle_host.start_copy(6, **COPY_ARGUMENTS)
    wait_for(held.held.is_set, "the transfer reaches its middle")
    [worker] = live_children(idle_host.agent.pid)
    os.kill(worker, signal.SIGKILL)
    held.release()
    # A row in progress holds up active, but not createAndGo.
    row_status = (f"{CopyColumn.ROW}.7", ber.integer(CREATE_AND_GO))
    pairs = [row_status, *copy_columns(7, server=idle_host.address, **COPY_ARGUMENTS)]
    assert idle_host.set(*pairs) == ber.NO_ERROR
    assert idle_host.finish_copy(7) == SUCCESS

    clock.advance_to(DAY)
    assert idle_host.copy_status(7) is None
    assert idle_host.copy_status(6) == IN_PROGRESS


@pytest.mark.parametrize("days", [-1, 1])
def test_copy_ends_when_the_time_of_day_is_set_in_its_middle(idle_host, days):
    clock = Clock(idle_host, uptime=False)
    idle_host.start()
    held = idle_host.enter(TftpServer(idle_host.address, {"image.bin": CONTENT}, hold_at=10))
    idle_host.start_copy(7, **COPY_ARGUMENTS)
    wait_for(held.held.is_set, "the transfer reaches its middle")
    clock.advance_to(days * DAY)
    assert idle_host.copy_status(7) == IN_PROGRESS
    held.release()
    assert idle_host.finish_copy(7) == SUCCESS
    assert (idle_host.flash() / "image.bin").read_bytes() == CONTENT
    clock.advance_to(0)
    assert idle_host.copy_status(7) == SUCCESS
