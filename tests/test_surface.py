"""Surface analyses: curvature against analytic surfaces, look-ups and arc
length through the mesh (with and without the kd-tree), area, extremes and
ranges, and the kd-tree itself against scipy's."""

import math
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest
from scipy.spatial import cKDTree
from scipy.spatial.transform import Rotation as SciRotation

import zelpy
from zelpyx.zelpy import zelpy as core

from analysis_fields import grid_dataset, plane_coordinates

T = zelpy.ZelDataVariableType
N = 61  # grid points per side, 0.5 mm apart: +-15 mm
INNER = (slice(7, N - 7), slice(7, N - 7))  # points whose window 15 is complete
CURVATURE = ["kxx", "kyy", "kxy", "kmean", "kgauss", "k1", "k2", "kangle",
             "dkxx", "dkyy", "dkxy", "dk1", "dk2"]


def surface(z=None, n=N, **fields):
    # Rows run along +Y, so the normal dP/dcolumn x dP/drow points to +Z and
    # surfaces bending towards +Z have positive curvature.
    x, y = plane_coordinates(n, n, 0.5, y_up=False)
    return grid_dataset(n, n, x, y, z=None if z is None else z(x, y), **fields), x, y


def field(ds, name, aoi=0):
    return ds[aoi].variable_view(name).astype(np.float64)


def rigid_displacement(x, y, z, rotation, translation):
    p = np.stack([x, y, z], -1)
    moved = rotation.apply(p.reshape(-1, 3)).reshape(p.shape) + translation
    return {k: (moved - p)[..., i] for i, k in enumerate("uvw")}


# --------------------------------------------------------------- curvature

# A quadric fit over the window misses the surface's fourth-order terms: a
# relative error of about (window half-width / radius)^2 / 3.
@pytest.mark.parametrize("shape,z,k1,k2,angle,rtol", [
    ("sphere", lambda x, y: 100 - np.sqrt(100 ** 2 - x * x - y * y), 0.01, 0.01, None, 1e-3),
    ("cylinder along Y", lambda x, y: 50 - np.sqrt(50 ** 2 - x * x), 0.02, 0.0, 0.0, 2e-3),
    ("cylinder along X", lambda x, y: 50 - np.sqrt(50 ** 2 - y * y), 0.02, 0.0, 90.0, 2e-3),
])
def test_principal_curvatures_of_quadrics(shape, z, k1, k2, angle, rtol):
    ds, _, _ = surface(z)
    ds.compute_curvature(15)
    np.testing.assert_allclose(field(ds, "k1")[INNER], k1, rtol=rtol)
    np.testing.assert_allclose(field(ds, "k2")[INNER], k2, rtol=rtol, atol=1e-7)
    np.testing.assert_allclose(field(ds, "kmean")[INNER], (k1 + k2) / 2, rtol=rtol)
    np.testing.assert_allclose(field(ds, "kgauss")[INNER], k1 * k2, rtol=2 * rtol, atol=1e-9)
    if angle is not None:  # every direction is principal on a sphere
        np.testing.assert_allclose(field(ds, "kangle")[INNER], angle, atol=1e-3)
    assert np.all(field(ds, "k1") >= field(ds, "k2"))
    assert np.all((field(ds, "kangle") > -90) & (field(ds, "kangle") <= 90))


def test_saddle_is_exact_at_the_origin():
    ds, _, _ = surface(lambda x, y: (x * x - y * y) / 80)
    ds.compute_curvature(15)
    c = N // 2
    got = [field(ds, name)[c, c] for name in ("k1", "k2", "kxx", "kyy", "kgauss")]
    np.testing.assert_allclose(got, [0.025, -0.025, 0.025, -0.025, -0.025 ** 2], rtol=1e-6)
    assert abs(field(ds, "kxy")[c, c]) < 1e-12


@pytest.mark.parametrize("convention", ["3d", "global2d", "pixel"])
def test_planes_have_no_curvature(convention):
    rng = np.random.default_rng(2)
    a, b = rng.normal(size=2) * 0.4
    ds, _, _ = surface((lambda x, y: a * x + b * y + 3) if convention == "3d" else None,
                       convention=convention)
    ds.compute_curvature(9, weighted_filter=False)
    for name in CURVATURE:
        if name != "kangle":
            assert np.abs(field(ds, name)).max() < 1e-6, name


def test_bending_a_flat_plate():
    x, _ = plane_coordinates(N, N, 0.5, y_up=False)
    ds, _, _ = surface(w=x * x / 400)
    ds.compute_curvature(15)
    slope2 = 1 + (x / 200) ** 2
    # The change in the reference frame, and the deformed parabola's own curvature.
    np.testing.assert_allclose(field(ds, "dkxx"), 0.005 / np.sqrt(slope2), rtol=1e-5)
    np.testing.assert_allclose(field(ds, "kxx"), 0.005 / slope2 ** 1.5, rtol=1e-5)
    np.testing.assert_allclose(field(ds, "dk1"), 0.005 / np.sqrt(slope2), rtol=1e-5)
    for name in ("dkyy", "dkxy", "dk2", "kyy"):
        assert np.abs(field(ds, name)).max() < 1e-9, name


@pytest.mark.parametrize("seed", [0, 1, 2])
def test_rigid_motion_leaves_curvature_unchanged(seed):
    rng = np.random.default_rng(seed)
    x, y = plane_coordinates(N, N, 0.5, y_up=False)
    z = 100 - np.sqrt(100 ** 2 - x * x - y * y)
    # Small enough that float32 storage of the displacement stays below 1e-9 1/mm.
    motion = rigid_displacement(x, y, z, SciRotation.from_rotvec(rng.normal(size=3) * 0.005),
                                rng.normal(size=3) * 0.05)
    ds = grid_dataset(N, N, x, y, z=z, **motion)
    reference = grid_dataset(N, N, x, y, z=z)
    ds.compute_curvature()
    reference.compute_curvature()
    for name in ("dkxx", "dkyy", "dkxy", "dk1", "dk2"):
        assert np.abs(field(ds, name)[INNER]).max() < 1e-9, name
    for name in ("k1", "k2", "kmean"):
        np.testing.assert_allclose(field(ds, name), field(reference, name), rtol=1e-6)


def test_exact_rigid_motion_gives_exactly_no_change():
    x, y = plane_coordinates(N, N, 0.5, y_up=False)
    z = (x * x + 2 * x * y + 3 * y * y) / 200
    # A quarter turn about Z plus a translation: the displacements are exact in float32.
    ds = grid_dataset(N, N, x, y, z=z, u=-y - x + 3, v=x - y - 2, w=np.full_like(x, 1.5))
    ds.compute_curvature(7)
    for name in ("dkxx", "dkyy", "dkxy", "dk1", "dk2"):
        assert np.abs(field(ds, name)).max() < 1e-12, name


def test_variables_descriptions_and_reuse():
    ds, _, _ = surface(lambda x, y: x * y / 100)
    before = ds.variables()
    ds.compute_curvature()
    assert ds.variables() == before + CURVATURE
    assert ds.variables_descriptions()[len(before):] == [
        "kxx [1/mm]", "kyy [1/mm]", "kxy [1/mm]", "kmean [1/mm]", "kgauss [1/mm^2]", "k1 [1/mm]",
        "k2 [1/mm]", "kangle [deg]", "dkxx [1/mm]", "dkyy [1/mm]", "dkxy [1/mm]", "dk1 [1/mm]",
        "dk2 [1/mm]"]
    assert set(ds.variables_types()[len(before):]) == {T.Curvature}
    ds.compute_curvature(7, compute_principal_curvature=False)
    assert len(ds.variables()) == len(before) + len(CURVATURE)
    ds.compute_curvature(reuse_vars=False, compute_principal_curvature=False)
    assert ds.variables()[len(before) + len(CURVATURE):] == ["kxx", "kyy", "kxy", "kmean", "kgauss",
                                                             "dkxx", "dkyy", "dkxy"]


def test_pixel_data_without_displacement_has_pixel_units_and_no_change():
    ds = zelpy.ZelDataSet()
    ds.add_aoi(9, 9)
    r, c = np.mgrid[0:9, 0:9].astype(np.float32)
    for name, kind, values in (("x", T.PixelCoordinate, c), ("y", T.PixelCoordinate, r),
                               ("sigma", T.Correlation, np.zeros((9, 9)))):
        ds.add_variable(name, name, kind)
        ds[0].variable_view(name)[...] = values
    ds.compute_curvature(5)
    assert ds.variables()[3:] == CURVATURE[:8]
    assert ds.variables_descriptions()[3] == "kxx [1/pixel]"


def test_points_without_a_usable_window_get_zero():
    valid = np.zeros((N, N), bool)
    valid[10:40, 10:40] = True
    valid[25, :] = False          # cuts the patch in two
    valid[5, 5] = valid[5, 6] = valid[6, 5] = True  # three points alone
    valid[50, 20:40] = True       # one row: no curvature across it
    ds, _, _ = surface(lambda x, y: 100 - np.sqrt(100 ** 2 - x * x - y * y), valid=valid)
    ds.compute_curvature(7)
    k1 = field(ds, "k1")
    assert np.all(k1[~valid] == 0) and np.all(k1[5:7, 5:7] == 0) and np.all(k1[50] == 0)
    np.testing.assert_allclose(k1[12:23, 12:38], 0.01, rtol=1e-3)


@pytest.mark.parametrize("count", [2, 5])
def test_one_and_many_workers_give_identical_results(count):
    rng = np.random.default_rng(4)
    valid = rng.uniform(size=(N, N)) > 0.2
    results = []
    before = core._set_analysis_workers(1)
    try:
        for workers in (1, count):
            core._set_analysis_workers(workers)
            ds, _, _ = surface(lambda x, y: np.sin(x / 7) * np.cos(y / 5), valid=valid,
                               w=np.outer(np.arange(N), np.arange(N)) * 1e-4)
            ds.compute_curvature(9)
            results.append(ds.get_values(CURVATURE))
    finally:
        core._set_analysis_workers(before)
    assert results[0].tobytes() == results[1].tobytes()


@pytest.mark.parametrize("window,log", [
    (2, "Smoothing window too small in computeCurvature()\n"),
    (4, "Even smoothing window in computeCurvature(). Proceeding with next valid size.\n"),
])
def test_window_rules(capfd, window, log):
    ds, _, _ = surface(lambda x, y: x * x / 100)
    reference = ds.copy()
    reference.compute_curvature(5)
    if window < 3:
        with pytest.raises(ValueError, match=r"^Error in calculating curvature\.$"):
            ds.compute_curvature(window)
    else:
        ds.compute_curvature(window)
        assert ds.get_values(CURVATURE).tobytes() == reference.get_values(CURVATURE).tobytes()
    assert capfd.readouterr().err == log


def test_missing_confidence_or_coordinates_fail(capfd):
    ds = zelpy.ZelDataSet()
    ds.add_aoi(5, 5)
    ds.add_variable("Q", "Q", T.Unknown)
    with pytest.raises(ValueError, match=r"^Error in calculating curvature\.$"):
        ds.compute_curvature()
    assert capfd.readouterr().err == ""
    ds.add_variable("sigma", "sigma", T.Correlation)
    with pytest.raises(ValueError, match=r"^Error in calculating curvature\.$"):
        ds.compute_curvature()
    assert capfd.readouterr().err == "Could not find coordinates for curvature computation.\n"


# ------------------------------------------------------------- look-ups

def lookup_dataset(seed=7, n=31):
    """A distorted grid with holes and a linear field L = 3X - 2Y + 1."""
    rng = np.random.default_rng(seed)
    x, y = plane_coordinates(n, n, 0.5, y_up=False)
    xs, ys = x + 0.1 * np.sin(y), y + 0.05 * x
    valid = rng.uniform(size=x.shape) > 0.15
    ds = grid_dataset(n, n, xs, ys, z=0.2 * xs - 0.3 * ys, u=3 * xs - 2 * ys + 1, valid=valid)
    return ds, xs, ys, valid


def test_linear_fields_are_reproduced_and_the_tree_changes_nothing():
    ds, xs, ys, valid = lookup_dataset()
    rng = np.random.default_rng(8)
    found = 0
    for px, py in rng.uniform(-8, 8, size=(1500, 2)):
        plain = ds.at_global_xy(px, py, ["U", "Z"])
        assert plain == ds.at_global_xy(px, py, ["U", "Z"], True) == ds[0].at_global_xy(px, py, ["U", "Z"], True)
        if plain is not None:
            found += 1
            np.testing.assert_allclose(plain, [3 * px - 2 * py + 1, 0.2 * px - 0.3 * py], atol=1e-5)
    assert 500 < found < 1500  # holes and the border leave some positions out
    # On a valid point: its stored values exactly; on an invalid one: nothing.
    i, j = np.argwhere(valid)[100]
    aoi = ds[0]
    p = i * aoi.num_columns() + j
    assert ds.at_global_xy(float(np.float32(xs[i, j])), float(np.float32(ys[i, j])), ["U", "Z"]) == \
        aoi.values(p, [aoi.variable_index("U"), aoi.variable_index("Z")])
    i, j = np.argwhere(~valid[1:-1, 1:-1])[0] + 1
    assert ds.at_global_xy(float(xs[i, j]), float(ys[i, j]), ["U"], True) is None


@pytest.mark.parametrize("use_tree", [False, True])
def test_an_invalid_corner_removes_half_a_cell(use_tree):
    valid = np.ones((5, 5), bool)
    valid[2, 2] = False
    x, y = plane_coordinates(5, 5, 1.0, y_up=False)
    ds = grid_dataset(5, 5, x, y, u=x, valid=valid)
    ds[0].set_value(12, "X", float("nan"))  # invalid points often have no position
    # Cells with corners (1,1) (1,2) (2,1) (2,2) and (2,2) (2,3) (3,2) (3,3):
    # only the triangle away from (2,2) is left in each.
    for corner in (-1, 1):
        assert ds.at_global_xy(0.75 * corner, 0.75 * corner, ["U"], use_tree) == [0.75 * corner]
        assert ds.at_global_xy(0.25 * corner, 0.25 * corner, ["U"], use_tree) is None
    assert ds.at_global_xy(2.5, 0.0, ["U"], use_tree) is None  # outside the AOI


def test_pixel_lookup_and_aoi_order():
    x, y = plane_coordinates(11, 11, 0.5, y_up=False)
    ds = grid_dataset(11, 11, x, y, u=x, aois=2)
    ds[1].variable_view("U")[...] = 7.0
    # Both AOIs cover the position: the first one answers.
    assert ds.lookup_variables(3.25, 4.5, ["x", "y", "U"]) == pytest.approx([3.25, 4.5, 3.25 * 0.5 - 2.5])
    ds[0].variable_view("sigma")[...] = -1
    assert ds.lookup_variables(3.25, 4.5, ["U"]) == [7.0]
    assert ds[1].lookup_variables(3.25, 4.5, "U") == [7.0]
    with pytest.raises(ValueError, match=r"^Could not find variable Q$"):
        ds.at_global_xy(0, 0, ["U", "Q"])
    with pytest.raises(ValueError, match=r"^Could not find variable Q$"):
        ds[0].lookup_variables(0, 0, ["Q"])


@pytest.mark.parametrize("change", ["set_values", "set_value", "transform", "reload", "view",
                                    "earlier view"])
def test_trees_follow_changes_of_the_coordinates(change):
    ds, xs, ys, valid = lookup_dataset()
    aoi = ds[0]
    earlier = aoi.variable_view("X") if change == "earlier view" else None
    assert ds.at_global_xy(1.0, 1.0, ["U"], True) is not None
    if change == "set_values":
        ds.set_values({"X": (xs + 100).ravel()})
    elif change == "set_value":  # every point, one at a time
        for p, value in enumerate((xs + 100).ravel()):
            aoi.set_value(p, "X", value)
    elif change == "transform":
        ds.transform(zelpy.RigidTransformation(0, 0, 0, 100, 0, 0))
    elif change == "reload":
        moved, _, _, _ = lookup_dataset()
        moved[0].variable_view("X")[...] += 100
        ds.load_from_data(moved.export_raw(), "moved.out")
    elif change == "view":
        aoi.variable_view("X")[...] += 100
    else:  # taken before the look-up, written after it, then dropped
        earlier += 100
        assert ds.at_global_xy(101.0, 1.0, ["U"], True) == ds.at_global_xy(101.0, 1.0, ["U"])
        del earlier
    assert ds.at_global_xy(1.0, 1.0, ["U"], True) is None
    assert ds.at_global_xy(101.0, 1.0, ["U"], True) == ds.at_global_xy(101.0, 1.0, ["U"])
    assert ds.at_global_xy(101.0, 1.0, ["U"]) is not None


def test_trees_follow_reloads_of_hdf5_members(tmp_path):
    path = str(tmp_path / "s.h5")
    for k, shift in enumerate((0, 3)):
        moved, _, _, _ = lookup_dataset()
        moved[0].variable_view("X")[...] += shift
        moved.save(path + ":out:%d" % k)
    ds = zelpy.ZelDataSet()
    positions = np.random.default_rng(10).uniform(-9, 12, size=(60, 2))
    for k, (px, py) in enumerate(positions):
        ds.load(path + ":out:%d" % (k % 2))   # the AOI may reappear at the old address
        assert ds.at_global_xy(px, py, ["U"], True) == ds.at_global_xy(px, py, ["U"])
    assert len(ds._locators) == 1


def test_read_only_views_and_other_variables_keep_the_tree():
    ds, xs, _, _ = lookup_dataset()
    expected = ds.at_global_xy(1.0, 1.0, ["U"], True)
    tree = ds._locators[(0, False)]
    view = ds[0].variable_view("X", writable=False)
    with pytest.raises(ValueError, match="read-only"):
        view[0, 0] = 1
    with pytest.raises(ValueError, match="WRITEABLE"):
        view.flags.writeable = True
    ds.set_values({"U": ds.get_values(["U"])["U"] * 2})
    ds[0].variable_view("W")[...] = 1
    assert ds.at_global_xy(1.0, 1.0, ["U"], True) == [2 * expected[0]]
    assert ds._locators[(0, False)] is tree


def test_a_tree_built_while_the_coordinates_change_is_not_kept():
    n = 250
    x, y = plane_coordinates(n, n, 0.5, y_up=False)
    ds = grid_dataset(n, n, x, y, u=x)
    X = ds.get_values(["X"])["X"]
    start = time.perf_counter()
    ds.copy().at_global_xy(1.0, 1.0, ["U"], True)
    build = time.perf_counter() - start
    for trial in range(10):
        ds.set_values({"X": X + 1000 * (trial % 2)})   # the next look-up builds a tree
        moved = X + 1000 * ((trial + 1) % 2)
        # The write lands at a different moment of the build in each trial.
        writer = threading.Timer(build * trial / 10, ds.set_values, [{"X": moved}])
        writer.start()
        ds.at_global_xy(1.0, 1.0, ["U"], True)
        writer.join()
        px = 1.0 + 1000 * ((trial + 1) % 2)
        found = ds.at_global_xy(px, 1.0, ["U"])
        assert found is not None and ds.at_global_xy(px, 1.0, ["U"], True) == found


def test_threads_building_and_using_the_trees_agree():
    ds, _, _, _ = lookup_dataset(n=201)
    positions = np.random.default_rng(9).uniform(-45, 45, size=(300, 2))
    expected = [ds.at_global_xy(px, py, ["U"]) for px, py in positions]
    ds.set_values({"X": ds.get_values(["X"])["X"]})  # drops the trees: the threads race to build them
    with ThreadPoolExecutor(4) as pool:
        results = list(pool.map(lambda k: [(ds if k % 2 else ds[0]).at_global_xy(px, py, ["U"], True)
                                           for px, py in positions], range(8)))
    assert all(result == expected for result in results)


def test_locate_once_then_interpolate_other_datasets():
    ds, xs, ys, valid = lookup_dataset()
    other = ds.copy()
    other[0].variable_view("U")[...] *= 2
    px, py = 1.3, -2.2
    while ds._locate(px, py) is None:  # a hole: step aside
        px += 0.3
    location = ds._locate(px, py)
    (i0, i1, i2), weights = location
    assert abs(sum(weights) - 1) < 1e-12
    assert other._interpolate(location, ["U"]) == pytest.approx([2 * ds.at_global_xy(px, py, ["U"])[0]])
    assert ds[0]._interpolate(ds[0]._locate(px, py, use_tree=False), ["U"]) == ds.at_global_xy(px, py, ["U"])
    other[0].set_value(i1, "sigma", -1.0)
    assert other._interpolate(location, ["U"]) is None
    assert ds._locate(100, 100) is None


def test_arclength():
    x, y = plane_coordinates(41, 41, 0.5, y_up=False)
    tilted = grid_dataset(41, 41, x, y, z=x * math.tan(math.radians(30)))
    assert tilted[0].arclength((-10, 1), (10, 1), 40) == pytest.approx(20 / math.cos(math.radians(30)), rel=1e-6)
    arc = grid_dataset(41, 41, x, y, z=50 - np.sqrt(50 ** 2 - x * x))
    exact = 50 * 2 * math.asin(9 / 50)
    assert arc[0].arclength((-9, 0.3), (9, 0.3), 400) == pytest.approx(exact, rel=1e-5)
    hole = np.ones((41, 41), bool)
    hole[20, 20] = False
    gap = grid_dataset(41, 41, x, y, valid=hole)
    assert gap[0].arclength((-5, 0.1), (5, 0.1), 100) is None
    assert gap[0].arclength((-5, 0.1), (5, 0.1), 0) is None
    assert gap[0].arclength((-5, 2), (5, 2), 1) == pytest.approx(10)


# ------------------------------------------------ area, extremes, ranges

def mesh_area(ds, aoi=None):
    """Area from the triangulation's indices, computed independently."""
    v = ds.get_values(["X", "Y", "Z"])
    p = np.stack([v["X"], v["Y"], v["Z"]], -1).astype(np.float64)
    t = ds.triangulation().astype(np.int64)
    return 0.5 * np.linalg.norm(np.cross(p[t[:, 1]] - p[t[:, 0]], p[t[:, 2]] - p[t[:, 0]]), axis=1).sum()


def test_aoi_area():
    x, y = plane_coordinates(121, 121, 0.5, y_up=False)
    assert grid_dataset(121, 121, x, y).aoi_area() == 3600.0
    tilted = grid_dataset(121, 121, x, y, z=x * math.tan(math.radians(30)), aois=2)
    # Z is stored in single precision.
    assert tilted.aoi_area(1) == pytest.approx(3600 / math.cos(math.radians(30)), rel=1e-7)
    assert tilted.aoi_area(-1) == 2 * tilted.aoi_area(0)
    rng = np.random.default_rng(5)
    valid = rng.uniform(size=x.shape) > 0.3
    curved = grid_dataset(121, 121, x, y, z=np.sin(x / 5) * y / 10, valid=valid)
    assert curved.aoi_area() == pytest.approx(mesh_area(curved), rel=1e-12)
    planar = grid_dataset(121, 121, x, y, valid=valid, convention="global2d")
    assert planar.aoi_area() == pytest.approx(mesh_area(grid_dataset(121, 121, x, y, valid=valid)), rel=1e-12)
    assert grid_dataset(5, 5, x[:5, :5], y[:5, :5], valid=np.zeros((5, 5), bool)).aoi_area() is None
    for bad in (2, -2):
        with pytest.raises(IndexError, match=r"^Index %d outside valid range \(0, 2\)$" % bad):
            tilted.aoi_area(bad)


@pytest.mark.parametrize("columns", [6, 7])
def test_aoi_area_of_grids_whose_cells_do_not_fill_the_last_block(columns):
    # The area kernel takes cells four at a time; with 6 or 7 columns the last
    # block reads the right corner of its last cell past a short row buffer.
    x, y = plane_coordinates(3, columns, 0.5, y_up=False)
    ds = grid_dataset(3, columns, x, y, z=np.sin(x) * y)
    assert ds.aoi_area() == pytest.approx(mesh_area(ds), rel=1e-12)


def statistics_dataset():
    x, y = plane_coordinates(3, 4)
    ds = grid_dataset(3, 4, x, y, aois=2)
    ds.add_variable("a", "a")
    ds.add_variable("b", "b")
    nan, inf = float("nan"), float("inf")
    ds.set_values({"a": [5, -2, 7, -2, nan, inf, 3, 7, -inf, 1, 0, 4] + [2] * 12,
                   "b": [-5, 0, 0, 2, 1, 1, 1, -9, 1, 1, 1, 1] + [-1] * 12})
    ds[0].set_value(0, "sigma", -1)   # its b holds the overall minimum
    ds[0].set_value(9, "sigma", -0.5)
    return ds


def test_extremes_skip_invalid_and_non_finite_values_and_tie_to_the_lowest_index():
    aoi = statistics_dataset()[0]
    assert aoi.find_minimum("a") == (-2.0, 1)
    assert aoi.find_maximum(aoi.variable_index("a")) == (7.0, 2)
    assert aoi.find_minimum("b") == (-9.0, 7)
    assert isinstance(aoi.find_minimum("a")[0], float)
    aoi.variable_view("sigma")[...] = -1
    assert aoi.find_maximum("a") == (None, None)
    with pytest.raises(ValueError, match=r"^Q is not a valid variable$"):
        aoi.find_minimum("Q")


def test_ranges_over_all_aois():
    ds = statistics_dataset()
    assert ds.range("a") == (-2.0, 7.0)
    assert ds.range("b") == (-9.0, 2.0)
    # Extremes of the point-wise sum, not sums of extremes.
    assert ds.sum_range("a", "b") == (-2.0, 7.0)
    ds.add_aoi(2, 2)
    with pytest.raises(ValueError, match=r"^Error in calculating range for 'a'\.$"):
        ds.range("a")
    with pytest.raises(ValueError, match=r"^Error in calculating range for the sum of variables 'a' and 'b'\.$"):
        ds.sum_range("a", "b")
    empty = statistics_dataset()
    empty.set_values({"sigma": [-1] * 24})
    with pytest.raises(ValueError, match=r"^Error in calculating range for 'a'\.$"):
        empty.range("a")


# ----------------------------------------------------------- kd-tree

def test_kd_tree_agrees_with_scipy():
    rng = np.random.default_rng(3)
    points = rng.normal(size=(4000, 2))
    points[::5] = np.round(points[::5], 1)  # duplicates: ties
    points[17] = np.nan
    tree = core._KDPointStorage(points)
    assert len(tree) == 3999
    finite = np.where(np.isfinite(points), points, 1e9)
    reference = cKDTree(finite)
    queries = np.concatenate([rng.normal(size=(1000, 2)) * 1.3, points[::40]])
    distances, ids = tree.nearest(queries)
    expected, _ = reference.query(queries)
    np.testing.assert_allclose(distances, expected, rtol=1e-14)
    for (qx, qy), i in zip(queries, ids):
        squared = (finite[:, 0] - qx) ** 2 + (finite[:, 1] - qy) ** 2
        assert i == np.flatnonzero(squared == squared.min()).min()  # ties: the lowest id
    for qx, qy in queries[:50]:
        radius = rng.uniform(0, 0.4)
        assert tree.within_radius(qx, qy, radius) == sorted(reference.query_ball_point((qx, qy), radius))


# ------------------------------------------------------ small conformance

def test_change_file_extension_refuses_none():
    with pytest.raises(TypeError):
        zelpy.change_file_extension(None, ".csv")
