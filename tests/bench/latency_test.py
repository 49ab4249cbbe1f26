"""Defends the arithmetic of M7: percentiles and their least number of samples, merging, which passes are void, how far a
system climbs, and what the report makes of it."""

import base64
import sys
import types
import unittest
import zlib
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "bench"))

# pylint: disable=wrong-import-position
from harness import latency, latency_report, report  # noqa: E402
from harness.histogram import Histogram, bucket_of, highest_of  # noqa: E402
from harness.results import Results  # noqa: E402
from harness.systems import OURS, System  # noqa: E402

MS = 1_000_000


def system(name, brokered=True, variant=""):
    return System(name, name.upper(), "", None, brokered, brokered, "", "", "", variant=variant)


BUS, PEER, OTHER, UNBROKERED = system(OURS), system("peer"), system("other"), system("direct", brokered=False)


class Buckets(unittest.TestCase):
    def test_a_bucket_is_narrower_than_a_thousandth_of_its_durations(self):
        for ns in (0, 1, 2047, 2048, 2049, 4095, 4096, 10**6, 10**9, 3_600_000_000_000):
            highest = highest_of(bucket_of(ns))
            self.assertGreaterEqual(highest, ns)
            self.assertLess(highest - ns, max(ns / 1000, 1))
            self.assertEqual(bucket_of(highest), bucket_of(ns))
            self.assertEqual(bucket_of(highest + 1), bucket_of(ns) + 1)


class Percentiles(unittest.TestCase):
    def test_percentile_is_the_highest_duration_of_its_bucket(self):
        histogram = Histogram.of_pairs([(1000, 60_000), (1_000_000, 40_000)])
        self.assertEqual(histogram.percentile(60), 1000)
        self.assertEqual(histogram.percentile(60.1), 1_000_447)

    def test_percentile_needs_a_hundred_samples_beyond_it(self):
        for percentile, enough in ((50, 200), (99, 10_000), (99.9, 100_000), (99.99, 1_000_000)):
            self.assertEqual(Histogram.of_pairs([(7, enough)]).percentile(percentile), 7)
            self.assertIsNone(Histogram.of_pairs([(7, enough - 1)]).percentile(percentile))

    def test_histogram_without_samples_has_no_percentile(self):
        self.assertIsNone(Histogram({}).percentile(50))
        self.assertIsNone(Histogram({}).highest)

    def test_merged_histogram_is_that_of_all_samples(self):
        one = Histogram.of_pairs([(5, 150), (9000, 3)])
        two = Histogram.of_pairs([(5, 50), (70, 400)])
        self.assertEqual(Histogram.merged([one, two]), Histogram.of_pairs([(5, 200), (70, 400), (9000, 3)]))
        self.assertEqual(Histogram.merged([one, two]).percentile(50), 70)   # the median of the medians is not the median
        self.assertEqual(one.total, 153)


class Encoding(unittest.TestCase):
    def test_counts_are_those_that_an_hdrhistogram_library_writes(self):
        histogram = Histogram.of_pairs([(0, 1), (2047, 3), (2048, 2), (52_341, 200), (1_000_000, 70_000),
                                        (3_600_000_000_000, 1)])
        plain = zlib.decompress(base64.b64decode(histogram.encode())[8:])
        self.assertEqual(plain[40:].hex(), "02fb1f0604c3499003f944e0c508d3db0202")
        self.assertTrue(histogram.encode().startswith("HISTFAAAA"))

    def test_decode_returns_what_was_encoded(self):
        for counts in ({}, {0: 1}, {32_000: 2**40, 5: 63, 6: 64, 7: 2**62}):
            self.assertEqual(Histogram.decode(Histogram(counts).encode()), Histogram(counts))

    def test_decode_refuses_another_format(self):
        with self.assertRaises(ValueError):
            Histogram.decode(base64.b64encode(b"\x1c\x84\x93\x03" + bytes(40)))


def events(rate=1000, **changed):
    """The events of a perfect pass of one second, with changes."""
    both = {"planned": 1000, "values": 1000, "startNs": 0, "endNs": 1000 * MS, "endLagNs": 0, "received": 1000, "lost": 0,
            "repeated": 0, "lastNs": 1000 * MS, **changed}
    return rate, both, both


class VoidPasses(unittest.TestCase):
    def test_a_pass_that_keeps_its_rate_counts(self):
        self.assertIsNone(latency.reason_void(*events()))

    def test_a_publisher_below_99_percent_of_the_rate_is_void(self):
        self.assertIsNone(latency.reason_void(*events(endNs=1010 * MS)))
        self.assertEqual(latency.reason_void(*events(endNs=1020 * MS)), "published 980/s")

    def test_a_delivery_below_99_percent_of_the_rate_is_void(self):
        self.assertIsNone(latency.reason_void(*events(lastNs=1010 * MS)))
        self.assertEqual(latency.reason_void(*events(lastNs=1250 * MS)), "delivered 800/s")

    def test_a_pass_that_was_given_up_is_void(self):
        self.assertEqual(latency.reason_void(*events(values=995, received=995)), "published 995 of 1,000 values")

    def test_a_publisher_that_ends_behind_its_schedule_is_void(self):
        self.assertIsNone(latency.reason_void(*events(endLagNs=10 * MS)))
        self.assertEqual(latency.reason_void(*events(endLagNs=10 * MS + 1)), "the publisher was 10 ms behind at the end")

    def test_loss_repetition_and_a_wrong_count_are_void(self):
        for changed in ({"lost": 1}, {"repeated": 1}, {"received": 999}, {"received": 1001}):
            self.assertIn("lost", latency.reason_void(*events(**changed)) or "", changed)


class Climb(unittest.TestCase):
    def taken(self, systems, reached):
        """The passes in the order taken, where `reached(system, rate, pass number)` says which count."""
        order = []

        def take(taken_system, rate, _):
            place = (taken_system.name, rate)
            order.append(place)
            return {"void": None if reached(*place, order.count(place)) else "too slow"}

        sizes = types.SimpleNamespace(latency_passes=2, latency_rates=((10, 1), (20, 1), (30, 1)))
        for measure, variant, name, work in latency.steps(types.SimpleNamespace(take=take), sizes, systems):
            self.assertEqual(measure, "M7")
            work()
            self.assertEqual((name, latency.rate_of(variant)), order[-1])
        return order

    def test_systems_take_turns_pass_by_pass_at_each_rate(self):
        self.assertEqual(self.taken([BUS, PEER], lambda *_: True), [
            (name, rate) for rate in (10, 20, 30) for _ in range(2) for name in (BUS.name, PEER.name)])

    def test_a_system_stops_behind_the_first_rate_with_void_passes_only(self):
        order = self.taken([BUS, PEER], lambda name, rate, _: name == BUS.name or rate < 20)
        self.assertEqual(order.count((PEER.name, 20)), 2)
        self.assertEqual(order.count((PEER.name, 30)), 0)
        self.assertEqual(order.count((BUS.name, 30)), 2)

    def test_one_pass_that_counts_is_enough_to_climb_on(self):
        order = self.taken([PEER], lambda name, rate, number: number == 2)
        self.assertEqual(order.count((PEER.name, 30)), 2)

    def test_a_pass_that_failed_does_not_count(self):
        sizes = types.SimpleNamespace(latency_passes=1, latency_rates=((10, 1), (20, 1)))
        self.assertEqual(len(list(latency.steps(None, sizes, [PEER]))), 1)

    def test_variants_of_a_system_are_left_out(self):
        self.assertEqual(self.taken([system("static", variant=OURS)], lambda *_: True), [])


def one_pass(microseconds, void=None, values=20_000):
    return {"void": void, "noiseLongestNs": MS, "noiseLost": 0.01,
            "histogram": Histogram.of_pairs([(microseconds * 1000, values)]).encode()}


def results_of(passes, failures=None):
    """`passes` is {(system, rate): passes}."""
    figures = {}
    for (name, rate), taken in passes.items():
        figures.setdefault(latency.variant(rate), {})[name] = taken
    sizes = {"latency_passes": 2, "latency_warm_up_s": 0.5, "latency_rates": ((1000, 3), (50_000, 2))}
    return Results({"figures": {"M7": figures}, "failures": failures or {}, "sizes": sizes},
                   [BUS, PEER, OTHER, UNBROKERED])


class Report(unittest.TestCase):
    def row(self, passes):
        return latency_report.summary_row(results_of(passes), report.number)[2]

    def section(self, passes, failures=None):
        return "\n".join(latency_report.section(results_of(passes, failures), report.number, report.table, lambda name: name))

    def test_void_passes_are_not_merged(self):
        point = latency_report.Point([one_pass(10), one_pass(90_000, void="lost 1")])
        self.assertEqual(point.merged.total, 20_000)
        self.assertLess(point.merged.highest, 11_000)
        self.assertEqual(point.reasons, ["lost 1"])

    def test_headline_is_the_ratio_to_the_best_acknowledging_peer_with_a_broker(self):
        self.assertEqual(self.row({(OURS, 50_000): [one_pass(30)], ("peer", 50_000): [one_pass(10)],
                                   ("other", 50_000): [one_pass(60)], ("direct", 50_000): [one_pass(1)]}), "3.00 × PEER")

    def test_headline_without_a_peer_that_reaches_the_rate_shows_the_time(self):
        measured = self.row({(OURS, 50_000): [one_pass(30)], ("direct", 50_000): [one_pass(1)],
                             ("peer", 1000): [one_pass(10)], ("peer", 50_000): [one_pass(10, void="published 9,000/s")],
                             ("other", 1000): [one_pass(10, void="published 900/s")]})
        self.assertEqual(measured, "30.0 µs; void for every peer, the best reaches 1,000 (PEER)")

    def test_headline_is_void_where_this_bus_does_not_reach_the_rate(self):
        measured = self.row({(OURS, 1000): [one_pass(30)], (OURS, 50_000): [one_pass(30, void="lost 1")],
                             ("peer", 50_000): [one_pass(10)]})
        self.assertEqual(measured, "void: this bus reaches 1,000 values/s")

    def test_headline_of_a_run_without_the_measure_is_empty(self):
        self.assertIsNone(self.row({}))
        self.assertEqual(self.section({}), "")

    def test_common_rate_is_the_highest_that_more_than_half_of_the_systems_reach(self):
        passes = {(name, 1000): [one_pass(10)] for name in (OURS, "peer", "other", "direct", "relay")}
        passes.update({(name, 50_000): [one_pass(10)] for name in (OURS, "peer", "relay")})
        self.assertEqual(latency_report.Curves(results_of(passes)).common_rate(), 1000)
        passes["other", 50_000] = [one_pass(10, "lost 1"), one_pass(10)]
        self.assertEqual(latency_report.Curves(results_of(passes)).common_rate(), 50_000)

    def test_table_shows_void_rates_partly_void_rates_and_missing_percentiles(self):
        section = self.section({(OURS, 1000): [one_pass(10), one_pass(10)],
                                ("peer", 1000): [one_pass(20), one_pass(20, "lost 1")],
                                ("peer", 50_000): [one_pass(20, "published 9/s")]},
                               {"M7": {"rate: 1000": {"other": "no answer"}}})
        self.assertIn("| MSGBUS | 10.0 / 10.0 / – | – |", section)
        self.assertIn("| PEER | 20.0 / 20.0 / – (1 of 2 passes) | void |", section)
        self.assertIn("| OTHER | failed | – |", section)
        self.assertIn("- PEER, 50,000/s, void: published 9/s.", section)
        self.assertIn("- OTHER, 1,000/s, failed: no answer", section)


if __name__ == "__main__":
    unittest.main()
