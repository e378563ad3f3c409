"""Rotations and rigid transformations, checked against geometry built here with numpy."""

import pickle

import numpy as np
import pytest

import zelpy
from zelpy import AngleType, RigidTransformation, Rotation

RNG_SEEDS = range(4)


# ----------------------------------------------------------- reference maths

def rx(a):
    c, s = np.cos(a), np.sin(a)
    return np.array([[1, 0, 0], [0, c, -s], [0, s, c]])


def ry(a):
    c, s = np.cos(a), np.sin(a)
    return np.array([[c, 0, s], [0, 1, 0], [-s, 0, c]])


def rz(a):
    c, s = np.cos(a), np.sin(a)
    return np.array([[c, -s, 0], [s, c, 0], [0, 0, 1]])


def cardan(alpha, beta, gamma):
    return rz(gamma) @ ry(beta) @ rx(alpha)


def axis_angle(axis, angle):
    k = np.asarray(axis, float) / np.linalg.norm(axis)
    kx = np.array([[0, -k[2], k[1]], [k[2], 0, -k[0]], [-k[1], k[0], 0]])
    return np.eye(3) + np.sin(angle) * kx + (1 - np.cos(angle)) * kx @ kx


def quat_rotate(q, v):
    """v rotated by the unit quaternion q = (w, x, y, z) as q v q*."""
    w, u = q[0], np.asarray(q[1:])
    v = np.asarray(v, float)
    return v + 2 * w * np.cross(u, v) + 2 * np.cross(u, np.cross(u, v))


def random_rotations(seed, n):
    """n uniformly distributed rotations as (axis, angle in [0, pi))."""
    rng = np.random.default_rng(seed)
    axes = rng.normal(size=(n, 3))
    axes /= np.linalg.norm(axes, axis=1)[:, None]
    return axes, rng.uniform(0, np.pi, n)


def assert_rotation_matrix(m):
    np.testing.assert_allclose(m @ m.T, np.eye(3), atol=1e-12)
    assert np.linalg.det(m) == pytest.approx(1.0, abs=1e-12)


# ------------------------------------------------- angles and matrix layout

@pytest.mark.parametrize("alpha,beta,gamma,point,expected", [
    (90, 0, 0, [0.0, 1.0, 0.0], [0.0, 0.0, 1.0]),    # about x: y -> z
    (0, 90, 0, [0.0, 0.0, 1.0], [1.0, 0.0, 0.0]),    # about y: z -> x
    (0, 0, 90, [1.0, 0.0, 0.0], [0.0, 1.0, 0.0]),    # about z: x -> y
    (90, 0, 90, [0.0, 1.0, 0.0], [0.0, 0.0, 1.0]),   # x acts first: y -> z, z stays
    (90, 0, 90, [1.0, 0.0, 0.0], [0.0, 1.0, 0.0]),
])
def test_cardan_angles_rotate_points_about_the_right_axes(alpha, beta, gamma, point, expected):
    result = Rotation(alpha, beta, gamma).apply(point)
    assert type(result) is list
    np.testing.assert_allclose(result, expected, atol=1e-15)
    result = Rotation(alpha, beta, gamma).apply(tuple(point))
    assert type(result) is tuple
    np.testing.assert_allclose(result, expected, atol=1e-15)


@pytest.mark.parametrize("seed", RNG_SEEDS)
def test_angles_to_matrix_and_back(seed):
    rng = np.random.default_rng(seed)
    for alpha, beta, gamma in zip(rng.uniform(-np.pi, np.pi, 200), rng.uniform(-1.5, 1.5, 200),
                                  rng.uniform(-np.pi, np.pi, 200)):
        r = Rotation(alpha, beta, gamma, AngleType.Rad)
        np.testing.assert_allclose(r.matrix(), cardan(alpha, beta, gamma), atol=1e-14)
        back = Rotation()
        back.set_matrix(cardan(alpha, beta, gamma))
        np.testing.assert_allclose(back.angles(AngleType.Rad), (alpha, beta, gamma), atol=1e-12)
        np.testing.assert_allclose(back.angles(), np.degrees((alpha, beta, gamma)), atol=1e-10)


def test_degrees_and_radians():
    assert Rotation(90, 0, 0).angles() == pytest.approx((90.0, 0.0, 0.0), abs=1e-12)
    assert Rotation(90, 0, 0).angles(AngleType.Rad) == pytest.approx((np.pi / 2, 0, 0), abs=1e-15)
    r = Rotation(0.5, -0.25, 1.0, AngleType.Rad)
    assert r.angles(AngleType.Deg) == pytest.approx(np.degrees((0.5, -0.25, 1.0)), abs=1e-12)
    r.set_angles(10, 20, 30)
    np.testing.assert_allclose(r.matrix(), cardan(*np.radians((10, 20, 30))), atol=1e-15)
    r.set_angles(0.1, 0.2, 0.3, AngleType.Rad)
    np.testing.assert_allclose(r.matrix(), cardan(0.1, 0.2, 0.3), atol=1e-15)


class _Unit:
    def __init__(self, value):
        self.value = value


@pytest.mark.parametrize("value", [0, 2, -1, 7])
def test_any_unit_value_but_one_means_radians(value):
    np.testing.assert_allclose(Rotation(0.3, 0, 0, _Unit(value)).matrix(), rx(0.3), atol=1e-15)


@pytest.mark.parametrize("sign", [1, -1])
def test_gimbal_lock_puts_everything_into_alpha(sign):
    rng = np.random.default_rng(5)
    for alpha, gamma in rng.uniform(-np.pi, np.pi, (50, 2)):
        m = cardan(alpha, sign * np.pi / 2, gamma)
        r = Rotation()
        r.set_matrix(m)
        a, b, g = r.angles(AngleType.Rad)
        assert g == 0.0
        assert b == pytest.approx(sign * np.pi / 2, abs=1e-12)
        np.testing.assert_allclose(cardan(a, b, g), m, atol=1e-12)
    assert Rotation(10, 90, 0).angles() == pytest.approx((10, 90, 0), abs=1e-9)


# ------------------------------------------------------------ rotation vector

@pytest.mark.parametrize("seed", RNG_SEEDS)
def test_rotation_vector_round_trips(seed):
    axes, angles = random_rotations(seed, 300)
    for axis, angle in zip(axes, angles):
        m = axis_angle(axis, angle)
        r = Rotation()
        r.set_matrix(m)
        v = np.array(r.rotation_vector())
        # acos near 0 and pi limits what any trace-based extraction can give
        np.testing.assert_allclose(v, axis * angle, atol=1e-6)
        r2 = Rotation()
        r2.set_rotation_vector(list(axis * angle))
        np.testing.assert_allclose(r2.matrix(), m, atol=1e-14)
        np.testing.assert_allclose(r2.rotation_vector(), axis * angle, atol=0)
        np.testing.assert_allclose(Rotation(*r2.angles()).matrix(), m, atol=1e-12)


@pytest.mark.parametrize("axis", [(1, 0, 0), (0, 1, 0), (0, 0, 1), (1, 1, 0), (-1, 2, 0.5), (0.3, -0.2, -1),
                                  (1, -1, -1), (0, 1, -1), (0, -2, -1), (1e-9, 1, -1), (0, 1e-9, -1)])
def test_half_turn(axis):
    m = axis_angle(axis, np.pi)
    r = Rotation()
    r.set_matrix(m)
    v = np.array(r.rotation_vector())
    assert np.linalg.norm(v) == pytest.approx(np.pi, abs=1e-7)
    # +axis and -axis are the same half turn
    assert abs(np.dot(v, axis) / np.linalg.norm(axis)) == pytest.approx(np.pi, abs=1e-7)
    back = Rotation()
    back.set_rotation_vector(tuple(v))
    np.testing.assert_allclose(back.matrix(), m, atol=1e-7)


@pytest.mark.parametrize("angles", [(180, 0, 0), (0, 180, 0), (0, 0, 180), (180, 0, 90), (90, 180, 0),
                                    (-90, 180, 0), (0, 90, 180)])
def test_half_turns_from_angles(angles):
    m = cardan(*np.radians(angles))
    assert np.trace(m) == pytest.approx(-1, abs=1e-12)
    v = np.array(Rotation(*angles).rotation_vector())
    assert np.linalg.norm(v) == pytest.approx(np.pi, abs=1e-7)
    np.testing.assert_allclose(axis_angle(v, np.linalg.norm(v)), m, atol=1e-7)


def test_identity_and_zero_vector():
    r = Rotation()
    assert r.rotation_vector() == (0.0, 0.0, 0.0)
    assert r.quaternion() == (1.0, 0.0, 0.0, 0.0)
    r.set_rotation_vector([0, 0, 0])
    np.testing.assert_array_equal(r.matrix(), np.eye(3))
    r = Rotation(10, 20, 30)
    r.load_identity()
    np.testing.assert_array_equal(r.matrix(), np.eye(3))
    assert r.angles() == (0.0, 0.0, 0.0)


# ---------------------------------------------------------------- quaternion

@pytest.mark.parametrize("seed", RNG_SEEDS)
def test_quaternion_round_trips(seed):
    axes, angles = random_rotations(seed + 10, 300)
    signs = np.random.default_rng(seed).choice([-1.0, 1.0], len(angles))
    for axis, angle, sign in zip(axes, angles, signs):
        q = sign * np.r_[np.cos(angle / 2), np.sin(angle / 2) * axis]
        m = axis_angle(axis, angle)
        r = Rotation()
        r.set_quaternion(tuple(3.0 * q))  # scaled: normalised on the way in
        np.testing.assert_allclose(r.matrix(), m, atol=1e-14)
        np.testing.assert_allclose(r.rotation_vector(), axis * angle, atol=1e-7)
        np.testing.assert_allclose(r.quaternion(), sign * q, atol=1e-15)
        # and from every other representation
        for other in (Rotation(*Rotation(*r.angles()).angles()), _from_matrix(m), _from_vector(axis * angle)):
            got = np.array(other.quaternion())
            assert got[0] >= 0
            assert np.linalg.norm(got) == pytest.approx(1.0, abs=1e-14)
            np.testing.assert_allclose(got, q * np.sign(q[0]), atol=1e-12)
            for v in np.eye(3):
                np.testing.assert_allclose(quat_rotate(got, v), m @ v, atol=1e-12)


def _from_matrix(m):
    r = Rotation()
    r.set_matrix(m)
    return r


def _from_vector(v):
    r = Rotation()
    r.set_rotation_vector(list(v))
    return r


@pytest.mark.parametrize("seed", RNG_SEEDS)
def test_random_matrices_are_rotations_in_every_representation(seed):
    rng = np.random.default_rng(seed)
    for _ in range(100):
        q = rng.normal(size=4)
        r = Rotation()
        r.set_quaternion(list(q))
        m = r.matrix()
        assert_rotation_matrix(m)
        np.testing.assert_allclose(_from_vector(r.rotation_vector()).matrix(), m, atol=1e-7)
        np.testing.assert_allclose(Rotation(*r.angles()).matrix(), m, atol=1e-12)


# ------------------------------------------------- composition and inversion

def random_transform(rng):
    a = rng.uniform(-180, 180, 3)
    return RigidTransformation(a[0], rng.uniform(-80, 80), a[2], *rng.uniform(-50, 50, 3))


@pytest.mark.parametrize("seed", RNG_SEEDS)
def test_composition_and_inversion_identities(seed):
    rng = np.random.default_rng(seed)
    a, b, c = (random_transform(rng) for _ in range(3))
    p = list(rng.uniform(-10, 10, 3))
    np.testing.assert_allclose((a * b) * p, a * (b * p), atol=1e-11)
    np.testing.assert_allclose(((a * b) * c).matrix(), (a * (b * c)).matrix(), atol=1e-11)
    np.testing.assert_allclose((a * b).matrix(), a.matrix() @ b.matrix(), atol=1e-11)
    np.testing.assert_allclose((a * a.inverse()).matrix(), np.eye(4), atol=1e-12)
    np.testing.assert_allclose(a.inverse() * (a * p), p, atol=1e-11)
    m = a.matrix()
    np.testing.assert_array_equal(m[3], [0, 0, 0, 1])
    np.testing.assert_allclose(m[:3, :3], a.rotation().matrix(), atol=0)
    np.testing.assert_allclose(m[:3, 3], a.translation(), atol=0)
    np.testing.assert_allclose(m @ np.r_[p, 1], np.r_[a * p, 1], atol=1e-11)
    inverted = a.rotation()
    inverted.invert()
    np.testing.assert_allclose(inverted.matrix(), a.rotation().matrix().T, atol=0)
    np.testing.assert_allclose(a.rotation().inverse().apply(a.rotation().apply(p)), p, atol=1e-12)
    a.invert()
    np.testing.assert_allclose(a.matrix(), np.linalg.inv(m), atol=1e-11)


def test_cardan_composition_matches_single_axis_transforms():
    r = RigidTransformation(0, 0, 30) * RigidTransformation(0, -40, 0) * RigidTransformation(70, 0, 0)
    np.testing.assert_allclose(r.rotation().matrix(), Rotation(70, -40, 30).matrix(), atol=1e-15)


def test_translations_compose():
    t = RigidTransformation(Tx=1) * RigidTransformation(Ty=2)
    assert type(t) is RigidTransformation
    assert t.translation() == (1.0, 2.0, 0.0)
    t = RigidTransformation(0, 0, 90, 1, 0, 0) * RigidTransformation(Tx=1)
    np.testing.assert_allclose(t.translation(), (1, 1, 0), atol=1e-15)


def test_rotation_and_translation_are_copies():
    t = RigidTransformation(10, 20, 30, 1, 2, 3)
    r = t.rotation()
    r.set_angles(0, 0, 0)
    assert t.rotation().angles() == pytest.approx((10, 20, 30))
    r2 = Rotation(0, 0, 45)
    t.set_rotation(r2)
    r2.set_angles(1, 1, 1)
    assert t.rotation().angles() == pytest.approx((0, 0, 45))
    t.set_translation((4, 5, 6))
    assert t.translation() == (4.0, 5.0, 6.0)
    assert t.apply([1, 0, 0]) == pytest.approx([4 + np.sqrt(0.5), 5 + np.sqrt(0.5), 6])


# ------------------------------------------------------------------ messages

NOT_A_VECTOR = [np.zeros(3), {1, 2, 3}, "abc", 3.0, None, range(3)]


@pytest.mark.parametrize("call", [
    lambda v: Rotation().apply(v),
    lambda v: Rotation() * v,
    lambda v: RigidTransformation().apply(v),
    lambda v: RigidTransformation() * v,
    lambda v: RigidTransformation().set_translation(v),
    lambda v: Rotation().set_rotation_vector(v),
])
@pytest.mark.parametrize("value", NOT_A_VECTOR + ["wrong length 2", "wrong length 4", "text element"])
def test_point_arguments(call, value):
    if isinstance(value, str) and value == "wrong length 2":
        with pytest.raises(IndexError) as e:
            call([1.0, 2.0])
        assert str(e.value) == "Expected a vector of size 3."
    elif isinstance(value, str) and value == "wrong length 4":
        with pytest.raises(IndexError) as e:
            call((1.0, 2.0, 3.0, 4.0))
        assert str(e.value) == "Expected a vector of size 3."
    elif isinstance(value, str) and value == "text element":
        with pytest.raises(TypeError):
            call([1.0, "x", 3.0])
    else:
        with pytest.raises(TypeError) as e:
            call(value)
        assert str(e.value) == "Expected array or tuple."


@pytest.mark.parametrize("other", [Rotation(), Rotation(10, 0, 0)])
def test_rotations_do_not_multiply_each_other(other):
    with pytest.raises(TypeError) as e:
        Rotation() * other
    assert str(e.value) == "Expected array or tuple."
    with pytest.raises(TypeError) as e:
        RigidTransformation() * other
    assert str(e.value) == "Expected array or tuple."


@pytest.mark.parametrize("mat", [np.eye(4), np.eye(3)[:2], np.zeros(9), np.zeros((3, 3, 1))])
def test_set_matrix_wants_three_by_three(mat):
    with pytest.raises(TypeError) as e:
        Rotation().set_matrix(mat)
    assert str(e.value) == "Expected a 3x3 numpy array."


def test_set_matrix_without_shape():
    with pytest.raises(AttributeError):
        Rotation().set_matrix([[1, 0, 0], [0, 1, 0], [0, 0, 1]])


@pytest.mark.parametrize("make", [
    lambda u: Rotation(1, 2, 3, u),
    lambda u: RigidTransformation(1, 2, 3, 4, 5, 6, u),
    lambda u: Rotation().angles(u),
    lambda u: Rotation().set_angles(1, 2, 3, u),
])
@pytest.mark.parametrize("value", [2 ** 31, -(2 ** 31) - 1, 2 ** 70])
def test_unit_value_out_of_range(make, value):
    with pytest.raises(OverflowError) as e:
        make(_Unit(value))
    assert str(e.value) == "value too large to convert to enum nimbra::Rotation::AngleType"


@pytest.mark.parametrize("make", [lambda: Rotation(1, 2, 3, AngleType.Deg, 5),
                                  lambda: RigidTransformation(1, 2, 3, 4, 5, 6, AngleType.Deg, 8)])
def test_too_many_positional_arguments(make):
    with pytest.raises(TypeError, match="positional argument"):
        make()


@pytest.mark.parametrize("obj", [Rotation(), RigidTransformation()])
def test_not_picklable(obj):
    with pytest.raises(TypeError) as e:
        pickle.dumps(obj)
    assert str(e.value) == "no default __reduce__ due to non-trivial __cinit__"
    with pytest.raises(TypeError) as e:
        obj.__setstate__({})
    assert str(e.value) == "no default __reduce__ due to non-trivial __cinit__"


def test_guard_passes_on_live_objects():
    assert Rotation()._Rotation__check_thisptr() is None
    assert RigidTransformation()._RigidTransformation__check_thisptr() is None


@pytest.mark.parametrize("q,exc,msg", [
    ([1, 0, 0], IndexError, "Expected a vector of size 4."),
    (np.array([1.0, 0, 0, 0]), TypeError, "Expected array or tuple."),
    ((0, 0, 0, 0), ValueError, "Expected a finite, non-zero quaternion."),
    ((float("nan"), 0, 0, 1), ValueError, "Expected a finite, non-zero quaternion."),
])
def test_quaternion_arguments(q, exc, msg):
    with pytest.raises(exc) as e:
        Rotation().set_quaternion(q)
    assert str(e.value) == msg


def test_module_names():
    for cls in (Rotation, RigidTransformation):
        assert cls.__module__ == "zelpyx.zelpy.zelpy"
