"""Deleting files by the misc-operation table."""

import ber
import pytest

from harness import (
    ACTIVE,
    CREATE_AND_GO,
    CREATE_AND_WAIT,
    DESTROY,
    FALSE,
    NOT_IN_SERVICE,
    SUCCESS,
    TRUE,
    CopyColumn,
    MiscColumn,
    ToolError,
    delete,
    wait_for,
)
from messages import provoked

FAILED, INITIAL = 10, 14
DELETE = 3


def test_file_is_deleted(host):
    path = host.flash() / "old.bin"
    path.write_bytes(b"old")
    (host.flash() / "other").write_bytes(b"other")
    assert delete(host, 5, b"bootflash:old.bin") == (ber.NO_ERROR, SUCCESS)
    assert [path.name for path in host.flash().iterdir()] == ["other"]


def test_create_and_go_deletes_at_once(host):
    path = host.flash("slot0") / "old.bin"
    path.write_bytes(b"old")
    assert (
        host.set(
            (f"{MiscColumn.ROW}.5", ber.integer(CREATE_AND_GO)),
            (f"{MiscColumn.NAME}.5", ber.octets(b"slot0:old.bin")),
        )
        == ber.NO_ERROR
    )
    assert host.value(f"{MiscColumn.STATUS}.5") == SUCCESS
    assert not path.exists()


def test_row_can_be_destroyed_afterwards(host):
    (host.flash() / "old.bin").write_bytes(b"old")
    delete(host, 5, b"bootflash:old.bin")
    assert host.set((f"{MiscColumn.ROW}.5", ber.integer(DESTROY))) == ber.NO_ERROR
    assert host.value(f"{MiscColumn.ROW}.5") is None


def test_file_that_does_not_exist_fails_in_the_row_and_the_log(host):
    assert delete(host, 5, b"bootflash:missing") == (ber.NO_ERROR, FAILED)
    provoked(host.logs(), "ERROR:delete of the file:… failed")
    assert f"ERROR:delete of the file:{host.flash()}/missing failed" in host.logs()


def test_directory_is_not_deleted(host):
    (host.flash() / "directory").mkdir()
    assert delete(host, 5, b"bootflash:directory") == (ber.NO_ERROR, FAILED)
    assert (host.flash() / "directory").is_dir()


@pytest.mark.parametrize(
    "name",
    [
        b"floppy:file",
        b"file",
        b"bootflash:../platform.toml",
        b"bootflash:sub/../../platform.toml",
        b"bootflash:/../platform.toml",
        b"bootflash:link/file",
        b"bootflash:..",
        b"bootflash:sub/../../server/file",
        b"bootflash::../server/file",
        b"BOOTFLASH:inside",
        b" bootflash:inside",
        b":bootflash:inside",
        b"bootflash",
        b"log:messages",
        b"core:core.123",
    ],
)
def test_name_that_does_not_resolve_deletes_nothing(host, name):
    (host.flash() / "sub").mkdir()
    (host.flash() / "inside").write_bytes(b"inside")
    (host.flash() / "link").symlink_to(host.server_dir)
    (host.server_dir / "file").write_bytes(b"outside")
    host.system_log.write_bytes(b"log")
    assert delete(host, 5, name) == (ber.NO_ERROR, INITIAL)
    assert host.value(f"{MiscColumn.ROW}.5") == ACTIVE
    assert host.configuration.exists()
    assert (host.flash() / "inside").exists()
    assert (host.server_dir / "file").exists()
    assert host.system_log.exists()


@pytest.mark.parametrize("target", ["absolute", "relative"])
def test_link_out_of_the_file_system_never_deletes_what_it_points_to(host, target):
    outside = host.server_dir / "file"
    outside.write_bytes(b"outside")
    (host.flash() / "link").symlink_to(outside if target == "absolute" else "../server/file")
    delete(host, 5, b"bootflash:link")
    assert outside.read_bytes() == b"outside"


def test_absolute_path_stays_in_the_file_system(host):
    outside = host.server_dir / "file"
    outside.write_bytes(b"outside")
    assert delete(host, 5, f"bootflash:{outside}".encode()) != (ber.NO_ERROR, SUCCESS)
    assert outside.exists()


@pytest.mark.parametrize("name", [b":", b":::"])
def test_name_of_colons_only_is_a_general_error(host, name):
    """The row is not stored then, so that its status does not tell of the failure."""
    assert delete(host, 5, name) == (ber.GEN_ERR, INITIAL)
    assert host.value(f"{MiscColumn.ROW}.5") == ACTIVE


@pytest.mark.parametrize("name", [b"ilc-nvram:file", b"ilc-nvram", b"ilc-nvram:bootflash:file"])
def test_line_card_name_is_answered_as_done_and_nothing_is_touched(host, name):
    places = [host.flash(), host.work_dir]
    for place in places:
        for file in ("file", "ilc-nvram", "ilc-nvram:file"):
            (place / file).write_bytes(b"kept")
    assert delete(host, 5, name) == (ber.NO_ERROR, SUCCESS)
    assert host.value(f"{MiscColumn.ROW}.5") == ACTIVE
    assert [len(list(place.iterdir())) for place in places] == [3, 3]


@pytest.mark.parametrize("name", ["two words", "a;touch marker", "$(touch marker)", "*", "-rf"])
def test_name_is_taken_as_it_is(host, name):
    """No shell is involved."""
    for file in (name, "kept"):
        (host.flash() / file).write_bytes(b"old")
    assert delete(host, 5, f"bootflash:{name}".encode()) == (ber.NO_ERROR, SUCCESS)
    assert [path.name for path in host.flash().iterdir()] == ["kept"]
    assert list(host.work_dir.iterdir()) == []


def test_delete_by_an_snmpv3_user_with_privacy(v3_host):
    (v3_host.flash() / "old.bin").write_bytes(b"old")
    row, name = f"{MiscColumn.ROW}.5", f"{MiscColumn.NAME}.5"
    v3_host.snmpset(row, "i", CREATE_AND_WAIT, name, "s", "bootflash:old.bin", version="3")
    v3_host.snmpset(row, "i", ACTIVE, version="3")
    assert v3_host.value(f"{MiscColumn.STATUS}.5") == SUCCESS
    assert not (v3_host.flash() / "old.bin").exists()


def test_every_row_deletes_its_own_file(host):
    for row in range(1, 21):
        (host.flash() / f"file{row}").write_bytes(b"old")
    for row in range(1, 21):
        assert delete(host, row, b"bootflash:file%d" % row) == (ber.NO_ERROR, SUCCESS)
        assert len(list(host.flash().iterdir())) == 20 - row


# --- The row


def test_active_row_deletes_again(host):
    (host.flash() / "old.bin").write_bytes(b"old")
    assert delete(host, 5, b"bootflash:old.bin") == (ber.NO_ERROR, SUCCESS)
    assert host.set((f"{MiscColumn.ROW}.5", ber.integer(ACTIVE))) == ber.NO_ERROR
    assert host.value(f"{MiscColumn.STATUS}.5") == FAILED
    (host.flash() / "old.bin").write_bytes(b"old")
    assert host.set((f"{MiscColumn.ROW}.5", ber.integer(ACTIVE))) == ber.NO_ERROR
    assert host.value(f"{MiscColumn.STATUS}.5") == SUCCESS


def test_row_out_of_service_keeps_its_outcome_and_deletes_when_it_is_activated(host):
    (host.flash() / "old.bin").write_bytes(b"old")
    assert delete(host, 5, b"bootflash:old.bin") == (ber.NO_ERROR, SUCCESS)
    assert host.set((f"{MiscColumn.ROW}.5", ber.integer(NOT_IN_SERVICE))) == ber.NO_ERROR
    assert host.value(f"{MiscColumn.STATUS}.5") == SUCCESS
    (host.flash() / "old.bin").write_bytes(b"old")
    assert host.set((f"{MiscColumn.ROW}.5", ber.integer(ACTIVE))) == ber.NO_ERROR
    assert not (host.flash() / "old.bin").exists()


def test_destroyed_row_deletes_nothing(host):
    (host.flash() / "old.bin").write_bytes(b"old")
    row = f"{MiscColumn.ROW}.5"
    name = (f"{MiscColumn.NAME}.5", ber.octets(b"bootflash:old.bin"))
    assert host.set((row, ber.integer(CREATE_AND_WAIT)), name) == ber.NO_ERROR
    assert host.set((row, ber.integer(DESTROY))) == ber.NO_ERROR
    assert host.value(row) is None
    assert (host.flash() / "old.bin").exists()


CREATED = [(b"bootflash:old.bin", SUCCESS), (b"bootflash:missing", FAILED), (b"floppy:x", INITIAL)]


@pytest.mark.parametrize("name, status", CREATED)
def test_row_by_create_and_go_keeps_that_status_and_takes_columns(host, name, status):
    (host.flash() / "old.bin").write_bytes(b"old")
    row = (f"{MiscColumn.ROW}.5", ber.integer(CREATE_AND_GO))
    assert host.set(row, (f"{MiscColumn.NAME}.5", ber.octets(name))) == ber.NO_ERROR
    names = (f"{MiscColumn.STATUS}.5", f"{MiscColumn.ROW}.5")
    assert host.values(*names) == [status, CREATE_AND_GO]
    assert host.set((f"{MiscColumn.NAME}.5", ber.octets(b"bootflash:next"))) == ber.NO_ERROR
    assert host.value(f"{MiscColumn.NAME}.5") == b"bootflash:next"


def test_command_and_notification_are_optional(host):
    (host.flash() / "old.bin").write_bytes(b"old")
    for column, value in ((MiscColumn.COMMAND, DELETE), (MiscColumn.NOTIFY, TRUE)):
        assert host.set((f"{column}.5", ber.integer(value))) == ber.NO_SUCH_NAME
    assert delete(host, 5, b"bootflash:old.bin") == (ber.NO_ERROR, SUCCESS)


@pytest.mark.parametrize("column, value", [(MiscColumn.COMMAND, 2), (MiscColumn.NOTIFY, 9)])
def test_bad_value_of_an_absent_row_is_no_such_name(shared_host, column, value):
    assert shared_host.set((f"{column}.77", ber.integer(value))) == ber.NO_SUCH_NAME


@pytest.mark.parametrize("size", [0, 256])
def test_bad_name_of_an_absent_row_is_of_wrong_length(shared_host, size):
    pair = (f"{MiscColumn.NAME}.77", ber.octets(b"n" * size))
    assert shared_host.set(pair) == ber.WRONG_LENGTH


def test_refused_request_leaves_integers_0_and_cuts_the_name(host):
    """As for copies: what was stored before another variable failed is put back, more or less."""
    old = [
        (f"{MiscColumn.ROW}.5", ber.integer(CREATE_AND_WAIT)),
        (f"{MiscColumn.COMMAND}.5", ber.integer(DELETE)),
        (f"{MiscColumn.NAME}.5", ber.octets(b"abcd")),
        (f"{MiscColumn.NOTIFY}.5", ber.integer(TRUE)),
    ]
    assert host.set(*old) == ber.NO_ERROR
    new = [
        (f"{MiscColumn.COMMAND}.5", ber.integer(DELETE)),
        (f"{MiscColumn.NAME}.5", ber.octets(b"another")),
        (f"{MiscColumn.NOTIFY}.5", ber.integer(FALSE)),
        (f"{MiscColumn.NOTIFY}.99", ber.integer(FALSE)),
    ]
    answer = host.sender.set(*new)
    assert (answer.error, answer.error_index) == (ber.NO_SUCH_NAME, len(new))
    columns = (MiscColumn.COMMAND, MiscColumn.NAME, MiscColumn.NOTIFY)
    assert host.values(*(f"{column}.5" for column in columns)) == [0, b"abc", 0]


MESSAGES = [
    (MiscColumn.COMMAND, "s", "x", "write to orvexFlashMiscOpCommand not ASN_INTEGER"),
    (MiscColumn.COMMAND, "i", 2, "write to orvexFlashMiscOpCommand: invalid value"),
    (MiscColumn.NAME, "i", 5, "write to set_orvexFlashMiscOpDestinationName not ASN_OCTET_STR"),
    (MiscColumn.NAME, "s", "", "write to set_orvexFlashMiscOpDestinationName: bad length"),
    (MiscColumn.NOTIFY, "s", "x", "write to orvexFlashMiscOpNotifyOnCompletion not ASN_INTEGER"),
    (MiscColumn.NOTIFY, "i", 3, "write to orvexFlashMiscOpNotifyOnCompletion: bad value"),
]


@pytest.mark.parametrize("column, kind, value, message", MESSAGES)
def test_refused_value_is_told_on_standard_error(shared_host, column, kind, value, message):
    output = shared_host.directory / "snmpd.out"
    before = output.read_text(encoding="ascii").count(message)
    with pytest.raises(ToolError):
        shared_host.snmpset(f"{column}.6", kind, value)
    wait_for(
        lambda: output.read_text(encoding="ascii").splitlines().count(message) == before + 1,
        "the agent has said why",
    )


def test_messages_on_standard_error_are_those_of_the_document(host):
    for column, kind, value, _ in MESSAGES:
        with pytest.raises(ToolError):
            host.snmpset(f"{column}.6", kind, value)
    with pytest.raises(ToolError):
        host.snmpset(f"{CopyColumn.SERVER}.6", "s", "x")
    provoked(host.said(), "write to … not ASN_INTEGER")
    provoked(host.said(), "write to … not ASN_IPADDRESS")
    provoked(host.said(), "write to … not ASN_OCTET_STR")
    provoked(host.said(), "write to …: bad length")
    provoked(host.said(), "write to …: bad value")
    provoked(host.said(), "write to …: invalid value")
