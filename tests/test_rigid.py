"""Rigid and plane fits, and moving datasets between coordinate systems."""

import numpy as np
import pytest

import zelpy
from conftest import aoi, block, kind, variable
from zelpy import RigidTransformation, Rotation

VT = zelpy.ZelDataVariableType
KINDS = {**dict.fromkeys("XYZ", VT.GlobalCoordinate), "confidence": VT.Correlation,
         **dict.fromkeys(["U", "V", "W", "SIGMA_X", "SIGMA_Y", "SIGMA_Z"], VT.GlobalDisplacement)}
GROUPS = ("XYZ", "UVW", ("SIGMA_X", "SIGMA_Y", "SIGMA_Z"))


def build(aois):
    """A dataset with one AOI per (rows, columns, {name: values}), written as a
    data file block and decoded so that AOIs can carry different variable sets."""
    ds = zelpy.ZelDataSet()
    ds.load_from_data(block([aoi(rows, columns, [variable(name, name, kind(KINDS.get(name, VT.Unknown).value),
                                                          np.asarray(v, np.float32).ravel())
                                                 for name, v in values.items()])
                             for rows, columns, values in aois]), "geometry.out")
    return ds


def named(p, d=None, conf=None):
    """{X, Y, Z[, U, V, W][, confidence]} from n x 3 positions and displacements."""
    out = dict(zip("XYZ", np.transpose(p)))
    out.update({} if d is None else dict(zip("UVW", np.transpose(d))))
    return out if conf is None else {**out, "confidence": conf}


def snapshot(ds, groups):
    """Per AOI, each group of variables as an n x k float64 array."""
    return [{g: np.column_stack([ds.data(i).as_array([k])[k].astype(np.float64) for k in g]) for g in groups}
            for i in range(ds.num_data())]


def random_motion(rng):
    return RigidTransformation(*rng.uniform(-60, 60, 3), *rng.uniform(-20, 20, 3))


def apply_all(t, pts):
    m = t.matrix()
    return pts @ m[:3, :3].T + m[:3, 3]


# ------------------------------------------------------------ point set fits

@pytest.mark.parametrize("seed", range(3))
def test_fit_recovers_known_motion_from_noisy_points(seed):
    rng = np.random.default_rng(seed)
    n, sigma = 3000, 0.02
    reference = rng.uniform(-1, 1, (n, 3)) * (100, 75, 20)
    motion = random_motion(rng)
    noisy = [p + rng.normal(0, sigma, p.shape) for p in (reference, apply_all(motion, reference))]
    fit = RigidTransformation()
    ok, residual = fit.fit_points(*noisy)
    assert ok
    # The fit maps deformed onto reference, so it undoes the motion. Angle
    # error per axis about sigma*sqrt(2) / (sqrt(n) * rms lever arm ~ 45) =
    # 1.1e-5; the three axes together about 2e-5.
    undo = (fit * motion).matrix()[:3, :3]
    assert np.arccos(np.clip((np.trace(undo) - 1) / 2, -1, 1)) < 8e-5
    assert np.abs(apply_all(fit * motion, reference) - reference).max() < 5e-3
    # Each coordinate difference carries the noise of both sets (variance
    # 2 sigma^2); the six fitted parameters take 6 of the 3n degrees of
    # freedom: E[residual^2] = 2 sigma^2 (3n - 6) / 3n. With 3n = 9000 the
    # sample scatter of the residual is under 1 %.
    expected = sigma * np.sqrt(2 * (n - 2) / n)
    assert residual == pytest.approx(expected, rel=0.04)


@pytest.mark.parametrize("n,num,still", [(40, -1, True), (3, -1, False), (20, 10, False)])
def test_exact_fits(n, num, still):
    # No noise: identity, the minimum of three points, only the first num following.
    rng = np.random.default_rng(n)
    reference = rng.uniform(-50, 50, (n, 3))
    motion = RigidTransformation() if still else random_motion(rng)
    deformed = apply_all(motion, reference)
    if num > 0:
        deformed[num:] += rng.normal(0, 5, (n - num, 3))
    fit = RigidTransformation(10, 20, 30, 1, 2, 3)   # overwritten, not composed with
    ok, residual = fit.fit_points(reference, deformed, num)
    assert ok and residual < 1e-9
    np.testing.assert_allclose((fit * motion).matrix(), np.eye(4), atol=1e-9)


@pytest.mark.parametrize("n_ref,n_def,num,message", [
    (2, 2, -1, "Not enough points for fit: 2\n"),
    (2, 2, 0, "Not enough points for fit: 2\n"),
    (10, 10, 2, "Not enough points for fit: 2\n"),
    (0, 0, -1, "Not enough points for fit: 0\n"),
    (4, 10, 5, "Number of elements in ref or def arrays is less than numPts: 5\n"),
    (10, 4, 5, "Number of elements in ref or def arrays is less than numPts: 5\n"),
    (5, 5, -1, None),    # coincident points: no rotation to find
])
def test_fit_failures_are_results_and_leave_the_transform(capfd, n_ref, n_def, num, message):
    rng = np.random.default_rng(0)
    ref, dfm = (rng.normal(size=(n, 3)) if message else np.tile([1.0, 2.0, 3.0], (n, 1)) for n in (n_ref, n_def))
    fit = RigidTransformation(1, 2, 3, 4, 5, 6)
    before = fit.matrix()
    capfd.readouterr()
    assert fit.fit_points(ref, dfm, num) == (False, -1.0)
    assert message is None or capfd.readouterr().err == message
    np.testing.assert_array_equal(fit.matrix(), before)


def test_fit_points_wants_n_by_3():
    with pytest.raises(ValueError) as e:
        RigidTransformation().fit_points(np.zeros((4, 2)), np.zeros((4, 3)))
    assert str(e.value) == "Expected an array of shape (n, 3)."


# -------------------------------------------------------- fits on datasets

def moved_dataset(motion, rng, invalid):
    """Two AOIs on a curved surface whose displacement is `motion`; the points
    in `invalid` (flat indices into AOI 0) are marked invalid and get wild
    displacements that would ruin any fit using them."""
    aois = []
    for (rows, columns), origin in (((12, 15), (0, 0, 5)), ((6, 8), (40, -10, 0))):
        y, x = np.mgrid[0:rows, 0:columns] * 2.0
        p = np.column_stack([x.ravel(), y.ravel(), (0.01 * (x - 20) ** 2 + 0.3 * y).ravel()]) + origin
        p[:, 2] += rng.normal(0, 0.1, len(p))
        d, conf = apply_all(motion, p) - p, np.zeros(len(p))
        if not aois:
            d[list(invalid)], conf[list(invalid)] = 500.0, -1.0
        aois.append((rows, columns, named(p, d, conf)))
    # An AOI without displacements takes no part in the fit.
    aois.append((2, 2, {"X": [9e3] * 4, "Y": [0] * 4, "Z": [0] * 4, "confidence": [0] * 4}))
    return build(aois)


def test_from_displacement_recovers_the_motion():
    rng = np.random.default_rng(11)
    motion = random_motion(rng)
    fit = RigidTransformation()
    ok, residual = fit.from_displacement(moved_dataset(motion, rng, invalid=(0, 7, 50)))
    assert ok
    # Positions and displacements are float32: X + U carries rounding of
    # about 1e-7 of the coordinates (~100), so a few 1e-6 remain.
    assert 0 <= residual < 2e-5
    np.testing.assert_allclose((fit * motion).matrix(), np.eye(4), atol=1e-5)


@pytest.mark.parametrize("aois,message", [
    ([], ""),
    ([(1, 2, named([[0, 0, 0], [1, 0, 0]], [[1, 0, 0]] * 2, [0, 0]))], ""),   # fewer than three grid points
    ([(2, 3, named(np.c_[0:6, [0] * 6, [0] * 6], [[1, 0, 0]] * 6, [0, -1, -1, 0, -1, -1]))],
     "Not enough points for fit: 2\n"),
])
def test_from_displacement_failures(capfd, aois, message):
    fit = RigidTransformation(Tx=3)
    capfd.readouterr()
    assert fit.from_displacement(build(aois) if aois else zelpy.ZelDataSet()) == (False, -1.0)
    assert capfd.readouterr().err == message
    assert fit.translation() == (3.0, 0.0, 0.0)


def plane_points(normal, centre, rng, n=60):
    a = np.cross(normal, [0.3, 0.5, 0.8])
    a /= np.linalg.norm(a)
    b = np.cross(normal, a) / np.linalg.norm(normal)
    s, t = rng.uniform(-30, 30, (2, n))
    return np.asarray(centre) + s[:, None] * a + t[:, None] * b


@pytest.mark.parametrize("normal", [(0.2, -0.3, 1.0), (1, 1, -1), (-0.5, 0.1, 0.2), (0, 0, 1), (1, 0, 0)])
def test_plane_fit_of_a_tilted_plane(normal):
    rng = np.random.default_rng(2)
    n_hat = np.asarray(normal, float) / np.linalg.norm(normal)
    p = plane_points(n_hat, (5, -3, 40), rng)
    q = plane_points((0.0, 0.4, 1.0), (0, 0, -20), rng)      # where the displacement leads
    conf = np.where(np.arange(60) < 5, -1.0, 0.0)
    p[:5] += 100 * n_hat                                     # far off the plane, but invalid
    ds = build([(6, 10, named(p, q - p, conf))])

    fit = RigidTransformation()
    assert fit.plane_fit(ds, ignore_displacement=True) is True
    m = fit.matrix()
    np.testing.assert_allclose(m[2, :3], n_hat if n_hat[2] >= 0 else -n_hat, atol=1e-5)   # normal points up
    assert m[0, 1] == 0.0                        # first in-plane axis is horizontal
    assert np.linalg.det(m[:3, :3]) == pytest.approx(1.0)
    # float32 coordinates up to ~60: a few 1e-6 off the plane and the centroid
    on_plane = apply_all(fit, p[5:])
    assert np.abs(on_plane[:, 2]).max() < 1e-4
    np.testing.assert_allclose(on_plane.mean(axis=0), 0.0, atol=1e-4)

    assert fit.plane_fit(ds) is True             # the deformed points lie on the other plane
    np.testing.assert_allclose(fit.matrix()[2, :3], np.array([0.0, 0.4, 1.0]) / np.hypot(0.4, 1.0), atol=1e-5)


SQUARE = [[0, 0, 0], [1, 0, 0], [0, 1, 0], [5, 5, 5]]


@pytest.mark.parametrize("aois", [[], [(2, 2, named(SQUARE, conf=[0, 0, -1, -1]))], [(2, 2, named(SQUARE))]])
def test_plane_fit_failures_leave_the_transform(aois):
    # No AOI, two valid points, no confidence variable.
    fit = RigidTransformation(0, 0, 0, 1, 2, 3)
    assert fit.plane_fit(build(aois) if aois else zelpy.ZelDataSet()) is False
    assert fit.translation() == (1.0, 2.0, 3.0)


def test_plane_fit_with_normal_along_y_is_not_finite():
    fit = RigidTransformation()
    assert fit.plane_fit(build([(2, 2, named([[0, 2, 0], [1, 2, 0], [0, 2, 1], [1, 2, 1]], conf=[0] * 4))]))
    assert not np.isfinite(fit.matrix()[:3, :3]).all()


# ------------------------------------------------------- dataset transform

def sample_dataset(rng, with_sigma=True):
    """Two AOIs; every fourth point invalid, which the transform must leave alone."""
    aois = []
    for rows, columns in ((5, 7), (3, 4)):
        n = rows * columns
        values = named(rng.uniform(-50, 50, (n, 3)), rng.uniform(-2, 2, (n, 3)),
                       np.where(np.arange(n) % 4 == 0, -1.0, rng.uniform(0, 0.05, n)))
        if with_sigma:
            values.update(zip(GROUPS[2], rng.uniform(0.001, 0.01, (3, n))))
        aois.append((rows, columns, values))
    return build(aois)


@pytest.mark.parametrize("with_sigma,displacement_only", [(True, False), (False, False), (True, True)])
def test_transform_moves_positions_displacements_and_sigmas(with_sigma, displacement_only):
    rng = np.random.default_rng(8 + displacement_only)
    ds = sample_dataset(rng, with_sigma)
    groups = (GROUPS if with_sigma else GROUPS[:2]) + (("confidence",),)
    t = random_motion(rng)
    r = t.rotation().matrix()
    before = snapshot(ds, groups)
    ds.transform(rigid_trnasformation=t, displacement_only=displacement_only)
    for b, a in zip(before, snapshot(ds, groups)):
        valid = b[("confidence",)][:, 0] >= 0
        if displacement_only:   # the deformed position moves, the reference stays
            moved = {"UVW": apply_all(t, b["XYZ"] + b["UVW"]) - b["XYZ"]}
        else:                   # uncertainties go through the fourth power of each entry
            moved = {"XYZ": apply_all(t, b["XYZ"]), "UVW": b["UVW"] @ r.T}
            moved.update({g: b[g] @ (r ** 4).T for g in GROUPS[2:] if g in b})
        for g in b:   # invalid points and anything not moved stay bit for bit
            keep = ~valid if g in moved else np.ones_like(valid)
            np.testing.assert_array_equal(a[g][keep], b[g][keep])
            if g in moved:   # float32 storage of values up to ~70: a few 1e-6
                np.testing.assert_allclose(a[g][valid], moved[g][valid], rtol=1e-5, atol=5e-5)


def test_transform_and_back():
    rng = np.random.default_rng(9)
    ds = sample_dataset(rng)
    before = snapshot(ds, GROUPS[:2])
    t = random_motion(rng)
    ds.transform(t)
    ds.transform(rigid_trnasformation=t.inverse(), displacement_only=False)
    for b, a in zip(before, snapshot(ds, GROUPS[:2])):
        for g in b:   # two float32 roundings of values up to ~70
            np.testing.assert_allclose(a[g], b[g], atol=2e-4)


def test_transform_skips_aois_without_confidence_or_coordinates():
    ds = build([(1, 2, named([[1, 3, 5], [2, 4, 6]], [[1, 1, 1]] * 2)),
                (1, 2, {"X": [1, 2], "Y": [3, 4], "U": [1, 1], "V": [1, 1], "W": [1, 1], "confidence": [0, 0]})])
    before = snapshot(ds, ["XYU"])
    ds.transform(RigidTransformation(30, 0, 0, 5, 5, 5))
    for b, a in zip(before, snapshot(ds, ["XYU"])):
        np.testing.assert_array_equal(a["XYU"], b["XYU"])


@pytest.mark.parametrize("arg", [Rotation(), None, "t"])
def test_transform_wants_a_rigid_transformation(arg):
    with pytest.raises(TypeError):
        zelpy.ZelDataSet().transform(rigid_trnasformation=arg)
