"""Data core figures: load, save, raw export/import and get_values of a ~64 MB dataset.

Each figure is a ratio to a baseline measured in the same run on the same bytes:
    load            vs np.fromfile of the file          (target <= 1.3)
    save            vs ndarray.tofile of the same bytes followed by fsync (target <= 1.5),
                    to a new file and replacing an existing one; a save is on disk
                    before it replaces anything, so the baseline pays for that too.
                    Beside them the same saves against tofile alone (no target).
    save (HDF5)     replacing a member vs h5py deleting and writing the same bytes
                    as a contiguous dataset (no target: the save also encodes the
                    block, checks that it reads back and writes it in chunks)
    load_from_data  vs one bytes copy of the block       (target <= 2)
    export_raw      vs one bytes copy of the block       (target <= 2)
    get_values(6)   vs filling the same structured array from numpy arrays (target <= 1.5)
    peak memory of load (in a fresh process) vs the file size (target <= 2.2)
Run: python bench/bench_data.py
"""

import os
import subprocess
import sys
import tempfile

import numpy as np

from _timing import best

import zelpy

T = zelpy.ZelDataVariableType
VARIABLES = [("X", T.GlobalCoordinate), ("Y", T.GlobalCoordinate), ("Z", T.GlobalCoordinate),
             ("U", T.GlobalDisplacement), ("V", T.GlobalDisplacement), ("W", T.GlobalDisplacement),
             ("sigma", T.Correlation), ("confidence", T.Unknown), ("exx", T.Strain), ("eyy", T.Strain),
             ("exy", T.Strain), ("e1", T.Strain), ("e2", T.Strain), ("gamma", T.Strain),
             ("x", T.PixelCoordinate), ("y", T.PixelCoordinate)]


def build(aois=4, rows=500, columns=500):
    rng = np.random.default_rng(0)
    ds = zelpy.ZelDataSet()
    for i in range(aois):
        ds.add_aoi(rows, columns, "aoi%d" % i)
    for name, kind in VARIABLES:
        ds.add_variable(name, name + " [1]", kind)
        for i in range(aois):
            ds[i].variable_view(name)[...] = rng.normal(size=(rows, columns))
    return ds


# VmHWM belongs to the process image, so unlike ru_maxrss it does not carry
# the parent's peak across exec.
PEAK = """
import sys, zelpy
def hwm():
    for line in open("/proc/self/status"):
        if line.startswith("VmHWM:"):
            return int(line.split()[1])
base = hwm()
ds = zelpy.ZelDataSet(); ds.load(sys.argv[1])
print(base, hwm())
"""


def main():
    ds = build()
    raw = ds.export_raw()
    size = len(raw)
    print("dataset: %d AOIs, %d points, %d variables, %.1f MB" % (
        ds.num_data(), ds.matrix_size(), len(ds.variables()), size / 1e6))
    with tempfile.TemporaryDirectory() as tmp:
        path = os.path.join(tmp, "bench_0001_0.out")
        ds.save(path)
        array = np.frombuffer(raw, np.uint8)
        out = zelpy.ZelDataSet()
        rows = []
        rows.append(("load", best(lambda: out.load(path)), best(lambda: np.fromfile(path, np.uint8)), 1.3))
        other = os.path.join(tmp, "copy.out")
        counter = iter(range(10 ** 6))
        fresh = lambda stem: os.path.join(tmp, "%s%d.out" % (stem, next(counter)))  # noqa: E731

        def durable(name):
            with open(name, "wb") as stream:
                array.tofile(stream)
                stream.flush()
                os.fsync(stream.fileno())

        # Replacing goes through a temporary file and a rename; tofile
        # overwrites in place and risks the old file instead.
        new_file = best(lambda: ds.save(fresh("n")))
        replace = best(lambda: ds.save(path))
        rows.append(("save (new file)", new_file, best(lambda: durable(fresh("m"))), 1.5))
        rows.append(("save (replace)", replace, best(lambda: durable(other)), 1.5))
        rows.append(("  no fsync base", new_file, best(lambda: array.tofile(fresh("m"))), None))
        rows.append(("  no fsync base", replace, best(lambda: array.tofile(other)), None))

        import h5py
        h5 = os.path.join(tmp, "bench.h5")
        ds.save(h5 + ":out:0001")

        def h5py_replace():
            with h5py.File(os.path.join(tmp, "plain.h5"), "a") as handle:
                group = handle.require_group("out")
                if "0001" in group:
                    del group["0001"]
                group["0001"] = array
        rows.append(("save (HDF5)", best(lambda: ds.save(h5 + ":out:0001")), best(h5py_replace), None))
        copy = lambda: bytearray(raw)  # noqa: E731  one copy of the block
        rows.append(("load_from_data", best(lambda: out.load_from_data(raw, "x.out")), best(copy), 2.0))
        rows.append(("export_raw", best(lambda: ds.export_raw()), best(copy), 2.0))

        names = ["X", "Y", "Z", "U", "V", "W"]
        columns = {n: ds.get_values([n])[n] for n in names}
        dtype = [(n, np.float32) for n in names]

        def baseline():
            arr = np.empty(ds.matrix_size(), dtype=dtype)
            for n in names:
                arr[n] = columns[n]
            return arr
        rows.append(("get_values(6)", best(lambda: ds.get_values(names)), best(baseline), 1.5))

        print("%-16s %10s %10s %7s %7s" % ("operation", "zelpy ms", "base ms", "ratio", "target"))
        for name, t, b, target in rows:
            print("%-16s %10.2f %10.2f %7.2f %7s" % (name, t * 1e3, b * 1e3, t / b,
                                                     "-" if target is None else "%.2f" % target))
        result = subprocess.run([sys.executable, "-c", PEAK, path], capture_output=True, text=True, check=True)
        base_kb, peak_kb = map(int, result.stdout.split())
        print("peak memory of load: %.1f MB over the interpreter's %.1f MB = %.2f x file size (target <= 2.2)"
              % ((peak_kb - base_kb) / 1e3, base_kb / 1e3, (peak_kb - base_kb) * 1e3 / size))


if __name__ == "__main__":
    main()
