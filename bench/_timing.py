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


def best_in_turns(fns, repeat=3):
    """The shortest wall-clock run of each of ``fns`` (label -> function),
    over ``repeat`` rounds that run each once in turn: a busy moment of the
    machine then spoils one run of every figure rather than all runs of one,
    and the ratios between them stay fair."""
    times = {label: float("inf") for label in fns}
    for _ in range(repeat):
        for label, fn in fns.items():
            times[label] = min(times[label], best(fn, 1))
    return times


def best_cpu(fn, repeat=3):
    """The shortest CPU time of all threads over ``repeat`` runs of ``fn()``:
    less sensitive than wall time to other processes competing for the cores."""
    times = []
    for _ in range(repeat):
        start = time.process_time()
        fn()
        times.append(time.process_time() - start)
    return min(times)


def grid_dataset(rows, columns, surface, displacement, seed=0, invalid=0.05):
    """One 3-D AOI of rows x columns points at 0.05 mm spacing, centred on 0.

    ``surface(x, y)`` gives Z and ``displacement(x, y, noise)`` the U, V, W
    arrays, ``noise()`` drawing 2e-4 mm of Gaussian noise per point; about
    ``invalid`` of the points are invalid.
    """
    import numpy as np
    import zelpy

    kind = zelpy.ZelDataVariableType
    rng = np.random.default_rng(seed)
    r, c = np.mgrid[0:rows, 0:columns].astype(np.float64)
    x = (c - columns / 2) * 0.05
    y = -(r - rows / 2) * 0.05
    u, v, w = displacement(x, y, lambda: rng.normal(scale=2e-4, size=x.shape))
    fields = {
        "X": (kind.GlobalCoordinate, x), "Y": (kind.GlobalCoordinate, y),
        "Z": (kind.GlobalCoordinate, surface(x, y)),
        "U": (kind.GlobalDisplacement, u), "V": (kind.GlobalDisplacement, v),
        "W": (kind.GlobalDisplacement, w),
        "x": (kind.PixelCoordinate, c), "y": (kind.PixelCoordinate, r),
        "sigma": (kind.Correlation, np.where(rng.uniform(size=x.shape) < invalid, -1.0, 0.01)),
    }
    ds = zelpy.ZelDataSet()
    ds.add_aoi(rows, columns, "aoi0")
    for name, (variable_kind, values) in fields.items():
        ds.add_variable(name, name, variable_kind)
        ds[0].variable_view(name)[...] = values
    return ds
