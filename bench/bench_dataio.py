"""Speed of finding and reading datasets, against plain Python baselines.

Listing: a directory of 10,000 ".out" files and an HDF5 file with 10,000
members, listed by ZelDataSetReader, against os.listdir / iterating the h5py
keys of the group.
Reading: iterating a reader over 200 datasets of 250,000 points from a
directory and from an HDF5 file, in MB/s, against reading the same bytes
raw (open().read() per file / one read_direct per HDF5 member).

Everything is written under a temporary directory that is removed at the end.
Figures are ratios against baselines measured in the same run.

    python bench/bench_dataio.py [--datasets 200] [--points 250000] [--entries 10000]
"""

import argparse
import os
import shutil
import tempfile
import time

import h5py
import numpy as np

from zelpy import ZelDataSet, ZelDataSetReader, ZelDataVariableType


def best_of(function, repeats):
    best = float("inf")
    for _ in range(repeats):
        start = time.perf_counter()
        function()
        best = min(best, time.perf_counter() - start)
    return best


def make_block(points, variables):
    """The encoded bytes of a one-AOI dataset of ``points`` grid points."""
    rows = int(np.sqrt(points))
    columns = points // rows
    dataset = ZelDataSet()
    dataset.add_aoi(rows, columns)
    size = dataset.matrix_size()
    rng = np.random.default_rng(1)
    names = [("x", ZelDataVariableType.PixelCoordinate), ("y", ZelDataVariableType.PixelCoordinate),
             ("X", ZelDataVariableType.GlobalCoordinate), ("Y", ZelDataVariableType.GlobalCoordinate),
             ("Z", ZelDataVariableType.GlobalCoordinate), ("U", ZelDataVariableType.GlobalDisplacement),
             ("V", ZelDataVariableType.GlobalDisplacement), ("W", ZelDataVariableType.GlobalDisplacement),
             ("sigma", ZelDataVariableType.Correlation)]
    for name, kind in names[:variables]:
        dataset.add_variable(name, name, kind, rng.random(size, dtype=np.float32).tolist())
    return dataset.export_raw(), size


def bench_listing(root, entries, repeats):
    directory = os.path.join(root, "many")
    os.mkdir(directory)
    small, _ = make_block(16, 2)
    for i in range(entries):
        with open(os.path.join(directory, "plate-%05d_0.out" % i), "wb") as stream:
            stream.write(small)
    h5_path = os.path.join(root, "many.h5")
    with h5py.File(h5_path, "w") as handle:
        group = handle.create_group("out")
        member = np.frombuffer(small, dtype=np.uint8)
        for i in range(entries):
            group.create_dataset(str(i), data=member)

    reader = ZelDataSetReader(directory)
    assert len(reader.dataset_list) == entries

    def h5py_keys():
        with h5py.File(h5_path, "r") as handle:
            return [key for key in handle["out"].keys()]

    figures = [
        ("directory", best_of(lambda: os.listdir(directory), repeats),
         best_of(lambda: reader.load_from_directory(directory), repeats)),
        ("HDF5", best_of(h5py_keys, repeats),
         best_of(lambda: reader.load_from_hdf5(h5_path), repeats)),
    ]
    assert len(reader.dataset_list) == entries
    print("Listing %d entries (best of %d)" % (entries, repeats))
    print("  %-10s %14s %14s %8s" % ("source", "baseline us/e", "reader us/e", "ratio"))
    for name, baseline, ours in figures:
        print("  %-10s %14.3f %14.3f %7.2fx" % (name, baseline / entries * 1e6,
                                                ours / entries * 1e6, ours / baseline))


def bench_reading(root, datasets, points, variables, repeats):
    block, size = make_block(points, variables)
    directory = os.path.join(root, "run")
    os.mkdir(directory)
    for i in range(datasets):
        with open(os.path.join(directory, "plate-%04d_0.out" % i), "wb") as stream:
            stream.write(block)
    h5_path = os.path.join(root, "run.h5")
    with h5py.File(h5_path, "w") as handle:
        group = handle.create_group("out")
        member = np.frombuffer(block, dtype=np.uint8)
        for i in range(datasets):
            group.create_dataset("%04d" % i, data=member)

    directory_reader = ZelDataSetReader(directory)
    h5_reader = ZelDataSetReader(h5_path)
    total_mb = len(block) * datasets / 1e6

    def raw_files():
        for name in directory_reader.dataset_list:
            with open(name, "rb") as stream:
                stream.read()

    def raw_members():
        with h5py.File(h5_path, "r") as handle:
            group = handle["out"]
            for key in group.keys():
                member = group[key]
                out = np.empty(member.shape, dtype=np.uint8)
                member.read_direct(out)

    def iterate(reader):
        for dataset in reader:
            assert dataset.matrix_size() == size

    # Warm the page cache so that both sides read from memory.
    raw_files()
    raw_members()
    figures = [
        ("directory", best_of(raw_files, repeats), best_of(lambda: iterate(directory_reader), repeats)),
        ("HDF5", best_of(raw_members, repeats), best_of(lambda: iterate(h5_reader), repeats)),
    ]
    print("Reading %d datasets of %d points, %d variables (%.1f MB, best of %d)"
          % (datasets, size, variables, total_mb, repeats))
    print("  %-10s %14s %14s %8s" % ("source", "raw MB/s", "reader MB/s", "ratio"))
    for name, baseline, ours in figures:
        print("  %-10s %14.0f %14.0f %7.2fx" % (name, total_mb / baseline, total_mb / ours,
                                                ours / baseline))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--entries", type=int, default=10000)
    parser.add_argument("--datasets", type=int, default=200)
    parser.add_argument("--points", type=int, default=250000)
    parser.add_argument("--variables", type=int, default=9)
    parser.add_argument("--repeats", type=int, default=5)
    arguments = parser.parse_args()
    root = tempfile.mkdtemp(prefix="zelpy-bench-")
    try:
        # Listings take milliseconds: more repeats for a stable best time.
        bench_listing(root, arguments.entries, arguments.repeats * 4)
        bench_reading(root, arguments.datasets, arguments.points, arguments.variables,
                      max(1, arguments.repeats // 2))
    finally:
        shutil.rmtree(root)


if __name__ == "__main__":
    main()
