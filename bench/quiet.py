"""Waits until the machine is quiet."""

import os
import sys
import time

MOST_LOAD = 0.5  # load average over a minute, of a machine that counts as quiet
TIME_LIMIT = 300  # seconds


def wait_until_quiet():
    """Waits until the load of a build has faded. Returns the load, above MOST_LOAD if the machine stays busy."""
    load, end = os.getloadavg()[0], time.monotonic() + TIME_LIMIT
    if load > MOST_LOAD:
        print(f"bench: waiting for a load below {MOST_LOAD}, {TIME_LIMIT} s at most", file=sys.stderr, flush=True)
    while load > MOST_LOAD and time.monotonic() < end:
        time.sleep(1)
        load = os.getloadavg()[0]
    return load
