"""What the tests of all folders share: the messages that they provoke."""

import pytest

from messages import count, pattern

# Fixtures whose objects know, by `said()`, what the programs of a test have written.
SPEAKERS = ("host", "idle_host", "shared_host", "client")


def pytest_configure(config):
    config.addinivalue_line(
        "markers", "provokes(message): the test provokes this message of docs/troubleshoot.md"
    )


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    if report.when == "call":
        item.stash[PASSED] = report.passed


PASSED = pytest.StashKey()


@pytest.fixture(autouse=True)
def provoked_as_marked(request):
    """Fails a test after which a message that it is marked with has not been said."""
    messages = [mark.args[0] for mark in request.node.iter_markers("provokes")]
    speakers = [name for name in SPEAKERS if messages and name in request.fixturenames]
    if not speakers:
        yield
        return
    # Set up before this fixture, and so still there when it ends.
    speaker = request.getfixturevalue(speakers[0])
    before = {message: count(speaker.said(), message) for message in messages}
    yield
    if request.node.stash.get(PASSED, False):
        said = speaker.said()
        for message in messages:
            assert count(said, message) > before[message], (
                f"nothing like {pattern(message).pattern!r} in\n{said}"
            )
