#!/usr/bin/python3
"""A long random use of the whole product, with everything that must hold checked meanwhile.

One agent with the modules, one file-system daemon, real servers. Operations are drawn from a seed
(campaign_draw) and logged, one a line; a log can be run again. What SETs must do is known from a
model (campaign_model), what copies must end with from what the servers do (campaign_world).
"""

import argparse
import contextlib
import itertools
import json
import os
import resource
import signal
import sys
import tempfile
import time
from pathlib import Path

from campaign_draw import Draw
from campaign_run import Campaign
from campaign_world import Device, Servers, Violation, World


def read_log(path):
    with open(path, encoding="utf-8") as file:
        return [json.loads(line) for line in file]


def drawn(seed, count, seconds=None):
    """As many operations as are wanted, or as their time allows, and a rest at the end."""
    deadline = time.monotonic() + seconds if seconds is not None else None
    for operation in itertools.islice(Draw(seed), count):
        if deadline is not None and time.monotonic() > deadline:
            break
        yield operation
    yield ["rest"]


@contextlib.contextmanager
def running_campaign(log=None, **agent_settings):
    """A campaign with its device and servers up. What is left running by one that does not come to
    its end is ended."""
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    with contextlib.ExitStack() as stack:
        servers = Servers(stack)
        device = Device()
        device.agent_settings |= agent_settings
        stack.callback(device.close)
        device.start()
        try:
            yield Campaign(World(device, servers), log)
        except BaseException:
            for pid in device.strays():
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
            raise


def figures(campaign, seconds):
    """The closing line."""
    kinds = ", ".join(f"{kind} {count}" for kind, count in campaign.counts.most_common())
    results = sorted(campaign.results.items(), key=str)
    copies = ", ".join(f"{result}: {count}" for result, count in results)
    rate = campaign.operations / seconds
    return (
        f"{campaign.operations} operations ({kinds}); copies by status ({copies});"
        f" {seconds:.0f} s, {rate:.0f} operations a second"
    )


def run(operations, log):
    """Runs a campaign, prints how it went and returns it."""
    with running_campaign(log) as campaign:
        began = time.monotonic()
        try:
            campaign.run(operations)
        except BaseException:
            print(*campaign.recent, sep="\n")
            print(campaign.device.logs())
            raise
        print(figures(campaign, time.monotonic() - began))
        return campaign


def main():
    parser = argparse.ArgumentParser(description="Uses the whole product at random.")
    parser.add_argument("--operations", type=int, default=20000, metavar="N", help="default: 20000")
    parser.add_argument("--seed", type=int, metavar="S", help="default: a new one each time")
    parser.add_argument("--seconds", type=float, metavar="T", help="draw no more after this time")
    parser.add_argument("--replay", metavar="FILE", help="the operations of an earlier campaign")
    options = parser.parse_args()
    seed = options.seed if options.seed is not None else int.from_bytes(os.urandom(4), "big")
    if options.replay:
        name, operations = f"replay of {options.replay}", read_log(options.replay)
    else:
        name, operations = f"seed {seed}", drawn(seed, options.operations, options.seconds)
    print(name, flush=True)

    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    descriptor, path = tempfile.mkstemp(prefix="orvex-campaign-", suffix=".log")
    try:
        with open(descriptor, "w", encoding="utf-8") as log:
            run(operations, log)
    except BaseException as error:
        what = f"VIOLATED: {error}" if isinstance(error, Violation) else f"ENDED: {error!r}"
        number = len(Path(path).read_text(encoding="utf-8").splitlines())
        print(what)
        print(f"{name}, operation {number}; to run it again: scripts/campaign --replay {path}")
        if isinstance(error, Violation):
            return 1
        raise
    os.unlink(path)
    return 0


if __name__ == "__main__":
    sys.exit(main())
