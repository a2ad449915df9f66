"""A name is a name, whatever is in it."""

import os

import pytest
from transfers import DONE, FAILED, NO_SOURCE, REFUSED

NAMES = [
    b" two  'words\" ",
    b"back\\slash \\* \\\\",
    b"gl*b?[a-z]{a,b}",
    b"$HOME $(id) `id` $1 [exit]",
    b"a;b|c&d#e!f<g>%h^i",
    b"-rf",
    b"-",
    b"~",
    b"|cat",
    b"!a:b@127.0.0.1:c",
    "naïve ☃".encode() + b"\xff\xfe",
]


@pytest.mark.parametrize("name", NAMES, ids=os.fsdecode)
def test_a_name_is_taken_literally_at_both_ends(client, protocol, server, name):
    local = client.files / os.fsdecode(name)
    remote = server.home / os.fsdecode(name)
    local.write_bytes(b"content of " + name)
    assert client.put(protocol, server, local, name) == DONE
    assert remote.read_bytes() == b"content of " + name
    local.unlink()
    assert client.get(protocol, server, name, local) == DONE
    assert local.read_bytes() == b"content of " + name
    assert os.listdir(client.files) == [local.name]
    remote.unlink()


@pytest.mark.parametrize("name", [b"it's $HOME; `id` \\ \"gl*b?", b"-rf"], ids=os.fsdecode)
def test_the_old_scp_protocol_takes_a_name_literally(client, ssh_server_without_sftp, name):
    server = ssh_server_without_sftp
    (client.files / "source").write_bytes(b"content")
    assert client.put("scp", server, client.files / "source", name) == DONE
    assert (server.home / os.fsdecode(name)).read_bytes() == b"content"
    assert client.get("scp", server, name, client.files / "copy") == DONE
    assert (client.files / "copy").read_bytes() == b"content"


@pytest.mark.parametrize("pattern", ["deco*", "[d]eco?", "{decoy,x}"])
def test_a_pattern_matches_no_other_file(client, protocol, server, pattern):
    server.store("decoy", b"decoy")
    assert client.get(protocol, server, pattern, client.files / "copy") == NO_SOURCE
    assert list(client.files.iterdir()) == []


@pytest.mark.parametrize("name", ["x\nquit", "x\r", "tab\t", "bell\a", "", "\x7f"], ids=repr)
def test_a_name_that_no_client_can_carry_is_refused(client, protocol, server, name):
    (client.files / "source").write_bytes(b"")
    assert client.put(protocol, server, client.files / "source", name) == FAILED


@pytest.mark.parametrize("address", ["-oProxyCommand=id", "a b", "a;b", "", "127.0.0.1/x", "[::1]"])
def test_a_server_name_is_not_an_option_or_a_command(client, protocol, server, address):
    (client.files / "source").write_bytes(b"")
    assert client.put(protocol, server, client.files / "source", "x", address=address) == FAILED


@pytest.mark.parametrize(
    "account", ["-oProxyCommand=touch${IFS}run", "[open run w]", '"$(touch run)']
)
def test_an_account_name_is_not_evaluated(client, protocol, server, account):
    arguments = client.arguments(protocol, server, "get", "x", client.files / "x")
    arguments[1:] = [os.fsdecode(each).replace(server.account.name, account)
                     for each in arguments[1:]]
    process = client.start(arguments, cwd=client.files)
    # The server has no such account, or ssh cannot carry the name.
    assert client.finish(process) in (REFUSED, FAILED)
    assert list(client.files.iterdir()) == []
