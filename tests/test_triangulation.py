"""Grid triangulation: counts, vertex orders, global offsets, sub-sampling,
errors, and plotting the mesh with matplotlib."""

import itertools

import numpy as np
import pytest

import zelpy

from analysis_fields import grid_dataset, plane_coordinates
from conftest import aoi, block, kind, variable


def dataset(rows, columns, valid=None, aois=1):
    x, y = plane_coordinates(rows, columns)
    return grid_dataset(rows, columns, x, y, valid=valid, aois=aois)


@pytest.mark.parametrize("rows,columns", [(2, 2), (7, 5), (12, 13), (16, 9)])
@pytest.mark.parametrize("step", [1, 2, 3, 4])
def test_full_grid_counts(rows, columns, step):
    tri = dataset(rows, columns).triangulation(step)
    cells = max(rows // step - 1, 0) * max(columns // step - 1, 0)
    assert tri.shape == (2 * cells, 3)
    assert tri.dtype == np.uint32
    # Sub-sampled vertices lie on the coarse grid only.
    assert np.all((tri // columns) % step == 0) and np.all((tri % columns) % step == 0)


# Corner patterns of one cell (TL, TR, BL, BR) and the triangles they give,
# with TL = 0, TR = 1, BL = 2, BR = 3 on a 2 x 2 grid.
CELL = {
    (1, 1, 1, 1): [(0, 1, 2), (1, 3, 2)],
    (1, 1, 1, 0): [(0, 1, 2)],
    (1, 1, 0, 1): [(0, 1, 3)],
    (1, 0, 1, 1): [(3, 2, 0)],
    (0, 1, 1, 1): [(3, 2, 1)],
}


@pytest.mark.parametrize("corners", list(itertools.product([0, 1], repeat=4)))
def test_cell_patterns_and_vertex_order(corners):
    valid = np.array(corners, bool).reshape(2, 2)
    tri = dataset(2, 2, valid).triangulation()
    assert tri.tolist() == [list(t) for t in CELL.get(corners, [])]


def test_all_triangles_turn_the_same_way():
    # Consumers rely on one winding: in (column, row) coordinates every
    # triangle of every pattern has the same orientation.
    rng = np.random.default_rng(4)
    valid = rng.uniform(size=(30, 40)) > 0.3
    tri = dataset(30, 40, valid).triangulation().astype(np.int64)
    col, row = tri % 40, tri // 40
    cross = (col[:, 1] - col[:, 0]) * (row[:, 2] - row[:, 0]) - (row[:, 1] - row[:, 0]) * (col[:, 2] - col[:, 0])
    assert np.all(cross > 0)
    assert np.all(valid.ravel()[tri])


def test_offsets_across_aois():
    # AOI 0 has no valid point yet still shifts AOI 1 by its 3 x 4 points;
    # AOI 1 (2 x 2) and AOI 2 (2 x 3) are fully valid.
    shapes = [(3, 4), (2, 2), (2, 3)]
    ds = zelpy.ZelDataSet()
    for rows, columns in shapes:
        ds.add_aoi(rows, columns)
    T = zelpy.ZelDataVariableType
    for name in ("x", "y"):
        ds.add_variable(name, name, T.PixelCoordinate)
    ds.add_variable("sigma", "sigma", T.Correlation, [-1.0] * 12 + [0.0] * 10)
    tri = ds.triangulation()
    assert tri.tolist() == [[12, 13, 14], [13, 15, 14],
                            [16, 17, 19], [17, 20, 19], [17, 18, 20], [18, 21, 20]]
    values = ds.get_values(["sigma"])
    assert len(values) == 22 and np.all(values["sigma"][tri] == 0.0)


def test_aois_that_cannot_be_meshed_still_count_in_offsets():
    # AOI 0 lacks "y", AOI 1 is not a grid, AOI 2 is meshed after 2 x 6 + 2 x 2 points.
    n = 4
    conf = np.zeros(n, np.float32)
    xs = np.arange(n, dtype=np.float32)
    meshable = [variable("x", "x", kind(0), xs), variable("y", "y", kind(0), xs),
                variable("sigma", "s", kind(5), conf)]
    no_y = [variable("x", "x", kind(0), np.zeros(12, np.float32)),
            variable("sigma", "s", kind(5), np.zeros(12, np.float32))]
    data = block([aoi(2, 6, no_y), aoi(2, 2, meshable, grid=0xA0110000), aoi(2, 2, meshable)])
    ds = zelpy.ZelDataSet()
    ds.load_from_data(data, "mixed.out")
    assert ds.triangulation().tolist() == [[16, 17, 18], [17, 19, 18]]


def test_no_valid_points_gives_empty_array():
    tri = dataset(6, 6, np.zeros((6, 6), bool)).triangulation()
    assert tri.shape == (0, 3) and tri.dtype == np.uint32
    assert zelpy.ZelDataSet().triangulation().shape == (0, 3)


@pytest.mark.parametrize("step", [0, 5, -1, 100])
def test_sub_sample_out_of_range(step):
    with pytest.raises(ValueError) as error:
        dataset(4, 4).triangulation(step)
    assert type(error.value) is ValueError
    assert str(error.value) == "sub_sample must be in range [1,4], got " + str(step)


def test_tripcolor_of_strain(tmp_path):
    matplotlib = pytest.importorskip("matplotlib")
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    from matplotlib.tri import Triangulation

    rows, columns = 25, 30
    x, y = plane_coordinates(rows, columns)
    valid = np.hypot(x, y) < 11
    ds = grid_dataset(rows, columns, x, y, u=0.01 * x * x / 10, valid=valid)
    ds.compute_strain(5)
    tri = ds.triangulation()
    data = ds.get_values(["X", "Y", "exx"])
    mesh = Triangulation(data["X"], data["Y"], tri)
    figure, axes = plt.subplots()
    artist = axes.tripcolor(mesh, data["exx"], shading="gouraud")
    figure.colorbar(artist)
    path = tmp_path / "exx.png"
    figure.savefig(path)
    plt.close(figure)
    assert path.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    # The colour range is that of the valid points' strain: exx = 0.002 * X.
    low, high = artist.get_clim()
    assert low == pytest.approx(data["exx"][valid.ravel()].min(), abs=1e-4)
    assert high == pytest.approx(data["exx"][valid.ravel()].max(), abs=1e-4)
