"""Stereo calibration: camera model, projection, triangulation and the calibration XML."""

import pickle
import struct
import zipfile
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest
from lxml import etree

from zelpy import Camera, ProjectCalibration, ProjectFile, RigidTransformation, Rotation

SIZE = (2448, 2048)
DIST_0 = [-0.12, 0.08, 0.0005, -0.0003, -0.01, 0, 0, 0, 0.0004, -0.0002, 0.0003, 0.0001]
DIST_1 = [-0.10, 0.05, -0.0002, 0.0004]
Z_AXIS_POINT = np.array([0.0, 0.0, 100 / np.tan(np.radians(15))])


def rot_y(degrees):
    a = np.radians(degrees)
    return np.array([[np.cos(a), 0, np.sin(a)], [0, 1, 0], [-np.sin(a), 0, np.cos(a)]])


def camera(centre, angle, fx, fy, cx, cy, dist, rotation_vector=False):
    r = rot_y(angle)
    k = np.array([[fx, 0, cx], [0, fy, cy], [0, 0, 1]])
    t = -r @ np.asarray(centre, float)
    return Camera.from_opencv_arrays(k, dist, [0, np.radians(angle), 0] if rotation_vector else r, t, SIZE)


def make_rig(spline=False):
    cal = ProjectCalibration()
    cal.add_camera(camera((-100, 0, 0), -15, 2400, 2400.5, 1224, 1024, DIST_0))
    cal.add_camera(camera((100, 0, 0), 15, 2390, 2391, 1230, 1020, DIST_1))
    if spline:
        rng = np.random.default_rng(7)
        for cam in cal.cameras:   # about 1 px, gradient well below the limit
            cam.set_spline_image_map((-256.0, -200.0), (256.0, 240.0), rng.normal(0, 0.8, (11, 13)),
                                     rng.normal(0, 0.8, (11, 13)))
    return cal


@pytest.fixture
def rig():
    return make_rig()


def points_in_front(n, seed=0):
    rng = np.random.default_rng(seed)
    return np.column_stack([rng.uniform(-90, 90, n), rng.uniform(-70, 70, n), rng.uniform(280, 480, n)])


def lattice(step=16):
    u, v = np.meshgrid(np.arange(0, SIZE[0], step, dtype=float), np.arange(0, SIZE[1], step, dtype=float))
    return np.column_stack([u.ravel(), v.ravel()])


# ------------------------------------------------------------ known answers

def test_rig_geometry(rig):
    assert rig.project(Z_AXIS_POINT, 0).tolist() == [1224.0, 1024.0]
    assert rig.project(Z_AXIS_POINT, 1).tolist() == [1230.0, 1020.0]
    stereo = rig.stereo_transform()
    np.testing.assert_allclose(stereo.rotation().matrix(), rot_y(30), atol=1e-15)
    assert np.linalg.norm(stereo.translation()) == pytest.approx(200, abs=1e-12)
    # camera 0 -> camera 1 of a world point, through both extrinsics
    p = points_in_front(1)[0].tolist()
    np.testing.assert_allclose(stereo * (rig.camera(0).extrinsics() * p), rig.camera(1).extrinsics() * p,
                               atol=1e-12)
    np.testing.assert_allclose(rig.camera(1).center(), (100, 0, 0), atol=1e-12)
    k = rig.camera(0).camera_matrix()
    np.testing.assert_allclose(rig.projection_matrix(0),
                               k @ np.column_stack([rot_y(-15), rot_y(-15) @ [100, 0, 0]]), atol=1e-9)


@pytest.mark.parametrize("index", [0, 1])
@pytest.mark.parametrize("variant", ["matrix", "rotation vector, rational"])
def test_projection_agrees_with_opencv(rig, index, variant):
    cv2 = pytest.importorskip("cv2")
    if variant != "matrix":   # the same camera given by its rotation vector, with denominators
        rig.set_camera(index, camera(*[((-100, 0, 0), -15, 2400, 2400.5, 1224, 1024, DIST_0),
                                       ((100, 0, 0), 15, 2390, 2391, 1230, 1020, DIST_1)][index],
                                     rotation_vector=True))
        rig.camera(index).set_distortion(rig.camera(index).distortion(), k4=0.02, k5=-0.01, k6=0.003)
    cam = rig.camera(index)
    x = points_in_front(1000, seed=index)
    ext = cam.extrinsics()
    expected, _ = cv2.projectPoints(x, cv2.Rodrigues(ext.rotation().matrix())[0], np.array(ext.translation()),
                                    cam.camera_matrix(), cam.dist_coeffs())
    pixels = rig.project(x, index)
    np.testing.assert_allclose(pixels, expected[:, 0], rtol=0, atol=1e-9)
    camera_frame = x @ ext.rotation().matrix().T + ext.translation()
    np.testing.assert_allclose(rig.distort(camera_frame[:, :2] / camera_frame[:, 2:], index, normalized=True),
                               pixels, rtol=0, atol=1e-9)
    # that library ignores skew; it adds skew * y'' = skew * (v - cy) / fy to u
    cam.skew = 3.0
    np.testing.assert_allclose(rig.project(x, index), pixels + np.column_stack(
        [3.0 * (pixels[:, 1] - cam.cy) / cam.fy, np.zeros(len(x))]), rtol=0, atol=1e-9)


def test_spline_image_map_of_a_linear_correction(rig):
    # Cubic B-splines reproduce linear functions: knot values of
    # Delta = A (u, v) + c give exactly that Delta over the covered area
    # [origin + spacing, origin + (n - 2) spacing], and the border value beyond.
    (ox, oy), (hx, hy), nx, ny = (-300.0, -250.0), (250.0, 220.0), 14, 13
    a, c = np.array([[2e-3, -1e-3], [5e-4, 1.5e-3]]), np.array([0.75, -0.5])
    ku, kv = np.meshgrid(ox + hx * np.arange(nx), oy + hy * np.arange(ny))
    delta = lambda p: p @ a.T + c
    x = points_in_front(500, seed=9)
    model = rig.project(x, 0)
    rig.camera(0).set_spline_image_map((ox, oy), (hx, hy), a[0, 0] * ku + a[0, 1] * kv + c[0],
                                       a[1, 0] * ku + a[1, 1] * kv + c[1])
    observed = rig.project(x, 0)
    np.testing.assert_allclose(observed + delta(observed), model, rtol=0, atol=1e-9)
    np.testing.assert_allclose(rig.camera(0).spline_image_map()["dx"][2, 3], a[0] @ (ox + 3 * hx, oy + 2 * hy) + c[0])
    outside = np.array([[3000.0, 900.0], [500.0, -400.0]])
    held = np.array([[ox + (nx - 2) * hx, 900.0], [500.0, oy + hy]])
    plain = make_rig().undistort(outside + delta(held), 0)
    np.testing.assert_allclose(rig.undistort(outside, 0), plain, rtol=0, atol=1e-9)


@pytest.mark.parametrize("spline", [False, True])
def test_project_then_triangulate(spline):
    rig = make_rig(spline)
    x = points_in_front(1000, seed=3)
    p0, p1 = rig.project(x, 0), rig.project(x, 1)
    world, error = rig.triangulate(p0, p1, return_error=True)
    np.testing.assert_allclose(world, x, rtol=0, atol=1e-9)
    assert error.shape == (1000,) and np.all(error < 1e-9)
    np.testing.assert_allclose(rig.triangulate(p0, p1, refine=False), x, rtol=0, atol=1e-6)
    # one pixel off the epipolar line: refinement shares it between the cameras
    _, error = rig.triangulate(p0 + [0.0, 1.0], p1, return_error=True)
    _, linear_error = rig.triangulate(p0 + [0.0, 1.0], p1, refine=False, return_error=True)
    assert np.all((error > 0.45) & (error < 0.55)) and np.all(error <= linear_error)


def test_triangulation_gives_nan_for_nan_and_for_points_behind(rig):
    behind = np.array([[20.0, 10.0, -500.0], [0.0, 0.0, -300.0]])
    # the pixels whose rays, as lines, meet at `behind`: the points mirrored
    # through each projection centre
    mirrored = [rig.project(2 * np.array(rig.camera(i).center()) - behind, i) for i in (0, 1)]
    p0 = np.vstack([mirrored[0], [np.nan, 500.0], rig.project(Z_AXIS_POINT, 0)])
    p1 = np.vstack([mirrored[1], [600.0, 500.0], rig.project(Z_AXIS_POINT, 1)])
    world, error = rig.triangulate(p0, p1, return_error=True)
    assert np.isnan(world[:3]).all() and np.isnan(error[:3]).all()
    np.testing.assert_allclose(world[3], Z_AXIS_POINT, atol=1e-9)
    assert np.isnan(rig.project([0.0, 0.0, -400.0], 0)).all()


@pytest.mark.parametrize("normalized", [False, True])
def test_undistort_inverts_distort_over_the_image(rig, normalized):
    pixels = lattice()
    for index in (0, 1):
        ideal = rig.undistort(pixels, index, normalized=normalized)
        assert not np.isnan(ideal).any()
        np.testing.assert_allclose(rig.distort(ideal, index, normalized=normalized), pixels, rtol=0, atol=1e-9)
        np.testing.assert_allclose(rig.undistort(rig.distort(ideal, index, normalized), index, normalized),
                                   ideal, rtol=0, atol=1e-9 if not normalized else 1e-12)


def test_folded_distortion_gives_nan_not_the_wrong_branch(rig):
    cam = rig.camera(0)
    cam.set_distortion(k1=-0.9)   # r (1 - 0.9 r^2) peaks at r^2 = 1/2.7
    pixels = lattice()
    n = (pixels - [1224, 1024]) / [2400, 2400.5]
    r = np.hypot(n[:, 0], n[:, 1])
    peak = np.sqrt(1 / 2.7) * (1 - 0.9 / 2.7)
    ideal = rig.undistort(pixels, 0, normalized=True)
    assert np.isnan(ideal[r > peak]).all() and not np.isnan(ideal[r < 0.99 * peak]).any()
    assert np.all(np.hypot(*ideal[r < peak].T) < np.sqrt(1 / 2.7))   # never beyond the fold
    np.testing.assert_allclose(rig.distort(ideal[r < peak], 0, True), pixels[r < peak], atol=1e-9)
    # beyond the fold the model is not one-to-one: no projection at all
    assert np.isnan(rig.distort([[0.7, 0.0], [0.5, 0.0]], 0, True)[0]).all()
    assert not np.isnan(rig.distort([[0.7, 0.0], [0.5, 0.0]], 0, True)[1]).any()


# ------------------------------------------------------------ the Python API

@pytest.mark.parametrize("call, error, message", [
    (lambda c: c.project([1.0, 2.0], 0), ValueError, "points must have shape (n, 3) or (3,), got (2,)."),
    (lambda c: c.undistort(np.zeros((4, 3)), 0), ValueError, "points must have shape (n, 2) or (2,), got (4, 3)."),
    (lambda c: c.project([1.0, 2.0, 3.0], 2), IndexError, "Camera index 2 outside valid range (0, 1)"),
    (lambda c: c.distort([1.0, 2.0], -1), IndexError, "Camera index -1 outside valid range (0, 1)"),
    (lambda c: c.triangulate(np.zeros((3, 2)), np.zeros((2, 2))), ValueError,
     "points_0 and points_1 must have the same shape, got (3, 2) and (2, 2)."),
    (lambda c: ProjectCalibration().triangulate([0.0, 0.0], [0.0, 0.0]), ValueError,
     "Triangulation needs a calibration with two cameras."),
    (lambda c: ProjectCalibration().stereo_transform(), ValueError,
     "The stereo transform needs a calibration with two cameras."),
    (lambda c: ProjectCalibration().camera(0), IndexError,
     "Camera index 0 outside valid range: the calibration has no cameras"),
    (lambda c: setattr(c.camera(0), "fx", 0.0), ValueError, "Camera intrinsics must be finite with fx > 0 and fy > 0."),
    (lambda c: setattr(c.camera(0), "height", 0), ValueError, "Camera image size must be positive, got 2448 x 0."),
    # Whole numbers beyond the library's 32 bits: the same errors, not an overflow.
    (lambda c: c.remove_camera(2 ** 64), IndexError, "Camera index 18446744073709551616 outside valid range (0, 1)"),
    (lambda c: setattr(c.camera(0), "width", 2 ** 32), ValueError,
     "Camera image size must be at most 2147483647 x 2147483647 pixels, got 4294967296 x 2048."),
    (lambda c: Camera(1, 1, 0, 0, 1, -2 ** 63 - 1), ValueError,
     "Camera image size must be positive, got 1 x -9223372036854775809."),
    (lambda c: c.camera(0).set_distortion(k7=1.0), ValueError,
     "Camera has no distortion coefficient 'k7'; the coefficients are k1, k2, k3, k4, k5, k6, p1, p2, s1, s2, s3, s4."),
    (lambda c: c.camera(0).set_extrinsics(RigidTransformation(Tx=float("nan"))), ValueError,
     "Camera rotation must be orthonormal with determinant +1 and the extrinsics finite."),
    (lambda c: c.camera(0).set_spline_image_map((0, 0), (10.0, 10.0), np.eye(4) * 4, np.zeros((4, 4))), ValueError,
     "Camera spline image map is too steep to invert: its gradient may reach 0.5656854249492381 "
     "(it must stay below 0.5)."),
    (lambda c: Camera.from_opencv_arrays(np.eye(3), [0.1] * 6, np.zeros(3), np.zeros(3), SIZE), ValueError,
     "dist must hold 4, 5, 8 or 12 coefficients (k1 k2 p1 p2 [k3 [k4 k5 k6 [s1 s2 s3 s4]]]), got 6."),
    (lambda c: c.add_camera(Camera.__new__(Camera)), ValueError, "Camera image size must be positive, got 0 x 0."),
    (lambda c: pickle.dumps(c), TypeError, "no default __reduce__ due to non-trivial __cinit__"),
    (lambda c: pickle.dumps(c.camera(1)), TypeError, "no default __reduce__ due to non-trivial __cinit__"),
])
def test_api_errors(rig, call, error, message):
    with pytest.raises(error) as info:
        call(rig)
    assert str(info.value) == message


def test_camera_views_write_through_and_go_stale(rig):
    view = rig.camera(0)
    view.fx = 2000.0
    view.set_distortion({"k1": 0.1}, s4=1e-3)
    assert rig.cameras[0].fx == 2000.0
    assert rig.camera(0).distortion() == dict(zip(("k1", "k2", "k3", "k4", "k5", "k6", "p1", "p2",
                                                   "s1", "s2", "s3", "s4"), [0.1] + [0.0] * 10 + [1e-3]))
    assert rig.camera(0).dist_coeffs().tolist() == [0.1] + [0.0] * 10 + [1e-3]
    standalone = Camera(1000, 1000, 10, 20, 40, 30, name="left")
    rig.set_camera(1, standalone)
    standalone.fx = 5.0   # a copy went in
    assert (rig.camera(1).fx, rig.camera(1).name) == (1000.0, "left")
    rig.remove_camera(0)
    with pytest.raises(ValueError, match=r"^C\+\+ object pointer for Camera has not been initialized properly\.$"):
        view.fx
    assert not rig.is_valid() and rig.camera(0).name == "left"


def test_concurrent_calls_match_sequential_ones():
    rig = make_rig(spline=True)
    x = points_in_front(20000, seed=5)
    pixels = [rig.project(x, 0), rig.project(x, 1)]
    expected = rig.triangulate(*pixels)
    with ThreadPoolExecutor(4) as pool:
        results = list(pool.map(lambda _: rig.triangulate(*pixels), range(8)))
    for result in results:
        np.testing.assert_array_equal(result, expected)


# ---------------------------------------------------------------------- XML

def bits(value):
    return struct.pack("<d", value)


def test_xml_round_trip_is_exact(rig):
    rig = make_rig(spline=True)
    rig.world_frame = "specimen"
    cam = rig.camera(1)
    cam.cx, cam.skew = 0.1, 1 / 3
    cam.set_distortion(k1=-1e-7, k6=1 / 3, s3=0.1)
    rig.reprojection_rms_px = 1 / 3
    root = etree.Element("project")
    rig.write_calibration(root)
    first = etree.tostring(root)
    back = ProjectCalibration()
    assert back.read_calibration(root)
    rig.write_calibration(root)   # in place, not appended
    assert etree.tostring(root) == first and len(root) == 1
    again = etree.Element("project")
    back.write_calibration(again)
    assert etree.tostring(again) == first
    c = back.camera(1)
    assert [bits(v) for v in (c.cx, c.skew, c.distortion()["k1"], c.distortion()["k6"], c.distortion()["s3"])] == \
        [bits(v) for v in (0.1, 1 / 3, -1e-7, 1 / 3, 0.1)]
    assert (back.world_frame, back.reprojection_rms_px, back.epipolar_rms_px) == ("specimen", 1 / 3, None)
    assert np.array_equal(back.camera(0).spline_image_map()["dx"], rig.camera(0).spline_image_map()["dx"])
    x = points_in_front(50)
    assert np.array_equal(back.project(x, 1), rig.project(x, 1))


CAMERA = ('<camera index="{i}" width="{w}" height="80"><intrinsics fx="500" fy="500" cx="50" cy="40"/>{d}'
          '<extrinsics><rotation>{r}</rotation><translation>0 0 0</translation></extrinsics></camera>')


def calibration_xml(attributes='version="1" units="mm"', cameras=(0, 1), rotation="1 0 0 0 1 0 0 0 1",
                    distortion='<distortion k1="0.5"/>', extra="", width=100):
    body = "".join(CAMERA.format(i=i, w=width, d=distortion, r=rotation) for i in cameras)
    return etree.fromstring("<project><calibration %s>%s%s</calibration></project>" % (attributes, body, extra))


def test_reading_fills_in_defaults():
    cal = ProjectCalibration()
    assert cal.read_calibration(calibration_xml())
    cam = cal.camera(1)
    assert (cam.width, cam.height, cam.fx, cam.skew, cam.name) == (100, 80, 500.0, 0.0, "")
    assert cam.dist_coeffs().tolist() == [0.5] + [0.0] * 11
    assert cam.spline_image_map() is None and cal.reprojection_rms_px is None
    assert cal.read_calibration(etree.Element("project")) is False and not cal.is_valid()


@pytest.mark.parametrize("root, message", [
    (calibration_xml('version="2" units="mm"'), "Calibration version 2 is not supported; this version of zelpy "
                                                "reads version 1."),
    (calibration_xml('version="1" units="m"'), "Calibration units must be 'mm', got 'm'."),
    (calibration_xml('version="1"'), "Calibration units must be 'mm', got None."),
    (calibration_xml('units="mm"'), "Malformed calibration: the version attribute is missing."),
    (calibration_xml(rotation="1 0 0 0 1 0 0 0 -1"), "Calibration camera 0: rotation must be orthonormal with "
                                                     "determinant +1 and the extrinsics finite."),
    (calibration_xml(rotation="1 0 0 0 1.001 0 0 0 1"), "Calibration camera 0: rotation must be orthonormal "
                                                        "with determinant +1 and the extrinsics finite."),
    (calibration_xml(rotation="1 0 0 0 1 0 0 0"), "Malformed calibration: <rotation> of camera 0 <extrinsics> "
                                                  "needs 9 numbers, got 8."),
    (calibration_xml(distortion='<distortion k1="x"/>'), "Malformed calibration: attribute 'k1' of camera 0 "
                                                         "<distortion> is not a number: 'x'."),
    (calibration_xml(distortion='<distortion tau1="0"/>'), "Malformed calibration: camera 0 has no distortion "
     "coefficient 'tau1'; the coefficients are k1, k2, k3, k4, k5, k6, p1, p2, s1, s2, s3, s4."),
    (calibration_xml(width=2 ** 32), "Calibration camera 0: image size must be at most 2147483647 x 2147483647 "
                                     "pixels, got 4294967296 x 80."),
    (calibration_xml(distortion='<spline_image_map origin_x="0" origin_y="0" spacing_x="9" spacing_y="9" '
                                'nx="4294967296" ny="4"><dx>0</dx><dy>0</dy></spline_image_map>'),
     "Malformed calibration: <dx> of camera 0 <spline_image_map> needs 17179869184 numbers, got 1."),
    (calibration_xml(cameras=(0,)), "Malformed calibration: a stereo calibration needs two cameras, got 1."),
    (calibration_xml(cameras=(0, 2)), "Malformed calibration: camera indices must run 0 .. n-1, got [0, 2]."),
    (calibration_xml(extra='<quality reprojection_rms_px="-"/>'), "Malformed calibration: attribute "
     "'reprojection_rms_px' of <quality> is not a number: '-'."),
    (calibration_xml(extra='<quality epipolar_rms_px="-0.5"/>'), "Malformed calibration: epipolar_rms_px "
     "must be a finite number >= 0 or None, got -0.5."),
])
def test_malformed_calibrations_are_refused(rig, root, message):
    with pytest.raises(ValueError) as info:
        rig.read_calibration(root)
    assert str(info.value) == message
    assert not rig.is_valid() and rig.cameras == []


def test_project_file_round_trips_the_calibration_bit_for_bit(tmp_path, rig):
    project = ProjectFile(str(tmp_path / "a.z3d"))
    assert not project.get_project_calibration().is_valid()
    with pytest.raises(ValueError, match=r"^Cannot write an invalid calibration: it needs two cameras, it has 0\.$"):
        project.set_project_calibration(ProjectCalibration())
    project.set_reference_image("ref.tif")
    project.set_project_calibration(make_rig(spline=True))
    project.save_project()
    loaded = ProjectFile(str(tmp_path / "a.z3d"))
    loaded.set_project_calibration(loaded.get_project_calibration())
    loaded.save_project(str(tmp_path / "b.z3d"))
    first, second = (zipfile.ZipFile(tmp_path / name).read("project.xml") for name in ("a.z3d", "b.z3d"))
    assert first == second and b'<calibration lri="calibration" version="1" units="mm"' in first
    assert loaded.get_reference_image() == "ref.tif"
    for call in (lambda p: p.get_project_calibration(), lambda p: p.set_project_calibration(rig)):
        with pytest.raises(AttributeError, match="^ProjectFile is not initialized$"):
            call(ProjectFile())
