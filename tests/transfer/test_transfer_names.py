"""A name is a name, whatever is in it."""

import pytest
from transfers import DONE, FAILED, NO_SOURCE

NAMES = [
    "two  words",
    " edges ",
    "it's \"quoted\"",
    "back\\slash \\* \\\\",
    "gl*b?[a-z]{a,b}",
    "$HOME $(id) `id` $1",
    "a;b|c&d#e!f<g>%h^i",
    "-rf",
    "-",
    "--",
    "~",
    "|cat",
    "!sh",
    "a:b@127.0.0.1:c",
    "naïve ☃",
    b"\xff\xfe",
]


@pytest.fixture
def name(request):
    return request.param if isinstance(request.param, bytes) else request.param.encode()


@pytest.mark.parametrize("name", NAMES, indirect=True)
def test_a_remote_name_is_taken_literally(client, protocol, server, name):
    content = b"content of " + name
    (client.files / "source").write_bytes(content)
    remote = server.home / name.decode(errors="surrogateescape")
    assert client.put(protocol, server, client.files / "source", name) == DONE
    assert remote.read_bytes() == content
    assert client.get(protocol, server, name, client.files / "copy") == DONE
    assert (client.files / "copy").read_bytes() == content
    remote.unlink()


@pytest.mark.parametrize("name", NAMES, indirect=True)
def test_a_local_name_is_taken_literally(client, protocol, server, name):
    local = client.files / name.decode(errors="surrogateescape")
    server.store("source", b"content of " + name)
    assert client.get(protocol, server, "source", local) == DONE
    assert local.read_bytes() == b"content of " + name
    assert client.put(protocol, server, local, "copy") == DONE
    assert (server.home / "copy").read_bytes() == b"content of " + name


@pytest.mark.parametrize("name", ["it's $HOME; `id` \\ \"", "gl*b?", "-rf", "~"], indirect=True)
def test_the_old_scp_protocol_takes_a_name_literally(client, ssh_server_without_sftp, name):
    server = ssh_server_without_sftp
    (client.files / "source").write_bytes(b"content")
    assert client.put("scp", server, client.files / "source", name) == DONE
    assert (server.home / name.decode()).read_bytes() == b"content"
    assert client.get("scp", server, name, client.files / "copy") == DONE
    assert (client.files / "copy").read_bytes() == b"content"


def test_a_pattern_matches_no_other_file(client, protocol, server):
    server.store("decoy", b"decoy")
    for pattern in ("deco*", "deco?", "[d]ecoy", "{decoy,x}", "dec\\oy"):
        assert client.get(protocol, server, pattern, client.files / "copy") == NO_SOURCE
    assert list(client.files.iterdir()) == []


@pytest.mark.parametrize("name", ["x\nquit", "x\r", "tab\t", "bell\a", "", "\x7f"])
def test_a_name_that_no_client_can_carry_is_refused(client, protocol, server, name):
    (client.files / "source").write_bytes(b"")
    assert client.put(protocol, server, client.files / "source", name) == FAILED


@pytest.mark.parametrize(
    "server_name", ["-oProxyCommand=id", "a b", "a;b", "$(id)", "", "127.0.0.1/x", "[::1]"]
)
def test_a_server_name_is_not_an_option_or_a_command(client, protocol, server, server_name):
    (client.files / "source").write_bytes(b"")
    code = client.put(protocol, server, client.files / "source", "x", address=server_name)
    assert code == FAILED


@pytest.mark.parametrize("account", ["-oProxyCommand=false", "a\"b 'c\\d", "[exit 0]", "$env(X)"])
def test_an_account_name_is_taken_literally(client, protocol, server, account):
    arguments = client.arguments(protocol, server, "get", "x", client.files / "x")
    known, literal = server.account.name.encode(), account.encode()
    arguments = [each if each in arguments[:1] else
                 (each if isinstance(each, bytes) else str(each).encode()).replace(known, literal)
                 for each in arguments]
    # The server knows no such account: it has been asked, and refused.
    assert client.finish(client.start(arguments)) == 4
