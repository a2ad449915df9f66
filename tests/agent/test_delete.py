"""Deleting files by the misc-operation table."""

import ber
import pytest

from harness import (
    ACTIVE,
    CREATE_AND_GO,
    CREATE_AND_WAIT,
    DESTROY,
    SUCCESS,
    MiscColumn,
)

FAILED, INITIAL = 10, 14


def delete(host, row, name):
    """Asks for a deletion; returns the answer and the operation status."""
    pairs = [(f"{MiscColumn.ROW}.{row}", ber.integer(CREATE_AND_WAIT))]
    pairs.append((f"{MiscColumn.NAME}.{row}", ber.octets(name)))
    assert host.set(*pairs) == ber.NO_ERROR
    answer = host.set((f"{MiscColumn.ROW}.{row}", ber.integer(ACTIVE)))
    return answer, host.value(f"{MiscColumn.STATUS}.{row}")


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
        b"log:messages",
    ],
)
def test_name_that_does_not_resolve_deletes_nothing(host, name):
    (host.flash() / "sub").mkdir()
    (host.flash() / "link").symlink_to(host.server_dir)
    (host.server_dir / "file").write_bytes(b"outside")
    assert delete(host, 5, name) == (ber.NO_ERROR, INITIAL)
    assert host.configuration.exists()
    assert (host.server_dir / "file").exists()


@pytest.mark.parametrize("name", [b":", b":::"])
def test_name_of_colons_only_is_a_general_error(host, name):
    assert delete(host, 5, name) == (ber.GEN_ERR, INITIAL)


def test_line_card_name_is_answered_as_done(host):
    assert delete(host, 5, b"ilc-nvram:file") == (ber.NO_ERROR, SUCCESS)


def test_every_row_deletes_its_own_file(host):
    for row in range(1, 21):
        (host.flash() / f"file{row}").write_bytes(b"old")
    for row in range(1, 21):
        assert delete(host, row, b"bootflash:file%d" % row) == (ber.NO_ERROR, SUCCESS)
        assert len(list(host.flash().iterdir())) == 20 - row
