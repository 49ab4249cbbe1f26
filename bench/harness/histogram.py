"""Histograms of durations in ns, with the buckets of an HdrHistogram of three significant digits.

driver/histogram.h counts in the same buckets. Results store a histogram as the text that the HdrHistogram libraries read
and write (encoding V2, compressed), so that their tools can check a percentile or merge passes.
"""

import base64
import bisect
import fractions
import itertools
import struct
import zlib

LEAST_BEYOND = 100      # samples that a percentile needs beyond it

_HALF = 1024            # buckets for each doubling; the first 2 * _HALF are one ns wide
_DIGITS = 3
_HIGHEST_NS = 3_600_000_000_000
_COOKIE = 0x1C849313            # V2, counts as variable-length integers
_COOKIE_COMPRESSED = 0x1C849314
_HEADER = struct.Struct(">iiiiqqd")
_HEADER_COMPRESSED = struct.Struct(">ii")


def bucket_of(ns):
    shift = max(ns.bit_length() - _HALF.bit_length(), 0)
    return shift * _HALF + (ns >> shift)


def highest_of(bucket):
    """The highest duration that `bucket` counts, which stands for all of them, as in HdrHistogram."""
    shift = max(bucket // _HALF - 1, 0)
    return ((bucket - shift * _HALF + 1) << shift) - 1


class Histogram:
    """Counts by bucket. Nothing changes a histogram once it is made."""

    def __init__(self, counts):
        self._buckets = sorted(bucket for bucket, count in counts.items() if count > 0)
        self._counts = [counts[bucket] for bucket in self._buckets]
        self._up_to = list(itertools.accumulate(self._counts))

    @classmethod
    def of_pairs(cls, pairs):
        """From what a driver prints: [a duration in the bucket, count] for each bucket."""
        counts = {}
        for ns, count in pairs:
            counts[bucket_of(ns)] = counts.get(bucket_of(ns), 0) + count
        return cls(counts)

    @classmethod
    def merged(cls, histograms):
        counts = {}
        for one in histograms:
            for bucket, count in zip(one._buckets, one._counts):
                counts[bucket] = counts.get(bucket, 0) + count
        return cls(counts)

    def __eq__(self, other):
        return (self._buckets, self._counts) == (other._buckets, other._counts)

    @property
    def total(self):
        return self._up_to[-1] if self._up_to else 0

    @property
    def highest(self):
        return highest_of(self._buckets[-1]) if self._buckets else None

    def _rank(self, percentile):
        """How many samples are at or below `percentile`. Decimal fractions are exact: 99.9 % of 1000 are 999."""
        share = fractions.Fraction(str(percentile)) / 100
        return max(-(-self.total * share.numerator // share.denominator), 1)

    def beyond(self, percentile):
        return max(self.total - self._rank(percentile), 0)

    def percentile(self, percentile):
        """In ns, or None with fewer than LEAST_BEYOND samples beyond it."""
        if self.beyond(percentile) < LEAST_BEYOND:
            return None
        return highest_of(self._buckets[bisect.bisect_left(self._up_to, self._rank(percentile))])

    def encode(self):
        payload = bytearray()
        expected = 0
        for bucket, count in zip(self._buckets, self._counts):
            if bucket > expected:
                payload += _variable(expected - bucket)     # a negative number skips empty buckets
            payload += _variable(count)
            expected = bucket + 1
        plain = _HEADER.pack(_COOKIE, len(payload), 0, _DIGITS, 1, _HIGHEST_NS, 1.0) + payload
        packed = zlib.compress(plain, 9)
        return base64.b64encode(_HEADER_COMPRESSED.pack(_COOKIE_COMPRESSED, len(packed)) + packed).decode()

    @classmethod
    def decode(cls, text):
        raw = base64.b64decode(text)
        cookie, size = _HEADER_COMPRESSED.unpack_from(raw)
        if cookie != _COOKIE_COMPRESSED:
            raise ValueError("not a compressed histogram of encoding V2")
        plain = zlib.decompress(raw[_HEADER_COMPRESSED.size:_HEADER_COMPRESSED.size + size])
        cookie, size, offset, digits, lowest, _, _ = _HEADER.unpack_from(plain)
        if (cookie, offset, digits, lowest) != (_COOKIE, 0, _DIGITS, 1):
            raise ValueError("not a histogram of ns with three significant digits")
        counts, bucket = {}, 0
        for number in _numbers(plain[_HEADER.size:_HEADER.size + size]):
            if number < 0:
                bucket -= number
            else:
                counts[bucket] = number
                bucket += 1
        return cls(counts)


def _variable(number):
    """A zigzag LEB128 integer; the ninth byte, if there is one, has eight bits."""
    rest = number << 1 if number >= 0 else (-number << 1) - 1
    coded = bytearray()
    while rest >= 0x80 and len(coded) < 8:
        coded.append(rest & 0x7F | 0x80)
        rest >>= 7
    coded.append(rest)
    return coded


def _numbers(coded):
    position = 0
    while position < len(coded):
        value = 0
        for place in range(9):
            byte = coded[position]
            position += 1
            value |= (byte if place == 8 else byte & 0x7F) << (7 * place)
            if byte < 0x80:
                break
        yield (value >> 1) ^ -(value & 1)
