"""M7: delivery latency under load, in an open loop at fixed rates. bench/README.md defines it."""

import os
import re

from .histogram import Histogram
from .measures import Bench, json_of
from .processes import Failure
from .systems import System

MEASURE = "M7"
LEAST_SHARE = 0.99              # of the rate, published and delivered
MOST_END_LAG_NS = 10_000_000
NOISE_THRESHOLD_US = 20


def _start_relay(context):
    server = context.child(["serve", "--address", context.directory])
    try:
        server.line(20)
    except Failure:
        server.stop()
        raise
    return server, context.directory


# What the hand-overs alone cost. Not a bus, so it takes part in M7 only.
RELAY = System("relay", "relay of three hops", "bench_relay", _start_relay, False, False,
               "none: the value is in the first socket", "full sockets block the sender", "")


def variant(rate):
    return f"rate: {rate}"


def rate_of(variant_name):
    return int(re.search(r"\d+", variant_name).group())


def reason_void(rate, published, received):
    """Why a pass does not count, or None. `published` and `received` are the events of the two processes."""
    if received["lost"] or received["repeated"] or received["received"] != published["values"]:
        return (f"lost {received['lost']}, repeated or reordered {received['repeated']}, received {received['received']} of "
                f"{published['values']}")
    for what, values, end_ns in (("published", published["values"], published["endNs"]),
                                 ("delivered", received["received"], received["lastNs"])):
        achieved = values * 1e9 / (end_ns - published["startNs"])
        if achieved < LEAST_SHARE * rate:
            return f"{what} {achieved:,.0f}/s"
    if published["values"] < published["planned"]:
        return f"published {published['values']:,} of {published['planned']:,} values"
    if published["endLagNs"] > MOST_END_LAG_NS:
        return f"the publisher was {published['endLagNs'] / 1e6:.0f} ms behind at the end"
    return None


def steps(loop, sizes, systems):
    """The passes of M7 as bench/run takes them. A system climbs until it reaches no rate with any pass."""
    climbing = [s for s in systems if not s.variant]
    for rate, seconds in sizes.latency_rates:
        reached = set()

        def take(system, rate=rate, seconds=seconds, reached=reached):
            figures = loop.take(system, rate, seconds)
            if figures["void"] is None:
                reached.add(system.name)
            return figures

        for _ in range(sizes.latency_passes):
            for s in climbing:
                yield MEASURE, variant(rate), s.name, lambda s=s, take=take: take(s)
        climbing = [s for s in climbing if s.name in reached]


class OpenLoop(Bench):
    """Takes single passes of M7."""

    def take(self, system, rate, seconds):
        noise = [self._noise()]
        published, received = self._run(system, rate, seconds)
        noise.append(self._noise())
        elapsed_s = (published["endNs"] - published["startNs"]) / 1e9
        return {"void": reason_void(rate, published, received), "published": published["values"] / elapsed_s,
                "delivered": received["received"] * 1e9 / max(received["lastNs"] - published["startNs"], 1),
                "endLagNs": published["endLagNs"], "refused": published["refused"],
                "lateP99": Histogram.of_pairs(published["late"]).percentile(99),
                "noiseLongestNs": max(one["longestNs"] for one in noise),
                "noiseLost": sum(one["lostNs"] for one in noise) / sum(one["spunNs"] for one in noise),
                "histogram": Histogram.of_pairs(received["histogram"]).encode()}

    def _run(self, system, rate, seconds):
        deadline = self.sizes.deadline_s
        plan = {"rate": rate, "warm_up_seconds": self.sizes.latency_warm_up_s}
        with self._server(system, None) as (_, address, directory):
            with self._driver(system, "publish-on-schedule", address, directory, None, seconds=seconds, **plan) as publisher:
                publisher.event("ready", deadline)
                with self._driver(system, "subscribe-on-schedule", address, directory, None, **plan) as subscriber:
                    subscriber.event("registered", deadline)
                    publisher.send("go")
                    published = publisher.event("published", deadline)
                    received = subscriber.event("received", deadline)
                    if subscriber.finish(deadline) not in (0, 2):
                        raise Failure(f"subscriber failed: {subscriber.errors()}")
                if publisher.finish(deadline) != 0:
                    raise Failure(f"publisher failed: {publisher.errors()}")
        return published, received

    def _noise(self):
        return json_of([os.path.join(self.bin_directory, "bench_noise"), "spin", "--seconds",
                        str(self.sizes.latency_noise_s), "--threshold-us", str(NOISE_THRESHOLD_US)], None)
