"""The command lines of docs/operate.md, run by a shell as they stand there, against a real agent."""

import pytest

from documents import commands
from harness import wait_for
from pasted import Document, Shell
from remotes import start_server

OPERATE = Document("docs/operate.md")
block_with = OPERATE.block_with
SUCCESS = "INTEGER: success(2)\n"


@pytest.fixture(name="operated_host")
def fixture_operated_host(idle_host):
    """An agent with the user and the view of the document, and a file on flash."""
    idle_host.agent_directives = block_with("createUser").splitlines()
    idle_host.flash().joinpath("system.bin").write_bytes(b"system")
    idle_host.start()
    return idle_host


@pytest.fixture(name="shell")
def fixture_shell(operated_host, tmp_path):
    shell = Shell(operated_host, tmp_path)
    assert shell(block_with("defSecurityName")) == ""
    return shell


def test_inventory_is_shown(shell):
    supported, table, free, files = commands(block_with("orvexFlashSupported.0"))
    assert shell(supported).endswith(": 1\n")
    assert "bootflash" in shell(table)
    assert shell(free).count("orvexFlashPartitionFreeCapacity") == 3
    assert "system.bin" in shell(files)


def test_copy_goes_line_by_line(operated_host, shell):
    operated_host.start_atftpd()
    operated_host.server_dir.joinpath("image.bin").write_bytes(b"image")
    create, columns, activate, status, time, destroy = commands(
        block_with("orvexFlashCopyEntryStatus.7 = createAndWait")
    )
    for line in (create, columns, activate):
        shell(line)
    wait_for(lambda: shell(status).endswith(SUCCESS), "the copy has succeeded", timeout=20)
    assert operated_host.flash().joinpath("image.bin").read_bytes() == b"image"
    assert "Timeticks" in shell(time)
    shell(destroy)
    assert "No Such Instance" in shell(status)


def test_copy_by_sftp_goes_as_shown(operated_host, shell):
    with start_server("sftp") as server:
        create, columns, activate, status = commands(block_with("orvexFlashCopyRemoteUserName.8"))
        shell.places[r"\b192\.0\.2\.9\b"] = server.address
        shell.places |= {"backup": server.account.name, "third pass phrase": server.account.password}
        for line in (create, columns, activate):
            shell(line)
        wait_for(lambda: shell(status).endswith(SUCCESS), "the copy has succeeded", timeout=20)
        assert (server.home / "system.bin").read_bytes() == b"system"


def test_copy_is_cancelled_as_shown(operated_host, shell):
    shell(commands(block_with("orvexFlashCopyEntryStatus.7 = createAndWait"))[0])
    [cancel] = [block for block in OPERATE.blocks
                if block == "snmpset 127.0.0.1 orvexFlashCopyEntryStatus.7 = destroy\n"]
    shell(cancel)
    assert operated_host.value(".1.3.6.1.4.1.32473.1.1.2.1.1.11.7") is None


def test_file_is_deleted_as_shown(operated_host, shell):
    operated_host.flash().joinpath("image.bin").write_bytes(b"image")
    delete, status, destroy = commands(block_with("orvexFlashMiscOpCommand"))
    shell(delete)
    assert shell(status).endswith(SUCCESS)
    assert not operated_host.flash().joinpath("image.bin").exists()
    shell(destroy)
