"""Built-in demonstration series: a plate with a central hole under tension.

The series is synthetic but shaped like a real stereo measurement: a grid of
points with camera (pixel) and world (mm) coordinates, displacements, the
matching uncertainties and a confidence value per point. The displacements are
the closed-form plane-stress solution for a circular hole in an infinite plate
under remote uniaxial stress, so every strain the library computes on it can
be checked against an exact value.
"""

from __future__ import annotations

import math
import os
import time
from dataclasses import dataclass, field

import numpy as np


@dataclass(frozen=True)
class PlateWithHole:
    """Linear-elastic plate with a circular hole, remote stress along x.

    Lengths in mm, moduli and stresses in MPa. Plane stress.
    """

    radius: float = 10.0
    young: float = 70000.0
    poisson: float = 0.33

    @property
    def shear_modulus(self) -> float:
        return self.young / (2.0 * (1.0 + self.poisson))

    @property
    def kolosov(self) -> float:
        # Plane-stress value of Kolosov's constant.
        return (3.0 - self.poisson) / (1.0 + self.poisson)

    def displacement(self, x, y, stress):
        """In-plane displacement (ux, uy) in mm at plate coordinates (x, y).

        The rigid-body part is fixed so that the hole centre stays put and the
        x axis does not rotate.
        """
        a2 = self.radius ** 2
        r = np.hypot(x, y)
        t = np.arctan2(y, x)
        c2, s2 = np.cos(2 * t), np.sin(2 * t)
        k = self.kolosov
        f = stress / (8.0 * self.shear_modulus)
        ur = f * (r * (k - 1) + 2 * a2 / r
                  + 2 * c2 * (r + a2 * (k + 1) / r - a2 * a2 / r ** 3))
        ut = -f * 2 * s2 * (r + a2 * (k - 1) / r + a2 * a2 / r ** 3)
        ct, st = np.cos(t), np.sin(t)
        return ur * ct - ut * st, ur * st + ut * ct

    def stress(self, x, y, stress):
        """Cartesian stresses (sxx, syy, sxy) of the field, in MPa."""
        r = np.hypot(x, y)
        t = np.arctan2(y, x)
        q = self.radius ** 2 / r ** 2
        c2, s2 = np.cos(2 * t), np.sin(2 * t)
        srr = stress / 2 * (1 - q) + stress / 2 * (1 - 4 * q + 3 * q * q) * c2
        stt = stress / 2 * (1 + q) - stress / 2 * (1 + 3 * q * q) * c2
        srt = -stress / 2 * (1 + 2 * q - 3 * q * q) * s2
        c, s = np.cos(t), np.sin(t)
        sxx = srr * c * c + stt * s * s - 2 * srt * s * c
        syy = srr * s * s + stt * c * c + 2 * srt * s * c
        sxy = (srr - stt) * s * c + srt * (c * c - s * s)
        return sxx, syy, sxy

    def strain(self, x, y, stress):
        """Small in-plane strains (exx, eyy, exy), tensor shear."""
        sxx, syy, sxy = self.stress(x, y, stress)
        e, nu = self.young, self.poisson
        return (sxx - nu * syy) / e, (syy - nu * sxx) / e, (1 + nu) / e * sxy

    def principal_strain(self, x, y, stress):
        """Major and minor principal strains (e1, e2)."""
        exx, eyy, exy = self.strain(x, y, stress)
        m = (exx + eyy) / 2
        r = np.hypot((exx - eyy) / 2, exy)
        return m + r, m - r

    def peak_strain(self, stress) -> float:
        """Largest e1 of the field: the hoop strain at the hole edge across
        the load axis.

        The hoop stress there is Kt * stress with Kt = 3, and the radial
        stress vanishes on the free edge, so the point is in uniaxial stress:
        e1 = 3 * stress / E, whatever Poisson's ratio. Poisson's ratio shows
        in the minor strain there, e2 = -3 * nu * stress / E.
        """
        return 3.0 * stress / self.young


def _rotation(about_x_deg: float, about_y_deg: float) -> np.ndarray:
    ax, ay = math.radians(about_x_deg), math.radians(about_y_deg)
    rx = np.array([[1, 0, 0], [0, math.cos(ax), -math.sin(ax)],
                   [0, math.sin(ax), math.cos(ax)]])
    ry = np.array([[math.cos(ay), 0, math.sin(ay)], [0, 1, 0],
                   [-math.sin(ay), 0, math.cos(ay)]])
    return rx @ ry


@dataclass
class DemoSeries:
    """Geometry, loading and measurement settings of the demo series."""

    plate: PlateWithHole = field(default_factory=PlateWithHole)
    size: int = 201            # grid points per side
    half_width: float = 40.0   # half the field of view, mm
    steps: int = 8             # datasets, the first one unloaded
    max_stress: float = 100.0  # remote stress of the last dataset, MPa
    margin: float = 0.5        # unmeasurable ring around the hole, mm
    noise: float = 0.005       # displacement noise, pixels (1 sigma)
    mm_per_pixel: float = 0.04
    seed: int = 1

    # The specimen never sits square to the calibration frame, and the grips
    # settle a little as the load rises: a fixed tilt plus a small rigid
    # motion per step. Neither may show up as strain.
    tilt_deg: tuple = (2.0, 3.0)
    grip_rotation_deg: float = 0.02
    grip_translation: tuple = (0.01, 0.05, 0.03)

    def stresses(self) -> np.ndarray:
        if self.steps == 1:
            return np.array([self.max_stress])
        return np.linspace(0.0, self.max_stress, self.steps)

    def plate_grid(self):
        """Plate coordinates (p, q) of the grid, row 0 at the top."""
        s = np.linspace(-self.half_width, self.half_width, self.size)
        p, q = np.meshgrid(s, s[::-1])
        return p, q

    def valid_mask(self, p, q) -> np.ndarray:
        return np.hypot(p, q) >= self.plate.radius + self.margin

    def to_plate(self, X, Y, Z):
        """Plate coordinates of world points (inverse of the fixed tilt)."""
        r0 = _rotation(*self.tilt_deg)
        pts = np.stack([np.ravel(X), np.ravel(Y), np.ravel(Z)])
        local = r0.T @ pts
        return local[0].reshape(np.shape(X)), local[1].reshape(np.shape(X))

    def fields(self, step: int, rng: np.random.Generator) -> dict:
        """Variable name -> (rows, columns) float32 array for one dataset."""
        stress = self.stresses()[step]
        p, q = self.plate_grid()
        valid = self.valid_mask(p, q)
        # Keep the closed form away from the singular centre; those points
        # are masked anyway.
        r = np.hypot(p, q)
        safe = r >= self.plate.radius * 0.5
        pp = np.where(safe, p, self.plate.radius)
        qq = np.where(safe, q, 0.0)
        up, uq = self.plate.displacement(pp, qq, stress)

        r0 = _rotation(*self.tilt_deg)
        ref = np.einsum("ij,jrc->irc", r0, np.stack([p, q, np.zeros_like(p)]))
        deformed_local = np.stack([p + up, q + uq, np.zeros_like(p)])
        grip = _rotation(self.grip_rotation_deg * step, 0.0)
        deformed = np.einsum("ij,jrc->irc", grip @ r0, deformed_local)
        deformed += np.array(self.grip_translation).reshape(3, 1, 1) * step
        disp = deformed - ref

        mm = self.mm_per_pixel
        shape = p.shape
        noise = self.noise * mm
        X, Y = ref[0], ref[1]
        Z = ref[2] + rng.normal(0.0, noise, shape)
        U = disp[0] + rng.normal(0.0, noise, shape)
        V = disp[1] + rng.normal(0.0, noise, shape)
        W = disp[2] + rng.normal(0.0, 3 * noise, shape)

        # Matching uncertainty grows towards the hole edge, where the
        # speckle pattern is cut by the hole.
        sigma = (0.01 + 0.02 * np.exp(-(r - self.plate.radius) / 2.0)
                 + rng.uniform(0.0, 0.003, shape))
        centre = self.half_width / mm
        out = {
            "x": centre + X / mm, "y": centre - Y / mm,
            "u": U / mm, "v": -V / mm,
            "X": X, "Y": Y, "Z": Z, "U": U, "V": V, "W": W,
            "SIGMA_X": sigma * mm, "SIGMA_Y": sigma * mm,
            "SIGMA_Z": 3 * sigma * mm,
            "sigma": sigma,
        }
        for name in out:
            out[name] = np.where(valid, out[name], 0.0).astype(np.float32)
        out["sigma"][~valid] = -1.0
        return out


# name -> (description, kind name), in the order a measurement lists them
VARIABLES = [
    ("x", "x [pixel]", "PixelCoordinate"),
    ("y", "y [pixel]", "PixelCoordinate"),
    ("u", "u [pixel]", "PixelDisplacement"),
    ("v", "v [pixel]", "PixelDisplacement"),
    ("X", "X [mm]", "GlobalCoordinate"),
    ("Y", "Y [mm]", "GlobalCoordinate"),
    ("Z", "Z [mm]", "GlobalCoordinate"),
    ("U", "U [mm]", "GlobalDisplacement"),
    ("V", "V [mm]", "GlobalDisplacement"),
    ("W", "W [mm]", "GlobalDisplacement"),
    ("SIGMA_X", "Sigma X [mm]", "GlobalDisplacement"),
    ("SIGMA_Y", "Sigma Y [mm]", "GlobalDisplacement"),
    ("SIGMA_Z", "Sigma Z [mm]", "GlobalDisplacement"),
    ("sigma", "sigma [pixel]", "Correlation"),
]


def build_dataset(series: DemoSeries, step: int, rng: np.random.Generator,
                  directory: str, stem: str = "plate_hole"):
    """One dataset of the series, named like a measurement's data file."""
    import zelpy

    values = series.fields(step, rng)
    ds = zelpy.ZelDataSet()
    aoi = ds.add_aoi(series.size, series.size, "plate")
    for name, description, kind in VARIABLES:
        ds.add_variable(name, description,
                        getattr(zelpy.ZelDataVariableType, kind))
        _fill(aoi, name, values[name])
    ds.set_reference_image(f"{stem}_0000_0.tif")
    ds.set_deformed_image(f"{stem}_{step:04d}_0.tif")
    ds.set_file_name(os.path.join(directory, f"{stem}-{step:04d}_0.out"))
    return ds


def _fill(aoi, name, array):
    view = aoi.variable_view(aoi.variable_index(name))
    view[...] = array


# Analog channels a test machine records beside the images: one row per
# image. The specimen is 100 mm wide and 2 mm thick.
ANALOG_COLUMNS = ("image", "time [s]", "force [kN]", "stress [MPa]")
SECTION_MM2 = 200.0


def write_project(series: DemoSeries, h5_path: str, project_path: str) -> None:
    """A project naming the series' datasets, with the machine's analog
    data (time, force, remote stress per image) stored in the archive."""
    import csv
    import io
    import zipfile

    from lxml import etree

    import zelpy

    if os.path.exists(project_path):
        os.remove(project_path)
    project = zelpy.ProjectFile(project_path)
    base = os.path.basename(h5_path)
    project.set_data_files([f"{base}:out:{step:04d}" for step in range(series.steps)])
    project.set_reference_image("plate_hole_0000_0.tif")
    csv_element = etree.SubElement(project.root.find("files"), "csvfile")
    csv_element.set("type", "mirolet")
    csv_element.text = "prj:analog.csv"
    project.save_project(project_path)
    text = io.StringIO()
    table = csv.writer(text, lineterminator="\n")
    table.writerow(ANALOG_COLUMNS)
    for step, stress in enumerate(series.stresses()):
        table.writerow([step, f"{2.0 * step:g}", f"{stress * SECTION_MM2 / 1000:.9g}",
                        f"{stress:.9g}"])
    with zipfile.ZipFile(project_path, "a") as archive:
        archive.writestr("analog.csv", text.getvalue())


@dataclass
class DemoResult:
    h5_path: str
    project_path: str
    png_path: str | None
    datasets: int
    points: int
    valid_points: int
    stress: float
    peak_e1: float
    peak_xy: tuple
    closed_form_peak: float
    closed_form_at_peak: float
    e2_at_peak: float
    closed_form_e2: float
    seconds: float
    window: int


def run_demo(directory: str, series: DemoSeries | None = None,
             window: int = 15, plot: bool = True,
             progress=None) -> DemoResult:
    """Make the series, compute strain, store it as HDF5 and plot e1."""
    import zelpy

    start = time.perf_counter()
    series = series or DemoSeries()
    os.makedirs(directory, exist_ok=True)
    h5_path = os.path.abspath(os.path.join(directory, "plate_hole.h5"))
    # A rerun replaces the series instead of mixing old and new members.
    if os.path.exists(h5_path):
        os.remove(h5_path)
    writer = zelpy.ZelDataSetWriter(output_dest=h5_path)

    rng = np.random.default_rng(series.seed)
    last = None
    for step in range(series.steps):
        ds = build_dataset(series, step, rng, os.path.abspath(directory))
        ds.compute_strain(window_size=window, compute_von_mises=True)
        writer.save(ds)
        last = ds
        if progress is not None:
            progress(step + 1, series.steps)

    names = ("e1", "e2", "X", "Y", "Z", "sigma")
    e1, e2, X, Y, Z, conf = (last.get_values(list(names))[n] for n in names)
    valid = conf >= 0
    k = int(np.argmax(np.where(valid, e1, -np.inf)))
    p, q = series.to_plate(X[k], Y[k], Z[k])
    stress = float(series.stresses()[-1])
    closed_at_peak, closed_e2 = (float(e) for e in
                                 series.plate.principal_strain(p, q, stress))

    project_path = os.path.abspath(os.path.join(directory, "plate_hole.z3d"))
    write_project(series, h5_path, project_path)

    png_path = None
    if plot:
        from zelpy.export import plot_variable
        png_path = os.path.abspath(os.path.join(directory, "plate_hole_e1.png"))
        plot_variable(last, "e1", png_path,
                      title=f"Major principal strain e1, remote stress "
                            f"{stress:g} MPa")
    return DemoResult(
        h5_path=h5_path, project_path=project_path, png_path=png_path, datasets=series.steps,
        points=last.matrix_size(), valid_points=int(valid.sum()),
        stress=stress, peak_e1=float(e1[k]), peak_xy=(float(X[k]), float(Y[k])),
        e2_at_peak=float(e2[k]), closed_form_e2=closed_e2,
        closed_form_peak=series.plate.peak_strain(stress),
        closed_form_at_peak=closed_at_peak,
        seconds=time.perf_counter() - start, window=window)
