"""A fresh Debian root in which packages are installed, with processes and a network of its own."""

import contextlib
import ctypes
import os
import subprocess
import sys
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
sys.path.append(str(REPOSITORY / "tests" / "agent"))

from harness import wait_for  # noqa: E402, pylint: disable=C0413

CLONE_NEWNET = 0x40000000
ENVIRONMENT = (
    "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
    "HOME=/root",
    "LC_ALL=C.UTF-8",
    "DEBIAN_FRONTEND=noninteractive",
)
LIBC = ctypes.CDLL(None, use_errno=True)


def first_child(starter) -> int:
    """The process that this one has started, once there is one."""
    children = Path(f"/proc/{starter.pid}/task/{starter.pid}/children")

    def started():
        assert starter.poll() is None, f"{starter.args} has ended with {starter.returncode}"
        return children.read_text(encoding="ascii").split()

    return int(wait_for(started, f"a child of {starter.args}")[0])


def enter_network(path) -> None:
    with open(path, "rb") as namespace:
        if LIBC.setns(namespace.fileno(), CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), f"cannot enter {path}")


class Machine:
    """What changes in the root is kept in `layer`; nothing runs any more after close()."""

    def __init__(self, root: Path, layer: Path):
        self._holder = subprocess.Popen(
            [REPOSITORY / "scripts" / "in-target", root, "--layer", layer, "--"]
            + ["sh", "-c", "echo ready; exec cat"],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        assert self._holder.stdout.readline() == b"ready\n", f"no machine of {root} can be made"
        self._first = first_child(self._holder)
        # No service manager runs here: nothing is to be started by an installation.
        self.write("/usr/sbin/policy-rc.d", "#!/bin/sh\nexit 101\n", mode=0o755)

    def close(self) -> None:
        """Ends the first process, and with it all others."""
        self._holder.stdin.close()
        self._holder.wait(20)
        self._holder.stdout.close()

    def _enter(self, command):
        return [
            *("nsenter", "--target", str(self._first), "--mount", "--uts", "--ipc", "--net"),
            *("--pid", "--root", "env", "-i", "-C", "/", *ENVIRONMENT, *command),
        ]

    def path(self, name) -> Path:
        """Where a file of the machine is for the test."""
        return Path(f"/proc/{self._first}/root{name}")

    def write(self, name, text, mode=0o644) -> None:
        self.path(name).write_text(text, encoding="utf-8")
        self.path(name).chmod(mode)

    def run(self, *command, check=True, timeout=300) -> str:
        """What a command says; it must succeed unless told otherwise."""
        done = subprocess.run(
            self._enter(command),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            timeout=timeout,
            check=False,
        )
        assert not check or done.returncode == 0, f"{command} failed:\n{done.stdout}"
        return done.stdout

    def succeeds(self, *command) -> bool:
        return subprocess.run(self._enter(command), capture_output=True, check=False).returncode == 0

    @contextlib.contextmanager
    def network(self):
        """What the test itself and the programs that it starts do meanwhile is done in the machine's
        network."""
        own = f"/proc/{os.getpid()}/ns/net"
        with open(own, "rb") as namespace:
            enter_network(f"/proc/{self._first}/ns/net")
            try:
                yield
            finally:
                enter_network(f"/proc/self/fd/{namespace.fileno()}")
