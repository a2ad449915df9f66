"""Every program and file has a manual page, which is well-formed and names every option."""

import os
import re
import subprocess
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]
MAN = REPOSITORY / "man"
BUILD = Path(os.environ.get("ORVEX_BUILD_DIR", REPOSITORY / "build" / "release"))
PAGES = sorted(MAN.glob("*.[1-8]"))

# The programs that tell their options by --help, and their pages.
PROGRAMS = {
    BUILD / "bin" / "fs_daemon": "fs_daemon.8",
    BUILD / "bin" / "ruma-trace": "ruma-trace.1",
    BUILD / "bin" / "ruma-doctor": "ruma-doctor.1",
    REPOSITORY / "packaging" / "setup" / "orvex-flash-setup": "orvex-flash-setup.8",
}
SCRIPTS = sorted((REPOSITORY / "platform" / "host" / "transfer").glob("*.expect"))


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_page_is_well_formed(page):
    lint = subprocess.run(
        ["mandoc", "-Tlint", "-Wwarning", page], capture_output=True, text=True, check=False
    )
    assert lint.stdout + lint.stderr == ""


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_page_is_taken_by_man(page):
    run = subprocess.run(
        ["man", "--warnings", "-E", "UTF-8", "-l", page], capture_output=True, text=True, check=True,
        env=os.environ | {"MANPAGER": "cat", "MANWIDTH": "100"},
    )
    assert run.stderr == ""
    assert "NAME" in run.stdout


def in_help(program):
    """The options, by their names, and the commands that a program's help lists."""
    text = subprocess.run(
        [program, "--help"], capture_output=True, text=True, check=True, timeout=30
    ).stdout
    heads = re.findall(r"^  (\S.*?)(?:  .*|$)", text, re.MULTILINE)
    return {name for head in heads for name in re.findall(r"(?:^|,)(-{0,2}[a-z][a-z-]*)", head)}


def in_page(page):
    """The options and commands that have an item in a page's lists."""
    names = set()
    for item in re.findall(r"^\.It (Fl .*|Cm .*)$", page.read_text(), re.MULTILINE):
        names.update(f"--{name}" for name in re.findall(r"Fl Fl ([a-z-]+)", item))
        names.update(f"-{name}" for name in re.findall(r"(?<!Fl )Fl ([a-zA-Z])\b", item))
        names.update(re.findall(r"^Cm ([a-z-]+)", item))
    return names


@pytest.mark.parametrize("program", PROGRAMS, ids=lambda program: program.name)
def test_page_names_the_options_of_the_help(program):
    # A help need not name what it was asked for by.
    assert in_page(MAN / PROGRAMS[program]) == in_help(program) | {"-h", "--help"}


def test_page_names_the_commands_of_the_start_script():
    script = (REPOSITORY / "packaging" / "device" / "orvex-flash").read_text()
    [usage] = re.findall(r"^# Usage: orvex-flash (\S+)$", script, re.MULTILINE)
    assert in_page(MAN / "orvex-flash.8") == set(usage.split("|"))


@pytest.mark.parametrize("script", SCRIPTS, ids=lambda script: script.name)
def test_transfer_script_has_a_page_of_its_name(script):
    page = MAN / f"{script.name}.8"
    assert f".Nm /ruma/bin/{script.name}\n" in page.read_text()


def test_every_program_that_is_built_for_installation_has_a_page():
    names = re.findall(
        r"^install\(TARGETS (\S+) DESTINATION \$\{CMAKE_INSTALL_S?BINDIR\}",
        "\n".join(path.read_text() for path in (REPOSITORY / "platform").rglob("CMakeLists.txt")),
        re.MULTILINE,
    )
    assert len(names) >= 2
    assert sorted(set(names) - {page.stem for page in PAGES}) == []


def test_pages_name_only_pages_that_there_are():
    # Of this system; others come with what they describe.
    others = {"scp", "sftp", "tnftp", "sshd", "snmpd", "snmpd.conf", "snmp.conf"}
    others |= {"start-stop-daemon"}
    for page in PAGES:
        named = re.findall(r"^\.Xr (\S+) (\d)", page.read_text(), re.MULTILINE)
        missing = [f"{name}.{section}" for name, section in named if name not in others
                   and not (MAN / f"{name}.{section}").exists()]
        assert missing == [], page.name
