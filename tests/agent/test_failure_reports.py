"""The sentence that every failed copy and delete leaves in the agent's log and in the error log."""

import contextlib
import os
import re
import shutil
import signal
import socket
import sys
import threading

import ber
import pytest

from harness import (
    ACTIVE,
    ADDRESSES,
    CREATE_AND_GO,
    DEVICE_FULL,
    FROM_FLASH,
    FTP,
    INVALID_SOURCE,
    NOT_IN_SERVICE,
    SCP,
    SCP_FAILURE,
    SFTP,
    SUCCESS,
    TFTP,
    TRANSFER_ERROR,
    V3_DIRECTIVES,
    V3_USER,
    CopyColumn,
    MiscColumn,
    copy_columns,
    delete,
    live_children,
    small_file_system,
    wait_for,
)
from remotes import HeldCopy, HeldTftp, columns_for, start_server
from test_lost_workers import no_more_processes, reporting
from tftp_server import TftpServer

ROW = 7
COPY_FAILED, COPY_ABORTED, DELETE_FAILED = "0x4a030001", "0x4a030002", "0x4a030003"
GET = {"protocol": TFTP, "source": "image.bin", "destination": "bootflash:image.bin"}
PUT = {
    "protocol": TFTP,
    "command": FROM_FLASH,
    "source": "bootflash:image.bin",
    "destination": "sent.bin",
}


def sentences(host, code=COPY_FAILED):
    """The sentences of the error log, each of which is in the agent's log too."""
    lines = [fields[2:] for fields in host.outcomes() if fields[1] == code]
    assert all(len(fields) == 1 for fields in lines), lines
    found = [fields[0] for fields in lines]
    log = host.agent_log.read_text(errors="replace")
    assert all(f"ruma_agent: {sentence}\n" in log for sentence in found), (found, log)
    return found


def only_sentence(host, code=COPY_FAILED):
    [sentence] = wait_for(lambda: sentences(host, code), "a sentence is written")
    assert not list((host.run_dir / "transfer").glob("*"))
    return sentence


def get_sentence(host, status, cause, server=None):
    names = f'"image.bin" from {server or host.address} to "bootflash:image.bin" by TFTP'
    return f"copy {ROW} ({names}) failed: {status}: {cause}"


@pytest.fixture(name="image_host")
def fixture_image_host(host):
    """A running host with a file to send."""
    (host.flash() / "image.bin").write_bytes(b"content")
    return host


# --- TFTP


@pytest.mark.provokes("ruma_agent: copy … failed: …: …")
def test_what_a_tftp_server_says_is_told(host):
    host.enter(TftpServer(host.address))
    assert host.copy(ROW, **GET) == INVALID_SOURCE
    cause = 'the server says "as the test wants" (1)'
    assert only_sentence(host) == get_sentence(host, "invalidSourceName(5)", cause)


def test_what_a_tftp_server_says_in_the_middle_is_told(host):
    host.enter(TftpServer(host.address, {"image.bin": bytes(9000)}, error_at=(3, 2)))
    assert host.copy(ROW, **GET) == TRANSFER_ERROR
    cause = 'the server says "as the test wants" (2)'
    assert only_sentence(host) == get_sentence(host, "transferError(14)", cause)


def test_missing_tftp_server_is_told(host):
    assert host.copy(ROW, **GET) == TRANSFER_ERROR
    cause = "The server's port is closed"
    assert only_sentence(host) == get_sentence(host, "transferError(14)", cause)


def test_server_that_cannot_be_reached_is_told(host):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as refused:
        with pytest.raises(OSError) as error:  # which one depends on whether there is a network
            refused.connect(("255.255.255.255", 69))
    assert host.copy(ROW, server="255.255.255.255", **GET) == TRANSFER_ERROR
    cause = f"The server cannot be reached: {error.value.strerror}"
    expected = get_sentence(host, "transferError(14)", cause, "255.255.255.255")
    assert only_sentence(host) == expected


def test_silent_tftp_server_is_told(host):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind((host.address, 69))
        assert host.copy(ROW, timeout=40, **GET) == TRANSFER_ERROR
    cause = "The server did not answer in time"
    assert only_sentence(host) == get_sentence(host, "transferError(14)", cause)


def test_full_file_system_is_told_with_the_path(idle_host):
    with small_file_system(idle_host.flash(), 65536):
        try:
            idle_host.start()
            idle_host.enter(TftpServer(idle_host.address, {"image.bin": bytes(1 << 20)}))
            assert idle_host.copy(ROW, **GET) == DEVICE_FULL
            cause = f"No space left on device: {idle_host.flash()}/image.bin"
            expected = get_sentence(idle_host, "deviceFull(12)", cause)
            assert only_sentence(idle_host) == expected
        finally:
            idle_host.stop()


def test_directory_that_is_closed_to_the_agent_is_told_with_the_path(user_host):
    user_host.flash().chmod(0o555)
    user_host.start()
    user_host.enter(TftpServer(user_host.address, {"image.bin": b"content"}))
    assert user_host.copy(ROW, **GET) == TRANSFER_ERROR
    cause = f"Permission denied: {user_host.flash()}/image.bin"
    assert only_sentence(user_host) == get_sentence(user_host, "transferError(14)", cause)


@pytest.mark.parametrize("destination", ["sent.bin", None])
def test_working_directory_that_is_closed_to_the_agent_is_told(user_host, destination):
    shutil.chown(user_host.work_dir, "root")
    (user_host.flash() / "image.bin").write_bytes(b"content")
    user_host.start()
    user_host.enter(TftpServer(user_host.address))
    assert user_host.copy(ROW, **PUT | {"destination": destination}) == TRANSFER_ERROR
    directory = f"the file to send cannot be staged: Permission denied: {user_host.work_dir}"
    assert only_sentence(user_host).endswith(f" failed: transferError(14): {directory}")


def test_staging_where_a_directory_stands_is_told(image_host):
    (image_host.work_dir / "sent.bin").mkdir()
    assert image_host.copy(ROW, **PUT) == TRANSFER_ERROR
    path = image_host.work_dir / "sent.bin"
    cause = f'the file to send cannot be staged: "{path}" is no regular file'
    names = f'"bootflash:image.bin" to "sent.bin" at {image_host.address} by TFTP'
    expected = f"copy {ROW} ({names}) failed: transferError(14): {cause}"
    assert only_sentence(image_host) == expected


def test_source_that_is_gone_is_told_with_the_path(host):
    assert host.copy(ROW, **PUT) == TRANSFER_ERROR
    path = host.flash() / "image.bin"
    assert only_sentence(host).endswith(f": transferError(14): No such file or directory: {path}")


# --- Scripts


def run_script(host, spoken, status, columns):
    """One failing get by a script; returns the cause that is told."""
    names = {"source": "image.bin", "destination": "bootflash:image.bin"}
    assert host.copy(ROW, timeout=40, **names | columns) == status
    return re.fullmatch(
        rf"copy {ROW} \(.* by {spoken}\) failed: [A-Za-z]+\({status}\): (.*)", only_sentence(host)
    )[1]


@pytest.mark.parametrize(
    "protocol, cause",
    [
        ("ftp", r'no such remote file: the server says "550 Failed to open file\."'),
        ("scp", r'no such remote file or directory: the client says "scp: .*No such file.*"'),
        ("sftp", r'no such remote file: the client says "File \\x22.*image\.bin\\x22 not found\."'),
    ],
)
def test_missing_remote_file_is_told_in_the_servers_words(host, protocol, cause):
    server = host.enter(start_server(protocol))
    told = run_script(host, protocol.upper(), INVALID_SOURCE, columns_for(protocol, server))
    assert re.fullmatch(cause, told), told


@pytest.mark.parametrize(
    "protocol, status, cause",
    [
        ("ftp", TRANSFER_ERROR, r'the server refused the login: the server says "530 .*"'),
        (
            "scp",
            SCP_FAILURE,
            r'the server refused the login: the client says ".*Permission denied .*"',
        ),
        (
            "sftp",
            TRANSFER_ERROR,
            r'the server refused the login: the client says ".*Permission denied .*"',
        ),
    ],
)
def test_refused_login_is_told(host, protocol, status, cause):
    server = host.enter(start_server(protocol))
    columns = columns_for(protocol, server) | {"password": "not the word"}
    told = run_script(host, protocol.upper(), status, columns)
    assert re.fullmatch(cause, told), told
    assert "not the word" not in host.agent_log.read_text()


@pytest.mark.parametrize("protocol, number", [("ftp", FTP), ("scp", SCP), ("sftp", SFTP)])
def test_missing_script_server_is_told_in_the_clients_words(host, protocol, number):
    columns = {"protocol": number, "server": ADDRESSES.take(), "user": "u", "password": "p"}
    told = run_script(host, protocol.upper(), TRANSFER_ERROR, columns)
    assert re.search(r': the client says ".*Connection refused"$', told), told


def test_file_that_cannot_be_received_is_told_with_the_path(user_host):
    user_host.flash().chmod(0o555)
    user_host.start()
    columns = {"protocol": FTP, "server": ADDRESSES.take(), "user": "u", "password": "p"}
    told = run_script(user_host, "FTP", TRANSFER_ERROR, columns)
    path = user_host.flash()
    assert told == f"the destination's directory cannot be written: permission denied: {path}"


def test_script_that_is_missing_is_told(host):
    (host.scripts / "scp.expect").unlink()
    columns = {"protocol": SCP, "server": ADDRESSES.take(), "user": "u", "password": "p"}
    told = run_script(host, "SCP", TRANSFER_ERROR, columns)
    assert told == "No such file or directory: /ruma/bin/scp.expect"


def test_script_that_is_killed_is_told(host):
    (host.scripts / "scp.expect").write_text("#!/bin/sh\nkill -KILL $$\n", encoding="ascii")
    columns = {"protocol": SCP, "server": ADDRESSES.take(), "user": "u", "password": "p"}
    told = run_script(host, "SCP", TRANSFER_ERROR, columns)
    assert told == "its script has ended without a verdict"


class TellTale:
    """An FTP server that repeats the password in its refusal, in each way that it can."""

    def __init__(self):
        self.address = ADDRESSES.take()
        self._listener = socket.create_server((self.address, 21))
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def _serve(self):
        with contextlib.suppress(OSError):
            near = self._listener.accept()[0]
            with near, near.makefile("rwb") as lines:
                lines.write(b"220 ready\r\n")
                lines.flush()
                for line in lines:
                    verb, _, word = line.strip().partition(b" ")
                    if verb == b"PASS":
                        lines.write(b"530 No, " + word + word.upper() + b" is wrong\r\n")
                    else:
                        lines.write(b"331 and?\r\n" if verb == b"USER" else b"500 what?\r\n")
                    lines.flush()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join()


def test_password_that_a_server_repeats_is_not_told(host):
    server = host.enter(TellTale())
    columns = {"protocol": FTP, "server": server.address, "user": "u", "password": "tell[tale"}
    told = run_script(host, "FTP", TRANSFER_ERROR, columns)
    words = '"530 No\\x2c (password)(password) is wrong"'
    assert told == f"the server refused the login: the server says {words}"
    assert "tell" not in host.agent_log.read_text()


# --- Refusals


def activate(host, **columns):
    host.create_copy(ROW, **columns)
    return host.activate(ROW)


UNKNOWN_SCHEME = "This device has no file system of that name"
REFUSALS = [
    ({"command": 2}, "invalidCommand(3)", "the command copyToFlashWithoutErase(2) is not supported"),
    ({"server": "0.0.0.0"}, "invalidProtocol(4)", "the server address is not set"),
    ({"source": None}, "invalidProtocol(4)", "the source name is not set"),
    (
        {"destination": "bootfla:image.bin"},
        "invalidDestinationName(6)",
        f"the destination name: {UNKNOWN_SCHEME}",
    ),
    (
        {"destination": "bootflash:"},
        "invalidDestinationName(6)",
        "the destination name: It is that of a directory",
    ),
    (
        {"destination": "bootflash:../image.bin"},
        "invalidDestinationName(6)",
        'the destination name: The file name is not of the form "scheme:path" or holds ".." or a '
        "control character",
    ),
    (
        {"command": FROM_FLASH, "source": "bootfla:image.bin"},
        "invalidSourceName(5)",
        f"the source name: {UNKNOWN_SCHEME}",
    ),
    (
        {"command": FROM_FLASH, "source": "log:messages"},
        "invalidSourceName(5)",
        "the source name: The system log does not exist",
    ),
    (
        {"command": FROM_FLASH, "source": "core:core.1"},
        "invalidSourceName(5)",
        "the source name: This device is not configured to keep core files",
    ),
]


@pytest.mark.parametrize("columns, status, cause", REFUSALS)
def test_refusal_is_told_with_the_field_and_the_reason(host, columns, status, cause):
    host.system_log.unlink(missing_ok=True)
    names = {"protocol": TFTP, "source": "image.bin", "destination": "bootflash:image.bin"}
    assert activate(host, **names | columns) != ber.NO_ERROR
    assert only_sentence(host).endswith(f" failed: {status}: {cause}")


def test_missing_directory_is_told_with_the_path(host):
    assert activate(host, **GET | {"destination": "bootflash:no/image.bin"}) == ber.GEN_ERR
    path = host.flash() / "no" / "image.bin"
    cause = f"does not exist (No such file or directory: {path})"
    assert only_sentence(host).endswith(cause)


def test_name_that_leads_out_of_its_file_system_is_told(host):
    (host.flash() / "out").symlink_to("/etc")
    assert activate(host, **GET | {"destination": "bootflash:out/image.bin"}) == ber.GEN_ERR
    cause = "the destination name: The file name leads outside its file system through a link"
    assert f"invalidDestinationName(6): {cause}" in only_sentence(host)


def test_start_in_one_request_that_is_not_ready_is_told(host):
    columns = copy_columns(ROW, server=host.address, **GET | {"destination": "nowhere:image.bin"})
    pairs = [(f"{CopyColumn.ROW}.{ROW}", ber.integer(CREATE_AND_GO)), *columns]
    assert host.set(*pairs) == ber.NO_ERROR
    cause = f"failed: notStarted(17): the destination name: {UNKNOWN_SCHEME}"
    assert only_sentence(host).endswith(cause)


def test_second_copy_at_a_time_is_told(host):
    HeldCopy(host, "tftp", "get").start()
    host.create_copy(8, **GET)
    assert host.activate(8) == ber.GEN_ERR
    [sentence] = sentences(host)
    assert sentence.startswith("copy 8 (")
    assert sentence.endswith(" failed: notStarted(17): another copy is in progress")
    assert host.destroy(HeldCopy.ROW) == ber.NO_ERROR


def test_refusal_names_the_user(v3_host):
    v3_host.create_copy(ROW, **GET | {"destination": "nowhere:image.bin"})
    with contextlib.suppress(Exception):
        v3_host.snmpset(f"{CopyColumn.ROW}.{ROW}", "i", 1, version="3")
    assert only_sentence(v3_host).startswith(f'copy {ROW} of user "{V3_USER}" ("image.bin" from ')


def test_failure_names_the_user_who_started_the_copy(idle_host):
    idle_host.agent_directives = V3_DIRECTIVES
    idle_host.start()
    idle_host.create_copy(ROW, **GET)
    idle_host.snmpset(f"{CopyColumn.ROW}.{ROW}", "i", 1, version="3")
    assert idle_host.finish_copy(ROW) == TRANSFER_ERROR
    assert only_sentence(idle_host).startswith(f'copy {ROW} of user "{V3_USER}" ("image.bin" from ')


def test_foreign_text_is_escaped(host):
    name = 'a "b", \\c\n\x7f\xe9'
    assert activate(host, **GET | {"source": name, "destination": "nowhere:x"}) == ber.GEN_ERR
    escaped = r'("a \x22b\x22\x2c \\c\n\x7f\xc3\xa9" from '
    assert escaped in only_sentence(host)


# --- Workers


@pytest.fixture(name="reporting_host")
def fixture_reporting_host(idle_host):
    reporting(idle_host)
    idle_host.start()
    return idle_host


def test_killed_worker_is_told_with_the_signal(reporting_host):
    copy = HeldCopy(reporting_host, "tftp", "get")
    copy.start()
    [worker] = live_children(reporting_host.agent.pid)
    os.kill(worker, signal.SIGKILL)
    assert reporting_host.finish_copy(ROW) == TRANSFER_ERROR
    cause = "its worker has ended without a report: killed by signal 9 (Killed)"
    assert only_sentence(reporting_host).endswith(f"failed: transferError(14): {cause}")


def test_killed_worker_is_told_without_reports_too(host):
    copy = HeldCopy(host, "tftp", "get")
    copy.start()
    [worker] = live_children(host.agent.pid)
    os.kill(worker, signal.SIGSEGV)
    cause = "its worker has ended without a report: killed by signal 11 (Segmentation fault)"
    assert only_sentence(host).endswith(f"failed: inProgress(1): {cause}")


def test_failed_fork_is_told_with_its_reason(user_host):
    reporting(user_host)
    user_host.start()
    with no_more_processes(user_host):
        user_host.start_copy(ROW, **GET)
        assert user_host.finish_copy(ROW) == TRANSFER_ERROR
    cause = "its worker could not be forked: Resource temporarily unavailable"
    assert only_sentence(user_host).endswith(f"failed: transferError(14): {cause}")


@pytest.mark.provokes("ruma_agent: copy … was aborted by …")
def test_abort_is_told_with_the_user(idle_host):
    idle_host.agent_directives = V3_DIRECTIVES
    idle_host.start()
    HeldCopy(idle_host, "tftp", "get").start()
    idle_host.snmpset(f"{CopyColumn.ROW}.{ROW}", "i", 6, version="3")
    sentence = only_sentence(idle_host, COPY_ABORTED)
    assert sentence.startswith(f'copy {ROW} ("large" from ')
    assert sentence.endswith(f' by TFTP) was aborted by user "{V3_USER}"')
    assert sentences(idle_host) == []


def test_abort_that_leaves_the_row_is_told_once(reporting_host):
    HeldCopy(reporting_host, "tftp", "get").start()
    pair = (f"{CopyColumn.ROW}.{ROW}", ber.integer(NOT_IN_SERVICE))
    assert reporting_host.set(pair) == ber.NO_ERROR
    assert reporting_host.finish_copy(ROW) == TRANSFER_ERROR
    assert only_sentence(reporting_host, COPY_ABORTED).endswith(" was aborted by a station")
    assert sentences(reporting_host) == []


def start_beside(host, row):
    """Starts a copy beside one that runs, as only createAndGo does, up to its middle."""
    server = HeldTftp(host.enter(contextlib.ExitStack()), bytes(256 * 1024))
    names = {"source": "large", "destination": f"bootflash:{row}"}
    pairs = [(f"{CopyColumn.ROW}.{row}", ber.integer(CREATE_AND_GO))]
    pairs += copy_columns(row, **names, **server.columns)
    assert host.set(*pairs) == ber.NO_ERROR
    wait_for(server.stands, "the copy beside reaches its middle")


def test_abort_is_told_of_the_copy_that_it_ends(reporting_host):
    """Which is the one that was started last, whichever row is taken away."""
    first = HeldCopy(reporting_host, "tftp", "get")
    first.start()
    start_beside(reporting_host, 8)
    assert reporting_host.destroy(ROW) == ber.NO_ERROR
    assert reporting_host.finish_copy(8) == TRANSFER_ERROR
    [sentence] = wait_for(lambda: sentences(reporting_host, COPY_ABORTED), "the abort is told")
    assert sentence.startswith("copy 8 (")
    assert sentence.endswith(" was aborted by a station")
    assert sentences(reporting_host) == []
    first.server.release()
    wait_for(lambda: not live_children(reporting_host.agent.pid), "the first copy ends")
    assert len(sentences(reporting_host, COPY_ABORTED)) == 1
    assert sentences(reporting_host) == []


def test_row_taken_away_when_the_last_copy_has_ended_is_told_as_no_abort(reporting_host):
    """Nobody is ended then."""
    first = HeldCopy(reporting_host, "tftp", "get")
    first.start()
    reporting_host.enter(TftpServer(reporting_host.address, {"image.bin": b"content"}))
    columns = copy_columns(8, server=reporting_host.address, **GET)
    pair = (f"{CopyColumn.ROW}.8", ber.integer(CREATE_AND_GO))
    assert reporting_host.set(pair, *columns) == ber.NO_ERROR
    assert reporting_host.finish_copy(8) == SUCCESS
    assert reporting_host.destroy(ROW) == ber.NO_ERROR
    first.server.stop()
    wait_for(lambda: not live_children(reporting_host.agent.pid), "the first copy ends", timeout=60)
    assert sentences(reporting_host, COPY_ABORTED) == []


def test_copy_that_succeeds_leaves_no_line_and_no_page(host):
    host.enter(TftpServer(host.address, {"image.bin": b"content"}))
    assert host.copy(ROW, **GET) == SUCCESS
    assert host.error_log() == host.outcomes() == []
    assert not list((host.run_dir / "transfer").iterdir())


def test_page_is_for_the_agents_user_alone(host):
    HeldCopy(host, "tftp", "get").start()
    directory = host.run_dir / "transfer"
    [worker] = live_children(host.agent.pid)
    [page] = directory.iterdir()
    assert page.name == str(worker)
    assert page.stat().st_mode & 0o777 == 0o600
    assert directory.stat().st_mode & 0o777 == 0o700
    assert host.destroy(ROW) == ber.NO_ERROR


def test_pages_of_processes_that_are_no_more_are_removed_at_the_start(idle_host):
    directory = idle_host.run_dir / "transfer"
    directory.mkdir(0o700)
    (directory / "4194304").write_bytes(b"")  # above any process id
    (directory / str(os.getpid())).write_bytes(b"")
    idle_host.start()
    wait_for(lambda: not (directory / "4194304").exists(), "the page is removed")
    assert (directory / str(os.getpid())).exists()


@pytest.mark.parametrize("kind", ["link", "fifo", "short"])
def test_page_that_is_not_to_be_trusted_is_not_read(host, kind):
    secret = host.directory / "secret"
    head = b"RUMAXFR\x01" + (400).to_bytes(4, sys.byteorder) + (4).to_bytes(4, sys.byteorder)
    secret.write_bytes(head + bytes(8) + b"s" * 376)
    make = {
        "link": f"ln -s {secret} $page",
        "fifo": "mkfifo $page",
        "short": f"head -c 399 {secret} > $page",
    }[kind]
    script = f"#!/bin/sh\npage=$RUMA_TRANSFER_REPORT\nrm $page\n{make}\nexit 5\n"
    (host.scripts / "scp.expect").write_text(script, encoding="ascii")
    columns = {"protocol": SCP, "server": ADDRESSES.take(), "user": "u", "password": "p"}
    told = run_script(host, "SCP", TRANSFER_ERROR, columns)
    assert told == "its script has ended without a verdict"


# --- Deletes


@pytest.mark.provokes("ruma_agent: delete … failed: …: …")
def test_failed_delete_is_told_with_the_path(host):
    assert delete(host, 3, b"bootflash:image.bin") == (ber.NO_ERROR, 10)
    path = host.flash() / "image.bin"
    cause = f"failed(10): No such file or directory: {path}"
    expected = f'delete 3 ("bootflash:image.bin") failed: {cause}'
    assert only_sentence(host, DELETE_FAILED) == expected


@pytest.mark.parametrize(
    "name, cause",
    [
        ("bootflash:", "failed(10): Is a directory: {0}"),
        ("nowhere:image.bin", f"notStarted(14): the name: {UNKNOWN_SCHEME}"),
    ],
)
def test_cause_of_a_failed_delete(host, name, cause):
    delete(host, 3, name.encode())
    sentence = only_sentence(host, DELETE_FAILED)
    assert sentence == f'delete 3 ("{name}") failed: {cause.format(host.flash())}'


def test_delete_in_a_directory_that_is_closed_to_the_agent_is_told(user_host):
    (user_host.flash() / "image.bin").write_bytes(b"content")
    user_host.flash().chmod(0o555)
    user_host.start()
    assert delete(user_host, 3, b"bootflash:image.bin") == (ber.NO_ERROR, 10)
    cause = f"failed(10): Permission denied: {user_host.flash()}"
    assert only_sentence(user_host, DELETE_FAILED).endswith(cause)


def test_delete_that_does_not_resolve_is_told_although_the_status_is_that_of_an_earlier_one(host):
    (host.flash() / "sub").mkdir()
    (host.flash() / "sub" / "image.bin").write_bytes(b"content")
    assert delete(host, 3, b"bootflash:sub/image.bin") == (ber.NO_ERROR, SUCCESS)
    assert sentences(host, DELETE_FAILED) == []
    (host.flash() / "sub").rmdir()
    assert host.set((f"{MiscColumn.ROW}.3", ber.integer(ACTIVE))) == ber.NO_ERROR
    assert "failed: success(2): the name: The directory" in only_sentence(host, DELETE_FAILED)


def test_sentence_for_a_refusal_is_written_once_after_a_reload(host):
    host.reload_agent()
    assert activate(host, **GET | {"destination": "nowhere:x"}) == ber.GEN_ERR
    assert only_sentence(host)
