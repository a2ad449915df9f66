"""The package for whoever implements the platform interfaces: its headers and conformance tests,
used over the host platform's own library."""

import pytest
from installation import MAIN_PACKAGES

LIBRARY = "/usr/lib/ruma/libruma_host.so"
SOURCES = "/usr/share/orvex-flash-dev/conformance"


@pytest.fixture(name="machine", scope="module")
def fixture_machine(make_installation, new):
    machine = make_installation("development")
    machine.install(new, *MAIN_PACKAGES, "orvex-flash-dev")
    return machine


def test_conformance_tests_build_and_pass_with_what_the_package_brings(machine):
    machine.run("cmake", "-S", SOURCES, "-B", "/tmp/build", f"-DORVEX_PLATFORM_LIBRARY={LIBRARY}")
    machine.run("cmake", "--build", "/tmp/build", timeout=500)
    said = machine.run(
        *("env", "ORVEX_CONFORMANCE_SCHEME=bootflash"),
        *("ORVEX_CONFORMANCE_DIRECTORY=/var/lib/ruma/bootflash", "/tmp/build/conformance_test"),
    )
    assert "[  PASSED  ]" in said and "[  FAILED  ]" not in said


def test_conformance_tests_ask_for_the_library_to_test(machine):
    said = machine.run("cmake", "-S", SOURCES, "-B", "/tmp/other", check=False)
    assert "Set ORVEX_PLATFORM_LIBRARY" in said
