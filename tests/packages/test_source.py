"""Building from source in a fresh root, by the very lines of the manual."""

import subprocess

import pytest
from machine import REPOSITORY
from manual import BUILD


@pytest.fixture(name="machine", scope="module")
def fixture_machine(make_installation):
    """A machine with the sources, and nothing that builds them."""
    machine = make_installation("source")
    machine.write("/etc/apt/apt.conf.d/yes", 'APT::Get::Assume-Yes "true";\n')
    names = subprocess.run(
        ["git", "ls-files", "-co", "--exclude-standard"],
        cwd=REPOSITORY,
        capture_output=True,
        text=True,
        check=True,
    ).stdout.splitlines()
    for name in names:
        source = REPOSITORY / name
        if source.exists():
            target = machine.path(f"/usr/src/orvex/{name}")
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(source.read_bytes())
            target.chmod(source.stat().st_mode & 0o777)
    return machine


def test_build_needs_only_what_the_document_names(machine):
    machine.run("sh", "-e", "-c", "\n".join(["cd /usr/src/orvex", *BUILD]), timeout=900)
    assert machine.run("fs_daemon", "--version") != ""
    for name in ("libruma_host.so", "ruma_agent.so", "orvex_flash_mib.so"):
        assert "not found" not in machine.run("ldd", f"/usr/lib/ruma/{name}")


def test_neither_tests_nor_measurements_are_built(machine):
    built = machine.run("find", "/usr/src/orvex", "-path", "*/bin/*", "-type", "f", "-executable")
    names = {line.rpartition("/")[2] for line in built.splitlines()}
    assert "fs_daemon" in names
    assert [name for name in names if name.endswith(("_test", "_bench"))] == []
