"""change_file_extension for plain paths and HDF5 dataset names."""

import pytest

import zelpy


@pytest.mark.parametrize("name,extension,expected", [
    ("run/spec_0001_0.out", ".csv", "run/spec_0001_0.csv"),
    ("run/plate.h5:out:12", ".out", "run/plate-12_0.out"),
    ("run/plate_out.h5:out:7", "csv", "run/plate-7_0.csv"),
    ("C:/data/a.h5:out:3", ".csv", "C:/data/a-3_0.csv"),
    ("C:/x.out", ".csv", "C:/x.csv"),                  # one colon: a plain path
    ("/d/_out.h5:out:5", ".png", "/d/-5_0.png"),        # the stem "_out" becomes empty
    ("plate.h5:out:1", ".vtu", "plate-1_0.vtu"),          # no parent directory
    ("dir//plate.h5:out:1", "txt", "dir/plate-1_0.txt"),  # trailing separators of the parent dropped
    ("noext", "csv", "noext.csv"),
    ("a/b.c/noext", ".csv", "a/b.c/noext.csv"),
    ("a/.hidden", ".csv", "a/.hidden.csv"),
    ("a.tar.gz", ".zip", "a.tar.zip"),
    ("win\\dir\\f.out", ".csv", "win\\dir\\f.csv"),
    # Four parts: the first two form the file ("x/a.h5:grp", as after a drive letter),
    # whose stem is "a" once everything from its last "." is dropped.
    ("x/a.h5:grp:b:2", ".csv", "x/a-2_0.csv"),
])
def test_change_file_extension(name, extension, expected):
    assert zelpy.change_file_extension(name, extension) == expected


@pytest.mark.parametrize("name,extension", [("", ".csv"), ("a.out", "")])
def test_empty_arguments(name, extension):
    with pytest.raises(ValueError, match=r"^Error in changing the extension for '%s' to '%s'\.$" % (name, extension)):
        zelpy.change_file_extension(name, extension)
