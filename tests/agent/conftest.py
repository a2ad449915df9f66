"""Hosts for the tests, and what must hold of a host after each of them."""

import shutil

import ber
import pytest

import harness
from harness import DEVICE, SCALAR, SYS_UP_TIME, TFTP, V3_DIRECTIVES, Host, live_children, wait_for
from remotes import PROTOCOLS, HeldCopy, Remote, remote_of, start_server

HOSTS = ("host", "idle_host", "shared_host")


def pytest_report_header():
    return f"build: {harness.BUILD}"


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    funcargs = getattr(item, "funcargs", {})
    host = next((funcargs[name] for name in HOSTS if name in funcargs), None)
    if report.failed and host is not None and host.directory.exists():
        report.sections.append(("agent and daemon", host.logs()))
        try:
            report.sections.append(("event history", "\n".join(host.trace()[-200:])))
        except AssertionError as error:
            report.sections.append(("event history", str(error)))


def check_after(host, descriptors):
    """The agent lives, has no live child, and holds nothing more open than before the test."""
    assert host.agent.running(), "the agent has ended"
    answer = host.sender.get(SYS_UP_TIME)
    assert answer is not None and answer.error == ber.NO_ERROR, "the agent does not answer"
    wait_for(lambda: not live_children(host.agent.pid), "the agent has no live child", timeout=3)
    wait_for(
        lambda: len(host.descriptors()) <= descriptors,
        f"the agent holds {descriptors} descriptors again",
        timeout=3,
    )


def prepare(host):
    """Brings a host into the state that check_after compares with; returns its descriptors."""
    # The first request of the inventory opens the connection to the daemon.
    assert host.value(SCALAR) == 1
    assert host.sender.get_next(DEVICE).error == ber.NO_ERROR
    return len(host.descriptors())


@pytest.fixture(name="host")
def fixture_host():
    """A running host of the test's own."""
    host = Host()
    try:
        host.start()
        descriptors = prepare(host)
        yield host
        check_after(host, descriptors)
    finally:
        host.close()


@pytest.fixture(name="idle_host")
def fixture_idle_host():
    """A host whose agent and daemon the test starts itself."""
    host = Host()
    try:
        yield host
    finally:
        host.close()


@pytest.fixture(name="module_host", scope="module")
def fixture_module_host():
    host = Host()
    try:
        host.start()
        yield host
    finally:
        host.close()


@pytest.fixture(name="shared_host")
def fixture_shared_host(module_host):
    """The running host that all tests of a module share."""
    descriptors = prepare(module_host)
    yield module_host
    check_after(module_host, descriptors)


@pytest.fixture(name="user_host")
def fixture_user_host(idle_host):
    """A host whose agent is no root: directories can be closed to it, its processes
    limited. Not yet running."""
    idle_host.agent_user = "nobody"
    idle_host.directory.chmod(0o755)
    for directory in (idle_host.run_dir, idle_host.work_dir, idle_host.flash()):
        shutil.chown(directory, "nobody")
    return idle_host


@pytest.fixture(name="v3_host")
def fixture_v3_host(idle_host):
    """A running host that knows an SNMPv3 user."""
    idle_host.agent_directives = V3_DIRECTIVES
    idle_host.start()
    return idle_host


@pytest.fixture(name="tool_state", scope="session")
def fixture_tool_state(tmp_path_factory):
    """A directory in which the stock tools may keep state, so that they see no other."""
    directory = tmp_path_factory.mktemp("snmp")
    # The tools tell when they create it.
    (directory / "cert_indexes").mkdir()
    return str(directory)


# --- The far ends of copies


@pytest.fixture(scope="session")
def ftp_server():
    with start_server("ftp") as server:
        yield server


@pytest.fixture(scope="session")
def ssh_server():
    with start_server("scp") as server:
        yield server


@pytest.fixture(name="module_tftp", scope="module")
def fixture_module_tftp(module_host):
    module_host.start_atftpd()
    columns = {"protocol": TFTP, "server": module_host.address}
    return Remote("tftp", module_host.server_dir, columns)


@pytest.fixture(name="remote", params=PROTOCOLS)
def fixture_remote(request):
    """A server for each protocol. Tests share it: they leave only files behind."""
    if request.param == "tftp":
        return request.getfixturevalue("module_tftp")
    kind = "ftp_server" if request.param == "ftp" else "ssh_server"
    return remote_of(request.param, request.getfixturevalue(kind))


@pytest.fixture(
    name="held",
    params=[(protocol, verb) for protocol in PROTOCOLS for verb in ("get", "put")],
    ids=" ".join,
)
def fixture_held(request, host):
    """A copy by each protocol in each direction that stands still in its middle."""
    copy = HeldCopy(host, *request.param)
    copy.start()
    return copy
