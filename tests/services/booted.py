"""A fresh Debian that is booted with its service manager, with processes and a network of its own.

scripts/test-services says what its root has. What changes in it is kept in a layer of its own."""

import contextlib
import os
import signal
import subprocess
import sys
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
sys.path.append(str(REPOSITORY / "tests" / "packages"))

from installation import MAIN_PACKAGES, Installation  # noqa: E402, pylint: disable=C0413
from machine import ENVIRONMENT, wait_for  # noqa: E402, pylint: disable=C0413
from harness import DEVICE, V3_OPTIONS  # noqa: E402, pylint: disable=C0413

SECONDS_TO_BOOT = 60
RESULT_OF_A_RESTART = 133
# Where control groups of the second version are: beside those of the first, or alone.
HIERARCHIES = (Path("/sys/fs/cgroup/unified"), Path("/sys/fs/cgroup"))
# As outside; a machine has none of these unless told.
LANDLOCK = "landlock_create_ruleset landlock_add_rule landlock_restrict_self"


class CannotBoot(Exception):
    """The reason why this machine boots no root."""


class Booted(Installation):
    """Ends when close() is called, by the process id of what runs it."""

    def __init__(self, root: Path, layer: Path):  # pylint: disable=W0231
        self._merged = layer / "merged"
        for name in ("changes", "work", "merged"):
            (layer / name).mkdir()
        options = f"lowerdir={root},upperdir={layer}/changes,workdir={layer}/work"
        mount = ["mount", "-t", "overlay", "-o", options, "overlay", str(self._merged)]
        subprocess.run(mount, check=True)
        self._console = layer / "console"
        # Machines that share a control group take each other's services for their own.
        [hierarchy] = [group for group in HIERARCHIES if (group / "cgroup.procs").exists()][:1]
        self._group = hierarchy / f"orvex-{os.getpid()}-{layer.name}"
        self._group.mkdir()
        self._runner = None
        self._first = 0
        try:
            self._boot()
        except BaseException:
            self.close()
            raise

    def _boot(self) -> None:
        command = ["sh", "-c", 'echo $$ >"$0" && exec "$@"', str(self._group / "cgroup.procs")]
        command += ["systemd-nspawn", "--quiet", "--register=no", "--keep-unit", "--private-network"]
        command.append(f"--system-call-filter={LANDLOCK}")
        with open(self._console, "wb") as console:
            self._runner = subprocess.Popen(
                [*command, "--boot", "--directory", str(self._merged)],
                stdin=subprocess.DEVNULL,
                stdout=console,
                stderr=console,
                # The machine has control groups as Debian's kernels have them, whatever is outside.
                env=os.environ | {"UNIFIED_CGROUP_HIERARCHY": "1"},
                # An interrupt from the keyboard ends the tests, and they end the machine.
                start_new_session=True,
            )
        try:
            wait_for(self._is_up, "the machine is up", timeout=SECONDS_TO_BOOT)
        except (AssertionError, CannotBoot) as error:
            said = self._console.read_text(encoding="utf-8", errors="replace")[-2000:]
            raise CannotBoot(f"systemd-nspawn boots no Debian here: {error}\n{said}") from error

    def _is_up(self) -> bool:
        if self._runner.poll() is not None:
            raise CannotBoot(f"it ended with {self._runner.returncode}")
        self._first = self._leader()
        if self._first == 0:
            return False
        state = self.run("systemctl", "is-system-running", check=False).strip()
        return state in ("running", "degraded")

    def _enter(self, command):
        return ["nsenter", "--target", str(self._first), "--all", "env", "-i", *ENVIRONMENT, *command]

    def close(self) -> None:
        if self._runner is not None and self._runner.poll() is None:
            self._runner.send_signal(signal.SIGTERM)
            try:
                self._runner.wait(30)
            except subprocess.TimeoutExpired:
                self._runner.kill()
                self._runner.wait()
        subprocess.run(["umount", str(self._merged)], check=True)
        for directory, _, _ in os.walk(self._group, topdown=False):
            os.rmdir(directory)

    def _leader(self) -> int:
        """The first process of the machine; 0 while there is none."""
        runner = self._runner.pid
        with contextlib.suppress(OSError):
            children = Path(f"/proc/{runner}/task/{runner}/children").read_text().split()
            return int(children[0]) if children else 0
        return 0

    def reboot(self) -> None:
        """The runner of a machine that restarts ends, so that somebody starts it again."""
        self.run("systemctl", "reboot", check=False)
        assert self._runner.wait(60) == RESULT_OF_A_RESTART
        self._boot()

    # --- Services

    def property_of(self, unit, name) -> str:
        return self.run("systemctl", "show", "--value", "-p", name, unit).strip()

    def pid(self, unit) -> int:
        """The main process as the machine numbers it. There is one: what is signalled is never 0."""
        number = self.running(unit)
        assert number > 0, f"{unit} does not run\n{self.journal(unit)[-1000:]}"
        return number

    def running(self, unit) -> int:
        """The main process; 0 when there is none."""
        return int(self.property_of(unit, "MainPID"))

    def status_of(self, unit) -> dict:
        """What the kernel says of the main process of a service."""
        text = self.path(f"/proc/{self.pid(unit)}/status").read_text(encoding="ascii")
        return dict(line.split(":\t", 1) for line in text.splitlines() if ":\t" in line)

    def journal(self, unit) -> str:
        return self.run("journalctl", "--no-pager", "--output=cat", "-u", unit)

    def column(self, name) -> dict:
        """The values of a column by their indexes."""
        command = ["snmpbulkwalk", "-v3", *V3_OPTIONS, "-m", "", "-Onq", "127.0.0.1", name]
        with self.network():
            text = subprocess.run(command, capture_output=True, text=True, check=True).stdout
        pairs = (line.split(" ", 1) for line in text.splitlines() if line.startswith(f"{name}."))
        return {full.removeprefix(f"{name}."): value.strip('"') for full, value in pairs}

    # --- The installation

    def install_and_set_up(self, directory) -> str:
        """Installs the packages and runs the one command that they name; what both say."""
        said = self.install(directory, *MAIN_PACKAGES) + self.set_up()
        self.await_inventory()
        return said

    def await_inventory(self) -> None:
        try:
            wait_for(self.serves_inventory, "the inventory answers", timeout=20)
        except AssertionError as error:
            raise AssertionError(f"{error}\n{self.run('journalctl', '-b', '-n', '40')}") from None

    def serves_inventory(self) -> bool:
        return self.get(f"{DEVICE}.7.1") == '"bootflash"'
