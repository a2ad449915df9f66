"""Copies by every protocol as Debian's agent user, over SNMPv3, from and to servers of the distribution."""

import itertools
import os

import pytest
from booted import wait_for
from conftest import ACCOUNT, ACCOUNT_PASSWORD
from harness import (
    ACTIVE,
    CREATE_AND_WAIT,
    DESTROY,
    FILE,
    FROM_FLASH,
    FTP,
    IN_PROGRESS,
    SCP,
    SFTP,
    SUCCESS,
    TFTP,
    TO_FLASH,
    CopyColumn,
)

PROTOCOLS = {"tftp": TFTP, "ftp": FTP, "scp": SCP, "sftp": SFTP}
CONTENT = os.urandom(300_000)
ROWS = itertools.count(100)
VALID = "1"


def copy(machine, protocol, command, source, destination) -> int:
    """A whole copy; its status."""
    row = next(ROWS)
    assert machine.set(f"{CopyColumn.ROW}.{row}", "i", CREATE_AND_WAIT)
    columns = [
        (CopyColumn.COMMAND, "i", command),
        (CopyColumn.PROTOCOL, "i", PROTOCOLS[protocol]),
        (CopyColumn.SERVER, "a", "127.0.0.1"),
        (CopyColumn.SOURCE, "s", source),
        (CopyColumn.DESTINATION, "s", destination),
    ]
    if protocol != "tftp":
        columns += [(CopyColumn.USER, "s", ACCOUNT), (CopyColumn.PASSWORD, "s", ACCOUNT_PASSWORD)]
    assert machine.set(*(word for name, *rest in columns for word in (f"{name}.{row}", *rest)))
    assert machine.set(f"{CopyColumn.ROW}.{row}", "i", ACTIVE)
    wait_for(lambda: machine.copy_status(row) != IN_PROGRESS, "the copy ends", timeout=30)
    status = machine.copy_status(row)
    machine.set(f"{CopyColumn.ROW}.{row}", "i", DESTROY)
    return status


def remote_name(site, protocol, name):
    """What the server calls a file in its home."""
    return name if protocol in ("tftp", "ftp") else f"{site.home}/{name}"


def file_status(machine, path):
    """What the inventory says of a file; None when it does not list it."""
    paths = machine.column(f"{FILE}.5")
    found = [index for index, value in paths.items() if value == path]
    return machine.get(f"{FILE}.4.{found[0]}") if found else None


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_file_arrives_on_flash_and_in_the_inventory(site, machine, protocol):
    source = machine.path(f"{site.home}/image")
    source.write_bytes(CONTENT)
    source.chmod(0o644)
    name = f"from-{protocol}"
    remote = remote_name(site, protocol, "image")
    assert copy(machine, protocol, TO_FLASH, remote, f"bootflash:{name}") == SUCCESS
    arrived = f"/var/lib/ruma/bootflash/{name}"
    assert machine.path(arrived).read_bytes() == CONTENT
    # The group reads it, whatever the protocol: the daemon does.
    owner, mode = machine.owner(arrived).split()
    assert owner == "Debian-snmp:ruma-flash"
    assert mode == ("640" if protocol == "ftp" else "666")
    wait_for(lambda: file_status(machine, name) == VALID, "the inventory has it", timeout=10)


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_file_of_flash_arrives_at_the_server(site, machine, protocol):
    local = "/var/lib/ruma/slot0/outgoing"
    machine.path(local).write_bytes(CONTENT)
    machine.run("chown", "Debian-snmp:ruma-flash", local)
    sent = f"to-{protocol}"
    if protocol == "tftp":
        # This server takes no new names.
        machine.path(f"{site.home}/{sent}").touch()
        machine.path(f"{site.home}/{sent}").chmod(0o666)
    remote = remote_name(site, protocol, sent)
    assert copy(machine, protocol, FROM_FLASH, "slot0:outgoing", remote) == SUCCESS
    destination = machine.path(f"{site.home}/{sent}")
    wait_for(lambda: destination.stat().st_size == len(CONTENT), "the server has it all")
    assert destination.read_bytes() == CONTENT
    assert list(machine.path("/var/lib/ruma/staging").iterdir()) == []
    machine.path(local).unlink()


def test_host_keys_are_recorded_in_the_state_directory(site, machine):
    known_hosts = machine.path("/var/lib/ruma/state/known_hosts")
    known_hosts.unlink(missing_ok=True)
    remote = remote_name(site, "sftp", "image")
    machine.path(f"{site.home}/image").write_bytes(CONTENT)
    assert copy(machine, "sftp", TO_FLASH, remote, "bootflash:keyed") == SUCCESS
    assert known_hosts.read_text(encoding="ascii").startswith("127.0.0.1 ssh-")
    assert machine.owner("/var/lib/ruma/state/known_hosts") == "Debian-snmp:Debian-snmp 600"


def test_host_key_that_changes_over_a_boot_is_refused(site, machine):
    """The key of the first contact is remembered."""
    remote = remote_name(site, "sftp", "image")
    machine.path(f"{site.home}/image").write_bytes(CONTENT)
    assert copy(machine, "sftp", TO_FLASH, remote, "bootflash:keyed") == SUCCESS
    machine.run("sh", "-c", "rm /etc/ssh/ssh_host_*; ssh-keygen -A")
    machine.reboot()
    machine.await_inventory()
    assert copy(machine, "sftp", TO_FLASH, remote, "bootflash:refused") != SUCCESS
    assert not machine.path("/var/lib/ruma/bootflash/refused").exists()
    machine.path("/var/lib/ruma/state/known_hosts").unlink()
    assert copy(machine, "sftp", TO_FLASH, remote, "bootflash:again") == SUCCESS
