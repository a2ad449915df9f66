"""One machine through the life of the packages: installed, used, upgraded, removed, installed again,
purged. Each stage is a fixture that builds on the one before; each test looks at one of them.

ORVEX_TEST_ROOT names a Debian root that can fetch nothing but has what the packages depend on in its
apt cache. ORVEX_OLD_PACKAGES and ORVEX_NEW_PACKAGES name directories of packages."""

import os
import shutil
import tempfile
from pathlib import Path

import pytest
from installation import Installation


@pytest.fixture(name="work", scope="session")
def fixture_work():
    """A directory for what machines change. A layer cannot lie on another layer, as /tmp may."""
    directory = Path(tempfile.mkdtemp(prefix="orvex-packages.", dir=os.environ["ORVEX_TEST_WORK"]))
    yield directory
    shutil.rmtree(directory)


def directory_of(variable) -> Path:
    return Path(os.environ[variable]).resolve()


@pytest.fixture(name="old", scope="session")
def fixture_old():
    return directory_of("ORVEX_OLD_PACKAGES")


@pytest.fixture(name="new", scope="session")
def fixture_new():
    return directory_of("ORVEX_NEW_PACKAGES")


@pytest.fixture(name="make_installation", scope="session")
def fixture_make_installation(work):
    """Makes fresh machines, which end with the session."""
    made = []

    def make(name):
        layer = work / name
        layer.mkdir()
        made.append(Installation(directory_of("ORVEX_TEST_ROOT"), layer))
        return made[-1]

    yield make
    for installation in made:
        installation.close()
