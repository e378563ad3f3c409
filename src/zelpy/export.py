"""Writers for the zelpy command: CSV tables, VTK unstructured grids, plots.

The VTK files are written directly as XML (the format is small and stable),
so exporting needs no VTK installation; ParaView and the VTK readers open
them as they are.
"""

from __future__ import annotations

import base64
import os
import re
from xml.sax.saxutils import quoteattr

import numpy as np

_UNIT = re.compile(r"\[([^\]]*)\]")

# Where the points of a dataset sit in space, best first. Planar data has no
# Z; the pixel grid is the last resort.
_POSITION_SETS = (("X", "Y", "Z"), ("x_c", "y_c", None), ("x", "y", None))


def unit_of(description: str) -> str | None:
    """The unit written in square brackets in a variable's description."""
    m = _UNIT.search(description or "")
    return m.group(1) if m else None


def axis_label(name: str, description: str) -> str:
    unit = unit_of(description)
    return f"{name} [{unit}]" if unit is not None else name


def _correlation_kind():
    import zelpy
    return zelpy.ZelDataVariableType.Correlation


def valid_mask(ds) -> np.ndarray:
    """Point validity over the whole dataset, in get_values order.

    Each AOI's first confidence variable decides for its points; an AOI
    without one counts as fully valid.
    """
    kind = _correlation_kind()
    parts = []
    for n in range(ds.num_data()):
        aoi = ds.data(n)
        conf = next((i for i in range(aoi.num_variables())
                     if aoi.variable_type(i) is kind), None)
        if conf is None:
            parts.append(np.ones(aoi.matrix_size(), dtype=bool))
        else:
            name = aoi.variable_name(conf)
            parts.append(aoi.as_array([name])[name] >= 0)
    if not parts:
        return np.zeros(0, dtype=bool)
    return np.concatenate(parts)


def positions(ds) -> tuple[np.ndarray, tuple[str, str]]:
    """(n, 3) point positions and the names of the in-plane axes used."""
    names = set(ds.variables())
    descr = dict(zip(ds.variables(), ds.variables_descriptions()))
    for xs, ys, zs in _POSITION_SETS:
        if xs in names and ys in names:
            wanted = [xs, ys] + ([zs] if zs and zs in names else [])
            vals = ds.get_values(wanted)
            pts = np.zeros((len(vals), 3), dtype=np.float32)
            for i, v in enumerate(wanted):
                pts[:, i] = vals[v]
            if xs == "x":
                # Image rows grow downwards; flip so plots are not mirrored.
                pts[:, 1] = -pts[:, 1]
            return pts, (axis_label(xs, descr.get(xs, "")),
                         axis_label(ys, descr.get(ys, "")))
    raise ValueError("the dataset has no point coordinates (X/Y, x_c/y_c or x/y)")


def repeated_variables(ds) -> list[str]:
    """Variable names that occur more than once in the dataset, in order.

    A dataset can hold a second variable of the same name (strain computed
    again without reusing the variables, for example); look-ups by name,
    and so everything here, reach only the first of them.
    """
    names = ds.variables()
    seen, repeated = set(), {}
    for name in names:
        if name in seen:
            repeated[name] = None
        seen.add(name)
    return list(repeated)


def _unique(variables) -> list[str]:
    return list(dict.fromkeys(variables))


def check_variables(ds, variables) -> None:
    """Fail with one readable message when a variable is not in the dataset."""
    have = ds.variables()
    for v in variables:
        if v not in have:
            raise KeyError(f"unknown variable '{v}' (available: {', '.join(have)})")


def write_csv(ds, path: str, variables, all_points: bool = False) -> int:
    """One row per point: AOI index, grid row and column, the variables.

    Invalid points are left out unless `all_points`. Floats are written with
    nine significant digits, which round-trips every float32 exactly.
    Returns the number of rows written. A name given twice is written once.
    """
    variables = _unique(variables)
    check_variables(ds, variables)
    blocks = []
    for n in range(ds.num_data()):
        aoi = ds.data(n)
        rows, cols = aoi.num_rows(), aoi.num_columns()
        if not aoi.grid_is_consistent():
            # Row and column numbers would index past the values.
            raise ValueError(f"AOI {n} declares {rows} x {cols} points, but its variables "
                             f"hold {aoi.matrix_size()} values each")
        r, c = np.divmod(np.arange(rows * cols), max(cols, 1))
        block = np.empty((rows * cols, 3 + len(variables)), dtype=np.float64)
        block[:, 0] = n
        block[:, 1] = r
        block[:, 2] = c
        if variables:
            arr = aoi.as_array(list(variables))
            for i, v in enumerate(variables):
                block[:, 3 + i] = arr[v]
        blocks.append(block)
    table = np.concatenate(blocks) if blocks else np.zeros((0, 3 + len(variables)))
    if not all_points:
        table = table[valid_mask(ds)]
    header = ",".join(["aoi", "row", "column", *variables])
    fmt = ["%d", "%d", "%d"] + ["%.9g"] * len(variables)
    _atomic_write(path, lambda f: np.savetxt(
        f, table, fmt=fmt, delimiter=",", header=header, comments=""),
        binary=True)
    return len(table)


def _b64_block(array: np.ndarray) -> str:
    # Uncompressed inline binary: a UInt64 byte count followed by the raw
    # little-endian values, base64-encoded as one stream.
    raw = np.ascontiguousarray(array).tobytes()
    header = np.array([len(raw)], dtype="<u8").tobytes()
    return base64.b64encode(header + raw).decode("ascii")


def _data_array(name: str, array: np.ndarray, vtk_type: str,
                components: int = 1) -> str:
    comp = f' NumberOfComponents="{components}"' if components != 1 else ""
    return (f'<DataArray type="{vtk_type}" Name={quoteattr(name)}{comp} '
            f'format="binary">{_b64_block(array)}</DataArray>')


def write_vtu(ds, path: str, variables) -> tuple[int, int]:
    """The dataset as a VTK XML unstructured grid.

    Points are the valid points (positions from X/Y/Z, or the planar
    coordinates), cells the triangles of the dataset's triangulation, and
    every chosen variable becomes a point-data array. Returns
    (points, cells).
    """
    variables = _unique(variables)
    check_variables(ds, variables)
    pts, _ = positions(ds)
    valid = valid_mask(ds)
    triangles = np.asarray(ds.triangulation(), dtype=np.int64).reshape(-1, 3)
    # Triangles only join valid points, so the invalid ones can be dropped
    # and the indices renumbered.
    new_index = np.cumsum(valid, dtype=np.int64) - 1
    cells = new_index[triangles]
    pts = pts[valid].astype("<f4")
    npts, ncells = len(pts), len(cells)
    values = ds.get_values(list(variables)) if variables else None

    parts = [
        '<?xml version="1.0"?>\n',
        '<VTKFile type="UnstructuredGrid" version="1.0" '
        'byte_order="LittleEndian" header_type="UInt64">\n',
        '<UnstructuredGrid>\n',
        f'<Piece NumberOfPoints="{npts}" NumberOfCells="{ncells}">\n',
        '<PointData>\n',
    ]
    for v in variables:
        parts.append(_data_array(v, values[v][valid].astype("<f4"), "Float32"))
        parts.append("\n")
    parts += [
        '</PointData>\n<Points>\n',
        _data_array("Points", pts, "Float32", 3),
        '\n</Points>\n<Cells>\n',
        _data_array("connectivity", cells.astype("<i8").ravel(), "Int64"),
        "\n",
        _data_array("offsets", np.arange(3, 3 * ncells + 1, 3, dtype="<i8"),
                    "Int64"),
        "\n",
        # 5 is the VTK cell type of a linear triangle.
        _data_array("types", np.full(ncells, 5, dtype=np.uint8), "UInt8"),
        '\n</Cells>\n</Piece>\n</UnstructuredGrid>\n</VTKFile>\n',
    ]
    _atomic_write(path, lambda f: f.write("".join(parts)))
    return npts, ncells


def write_pvd(path: str, vtu_files) -> None:
    """A collection file that opens a series of VTU files as time steps."""
    base = os.path.dirname(os.path.abspath(path))
    lines = ['<?xml version="1.0"?>',
             '<VTKFile type="Collection" version="1.0" byte_order="LittleEndian">',
             '<Collection>']
    for step, f in enumerate(vtu_files):
        rel = os.path.relpath(os.path.abspath(f), base)
        lines.append(f'<DataSet timestep="{step}" part="0" file={quoteattr(rel)}/>')
    lines += ['</Collection>', '</VTKFile>', '']
    _atomic_write(path, lambda f: f.write("\n".join(lines)))


def _atomic_write(path: str, fill, binary: bool = False) -> None:
    # Written next to the target and renamed over it, so an interrupted
    # export never leaves a truncated file under the final name.
    tmp = f"{path}.part{os.getpid()}"
    try:
        with open(tmp, "wb" if binary else "w",
                  **({} if binary else {"encoding": "utf-8"})) as f:
            fill(f)
        os.replace(tmp, path)
    except BaseException as exc:
        if os.path.exists(tmp):
            os.remove(tmp)
        if isinstance(exc, OSError) and exc.errno is not None:
            # The temporary name means nothing to the user: name the target.
            raise OSError(exc.errno, exc.strerror, path) from None
        raise


# Image formats of plot_variable by file name suffix. Raster images get
# exactly the requested size in pixels, vector ones that size at 100 dpi.
PLOT_FORMATS = {".png": "png", ".pdf": "pdf", ".svg": "svg", ".eps": "eps", ".ps": "ps",
                ".jpg": "jpeg", ".jpeg": "jpeg", ".tif": "tiff", ".tiff": "tiff",
                ".webp": "webp"}


def plot_format(path: str) -> str:
    """The image format that the suffix of `path` names (ValueError if none)."""
    suffix = os.path.splitext(path)[1]
    try:
        return PLOT_FORMATS[suffix.lower()]
    except KeyError:
        what = f"'{suffix}' is not an image format" if suffix else "no image format suffix"
        raise ValueError(f"{path}: {what}; use one of "
                         f"{', '.join(PLOT_FORMATS)}") from None


def plot_variable(ds, variable: str, path: str, title: str | None = None,
                  size: tuple[int, int] = (1000, 800), dpi: int = 100,
                  levels: int = 24) -> None:
    """Filled contour plot of one variable over the dataset's triangulation.

    The format follows the suffix of `path` (PLOT_FORMATS: PNG, PDF, SVG ...;
    ValueError for any other). Raster images are exactly `size` pixels, so
    they can go straight into a report.
    """
    import matplotlib
    matplotlib.use("Agg", force=False)
    from matplotlib.backends.backend_agg import FigureCanvasAgg
    from matplotlib.figure import Figure
    from matplotlib.ticker import MaxNLocator
    from matplotlib.tri import Triangulation

    image_format = plot_format(path)
    check_variables(ds, [variable])
    descr = dict(zip(ds.variables(), ds.variables_descriptions()))
    triangles = np.asarray(ds.triangulation(), dtype=np.int64).reshape(-1, 3)
    if len(triangles) == 0:
        raise ValueError("the dataset has no valid grid cells to plot")
    pts, (xlabel, ylabel) = positions(ds)
    values = ds.get_values([variable])[variable].astype(np.float64)

    fig = Figure(figsize=(size[0] / dpi, size[1] / dpi), dpi=dpi)
    FigureCanvasAgg(fig)
    ax = fig.add_subplot()
    tri = Triangulation(pts[:, 0], pts[:, 1], triangles)
    used = np.unique(triangles)
    lo, hi = float(values[used].min()), float(values[used].max())
    if hi > lo:
        # Round level boundaries make a readable colour bar.
        bounds = MaxNLocator(levels).tick_values(lo, hi)
        mappable = ax.tricontourf(tri, values, levels=bounds, cmap="jet",
                                  extend="neither")
    else:
        # A constant field has no contour levels; show it as one colour.
        mappable = ax.tripcolor(tri, values, cmap="jet")
    fig.colorbar(mappable, ax=ax, label=axis_label(variable, descr.get(variable, "")))
    ax.set_aspect("equal")
    ax.set_xlabel(xlabel)
    ax.set_ylabel(ylabel)
    ax.set_title(title or f"{variable}: {os.path.basename(ds.file_name() or '')}")
    _atomic_write(path, lambda f: fig.savefig(f, format=image_format, dpi=dpi),
                  binary=True)
