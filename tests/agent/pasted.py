"""Command lines of the documents, run by a shell as they stand there.

Put in their place are the addresses, which a test has to itself, and the directory of the installed
MIB.
"""

import re
import subprocess

from harness import AGENT_PORT, REPOSITORY
from mib_text import PLAIN


class Document:
    def __init__(self, name):
        text = (REPOSITORY / name).read_text()
        self.blocks = re.findall(r"^```\n(.*?)^```\n", text, re.M | re.S)

    def block_with(self, text):
        """The block that holds this text."""
        found = [block for block in self.blocks if text in block]
        assert len(found) == 1, f"{len(found)} blocks hold {text}"
        return found[0]


class Shell:
    """A shell at the station, whose home directory is empty at first."""

    def __init__(self, host, home):
        self.places = {
            r"\b127\.0\.0\.1\b": f"{host.address}:{AGENT_PORT}",
            r"\b192\.0\.2\.9\b": host.address,
            "/usr/share/orvex-flash-mib/mibs/": f"{PLAIN.parent}/",
        }
        self.environment = {
            name: value
            for name, value in host.environment.items()
            if name not in ("MIBS", "MIBDIRS", "SNMPCONFPATH")
        }
        self.environment |= {"HOME": str(home), "SNMP_PERSISTENT_DIR": str(home / "state")}
        # The tools tell when they create it.
        (home / "state" / "cert_indexes").mkdir(parents=True)

    def __call__(self, text):
        for place, own in self.places.items():
            text = re.sub(place, own, text)
        run = subprocess.run(
            ["sh", "-e"],
            input=text,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            env=self.environment,
            timeout=60,
            check=False,
        )
        assert run.returncode == 0, run.stdout
        return run.stdout
