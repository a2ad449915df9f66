"""What goes wrong has its exit code, and leaves nothing behind."""

import os
import socket
import stat
import subprocess
import time

import pytest
from servers import FtpServer, SshServer, free_address, wait_until
from transfers import (
    BUSY,
    DONE,
    FAILED,
    NO_SOURCE,
    NO_SPACE,
    PROGRAMS,
    REFUSED,
    SCRIPTS,
    alive,
    family,
)


@pytest.fixture
def source(client):
    path = client.files / "source"
    path.write_bytes(b"content")
    return path


def test_a_wrong_password_is_refused(client, protocol, server, source):
    assert client.put(protocol, server, source, "copy", password="wrong") == REFUSED


def test_a_wrong_password_is_refused_in_a_dialogue_too(client, source):
    with SshServer(interactive=True) as server:
        assert client.put("sftp", server, source, "copy", password="wrong") == REFUSED


def test_a_password_can_be_asked_for_in_a_dialogue(client, source):
    with SshServer(interactive=True) as server:
        assert client.put("sftp", server, source, "copy") == DONE


def test_a_missing_remote_file_is_no_source(client, protocol, server):
    assert client.get(protocol, server, "missing", client.files / "copy") == NO_SOURCE
    assert list(client.files.iterdir()) == []


def test_a_missing_local_file_is_no_source(client, protocol, server):
    assert client.put(protocol, server, client.files / "missing", "copy") == NO_SOURCE


@pytest.mark.parametrize(
    "make",
    [
        os.mkdir,
        os.mkfifo,
        lambda path: os.mknod(path, stat.S_IFSOCK),
        lambda path: os.mknod(path, stat.S_IFCHR, os.makedev(1, 5)),  # /dev/zero
        lambda path: os.symlink("/dev/zero", path),
    ],
    ids=["directory", "fifo", "socket", "device", "link to a device"],
)
def test_a_source_that_is_no_regular_file_fails(client, protocol, server, make):
    make(client.files / "source")
    assert client.put(protocol, server, client.files / "source", "never", limit=5) == FAILED
    assert not (server.home / "never").exists()


def test_a_remote_directory_is_no_file(client, protocol, server):
    code = client.get(protocol, server, "readonly", client.files / "copy")
    # FTP servers tell a directory from a missing file by their wording, or not at all.
    assert code == (NO_SOURCE if protocol == "ftp" else FAILED)
    assert list(client.files.iterdir()) == []


def test_a_remote_file_that_may_not_be_read_fails(client, protocol, server):
    (server.home / "secret").write_bytes(b"content")
    (server.home / "secret").chmod(0o600)
    assert client.get(protocol, server, "secret", client.files / "copy") == FAILED


def test_a_remote_directory_that_may_not_be_written_fails(client, protocol, server, source):
    assert client.put(protocol, server, source, "readonly/copy") == FAILED
    assert list((server.home / "readonly").iterdir()) == []


def test_a_missing_remote_directory_fails_a_put(client, protocol, server, source):
    assert client.put(protocol, server, source, "missing/copy") == FAILED


def test_a_missing_local_directory_fails_a_get(client, protocol, server):
    server.store("source", b"content")
    assert client.get(protocol, server, "source", client.files / "missing/copy") == FAILED


def test_a_disk_that_fills_up_while_receiving_is_no_space(
        client, protocol, server, small_file_system):
    server.store("larger", bytes(100_000))
    destination = small_file_system / "copy"
    destination.write_bytes(b"old")
    assert client.get(protocol, server, "larger", destination) == NO_SPACE
    assert destination.read_bytes() == b"old"
    assert client.temporaries(small_file_system) == []


def test_a_disk_that_fills_up_at_the_server_is_no_space(client, protocol, own_server, source):
    source.write_bytes(bytes(2 * own_server.FULL_SIZE))
    assert client.put(protocol, own_server, source, "full/copy") == NO_SPACE


@pytest.mark.parametrize("protocol", ["scp"])
def test_the_old_scp_protocol_has_the_same_causes(client, small_file_system, protocol, source):
    with SshServer(sftp=False) as server:
        server.store("larger", bytes(100_000))
        assert client.get(protocol, server, "missing", client.files / "copy") == NO_SOURCE
        assert client.put(protocol, server, source, "readonly/copy") == FAILED
        assert client.get(protocol, server, "larger", small_file_system / "copy") == NO_SPACE
        source.write_bytes(bytes(2 * server.FULL_SIZE))
        assert client.put(protocol, server, source, "full/copy") == NO_SPACE


def test_a_server_with_too_many_clients_is_busy(client, source):
    with FtpServer(max_clients=1) as server:
        # The probe that found the server ready was a client too, and may not be gone yet.
        wait_until(lambda: client.put("ftp", server, source, "copy") == DONE)
        with socket.create_connection((server.address, server.port), timeout=10) as other:
            assert other.recv(3) == b"220"
            assert client.put("ftp", server, source, "copy") == BUSY


def test_a_server_that_is_not_there_fails(client, protocol, server, source):
    assert client.put(protocol, server, source, "copy", address=free_address()) == FAILED


@pytest.mark.parametrize("protocol", ["scp", "sftp"])
def test_the_first_host_key_is_recorded(client, protocol, own_server, source):
    assert client.put(protocol, own_server, source, "copy") == DONE
    key = (own_server.directory / "host_key.pub").read_text().split()[1]
    assert client.known_hosts.read_text().split() == [own_server.address, "ssh-ed25519", key]


@pytest.mark.parametrize("protocol", ["scp", "sftp"])
def test_a_changed_host_key_is_refused(client, protocol, own_server, source):
    assert client.put(protocol, own_server, source, "copy") == DONE
    own_server.stop()
    own_server.new_host_key()
    own_server.start()
    (own_server.home / "copy").unlink()
    assert client.put(protocol, own_server, source, "copy") == REFUSED
    assert not (own_server.home / "copy").exists()


@pytest.mark.parametrize("protocol", ["scp", "sftp"])
def test_without_a_place_for_host_keys_nothing_is_transferred(client, protocol, server, source):
    client.known_hosts.mkdir()
    assert client.put(protocol, server, source, "never") == FAILED
    assert client.errors.decode().endswith(
        f"host keys cannot be recorded in {client.state_directory}\n"
    )
    assert not (server.home / "never").exists()


@pytest.mark.parametrize("protocol", ["scp", "sftp"])
def test_without_a_state_directory_host_keys_are_kept_in_the_run_directory(
    client, protocol, server, source
):
    client.state_directory.rmdir()
    assert client.put(protocol, server, source, "copy") == DONE
    assert (client.run_directory / "ssh" / "known_hosts").read_text().startswith(server.address)
    assert not client.state_directory.exists()


def test_a_server_that_stops_in_the_middle_fails(client, standstill):
    process = standstill.start()
    standstill.stop_server()
    assert client.finish(process) == FAILED
    assert client.temporaries() == []
    assert (client.files / "large").exists() == (standstill.verb == "put")


def test_a_file_that_the_server_cuts_off_fails_a_get(client, cutting_ssh_server):
    destination = client.files / "copy"
    destination.write_bytes(b"old")
    source = cutting_ssh_server.store("source", bytes(1 << 20))
    for modified in (time.time(), 0):
        os.utime(source, (modified, modified))
        assert client.get("sftp", cutting_ssh_server, "source", destination) == FAILED
        assert destination.read_bytes() == b"old"
        assert client.temporaries() == []


# Of all names the one that is hardest to ask the size of.
@pytest.mark.parametrize("name", ["copy", "-{a,b} \\{*}?[a-z]\\\\'\"~ naïve"])
@pytest.mark.parametrize("by_link", [False, True])
def test_a_file_that_the_server_cuts_off_fails_a_put(client, cutting_ssh_server, source, name,
                                                     by_link):
    server = cutting_ssh_server
    source.write_bytes(bytes(1 << 20))
    remote = server.home / name
    remote.unlink(missing_ok=True)
    if by_link:
        remote.symlink_to("target")
    assert client.put("sftp", server, source, name.encode()) == FAILED
    assert 0 < remote.stat().st_size < 1 << 20
    source.write_bytes(b"content")
    assert client.put("sftp", server, source, name.encode()) == DONE


@pytest.mark.parametrize("standstill", ["get"], indirect=True)
def test_a_transfer_ends_at_its_time_limit(client, standstill):
    process = standstill.start(limit=3)
    members = family(process.pid)
    began = time.monotonic()
    assert client.finish(process) == FAILED
    assert time.monotonic() - began < 15
    assert not any(alive(each) for each in members)
    assert client.temporaries() == []


# Starts a program where /usr/bin, which is seen in $1, lacks the program $2.
WITHOUT = """
set -e
mount --bind /usr/bin "$1"
mount -t tmpfs none /usr/bin
"$1/ln" -s "$1"/* /usr/bin
"$1/rm" "/usr/bin/$2"
shift 2
exec "$@"
"""


@pytest.mark.parametrize("verb", ["get", "put"])
def test_a_client_that_is_not_installed_fails(client, tmp_path, protocol, server, verb):
    server.store("source", b"new")
    (client.files / "source").write_bytes(b"old")
    arguments = client.arguments(
        protocol, server, verb, *("source", client.files / "source")[:: 1 if verb == "get" else -1]
    )
    (tmp_path / "bin").mkdir()
    place = ["unshare", "--mount", "sh", "-c", WITHOUT, "sh", tmp_path / "bin"]
    assert client.finish(client.start([*place, PROGRAMS[protocol][0], *arguments])) == FAILED
    assert (client.files / "source").read_bytes() == b"old"
    assert (server.home / "source").read_bytes() == b"new"


@pytest.mark.parametrize(
    "script, arguments",
    [
        ("snmp.ftp.expect", ["127.0.0.1", "a", "/tmp/b", "u", "p", "get"]),
        ("snmp.ftp.expect", ["127.0.0.1", "a", "/tmp/b", "u", "p", "fetch", "10"]),
        ("snmp.ftp.expect", ["127.0.0.1", "a", "/tmp/b", "u", "p", "get", "0"]),
        ("snmp.ftp.expect", ["127.0.0.1", "a", "/tmp/b", "u", "p", "get", "[exit 0]"]),
        ("scp.expect", ["u@127.0.0.1:a", "/tmp/b", "p", "1", "10"]),
        ("scp.expect", ["u@127.0.0.1:a", "b", "p", "2", "10"]),
        ("scp.expect", ["/tmp/a", "/tmp/b", "p", "2", "10"]),
        ("scp.expect", ["/tmp/a", "u@127.0.0.1:", "p", "2", "10"]),
        ("scp.expect", ["-c", "exit", "0"]),
        ("sftp.expect", ["127.0.0.1", "u", "p", "get", "a", "/tmp/b", "1e3"]),
        ("sftp.expect", ["127.0.0.1", "u", "two\nlines", "get", "a", "/tmp/b", "10"]),
        ("sftp.expect", ["127.0.0.1", "u", "p", "get", "two", "words", "/tmp/b", "10"]),
        ("sftp.expect", []),
    ],
    ids=repr,
)
def test_wrong_usage_fails(client, script, arguments):
    assert client.finish(client.start([SCRIPTS / script, *arguments])) == FAILED


def test_a_script_without_its_library_fails(client, tmp_path, protocol, server):
    arguments = client.arguments(protocol, server, "get", "a", client.files / "b")
    alone = tmp_path / "alone.expect"
    alone.write_bytes(arguments[0].read_bytes())
    alone.chmod(0o755)
    result = subprocess.run([alone, *arguments[1:]], env=os.environ, check=False)
    assert result.returncode == FAILED
