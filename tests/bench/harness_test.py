#!/usr/bin/python3
"""The benchmark's harness: what it makes of the passes, when it starts, and how it stores them.

A wrong rule here would not fail a run; it would show figures that were not measured.
"""

import contextlib
import io
import os
import sys
import tempfile
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(ROOT, "bench"))

# pylint: disable=wrong-import-position
from harness import cache_line, modes, quiet, report, results, summary  # noqa: E402
from harness.systems import OURS, SYSTEMS  # noqa: E402


class Modes(unittest.TestCase):
    def test_two_groups_far_apart_are_two_modes(self):
        passes = [400, 90, 410, 95, 90, 420, 88, 92, 390, 90]
        self.assertEqual(modes.modes(passes), ((90, 6), (405, 4)))

    def test_one_group_has_no_modes(self):
        self.assertIsNone(modes.modes([100, 101, 103, 99, 98, 102, 100, 101, 97, 104]))

    def test_groups_less_than_one_and_a_half_apart_are_one_mode(self):
        self.assertIsNone(modes.modes([100, 101, 102, 149, 150, 151]))
        self.assertIsNotNone(modes.modes([100, 101, 102, 152, 153, 154]))

    def test_a_single_odd_pass_is_no_mode(self):
        self.assertIsNone(modes.modes([100, 101, 102, 103, 104, 900]))
        self.assertIsNone(modes.modes([10, 100, 101, 102, 103, 104]))

    def test_a_gap_not_wider_than_a_group_is_no_mode(self):
        self.assertIsNone(modes.modes([100, 200, 300, 401, 500, 600]))
        self.assertIsNone(modes.modes([100, 101, 300, 400, 500, 501]))

    def test_too_few_passes_have_no_modes(self):
        self.assertIsNone(modes.modes([]))
        self.assertIsNone(modes.modes([1, 1, 9]))
        self.assertEqual(modes.modes([1, 1, 9, 9]), ((1, 2), (9, 2)))

    def test_equal_passes_have_no_modes(self):
        self.assertIsNone(modes.modes([0] * 10))
        self.assertIsNone(modes.modes([7] * 10))

    def test_the_report_shows_both_modes_behind_the_median(self):
        self.assertEqual(report.spread([400, 90, 410, 95, 90, 420, 88, 92, 390, 90]),
                         "93.5 [88.0 – 420]; two modes: 90.0 (6 of 10) / 405 (4 of 10)")
        self.assertEqual(report.spread([3, 1, 2]), "2.00 [1.00 – 3.00]")


class Quiet(unittest.TestCase):
    @staticmethod
    def wait(loads, patience_s):
        """Waits with one of `loads` per look. Returns: what the wait returned, and the seconds slept."""
        loads, slept = iter(loads), []
        last = [0.0]

        def load():
            last[0] = next(loads, last[0])
            return last[0]
        with contextlib.redirect_stderr(io.StringIO()):
            return quiet.wait_until_quiet(patience_s, load, slept.append), sum(slept)

    def test_a_quiet_machine_is_not_waited_for(self):
        self.assertEqual(self.wait([0.1], 300), ((0.1, 0), 0))

    def test_the_wait_ends_when_the_load_is_low(self):
        (load, waited_s), slept_s = self.wait([2.0, 1.0, 1.0, 0.4], 300)
        self.assertLess(load, quiet.QUIET_LOAD)
        self.assertEqual(waited_s, slept_s)
        self.assertGreater(slept_s, 0)

    def test_the_wait_ends_when_the_patience_does(self):
        (load, _), slept_s = self.wait([2.0], 300)
        self.assertEqual(load, 2.0)
        self.assertEqual(slept_s, 300)

    def test_results_are_marked_by_what_the_run_recorded_or_else_by_their_load(self):
        self.assertTrue(quiet.under_load({"underLoad": True, "machine": {"load": 0.1}}))
        self.assertTrue(quiet.under_load({"machine": {"load": 3.5}}))
        self.assertFalse(quiet.under_load({"machine": {"load": 0.2}}))


def run_of(figures, **facts):
    return {"machine": {"load": 0.1}, "sizes": {"passes": 2}, "versions": {}, "absent": {}, "failures": {},
            "figures": figures, **facts}


class Stored(unittest.TestCase):
    def test_results_are_read_as_they_were_saved(self):
        raw = run_of({"M1": {"unpinned": {OURS: [{"ops": 1.5, "refused": 2}, {"ops": 2.5, "refused": None}]}}},
                     underLoad=True, failures={"M2": {"unpinned": {"redis": "no answer"}}})
        with tempfile.TemporaryDirectory() as folder:
            results.save(raw, folder)
            self.assertEqual(results.load(folder), raw)

    def test_the_results_in_the_repository_give_a_report(self):
        folder = os.path.join(ROOT, "bench", "results")
        text = report.text(results.Results(results.load(folder), SYSTEMS), folder)
        self.assertIn("### Summary", text)
        self.assertIn("### M5", text)


class CacheLine(unittest.TestCase):
    """Passes with near CPUs and with far ones are two sets of figures."""

    NEAR_AND_FAR = {"M1": {"unpinned": {
        OURS: [{"ops": 1600, "lineNs": 95}, {"ops": 600, "lineNs": 500}, {"ops": 1700, "lineNs": 120},
               {"ops": None, "lineNs": 510}],
        "redis": [{"ops": 130, "lineNs": 490}]}}}

    def test_passes_are_divided_by_the_distance(self):
        run = results.Results(run_of(self.NEAR_AND_FAR), SYSTEMS)
        limit = cache_line.border(cache_line.distances(run))
        self.assertAlmostEqual(limit, 237.5)
        self.assertEqual(cache_line.divided(run, "M1", "ops", OURS, limit), ([1600, 1700], [600]))
        self.assertEqual(cache_line.divided(run, "M1", "ops", "redis", limit), ([], [130]))
        text = "\n".join(cache_line.section(run, report.spread))
        self.assertIn("| 1,650 [1,600 – 1,700] (2) | 600 (1) |", text)
        self.assertIn("| – | 130 (1) |", text)

    def test_cpus_of_one_kind_are_not_divided(self):
        self.assertIsNone(cache_line.border([100, 120, 249]))
        self.assertEqual(cache_line.border([100, 120, 250]), 250)

    def test_a_disturbed_measurement_does_not_move_the_border(self):
        self.assertEqual(cache_line.border([100, 120, 450, 370_000]), 250)

    def test_near_cpus_alone_are_one_figure(self):
        passes = [{"deliveries": 1, "lineNs": 95}, {"deliveries": 2, "lineNs": 105}]
        run = results.Results(run_of({"M3": {"unpinned": {OURS: passes}}}), SYSTEMS)
        text = "\n".join(cache_line.section(run, report.spread))
        self.assertIn("100 [95.0 – 105] ns", text)
        self.assertNotIn("|", text)

    def test_results_without_the_distance_have_no_section(self):
        run = results.Results(run_of({"M1": {"unpinned": {OURS: [{"ops": 1600}]}}}), SYSTEMS)
        self.assertEqual(cache_line.section(run, report.spread), [])


class Summary(unittest.TestCase):
    def test_the_relay_is_compared_pass_by_pass(self):
        taken = results.Results(run_of({
            "M2": {"unpinned": {OURS: [{"p50": 10_000}, {"p50": 90_000}, {"p50": 30_000}]}},
            "M2 relay": {"unpinned": {"3": [{"p50": 10_000}, {"p50": 30_000}, {"p50": 15_000}]}}}), SYSTEMS)
        self.assertEqual(summary.against_relay(taken, "3"), "2.00 × (30.0 µs, 15.0 µs)")
        self.assertIsNone(summary.against_relay(taken, "4"))

    def test_the_best_peer_acknowledges_through_a_broker(self):
        passes = {OURS: 30, "redis": 10, "mosquitto": 15, "iceoryx": 90, "cyclonedds": 60}
        taken = results.Results(run_of({"M1": {"unpinned": {name: [{"ops": ops}] for name, ops in passes.items()}}}), SYSTEMS)
        self.assertEqual(summary.against(taken, "M1", "unpinned", "ops", max), "2.00 × mosquitto")

    def test_the_worst_pass_is_compared_with_the_median(self):
        taken = results.Results(run_of({"M1": {"unpinned": {OURS: [{"ops": 100}, {"ops": 40}, {"ops": 80}]}}}), SYSTEMS)
        self.assertEqual(summary.worst_pass(taken, "M1", "ops"), "0.50 (3 passes)")


if __name__ == "__main__":
    unittest.main()
