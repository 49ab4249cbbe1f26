"""Waits for a quiet machine: other work changes every figure."""

import os
import sys
import time

QUIET_LOAD = 0.5    # the load average over a minute of a machine that does nothing else
PATIENCE_S = 300


def wait_until_quiet(patience_s=PATIENCE_S, load=lambda: os.getloadavg()[0], sleep=time.sleep):
    """Waits for a load below QUIET_LOAD, for at most `patience_s`. Returns: the load at the end, and the seconds waited."""
    waited = 0
    while load() >= QUIET_LOAD and waited < patience_s:
        if waited % 60 == 0:
            print(f"waiting for a quiet machine: load {load():.2f}, at most {patience_s - waited:.0f} s more", file=sys.stderr,
                  flush=True)
        sleep(5)
        waited += 5
    return load(), waited


def under_load(raw):
    """Whether the results `raw` were taken on a machine that was not quiet. Older results only hold the load."""
    return raw.get("underLoad", raw["machine"]["load"] >= QUIET_LOAD)
