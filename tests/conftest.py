"""Shared fixtures: an independent writer of data file blocks and sample datasets."""

import struct

import numpy as np
import pytest

import zelpy

MAGIC_PRIMARY = 0xC3275B51
MAGIC_SECONDARY = 0xA24E5154
VERSION = 0x312E3030


def be(*words):
    return b"".join(struct.pack(">I", w & 0xFFFFFFFF) for w in words)


def text(s):
    """A text field: byte length and big-endian UTF-16 code units (0xFFFFFFFF when empty)."""
    if s is None or s == "":
        return be(0xFFFFFFFF)
    units = s.encode("utf-16-be")
    return be(len(units)) + units


def variable(name, description, kind_code, values):
    values = np.asarray(values, dtype="<f4")
    return (be(0xA0000201, 0xA0000202, kind_code, 0xA0000203) + text(name) + be(0xA0000204)
            + text(description) + be(0xA0201001, values.size) + values.tobytes())


def kind(k):
    return 0xA0201001 + k


def aoi(rows, columns, variables, name="", grid=0xA0110002, nvars=None):
    head = be(0xA0000101, 0xA0000110, grid, 0xA0000103, len(variables) if nvars is None else nvars,
              0xA0000104, rows, 0xA0000105, columns)
    if name:
        head += be(0xA0000111) + text(name)
    return head + b"".join(variables)


def block(aois, reference="", deformed="", magic=MAGIC_SECONDARY, version=VERSION, count=None):
    return (be(magic, version, 0xA0000002, len(aois) if count is None else count, 0xA0000003)
            + text(reference) + be(0xA0000004) + text(deformed) + b"".join(aois))


def make_dataset(shapes=((4, 5),), seed=0, names=("X", "Y", "Z", "U", "V", "W")):
    """A 3-D dataset with one AOI per shape, random values and a confidence variable."""
    rng = np.random.default_rng(seed)
    ds = zelpy.ZelDataSet()
    for i, (rows, columns) in enumerate(shapes):
        ds.add_aoi(rows, columns, "aoi%d" % i)
    n = ds.matrix_size()
    T = zelpy.ZelDataVariableType
    kinds = {"X": T.GlobalCoordinate, "Y": T.GlobalCoordinate, "Z": T.GlobalCoordinate,
             "U": T.GlobalDisplacement, "V": T.GlobalDisplacement, "W": T.GlobalDisplacement}
    for name in names:
        ds.add_variable(name, name + " [mm]", kinds.get(name, T.Unknown), rng.normal(size=n).tolist())
    ds.add_variable("sigma", "sigma [pixel]", T.Correlation, rng.uniform(0, 0.05, n).tolist())
    ds.set_reference_image("ref_0000_0.tif")
    ds.set_deformed_image("def_0001_0.tif")
    return ds


@pytest.fixture
def dataset():
    return make_dataset(((4, 5), (3, 2)))
