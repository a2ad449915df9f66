"""Copies that are ended in their middle, or that their agent leaves alone."""

import itertools

import ber
import pytest

from harness import (
    ACTIVE,
    DESTROY,
    IN_PROGRESS,
    NOT_IN_SERVICE,
    SUCCESS,
    TRANSFER_ERROR,
    CopyColumn,
    live_children,
    process_state,
    processes,
    wait_for,
)
from remotes import SCRIPTED, HeldCopy

ROW = HeldCopy.ROW
# What is left of a transfer must be gone by then.
BOUND = 2
# What the scripts take for their arguments, and that with a time limit that a test can wait for.
ARGUMENTS = "return [lrange [split [read stdin [gets stdin]] \\0] 0 end-1]"
SHORT_LIMIT = ARGUMENTS.replace("[lrange", "[list {*}[lrange").replace("end-1]", "end-2] 3]")


def row_status(host):
    return host.value(f"{CopyColumn.ROW}.{ROW}")


def limit_scripts(host):
    shared = host.scripts / "transfer.tcl"
    text = shared.read_text(encoding="utf-8")
    assert ARGUMENTS in text
    shared.write_text(text.replace(ARGUMENTS, SHORT_LIMIT), encoding="utf-8")


# --- Abort


def test_destroy_ends_every_process_of_the_transfer(host, held):
    assert host.destroy(ROW) == ber.NO_ERROR
    wait_for(lambda: not host.strays(), "no process of the transfer is left", BOUND)
    assert row_status(host) is None
    assert held.flash_files() == set()


def test_not_in_service_ends_every_process_of_the_transfer(host, held):
    pair = (f"{CopyColumn.ROW}.{ROW}", ber.integer(NOT_IN_SERVICE))
    assert host.set(pair) == ber.NO_ERROR
    wait_for(lambda: not host.strays(), "no process of the transfer is left", BOUND)
    # The worker reports nothing, so that nobody records an end.
    assert row_status(host) == NOT_IN_SERVICE
    assert host.copy_status(ROW) == IN_PROGRESS
    assert host.completions() == []
    assert held.flash_files() == set()


def test_copy_after_an_aborted_one_is_complete(host, held):
    assert host.destroy(ROW) == ber.NO_ERROR
    wait_for(lambda: not host.strays(), "no process of the transfer is left", BOUND)
    again = HeldCopy(host, held.protocol, held.verb)
    again.start()
    again.server.release()
    assert host.finish_copy(ROW) == SUCCESS
    assert again.destination() == again.content


def test_aborted_put_by_tftp_leaves_the_staged_file(host):
    held = HeldCopy(host, "tftp", "put")
    held.start()
    assert host.destroy(ROW) == ber.NO_ERROR
    wait_for(lambda: not host.strays(), "no process of the transfer is left", BOUND)
    assert (host.work_dir / "sent").read_bytes() == held.content


def test_aborted_worker_is_the_only_zombie_of_its_transfer(host, held):
    transfer = host.strays()
    [worker] = live_children(host.agent.pid)
    assert worker in transfer
    assert host.destroy(ROW) == ber.NO_ERROR
    wait_for(lambda: not host.strays(), "no process of the transfer is left", BOUND)
    left = [pid for pid in processes() if (process_state(pid) or "")[1:] == (host.agent.pid,)]
    assert left == [worker]
    assert held.flash_files() == set()


# --- The agent goes, the copy stays


def test_copy_whose_agent_is_killed_ends_by_itself(host, held):
    """Its status message is lost: nobody is there to receive it."""
    host.agent.kill()
    held.server.release()
    wait_for(lambda: not host.strays(), "the transfer ends", timeout=20)
    assert held.destination() == held.content
    host.start_agent()
    assert host.copy_status(ROW) is None


def test_copy_whose_agent_is_replaced_ends_by_itself(host, held):
    """Its status message reaches an agent that knows nothing of the row."""
    host.agent.kill()
    host.start_agent()
    held.server.release()
    wait_for(lambda: not host.strays(), "the transfer ends", timeout=20)
    assert held.destination() == held.content
    assert host.copy_status(ROW) is None


@pytest.mark.parametrize(
    "protocol, verb",
    [("tftp", "get"), *itertools.product(SCRIPTED, ("get", "put"))],
)
def test_copy_whose_agent_and_server_are_gone_ends_by_itself(host, protocol, verb):
    held = HeldCopy(host, protocol, verb)
    held.start()
    host.agent.kill()
    held.server.stop()
    wait_for(lambda: not host.strays(), "the transfer ends", timeout=25)
    assert held.flash_files() == set()
    host.start_agent()


def test_status_message_that_nobody_receives_leaves_the_row_in_progress(host, held):
    [worker] = live_children(host.agent.pid)
    host.message_socket.unlink()
    host.message_socket.mkdir()
    held.server.release()
    wait_for(lambda: not live_children(host.agent.pid), "the worker ends", timeout=20)
    assert process_state(worker) == ("Z", host.agent.pid)
    assert held.destination() == held.content
    assert host.copy_status(ROW) == IN_PROGRESS
    assert row_status(host) == ACTIVE
    assert host.set((f"{CopyColumn.ROW}.{ROW}", ber.integer(DESTROY))) == ber.NO_ERROR
    assert row_status(host) is None


# --- The time limit of the scripts


@pytest.mark.parametrize("protocol", SCRIPTED)
@pytest.mark.parametrize("verb", ["get", "put"])
def test_copy_that_stalls_ends_at_the_time_limit(host, protocol, verb):
    limit_scripts(host)
    held = HeldCopy(host, protocol, verb)
    held.start()
    assert host.finish_copy(ROW, timeout=10) == TRANSFER_ERROR
    assert not host.strays()
    assert held.flash_files() == set()


@pytest.mark.parametrize("protocol", SCRIPTED)
@pytest.mark.parametrize("verb", ["get", "put"])
def test_copy_that_stalls_without_an_agent_ends_at_the_time_limit(host, protocol, verb):
    limit_scripts(host)
    held = HeldCopy(host, protocol, verb)
    held.start()
    host.agent.kill()
    wait_for(lambda: not host.strays(), "the transfer ends", timeout=10)
    assert held.flash_files() == set()
    host.start_agent()
