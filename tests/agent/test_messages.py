"""Messages of the agent and of the platform's programs about what keeps them from their work."""

import os
import socket
import subprocess

import pytest

from harness import PROGRAMS, wait_for
from messages import provoked


def run(program, host, *arguments, **options):
    """Runs a program of the platform, which fails; returns what it says."""
    settings = {"stderr": subprocess.PIPE, "text": True, "timeout": 30, "check": False}
    environment = host.environment | options.pop("environment", {})
    settings |= options
    ended = subprocess.run([PROGRAMS / program, *arguments], env=environment, **settings)
    assert ended.returncode != 0
    return ended.stderr


def test_module_that_cannot_be_loaded_is_in_the_agents_log(idle_host):
    idle_host.agent_directives = ["dlmod orvex_flash_mib /absent/orvex_flash_mib.so"]
    with pytest.raises(AssertionError, match="dlopen"):
        idle_host.start()
    provoked(idle_host.said(), "dlopen(…) failed: …")


def test_missing_event_history_is_on_the_agents_standard_error(idle_host):
    (idle_host.run_dir / "event-history").symlink_to("elsewhere")
    idle_host.start()
    provoked(idle_host.said(), "ruma: no event history: …")


def test_unusable_configuration_is_on_the_agents_standard_error(idle_host):
    idle_host.agent_environment = {"RUMA_CONFIG": str(idle_host.directory / "broken.toml")}
    (idle_host.directory / "broken.toml").write_text("[agent]\nusers = 1\n")
    idle_host.start()
    provoked(idle_host.said(), '…: unknown key "…"')


def test_run_directory_of_a_long_name_is_refused_by_the_daemon(idle_host):
    idle_host.start_daemon()
    longest = idle_host.directory / ("d" * 100)
    said = run("fs_daemon", idle_host, "--run-dir", longest)
    provoked(said, "fs_daemon: …: too long for a socket")


def test_daemon_out_of_descriptors_says_so(idle_host):
    idle_host.start_daemon()
    open_now = len(os.listdir(f"/proc/{idle_host.daemon.pid}/fd"))
    limit = f"--nofile={open_now + 1}:"
    subprocess.run(["prlimit", f"--pid={idle_host.daemon.pid}", limit], check=True)
    address = str(idle_host.run_dir / "fsd" / "fs_daemon.sock")
    clients = [socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) for _ in range(3)]
    for client in clients:
        client.connect(address)
    wait_for(lambda: "accept" in idle_host.said(), "the daemon says it")
    for client in clients:
        client.close()
    provoked(idle_host.said(), "fs_daemon: accept: …")


def test_viewer_without_a_history_says_so(idle_host):
    provoked(run("ruma-trace", idle_host), "ruma-trace: …: No such file or directory")


def test_viewer_that_cannot_write_says_so(host):
    with open("/dev/full", "wb") as full:
        said = run("ruma-trace", host, stdout=full)
    provoked(said, "ruma-trace: standard output: …")
