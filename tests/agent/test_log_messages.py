"""The system log and core files as sources of a copy."""

import itertools
import random

import ber
import pytest

from harness import (
    ACTIVE,
    CREATE_AND_GO,
    FROM_FLASH,
    INVALID_SOURCE,
    NEW_ROW,
    NOT_READY,
    SUCCESS,
    CopyColumn,
    copy_columns,
)

LOG = random.Random(5).randbytes(100_000)
INVALID_SOURCE_CODE = "0x4049001c"
ROWS = itertools.count(1)


@pytest.fixture(name="log_host")
def fixture_log_host(shared_host):
    """The shared host with a system log."""
    shared_host.system_log.write_bytes(LOG)
    shared_host.dumped_log.unlink(missing_ok=True)
    return shared_host


def send(host, remote, source, destination):
    columns = dict(source=source, destination=destination, **remote.columns)
    return host.copy(next(ROWS), command=FROM_FLASH, **columns)


def test_system_log_is_dumped_and_sent(log_host, remote):
    assert send(log_host, remote, "log:messages", "sent.log") == SUCCESS
    assert (remote.home / "sent.log").read_bytes() == LOG
    assert log_host.dumped_log.read_bytes() == LOG
    assert log_host.system_log.read_bytes() == LOG
    (remote.home / "sent.log").unlink()


def test_system_log_without_a_destination_name_is_sent_under_the_name_of_its_dump(log_host, remote):
    assert send(log_host, remote, "log:messages", None) == SUCCESS
    assert (remote.home / "intsyslog").read_bytes() == LOG
    (remote.home / "intsyslog").unlink()


def test_empty_system_log_is_sent(log_host, remote):
    log_host.system_log.write_bytes(b"")
    assert send(log_host, remote, "log:messages", "sent.log") == SUCCESS
    assert (remote.home / "sent.log").read_bytes() == b""
    (remote.home / "sent.log").unlink()


def test_every_copy_dumps_the_system_log_anew(log_host, remote):
    assert send(log_host, remote, "log:messages", "sent.log") == SUCCESS
    with open(log_host.system_log, "ab") as log:
        log.write(b"one more line\n")
    (remote.home / "sent.log").unlink()
    assert send(log_host, remote, "log:messages", "sent.log") == SUCCESS
    assert (remote.home / "sent.log").read_bytes() == LOG + b"one more line\n"
    (remote.home / "sent.log").unlink()


@pytest.mark.parametrize("remote", ["ftp"], indirect=True)
def test_of_a_system_log_above_the_limit_the_newest_lines_are_sent(log_host, remote):
    limit = 64 << 20
    with open(log_host.system_log, "wb") as log:
        log.write(b"oldest line\nold line\n")
        log.truncate(limit + 15)
        log.seek(-12, 2)
        log.write(b"\nnewest line\n")
    assert send(log_host, remote, "log:messages", "sent.log") == SUCCESS
    size = (remote.home / "sent.log").stat().st_size
    assert size == log_host.system_log.stat().st_size - len(b"oldest line\nold line\n")
    with open(remote.home / "sent.log", "rb") as sent:
        assert sent.read(1) == b"\0"
        sent.seek(-12, 2)
        assert sent.read() == b"newest line\n"
    (remote.home / "sent.log").unlink()


def test_missing_system_log_is_an_invalid_source_name(host):
    host.create_copy(1, command=FROM_FLASH, source="log:messages", destination="sent.log")
    assert host.activate(1) == ber.GEN_ERR
    assert host.copy_status(1) == INVALID_SOURCE
    assert host.value(f"{CopyColumn.ROW}.1") == ACTIVE
    assert host.errors() == [INVALID_SOURCE_CODE]
    assert not host.dumped_log.exists()


def test_missing_system_log_leaves_a_row_by_create_and_go_not_ready(host):
    columns = copy_columns(
        1, server=host.address, command=FROM_FLASH, source="log:messages", destination="sent.log"
    )
    row_status = (f"{CopyColumn.ROW}.1", ber.integer(CREATE_AND_GO))
    assert host.set(row_status, *columns) == ber.NO_ERROR
    assert host.copy_status(1) == NEW_ROW
    assert host.value(f"{CopyColumn.ROW}.1") == NOT_READY
    assert host.errors() == []


@pytest.mark.parametrize(
    "name", ["log:", "log:message", "log:messages2", "LOG:messages", "log:/messages"]
)
def test_other_name_of_the_log_scheme_is_an_invalid_source_name(shared_host, name):
    shared_host.system_log.write_bytes(LOG)
    shared_host.dumped_log.unlink(missing_ok=True)
    row = next(ROWS)
    shared_host.create_copy(row, command=FROM_FLASH, source=name, destination="sent.log")
    assert shared_host.activate(row) == ber.GEN_ERR
    assert shared_host.copy_status(row) == INVALID_SOURCE
    assert not shared_host.dumped_log.exists()


def test_system_log_is_no_destination(log_host):
    row = next(ROWS)
    log_host.create_copy(row, source="file", destination="log:messages")
    assert log_host.activate(row) == ber.GEN_ERR
    assert log_host.system_log.read_bytes() == LOG


# --- Core files


@pytest.fixture(name="core_host")
def fixture_core_host(idle_host):
    """A host with a core file."""
    idle_host.core_directory = idle_host.directory / "core"
    idle_host.core_directory.mkdir()
    (idle_host.core_directory / "core.123").write_bytes(LOG)
    (idle_host.directory / "secret").write_bytes(b"secret")
    idle_host.start()
    return idle_host


def test_core_file_is_sent(core_host, remote):
    assert send(core_host, remote, "core:core.123", "sent.core") == SUCCESS
    assert (remote.home / "sent.core").read_bytes() == LOG
    (remote.home / "sent.core").unlink()


@pytest.mark.parametrize("name", ["core:missing", "core:", "core:../secret", "core:/../secret"])
def test_what_is_no_core_file_is_an_invalid_source_name(core_host, name):
    core_host.create_copy(1, command=FROM_FLASH, source=name, destination="sent")
    assert core_host.activate(1) == ber.GEN_ERR
    assert core_host.copy_status(1) == INVALID_SOURCE
    assert core_host.errors() == [INVALID_SOURCE_CODE]


def test_core_file_is_no_destination(core_host):
    core_host.create_copy(1, source="file", destination="core:core.123")
    assert core_host.activate(1) == ber.GEN_ERR
    assert (core_host.core_directory / "core.123").read_bytes() == LOG
