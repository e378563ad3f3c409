# Surface analyses of AOIs and datasets: values at a position (through the
# grid mesh and a kd-tree), arc length, area, extreme values and ranges, and
# curvature. The ZelData and ZelDataSet methods are thin; the work happens
# here and in the library.

from libcpp.memory cimport unique_ptr
from libcpp.utility cimport move


cdef class _PointLocator:
    """The kd-tree look-up structure of one AOI in one coordinate space."""
    cdef unique_ptr[nimbra.PointLocator] ptr


cdef inline nimbra.CoordinateSpace _space(bint pixel):
    return nimbra.CoordinateSpace.Pixel if pixel else nimbra.CoordinateSpace.Global


cdef inline bint _viewed(nimbra.PointLocator* locator):
    """Whether a writable numpy view of an array the locator reads is alive:
    it may change the values at any time, unseen by the library."""
    if not _writable_views:
        return False
    return (<size_t>locator.x() in _writable_views or <size_t>locator.y() in _writable_views
            or <size_t>locator.confidence() in _writable_views)


cdef object _REFUSED = object()


cdef object _tree(dict cache, object key, nimbra.ZelData* aoi, bint pixel, bint transient=False):
    """The AOI's look-up tree under `key` of `cache`.

    The cached tree is used while it still answers for the AOI as it is (the
    library compares the arrays and their revisions; a writable view of them
    counts as a change); otherwise a new one is built and cached. _REFUSED
    when the library refuses the AOI. None when no tree can be trusted now: a
    writable view of the coordinates or confidence is alive, or they changed
    while the tree was built; the caller searches without it. With
    `transient`, such a tree is built and returned anyway, uncached, for a
    caller that has no other way.
    """
    cdef _PointLocator locator = cache.get(key)
    if locator is not None:
        if locator.ptr.get().current(deref(aoi)) and not _viewed(locator.ptr.get()):
            return locator
        # Dropped now: it keeps the arrays it read alive.
        cache.pop(key, None)
    cdef unique_ptr[nimbra.PointLocator] built = nimbra.PointLocator.prepare(deref(aoi), _space(pixel))
    if not built:
        return _REFUSED
    cdef bint viewed = _viewed(built.get())
    if viewed and not transient:
        return None
    # The tree reads only the arrays prepare() took (kept alive by it), so
    # other threads may use the dataset meanwhile; a change they make shows
    # in current() below.
    with nogil:
        built.get().build()
    locator = _PointLocator()
    locator.ptr = move(built)
    if not viewed and locator.ptr.get().current(deref(aoi)) and not _viewed(locator.ptr.get()):
        cache[key] = locator
        return locator
    return locator if transient else None


cdef vector[int32_t] _variable_indices(nimbra.ZelData* aoi, variable_list) except *:
    cdef vector[int32_t] indices
    cdef int32_t index
    names = [variable_list] if isinstance(variable_list, str) else variable_list
    for name in names:
        index = aoi.variableIndex(_utf8(name))
        if index < 0:
            raise ValueError("Could not find variable " + name)
        indices.push_back(index)
    return indices


cdef bint _locate_in(dict cache, object key, nimbra.ZelData* aoi, double x, double y, bint pixel,
                     bint use_tree, nimbra.PointLocation* at) except -1:
    """Fills `at`; False when the library refuses the AOI."""
    cdef cbool ok = True
    cdef nimbra.CoordinateSpace space = _space(pixel)
    if use_tree:
        tree = _tree(cache, key, aoi, pixel)
        if tree is _REFUSED:
            return False
        if tree is not None:
            (<_PointLocator>tree).ptr.get().locate(x, y, at[0])
            return True
    with nogil:
        ok = nimbra.locatePoint(deref(aoi), space, x, y, at[0])
    return ok


cdef object _interpolated(nimbra.ZelData* aoi, nimbra.PointLocation* at,
                          const vector[int32_t]& indices):
    cdef vector[double] values
    values.resize(indices.size())
    if not nimbra.interpolate(deref(aoi), at[0], indices, values.data()):
        return None
    return [values[k] for k in range(<Py_ssize_t>indices.size())]


cdef object _location_tuple(nimbra.PointLocation* at, int64_t offset):
    return ((at.corner[0] + offset, at.corner[1] + offset, at.corner[2] + offset),
            (at.weight[0], at.weight[1], at.weight[2]))


cdef bint _location_from(object location, nimbra.PointLocation* at) except -1:
    corners, weights = location
    if len(corners) != 3 or len(weights) != 3:
        raise ValueError("Expected a location ((i0, i1, i2), (w0, w1, w2)).")
    for k in range(3):
        at.corner[k] = corners[k]
        at.weight[k] = weights[k]
    at.triangle = 0
    return True


# ------------------------------------------------------------ ZelData

cdef object _aoi_lookup(ZelData data, double x, double y, variable_list, bint pixel,
                        bint use_tree):
    cdef vector[int32_t] indices = _variable_indices(data.thisptr, variable_list)
    cdef nimbra.PointLocation at
    if not _locate_in(data._locator_cache(), (data._index, pixel), data.thisptr, x, y, pixel,
                      use_tree, &at):
        return None
    if not at.found():
        return None
    return _interpolated(data.thisptr, &at, indices)


cdef object _aoi_locate(ZelData data, double x, double y, bint pixel, bint use_tree):
    cdef nimbra.PointLocation at
    if not _locate_in(data._locator_cache(), (data._index, pixel), data.thisptr, x, y, pixel,
                      use_tree, &at):
        return None
    return _location_tuple(&at, 0) if at.found() else None


cdef object _aoi_interpolate(ZelData data, location, variable_list):
    cdef vector[int32_t] indices = _variable_indices(data.thisptr, variable_list)
    cdef nimbra.PointLocation at
    _location_from(location, &at)
    return _interpolated(data.thisptr, &at, indices)


cdef object _aoi_arclength(ZelData data, point_a, point_b, int steps):
    cdef double ax, ay, bx, by
    if len(point_a) != 2 or len(point_b) != 2:
        raise ValueError("point_a and point_b must be (x, y) positions.")
    ax, ay = float(point_a[0]), float(point_a[1])
    bx, by = float(point_b[0]), float(point_b[1])
    if steps < 1:
        return None
    tree = _tree(data._locator_cache(), (data._index, False), data.thisptr, False, True)
    if tree is _REFUSED:
        return None
    cdef _PointLocator locator = tree
    cdef double length = 0.0
    cdef cbool ok = False
    with nogil:
        ok = nimbra.arcLength(deref(data.thisptr), deref(locator.ptr.get()), ax, ay, bx, by, steps,
                              length)
    return length if ok else None


cdef object _aoi_extreme(ZelData data, variable, bint maximum):
    cdef int32_t index = _resolve_variable(data.thisptr, variable)
    if data.thisptr.variable(index) == NULL:
        raise ValueError(str(variable) + " is not a valid variable")
    cdef nimbra.ValueExtreme found
    cdef cbool ok = False
    with nogil:
        if maximum:
            ok = nimbra.findMaximum(deref(data.thisptr), index, found)
        else:
            ok = nimbra.findMinimum(deref(data.thisptr), index, found)
    if not ok or not found.found():
        return (None, None)
    return (found.value, found.index)


# --------------------------------------------------------- ZelDataSet

cdef list _dataset_variable_indices(ZelDataSet dataset, variable_list):
    """Per AOI the indices of the listed variables; every AOI must have them."""
    return [_variable_indices(dataset.thisptr.data(i), variable_list)
            for i in range(dataset.thisptr.numData())]


cdef object _dataset_lookup(ZelDataSet dataset, double x, double y, variable_list, bint pixel,
                            bint use_tree):
    cdef list indices = _dataset_variable_indices(dataset, variable_list)
    cdef nimbra.PointLocation at
    cdef nimbra.ZelData* aoi
    for i in range(dataset.thisptr.numData()):
        aoi = dataset.thisptr.data(i)
        if not _locate_in(dataset._locators, (i, pixel), aoi, x, y, pixel, use_tree, &at):
            return None
        if at.found():
            return _interpolated(aoi, &at, indices[i])
    return None


cdef object _dataset_locate(ZelDataSet dataset, double x, double y, bint pixel, bint use_tree):
    cdef nimbra.PointLocation at
    cdef nimbra.ZelData* aoi
    cdef int64_t offset = 0
    for i in range(dataset.thisptr.numData()):
        aoi = dataset.thisptr.data(i)
        if not _locate_in(dataset._locators, (i, pixel), aoi, x, y, pixel, use_tree, &at):
            return None
        if at.found():
            return _location_tuple(&at, offset)
        offset += <int64_t>aoi.numRows() * aoi.numColumns()
    return None


cdef object _dataset_interpolate(ZelDataSet dataset, location, variable_list):
    cdef nimbra.PointLocation at
    _location_from(location, &at)
    # The AOI holding the first corner; the others must lie in it too.
    cdef int64_t offset = 0, size
    cdef nimbra.ZelData* aoi
    for i in range(dataset.thisptr.numData()):
        aoi = dataset.thisptr.data(i)
        size = <int64_t>aoi.numRows() * aoi.numColumns()
        if offset <= at.corner[0] < offset + size:
            for k in range(3):
                at.corner[k] -= offset
            return _interpolated(aoi, &at, _variable_indices(aoi, variable_list))
        offset += size
    return None


cdef object _dataset_aoi_area(ZelDataSet dataset, int aoi):
    cdef int count = dataset.thisptr.numData()
    if aoi != -1 and (aoi < 0 or aoi >= count):
        raise IndexError("Index " + str(aoi) + " outside valid range (0, " + str(count) + ")")
    cdef nimbra.SurfaceArea result
    cdef cbool ok = False
    with nogil:
        ok = nimbra.surfaceArea(deref(dataset.thisptr), aoi, result)
    if not ok or result.triangles == 0:
        return None
    return result.area


cdef object _dataset_range(ZelDataSet dataset, str variable):
    cdef string name = _utf8(variable)
    cdef double low = 0.0, high = 0.0
    cdef cbool ok = False
    with nogil:
        ok = nimbra.valueRange(deref(dataset.thisptr), name, low, high)
    if not ok:
        raise ValueError("Error in calculating range for '" + variable + "'.")
    return (low, high)


cdef object _dataset_sum_range(ZelDataSet dataset, str variable_0, str variable_1):
    cdef string first = _utf8(variable_0)
    cdef string second = _utf8(variable_1)
    cdef double low = 0.0, high = 0.0
    cdef cbool ok = False
    with nogil:
        ok = nimbra.sumRange(deref(dataset.thisptr), first, second, low, high)
    if not ok:
        raise ValueError("Error in calculating range for the sum of variables '" + variable_0
                         + "' and '" + variable_1 + "'.")
    return (low, high)


cdef _dataset_compute_curvature(ZelDataSet dataset, int window_size, bint principal, bint reuse,
                                bint weighted):
    cdef cbool ok = False
    with nogil:
        ok = nimbra.computeCurvature(deref(dataset.thisptr), window_size, principal, reuse, weighted)
    if not ok:
        raise ValueError("Error in calculating curvature.")


# ------------------------------------------------------- test hooks

cdef class _KDPointStorage:
    """The library's kd-tree over (n, 2) points, for tests and benchmarks.

    Ids are the row numbers of ``points``; rows with a non-finite coordinate
    are left out.
    """
    cdef nimbra.KDPointStorage tree

    def __init__(self, points):
        cdef double[:, :] p = np.ascontiguousarray(points, dtype=np.float64).reshape(-1, 2)
        cdef vector[double] xs, ys
        cdef vector[int32_t] none
        cdef vector[double] no_reach
        cdef Py_ssize_t i
        xs.resize(p.shape[0])
        ys.resize(p.shape[0])
        for i in range(p.shape[0]):
            xs[i] = p[i, 0]
            ys[i] = p[i, 1]
        with nogil:
            self.tree.build(xs, ys, none, no_reach)

    def __len__(self):
        return self.tree.size()

    def nearest(self, queries):
        """(distances, ids) of the nearest point to each (x, y) row of ``queries``."""
        cdef double[:, :] q = np.ascontiguousarray(queries, dtype=np.float64).reshape(-1, 2)
        distances = np.empty(q.shape[0], np.float64)
        ids = np.empty(q.shape[0], np.int64)
        cdef double[:] d = distances
        cdef int64_t[:] n = ids
        cdef Py_ssize_t i
        with nogil:
            for i in range(q.shape[0]):
                n[i] = self.tree.nearest(q[i, 0], q[i, 1], &d[i])
        return distances, ids

    def within_radius(self, double x, double y, double radius):
        """Ids of the points at distance <= radius from (x, y), ascending."""
        cdef vector[int32_t] out
        self.tree.withinRadius(x, y, radius, out)
        return list(out)


def _mesh_inputs(ZelDataSet dataset, bint pixel):
    """What a look-up in ``dataset`` reads, per AOI: the indices (x, y,
    confidence) of the variables its mesh is built from, None for an AOI
    without a mesh, or False for one the look-up refuses (which fails every
    look-up in the dataset). Decided as the library's mesh decides, so that
    a series can tell whether a location found in one dataset still holds
    in the next by comparing these arrays alone."""
    cdef nimbra.ZelData* aoi
    cdef nimbra.SurfaceChannels channels
    cdef int32_t xi, yi, confidence
    out = []
    for i in range(dataset.thisptr.numData()):
        aoi = dataset.thisptr.data(i)
        confidence = aoi.firstVariableOfType(nimbra.Correlation)
        if (aoi.gridKind() != 2 or aoi.variableIndex(b"x") < 0 or aoi.variableIndex(b"y") < 0
                or confidence < 0):
            out.append(None)
            continue
        if pixel:
            xi, yi = aoi.variableIndex(b"x"), aoi.variableIndex(b"y")
        else:
            channels = nimbra.findSurfaceChannels(deref(aoi))
            if not channels.found:
                out.append(None)
                continue
            xi, yi = channels.position[0], channels.position[1]
        if not (nimbra.holdsGrid(deref(aoi), confidence) and nimbra.holdsGrid(deref(aoi), xi)
                and nimbra.holdsGrid(deref(aoi), yi)):
            out.append(False)
        elif aoi.numRows() < 2 or aoi.numColumns() < 2:
            out.append(None)
        else:
            out.append((xi, yi, confidence))
    return out
