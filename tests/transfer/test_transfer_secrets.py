"""The password reaches the server, whatever is in it, and nobody else."""

import itertools
import os
import pathlib
import subprocess

from conftest import AWKWARD
from servers import Account, FtpServer, SshServer
from transfers import DONE, FAILED, SCRIPTS, escaped_by_module, family


def test_a_password_comes_through_the_shell_as_it_was(tmp_path):
    passwords = ["".join(each) for length in range(1, 5)
                 for each in itertools.product('\\[]"$ a', repeat=length)]
    probe = tmp_path / "probe"
    probe.write_text(f"#!/usr/bin/expect -nN\nsource {SCRIPTS}/transfer.tcl\n"
                     "foreach word $argv {puts [plain_password $word]}\n")
    probe.chmod(0o755)
    # The shell takes a limited line: some hundred passwords at a time.
    for start in range(0, len(passwords), 500):
        some = passwords[start:start + 500]
        line = " ".join([str(probe), *(f'"{escaped_by_module(each)}"' for each in some)])
        assert subprocess.check_output(["/bin/sh", "-c", line], text=True).split("\n")[:-1] == some


def test_a_password_of_40_characters_that_need_escaping_is_accepted(
        client, protocol, awkward_servers):
    server = awkward_servers[protocol]
    server.store("source", b"content")
    code = client.run_by_shell(protocol, server, "get", "source", client.files / "copy",
                               password=AWKWARD)
    assert code == DONE
    assert (client.files / "copy").read_bytes() == b"content"


def test_a_password_of_bytes_and_control_characters_is_accepted(client, protocol):
    account = Account(password=os.fsdecode("ö☃".encode() + b"\xff\x01\x03\x04\x15\x16\t\x7f -"))
    with FtpServer(account) if protocol == "ftp" else SshServer(account) as server:
        server.store("source", b"content")
        assert client.get(protocol, server, "source", client.files / "copy") == DONE


def test_no_process_of_a_transfer_shows_the_password(client, standstill):
    process = standstill.start()
    members = family(process.pid)
    assert len(members) >= 3  # script, timer, client
    password = standstill.server.account.password.encode()
    for pid, _ in members:
        for file in ("cmdline", "environ"):
            assert password not in pathlib.Path(f"/proc/{pid}/{file}").read_bytes()
    standstill.stop_server()
    assert client.finish(process) == FAILED
    assert password not in client.errors


def test_the_environment_changes_nothing(client, protocol, server):
    environment = {
        "ftp_proxy": "http://127.0.0.1:9/", "FTPMODE": "active", "LC_ALL": "de_DE.UTF-8",
        "SSH_ASKPASS": "/bin/false", "SSH_ASKPASS_REQUIRE": "force", "HOME": str(client.files),
    }
    server.store("source", b"content")
    (client.files / ".netrc").write_text("default login other password other\n")
    process = client.start(
        client.arguments(protocol, server, "get", "source", client.files / "copy"), environment
    )
    assert client.finish(process) == DONE


def test_no_file_holds_the_password_afterwards(client, protocol, server):
    server.store("source", b"content")
    assert client.get(protocol, server, "source", client.files / "copy") == DONE
    password = server.account.password.encode()
    for directory in (client.run_directory, client.state_directory):
        for path in directory.iterdir():
            assert password not in path.read_bytes()
