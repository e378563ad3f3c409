import functools
import io
import os
import struct
import tracemalloc
import zipfile

import pytest
from lxml import etree

from zelpy import AOIPolygon, ProjectFile
from zelpyx.zelpy import zelpy as compiled

MiB = 1 << 20
COMPRESSED = {"deflate": zipfile.ZIP_DEFLATED, "bzip2": zipfile.ZIP_BZIP2,
              "lzma": zipfile.ZIP_LZMA}


def write_archive(path, members):
    with zipfile.ZipFile(path, "w") as archive:
        for name, data in members.items():
            archive.writestr(name, data)
    return str(path)


def project_xml(directory, body=""):
    return ('<?xml version="1.0" encoding="utf-8"?>\n<!DOCTYPE tqml>\n'
            '<project structure_version="2" activeWorkspace="main" dir="{}">{}</project>'
            .format(directory, body))


@pytest.fixture
def project(tmp_path):
    project = ProjectFile(str(tmp_path / "p.z3d"))
    project.set_reference_image("ref.tif")
    return project


@pytest.mark.parametrize("call", [
    lambda p: p.save_project(),
    lambda p: p.get_data_files(),
    lambda p: p.set_data_files(["a.out"]),
    lambda p: p.get_deformed_images(),
    lambda p: p.set_deformed_images([]),
    lambda p: p.get_reference_image(),
    lambda p: p.set_reference_image("r.tif"),
    lambda p: p.get_startpoints(),
    lambda p: p.add_startpoint(),
    lambda p: p.set_startpoint_guess("startpoint_0", "r.tif", (0, 0), (0, 0), (0, 0)),
    lambda p: p.get_aoi_polygon_masks(),
    lambda p: p.set_aoi_polygon_masks([], 10, 10),
    lambda p: p.get_analog_data_csv(),
])
def test_accessors_of_an_empty_project_raise(call):
    project = ProjectFile()
    assert project.is_empty()
    with pytest.raises(AttributeError) as error:
        call(project)
    assert str(error.value) == "ProjectFile is not initialized"


@pytest.mark.parametrize("call, name", [
    (lambda d: ProjectFile(d + "/a.xml"), "/a.xml"),
    (lambda d: ProjectFile().load(d + "/a.z3d.bak"), "/a.z3d.bak"),
    (lambda d: ProjectFile().set_project_file_name(d + "/b.Z3D"), "/b.Z3D"),
    (lambda d: ProjectFile().create_project_file(d + "/c"), "/c"),
])
def test_names_without_the_project_extension(tmp_path, call, name):
    with pytest.raises(ValueError) as error:
        call(str(tmp_path))
    assert str(error.value) == str(tmp_path) + name + " is not a valid Zel3D project file."


def test_new_project_lives_in_memory_until_saved(tmp_path):
    path = str(tmp_path / "new.z3d")
    project = ProjectFile(path)
    assert type(project).__module__ == "zelpyx.zelpy.zelpy"
    assert not os.path.exists(path)
    assert project.project_file == path and project.startpoint_list is None
    assert dict(project.root.attrib) == {"structure_version": "2", "activeWorkspace": "main",
                                         "dir": str(tmp_path)}
    project.create_project_file(path, "data")
    assert project.root.get("dir") == os.path.abspath("data")

    project.save_project(str(tmp_path / "out"))
    assert not os.path.exists(path)
    with zipfile.ZipFile(tmp_path / "out.z3d") as archive:
        assert archive.namelist() == ["project.xml"]
        text = archive.read("project.xml").decode("utf-8")
    assert text.startswith("<?xml version='1.0' encoding='utf-8'?>\n<!DOCTYPE tqml>\n<project ")
    assert sorted(os.listdir(tmp_path)) == ["out.z3d"]


def test_round_trip_of_files_images_guesses_and_masks(project, tmp_path):
    project.set_data_files(["old.out"])
    project.set_data_files(["a.out", "b.out"])
    project.set_deformed_images(["d1.tif", "d2.tif"])
    first, second = project.add_startpoint(), project.add_startpoint()
    assert (first, second) == ("startpoint_0", "startpoint_1")
    project.set_startpoint_guess(second, "ref.tif", (10, 20.5), [0.0, 0.25], (1, -1))
    project.set_startpoint_guess(second, "d1.tif", [11, 21], (1, 2), (3, 4))
    project.set_startpoint_guess(second, "d1.tif", [12, 22], (1, 2), (3, 4))
    outer = AOIPolygon([0.0, 0.0, 100.0, 0.0, 100.0, 50.0])
    outer.cutouts = []
    outer.set_cutouts([[10.0, 10.0, 20.0, 10.0], [30.5, 30.0, 40.0, 40.0]])
    outer.set_subset_size(31)
    outer.set_step_size(3)
    project.set_aoi_polygon_masks([AOIPolygon([5.0, 5.0])], 1, 1)
    project.set_aoi_polygon_masks([outer, AOIPolygon([1.0, 2.0])], 640, 480)
    project.save_project()

    loaded = ProjectFile(project.project_file)
    assert loaded.get_data_files() == ["a.out", "b.out"]
    assert loaded.get_deformed_images() == ["d1.tif", "d2.tif"]
    assert loaded.get_reference_image() == "ref.tif"
    assert loaded.get_startpoints() == ["startpoint_1"]
    assert loaded.add_startpoint() == "startpoint_0"
    assert loaded.add_startpoint() == "startpoint_2"

    guesses = loaded.root.xpath("//projectaois/startpoint/guess")
    assert [(g.get("img"), g.get("type"), g.get("score"), g.text) for g in guesses] == [
        (os.path.join(str(tmp_path), "ref.tif"), "ref", "-1", "10 20.5 0.0 0.25 1 -1"),
        (os.path.join(str(tmp_path), "d1.tif"), "user", "-1", "12 22 1 2 3 4"),
    ]
    mask = loaded.root.find("projectaois/aoinode/polygonmask")
    assert (mask.get("width"), mask.get("height")) == ("640", "480")
    assert len(loaded.root.findall("projectaois/aoinode/polygonmask")) == 1

    polygons = loaded.get_aoi_polygon_masks()
    assert [(p.outline, p.cutouts, p.subset_size, p.step_size) for p in polygons] == [
        ([0.0, 0.0, 100.0, 0.0, 100.0, 50.0], [[10.0, 10.0, 20.0, 10.0], [30.5, 30.0, 40.0, 40.0]], 31, 3),
        ([1.0, 2.0], [], 29, 7),
    ]
    assert AOIPolygon.cutouts == []


@pytest.mark.parametrize("position, du, dv, message", [
    ((1,), (0, 0), (0, 0), "position must be a tuple or list of size 2"),
    ("ab", (0, 0), (0, 0), "position must be a tuple or list of size 2"),
    (None, None, None, "position must be a tuple or list of size 2"),
    ((1, 2), (0, 0, 0), [0], "du must be a tuple or list of size 2"),
    ([1, 2], {0: 1, 1: 2}, (0, 0), "du must be a tuple or list of size 2"),
    ((1, 2), (0, 0), [0, 1, 2], "dv must be a tuple or list of size 2"),
    ((1, 2), (0, 0), ("a", "b"), "dv must be a tuple or list of size 2"),
])
def test_guess_arguments_are_checked_in_order(project, position, du, dv, message):
    name = project.add_startpoint()
    with pytest.raises(TypeError) as error:
        project.set_startpoint_guess(name, "ref.tif", position, du, dv)
    assert str(error.value) == message


def test_guess_preconditions(tmp_path):
    project = ProjectFile(str(tmp_path / "p.z3d"))
    name = project.add_startpoint()
    with pytest.raises(AttributeError, match="^The project does not have a reference image$"):
        project.set_startpoint_guess(name, "ref.tif", (0, 0), (0, 0), (0, 0))
    with pytest.raises(AttributeError, match="^The project does not have a reference image$"):
        project.set_aoi_polygon_masks([AOIPolygon()], 8, 8)
    project.set_reference_image("ref.tif")
    with pytest.raises(TypeError):
        project.set_aoi_polygon_masks([AOIPolygon()], 8.5, 8)
    with pytest.raises(TypeError):
        project.set_aoi_polygon_masks((AOIPolygon(),), 8, 8)
    assert project.root.find("projectaois/aoinode/polygonmask") is None
    with pytest.raises(AttributeError) as error:
        project.set_startpoint_guess("startpoint_7", "ref.tif", (0, 0), (0, 0), (0, 0))
    assert str(error.value) == "The startpoint is not in the project. Use add_startpoint first"
    del project.root.attrib["dir"]
    with pytest.raises(ValueError, match="^Project does not contain directory parameter.$"):
        project.set_startpoint_guess(name, "ref.tif", (0, 0), (0, 0), (0, 0))


@pytest.mark.parametrize("attributes, message", [
    ('stepsize="0" subsetsize="29"', "The step size should be between 1 and 30"),
    ('stepsize="5" subsetsize="30"', "The subset size should be an odd number"),
    ('stepsize="5" subsetsize="201"', "The subset size should be between 9 and 151"),
])
def test_masks_read_from_a_project_are_validated(tmp_path, attributes, message):
    body = ('<projectaois><aoinode><polygonmask><polygon {}><outline>0 0 1 1</outline>'
            '</polygon></polygonmask></aoinode></projectaois>').format(attributes)
    path = write_archive(tmp_path / "m.z3d", {"project.xml": project_xml(tmp_path, body)})
    with pytest.raises(ValueError) as error:
        ProjectFile(path).get_aoi_polygon_masks()
    assert str(error.value) == message


@pytest.mark.parametrize("members", [
    None,
    {"other.xml": "<project/>"},
    {"project.xml": "<project><files></project>"},
    {"project.xml": ""},
])
def test_unreadable_archives_leave_the_object_empty(tmp_path, members):
    path = str(tmp_path / "bad.z3d")
    if members is None:
        with open(path, "wb") as stream:
            stream.write(b"PK\x03\x04 this is not a zip archive" * 10)
    else:
        write_archive(path, members)
    project = ProjectFile(str(tmp_path / "good.z3d"))
    with pytest.raises(ValueError) as error:
        project.load(path)
    assert str(error.value) == "Could not process " + path
    assert project.is_empty() and project.project_file is None
    with pytest.raises(ValueError, match="^Could not process "):
        ProjectFile(path)


def test_external_entities_are_not_expanded(tmp_path):
    secret = tmp_path / "secret.txt"
    secret.write_text("TOP SECRET")
    xml = ('<?xml version="1.0"?>\n<!DOCTYPE project [<!ENTITY leak SYSTEM "file://{}">]>\n'
           '<project dir="{}"><files><datafile>a&leak;.out</datafile></files></project>'
           .format(secret, tmp_path))
    project = ProjectFile(write_archive(tmp_path / "x.z3d", {"project.xml": xml}))
    files = project.get_data_files()
    assert len(files) == 1 and "SECRET" not in files[0]
    assert b"SECRET" not in etree.tostring(project.root)


def test_analog_data_csv_from_the_archive(tmp_path):
    body = ('<files><csvfile type="other">prj:wrong.csv</csvfile>'
            '<csvfile type="mirolet">prj:analog/data.csv</csvfile></files>')
    path = write_archive(tmp_path / "a.z3d", {
        "project.xml": project_xml(tmp_path, body),
        "analog/data.csv": "time,force,µstrain\n0.0,1.5,3\n0.1,1.75,4\n",
        "wrong.csv": "x\n1\n",
    })
    assert ProjectFile(path).get_analog_data_csv() == {
        "header": ["time", "force", "µstrain"],
        "time": ["0.0", "0.1"], "force": ["1.5", "1.75"], "µstrain": ["3", "4"],
    }


@pytest.mark.parametrize("body", [
    '<files><csvfile type="mirolet">prj:missing.csv</csvfile></files>',
    '<files><csvfile type="other">prj:data.csv</csvfile></files>',
    '<files/>',
])
def test_analog_data_csv_failures(tmp_path, body):
    path = write_archive(tmp_path / "a.z3d", {"project.xml": project_xml(tmp_path, body),
                                              "data.csv": "a\n1\n"})
    project = ProjectFile(path)
    with pytest.raises(ValueError) as error:
        project.get_analog_data_csv()
    assert str(error.value) == "Could not process " + path
    project.project_file = None
    with pytest.raises(AttributeError, match="^Project file is not initialized$"):
        project.get_analog_data_csv()


def test_failed_save_keeps_the_previous_archive(project, tmp_path, monkeypatch):
    project.set_data_files(["kept.out"])
    project.save_project()
    before = (tmp_path / "p.z3d").read_bytes()

    def broken_writestr(*args, **kwargs):
        raise OSError("disk full")

    project.set_data_files(["lost.out"])
    monkeypatch.setattr(zipfile.ZipFile, "writestr", broken_writestr)
    with pytest.raises(OSError, match="disk full"):
        project.save_project()
    monkeypatch.undo()
    assert (tmp_path / "p.z3d").read_bytes() == before
    assert sorted(os.listdir(tmp_path)) == ["p.z3d"]
    assert ProjectFile(str(tmp_path / "p.z3d")).get_data_files() == ["kept.out"]



CSV_ELEMENT = '<csvfile type="mirolet">prj:data.csv</csvfile>'


def patch_member(path, member, field, value):
    """Overwrite a 32-bit field of ``member`` (the CRC-32 or the uncompressed
    size) in its local header and in its central directory entry."""
    local, central = {"crc": (14, 16), "size": (22, 24)}[field]
    data = bytearray(open(path, "rb").read())
    with zipfile.ZipFile(path) as archive:
        struct.pack_into("<I", data, archive.getinfo(member).header_offset + local, value)
    entry = data.rfind(b"PK\x01\x02")
    while data[entry + 46:entry + 46 + len(member)] != member.encode():
        entry = data.rfind(b"PK\x01\x02", 0, entry)
    struct.pack_into("<I", data, entry + central, value)
    open(path, "wb").write(data)


@pytest.mark.parametrize("method", [zipfile.ZIP_STORED, *COMPRESSED.values()],
                         ids=["stored", *COMPRESSED])
def test_members_of_every_method_read_back_exactly_and_damage_is_seen(tmp_path, method):
    files = ["run/plate-%06d_0.out" % i for i in range(30000)]
    body = "<files>{}{}</files>".format("".join("<datafile>%s</datafile>" % f for f in files),
                                        CSV_ELEMENT)
    rows = [("%.9f" % (i / 7), str(i * i)) for i in range(20000)]
    path = str(tmp_path / "big.z3d")
    with zipfile.ZipFile(path, "w", compression=method) as archive:
        archive.writestr("project.xml", project_xml(tmp_path, body))
        archive.writestr("data.csv", "t,n\n" + "".join("%s,%s\n" % row for row in rows))
        infos = {info.filename: info for info in archive.infolist()}
    # Several steps of decompression each (the CSV is read 64 KB at a time).
    assert infos["project.xml"].file_size > MiB and infos["data.csv"].file_size > 400_000
    project = ProjectFile(path)
    assert project.get_data_files() == files
    assert project.get_analog_data_csv() == {"header": ["t", "n"], "t": [t for t, _ in rows],
                                             "n": [n for _, n in rows]}
    # The data is checked against the directory at its end: a wrong CRC-32,
    # or data one byte short of the declared size, is damage.
    patch_member(path, "data.csv", "crc", infos["data.csv"].CRC ^ 1)
    with pytest.raises(ValueError) as error:
        ProjectFile(path).get_analog_data_csv()
    assert str(error.value) == "Could not process " + path
    patch_member(path, "data.csv", "crc", infos["data.csv"].CRC)
    patch_member(path, "project.xml", "size", infos["project.xml"].file_size + 1)
    with pytest.raises(ValueError) as error:
        ProjectFile(path)
    assert str(error.value) == "Could not process " + path


@functools.lru_cache(maxsize=None)
def bomb(member, method):
    """An archive whose member (project.xml or the CSV) expands to 16 MB."""
    stream = io.BytesIO()
    with zipfile.ZipFile(stream, "w", compression=COMPRESSED[method]) as archive:
        if member == "project.xml":
            archive.writestr(member, "<project>" + " " * (16 * MiB) + "</project>")
        else:
            archive.writestr("project.xml", project_xml("/", "<files>" + CSV_ELEMENT + "</files>"))
            archive.writestr(member, "a,b\n" + ("1" * 250 + "," + "2" * 250 + "\n") * 32 * 1024)
    return stream.getvalue()


@pytest.mark.parametrize("method", list(COMPRESSED))
@pytest.mark.parametrize("member, declared", [
    ("project.xml", 256 * MiB + 1),    # declared beyond the limit
    ("data.csv", 1024 * MiB + 1),
    ("project.xml", 300),              # declares little, expands to 16 MB
    ("data.csv", 300),
])
def test_members_beyond_what_they_may_hold_are_refused_early(tmp_path, member, declared, method):
    path = str(tmp_path / "bomb.z3d")
    open(path, "wb").write(bomb(member, method))
    patch_member(path, member, "size", declared)
    tracemalloc.start()
    try:
        with pytest.raises(ValueError) as error:
            ProjectFile(path).get_analog_data_csv()
        peak = tracemalloc.get_traced_memory()[1]
    finally:
        tracemalloc.stop()
    assert str(error.value) == "Could not process " + path
    # Never the whole member at once: a step of output and the decompressor.
    assert peak < 8 * MiB


@pytest.mark.parametrize("size", [100, 101])
def test_analog_csv_on_disk_is_held_to_the_limit(tmp_path, monkeypatch, size):
    body = '<files><csvfile type="mirolet">analog/run.csv</csvfile></files>'
    path = write_archive(tmp_path / "d.z3d", {"project.xml": project_xml(tmp_path, body)})
    (tmp_path / "analog").mkdir()
    (tmp_path / "analog" / "run.csv").write_bytes((b"x\n" + b"7\n" * 49).ljust(size, b"\n"))
    monkeypatch.setattr(compiled, "_ANALOG_CSV_LIMIT", 100)
    project = ProjectFile(path)
    if size <= 100:
        assert project.get_analog_data_csv() == {"header": ["x"], "x": ["7"] * 49}
    else:
        with pytest.raises(ValueError) as error:
            project.get_analog_data_csv()
        assert str(error.value) == "Could not process " + path
