"""Writers for the zelpy command: CSV tables, VTK unstructured grids, plots.

The VTK files are written directly as XML (the format is small and stable),
so exporting needs no VTK installation; ParaView and the VTK readers open
them as they are.
"""

from __future__ import annotations

import base64
import io
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
    text, rows = csv_bytes(ds, variables, all_points)
    _atomic_write(path, lambda f: f.write(text), binary=True)
    return rows


def csv_bytes(ds, variables, all_points: bool = False) -> tuple[bytes, int]:
    """The table of :func:`write_csv` as bytes, and its number of rows."""
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
    out = io.BytesIO()
    np.savetxt(out, table, fmt=fmt, delimiter=",", header=header, comments="")
    return out.getvalue(), len(table)


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
    text, npts, ncells = vtu_bytes(ds, variables)
    _atomic_write(path, lambda f: f.write(text), binary=True)
    return npts, ncells


def vtu_bytes(ds, variables) -> tuple[bytes, int, int]:
    """The file of :func:`write_vtu` as bytes, with its point and cell counts."""
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
    return "".join(parts).encode("utf-8"), npts, ncells


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


def write_bytes(path: str, data: bytes) -> None:
    """Write ``data`` to ``path`` through a temporary file and a rename."""
    _atomic_write(path, lambda f: f.write(data), binary=True)


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


def read_image(path: str) -> np.ndarray:
    """A camera image as a 2-D float array (colour images averaged to grey).

    Needs imageio (the ``images`` extra); every format it reads works:
    TIFF, PNG, BMP, JPEG, 16-bit grey included.
    """
    try:
        import imageio.v3 as iio
    except ImportError:
        raise ImportError("reading camera images needs imageio: "
                          "pip install \"zelpy[images]\"") from None
    image = np.asarray(iio.imread(path))
    if image.ndim == 3:
        # Alpha carries no brightness.
        image = image[..., :3].mean(axis=2) if image.shape[2] >= 3 else image[..., 0]
    if image.ndim != 2:
        raise ValueError(f"{path}: not a single image (shape {image.shape})")
    return image.astype(np.float64)


def pixel_positions(ds) -> np.ndarray:
    """(n, 2) positions of the points on the deformed camera image: x + u,
    y + v (x, y alone when the dataset has no pixel displacements)."""
    names = set(ds.variables())
    if not {"x", "y"} <= names:
        raise ValueError("the dataset has no pixel coordinates x, y to place it on an image")
    moved = {"u", "v"} <= names
    values = ds.get_values(["x", "y", "u", "v"] if moved else ["x", "y"])
    x = values["x"].astype(np.float64)
    y = values["y"].astype(np.float64)
    if moved:
        x += values["u"]
        y += values["v"]
    return np.column_stack([x, y])


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
                  levels: int = 24, image: np.ndarray | None = None,
                  alpha: float = 0.6) -> None:
    """Filled contour plot of one variable over the dataset's triangulation.

    With ``image`` (a 2-D grey camera image, see :func:`read_image`) the
    field is drawn over the image at the points' pixel positions on it
    (x + u, y + v), half transparent, in image pixel axes. The format
    follows the suffix of `path` (PLOT_FORMATS: PNG, PDF, SVG ...;
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
    if image is None:
        pts, (xlabel, ylabel) = positions(ds)
    else:
        pts = pixel_positions(ds)
        xlabel, ylabel = "x [pixel]", "y [pixel]"
    values = ds.get_values([variable])[variable].astype(np.float64)

    fig = Figure(figsize=(size[0] / dpi, size[1] / dpi), dpi=dpi)
    FigureCanvasAgg(fig)
    ax = fig.add_subplot()
    if image is not None:
        # Pixel centres at integer coordinates, rows downwards, as the
        # correlation reports them.
        ax.imshow(image, cmap="gray", origin="upper", interpolation="nearest",
                  extent=(-0.5, image.shape[1] - 0.5, image.shape[0] - 0.5, -0.5))
    tri = Triangulation(pts[:, 0], pts[:, 1], triangles)
    used = np.unique(triangles)
    lo, hi = float(values[used].min()), float(values[used].max())
    style = dict(cmap="jet", alpha=alpha if image is not None else None)
    if hi > lo:
        # Round level boundaries make a readable colour bar.
        bounds = MaxNLocator(levels).tick_values(lo, hi)
        mappable = ax.tricontourf(tri, values, levels=bounds, extend="neither", **style)
    else:
        # A constant field has no contour levels; show it as one colour.
        mappable = ax.tripcolor(tri, values, **style)
    bar = fig.colorbar(mappable, ax=ax, label=axis_label(variable, descr.get(variable, "")))
    if image is not None and getattr(bar, "solids", None) is not None:
        # The key reads in full colour even though the field is see-through.
        bar.solids.set_alpha(1.0)
    ax.set_aspect("equal")
    if image is not None:
        ax.set_xlim(-0.5, image.shape[1] - 0.5)
        ax.set_ylim(image.shape[0] - 0.5, -0.5)
    ax.set_xlabel(xlabel)
    ax.set_ylabel(ylabel)
    ax.set_title(title or f"{variable}: {os.path.basename(ds.file_name() or '')}")
    _atomic_write(path, lambda f: fig.savefig(f, format=image_format, dpi=dpi),
                  binary=True)


def plot_histories(path: str, x_label: str, x: np.ndarray, lines,
                   title: str | None = None, size: tuple[int, int] = (1000, 700),
                   dpi: int = 100) -> None:
    """Line plot of quantities over a series.

    ``lines`` holds (label, quantity, unit, values) per line. Lines of one
    unit share an axis; several units give stacked axes over one x axis, so
    a strain and a displacement never share a scale.
    """
    import matplotlib
    matplotlib.use("Agg", force=False)
    from matplotlib.backends.backend_agg import FigureCanvasAgg
    from matplotlib.figure import Figure

    groups: dict = {}
    for label, quantity, unit, values in lines:
        groups.setdefault(unit, []).append((label, quantity, values))
    fig = Figure(figsize=(size[0] / dpi, size[1] / dpi), dpi=dpi, layout="constrained")
    FigureCanvasAgg(fig)
    axes = fig.subplots(len(groups), 1, sharex=True, squeeze=False)[:, 0]
    markers = "os^Dv<>ph*"
    order = np.argsort(x, kind="stable")
    for ax, (unit, members) in zip(axes, groups.items()):
        for k, (label, _, values) in enumerate(members):
            values = np.asarray(values, dtype=np.float64)
            ax.plot(x[order], values[order], marker=markers[k % len(markers)],
                    markersize=4 if len(x) <= 60 else 0, linewidth=1.5, label=label)
        quantities = list(dict.fromkeys(q for _, q, _ in members))
        name = ", ".join(quantities) if len(quantities) <= 3 else "value"
        ax.set_ylabel(f"{name} [{unit}]" if unit else name)
        ax.grid(True, alpha=0.3)
        ax.legend(fontsize="small", loc="best")
        # Strains are small numbers: a common factor beats long tick labels.
        ax.ticklabel_format(axis="y", style="sci", scilimits=(-3, 4))
    axes[-1].set_xlabel(x_label)
    if title:
        fig.suptitle(title)
    _atomic_write(path, lambda f: fig.savefig(f, format=plot_format(path), dpi=dpi),
                  binary=True)
