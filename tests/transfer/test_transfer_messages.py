"""The sentence with which a script fails, for every one that it knows."""

import os
import shlex
import signal

import pytest
from servers import wait_until
from transfers import BUSY, FAILED, NO_SOURCE, NO_SPACE, PROGRAMS, REFUSED, SCRIPTS

SERVER, LIMIT = "127.0.0.1", "20"

# Starts a program where /usr/bin, which is seen in $1, has $3 in place of the program $2.
WITH_STAND_IN = """
set -e
mount --bind /usr/bin "$1"
mount -t tmpfs none /usr/bin
"$1/ln" -s "$1"/* /usr/bin
"$1/rm" "/usr/bin/$2"
[ ! -e "$3" ] || "$1/cp" "$3" "/usr/bin/$2"
shift 3
exec "$@"
"""


def words(client, protocol, verb="get", source="a", destination=None, limit=LIMIT):
    """The command line of a script."""
    flash = str(client.files / "copy")
    if verb == "put":
        source, destination = flash, destination or "a"
        client.files.joinpath("copy").write_bytes(b"content")
    else:
        destination = destination or flash
    if protocol == "ftp":
        return ["snmp.ftp.expect", SERVER, source, destination, "u", "p", verb, limit]
    return ["sftp.expect", SERVER, "u", "p", verb, source, destination, limit]


def run(client, arguments, **options):
    """Runs a script to its end; returns its exit code and what it has written."""
    script, *rest = arguments
    code = client.finish(client.start([SCRIPTS / script, *rest], **options))
    return code, client.errors.decode()


def start_beside(client, tmp_path, program, stand_in, arguments):
    """Starts a script that finds `stand_in`, a shell script, in place of its client."""
    (tmp_path / "bin").mkdir()
    if stand_in is not None:
        (tmp_path / "client").write_text(f"#!/bin/sh\n{stand_in}\n")
        (tmp_path / "client").chmod(0o755)
    place = ["unshare", "--mount", "sh", "-c", WITH_STAND_IN, "sh"]
    place += [tmp_path / "bin", program, tmp_path / "client"]
    script, *rest = arguments
    return client.start([*place, SCRIPTS / script, *rest])


def run_beside(client, tmp_path, protocol, stand_in, **options):
    """Runs a script beside a stand-in for its client to the end."""
    arguments = words(client, protocol, **options)
    program = PROGRAMS[protocol][0]
    code = client.finish(start_beside(client, tmp_path, program, stand_in, arguments))
    return code, client.errors.decode()


def provokes(message, *values):
    """Values of a test that provoke a message."""
    return pytest.param(*values, marks=pytest.mark.provokes(message))


# --- What a client or a server says, and what the script makes of it

SAID_BY_SSH = [
    provokes("….expect: the server's host key has changed",
             "Host key verification failed.", REFUSED, "get"),
    provokes("….expect: the server refused the login",
             "u@127.0.0.1: Permission denied (password).", REFUSED, "get"),
    provokes("….expect: no space for the destination",
             'remote read "a": No space left on device', NO_SPACE, "get"),
    provokes("….expect: the server cannot write: most likely it is full",
             'write remote "a": Failure', NO_SPACE, "put"),
    provokes("….expect: no memory", "a: Cannot allocate memory", NO_SPACE, "get"),
    provokes("….expect: the file is in use", "a: Text file busy", BUSY, "put"),
    provokes("….expect: the destination cannot be written",
             'open local "copy": Read-only file system', FAILED, "get"),
    provokes("….expect: no such remote file or directory",
             'stat remote "a": No such file or directory', NO_SOURCE, "get"),
    provokes("….expect: no such remote file", 'File "/home/u/a" not found.', NO_SOURCE, "get"),
    provokes("….expect: the server permits no access to the file",
             'open remote "a": Permission denied', FAILED, "get"),
    provokes("….expect: the source is not a file", "a: not a regular file", FAILED, "get"),
    provokes("….expect: the server cannot be reached",
             "ssh: connect to host 127.0.0.1 port 22: Connection refused", FAILED, "get"),
    provokes("….expect: the transfer failed", "something else", FAILED, "get"),
]


@pytest.mark.parametrize("line, expected, verb", SAID_BY_SSH)
def test_what_an_ssh_client_says_has_its_sentence(client, tmp_path, line, expected, verb):
    stand_in = f"echo {shlex.quote(line)}; exit 1"
    code, _ = run_beside(client, tmp_path, "sftp", stand_in, verb=verb)
    assert code == expected


SAID_BY_FTP = [
    provokes("….expect: the connection broke",
             "---> RETR a\n421 Service not available, remote server has closed connection.",
             FAILED, "get"),
    provokes("….expect: the server has too many clients",
             "---> USER u\n421 There are too many connected users", BUSY, "get"),
    provokes("….expect: the server refused the transfer",
             "---> RETR a\n553 Could not open file", FAILED, "get"),
    provokes("….expect: the connection or the local file failed",
             "tnftp: Can't connect to `127.0.0.1:21': Connection refused", FAILED, "get"),
    provokes("….expect: the transfer did not complete", "220 ready", FAILED, "get"),
    provokes("….expect: the file arrived incomplete",
             "---> SIZE a\n213 100\n---> RETR a\n226 Transfer complete.", FAILED, "get"),
    pytest.param("---> PASS XXXX\n530 Login incorrect.", REFUSED, "get"),
    pytest.param("---> RETR a\n450 busy", BUSY, "get"),
    pytest.param("---> STOR a\n452 Insufficient space", NO_SPACE, "put"),
    pytest.param("---> STOR a\n451 Failure writing to local file.", NO_SPACE, "put"),
    pytest.param("---> RETR a\n550 Failed to open file.", NO_SOURCE, "get"),
    pytest.param("---> RETR a\n550 Permission denied.", FAILED, "get"),
]


@pytest.mark.parametrize("lines, expected, verb", SAID_BY_FTP)
def test_what_an_ftp_server_says_has_its_sentence(client, tmp_path, lines, expected, verb):
    stand_in = f"printf '%s\\n' {shlex.quote(lines)}"
    code, _ = run_beside(client, tmp_path, "ftp", stand_in, verb=verb)
    assert code == expected


# --- How a client ends


@pytest.mark.provokes("….expect: the client cannot be run")
def test_a_client_that_is_missing_is_told(client, tmp_path):
    assert run_beside(client, tmp_path, "sftp", None)[0] == FAILED


@pytest.mark.provokes("….expect: the client was ended by a signal")
def test_a_client_that_a_signal_ends_is_told(client, tmp_path):
    assert run_beside(client, tmp_path, "sftp", "kill -KILL $$")[0] == FAILED


@pytest.mark.provokes("….expect: time limit reached")
def test_a_client_that_takes_too_long_is_told(client, tmp_path):
    assert run_beside(client, tmp_path, "sftp", "exec sleep 60", limit="1")[0] == FAILED


@pytest.mark.provokes("….expect: ended by a signal")
def test_a_script_that_is_asked_to_end_tells_it(client, tmp_path):
    arguments = words(client, "sftp")
    begun = tmp_path / "begun"
    stand_in = f"touch {begun}; exec sleep 60"
    process = start_beside(client, tmp_path, "sftp", stand_in, arguments)
    wait_until(begun.exists, timeout=20, what="the client")
    process.send_signal(signal.SIGTERM)
    assert client.finish(process) == FAILED


# --- What a script refuses by itself

REFUSED_ARGUMENTS = [
    provokes("….expect: bad server",
             ["sftp.expect", "-x", "u", "p", "get", "a", "/tmp/b", LIMIT]),
    provokes("….expect: bad time limit",
             ["sftp.expect", SERVER, "u", "p", "get", "a", "/tmp/b", "0"]),
    provokes("….expect: bad name",
             ["sftp.expect", SERVER, "u", "p", "get", "a\n", "/tmp/b", LIMIT]),
    provokes("….expect: bad password",
             ["sftp.expect", SERVER, "u", "p\n", "get", "a", "/tmp/b", LIMIT]),
    provokes("sftp.expect: usage: SERVER USER PASSWORD get|put SOURCE DESTINATION SECONDS",
             ["sftp.expect", SERVER]),
    provokes("snmp.ftp.expect: usage: SERVER SOURCE DESTINATION USER PASSWORD get|put SECONDS",
             ["snmp.ftp.expect", SERVER]),
    provokes("scp.expect: usage: SOURCE DESTINATION PASSWORD 2 SECONDS, one name USER@SERVER:NAME",
             ["scp.expect", SERVER]),
    provokes("scp.expect: one name must be USER@SERVER:NAME, the other an absolute path",
             ["scp.expect", "a", "b", "p", "2", LIMIT]),
    provokes("….expect: arguments too long",
             ["sftp.expect", SERVER, "u", "p", "get", "a" * 32768, "/tmp/b", LIMIT]),
]


@pytest.mark.parametrize("arguments", REFUSED_ARGUMENTS)
def test_arguments_that_are_refused_are_told(client, arguments):
    assert run(client, arguments)[0] == FAILED


@pytest.mark.provokes("….expect: host keys cannot be recorded in …")
def test_a_place_for_host_keys_that_is_missing_is_told(client):
    client.known_hosts.mkdir()
    assert run(client, words(client, "sftp"))[0] == FAILED


@pytest.mark.provokes("….expect: no such file to send")
def test_a_source_that_is_missing_is_told(client):
    arguments = words(client, "sftp", verb="put")
    client.files.joinpath("copy").unlink()
    assert run(client, arguments)[0] == NO_SOURCE


@pytest.mark.provokes("….expect: the file to send cannot be read")
def test_a_source_that_is_a_directory_is_told(client):
    arguments = words(client, "ftp", verb="put")
    client.files.joinpath("copy").unlink()
    client.files.joinpath("copy").mkdir()
    assert run(client, arguments)[0] == FAILED


@pytest.mark.provokes("….expect: the destination is a directory")
def test_a_destination_that_ends_with_a_slash_is_told(client):
    assert run(client, words(client, "ftp", destination=f"{client.files}/"))[0] == FAILED


@pytest.mark.provokes("….expect: the destination is not a file")
def test_a_destination_that_is_a_fifo_is_told(client):
    os.mkfifo(client.files / "copy")
    assert run(client, words(client, "ftp"))[0] == FAILED


@pytest.mark.provokes("….expect: the destination's directory cannot be written")
def test_a_destination_in_a_missing_directory_is_told(client):
    destination = str(client.files / "missing" / "copy")
    assert run(client, words(client, "ftp", destination=destination))[0] == FAILED


@pytest.mark.provokes("….expect: the destination is write-protected")
def test_a_destination_that_may_not_be_written_is_told(client):
    (client.files / "copy").write_bytes(b"old")
    (client.files / "copy").chmod(0o444)
    # Root, without its right to write everything.
    arguments = words(client, "ftp")
    process = client.start(
        ["setpriv", "--bounding-set=-dac_override", "--inh-caps=-dac_override",
         SCRIPTS / arguments[0], *arguments[1:]]
    )
    assert client.finish(process) == FAILED
    assert (client.files / "copy").read_bytes() == b"old"
