"""Whom an abort ends while several copies run: the worker forked last, and never a process that has
got the number of that worker after its end."""

import contextlib
import ctypes
import os
import signal
from pathlib import Path

import ber
import pytest

from harness import (
    ADDRESSES,
    CREATE_AND_GO,
    DESTROY,
    IN_PROGRESS,
    NOT_IN_SERVICE,
    SUCCESS,
    TFTP,
    CopyColumn,
    copy_columns,
    live_children,
    process_state,
    wait_for,
)
from tftp_server import TftpServer

# In the order in which their workers are forked.
FIRST, MIDDLE, LAST = 1, 2, 3
aborts = pytest.mark.parametrize("abort", [DESTROY, NOT_IN_SERVICE])


class Copies:
    """Three copies by TFTP that run at once and stand still in their middle, a worker each."""

    def __init__(self, host):
        self.host = host
        self.workers = {}
        self._servers = {}
        for row in (FIRST, MIDDLE, LAST):
            self._start(row)

    def _start(self, row) -> None:
        address = ADDRESSES.take()
        files = {"large": self.content(row)}
        server = self.host.enter(TftpServer(address, files, hold_at=10))
        before = live_children(self.host.agent.pid)
        # Unlike active, createAndGo starts a copy while others run.
        pairs = [(f"{CopyColumn.ROW}.{row}", ber.integer(CREATE_AND_GO))]
        names = {"source": "large", "destination": f"bootflash:{row}"}
        pairs += copy_columns(row, protocol=TFTP, server=address, **names)
        assert self.host.set(*pairs) == ber.NO_ERROR
        assert wait_for(server.held.is_set, f"copy {row} reaches its middle", timeout=20)
        started = set(live_children(self.host.agent.pid)) - set(before)
        [self.workers[row]] = started
        self._servers[row] = server

    @staticmethod
    def content(row) -> bytes:
        return b"%d" % row * 256 * 1024

    def received(self, row):
        """What has arrived; None when there is no such file."""
        path = self.host.flash() / str(row)
        return path.read_bytes() if path.exists() else None

    def release(self, row) -> None:
        self._servers[row].release()

    def finish(self, row) -> None:
        """Lets a copy end; its worker is reaped."""
        self.release(row)
        assert self.host.finish_copy(row) == SUCCESS
        assert process_state(self.workers[row]) is None

    def abort(self, row, how) -> None:
        assert self.host.copy_status(row) == IN_PROGRESS
        assert self.host.set((f"{CopyColumn.ROW}.{row}", ber.integer(how))) == ber.NO_ERROR

    def worker_ends(self, row) -> None:
        pid = self.workers[row]
        # Well before it would give up the silent server by itself.
        wait_for(lambda: pid not in live_children(self.host.agent.pid), f"worker {row} ends", 10)


@pytest.fixture(name="copies")
def fixture_copies(host):
    return Copies(host)


@pytest.fixture(name="guarded")
def fixture_guarded(copies):
    """Only the copy in the middle still runs; the worker forked last was the first to be reaped."""
    copies.finish(LAST)
    copies.finish(FIRST)
    return copies


class CloneArguments(ctypes.Structure):
    _fields_ = [
        (name, ctypes.c_uint64)
        for name in (
            "flags", "pidfd", "child_tid", "parent_tid", "exit_signal", "stack", "stack_size", "tls",
            "set_tid", "set_tid_size", "cgroup",
        )
    ]


SYS_CLONE3 = 435  # on every architecture


@contextlib.contextmanager
def bystander(pid):
    """A process of that number, in which a SIGTERM stays pending, so that it can be seen."""
    libc = ctypes.PyDLL(None, use_errno=True)
    number = ctypes.c_int(pid)
    arguments = CloneArguments(
        exit_signal=signal.SIGCHLD, set_tid=ctypes.addressof(number), set_tid_size=1
    )
    size = ctypes.c_size_t(ctypes.sizeof(arguments))
    former = signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM])
    child = libc.syscall(SYS_CLONE3, ctypes.byref(arguments), size)
    if child == 0:
        try:
            os.execv("/bin/sleep", ["sleep", "600"])
        finally:
            os._exit(127)
    error = ctypes.get_errno()
    signal.pthread_sigmask(signal.SIG_SETMASK, former)
    assert child == pid, f"no process of the number {pid}: {os.strerror(error)}"
    try:
        yield
    finally:
        os.kill(child, signal.SIGKILL)
        os.waitpid(child, 0)


def pending_signals(pid) -> set:
    lines = Path(f"/proc/{pid}/status").read_text(encoding="utf-8").splitlines()
    [mask] = [int(line.split()[1], 16) for line in lines if line.startswith("ShdPnd:")]
    return {number for number in range(1, 65) if mask >> (number - 1) & 1}


@aborts
def test_abort_after_the_worker_forked_last_was_reaped_signals_nobody(guarded, abort):
    number = guarded.workers[LAST]
    with bystander(number):
        guarded.abort(MIDDLE, abort)
        assert pending_signals(number) == set()
    assert process_state(guarded.workers[MIDDLE])[0] not in "ZX"
    guarded.release(MIDDLE)
    guarded.worker_ends(MIDDLE)


def test_copy_that_a_destroy_leaves_alone_writes_its_file(guarded):
    guarded.abort(MIDDLE, DESTROY)
    assert guarded.host.copy_status(MIDDLE) is None
    assert guarded.received(MIDDLE) is None
    guarded.release(MIDDLE)
    guarded.worker_ends(MIDDLE)
    assert guarded.received(MIDDLE) == guarded.content(MIDDLE)


def test_copy_that_not_in_service_leaves_alone_completes_with_success(guarded):
    guarded.abort(MIDDLE, NOT_IN_SERVICE)
    assert guarded.host.copy_status(MIDDLE) == IN_PROGRESS
    guarded.finish(MIDDLE)
    assert guarded.received(MIDDLE) == guarded.content(MIDDLE)


@aborts
@pytest.mark.parametrize("row", [FIRST, MIDDLE, LAST])
def test_abort_of_any_copy_ends_the_worker_forked_last_alone(copies, row, abort):
    copies.abort(row, abort)
    copies.worker_ends(LAST)
    assert copies.received(LAST) is None
    for other in (FIRST, MIDDLE):
        copies.release(other)
        copies.worker_ends(other)
        assert copies.received(other) == copies.content(other)


@aborts
def test_abort_ends_the_worker_forked_last_though_others_were_reaped(copies, abort):
    copies.finish(MIDDLE)
    copies.finish(FIRST)
    copies.abort(LAST, abort)
    copies.worker_ends(LAST)
    assert copies.received(LAST) is None
