"""What the descriptions of ORVEX-FLASH-MIB promise a station, each sentence against the agent.

Here is what departs from what a station would expect of such tables; what a description says beside
that is tested with its subject.
"""

import itertools
import random
import re

import ber
import pytest

from harness import (
    ACTIVE,
    ADDRESSES,
    CREATE_AND_GO,
    CREATE_AND_WAIT,
    DESTROY,
    FILE,
    FROM_FLASH,
    FTP,
    INVALID_SOURCE,
    IN_PROGRESS,
    NEW_ROW,
    NOT_IN_SERVICE,
    NOT_READY,
    REPOSITORY,
    SUCCESS,
    TO_FLASH_WITHOUT_ERASE,
    TRANSFER_ERROR,
    TRAP_PORT,
    TRUE,
    CopyColumn,
    MiscColumn,
    TrapReceiver,
    copy_columns,
    live_children,
    wait_for,
)
from remotes import PROTOCOLS, SCRIPT_NAMES, SCRIPTED
from tftp_server import TftpServer

MIB = REPOSITORY / "mibs" / "ORVEX-FLASH-MIB.txt"
TRANSFERS = REPOSITORY / "platform" / "apps" / "flash" / "flash_copy.cpp"
INVALID_COMMAND, INVALID_PROTOCOL, INVALID_DESTINATION = 3, 4, 6
MISC_FAILED, MISC_INITIAL = 10, 14
LINE_CARD_COPY = 2
CONTENT = random.Random(7).randbytes(100_000)

ROWS = itertools.count(1)

TABLES = [pytest.param(CopyColumn, id="copy"), pytest.param(MiscColumn, id="misc")]
both_tables = pytest.mark.parametrize("table", TABLES)


def description(name):
    """The description of an object or a notification, on one line."""
    text = MIB.read_text(encoding="ascii")
    clause = rf'^orvexFlash{name} (?:OBJECT|NOTIFICATION)-TYPE\n.*?DESCRIPTION\s+"([^"]*)"'
    found = re.search(clause, text, re.M | re.S)
    assert found, f"the MIB has no orvexFlash{name}"
    return " ".join(found.group(1).split())


def says(name, *sentences):
    for sentence in sentences:
        assert sentence in description(name), f"orvexFlash{name} does not say: {sentence}"


def entry_of(table):
    return "CopyEntry" if table is CopyColumn else "MiscOpEntry"


def name_of(table):
    return table.DESTINATION if table is CopyColumn else table.NAME


def create(host, table, row=5):
    assert host.set((f"{table.ROW}.{row}", ber.integer(CREATE_AND_WAIT))) == ber.NO_ERROR


def set_status(host, table, value, row=5):
    return host.set((f"{table.ROW}.{row}", ber.integer(value)))


def listed_paths(host):
    """The paths of the files in the inventory."""
    column, paths = f"{FILE}.5.", []
    [file] = host.sender.get_next(column[:-1]).variables
    while f".{file.name}".startswith(column):
        paths.append(file.value)
        [file] = host.sender.get_next(f".{file.name}").variables
    return paths


# --- Refused requests


@both_tables
@pytest.mark.parametrize("value", [ACTIVE, NOT_IN_SERVICE, DESTROY])
def test_refused_request_leaves_its_status_in_a_row_that_existed(shared_host, table, value):
    row = next(ROWS)
    says(
        entry_of(table),
        "keeps the orvexFlash" + entry_of(table) + "Status that the request asked for",
        "This holds for a row that existed before as for one that the request created.",
        "SET destroy in a request of its own and create the row anew.",
    )
    create(shared_host, table, row)
    (shared_host.flash() / "file").write_bytes(b"stays")
    name = (f"{name_of(table)}.{row}", ber.octets(b"bootflash:file"))
    assert shared_host.set(name) == ber.NO_ERROR
    bad = (f"{table.NOTIFY}.{row}", ber.integer(3))
    assert shared_host.set((f"{table.ROW}.{row}", ber.integer(value)), bad) == ber.WRONG_VALUE

    assert shared_host.value(f"{table.ROW}.{row}") == value
    # Nothing was started, stopped or removed.
    untouched = NEW_ROW if table is CopyColumn else MISC_INITIAL
    assert shared_host.value(f"{table.STATUS}.{row}") == untouched
    assert (shared_host.flash() / "file").read_bytes() == b"stays"
    # It takes no columns, and the cure works.
    assert shared_host.set(name) == ber.INCONSISTENT_VALUE
    assert set_status(shared_host, table, DESTROY, row) == ber.NO_ERROR
    create(shared_host, table, row)
    assert shared_host.set(name) == ber.NO_ERROR


@both_tables
def test_status_that_is_itself_refused_is_not_left(shared_host, table):
    row = next(ROWS)
    says(entry_of(table), "if that was not itself what is refused")
    create(shared_host, table, row)
    columns = (f"{table.NOTIFY}.{row}", ber.integer(TRUE))
    for value, error in ((CREATE_AND_GO, ber.INCONSISTENT_VALUE), (NOT_READY, ber.WRONG_VALUE)):
        assert shared_host.set((f"{table.ROW}.{row}", ber.integer(value)), columns) == error
        assert shared_host.value(f"{table.ROW}.{row}") == NOT_READY


@both_tables
@pytest.mark.parametrize("value", [ACTIVE, NOT_IN_SERVICE, DESTROY])
def test_refused_request_resets_its_columns_unless_the_row_is_active_or_not_in_service(
    shared_host, table, value
):
    row = next(ROWS)
    says(entry_of(table), "unless the row is active or notInService by then")
    create(shared_host, table, row)
    notify = (f"{table.NOTIFY}.{row}", ber.integer(TRUE))
    assert shared_host.set(notify) == ber.NO_ERROR
    status = (f"{table.ROW}.{row}", ber.integer(value))
    assert shared_host.set(status, notify) == ber.INCONSISTENT_VALUE
    assert shared_host.value(f"{table.NOTIFY}.{row}") == (0 if value == DESTROY else TRUE)


@both_tables
def test_refused_request_leaves_what_was_saved_of_another_row(shared_host, table):
    says(entry_of(table), "what the agent last saved of that column, of whichever row")
    other, row = next(ROWS), next(ROWS)
    create(shared_host, table, other)
    create(shared_host, table, row)
    for name in (b"abcd", b"other"):
        assert shared_host.set((f"{name_of(table)}.{other}", ber.octets(name))) == ber.NO_ERROR
    name = (f"{name_of(table)}.{row}", ber.octets(b"mine"))
    assert shared_host.set(name, (f"{table.NOTIFY}.{row}", ber.integer(3))) == ber.WRONG_VALUE
    assert shared_host.value(f"{name_of(table)}.{row}") == b"abc"


@both_tables
@pytest.mark.parametrize("value", [ACTIVE, NOT_IN_SERVICE, DESTROY])
@pytest.mark.parametrize("present", [True, False], ids=["present", "absent"])
@pytest.mark.parametrize("order", ["status first", "status last"])
def test_status_and_columns_in_one_request_are_refused(shared_host, table, value, present, order):
    row = next(ROWS)
    says(
        entry_of(table) + "Status",
        "active(1), notInService(2) and destroy(6) go in a request of their own.",
        "with inconsistentValue if the row exists or is created by it",
    )
    if present:
        create(shared_host, table, row)
    pairs = [
        (f"{table.ROW}.{row}", ber.integer(value)),
        (f"{name_of(table)}.{row}", ber.octets(b"bootflash:file")),
    ]
    if order == "status last":
        pairs.reverse()
    exists = present or value != DESTROY
    assert shared_host.set(*pairs) == (ber.INCONSISTENT_VALUE if exists else ber.NO_SUCH_NAME)
    assert shared_host.value(f"{table.ROW}.{row}") == (value if exists else None)


# --- What a copy needs


def test_default_server_address_counts_as_given_and_is_sent_to(host):
    says(
        "CopyServerAddress",
        "The default, 255.255.255.255, counts as given",
        "its copy is sent to that address",
    )
    script = host.scripts / SCRIPT_NAMES["ftp"]
    script.write_text('#!/bin/sh\necho "$1" >argument\n')
    columns = dict(source="image.bin", destination="bootflash:image.bin", user="u")
    assert host.copy(5, server=None, protocol=FTP, **columns) == SUCCESS
    assert (host.work_dir / "argument").read_text() == "255.255.255.255\n"


@pytest.mark.parametrize("protocol", SCRIPTED)
@pytest.mark.parametrize("command", ["get", "put"])
def test_copy_without_the_user_name_that_it_needs_is_a_transfer_error(host, protocol, command):
    says(
        "CopyRemoteUserName",
        "FTP, SCP and SFTP need one: a row without it can be started, and its copy ends with "
        "transferError.",
    )
    (host.flash() / "file").write_bytes(CONTENT)
    columns = dict(source="file", destination="bootflash:copy")
    if command == "put":
        columns = dict(source="bootflash:file", destination="copy", command=FROM_FLASH)
    columns |= dict(protocol=PROTOCOLS[protocol], password="p")
    assert host.copy(5, **columns) == TRANSFER_ERROR


@pytest.mark.parametrize(
    "columns, error, status",
    [
        (dict(source=None, destination="floppy:x"), ber.INCONSISTENT_VALUE, INVALID_PROTOCOL),
        (dict(destination="floppy:x"), ber.GEN_ERR, INVALID_DESTINATION),
    ],
    ids=["missing before unresolved", "unresolved before unsupported"],
)
def test_first_reason_of_a_refusal_counts(host, columns, error, status):
    says(
        "CopyEntryStatus",
        "The first of these counts: inconsistentValue when protocol, server address or source name "
        "is missing; genErr for a local name that does not resolve; wrongValue for a command that "
        "is not supported.",
    )
    names = dict(source="image.bin", destination="bootflash:image.bin")
    host.create_copy(5, command=TO_FLASH_WITHOUT_ERASE, **(names | columns))
    assert host.activate(5) == error
    assert host.copy_status(5) == status


def test_row_by_create_and_go_with_an_unsupported_command_remains_and_can_be_changed(host):
    says(
        "CopyEntryStatus",
        "A command that is not supported is refused with wrongValue; the row remains and can be "
        "changed and activated.",
    )
    names = dict(source="image.bin", destination="bootflash:image.bin", server=host.address)
    pairs = copy_columns(5, command=TO_FLASH_WITHOUT_ERASE, **names)
    row = (f"{CopyColumn.ROW}.5", ber.integer(CREATE_AND_GO))
    assert host.set(row, *pairs) == ber.WRONG_VALUE
    assert host.copy_status(5) == INVALID_COMMAND
    server = host.enter(TftpServer(host.address, {"image.bin": CONTENT}))
    assert host.set(*copy_columns(5, **names)) == ber.NO_ERROR
    assert host.activate(5) == ber.NO_ERROR
    assert host.finish_copy(5) == SUCCESS
    assert len(server.requests) == 1


def test_core_file_is_not_in_the_inventory(idle_host):
    says(
        "CopySourceName",
        "core:NAME a core file, on a device that keeps them.",
        "Both are sources only, and the inventory does not list core files.",
    )
    idle_host.core_directory = idle_host.directory / "core"
    idle_host.core_directory.mkdir()
    (idle_host.core_directory / "core.123").write_bytes(CONTENT)
    (idle_host.flash() / "listed").write_bytes(CONTENT)
    idle_host.start()
    wait_for(lambda: listed_paths(idle_host), "the inventory lists files")
    assert listed_paths(idle_host) == [b"listed"]


# --- How a copy ends


def test_time_limits_are_those_of_the_transfers():
    says(
        "CopyStatus",
        "at most 3000 seconds with FTP and TFTP, 600 seconds with SCP and 720 seconds with SFTP",
        "silent for 20 seconds",
    )
    source = TRANSFERS.read_text(encoding="ascii")
    assert re.findall(r'"(\d{3,4})"\);', source) == ["3000", "720", "600", "600"]
    assert re.findall(r"timeoutSeconds = (\d+);", source) == ["20"]


def test_destroy_ends_what_holds_up_other_copies(host):
    says(
        "CopyStatus",
        "As long as any row is inProgress, no row can be set to active.",
        "destroy removes the row and ends that at any time.",
    )
    columns = dict(source="image.bin", destination="bootflash:image.bin")
    host.create_copy(5, command=9, **columns)  # a command that copies nothing
    assert host.activate(5) == ber.NO_ERROR
    wait_for(host.completions, "the copy of nothing has ended")
    assert host.copy_status(5) == IN_PROGRESS
    host.create_copy(6, protocol=LINE_CARD_COPY, **columns)
    assert host.activate(6) == ber.GEN_ERR
    assert host.destroy(5) == ber.NO_ERROR
    assert host.activate(6) == ber.NO_ERROR


def test_destroy_ends_no_transfer_but_the_one_started_last(host):
    says(
        "CopyEntryStatus",
        "notInService and destroy end only the transfer that was started last.",
        "when it has ended by itself, the other goes on",
    )
    slow, quick = ADDRESSES.take(), ADDRESSES.take()
    held = host.enter(TftpServer(slow, {"image.bin": CONTENT}, hold_at=10))
    host.enter(TftpServer(quick, {"image.bin": CONTENT}))
    host.start_copy(7, server=slow, source="image.bin", destination="bootflash:slow")
    wait_for(held.held.is_set, "the transfer reaches its middle")
    columns = dict(source="image.bin", destination="bootflash:quick")
    pairs = copy_columns(8, server=quick, **columns)
    assert host.set((f"{CopyColumn.ROW}.8", ber.integer(CREATE_AND_GO)), *pairs) == ber.NO_ERROR
    assert host.finish_copy(8) == SUCCESS

    assert host.destroy(7) == ber.NO_ERROR
    held.release()
    wait_for(lambda: (host.flash() / "slow").exists(), "the transfer has gone on")
    wait_for(lambda: not live_children(host.agent.pid), "its worker has ended")
    assert (host.flash() / "slow").read_bytes() == CONTENT


def test_what_is_no_end_of_a_transfer_is_not_notified(idle_host):
    says(
        "CopyCompletion",
        "Not notified are a copy whose row was destroyed before its end",
        "an activation that is refused, the success of rcp, and the operations of "
        "orvexFlashMiscOpTable.",
    )
    station = idle_host.enter(TrapReceiver(idle_host.address))
    idle_host.agent_directives = [f"trap2sink {idle_host.address}:{TRAP_PORT} test"]
    idle_host.start()
    assert station.receive() is not None  # the agent announces its start
    held = idle_host.enter(TftpServer(idle_host.address, {"image.bin": CONTENT}, hold_at=10))
    names = dict(source="image.bin", destination="bootflash:image.bin", notify=TRUE)

    idle_host.start_copy(1, **names)
    wait_for(held.held.is_set, "the transfer reaches its middle")
    assert idle_host.destroy(1) == ber.NO_ERROR
    wait_for(lambda: not live_children(idle_host.agent.pid), "the worker has ended")
    held.release()
    idle_host.create_copy(2, **(names | dict(destination="floppy:x")))
    assert idle_host.activate(2) == ber.GEN_ERR
    idle_host.start_copy(3, protocol=LINE_CARD_COPY, **names)
    assert idle_host.copy_status(3) == SUCCESS
    create(idle_host, MiscColumn)
    columns = [
        (f"{MiscColumn.NAME}.5", ber.octets(b"bootflash:missing")),
        (f"{MiscColumn.NOTIFY}.5", ber.integer(TRUE)),
    ]
    assert idle_host.set(*columns) == ber.NO_ERROR
    assert set_status(idle_host, MiscColumn, ACTIVE) == ber.NO_ERROR
    assert idle_host.value(f"{MiscColumn.STATUS}.5") == MISC_FAILED

    # The next notification to arrive is that of the next copy that ends.
    missing = names | dict(source="missing")
    assert idle_host.copy(4, **missing) == INVALID_SOURCE
    assert station.receive()[-1].value == INVALID_SOURCE
    assert station.receive(timeout=0.2) is None


# --- Names that do not work


def delete(host, row, name):
    create(host, MiscColumn, row)
    assert host.set((f"{MiscColumn.NAME}.{row}", ber.octets(name))) == ber.NO_ERROR
    assert set_status(host, MiscColumn, ACTIVE, row) == ber.NO_ERROR
    return host.value(f"{MiscColumn.STATUS}.{row}")


def test_status_of_an_operation_stays_when_its_name_does_not_resolve(host):
    says(
        "MiscOpStatus",
        "leaves the status as it was, although the SET succeeds: success is then that of an "
        "earlier operation of the row.",
    )
    (host.flash() / "old.bin").write_bytes(b"old")
    pairs = [
        (f"{MiscColumn.ROW}.5", ber.integer(CREATE_AND_GO)),
        (f"{MiscColumn.NAME}.5", ber.octets(b"bootflash:old.bin")),
    ]
    assert host.set(*pairs) == ber.NO_ERROR
    assert host.value(f"{MiscColumn.STATUS}.5") == SUCCESS
    assert host.set((f"{MiscColumn.NAME}.5", ber.octets(b"floppy:old.bin"))) == ber.NO_ERROR
    assert set_status(host, MiscColumn, ACTIVE) == ber.NO_ERROR
    assert host.value(f"{MiscColumn.STATUS}.5") == SUCCESS


def test_file_whose_name_holds_a_control_character_cannot_be_named(host):
    says("FilePath", "or when the name holds a control character")
    name = b"new\nline"
    (host.flash() / name.decode()).write_bytes(b"stays")
    wait_for(lambda: listed_paths(host) == [name], "the inventory lists the file")
    assert delete(host, 5, b"bootflash:" + name) == MISC_INITIAL
    assert (host.flash() / name.decode()).exists()


def test_file_whose_local_path_is_too_long_cannot_be_named(host):
    says("FilePath", "when the path from the root of the agent's own file system has more than 254")
    parent = host.flash() / ("d" * 100)
    parent.mkdir()
    longest = 254 - len(f"{parent}/")
    for row, length, status in ((5, longest, SUCCESS), (6, longest + 1, MISC_INITIAL)):
        path = parent / ("f" * length)
        path.write_bytes(b"x")
        name = f"{parent.name}/{path.name}".encode()
        assert len(b"bootflash:" + name) <= 255
        wait_for(lambda name=name: listed_paths(host) == [name], "the inventory lists the file")
        assert delete(host, row, b"bootflash:" + name) == status
        assert path.exists() == (status != SUCCESS)


def test_file_whose_name_has_more_than_255_octets_cannot_be_named(host):
    says("FilePath", "when the whole name has more than 255 octets")
    path = host.flash() / ("d" * 100) / ("f" * 145)
    path.parent.mkdir()
    path.write_bytes(b"stays")
    name = f"{path.parent.name}/{path.name}".encode()
    wait_for(lambda: listed_paths(host) == [name], "the inventory lists the file")
    create(host, MiscColumn)
    column = (f"{MiscColumn.NAME}.5", ber.octets(b"bootflash:" + name))
    assert host.set(column) == ber.WRONG_LENGTH


def test_cut_path_is_at_least_253_octets_long(host):
    says("FilePath", "when its path was cut, which one of 253 octets or more may have been")
    # 4 octets a character, so that the cut falls where it costs most.
    path = host.flash() / ("d" * 108) / ("\U0001f4be" * 37 + "xyz")
    path.parent.mkdir()
    path.write_bytes(b"x")
    full = f"{path.parent.name}/{path.name}".encode()
    assert len(full) == 260
    wait_for(lambda: listed_paths(host) == [full[:253]], "the inventory lists the file")


@pytest.mark.parametrize("table, status", [(CopyColumn, "CopyEntryStatus"),
                                           (MiscColumn, "MiscOpEntryStatus")],
                         ids=["copy", "misc"])
def test_row_that_does_not_fit_into_a_full_table_is_refused_with_gen_err(idle_host, table, status):
    says(status, "So is a SET that would create a row in a table that is full")
    idle_host.agent_settings = {"max_rows": 1}
    idle_host.start()
    create(idle_host, table)
    assert set_status(idle_host, table, CREATE_AND_WAIT, row=6) == ber.GEN_ERR
