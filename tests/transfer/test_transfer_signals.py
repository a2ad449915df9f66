"""A script that is told to end, ends its client too; a client that a signal ends has failed."""

import os
import pathlib
import re
import resource
import signal

import pytest
from servers import Forwarder, FtpServer, wait_until
from transfers import DONE, FAILED, PROGRAMS, alive, descendant, family


def end_by(number, client, standstill):
    process = standstill.start()
    members = family(process.pid)
    process.send_signal(number)
    process.communicate(timeout=10)
    assert process.returncode == FAILED
    wait_until(lambda: not any(alive(each) for each in members), what="no process left")
    assert client.temporaries() == []


def test_sigterm_ends_all_processes(client, standstill):
    end_by(signal.SIGTERM, client, standstill)


@pytest.mark.parametrize("standstill", ["put"], indirect=True)
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGHUP, signal.SIGQUIT, signal.SIGALRM])
def test_other_signals_that_ask_for_the_end_do_as_sigterm_does(client, standstill, number):
    end_by(number, client, standstill)


@pytest.mark.parametrize("standstill", ["get"], indirect=True)
def test_a_signal_to_the_group_ends_all_processes(client, standstill):
    process = standstill.start(start_new_session=True)
    members = family(process.pid)
    os.killpg(process.pid, signal.SIGTERM)
    process.communicate(timeout=10)
    wait_until(lambda: not any(alive(each) for each in members), what="no process left")
    assert client.temporaries() == []


@pytest.mark.parametrize("standstill", ["get"], indirect=True)
def test_a_script_that_is_killed_leaves_no_process_and_no_file(client, standstill):
    process = standstill.start()
    members = family(process.pid)
    process.kill()
    process.communicate(timeout=10)
    wait_until(lambda: not any(alive(each) for each in members), what="no process left")
    assert client.temporaries() == []


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGSEGV])
def test_a_script_whose_interpreter_is_killed_has_failed(client, standstill, number):
    process = standstill.start()
    os.kill(descendant(process.pid, "expect"), number)
    assert process.wait(timeout=10) == FAILED


@pytest.mark.parametrize("standstill", ["get"], indirect=True)
def test_the_next_get_removes_what_a_killed_script_was_receiving(client, standstill):
    process = standstill.start()
    os.kill(descendant(process.pid, "expect"), signal.SIGKILL)
    process.communicate(timeout=10)
    [left] = client.temporaries()
    # Nothing else is removed, whatever it is called.
    others = [left.with_name(".transfer-notes"), left.with_name(f"{left.name}-copy")]
    for other in others:
        other.write_bytes(b"kept")
    standstill.server.store("file", b"content")
    destination = client.files / "file"
    assert client.get(standstill.protocol, standstill.server, "file", destination) == DONE
    assert destination.read_bytes() == b"content"
    assert sorted(client.temporaries()) == sorted(others)


@pytest.mark.parametrize("standstill", ["get"], indirect=True)
def test_a_get_leaves_alone_what_another_script_is_receiving(client, standstill):
    process = standstill.start()
    others = client.temporaries()
    standstill.server.store("file", b"content")
    assert client.get(standstill.protocol, standstill.server, "file", client.files / "file") == DONE
    assert client.temporaries() == others
    process.terminate()
    process.communicate(timeout=10)


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGSEGV, signal.SIGTERM])
@pytest.mark.parametrize(
    "protocol, program", [(key, each) for key, programs in PROGRAMS.items() for each in programs]
)
def test_a_transfer_whose_client_or_timer_a_signal_ends_has_failed(
        client, standstill, program, number):
    local = client.files / "large"
    if standstill.verb == "get":
        local.write_bytes(b"old")
    content = local.read_bytes()
    process = standstill.start()
    members = family(process.pid)
    os.kill(descendant(process.pid, program), number)
    assert client.finish(process) == FAILED
    assert local.read_bytes() == content
    assert list(client.files.iterdir()) == [local]
    wait_until(lambda: not any(alive(each) for each in members), what="no process left")


@pytest.mark.parametrize("verb", ["get", "put"])
def test_a_client_that_a_signal_ends_after_all_is_transferred_has_failed(client, verb):
    local = client.files / "file"
    local.write_bytes(b"old")
    data = 20000
    with (
        FtpServer(pasv_min_port=data, pasv_max_port=data) as server,
        Forwarder(server, mark=b"QUIT", more_ports=[data]) as forwarder,
    ):
        server.store("file", b"content" if verb == "get" else b"")
        names = ["file", local] if verb == "get" else [local, "file"]
        process = client.start(
            client.arguments("ftp", server, verb, *names, address=forwarder.address)
        )
        assert forwarder.stalled.wait(timeout=20)
        os.kill(descendant(process.pid, "tnftp"), signal.SIGKILL)
        assert client.finish(process) == FAILED
        assert b"signal" in client.errors
    assert local.read_bytes() == b"old"
    assert list(client.files.iterdir()) == [local]


@pytest.mark.parametrize("standstill", ["get"], indirect=True)
def test_a_client_that_crashes_leaves_no_core_file(standstill):
    process = standstill.start(preexec_fn=lambda: resource.setrlimit(
        resource.RLIMIT_CORE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY)))
    for program in PROGRAMS[standstill.protocol]:
        limits = pathlib.Path(f"/proc/{descendant(process.pid, program)}/limits").read_text()
        assert re.search(r"Max core file size +0 +0 ", limits)
    process.terminate()
    process.communicate()
