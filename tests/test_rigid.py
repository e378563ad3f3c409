"""Rigid and plane fits, and moving datasets between coordinate systems."""

import numpy as np
import pytest

import zelpy
from conftest import aoi, block, kind, variable
from zelpy import RigidTransformation, Rotation

VT = zelpy.ZelDataVariableType
KINDS = {"X": VT.GlobalCoordinate, "Y": VT.GlobalCoordinate, "Z": VT.GlobalCoordinate,
         "U": VT.GlobalDisplacement, "V": VT.GlobalDisplacement, "W": VT.GlobalDisplacement,
         "SIGMA_X": VT.GlobalDisplacement, "SIGMA_Y": VT.GlobalDisplacement,
         "SIGMA_Z": VT.GlobalDisplacement, "confidence": VT.Correlation}


def build(aois):
    """A dataset with one AOI per (rows, columns, {name: values}); kinds from KINDS.

    Written as a data file block and decoded, so that AOIs can carry
    different variable sets.
    """
    blocks = []
    for rows, columns, values in aois:
        blocks.append(aoi(rows, columns, [variable(name, name, kind(KINDS.get(name, VT.Unknown).value),
                                                   np.asarray(v, np.float32).ravel())
                                          for name, v in values.items()]))
    ds = zelpy.ZelDataSet()
    ds.load_from_data(block(blocks), "geometry.out")
    return ds


def column(ds, n, name):
    return ds.data(n).as_array([name])[name].astype(np.float64)


def points(ds, n, names=("X", "Y", "Z")):
    return np.column_stack([column(ds, n, name) for name in names])


def random_motion(rng):
    return RigidTransformation(*rng.uniform(-60, 60, 3), *rng.uniform(-20, 20, 3))


def apply_all(t, pts):
    m = t.matrix()
    return pts @ m[:3, :3].T + m[:3, 3]


def rotation_error(m):
    """Angle in radians of the rotation part of a 4x4 matrix."""
    return np.arccos(np.clip((np.trace(m[:3, :3]) - 1) / 2, -1, 1))


# ------------------------------------------------------------ point set fits

@pytest.mark.parametrize("seed", range(3))
def test_fit_recovers_known_motion_from_noisy_points(seed):
    rng = np.random.default_rng(seed)
    n, sigma = 3000, 0.02
    reference = rng.uniform(-1, 1, (n, 3)) * (100, 75, 20)
    motion = random_motion(rng)
    deformed = apply_all(motion, reference)
    reference_noisy = reference + rng.normal(0, sigma, reference.shape)
    deformed_noisy = deformed + rng.normal(0, sigma, deformed.shape)

    fit = RigidTransformation()
    ok, residual = fit.fit_points(reference_noisy, deformed_noisy)
    assert ok
    # Maps deformed onto reference, so it undoes the motion.
    undo = (fit * motion).matrix()
    # Per axis about sigma*sqrt(2) / (sqrt(n) * rms lever arm ~ 45) = 1.1e-5;
    # the three axes together about 2e-5.
    assert rotation_error(undo) < 8e-5
    assert np.abs(apply_all(fit * motion, reference) - reference).max() < 5e-3
    # Each coordinate difference carries the noise of both sets (variance
    # 2 sigma^2); the six fitted parameters take 6 of the 3n degrees of
    # freedom: E[residual^2] = 2 sigma^2 (3n - 6) / 3n. With 3n = 9000 the
    # sample scatter of the residual is under 1 %.
    expected = sigma * np.sqrt(2 * (n - 2) / n)
    assert residual == pytest.approx(expected, rel=0.04)


def test_fit_of_a_set_against_itself():
    pts = np.random.default_rng(3).uniform(-50, 50, (40, 3))
    fit = RigidTransformation(10, 20, 30, 1, 2, 3)
    ok, residual = fit.fit_points(pts, pts)
    assert ok
    assert residual < 1e-12
    np.testing.assert_allclose(fit.matrix(), np.eye(4), atol=1e-12)


def test_exact_motion_of_few_points():
    rng = np.random.default_rng(4)
    reference = rng.uniform(-10, 10, (3, 3))
    motion = random_motion(rng)
    fit = RigidTransformation()
    ok, residual = fit.fit_points(reference, apply_all(motion, reference))
    assert ok and residual < 1e-9
    np.testing.assert_allclose((fit * motion).matrix(), np.eye(4), atol=1e-9)


def test_fit_uses_only_the_first_num_points():
    rng = np.random.default_rng(6)
    reference = rng.uniform(-10, 10, (20, 3))
    deformed = reference + (1.0, 2.0, 3.0)
    deformed[10:] += rng.normal(0, 5, (10, 3))   # the tail does not follow the motion
    fit = RigidTransformation()
    ok, residual = fit.fit_points(reference, deformed, 10)
    assert ok and residual < 1e-9
    np.testing.assert_allclose(fit.translation(), (-1, -2, -3), atol=1e-9)


@pytest.mark.parametrize("n_ref,n_def,num,message", [
    (2, 2, -1, "Not enough points for fit: 2"),
    (2, 2, 0, "Not enough points for fit: 2"),
    (10, 10, 2, "Not enough points for fit: 2"),
    (0, 0, -1, "Not enough points for fit: 0"),
    (4, 10, 5, "Number of elements in ref or def arrays is less than numPts: 5"),
    (10, 4, 5, "Number of elements in ref or def arrays is less than numPts: 5"),
])
def test_fit_failures_are_results_with_one_message(capfd, n_ref, n_def, num, message):
    rng = np.random.default_rng(0)
    fit = RigidTransformation(1, 2, 3, 4, 5, 6)
    before = fit.matrix()
    capfd.readouterr()
    assert fit.fit_points(rng.normal(size=(n_ref, 3)), rng.normal(size=(n_def, 3)), num) == (False, -1.0)
    assert capfd.readouterr().err == message + "\n"
    np.testing.assert_array_equal(fit.matrix(), before)


def test_fit_of_coincident_points_fails():
    fit = RigidTransformation(1, 2, 3, 4, 5, 6)
    same = np.tile([1.0, 2.0, 3.0], (5, 1))
    assert fit.fit_points(same, same) == (False, -1.0)
    assert fit.translation() == (4.0, 5.0, 6.0)


def test_fit_points_wants_n_by_3():
    with pytest.raises(ValueError) as e:
        RigidTransformation().fit_points(np.zeros((4, 2)), np.zeros((4, 3)))
    assert str(e.value) == "Expected an array of shape (n, 3)."


# -------------------------------------------------------- fits on datasets

def surface(rows, columns, rng, origin=(0, 0, 0)):
    y, x = np.mgrid[0:rows, 0:columns].astype(float)
    x, y = x * 2.0 + origin[0], y * 2.0 + origin[1]
    z = 0.01 * (x - 20) ** 2 + 0.3 * y + origin[2] + rng.normal(0, 0.1, x.shape)
    return x, y, z


def moved_dataset(motion, rng, invalid=()):
    """Two AOIs on a curved surface whose displacement is `motion`; the points
    in `invalid` (flat indices into AOI 0) are marked invalid and get wild
    displacements that would ruin any fit using them."""
    aois = []
    for shape, origin in (((12, 15), (0, 0, 5)), ((6, 8), (40, -10, 0))):
        x, y, z = surface(*shape, rng, origin)
        p = np.column_stack([x.ravel(), y.ravel(), z.ravel()])
        d = apply_all(motion, p) - p
        conf = np.zeros(len(p))
        if not aois:
            d[list(invalid)] = 500.0
            conf[list(invalid)] = -1.0
        aois.append((shape[0], shape[1], {"X": p[:, 0], "Y": p[:, 1], "Z": p[:, 2], "U": d[:, 0],
                                          "V": d[:, 1], "W": d[:, 2], "confidence": conf}))
    # An AOI without displacements takes no part in the fit.
    aois.append((2, 2, {"X": [9e3] * 4, "Y": [0] * 4, "Z": [0] * 4, "confidence": [0] * 4}))
    return build(aois)


def test_from_displacement_recovers_the_motion():
    rng = np.random.default_rng(11)
    motion = random_motion(rng)
    ds = moved_dataset(motion, rng, invalid=(0, 7, 50))
    fit = RigidTransformation()
    ok, residual = fit.from_displacement(ds)
    assert ok
    # Positions and displacements are float32: X + U carries rounding of
    # about 1e-7 of the coordinates (~100), so a few 1e-6 remain.
    assert 0 <= residual < 2e-5
    np.testing.assert_allclose((fit * motion).matrix(), np.eye(4), atol=1e-5)


@pytest.mark.parametrize("aois", [
    [],
    [(1, 2, {"X": [0, 1], "Y": [0, 0], "Z": [0, 0], "U": [1, 1], "V": [0, 0], "W": [0, 0],
             "confidence": [0, 0]})],
])
def test_from_displacement_with_fewer_than_three_grid_points(aois):
    fit = RigidTransformation(Tx=3)
    assert fit.from_displacement(build(aois) if aois else zelpy.ZelDataSet()) == (False, -1.0)
    assert fit.translation() == (3.0, 0.0, 0.0)


def test_from_displacement_with_too_few_valid_points(capfd):
    ds = build([(2, 3, {"X": [0, 1, 2, 3, 4, 5], "Y": [0] * 6, "Z": [0] * 6, "U": [1] * 6, "V": [0] * 6,
                        "W": [0] * 6, "confidence": [0, -1, -1, 0, -1, -1]})])
    fit = RigidTransformation(Tx=3)
    capfd.readouterr()
    assert fit.from_displacement(ds) == (False, -1.0)
    assert capfd.readouterr().err == "Not enough points for fit: 2\n"
    assert fit.translation() == (3.0, 0.0, 0.0)


def plane_points(normal, centre, rng, n):
    normal = np.asarray(normal, float) / np.linalg.norm(normal)
    a = np.cross(normal, [0.3, 0.5, 0.8])
    a /= np.linalg.norm(a)
    b = np.cross(normal, a)
    s, t = rng.uniform(-30, 30, (2, n))
    return np.asarray(centre) + s[:, None] * a + t[:, None] * b


@pytest.mark.parametrize("normal", [(0.2, -0.3, 1.0), (1, 1, -1), (-0.5, 0.1, 0.2), (0, 0, 1), (1, 0, 0)])
def test_plane_fit_of_a_tilted_plane(normal):
    rng = np.random.default_rng(2)
    n_hat = np.asarray(normal, float) / np.linalg.norm(normal)
    p = plane_points(normal, (5, -3, 40), rng, 60)
    q = plane_points((0.0, 0.4, 1.0), (0, 0, -20), rng, 60)      # where the displacement leads
    conf = np.zeros(60)
    conf[:5] = -1.0
    p[:5] += 100 * n_hat                                          # far off the plane, but invalid
    d = q - p
    ds = build([(6, 10, {"X": p[:, 0], "Y": p[:, 1], "Z": p[:, 2], "U": d[:, 0], "V": d[:, 1],
                         "W": d[:, 2], "confidence": conf})])

    fit = RigidTransformation()
    assert fit.plane_fit(ds, ignore_displacement=True) is True
    m = fit.matrix()
    expected_normal = n_hat if n_hat[2] >= 0 else -n_hat
    np.testing.assert_allclose(m[2, :3], expected_normal, atol=1e-5)
    assert m[0, 1] == 0.0                        # first in-plane axis is horizontal
    assert np.linalg.det(m[:3, :3]) == pytest.approx(1.0)
    on_plane = apply_all(fit, points(ds, 0)[5:])
    assert np.abs(on_plane[:, 2]).max() < 1e-4
    np.testing.assert_allclose(on_plane.mean(axis=0), 0.0, atol=1e-4)

    assert fit.plane_fit(ds) is True             # the deformed points lie on the other plane
    n2 = np.array([0.0, 0.4, 1.0]) / np.linalg.norm([0.0, 0.4, 1.0])
    np.testing.assert_allclose(fit.matrix()[2, :3], n2, atol=1e-5)


def test_plane_fit_failures_leave_the_transform():
    fit = RigidTransformation(0, 0, 0, 1, 2, 3)
    few = build([(2, 2, {"X": [0, 1, 0, 5], "Y": [0, 0, 1, 5], "Z": [0, 0, 0, 5], "confidence": [0, 0, -1, -1]})])
    no_conf = build([(2, 2, {"X": [0, 1, 0, 5], "Y": [0, 0, 1, 5], "Z": [0, 0, 0, 5]})])
    for ds in (zelpy.ZelDataSet(), few, no_conf):
        assert fit.plane_fit(ds) is False
        assert fit.translation() == (1.0, 2.0, 3.0)


def test_plane_fit_with_normal_along_y_is_not_finite():
    ds = build([(2, 2, {"X": [0, 1, 0, 1], "Y": [2, 2, 2, 2], "Z": [0, 0, 1, 1], "confidence": [0] * 4})])
    fit = RigidTransformation()
    assert fit.plane_fit(ds) is True
    assert not np.isfinite(fit.matrix()[:3, :3]).all()


# ------------------------------------------------------- dataset transform

def sample_dataset(rng, with_sigma=True):
    aois = []
    for rows, columns in ((5, 7), (3, 4)):
        n = rows * columns
        values = {name: rng.uniform(-50, 50, n) for name in ("X", "Y", "Z")}
        values.update({name: rng.uniform(-2, 2, n) for name in ("U", "V", "W")})
        if with_sigma:
            values.update({name: rng.uniform(0.001, 0.01, n) for name in ("SIGMA_X", "SIGMA_Y", "SIGMA_Z")})
        conf = rng.uniform(0, 0.05, n)
        conf[::4] = -1.0
        values["confidence"] = conf
        aois.append((rows, columns, values))
    return build(aois)


def snapshot(ds, names):
    return [{name: column(ds, i, name) for name in names} for i in range(ds.num_data())]


@pytest.mark.parametrize("with_sigma", [True, False])
def test_transform_moves_positions_displacements_and_sigmas(with_sigma):
    rng = np.random.default_rng(8)
    ds = sample_dataset(rng, with_sigma)
    names = ds.variables()
    before = snapshot(ds, names)
    t = random_motion(rng)
    r = t.rotation().matrix()
    ds.transform(rigid_trnasformation=t)
    after = snapshot(ds, names)
    for b, a in zip(before, after):
        valid = b["confidence"] >= 0
        for group in (("X", "Y", "Z"), ("U", "V", "W"), ("SIGMA_X", "SIGMA_Y", "SIGMA_Z")):
            if group[0] not in b:
                continue
            old = np.column_stack([b[k] for k in group])
            new = np.column_stack([a[k] for k in group])
            if group[0] == "X":
                expected = apply_all(t, old)
            elif group[0] == "U":
                expected = old @ r.T
            else:
                expected = old @ (r ** 4).T
            np.testing.assert_allclose(new[valid], expected[valid], rtol=1e-5, atol=1e-5)
            np.testing.assert_array_equal(new[~valid], old[~valid])
        np.testing.assert_array_equal(a["confidence"], b["confidence"])


def test_transform_and_back():
    rng = np.random.default_rng(9)
    ds = sample_dataset(rng)
    before = snapshot(ds, ["X", "Y", "Z", "U", "V", "W"])
    t = random_motion(rng)
    ds.transform(t)
    ds.transform(rigid_trnasformation=t.inverse(), displacement_only=False)
    for b, a in zip(before, snapshot(ds, ["X", "Y", "Z", "U", "V", "W"])):
        for name in b:
            np.testing.assert_allclose(a[name], b[name], atol=2e-4)


def test_transform_displacement_only():
    rng = np.random.default_rng(10)
    ds = sample_dataset(rng)
    names = ds.variables()
    before = snapshot(ds, names)
    t = random_motion(rng)
    ds.transform(rigid_trnasformation=t, displacement_only=True)
    for b, a in zip(before, snapshot(ds, names)):
        valid = b["confidence"] >= 0
        p = np.column_stack([b[k] for k in "XYZ"])
        d = np.column_stack([b[k] for k in "UVW"])
        expected = apply_all(t, p + d) - p
        new = np.column_stack([a[k] for k in "UVW"])
        np.testing.assert_allclose(new[valid], expected[valid], atol=5e-5)
        np.testing.assert_array_equal(new[~valid], d[~valid])
        for name in ("X", "Y", "Z", "SIGMA_X", "SIGMA_Y", "SIGMA_Z"):
            np.testing.assert_array_equal(a[name], b[name])


def test_transform_skips_aois_without_confidence_or_coordinates():
    ds = build([(1, 2, {"X": [1, 2], "Y": [3, 4], "Z": [5, 6], "U": [1, 1], "V": [1, 1], "W": [1, 1]}),
                (1, 2, {"X": [1, 2], "Y": [3, 4], "U": [1, 1], "V": [1, 1], "W": [1, 1], "confidence": [0, 0]})])
    before = snapshot(ds, ["X", "Y", "U"])
    ds.transform(RigidTransformation(30, 0, 0, 5, 5, 5))
    for b, a in zip(before, snapshot(ds, ["X", "Y", "U"])):
        for name in b:
            np.testing.assert_array_equal(a[name], b[name])


@pytest.mark.parametrize("arg", [Rotation(), None, "t"])
def test_transform_wants_a_rigid_transformation(arg):
    with pytest.raises(TypeError):
        zelpy.ZelDataSet().transform(rigid_trnasformation=arg)
