"""From nothing to a copy, by the very lines of the manual."""

import subprocess

import pytest
from harness import wait_for
from installation import MAIN_PACKAGES
from manual import FIRST_COPY
from tftp_server import TftpServer

# As the manual calls it.
SERVER = "192.0.2.9"
IMAGE = bytes(range(256)) * 1000


@pytest.fixture(name="machine", scope="module")
def fixture_machine(make_installation, new):
    """A machine with the packages' files in a directory, and a server that it reaches."""
    machine = make_installation("first-copy")
    machine.path("/root/packages").mkdir()
    for name in MAIN_PACKAGES:
        (package,) = new.glob(f"{name}_*.deb")
        machine.path(f"/root/packages/{package.name}").write_bytes(package.read_bytes())
    with machine.network():
        subprocess.run(["ip", "address", "add", f"{SERVER}/32", "dev", "lo"], check=True)
        server = TftpServer(SERVER, {"image.bin": IMAGE})
    with server:
        yield machine


def test_commands_of_the_manual_lead_from_nothing_to_a_copy(machine):
    script = ["cd /root/packages", *FIRST_COPY]
    said = machine.run("bash", "-e", "-c", "\n".join(script))
    assert "INTEGER: inProgress(1)" in said or "INTEGER: success(2)" in said
    last = ["cd /root/packages", FIRST_COPY[-1]]
    wait_for(
        lambda: "success(2)" in machine.run("bash", "-c", "\n".join(last)),
        "the copy is successful",
        timeout=20,
    )
    assert machine.path("/var/lib/ruma/bootflash/image.bin").read_bytes() == IMAGE


def test_file_belongs_to_the_agents_user(machine):
    assert machine.owner("/var/lib/ruma/bootflash/image.bin").startswith("Debian-snmp:ruma-flash")
