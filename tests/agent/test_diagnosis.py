"""What the agent and the daemon say of each other, and of an installation that is not right."""

import shutil
import signal

import pytest

from harness import DEVICE, PROGRAMS, SCALAR, Process, wait_for
from test_lifecycle import COPY_ARGUMENTS

DOWN = "ruma: fs_daemon is down and the inventory empty: "
AGAIN = "ruma: fs_daemon answers again"
HUNG = "ruma: fs_daemon does not answer and the inventory is empty"


def ask(host):
    """A request of the inventory; the answer does not matter."""
    host.sender.get_next(DEVICE)


def lines(host, text):
    return [line for line in host.agent_log.read_text().splitlines() if text in line]


def said(host, text):
    """Asks until the agent says it; returns the line."""
    wait_for(lambda: ask(host) or lines(host, text), f"the agent says: {text}")
    [line] = lines(host, text)
    return line


@pytest.mark.provokes("ruma: fs_daemon is down and the inventory empty: …")
@pytest.mark.provokes("ruma: fs_daemon answers again")
def test_agent_says_once_that_the_daemon_is_gone_and_once_that_it_is_back(host):
    host.daemon.stop()
    for _ in range(5):
        ask(host)
    assert said(host, DOWN).endswith(f"No such file or directory: {host.daemon_socket}")
    assert lines(host, AGAIN) == []
    host.start_daemon()
    said(host, AGAIN)
    for _ in range(5):
        ask(host)
    assert len(lines(host, AGAIN)) == len(lines(host, DOWN)) == 1


def test_agent_does_not_flood_its_log_while_the_daemon_comes_and_goes(host):
    for _ in range(3):
        host.daemon.stop()
        ask(host)
        host.start_daemon()
        ask(host)
    assert len(lines(host, DOWN)) == 1


@pytest.mark.provokes("ruma: fs_daemon does not answer and the inventory is empty")
def test_agent_says_once_that_the_daemon_hangs(host):
    host.daemon.signal(signal.SIGSTOP)
    for _ in range(5):
        ask(host)
    said(host, HUNG)
    host.daemon.signal(signal.SIGCONT)
    said(host, AGAIN)


def test_agent_says_nothing_while_all_is_well(host):
    for _ in range(5):
        ask(host)
    assert lines(host, "fs_daemon") == []


@pytest.fixture(name="foreign_host")
def fixture_foreign_host(idle_host):
    """A host whose agent is another user than the configuration says."""
    idle_host.agent_user = "nobody"
    idle_host.directory.chmod(0o755)
    idle_host.agent_settings = {"user": '"daemon"'}
    return idle_host


@pytest.mark.provokes('ruma: fs_daemon refuses user …: set [agent] user = "…" in … and restart it')
def test_agent_says_that_the_daemon_refuses_it_and_what_to_set(foreign_host):
    foreign_host.start()
    user = "65534 (nobody)"
    line = said(foreign_host, "ruma: fs_daemon refuses user")
    assert f'user {user}: set [agent] user = "nobody" in {foreign_host.configuration}' in line
    assert f"fs_daemon: refuses user {user}: " in foreign_host.logs()


@pytest.mark.provokes(
    'ruma: fs_daemon runs as user …, who is not believed: set [fs_daemon] user = "…" in … and '
    "restart the agent"
)
def test_agent_says_that_it_does_not_believe_the_daemons_user(idle_host):
    idle_host.directory.chmod(0o755)
    idle_host.start()
    idle_host.daemon.stop()
    shutil.rmtree(idle_host.daemon_socket.parent)
    idle_host.daemon_socket.parent.mkdir()
    shutil.chown(idle_host.daemon_socket.parent, "nobody")
    command = ["setpriv", "--reuid=nobody", "--clear-groups", PROGRAMS / "fs_daemon"]
    log = idle_host.directory / "other.out"
    daemon = Process(command, log, idle_host.directory, idle_host.environment)
    try:
        wait_for(idle_host.daemon_socket.exists, "the other daemon listens")
        line = said(idle_host, "ruma: fs_daemon runs as user")
        assert 'user 65534 (nobody), who is not believed: set [fs_daemon] user = "nobody"' in line
    finally:
        daemon.stop()


# --- Modules


@pytest.mark.provokes(
    "ruma: orvex_flash_mib runs without ruma_agent: no copy completes; load ruma_agent by a dlmod "
    "line before that of orvex_flash_mib"
)
def test_missing_agent_module_is_told_once_at_the_first_use(idle_host):
    idle_host.modules = ("orvex_flash_mib",)
    idle_host.start()
    assert idle_host.value(SCALAR) == 1
    assert lines(idle_host, "runs without ruma_agent") == []
    for row in (1, 2):
        idle_host.create_copy(row, **COPY_ARGUMENTS)
        ask(idle_host)
    assert len(lines(idle_host, "runs without ruma_agent")) == 1


@pytest.mark.provokes(
    "ruma_agent: loaded after orvex_flash_mib: put its dlmod line before that of orvex_flash_mib"
)
def test_agent_module_that_is_loaded_last_says_so_once(idle_host):
    idle_host.modules = ("orvex_flash_mib", "ruma_agent")
    idle_host.start()
    idle_host.create_copy(1, **COPY_ARGUMENTS)
    idle_host.reload_agent()
    assert len(lines(idle_host, "loaded after orvex_flash_mib")) == 1
    assert lines(idle_host, "runs without ruma_agent") == []


def test_right_order_is_not_complained_of(host):
    host.reload_agent()
    host.create_copy(1, **COPY_ARGUMENTS)
    assert lines(host, "orvex_flash_mib") == []


# --- Directories


@pytest.mark.provokes("ruma_agent: …: user … cannot write it: …")
def test_directory_that_is_closed_to_the_agents_user_is_told_at_the_start(idle_host):
    idle_host.agent_user = "nobody"
    idle_host.directory.chmod(0o755)
    shutil.chown(idle_host.run_dir, "nobody")
    idle_host.start()
    line = said(idle_host, "ruma_agent: slot0: user")
    path = idle_host.flash("slot0")
    assert line.endswith(f"user 65534 (nobody) cannot write it: Permission denied: {path}")


def test_missing_directory_is_told_at_the_start(idle_host):
    idle_host.flash("slot0").rmdir()
    idle_host.start()
    path = idle_host.flash("slot0")
    cause = f"No such file or directory: {path}"
    assert said(idle_host, "cannot write").endswith(f"user 0 (root) cannot write it: {cause}")


def test_directory_that_is_a_file_is_told_at_the_start(idle_host):
    idle_host.flash("slot0").rmdir()
    idle_host.flash("slot0").touch()
    idle_host.start()
    cause = f"Not a directory: {idle_host.flash('slot0')}"
    assert said(idle_host, "cannot write").endswith(f"user 0 (root) cannot write it: {cause}")
