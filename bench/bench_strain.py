"""Analysis figures on one 1000 x 1000 3-D AOI with ~5 % invalid points.

Each figure is measured in this run against a baseline measured in the same run:
    compute_strain (window 15, Lagrange, principal + Tresca + von Mises):
        points per second, and speed-up over a straightforward numpy/scipy
        implementation of the same 7-channel plane-fit smoothing (target >= 20x,
        >= 5 million points/s)
    compute_strain window 31 vs window 15 cost ratio (target <= 2.5)
    compute_strain with 1 worker vs all workers
    smooth of one variable: points per second, speed-up over the numpy/scipy
        baseline for one channel
    triangulation time as a fraction of load time of the same dataset (target < 10 %),
        and against writing a fresh array of the same size (its floor)
Run: python bench/bench_strain.py [rows columns]
"""

import os
import sys
import tempfile

import numpy as np
from scipy import ndimage

import zelpy
from _timing import best, best_cpu, grid_dataset
from zelpyx.zelpy import zelpy as core

T = zelpy.ZelDataVariableType


def build(rows, columns, seed=0):
    """A gently curved plate, stretched with a little bending and noise."""
    return grid_dataset(
        rows, columns, lambda x, y: 0.002 * x * x,
        lambda x, y, noise: (0.01 * x + 0.002 * np.sin(y) + noise(),
                             -0.003 * y + 0.001 * x * y / 25 + noise(),
                             0.0005 * x + noise()),
        seed)


def kernel_1d(window):
    h = window // 2
    i = np.arange(-h, h + 1)
    a = np.float32(6.283 / (window * window))
    return np.exp(-a * (i * i).astype(np.float32)).astype(np.float64), i.astype(np.float64)


def baseline_smooth(channels, valid, window):
    """The plane fit written the straightforward way: one 2-D correlation
    (scipy.ndimage, zero outside the grid) per weighted moment, then the 3 x 3
    solve vectorised over the points."""
    e, offsets = kernel_1d(window)
    w = e[:, None] * e[None, :]
    xs = offsets[None, :] * np.ones_like(offsets)[:, None]   # column offset
    ys = offsets[:, None] * np.ones_like(offsets)[None, :]   # row offset
    m = valid.astype(np.float64)

    def corr(field, weights):
        return ndimage.correlate(field, weights, mode="constant", cval=0.0)

    s00, s10, s01 = corr(m, w), corr(m, w * xs), corr(m, w * ys)
    s20, s11, s02 = corr(m, w * xs * xs), corr(m, w * xs * ys), corr(m, w * ys * ys)
    normal = np.stack([np.stack([s00, s10, s01], -1), np.stack([s10, s20, s11], -1),
                       np.stack([s01, s11, s02], -1)], -2)
    det = np.linalg.det(normal)
    ok = valid & (det > 1e-9 * s00 * s20 * s02)
    inverse_row = np.linalg.inv(np.where(ok[..., None, None], normal, np.eye(3)))[..., 0, :]
    out = []
    for values in channels:
        mv = np.where(valid, values, 0.0)
        rhs = np.stack([corr(mv, w), corr(mv, w * xs), corr(mv, w * ys)], -1)
        out.append(np.where(ok, np.einsum("...k,...k->...", inverse_row, rhs), np.nan))
    return out


def main():
    rows, columns = (int(sys.argv[1]), int(sys.argv[2])) if len(sys.argv) > 2 else (1000, 1000)
    points = rows * columns
    ds = build(rows, columns)
    print("dataset: %d x %d 3-D AOI, %.1f %% invalid, %d workers, load average %.1f"
          % (rows, columns, 100 * (ds[0].variable_view("sigma") < 0).mean(), core._analysis_workers(),
             os.getloadavg()[0]))

    def strain(window):
        return lambda: ds.copy().compute_strain(window, zelpy.TensorType.LagrangeStrainTensor, True, True,
                                                True, True, True, False)

    copy_time = best(lambda: ds.copy(), 3)
    copy_cpu = best_cpu(lambda: ds.copy())
    cpu15 = best_cpu(strain(15)) - copy_cpu
    t15 = best(strain(15), 3) - copy_time
    t31 = best(strain(31), 3) - copy_time
    previous = core._set_analysis_workers(1)
    t15_one = best(strain(15), 2) - copy_time
    core._set_analysis_workers(previous)

    # Baseline: smoothing alone of the 7 work channels (3 strains, 4
    # gradients) at window 15; the library figure above also includes the
    # per-point triangle kernel and the principal, Tresca and von Mises values.
    valid = ds[0].variable_view("sigma") >= 0
    rng = np.random.default_rng(1)
    channels = [rng.normal(size=(rows, columns)) for _ in range(7)]
    tb = best(lambda: baseline_smooth(channels, valid, 15), 1)

    # Sanity: the library's channel smoother and the baseline agree.
    mine = core._smooth_channels(np.array(channels, np.float32), ds[0].variable_view("sigma"), 15,
                                 True, 0, np.full((7, rows, columns), np.nan, np.float32))
    reference = baseline_smooth([np.asarray(ch, np.float32).astype(np.float64) for ch in channels[:1]],
                                valid, 15)[0]
    agree = np.nanmax(np.abs(mine[0] - reference))

    print("compute_strain w15: %.3f s, %.2f M points/s, %.1fx faster than the numpy/scipy smoothing baseline (%.2f s)"
          % (t15, points / t15 / 1e6, tb / t15, tb))
    print("compute_strain w15 CPU time (all threads): %.3f s, %.2f M points per CPU-second"
          % (cpu15, points / cpu15 / 1e6))
    print("compute_strain w31: %.3f s, cost ratio w31/w15 = %.2f" % (t31, t31 / t15))
    print("compute_strain w15 with 1 worker: %.3f s, speed-up of all workers = %.2fx" % (t15_one, t15_one / t15))
    print("channel smoother vs baseline: max |difference| = %.2e" % agree)

    var = ds.copy()
    ts = best(lambda: var.smooth("U", 15), 3)
    tb1 = best(lambda: baseline_smooth(channels[:1], valid, 15), 1)
    print("smooth one variable w15: %.3f s, %.2f M points/s, %.1fx faster than the baseline (%.2f s)"
          % (ts, points / ts / 1e6, tb1 / ts, tb1))

    with tempfile.TemporaryDirectory() as tmp:
        path = os.path.join(tmp, "bench.out")
        ds.save(path)
        loaded = zelpy.ZelDataSet()
        tl = best(lambda: loaded.load(path), 5)
        tt = best(lambda: loaded.triangulation(), 5)
        n = loaded.triangulation().shape[0]
        # The floor of any triangulation: a fresh array of the result's size
        # written once.
        tw = best(lambda: np.empty((n, 3), np.uint32).fill(1), 5)
        print("load: %.4f s (%.1f MB); triangulation: %.4f s (%d triangles) = %.1f %% of load, "
              "%.2fx the time of writing a fresh (n, 3) uint32 array"
              % (tl, os.path.getsize(path) / 1e6, tt, n, 100 * tt / tl, tt / tw))


if __name__ == "__main__":
    main()
