"""The weighted plane-fit smoother: single variable (ZelDataSet.smooth) and the
threaded multi-channel form used by the strain computation."""

import numpy as np
import pytest

import zelpy
from zelpyx.zelpy import zelpy as core

from analysis_fields import grid_dataset, reference_smooth
from conftest import aoi, be, block, kind, variable

ROWS, COLUMNS = 19, 23


@pytest.fixture
def noisy():
    rng = np.random.default_rng(7)
    values = rng.normal(size=(3, ROWS, COLUMNS)).astype(np.float32)
    valid = rng.uniform(size=(ROWS, COLUMNS)) > 0.2
    confidence = np.where(valid, rng.uniform(0, 0.05, (ROWS, COLUMNS)), -1.0).astype(np.float32)
    # Values at invalid points must not leak into any fit, not even as NaN.
    values[:, ~valid] = np.nan
    return values, valid, confidence


def linear_dataset(valid, window_field=None):
    r, c = np.mgrid[0:ROWS, 0:COLUMNS].astype(np.float64)
    plane = 2.5 - 0.75 * c + 1.25 * r
    ds = grid_dataset(ROWS, COLUMNS, c, r, valid=valid)
    ds.add_variable("p", "plane", zelpy.ZelDataVariableType.Unknown)
    ds[0].variable_view("p")[...] = plane
    return ds, plane


# ------------------------------------------------------------ multi-channel

@pytest.mark.parametrize("window", [1, 3, 5, 15])
@pytest.mark.parametrize("weighted", [True, False])
def test_channels_equal_direct_fit(noisy, window, weighted):
    # Values are O(1) and stored as float32 (ulp 1.2e-7 near 1); the direct
    # fit sums in another order, so allow a few float ulps: 1e-6.
    values, valid, confidence = noisy
    sentinel = np.full_like(values, 1234.5)
    out = core._smooth_channels(values, confidence, window, weighted, 0, sentinel)
    for k in range(values.shape[0]):
        expected, defined = reference_smooth(values[k].astype(np.float64), valid, window, weighted)
        np.testing.assert_allclose(out[k][defined], expected[defined], rtol=0, atol=1e-6)
        # Where no fit is defined nothing is written.
        assert np.all(out[k][~defined] == 1234.5)
        if window == 1:
            assert not defined.any()


@pytest.mark.parametrize("window", [3, 15, 31])
@pytest.mark.parametrize("workers", [2, 3, 7, 40])
def test_channels_same_with_one_and_many_workers(noisy, window, workers):
    values, valid, confidence = noisy
    one = core._smooth_channels(values, confidence, window, True, 1)
    many = core._smooth_channels(values, confidence, window, True, workers)
    # Every point's sums are formed in the same order whatever the worker
    # split, so the results are bit for bit equal.
    assert np.array_equal(one, many, equal_nan=True)


def test_channels_no_slope_information_writes_nothing():
    # Valid points on one grid row (or one column) leave the plane's slope
    # across that line undetermined: the system is singular everywhere.
    confidence = np.full((9, 11), -1.0, np.float32)
    confidence[4, :] = 0.0
    confidence[:, 7] = -1.0
    values = np.arange(99, dtype=np.float32).reshape(1, 9, 11)
    out = core._smooth_channels(values, confidence, 5, True, 0, np.full_like(values, -7.0))
    assert np.all(out == -7.0)
    column = np.full((9, 11), -1.0, np.float32)
    column[:, 3] = 0.0
    out = core._smooth_channels(values, column, 15, False, 0, np.full_like(values, -7.0))
    assert np.all(out == -7.0)


# ---------------------------------------------------------- single variable

@pytest.mark.parametrize("window", [3, 5, 15, 4])
def test_smooth_keeps_linear_field_and_zeroes_invalid(window):
    # A plane in row and column is reproduced exactly by the fit wherever it
    # is defined, borders included. Values reach ~30 (float32 ulp 1.9e-6):
    # tolerance 1e-5.
    rng = np.random.default_rng(3)
    valid = rng.uniform(size=(ROWS, COLUMNS)) > 0.15
    ds, plane = linear_dataset(valid)
    ds.smooth("p", window)
    result = ds[0].variable_view("p")
    np.testing.assert_allclose(result[valid], plane[valid], rtol=0, atol=1e-5)
    assert np.all(result[~valid] == 0.0)


@pytest.mark.parametrize("window", [3, 9, 15])
@pytest.mark.parametrize("weighted", [True, False])
def test_smooth_equals_direct_fit(noisy, window, weighted):
    # The single-variable kernel is single precision; the separable form
    # keeps its row factors exactly, the direct one rounds their products
    # (relative 6e-8 per weight): tolerance 1e-6 on O(1) values.
    values, valid, confidence = noisy
    field = np.where(valid, values[0], 5.0)
    ds = grid_dataset(ROWS, COLUMNS, np.zeros((ROWS, COLUMNS)), np.zeros((ROWS, COLUMNS)), valid=valid)
    ds.add_variable("f", "field", zelpy.ZelDataVariableType.Unknown)
    ds[0].variable_view("f")[...] = field
    ds.smooth("f", window, weighted)
    expected, defined = reference_smooth(field.astype(np.float64), valid, window, weighted, single=True)
    result = ds[0].variable_view("f")
    np.testing.assert_allclose(result[defined], expected[defined], rtol=0, atol=1e-6)
    assert np.all(result[~defined] == 0.0)


@pytest.mark.parametrize("even", [2, 4, 6])
def test_smooth_even_window_uses_next_odd(noisy, even):
    values, valid, _ = noisy
    results = []
    for window in (even, even + 1):
        ds = grid_dataset(ROWS, COLUMNS, np.zeros((ROWS, COLUMNS)), np.zeros((ROWS, COLUMNS)), valid=valid)
        ds.add_variable("f", "field", zelpy.ZelDataVariableType.Unknown)
        ds[0].variable_view("f")[...] = np.where(valid, values[1], 0.0)
        ds.smooth("f", window)
        results.append(ds[0].variable_view("f").copy())
    assert np.array_equal(results[0], results[1])


def test_smooth_window_one_sets_everything_to_zero():
    # A lone point has no slope information: every fit is singular.
    ds, _ = linear_dataset(np.ones((ROWS, COLUMNS), bool))
    ds.smooth("p", 1)
    assert np.all(ds[0].variable_view("p") == 0.0)


def test_smooth_isolated_valid_point_becomes_zero():
    valid = np.zeros((ROWS, COLUMNS), bool)
    valid[1, 1] = True  # nothing else valid within 7 rows and columns
    valid[12:, 10:] = True
    ds, plane = linear_dataset(valid)
    ds.smooth("p", 15)
    result = ds[0].variable_view("p")
    assert result[1, 1] == 0.0
    np.testing.assert_allclose(result[12:, 10:], plane[12:, 10:], rtol=0, atol=1e-5)


def test_smooth_every_aoi():
    valid = np.ones((ROWS, COLUMNS), bool)
    ds = grid_dataset(ROWS, COLUMNS, np.zeros((ROWS, COLUMNS)), np.zeros((ROWS, COLUMNS)), valid=valid, aois=3)
    ds.add_variable("f", "field", zelpy.ZelDataVariableType.Unknown)
    rng = np.random.default_rng(1)
    for i in range(3):
        ds[i].variable_view("f")[...] = rng.normal(size=(ROWS, COLUMNS))
    before = [ds[i].variable_view("f").copy() for i in range(3)]
    ds.smooth("f", 5)
    for i in range(3):
        expected, _ = reference_smooth(before[i].astype(np.float64), valid, 5, True, single=True)
        np.testing.assert_allclose(ds[i].variable_view("f"), expected, rtol=0, atol=1e-6)


def test_smooth_skips_aois_that_are_not_grids():
    values = np.arange(12, dtype=np.float32)
    conf = np.zeros(12, np.float32)
    variables = [variable("f", "field", kind(6), values), variable("sigma", "sigma", kind(5), conf)]
    data = block([aoi(3, 4, variables, grid=0xA0110000), aoi(3, 4, variables, grid=0xA0110002)])
    ds = zelpy.ZelDataSet()
    ds.load_from_data(data, "two.out")
    ds.smooth("f", 3)
    assert np.array_equal(ds[0].variable_view("f").ravel(), values)
    np.testing.assert_allclose(ds[1].variable_view("f").ravel(), values, rtol=0, atol=1e-5)


@pytest.mark.parametrize("case", ["unknown name", "no confidence", "negative window", "zero window"])
def test_smooth_errors(case):
    if case == "no confidence":
        ds = zelpy.ZelDataSet()
        ds.add_aoi(4, 4)
        ds.add_variable("f", "field")
        name, window = "f", 3
    else:
        ds, _ = linear_dataset(np.ones((ROWS, COLUMNS), bool))
        name, window = {"unknown name": ("nope", 15), "negative window": ("p", -3),
                        "zero window": ("p", 0)}[case]
    with pytest.raises(ValueError) as error:
        ds.smooth(name, window)
    assert str(error.value) == "Error in smooth variable."
    assert type(error.value) is ValueError


def test_smooth_shares_memory_with_views():
    ds, plane = linear_dataset(np.ones((ROWS, COLUMNS), bool))
    view = ds[0].variable_view("p")
    ds.smooth("p", 1)
    assert np.all(view == 0.0)


@pytest.mark.parametrize("window", [5, 15])
def test_channels_wide_grid_equal_direct_fit(window):
    # Wider than the column strips the filter walks in, with invalid points
    # on the strip seams; same tolerance as the narrow grid.
    rng = np.random.default_rng(9)
    rows, columns = 12, 300
    valid = rng.uniform(size=(rows, columns)) > 0.1
    valid[:, 126:131] = False
    valid[:, 255] = False
    values = rng.normal(size=(1, rows, columns)).astype(np.float32)
    confidence = np.where(valid, 0.0, -1.0).astype(np.float32)
    out = core._smooth_channels(values, confidence, window, True, 0, np.full_like(values, 1234.5))
    expected, defined = reference_smooth(values[0].astype(np.float64), valid, window, True)
    np.testing.assert_allclose(out[0][defined], expected[defined], rtol=0, atol=1e-6)
    assert np.all(out[0][~defined] == 1234.5)
    assert np.array_equal(out, core._smooth_channels(values, confidence, window, True, 3,
                                                     np.full_like(values, 1234.5)))
