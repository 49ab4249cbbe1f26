"""The modes of a figure: whether its passes fall into two groups."""

import statistics

LEAST_GROUP = 2
LEAST_RATIO = 1.5


def modes(passes):
    """Returns: ((median, number of passes), the same of the upper group), or None when the passes form one group.

    The widest gap that leaves at least two passes on each side splits the passes. They are two groups only if the upper
    median is more than 1.5 times the lower one, and the gap is wider than each group.
    """
    ordered = sorted(passes)
    splits = range(LEAST_GROUP, len(ordered) - LEAST_GROUP + 1)
    if not splits:
        return None
    split = max(splits, key=lambda i: ordered[i] - ordered[i - 1])
    low, high = ordered[:split], ordered[split:]
    gap = high[0] - low[-1]
    apart = statistics.median(high) > LEAST_RATIO * statistics.median(low)
    if not apart or gap <= low[-1] - low[0] or gap <= high[-1] - high[0]:
        return None
    return (statistics.median(low), len(low)), (statistics.median(high), len(high))
