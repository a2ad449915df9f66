"""The messages of docs/troubleshoot.md, and the tests that provoke them.

In the document "…" stands for what varies. A test provokes a message by one of

    @pytest.mark.provokes("ruma_agent: cannot receive messages yet: …")
    provoked(text, "fs_daemon: another daemon serves …")
    EXPECT_PROVOKED(text, "there is no user …");        (tests/provoked.h)

The marker looks for the message in what the test's host or client has said; where there is neither,
the test itself must. The others fail when the message is not in the text.
"""

import re


def pattern(message):
    """What a documented message looks like in a log."""
    return re.compile(".*".join(map(re.escape, message.split("…"))))


def count(text, message) -> int:
    """Lines of `text` that hold the message."""
    looks = pattern(message)
    return sum(1 for line in text.splitlines() if looks.search(line))


def provoked(text, message) -> None:
    """Fails unless a line of `text` holds the message."""
    assert count(text, message), f"nothing like {message!r} in\n{text}"
