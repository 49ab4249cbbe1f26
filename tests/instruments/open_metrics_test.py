"""Defends that a parser of others reads the metrics: the format is right to the letter, types and units belong to the
names, and label values come back as they were.
"""

import subprocess
import sys
import unittest

from prometheus_client.openmetrics.parser import text_string_to_metric_families


class OpenMetrics(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        text = subprocess.run([sys.argv[-1]], check=True, capture_output=True, timeout=60).stdout.decode()
        cls.families = {family.name: family for family in text_string_to_metric_families(text)}

    def value(self, family, **labels):
        found = [sample.value for sample in self.families[family].samples if sample.labels == labels]
        self.assertEqual(len(found), 1, f"{family} {labels}")
        return found[0]

    def test_every_family_is_described_and_begins_with_the_prefix(self):
        self.assertGreater(len(self.families), 30)
        for name, family in self.families.items():
            self.assertTrue(name.startswith("msgbus_"), name)
            self.assertTrue(family.documentation.endswith("."), name)
            self.assertNotEqual(family.type, "unknown", name)

    def test_names_have_their_units(self):
        for name, family in self.families.items():
            for unit in ("seconds", "bytes"):
                self.assertEqual(family.unit == unit, name.endswith(unit), name)

    def test_label_values_come_back(self):
        for topic in ("temperature", 'a"b\\\\c\\nd\\xff', "", "\u00e9t\u00e9", "{},=# \\t"):
            self.assertEqual(self.value("msgbus_topic_values_accepted", topic=topic), 661)

    def test_series_are_unique_and_few(self):
        series = set()
        for family in self.families.values():
            for sample in family.samples:
                key = (sample.name, tuple(sorted(sample.labels.items())))
                self.assertNotIn(key, series)
                series.add(key)
        self.assertLess(len(series), 8000)
        self.assertIn(("msgbus_topic_values_accepted_total", (("topic", "\\rest"),)), series)

    def test_latency_is_a_histogram(self):
        latency = self.families["msgbus_delivery_latency_seconds"]
        self.assertEqual(latency.type, "histogram")
        buckets = [sample.value for sample in latency.samples if sample.name.endswith("_bucket")]
        self.assertEqual(buckets, sorted(buckets))
        self.assertEqual(buckets[-1], 3)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:-1])
