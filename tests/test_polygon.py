import pytest

import zelpy
from zelpy import AOIPolygon


@pytest.fixture(autouse=True)
def clean_shared_cutouts():
    # The default cutouts list belongs to the class and outlives each test.
    AOIPolygon.cutouts.clear()
    yield
    AOIPolygon.cutouts.clear()


def test_compiled_into_the_module_with_class_defaults():
    assert AOIPolygon.__module__ == "zelpyx.zelpy.zelpy"
    polygon = AOIPolygon()
    assert (polygon.outline, polygon.cutouts, polygon.subset_size, polygon.step_size) == (None, [], 29, 7)
    assert AOIPolygon([0.0, 1.0, 2.0, 3.0]).outline == [0.0, 1.0, 2.0, 3.0]
    assert AOIPolygon([]).outline == []


@pytest.mark.parametrize("call", [
    lambda p: p.set_outline([1.0, 2.0, 3.0]),
    lambda p: p.add_cutout([1.0]),
    lambda p: AOIPolygon([1.0, 2.0, 3.0]),
])
def test_odd_point_lists_are_rejected(call):
    polygon = AOIPolygon([0.0, 0.0])
    with pytest.raises(ValueError) as error:
        call(polygon)
    assert str(error.value) == "The size of the list is not even"
    assert polygon.outline == [0.0, 0.0] and polygon.cutouts == []


@pytest.mark.parametrize("call", [
    lambda p: p.set_outline((1.0, 2.0)),
    lambda p: p.set_outline(None),
    lambda p: p.add_cutout((1.0, 2.0)),
    lambda p: p.set_cutouts(([1.0, 2.0],)),
    lambda p: AOIPolygon((1.0, 2.0)),
    lambda p: p.set_subset_size(29.0),
    lambda p: p.set_subset_size("29"),
    lambda p: p.set_step_size(7.5),
])
def test_declared_argument_types_are_checked(call):
    with pytest.raises(TypeError):
        call(AOIPolygon())


@pytest.mark.parametrize("size, message", [
    (8, "The subset size should be an odd number"),
    (200, "The subset size should be an odd number"),
    (7, "The subset size should be between 9 and 151"),
    (153, "The subset size should be between 9 and 151"),
    (-1, "The subset size should be between 9 and 151"),
    (9, None),
    (151, None),
    (31, None),
])
def test_subset_size_parity_before_range(size, message):
    polygon = AOIPolygon()
    if message is None:
        polygon.set_subset_size(size)
        assert polygon.subset_size == size
    else:
        with pytest.raises(ValueError) as error:
            polygon.set_subset_size(size)
        assert str(error.value) == message
        assert polygon.subset_size == 29


@pytest.mark.parametrize("size, accepted", [(0, False), (31, False), (-5, False), (1, True), (30, True), (12, True)])
def test_step_size_range(size, accepted):
    polygon = AOIPolygon()
    if accepted:
        polygon.set_step_size(size)
        assert polygon.step_size == size
    else:
        with pytest.raises(ValueError) as error:
            polygon.set_step_size(size)
        assert str(error.value) == "The step size should be between 1 and 30"
        assert polygon.step_size == 7


def test_cutouts_are_shared_until_an_instance_owns_its_list():
    first, second = AOIPolygon(), AOIPolygon()
    first.add_cutout([1.0, 2.0])
    assert second.cutouts == [[1.0, 2.0]]
    second.set_cutouts([[3.0, 4.0, 5.0, 6.0]])
    assert first.cutouts == [[3.0, 4.0, 5.0, 6.0]] and first.cutouts is AOIPolygon.cutouts

    own = AOIPolygon()
    own.cutouts = []
    own.add_cutout([7.0, 8.0])
    assert own.cutouts == [[7.0, 8.0]]
    assert first.cutouts == [[3.0, 4.0, 5.0, 6.0]]


def test_set_cutouts_keeps_the_elements_before_a_bad_one_and_empties_on_empty():
    polygon = AOIPolygon()
    polygon.cutouts = [[9.0, 9.0]]
    with pytest.raises(ValueError, match="^The size of the list is not even$"):
        polygon.set_cutouts([[1.0, 2.0], [3.0], [4.0, 5.0]])
    assert polygon.cutouts == [[1.0, 2.0]]
    polygon.set_cutouts([])
    assert polygon.cutouts == []
    assert zelpy.AOIPolygon is AOIPolygon
