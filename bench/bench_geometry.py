"""Geometry figures on a dataset of 4 AOIs x 500 x 500 points (1 M points).

Each figure is a ratio to a numpy baseline doing the same arithmetic in the
same run on the same arrays:
    transform             vs numpy R p + t, R d, R**4 sigma on the float32 views (masked)
    transform disp. only  vs numpy T(p + d) - p on the views (masked)
    from_displacement     vs numpy: collect valid points, centre, SVD of the 3x3 covariance
    plane_fit             vs numpy: collect valid points, centre, SVD of the 3x3 scatter
Run: python bench/bench_geometry.py
"""


import numpy as np

from _timing import best

import zelpy

T = zelpy.ZelDataVariableType
NAMES = [("X", T.GlobalCoordinate), ("Y", T.GlobalCoordinate), ("Z", T.GlobalCoordinate),
         ("U", T.GlobalDisplacement), ("V", T.GlobalDisplacement), ("W", T.GlobalDisplacement),
         ("SIGMA_X", T.GlobalDisplacement), ("SIGMA_Y", T.GlobalDisplacement),
         ("SIGMA_Z", T.GlobalDisplacement), ("confidence", T.Correlation)]


def build(aois=4, rows=500, columns=500):
    rng = np.random.default_rng(0)
    ds = zelpy.ZelDataSet()
    for i in range(aois):
        ds.add_aoi(rows, columns, "aoi%d" % i)
    for name, kind in NAMES:
        ds.add_variable(name, name, kind)
        for i in range(aois):
            v = ds[i].variable_view(name)
            v[...] = rng.uniform(0, 0.05, v.shape) if name.startswith(("SIGMA", "conf")) else rng.normal(size=v.shape)
            if name == "confidence":
                v[::7] = -1.0
    return ds


def views(ds):
    return [{name: ds[i].variable_view(name) for name, _ in NAMES} for i in range(ds.num_data())]


def numpy_transform(vs, m, displacement_only=False):
    r, t = m[:3, :3], m[:3, 3]
    r4 = r ** 4
    for v in vs:
        ok = v["confidence"] >= 0
        p = np.stack([v[k][ok] for k in "XYZ"]).astype(np.float64)
        d = np.stack([v[k][ok] for k in "UVW"]).astype(np.float64)
        if displacement_only:
            nd = r @ (p + d) + t[:, None] - p
            for k, row in zip("UVW", nd):
                v[k][ok] = row
            continue
        s = np.stack([v[k][ok] for k in ("SIGMA_X", "SIGMA_Y", "SIGMA_Z")]).astype(np.float64)
        for names, rows in (("XYZ", r @ p + t[:, None]), ("UVW", r @ d),
                            (("SIGMA_X", "SIGMA_Y", "SIGMA_Z"), r4 @ s)):
            for k, row in zip(names, rows):
                v[k][ok] = row


def numpy_collect(vs, displaced):
    ps = []
    for v in vs:
        ok = v["confidence"] >= 0
        p = np.stack([v[k][ok] for k in "XYZ"], axis=1).astype(np.float64)
        if displaced:
            p = np.stack([p, p + np.stack([v[k][ok] for k in "UVW"], axis=1)])
        ps.append(p)
    return np.concatenate(ps, axis=-2)


def numpy_kabsch(vs):
    p, q = numpy_collect(vs, True)
    pc, qc = p - p.mean(0), q - q.mean(0)
    u, w, vt = np.linalg.svd(qc.T @ pc)
    return vt.T @ u.T


def numpy_plane(vs):
    p = numpy_collect(vs, False)
    c = p - p.mean(0)
    return np.linalg.svd(c.T @ c)[2][2]


def main():
    ds = build()
    vs = views(ds)
    t = zelpy.RigidTransformation(10, 20, 30, 1, 2, 3)
    m = t.matrix()
    print("points: %d" % ds.matrix_size())
    figures = [
        ("transform", lambda: ds.transform(rigid_trnasformation=t), lambda: numpy_transform(vs, m)),
        ("transform displacement only", lambda: ds.transform(rigid_trnasformation=t, displacement_only=True),
         lambda: numpy_transform(vs, m, True)),
        ("from_displacement", lambda: zelpy.RigidTransformation().from_displacement(ds), lambda: numpy_kabsch(vs)),
        ("plane_fit", lambda: zelpy.RigidTransformation().plane_fit(ds, True), lambda: numpy_plane(vs)),
    ]
    for name, ours, baseline in figures:
        a, b = best(ours), best(baseline)
        print("%-28s %8.1f ms   numpy %8.1f ms   ratio %.2f" % (name, a * 1e3, b * 1e3, a / b))


if __name__ == "__main__":
    main()
