"""Reloads, restarts and forged messages: what the life of an agent does to its rows and copies."""

import os
import random
import shlex
import shutil
import signal
import socket
import struct
import subprocess

import ber
import pytest

from harness import (
    COPY,
    IN_PROGRESS,
    ROOT,
    SCALAR,
    SUCCESS,
    SYS_UP_TIME,
    TRAP_PORT,
    TRUE,
    CopyColumn,
    MiscColumn,
    TrapReceiver,
    live_children,
    process_state,
    wait_for,
)
from tftp_server import TftpServer

CONTENT = random.Random(2).randbytes(300_000)
COPY_ARGUMENTS = dict(source="image.bin", destination="bootflash:image.bin")
TRANSFER_ERROR = 14

PMB_MAGIC, PMB_VERSION, STATUS_OPCODE = 0x504D4231, 1, 7786
# Sends a status message that names itself as the worker.
SEND_STATUS = """
import os, socket, struct, sys
path, status, row = sys.argv[1], *map(int, sys.argv[2:])
payload = struct.pack("=iii", status, row, os.getpid())
packet = struct.pack("=IIII", {magic}, {version}, {opcode}, len(payload)) + payload
with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
    sender.sendto(packet, path)
""".format(
    magic=PMB_MAGIC, version=PMB_VERSION, opcode=STATUS_OPCODE
)
# A child of the agent that sends, too, when the agent asks it for a value.
SENDING_CHILD = "#!/bin/sh\nread ping; echo PONG\nread get; echo NONE\nexec {command}\n"
ASKING_THE_CHILD = ".1.3.6.1.4.1.32473.99"


def send_command(host, status, row):
    command = ["/usr/bin/python3", "-c", SEND_STATUS, host.message_socket]
    return [str(word) for word in (*command, status, row)]


def send_status(host, status, row, user=None):
    """From a process that is no child of the agent."""
    subprocess.run(send_command(host, status, row), check=True, user=user, cwd="/")


def send_status_as_child(host, status, row):
    command = shlex.join(send_command(host, status, row))
    script = host.directory / "child"
    script.write_text(SENDING_CHILD.format(command=command), encoding="ascii")
    script.chmod(0o755)
    assert host.value(ASKING_THE_CHILD + ".0") is None


@pytest.fixture(name="parent_host")
def fixture_parent_host(idle_host):
    """A running host that notifies, and whose agent starts another child when it is asked to."""
    idle_host.agent_directives = [
        f"pass_persist {ASKING_THE_CHILD} {idle_host.directory}/child",
        f"trap2sink {idle_host.address}:{TRAP_PORT} test",
    ]
    idle_host.start()
    return idle_host


def start_held_copy(host, row=7, **columns):
    """A copy that stays in mid-transfer; its server."""
    server = host.enter(TftpServer(host.address, {"image.bin": CONTENT}, hold_at=10))
    host.start_copy(row, **COPY_ARGUMENTS, **columns)
    wait_for(server.held.is_set, "the transfer reaches its middle")
    return server


# --- Reloads


def test_rows_survive_a_reload(host):
    host.create_copy(7, **COPY_ARGUMENTS)
    host.set((f"{MiscColumn.ROW}.9", ber.integer(5)))
    before = host.walk(f"{ROOT}.1.2")
    assert len(before) == 11 + 6
    host.reload_agent()
    assert host.walk(f"{ROOT}.1.2") == before


def test_reload_registers_every_object_again(host):
    before = [name for name, _ in host.walk(ROOT)]
    host.reload_agent()
    assert [name for name, _ in host.walk(ROOT)] == before


def test_copy_after_20_reloads_is_recorded_once(host):
    for _ in range(20):
        host.reload_agent()
    host.start_atftpd()
    (host.server_dir / "image.bin").write_bytes(CONTENT)
    assert host.copy(7, **COPY_ARGUMENTS) == SUCCESS
    assert len(host.completions()) == 1


def test_reloads_leave_no_descriptor_open(host):
    before = host.descriptors()
    for _ in range(20):
        host.reload_agent()
    assert len(host.descriptors()) == len(before)


def test_copy_goes_on_over_a_reload_and_is_recorded_once(host):
    server = start_held_copy(host)
    host.reload_agent()
    assert host.copy_status(7) == IN_PROGRESS
    server.release()
    assert host.finish_copy(7) == SUCCESS
    assert (host.flash() / "image.bin").read_bytes() == CONTENT
    assert len(host.completions()) == 1
    assert len(server.requests) == 1


def test_copy_over_reloads_is_notified_once(idle_host):
    station = idle_host.enter(TrapReceiver(idle_host.address))
    idle_host.agent_directives = [f"trap2sink {idle_host.address}:{TRAP_PORT} test"]
    idle_host.start()
    server = start_held_copy(idle_host, notify=TRUE)
    for _ in range(3):
        idle_host.reload_agent()
    server.release()
    assert idle_host.finish_copy(7) == SUCCESS

    def completions():
        seen = []
        while (variables := station.receive(timeout=0.3)) is not None:
            seen += [value for value in variables if f".{value.name}" == CopyColumn.STATUS]
        return [value.value for value in seen]

    assert completions() == [SUCCESS]


def test_abort_works_after_a_reload(host):
    start_held_copy(host)
    host.reload_agent()
    assert host.destroy(7) == ber.NO_ERROR
    wait_for(lambda: not host.strays(), "no process of the transfer is left", timeout=2)


# --- Unloading


def test_unloaded_module_leaves_no_object(host):
    host.create_copy(7, **COPY_ARGUMENTS)
    names = [name for name, _ in host.walk(ROOT)]
    assert len(names) > 60
    host.write_agent_configuration(modules=False)
    host.reload_agent()
    for name in names:
        assert host.variables(name)[0].tag == ber.NO_SUCH_OBJECT, name
    [variable] = host.sender.get_next(ROOT).variables
    assert not f".{variable.name}".startswith(ROOT)


def test_module_that_is_loaded_again_has_its_rows(host):
    host.create_copy(7, **COPY_ARGUMENTS)
    before = host.walk(COPY)
    host.write_agent_configuration(modules=False)
    host.reload_agent()
    assert host.variables(SCALAR)[0].tag == ber.NO_SUCH_OBJECT
    host.write_agent_configuration()
    host.reload_agent()
    assert host.walk(COPY) == before


def test_copy_that_finishes_while_the_module_is_unloaded_does_not_harm_the_agent(host):
    server = start_held_copy(host)
    host.write_agent_configuration(modules=False)
    host.reload_agent()
    server.release()
    wait_for(lambda: not live_children(host.agent.pid), "the worker ends")
    assert host.value(SYS_UP_TIME) is not None
    host.write_agent_configuration()
    host.reload_agent()
    assert host.copy_status(7) == SUCCESS


# --- Restarts


def test_agent_killed_in_mid_copy_leaves_its_port_to_the_next_one(host):
    server = start_held_copy(host)
    [worker] = live_children(host.agent.pid)
    host.agent.kill()
    host.start_agent()
    assert process_state(worker) is not None, "the worker outlives the agent"
    assert host.copy_status(7) is None
    server.release()
    wait_for(lambda: not host.strays(), "the worker ends")
    assert (host.flash() / "image.bin").read_bytes() == CONTENT
    assert host.value(SCALAR) == 1


def test_agent_stopped_in_mid_copy_leaves_its_port_to_the_next_one(host):
    server = start_held_copy(host)
    host.agent.stop()
    host.start_agent()
    server.release()
    wait_for(lambda: not host.strays(), "the worker ends")


def test_new_agent_copies_after_its_predecessor_was_killed(host):
    host.agent.kill()
    host.start_agent()
    host.start_atftpd()
    (host.server_dir / "image.bin").write_bytes(CONTENT)
    assert host.copy(7, **COPY_ARGUMENTS) == SUCCESS
    assert len(host.completions()) == 1


def test_stop_leaves_no_process(host):
    host.stop()
    assert not host.strays()
    assert not host.daemon_socket.exists()
    host.start()


# --- Status messages


def test_status_message_of_a_child_that_is_no_worker_is_dropped_and_counted(parent_host):
    server = start_held_copy(parent_host)
    send_status_as_child(parent_host, TRANSFER_ERROR, 7)
    wait_for(lambda: "1 not of a worker" in parent_host.logs(), "the agent logs the drop")
    assert parent_host.copy_status(7) == IN_PROGRESS
    assert not parent_host.completions()
    server.release()
    assert parent_host.finish_copy(7) == SUCCESS


def test_status_message_of_another_process_of_the_agents_user_is_dropped_and_counted(host):
    server = start_held_copy(host)
    send_status(host, TRANSFER_ERROR, 7)
    wait_for(lambda: "1 not of a worker" in host.logs(), "the agent logs the drop")
    assert host.copy_status(7) == IN_PROGRESS
    assert not host.completions()
    server.release()
    assert host.finish_copy(7) == SUCCESS
    assert len(host.completions()) == 1


def test_status_message_of_another_user_is_dropped_and_counted(host):
    server = start_held_copy(host)
    host.directory.chmod(0o755)
    send_status(host, TRANSFER_ERROR, 7, user="nobody")
    wait_for(lambda: "1 of other users" in host.logs(), "the agent logs the drop")
    assert host.copy_status(7) == IN_PROGRESS
    assert not host.completions()
    server.release()
    assert host.finish_copy(7) == SUCCESS
    assert len(host.completions()) == 1


# Stands before the C library's sendmsg in the worker: repeats its status message, or has it stop
# between message and end.
SENDMSG = """
#define _GNU_SOURCE
#include <dlfcn.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
ssize_t sendmsg(int s, const struct msghdr *message, int flags) {
    ssize_t (*real)(int, const struct msghdr *, int) = dlsym(RTLD_NEXT, "sendmsg");
    const struct sockaddr_un *to = message->msg_name;
    const ssize_t sent = real(s, message, flags);
    if (to != NULL && to->sun_family == AF_UNIX && strstr(to->sun_path, "/pmb-") != NULL) {
        if (getenv("SEND_TWICE") != NULL)
            real(s, message, flags);
        if (getenv("STOP_AFTERWARDS") != NULL)
            raise(SIGSTOP);
    }
    return sent;
}
"""


def preload_sendmsg(host, word):
    source, library = host.directory / "sendmsg.c", host.directory / "sendmsg.so"
    source.write_text(SENDMSG, encoding="ascii")
    subprocess.run(["gcc", "-shared", "-fPIC", "-o", library, source], check=True)
    host.agent_environment = {"LD_PRELOAD": str(library), word: "1"}


def test_doubled_status_message_is_recorded_and_notified_once(idle_host):
    preload_sendmsg(idle_host, "SEND_TWICE")
    idle_host.agent_directives = [f"trap2sink {idle_host.address}:{TRAP_PORT} test"]
    idle_host.start()
    station = idle_host.enter(TrapReceiver(idle_host.address))
    idle_host.enter(TftpServer(idle_host.address, {"image.bin": CONTENT}))
    assert idle_host.copy(7, notify=TRUE, **COPY_ARGUMENTS) == SUCCESS
    assert station.receive()[-1].value == SUCCESS
    wait_for(lambda: "1 not of a worker" in idle_host.logs(), "the agent drops the second one")
    assert len(idle_host.completions()) == 1
    assert station.receive(timeout=0.3) is None
    wait_for(lambda: not idle_host.strays(), "the worker ends")


def test_worker_that_is_stopped_after_its_message_does_not_hold_the_agent_up(idle_host):
    preload_sendmsg(idle_host, "STOP_AFTERWARDS")
    idle_host.start()
    idle_host.enter(TftpServer(idle_host.address, {"image.bin": CONTENT}))
    idle_host.start_copy(7, **COPY_ARGUMENTS)
    [worker] = live_children(idle_host.agent.pid)
    wait_for(lambda: process_state(worker)[0] == "T", "the worker stands still")
    assert idle_host.value(SYS_UP_TIME) is not None
    assert idle_host.copy_status(7) == IN_PROGRESS
    os.kill(worker, signal.SIGCONT)
    assert idle_host.finish_copy(7) == SUCCESS
    assert process_state(worker) is None


def take_away(host, taken):
    """In mid-copy; the agent makes its socket again, and the copy is recorded."""
    server = start_held_copy(host)
    taken.rename(host.directory / "away")
    wait_for(host.message_socket.exists, "the agent makes its socket again")
    assert "the message socket has gone and is made again" in host.agent_log.read_text()
    server.release()
    assert host.finish_copy(7) == SUCCESS


@pytest.mark.provokes("ruma_agent: the message socket has gone and is made again")
def test_copy_is_recorded_after_the_message_socket_was_taken_away(host):
    take_away(host, host.message_socket)


def test_copy_is_recorded_after_the_run_directory_was_taken_away(idle_host):
    idle_host.agent_settings["confine"] = "false"
    idle_host.start()
    take_away(idle_host, idle_host.run_dir)


def test_confined_agent_makes_no_run_directory_and_says_so(host):
    """It may write in the one that it started with."""
    host.run_dir.rename(host.directory / "away")
    line = f"cannot receive messages yet: {host.run_dir}: Permission denied"
    wait_for(lambda: line in host.agent_log.read_text(), "the agent says so")
    assert not host.run_dir.exists()


@pytest.mark.parametrize(
    "packet",
    [
        b"",
        b"x",
        b"\0" * 16,
        struct.pack("=IIII", PMB_MAGIC, PMB_VERSION, STATUS_OPCODE, 12),
        struct.pack("=IIII", PMB_MAGIC, PMB_VERSION, STATUS_OPCODE, 0),
        struct.pack("=IIIIii", PMB_MAGIC, PMB_VERSION, STATUS_OPCODE, 8, 2, 7),
        struct.pack("=IIIIiii", PMB_MAGIC, PMB_VERSION, STATUS_OPCODE + 1, 12, 2, 7, 1),
        struct.pack("=IIIIiii", PMB_MAGIC, PMB_VERSION, STATUS_OPCODE, 12, 2, 7, 1),
        struct.pack("=IIIIiii", PMB_MAGIC, PMB_VERSION, STATUS_OPCODE, 12, 2, 7, -1),
        struct.pack("=IIII", PMB_MAGIC, PMB_VERSION, STATUS_OPCODE, 12) + b"\0" * 8000,
    ],
    ids=[
        "empty",
        "one byte",
        "zeros",
        "no payload",
        "length 0",
        "short",
        "other opcode",
        "process 1",
        "process -1",
        "long",
    ],
)
@pytest.mark.provokes(
    "ruma_agent: messages dropped so far: … of other users, … malformed, … too long, "
    "… not a copy status, … not of a worker, … without a module"
)
def test_malformed_status_message_is_dropped_and_counted(host, packet):
    server = start_held_copy(host)
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
        sender.sendto(packet, str(host.message_socket))
    wait_for(lambda: "messages dropped so far" in host.logs(), "the agent logs the drop")
    assert host.copy_status(7) == IN_PROGRESS
    server.release()
    assert host.finish_copy(7) == SUCCESS


# --- Another user


def test_agent_of_another_user_copies_too(idle_host):
    host = idle_host
    host.agent_user = "nobody"
    host.directory.chmod(0o755)
    for directory in (host.run_dir, host.state_dir, host.work_dir, host.flash()):
        shutil.chown(directory, "nobody")
    host.start()
    assert os.stat(f"/proc/{host.agent.pid}").st_uid != 0
    assert host.value(f"{ROOT}.1.1.2.1.7.1") == b"bootflash"
    host.reload_agent()
    assert host.value(f"{ROOT}.1.1.2.1.7.1") == b"bootflash"
    host.start_atftpd()
    (host.server_dir / "image.bin").write_bytes(CONTENT)
    assert host.copy(7, **COPY_ARGUMENTS) == SUCCESS
    copied = host.flash() / "image.bin"
    assert copied.read_bytes() == CONTENT
    assert copied.stat().st_uid == os.stat(host.work_dir).st_uid
    assert len(host.completions()) == 1


def test_agent_that_may_not_write_the_flash_reports_a_transfer_error(idle_host):
    host = idle_host
    host.agent_user = "nobody"
    host.directory.chmod(0o755)
    for directory in (host.run_dir, host.work_dir):
        shutil.chown(directory, "nobody")
    host.start()
    host.start_atftpd()
    (host.server_dir / "image.bin").write_bytes(CONTENT)
    assert host.copy(7, **COPY_ARGUMENTS) == TRANSFER_ERROR
    assert not (host.flash() / "image.bin").exists()
