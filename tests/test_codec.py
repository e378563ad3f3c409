"""The data file codec, byte for byte, against blocks written independently here."""

import struct

import numpy as np
import pytest

import zelpy
from conftest import MAGIC_PRIMARY, MAGIC_SECONDARY, aoi, be, block, kind, make_dataset, text, variable

T = zelpy.ZelDataVariableType


def decode(data):
    ds = zelpy.ZelDataSet()
    ds.load_from_data(data, "x.out")
    return ds


def fails(data):
    ds = zelpy.ZelDataSet()
    with pytest.raises(ValueError, match="^Unable to decode memory buffer$"):
        ds.load_from_data(data, "x.out")
    return ds


def test_empty_dataset_is_32_bytes():
    assert zelpy.ZelDataSet().export_raw() == be(
        MAGIC_SECONDARY, 0x312E3030, 0xA0000002, 0, 0xA0000003, 0xFFFFFFFF, 0xA0000004, 0xFFFFFFFF)


def test_encoder_layout_matches_independent_writer():
    ds = zelpy.ZelDataSet()
    ds.add_aoi(2, 3, "left")
    ds.add_aoi(1, 2)
    ds.add_variable("X", "X [mm]", T.GlobalCoordinate, [1, 2, 3, 4, 5, 6, 7, 8])
    ds.add_variable("c", "", T.Correlation, [0.5] * 8)
    ds.set_reference_image("r.tif")
    expected = block([
        aoi(2, 3, [variable("X", "X [mm]", kind(1), [1, 2, 3, 4, 5, 6]),
                   variable("c", "", kind(5), [0.5] * 6)], name="left"),
        aoi(1, 2, [variable("X", "X [mm]", kind(1), [7, 8]), variable("c", "", kind(5), [0.5] * 2)]),
    ], reference="r.tif")
    assert ds.export_raw() == expected


def test_round_trip_is_bit_exact_and_canonical():
    ds = make_dataset(((7, 9), (3, 4)), names=("W", "U", "X", "Z", "V", "Y"))
    ds.add_variable("exx", "exx [1]", T.Strain, np.linspace(-1, 1, ds.matrix_size()).tolist())
    back = decode(ds.export_raw())
    assert back.variables() == ["X", "Z", "Y", "W", "U", "V", "exx", "sigma"]
    assert back.variables_descriptions()[:2] == ["X [mm]", "Z [mm]"]
    assert (back.reference_image(), back.deformed_image()) == ("ref_0000_0.tif", "def_0001_0.tif")
    for name in ds.variables():
        a, b = ds.get_values([name])[name], back.get_values([name])[name]
        assert a.view(np.uint32).tolist() == b.view(np.uint32).tolist()
    assert [(back[i].num_rows(), back[i].num_columns(), back[i].name()) for i in range(2)] == [
        (7, 9, "aoi0"), (3, 4, "aoi1")]


def test_primary_magic_and_secondary_both_decode():
    aois = [aoi(1, 1, [variable("a", "", kind(5), [1.0])])]
    for magic in (MAGIC_PRIMARY, MAGIC_SECONDARY):
        assert decode(block(aois, magic=magic))[0].value(0, 0) == 1.0


@pytest.mark.parametrize("k,expected", [(0, T.PixelCoordinate), (5, T.Correlation), (6, T.Unknown),
                                        (15, T.AngularVelocity), (16, T.Angle), (17, T.Angle),
                                        (18, T.Stress), (19, T.AngularAcceleration), (20, T.Unknown),
                                        (-1, T.Unknown), (0x5FDFEFFF, T.Unknown)])
def test_kind_codes(k, expected):
    ds = decode(block([aoi(1, 1, [variable("a", "", kind(k), [1.0])])]))
    assert ds.variables_types() == [expected]


def test_accelerations_are_written_with_their_code_and_read_back_as_angle():
    ds = zelpy.ZelDataSet()
    ds.add_aoi(1, 1)
    ds.add_variable("acc", "", T.GlobalAcceleration)
    raw = ds.export_raw()
    assert be(0xA0000202, 0xA0201011) in raw
    assert decode(raw).variables_types() == [T.Angle]


def test_grid_kind_is_always_written_as_2():
    raw = block([aoi(1, 1, [variable("a", "", kind(5), [1.0])], grid=0xA0110000)])
    assert be(0xA0000110, 0xA0110002) in decode(raw).export_raw()


def test_non_ascii_names_reserve_twice_their_utf8_bytes(capfd):
    """Each AOI starts at its reserved slot, the unused bytes zero. Such a
    block does not read back past the first AOI, yet the encoder writes it
    as it is and says nothing: only a save checks (and logs) that."""
    ds = zelpy.ZelDataSet()
    ds.add_aoi(1, 1, "Ω")  # 2 UTF-8 bytes, one UTF-16 unit
    ds.add_aoi(1, 1, "b")
    ds.add_variable("a", "", T.Correlation, [3.0, 4.0])
    ds.set_reference_image("bild_ä.tif")
    capfd.readouterr()
    raw = ds.export_raw()
    slot = aoi(1, 1, [variable("a", "", kind(5), [3.0])], name="Ω") + bytes(2 * (2 - 1))
    written = block([slot, aoi(1, 1, [variable("a", "", kind(5), [4.0])], name="b")], reference="bild_ä.tif")
    surplus = 2 * (len("bild_ä.tif".encode()) - len("bild_ä.tif"))
    assert raw == written + bytes(surplus)
    assert capfd.readouterr().err == ""
    back = decode(block([slot], reference="bild_ä.tif"))
    assert (back[0].name(), back.reference_image()) == ("Ω", "bild_ä.tif")


@pytest.mark.parametrize("rows,columns", [(0, 3), (3, 0)])
def test_empty_grid_aoi_round_trips_and_next_aoi_still_decodes(rows, columns):
    ds = zelpy.ZelDataSet()
    ds.add_aoi(rows, columns, "empty")
    ds.add_aoi(1, 2, "full")
    ds.add_variable("a", "", T.Correlation, [1.0, 2.0])
    back = decode(ds.export_raw())
    assert (back.num_data(), back[0].num_variables(), back[0].num_rows(), back[0].num_columns()) == (
        2, 0, rows, columns)
    assert back[1].values(1, [0]) == [2.0]


def test_declared_variables_with_zero_rows_end_after_the_variable_start_tag():
    first = aoi(0, 5, [], nvars=3) + be(0xA0000201)
    second = aoi(1, 1, [variable("b", "", kind(5), [4.0])])
    ds = decode(block([first, second]))
    assert ds.num_data() == 2 and ds[0].num_variables() == 0 and ds[1].value(0, 0) == 4.0


def test_header_without_aoi_count_gives_no_aois_with_names():
    raw = be(MAGIC_PRIMARY, 0x312E3030, 0xA0000003) + text("r") + be(0xA0000004) + text("d") + be(0xA0000101)
    ds = decode(raw)
    assert (ds.num_data(), ds.reference_image(), ds.deformed_image()) == (0, "r", "d")


def test_repeated_header_tags_overwrite_and_extra_start_tags_are_skipped():
    var = be(0xA0000201) + variable("a", "", kind(5), [1.0])
    raw = (be(MAGIC_PRIMARY, 0x312E3030, 0xA0000003) + text("old") + be(0xA0000003) + text("new")
           + be(0xA0000002, 1) + aoi(1, 1, [var]))
    ds = decode(raw)
    assert ds.reference_image() == "new" and ds.variables() == ["a"]


@pytest.mark.parametrize("units,expected", [
    ("ab\x00cd", "ab"),               # stops at a code unit 0
    ("a\udc00b", "a"),                # low surrogate first
    ("ab\ud800", "ab"),               # high surrogate as the last unit
    ("a\ud800bc", "a"),               # high surrogate without its low one
    ("x\U0001F600y", "x\U0001F600y"),  # a proper pair
])
def test_text_conversion_stops_at_nul_and_bad_surrogates(units, expected):
    raw_units = units.encode("utf-16-be", "surrogatepass")
    name = be(len(raw_units)) + raw_units
    var = (be(0xA0000201, 0xA0000202, kind(5), 0xA0000203) + name + be(0xA0201001, 1)
           + np.float32(1).tobytes())
    assert decode(block([aoi(1, 1, [var])])).variables() == [expected]


def test_unknown_magic_is_logged_in_decimal(capfd):
    fails(be(0x12345678, 0x312E3030))
    assert capfd.readouterr().err == "Unknown file type. 305419896\n"


def test_version_mismatch_warns_and_decodes(capfd):
    ds = decode(block([aoi(1, 1, [variable("a", "", kind(5), [1.0])])], version=0x312E3130))
    assert ds.num_data() == 1
    assert capfd.readouterr().err == "Version mismatch, proceeding anyway...\n"


@pytest.mark.parametrize("raw,message", [
    (be(MAGIC_PRIMARY, 0x312E3030, 0xA0000005), "Not on data tag after reading header. Likely wrong data file version.\n"),
    (block([be(0xA0000101, 0xA0000999)]), "Not on variable start tag after aoi header. Likely wrong version.\nCould not read aoi.\n"),
    (block([aoi(2, 2, [variable("a", "", kind(5), [1, 2, 3])])]), "Could not read aoi.\n"),
    (block([aoi(1, 1, [variable("a", "", kind(5), [])])]), "Could not read aoi.\n"),
    (block([aoi(1, 1, [be(0xA0000201, 0xA0000999)])]), "Could not read aoi.\n"),
    (b"", ""),
    (be(MAGIC_PRIMARY), ""),
    (be(MAGIC_PRIMARY, 0x312E3030), ""),
    (be(MAGIC_PRIMARY, 0x312E3030, 0xA0000003, 3) + b"abc", ""),     # odd text length
    (be(MAGIC_PRIMARY, 0x312E3030, 0xA0000003, 400) + b"ab", ""),    # text past the end
    (be(MAGIC_PRIMARY, 0x312E3030, 0xA0000002), ""),                 # count past the end
])
def test_decoder_failures_and_their_messages(capfd, raw, message):
    fails(raw)
    assert capfd.readouterr().err == message


def test_failed_aoi_keeps_earlier_aois_and_clears_image_names(capfd):
    good = aoi(1, 1, [variable("a", "", kind(5), [1.0])])
    bad = aoi(2, 2, [variable("a", "", kind(5), [1.0])])
    ds = make_dataset()
    fails_ds = ds
    with pytest.raises(ValueError):
        fails_ds.load_from_data(block([good, bad], reference="r", deformed="d"), "new.out")
    assert fails_ds.num_data() == 1 and fails_ds.reference_image() == "" and fails_ds.file_name() is None
    assert capfd.readouterr().err == "Could not read aoi.\n"


@pytest.mark.parametrize("raw", [
    block([aoi(1, 1, [])], count=0xFFFFFFFF),                                   # absurd AOI count
    block([aoi(1, 1, [variable("a", "", kind(5), [1.0])], nvars=0xFFFFFFFF)]),  # absurd variable count
    block([aoi(0x10000, 0x10001, [be(0xA0000201, 0xA0201001, 0x10000)])]),      # rows x columns wraps
    block([aoi(0x8000, 0x8000, [be(0xA0000201, 0xA0201001, 0x40000000)])]),     # a gigabyte announced
    block([aoi(1, 1, [be(0xA0000201, 0xA0000203, 0xFFFFFFFE)])]),               # text length near 4 GiB
])
def test_hostile_counts_fail_without_allocating(raw):
    fails(raw)


def test_every_truncation_of_a_valid_block_fails_cleanly():
    raw = make_dataset(((2, 3), (1, 2))).export_raw()
    for n in range(len(raw)):
        ds = zelpy.ZelDataSet()
        with pytest.raises(ValueError):
            ds.load_from_data(raw[:n], "x.out")
    assert decode(raw + b"trailing bytes are ignored").num_data() == 2


def test_random_bytes_never_crash():
    rng = np.random.default_rng(1)
    valid = make_dataset(((3, 3),)).export_raw()
    for i in range(300):
        raw = bytearray(valid)
        for _ in range(rng.integers(1, 6)):
            raw[rng.integers(0, len(raw))] = rng.integers(0, 256)
        ds = zelpy.ZelDataSet()
        try:
            ds.load_from_data(bytes(raw), "x.out")
        except ValueError:
            pass
    for i in range(100):
        ds = zelpy.ZelDataSet()
        with pytest.raises(ValueError):
            ds.load_from_data(bytes(be(MAGIC_PRIMARY, 0x312E3030)) + rng.bytes(200), "x.out")


def test_canonical_order_3d_keeps_file_order_within_a_kind():
    vars_ = [variable(n, "", kind(k), [0.0]) for n, k in
             [("W", 3), ("V", 3), ("U", 3), ("Z", 1), ("Y", 1), ("X", 1), ("c", 5)]]
    assert decode(block([aoi(1, 1, vars_)])).variables() == ["Z", "Y", "X", "W", "V", "U", "c"]


def test_canonical_order_moves_sigma_displacements_to_the_leftovers():
    layout = [("sx", 3, "Sigma X"), ("X", 1, ""), ("Y", 1, ""), ("Z", 1, ""), ("U", 3, ""), ("V", 3, ""),
            ("W", 3, ""), ("c", 5, ""), ("p", 0, ""), ("e", 4, ""), ("q", 6, "")]
    vars_ = [variable(n, d, kind(k), [0.0]) for n, k, d in layout]
    # 3-D kind order: coordinates, displacements, strain, ... unknown, correlation, pixel; sigma last.
    assert decode(block([aoi(1, 1, vars_)])).variables() == ["X", "Y", "Z", "U", "V", "W", "e", "q", "c", "p", "sx"]


def test_canonical_order_2d_puts_named_variables_first():
    layout = [("c", 5), ("gamma", 4), ("v_c", 3), ("x_c", 1), ("vel", 10), ("u_c", 3), ("y_c", 1), ("exx", 4), ("r", 12)]
    vars_ = [variable(n, "", kind(k), [0.0]) for n, k in layout]
    assert decode(block([aoi(1, 1, vars_)])).variables() == [
        "x_c", "y_c", "u_c", "v_c", "exx", "gamma", "vel", "r", "c"]


def test_coordinate_lookup_also_matches_descriptions():
    # "X" found through its description keeps the dataset recognised as 3-D.
    layout = [("c", 5, ""), ("px", 0, ""), ("xx", 1, "X"), ("Y", 1, ""), ("Z", 1, ""), ("U", 3, ""), ("V", 3, ""),
            ("W", 3, ""), ("vel", 10, ""), ("r", 12, "")]
    vars_ = [variable(n, d, kind(k), [0.0]) for n, k, d in layout]
    assert decode(block([aoi(1, 1, vars_)])).variables() == ["xx", "Y", "Z", "U", "V", "W", "r", "c", "px", "vel"]
