"""Rotations and rigid transformations, checked against geometry built here with numpy."""

import pickle
from types import SimpleNamespace

import numpy as np
import pytest

from zelpy import AngleType, RigidTransformation, Rotation

RNG_SEEDS = range(4)


# ----------------------------------------------------------- reference maths

def axis_angle(axis, angle):
    """Rodrigues' formula: an independent route to every rotation below."""
    k = np.asarray(axis, float) / np.linalg.norm(axis)
    kx = np.array([[0, -k[2], k[1]], [k[2], 0, -k[0]], [-k[1], k[0], 0]])
    return np.eye(3) + np.sin(angle) * kx + (1 - np.cos(angle)) * kx @ kx


def cardan(alpha, beta, gamma):
    """x first, then y, then z."""
    return axis_angle((0, 0, 1), gamma) @ axis_angle((0, 1, 0), beta) @ axis_angle((1, 0, 0), alpha)


def quat_rotate(q, v):
    """v rotated by the unit quaternion q = (w, x, y, z) as q v q*."""
    w, u = q[0], np.asarray(q[1:])
    return v + 2 * w * np.cross(u, v) + 2 * np.cross(u, np.cross(u, v))


def random_rotations(seed, n):
    """n uniformly distributed rotations as (axis, angle in [0, pi))."""
    rng = np.random.default_rng(seed)
    axes = rng.normal(size=(n, 3))
    return axes / np.linalg.norm(axes, axis=1)[:, None], rng.uniform(0, np.pi, n)


def from_matrix(m):
    r = Rotation()
    r.set_matrix(m)
    return r


def from_vector(v):
    r = Rotation()
    r.set_rotation_vector(v)   # a list or a tuple; arrays are refused
    return r


# ------------------------------------------------- angles and matrix layout

@pytest.mark.parametrize("alpha,beta,gamma,point,expected", [
    (90, 0, 0, [0.0, 1.0, 0.0], [0.0, 0.0, 1.0]),    # about x: y -> z
    (0, 90, 0, [0.0, 0.0, 1.0], [1.0, 0.0, 0.0]),    # about y: z -> x
    (0, 0, 90, [1.0, 0.0, 0.0], [0.0, 1.0, 0.0]),    # about z: x -> y
    (90, 0, 90, [0.0, 1.0, 0.0], [0.0, 0.0, 1.0]),   # x acts first: y -> z, z stays
    (90, 0, 90, [1.0, 0.0, 0.0], [0.0, 1.0, 0.0]),
])
def test_cardan_angles_rotate_points_about_the_right_axes(alpha, beta, gamma, point, expected):
    for p in (point, tuple(point)):   # the result has the argument's sequence type
        result = Rotation(alpha, beta, gamma).apply(p)
        assert type(result) is type(p)
        np.testing.assert_allclose(result, expected, atol=1e-15)


@pytest.mark.parametrize("seed", RNG_SEEDS)
def test_angles_to_matrix_and_back(seed):
    rng = np.random.default_rng(seed)
    for alpha, beta, gamma in zip(rng.uniform(-np.pi, np.pi, 200), rng.uniform(-1.5, 1.5, 200),
                                  rng.uniform(-np.pi, np.pi, 200)):
        np.testing.assert_allclose(Rotation(alpha, beta, gamma, AngleType.Rad).matrix(),
                                   cardan(alpha, beta, gamma), atol=1e-14)
        back = from_matrix(cardan(alpha, beta, gamma))
        np.testing.assert_allclose(back.angles(AngleType.Rad), (alpha, beta, gamma), atol=1e-12)
        np.testing.assert_allclose(back.angles(), np.degrees((alpha, beta, gamma)), atol=1e-10)


def test_set_angles_in_degrees_radians_and_unknown_units():
    r = Rotation()
    r.set_angles(10, 20, 30)
    np.testing.assert_allclose(r.matrix(), cardan(*np.radians((10, 20, 30))), atol=1e-15)
    r.set_angles(0.1, 0.2, 0.3, AngleType.Rad)
    np.testing.assert_allclose(r.matrix(), cardan(0.1, 0.2, 0.3), atol=1e-15)
    assert r.angles(AngleType.Deg) == pytest.approx(np.degrees((0.1, 0.2, 0.3)), abs=1e-12)
    for value in (0, 2, -1, 7):   # any unit value but Deg's one means radians
        r = Rotation(0.3, 0, 0, SimpleNamespace(value=value))
        np.testing.assert_allclose(r.matrix(), cardan(0.3, 0, 0), atol=1e-15)


@pytest.mark.parametrize("sign", [1, -1])
def test_gimbal_lock_puts_everything_into_alpha(sign):
    for alpha, gamma in np.random.default_rng(5).uniform(-np.pi, np.pi, (50, 2)):
        m = cardan(alpha, sign * np.pi / 2, gamma)
        a, b, g = from_matrix(m).angles(AngleType.Rad)
        assert g == 0.0
        assert b == pytest.approx(sign * np.pi / 2, abs=1e-12)
        np.testing.assert_allclose(cardan(a, b, g), m, atol=1e-12)
    assert Rotation(10, 90, 0).angles() == pytest.approx((10, 90, 0), abs=1e-9)


# ------------------------------------------------------------ rotation vector

@pytest.mark.parametrize("seed", RNG_SEEDS)
def test_rotation_vector_round_trips(seed):
    for axis, angle in zip(*random_rotations(seed, 300)):
        m = axis_angle(axis, angle)
        # acos near 0 and pi limits what any trace-based extraction can give
        np.testing.assert_allclose(from_matrix(m).rotation_vector(), axis * angle, atol=1e-6)
        r = from_vector(list(axis * angle))
        np.testing.assert_allclose(r.matrix(), m, atol=1e-14)
        np.testing.assert_allclose(r.rotation_vector(), axis * angle, atol=0)
        np.testing.assert_allclose(Rotation(*r.angles()).matrix(), m, atol=1e-12)


HALF_TURN_AXES = [(1, 0, 0), (0, 1, 0), (0, 0, 1), (1, 1, 0), (-1, 2, 0.5), (0.3, -0.2, -1),
                  (1, -1, -1), (0, 1, -1), (0, -2, -1), (1e-9, 1, -1), (0, 1e-9, -1)]
HALF_TURN_ANGLES = [(180, 0, 0), (0, 180, 0), (0, 0, 180), (180, 0, 90), (90, 180, 0), (-90, 180, 0),
                    (0, 90, 180)]


@pytest.mark.parametrize("m", [axis_angle(a, np.pi) for a in HALF_TURN_AXES]
                         + [cardan(*np.radians(a)) for a in HALF_TURN_ANGLES])
def test_half_turn(m):
    # At pi the axis comes from the symmetric part, each component branch in turn;
    # +axis and -axis are the same half turn, so compare matrices.
    v = np.array(from_matrix(m).rotation_vector())
    assert np.linalg.norm(v) == pytest.approx(np.pi, abs=1e-7)
    np.testing.assert_allclose(axis_angle(v, np.linalg.norm(v)), m, atol=1e-7)
    np.testing.assert_allclose(from_vector(tuple(v)).matrix(), m, atol=1e-7)


def test_identity_and_zero_vector():
    r = Rotation()
    assert r.rotation_vector() == (0.0, 0.0, 0.0)
    assert r.quaternion() == (1.0, 0.0, 0.0, 0.0)
    np.testing.assert_array_equal(from_vector([0, 0, 0]).matrix(), np.eye(3))
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
        # From every other representation: unit norm, w >= 0, same rotation.
        for other in (Rotation(*Rotation(*r.angles()).angles()), from_matrix(m), from_vector(list(axis * angle))):
            got = np.array(other.quaternion())
            assert got[0] >= 0
            assert np.linalg.norm(got) == pytest.approx(1.0, abs=1e-14)
            np.testing.assert_allclose(got, q * np.sign(q[0]), atol=1e-12)
            for v in np.eye(3):
                np.testing.assert_allclose(quat_rotate(got, v), m @ v, atol=1e-12)


# ------------------------------------------------- composition and inversion

@pytest.mark.parametrize("seed", RNG_SEEDS)
def test_composition_and_inversion_identities(seed):
    rng = np.random.default_rng(seed)
    a, b = (RigidTransformation(rng.uniform(-180, 180), rng.uniform(-80, 80), rng.uniform(-180, 180),
                                *rng.uniform(-50, 50, 3)) for _ in range(2))
    p = list(rng.uniform(-10, 10, 3))
    np.testing.assert_allclose((a * b) * p, a * (b * p), atol=1e-11)
    np.testing.assert_allclose((a * b).matrix(), a.matrix() @ b.matrix(), atol=1e-11)
    np.testing.assert_allclose((a * a.inverse()).matrix(), np.eye(4), atol=1e-12)
    np.testing.assert_allclose(a.inverse() * (a * p), p, atol=1e-11)
    m = a.matrix()
    np.testing.assert_array_equal(m[3], [0, 0, 0, 1])
    np.testing.assert_array_equal(m[:3, :3], a.rotation().matrix())
    np.testing.assert_array_equal(m[:3, 3], a.translation())
    np.testing.assert_allclose(m @ np.r_[p, 1], np.r_[a * p, 1], atol=1e-11)
    inverted = a.rotation()
    inverted.invert()
    np.testing.assert_array_equal(inverted.matrix(), a.rotation().matrix().T)
    np.testing.assert_allclose(a.rotation().inverse().apply(a.rotation().apply(p)), p, atol=1e-12)
    a.invert()
    np.testing.assert_allclose(a.matrix(), np.linalg.inv(m), atol=1e-11)


def test_single_axis_transforms_compose_to_cardan_angles_and_translations_add():
    r = RigidTransformation(0, 0, 30) * RigidTransformation(0, -40, 0) * RigidTransformation(70, 0, 0)
    np.testing.assert_allclose(r.rotation().matrix(), Rotation(70, -40, 30).matrix(), atol=1e-15)
    t = RigidTransformation(Tx=1) * RigidTransformation(Ty=2)
    assert type(t) is RigidTransformation
    assert t.translation() == (1.0, 2.0, 0.0)
    t = RigidTransformation(0, 0, 90, 1, 0, 0) * RigidTransformation(Tx=1)
    np.testing.assert_allclose(t.translation(), (1, 1, 0), atol=1e-15)


def test_rotation_and_translation_are_copies():
    t = RigidTransformation(10, 20, 30, 1, 2, 3)
    t.rotation().set_angles(0, 0, 0)
    assert t.rotation().angles() == pytest.approx((10, 20, 30))
    r2 = Rotation(0, 0, 45)
    t.set_rotation(r2)
    r2.set_angles(1, 1, 1)
    assert t.rotation().angles() == pytest.approx((0, 0, 45))
    t.set_translation((4, 5, 6))
    assert t.translation() == (4.0, 5.0, 6.0)
    assert t.apply([1, 0, 0]) == pytest.approx([4 + np.sqrt(0.5), 5 + np.sqrt(0.5), 6])


# ------------------------------------------------------------------ messages

@pytest.mark.parametrize("call", [
    lambda v: Rotation().apply(v),
    lambda v: Rotation() * v,
    lambda v: RigidTransformation().apply(v),
    lambda v: RigidTransformation() * v,
    lambda v: RigidTransformation().set_translation(v),
    lambda v: Rotation().set_rotation_vector(v),
])
@pytest.mark.parametrize("value,exc,message", [
    *[(v, TypeError, "Expected array or tuple.")
      for v in (np.zeros(3), {1, 2, 3}, "abc", 3.0, None, range(3), Rotation(), Rotation(10, 0, 0))],
    ([1.0, 2.0], IndexError, "Expected a vector of size 3."),
    ((1.0, 2.0, 3.0, 4.0), IndexError, "Expected a vector of size 3."),
    ([1.0, "x", 3.0], TypeError, None),
])
def test_point_arguments(call, value, exc, message):
    with pytest.raises(exc) as e:
        call(value)
    assert message is None or str(e.value) == message


@pytest.mark.parametrize("setter,arg,exc,msg", [
    *[("set_matrix", m, TypeError, "Expected a 3x3 numpy array.")
      for m in (np.eye(4), np.eye(3)[:2], np.zeros(9), np.zeros((3, 3, 1)))],
    ("set_matrix", np.eye(3).tolist(), AttributeError, None),
    ("set_quaternion", [1, 0, 0], IndexError, "Expected a vector of size 4."),
    ("set_quaternion", np.array([1.0, 0, 0, 0]), TypeError, "Expected array or tuple."),
    ("set_quaternion", (0, 0, 0, 0), ValueError, "Expected a finite, non-zero quaternion."),
    ("set_quaternion", (float("nan"), 0, 0, 1), ValueError, "Expected a finite, non-zero quaternion."),
])
def test_matrix_and_quaternion_arguments(setter, arg, exc, msg):
    with pytest.raises(exc) as e:
        getattr(Rotation(), setter)(arg)
    assert msg is None or str(e.value) == msg


@pytest.mark.parametrize("make", [
    lambda u: Rotation(1, 2, 3, u),
    lambda u: RigidTransformation(1, 2, 3, 4, 5, 6, u),
    lambda u: Rotation().angles(u),
    lambda u: Rotation().set_angles(1, 2, 3, u),
])
@pytest.mark.parametrize("value", [2 ** 31, -(2 ** 31) - 1, 2 ** 70])
def test_unit_value_out_of_range(make, value):
    with pytest.raises(OverflowError) as e:
        make(SimpleNamespace(value=value))   # anything with a .value is a unit
    assert str(e.value) == "value too large to convert to enum nimbra::Rotation::AngleType"


@pytest.mark.parametrize("make", [lambda: Rotation(1, 2, 3, AngleType.Deg, 5),
                                  lambda: RigidTransformation(1, 2, 3, 4, 5, 6, AngleType.Deg, 8)])
def test_too_many_positional_arguments(make):
    with pytest.raises(TypeError, match="positional argument"):
        make()


@pytest.mark.parametrize("obj", [Rotation(), RigidTransformation()])
def test_not_picklable_and_module_name(obj):
    for call in (lambda: pickle.dumps(obj), lambda: obj.__setstate__({})):
        with pytest.raises(TypeError) as e:
            call()
        assert str(e.value) == "no default __reduce__ due to non-trivial __cinit__"
    assert type(obj).__module__ == "zelpyx.zelpy.zelpy"
