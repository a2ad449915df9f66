"""Copies by each protocol through the agent, end to end, against real servers; how they fail."""

import contextlib
import itertools
import os
import signal

import pytest

from harness import (
    FROM_FLASH,
    INVALID_SOURCE,
    NO_MEMORY,
    SCP_FAILURE,
    SUCCESS,
    TO_FLASH,
    TRANSFER_ERROR,
    arrived,
    sha256,
    small_file_system,
    wait_for,
    write_random,
)
from remotes import (
    AWKWARD,
    PROGRAMS,
    PROTOCOLS,
    SCRIPT_NAMES,
    SCRIPTED,
    Account,
    HeldCopy,
    remote_of,
    start_server,
)

MIB = 1 << 20
SIZES = [0, 1, 511, 512, 513, MIB, 64 * MIB]
# A script that refuses the login or the host key exits with 4.
REFUSED = {"ftp": TRANSFER_ERROR, "scp": SCP_FAILURE, "sftp": TRANSFER_ERROR}
CONTENT = b"content\n" * 1000

ROWS = itertools.count(1)
scripted = pytest.mark.parametrize("remote", SCRIPTED, indirect=True)
both_ways = pytest.mark.parametrize("verb", ["get", "put"])


def get(host, remote, source, destination, **columns):
    """A copy into flash; its status."""
    columns = remote.columns | columns
    row = next(ROWS)
    return host.copy(row, 60, command=TO_FLASH, source=source, destination=destination, **columns)


def put(host, remote, source, destination, **columns):
    """A copy out of flash; its status."""
    columns = remote.columns | columns
    row = next(ROWS)
    return host.copy(row, 60, command=FROM_FLASH, source=source, destination=destination, **columns)


def copy_large(host, remote, verb, source="large", destination="large", **columns):
    """A copy of a file that is there under the name "large"; its status."""
    if verb == "get":
        (remote.home / "large").write_bytes(CONTENT)
        return get(host, remote, source, f"bootflash:{destination}", **columns)
    (remote.home / "large").unlink(missing_ok=True)
    (host.flash() / "large").write_bytes(CONTENT)
    return put(host, remote, f"bootflash:{source}", destination, **columns)


@pytest.fixture(name="clean_host")
def fixture_clean_host(shared_host):
    """The shared host with empty directories."""
    for directory in (shared_host.flash(), shared_host.work_dir):
        for path in directory.iterdir():
            path.unlink()
    return shared_host


@contextlib.contextmanager
def own_remote(protocol, **settings):
    """A server of the test's own, and what a row says to reach it."""
    with start_server(protocol, **settings) as server:
        yield server, remote_of(protocol, server)


# --- What arrives


@pytest.mark.parametrize("size", SIZES)
def test_get_of_every_size_is_complete(shared_host, remote, size):
    source = remote.home / f"get{size}"
    write_random(source, size)
    assert get(shared_host, remote, source.name, "slot0:received") == SUCCESS
    received = shared_host.flash("slot0") / "received"
    assert received.stat().st_size == size
    assert sha256(received) == sha256(source)
    source.unlink()


@pytest.mark.parametrize("size", SIZES)
def test_put_of_every_size_is_complete(shared_host, remote, size):
    source = shared_host.flash("slot0") / "source"
    write_random(source, size)
    assert put(shared_host, remote, "slot0:source", f"put{size}") == SUCCESS
    sent = arrived(remote.home / f"put{size}", size)
    assert sha256(sent) == sha256(source)
    sent.unlink()


@pytest.mark.parametrize("remote", ["tftp", "scp", "sftp"], indirect=True)
@pytest.mark.parametrize("before", [None, 0o600])
def test_received_file_may_be_read_and_written_by_all(clean_host, remote, before):
    destination = clean_host.flash() / "large"
    if before is not None:
        destination.write_bytes(b"old")
        destination.chmod(before)
    assert copy_large(clean_host, remote, "get") == SUCCESS
    assert destination.stat().st_mode & 0o7777 == 0o666


@pytest.mark.parametrize("remote", ["ftp"], indirect=True)
@pytest.mark.parametrize("before", [0o600, 0o640, 0o755])
def test_mode_of_a_file_replaced_by_ftp_is_unchanged(clean_host, remote, before):
    destination = clean_host.flash() / "large"
    destination.write_bytes(b"old")
    destination.chmod(before)
    assert copy_large(clean_host, remote, "get") == SUCCESS
    assert destination.read_bytes() == CONTENT
    assert destination.stat().st_mode & 0o7777 == before


@pytest.mark.parametrize("remote", ["ftp"], indirect=True)
def test_new_file_by_ftp_is_read_by_its_owner_and_group_alone(clean_host, remote):
    assert copy_large(clean_host, remote, "get") == SUCCESS
    assert (clean_host.flash() / "large").stat().st_mode & 0o7777 == 0o640


def test_put_without_destination_name_keeps_the_name_of_the_file(clean_host, remote):
    """Every resolved path has a directory before that name, so that there always is one."""
    (clean_host.flash() / "running.cfg").write_bytes(CONTENT)
    assert put(clean_host, remote, "bootflash:running.cfg", None) == SUCCESS
    assert arrived(remote.home / "running.cfg", len(CONTENT)).read_bytes() == CONTENT
    (remote.home / "running.cfg").unlink()
    assert list(clean_host.work_dir.iterdir()) == []


def test_put_leaves_the_file_and_its_mode_as_they_were(clean_host, remote):
    source = clean_host.flash() / "large"
    source.touch(0o640)
    assert copy_large(clean_host, remote, "put") == SUCCESS
    assert source.read_bytes() == CONTENT
    assert source.stat().st_mode & 0o7777 == 0o640


# --- Failures


@scripted
@both_ways
def test_wrong_password_is_the_failure_of_a_login(clean_host, remote, verb):
    status = copy_large(clean_host, remote, verb, destination="never", password="wrong")
    assert status == REFUSED[remote.protocol]
    assert not (clean_host.flash() / "never").exists()
    assert not (remote.home / "never").exists()


@scripted
def test_unknown_user_is_the_failure_of_a_login(clean_host, remote):
    assert copy_large(clean_host, remote, "get", user="stranger") == REFUSED[remote.protocol]


def test_missing_remote_file_is_an_invalid_source_name(clean_host, remote):
    (clean_host.flash() / "kept").write_bytes(b"kept")
    assert get(clean_host, remote, "missing", "bootflash:kept") == INVALID_SOURCE
    assert (clean_host.flash() / "kept").read_bytes() == b"kept"


@scripted
def test_missing_local_file_is_an_invalid_source_name(clean_host, remote):
    assert put(clean_host, remote, "bootflash:missing", "never") == INVALID_SOURCE
    assert not (remote.home / "never").exists()


@scripted
def test_remote_directory_that_may_not_be_written_is_a_transfer_error(clean_host, remote):
    status = copy_large(clean_host, remote, "put", destination="readonly/never")
    assert status == TRANSFER_ERROR
    assert list((remote.home / "readonly").iterdir()) == []


@pytest.mark.parametrize("protocol", ["scp", "sftp"])
def test_changed_host_key_is_the_failure_of_a_login(clean_host, protocol):
    with own_remote(protocol) as (server, remote):
        assert copy_large(clean_host, remote, "put") == SUCCESS
        server.stop()
        server.new_host_key()
        server.start()
        assert copy_large(clean_host, remote, "put", destination="never") == REFUSED[protocol]
        assert copy_large(clean_host, remote, "get") == REFUSED[protocol]
        assert not (remote.home / "never").exists()


@pytest.mark.parametrize("protocol", SCRIPTED)
@both_ways
def test_server_that_stops_in_the_middle_is_a_transfer_error(host, protocol, verb):
    held = HeldCopy(host, protocol, verb)
    held.start()
    held.server.stop()
    assert host.finish_copy(held.ROW) == TRANSFER_ERROR
    assert held.flash_files() == set()


@scripted
@both_ways
def test_server_that_is_not_there_is_a_transfer_error(clean_host, remote, verb):
    address = clean_host.address  # where nothing but the agent, and a TFTP server, is
    assert copy_large(clean_host, remote, verb, server=address) == TRANSFER_ERROR


@pytest.mark.parametrize("protocol", SCRIPTED)
def test_full_disk_on_receipt_is_no_memory(idle_host, protocol):
    host = idle_host
    with small_file_system(host.flash(), "128k"), own_remote(protocol) as (_, remote):
        (host.flash() / "large").write_bytes(b"old")
        (remote.home / "larger").write_bytes(bytes(200_000))
        host.start()
        status = get(host, remote, "larger", "bootflash:large")
        left = {path.name: path.read_bytes() for path in host.flash().iterdir()}
        host.stop()
    assert status == NO_MEMORY
    assert left == {"large": b"old"}


@scripted
def test_full_disk_at_the_server_is_no_memory(clean_host, remote):
    (clean_host.flash() / "larger").write_bytes(bytes(1_000_000))
    assert put(clean_host, remote, "bootflash:larger", "full/larger") == NO_MEMORY


@pytest.mark.parametrize("protocol", SCRIPTED)
def test_missing_script_is_a_transfer_error(host, ftp_server, ssh_server, protocol):
    remote = remote_of(protocol, ftp_server if protocol == "ftp" else ssh_server)
    (host.scripts / SCRIPT_NAMES[protocol]).unlink()
    assert copy_large(host, remote, "get") == TRANSFER_ERROR
    assert not (host.flash() / "large").exists()


@pytest.mark.parametrize(
    "code, status",
    [
        (0, dict.fromkeys(SCRIPTED, SUCCESS)),
        (1, dict.fromkeys(SCRIPTED, 8)),
        (2, dict.fromkeys(SCRIPTED, INVALID_SOURCE)),
        (3, dict.fromkeys(SCRIPTED, NO_MEMORY)),
        (4, REFUSED),
        (5, dict.fromkeys(SCRIPTED, TRANSFER_ERROR)),
        (126, dict.fromkeys(SCRIPTED, TRANSFER_ERROR)),
        (255, dict.fromkeys(SCRIPTED, TRANSFER_ERROR)),
    ],
)
def test_exit_code_of_a_script_has_its_status(host, code, status):
    for protocol, name in SCRIPT_NAMES.items():
        (host.scripts / name).write_text(f"#!/bin/sh\nexit {code}\n")
        columns = dict(protocol=PROTOCOLS[protocol], user="u", password="p")
        copied = host.copy(next(ROWS), source="s", destination="bootflash:d", **columns)
        assert copied == status[protocol], protocol


def process_name(pid):
    with open(f"/proc/{pid}/comm", encoding="utf-8") as file:
        return file.read().removesuffix("\n")


def command_line(pid):
    with open(f"/proc/{pid}/cmdline", "rb") as file:
        return file.read().split(b"\0")


def is_shell_of_worker(pid):
    """Whether a process is the shell that the worker runs the script by."""
    return command_line(pid)[:2] == [b"sh", b"-c"] and b"/ruma/bin/" in command_line(pid)[2]


def kill_shell(host):
    [shell] = [pid for pid in host.strays() if is_shell_of_worker(pid)]
    os.kill(shell, signal.SIGKILL)


def end_script(host, protocol, with_shell):
    """Kills the script in mid-transfer, and before it the shell that waits for it."""
    # The name is the last word of the supervisor's command line, not of its child's.
    name = f"/{SCRIPT_NAMES[protocol]}\0".encode()
    [script] = [pid for pid in host.strays() if b"\0".join(command_line(pid)).endswith(name)]
    if with_shell:
        kill_shell(host)
    os.kill(script, signal.SIGKILL)


@pytest.mark.parametrize("protocol", SCRIPTED)
@pytest.mark.parametrize(
    "with_shell, status",
    [
        # This system's shell waits for the script and turns its signal into the exit code 137.
        pytest.param(False, TRANSFER_ERROR, id="script"),
        # What ends by a signal itself has no exit code: defined as success.
        pytest.param(True, SUCCESS, id="script and shell"),
    ],
)
def test_what_is_killed_by_a_signal_has_the_exit_code_that_the_module_sees(
    host, protocol, with_shell, status
):
    """Nothing has arrived, and nothing of the transfer goes on."""
    held = HeldCopy(host, protocol, "get")
    held.start()
    end_script(host, protocol, with_shell)
    assert host.finish_copy(held.ROW) == status
    assert held.destination() is None
    wait_for(lambda: not host.strays(), "no process of the transfer is left")


@pytest.mark.parametrize("protocol", SCRIPTED)
@both_ways
def test_transfer_whose_shell_is_killed_does_not_go_on(host, protocol, verb):
    """It counts as finished: nothing of it may write a file afterwards."""
    held = HeldCopy(host, protocol, verb)
    held.start()
    kill_shell(host)
    assert host.finish_copy(held.ROW) == SUCCESS
    wait_for(lambda: not host.strays(), "no process of the transfer is left", timeout=3)
    assert not held.flash_files()


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGSEGV, signal.SIGTERM])
@pytest.mark.parametrize(
    "protocol, program", [(key, each) for key, programs in PROGRAMS.items() for each in programs]
)
@both_ways
def test_killed_client_of_a_script_is_a_transfer_error(host, protocol, verb, program, number):
    """Or its timer. A get leaves the former file as it was."""
    held = HeldCopy(host, protocol, verb)
    if verb == "get":
        (host.flash() / "large").write_bytes(b"old")
    held.start()
    [killed] = [pid for pid in host.strays() if process_name(pid) == program]
    os.kill(killed, number)
    assert host.finish_copy(held.ROW) == TRANSFER_ERROR
    assert [path.name for path in host.flash().iterdir()] == ["large"]
    content = b"old" if verb == "get" else held.content
    assert (host.flash() / "large").read_bytes() == content
    wait_for(lambda: not host.strays(), "no process of the transfer is left")


# --- Passwords


@pytest.mark.parametrize("protocol", SCRIPTED)
def test_password_of_40_characters_that_need_escaping_logs_in(clean_host, protocol):
    with own_remote(protocol, account=Account(password=AWKWARD)) as (_, remote):
        assert len(remote.columns["password"]) == 40
        assert copy_large(clean_host, remote, "get") == SUCCESS
        assert (clean_host.flash() / "large").read_bytes() == CONTENT
        assert copy_large(clean_host, remote, "put", destination="sent") == SUCCESS
        assert (remote.home / "sent").read_bytes() == CONTENT


@pytest.mark.parametrize("protocol", SCRIPTED)
@pytest.mark.parametrize(
    "password", [" two  words ", "it's", "a;b|c&d>e<f", "$HOME", "[exit]", "ö☃"]
)
def test_password_with_what_means_something_to_a_shell_logs_in(clean_host, protocol, password):
    with own_remote(protocol, account=Account(password=password)) as (_, remote):
        assert copy_large(clean_host, remote, "get") == SUCCESS


@pytest.mark.parametrize("protocol", SCRIPTED)
@both_ways
def test_no_process_but_the_shell_shows_the_password(host, protocol, verb):
    held = HeldCopy(host, protocol, verb)
    held.start()
    password = held.server.columns["password"].encode()
    transfer = host.strays()
    assert len(transfer) >= 3  # worker, script, client
    for pid in transfer:
        shown = any(password in word for word in command_line(pid))
        assert shown == is_shell_of_worker(pid)
        with open(f"/proc/{pid}/environ", "rb") as file:
            assert password not in file.read()
    held.server.stop()
    assert host.finish_copy(held.ROW) == TRANSFER_ERROR


# --- Names that mean something to a shell


@scripted
@both_ways
@pytest.mark.parametrize("where", ["source", "destination", "user"])
def test_space_in_a_name_shifts_the_arguments_and_the_copy_fails(clean_host, remote, verb, where):
    """In a file name on either side, and in the name of the user."""
    for name in ("two words", "two", "words"):
        (clean_host.flash() / name).write_bytes(CONTENT)
        (remote.home / name).write_bytes(CONTENT)
    before = listing(clean_host, remote)
    columns = {"destination": "never", where: "two words"}
    assert copy_large(clean_host, remote, verb, **columns) == TRANSFER_ERROR
    assert listing(clean_host, remote) - before <= {"large"}


def listing(host, remote):
    return {path.name for path in (*host.flash().iterdir(), *remote.home.iterdir())}


@scripted
@pytest.mark.parametrize(
    "name, status",
    [
        ("two words", TRANSFER_ERROR),
        ("semi;colon", TRANSFER_ERROR),
        ("and&so", TRANSFER_ERROR),
        # Another name for the script, of a file that does not exist.
        ("sub$(true)shell", INVALID_SOURCE),
        ("gl*b[1]", SUCCESS),
        # Exit code 2 of the shell for a bad command line reads as that of the script.
        ("it's", INVALID_SOURCE),
    ],
)
def test_file_of_an_awkward_name_in_flash_as_a_script_finds_it(clean_host, remote, name, status):
    """The path is part of a shell's command line, whoever named the file."""
    (clean_host.flash() / name).write_bytes(CONTENT)
    assert put(clean_host, remote, f"bootflash:{name}", "sent") == status
    sent = remote.home / "sent"
    assert sent.exists() == (status == SUCCESS)
    sent.unlink(missing_ok=True)


# What a shell does itself: a confined worker starts no other programs than its own.
EXECUTED = {
    "a remote source": ("get", dict(source="large; : >marker; exit 5 #")),
    "a local destination": ("get", dict(destination="large; : >marker; exit 5 #")),
    "a user of a get": ("get", dict(user="operator1 $(: >marker)stranger")),
    "a local source": ("put", dict(source="large; : >marker; exit 5 #")),
    "a remote destination": ("put", dict(destination="large; : >marker; exit 5 #")),
    "a user of a put": ("put", dict(user="operator1 `: >marker`stranger")),
    "a pipe": ("get", dict(source="large | : >marker; exit 5 #")),
    "a background command": ("get", dict(source="large & : >marker; exit 5 #")),
}


@scripted
@pytest.mark.parametrize("case", EXECUTED)
def test_shell_metacharacter_in_a_name_is_executed_as_the_agents_user(clean_host, remote, case):
    """Defined so: write access is the power to run commands as that user."""
    verb, columns = EXECUTED[case]
    assert copy_large(clean_host, remote, verb, **columns) == TRANSFER_ERROR
    marker = clean_host.work_dir / "marker"
    assert marker.exists()
    assert marker.stat().st_uid == os.stat(f"/proc/{clean_host.agent.pid}").st_uid


@scripted
def test_redirection_in_a_name_creates_the_file(clean_host, remote):
    """The rest of the name's arguments is as if the redirection were not there."""
    assert copy_large(clean_host, remote, "get", source="large>marker") == SUCCESS
    assert (clean_host.work_dir / "marker").read_bytes() == b""
    assert (clean_host.flash() / "large").read_bytes() == CONTENT


@scripted
def test_backquote_in_a_password_is_executed(clean_host, remote):
    """Its output, which is empty, is the password that the server gets to see."""
    status = copy_large(clean_host, remote, "get", password="`: >marker`")
    assert status == REFUSED[remote.protocol]
    assert (clean_host.work_dir / "marker").exists()


@pytest.mark.parametrize("remote", ["ftp"], indirect=True)
def test_comment_in_a_name_turns_the_copy_to_another_file(clean_host, remote):
    """The shell drops what the module wrote behind it."""
    chosen = clean_host.work_dir / "chosen"
    user, password = remote.columns["user"], remote.columns["password"].replace(" ", "\\ ")
    source = f"large {chosen} {user} {password} get 60 #"
    assert copy_large(clean_host, remote, "get", source=source) == SUCCESS
    assert chosen.read_bytes() == CONTENT
    assert not (clean_host.flash() / "large").exists()
