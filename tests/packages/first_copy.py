"""What the manual's lines from nothing to a copy find and lead to, on any machine."""

import contextlib
import subprocess
from pathlib import Path

from harness import wait_for
from installation import MAIN_PACKAGES
from manual import FIRST_COPY
from tftp_server import TftpServer

# As the manual calls it.
SERVER = "192.0.2.9"
IMAGE = bytes(range(256)) * 1000
COPIED = "/var/lib/ruma/bootflash/image.bin"


@contextlib.contextmanager
def ground(machine, packages: Path):
    """The packages' files in a directory of the machine, and a server that it reaches."""
    machine.path("/root/packages").mkdir()
    for name in MAIN_PACKAGES:
        (package,) = packages.glob(f"{name}_*.deb")
        machine.path(f"/root/packages/{package.name}").write_bytes(package.read_bytes())
    with machine.network():
        subprocess.run(["ip", "address", "add", f"{SERVER}/32", "dev", "lo"], check=True)
        server = TftpServer(SERVER, {"image.bin": IMAGE})
    with server:
        yield machine


def follow(machine) -> None:
    """Runs the lines, the last until the copy has ended well."""
    said = machine.run("bash", "-e", "-c", "\n".join(["cd /root/packages", *FIRST_COPY]))
    assert "INTEGER: inProgress(1)" in said or "INTEGER: success(2)" in said
    wait_for(
        lambda: "success(2)" in machine.run("bash", "-c", FIRST_COPY[-1]),
        "the copy is successful",
        timeout=20,
    )
