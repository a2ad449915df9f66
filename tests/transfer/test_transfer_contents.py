"""What is transferred arrives whole, and takes its place at once."""

import os
import pathlib
import shutil
import stat

import pytest
from servers import UID
from transfers import DONE, FAILED, NO_SOURCE, PROGRAMS, descendant, digest

SIZES = [0, 1, 511, 512, 513, 1 << 20, 64 << 20]


@pytest.mark.parametrize("size", SIZES)
def test_a_file_that_is_got_arrives_whole(client, protocol, server, size):
    source = server.store("source", os.urandom(size))
    assert client.get(protocol, server, "source", client.files / "copy") == DONE
    assert digest(client.files / "copy") == digest(source)
    assert client.temporaries() == []
    source.unlink()


@pytest.mark.parametrize("size", SIZES)
def test_a_file_that_is_put_arrives_whole(client, protocol, server, size):
    source = client.files / "source"
    source.write_bytes(os.urandom(size))
    assert client.put(protocol, server, source, "copy") == DONE
    assert digest(server.home / "copy") == digest(source)
    (server.home / "copy").unlink()


@pytest.mark.parametrize("verb", ["get", "put"])
def test_scp_falls_back_to_the_old_protocol(client, ssh_server_without_sftp, verb):
    server = ssh_server_without_sftp
    content = os.urandom(100_000)
    if verb == "get":
        server.store("source", content)
        assert client.get("scp", server, "source", client.files / "copy") == DONE
        assert (client.files / "copy").read_bytes() == content
    else:
        (client.files / "source").write_bytes(content)
        assert client.put("scp", server, client.files / "source", "copy") == DONE
        assert (server.home / "copy").read_bytes() == content


def test_a_file_in_a_directory_of_the_server_is_got(client, protocol, server):
    (server.home / "images").mkdir(exist_ok=True)
    server.store("images/one", b"content")
    assert client.get(protocol, server, "images/one", client.files / "copy") == DONE
    assert (client.files / "copy").read_bytes() == b"content"


def test_an_absolute_remote_name_is_got(client, protocol, server):
    source = server.store("source", b"content")
    assert client.get(protocol, server, source, client.files / "copy") == DONE
    assert (client.files / "copy").read_bytes() == b"content"


def test_a_put_replaces_a_longer_file(client, protocol, server):
    server.store("copy", bytes(1000))
    (client.files / "source").write_bytes(b"short")
    assert client.put(protocol, server, client.files / "source", "copy") == DONE
    assert (server.home / "copy").read_bytes() == b"short"


@pytest.mark.parametrize("mode", [0o600, 0o644, 0o755])
def test_a_get_keeps_the_mode_of_the_file_that_it_replaces(client, protocol, server, mode):
    server.store("source", b"new")
    destination = client.files / "copy"
    destination.write_bytes(b"old")
    destination.chmod(mode)
    assert client.get(protocol, server, "source", destination) == DONE
    assert destination.read_bytes() == b"new"
    assert stat.S_IMODE(destination.stat().st_mode) == mode


@pytest.mark.parametrize("verb", ["get", "put"])
def test_a_user_without_rights_transfers(client, protocol, server, verb):
    nobody = 65534
    for directory in (client.files, client.state_directory):
        os.chown(directory, nobody, nobody)
    for parent in client.files.parents:
        if parent.stat().st_mode & 0o077 == 0:
            parent.chmod(0o711)
    path = client.files / "local"
    if verb == "get":
        server.store("remote", b"content")
    else:
        path.write_bytes(b"content")
        path.chmod(0o644)
    names = ("remote", path) if verb == "get" else (path, "remote")
    arguments = client.arguments(protocol, server, verb, *names)
    process = client.start(arguments, user=nobody, group=nobody, extra_groups=[])
    assert client.finish(process) == DONE, client.errors
    assert path.read_bytes() == (server.home / "remote").read_bytes() == b"content"


@pytest.mark.parametrize("umask", [0, 0o77])
def test_a_new_file_is_read_by_its_owner_and_group_alone(client, protocol, server, umask):
    server.store("source", b"new").chmod(0o777)
    process = client.start(
        client.arguments(protocol, server, "get", "source", client.files / "copy"), umask=umask
    )
    assert client.finish(process) == DONE
    assert stat.S_IMODE((client.files / "copy").stat().st_mode) == 0o640


@pytest.mark.parametrize("before, after", [(None, 0o640), (0o644, 0o644)])
def test_the_old_scp_protocol_gives_a_file_no_mode(client, ssh_server_without_sftp, before, after):
    destination = client.files / "copy"
    if before is not None:
        destination.write_bytes(b"old")
        destination.chmod(before)
    # Such a file's mode the client takes over, though nobody asks it to.
    ssh_server_without_sftp.store("source", b"new").chmod(0o444)
    process = client.start(client.arguments(
        "scp", ssh_server_without_sftp, "get", "source", destination), umask=0)
    assert client.finish(process) == DONE
    assert stat.S_IMODE(destination.stat().st_mode) == after


@pytest.mark.parametrize("standstill", ["get"], indirect=True)
@pytest.mark.parametrize("replaces", [False, True])
def test_a_file_that_is_being_received_is_its_owners_alone(client, standstill, replaces):
    if replaces:
        (client.files / "large").write_bytes(b"old")
        (client.files / "large").chmod(0o666)
    process = standstill.start(umask=0)
    [temporary] = client.temporaries()
    assert stat.S_IMODE(temporary.stat().st_mode) == 0o600
    process.terminate()
    process.communicate()


@pytest.mark.parametrize("standstill", ["get"], indirect=True)
def test_a_client_opens_no_file_to_others(standstill):
    process = standstill.start(umask=0)
    for program in PROGRAMS[standstill.protocol]:
        status = pathlib.Path(f"/proc/{descendant(process.pid, program)}/status").read_text()
        assert "Umask:\t0077\n" in status
    process.terminate()
    process.communicate()


@pytest.mark.parametrize("verb", ["get", "put"])
def test_a_link_at_the_server_is_followed(client, protocol, server, verb):
    """The link itself is larger than the file."""
    server.store("a" * 100, b"content" if verb == "get" else b"")
    (server.home / "link").unlink(missing_ok=True)
    (server.home / "link").symlink_to("a" * 100)
    (client.files / "local").write_bytes(b"content")
    if verb == "get":
        assert client.get(protocol, server, "link", client.files / "local") == DONE
    else:
        assert client.put(protocol, server, client.files / "local", "link") == DONE
    assert (server.home / ("a" * 100)).read_bytes() == b"content"


@pytest.mark.parametrize("protocol", ["scp", "sftp"])
def test_a_file_can_be_put_into_a_directory(client, protocol, server):
    """Where it stands among smaller files."""
    for name in ("into", "into/.deeper"):
        (server.home / name).mkdir(exist_ok=True)
        shutil.chown(server.home / name, UID, UID)
    server.store("into/smaller", b"")
    (client.files / "source").write_bytes(b"content")
    assert client.put(protocol, server, client.files / "source", "into") == DONE
    assert (server.home / "into/source").read_bytes() == b"content"


def test_a_get_replaces_a_link_and_not_what_it_points_to(client, protocol, server):
    server.store("source", b"new")
    (client.files / "target").write_bytes(b"old")
    (client.files / "copy").symlink_to("target")
    assert client.get(protocol, server, "source", client.files / "copy") == DONE
    assert (client.files / "target").read_bytes() == b"old"
    assert not (client.files / "copy").is_symlink()


def test_a_destination_that_is_no_file_is_left_alone(client, protocol, server):
    server.store("source", b"new")
    (client.files / "directory").mkdir()
    os.mkfifo(client.files / "fifo")
    for name in ("directory", "fifo", "directory/"):
        assert client.get(protocol, server, "source", f"{client.files}/{name}") == FAILED
    assert (client.files / "fifo").is_fifo()
    assert list((client.files / "directory").iterdir()) == []


def test_a_failed_get_leaves_the_destination_as_it_was(client, protocol, server):
    destination = client.files / "copy"
    destination.write_bytes(b"old")
    assert client.get(protocol, server, "missing", destination) == NO_SOURCE
    assert destination.read_bytes() == b"old"
    assert client.temporaries() == []
