"""The command lines of the README, run by a shell as they stand there, against a real agent.

Put in their place are the addresses, which a test has to itself, and the directory of the installed
MIB.
"""

import re
import subprocess

import pytest

from harness import AGENT_PORT, REPOSITORY, wait_for
from mib_text import PLAIN

BLOCKS = re.findall(r"^```\n(.*?)^```\n", (REPOSITORY / "README.md").read_text(), re.M | re.S)


def block_with(text):
    """The block of the README that holds this text."""
    found = [block for block in BLOCKS if text in block]
    assert len(found) == 1, f"{len(found)} blocks hold {text}"
    return found[0]


@pytest.fixture(name="readme_host")
def fixture_readme_host(idle_host):
    """An agent with the user of the README."""
    idle_host.agent_directives = block_with("createUser").splitlines()
    idle_host.start()
    return idle_host


@pytest.fixture(name="shell")
def fixture_shell(readme_host, tmp_path):
    """A shell at the station, whose home directory is empty at first."""
    places = {
        r"\b127\.0\.0\.1\b": f"{readme_host.address}:{AGENT_PORT}",
        r"\b192\.0\.2\.9\b": readme_host.address,
        "/usr/share/orvex-flash-mib/mibs/": f"{PLAIN.parent}/",
    }
    environment = {
        name: value
        for name, value in readme_host.environment.items()
        if name not in ("MIBS", "MIBDIRS", "SNMPCONFPATH")
    }
    environment |= {"HOME": str(tmp_path), "SNMP_PERSISTENT_DIR": str(tmp_path / "state")}
    # The tools tell when they create it.
    (tmp_path / "state" / "cert_indexes").mkdir(parents=True)

    def shell(text):
        for place, own in places.items():
            text = re.sub(place, own, text)
        run = subprocess.run(
            ["sh", "-e"],
            input=text,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            env=environment,
            timeout=60,
            check=False,
        )
        assert run.returncode == 0, run.stdout
        return run.stdout

    return shell


def test_a_copy_goes_as_the_readme_has_it(readme_host, shell):
    readme_host.start_atftpd()
    (readme_host.server_dir / "image.bin").write_bytes(b"image")
    readme_host.flash().joinpath("system.bin").write_bytes(b"system")
    assert shell(block_with("defSecurityName")) == ""

    # Joined again where a line ends in a backslash.
    lines = re.split(r"(?<!\\)\n", block_with("createAndWait").rstrip())
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
    assert set(BLOCKS) == {*used, block_with("snmpbulkwalk")}
