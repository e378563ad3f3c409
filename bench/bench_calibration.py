"""Calibration figures on 1 M random world points in front of a distorted stereo rig.

Each figure is points per second and a ratio to a baseline timed in the same run
on the same points:
    project                   vs numpy evaluating the same camera model, and
                              OpenCV's projectPoints where it is installed
    project, spline map       the same with a spline image map on the camera
    triangulate refine=True   vs OpenCV's triangulatePoints (linear, no
                              undistortion) and vs undistortPoints on both
                              images followed by triangulatePoints
    triangulate refine=False  the same baselines
    triangulate, 0.1 px noise refine=True on pixels with noise, as measured ones
                              have (more Gauss-Newton steps than exact pixels)
    triangulate, spline map   refine=True with spline maps on both cameras
Every zelpy figure is given with all analysis workers and with one, since the
baselines run on one thread.
Run: python bench/bench_calibration.py [points]
"""

import sys

import numpy as np

from _timing import best

import zelpy
from zelpyx.zelpy import zelpy as core

try:
    import cv2
except ImportError:  # the oracle is optional
    cv2 = None

DIST_0 = [-0.12, 0.08, 0.0005, -0.0003, -0.01, 0, 0, 0, 0.0004, -0.0002, 0.0003, 0.0001]
DIST_1 = [-0.10, 0.05, -0.0002, 0.0004]


def rot_y(degrees):
    a = np.radians(degrees)
    return np.array([[np.cos(a), 0, np.sin(a)], [0, 1, 0], [-np.sin(a), 0, np.cos(a)]])


def rig(spline=False):
    cal = zelpy.ProjectCalibration()
    for centre, angle, (fx, fy, cx, cy), dist in (((-100, 0, 0), -15, (2400, 2400.5, 1224, 1024), DIST_0),
                                                  ((100, 0, 0), 15, (2390, 2391, 1230, 1020), DIST_1)):
        r = rot_y(angle)
        k = np.array([[fx, 0, cx], [0, fy, cy], [0, 0, 1]])
        cal.add_camera(zelpy.Camera.from_opencv_arrays(k, dist, r, -r @ np.array(centre, float), (2448, 2048)))
    if spline:
        rng = np.random.default_rng(1)
        for cam in cal.cameras:
            cam.set_spline_image_map((-256.0, -200.0), (256.0, 240.0), rng.normal(0, 0.8, (11, 13)),
                                     rng.normal(0, 0.8, (11, 13)))
    return cal


def numpy_project(x, cam):
    ext = cam.extrinsics()
    r, t = ext.rotation().matrix(), np.array(ext.translation())
    pc = x @ r.T + t
    xn, yn = pc[:, 0] / pc[:, 2], pc[:, 1] / pc[:, 2]
    d = cam.distortion()
    r2 = xn * xn + yn * yn
    radial = (1 + r2 * (d["k1"] + r2 * (d["k2"] + r2 * d["k3"]))) / (1 + r2 * (d["k4"] + r2 * (d["k5"] + r2 * d["k6"])))
    xd = xn * radial + 2 * d["p1"] * xn * yn + d["p2"] * (r2 + 2 * xn * xn) + d["s1"] * r2 + d["s2"] * r2 * r2
    yd = yn * radial + d["p1"] * (r2 + 2 * yn * yn) + 2 * d["p2"] * xn * yn + d["s3"] * r2 + d["s4"] * r2 * r2
    return np.column_stack([cam.fx * xd + cam.skew * yd + cam.cx, cam.fy * yd + cam.cy])


def opencv_arrays(cam):
    ext = cam.extrinsics()
    return cv2.Rodrigues(ext.rotation().matrix())[0], np.array(ext.translation()), cam.camera_matrix(), cam.dist_coeffs()


def opencv_undistort_triangulate(cal, p0, p1):
    normalised = []
    for i, p in enumerate((p0, p1)):
        cam = cal.camera(i)
        normalised.append(cv2.undistortPoints(p.reshape(-1, 1, 2), cam.camera_matrix(), cam.dist_coeffs())[:, 0].T)
    h = cv2.triangulatePoints(np.hstack([cal.camera(0).extrinsics().matrix()[:3]]),
                              np.hstack([cal.camera(1).extrinsics().matrix()[:3]]), normalised[0], normalised[1])
    return (h[:3] / h[3]).T


def report(name, n, ours, baselines):
    for workers, label in ((0, "all workers"), (1, "one worker")):
        previous = core._set_analysis_workers(workers)
        try:
            t = best(ours, repeat=3)
        finally:
            core._set_analysis_workers(previous)
        line = "%-26s %-11s %7.0f ms %8.2f Mpts/s" % (name, label, t * 1e3, n / t / 1e6)
        for baseline_name, seconds in baselines:
            line += "   %s x%.2f" % (baseline_name, t / seconds)
        print(line)


def main():
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 1_000_000
    rng = np.random.default_rng(0)
    x = np.column_stack([rng.uniform(-90, 90, n), rng.uniform(-70, 70, n), rng.uniform(280, 480, n)])
    print("points: %d, OpenCV: %s" % (n, cv2.__version__ if cv2 else "not installed"))
    print("ratios are zelpy time / baseline time (below 1: zelpy is faster)")

    plain = rig()
    cam = plain.camera(0)
    baselines = [("numpy", best(lambda: numpy_project(x, cam), repeat=3))]
    if cv2 is not None:
        arrays = opencv_arrays(cam)
        baselines.append(("projectPoints", best(lambda: cv2.projectPoints(x, *arrays), repeat=3)))
    report("project", n, lambda: plain.project(x, 0), baselines)
    splined = rig(spline=True)
    report("project, spline map", n, lambda: splined.project(x, 0), baselines)

    p0, p1 = plain.project(x, 0), plain.project(x, 1)
    baselines = []
    if cv2 is not None:
        m0, m1 = plain.projection_matrix(0), plain.projection_matrix(1)
        a, b = p0.T.copy(), p1.T.copy()
        baselines.append(("triangulatePoints", best(lambda: cv2.triangulatePoints(m0, m1, a, b), repeat=3)))
        baselines.append(("undistort+triangulate", best(lambda: opencv_undistort_triangulate(plain, p0, p1),
                                                        repeat=3)))
        err = np.abs(opencv_undistort_triangulate(plain, p0, p1) - x).max()
        print("OpenCV undistort+triangulate max error %.1e mm, zelpy %.1e mm"
              % (err, np.abs(plain.triangulate(p0, p1) - x).max()))
    else:
        baselines.append(("numpy project", best(lambda: numpy_project(x, cam), repeat=3)))
    report("triangulate refine=True", n, lambda: plain.triangulate(p0, p1), baselines)
    report("triangulate refine=False", n, lambda: plain.triangulate(p0, p1, refine=False), baselines)
    noise = np.random.default_rng(2).normal(0, 0.1, p0.shape)
    report("triangulate, 0.1 px noise", n, lambda: plain.triangulate(p0 + noise, p1), baselines)
    s0, s1 = splined.project(x, 0), splined.project(x, 1)
    report("triangulate, spline map", n, lambda: splined.triangulate(s0, s1), baselines)


if __name__ == "__main__":
    main()
