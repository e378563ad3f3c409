"""Build a small 3-D dataset, save it as ".out" and into HDF5, reload it and summarise it."""

import os
import sys
import tempfile

import numpy as np

import zelpy

T = zelpy.ZelDataVariableType


def build(rows=60, columns=80):
    ds = zelpy.ZelDataSet()
    ds.set_reference_image("specimen_0000_0.tif")
    ds.set_deformed_image("specimen_0001_0.tif")
    ds.add_aoi(rows, columns, "plate")
    y, x = np.mgrid[0:rows, 0:columns].astype(np.float32)
    for name, kind, values in [
        ("X", T.GlobalCoordinate, x * 0.5), ("Y", T.GlobalCoordinate, y * 0.5),
        ("Z", T.GlobalCoordinate, np.zeros_like(x)),
        ("U", T.GlobalDisplacement, x * 0.5e-3), ("V", T.GlobalDisplacement, -y * 0.15e-3),
        ("W", T.GlobalDisplacement, np.zeros_like(x)), ("sigma", T.Correlation, np.full_like(x, 0.01)),
    ]:
        ds.add_variable(name, name + (" [pixel]" if name == "sigma" else " [mm]"), kind)
        ds[0].variable_view(name)[...] = values  # writes straight into the dataset
    return ds


def main(directory):
    ds = build()
    out = os.path.join(directory, "specimen_0001_0.out")
    ds.save(out)
    ds.save(os.path.join(directory, "series.h5") + ":out:1")
    back = zelpy.ZelDataSet()
    back.load(out)
    values = back.get_values(["X", "U"])
    print("saved %s (%d bytes) and series.h5:out:1" % (out, os.path.getsize(out)))
    print("AOIs: %d, points: %d, variables: %s" % (back.num_data(), back.matrix_size(), ", ".join(back.variables())))
    print("U ranges from %.4f to %.4f mm" % (values["U"].min(), values["U"].max()))
    print("CSV name for the HDF5 member:", zelpy.change_file_extension(directory + "/series.h5:out:1", ".csv"))


if __name__ == "__main__":
    if len(sys.argv) > 1:
        main(sys.argv[1])
    else:
        with tempfile.TemporaryDirectory() as tmp:
            main(tmp)
