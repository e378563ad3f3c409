"""The zelpy command, run the way a user runs it: as a separate process."""

import base64
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time
import xml.etree.ElementTree as ET

import h5py
import numpy as np
import pytest

import zelpy
from zelpy.demo import DemoSeries

try:
    import distributed  # noqa: F401
    HAVE_DASK = True
except ImportError:
    HAVE_DASK = False
# --jobs 2 runs a local dask cluster; without dask the command says so and
# runs in its own process, which tests/test_series.py covers.
needs_dask = pytest.mark.skipif(not HAVE_DASK, reason="--jobs 2 needs dask.distributed")

TIMEOUT = 120

# Small but not tiny: 121 x 121 points over 80 mm is a 0.67 mm pitch, so the
# 10 mm hole spans 15 grid points and a window of 7 covers 4 mm.
DEMO_SIZE, DEMO_STEPS, DEMO_WINDOW = 121, 3, 7


def run(*args, cwd=None, timeout=TIMEOUT):
    return subprocess.run([sys.executable, "-m", "zelpy", *map(str, args)],
                          capture_output=True, text=True, cwd=cwd, timeout=timeout)


def start(*args):
    return subprocess.Popen([sys.executable, "-m", "zelpy", *map(str, args)],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def png_size(path):
    with open(path, "rb") as f:
        head = f.read(24)
    assert head[:8] == b"\x89PNG\r\n\x1a\n", "not a PNG file"
    assert head[12:16] == b"IHDR"
    return struct.unpack(">II", head[16:24])


def values(name, variables):
    ds = zelpy.ZelDataSet()
    ds.load(str(name))
    return ds.get_values(variables)


def last_values(h5):
    """e1, position and sigma of the series' last dataset, and its valid points."""
    v = zelpy.ZelDataSetReader(str(h5))[-1].get_values(["e1", "X", "Y", "Z", "sigma"])
    return v, v["sigma"] >= 0


def names_of(directory):
    return sorted(os.listdir(directory))


def assert_one_line_error(result, status, *fragments):
    lines = result.stderr.strip().splitlines()
    assert result.returncode == status
    assert "Traceback" not in result.stderr
    assert len(lines) == 1, result.stderr
    assert all(fragment in lines[0] for fragment in fragments), lines[0]


@pytest.fixture(scope="module")
def demo(tmp_path_factory):
    directory = tmp_path_factory.mktemp("demo")
    result = run("demo", directory, "--size", DEMO_SIZE, "--steps", DEMO_STEPS,
                 "--window", DEMO_WINDOW, "-q")
    assert result.returncode == 0, result.stderr
    return directory, result


@pytest.fixture
def series(demo, tmp_path):
    """A private copy of the demo's HDF5 series."""
    path = tmp_path / "plate_hole.h5"
    shutil.copy(demo[0] / "plate_hole.h5", path)
    return path


@pytest.fixture
def out_dir(series, tmp_path):
    """The demo series as a directory of .out files."""
    directory = tmp_path / "outs"
    result = run("convert", series, directory, "-q")
    assert result.returncode == 0, result.stderr
    return directory


# ------------------------------------------------------------------ demo

def test_demo_writes_series_plot_and_summary(demo):
    directory, result = demo
    reader = zelpy.ZelDataSetReader(str(directory / "plate_hole.h5"))
    assert [n.rsplit(":", 1)[1] for n in reader.get_dataset_list()] == ["0000", "0001", "0002"]
    last = reader[-1]
    assert last.matrix_size() == DEMO_SIZE * DEMO_SIZE
    assert {"X", "Y", "Z", "U", "V", "W", "sigma", "SIGMA_X", "exx", "e1", "e_vonmises"} <= set(last.variables())
    assert png_size(directory / "plate_hole_e1.png") == (1000, 800)
    assert re.search(r"datasets\s+3 ", result.stdout)
    assert re.search(rf"points\s+{DEMO_SIZE * DEMO_SIZE} per dataset", result.stdout)


def test_demo_peak_e1_matches_the_stress_concentration(demo):
    """The peak of e1 sits on the hole edge across the load axis.

    Closed form there: e1 = Kt * S / E = 3 * 100 / 70000 = 4.286e-3. The
    first measured ring lies 0.5 mm (the margin) plus up to one pitch outside
    the edge, where the closed form has already dropped by up to about 15 %,
    and the plane fit of the smoothing flattens the steep rise further; so
    the measured peak must lie between 75 % and 100 % of the edge value, and
    within 8 % of the closed form at the very point where it was found.
    """
    v, valid = last_values(demo[0] / "plate_hole.h5")
    series = DemoSeries(size=DEMO_SIZE, steps=DEMO_STEPS)
    stress = series.stresses()[-1]
    edge = series.plate.peak_strain(stress)
    assert edge == pytest.approx(3 * 100 / 70000)
    k = int(np.argmax(np.where(valid, v["e1"], -np.inf)))
    peak = float(v["e1"][k])
    assert 0.75 * edge < peak < 1.0 * edge
    p, q = series.to_plate(v["X"][k], v["Y"][k], v["Z"][k])
    # Across the load axis: the peak is above or below the hole, not beside it.
    assert abs(q) > 3 * abs(p)
    at_peak = series.plate.principal_strain(p, q, stress)[0]
    assert peak == pytest.approx(at_peak, rel=0.08)


def test_demo_far_field_strain_is_exact(demo):
    """Away from the hole the field is smooth, so the strain is the closed
    form plus noise. At every point more than 5 mm from the hole edge and
    the plate border: the mean error of e1 below 5e-6 and its RMS below 3e-5
    (2 % of the remote strain 1.43e-3; the 0.005 pixel displacement noise
    alone gives about 2e-5 at this pitch and window). Projecting the tilted
    plate instead of flattening each triangle, or any strain from the rigid
    grip motion, would be off by more than 1e-4."""
    v, valid = last_values(demo[0] / "plate_hole.h5")
    series = DemoSeries(size=DEMO_SIZE, steps=DEMO_STEPS)
    p, q = series.to_plate(v["X"], v["Y"], v["Z"])
    inner = (np.hypot(p, q) > series.plate.radius + 5) & \
            (np.maximum(abs(p), abs(q)) < series.half_width - 5) & valid
    assert inner.sum() > 0.5 * inner.size
    expected = series.plate.principal_strain(p[inner], q[inner], series.stresses()[-1])[0]
    error = v["e1"][inner] - expected
    assert abs(error.mean()) < 5e-6
    assert np.sqrt(np.mean(error ** 2)) < 3e-5


# ------------------------------------------------------------------ help and usage

@pytest.mark.parametrize("command", ["demo", "info", "strain", "convert", "export",
                                     "series", "plot", "serve"])
def test_every_subcommand_has_help(command):
    result = run(command, "--help")
    assert result.returncode == 0
    assert result.stdout.startswith(f"usage: zelpy {command}")


@pytest.mark.parametrize("args, fragment", [
    ((), "required: COMMAND"),
    (("strain", "x", "--window", "4"), "odd number"),
    (("strain", "x", "--window", "1"), "odd number"),
    (("strain", "x", "--tensor", "green"), "invalid choice: 'green'"),
    (("strain", "x", "--jobs", "0"), "at least 1"),
    (("export", "x"), "-f/--format"),
    (("export", "x", "-f", "xls"), "invalid choice: 'xls'"),
    (("plot", "x"), "-v/--variable"),
    (("plot", "x", "-v", "e1", "--size", "800by600"), "WIDTHxHEIGHT"),
    (("serve", "x", "--fps", "0"), "must be positive"),
    (("serve", "x", "--port", "70000"), "0..65535"),
    (("demo", "x", "--stress", "0"), "must be positive, got 0"),
    (("demo", "x", "--stress", "nan"), "must be positive, got nan"),
    (("demo", "x", "--stress", "inf"), "must be a finite number, got inf"),
])
def test_bad_options_give_one_line_and_status_2(tmp_path, args, fragment):
    assert_one_line_error(run(*args, cwd=tmp_path), 2, fragment)
    assert not os.listdir(tmp_path)


@pytest.mark.parametrize("args", [("info",), ("strain",), ("convert", "{tmp}/o.h5"), ("export", "-f", "csv"),
                                  ("plot", "-v", "e1"), ("serve",)])
@pytest.mark.parametrize("corrupt", [False, True])
def test_a_missing_or_corrupt_source_is_named(tmp_path, args, corrupt):
    source = tmp_path / ("broken.h5" if corrupt else "nowhere/run.h5")
    if corrupt:
        source.write_bytes(b"not an HDF5 file at all" * 10)
    result = run(args[0], source, *(a.format(tmp=tmp_path) for a in args[1:]))
    assert_one_line_error(result, 1, str(source), *(() if corrupt else ("no such file",)))


@pytest.mark.parametrize("args", [
    ("export", "{src}", "-f", "csv", "-v", "e1", "nope"),
    ("export", "{src}", "-f", "vtu", "-v", "nope"),
    ("plot", "{src}", "-v", "nope"),
])
def test_unknown_variable(series, tmp_path, args):
    out = tmp_path / ("exported" if args[0] == "export" else "plot.png")
    assert_one_line_error(run(*(a.format(src=series) for a in args), "-o", out), 1, "unknown variable 'nope'")
    assert not out.exists() or not os.listdir(out)


@pytest.mark.parametrize("args, fragment", [
    (("info",), None),
    (("export", "-f", "csv", "-o", "{tmp}/csv", "-q"), None),
    (("plot", "-v", "e1", "-o", "{tmp}/p.png"), None),
    (("strain", "-o", "{tmp}/s.h5", "-q"), None),
    (("strain", "-q"), "must be writable and not open in another program"),   # in place
])
def test_write_protected_source_held_open_elsewhere(series, tmp_path, args, fragment):
    series.chmod(0o444)
    with h5py.File(series, "r"):   # as a viewer would hold it
        result = run(args[0], series, *(a.format(tmp=tmp_path) for a in args[1:]))
    if fragment:
        assert_one_line_error(result, 1, f"Cannot open {series}.", fragment)
    else:
        assert result.returncode == 0, result.stderr


# ------------------------------------------------------------------ info

def test_info_lists_datasets_aois_and_variable_ranges(series):
    result = run("info", series, "-d", "-1")
    assert result.returncode == 0, result.stderr
    out = result.stdout
    v, valid = last_values(series)
    for text in ("3 dataset(s)", f"1 AOI ({DEMO_SIZE}x{DEMO_SIZE})", f"{100 * valid.mean():.1f} % valid"):
        assert text in out
    line = next(l for l in out.splitlines() if l.split()[:1] == ["e1"])
    assert "Strain" in line
    lo, hi = (float(x) for x in re.search(r"\[(\S+), (\S+)\]$", line).groups())
    assert lo == pytest.approx(v["e1"][valid].min(), rel=1e-5)
    assert hi == pytest.approx(v["e1"][valid].max(), rel=1e-5)


# ------------------------------------------------------------------ strain

@needs_dask
def test_strain_jobs_1_and_2_give_identical_results(series, tmp_path):
    for jobs in (1, 2):
        result = run("strain", series, "-o", tmp_path / f"jobs{jobs}.h5", "--jobs", jobs, "--tresca",
                     "--tensor", "engineering", "--window", 5)
        assert (result.returncode, result.stderr) == (0, "")
    one, two = (zelpy.ZelDataSetReader(str(tmp_path / f"jobs{jobs}.h5")) for jobs in (1, 2))
    assert len(one.get_dataset_list()) == len(two.get_dataset_list()) == DEMO_STEPS
    names = ["exx", "eyy", "exy", "e1", "e_tresca"]
    for a, b in zip(one, two):
        assert a.variables_descriptions()[a.variables().index("exx")] == "exx [1] - engr."
        np.testing.assert_array_equal(a.get_values(names), b.get_values(names))


def test_strain_in_place_keeps_names_and_adds_variables(out_dir):
    before = names_of(out_dir)
    result = run("strain", out_dir, "--gradient", "--von-mises", "--no-principal")
    assert result.returncode == 0, result.stderr
    assert names_of(out_dir) == before
    for name in before:
        v = values(out_dir / name, ["fxx", "e_vonmises", "sigma"])
        valid = v["sigma"] >= 0
        assert np.all(v["e_vonmises"][~valid] == 0)
        if name.endswith("0000_0.out"):
            # The unloaded state: only noise.
            assert np.abs(v["fxx"][valid]).max() < 1e-3


@pytest.mark.parametrize("damage, why", [
    ("corrupt", "cannot be read: Unknown file type. 0"),
    ("no coordinates", "strain failed: Could not find coordinates for strain computation."),
])
@pytest.mark.parametrize("jobs", [1, pytest.param(2, marks=needs_dask)])
def test_failing_file_is_named_with_the_cause_and_the_others_are_processed(out_dir, jobs, damage, why):
    names = names_of(out_dir)
    bad = out_dir / names[1]
    if damage == "corrupt":
        bad.write_bytes(b"\x00" * 64)
    else:
        ds = zelpy.ZelDataSet()
        ds.add_aoi(DEMO_SIZE, DEMO_SIZE)
        ds.add_variable("sigma", "sigma", zelpy.ZelDataVariableType.Correlation)
        ds.save(str(bad))
    before = bad.read_bytes()
    result = run("strain", out_dir, "--tresca", "--jobs", jobs)
    assert result.returncode == 1 and "Traceback" not in result.stderr
    first, last = result.stderr.strip().splitlines()   # exactly two lines
    assert first == f"zelpy strain: {bad}: {why}"
    assert last == f"zelpy strain: 1 of {len(names)} datasets failed"
    for name in (names[0], names[2]):
        assert "e_tresca" in values(out_dir / name, ["e_tresca"]).dtype.names
    assert bad.read_bytes() == before


def test_strain_names_the_aoi_that_keeps_a_file_from_being_written(tmp_path):
    """A file whose first AOI has a non-ASCII name reads, but as written back
    the name's reserved bytes would leave a gap before the second AOI: the
    command refuses to write it and says which AOI is the cause."""
    from conftest import aoi, block, kind, variable
    x, y = (a.ravel() for a in np.meshgrid(np.arange(5.0), np.arange(5.0)))
    grid = [variable("x", "", kind(0), x), variable("y", "", kind(0), y),
            variable("u", "", kind(2), 0.01 * x), variable("v", "", kind(2), 0 * x),
            variable("c", "", kind(5), 0 * x)]
    path = tmp_path / "plate-0001_0.out"
    path.write_bytes(block([aoi(5, 5, grid, name="Zoné"), aoi(5, 5, grid, name="b")]))
    before = path.read_bytes()
    result = run("strain", path, "-w", 3)
    first, last = result.stderr.strip().splitlines()
    assert result.returncode == 1
    assert first.startswith(f"zelpy strain: {path}: cannot be written: Not saved: AOI 0 'Zoné' "
                            "has a non-ASCII name")
    assert last == "zelpy strain: 1 of 1 datasets failed"
    assert path.read_bytes() == before and names_of(tmp_path) == [path.name]


def test_interrupt_leaves_every_file_whole(out_dir):
    """Ctrl-C during a run: status 130 (or 0 if it was already done), every
    file still decodes, no stray temporary files."""
    # More and larger datasets so the run is still going when interrupted.
    src = out_dir / names_of(out_dir)[-1]
    for k in range(3, 40):
        shutil.copy(src, out_dir / f"plate_hole-{k:04d}_0.out")
    before = names_of(out_dir)
    stamps = {n: os.stat(out_dir / n).st_mtime_ns for n in before}
    proc = start("strain", out_dir, "--window", 31, "--tresca")
    deadline = time.monotonic() + TIMEOUT
    while time.monotonic() < deadline and proc.poll() is None:
        if any(os.stat(out_dir / n).st_mtime_ns != stamps[n] for n in before):
            break
        time.sleep(0.01)
    proc.send_signal(signal.SIGINT)
    _, err = proc.communicate(timeout=TIMEOUT)
    assert proc.returncode in (0, 130), err
    assert "Traceback" not in err and (proc.returncode == 0 or "interrupted" in err)
    assert names_of(out_dir) == before
    assert sum("e_tresca" in zelpy.ZelDataSetReader(str(out_dir / n))[0].variables() for n in before) >= 1


ALL_REPEATED = "exx, eyy, exy, e1, e2, gamma occur more than once in "


@pytest.mark.parametrize("args, note_on, note", [
    (("info", "-d", "-1"), "stdout", ALL_REPEATED + "this dataset"),
    (("export", "-f", "csv", "-o", "{tmp}/csv", "-d", "-1"), "stderr", ALL_REPEATED + "plate_hole.h5:out:0002"),
    (("export", "-f", "vtu", "-v", "exx", "X", "exx", "-o", "{tmp}/vtu", "-d", "-1"), "stderr", "note: exx occurs"),
    (("plot", "-v", "exx", "-o", "{tmp}/p.png"), "stderr", "note: exx occurs more than once"),
])
def test_repeated_variable_names_use_the_first(series, tmp_path, args, note_on, note):
    """strain --no-reuse adds a second exx ...; every command takes the first,
    as the library's look-ups do, and says so."""
    assert run("strain", series, "--no-reuse", "-w", 5, "-q").returncode == 0
    result = run(args[0], series, *(a.format(tmp=tmp_path) for a in args[1:]))
    assert result.returncode == 0, result.stderr
    assert note in getattr(result, note_on) and "Traceback" not in result.stderr
    if args[:3] == ("export", "-f", "csv"):
        last = zelpy.ZelDataSetReader(str(series))[-1]
        names = last.variables()
        second = names.index("exx", names.index("exx") + 1)
        table = np.genfromtxt(tmp_path / "csv" / os.listdir(tmp_path / "csv")[0], delimiter=",", names=True)
        assert list(table.dtype.names) == ["aoi", "row", "column", *dict.fromkeys(names)]
        index = (table["row"] * DEMO_SIZE + table["column"]).astype(int)
        np.testing.assert_array_equal(table["exx"].astype(np.float32), last.get_values(["exx"])["exx"][index])
        assert not np.array_equal(table["exx"].astype(np.float32), last[0].variable_view(second).ravel()[index])


# ------------------------------------------------------------------ convert

def test_convert_round_trip_follows_the_writer_names(series, out_dir, tmp_path):
    assert names_of(out_dir) == [f"plate_hole-{k:04d}_0.out" for k in range(DEMO_STEPS)]
    back = tmp_path / "back.h5"
    result = run("convert", out_dir, back)
    assert result.returncode == 0, result.stderr
    original, again = zelpy.ZelDataSetReader(str(series)), zelpy.ZelDataSetReader(str(back))
    assert [n.split(":out:")[1] for n in again.get_dataset_list()] == \
        [n.split(":out:")[1] for n in original.get_dataset_list()]
    for a, b in zip(original, again):
        assert a.variables() == b.variables()
        np.testing.assert_array_equal(a.get_values(a.variables()), b.get_values(b.variables()))


def test_convert_refuses_a_file_name_it_cannot_map(tmp_path, series):
    directory = tmp_path / "odd"
    directory.mkdir()
    zelpy.ZelDataSetReader(str(series))[0].save(str(directory / "result.out"))
    result = run("convert", directory, tmp_path / "x.h5")
    assert result.returncode == 1
    assert "result.out" in result.stderr and "no output name" in result.stderr


# ------------------------------------------------------------------ export

def test_export_csv_columns_and_values(series, tmp_path):
    # The same dataset picked twice is written once.
    result = run("export", series, "-f", "csv", "-v", "e1", "X", "-o", tmp_path / "csv", "-d", "-1",
                 "-d", DEMO_STEPS - 1)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout.startswith("wrote 1 CSV file(s)")
    name = f"plate_hole-{DEMO_STEPS - 1:04d}_0.csv"
    assert names_of(tmp_path / "csv") == [name]
    table = np.genfromtxt(tmp_path / "csv" / name, delimiter=",", names=True)
    assert table.dtype.names == ("aoi", "row", "column", "e1", "X")
    v, valid = last_values(series)
    assert len(table) == valid.sum()
    index = (table["row"] * DEMO_SIZE + table["column"]).astype(int)
    assert np.all(valid[index])
    for name in ("e1", "X"):
        np.testing.assert_array_equal(table[name].astype(np.float32), v[name][index])


def _vtu_array(element):
    raw = base64.b64decode(element.text)
    (nbytes,) = struct.unpack("<Q", raw[:8])
    dtype = {"Float32": "<f4", "Int64": "<i8", "UInt8": "u1"}[element.get("type")]
    assert nbytes == len(raw) - 8
    return np.frombuffer(raw[8:], dtype=dtype)


def test_export_vtu_is_a_triangle_mesh_of_the_valid_points(series, tmp_path):
    result = run("export", series, "-f", "vtu", "-v", "e1", "W", "-o", tmp_path / "vtu")
    assert result.returncode == 0, result.stderr
    vtus = [f"plate_hole-{k:04d}_0.vtu" for k in range(DEMO_STEPS)]
    assert names_of(tmp_path / "vtu") == vtus + ["plate_hole.pvd"]
    v, valid = last_values(series)
    tri = zelpy.ZelDataSetReader(str(series))[-1].triangulation()

    piece = ET.parse(tmp_path / "vtu" / vtus[-1]).getroot().find("UnstructuredGrid/Piece")
    assert int(piece.get("NumberOfPoints")) == valid.sum()
    assert int(piece.get("NumberOfCells")) == len(tri) > 0
    arrays = {a.get("Name"): _vtu_array(a) for a in piece.iter("DataArray")}
    np.testing.assert_array_equal(arrays["e1"], v["e1"][valid])
    np.testing.assert_array_equal(arrays["Points"].reshape(-1, 3)[:, 2], v["Z"][valid])
    # Each cell is the same triangle as in the dataset, renumbered.
    np.testing.assert_array_equal(np.flatnonzero(valid)[arrays["connectivity"].reshape(-1, 3)], tri)
    np.testing.assert_array_equal(arrays["offsets"], 3 * np.arange(1, len(tri) + 1))
    assert set(arrays["types"]) == {5}

    pvd = ET.parse(tmp_path / "vtu" / "plate_hole.pvd").getroot()
    assert [d.get("file") for d in pvd.iter("DataSet")] == vtus


# ------------------------------------------------------------------ plot

@pytest.mark.parametrize("options, name, magic, size", [
    (("-v", "e1", "-o", "p.png", "--size", "640x480", "-d", "1"), "p.png", b"\x89PNG", (640, 480)),
    (("-v", "W", "-o", "p.png", "--size", "300x900", "-d", "1"), "p.png", b"\x89PNG", (300, 900)),
    (("-v", "e1"), f"plate_hole-{DEMO_STEPS - 1:04d}_e1.png", b"\x89PNG", (1000, 800)),   # default: last dataset, here
    (("-v", "e1", "-o", "pics"), f"pics/plate_hole-{DEMO_STEPS - 1:04d}_e1.png", b"\x89PNG", (1000, 800)),
    (("-v", "e1", "-o", "p.pdf"), "p.pdf", b"%PDF-", None),
    (("-v", "e1", "-o", "p.SVG"), "p.SVG", b"<?xml", None),
    (("-v", "e1", "-o", "p.jpg"), "p.jpg", b"\xff\xd8\xff", None),
])
def test_plot_writes_the_format_its_suffix_names(series, tmp_path, options, name, magic, size):
    (tmp_path / "pics").mkdir()
    result = run("plot", series, *options, cwd=tmp_path)
    assert result.stdout == f"wrote {tmp_path / name}\n", result.stderr
    assert (tmp_path / name).read_bytes().startswith(magic)
    assert size is None or png_size(tmp_path / name) == size


SUFFIX_REFUSED = "(a new directory is not made for a name with a suffix; create it first to use this name)"


@pytest.mark.parametrize("args, message", [
    (("plot", "{src}", "-v", "e1", "-o", "x.txt"),
     "x.txt: '.txt' is not an image format; use one of .png, .pdf, .svg, .eps, .ps, .jpg, .jpeg, .tif, .tiff, .webp"),
    (("plot", "{src}", "-v", "e1", "-o", "x"), "x: no image format suffix; use one of .png"),
    (("export", "{src}", "-f", "csv", "-o", "result.txt"), "result.txt: the output must be a directory " + SUFFIX_REFUSED),
    (("strain", "{src}", "-o", "result.txt"),
     "result.txt: the destination must be a directory or an .h5 file " + SUFFIX_REFUSED),
    (("strain", "{src}", "-w", "999"), f"window 999 is larger than the grid ({DEMO_SIZE}x{DEMO_SIZE} points): "
                                       "the smoothing would fit one plane to the whole AOI"),
    (("demo", "d", "--size", "21", "--window", "31"),
     "window 31 is larger than the grid (21x21 points); use a smaller --window or a larger --size"),
])
def test_command_line_mistakes_are_refused_before_anything_is_written(series, tmp_path, args, message):
    def contents():
        return {p: p.is_dir() or p.read_bytes() for p in tmp_path.rglob("*")}

    before = contents()
    result = run(*(a.format(src=series) for a in args), cwd=tmp_path)
    assert_one_line_error(result, 1)
    assert result.stderr.startswith(f"zelpy {args[0]}: error: {message}")
    assert contents() == before


def test_write_errors_name_the_target_not_a_temporary_file(series, tmp_path):
    target = tmp_path / "csv" / "plate_hole-0000_0.csv"
    target.mkdir(parents=True)   # in the way of the file
    result = run("export", series, "-f", "csv", "-d", 0, "-o", tmp_path / "csv")
    first = result.stderr.splitlines()[0]
    assert first == f"zelpy export: {series}:out:0000: [Errno 21] Is a directory: '{target}'"
    assert os.listdir(tmp_path / "csv") == [target.name]


# ------------------------------------------------------------------ serve

def test_serve_streams_the_source(out_dir):
    proc = start("serve", out_dir, "--port", 0)
    try:
        port = int(re.search(r":(\d+)\s*$", proc.stdout.readline()).group(1))
        first = out_dir / names_of(out_dir)[0]
        with socket.create_connection(("127.0.0.1", port), timeout=10) as sock:
            sock.sendall(b"S")
            data = sock.makefile("rb").read(8 + first.stat().st_size)
        assert struct.unpack("=II", data[:8]) == (first.stat().st_size, 3)   # length, kind: data file
        assert data[8:] == first.read_bytes()
    finally:
        proc.send_signal(signal.SIGINT)
        try:
            proc.communicate(timeout=10)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.communicate()
