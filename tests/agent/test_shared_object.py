"""The module's shared object as it is installed: what it exports, what it needs, how it is linked."""
import os
import pathlib
import re
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("ORVEX_BUILD_DIR", ROOT / "build" / "release"))
MODULE = BUILD / "lib" / "orvex_flash_mib.so"


def output(*command: str) -> str:
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def symbols(*flags: str) -> list[str]:
    lines = output("nm", "-D", *flags, str(MODULE)).splitlines()
    return [line.split()[-1].split("@")[0] for line in lines]


@pytest.fixture(scope="module", name="dynamic")
def dynamic_section() -> str:
    return output("readelf", "-dW", str(MODULE))


def test_exports_the_listed_names_and_nothing_else():
    listed = (ROOT / "platform/apps/flash/exports.txt").read_text().split()
    assert sorted(symbols("--defined-only")) == sorted(listed)


@pytest.mark.parametrize("library", ["libstdc++", "libgcc_s", "libm.so"])
def test_does_not_need_a_run_time_library_beyond_libc(dynamic, library):
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
    assert needed
    assert not [name for name in needed if name.startswith(library)]


def test_needs_the_platform_library_the_agent_and_libc_alone(dynamic):
    needed = {name.split(".so")[0] for name in re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)}
    assert needed <= {"libruma_host", "libnetsnmpmibs", "libnetsnmpagent", "libnetsnmp", "libc",
                      "ld-linux", "ld-linux-x86-64"}


def test_stays_mapped_when_the_agent_unloads_it(dynamic):
    assert "NODELETE" in dynamic


def test_is_bound_at_load_and_read_only_after_relocation(dynamic):
    assert "NOW" in dynamic
    assert "GNU_RELRO" in output("readelf", "-lW", str(MODULE))


def test_neither_ends_nor_aborts_its_host_process():
    called = set(symbols("--undefined-only"))
    assert called.isdisjoint({"exit", "quick_exit", "abort", "__assert_fail", "_Exit", "raise"})


def test_needs_no_throwing_or_type_information_machinery():
    assert not [name for name in symbols("--undefined-only") if name.startswith("_Z")]
