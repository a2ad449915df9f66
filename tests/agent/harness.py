"""The host platform under test: a stock agent with the modules, the file-system daemon, servers.

Each Host has a directory and a loopback address of its own, so that tests disturb neither each
other nor whatever else runs on the machine. ORVEX_BUILD_DIR names the build; default build/release.
"""

import contextlib
import itertools
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path

import ber

REPOSITORY = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("ORVEX_BUILD_DIR", REPOSITORY / "build" / "release")).resolve()
LIBRARIES = BUILD / "lib"
PROGRAMS = BUILD / "bin"
SCRIPTS = REPOSITORY / "platform" / "host" / "transfer"
REQUIRED = (
    LIBRARIES / "ruma_agent.so",
    LIBRARIES / "orvex_flash_mib.so",
    PROGRAMS / "fs_daemon",
    PROGRAMS / "ruma-trace",
)

ROOT = ".1.3.6.1.4.1.32473.1.1"
SCALAR = f"{ROOT}.1.1.1.0"
SYS_UP_TIME = ".1.3.6.1.2.1.1.3.0"
DEVICE = f"{ROOT}.1.1.2.1"
PARTITION = f"{ROOT}.1.1.4.1.1"
FILE = f"{ROOT}.1.1.4.2.1.1"
COPY = f"{ROOT}.1.2.1.1"
MISC = f"{ROOT}.1.2.3.1"
NOTIFICATION = f"{ROOT}.1.3.0.1"

SCHEMES = ("bootflash", "slot0", "logflash")
COMMUNITY = "test"
V3_USER, V3_PASSWORD = "flashadmin", "correct horse"
V3_DIRECTIVES = [
    f'createUser {V3_USER} SHA-256 "{V3_PASSWORD}" AES "{V3_PASSWORD}"',
    f"rwuser {V3_USER} authPriv",
]
V3_OPTIONS = ["-l", "authPriv", "-u", V3_USER, "-a", "SHA-256", "-A", V3_PASSWORD]
V3_OPTIONS += ["-x", "AES", "-X", V3_PASSWORD]
AGENT_PORT = 1161
TRAP_PORT = 1162

ACTIVE, NOT_IN_SERVICE, NOT_READY, CREATE_AND_GO, CREATE_AND_WAIT, DESTROY = range(1, 7)
IN_PROGRESS, SUCCESS, NEW_ROW = 1, 2, 17
TRUE, FALSE = 1, 2
TO_FLASH, TO_FLASH_WITHOUT_ERASE, FROM_FLASH = 1, 2, 3
TFTP, FTP, SCP, SFTP = 1, 4, 5, 6
INVALID_SOURCE, BUSY, DEVICE_FULL, TRANSFER_ERROR, NO_MEMORY, SCP_FAILURE = 5, 8, 12, 14, 16, 18

# Starts a program where the fixed paths of the module lead into a host's directory. The mounts are
# seen by the program and its children alone. $1 is that directory, the rest is the command.
IN_PLACE = """
set -e
mount --bind "$1/ruma" /ruma
mount --bind "$1/var-log" /var/log
mount --bind "$1/var-tmp" /var/tmp
shift
exec "$@"
"""


class CopyColumn:
    COMMAND = f"{COPY}.2"
    PROTOCOL = f"{COPY}.3"
    SERVER = f"{COPY}.4"
    SOURCE = f"{COPY}.5"
    DESTINATION = f"{COPY}.6"
    USER = f"{COPY}.7"
    STATUS = f"{COPY}.8"
    NOTIFY = f"{COPY}.9"
    TIME = f"{COPY}.10"
    ROW = f"{COPY}.11"
    PASSWORD = f"{COPY}.12"


class MiscColumn:
    COMMAND = f"{MISC}.2"
    NAME = f"{MISC}.3"
    STATUS = f"{MISC}.4"
    NOTIFY = f"{MISC}.5"
    TIME = f"{MISC}.6"
    ROW = f"{MISC}.7"


def wait_for(condition, what, timeout=5.0):
    """Polls until the condition gives something true, and returns that."""
    deadline = time.monotonic() + timeout
    while True:
        result = condition()
        if result:
            return result
        assert time.monotonic() < deadline, f"not within {timeout} seconds: {what}"
        time.sleep(0.01)


class Process:
    """A program that a test started, with what it prints in a file."""

    def __init__(self, command, log, cwd, environment):
        self.log = Path(log)
        with open(self.log, "ab") as output:
            self._popen = subprocess.Popen(
                [str(word) for word in command],
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=output,
                cwd=cwd,
                env=environment,
            )
        self.pid = self._popen.pid

    def running(self) -> bool:
        return self._popen.poll() is None

    def signal(self, number) -> None:
        assert self.running(), f"{self.log.name} has ended with {self._popen.returncode}"
        self._popen.send_signal(number)

    def kill(self) -> None:
        """Ends it without a chance to clean up."""
        self._popen.kill()
        self._popen.wait()

    def stop(self) -> None:
        """Ends it as a service manager would."""
        if not self.running():
            return
        self._popen.send_signal(signal.SIGCONT)
        self._popen.terminate()
        try:
            self._popen.wait(10)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"{self.log.name} does not end at SIGTERM") from None


def process_state(pid):
    """State letter and parent of a process; None when there is none."""
    try:
        text = Path(f"/proc/{pid}/stat").read_text(encoding="utf-8", errors="replace")
    except (FileNotFoundError, ProcessLookupError):
        return None
    state, parent = text.rpartition(")")[2].split()[:2]
    return state, int(parent)


def processes():
    return [int(entry.name) for entry in Path("/proc").iterdir() if entry.name.isdigit()]


def live_children(pid):
    """The children of a process that are no zombies."""
    states = ((child, process_state(child)) for child in processes())
    return [child for child, state in states if state and state[1] == pid and state[0] not in "ZX"]


def sha256(path) -> str:
    return subprocess.run(
        ["sha256sum", str(path)], capture_output=True, text=True, check=True
    ).stdout.split()[0]


def arrived(path, size) -> Path:
    """A file at a server, once it has that size: a TFTP server may acknowledge the last block before
    it writes it out."""
    wait_for(lambda: path.exists() and path.stat().st_size == size, f"{path.name} has {size} bytes")
    return path


def write_random(path, size):
    """A file of random bytes, written in pieces."""
    with open("/dev/urandom", "rb") as source, open(path, "wb") as target:
        while size > 0:
            size -= target.write(source.read(min(size, 1 << 20)))


@contextlib.contextmanager
def small_file_system(directory, size):
    """Mounts a file system of that size; agents that are started inside see it."""
    subprocess.run(
        ["mount", "-t", "tmpfs", "-o", f"size={size}", "tmpfs", str(directory)], check=True
    )
    try:
        yield
    finally:
        subprocess.run(["umount", str(directory)], check=True)


class Addresses:
    """Loopback addresses that no other test run uses."""

    def __init__(self):
        self._lock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        for attempt in range(1000):
            number = (os.getpid() + attempt) % (100 * 256)
            self._prefix = f"127.{100 + number // 256}.{number % 256}"
            with contextlib.suppress(OSError):
                self._lock.bind(f"\0orvex-flash-test-{self._prefix}")
                break
        else:
            raise AssertionError("no free range of loopback addresses")
        self._last = itertools.cycle(range(1, 255))

    def take(self) -> str:
        return f"{self._prefix}.{next(self._last)}"


ADDRESSES = Addresses()


def is_outcome(fields) -> bool:
    """Whether a line of the error log is about how a copy or a delete ended."""
    return fields[1].startswith("0x4a03")


class ToolError(Exception):
    """A stock tool reported an error; the text says which."""


class Host:
    """One device: configuration, file systems, daemon, agent, and the tools pointed at it."""

    def __init__(self):
        for program in REQUIRED:
            assert program.exists(), f"{program} is missing: build it first"
        assert os.geteuid() == 0, "port 69 and mounts of their own: run these tests as root"
        self.address = ADDRESSES.take()
        # Short, because Unix sockets lie below it.
        self.directory = Path(tempfile.mkdtemp(prefix="orvex-"))
        self.run_dir = self.directory / "run"
        self.state_dir = self.directory / "state"
        self.work_dir = self.directory / "work"
        self.server_dir = self.directory / "server"
        self.temporary_dir = self.directory / "temporary"
        own = (self.run_dir, self.state_dir, self.work_dir, self.server_dir, self.temporary_dir)
        # Whatever the umask, nobody but the owner may write them.
        for directory in (*own, self.agent_log.parent):
            directory.mkdir(0o755)
        for scheme in SCHEMES:
            self.flash(scheme).mkdir(0o755)
        self._make_fixed_paths()
        self.core_directory = None
        self.agent_directives = []
        self.agent_user = None  # root
        self.modules = ("ruma_agent", "orvex_flash_mib")
        self.agent_settings = {}  # words of the platform configuration, as they stand in the file
        self.pid_file = self.directory / "snmpd.pid"
        self.agent_environment = {}
        self.trace_debug = True  # most tests read what the module traces
        self.agent_launcher = []  # a command that becomes the agent
        self.agent = None
        self.daemon = None
        self._namespaces = []
        self._others = contextlib.ExitStack()
        self.sender = ber.Sender(self.address, AGENT_PORT)

    def flash(self, scheme="bootflash") -> Path:
        """The directory of a file system."""
        return self.directory / scheme

    def _make_fixed_paths(self) -> None:
        # A mount point is all that the machine itself needs to have.
        Path("/ruma").mkdir(exist_ok=True)
        self.scripts.mkdir(parents=True)
        for source in SCRIPTS.iterdir():
            if source.suffix in (".expect", ".tcl"):
                shutil.copy(source, self.scripts)
        self.system_log.parent.mkdir(parents=True)
        self.dumped_log.parent.mkdir()
        self.dumped_log.parent.chmod(0o1777)

    @property
    def scripts(self) -> Path:
        """What the agent sees as /ruma/bin."""
        return self.directory / "ruma" / "bin"

    @property
    def system_log(self) -> Path:
        """What the agent sees as /var/log/external/messages; there is none at first."""
        return self.directory / "var-log" / "external" / "messages"

    @property
    def dumped_log(self) -> Path:
        """What the agent sees as /var/tmp/intsyslog."""
        return self.directory / "var-tmp" / "intsyslog"

    def _write_configuration(self) -> None:
        tables = [
            f'[[file_system]]\nscheme = "{scheme}"\ndirectory = "{self.flash(scheme)}"\n'
            f'description = "Test {scheme}"\n'
            for scheme in SCHEMES
        ]
        settings = {"confine": "true"} | self.agent_settings
        if self.agent_user is not None:
            settings.setdefault("user", f'"{self.agent_user}"')
        tables.append("[agent]\n" + "".join(f"{key} = {settings[key]}\n" for key in settings))
        if self.trace_debug:
            tables.append("[trace]\ndebug = true\n")
        tables.append("[fs_daemon]\nconfine = true\n")
        if self.core_directory is not None:
            tables.append(f'[core]\ndirectory = "{self.core_directory}"\n')
        self.configuration.write_text("\n".join(tables), encoding="utf-8")

    @property
    def message_socket(self) -> Path:
        """Where the workers' status messages arrive."""
        return self.run_dir / "pmb-fe000000-28.sock"

    @property
    def daemon_socket(self) -> Path:
        return self.run_dir / "fsd" / "fs_daemon.sock"

    @property
    def configuration(self) -> Path:
        return self.directory / "platform.toml"

    @property
    def agent_configuration(self) -> Path:
        return self.directory / "snmpd.conf"

    @property
    def agent_log(self) -> Path:
        return self.directory / "log" / "snmpd.log"

    @property
    def environment(self) -> dict:
        return {
            "PATH": os.environ["PATH"],
            "TZ": "UTC",
            "LD_LIBRARY_PATH": str(LIBRARIES),
            "RUMA_CONFIG": str(self.configuration),
            "RUMA_RUN_DIR": str(self.run_dir),
            "RUMA_STATE_DIR": str(self.state_dir),
            "SNMP_PERSISTENT_DIR": str(self.directory / "persistent"),
            "SNMPCONFPATH": str(self.directory),
            "MIBS": "",
            "MIBDIRS": "",
        }

    # --- The agent and the daemon

    def write_agent_configuration(self, modules=True) -> None:
        lines = [f"rwcommunity {COMMUNITY} 127.0.0.0/8", "dontLogTCPWrappersConnects yes"]
        # A confined agent may write where these files are, and all hosts are in the usual directory.
        lines += [f"[snmp] tempFilePattern {self.temporary_dir}/snmpdXXXXXX"]
        lines += self.agent_directives
        if modules:
            lines += [f"dlmod {name} {LIBRARIES / name}.so" for name in self.modules]
        self.agent_configuration.write_text("\n".join(lines) + "\n", encoding="utf-8")

    def start(self) -> None:
        self.start_daemon()
        self.start_agent()

    def start_agent(self) -> None:
        """Starts the agent and waits until it and the module answer."""
        self.launch_agent()
        wait_for(self._agent_answers, "the agent answers", timeout=10)
        # Held open, so that the kernel gives the number of this namespace to no other.
        self._namespaces.append(os.open(f"/proc/{self.agent.pid}/ns/mnt", os.O_RDONLY))
        # The agent only logs that a module cannot be loaded.
        assert "dlopen" not in self.agent_log.read_text(), self.logs()
        assert self.value(SCALAR) == 1, f"the module does not answer\n{self.logs()}"

    def launch_agent(self) -> None:
        self._write_configuration()
        self.write_agent_configuration()
        command = ["unshare", "--mount", "--propagation", "slave"]
        command += ["/bin/sh", "-c", IN_PLACE, "sh", self.directory]
        command += [*self.agent_launcher, "/usr/sbin/snmpd", "-f"]
        command += ["-C", "-c", self.agent_configuration]
        # SMUX would bind a port that all agents of a machine share.
        command += ["-I", "-smux", "-Lf", self.agent_log, "-p", self.pid_file]
        if self.agent_user is not None:
            command += ["-u", self.agent_user]
            # Opened again at a reload, by this user.
            self.agent_log.touch()
            shutil.chown(self.agent_log, self.agent_user)
        command += self._agent_place()
        environment = self.environment | self.agent_environment
        self.agent = Process(command, self.directory / "snmpd.out", self.work_dir, environment)

    def _agent_place(self) -> list:
        """Where the agent is asked, as its command line says it."""
        return [f"udp:{self.address}:{AGENT_PORT}"]

    def _agent_answers(self) -> bool:
        assert self.agent.running(), f"the agent has ended\n{self.logs()}"
        return self.sender.get(SYS_UP_TIME, timeout=0.2) is not None

    def start_daemon(self) -> None:
        self._write_configuration()
        log = self.directory / "fs_daemon.out"
        self.daemon = Process([PROGRAMS / "fs_daemon"], log, self.directory, self.environment)
        wait_for(self._daemon_listens, "the file-system daemon listens")

    def _daemon_listens(self) -> bool:
        assert self.daemon.running(), f"the daemon has ended\n{self.logs()}"
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as probe:
            return probe.connect_ex(str(self.daemon_socket)) == 0

    def reload_agent(self) -> None:
        """SIGHUP, and waits until it has been dealt with."""
        lines = self._reloads()
        self.agent.signal(signal.SIGHUP)
        wait_for(lambda: self._reloads() > lines, "the agent has read its configuration again")
        wait_for(self._agent_answers, "the agent answers after a reload")

    def _reloads(self) -> int:
        return self.agent_log.read_text(encoding="utf-8", errors="replace").count(
            "NET-SNMP version"
        )

    def stop(self) -> None:
        """Ends the agent and the daemon."""
        for process in (self.agent, self.daemon):
            if process is not None:
                process.stop()

    def close(self) -> None:
        """Ends everything; nothing of this host is left on the machine."""
        self.sender.close()
        with self._others:
            self.stop()
        left = self.strays()
        for pid in left:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        for namespace in self._namespaces:
            os.close(namespace)
        shutil.rmtree(self.directory)
        assert not left, f"processes were left: {left}"

    def strays(self):
        """Processes that the agent or the daemon left behind, whoever their parent is by now.

        They are known by the mounts that they see, or by the environment that they inherited.
        """
        mark = f"RUMA_RUN_DIR={self.run_dir}".encode()
        namespaces = {os.fstat(each).st_ino for each in self._namespaces}
        found = []
        for pid in processes():
            with contextlib.suppress(OSError):
                if os.stat(f"/proc/{pid}/ns/mnt").st_ino in namespaces:
                    found.append(pid)
                elif mark in Path(f"/proc/{pid}/environ").read_bytes().split(b"\0"):
                    found.append(pid)
        known = [process.pid for process in (self.agent, self.daemon) if process is not None]
        return [pid for pid in found if pid not in known]

    def descriptors(self) -> list:
        """What the agent holds open."""
        directory = Path(f"/proc/{self.agent.pid}/fd")
        return sorted(os.readlink(directory / number) for number in os.listdir(directory))

    def logs(self) -> str:
        """What the agent and the daemon have said, for the report of a failed test."""
        names = ("log/snmpd.log", "snmpd.out", "fs_daemon.out")
        paths = [self.directory / name for name in names]
        texts = [
            f"--- {path.name}\n{path.read_text(errors='replace')[-6000:]}"
            for path in paths
            if path.exists()
        ]
        return "\n".join(texts)

    def said(self) -> str:
        """Everything that the agent and the daemon have said."""
        names = ("log/snmpd.log", "snmpd.out", "fs_daemon.out", "run/snmp-errors.log")
        paths = [self.directory / name for name in names]
        return "\n".join(path.read_text(errors="replace") for path in paths if path.exists())

    def trace(self, *options) -> list:
        """The lines of the event history."""
        command = [PROGRAMS / "ruma-trace", *options]
        run = subprocess.run(
            command, capture_output=True, text=True, env=self.environment, check=False, timeout=30
        )
        assert run.returncode == 0, run.stderr
        return run.stdout.splitlines()

    def clear_trace(self) -> None:
        command = [PROGRAMS / "ruma-trace", "clear"]
        subprocess.run(command, env=self.environment, check=True, timeout=30)

    def completions(self) -> list:
        """The copies that the module has recorded, as the event history tells it."""
        return [line for line in self.trace() if "Copy is done with status" in line]

    def error_log(self) -> list:
        """The module's lines of the agent's error log, as lists of fields."""
        return [fields for fields in self._log_lines() if not is_outcome(fields)]

    def outcomes(self) -> list:
        """The error log's lines about copies and deletes, as lists of fields."""
        return [fields for fields in self._log_lines() if is_outcome(fields)]

    def _log_lines(self) -> list:
        log = self.run_dir / "snmp-errors.log"
        lines = log.read_text(encoding="ascii").splitlines() if log.exists() else []
        return [line.split(", ") for line in lines]

    def errors(self) -> list:
        """The platform error codes that the module has entered into the agent's error log."""
        return [fields[1] for fields in self.error_log()]

    # --- The stock tools

    def tool(self, name, *arguments, timeout=60, version="2c", options=()) -> str:
        """Runs a stock tool, numeric throughout; raises ToolError with what it says."""
        # -t is long, so that a slow answer is seen as slow, and -r 0 sends each request once.
        command = [name, f"-v{version}", "-t", "10", "-r", "0", "-On", "-Oe"]
        command += V3_OPTIONS if version == "3" else ["-c", COMMUNITY]
        command += ["-OU", "-m", "", *options]
        command += [f"{self.address}:{AGENT_PORT}", *map(str, arguments)]
        run = subprocess.run(
            command,
            capture_output=True,
            text=True,
            errors="surrogateescape",
            env=self.environment,
            timeout=timeout,
            check=False,
        )
        if run.returncode != 0:
            raise ToolError(run.stdout + run.stderr)
        return run.stdout

    def snmpget(self, *names) -> list:
        return self.tool("snmpget", *names).splitlines()

    def snmpgetnext(self, *names) -> list:
        return self.tool("snmpgetnext", *names).splitlines()

    def snmpset(self, *triples, version="2c") -> None:
        """name, type letter, value; and so on."""
        self.tool("snmpset", *triples, version=version)

    def bulkwalk(self, name=ROOT, repetitions=25) -> list:
        """Walks with GETBULK; the tool itself refuses names that do not increase."""
        command = ["snmpbulkwalk", f"-Cr{repetitions}"]
        return self._walk(command, name)

    def walk(self, name=ROOT) -> list:
        """Walks with GETNEXT."""
        return self._walk(["snmpwalk"], name)

    def _walk(self, command, name) -> list:
        program, *options = command
        text = self.tool(program, *options, name)
        return [pair for pair in map(self._instance, text.splitlines()) if pair]

    @staticmethod
    def _instance(line):
        match = re.match(r"(\.[\d.]+) = (.*)", line)
        return match.groups() if match else None

    # --- Shorter ways, by packets of our own

    def variables(self, *names) -> list:
        answer = self.sender.get(*names)
        assert answer is not None, f"no answer\n{self.logs()}"
        assert answer.error == ber.NO_ERROR, f"GET answered with error {answer.error}"
        return answer.variables

    def value(self, name):
        """The value of an instance; None when there is none."""
        return self.variables(name)[0].value

    def values(self, *names) -> list:
        return [variable.value for variable in self.variables(*names)]

    def set(self, *pairs, version=ber.V2C):
        """SETs and returns the error status of the answer."""
        answer = self.sender.set(*pairs, version=version)
        assert answer is not None, f"no answer to a SET\n{self.logs()}"
        return answer.error

    # --- Rows

    def create_copy(self, row, **columns) -> None:
        """createAndWait, then the columns."""
        status = self.set((f"{CopyColumn.ROW}.{row}", ber.integer(CREATE_AND_WAIT)))
        assert status == ber.NO_ERROR, f"createAndWait of row {row} gives {status}"
        pairs = copy_columns(row, **({"server": self.address} | columns))
        status = self.set(*pairs)
        assert status == ber.NO_ERROR, f"the columns of row {row} give {status}"

    def activate(self, row) -> int:
        return self.set((f"{CopyColumn.ROW}.{row}", ber.integer(ACTIVE)))

    def destroy(self, row) -> int:
        return self.set((f"{CopyColumn.ROW}.{row}", ber.integer(DESTROY)))

    def start_copy(self, row, **columns) -> None:
        self.create_copy(row, **columns)
        status = self.activate(row)
        assert status == ber.NO_ERROR, f"activating row {row} gives {status}"

    def copy_status(self, row):
        return self.value(f"{CopyColumn.STATUS}.{row}")

    def finish_copy(self, row, timeout=20.0) -> int:
        """Waits for the end of a copy and returns its status."""

        def ended():
            status = self.copy_status(row)
            assert status is not None, f"row {row} has gone"
            return status if status != IN_PROGRESS else None

        return wait_for(ended, f"copy {row} ends", timeout)

    def copy(self, row, timeout=20.0, **columns) -> int:
        """A whole copy; returns its status."""
        self.start_copy(row, **columns)
        return self.finish_copy(row, timeout)

    # --- Servers

    def start_atftpd(self) -> None:
        """Serves server_dir by TFTP at this host's address."""
        command = ["/usr/sbin/atftpd", "--daemon", "--no-fork", "--user", "root.root"]
        command += ["--bind-address", self.address, "--logfile", "-", self.server_dir]
        log = self.directory / "atftpd.out"
        # Not the platform's environment: the server is no process of the transfer.
        server = Process(command, log, self.server_dir, {"PATH": os.environ["PATH"]})
        self._others.callback(server.stop)
        wait_for(lambda: udp_port_taken(self.address, 69), "atftpd listens")

    def enter(self, context):
        """Enters a context that ends with the host."""
        return self._others.enter_context(context)


def udp_port_taken(host, port) -> bool:
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        try:
            probe.bind((host, port))
        except OSError:
            return True
    return False


def copy_columns(
    row,
    *,
    server,
    source,
    destination,
    command=TO_FLASH,
    protocol=TFTP,
    notify=FALSE,
    user=None,
    password=None,
):
    """The columns of a copy row as pairs for a SET; None leaves one out."""

    def text(content):
        return ber.octets(content.encode())

    columns = [
        (CopyColumn.COMMAND, command, ber.integer),
        (CopyColumn.PROTOCOL, protocol, ber.integer),
        (CopyColumn.SERVER, server, ber.address),
        (CopyColumn.SOURCE, source, text),
        (CopyColumn.DESTINATION, destination, text),
        (CopyColumn.USER, user, text),
        (CopyColumn.PASSWORD, password, text),
        (CopyColumn.NOTIFY, notify, ber.integer),
    ]
    return [
        (f"{name}.{row}", encode(value)) for name, value, encode in columns if value is not None
    ]


def delete(host, row, name):
    """Asks for a deletion; returns the answer and the operation status."""
    pairs = [(f"{MiscColumn.ROW}.{row}", ber.integer(CREATE_AND_WAIT))]
    pairs.append((f"{MiscColumn.NAME}.{row}", ber.octets(name)))
    assert host.set(*pairs) == ber.NO_ERROR
    answer = host.set((f"{MiscColumn.ROW}.{row}", ber.integer(ACTIVE)))
    return answer, host.value(f"{MiscColumn.STATUS}.{row}")


class TrapReceiver:
    """Takes the notifications that an agent sends."""

    def __init__(self, host):
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.bind((host, TRAP_PORT))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._socket.close()

    def receive(self, timeout=5.0):
        """The variables of the next notification, or None."""
        self._socket.settimeout(timeout)
        try:
            packet = ber.parse(self._socket.recv(65536))
        except TimeoutError:
            return None
        assert packet.kind == ber.TRAP2
        return packet.variables
