"""Timing shared by the benchmark scripts."""

import time


def best(fn, repeat=7):
    """The shortest of ``repeat`` wall-clock runs of ``fn()``, in seconds.

    The minimum is the figure least disturbed by whatever else the machine
    is doing, which matters when a ratio to a baseline is reported.
    """
    times = []
    for _ in range(repeat):
        t = time.perf_counter()
        fn()
        times.append(time.perf_counter() - t)
    return min(times)
