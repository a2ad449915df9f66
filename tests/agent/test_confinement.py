"""What flash may hold without leading the agent astray: odd names, special files, open doors."""

import contextlib
import itertools
import os
import socket

import ber
import pytest

from harness import (
    FROM_FLASH,
    INVALID_SOURCE,
    SUCCESS,
    MiscColumn,
    delete,
    live_children,
    wait_for,
)
from remotes import HeldTftp

INVALID_DESTINATION = 6
INITIAL = 14  # status of a misc-operation row
INVALID_SOURCE_CODE, INVALID_DESTINATION_CODE = "0x4049001c", "0x4049001d"
CONTENT = b"content\n" * 1000
EVIL = "x;touch marker;true "
SPECIAL = ("fifo", "socket", "device")
ROWS = itertools.count(1)


@pytest.fixture(name="trap_host", scope="module")
def fixture_trap_host(module_host):
    """The module's host with a directory whose name is a command, and links to it."""
    for scheme in ("bootflash", "slot0"):
        flash = module_host.flash(scheme)
        (flash / EVIL).mkdir()
        (flash / EVIL / "image").write_bytes(CONTENT)
        (flash / "link").symlink_to(EVIL)
        (flash / "sub").mkdir()
        (flash / "sub" / "link").symlink_to(f"../{EVIL}")
    return module_host


def refuse(host, code, **columns):
    """A copy that is refused when it is activated, with this code in the error log; its status."""
    row = next(ROWS)
    before = host.errors()
    host.create_copy(row, **columns)
    assert host.activate(row) == ber.GEN_ERR
    assert host.errors() == before + [code]
    assert not live_children(host.agent.pid)
    return host.copy_status(row)


def assert_nothing_ran(host, remote=None):
    places = [host.work_dir, host.flash(), host.flash("slot0")] + ([remote.home] if remote else [])
    assert not any((place / "marker").exists() for place in places)


# --- Directories whose names are commands


@pytest.mark.parametrize("name", ["link/image", "sub/link/image"])
@pytest.mark.parametrize("destination", ["sent", None])
def test_file_behind_a_link_to_a_directory_of_commands_is_not_sent(
    trap_host, shared_host, remote, name, destination
):
    columns = dict(source=f"bootflash:{name}", destination=destination, **remote.columns)
    status = refuse(trap_host, INVALID_SOURCE_CODE, command=FROM_FLASH, **columns)
    assert status == INVALID_SOURCE
    assert_nothing_ran(shared_host, remote)
    assert not (remote.home / "sent").exists()


@pytest.mark.parametrize("name", ["link/image", "link/new", "sub/link/new"])
def test_file_behind_a_link_to_a_directory_of_commands_is_not_received(
    trap_host, shared_host, remote, name
):
    (remote.home / "large").write_bytes(b"new")
    columns = dict(source="large", destination=f"bootflash:{name}", **remote.columns)
    assert refuse(trap_host, INVALID_DESTINATION_CODE, **columns) == INVALID_DESTINATION
    assert_nothing_ran(shared_host, remote)
    assert os.listdir(trap_host.flash() / EVIL) == ["image"]
    assert (trap_host.flash() / EVIL / "image").read_bytes() == CONTENT


def test_file_behind_a_link_to_a_directory_of_commands_is_not_deleted(trap_host, shared_host):
    row = next(ROWS)
    assert delete(trap_host, row, b"slot0:link/image") == (ber.NO_ERROR, INITIAL)
    assert (trap_host.flash("slot0") / EVIL / "image").exists()
    assert_nothing_ran(shared_host)


def test_directory_is_reached_by_its_own_name_where_no_shell_sees_it(trap_host, module_tftp):
    """The station wrote it itself."""
    columns = dict(source=f"slot0:{EVIL}/image", destination="sent", **module_tftp.columns)
    assert trap_host.copy(next(ROWS), command=FROM_FLASH, **columns) == SUCCESS
    assert (module_tftp.home / "sent").read_bytes() == CONTENT
    (module_tftp.home / "sent").unlink()
    row = next(ROWS)
    assert delete(trap_host, row, f"slot0:{EVIL}/image".encode()) == (ber.NO_ERROR, SUCCESS)
    (trap_host.flash("slot0") / EVIL / "image").write_bytes(CONTENT)
    assert_nothing_ran(trap_host, module_tftp)


# --- FIFOs, sockets, devices


def make_special_files(directory):
    os.mkfifo(directory / "fifo", 0o666)
    with socket.socket(socket.AF_UNIX) as listener:
        # Bound by a relative name, for the directory's may be too long.
        descriptor = os.open(directory, os.O_RDONLY)
        listener.bind(f"/proc/self/fd/{descriptor}/socket")
        os.close(descriptor)
    os.mknod(directory / "device", 0o666 | 0o020000, os.makedev(1, 5))  # /dev/zero
    (directory / "to-device").symlink_to("device")


@pytest.fixture(name="special_host", scope="module")
def fixture_special_host(module_host):
    """The module's host with special files in a flash directory."""
    make_special_files(module_host.flash("logflash"))
    return module_host


@pytest.mark.parametrize("name", [*SPECIAL, "to-device"])
def test_special_file_is_no_source(special_host, shared_host, remote, name):
    for destination in ("sent", None):
        columns = dict(source=f"logflash:{name}", destination=destination, **remote.columns)
        status = refuse(special_host, INVALID_SOURCE_CODE, command=FROM_FLASH, **columns)
        assert status == INVALID_SOURCE
    assert list(shared_host.work_dir.iterdir()) == []


@pytest.mark.parametrize("name", [*SPECIAL, "to-device"])
def test_special_file_is_no_destination(special_host, shared_host, remote, name):
    (remote.home / "large").write_bytes(CONTENT)
    path = shared_host.flash("logflash") / name
    before = path.lstat()
    columns = dict(source="large", destination=f"logflash:{name}", **remote.columns)
    assert refuse(special_host, INVALID_DESTINATION_CODE, **columns) == INVALID_DESTINATION
    after = path.lstat()
    assert (after.st_mode, after.st_ino) == (before.st_mode, before.st_ino)


@pytest.mark.parametrize("name", SPECIAL)
def test_special_file_is_not_deleted(special_host, shared_host, name):
    row = next(ROWS)
    assert delete(special_host, row, f"logflash:{name}".encode()) == (ber.NO_ERROR, INITIAL)
    assert shared_host.value(f"{MiscColumn.ROW}.{row}") is not None
    assert (shared_host.flash("logflash") / name).exists()


def test_special_and_misnamed_core_files_are_no_sources(idle_host):
    host = idle_host
    host.core_directory = host.directory / "core"
    host.core_directory.mkdir()
    make_special_files(host.core_directory)
    (host.core_directory / EVIL).mkdir()
    (host.core_directory / EVIL / "image").write_bytes(CONTENT)
    (host.core_directory / "link").symlink_to(EVIL)
    host.start()
    for name in (*SPECIAL, "to-device", "link/image"):
        columns = dict(source=f"core:{name}", destination="sent")
        status = refuse(host, INVALID_SOURCE_CODE, command=FROM_FLASH, **columns)
        assert status == INVALID_SOURCE, name
    assert_nothing_ran(host)


# --- The staged file of a TFTP send


@pytest.mark.parametrize("destination", ["sent", None])
def test_staged_file_is_for_the_agents_user_alone(host, destination):
    source = host.flash() / "large"
    source.write_bytes(CONTENT * 20)
    source.chmod(0o666)
    held = HeldTftp(host.enter(contextlib.ExitStack()), b"")
    columns = dict(source="bootflash:large", destination=destination, **held.columns)
    host.start_copy(1, command=FROM_FLASH, **columns)
    wait_for(held.stands, "the transfer reaches its middle")
    staged = host.work_dir / (destination or "large")
    assert staged.stat().st_mode & 0o7777 == 0o600
    held.release()
    assert host.finish_copy(1) == SUCCESS
    assert not staged.exists()


# --- Open doors


def warnings(host):
    text = host.agent_log.read_text(encoding="utf-8", errors="replace")
    return [line for line in text.splitlines() if "others" in line]


def test_agent_says_nothing_of_directories_that_are_its_own(host):
    (host.flash() / "sub").mkdir(0o755)
    assert warnings(host) == []


@pytest.mark.provokes(
    "ruma_agent: …: others than its owner can write …, and so turn copies and deletes to other files; "
    "it is the first such directory, there may be more"
)
def test_agent_warns_of_the_first_directory_that_others_can_write(idle_host):
    host = idle_host
    host.flash().chmod(0o775)
    (host.flash() / "sub").mkdir()
    (host.flash() / "sub").chmod(0o777)
    open_door = host.flash("slot0") / "a" / "\x1b[31mb"
    open_door.mkdir(parents=True)
    open_door.chmod(0o1777)
    host.start()
    assert len(warnings(host)) == 2
    assert f"bootflash: others than its owner can write {host.flash()}," in warnings(host)[0]
    path = f"{host.flash('slot0')}/a/\\x1b[31mb"
    assert f"slot0: others than its owner can write {path}," in warnings(host)[1]


@pytest.mark.provokes(
    "ruma_agent: …: no more than … entries below … were searched for directories that others can write"
)
def test_agent_looks_at_ten_thousand_entries_and_says_that_there_are_more(idle_host):
    host = idle_host
    for number in range(10_001):
        os.mknod(host.flash("logflash") / str(number))
    host.start()
    assert len(warnings(host)) == 1
    expected = f"logflash: no more than 10000 entries below {host.flash('logflash')} were searched"
    assert expected in warnings(host)[0]


@pytest.mark.provokes("ruma_agent: cannot receive messages yet: …")
@pytest.mark.provokes("ruma_agent: receives messages now")
def test_agent_receives_no_messages_by_a_run_directory_that_others_can_write(idle_host):
    """Nor does it give up: it looks again."""
    host = idle_host
    host.run_dir.chmod(0o775)
    host.start_agent()
    [line] = warnings(host)
    assert "cannot receive messages yet" in line
    assert f"{host.run_dir} can be written by others than its owner" in line
    assert not list(host.run_dir.glob("pmb-*"))
    host.run_dir.chmod(0o755)
    wait_for(lambda: "receives messages now" in host.agent_log.read_text(), "it looks again")
    assert list(host.run_dir.glob("pmb-*"))


def test_daemon_does_not_serve_by_a_run_directory_that_others_can_write(idle_host):
    idle_host.run_dir.chmod(0o757)
    with pytest.raises(AssertionError, match="the daemon has ended"):
        idle_host.start_daemon()
    text = (idle_host.directory / "fs_daemon.out").read_text()
    assert f"{idle_host.run_dir} can be written by others than its owner" in text
