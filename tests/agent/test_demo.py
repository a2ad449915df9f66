"""scripts/demo: what it prints, what it says it lacks, and what is left when it is interrupted."""

import os
import re
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

import pytest

from harness import BUILD, REPOSITORY, processes, wait_for

DEMO = REPOSITORY / "scripts" / "demo"
# Nothing is installed here, and nothing lacks.
APT_GET = "#!/bin/sh\nexit 1\n"


class Demo:
    """A demonstration in a session of its own, as from a terminal."""

    def __init__(self, directory, output, before=(), extra=None):
        self.directory = directory
        self.output = output
        with open(output, "wb") as stream:
            self.process = subprocess.Popen(
                [*before, str(DEMO)],
                stdin=subprocess.DEVNULL,
                stdout=stream,
                stderr=stream,
                start_new_session=True,
                # Whoever runs tests in the background ignores interrupts.
                preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL),
                env=os.environ
                | {"TMPDIR": str(directory), "ORVEX_BUILD_DIR": str(BUILD)}
                | (extra or {}),
            )

    @property
    def lines(self):
        return self.output.read_text(errors="replace").splitlines()

    def has_come_to(self, text):
        assert self.process.poll() is None, "\n".join(self.lines)
        return any(text in line for line in self.lines)

    def end(self, timeout=120):
        return self.process.wait(timeout)

    def left(self):
        """Processes that it started and that are still there, known by their environment."""
        mark = f"TMPDIR={self.directory}".encode()
        found = []
        for pid in processes():
            try:
                if mark in Path(f"/proc/{pid}/environ").read_bytes().split(b"\0"):
                    found.append(pid)
            except OSError:
                pass
        return found


@pytest.fixture(name="directory")
def fixture_directory():
    made = Path(tempfile.mkdtemp(prefix="orvex-"))  # short, because Unix sockets lie below it
    made.chmod(0o755)  # the servers' accounts pass through
    yield made
    shutil.rmtree(made)


@pytest.fixture(name="start")
def fixture_start(directory, tmp_path):
    started = []

    def start(*arguments, **options):
        started.append(Demo(directory, tmp_path / "output", *arguments, **options))
        return started[-1]

    yield start
    for demo in started:
        if demo.process.poll() is None:
            os.killpg(demo.process.pid, signal.SIGTERM)
            demo.end()


def test_all_of_it_is_true_and_fits_a_file_of_100_columns(start, directory):
    demo = start()
    assert demo.end() == 0, "\n".join(demo.lines)
    lines = demo.lines
    assert [line for line in lines if len(line) > 100] == []
    assert [line for line in lines if re.search(r"[\x00-\x08\x0b-\x1f\x7f]", line)] == []
    # What the module writes to the agent's standard output.
    assert [line for line in lines if "calling start_flash_copy" in line] == []
    statuses = [line for line in lines if line.startswith("copy status: ")]
    assert set(statuses) == {
        f"copy status: {name}" for name in ("inProgress(1)", "success(2)", "invalidSourceName(5)")
    } or set(statuses) == {"copy status: success(2)", "copy status: invalidSourceName(5)"}
    assert lines[-1] == "All of it was true."

    steps = [line.removeprefix("== ") for line in lines if line.startswith("== ")]
    head = next(i for i, line in enumerate(lines) if line.startswith("What was shown"))
    rows = [re.fullmatch(r"(.*?) +(\d+) +(\d+\.\d)", line) for line in lines[head + 1 : -2]]
    assert [row[1] for row in rows] == steps
    moved = {row[1]: int(row[2]) for row in rows}
    assert moved["Fetching a file of 16 MiB to flash"] == 16777216
    assert moved["Sending a file by SFTP, and fetching it again"] == 2 * 65536

    assert list(directory.iterdir()) == []
    assert demo.left() == []


@pytest.mark.parametrize(
    "phase",
    [
        "== A device with two flash file systems",
        "== Starting the file-system daemon",
        "orvexFlashCopyEntryStatus.7 = active",
        "== Sending a file by SCP",
        "== Deleting a file on flash",
    ],
)
def test_an_interrupt_leaves_nothing_and_says_so(start, directory, phase):
    demo = start()
    wait_for(lambda: demo.has_come_to(phase), phase, timeout=60)
    os.killpg(demo.process.pid, signal.SIGINT)
    assert demo.end() == 130
    said = " ".join(demo.lines)
    assert re.search(r"Interrupted while this went on: \w", said)
    assert demo.lines[-1] == "Everything that was started has been ended and removed."
    assert demo.left() == []
    assert list(directory.iterdir()) == []


def lacks(demo, sentence):
    """It ends at once, and says nothing but that."""
    assert demo.end(20) == 1
    assert re.fullmatch(sentence, " ".join(" ".join(demo.lines).split()))


def test_without_root_it_says_that_it_needs_root(start, directory):
    directory.chmod(0o777)
    lacks(
        start(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]),
        r"Run it as root: it mounts, binds ports below 1024 and installs missing packages\.",
    )


def test_without_the_capability_to_mount_it_names_it(start):
    lacks(
        start(["setpriv", "--bounding-set=-sys_admin", "--inh-caps=-sys_admin"]),
        r"The capability CAP_SYS_ADMIN is missing: the agent cannot have mounts of its own\.",
    )


def test_without_space_it_says_where_and_how_much(start, directory):
    mounted = ["unshare", "--mount", "sh", "-c"]
    mounted += [f'mount -t tmpfs -o size=1m none "{directory}" && exec "$0"']
    lacks(start(mounted), rf"{directory} has \d MB free, and 200 MB are needed there\.")


def test_a_directory_that_is_closed_to_the_servers_is_named(start, directory):
    directory.chmod(0o700)
    lacks(
        start(),
        rf"Other users cannot pass through {directory}: let TMPDIR name another directory\.",
    )


def test_a_directory_whose_name_leaves_no_room_for_sockets_is_named(start, directory):
    long = directory / ("x" * 50)
    long.mkdir()
    lacks(
        start(extra={"TMPDIR": str(long)}),
        rf"The name {long} is too long: let TMPDIR name another\.",
    )


def test_where_a_server_listens_on_every_address_it_names_the_ports(start):
    taken = "import os, socket, sys\n"
    taken += "held = []\n"
    taken += "for kind, port in ((socket.SOCK_DGRAM, 69), (socket.SOCK_STREAM, 22)):\n"
    taken += "    held.append(socket.socket(socket.AF_INET, kind))\n"
    taken += "    held[-1].bind(('0.0.0.0', port))\n"
    taken += "    if kind == socket.SOCK_STREAM: held[-1].listen()\n"
    taken += "    held[-1].set_inheritable(True)\n"
    taken += "os.execv(sys.argv[1], sys.argv[1:])\n"
    inside = ["unshare", "--net", "sh", "-c", 'ip link set lo up && exec /usr/bin/python3 -c "$@"']
    sentence = (
        r"A server has the {} port {} of every address: end it meanwhile, or have it listen on its "
        r"own addresses only\."
    )
    lacks(
        start([*inside, "sh", taken]), f"{sentence.format('UDP', 69)} {sentence.format('TCP', 22)}"
    )


def test_packages_that_cannot_be_installed_are_told_from_a_failure(start, tmp_path):
    programs = tmp_path / "programs"
    programs.mkdir()
    for name in ("apt-get", "dpkg-query"):
        (programs / name).write_text(APT_GET)
        (programs / name).chmod(0o755)
    demo = start(extra={"PATH": f"{programs}:{os.environ['PATH']}"})
    assert demo.end(20) == 1
    said = " ".join(demo.lines)
    assert "Packages are missing that apt-get does not install: see scripts/packages.txt." in said
    assert "Interrupted" not in said
