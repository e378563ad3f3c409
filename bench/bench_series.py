"""Series operations against reading the same files.

    python bench/bench_series.py [--datasets 1000] [--size 500] [--distinct 20] [--repeat 3]
                                 [--lost 20]

A series of --datasets files of --size x --size points (the demo plate with
its hole, 16 variables after strain, as a measurement has them) is written
as .out files: --distinct different datasets, linked under the remaining
names, so that the series fits the page cache and the figures are the
processing cost, not the disk's. In each distinct dataset --lost random
points are invalid, as correlation loses and regains points from image to
image, so that the probe meets grids whose validity changes. Baseline: `ZelDataSet.load` of every file,
measured in the same run. Then, as datasets/s and as the ratio to the
baseline:

- `Series.map` of a function that does nothing (the loop's own cost);
- `Series.probe` of 10 points x 3 variables (one point in the hole);
- the same probe with a fresh look-up in every dataset (`at_global_xy`
  with the tree), which is what the locate-once path saves;
- `Series.reduce` of 3 variables x 4 statistics;
- the probe on a local cluster of 2 worker processes (--cluster).

Each figure is the best of --repeat runs, taken in turns.
"""

import argparse
import os
import sys
import tempfile

import numpy as np

from zelpy import series as zseries
from zelpy.demo import DemoSeries, build_dataset

sys.path.insert(0, os.path.dirname(__file__))
from _timing import best, best_in_turns  # noqa: E402

POINTS = [(-30, -30), (-30, 0), (-30, 30), (0, 11), (0, -20), (0, 0),
          (20, 20), (25, -5), (35, 35), (-12.5, 7.25)]
VARIABLES = ["e1", "U", "W"]


class _Nothing:
    def __call__(self, ds):
        return None


class _Fresh:
    """A look-up from scratch in every dataset."""

    def __call__(self, ds):
        return [ds.at_global_xy(x, y, VARIABLES, use_tree=True) for x, y in POINTS]


def make_series(directory, count, size, distinct, lost=0):
    plan = DemoSeries(size=size, steps=distinct)
    rng = np.random.default_rng(1)
    sources = []
    for step in range(distinct):
        ds = build_dataset(plan, step, rng, directory, stem="base")
        ds[0].variable_view("sigma").reshape(-1)[rng.integers(0, size * size, lost)] = -1
        ds.compute_strain(window_size=15)
        path = os.path.join(directory, f"base-{step:04d}_0.out")
        ds.save(path)
        sources.append(path)
    for k in range(count):
        os.link(sources[k % distinct], os.path.join(directory, f"plate-{k:05d}_0.out"))
    for path in sources:
        os.remove(path)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--datasets", type=int, default=1000)
    parser.add_argument("--size", type=int, default=500)
    parser.add_argument("--distinct", type=int, default=20)
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--lost", type=int, default=20)
    parser.add_argument("--cluster", action="store_true")
    args = parser.parse_args()

    with tempfile.TemporaryDirectory() as tmp:
        make_series(tmp, args.datasets, args.size, args.distinct, args.lost)
        series = zseries.Series(tmp)
        n = len(series)

        def load_all():
            for name in series.names:
                zseries.load(name)

        quiet = dict(progress=False, executor="inline")
        probe = series.probe(POINTS, VARIABLES, **quiet)
        figures = list(best_in_turns({
            "ZelDataSet.load alone": load_all,
            "Series.map (no-op)": lambda: series.map(_Nothing(), **quiet),
            "Series.probe 10 x 3": lambda: series.probe(POINTS, VARIABLES, **quiet),
            "Series.reduce 3 x 4": lambda: series.reduce(VARIABLES, **quiet),
        }, args.repeat).items())
        fresh = series.map(_Fresh(), stages=range(min(n, 100)), **quiet)
        t_fresh = best(lambda: series.map(_Fresh(), stages=range(min(n, 100)), **quiet), 1)
        figures.append(("fresh at_global_xy per dataset", t_fresh * n / min(n, 100)))
        if args.cluster:
            client = zseries.local_client(2)
            series.probe(POINTS, VARIABLES, executor=client, progress=False)   # warm-up
            figures.append(("Series.probe 10 x 3, 2-worker cluster",
                            best(lambda: series.probe(POINTS, VARIABLES, executor=client,
                                                      progress=False), args.repeat)))

        # The reused locations must give what a fresh look-up gives.
        for row, values in zip(probe.to_numpy()[:len(fresh)], fresh):
            want = np.array([[np.nan] * 3 if v is None else v for v in values]).ravel()
            np.testing.assert_array_equal(row, want)

    base = figures[0][1]
    print(f"series: {n} datasets of {args.size}x{args.size} points, {args.distinct} distinct "
          f"(page cache), {args.lost} points lost in each, {os.cpu_count()} cores, "
          f"best of {args.repeat}")
    for label, seconds in figures:
        print(f"{label:40s} {n / seconds:8.1f} datasets/s  {base / seconds:5.2f}x load")


if __name__ == "__main__":
    main()
