"""Hostile input: grids whose size wraps, blocks built to cost memory, hostile
HDF5 members, and a seeded fuzz of the decoder and the analyses."""

import os
import random
import subprocess
import sys

import h5py
import numpy as np
import pytest

import zelpy
from conftest import aoi, be, block, kind, variable
from zelpy import export
from zelpy.series import _read_bytes

HERE = os.path.dirname(os.path.abspath(__file__))

# (name, kind) of a 3-D AOI the strain, smoothing and triangulation accept.
GRID_VARIABLES = [("X", 1), ("Y", 1), ("Z", 1), ("U", 3), ("V", 3), ("W", 3),
                  ("x", 0), ("y", 0), ("u", 2), ("v", 2), ("c", 5)]


def grid_block(rows, columns, values=None, name=""):
    """One AOI whose variables hold rows x columns values as the file format
    counts them: the 32-bit product, which wraps."""
    count = (rows * columns) & 0xFFFFFFFF
    if values is None:
        values = np.zeros(count, np.float32)
    return aoi(rows, columns, [variable(n, "", kind(k), values) for n, k in GRID_VARIABLES], name=name)


def decoded(data):
    ds = zelpy.ZelDataSet()
    ds.load_from_data(data, "x.out")
    return ds


# ------------------------------------------------------------ wrapped grids

@pytest.mark.parametrize("rows, columns, reason", [
    (3, 0x55555556, "but variable '{}' holds 2 values."),
    (0x10000, 0x10001, "but variable '{}' holds 65536 values."),
    (0xFFFFFFFF, 0xFFFFFFFF, "which no data matrix can have."),
])
@pytest.mark.parametrize("analysis, result, function, read", [
    ("smooth", "Error in smooth variable.", "smoothVariable()", "X"),
    ("strain", "Error in calculating strain.", "computeStrain()", "X"),
    ("triangulation", "Error in calculating triangulation.", "triangulation()", "X"),
    # Curvature keeps the line it has always written.
    ("curvature", "Error in calculating curvature.", None, None),
    ("range", "Error in calculating range for 'X'.", "valueRange()", "X"),
    ("sum_range", "Error in calculating range for the sum of variables 'X' and 'Y'.", "sumRange()", "X"),
    ("aoi_area", None, "surfaceArea()", "X"),
    ("find_minimum", (None, None), "findMinimum()", "Z"),
    ("at_global_xy", None, "locatePoint()", "X"),
    ("at_global_xy through the tree", None, "PointLocator::create()", "X"),
    ("lookup_variables", None, "PointLocator::create()", "x"),
    ("arclength", None, "PointLocator::create()", "X"),
])
def test_analyses_refuse_a_grid_its_variables_do_not_fill(rows, columns, reason, analysis, result,
                                                          function, read, capfd):
    ds = decoded(block([grid_block(2, 3), grid_block(rows, columns)]))
    assert [ds[i].grid_is_consistent() for i in range(2)] == [True, False]
    run = {"smooth": lambda: ds.smooth("u", 3), "strain": lambda: ds.compute_strain(3),
           "triangulation": ds.triangulation, "curvature": lambda: ds.compute_curvature(3),
           "range": lambda: ds.range("X"), "sum_range": lambda: ds.sum_range("X", "Y"),
           "aoi_area": ds.aoi_area, "find_minimum": lambda: ds[1].find_minimum("Z"),
           "at_global_xy": lambda: ds.at_global_xy(0, 0, ["U"]),
           "at_global_xy through the tree": lambda: ds.at_global_xy(0, 0, ["U"], True),
           "lookup_variables": lambda: ds.lookup_variables(0, 0, ["U"]),
           "arclength": lambda: ds[1].arclength((0, 0), (1, 1), 2)}[analysis]
    capfd.readouterr()
    if isinstance(result, str):
        with pytest.raises(ValueError) as error:
            run()
        assert str(error.value) == result
    else:
        assert run() == result
    shown = "%d x %d" % tuple(np.int32(np.uint32(v)) for v in (rows, columns))
    line = ("Inconsistent grid in %s: %s points, %s\n" % (function, shown, reason.format(read))
            if function else "Variables do not hold one value per grid point in computeCurvature().\n")
    assert capfd.readouterr().err == line


def test_csv_export_refuses_a_wrapped_grid(tmp_path):
    ds = decoded(block([grid_block(3, 0x55555556)]))
    with pytest.raises(ValueError, match="^AOI 0 declares 3 x 1431655766 points, but its "
                                         "variables hold 2 values each$"):
        export.write_csv(ds, str(tmp_path / "x.csv"), ["u"])
    assert not os.listdir(tmp_path)


# --------------------------------------------------------- memory of blocks

PEAK = """
import sys, zelpy
status = lambda key: next(int(l.split()[1]) * 1024 for l in open("/proc/self/status") if l.startswith(key))
base, ds = status("VmRSS:"), zelpy.ZelDataSet()
try:
    ds.load(sys.argv[1])
except NameError:
    pass
print(status("VmHWM:") - base, ds.num_data())
"""


def head(aois):
    return be(0xA24E5154, 0x312E3030, 0xA0000002, aois, 0xA0000101)


def one_point(variables):
    return head(1) + be(0xA0000103, variables, 0xA0000104, 1, 0xA0000105, 1, 0xA0000201)


@pytest.mark.parametrize("unit, header, loads", [
    (be(0xA0000201), head, True),                                  # empty AOIs of 4 bytes
    (be(0xA0000110, 0xA0110001, 0xA0000201), head, False),         # AOIs with a grid kind
    (be(0xA0000111, 2) + b"\x00A" + be(0xA0000201), head, False),  # AOIs with a name
    (be(0xA0201001, 1, 0), one_point, False),                      # variables of one point
])
def test_blocks_built_to_cost_memory_cost_at_most_four_times_their_size(tmp_path, unit, header, loads):
    n = (16 << 20) // len(unit)
    path = tmp_path / "hostile.out"
    path.write_bytes(header(n) + unit * n)
    result = subprocess.run([sys.executable, "-c", PEAK, str(path)], capture_output=True, text=True,
                            check=True)
    peak, aois = map(int, result.stdout.split())
    assert peak <= 4 * path.stat().st_size
    assert aois == n if loads else (
        aois < n and "Too many AOIs or variables for the size of the data" in result.stderr)


def test_every_dataset_the_encoder_writes_reads_back():
    # The densest cost per byte the encoder can produce: AOIs of one point
    # and one variable, each costing its state, a record and an allocation.
    ds = zelpy.ZelDataSet()
    for _ in range(40000):
        ds.add_aoi(1, 1)
    ds.add_variable("", "", zelpy.ZelDataVariableType.Unknown)
    assert decoded(ds.export_raw()).num_data() == 40000


# ------------------------------------------------------ hostile HDF5 members

def member(**options):
    return lambda group, raw, tmp: group.create_dataset("1", **options)


def linked_elsewhere(group, raw, tmp):
    with h5py.File(tmp / "other.h5", "w") as other:
        other["out/1"] = raw
    group["1"] = h5py.ExternalLink(str(tmp / "other.h5"), "/out/1")


HOSTILE_MEMBERS = {
    # Nothing loadable under the key.
    "group": ("missing", lambda group, raw, tmp: group.create_group("1")),
    "dangling soft link": ("missing", lambda group, raw, tmp: group.__setitem__("1", h5py.SoftLink("/x"))),
    "link to another file": ("missing", linked_elsewhere),
    # A dataset that is not a block of bytes, or whose bytes live elsewhere.
    "scalar": ("one-dimensional array of bytes", member(data=np.uint8(5))),
    "two dimensions": ("one-dimensional array of bytes", member(data=np.zeros((4, 8), "u1"))),
    "floats": ("values of type float64", member(data=np.zeros(16))),
    "compound": ("values of type", member(data=np.zeros(4, dtype="u1,u1"))),
    "4 GiB declared": ("declares 4294967296 bytes, more than a data file can hold",
                       member(shape=(2 ** 32,), dtype="u1")),
    "1 MiB declared, chunked": ("declares 1048576 bytes in a file of",
                                member(shape=(2 ** 20,), dtype="u1", chunks=(4096,))),
    "external storage": ("stored in another file", lambda group, raw, tmp: group.create_dataset(
        "1", shape=raw.shape, dtype="u1", external=[(str(tmp / "raw.bin"), 0, raw.size)])),
    "virtual": ("virtual dataset", lambda group, raw, tmp: group.create_virtual_dataset(
        "1", h5py.VirtualLayout(shape=raw.shape, dtype="u1"))),
}


@pytest.mark.parametrize("case", sorted(HOSTILE_MEMBERS))
def test_hostile_hdf5_members_fail_as_load_documents(tmp_path, case, capfd):
    reason, build = HOSTILE_MEMBERS[case]
    raw = np.frombuffer(decoded(block([grid_block(1, 2)])).export_raw(), np.uint8)
    (tmp_path / "raw.bin").write_bytes(raw.tobytes())
    path = str(tmp_path / "hostile.h5")
    with h5py.File(path, "w") as f:
        build(f.create_group("out"), raw, tmp_path)
    capfd.readouterr()
    # The bytes a series sends to workers are read with the same checks.
    for load in (lambda: zelpy.ZelDataSet().load(path + ":out:1"), lambda: zelpy.ZelDataSetReader(path)[0],
                 lambda: _read_bytes(path + ":out:1")):
        with pytest.raises(ValueError) as error:
            load()
        if reason == "missing":
            assert str(error.value) == path + " does not contain 'out:1' dataset."
        else:
            assert str(error.value) == "Unable to decode memory buffer"
            assert reason in capfd.readouterr().err


def test_mutated_hdf5_files_fail_with_the_documented_errors(tmp_path):
    source, path = str(tmp_path / "source.h5"), str(tmp_path / "m.h5")
    decoded(block([grid_block(3, 4)])).save(source + ":out:1")
    original = open(source, "rb").read()
    allowed = {("OSError", "Cannot open %s." % path), ("ValueError", "Unable to decode memory buffer"),
               ("ValueError", "%s does not contain an 'out' group." % path),
               ("ValueError", "%s does not contain 'out:1' dataset." % path)}
    rng = random.Random(12)
    outcomes = set()
    for i in range(300):
        data = bytearray(original)
        for _ in range(rng.randint(1, 4)):
            data[rng.randrange(len(data))] = rng.randrange(256)
        with open(path, "wb") as stream:
            stream.write(data)
        try:
            zelpy.ZelDataSet().load(path + ":out:1")
            outcomes.add(("loaded", ""))
        except Exception as exc:
            outcomes.add((type(exc).__name__, str(exc)))
            assert outcomes <= allowed | {("loaded", "")}, "mutation %d of seed 12" % i
    assert len(outcomes) >= 4


# -------------------------------------------------------------------- fuzz

FUZZ = r"""
import random, sys
import numpy as np
sys.path.insert(0, sys.argv[1])
import zelpy
from conftest import be, block
from test_hostile import grid_block

seed, start, count = map(int, sys.argv[2:5])
zelpy.set_log_severity(0)
values = np.linspace(0.0, 1.0, 56, dtype=np.float32)
plain = block([grid_block(7, 8, values, "left"), grid_block(8, 7, values[::-1])], reference="r.tif")
bases = [plain] * 4
# Grids whose 32-bit point count wraps to a small number of values.
for rows, columns in ((3, 0x55555556), (2, 0x80000003), (4, 0x40000003), (0xFFFFFFFF, 0xFFFFFFFE)):
    bases.append(block([grid_block(rows, columns), grid_block(2, 3)]))
# Counts that wrap or overflow, tags, and little-endian NaN and infinity.
WORDS = (0, 1, 2, 3, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0x55555556, 0x10000, 0xA0000201,
         0xA0201001, 0x0000C07F, 0x0000807F)

for index in range(start, start + count):
    print(index, flush=True)
    rng = random.Random(seed * 1000003 + index)
    data = bytearray(rng.choice(bases))
    for _ in range(rng.choice((1, 1, 1, 2, 3))):
        if len(data) < 4:
            break
        how = rng.random()
        if how < 0.4:
            data[rng.randrange(len(data))] = rng.randrange(256)
        elif how < 0.8:
            at = rng.randrange(len(data) // 4) * 4
            data[at:at + 4] = be(rng.choice(WORDS))
        elif how < 0.9:
            del data[rng.randrange(len(data)):]
        else:
            at = rng.randrange(len(data))
            data[at:at] = data[rng.randrange(len(data)):][:rng.randint(1, 64)]
    ds = zelpy.ZelDataSet()
    try:
        ds.load_from_data(bytes(data) or b"\0", "fuzz.out")
    except ValueError:
        continue
    names = [ds[a].variable_name(0) for a in range(ds.num_data()) if ds[a].num_variables()]
    for run in (lambda: ds.smooth(names[0] if names else "x", 3), lambda: ds.compute_strain(3),
                ds.triangulation, lambda: ds.get_values(names[:1]), ds.export_raw):
        try:
            run()
        except ValueError:
            pass
print("done", flush=True)
"""


def test_fuzz_decoder_and_analyses():
    """20,000 mutated and wrapped blocks through the decoder and every
    analysis, in a child process so that a crash names its block. Each block
    follows from the seed and its index alone: ZELPY_FUZZ_SEED,
    ZELPY_FUZZ_START and ZELPY_FUZZ_BLOCKS replay any of them."""
    seed = int(os.environ.get("ZELPY_FUZZ_SEED", "20240"))
    start = int(os.environ.get("ZELPY_FUZZ_START", "0"))
    count = int(os.environ.get("ZELPY_FUZZ_BLOCKS", "20000"))
    result = subprocess.run([sys.executable, "-c", FUZZ, HERE, str(seed), str(start), str(count)],
                            capture_output=True, text=True)
    lines = result.stdout.split()
    assert result.returncode == 0 and lines[-1:] == ["done"], (
        "block %s of seed %d ended the process with status %d; replay it with ZELPY_FUZZ_SEED=%d "
        "ZELPY_FUZZ_START=%s ZELPY_FUZZ_BLOCKS=1\n%s" % (
            lines[-1] if lines else start, seed, result.returncode, seed,
            lines[-1] if lines else start, result.stderr[-2000:]))
