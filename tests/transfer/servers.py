"""FTP and SSH servers for tests: the distribution's own, each on a loopback address of its own.

A server runs in its own mount and process namespaces: its account exists only there, and ending it
ends everything it started. Needs root.
"""

import contextlib
import dataclasses
import pathlib
import random
import shutil
import socket
import subprocess
import tempfile
import threading
import time

UID = 54321  # of no account of the machine


def free_address():
    """A loopback address that nobody else uses, with all of its ports."""
    return "127." + ".".join(str(random.randint(1, 254)) for _ in range(3))


def wait_until(condition, timeout=10, what="condition"):
    """Waits for a condition; returns what it returned."""
    end = time.monotonic() + timeout
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise TimeoutError(f"{what} within {timeout} s")
        time.sleep(0.005)


def accepts(address, port):
    with contextlib.suppress(ConnectionError):
        socket.create_connection((address, port), timeout=5).close()
        return True
    return False


@dataclasses.dataclass
class Account:
    name: str = "operator1"
    password: str = "correct horse"


class Server:
    """A server with one account. Its home directory is `home`, with these directories in it:

    readonly    belongs to root: the account can read it and not write it
    full        a file system of FULL_SIZE bytes, seen by the server alone
    """

    FULL_SIZE = 256 * 1024
    port = 0
    pam_service = ""

    def __init__(self, account=None, address=None):
        self.account = account or Account()
        self.address = address or free_address()
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="transfer-server-"))
        self.directory.chmod(0o711)
        self.home = self.directory / "home"
        for directory in (self.home, self.home / "readonly", self.home / "full"):
            directory.mkdir()
        shutil.chown(self.home, UID, UID)
        self.process = None
        self._write_accounts()

    def _write_accounts(self):
        name = self.account.name
        hashed = subprocess.run(
            ["openssl", "passwd", "-6", "-stdin"],
            input=self.account.password.encode(errors="surrogateescape"),
            stdout=subprocess.PIPE,
            check=True,
        ).stdout.decode()
        for path, line in (
            ("passwd", f"{name}:x:{UID}:{UID}::{self.home}:/bin/sh\n"),
            ("group", f"{name}:x:{UID}:\n"),
            ("shadow", f"{name}:{hashed.strip()}:19000:0:99999:7:::\n"),
        ):
            accounts = pathlib.Path("/etc", path).read_text() + line
            (self.directory / path).write_text(accounts)
        (self.directory / "pam").write_text(
            "auth required pam_unix.so nodelay\naccount required pam_unix.so\n"
            "session required pam_permit.so\n"
        )

    def command(self):
        raise NotImplementedError

    def start(self):
        setup = f"""
            set -e
            cd {self.directory}
            for file in passwd group shadow; do mount --bind $file /etc/$file; done
            mount --bind pam /etc/pam.d/{self.pam_service}
            mount -t tmpfs -o mode=755 none /run
            mkdir /run/sshd /run/empty
            mount -t tmpfs -o size={self.FULL_SIZE},uid={UID},gid={UID} none home/full
            # Not by exec: the server does not expect to be handed the orphans of its namespace.
            "$@"
        """
        namespaces = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
        with open(self.directory / "log", "ab") as log:
            self.process = subprocess.Popen(
                [*namespaces, "sh", "-c", setup, "sh", *self.command()],
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
            )
        wait_until(self._listening, what=f"{self.address}:{self.port} open")
        return self

    def _listening(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"the server ended: {self.log()}")
        return accepts(self.address, self.port)

    def log(self):
        return (self.directory / "log").read_text(errors="replace")

    def stop(self):
        """Ends the server and all its sessions at once."""
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self.process = None

    def close(self):
        self.stop()
        shutil.rmtree(self.directory)

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.close()

    def store(self, name, content=b""):
        """Puts a file into the home directory."""
        path = self.home / name
        path.write_bytes(content)
        shutil.chown(path, UID, UID)
        return path


class FtpServer(Server):
    """vsftpd. `settings` adds to its configuration, e.g. local_max_rate=65536."""

    port = 21
    pam_service = "vsftpd"

    def __init__(self, account=None, address=None, **settings):
        super().__init__(account, address)
        self.settings = {
            "listen": "YES",
            "listen_ipv6": "NO",
            "listen_address": self.address,
            "background": "NO",
            "anonymous_enable": "NO",
            "local_enable": "YES",
            "write_enable": "YES",
            "pam_service_name": "vsftpd",
            "secure_chroot_dir": "/run/empty",
            "xferlog_enable": "NO",
            "delay_failed_login": "0",
        } | settings

    def command(self):
        config = self.directory / "vsftpd.conf"
        config.write_text("".join(f"{key}={value}\n" for key, value in self.settings.items()))
        return ["vsftpd", str(config)]


class SshServer(Server):
    """sshd. `sftp` off leaves the SFTP subsystem out; `cutting` puts cutting_sftp.py before it;
    `interactive` asks for the password by keyboard-interactive authentication only."""

    port = 22
    pam_service = "sshd"

    def __init__(self, account=None, address=None, sftp=True, cutting=False, interactive=False):
        super().__init__(account, address)
        self.sftp = sftp
        self.cutting = cutting
        self.interactive = interactive
        self.new_host_key()

    def new_host_key(self):
        key = self.directory / "host_key"
        key.unlink(missing_ok=True)
        subprocess.run(
            ["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", str(key)],
            stdin=subprocess.DEVNULL,
            check=True,
        )

    def command(self):
        yes_no = {True: "yes", False: "no"}
        lines = [
            f"Port {self.port}",
            f"ListenAddress {self.address}",
            f"HostKey {self.directory}/host_key",
            "PidFile none",
            f"UsePAM {yes_no[self.interactive]}",
            f"KbdInteractiveAuthentication {yes_no[self.interactive]}",
            f"PasswordAuthentication {yes_no[not self.interactive]}",
            "PubkeyAuthentication no",
            "UseDNS no",
            "PrintMotd no",
        ]
        if self.cutting:
            # The account may not be able to read the original.
            shutil.copy(pathlib.Path(__file__).with_name("cutting_sftp.py"), self.directory)
            lines.append(f"Subsystem sftp /usr/bin/python3 {self.directory}/cutting_sftp.py")
        elif self.sftp:
            lines.append("Subsystem sftp /usr/lib/openssh/sftp-server")
        config = self.directory / "sshd_config"
        config.write_text("\n".join(lines) + "\n")
        return ["/usr/sbin/sshd", "-D", "-e", "-f", str(config)]


class Forwarder:
    """Passes connections on to a server's ports, on an address of its own, and stalls after `limit`
    bytes in either direction, or before a block that holds `mark`: from then on a transfer stands
    still until `cut` ends its connections."""

    def __init__(self, server, limit=float("inf"), mark=None, more_ports=()):
        self.target = server.address
        self.address = free_address()
        self.stalled = threading.Event()
        self._limit = limit
        self._mark = mark
        self._sockets = []
        self._listeners = [socket.create_server((self.address, port))
                           for port in (server.port, *more_ports)]
        self._threads = [threading.Thread(target=self._accept, args=(each,), daemon=True)
                         for each in self._listeners]
        for each in self._threads:
            each.start()

    def _accept(self, listener):
        port = listener.getsockname()[1]
        with contextlib.suppress(OSError):
            while True:
                near = listener.accept()[0]
                far = socket.create_connection((self.target, port))
                self._sockets += [near, far]
                for pair in ((near, far), (far, near)):
                    threading.Thread(target=self._pass, args=pair, daemon=True).start()

    def _pass(self, source, sink):
        passed = 0
        with contextlib.suppress(OSError):
            while passed < self._limit:
                block = source.recv(4096)
                if not block:
                    sink.shutdown(socket.SHUT_WR)
                    return
                if self._mark is not None and self._mark in block:
                    break
                sink.sendall(block)
                passed += len(block)
            self.stalled.set()

    def cut(self):
        for each in self._sockets:
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)
            each.close()
        self._sockets.clear()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for listener, thread in zip(self._listeners, self._threads):
            # shutdown wakes the accepting thread; close alone would not.
            listener.shutdown(socket.SHUT_RDWR)
            listener.close()
            thread.join()
        self.cut()
