"""Datasets with analytic fields and a direct reference of the plane-fit smoother."""

import numpy as np

import zelpy

T = zelpy.ZelDataVariableType


def grid_dataset(rows, columns, x, y, z=None, u=None, v=None, w=None, valid=None,
                 convention="3d", aois=1):
    """A dataset of `aois` identical AOIs holding the given (rows, columns) fields.

    convention: "3d" (X..W), "global2d" (x_c.. as global kinds), "pixel_c"
    (x_c.. as pixel kinds), "pixel" (x, y, u, v). Pixel coordinates "x", "y"
    (column and row) are always present so that the AOIs can be triangulated.
    """
    ds = zelpy.ZelDataSet()
    for i in range(aois):
        ds.add_aoi(rows, columns, "aoi%d" % i)
    r, c = np.mgrid[0:rows, 0:columns].astype(np.float32)
    zero = np.zeros((rows, columns), np.float32)
    z = zero if z is None else z
    u = zero if u is None else u
    v = zero if v is None else v
    w = zero if w is None else w
    fields = []
    if convention == "3d":
        fields += [("X", T.GlobalCoordinate, x), ("Y", T.GlobalCoordinate, y),
                   ("Z", T.GlobalCoordinate, z), ("U", T.GlobalDisplacement, u),
                   ("V", T.GlobalDisplacement, v), ("W", T.GlobalDisplacement, w)]
        fields += [("x", T.PixelCoordinate, c), ("y", T.PixelCoordinate, r)]
    elif convention == "global2d":
        fields += [("x_c", T.GlobalCoordinate, x), ("y_c", T.GlobalCoordinate, y),
                   ("u_c", T.GlobalDisplacement, u), ("v_c", T.GlobalDisplacement, v)]
        fields += [("x", T.PixelCoordinate, c), ("y", T.PixelCoordinate, r)]
    elif convention == "pixel_c":
        fields += [("x_c", T.PixelCoordinate, x), ("y_c", T.PixelCoordinate, y),
                   ("u_c", T.PixelDisplacement, u), ("v_c", T.PixelDisplacement, v)]
        fields += [("x", T.PixelCoordinate, c), ("y", T.PixelCoordinate, r)]
    elif convention == "pixel":
        fields += [("x", T.PixelCoordinate, x), ("y", T.PixelCoordinate, y),
                   ("u", T.PixelDisplacement, u), ("v", T.PixelDisplacement, v)]
    else:
        raise ValueError(convention)
    conf = np.where(np.ones((rows, columns), bool) if valid is None else valid, 0.01, -1.0)
    fields.append(("sigma", T.Correlation, conf))
    for name, kind, values in fields:
        ds.add_variable(name, name, kind)
        for i in range(aois):
            ds[i].variable_view(name)[...] = values
    return ds


def plane_coordinates(rows, columns, spacing=1.0, y_up=True):
    """Reference coordinates of a flat grid centred on the origin.

    With y_up the Y axis points against the row direction (rows run down),
    the usual orientation of measured data.
    """
    r, c = np.mgrid[0:rows, 0:columns].astype(np.float64)
    x = (c - (columns - 1) // 2) * spacing
    y = (r - (rows - 1) // 2) * spacing
    return x, (-y if y_up else y)


def kernel(window, weighted, single):
    """The 2-D kernel as the filter defines it, built directly."""
    h = window // 2
    i = np.arange(-h, h + 1)
    if not weighted:
        return np.ones((2 * h + 1, 2 * h + 1))
    if single:
        a = np.float32(6.283) / np.float32(window * window)
        e = np.exp(-a * (i * i).astype(np.float32)).astype(np.float32)
        return (e[:, None] * e[None, :]).astype(np.float32).astype(np.float64)
    a = np.float32(6.283 / (window * window))
    e = np.exp(-a * (i * i).astype(np.float32)).astype(np.float32).astype(np.float64)
    return e[:, None] * e[None, :]


def reference_smooth(values, valid, window, weighted=True, single=False):
    """Direct O(window^2) weighted plane fit at every valid point.

    Returns the fitted centre values and a mask of the points where the fit
    is defined (valid centre and a non-singular system).
    """
    rows, columns = values.shape
    h = window // 2
    kern = kernel(2 * h + 1, weighted, single)
    out = np.zeros((rows, columns))
    defined = np.zeros((rows, columns), bool)
    for r in range(rows):
        for c in range(columns):
            if not valid[r, c]:
                continue
            r0, r1 = max(-h, -r), min(h, rows - 1 - r)
            c0, c1 = max(-h, -c), min(h, columns - 1 - c)
            yy, xx = np.mgrid[r0:r1 + 1, c0:c1 + 1]
            m = valid[r + r0:r + r1 + 1, c + c0:c + c1 + 1]
            wt = kern[yy + h, xx + h][m]
            basis = np.stack([np.ones(wt.size), xx[m], yy[m]], axis=1).astype(np.float64)
            normal = (basis * wt[:, None]).T @ basis
            rhs = (basis * wt[:, None]).T @ values[r + r0:r + r1 + 1, c + c0:c + c1 + 1][m]
            det = np.linalg.det(normal)
            if not det > 1e-9 * np.prod(np.diag(normal)):
                continue
            out[r, c] = np.linalg.solve(normal, rhs)[0]
            defined[r, c] = True
    return out, defined
