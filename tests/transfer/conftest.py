import subprocess

import pytest
from servers import Account, Forwarder, FtpServer, SshServer, wait_until
from transfers import Client

# 40 characters that are all escaped on their way.
AWKWARD = '\\[]"$' * 8


@pytest.fixture(scope="session")
def ftp_server():
    with FtpServer() as server:
        yield server


@pytest.fixture(scope="session")
def ssh_server():
    with SshServer() as server:
        yield server


@pytest.fixture(scope="session")
def ssh_server_without_sftp():
    with SshServer(sftp=False) as server:
        yield server


@pytest.fixture(scope="session")
def cutting_ssh_server():
    with SshServer(cutting=True) as server:
        yield server


@pytest.fixture(scope="session")
def awkward_servers():
    account = Account(password=AWKWARD)
    with FtpServer(account) as ftp, SshServer(account) as ssh:
        yield {"ftp": ftp, "scp": ssh, "sftp": ssh}


@pytest.fixture(params=["ftp", "scp", "sftp"])
def protocol(request):
    return request.param


@pytest.fixture
def server(request, protocol):
    """A server of the protocol, shared by all tests: they leave only files behind."""
    return request.getfixturevalue("ftp_server" if protocol == "ftp" else "ssh_server")


@pytest.fixture
def client(tmp_path):
    return Client(tmp_path)


@pytest.fixture
def own_server(protocol):
    """A server of the protocol for one test."""
    with FtpServer() if protocol == "ftp" else SshServer() as server:
        yield server


class Standstill:
    """A transfer that stands still in its middle, or nearly: at 16 KiB a second it would take a
    minute."""

    SIZE = 1024 * 1024

    def __init__(self, client, protocol, verb, server, forwarder):
        self.client, self.protocol, self.verb = client, protocol, verb
        self.server, self.forwarder = server, forwarder
        if verb == "get":
            server.store("large", bytes(self.SIZE))
            self.names = "large", client.files / "large"
        else:
            (client.files / "large").write_bytes(bytes(self.SIZE))
            self.names = client.files / "large", "large"

    def start(self, limit=60, **options):
        address = self.forwarder.address if self.forwarder else self.server.address
        self.process = self.client.start(
            self.client.arguments(self.protocol, self.server, self.verb, *self.names, limit=limit,
                                  address=address),
            **options,
        )
        wait_until(self._standing, timeout=20, what="the transfer in its middle")
        return self.process

    def _standing(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"the transfer ended: {self.process.communicate()}")
        if self.forwarder:
            return self.forwarder.stalled.is_set()
        if self.verb == "put":
            stored = self.server.home / "large"
            return stored.exists() and stored.stat().st_size > 0
        return any(each.stat().st_size for each in self.client.temporaries())

    def stop_server(self):
        self.server.stop()
        if self.forwarder:
            self.forwarder.cut()


@pytest.fixture(params=["get", "put"])
def standstill(request, client, protocol):
    """A transfer through a server that is slow (FTP) or a connection that stalls (SSH)."""
    if protocol == "ftp":
        with FtpServer(local_max_rate=16384) as server:
            yield Standstill(client, protocol, request.param, server, None)
    else:
        with SshServer() as server, Forwarder(server, Standstill.SIZE // 2) as forwarder:
            yield Standstill(client, protocol, request.param, server, forwarder)


@pytest.fixture
def small_file_system(tmp_path):
    """A directory with room for 64 KiB."""
    directory = tmp_path / "small"
    directory.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=65536", "none", directory], check=True)
    yield directory
    subprocess.run(["umount", directory], check=True)
