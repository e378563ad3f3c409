"""Series operations and batch work, in this process and on a real local
dask cluster (started here, on 127.0.0.1)."""

import os
import subprocess
import sys
import warnings

import numpy as np
import pytest

import zelpy
from zelpy import series as zseries
from zelpy.series import Series, SeriesError, SeriesInterrupted

pd = pytest.importorskip("pandas")

TIMEOUT = 120
NUMBERS = (5, 7, 9)
SHAPE = (6, 7)


def value_field(k):
    """Dataset k: val = 10 k + point index; every fifth point invalid, one
    value NaN; the second AOI of dataset 2 has no valid point at all."""
    n = SHAPE[0] * SHAPE[1]
    val = 10.0 * k + np.arange(n, dtype=np.float32)
    val[3] = np.nan
    sigma = np.where(np.arange(n) % 5 == 0, -1.0, 0.01).astype(np.float32)
    return val, sigma


def write_series(directory):
    directory.mkdir()
    T = zelpy.ZelDataVariableType
    for k, number in enumerate(NUMBERS):
        ds = zelpy.ZelDataSet()
        ds.add_aoi(*SHAPE)
        val, sigma = value_field(k)
        ds.add_variable("val", "val [mm]", T.GlobalDisplacement, val.tolist())
        ds.add_variable("sigma", "sigma [pixel]", T.Correlation, sigma.tolist())
        ds.save(str(directory / f"run-{number:04d}_0.out"))
    return directory


def expected_stats(k):
    val, sigma = value_field(k)
    keep = val[(sigma >= 0) & np.isfinite(val)].astype(np.float64)
    return {"min": keep.min(), "max": keep.max(), "mean": keep.mean(), "std": keep.std(),
            "median": np.median(keep), "count": keep.size, "p90": np.percentile(keep, 90)}


@pytest.fixture
def outs(tmp_path):
    return write_series(tmp_path / "outs")


@pytest.fixture
def broken(outs):
    """The series with its middle file corrupt."""
    bad = outs / f"run-{NUMBERS[1]:04d}_0.out"
    bad.write_bytes(b"\x00" * 64)
    return outs, str(bad)


@pytest.fixture(scope="module")
def client():
    distributed = pytest.importorskip("distributed")
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  host="127.0.0.1", dashboard_address=None,
                                  scheduler_kwargs={"dashboard_address": "127.0.0.1:0"}) as cluster:
        with distributed.Client(cluster, timeout=60, set_as_default=False) as client:
            yield client


def run(*args, timeout=TIMEOUT):
    return subprocess.run([sys.executable, "-m", "zelpy", *map(str, args)],
                          capture_output=True, text=True, timeout=timeout)


# ------------------------------------------------------------------ in-process

def test_reduce_is_numpy_over_valid_finite_points(outs):
    stats = ["min", "max", "mean", "std", "median", "count", "p90"]
    table = Series(str(outs)).reduce("val", stats, progress=False)
    assert list(table.index) == [(n, f"run-{n:04d}_0.out") for n in NUMBERS]
    assert list(table.columns) == [("val", s) for s in stats]
    for k, number in enumerate(NUMBERS):
        want = expected_stats(k)
        got = table.loc[number].iloc[0]["val"]
        np.testing.assert_allclose([got[s] for s in stats], [want[s] for s in stats], rtol=1e-12)


@pytest.mark.parametrize("errors", ["raise", "warn", "ignore"])
def test_a_bad_file_is_named_and_the_others_are_done(broken, errors):
    outs, bad = broken
    series = Series(str(outs))
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        if errors == "raise":
            with pytest.raises(SeriesError) as info:
                series.reduce("val", ["max"], errors=errors, progress=False)
            table = info.value.result
            assert list(info.value.failures) == [bad]
            assert str(info.value).startswith(f"1 dataset(s) failed: {bad}: cannot be read")
        else:
            table = series.reduce("val", ["max"], errors=errors, progress=False)
    assert [str(w.message).split(":")[0] for w in caught] == ([bad] if errors == "warn" else [])
    column = table[("val", "max")].to_numpy()
    assert np.isnan(column[1])
    np.testing.assert_array_equal(column[[0, 2]], [expected_stats(0)["max"], expected_stats(2)["max"]])


def test_ctrl_c_keeps_what_is_done(outs):
    def fn(ds):
        if fn.calls == 1:
            raise KeyboardInterrupt
        fn.calls += 1
        return ds.matrix_size()
    fn.calls = 0
    with pytest.raises(SeriesInterrupted) as info:
        Series(str(outs)).map(fn, progress=False)
    assert isinstance(info.value, KeyboardInterrupt)
    assert (info.value.result, info.value.done, info.value.total) == ([42, None, None], 1, 3)


@pytest.mark.parametrize("call, error, message", [
    (lambda s: s.reduce(["val", "nope"]), ValueError, "Could not find variable nope"),
    (lambda s: s.reduce("val", ["mode"]), ValueError, "unknown statistic 'mode'"),
    (lambda s: s.map(len, errors="skip"), ValueError, "errors must be"),
    (lambda s: s.map(len, executor=42), TypeError, "executor must be"),
    (lambda s: s.map(len, stages=[3]), IndexError, "stage 3 outside the series of 3 datasets"),
    (lambda s: s.x_values("analog:force"), ValueError, "the series has no analog data"),
])
def test_mistakes_fail_before_any_work(outs, call, error, message):
    with pytest.raises(error, match=message):
        call(Series(str(outs)))


def test_a_variable_missing_after_a_dataset_had_it_is_a_failure_of_that_dataset(outs):
    series = Series(str(outs))
    ds = series[0]
    ds.add_variable("extra", "extra", zelpy.ZelDataVariableType.Unknown)
    ds.save(series.names[0])
    with pytest.raises(SeriesError) as info:
        series.reduce("extra", ["count"], progress=False)
    assert info.value.failures == {n: f"{n}: Could not find variable extra" for n in series.names[1:]}
    assert info.value.result[("extra", "count")].iloc[0] == 33


@pytest.mark.parametrize("rows, expect", [
    (3, [0.0, 1.0, 2.0]),          # one row per dataset, in order
    (12, [5.0, 7.0, 9.0]),         # more rows: row k is image k
    (2, "2 rows for 3 datasets"),
])
def test_analog_rows_are_matched_to_datasets(outs, rows, expect):
    analog = {"header": ["force [kN]"], "force [kN]": [str(float(i)) for i in range(rows)]}
    if isinstance(expect, str):
        with pytest.raises(ValueError, match=expect):
            Series(str(outs), analog=analog)
        return
    label, x = Series(str(outs), analog=analog).x_values("analog:force")
    assert label == "force [kN]"
    np.testing.assert_array_equal(x, expect)


def test_without_dask_everything_runs_in_this_process(outs, monkeypatch):
    monkeypatch.setattr(zseries, "_distributed", lambda: None)
    with zseries.open_executor(None) as executor:
        assert executor is None
    with pytest.raises(ImportError, match=r"zelpy\[cluster\]"):
        Series(str(outs)).map(len, executor="local")
    assert Series(str(outs)).map(lambda ds: ds.num_data(), progress=False) == [1, 1, 1]


def test_a_stage_asked_twice_is_answered_twice(outs):
    series = Series(str(outs))
    names = series.map(lambda ds: ds.file_name(), stages=[2, -1, 0], progress=False)
    assert names == [series.names[2], series.names[2], series.names[0]]


def test_sent_bytes_are_read_as_a_load_reads_them(outs, tmp_path):
    """transfer="bytes" takes a member's bytes as stored (signed bytes too)
    and refuses what a load refuses (hostile members: tests/test_hostile.py)."""
    import h5py
    raw = (outs / "run-0005_0.out").read_bytes()
    path = tmp_path / "signed.h5"
    with h5py.File(path, "w") as f:
        f["out/1"] = np.frombuffer(raw, np.int8)
        f["out/2.partial"] = np.frombuffer(raw, np.uint8)
    series = Series(str(path))
    assert series.map(lambda ds: ds.export_raw(), transfer="bytes", progress=False) == [raw]
    with pytest.raises(ValueError, match=f"^{path} does not contain 'out:2.partial' dataset.$"):
        zseries._read_bytes(f"{path}:out:2.partial")


def main(*args):
    from zelpy.cli import main
    return main([str(a) for a in args])


@pytest.mark.parametrize("call, loads", [
    (lambda src, tmp: main("export", src, "-f", "csv", "-o", tmp / "csv", "-q"), 3),
    (lambda src, tmp: main("series", src, "--reduce", "val", "-o", tmp / "h.csv", "-q"), 3),
    (lambda src, tmp: Series(str(src)).probe([(0, 0)], "val", progress=False), 3),
    # Mistakes are refused on the first dataset, before anything else is read.
    (lambda src, tmp: main("strain", src, "-o", tmp / "s.h5", "-q"), 1),   # window 15 > 6x7
    (lambda src, tmp: main("series", src, "--reduce", "nope", "-q"), 1),
])
def test_each_dataset_is_read_once(outs, tmp_path, monkeypatch, call, loads):
    from zelpyx.zelpy import zelpy as core
    read = []
    load = core._load_dataset
    monkeypatch.setattr(core, "_load_dataset", lambda name: read.append(name) or load(name))
    call(outs, tmp_path)
    assert len(read) == loads
    assert not (tmp_path / "s.h5").exists()


def test_export_without_variables_takes_each_datasets_own(outs, tmp_path, capsys):
    """With the first datasets unreadable nothing is known up front: each
    dataset exports all of its variables."""
    for name in os.listdir(outs):
        (outs / name).rename(outs / name.replace("run-", "old-"))
    zelpy.ZelDataSetReader(str(outs))[0].save(str(outs / "run-0011_0.out"))
    for name in os.listdir(outs):
        if name.startswith("old-"):
            (outs / name).write_bytes(b"\x00" * 64)
    assert main("export", outs, "-f", "csv", "-o", tmp_path / "csv", "-q") == 1
    assert capsys.readouterr().err.count("cannot be read") == 3
    with open(tmp_path / "csv" / "run-0011_0.csv") as table:
        assert table.readline() == "aoi,row,column,val,sigma\n"


@pytest.mark.parametrize("output, transfer", [
    (None, "bytes"), ("{src}", "bytes"), ("{link}", "bytes"), ("{tmp}/other.h5", "names")])
def test_strain_sends_bytes_when_it_writes_into_its_source(demo_h5, tmp_path, monkeypatch,
                                                         output, transfer):
    """Workers reading the HDF5 file this process writes would race it."""
    import shutil
    src = tmp_path / "src.h5"
    shutil.copy(demo_h5, src)
    (tmp_path / "link.h5").symlink_to(src)
    sent, outcomes = [], zseries._outcomes
    monkeypatch.setattr(zseries, "_outcomes", lambda fn, items, client, how, tick=None:
                        sent.append(how) or outcomes(fn, items, client, how, tick))
    dest = [] if output is None else ["-o", output.format(src=src, link=tmp_path / "link.h5", tmp=tmp_path)]
    assert main("strain", src, "-w", 5, "-q", "--jobs", 1, *dest) == 0
    assert sent == [transfer]


@pytest.mark.parametrize("args, status, fragment", [
    (("strain", "{src}", "--jobs", "2", "-o", "{tmp}/s.h5"), 0,
     "dask.distributed is not installed, so the datasets run in this process"),
    (("strain", "{src}", "--scheduler", "tcp://127.0.0.1:9"), 1,
     "--scheduler needs dask.distributed"),
])
def test_command_without_dask(demo_h5, tmp_path, args, status, fragment):
    argv = [a.format(src=demo_h5, tmp=tmp_path) for a in args]
    code = ("import sys; sys.modules['distributed'] = None; from zelpy.cli import main; "
            f"sys.exit(main({argv!r}))")
    result = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True,
                            timeout=TIMEOUT)
    assert result.stderr.splitlines() == [f"zelpy strain: {fragment}" + (
        ": pip install \"zelpy[cluster]\"" if status else " (pip install \"zelpy[cluster]\")")] \
        or fragment in result.stderr
    assert "Traceback" not in result.stderr and result.returncode == status


# ------------------------------------------------------------------ on a cluster

@pytest.mark.parametrize("transfer", ["names", "bytes"])
def test_cluster_gives_the_in_process_results(client, broken, transfer):
    outs, bad = broken
    series = Series(str(outs))
    results = []
    for executor in (None, client):
        with pytest.raises(SeriesError) as info:
            series.reduce("val", ["min", "max", "mean", "std", "count"], executor=executor,
                          transfer=transfer, progress=False)
        assert list(info.value.failures) == [bad]
        results.append(info.value.result)
    pd.testing.assert_frame_equal(*results)


def test_commands_on_a_cluster_write_what_they_write_in_process(client, demo_h5, tmp_path):
    address = client.scheduler.address
    for where in ("inline", "cluster"):
        how = ["--jobs", "1"] if where == "inline" else ["--scheduler", address]
        out = tmp_path / where
        out.mkdir()
        for args in (["strain", demo_h5, "-o", out / "s.h5", "--window", 5],
                     ["export", demo_h5, "-f", "csv", "-v", "e1", "U", "-o", out / "csv"],
                     ["series", demo_h5, "--reduce", "e1", "-o", out / "series.csv"]):
            result = run(*args, *how, "-q")
            assert (result.returncode, result.stderr) == (0, ""), args
    one, two = (zelpy.ZelDataSetReader(str(tmp_path / w / "s.h5")) for w in ("inline", "cluster"))
    for a, b in zip(one, two, strict=True):
        np.testing.assert_array_equal(a.get_values(a.variables()), b.get_values(b.variables()))
    for name in ["series.csv"] + [f"csv/{n}" for n in sorted(os.listdir(tmp_path / "inline/csv"))]:
        assert (tmp_path / "inline" / name).read_bytes() == (tmp_path / "cluster" / name).read_bytes()


def test_local_clusters_are_closed_when_replaced_or_when_starting_fails(monkeypatch):
    distributed = pytest.importorskip("distributed")
    started = []

    class Cluster(distributed.LocalCluster):
        def __init__(self, *args, **kwargs):
            super().__init__(*args, **kwargs)
            started.append(self)

    monkeypatch.setattr(distributed, "LocalCluster", Cluster)
    monkeypatch.setattr(zseries, "_local_clients", {})
    first = zseries.local_client(1)
    first.close()                    # by the user; its workers still run
    second = zseries.local_client(1)
    assert second is not first and second.status == "running"
    zseries._close_local_clusters()

    def refuse(*args, **kwargs):
        raise RuntimeError("plugin refused")
    monkeypatch.setattr(distributed.Client, "register_plugin", refuse)
    with pytest.raises(RuntimeError, match="plugin refused"):
        zseries.local_client(1)
    assert [cluster.status.name for cluster in started] == ["closed"] * 3


@pytest.fixture(scope="module")
def demo_h5(tmp_path_factory):
    from zelpy.demo import DemoSeries, run_demo
    directory = tmp_path_factory.mktemp("demo")
    run_demo(str(directory), DemoSeries(size=61, steps=3), window=5, plot=False)
    return directory / "plate_hole.h5"


# ------------------------------------------------------------------ commands

def png_size(path):
    head = path.read_bytes()[:24]
    assert head[:8] == b"\x89PNG\r\n\x1a\n"
    return int.from_bytes(head[16:20], "big"), int.from_bytes(head[20:24], "big")


def test_series_command_writes_a_tidy_table_and_a_plot(demo_h5, tmp_path):
    import csv

    from zelpy.demo import DemoSeries

    project = demo_h5.parent / "plate_hole.z3d"
    result = run("series", project, "--reduce", "e1", "--stats", "max,count", "--x", "analog:stress",
                 "-o", tmp_path / "h.csv", "--plot", tmp_path / "h.png", "--jobs", 1)
    assert (result.returncode, result.stderr) == (0, "")
    rows = list(csv.DictReader(open(tmp_path / "h.csv", newline="")))
    assert list(rows[0]) == ["number", "dataset", "image", "time [s]", "force [kN]", "stress [MPa]",
                             "quantity", "location", "variable", "statistic", "value", "unit"]
    assert [(r["number"], r["statistic"], r["unit"]) for r in rows[:2]] == [("0", "max", "1"), ("0", "count", "")]
    want = Series(str(demo_h5)).reduce("e1", ["max", "count"], progress=False)
    np.testing.assert_array_equal(np.float32([r["value"] for r in rows]), want.to_numpy(np.float32).ravel())
    np.testing.assert_array_equal([float(r["stress [MPa]"]) for r in rows[::2]],
                                  DemoSeries(steps=3).stresses())
    assert png_size(tmp_path / "h.png") == (1000, 700)


@pytest.mark.parametrize("args, status, message", [
    ((), 1, "nothing to compute: give --probe, --extensometer or --reduce"),
    (("--reduce", "nope"), 1, "unknown variable 'nope'"),
    (("--reduce", "e1", "--x", "analog:nope"), 1,
     "no analog column 'nope' (available: image, time [s], force [kN], stress [MPa])"),
    (("--reduce", "e1", "--stats", "max,mode"), 1, "unknown statistic 'mode'"),
    (("--probe", "1"), 2, "expected X,Y, got '1'"),
    (("--extensometer", "1,2,3,nan"), 2, "expected X1,Y1,X2,Y2"),
])
def test_series_command_mistakes_are_one_line(demo_h5, args, status, message):
    result = run("series", demo_h5.parent / "plate_hole.z3d", *args)
    assert result.returncode == status and "Traceback" not in result.stderr
    assert len(result.stderr.splitlines()) == 1 and message in result.stderr


def test_plot_overlay_on_a_camera_image(demo_h5, tmp_path):
    iio = pytest.importorskip("imageio.v3")
    image = tmp_path / "deformed.png"   # 16-bit grey, as cameras deliver
    iio.imwrite(image, np.random.default_rng(0).integers(0, 4096, (2000, 2000), dtype=np.uint16))
    result = run("plot", demo_h5, "-v", "e1", "--overlay", image, "-o", tmp_path / "o.png", "--size", "640x480")
    assert result.returncode == 0, result.stderr
    assert png_size(tmp_path / "o.png") == (640, 480)
    (tmp_path / "not.png").write_bytes(b"not an image")
    result = run("plot", demo_h5, "-v", "e1", "--overlay", tmp_path / "not.png", "-o", tmp_path / "p.png")
    assert result.returncode == 1 and "not.png: cannot be read as an image" in result.stderr
    assert not (tmp_path / "p.png").exists()


# ------------------------------------------------------------------ look-ups

def grid_dataset(rows=9, columns=11, shift=0.0, invalid=(), u=lambda X, Y: 0 * X, v=lambda X, Y: 0 * X):
    """A flat grid at 0.5 mm pitch (pixel pitch 2) with U, V given as
    functions of X, Y; ``invalid`` lists point indices with confidence -1."""
    T = zelpy.ZelDataVariableType
    X, Y = np.meshgrid(shift + 0.5 * np.arange(columns), -0.5 * np.arange(rows))
    X, Y = X.ravel(), Y.ravel()
    sigma = np.full(X.size, 0.01)
    sigma[list(invalid)] = -1
    ds = zelpy.ZelDataSet()
    ds.add_aoi(rows, columns)
    fields = {"x": (2 * X, T.PixelCoordinate), "y": (-2 * Y, T.PixelCoordinate),
              "X": (X, T.GlobalCoordinate), "Y": (Y, T.GlobalCoordinate), "Z": (0 * X, T.GlobalCoordinate),
              "U": (u(X, Y), T.GlobalDisplacement), "V": (v(X, Y), T.GlobalDisplacement),
              "W": (0 * X, T.GlobalDisplacement), "sigma": (sigma, T.Correlation)}
    for name, (values, kind) in fields.items():
        ds.add_variable(name, name + " [mm]", kind, values.tolist())
    return ds


def save_series(directory, datasets):
    directory.mkdir()
    for k, ds in enumerate(datasets):
        ds.save(str(directory / f"grid-{k:04d}_0.out"))
    return Series(str(directory))


@pytest.mark.parametrize("space", ["global", "pixel"])
def test_probe_is_the_look_up_of_each_dataset(tmp_path, space):
    """Locations found once are reused only where the grid and the validity
    around them are unchanged: every row equals a fresh look-up."""
    shear = lambda X, Y: 0.01 * X - 0.02 * Y   # noqa: E731
    around_p1, around_p0 = [72, 73, 83, 84], [24, 25, 35, 36]   # grid cells of the first two points
    datasets = [grid_dataset(u=shear, invalid=around_p1), grid_dataset(u=shear, invalid=around_p0),
                grid_dataset(u=shear), grid_dataset(u=shear, shift=0.25),   # another grid
                grid_dataset(u=shear, rows=10)]
    series = save_series(tmp_path / "grid", datasets)
    points = [(1.3, -1.1), (3.1, -3.1), (1.75, -0.2), (9.0, -9.0)]   # the last outside
    if space == "pixel":
        points = [(2 * x, -2 * y) for x, y in points]
    table = series.probe(points, ["U", "X"], space=space, progress=False)
    for row, ds in zip(table.to_numpy(), datasets):
        look = ds.at_global_xy if space == "global" else ds.lookup_variables
        want = [look(x, y, ["U", "X"]) or [np.nan, np.nan] for x, y in points]
        np.testing.assert_array_equal(row, np.ravel(want))
    # Lost and regained validity both count: each point is missing exactly
    # where its cell is invalid.
    assert np.isnan(table.to_numpy()[:3, [0, 2]]).tolist() == [[False, True], [True, False], [False, False]]
    assert table.iloc[0, 0] == pytest.approx(0.01 * 1.3 + 0.02 * 1.1, rel=1e-6)


def test_probe_over_overlapping_aois_as_their_validity_changes(tmp_path):
    """Two distorted AOIs over one area, U = 1 in the first and 2 in the
    second: a position takes the first AOI valid there. The first AOI is
    lost, regained, then points come and go at random; every row is the
    fresh look-up of its dataset."""
    T = zelpy.ZelDataVariableType
    rng = np.random.default_rng(3)
    X, Y = (np.concatenate([g + rng.uniform(-0.1, 0.1, g.shape) for g in grid]).ravel() for grid in
            zip(*(np.meshgrid(shift + 0.5 * np.arange(8), -0.5 * np.arange(7)) for shift in (0, 0.25))))
    n = X.size // 2
    validity = [np.repeat([False, True], n), np.ones(2 * n, bool)]
    validity += [rng.uniform(size=2 * n) > 0.15 for _ in range(5)] + [validity[0]]
    datasets = []
    for valid in validity:
        ds = zelpy.ZelDataSet()
        ds.add_aoi(7, 8)
        ds.add_aoi(7, 8)
        for name, values, kind in (("x", 2 * X, T.PixelCoordinate), ("y", -2 * Y, T.PixelCoordinate),
                                   ("X", X, T.GlobalCoordinate), ("Y", Y, T.GlobalCoordinate),
                                   ("Z", 0 * X, T.GlobalCoordinate), ("U", np.repeat([1.0, 2.0], n), T.GlobalDisplacement),
                                   ("sigma", np.where(valid, 0.01, -1.0), T.Correlation)):
            ds.add_variable(name, name, kind, values.tolist())
        datasets.append(ds)
    series = save_series(tmp_path / "two", datasets)
    points = [(1.3, -1.1)] + [tuple(p) for p in rng.uniform((-0.5, -3.5), (4.5, 0.5), (40, 2))]
    table = series.probe(points, "U", progress=False).to_numpy()
    for row, ds in zip(table, datasets):
        want = [ds.at_global_xy(x, y, ["U"]) or [np.nan] for x, y in points]
        np.testing.assert_array_equal(row, np.ravel(want))
    assert table[:2, 0] == pytest.approx([2, 1])


def test_extensometer_and_line_profile_on_a_uniform_stretch(tmp_path):
    eps = 0.002
    series = save_series(tmp_path / "grid", [grid_dataset(), grid_dataset(u=lambda X, Y: eps * X)])
    along, across = (series.extensometer(a, b, progress=False) for a, b in
                     (((0.5, -1), (4.5, -1)), ((2, -0.5), (2, -3.5))))
    np.testing.assert_allclose(along.to_numpy()[1], [4, 4 * (1 + eps), 4 * eps, eps], rtol=1e-6)
    np.testing.assert_allclose(across["strain"], 0, atol=1e-9)
    profile = series.line_profile((0, -1), (5, -1), 10, ["U"], stages=[0, -1], progress=False)
    assert profile.index.names == ["number", "dataset", "sample"] and len(profile) == 22
    last = profile.loc[1]
    np.testing.assert_allclose(last["s"], 0.5 * np.arange(11))
    np.testing.assert_allclose(last["U"], eps * last["X"], rtol=1e-6)


@pytest.fixture(scope="module")
def plate(tmp_path_factory):
    """The demo as `zelpy demo` makes it, on four load steps."""
    from zelpy.demo import DemoSeries, run_demo
    directory = tmp_path_factory.mktemp("plate")
    plan = DemoSeries(steps=4)
    run_demo(str(directory), plan, window=15, plot=False)
    return directory, plan


def test_demo_histories_follow_the_closed_form(plate, tmp_path):
    """Through `zelpy series`: e1 at the hole edge across the load axis rises
    linearly with the remote stress, with the closed-form slope at that point
    within 5 %; an extensometer along the load axis 25 mm from the centre
    stretches as the closed-form displacements say, within 2 %.

    The probe sits 1.5 mm outside the edge. The strain window (15 points,
    5.6 mm) flattens the steep rise next to the edge: 8 % low at the first
    measured ring (0.8 mm out), 3 % low at 1.5 mm, exact from 2 mm on."""
    import csv

    from zelpy.demo import _rotation
    directory, plan = plate
    tilt = _rotation(*plan.tilt_deg)

    def xy(p, q):          # plate coordinates -> reference global X, Y
        return tuple(float(c) for c in (tilt @ [p, q, 0])[:2])

    def pq(X, Y):          # and back, on the plate's plane
        return np.linalg.solve(tilt[:2, :2], [X, Y])

    edge, a, b = xy(0, 11.5), xy(-30, 25), xy(30, 25)
    result = run("series", directory / "plate_hole.z3d", "--probe", "%r,%r" % edge, "-v", "e1",
                 "--extensometer", "%r,%r,%r,%r" % (a + b), "--x", "analog:stress",
                 "-o", tmp_path / "h.csv", "--plot", tmp_path / "h.png", "--jobs", 1)
    assert (result.returncode, result.stderr) == (0, "")
    rows = list(csv.DictReader(open(tmp_path / "h.csv", newline="")))
    stress = np.array([float(r["stress [MPa]"]) for r in rows if r["quantity"] == "probe"])
    e1 = np.array([float(r["value"]) for r in rows if r["quantity"] == "probe"])
    np.testing.assert_allclose(stress, plan.stresses(), rtol=1e-8)
    slope, offset = np.polyfit(stress, e1, 1)
    assert slope == pytest.approx(plan.plate.principal_strain(*pq(*edge), 1.0)[0], rel=0.05)
    assert np.abs(e1 - (slope * stress + offset)).max() < 0.01 * e1.max()

    measured = np.array([float(r["value"]) for r in rows if r["variable"] == "strain"])
    ends = np.array([pq(*a), pq(*b)])
    for s, got in zip(plan.stresses()[1:], measured[1:]):
        moved = ends + np.column_stack(plan.plate.displacement(ends[:, 0], ends[:, 1], s))
        want = np.linalg.norm(moved[1] - moved[0]) / np.linalg.norm(ends[1] - ends[0]) - 1
        assert got == pytest.approx(want, rel=0.02)
    assert png_size(tmp_path / "h.png") == (1000, 700)
