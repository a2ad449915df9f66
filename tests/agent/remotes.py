"""The far ends of copies: a server for each protocol, and servers that hold a copy up half-way."""

import contextlib
import random
import socket
import sys
import threading
from dataclasses import dataclass
from pathlib import Path

from harness import ADDRESSES, FTP, IN_PROGRESS, REPOSITORY, SCP, SFTP, TFTP, wait_for
from tftp_server import TftpServer

sys.path.append(str(REPOSITORY / "tests" / "transfer"))

from servers import Account, FtpServer, SshServer  # noqa: E402, pylint: disable=C0413
from transfers import PROGRAMS  # noqa: E402, F401, pylint: disable=C0413,W0611

PROTOCOLS = {"tftp": TFTP, "ftp": FTP, "scp": SCP, "sftp": SFTP}
SCRIPTED = ("ftp", "scp", "sftp")
SCRIPT_NAMES = {"ftp": "snmp.ftp.expect", "scp": "scp.expect", "sftp": "sftp.expect"}
# 40 characters that are all escaped on their way.
AWKWARD = '\\[]"$' * 8


@dataclass
class Remote:
    """A server: the directory that it serves, and the columns that name it in a copy row."""

    protocol: str
    home: Path
    columns: dict


def start_server(protocol, account=None, **settings):
    """A context: a server for a scripted protocol on an address that nobody else uses."""
    kind = FtpServer if protocol == "ftp" else SshServer
    return kind(account, ADDRESSES.take(), **settings)


def columns_for(protocol, server, address=None):
    return {
        "protocol": PROTOCOLS[protocol],
        "server": address or server.address,
        "user": server.account.name,
        "password": server.account.password,
    }


def remote_of(protocol, server) -> Remote:
    return Remote(protocol, server.home, columns_for(protocol, server))


class Gate:
    """Passes connections on to a server, on an address of its own. A connection stands still after
    `limit` bytes in either direction until all are released or cut."""

    def __init__(self, server, ports, limit):
        self.address = ADDRESSES.take()
        self.stalled = threading.Event()
        self._open = threading.Event()
        self._target = server.address
        self._limit = limit
        self._sockets = []
        self._listeners = [socket.create_server((self.address, port)) for port in ports]
        self._threads = []
        for port, listener in zip(ports, self._listeners):
            self._run(self._accept, listener, port)

    def _run(self, procedure, *arguments):
        thread = threading.Thread(target=procedure, args=arguments)
        self._threads.append(thread)
        thread.start()

    def _accept(self, listener, port):
        with contextlib.suppress(OSError):
            while True:
                near = listener.accept()[0]
                self._sockets.append(near)
                far = socket.create_connection((self._target, port))
                self._sockets.append(far)
                self._run(self._pass, near, far)
                self._run(self._pass, far, near)

    def _pass(self, source, sink):
        passed = 0
        with contextlib.suppress(OSError):
            while block := source.recv(4096):
                if passed >= self._limit and not self._open.is_set():
                    self.stalled.set()
                    self._open.wait()
                sink.sendall(block)
                passed += len(block)
            sink.shutdown(socket.SHUT_WR)

    def release(self):
        self._open.set()

    def cut(self):
        """Ends the connections."""
        for each in self._sockets:
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)
        self._open.set()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for listener in self._listeners:
            # Wakes the accepting thread; close alone would not.
            listener.shutdown(socket.SHUT_RDWR)
        self.cut()
        for thread in self._threads:
            thread.join()
        for each in (*self._listeners, *self._sockets):
            each.close()


class HeldTftp:
    """Serves by TFTP and stops before the tenth block of each transfer."""

    def __init__(self, stack, content):
        address = ADDRESSES.take()
        self._server = stack.enter_context(TftpServer(address, {"large": content}, hold_at=10))
        self.columns = {"protocol": TFTP, "server": address}
        self.release = self._server.release
        self.stop = self._server.close

    def stands(self) -> bool:
        return self._server.held.is_set()

    def received(self):
        return self._server.files["sent"]


class HeldScripted:
    """Serves by another protocol; the connection of the file stands still after half of it."""

    FTP_DATA_PORT = 20000

    def __init__(self, stack, content, protocol):
        settings, ports = {}, [22]
        if protocol == "ftp":
            ports = [21, self.FTP_DATA_PORT]
            settings = dict.fromkeys(("pasv_min_port", "pasv_max_port"), self.FTP_DATA_PORT)
        self._server = stack.enter_context(start_server(protocol, **settings))
        self._gate = stack.enter_context(Gate(self._server, ports, len(content) // 2))
        self.columns = columns_for(protocol, self._server, self._gate.address)
        (self._server.home / "large").write_bytes(content)
        self.release = self._gate.release

    def stands(self) -> bool:
        return self._gate.stalled.is_set()

    def stop(self) -> None:
        self._server.stop()
        self._gate.cut()

    def received(self):
        return (self._server.home / "sent").read_bytes()


class HeldCopy:
    """A copy in row 7 that stands still in its middle, from "large" or from flash to "sent"."""

    ROW = 7

    def __init__(self, host, protocol, verb):
        self.host = host
        self.protocol = protocol
        self.verb = verb
        self.content = random.Random(3).randbytes(256 * 1024)
        stack = host.enter(contextlib.ExitStack())
        if protocol == "tftp":
            self.server = HeldTftp(stack, self.content)
        else:
            self.server = HeldScripted(stack, self.content, protocol)

    def start(self) -> None:
        if self.verb == "get":
            names = {"command": 1, "source": "large", "destination": "bootflash:large"}
        else:
            names = {"command": 3, "source": "bootflash:large", "destination": "sent"}
            (self.host.flash() / "large").write_bytes(self.content)
        self.host.start_copy(self.ROW, **names, **self.server.columns)
        wait_for(self._stands, "the transfer reaches its middle", timeout=20)
        assert self.host.strays()

    def _stands(self) -> bool:
        status = self.host.copy_status(self.ROW)
        assert status == IN_PROGRESS, f"the copy has ended with status {status}"
        return self.server.stands()

    def destination(self):
        """What has arrived under the destination's name; None when there is no such file."""
        if self.verb == "put":
            return self.server.received()
        path = self.host.flash() / "large"
        return path.read_bytes() if path.exists() else None

    def flash_files(self):
        """Names in the flash directory that were not there before the copy."""
        names = {path.name for path in self.host.flash().iterdir()}
        return names - ({"large"} if self.verb == "put" else set())
