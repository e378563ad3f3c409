"""The module frame: names, enums, import behaviour, logging."""

import subprocess
import sys
import threading

import pytest

import zelpy
from zelpyx.zelpy import zelpy as core


def test_import_prints_nothing():
    result = subprocess.run([sys.executable, "-c", "import zelpy"], capture_output=True, text=True, timeout=60)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


def test_names_live_in_the_compiled_module():
    for name in ("ZelData", "ZelDataSet", "ZelDataVariableType", "TensorType", "AngleType",
                 "RTClientMessageType", "change_file_extension"):
        obj = getattr(zelpy, name)
        assert obj is getattr(core, name)
        assert obj.__module__ == "zelpyx.zelpy.zelpy"
    assert core.np.__name__ == "numpy"


@pytest.mark.parametrize("enum,member,value", [
    (zelpy.ZelDataVariableType, "PixelCoordinate", 0), (zelpy.ZelDataVariableType, "Unknown", 6),
    (zelpy.ZelDataVariableType, "GlobalAcceleration", 16), (zelpy.ZelDataVariableType, "AngularAcceleration", 19),
    (zelpy.TensorType, "LagrangeStrainTensor", 0), (zelpy.TensorType, "EngineeringStrain", 4),
    (zelpy.TensorType, "BiotStrainTensor", 5), (zelpy.AngleType, "Rad", 0), (zelpy.AngleType, "Deg", 1),
    (zelpy.RTClientMessageType, "DATA", 0), (zelpy.RTClientMessageType, "ANALOG_DATA", 1),
])
def test_enum_values(enum, member, value):
    assert enum[member].value == value and enum(value) is enum[member]
    assert not isinstance(enum[member], int)


def test_enum_sizes():
    assert (len(zelpy.ZelDataVariableType), len(zelpy.TensorType), len(zelpy.AngleType),
            len(zelpy.RTClientMessageType)) == (20, 6, 2, 2)


def test_log_severity_controls_library_messages(capfd):
    assert zelpy.log_severity() == 2
    try:
        zelpy.set_log_severity(0)
        with pytest.raises(ValueError):
            zelpy.ZelDataSet().load_from_data(b"\x00\x00\x00\x01\x00\x00\x00\x00", "x")
        assert capfd.readouterr().err == ""
        zelpy.set_log_severity(3)
        with pytest.raises(ValueError):
            zelpy.change_file_extension("", "x")
        assert capfd.readouterr().err == "File and extension should not be empty\n"
    finally:
        zelpy.set_log_severity(2)
    with pytest.raises(ValueError, match=r"^Log severity must be in range \[0,6\], got 7$"):
        zelpy.set_log_severity(7)


def test_star_import_gives_the_public_api_only():
    namespace = {}
    exec("from zelpy import *", namespace)
    assert not [name for name, value in namespace.items() if type(value).__name__ == "module"]
    assert {"ZelDataSet", "ZelDataSetReader", "RTClient", "Rotation", "AOIPolygon", "ProjectFile"} <= set(namespace)


def test_each_thread_gets_its_own_library_errors(capfd):
    """Two kinds of failure on four threads at once, console silenced: each
    thread reads back exactly its own library line, and only the last 16."""
    no_coordinates = zelpy.ZelDataSet()
    no_coordinates.add_aoi(40, 40)
    no_coordinates.add_variable("sigma", "sigma", zelpy.ZelDataVariableType.Correlation)
    cases = {"Could not find coordinates for strain computation.": no_coordinates.compute_strain,
             "Unknown file type. 305419896": lambda: zelpy.ZelDataSet().load_from_data(b"\x12\x34\x56\x781.00", "x")}
    seen = {line: [] for line in cases}

    def fail(line, times=300):
        count = zelpy.log_error_count()
        for _ in range(times):
            with pytest.raises(ValueError):
                cases[line]()
        seen[line].append(zelpy.log_errors_since(count))

    zelpy.set_log_severity(0)
    try:
        threads = [threading.Thread(target=fail, args=(line,)) for line in [*cases, *cases]]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
    finally:
        zelpy.set_log_severity(2)
    assert seen == {line: [[line] * 16] * 2 for line in cases}
    assert capfd.readouterr().err == ""
    assert zelpy.log_errors_since(zelpy.log_error_count()) == []
