"""A machine with the packages of a directory, their agent and daemon, and a management station."""

import subprocess
from pathlib import Path

from machine import Machine, wait_for
from harness import (
    ACTIVE,
    CREATE_AND_WAIT,
    DEVICE,
    FILE,
    IN_PROGRESS,
    SCALAR,
    SYS_UP_TIME,
    V3_OPTIONS,
    V3_PASSWORD,
    V3_USER,
    CopyColumn,
)

STATION = "127.0.0.2"
MAIN_PACKAGES = ("orvex-flash-mib", "orvex-flash-fsd", "orvex-flash-tools")
START_SCRIPT = "/usr/share/orvex-flash-mib/device/orvex-flash"
PIDS = "/run/orvex-flash"
# That the packages make, with owners and modes.
DIRECTORIES = {
    "/var/lib/ruma": "root:root 755",
    "/var/lib/ruma/bootflash": "Debian-snmp:ruma-flash 2750",
    "/var/lib/ruma/slot0": "Debian-snmp:ruma-flash 2750",
    "/var/lib/ruma/logflash": "Debian-snmp:ruma-flash 2750",
    "/var/lib/ruma/staging": "Debian-snmp:Debian-snmp 700",
    "/var/lib/ruma/state": "Debian-snmp:Debian-snmp 700",
    "/run/ruma": "Debian-snmp:Debian-snmp 755",
}
# The agent alone, as its package starts it.
AGENT = f"snmpd -u Debian-snmp -g Debian-snmp -p {PIDS}/snmpd.pid"


class Installation(Machine):
    def apt(self, *words) -> str:
        return self.run("apt-get", "-y", "-o", "Dpkg::Options::=--force-unsafe-io", *words)

    def install(self, directory: Path, *names) -> str:
        """Installs packages of a directory outside; what apt says."""
        files = []
        for name in names:
            (package,) = directory.glob(f"{name}_*.deb")
            self.path(f"/tmp/{package.name}").write_bytes(package.read_bytes())
            files.append(f"/tmp/{package.name}")
        return self.apt("install", *files)

    def state(self, package) -> str:
        """State and version as dpkg knows them."""
        form = "${db:Status-Status} ${Version}"
        return self.run("dpkg-query", "-W", "-f", form, package, check=False)

    def listed(self, package) -> list[str]:
        """The files of a package, directories left out."""
        names = self.run("dpkg", "-L", package).splitlines()
        return [name for name in names if not self.path(name).is_dir()]

    def owner(self, name) -> str:
        """Owner, group and mode of a file."""
        return self.run("stat", "-c", "%U:%G %a", name).strip()

    def set_up(self) -> str:
        """Runs the command that the package names, for a user of the management station."""
        self.write("/tmp/password", f"{V3_PASSWORD}\n", mode=0o600)
        return self.run("orvex-flash-setup", "--user", V3_USER, "--password-file", "/tmp/password")

    def start_all(self) -> None:
        """Starts daemon and agent as on a system without systemd."""
        self.run(START_SCRIPT, "start")
        wait_for(lambda: self.get(f"{DEVICE}.7.1"), "the daemon answers", timeout=10)

    def stop_all(self) -> None:
        self.run(START_SCRIPT, "stop")

    def start_agent(self) -> None:
        """Starts the agent without a script of the packages."""
        self.run(*AGENT.split())
        wait_for(lambda: self.get(SYS_UP_TIME), "the agent answers", timeout=10)

    def agent_pid(self) -> str:
        return self.path(f"{PIDS}/snmpd.pid").read_text(encoding="ascii").strip()

    def end(self, program) -> None:
        """Ends what runs by its process id, when there is no script of the packages any more."""
        pid = self.path(f"{PIDS}/{program}.pid").read_text(encoding="ascii").strip()
        self.run("sh", "-c", f"kill {pid}")
        wait_for(lambda: not self.path(f"/proc/{pid}").exists(), f"{program} ends", timeout=10)

    def mapped(self) -> str:
        """The files that the agent has in memory."""
        return self.run("cat", f"/proc/{self.agent_pid()}/maps")

    def _station(self, tool, options, *words) -> str:
        command = [tool, *options, "-m", "", "-Oqv", "-t", "2", "-r", "0", "127.0.0.1", *words]
        with self.network():
            done = subprocess.run(command, capture_output=True, text=True, check=False)
        return done.stdout.strip()

    def get(self, *names, options=("-v3", *V3_OPTIONS)) -> str:
        """The value, or an empty text for none."""
        answer = self._station("snmpget", options, *names)
        return "" if "No Such" in answer else answer

    def set(self, *words, options=("-v3", *V3_OPTIONS)) -> bool:
        return self._station("snmpset", options, *(str(word) for word in words)) != ""

    def files(self) -> list[str]:
        """The names in the inventory."""
        lines = self._station("snmpbulkwalk", ("-v3", *V3_OPTIONS), f"{FILE}.3").splitlines()
        return [line.strip('"') for line in lines if line.startswith('"')]

    def begin_copy(self, row, source, destination) -> None:
        """Starts to fetch a file by TFTP from the station."""
        assert self.set(f"{CopyColumn.ROW}.{row}", "i", CREATE_AND_WAIT)
        assert self.set(
            *(f"{CopyColumn.SERVER}.{row}", "a", STATION),
            *(f"{CopyColumn.SOURCE}.{row}", "s", source),
            *(f"{CopyColumn.DESTINATION}.{row}", "s", destination),
        )
        assert self.set(f"{CopyColumn.ROW}.{row}", "i", ACTIVE)

    def copy_status(self, row) -> int:
        return int(self.get(f"{CopyColumn.STATUS}.{row}"))

    def copy_result(self, row) -> int:
        """The status of a copy that has ended."""
        wait_for(lambda: self.copy_status(row) != IN_PROGRESS, f"copy {row} ends", timeout=30)
        return self.copy_status(row)

    def serves_module(self) -> bool:
        return self.get(f"{SCALAR}") != ""
