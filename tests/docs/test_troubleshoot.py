"""docs/troubleshoot.md lists the messages that tests provoke, those and no others."""

import ast
import re
from pathlib import Path

import pytest

from messages import pattern

REPOSITORY = Path(__file__).resolve().parents[2]
DOCUMENT = REPOSITORY / "docs" / "troubleshoot.md"
HOST = REPOSITORY / "platform" / "host"
SETUP = REPOSITORY / "packaging" / "setup" / "orvex-flash-setup"
START_SCRIPT = REPOSITORY / "packaging" / "device" / "orvex-flash"

C_LITERAL = r'"(?:[^"\\]|\\.)*"'


def documented():
    """The messages: list items that are nothing but one piece of code."""
    found = re.findall(r"^- `` ?(.+?) ?``$|^- `([^`]+)`$", DOCUMENT.read_text(), re.MULTILINE)
    return [double or single for double, single in found]


def c_text(literals):
    """The text of C string literals that stand side by side."""
    return "".join(ast.literal_eval(each) for each in re.findall(C_LITERAL, literals))


def provoked_by_cpp(text):
    calls = re.findall(rf"EXPECT_PROVOKED\(.*?,\s*((?:{C_LITERAL}\s*)+)\);", text, re.DOTALL)
    return [c_text(each) for each in calls]


def provoked_by_python(tree):
    texts = {  # that have a name in the module
        node.targets[0].id: node.value.value
        for node in tree.body
        if isinstance(node, ast.Assign)
        and isinstance(node.targets[0], ast.Name)
        and isinstance(node.value, ast.Constant)
    }
    for node in ast.walk(tree):
        if isinstance(node, ast.Call) and node.args:
            name = getattr(node.func, "attr", getattr(node.func, "id", None))
            argument = node.args[0] if name == "provokes" else node.args[-1]
            if name in ("provokes", "provoked") and isinstance(argument, ast.Constant):
                yield argument.value
            elif name in ("provokes", "provoked") and getattr(argument, "id", None) in texts:
                yield texts[argument.id]


def provoked():
    tests = REPOSITORY / "tests"
    messages = set()
    for path in tests.rglob("*.cpp"):
        messages.update(provoked_by_cpp(path.read_text()))
    for path in tests.rglob("*.py"):
        messages.update(provoked_by_python(ast.parse(path.read_text())))
    return messages


def test_every_message_is_listed_once():
    messages = documented()
    assert len(messages) > 50
    assert sorted(messages) == sorted(set(messages))


def test_every_listed_message_is_provoked_by_a_test():
    assert sorted(set(documented()) - provoked()) == []


def test_every_provoked_message_is_listed():
    assert sorted(provoked() - set(documented())) == []


# What is logged but not listed: nothing can be done about it that the words do not say themselves,
# and no test can bring it about.
UNLISTED = {
    "ruma_agent: no memory to watch a worker",
    "ruma_agent: no memory to say why a request failed",
    "ruma_agent: …: no memory to look at its directories",
    "ruma_agent: no memory to look after its directories",
    "ruma_agent: cannot watch the requests",
    "ruma_agent: cannot watch workers",
    "ruma_agent: cannot watch the access checks",
    "ruma_agent: cannot watch the requests of a table",
}
# How the two commands answer wrong use, who is told at once what is wrong with it.
WRONG_USE = {
    "orvex-flash-setup: --password-file, --password-fd and --generate exclude each other",
    "orvex-flash-setup: … needs a value",
    "orvex-flash-setup: … cannot be read",
    "orvex-flash-setup: a user name has letters, digits and _ . - only",
    "orvex-flash-setup: a user name has at most 32 characters",
    "orvex-flash-setup: --password-fd needs a number from 3 to 9",
    "orvex-flash-setup: only root can do that",
    "orvex-flash-setup: nothing was entered",
    "orvex-flash-setup: there is no pass phrase",
    "orvex-flash-setup: the … pass phrase has less than 8 characters",
    "orvex-flash-setup: the … pass phrase has more than 200 characters",
    "orvex-flash-setup: the … pass phrase holds a quotation mark or a backslash",
    "orvex-flash-setup: the … pass phrase holds a control character",
    "orvex-flash: only root can do that",
}


def logged():
    """The formats of what the host platform logs or says, with "…" for what varies."""
    for path in sorted(HOST.rglob("*.cpp")):
        calls = re.findall(
            r"(?:snmp_log\(\s*LOG_(?:ERR|WARNING),|fprintf\(\s*stderr,)"
            rf"\s*((?:{C_LITERAL}|PRI\w+|\s)+)",
            path.read_text(),
        )
        for call in calls:
            text = c_text(re.sub(r"PRI\w+", '"d"', call)).strip()
            yield re.sub(r"%[a-z]*[dsu]", "…", text)


def thrown():
    """The reasons that the daemon, the run directory and the configuration are refused with."""
    for path in [*HOST.glob("base/*.cpp"), *HOST.glob("fs_daemon/*.cpp"), *HOST.glob("config/c*.cpp")]:
        text = path.read_text()
        calls = re.findall(r"throw std::runtime_error\((.*?)\);", text, re.DOTALL)
        calls += re.findall(r"\bfail\([^,;]+,(.*?)\);", text, re.DOTALL)
        for call in calls:
            pieces = re.split(rf"({C_LITERAL})", call)
            if len(pieces) > 1:
                yield "".join(
                    ast.literal_eval(each) if number % 2 else re.sub(r"[^…]*\w[^…]*", "…", each)
                    for number, each in enumerate(pieces)
                ).replace(" + ", "").strip()


def complaints():
    """What set-up and start script fail with: the first line of each."""
    for path in (SETUP, START_SCRIPT):
        for text in re.findall(r'\b(?:fail |failed=)"((?:[^"\\\n]|\\.)+)', path.read_text()):
            yield re.sub(r"\$\w+", "…", f"{path.name}: {text}")


def verdicts():
    """The sentences of the transfer scripts."""
    for path in sorted((HOST / "transfer").iterdir()):
        if path.suffix in (".tcl", ".expect"):
            text = path.read_text()
            script = path.name if path.suffix == ".expect" else "scp.expect"
            sentences = re.findall(
                r'(?:give_up \w+ |note_failure \w+ |return \{\w+ |list failed )"([^"]+)"', text
            ) + re.findall(r'\} (?:\w+|\$missing) "([^"]+)"', text)
            for sentence in sentences:
                yield re.sub(r"\$\w+", "…", f"{script}: {sentence}")


def is_listed(message):
    """Whether a message is listed, with more or fewer things left open."""
    return any(
        pattern(each).search(message.replace("…", "x"))
        or pattern(message).search(each.replace("…", "x"))
        for each in documented()
    )


@pytest.mark.parametrize("message", sorted(set(logged())))
def test_what_is_logged_is_listed(message):
    assert is_listed(message) != (message in UNLISTED)


def test_nothing_is_excused_that_is_not_said():
    assert sorted(UNLISTED - set(logged())) == []
    assert sorted(WRONG_USE - set(complaints())) == []


@pytest.mark.parametrize("message", sorted(set(complaints()) - WRONG_USE))
def test_every_complaint_of_setup_and_start_script_is_listed(message):
    assert is_listed(message)


@pytest.mark.parametrize("message", sorted(set(thrown())))
def test_every_reason_for_a_refused_start_is_listed(message):
    assert is_listed(message)


@pytest.mark.parametrize("message", sorted(set(verdicts())))
def test_every_verdict_of_a_transfer_script_is_listed(message):
    assert is_listed(message)
