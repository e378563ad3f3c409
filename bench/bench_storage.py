"""Storage figures that are sizes, not times: each a ratio to a baseline
measured in the same run.

    HDF5 rewrites   file size after strain is run again in place five times
                    over 8 members (the first run relabels the strain
                    variables, a few bytes more per member; the others write
                    the same bytes), against the size before (target <= 1.2);
                    beside it the same rewrites done the way earlier versions
                    stored members (contiguous, no free-space tracking)
    hostile memory  peak memory of loading 16 MiB blocks built of tiny AOIs
                    or variables, against the block's size (target <= 4);
                    a block of real values for comparison
    rewritten file  with --rewrite: loads of a 32 MB file that another
                    process cuts short and writes again meanwhile, and how
                    many ended other than with the dataset or a load error

Run: python bench/bench_storage.py [--rewrite]
"""

import argparse
import os
import signal
import subprocess
import sys
import tempfile
import time

import h5py
import numpy as np

import zelpy

T = zelpy.ZelDataVariableType


def planar(k, size=201):
    x, y = np.meshgrid(np.arange(size, dtype=np.float32), np.arange(size, dtype=np.float32))
    ds = zelpy.ZelDataSet()
    ds.add_aoi(size, size)
    for name, kind, values in (("x", T.PixelCoordinate, x), ("y", T.PixelCoordinate, y),
                               ("u", T.PixelDisplacement, 1e-3 * k * x),
                               ("v", T.PixelDisplacement, -3e-4 * k * y), ("c", T.Correlation, 0 * x)):
        ds.add_variable(name, name, kind, values.ravel().tolist())
    ds.compute_strain(15)
    return ds


def rewrites(path, members, legacy):
    """Size after five in-place strain runs over a file written as `legacy`
    (contiguous members, no free-space tracking) or by zelpy."""
    if legacy:
        with h5py.File(path, "w") as handle:
            group = handle.create_group("out")
            for k, ds in enumerate(members):
                group["%04d" % k] = np.frombuffer(ds.export_raw(), np.uint8)
    else:
        for k, ds in enumerate(members):
            ds.save("%s:out:%04d" % (path, k))
    before = os.path.getsize(path)
    for _ in range(5):
        for k in range(len(members)):
            name = "%s:out:%04d" % (path, k)
            ds = zelpy.ZelDataSet()
            ds.load(name)
            ds.compute_strain(15)
            if legacy:
                block = np.frombuffer(ds.export_raw(), np.uint8)
                with h5py.File(path, "a") as handle:
                    group = handle["out"]
                    group.create_dataset("%04d.partial" % k, data=block)
                    del group["%04d" % k]
                    group.move("%04d.partial" % k, "%04d" % k)
            else:
                ds.save(name)
    return before, os.path.getsize(path)


PEAK = """
import sys, zelpy
def status(key):
    for line in open("/proc/self/status"):
        if line.startswith(key):
            return int(line.split()[1]) * 1024
base = status("VmRSS:")
ds = zelpy.ZelDataSet()
try:
    ds.load(sys.argv[1]); outcome = "loaded"
except NameError:
    outcome = "refused"
print(status("VmHWM:") - base, outcome)
"""


def be(*words):
    return b"".join(int(w).to_bytes(4, "big") for w in words)


def hostile_blocks(size=16 << 20):
    head = lambda n: be(0xA24E5154, 0x312E3030, 0xA0000002, n, 0xA0000101)  # noqa: E731
    one_point = lambda n: head(1) + be(0xA0000103, n, 0xA0000104, 1, 0xA0000105, 1, 0xA0000201)  # noqa: E731
    units = {
        "empty AOIs (4 bytes)": (be(0xA0000201), head),
        "AOIs with a grid kind (12 bytes)": (be(0xA0000110, 0xA0110001, 0xA0000201), head),
        "AOIs with a name (14 bytes)": (be(0xA0000111, 2) + b"\x00A" + be(0xA0000201), head),
        "1 x 1 variables (12 bytes)": (be(0xA0201001, 1, 0), one_point),
    }
    for label, (unit, header) in units.items():
        n = size // len(unit)
        yield label, header(n) + unit * n
    n = size // 4
    yield "one AOI of real values", one_point(1)[:-4 * 7] + be(
        0xA0000103, 1, 0xA0000104, 1, 0xA0000105, n, 0xA0000201, 0xA0201001, n) + b"\x00" * (4 * n)


REWRITTEN = """
import sys, zelpy
done = refused = 0
for _ in range(int(sys.argv[2])):
    try:
        zelpy.ZelDataSet().load(sys.argv[1]); done += 1
    except NameError:
        refused += 1
print(done, refused)
"""


def rewritten_loads(tmp, loads=100):
    path = os.path.join(tmp, "r-1_0.out")
    ds = zelpy.ZelDataSet()
    ds.add_aoi(1000, 1000)
    for k in range(8):
        ds.add_variable("v%d" % k, "", T.Unknown, np.full(10 ** 6, k, np.float32))
    ds.save(path)
    data = open(path, "rb").read()
    child = subprocess.Popen([sys.executable, "-c", REWRITTEN, path, str(loads)], stdout=subprocess.PIPE,
                             stderr=subprocess.DEVNULL, text=True)
    with open(path, "r+b") as stream:
        while child.poll() is None:
            stream.truncate(0)
            stream.seek(0)
            for i in range(0, len(data), 1 << 20):
                stream.write(data[i:i + (1 << 20)])
                stream.flush()
            time.sleep(0.3)  # whole for a moment, so that some loads read all of it
    out = child.communicate()[0].split()
    if child.returncode < 0:
        return "process killed by %s" % signal.Signals(-child.returncode).name
    return "%s loaded, %s refused as corrupted, none killed" % tuple(out)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rewrite", action="store_true")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as tmp:
        members = [planar(k) for k in range(8)]
        print("HDF5: 8 members of %.1f MB, strain run again in place 5 times" % (
            len(members[0].export_raw()) / 1e6))
        for label, legacy in (("zelpy", False), ("contiguous, untracked", True)):
            before, after = rewrites(os.path.join(tmp, "%d.h5" % legacy), members, legacy)
            print("  %-24s %7.1f MB -> %7.1f MB  %5.2f x  (target <= 1.2)" % (
                label, before / 1e6, after / 1e6, after / before))

        print("Peak memory of loading a block, per byte of the block (target <= 4)")
        for label, data in hostile_blocks():
            path = os.path.join(tmp, "h.out")
            with open(path, "wb") as stream:
                stream.write(data)
            result = subprocess.run([sys.executable, "-c", PEAK, path], capture_output=True, text=True,
                                    check=True)
            peak, outcome = result.stdout.split()
            print("  %-34s %5.2f x  %s" % (label, int(peak) / len(data), outcome))

        if args.rewrite:
            print("Loads of a 32 MB file rewritten in place meanwhile:", rewritten_loads(tmp))


if __name__ == "__main__":
    main()
