"""The agent and its workers confined by Landlock: what they cannot do, and that all else works.

These tests need a kernel with Landlock and fail without.
"""

import contextlib
import ctypes
import os
import re
import signal
import sys
from pathlib import Path

import pytest

from harness import (
    FROM_FLASH,
    SUCCESS,
    TRANSFER_ERROR,
    Process,
    small_file_system,
    wait_for,
)
from messages import provoked
from remotes import PROTOCOLS, SCRIPTED

KERNEL = Path(__file__).parent / "kernel.py"
CONTENT = b"content\n" * 1000
# nsExtendOutputFull of an `extend`, by its name.
EXTEND_OUTPUT = ".1.3.6.1.4.1.8072.1.3.2.3.1.2"
CONFINED = "ruma_agent: confined by Landlock"

both = pytest.mark.parametrize("confine", ["true", "false"])
scripted = pytest.mark.parametrize("protocol", SCRIPTED)


def kernels_landlock():
    """The version that the kernel names by itself."""
    create_ruleset, ask_for_version = 444, 1
    return ctypes.CDLL(None).syscall(create_ruleset, None, 0, ask_for_version)


def on_kernel(*how):
    return [sys.executable, str(KERNEL), *map(str, how)]


def start(host, confine="true"):
    """Starts the host and waits until the agent has come to its loop and confined itself."""
    host.agent_settings["confine"] = confine
    host.start()
    if confine == "true":
        wait_for(lambda: CONFINED in host.said(), "the agent is confined; has the kernel Landlock?")


@pytest.fixture(name="outside")
def fixture_outside(tmp_path):
    """A directory that is none of the agent's, short enough for a name."""
    tmp_path.chmod(0o777)
    return tmp_path


def smuggle(host, protocol, command):
    """A get by a script whose source name holds a command; the copy fails."""
    names = dict(source=f"x; {command}; exit 5 #", destination="bootflash:x")
    columns = dict(protocol=PROTOCOLS[protocol], user="u", password="p")
    assert host.copy(1, **names, **columns) == TRANSFER_ERROR


def smuggle_by_staging(host, command):
    """A put by TFTP without a destination name; the name of the source holds a command."""
    source = f"bootflash:x y; {command};"
    assert len(source) < 255
    columns = dict(protocol=PROTOCOLS["tftp"], source=source, destination=None)
    assert host.copy(1, command=FROM_FLASH, **columns) == TRANSFER_ERROR


# --- Workers: commands that a station smuggles into a name


@both
@scripted
def test_smuggled_touch_elsewhere_makes_a_file_only_without_confinement(
    idle_host, outside, protocol, confine
):
    start(idle_host, confine)
    smuggle(idle_host, protocol, f"touch {outside}/made")
    assert (outside / "made").exists() == (confine == "false")


@both
def test_smuggled_touch_in_a_staging_makes_a_file_only_without_confinement(
    idle_host, outside, confine
):
    start(idle_host, confine)
    (idle_host.flash() / "x").write_bytes(CONTENT)
    # A name in flash holds no "/" of a command: the shell puts it together.
    (outside / "made").write_bytes(CONTENT)
    directory = idle_host.work_dir / "there"
    directory.symlink_to(outside)
    smuggle_by_staging(idle_host, "cd there && : >made")
    assert (outside / "made").read_bytes() == (CONTENT if confine == "true" else b"")


@both
@scripted
def test_shell_itself_writes_elsewhere_only_without_confinement(
    idle_host, outside, protocol, confine
):
    start(idle_host, confine)
    victim = outside / "victim"
    victim.write_bytes(CONTENT)
    smuggle(idle_host, protocol, f"echo >{victim}; echo >{outside}/made")
    assert victim.read_bytes() == (CONTENT if confine == "true" else b"\n")
    assert (outside / "made").exists() == (confine == "false")


@both
@scripted
def test_smuggled_id_starts_only_without_confinement(idle_host, protocol, confine):
    """What it would say goes to the working directory, which the shell may write."""
    start(idle_host, confine)
    smuggle(idle_host, protocol, "id >said")
    said = (idle_host.work_dir / "said").read_text()
    assert ("uid=" in said) == (confine == "false")


def test_loader_runs_any_program_but_lends_it_no_rights(idle_host, outside):
    """It is a program that reads others; to forbid it would forbid them all."""
    start(idle_host)
    maps = Path(f"/proc/{idle_host.agent.pid}/maps").read_text(encoding="utf-8")
    loader = re.search(r"/\S*/ld-linux\S*", maps)[0]
    smuggle(idle_host, "ftp", f"{loader} /usr/bin/id >said; {loader} /usr/bin/touch {outside}/made")
    assert "uid=" in (idle_host.work_dir / "said").read_text()
    assert not (outside / "made").exists()


@both
def test_smuggled_touch_in_flash_starts_only_without_confinement(idle_host, confine):
    start(idle_host, confine)
    smuggle(idle_host, "ftp", f"touch {idle_host.flash()}/made; : >{idle_host.flash()}/shell")
    assert (idle_host.flash() / "made").exists() == (confine == "false")
    assert (idle_host.flash() / "shell").exists()


def test_smuggled_signal_does_not_reach_the_agent(idle_host):
    start(idle_host)
    if kernels_landlock() < 6:  # what the agent says of it must not decide
        pytest.skip("this kernel's Landlock leaves signals open")
    smuggle(idle_host, "sftp", f"kill -KILL {idle_host.agent.pid}; echo $? >said")
    assert (idle_host.work_dir / "said").read_text() == "1\n"
    assert idle_host.agent.running()


@scripted
def test_smuggled_command_reaches_no_event_history_where_there_is_no_state_directory(
    idle_host, protocol
):
    """Cut, it would end the agent, which has it mapped, at its next trace."""
    idle_host.state_dir.rmdir()
    start(idle_host)
    history = idle_host.run_dir / "event-history"
    size = history.stat().st_size
    smuggle(idle_host, protocol, f"echo >{history}")
    assert history.stat().st_size == size
    assert idle_host.agent.running()


@both
def test_tftp_destination_elsewhere_is_written_and_removed_only_without_confinement(
    idle_host, outside, confine
):
    """A send stages its file under the destination name, wherever that leads."""
    start(idle_host, confine)
    idle_host.start_atftpd()
    (idle_host.flash() / "x").write_bytes(b"new")
    victim = outside / "victim"
    victim.write_bytes(CONTENT)
    names = dict(source="bootflash:x", destination=str(victim))
    status = idle_host.copy(1, command=FROM_FLASH, **names)
    if confine == "true":
        assert (status, victim.read_bytes()) == (TRANSFER_ERROR, CONTENT)
    else:
        assert not victim.exists() or victim.read_bytes() == b"new"


def test_tftp_destination_in_flash_is_staged_there(idle_host):
    """Which is no escape: a worker may write there."""
    start(idle_host)
    idle_host.start_atftpd()
    (idle_host.flash() / "x").write_bytes(CONTENT)
    staged = idle_host.flash("slot0") / "staged"
    names = dict(source="bootflash:x", destination=str(staged))
    # The server has no such directory.
    assert idle_host.copy(1, command=FROM_FLASH, **names) == TRANSFER_ERROR
    assert staged.read_bytes() == CONTENT


# --- The agent: what its own programs may change is what it may change itself


PROBE = """#!/bin/sh
for place in {places}; do
    if (: >"$place") 2>/dev/null; then echo "$place"; fi
done
"""


def extended(host, name):
    """What the program of an `extend` has said."""
    index = ".".join(str(ord(each)) for each in name)
    return host.value(f"{EXTEND_OUTPUT}.{len(name)}.{index}").decode()


def probe_writing(host, places):
    """Lets the agent run a program that writes to places; those that took it."""
    script = host.directory / "probe"
    script.write_text(PROBE.format(places=" ".join(map(str, places))), encoding="ascii")
    script.chmod(0o755)
    host.agent_directives += [f"extend probe {script}"]
    start(host)
    return extended(host, "probe").splitlines()


def test_agent_may_write_its_own_places(idle_host):
    host = idle_host
    directories = [host.run_dir, host.state_dir, host.work_dir, host.agent_log.parent]
    directories += [host.flash(scheme) for scheme in ("bootflash", "slot0", "logflash")]
    directories += [host.directory / "persistent", host.temporary_dir, "/var/tmp"]
    places = [f"{directory}/made" for directory in directories] + ["/dev/null"]
    assert probe_writing(host, places) == places


def test_agent_may_write_nowhere_else(idle_host, outside):
    host = idle_host
    (outside / "there").touch()
    places = [outside / "made", outside / "there", host.scripts / "scp.expect", "/etc/made"]
    places += [host.configuration, host.directory / "made", "/dev/shm/made", host.server_dir / "x"]
    assert probe_writing(host, places) == []
    assert (host.scripts / "scp.expect").stat().st_size > 0


def test_agent_may_write_below_the_configured_directory(idle_host, outside):
    idle_host.agent_settings["writable"] = f'"{outside}"'
    assert probe_writing(idle_host, [outside / "made"]) == [f"{outside}/made"]


def test_agent_and_what_it_starts_gain_no_rights(idle_host):
    idle_host.agent_directives = ["extend status /bin/grep NoNewPrivs /proc/self/status"]
    start(idle_host)
    assert extended(idle_host, "status").split() == ["NoNewPrivs:", "1"]


@contextlib.contextmanager
def mounted_for_agent(host, directory):
    """Mounts a file system that the running agent sees."""
    enter = ["/usr/bin/nsenter", "-t", str(host.agent.pid), "-m"]
    mount = [*enter, "mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", str(directory)]
    assert os.spawnv(os.P_WAIT, enter[0], mount) == 0
    try:
        yield
    finally:
        assert os.spawnv(os.P_WAIT, enter[0], [*enter, "umount", str(directory)]) == 0


@pytest.mark.parametrize("above", [True, False])
def test_file_system_mounted_later_is_written_where_the_configuration_allows_above(
    idle_host, above
):
    """A card that is put in while the agent runs."""
    host = idle_host
    if above:
        host.agent_settings["writable"] = f'"{host.directory}"'
    start(host)
    host.start_atftpd()
    (host.server_dir / "x").write_bytes(CONTENT)
    with mounted_for_agent(host, host.flash("slot0")):
        status = host.copy(1, source="x", destination="slot0:x")
    assert status == (SUCCESS if above else TRANSFER_ERROR)


def test_file_system_that_was_mounted_before_is_written(idle_host):
    host = idle_host
    with small_file_system(host.flash("slot0"), "1m"):
        start(host)
        host.start_atftpd()
        (host.server_dir / "x").write_bytes(CONTENT)
        assert host.copy(1, source="x", destination="slot0:x") == SUCCESS
        host.stop()


# --- Everything else goes on


SUBAGENT = """
pass_persist .1.3.6.1.4.1.32473.97 {answer}
"""
# Answers GETs of one instance with the text "here".
ANSWER = """#!/bin/sh
while read -r word; do
    case $word in
    PING) echo PONG ;;
    get) read -r name; printf '%s\\nstring\\nhere\\n' "$name" ;;
    *) read -r name; echo NONE ;;
    esac
done
"""
SUBAGENT_VALUE = ".1.3.6.1.4.1.32473.97.0"


@pytest.fixture(name="full_host")
def fixture_full_host(idle_host):
    """A confined host as on a server: an AgentX master with a subagent, and programs."""
    host = idle_host
    (host.directory / "agentx").mkdir()
    socket = f"unix:{host.directory}/agentx/master"
    host.agent_directives = [
        "master agentx",
        f"agentXSocket {socket}",
        "extend plain /bin/echo plain",
        "sh shell /bin/echo shell",
        "disk /",
        "proc snmpd",
    ]
    start(host)
    subagent = host.directory / "subagent.conf"
    answer = host.directory / "answer"
    answer.write_text(ANSWER, encoding="ascii")
    answer.chmod(0o755)
    subagent.write_text(SUBAGENT.format(answer=answer), encoding="ascii")
    command = ["/usr/sbin/snmpd", "-f", "-X", "-x", socket, "-C", "-c", subagent, "-Lo"]
    command += ["-I", "pass_persist"]
    environment = {**host.environment, "SNMP_PERSISTENT_DIR": str(host.directory / "persistent2")}
    process = Process(command, host.directory / "subagent.out", host.directory, environment)
    host.enter(contextlib.closing(Stopper(process)))
    wait_for(lambda: host.value(SUBAGENT_VALUE) == b"here", "the subagent answers", timeout=20)
    return host


class Stopper:
    def __init__(self, process):
        self.close = process.stop


def check_all(host):
    """What an administrator has configured answers."""
    assert extended(host, "plain") == "plain"
    assert extended(host, "shell") == "shell"
    assert host.value(".1.3.6.1.4.1.2021.9.1.2.1") == b"/"
    assert host.value(".1.3.6.1.4.1.2021.2.1.2.1") == b"snmpd"


def test_subagent_programs_and_tables_answer_from_a_confined_agent(full_host):
    check_all(full_host)
    full_host.start_atftpd()
    (full_host.server_dir / "x").write_bytes(CONTENT)
    assert full_host.copy(1, source="x", destination="bootflash:x") == SUCCESS
    assert full_host.value(SUBAGENT_VALUE) == b"here"


def test_subagent_programs_and_tables_answer_after_reloads(full_host):
    for _ in range(3):
        full_host.reload_agent()
    check_all(full_host)
    wait_for(lambda: full_host.value(SUBAGENT_VALUE) == b"here", "the subagent is back", timeout=40)
    assert full_host.said().count(CONFINED) == 1


def test_log_that_was_moved_away_is_begun_anew_at_a_reload(idle_host):
    host = idle_host
    start(host)
    host.agent_log.rename(host.agent_log.with_suffix(".1"))
    host.agent.signal(signal.SIGHUP)
    wait_for(host.agent_log.exists, "the log is there again")
    wait_for(lambda: "NET-SNMP version" in host.agent_log.read_text(), "the agent writes to it")


def test_log_that_another_user_rotates_is_written_after_a_reload(idle_host):
    """As logrotate does it by `create`."""
    host = idle_host
    host.agent_user = "nobody"
    for directory in (host.directory, host.run_dir, host.work_dir, host.agent_log.parent):
        directory.chmod(0o755)
    start(host)
    mode = host.agent_log.stat()
    host.agent_log.rename(host.agent_log.with_suffix(".1"))
    host.agent_log.touch()
    os.chown(host.agent_log, mode.st_uid, mode.st_gid)
    host.agent.signal(signal.SIGHUP)
    wait_for(lambda: "NET-SNMP version" in host.agent_log.read_text(), "the agent writes to it")


def test_persistent_state_is_saved_at_the_end(idle_host):
    host = idle_host
    host.agent_directives = ["createUser another SHA-256 long-enough AES long-enough"]
    start(host)
    [saved] = (host.directory / "persistent").glob("snmpd.conf")
    saved.unlink()
    host.stop()
    assert re.search(r"^usmUser .*another", saved.read_text(), re.MULTILINE)


@pytest.mark.parametrize("own", [True, False])
def test_pid_file_is_removed_at_the_end_where_the_agent_may_write(idle_host, own):
    """Elsewhere it stays, and the next agent replaces it."""
    host = idle_host
    if own:
        host.pid_file = host.run_dir / "snmpd.pid"
    start(host)
    assert int(host.pid_file.read_text()) == host.agent.pid
    host.stop()
    assert host.pid_file.exists() == (not own)
    start(host)
    assert int(host.pid_file.read_text()) == host.agent.pid


def test_system_log_is_dumped_and_sent(idle_host):
    host = idle_host
    host.system_log.write_bytes(CONTENT)
    start(host)
    host.start_atftpd()
    assert host.copy(1, command=FROM_FLASH, source="log:messages", destination="sent") == SUCCESS
    assert (host.server_dir / "sent").read_bytes() == CONTENT


# --- Kernels without, and confinements that fail


def test_kernel_without_landlock_is_said_once_and_copies_go_on(idle_host, outside):
    host = idle_host
    host.agent_launcher = on_kernel("without-landlock")
    host.start()
    host.start_atftpd()
    (host.server_dir / "x").write_bytes(CONTENT)
    assert host.copy(1, source="x", destination="bootflash:x") == SUCCESS
    host.destroy(1)
    smuggle(host, "scp", f"touch {outside}/made")
    assert (outside / "made").exists()
    provoked(
        host.said(),
        "ruma_agent: this kernel has no Landlock: the agent and the workers of its copies are not"
        " confined",
    )
    assert host.said().count("no Landlock") == 1


def refused_copy(host, message):
    """A copy that is not begun, as its worker cannot be confined."""
    host.start_atftpd()
    (host.server_dir / "x").write_bytes(CONTENT)
    host.create_copy(7, source="x", destination="bootflash:x")
    host.activate(7)
    assert host.finish_copy(7) == TRANSFER_ERROR
    assert not (host.flash() / "x").exists()
    assert any("the worker cannot be confined" in field for field in host.outcomes()[-1])
    return message in host.said()


def test_copy_whose_worker_cannot_be_confined_fails(idle_host):
    """The agent takes the last confinement that the kernel allows."""
    idle_host.agent_launcher = on_kernel("layers", 15)
    start(idle_host)
    assert refused_copy(idle_host, "copy 7 fails, its worker cannot be confined: ")
    provoked(idle_host.said(), "ruma_agent: copy … fails, its worker cannot be confined: …")


def test_agent_that_cannot_be_confined_serves_on_and_copies_nothing(idle_host):
    idle_host.agent_launcher = on_kernel("layers", 16)
    idle_host.start()
    assert refused_copy(idle_host, "Argument list too long")
    provoked(idle_host.said(), "ruma_agent: the agent is not confined: …")
    assert idle_host.walk()
