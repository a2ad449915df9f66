"""What must be the same on agents of every word size, at the values where one differs."""

import subprocess

import ber
import pytest

from harness import (
    ACTIVE,
    COPY,
    CREATE_AND_WAIT,
    DESTROY,
    DEVICE,
    FILE,
    MISC,
    PARTITION,
    SUCCESS,
    CopyColumn,
    MiscColumn,
)
from tftp_server import TftpServer

EDGES = [2**31 - 2, 2**31 - 1, 2**31, 2**31 + 1, 2**32 - 2, 2**32 - 1]
ENDS = [2**31 - 1, 2**31 - 2, -(2**31), -(2**31) + 1]
CONTENT = b"what the server has"


def word(value):
    """An INTEGER in four bytes: an agent whose long has four takes no more."""
    return ber.tlv(ber.INTEGER, value.to_bytes(4, "big", signed=True))


@pytest.fixture(name="file_system")
def fixture_file_system(idle_host):
    """Mounts an empty file system of a number of bytes on the second flash directory."""
    where = idle_host.flash("slot0")

    def mount(size):
        command = ["mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", where]
        subprocess.run(command, check=True)

    yield mount
    idle_host.stop()
    subprocess.run(["umount", where], check=True)


@pytest.mark.parametrize("size", [*EDGES, 2**32, 2**32 + 1, 2**33 + 5])
def test_size_of_a_file_is_exact_below_32_bits_and_capped_from_there(idle_host, size):
    with open(idle_host.flash() / "file", "wb") as sparse:
        sparse.truncate(size)
    idle_host.start()
    [variable] = idle_host.variables(f"{FILE}.2.1.1.1")
    assert (variable.tag, variable.value) == (ber.UNSIGNED32, min(size, 2**32 - 1))


@pytest.mark.parametrize("size", [2**31 - 4096, 2**31, 2**32 - 4096, 2**32, 2**32 + 4096, 2**34])
def test_capacity_is_exact_at_every_size(idle_host, file_system, size):
    file_system(size)
    idle_host.start()
    for name in (f"{DEVICE}.16.2", f"{PARTITION}.13.2.1", f"{PARTITION}.14.2.1"):
        [variable] = idle_host.variables(name)
        assert (variable.tag, variable.value) == (ber.COUNTER64, size), name
    for name in (f"{DEVICE}.2.2", f"{PARTITION}.4.2.1"):
        [variable] = idle_host.variables(name)
        assert (variable.tag, variable.value) == (ber.UNSIGNED32, min(size, 2**32 - 1)), name


@pytest.mark.parametrize("index", EDGES)
def test_copy_row_of_every_index_runs_and_is_recorded(host, index):
    with TftpServer(host.address, {"image.bin": CONTENT}):
        assert host.copy(index, source="image.bin", destination="bootflash:image.bin") == SUCCESS
    assert (host.flash() / "image.bin").read_bytes() == CONTENT
    [(name, _)] = host.walk(f"{COPY}.8")
    assert name == f"{CopyColumn.STATUS}.{index}"
    assert host.set((f"{CopyColumn.ROW}.{index}", ber.integer(DESTROY))) == ber.NO_ERROR
    assert host.value(name) is None


@pytest.mark.parametrize("index", EDGES)
def test_delete_row_of_every_index_runs_and_is_recorded(host, index):
    (host.flash() / "old.bin").write_bytes(CONTENT)
    row = f"{MiscColumn.ROW}.{index}"
    assert host.set((row, ber.integer(CREATE_AND_WAIT))) == ber.NO_ERROR
    columns = (
        (f"{MiscColumn.COMMAND}.{index}", ber.integer(3)),
        (f"{MiscColumn.NAME}.{index}", ber.octets(b"bootflash:old.bin")),
    )
    assert host.set(*columns) == ber.NO_ERROR
    assert host.set((row, ber.integer(ACTIVE))) == ber.NO_ERROR
    assert not (host.flash() / "old.bin").exists()
    [(name, _)] = host.walk(f"{MISC}.4")
    assert name == f"{MiscColumn.STATUS}.{index}"
    assert host.value(name) == SUCCESS


@pytest.mark.parametrize("value", ENDS)
def test_integer_at_either_end_of_its_range_reads_back_with_its_sign(host, value):
    name = f"{CopyColumn.COMMAND}.9"
    assert host.set((f"{CopyColumn.ROW}.9", ber.integer(CREATE_AND_WAIT))) == ber.NO_ERROR
    assert host.set((name, word(value))) == ber.NO_ERROR
    [variable] = host.variables(name)
    assert (variable.tag, variable.value) == (ber.INTEGER, value)


@pytest.mark.parametrize("value", ENDS)
@pytest.mark.parametrize(
    "row, column, error",
    [
        (CopyColumn.ROW, CopyColumn.PROTOCOL, ber.GEN_ERR),
        (CopyColumn.ROW, CopyColumn.NOTIFY, ber.WRONG_VALUE),
        (MiscColumn.ROW, MiscColumn.COMMAND, ber.WRONG_VALUE),
        (MiscColumn.ROW, MiscColumn.NOTIFY, ber.WRONG_VALUE),
    ],
)
def test_integer_at_either_end_of_its_range_is_no_enumerated_value(host, row, column, error, value):
    assert host.set((f"{row}.9", ber.integer(CREATE_AND_WAIT))) == ber.NO_ERROR
    assert host.set((f"{column}.9", word(value))) == error
