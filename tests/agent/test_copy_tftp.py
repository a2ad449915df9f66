"""Copies by TFTP, end to end, and how they fail."""

import contextlib
import os
import random
import re
import signal
import socket
import time

import ber
import pytest

from harness import (
    ACTIVE,
    ADDRESSES,
    AGENT_PORT,
    CREATE_AND_GO,
    CREATE_AND_WAIT,
    DEVICE_FULL,
    FROM_FLASH,
    INVALID_SOURCE,
    IN_PROGRESS,
    NEW_ROW,
    NOT_IN_SERVICE,
    NOT_READY,
    NOTIFICATION,
    SUCCESS,
    TO_FLASH_WITHOUT_ERASE,
    TRANSFER_ERROR,
    TRAP_PORT,
    TRUE,
    V3_USER,
    CopyColumn,
    ToolError,
    TrapReceiver,
    arrived,
    copy_columns,
    live_children,
    sha256,
    small_file_system,
    udp_port_taken,
    wait_for,
    write_random,
)
from tftp_server import TftpServer

INVALID_COMMAND, INVALID_PROTOCOL, INVALID_DESTINATION = 3, 4, 6
SNMP_TRAP_OID = "1.3.6.1.6.3.1.1.4.1.0"
PROTOCOL_TIME_LIMIT = 20

CONTENT = random.Random(1).randbytes(300_000)


@contextlib.contextmanager
def held_server(address, hold_at=10, **files):
    """A server that stops in the middle of every transfer."""
    with TftpServer(address, files or {"image.bin": CONTENT}, hold_at=hold_at) as server:
        yield server


@pytest.fixture(name="slow_copy")
def fixture_slow_copy(host):
    """A copy in row 7 that stays in mid-transfer; its server."""
    server = host.enter(held_server(host.address))
    host.start_copy(7, source="image.bin", destination="bootflash:image.bin")
    wait_for(server.held.is_set, "the transfer reaches its middle")
    return server


# --- The whole story


def test_copy_as_a_station_sees_it(host):
    server = host.enter(held_server(host.address))
    row = {name: f"{getattr(CopyColumn, name)}.7" for name in vars(CopyColumn) if name.isupper()}

    host.snmpset(row["ROW"], "i", CREATE_AND_WAIT)
    assert host.value(row["STATUS"]) == NEW_ROW
    assert host.value(row["ROW"]) == NOT_READY
    host.snmpset(row["PROTOCOL"], "i", 1, row["SERVER"], "a", host.address)
    host.snmpset(row["SOURCE"], "s", "image.bin", row["DESTINATION"], "s", "bootflash:image.bin")
    host.snmpset(row["ROW"], "i", ACTIVE)

    wait_for(server.held.is_set, "the transfer reaches its middle")
    assert host.value(row["STATUS"]) == IN_PROGRESS
    assert host.value(row["ROW"]) == ACTIVE
    assert host.value(row["TIME"]) == 0
    assert not (host.flash() / "image.bin").exists()
    server.release()

    assert host.finish_copy(7) == SUCCESS
    assert host.value(row["TIME"]) > 0
    assert host.value(row["ROW"]) == ACTIVE
    copied = host.flash() / "image.bin"
    assert copied.read_bytes() == CONTENT
    assert copied.stat().st_mode & 0o7777 == 0o666
    assert len(host.completions()) == 1


def test_large_copy_is_complete(host):
    host.start_atftpd()
    source = host.server_dir / "image.bin"
    write_random(source, 64 << 20)
    host.start_copy(7, source="image.bin", destination="bootflash:image.bin")
    assert host.finish_copy(7, timeout=60) == SUCCESS
    copied = host.flash() / "image.bin"
    assert sha256(copied) == sha256(source)
    assert copied.stat().st_mode & 0o7777 == 0o666
    assert host.value(f"{CopyColumn.TIME}.7") > 0


SIZES = [0, 1, 511, 512, 513, 1467, 1468, 1469, 1 << 20, 16 << 20]


def test_get_of_every_size_is_complete(host):
    host.start_atftpd()
    for row, size in enumerate(SIZES, start=1):
        source = host.server_dir / f"file{size}"
        write_random(source, size)
        status = host.copy(row, source=source.name, destination=f"slot0:{source.name}")
        assert status == SUCCESS, f"{size} bytes: copy status {status}"
        assert sha256(host.flash("slot0") / source.name) == sha256(source), f"{size} bytes"


def test_put_of_every_size_is_complete(host):
    host.start_atftpd()
    for row, size in enumerate(SIZES, start=1):
        source = host.flash("slot0") / f"file{size}"
        write_random(source, size)
        status = host.copy(
            row, command=FROM_FLASH, source=f"slot0:{source.name}", destination=f"sent{size}"
        )
        assert status == SUCCESS, f"{size} bytes: copy status {status}"
        sent = arrived(host.server_dir / f"sent{size}", size)
        assert sha256(sent) == sha256(source), f"{size} bytes"
        assert not (host.work_dir / f"sent{size}").exists(), "the staged copy was left"


def test_put_without_destination_name_keeps_the_name_of_the_file(host):
    host.start_atftpd()
    (host.flash() / "running.cfg").write_bytes(CONTENT)
    status = host.copy(3, command=FROM_FLASH, source="bootflash:running.cfg", destination=None)
    assert status == SUCCESS
    assert arrived(host.server_dir / "running.cfg", len(CONTENT)).read_bytes() == CONTENT
    assert not (host.work_dir / "running.cfg").exists()


def test_existing_file_is_replaced(host):
    host.start_atftpd()
    (host.server_dir / "new").write_bytes(CONTENT)
    (host.flash() / "old").write_bytes(b"old" * 1_000_000)
    assert host.copy(1, source="new", destination="bootflash:old") == SUCCESS
    assert (host.flash() / "old").read_bytes() == CONTENT


def test_create_and_go_starts_a_copy_at_once(host):
    host.start_atftpd()
    (host.server_dir / "image.bin").write_bytes(CONTENT)
    columns = copy_columns(
        9, server=host.address, source="image.bin", destination="bootflash:image.bin"
    )
    row_status = (f"{CopyColumn.ROW}.9", ber.integer(CREATE_AND_GO))
    assert host.set(row_status, *columns) == ber.NO_ERROR
    assert host.finish_copy(9) == SUCCESS
    assert (host.flash() / "image.bin").read_bytes() == CONTENT


def test_copy_by_an_snmpv3_user_with_privacy(v3_host):
    v3_host.start_atftpd()
    (v3_host.server_dir / "image.bin").write_bytes(CONTENT)
    v3_host.snmpset(f"{CopyColumn.ROW}.7", "i", CREATE_AND_WAIT, version="3")
    v3_host.snmpset(
        *(f"{CopyColumn.PROTOCOL}.7", "i", 1),
        *(f"{CopyColumn.SERVER}.7", "a", v3_host.address),
        *(f"{CopyColumn.SOURCE}.7", "s", "image.bin"),
        *(f"{CopyColumn.DESTINATION}.7", "s", "bootflash:image.bin"),
        version="3",
    )
    v3_host.snmpset(f"{CopyColumn.ROW}.7", "i", ACTIVE, version="3")
    assert v3_host.finish_copy(7) == SUCCESS
    assert (v3_host.flash() / "image.bin").read_bytes() == CONTENT
    status = v3_host.tool("snmpget", f"{CopyColumn.STATUS}.7", version="3")
    assert status == f"{CopyColumn.STATUS}.7 = INTEGER: {SUCCESS}\n"


# --- Failures


@pytest.mark.provokes("ERROR: Getting file:… from tftp server failed Error=…")
@pytest.mark.provokes("ERROR: Getting file to:… failed")
def test_missing_file_is_an_invalid_source_name(host):
    host.start_atftpd()
    (host.flash() / "kept").write_bytes(b"kept")
    assert host.copy(1, source="missing", destination="bootflash:kept") == INVALID_SOURCE
    assert (host.flash() / "kept").read_bytes() == b"kept"


def test_server_that_never_answers_is_a_transfer_error_within_the_time_limit(host):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as mute:
        mute.bind((host.address, 69))
        began = time.monotonic()
        status = host.copy(
            1, PROTOCOL_TIME_LIMIT + 3, source="image.bin", destination="bootflash:image.bin"
        )
        assert status == TRANSFER_ERROR
        assert time.monotonic() - began <= PROTOCOL_TIME_LIMIT + 3
    assert list(host.flash().iterdir()) == []


def test_closed_port_is_a_transfer_error_at_once(host):
    assert not udp_port_taken(host.address, 69)
    began = time.monotonic()
    assert host.copy(1, source="image.bin", destination="bootflash:image.bin") == TRANSFER_ERROR
    assert time.monotonic() - began < PROTOCOL_TIME_LIMIT / 4
    assert list(host.flash().iterdir()) == []


def test_server_that_stalls_is_a_transfer_error_within_the_time_limit(host):
    host.enter(held_server(host.address))
    host.start_copy(1, source="image.bin", destination="bootflash:image.bin")
    assert host.finish_copy(1, timeout=PROTOCOL_TIME_LIMIT + 5) == TRANSFER_ERROR
    assert host.value(f"{CopyColumn.TIME}.1") >= PROTOCOL_TIME_LIMIT * 100 - 100
    assert list(host.flash().iterdir()) == []


@pytest.mark.parametrize(
    "code, status",
    [
        (0, TRANSFER_ERROR),
        (1, INVALID_SOURCE),
        (2, TRANSFER_ERROR),
        (3, DEVICE_FULL),
        (6, TRANSFER_ERROR),
    ],
)
def test_error_of_the_server_in_mid_transfer_ends_the_copy(host, code, status):
    host.enter(TftpServer(host.address, {"image.bin": CONTENT}, error_at=(5, code)))
    (host.flash() / "image.bin").write_bytes(b"old")
    assert host.copy(1, source="image.bin", destination="bootflash:image.bin") == status
    assert (host.flash() / "image.bin").read_bytes() == b"old"


def test_words_of_the_server_are_in_the_trace(host):
    host.enter(TftpServer(host.address, error_at=(1, 2)))
    (host.flash() / "log").write_bytes(CONTENT)
    host.copy(1, command=FROM_FLASH, source="bootflash:log", destination="sent")
    words = "failed : The server refuses access: as the test wants"
    assert any(words in line for line in host.trace())


def test_refused_put_is_a_transfer_error_and_leaves_the_staged_file(host):
    host.enter(TftpServer(host.address, error_at=(1, 2)))
    (host.flash() / "log").write_bytes(CONTENT)
    status = host.copy(1, command=FROM_FLASH, source="bootflash:log", destination="sent")
    assert status == TRANSFER_ERROR
    assert (host.work_dir / "sent").read_bytes() == CONTENT


def test_missing_local_file_is_a_transfer_error(host):
    status = host.copy(1, command=FROM_FLASH, source="bootflash:missing", destination="sent")
    assert status == TRANSFER_ERROR


def test_full_disk_on_receipt_is_device_full(idle_host):
    host = idle_host
    with small_file_system(host.flash(), "128k"):
        (host.flash() / "kept").write_bytes(b"kept")
        host.start()
        host.start_atftpd()
        (host.server_dir / "image.bin").write_bytes(CONTENT)
        status = host.copy(1, source="image.bin", destination="bootflash:image.bin")
        left = [path.name for path in host.flash().iterdir()]
        host.stop()
    assert status == DEVICE_FULL
    assert left == ["kept"]


def test_full_disk_while_staging_is_a_transfer_error(idle_host):
    host = idle_host
    with small_file_system(host.work_dir, "128k"):
        host.start()
        host.start_atftpd()
        (host.flash() / "big").write_bytes(CONTENT)
        status = host.copy(1, command=FROM_FLASH, source="bootflash:big", destination="sent")
        left = [path.name for path in host.work_dir.iterdir()]
        host.stop()
    assert status == TRANSFER_ERROR
    assert left == ["sent"]


def test_full_disk_while_staging_without_a_destination_name_sends_the_cut_file(idle_host):
    """Defined so: that cp fails goes unnoticed."""
    host = idle_host
    with small_file_system(host.work_dir, "128k"):
        host.start()
        host.start_atftpd()
        (host.flash() / "big").write_bytes(CONTENT)
        status = host.copy(1, command=FROM_FLASH, source="bootflash:big", destination=None)
        left = list(host.work_dir.iterdir())
        host.stop()
    assert status == SUCCESS
    assert left == []
    sent = wait_for((host.server_dir / "big").read_bytes, "the server has written the file")
    assert len(sent) < len(CONTENT)
    assert CONTENT.startswith(sent)


def test_failed_put_without_a_destination_name_leaves_the_staged_file(host):
    host.enter(TftpServer(host.address, error_at=(1, 2)))
    (host.flash() / "log").write_bytes(CONTENT)
    status = host.copy(1, command=FROM_FLASH, source="bootflash:log", destination=None)
    assert status == TRANSFER_ERROR
    assert (host.work_dir / "log").read_bytes() == CONTENT


@pytest.mark.parametrize("name", ["two words", "a;touch marker", "$(touch marker)"])
def test_name_is_taken_as_it_is_where_no_shell_is_involved(host, name):
    host.start_atftpd()
    (host.server_dir / name).write_bytes(CONTENT)
    assert host.copy(1, source=name, destination=f"bootflash:{name}") == SUCCESS
    assert (host.flash() / name).read_bytes() == CONTENT
    (host.server_dir / name).unlink()
    names = dict(source=f"bootflash:{name}", destination=name)
    assert host.copy(2, command=FROM_FLASH, **names) == SUCCESS
    assert arrived(host.server_dir / name, len(CONTENT)).read_bytes() == CONTENT
    assert list(host.work_dir.iterdir()) == []


def test_put_of_a_name_with_a_space_needs_a_destination_name(host):
    """Without one, a shell copies the file, and takes the name for two."""
    host.start_atftpd()
    (host.flash() / "two words").write_bytes(CONTENT)
    status = host.copy(1, command=FROM_FLASH, source="bootflash:two words", destination=None)
    assert status == TRANSFER_ERROR
    assert list(host.server_dir.iterdir()) == []


def test_shell_metacharacter_is_executed_by_a_put_without_a_destination_name(host):
    (host.flash() / "log").write_bytes(CONTENT)
    source = "bootflash:log ran; : >marker;"
    assert host.copy(1, command=FROM_FLASH, source=source, destination=None) == TRANSFER_ERROR
    assert (host.work_dir / "marker").exists()


# --- Strangers


def worker_files(host):
    """The descriptors of the running worker that hold a file in flash, by their paths below /proc."""
    [worker] = live_children(host.agent.pid)
    directory = f"/proc/{worker}/fd"
    paths = [f"{directory}/{number}" for number in os.listdir(directory)]
    return [path for path in paths if os.readlink(path).startswith(f"{host.flash()}/")]


def test_link_put_in_place_of_the_directory_meanwhile_is_not_followed(host):
    directory, outside = host.flash() / "directory", host.directory / "outside"
    directory.mkdir()
    outside.mkdir()
    (outside / "image.bin").write_bytes(b"precious")
    server = host.enter(held_server(host.address))
    host.start_copy(7, source="image.bin", destination="bootflash:directory/image.bin")
    wait_for(server.held.is_set, "the transfer reaches its middle")
    directory.rename(host.flash() / "moved")
    directory.symlink_to(outside)
    server.release()
    assert host.finish_copy(7) == SUCCESS
    assert {path.name: path.read_bytes() for path in outside.iterdir()} == {
        "image.bin": b"precious"
    }
    assert (host.flash() / "moved" / "image.bin").read_bytes() == CONTENT


def test_file_being_received_is_its_owners_alone(host, slow_copy):
    [content] = worker_files(host)
    assert os.stat(content).st_mode & 0o7777 == 0o600
    slow_copy.release()
    assert host.finish_copy(7) == SUCCESS


def test_datagrams_of_strangers_neither_reach_the_file_nor_end_the_copy(host, slow_copy):
    [(client, _kind)] = slow_copy.requests
    packets = [(3, number, bytes(1468)) for number in range(9, 12)]
    packets += [(5, number, b"sprayed\0") for number in range(9)]
    for address in (host.address, ADDRESSES.take()):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stranger:
            stranger.bind((address, 0))
            for kind, number, rest in packets:
                stranger.sendto(kind.to_bytes(2, "big") + number.to_bytes(2, "big") + rest, client)
            stranger.settimeout(5 if address == host.address else 0.2)
            try:
                answer = stranger.recv(65536)
            except TimeoutError:
                answer = None
        # From the server's own address it may be a mistake worth an answer: "unknown transfer ID".
        assert (answer or b"")[:4] == (b"\0\5\0\5" if address == host.address else b"")
    slow_copy.release()
    assert host.finish_copy(7) == SUCCESS
    assert (host.flash() / "image.bin").read_bytes() == CONTENT


# --- Refusals


REFUSALS = {
    "rcp is answered as a finished line-card copy": (dict(protocol=2), ber.NO_ERROR, SUCCESS),
    "copy without erase": (
        dict(command=TO_FLASH_WITHOUT_ERASE),
        ber.WRONG_VALUE,
        INVALID_COMMAND,
    ),
    "copy from the flash log": (dict(command=4), ber.WRONG_VALUE, INVALID_COMMAND),
    "no server address": (dict(server="0.0.0.0"), ber.INCONSISTENT_VALUE, INVALID_PROTOCOL),
    "no source name": (dict(source=None), ber.INCONSISTENT_VALUE, INVALID_PROTOCOL),
    "directory as destination": (
        dict(destination="bootflash:"),
        ber.GEN_ERR,
        INVALID_DESTINATION,
    ),
    "subdirectory as destination": (
        dict(destination="bootflash:directory"),
        ber.GEN_ERR,
        INVALID_DESTINATION,
    ),
    "unknown scheme of the destination": (
        dict(destination="floppy:image.bin"),
        ber.GEN_ERR,
        INVALID_DESTINATION,
    ),
    "destination outside the file system": (
        dict(destination="bootflash:../escaped"),
        ber.GEN_ERR,
        INVALID_DESTINATION,
    ),
    "unknown scheme of the source": (
        dict(command=FROM_FLASH, source="floppy:image.bin"),
        ber.GEN_ERR,
        INVALID_SOURCE,
    ),
    "source outside the file system": (
        dict(command=FROM_FLASH, source="bootflash:../platform.toml"),
        ber.GEN_ERR,
        INVALID_SOURCE,
    ),
}


@pytest.mark.parametrize("name", REFUSALS)
def test_refused_copy_says_why_and_starts_nothing(shared_host, name):
    columns, error, status = REFUSALS[name]
    (shared_host.flash() / "directory").mkdir(exist_ok=True)
    defaults = dict(
        server=shared_host.address, source="image.bin", destination="bootflash:image.bin"
    )
    row = list(REFUSALS).index(name) + 1
    created = shared_host.set((f"{CopyColumn.ROW}.{row}", ber.integer(CREATE_AND_WAIT)))
    assert created == ber.NO_ERROR
    columns = copy_columns(row, **(defaults | columns))
    assert shared_host.set(*columns) == ber.NO_ERROR
    assert shared_host.activate(row) == error
    assert shared_host.copy_status(row) == status
    assert live_children(shared_host.agent.pid) == []


@pytest.mark.provokes("error …: …")
@pytest.mark.parametrize(
    "columns, code",
    [
        (dict(destination="bootflash:../escaped"), "0x4049001d"),
        (dict(command=FROM_FLASH, source="bootflash:../escaped"), "0x4049001c"),
    ],
)
def test_refused_file_name_is_in_the_error_log(host, columns, code):
    names = dict(source="image.bin", destination="bootflash:image.bin")
    host.create_copy(1, **(names | columns))
    assert host.activate(1) == ber.GEN_ERR
    assert host.errors() == [code]


def test_error_log_names_the_snmpv3_user_and_the_session_of_a_refused_copy(v3_host):
    v3_host.create_copy(1, source="image.bin", destination="bootflash:../escaped")
    with pytest.raises(ToolError, match="genError"):
        v3_host.snmpset(f"{CopyColumn.ROW}.1", "i", ACTIVE, version="3")
    [[_time, code, _text, user, session]] = v3_host.error_log()
    assert (code, user) == ("0x4049001d", f"user {V3_USER}")
    assert re.fullmatch(r"session [1-9]\d*", session)


def refused_by(host, activate):
    """The session under which the error log has a refused copy of somebody."""
    before = len(host.error_log())
    activate()
    [fields] = host.error_log()[before:]
    return fields[-1]


def test_error_log_tells_the_managers_apart(v3_host):
    """Two ports, two addresses, an SNMPv3 user; each twice."""
    pair = (f"{CopyColumn.ROW}.1", ber.integer(ACTIVE))
    v3_host.create_copy(1, source="image.bin", destination="bootflash:../escaped")

    def by_packet(sender):
        return lambda: sender.set(pair)

    def by_tool(**settings):
        def activate():
            with pytest.raises(ToolError, match="genError"):
                v3_host.tool("snmpset", pair[0], "i", ACTIVE, **settings)

        return activate

    other_port = ber.Sender(v3_host.address, AGENT_PORT)
    v3_host.enter(contextlib.closing(other_port))
    managers = [by_packet(v3_host.sender), by_packet(other_port), by_tool(version="3")]
    addresses = [f"{ADDRESSES.take()}:40001" for _ in range(2)]
    with_port = ["-Y", "clientaddrUsesPort=yes", "-Y"]
    managers += [by_tool(options=[*with_port, f"clientaddr={each}"]) for each in addresses]
    first = [refused_by(v3_host, manager) for manager in managers]
    assert len(set(first)) == len(managers)
    assert [refused_by(v3_host, manager) for manager in managers] == first


def test_unsupported_protocol_is_in_the_error_log(host):
    host.create_copy(1, source="image.bin", destination="bootflash:image.bin")
    assert host.set((f"{CopyColumn.PROTOCOL}.1", ber.integer(7))) == ber.GEN_ERR
    assert host.errors() == ["0x4049003c"]


# --- One copy at a time


def test_active_while_another_copy_runs_is_a_general_error(host, slow_copy):
    host.create_copy(8, source="image.bin", destination="bootflash:other.bin")
    before = live_children(host.agent.pid)
    assert host.activate(8) == ber.GEN_ERR
    assert live_children(host.agent.pid) == before
    assert host.copy_status(8) == NEW_ROW
    assert host.errors() == ["0x4049003e"]
    slow_copy.release()
    assert host.finish_copy(7) == SUCCESS


def test_create_and_go_runs_beside_another_copy(host, slow_copy):
    second = ADDRESSES.take()
    host.enter(TftpServer(second, {"image.bin": CONTENT}))
    columns = copy_columns(8, server=second, source="image.bin", destination="slot0:other.bin")
    status = (f"{CopyColumn.ROW}.8", ber.integer(CREATE_AND_GO))
    assert host.set(status, *columns) == ber.NO_ERROR
    assert host.finish_copy(8) == SUCCESS
    assert host.copy_status(7) == IN_PROGRESS
    slow_copy.release()
    assert host.finish_copy(7) == SUCCESS
    assert (host.flash() / "image.bin").read_bytes() == CONTENT
    assert (host.flash("slot0") / "other.bin").read_bytes() == CONTENT
    assert len(host.completions()) == 2


def test_agent_answers_while_a_copy_runs(host, slow_copy):
    began = time.monotonic()
    for _ in range(50):
        assert host.copy_status(7) == IN_PROGRESS
    assert time.monotonic() - began < 2
    slow_copy.release()
    assert host.finish_copy(7) == SUCCESS


def test_repeated_create_and_go_datagram_starts_one_copy(host):
    server = host.enter(held_server(host.address))
    columns = copy_columns(
        5, server=host.address, source="image.bin", destination="bootflash:image.bin"
    )
    pairs = [(f"{CopyColumn.ROW}.5", ber.integer(CREATE_AND_GO)), *columns]
    packet = ber.message(ber.SET, [ber.binding(*pair) for pair in pairs])
    host.sender.send(packet)
    host.sender.send(packet)
    answers = [host.sender.receive(packet).error for _ in range(2)]
    assert answers == [ber.NO_ERROR, ber.INCONSISTENT_VALUE]
    wait_for(server.held.is_set, "the transfer reaches its middle")
    assert len(live_children(host.agent.pid)) == 1
    server.release()
    assert host.finish_copy(5) == SUCCESS
    assert len(server.requests) == 1


# --- The completion notification


@pytest.fixture(name="station")
def fixture_station(idle_host):
    """A host that sends its notifications to a receiver; that receiver."""
    receiver = idle_host.enter(TrapReceiver(idle_host.address))
    idle_host.agent_directives = [f"trap2sink {idle_host.address}:{TRAP_PORT} test"]
    idle_host.start()
    idle_host.start_atftpd()
    (idle_host.server_dir / "image.bin").write_bytes(CONTENT)
    # The agent announces its start.
    assert receiver.receive() is not None
    return receiver


def test_finished_copy_is_notified_when_the_row_asks_for_it(idle_host, station):
    columns = dict(source="image.bin", destination="bootflash:image.bin")
    assert idle_host.copy(7, notify=TRUE, **columns) == SUCCESS
    _uptime, identity, status = station.receive()
    assert (identity.name, "." + identity.value) == (SNMP_TRAP_OID, NOTIFICATION)
    # The binding names the column, without an instance.
    assert ("." + status.name, status.tag, status.value) == (CopyColumn.STATUS, ber.INTEGER, 2)


def test_failed_copy_is_notified_with_its_status(idle_host, station):
    columns = dict(source="missing", destination="bootflash:image.bin")
    assert idle_host.copy(7, notify=TRUE, **columns) == INVALID_SOURCE
    assert station.receive()[-1].value == INVALID_SOURCE


def test_copy_is_not_notified_unless_the_row_asks_for_it(idle_host, station):
    columns = dict(source="image.bin", destination="bootflash:image.bin")
    assert idle_host.copy(7, **columns) == SUCCESS
    # The next notification to arrive is that of the next copy.
    columns["source"] = "missing"
    assert idle_host.copy(8, notify=TRUE, **columns) == INVALID_SOURCE
    assert station.receive()[-1].value == INVALID_SOURCE
    assert station.receive(timeout=0.2) is None


# --- Abort


@pytest.mark.parametrize("how", ["destroy", "notInService"])
def test_abort_ends_every_process_of_the_transfer(host, slow_copy, how):
    workers = host.strays()
    assert workers
    if how == "destroy":
        assert host.destroy(7) == ber.NO_ERROR
        assert host.copy_status(7) is None
    else:
        assert host.set((f"{CopyColumn.ROW}.7", ber.integer(NOT_IN_SERVICE))) == ber.NO_ERROR
        assert host.value(f"{CopyColumn.ROW}.7") == NOT_IN_SERVICE
    wait_for(lambda: not host.strays(), "no process of the transfer is left", timeout=2)
    assert list(host.flash().iterdir()) == []
    assert not slow_copy.requests[1:]


def test_killed_worker_leaves_the_row_in_progress_until_it_is_destroyed(host, slow_copy):
    [worker] = live_children(host.agent.pid)
    os.kill(worker, signal.SIGKILL)
    wait_for(lambda: not live_children(host.agent.pid), "the worker has ended")
    assert host.copy_status(7) == IN_PROGRESS

    host.create_copy(8, source="image.bin", destination="bootflash:image.bin")
    assert host.activate(8) == ber.GEN_ERR, "a row in progress holds up other copies"
    assert host.destroy(7) == ber.NO_ERROR
    slow_copy.release()
    assert host.activate(8) == ber.NO_ERROR
    assert host.finish_copy(8) == SUCCESS
    assert (host.flash() / "image.bin").read_bytes() == CONTENT


def test_worker_holds_no_socket_of_the_agent(host, slow_copy):
    [worker] = live_children(host.agent.pid)
    sockets = {name for name in host.descriptors() if name.startswith("socket:")}
    directory = f"/proc/{worker}/fd"
    held = {os.readlink(f"{directory}/{number}") for number in os.listdir(directory)}
    assert not held & sockets
    slow_copy.release()
    assert host.finish_copy(7) == SUCCESS
