"""Surface analysis figures on one 1000 x 1000 3-D AOI with ~5 % invalid points.

Each figure is measured in this run against a baseline measured in the same run:
    compute_curvature (window 15, principal, with displacements): points per
        second, and speed-up over the same weighted quadric fit written with
        numpy (normal equations of every point's window by matrix products,
        one batched solve per grid row; target >= 20x); window 31 / window 15
        cost ratio (target <= 4.5); 1 worker vs all
    at_global_xy: time per query through the kd-tree (target < 20 us), the
        tree's build time (target < 0.5 s), and per query without the tree;
        the two-step _locate / _interpolate used for series
    aoi_area, range, find_minimum: time against the equivalent numpy
        expression and against one bare numpy pass over the same arrays
        (target < 2x the latter)
Run: python bench/bench_surface.py [rows columns]
The numpy baselines run with single-threaded BLAS: on a shared 2-core machine
BLAS threads only compete with each other.
"""

import os

os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")
os.environ.setdefault("OMP_NUM_THREADS", "1")

import sys  # noqa: E402

import numpy as np  # noqa: E402
from numpy.lib.stride_tricks import sliding_window_view  # noqa: E402

from _timing import best, best_cpu, grid_dataset  # noqa: E402
from zelpyx.zelpy import zelpy as core  # noqa: E402
import zelpy  # noqa: E402

T = zelpy.ZelDataVariableType


def build(rows, columns, seed=0):
    """A shallow ellipsoidal cap, stretched and bent, with noisy displacements."""
    return grid_dataset(
        rows, columns, lambda x, y: 100 - np.sqrt(100 ** 2 - x * x - 0.5 * y * y),
        lambda x, y, noise: (0.01 * x + noise(), -0.003 * y + noise(), x * x / 400 + noise()),
        seed)


def numpy_curvature(channels, valid, window, rows):
    """k1, k2 of the deformed surface at the points of `rows`, fitted the
    straightforward way: per point the weighted normal equations of the
    quadric over its window, solved in one batch per grid row."""
    h = window // 2
    i = np.arange(-h, h + 1)
    e = np.exp(-np.float32(6.283 / (window * window)) * (i * i).astype(np.float32)).astype(np.float64)
    off = i / h
    yy, xx = np.meshgrid(off, off, indexing="ij")
    basis = np.stack([np.ones_like(xx), xx, yy, xx * xx, xx * yy, yy * yy], -1).reshape(-1, 6)
    products = (basis[:, :, None] * basis[:, None, :]).reshape(-1, 36)
    weights = (e[:, None] * e[None, :]).reshape(-1)
    pad = ((h, h), (h, h))
    mask = np.pad(valid.astype(np.float64), pad)
    padded = [np.pad(np.where(valid, ch, 0.0), pad) for ch in channels]
    columns = valid.shape[1]
    k1 = np.zeros((len(rows), columns))
    k2 = np.zeros((len(rows), columns))
    for n, r in enumerate(rows):
        def windows(a):
            return sliding_window_view(a[r:r + window], (window, window))[0].reshape(columns, -1)
        mw = windows(mask) * weights
        normal = (mw @ products).reshape(columns, 6, 6)
        rhs = np.stack([(mw * windows(ch)) @ basis for ch in padded], -1)
        ok = np.linalg.det(normal) > 0
        normal[~ok] = np.eye(6)
        beta = np.linalg.solve(normal, rhs)
        d = beta[:, :, :3] + beta[:, :, 3:]
        px, py, pxx, pxy, pyy = d[:, 1], d[:, 2], 2 * d[:, 3], d[:, 4], 2 * d[:, 5]
        normal_vector = np.cross(px, py)
        normal_vector /= np.linalg.norm(normal_vector, axis=1, keepdims=True)
        t1 = np.stack([normal_vector[:, 2], np.zeros(columns), -normal_vector[:, 0]], 1)
        t1 /= np.linalg.norm(t1, axis=1, keepdims=True)
        t2 = np.cross(t1, normal_vector)
        m = np.stack([np.stack([(t1 * px).sum(1), (t1 * py).sum(1)], 1),
                      np.stack([(t2 * px).sum(1), (t2 * py).sum(1)], 1)], 1)
        b = np.stack([np.stack([(pxx * normal_vector).sum(1), (pxy * normal_vector).sum(1)], 1),
                      np.stack([(pxy * normal_vector).sum(1), (pyy * normal_vector).sum(1)], 1)], 1)
        q = np.linalg.inv(m)
        eigen = np.linalg.eigvalsh(np.einsum("pki,pkl,plj->pij", q, b, q))
        k1[n], k2[n] = eigen[:, 1], eigen[:, 0]
    return k1, k2


def curvature_figures(ds, rows, columns):
    points = rows * columns
    copy_time = best(ds.copy, 3)
    copy_cpu = best_cpu(ds.copy)

    def run(window):
        return lambda: ds.copy().compute_curvature(window)

    t15 = best(run(15), 3) - copy_time
    cpu15 = best_cpu(run(15)) - copy_cpu
    t31 = best(run(31), 3) - copy_time
    previous = core._set_analysis_workers(1)
    t15_one = best(run(15), 3) - copy_time
    t31_one = best(run(31), 3) - copy_time
    core._set_analysis_workers(previous)

    a = ds[0]
    channels = [a.variable_view(n).astype(np.float64) for n in ("X", "Y", "Z", "U", "V", "W")]
    valid = a.variable_view("sigma") >= 0
    sample = range(rows // 2, rows // 2 + 8)
    tb = best(lambda: numpy_curvature(channels, valid, 15, sample), 2) / (len(sample) * columns)
    tb31 = best(lambda: numpy_curvature(channels, valid, 31, sample), 1) / (len(sample) * columns)
    done = ds.copy()
    done.compute_curvature(15)
    k1, k2 = numpy_curvature(channels, valid, 15, sample)
    mine = done[0].variable_view("k1")[sample.start:sample.stop]
    agree = np.max(np.abs(mine - k1)[valid[sample.start:sample.stop]])

    print("compute_curvature w15: %.3f s, %.2f M points/s; numpy baseline %.1f us/point: %.1fx faster"
          % (t15, points / t15 / 1e6, tb * 1e6, tb * points / t15))
    print("  with 1 worker: %.3f s (%.1fx the numpy baseline, which runs on one core too); "
          "CPU time all workers %.3f s" % (t15_one, tb * points / t15_one, cpu15))
    print("  w31: %.3f s, cost ratio w31/w15 = %.2f (1 worker: %.2f); numpy baseline at w31 %.1f us/point"
          % (t31, t31 / t15, t31_one / t15_one, tb31 * 1e6))
    print("  k1 against the numpy fit: max |difference| = %.1e 1/mm" % agree)


def lookup_figures(ds, rows, columns):
    rng = np.random.default_rng(1)
    # Read-only views: a writable one alive would keep the look-ups off the tree.
    x = ds[0].variable_view("X", writable=False)
    y = ds[0].variable_view("Y", writable=False)
    queries = np.stack([rng.uniform(x.min(), x.max(), 10000), rng.uniform(y.min(), y.max(), 10000)], 1)
    names = ["U", "V", "W"]

    # A copy has no tree yet: its first query builds one.
    one_query = best(lambda: ds.at_global_xy(1.0, 1.0, names, True), 50)
    build_time = best(lambda: ds.copy().at_global_xy(0.0, 0.0, names, True), 3) - best(ds.copy, 3) - one_query
    ds.at_global_xy(0.0, 0.0, names, True)

    def tree_queries():
        for qx, qy in queries:
            ds.at_global_xy(qx, qy, names, True)

    tq = best(tree_queries, 3) / len(queries)
    few = queries[:20]

    def brute_queries():
        for qx, qy in few:
            ds.at_global_xy(qx, qy, names)

    tbf = best(brute_queries, 1) / len(few)
    locations = [ds._locate(qx, qy) for qx, qy in queries[:2000]]
    locations = [loc for loc in locations if loc is not None]

    def interpolate():
        for loc in locations:
            ds._interpolate(loc, names)

    ti = best(interpolate, 3) / len(locations)
    found = sum(ds.at_global_xy(qx, qy, names, True) is not None for qx, qy in queries[:2000])
    print("at_global_xy on %d points: tree build %.3f s; %.2f us per query with the tree, %.0f us without "
          "(%.0fx); %d of 2000 random positions inside" % (rows * columns, build_time, tq * 1e6, tbf * 1e6,
                                                            tbf / tq, found))
    print("  _interpolate of 3 variables at a stored location: %.2f us" % (ti * 1e6))


def statistics_figures(ds):
    a = ds[0]
    v = a.variable_view("W")
    conf = a.variable_view("sigma")
    X, Y, Z = (a.variable_view(n) for n in ("X", "Y", "Z"))
    mesh = ds.triangulation().astype(np.int64)
    p = np.stack([X.ravel(), Y.ravel(), Z.ravel()], 1).astype(np.float64)

    def numpy_area():
        e1 = p[mesh[:, 1]] - p[mesh[:, 0]]
        e2 = p[mesh[:, 2]] - p[mesh[:, 0]]
        return 0.5 * np.linalg.norm(np.cross(e1, e2), axis=1).sum()

    def numpy_range():
        values = v[(conf >= 0) & np.isfinite(v)]
        return values.min(), values.max()

    def numpy_minimum():
        masked = np.where((conf >= 0) & np.isfinite(v), v, np.inf)
        index = int(np.argmin(masked))
        return masked.flat[index], index

    # The bare passes read each array the library reads once (its floor).
    rows = [
        ("aoi_area", ds.aoi_area, numpy_area, lambda: (X.sum(), Y.sum(), Z.sum(), conf.sum()),
         "sums of X, Y, Z, sigma"),
        ("range", lambda: ds.range("W"), numpy_range, lambda: (v.min(), conf.min()), "min of W, of sigma"),
        ("find_minimum", lambda: a.find_minimum("W"), numpy_minimum, lambda: (v.min(), conf.min()),
         "min of W, of sigma"),
    ]
    for name, mine, equivalent, floor, what in rows:
        tm = best(mine, 20)
        te = best(equivalent, 5)
        tf = best(floor, 20)
        print("%s: %.2f ms; numpy equivalent %.2f ms (%.1fx faster); one numpy pass (%s) %.2f ms: %.2fx that"
              % (name, tm * 1e3, te * 1e3, te / tm, what, tf * 1e3, tm / tf))
    assert abs(ds.aoi_area() - numpy_area()) < 1e-6 * numpy_area()
    assert ds.range("W") == tuple(float(t) for t in numpy_range())


def main():
    rows, columns = (int(sys.argv[1]), int(sys.argv[2])) if len(sys.argv) > 2 else (1000, 1000)
    ds = build(rows, columns)
    print("dataset: %d x %d 3-D AOI, %.1f %% invalid, %d workers, load average %.1f"
          % (rows, columns, 100 * (ds[0].variable_view("sigma") < 0).mean(), core._analysis_workers(),
             os.getloadavg()[0]))
    curvature_figures(ds, rows, columns)
    lookup_figures(ds, rows, columns)
    statistics_figures(ds)


if __name__ == "__main__":
    main()
