"""Strain: analytic deformations for every tensor kind, rigid motions, the
point invalidation rule, output variables, worker counts and failures."""

import math

import numpy as np
import pytest

import zelpy
from zelpyx.zelpy import zelpy as core

from analysis_fields import grid_dataset, plane_coordinates
from conftest import aoi, block, kind, variable

TT = zelpy.TensorType
ROWS, COLUMNS = 17, 21
STRAIN = ["exx", "eyy", "exy"]
DERIVED = ["e1", "e2", "gamma", "e_tresca", "e_vonmises"]


def deformed_dataset(f, y_up=True, convention="3d", valid=None, translation=(0.0, 0.0, 0.0)):
    """Flat grid deformed by the homogeneous in-plane gradient f (2x2)."""
    x, y = plane_coordinates(ROWS, COLUMNS, y_up=y_up)
    u = (f[0][0] - 1) * x + f[0][1] * y + translation[0]
    v = f[1][0] * x + (f[1][1] - 1) * y + translation[1]
    w = np.full_like(x, translation[2])
    return grid_dataset(ROWS, COLUMNS, x, y, u=u, v=v, w=w, valid=valid, convention=convention)


def stretch(l1, l2):
    """Closed forms for F = diag(l1, l2): (exx, eyy, exy) of each kind."""
    return {
        TT.LagrangeStrainTensor: (0.5 * (l1 * l1 - 1), 0.5 * (l2 * l2 - 1), 0.0),
        TT.HenckyStrainTensor: (math.log(l1), math.log(l2), 0.0),
        TT.EulerStrainTensor: (0.5 * (1 - 1 / l1 ** 2), 0.5 * (1 - 1 / l2 ** 2), 0.0),
        TT.LogarithmicEulerTensor: (math.log(l1), math.log(l2), 0.0),
        TT.EngineeringStrain: (l1 - 1, l2 - 1, 0.0),
        TT.BiotStrainTensor: (l1 - 1, l2 - 1, 0.0),
    }


def shear(g):
    """Closed forms for simple shear F = [[1, g], [0, 1]]."""
    q = math.sqrt(g * g + 4)
    a = math.asinh(g / 2)  # log of the larger principal stretch
    return {
        TT.LagrangeStrainTensor: (0.0, g * g / 2, g / 2),
        TT.HenckyStrainTensor: (-a * g / q, a * g / q, 2 * a / q),
        TT.EulerStrainTensor: (0.0, -g * g / 2, g / 2),
        TT.LogarithmicEulerTensor: (a * g / q, -a * g / q, 2 * a / q),
        TT.EngineeringStrain: (0.0, math.sqrt(1 + g * g) - 1, math.atan(g)),
        TT.BiotStrainTensor: (2 / q - 1, (2 + g * g) / q - 1, g / q),
    }


def values(ds, names, aoi_index=0):
    return {name: ds[aoi_index].variable_view(name).copy() for name in names}


@pytest.fixture
def severity():
    before = zelpy.log_severity()
    yield zelpy.set_log_severity
    zelpy.set_log_severity(before)


@pytest.fixture
def workers():
    before = core._set_analysis_workers(0)
    yield core._set_analysis_workers
    core._set_analysis_workers(before)


# ----------------------------------------------------------- analytic fields

@pytest.mark.parametrize("tensor", list(TT))
@pytest.mark.parametrize("y_up", [True, False], ids=["y-up", "y-down"])
@pytest.mark.parametrize("deformation", ["stretch", "shear"])
def test_homogeneous_deformation_gives_closed_form(tensor, y_up, deformation):
    # Homogeneous deformation: every triangle has the same gradient, the
    # smoother keeps constants, so every point carries the closed form.
    # Coordinates are small integers and the displacements float32 of size
    # <= 4 (rounding 2.4e-7), giving gradient errors below 1e-6: tolerance 3e-6.
    # The local frame of a triangle is (global x, -global y) for a normal
    # along +z, i.e. for rows running along +Y: the shear then changes sign.
    if deformation == "stretch":
        f, expected = ((1.2, 0.0), (0.0, 0.85)), stretch(1.2, 0.85)[tensor]
    else:
        g = 0.3 if y_up else -0.3
        f, expected = ((1.0, 0.3), (0.0, 1.0)), shear(g)[tensor]
    ds = deformed_dataset(f, y_up=y_up)
    ds.compute_strain(15, tensor, True, True, True, True, True, True)
    out = values(ds, STRAIN + DERIVED + ["fxx", "fxy", "fyx", "fyy"])
    for name, value in zip(STRAIN, expected):
        np.testing.assert_allclose(out[name], value, rtol=0, atol=3e-6, err_msg=name)

    # Gradient variables hold H = F - I in the local frame.
    sign = 1.0 if y_up else -1.0
    gradient = {"fxx": f[0][0] - 1, "fxy": sign * f[0][1], "fyx": sign * f[1][0], "fyy": f[1][1] - 1}
    for name, value in gradient.items():
        np.testing.assert_allclose(out[name], value, rtol=0, atol=3e-6, err_msg=name)

    # Principal values and direction of the tensor (the engineering kind
    # stores the shear angle, twice the tensor shear).
    exx, eyy, exy = expected
    s = exy / 2 if tensor is TT.EngineeringStrain else exy
    eig, vec = np.linalg.eigh([[exx, s], [s, eyy]])
    np.testing.assert_allclose(out["e1"], eig[1], rtol=0, atol=3e-6)
    np.testing.assert_allclose(out["e2"], eig[0], rtol=0, atol=3e-6)
    direction = np.arctan2(vec[1, 1], vec[0, 1])
    angle = (out["gamma"] - direction + np.pi / 2) % np.pi - np.pi / 2  # same axis, mod pi
    np.testing.assert_allclose(angle, 0.0, rtol=0, atol=1e-5)
    e1, e2 = eig[1], eig[0]
    np.testing.assert_allclose(out["e_vonmises"], 2 / 3 * math.sqrt(e1 * e1 - e1 * e2 + e2 * e2),
                               rtol=0, atol=3e-6)
    if tensor is not TT.EngineeringStrain:
        # Maximum shear over the in-plane pair and the zero out-of-plane strain.
        tresca = max(e1 - e2, abs(e1), abs(e2)) / 2
        np.testing.assert_allclose(out["e_tresca"], tresca, rtol=0, atol=3e-6)
    else:
        # The Tresca value keeps the full shear angle for this kind.
        r = math.hypot(exy, (exx - eyy) / 2)
        t1, t2 = (exx + eyy) / 2 + r, (exx + eyy) / 2 - r
        np.testing.assert_allclose(out["e_tresca"], max(t1 - t2, abs(t1), abs(t2)) / 2,
                                   rtol=0, atol=3e-6)


@pytest.mark.parametrize("convention", ["global2d", "pixel_c", "pixel"])
def test_planar_conventions(convention):
    # The same stretch through each planar set of coordinate names.
    ds = deformed_dataset(((1.1, 0.0), (0.0, 0.95)), convention=convention)
    ds.compute_strain()
    out = values(ds, STRAIN)
    expected = stretch(1.1, 0.95)[TT.LagrangeStrainTensor]
    for name, value in zip(STRAIN, expected):
        np.testing.assert_allclose(out[name], value, rtol=0, atol=3e-6)


def rotation(axis, angle):
    axis = np.asarray(axis, float) / np.linalg.norm(axis)
    k = np.array([[0, -axis[2], axis[1]], [axis[2], 0, -axis[0]], [-axis[1], axis[0], 0]])
    return np.eye(3) + math.sin(angle) * k + (1 - math.cos(angle)) * k @ k


@pytest.mark.parametrize("axis", [(1, 0, 0), (0, 1, 0), (1, 1, 0), (0, 0, 1), (1, -2, 3)])
@pytest.mark.parametrize("tensor", list(TT))
def test_rigid_motion_gives_zero_strain(axis, tensor):
    # Coordinates up to ~10 in float32 (rounding 1e-6) on a unit grid: the
    # gradient error is a few 1e-6, so zero strain within 2e-5.
    x, y = plane_coordinates(ROWS, COLUMNS)
    z = 0.1 * x + 0.05 * y  # a tilted plane: the tangent frame is not global
    p = np.stack([x, y, z], axis=-1)
    moved = p @ rotation(axis, 0.4).T + np.array([3.0, -2.0, 1.5])
    d = moved - p
    ds = grid_dataset(ROWS, COLUMNS, x, y, z=z, u=d[..., 0], v=d[..., 1], w=d[..., 2])
    ds.compute_strain(15, tensor, True, True, True, True, True, False)
    # gamma, the principal direction, is undefined without strain.
    for name, value in values(ds, STRAIN + ["e1", "e2", "e_tresca", "e_vonmises"]).items():
        np.testing.assert_allclose(value, 0.0, rtol=0, atol=2e-5, err_msg=name)


def test_curved_specimen_stretch_is_measured_in_its_surface():
    # A cylinder-like surface z = x^2 / 20 stretched along its generator (y)
    # by 1 %: the strain along y is the 1 % stretch everywhere, and the
    # surface strain across it stays 0 although Z changes.
    x, y = plane_coordinates(ROWS, COLUMNS)
    z = x * x / 20
    ds = grid_dataset(ROWS, COLUMNS, x, y, z=z, v=0.01 * y)
    ds.compute_strain(3, TT.LagrangeStrainTensor)
    out = values(ds, STRAIN)
    np.testing.assert_allclose(out["eyy"], 0.5 * (1.01 ** 2 - 1), rtol=0, atol=3e-6)
    np.testing.assert_allclose(out["exx"], 0.0, rtol=0, atol=3e-6)


# -------------------------------------------------------- validity handling

def test_invalid_points_get_zero_in_derived_variables():
    rng = np.random.default_rng(5)
    valid = rng.uniform(size=(ROWS, COLUMNS)) > 0.2
    ds = deformed_dataset(((1.05, 0.02), (0.01, 0.97)), valid=valid)
    ds.compute_strain(compute_tresca=True, compute_von_mises=True)
    # Garbage at invalid points of reused variables is cleared again.
    for name in DERIVED:
        ds[0].variable_view(name)[~valid] = 99.0
    ds.compute_strain(compute_tresca=True, compute_von_mises=True)
    conf = ds[0].variable_view("sigma")
    invalid = conf < 0
    assert invalid[~valid].all()
    for name, value in values(ds, DERIVED).items():
        assert np.all(value[invalid] == 0.0), name
        assert np.any(value[~invalid] != 0.0), name


def test_isolated_points_become_invalid():
    valid = np.ones((ROWS, COLUMNS), bool)
    valid[4:9, 4:9] = False
    valid[6, 6] = True            # alone in a hole
    valid[0, 1] = False
    valid[1, 0] = False           # corner (0, 0) keeps no neighbour pair
    ds = deformed_dataset(((1.1, 0.0), (0.0, 1.0)), valid=valid)
    ds.compute_strain()
    conf = ds[0].variable_view("sigma")
    assert conf[6, 6] == -1.0 and conf[0, 0] == -1.0
    expected_valid = valid.copy()
    expected_valid[6, 6] = expected_valid[0, 0] = False
    assert np.array_equal(conf >= 0, expected_valid)
    e1 = ds[0].variable_view("e1")
    assert e1[6, 6] == 0.0 and e1[0, 0] == 0.0


def test_invalidation_is_seen_by_later_points():
    # P = (5, 5) has only its right neighbour Q = (5, 6); Q's only triangle
    # is (P, top of Q). Walking row by row, P is invalidated first, so Q
    # loses that triangle and is invalidated as well.
    valid = np.zeros((ROWS, COLUMNS), bool)
    valid[:4, :] = True           # a valid block above, connected to Q's top
    valid[4, 6:8] = True          # Q's top keeps a triangle with the block
    valid[5, 5] = valid[5, 6] = True
    ds = deformed_dataset(((1.1, 0.0), (0.0, 1.0)), valid=valid)
    ds.compute_strain(3)
    conf = ds[0].variable_view("sigma")
    assert conf[5, 5] == -1.0
    assert conf[5, 6] == -1.0
    assert conf[4, 6] >= 0
    np.testing.assert_allclose(ds[0].variable_view("exx")[4, 6], 0.5 * (1.21 - 1), atol=3e-6)


@pytest.mark.parametrize("count", [2, 3, 8])
def test_one_and_many_workers_give_identical_results(workers, count):
    rng = np.random.default_rng(11)
    valid = rng.uniform(size=(ROWS, COLUMNS)) > 0.35  # many isolated points
    x, y = plane_coordinates(ROWS, COLUMNS)
    u = 0.02 * np.sin(x / 3) + rng.normal(scale=1e-3, size=x.shape)
    v = 0.01 * x * y / 10
    results = []
    for n in (1, count):
        workers(n)
        ds = grid_dataset(ROWS, COLUMNS, x, y, u=u, v=v, valid=valid)
        ds.compute_strain(5, TT.HenckyStrainTensor, True, True, True, True, True, True)
        results.append(values(ds, ["sigma"] + STRAIN + DERIVED + ["fxx", "fxy", "fyx", "fyy"]))
    assert (results[0]["sigma"] == -1).sum() > (~valid).sum()  # invalidations happened
    for name in results[0]:
        assert np.array_equal(results[0][name], results[1][name]), name


# ---------------------------------------------------------- output variables

def test_variables_and_descriptions_new_then_reused():
    ds = deformed_dataset(((1.1, 0.0), (0.0, 1.0)))
    ds.compute_strain(15, TT.HenckyStrainTensor, True, True, True, True, True, True)
    names = ["exx", "eyy", "exy", "fxx", "fxy", "fyx", "fyy", "e1", "e2", "gamma", "e_tresca", "e_vonmises"]
    assert ds.variables()[-12:] == names
    assert ds.variables_descriptions()[-12:] == [
        "exx [1] - Hencky", "eyy [1] - Hencky", "exy [1] - Hencky",
        "Fxx [1]", "Fxy [1]", "Fyx [1]", "Fyy [1]",
        "e1 [1] - %0", "e2 [1] - %0", "gamma [1] - %0", "Tresca Strain [1] - %0",
        "Von Mises Strain [1] - Hencky"]
    assert all(t is zelpy.ZelDataVariableType.Strain for t in ds.variables_types()[-12:])
    count = len(ds.variables())
    ds.compute_strain(15, TT.BiotStrainTensor, True, True, True, True, True, True)
    assert len(ds.variables()) == count
    assert ds.variables_descriptions()[-12:] == [
        "exx [1] - Biot", "eyy [1] - Biot", "exy [1] - Biot",
        "Fxx [1]", "Fxy [1]", "Fyx [1]", "Fyy [1]",
        "e1 [1] - Biot", "e2 [1] - Biot", "gamma [1] - Biot", "Tresca Strain [1] - Biot",
        "Von Mises Strain [1] - Biot"]
    np.testing.assert_allclose(ds[0].variable_view("exx"), 0.1, atol=3e-6)


def test_without_reuse_every_call_adds_a_set():
    ds = deformed_dataset(((1.1, 0.0), (0.0, 1.0)))
    before = len(ds.variables())
    ds.compute_strain(reuse_variables=False)
    ds.compute_strain(reuse_variables=False, compute_principal_strain=False)
    assert ds.variables()[before:] == ["exx", "eyy", "exy", "e1", "e2", "gamma", "exx", "eyy", "exy"]


def test_unknown_tensor_value_means_lagrange_and_overflow_raises():
    class Kind:
        value = 7

    ds = deformed_dataset(((1.1, 0.0), (0.0, 1.0)))
    ds.compute_strain(tensor_type=Kind())
    assert ds.variables_descriptions()[-6] == "exx [1] - Lagrange"
    np.testing.assert_allclose(ds[0].variable_view("exx"), 0.105, atol=3e-6)
    Kind.value = 2 ** 40
    with pytest.raises(OverflowError) as error:
        ds.compute_strain(tensor_type=Kind())
    assert str(error.value) == "value too large to convert to enum nimbra::TensorType"


# -------------------------------------------------------------- failures

@pytest.mark.parametrize("window,message", [
    (2, "Smoothing window too small in computeStrain()\n"),
    (0, "Smoothing window too small in computeStrain()\n"),
    (-5, "Smoothing window too small in computeStrain()\n"),
])
def test_small_windows_fail(capfd, window, message):
    ds = deformed_dataset(((1.1, 0.0), (0.0, 1.0)))
    count = len(ds.variables())
    capfd.readouterr()
    with pytest.raises(ValueError) as error:
        ds.compute_strain(window)
    assert type(error.value) is ValueError
    assert str(error.value) == "Error in calculating strain."
    assert capfd.readouterr().err == message
    assert len(ds.variables()) == count


def test_even_window_runs_with_next_odd(capfd):
    rng = np.random.default_rng(2)
    x, y = plane_coordinates(ROWS, COLUMNS)
    u = rng.normal(scale=0.01, size=x.shape)
    results = []
    for window in (4, 5):
        ds = grid_dataset(ROWS, COLUMNS, x, y, u=u)
        capfd.readouterr()
        ds.compute_strain(window)
        err = capfd.readouterr().err
        results.append(values(ds, STRAIN))
        if window == 4:
            assert err == "Even smoothing window in computeStrain(). Proceeding with next valid size.\n"
        else:
            assert err == ""
    for name in STRAIN:
        assert np.array_equal(results[0][name], results[1][name])


def test_missing_coordinates_fail_with_log(capfd):
    ds = zelpy.ZelDataSet()
    ds.add_aoi(5, 5)
    ds.add_variable("X", "X", zelpy.ZelDataVariableType.GlobalCoordinate)
    ds.add_variable("sigma", "sigma", zelpy.ZelDataVariableType.Correlation)
    capfd.readouterr()
    with pytest.raises(ValueError, match=r"^Error in calculating strain\.$"):
        ds.compute_strain()
    assert capfd.readouterr().err == "Could not find coordinates for strain computation.\n"


def test_missing_confidence_fails_silently(capfd):
    x, y = plane_coordinates(5, 5)
    ds = zelpy.ZelDataSet()
    ds.add_aoi(5, 5)
    for name in ("x", "y", "u", "v"):
        kind_ = zelpy.ZelDataVariableType.PixelCoordinate if name in "xy" else zelpy.ZelDataVariableType.PixelDisplacement
        ds.add_variable(name, name, kind_)
    capfd.readouterr()
    with pytest.raises(ValueError, match=r"^Error in calculating strain\.$"):
        ds.compute_strain()
    assert capfd.readouterr().err == ""


def test_first_failing_aoi_stops_and_others_are_skipped():
    # AOI 0 is not a grid (skipped), AOI 1 computes, AOI 2 lacks coordinates
    # under the names tried and fails: AOI 1 keeps its results.
    n = 12
    xs = np.tile(np.arange(4, dtype=np.float32), 3)
    ys = np.repeat(np.arange(3, dtype=np.float32), 4)
    good = [variable("x", "x", kind(0), xs), variable("y", "y", kind(0), ys),
            variable("u", "u", kind(2), 0.1 * xs), variable("v", "v", kind(2), np.zeros(n, np.float32)),
            variable("sigma", "sigma", kind(5), np.zeros(n, np.float32))]
    bad = [variable("x", "x", kind(0), xs), variable("y", "y", kind(0), ys),
           variable("sigma", "sigma", kind(5), np.zeros(n, np.float32))]
    data = block([aoi(3, 4, good, grid=0xA0110001), aoi(3, 4, good), aoi(3, 4, bad)])
    ds = zelpy.ZelDataSet()
    ds.load_from_data(data, "three.out")
    with pytest.raises(ValueError, match=r"^Error in calculating strain\.$"):
        ds.compute_strain(3)
    assert ds[0].variable_index("exx") == -1
    np.testing.assert_allclose(ds[1].variable_view("exx"), 0.1 + 0.005, atol=3e-6)
    assert ds[2].variable_index("exx") == -1


def test_singular_triangle_warnings_in_grid_order(capfd, severity):
    # All reference points on one line: the first triangle tried (right,
    # bottom of the top-left point) is degenerate; that point is invalidated
    # and no other triangle can then be formed.
    r, c = np.mgrid[0:2, 0:2].astype(np.float64)
    ds = grid_dataset(2, 2, c + r, 0 * c, convention="3d")
    severity(3)
    capfd.readouterr()
    ds.compute_strain(3)
    assert capfd.readouterr().err == "Could not invert matrix!!! -1 0 0\nrb failed.\n"
    assert np.all(ds[0].variable_view("sigma") == -1.0)


@pytest.mark.parametrize("method,text", [
    ("smooth", "Applies smoothing to a variable"),
    ("compute_strain", "Computes the strain over all AOIs in the dataset."),
    ("triangulation", "Returns a triangulation for the dataset."),
    ("triangulation", "A n-by-3 numpy array of triangle indices, where n is the number of triangles."),
])
def test_docstrings(method, text):
    assert text in getattr(zelpy.ZelDataSet, method).__doc__


def test_warnings_come_out_in_grid_order_with_many_workers(capfd, severity, workers):
    # Points moved onto their left neighbour make degenerate triangles all
    # over the grid; whatever the worker count, the warnings are those of a
    # walk row by row.
    x, y = plane_coordinates(ROWS, COLUMNS)
    rng = np.random.default_rng(8)
    for r, c in zip(rng.integers(0, ROWS, 12), rng.integers(1, COLUMNS, 12)):
        x[r, c], y[r, c] = x[r, c - 1], y[r, c - 1]
    valid = rng.uniform(size=(ROWS, COLUMNS)) > 0.3
    severity(3)
    logs, confidences = [], []
    for n in (1, 4):
        workers(n)
        ds = grid_dataset(ROWS, COLUMNS, x, y, u=0.01 * x, valid=valid)
        capfd.readouterr()
        ds.compute_strain(3)
        logs.append(capfd.readouterr().err)
        confidences.append(ds[0].variable_view("sigma").copy())
    assert "Could not invert matrix!!! " in logs[0] and "failed.\n" in logs[0]
    assert logs[0] == logs[1]
    assert np.array_equal(confidences[0], confidences[1])
