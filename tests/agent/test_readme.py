"""The command lines of the README, run by a shell as they stand there, against a real agent."""

import pytest

from documents import commands
from harness import wait_for
from pasted import Document, Shell

README = Document("README.md")
block_with = README.block_with


@pytest.fixture(name="readme_host")
def fixture_readme_host(idle_host):
    """An agent with the user of the README."""
    idle_host.agent_directives = block_with("createUser").splitlines()
    idle_host.start()
    return idle_host


@pytest.fixture(name="shell")
def fixture_shell(readme_host, tmp_path):
    return Shell(readme_host, tmp_path)


def test_a_copy_goes_as_the_readme_has_it(readme_host, shell):
    readme_host.start_atftpd()
    (readme_host.server_dir / "image.bin").write_bytes(b"image")
    readme_host.flash().joinpath("system.bin").write_bytes(b"system")
    assert shell(block_with("defSecurityName")) == ""

    lines = commands(block_with("createAndWait"))
    table, files, create, columns, activate, status, destroy = lines
    shown = shell(table)
    assert shown.startswith("SNMP table: ORVEX-FLASH-MIB::orvexFlashDeviceTable\n")
    assert all(scheme in shown for scheme in ("bootflash", "slot0", "logflash"))
    assert shell(files) == "ORVEX-FLASH-MIB::orvexFlashFilePath.1.1.1 = STRING: system.bin\n"
    for line in (create, columns, activate):
        shell(line)
    success = "ORVEX-FLASH-MIB::orvexFlashCopyStatus.7 = INTEGER: success(2)\n"
    wait_for(lambda: shell(status) == success, "the copy has succeeded", timeout=20)
    assert readme_host.flash().joinpath("image.bin").read_bytes() == b"image"

    by_number, walk = block_with("snmpbulkwalk").splitlines()
    assert shell(by_number) == success
    root = ".1.3.6.1.4.1.32473.1.1."
    walked = shell(walk).splitlines()
    assert walked[0].startswith(f"{root}1.1.1.0 = ")
    assert all(line.startswith(root) for line in walked)

    shell(destroy)
    assert "No Such Instance" in shell(status)


def test_the_file_with_the_pass_phrases_is_closed_to_others(shell, tmp_path):
    shell(block_with("defSecurityName"))
    assert (tmp_path / ".snmp").stat().st_mode & 0o777 == 0o700


def test_every_block_is_used_here():
    used = [block_with(text) for text in ("createUser", "defSecurityName", "createAndWait")]
    assert set(README.blocks) == {*used, block_with("snmpbulkwalk")}
