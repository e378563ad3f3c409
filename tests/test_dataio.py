import glob
import os
import subprocess
import sys
import time
import zipfile

import h5py
import numpy as np
import pytest

from zelpy import (ProjectFile, ZelDataSet, ZelDataSetIO, ZelDataSetReader, ZelDataSetWriter,
                   ZelDataVariableType)


def make_dataset(seed, aois=(3, 4)):
    """A dataset whose "seed" variable holds ``seed`` everywhere, so that a
    dataset read back can be told apart from the others."""
    dataset = ZelDataSet()
    for _ in range(aois[0]):
        dataset.add_aoi(aois[1], 5)
    size = dataset.matrix_size()
    values = np.random.default_rng(seed).random(size).astype(np.float32)
    dataset.add_variable("x", "x", ZelDataVariableType.PixelCoordinate, values.tolist())
    dataset.add_variable("seed", "marker", ZelDataVariableType.Unknown, [float(seed)] * size)
    return dataset


def seed_of(dataset):
    values = dataset.get_values(["seed"])["seed"]
    assert values.min() == values.max()
    return int(values[0])


def write_out(directory, name, seed):
    os.makedirs(directory, exist_ok=True)
    path = os.path.join(str(directory), name)
    make_dataset(seed).save(path)
    return path


def write_h5(path, members):
    with h5py.File(path, "w") as handle:
        group = handle.create_group("out")
        for key, seed in members.items():
            group[key] = np.frombuffer(make_dataset(seed).export_raw(), dtype=np.uint8)
    return str(path)


def write_archive(path, xml, **members):
    with zipfile.ZipFile(path, "w") as archive:
        archive.writestr("project.xml", xml)
        for name, data in members.items():
            archive.writestr(name, data)
    return str(path)


@pytest.fixture
def run_dir(tmp_path):
    directory = tmp_path / "run"
    for seed, name in enumerate(["a-2_0.out", "a-10_0.out", "b_1_0.out"], start=1):
        write_out(directory, name, seed)
    (directory / "c-3_0.OUT").write_bytes((directory / "a-2_0.out").read_bytes())
    (directory / "notes.txt").write_text("not data")
    write_out(directory / "sub", "d-4_0.out", 9)
    return str(directory)


# ------------------------------------------------------------------ sources

def test_directory_lists_out_files_sorted_as_strings(run_dir, monkeypatch):
    monkeypatch.chdir(os.path.dirname(run_dir))
    reader = ZelDataSetReader("run")
    names = [os.path.join(run_dir, n) for n in ("a-10_0.out", "a-2_0.out", "b_1_0.out")]
    assert reader.dataset_list == names and reader.get_dataset_list() is reader.dataset_list
    assert (reader.out_directory, reader.h5_file_path) == (run_dir, None)
    assert reader.get_data_source() == run_dir and len(reader) == 3
    assert [seed_of(d) for d in reader] == [2, 1, 3]
    assert seed_of(reader[-1]) == 3
    loaded = reader.dataset(names[1])
    assert loaded.file_name() == names[1] and seed_of(loaded) == 1
    assert loaded is not reader.dataset(names[1])


@pytest.mark.parametrize("names", [
    ["b.out", "a.out", "ab.out", "a-10_0.out", "a-2_0.out", "A.out", "z.out.bak", "zz.outx"],
    ["é-1_0.out", "e-1_0.out", "ä.out", "\u4e2d.out", "\U0001f600.out", "~.out"],
    ["measurement_0000000%03d_0.out" % i for i in (5, 100, 17, 999, 0)]
    + ["measurement_0000000.out", "measurement_00000000.out", "measurement_.out"],
])
def test_listing_order_is_plain_string_order(tmp_path, names):
    for name in names:
        (tmp_path / name).write_bytes(b"")
    os.mkdir(tmp_path / "dir.out")
    undecodable = os.path.join(os.fsencode(str(tmp_path)), b"\xff\xfe-1_0.out")
    open(undecodable, "wb").close()
    reader = ZelDataSetReader(str(tmp_path))
    expected = sorted(os.path.join(str(tmp_path), n) for n in os.listdir(str(tmp_path))
                      if n.endswith(".out"))
    assert reader.dataset_list == expected
    assert len(expected) == sum(n.endswith(".out") for n in names) + 2


@pytest.mark.parametrize("alphabet, seed", [("ab", 1), ("0123456789-_", 2), ("aé\u4e2d\U0001f600", 3)])
def test_listing_order_of_many_similar_names(tmp_path, alphabet, seed):
    # Few letters and a shared prefix: many names agree on their first bytes
    # and differ only far in, or only in length.
    rng = np.random.default_rng(seed)
    names = {"run_" + "".join(rng.choice(list(alphabet), size=rng.integers(0, 14))) + ".out"
             for _ in range(600)}
    for name in names:
        (tmp_path / name).write_bytes(b"")
    reader = ZelDataSetReader(str(tmp_path))
    assert reader.dataset_list == sorted(os.path.join(str(tmp_path), n) for n in names)


def test_corrupt_hdf5_member_fails_as_load_does(tmp_path, capfd):
    path = write_h5(tmp_path / "s.h5", {})
    with h5py.File(path, "a") as handle:
        handle["out/1"] = np.frombuffer(b"\xa2\x4e\x51\x54" + bytes(range(256)) * 8, np.uint8)
    capfd.readouterr()
    with pytest.raises(Exception) as direct:
        ZelDataSet().load(path + ":out:1")
    direct_log = capfd.readouterr().err
    with pytest.raises(type(direct.value)) as via_reader:
        ZelDataSetReader(path)[0]
    assert str(via_reader.value) == str(direct.value)
    assert capfd.readouterr().err == direct_log


def test_source_forms(run_dir, tmp_path, monkeypatch):
    h5 = write_h5(tmp_path / "run.h5", {"1": 5})
    single = ZelDataSetReader(os.path.join(run_dir, "b_1_0.out"))
    assert single.dataset_list == [os.path.join(run_dir, "b_1_0.out")]
    assert single.out_directory is None and single.get_data_source() is None

    by_glob = ZelDataSetReader(os.path.join(str(tmp_path), "*.h5"))
    assert by_glob.dataset_list == ZelDataSetReader(h5).dataset_list == [h5 + ":out:1"]
    assert by_glob.h5_file_path == h5

    monkeypatch.chdir(str(tmp_path))
    two = ZelDataSetReader("run/a-*.out")
    assert two.dataset_list == ["run/a-10_0.out", "run/a-2_0.out"]
    assert two.out_directory == os.path.dirname(glob.glob("run/a-*.out")[0]) == "run"
    assert [seed_of(d) for d in two] == [2, 1]

    mixed = ZelDataSetReader(("run/sub", "run/b_1_0.out", "run/c-3_0.OUT", "run/notes.txt"))
    assert mixed.dataset_list == ["run/b_1_0.out", "run/sub"] and mixed.out_directory == "run"

    os.mkdir("run/dir.out")
    assert ZelDataSetReader(["run/*.out"]).dataset_list == [
        "run/a-10_0.out", "run/a-2_0.out", "run/b_1_0.out"]


def test_hdf5_source(tmp_path):
    h5 = write_h5(tmp_path / "store.h5", {"2": 2, "10": 10, "0003": 3})
    with h5py.File(h5, "a") as handle:
        handle.create_group("other")
    reader = ZelDataSetReader(h5)
    assert reader.dataset_list == [h5 + ":out:0003", h5 + ":out:10", h5 + ":out:2"]
    assert reader.get_data_source() == h5 and reader.out_directory is None
    assert [seed_of(d) for d in reader] == [3, 10, 2]
    assert reader[1].file_name() == h5 + ":out:10"


@pytest.mark.parametrize("storage", ["contiguous", "userblock", "chunked", "gzip"])
def test_hdf5_members_in_any_storage_layout(tmp_path, storage):
    path = str(tmp_path / "s.h5")
    options = {"chunked": {"chunks": (100,)}, "gzip": {"compression": "gzip"}}.get(storage, {})
    with h5py.File(path, "w", userblock_size=1024 if storage == "userblock" else 0) as handle:
        group = handle.create_group("out")
        for key, seed in (("1", 11), ("2", 12)):
            group.create_dataset(key, data=np.frombuffer(make_dataset(seed).export_raw(), np.uint8),
                                 **options)
    assert [seed_of(d) for d in ZelDataSetReader(path)] == [11, 12]


def test_projects_list_the_data_files_that_exist(run_dir, tmp_path):
    other = write_out(tmp_path / "elsewhere", "e-7_0.out", 7)
    project = ProjectFile(str(tmp_path / "p.z3d"))
    project.set_data_files(["run/a-2_0.out", "run/missing-5_0.out", other, "run/b_1_0.out"])
    project.save_project()
    reader = ZelDataSetReader(str(tmp_path / "p.z3d"))
    assert reader.dataset_list == sorted([os.path.join(run_dir, "a-2_0.out"),
                                          os.path.join(run_dir, "b_1_0.out"), other])
    assert reader.out_directory == run_dir
    assert [seed_of(d) for d in reader] == [7, 1, 3]

    empty = ProjectFile(str(tmp_path / "empty.z3d"))
    empty.save_project()
    assert ZelDataSetReader(str(tmp_path / "empty.z3d")).dataset_list == []


@pytest.mark.parametrize("extension", [".z3d", ".z2d"])
def test_hand_made_project_pointing_into_hdf5(tmp_path, extension):
    h5 = write_h5(tmp_path / "store.h5", {"1": 1, "3": 3, "4": 4})
    xml = ('<?xml version="1.0"?><project dir="{}"><files>'
           '<datafile>store.h5:out:3</datafile><datafile>store.h5:out:1</datafile>'
           '<datafile>store.h5:out:9</datafile><datafile>other.h5:out:4</datafile>'
           '</files></project>').format(tmp_path)
    path = write_archive(tmp_path / ("hand" + extension), xml)
    reader = ZelDataSetReader(path)
    assert reader.dataset_list == [h5 + ":out:1", h5 + ":out:3"] and reader.h5_file_path == h5
    assert [seed_of(d) for d in reader] == [1, 3]


# ------------------------------------------------------------ reader errors

@pytest.mark.parametrize("source", ["nothing/*.out", [], ("x.OUT",), "notes.txt"])
def test_no_usable_source(tmp_path, monkeypatch, source):
    monkeypatch.chdir(str(tmp_path))
    (tmp_path / "x.OUT").write_bytes(b"")
    (tmp_path / "notes.txt").write_bytes(b"")
    with pytest.raises(ValueError) as error:
        ZelDataSetReader(source)
    assert str(error.value) == "Cannot find any valid files"


def test_missing_directory_resets_the_reader(run_dir):
    reader = ZelDataSetReader(run_dir)
    with pytest.raises(NameError) as error:
        reader.load_from_directory(run_dir + "/none")
    assert str(error.value) == "Cannot find path '" + run_dir + "/none'."
    assert (reader.dataset_list, reader.out_directory, reader.h5_file_path) == ([], None, None)
    reader.load_from_directory(run_dir)
    with pytest.raises(NameError, match="^Cannot find path '.*b_1_0.out'.$"):
        reader.load_from_directory(run_dir + "/b_1_0.out")
    assert (reader.dataset_list, reader.out_directory) == ([], None)


@pytest.mark.parametrize("kind, note", [
    ("missing", "The file cannot be read: "),   # followed by h5py's own words
    ("garbage", "The file cannot be read: "),
    ("no out", "{} does not contain an 'out' group."),
    ("out is not a group", "The group 'out' cannot be listed."),
    ("open elsewhere", "The file must be writable and not open in another program: the reader opens HDF5 "
                       "files for writing (read_only=True only reads them)."),
])
def test_unopenable_hdf5(run_dir, tmp_path, kind, note):
    path = str(tmp_path / "bad.h5")
    held = None
    if kind == "garbage":
        with open(path, "wb") as stream:
            stream.write(b"\x89HDF\r\n\x1a\n" + b"\x00" * 100)
    elif kind == "no out":
        with h5py.File(path, "w") as handle:
            handle.create_group("in")
    elif kind == "out is not a group":
        with h5py.File(path, "w") as handle:
            handle["out"] = np.zeros(3, dtype=np.uint8)
    elif kind == "open elsewhere":
        write_h5(path, {"1": 1})
        held = h5py.File(path, "r")
    before = open(path, "rb").read() if os.path.exists(path) else None
    reader = ZelDataSetReader(run_dir)
    try:
        with pytest.raises(NameError) as error:
            reader.load_from_hdf5(path)
        if held is not None:
            assert ZelDataSetReader(path, read_only=True).dataset_list == [path + ":out:1"]
    finally:
        if held is not None:
            held.close()
    assert str(error.value) == "Cannot open " + path + "."
    assert error.value.__notes__[0].startswith(note.format(path))
    assert (reader.dataset_list, reader.out_directory, reader.h5_file_path) == ([], None, None)
    if before is not None:
        assert open(path, "rb").read() == before


@pytest.mark.parametrize("kind", ["corrupt zip", "no project.xml", "malformed xml", "missing"])
def test_unreadable_project(tmp_path, kind):
    path = str(tmp_path / "bad.z3d")
    if kind == "corrupt zip":
        with open(path, "wb") as stream:
            stream.write(b"PK\x05\x06" + b"\xff" * 40)
    elif kind == "no project.xml":
        with zipfile.ZipFile(path, "w") as archive:
            archive.writestr("other.xml", "<project/>")
    elif kind == "malformed xml":
        write_archive(path, "<project><files><datafile>a.out</files></project>")
    reader = ZelDataSetReader.__new__(ZelDataSetReader)
    with pytest.raises(ValueError) as error:
        reader.load_from_project(path)
    assert str(error.value) == "Could not process " + path
    if kind != "missing":
        with pytest.raises(ValueError, match="^Could not process "):
            ZelDataSetReader(path)


def test_unknown_names_and_indexes(run_dir):
    reader = ZelDataSetReader(run_dir)
    with pytest.raises(ValueError) as error:
        reader.dataset(run_dir + "/zz-1_0.out")
    assert str(error.value) == run_dir + "/zz-1_0.out not in dataset"
    with pytest.raises(IndexError):
        reader[3]
    pair = ZelDataSetIO(run_dir)
    assert seed_of(pair[-3]) == 2
    with pytest.raises(IndexError) as error:
        pair[3]
    assert error.value.args == ()


# ------------------------------------------------------------------ writing

@pytest.mark.parametrize("source, h5_dest, prefix, expected", [
    ("x/run.h5:out:7", True, "p", "p_run.h5:out:7"),
    ("x/run.h5:out:7", False, "p", "p_run-7_0.out"),
    ("x/run_out.h5:out:007", False, None, "run_out-007_0.out"),
    ("x/plate-0012_0.out", False, None, "plate-0012_0.out"),
    ("x/plate_0012_3.out", False, "q", "q_plate-0012_0.out"),
    ("x/plate-0012_0.out", True, None, "run.h5:out:0012"),
    ("x/a-b-3_1_0.out", False, "", "a-b-3-1_0.out"),
])
def test_output_names(tmp_path, source, h5_dest, prefix, expected):
    dest = str(tmp_path / "d")
    os.mkdir(dest)
    writer = ZelDataSetWriter(output_dest=os.path.join(dest, "run.h5") if h5_dest else dest,
                              output_prefix=prefix)
    dataset = make_dataset(42)
    dataset.set_file_name(source)
    writer.save(dataset)
    assert seed_of(ZelDataSetReader(dest)[0] if not h5_dest
                   else ZelDataSetReader(os.path.join(dest, expected.split(":")[0]))[0]) == 42
    if h5_dest:
        file_name, key = expected.split(":out:")
        assert ZelDataSetReader(os.path.join(dest, file_name)).dataset_list == [
            os.path.join(dest, expected)]
    else:
        assert os.listdir(dest) == [expected]


def test_destination_rules(run_dir, tmp_path):
    writer = ZelDataSetWriter(output_dest=str(tmp_path / "run.h5"))
    writer.set_output_prefix("a")
    writer.set_output_prefix("b")
    assert (writer.output_dest, writer.dest_is_h5) == (str(tmp_path / "b_a_run.h5"), True)
    writer.set_output(run_dir)
    assert (writer.output_dest, writer.dest_is_h5, writer.output_prefix) == (run_dir, False, "b")

    reader = ZelDataSetReader(run_dir)
    writer = ZelDataSetWriter(reader=reader, output_dest=str(tmp_path / "x.h5"), output_prefix="p")
    assert (writer.output_dest, writer.dest_is_h5, writer.output_prefix) == (run_dir, False, "p")
    h5_reader = ZelDataSetReader(write_h5(tmp_path / "s.h5", {"1": 1}))
    writer.set_reader(h5_reader)
    assert (writer.output_dest, writer.dest_is_h5) == (str(tmp_path / "p_s.h5"), True)
    writer.reset()
    assert (writer.output_dest, writer.output_prefix, writer.dest_is_h5) == (None, None, False)


@pytest.mark.parametrize("call, error_class, message", [
    (lambda d: ZelDataSetWriter(output_dest=d + "/out.txt"), AttributeError,
     "Only HDF5 files and directories can be used as output destination"),
    (lambda d: ZelDataSetWriter(output_dest=d + "/missing_dir"), AttributeError,
     "Only HDF5 files and directories can be used as output destination"),
    (lambda d: ZelDataSetWriter(reader=ZelDataSetReader(d + "/run/b_1_0.out")), AttributeError,
     "ZelDatasetReader needs to be initialized"),
    (lambda d: ZelDataSetIO(d + "/run/b_1_0.out"), AttributeError,
     "ZelDatasetReader needs to be initialized"),
    (lambda d: ZelDataSetWriter(output_dest=d).save(ZelDataSet()), NameError, "A filename is required"),
    (lambda d: ZelDataSetWriter(output_dest=d).save(named("/data/plain.out")), UnboundLocalError,
     "local variable 'file' referenced before assignment"),
    (lambda d: ZelDataSetWriter(output_dest=d + "/r.h5").save(named("/data/plain.out")),
     UnboundLocalError, "local variable 'index' referenced before assignment"),
    (lambda d: ZelDataSetWriter(output_dest=d + "/r.h5").save(named("/my data/a-1_0.out")),
     UnboundLocalError, "local variable 'index' referenced before assignment"),
])
def test_writer_failures(run_dir, tmp_path, call, error_class, message):
    with pytest.raises(error_class) as error:
        call(str(tmp_path))
    assert str(error.value) == message


def named(name):
    dataset = make_dataset(1)
    dataset.set_file_name(name)
    return dataset


@pytest.mark.parametrize("destination", ["removed directory", "garbage h5"])
def test_failed_save_reports_and_keeps_the_target(tmp_path, destination):
    if destination == "removed directory":
        os.mkdir(tmp_path / "gone")
        writer = ZelDataSetWriter(output_dest=str(tmp_path / "gone"))
        os.rmdir(tmp_path / "gone")
        expected = str(tmp_path / "gone" / "a-1_0.out")
    else:
        (tmp_path / "g.h5").write_bytes(b"not an HDF5 file" * 64)
        writer = ZelDataSetWriter(output_dest=str(tmp_path / "g.h5"))
        expected = str(tmp_path / "g.h5") + ":out:1"
    with pytest.raises(OSError) as error:
        writer.save(named("/data/a-1_0.out"))
    assert str(error.value) == "Unable to save file: " + expected
    if destination == "garbage h5":
        assert (tmp_path / "g.h5").read_bytes() == b"not an HDF5 file" * 64
    with pytest.raises(TypeError):
        ZelDataSetWriter().save(named("/data/a-1_0.out"))


# ----------------------------------------------------------------------- IO

@pytest.mark.parametrize("kind", ["directory", "hdf5"])
def test_io_writes_back_to_its_source(run_dir, tmp_path, kind):
    source = run_dir if kind == "directory" else write_h5(tmp_path / "s.h5", {"1": 1, "2": 2})
    pair = ZelDataSetIO(source)
    assert pair.get_data_source() == source and len(pair) == len(pair.get_dataset_list())
    first = pair[0]
    size = first.matrix_size()
    first.set_values({"seed": [77.0] * size})
    pair.save(first)
    assert seed_of(ZelDataSetIO(source).dataset(pair.get_dataset_list()[0])) == 77
    assert pair.get_dataset_list() == ZelDataSetReader(source).dataset_list

    os.mkdir(tmp_path / "copies")
    pair.set_output(str(tmp_path / "copies") if kind == "directory" else str(tmp_path / "c.h5"))
    pair.set_output_prefix("copy")
    pair.save(pair[1])
    written = ZelDataSetReader(str(tmp_path / "copies") if kind == "directory"
                               else str(tmp_path / "copy_c.h5"))
    assert len(written) == 1 and seed_of(written[0]) == seed_of(pair[1])


def test_io_reset_stops_before_the_writer(run_dir):
    pair = ZelDataSetIO(run_dir)
    with pytest.raises(AttributeError) as error:
        pair.reset()
    assert str(error.value) == "'ZelDataSetReader' object has no attribute '_ZelDataSetIO__reset'"
    assert pair.dataset_writer.output_dest == run_dir and len(pair.get_dataset_list()) == 3
    pair.load_from_directory(run_dir + "/sub")
    assert [seed_of(d) for d in pair.dataset_reader] == [9]
    assert pair.dataset_writer.output_dest == run_dir


# ----------------------------------------------- files changing under a read

REWRITTEN_LOADS = """
import sys, zelpy
reader = zelpy.ZelDataSetReader(sys.argv[1].split(":out:")[0])
print("ready", flush=True)
outcomes = set()
for k in range(150):
    try:
        # Both ways in: the reader and load itself.
        reader[0] if k % 2 else zelpy.ZelDataSet().load(sys.argv[1])
        outcomes.add("loaded")
    except Exception as exc:
        outcomes.add("%s: %s" % (type(exc).__name__, exc))
print("\\n".join(sorted(outcomes)))
"""


@pytest.mark.parametrize("kind", ["out", "h5"])
def test_loads_survive_the_file_being_rewritten_in_place(tmp_path, kind):
    """Another program cuts the file short and writes it again while it is
    read: a load gives the dataset or the documented error, never a fault."""
    path = str(tmp_path / ("a-1_0.out" if kind == "out" else "a.h5"))
    name = path if kind == "out" else path + ":out:1"
    dataset = ZelDataSet()
    dataset.add_aoi(1000, 1000)
    for k in range(8):
        dataset.add_variable("v%d" % k, "", ZelDataVariableType.Unknown, np.full(10 ** 6, k, np.float32))
    dataset.save(name)
    data = open(path, "rb").read()
    child = subprocess.Popen([sys.executable, "-c", REWRITTEN_LOADS, name], stdout=subprocess.PIPE,
                             stderr=subprocess.DEVNULL, text=True)
    assert child.stdout.readline() == "ready\n"
    cut = len(data) // 2
    with open(path, "r+b") as stream:
        while child.poll() is None:
            stream.truncate(cut)
            stream.seek(cut)
            stream.write(data[cut:])
            stream.flush()
            time.sleep(0.005)  # whole for a moment, so that some loads read all of it
    outcomes = set(child.communicate()[0].split("\n")) - {""}
    assert child.returncode == 0
    allowed = {"loaded", "NameError: Unable to find file: %s or file is corrupted" % name,
               "ValueError: Unable to decode memory buffer", "OSError: Cannot open %s." % path,
               "ValueError: %s does not contain 'out:1' dataset." % path,
               "ValueError: %s does not contain an 'out' group." % path}
    assert outcomes <= allowed


# ---------------------------------------------------- rewriting HDF5 members

def planar_series(count, size=100):
    """Datasets of a planar grid under stretch, their strain computed once."""
    x, y = np.meshgrid(np.arange(size, dtype=np.float32), np.arange(size, dtype=np.float32))
    series = []
    for k in range(count):
        dataset = ZelDataSet()
        dataset.add_aoi(size, size)
        for n, kind, values in (("x", 0, x), ("y", 0, y), ("u", 2, 0.001 * k * x), ("v", 2, 0 * y),
                                ("c", 5, 0 * x)):
            dataset.add_variable(n, n, ZelDataVariableType(kind), values.ravel().tolist())
        dataset.compute_strain(7)
        series.append(dataset)
    return series


def test_rewriting_members_reuses_their_space(tmp_path):
    """Strain run again in place, five times over: the first run relabels
    the strain variables (a few bytes more per member), the others write the
    same bytes again. The file keeps within 1.2 times its size."""
    path = str(tmp_path / "run.h5")
    for k, dataset in enumerate(planar_series(8)):
        dataset.save("%s:out:%04d" % (path, k))
    size = os.path.getsize(path)
    for _ in range(5):
        reader = ZelDataSetReader(path)  # opens the file read-write, as the command does
        for name in reader.dataset_list:
            dataset = ZelDataSet()
            dataset.load(name)
            dataset.compute_strain(7)
            dataset.save(name)
    assert os.path.getsize(path) <= 1.2 * size
    assert len(ZelDataSetReader(path)) == 8


# Where an HDF5 save of member "2" (old seed 2, new seed 7) can stop: the
# members besides "1" and "3" (None: an incomplete member, all zeros), the
# mark on the group, and the seed readers find under key "2" (None: none).
SAVE_STOPPED = {
    "writing over a member": ({"2": 2, "2.partial": None}, "2.partial", 2),
    "writing a new member": ({"2.partial": None}, "2.partial", None),
    "written, old member still there": ({"2": 2, "2.partial": 7}, "2", 7),
    "written, old member removed": ({"2.partial": 7}, "2", 7),
    "renamed, mark not cleared": ({"2": 7}, "2", 7),
    "left by an earlier version": ({"2": 2, "2.partial": None}, "", 2),
}


@pytest.mark.parametrize("state", SAVE_STOPPED)
def test_hdf5_saves_stopped_midway_lose_nothing(tmp_path, state):
    """Readers never see an incomplete member and find a complete one under
    its key; the next save of another key finishes the renaming or removes
    the incomplete member (one left unmarked goes with the next save of its
    own key)."""
    members, mark, found = SAVE_STOPPED[state]
    path = write_h5(tmp_path / "run.h5", {"1": 1, "3": 3})
    with h5py.File(path, "a") as handle:
        group = handle["out"]
        for key, seed in members.items():
            raw = make_dataset(7 if seed is None else seed).export_raw()
            group[key] = np.zeros(len(raw), np.uint8) if seed is None else np.frombuffer(raw, np.uint8)
        group.attrs["zelpy_partial"] = np.bytes_(mark.encode())
    expected = {"1": 1, "3": 3} if found is None else {"1": 1, "2": found, "3": 3}

    def check(seeds):
        reader = ZelDataSetReader(path)
        assert reader.dataset_list == [path + ":out:" + key for key in sorted(seeds)]
        assert [seed_of(dataset) for dataset in reader] == [seeds[key] for key in sorted(seeds)]
        for key in ["2.partial"] + ["2"] * ("2" not in seeds):
            with pytest.raises(ValueError) as error:
                ZelDataSet().load(path + ":out:" + key)
            assert str(error.value) == "%s does not contain 'out:%s' dataset." % (path, key)

    check(expected)
    make_dataset(5).save(path + ":out:1")
    check(dict(expected, **{"1": 5}))
    with h5py.File(path, "r") as handle:
        assert sorted(handle["out"]) == sorted([*expected] + ["2.partial"] * (not mark))
        assert handle["out"].attrs["zelpy_partial"] == b""
    make_dataset(6).save(path + ":out:2")
    check({"1": 5, "2": 6, "3": 3})
    with h5py.File(path, "r") as handle:
        assert sorted(handle["out"]) == ["1", "2", "3"]
