# ProjectCalibration and Camera: the stereo calibration of a project (the
# "calibration" element of its XML), projection of world points into the
# cameras, undistortion and triangulation of image points.

import operator as _operator


# The library's coefficient order, which is also the order in which other
# calibration tools exchange distortion vectors.
_DISTORTION_ORDER = ("k1", "k2", "p1", "p2", "k3", "k4", "k5", "k6", "s1", "s2", "s3", "s4")
# The order users read them in, and in which the XML lists them.
_DISTORTION_NAMES = ("k1", "k2", "k3", "k4", "k5", "k6", "p1", "p2", "s1", "s2", "s3", "s4")
_DISTORTION_INDEX = {name: i for i, name in enumerate(_DISTORTION_ORDER)}

_CALIBRATION_TAG = "calibration"
_CALIBRATION_VERSION = 1
_CALIBRATION_UNITS = "mm"
_PIXEL_ORIGIN = "center"
_DISTORTION_MODEL = "rational-tangential-prism"


# ------------------------------------------------------------ camera checks
# One place for each check's message; `where` names the camera ("Camera " for
# the Python API, "Calibration camera 1: " when reading XML).

cdef void _set_intrinsics(nimbra.Camera* c, double fx, double fy, double cx, double cy, double skew,
                          str where) except *:
    if not c.setIntrinsics(fx, fy, cx, cy, skew):
        raise ValueError(where + "intrinsics must be finite with fx > 0 and fy > 0.")


# The library keeps image sizes in 32-bit integers.
_MAX_IMAGE_SIDE = 0x7FFFFFFF


cdef void _set_image_size(nimbra.Camera* c, object width, object height, str where) except *:
    # Compared as Python integers: any whole number gets the size message,
    # not the overflow of a conversion.
    w = _operator.index(width)
    h = _operator.index(height)
    if w > _MAX_IMAGE_SIDE or h > _MAX_IMAGE_SIDE:
        raise ValueError(where + "image size must be at most %d x %d pixels, got %d x %d."
                         % (_MAX_IMAGE_SIDE, _MAX_IMAGE_SIDE, w, h))
    if w < -_MAX_IMAGE_SIDE or h < -_MAX_IMAGE_SIDE or not c.setImageSize(w, h):
        raise ValueError(where + "image size must be positive, got %d x %d." % (w, h))


cdef void _set_distortion(nimbra.Camera* c, object values, str where) except *:
    # values: name -> number; names not given are 0.
    cdef nimbra.CameraDistortion d
    unknown = sorted(set(values) - set(_DISTORTION_ORDER))
    if unknown:
        raise ValueError(where + "has no distortion coefficient %r; the coefficients are %s."
                         % (unknown[0], ", ".join(_DISTORTION_NAMES)))
    for i, name in enumerate(_DISTORTION_ORDER):
        d[i] = values.get(name, 0.0)
    if not c.setDistortion(d):
        raise ValueError(where + "distortion coefficients must be finite.")


cdef void _set_extrinsics(nimbra.Camera* c, object rotation, object translation, str where) except *:
    # rotation: 9 numbers row-major, translation: 3 numbers.
    cdef nimbra.Mat3 r
    cdef nimbra.Vec3 t
    cdef int i
    for i in range(9):
        r[i] = rotation[i]
    for i in range(3):
        t[i] = translation[i]
    if not c.setExtrinsics(r, t):
        raise ValueError(where + "rotation must be orthonormal with determinant +1 "
                         "and the extrinsics finite.")


cdef void _set_spline_image_map(nimbra.Camera* c, object origin, object spacing, object dx, object dy,
                                str where) except *:
    dx = np.ascontiguousarray(dx, dtype=np.float64)
    dy = np.ascontiguousarray(dy, dtype=np.float64)
    if dx.ndim != 2 or dx.shape != dy.shape or dx.shape[0] < 4 or dx.shape[1] < 4:
        raise ValueError(where + "spline image map needs dx and dy of one shape (ny, nx), "
                         "at least 4 x 4, got %s and %s." % (dx.shape, dy.shape))
    if len(origin) != 2 or len(spacing) != 2:
        raise ValueError(where + "spline image map origin and spacing are pairs (x, y).")
    cdef double ox = origin[0]
    cdef double oy = origin[1]
    cdef double hx = spacing[0]
    cdef double hy = spacing[1]
    cdef int32_t ny = dx.shape[0]
    cdef int32_t nx = dx.shape[1]
    cdef vector[double] cdx = dx.ravel()
    cdef vector[double] cdy = dy.ravel()
    if not (np.isfinite(dx).all() and np.isfinite(dy).all() and np.isfinite((ox, oy, hx, hy)).all()
            and hx > 0 and hy > 0):
        raise ValueError(where + "spline image map values must be finite and its spacings positive.")
    cdef double bound = nimbra.SplineImageMap_gradientBound(hx, hy, nx, ny, cdx.data(), cdy.data())
    if not bound < 0.5:
        raise ValueError(where + "spline image map is too steep to invert: its gradient may reach %r "
                         "(it must stay below 0.5)." % bound)
    cdef nimbra.optional_spline_image_map created = nimbra.SplineImageMap_create(ox, oy, hx, hy, nx, ny,
                                                                                 cdx, cdy)
    if not created.has_value():
        raise ValueError(where + "spline image map was refused.")
    c.setSplineImageMap(created.value())


cdef object _spline_array(const vector[double]& values, int32_t nx, int32_t ny):
    a = np.empty((ny, nx))
    if values.size() == <size_t>(nx * ny) and nx * ny > 0:
        memcpy(cnp.PyArray_DATA(a), values.data(), sizeof(double) * nx * ny)
    return a


cdef object _spline_arrays(const nimbra.SplineImageMap& m):
    return (_spline_array(m.dx(), m.nx(), m.ny()), _spline_array(m.dy(), m.nx(), m.ny()))


# ------------------------------------------------------------------ Camera

cdef class Camera:
    """One calibrated camera: pinhole intrinsics, lens distortion, an optional
    spline image map, the image size and the extrinsics.

    The model, in millimetres and pixels (pixel (0, 0) is the centre of the
    first pixel)::

        P_c = R P_w + t                      (only Z_c > 0 projects)
        x' = X_c / Z_c,  y' = Y_c / Z_c,  r2 = x'^2 + y'^2
        radial = (1 + k1 r2 + k2 r2^2 + k3 r2^3) / (1 + k4 r2 + k5 r2^2 + k6 r2^3)
        x'' = x' radial + 2 p1 x'y' + p2 (r2 + 2 x'^2) + s1 r2 + s2 r2^2
        y'' = y' radial + p1 (r2 + 2 y'^2) + 2 p2 x'y' + s3 r2 + s4 r2^2
        u = fx x'' + skew y'' + cx,  v = fy y'' + cy

    and with a spline image map Delta the observed position p satisfies
    p + Delta(p) = (u, v).

    A camera made here stands alone; ``ProjectCalibration.camera(i)`` returns
    one that reads and writes camera ``i`` of that calibration directly (it is
    refused with ValueError once the calibration has been cleared, re-read or
    had a camera removed).
    """
    cdef nimbra.Camera* own
    cdef object owner
    cdef int index
    cdef long generation

    def __cinit__(self, *args, **kwargs):
        self.own = new nimbra.Camera()
        self.owner = None

    def __init__(self, fx, fy, cx, cy, width, height, skew=0.0, name="", distortion=None,
                 RigidTransformation extrinsics=None):
        """A camera with focal lengths ``fx``, ``fy`` and principal point
        ``cx``, ``cy`` in pixels, an image of ``width`` x ``height`` pixels,
        optional ``skew``, a ``name``, ``distortion`` coefficients by name (a
        mapping; missing ones are 0) and ``extrinsics`` (world to camera;
        identity when omitted).

        The image size is a pair of whole numbers from 1 to 2147483647
        (ValueError otherwise, TypeError for a number that is not whole)."""
        cdef nimbra.Camera* c = self._ptr()
        _set_intrinsics(c, fx, fy, cx, cy, skew, "Camera ")
        _set_image_size(c, width, height, "Camera ")
        c.setName(_utf8(name))
        if distortion is not None:
            _set_distortion(c, dict(distortion), "Camera ")
        if extrinsics is not None:
            self.set_extrinsics(extrinsics)

    def __dealloc__(self):
        del self.own
        self.own = NULL

    cdef nimbra.Camera* _ptr(self) except NULL:
        cdef nimbra.Camera* c = NULL
        cdef ProjectCalibration calibration
        if self.owner is None:
            c = self.own
        else:
            calibration = self.owner
            if calibration.thisptr != NULL and calibration.generation == self.generation:
                c = calibration.thisptr.camera(self.index)
        if c == NULL:
            raise ValueError("C++ object pointer for " + type(self).__name__
                             + " has not been initialized properly.")
        return c

    def __check_thisptr(self):
        self._ptr()

    def __reduce__(self):
        raise TypeError("no default __reduce__ due to non-trivial __cinit__")

    def __setstate__(self, state):
        raise TypeError("no default __reduce__ due to non-trivial __cinit__")

    @staticmethod
    def from_opencv_arrays(K, dist, rvec_or_R, t, size, name=""):
        """A camera from the arrays other calibration tools exchange.

        ``K`` is the 3 x 3 camera matrix [[fx, skew, cx], [0, fy, cy], [0, 0, 1]];
        ``dist`` holds 4, 5, 8 or 12 coefficients in the order k1 k2 p1 p2
        [k3 [k4 k5 k6 [s1 s2 s3 s4]]] (14 are accepted when the last two,
        tilted-sensor terms, are 0); ``rvec_or_R`` is a rotation vector (axis
        times angle in radians) or a 3 x 3 rotation matrix and ``t`` the
        translation, both world to camera; ``size`` is (width, height).
        """
        k = np.asarray(K, dtype=np.float64)
        if k.shape != (3, 3):
            raise ValueError("K must be a 3 x 3 camera matrix, got shape %s." % (k.shape,))
        if k[1, 0] != 0 or k[2, 0] != 0 or k[2, 1] != 0 or k[2, 2] != 1:
            raise ValueError("K must have the form [[fx, skew, cx], [0, fy, cy], [0, 0, 1]].")
        d = np.asarray(dist, dtype=np.float64).ravel()
        if d.size == 14 and d[12] == 0 and d[13] == 0:
            d = d[:12]
        if d.size not in (4, 5, 8, 12):
            raise ValueError("dist must hold 4, 5, 8 or 12 coefficients "
                             "(k1 k2 p1 p2 [k3 [k4 k5 k6 [s1 s2 s3 s4]]]), got %d." % d.size)
        r = np.asarray(rvec_or_R, dtype=np.float64)
        cdef nimbra.Rotation rotation
        cdef nimbra.Vec3 vector
        cdef nimbra.Mat3 matrix
        if r.size == 3:
            r = r.ravel()
            vector[0] = r[0]
            vector[1] = r[1]
            vector[2] = r[2]
            rotation.setRotationVector(vector)
            matrix = rotation.matrix()
            rows = [matrix[i] for i in range(9)]
        elif r.shape == (3, 3):
            rows = r.ravel().tolist()
        else:
            raise ValueError("rvec_or_R must be a rotation vector of 3 numbers or a 3 x 3 rotation "
                             "matrix, got shape %s." % (r.shape,))
        translation = np.asarray(t, dtype=np.float64).ravel()
        if translation.size != 3:
            raise ValueError("t must hold 3 numbers, got %d." % translation.size)
        if len(size) != 2:
            raise ValueError("size must be (width, height).")
        camera = Camera(k[0, 0], k[1, 1], k[0, 2], k[1, 2], size[0], size[1], skew=k[0, 1], name=name,
                        distortion=dict(zip(_DISTORTION_ORDER, d.tolist())))
        _set_extrinsics(camera._ptr(), rows, translation.tolist(), "Camera ")
        return camera

    # ------------------------------------------------------------ properties

    @property
    def name(self):
        """The camera's name (free text)."""
        return _str(self._ptr().name())

    @name.setter
    def name(self, str value not None):
        self._ptr().setName(_utf8(value))

    @property
    def width(self):
        """Image width in pixels."""
        return self._ptr().width()

    @width.setter
    def width(self, value):
        _set_image_size(self._ptr(), value, self._ptr().height(), "Camera ")

    @property
    def height(self):
        """Image height in pixels."""
        return self._ptr().height()

    @height.setter
    def height(self, value):
        _set_image_size(self._ptr(), self._ptr().width(), value, "Camera ")

    @property
    def fx(self):
        """Focal length along u, in pixels."""
        return self._ptr().fx()

    @fx.setter
    def fx(self, double value):
        cdef nimbra.Camera* c = self._ptr()
        _set_intrinsics(c, value, c.fy(), c.cx(), c.cy(), c.skew(), "Camera ")

    @property
    def fy(self):
        """Focal length along v, in pixels."""
        return self._ptr().fy()

    @fy.setter
    def fy(self, double value):
        cdef nimbra.Camera* c = self._ptr()
        _set_intrinsics(c, c.fx(), value, c.cx(), c.cy(), c.skew(), "Camera ")

    @property
    def cx(self):
        """Principal point u, in pixels."""
        return self._ptr().cx()

    @cx.setter
    def cx(self, double value):
        cdef nimbra.Camera* c = self._ptr()
        _set_intrinsics(c, c.fx(), c.fy(), value, c.cy(), c.skew(), "Camera ")

    @property
    def cy(self):
        """Principal point v, in pixels."""
        return self._ptr().cy()

    @cy.setter
    def cy(self, double value):
        cdef nimbra.Camera* c = self._ptr()
        _set_intrinsics(c, c.fx(), c.fy(), c.cx(), value, c.skew(), "Camera ")

    @property
    def skew(self):
        """Skew: the weight of y'' in u, in pixels."""
        return self._ptr().skew()

    @skew.setter
    def skew(self, double value):
        cdef nimbra.Camera* c = self._ptr()
        _set_intrinsics(c, c.fx(), c.fy(), c.cx(), c.cy(), value, "Camera ")

    # --------------------------------------------------------------- methods

    def camera_matrix(self):
        """The 3 x 3 matrix [[fx, skew, cx], [0, fy, cy], [0, 0, 1]]."""
        cdef nimbra.Camera* c = self._ptr()
        return np.array([[c.fx(), c.skew(), c.cx()], [0.0, c.fy(), c.cy()], [0.0, 0.0, 1.0]])

    def distortion(self):
        """The twelve distortion coefficients by name: k1 … k6, p1, p2, s1 … s4."""
        cdef const nimbra.CameraDistortion* d = &self._ptr().distortion()
        return {name: d[0][_DISTORTION_INDEX[name]] for name in _DISTORTION_NAMES}

    def set_distortion(self, coefficients=None, **named):
        """Replaces the distortion: coefficients by name, from a mapping and/or
        keywords (``set_distortion(k1=-0.1, p2=1e-4)``); those not given are 0."""
        values = dict(coefficients) if coefficients is not None else {}
        values.update(named)
        _set_distortion(self._ptr(), values, "Camera ")

    def dist_coeffs(self):
        """The distortion as one vector of 12 in the exchange order
        k1 k2 p1 p2 k3 k4 k5 k6 s1 s2 s3 s4."""
        cdef const nimbra.CameraDistortion* d = &self._ptr().distortion()
        return np.array([d[0][i] for i in range(12)])

    def extrinsics(self):
        """A copy of the world-to-camera transformation, P_c = R P_w + t."""
        cdef nimbra.Camera* c = self._ptr()
        cdef nimbra.Mat3 m = c.rotation()
        cdef nimbra.Rotation rotation
        rotation.setMatrix(m.data())
        cdef RigidTransformation result = RigidTransformation()
        result.thisptr.assign(nimbra.RigidTransform(rotation, c.translation()))
        return result

    def set_extrinsics(self, RigidTransformation extrinsics not None):
        """Sets the world-to-camera transformation; its rotation must be
        orthonormal with determinant +1 (to 1e-6)."""
        cdef nimbra.Camera* c = self._ptr()
        if extrinsics.thisptr == NULL:
            raise ValueError("C++ object pointer for RigidTransformation has not been initialized properly.")
        cdef nimbra.Mat3 m = extrinsics.thisptr.rotation().matrix()
        cdef nimbra.Vec3 t = extrinsics.thisptr.translation()
        _set_extrinsics(c, [m[i] for i in range(9)], [t[0], t[1], t[2]], "Camera ")

    def center(self):
        """The projection centre in world coordinates, -R^T t."""
        cdef nimbra.Vec3 p = self._ptr().centre()
        return (p[0], p[1], p[2])

    def spline_image_map(self):
        """None, or the spline image map as a dict: "origin" (x, y) and
        "spacing" (x, y) of the knot grid in pixels, "dx" and "dy" the
        coefficients as (ny, nx) arrays (row j at v = origin_y + j spacing_y)."""
        cdef const nimbra.SplineImageMap* m = &self._ptr().splineImageMap()
        if m.empty():
            return None
        dx, dy = _spline_arrays(m[0])
        return {"origin": (m.originX(), m.originY()), "spacing": (m.spacingX(), m.spacingY()),
                "dx": dx, "dy": dy}

    def set_spline_image_map(self, origin, spacing, dx, dy):
        """Sets the spline image map: knot (i, j) at origin + (i, j) * spacing,
        coefficients ``dx``, ``dy`` of shape (ny, nx), at least 4 x 4. Maps whose
        gradient may reach 0.5 are refused (ValueError)."""
        _set_spline_image_map(self._ptr(), origin, spacing, dx, dy, "Camera ")

    def clear_spline_image_map(self):
        """Removes the spline image map."""
        cdef nimbra.SplineImageMap empty
        self._ptr().setSplineImageMap(empty)

    def __repr__(self):
        cdef nimbra.Camera* c
        try:
            c = self._ptr()
        except ValueError:
            return "Camera(<uninitialized>)"
        return "Camera(name=%r, %d x %d, fx=%r, fy=%r, cx=%r, cy=%r)" % (
            _str(c.name()), c.width(), c.height(), c.fx(), c.fy(), c.cx(), c.cy())


cdef Camera _camera_view(ProjectCalibration calibration, int index):
    cdef Camera view = Camera.__new__(Camera)
    del view.own
    view.own = NULL
    view.owner = calibration
    view.index = index
    view.generation = calibration.generation
    return view


# ------------------------------------------------------------ point arrays

cdef tuple _point_array(object points, int width, str name):
    # float64, C-contiguous, shape (n, width); a single point (width,) is
    # reported so that the result can be given back in the same shape.
    arr = np.ascontiguousarray(points, dtype=np.float64)
    if arr.ndim == 1 and arr.shape[0] == width:
        return arr.reshape(1, width), True
    if arr.ndim != 2 or arr.shape[1] != width:
        raise ValueError("%s must have shape (n, %d) or (%d,), got %s." % (name, width, width, arr.shape))
    return arr, False


# ------------------------------------------------------------- XML helpers

cdef str _xml_number(double value):
    # The shortest text that reads back as the same double.
    return repr(value)


cdef double _xml_float(element, str attribute, str where, object default=None) except? -1.0:
    text = element.get(attribute)
    if text is None:
        if default is not None:
            return default
        raise ValueError("Malformed calibration: %s has no attribute %r." % (where, attribute))
    try:
        return float(text)
    except ValueError:
        raise ValueError("Malformed calibration: attribute %r of %s is not a number: %r."
                         % (attribute, where, text)) from None


cdef object _xml_int(element, str attribute, str where):
    text = element.get(attribute)
    if text is None:
        raise ValueError("Malformed calibration: %s has no attribute %r." % (where, attribute))
    try:
        return int(text)
    except ValueError:
        raise ValueError("Malformed calibration: attribute %r of %s is not a whole number: %r."
                         % (attribute, where, text)) from None


cdef list _xml_numbers(element, str tag, object count, str where):
    child = element.find(tag)
    if child is None:
        raise ValueError("Malformed calibration: %s has no <%s>." % (where, tag))
    words = (child.text or "").split()
    if len(words) != count:
        raise ValueError("Malformed calibration: <%s> of %s needs %d numbers, got %d."
                         % (tag, where, count, len(words)))
    try:
        return [float(w) for w in words]
    except ValueError:
        raise ValueError("Malformed calibration: <%s> of %s holds text that is not a number."
                         % (tag, where)) from None


cdef void _check_element(object root) except *:
    if not _etree().iselement(root):
        raise TypeError("Expected an lxml element, got %s." % type(root).__name__)


cdef void _read_camera(object element, int index, nimbra.Camera* c) except *:
    cdef str where = "camera %d" % index
    cdef str prefix = "Calibration camera %d: " % index
    c.setName(_utf8(element.get("name", "")))
    _set_image_size(c, _xml_int(element, "width", where), _xml_int(element, "height", where), prefix)
    intrinsics = element.find("intrinsics")
    if intrinsics is None:
        raise ValueError("Malformed calibration: %s has no <intrinsics>." % where)
    w = where + " <intrinsics>"
    _set_intrinsics(c, _xml_float(intrinsics, "fx", w), _xml_float(intrinsics, "fy", w),
                    _xml_float(intrinsics, "cx", w), _xml_float(intrinsics, "cy", w),
                    _xml_float(intrinsics, "skew", w, 0.0), prefix)
    distortion = element.find("distortion")
    values = {}
    if distortion is not None:
        w = where + " <distortion>"
        values = {name: _xml_float(distortion, name, w) for name in distortion.keys()
                  if name in _DISTORTION_INDEX}
        unknown = [name for name in distortion.keys() if name not in _DISTORTION_INDEX]
        if unknown:
            # A coefficient of another model would silently change results.
            raise ValueError("Malformed calibration: %s has no distortion coefficient %r; the "
                             "coefficients are %s." % (where, unknown[0], ", ".join(_DISTORTION_NAMES)))
    _set_distortion(c, values, prefix)
    extrinsics = element.find("extrinsics")
    if extrinsics is None:
        raise ValueError("Malformed calibration: %s has no <extrinsics>." % where)
    w = where + " <extrinsics>"
    _set_extrinsics(c, _xml_numbers(extrinsics, "rotation", 9, w),
                    _xml_numbers(extrinsics, "translation", 3, w), prefix)
    spline = element.find("spline_image_map")
    if spline is not None:
        w = where + " <spline_image_map>"
        nx = _xml_int(spline, "nx", w)
        ny = _xml_int(spline, "ny", w)
        if nx < 4 or ny < 4:
            raise ValueError("Malformed calibration: %s needs at least 4 x 4 coefficients, got %d x %d."
                             % (w, nx, ny))
        dx = np.array(_xml_numbers(spline, "dx", nx * ny, w)).reshape(ny, nx)
        dy = np.array(_xml_numbers(spline, "dy", nx * ny, w)).reshape(ny, nx)
        _set_spline_image_map(c, (_xml_float(spline, "origin_x", w), _xml_float(spline, "origin_y", w)),
                              (_xml_float(spline, "spacing_x", w), _xml_float(spline, "spacing_y", w)),
                              dx, dy, prefix)


cdef void _parse_calibration(object element, nimbra.StereoCalibration* out) except *:
    version_text = element.get("version")
    if version_text is None:
        raise ValueError("Malformed calibration: the version attribute is missing.")
    try:
        version = int(version_text)
    except ValueError:
        raise ValueError("Malformed calibration: version %r is not a whole number." % version_text) from None
    if version > _CALIBRATION_VERSION:
        raise ValueError("Calibration version %d is not supported; this version of zelpy reads "
                         "version %d." % (version, _CALIBRATION_VERSION))
    if version < 1:
        raise ValueError("Malformed calibration: there is no version %d." % version)
    units = element.get("units")
    if units != _CALIBRATION_UNITS:
        raise ValueError("Calibration units must be %r, got %r." % (_CALIBRATION_UNITS, units))
    origin = element.get("pixel_origin", _PIXEL_ORIGIN)
    if origin != _PIXEL_ORIGIN:
        raise ValueError("Calibration pixel origin must be %r, got %r." % (_PIXEL_ORIGIN, origin))
    model = element.get("distortion_model", _DISTORTION_MODEL)
    if model != _DISTORTION_MODEL:
        raise ValueError("Calibration distortion model must be %r, got %r." % (_DISTORTION_MODEL, model))
    out.setWorldFrame(_utf8(element.get("world_frame", "")))

    cameras = {}
    for child in element.findall("camera"):
        index = _xml_int(child, "index", "a camera")
        if index in cameras:
            raise ValueError("Malformed calibration: camera index %d appears twice." % index)
        cameras[index] = child
    if sorted(cameras) != list(range(len(cameras))):
        raise ValueError("Malformed calibration: camera indices must run 0 .. n-1, got %s."
                         % sorted(cameras))
    if len(cameras) < 2:
        raise ValueError("Malformed calibration: a stereo calibration needs two cameras, got %d."
                         % len(cameras))
    cdef nimbra.Camera camera
    for index in range(len(cameras)):
        camera.assign(nimbra.Camera())
        _read_camera(cameras[index], index, &camera)
        out.addCamera(camera)

    quality = element.find("quality")
    if quality is not None:
        figures = []
        for name in ("reprojection_rms_px", "epipolar_rms_px"):
            value = _xml_float(quality, name, "<quality>") if quality.get(name) is not None else None
            figures.append(_quality_figure(value, "Malformed calibration: " + name))
        out.setQuality(figures[0], figures[1])


cdef object _calibration_element(const nimbra.StereoCalibration* calibration):
    etree = _etree()
    cdef const nimbra.Camera* c
    cdef const nimbra.CameraDistortion* d
    cdef const nimbra.SplineImageMap* m
    cdef nimbra.Mat3 r
    cdef nimbra.Vec3 t
    cdef int i
    element = etree.Element(_CALIBRATION_TAG)
    element.set("lri", _CALIBRATION_TAG)
    element.set("version", str(_CALIBRATION_VERSION))
    element.set("units", _CALIBRATION_UNITS)
    element.set("world_frame", _str(calibration.worldFrame()))
    element.set("pixel_origin", _PIXEL_ORIGIN)
    element.set("distortion_model", _DISTORTION_MODEL)
    for i in range(calibration.numCameras()):
        c = (<nimbra.StereoCalibration*>calibration).camera(i)
        node = etree.SubElement(element, "camera")
        node.set("index", str(i))
        node.set("name", _str(c.name()))
        node.set("width", str(c.width()))
        node.set("height", str(c.height()))
        intrinsics = etree.SubElement(node, "intrinsics")
        for name, value in (("fx", c.fx()), ("fy", c.fy()), ("cx", c.cx()), ("cy", c.cy()),
                            ("skew", c.skew())):
            intrinsics.set(name, _xml_number(value))
        distortion = etree.SubElement(node, "distortion")
        d = &c.distortion()
        for name in _DISTORTION_NAMES:
            distortion.set(name, _xml_number(d[0][_DISTORTION_INDEX[name]]))
        extrinsics = etree.SubElement(node, "extrinsics")
        r = c.rotation()
        t = c.translation()
        etree.SubElement(extrinsics, "rotation").text = " ".join(_xml_number(r[k]) for k in range(9))
        etree.SubElement(extrinsics, "translation").text = " ".join(_xml_number(t[k]) for k in range(3))
        if not c.splineImageMap().empty():
            m = &c.splineImageMap()
            spline = etree.SubElement(node, "spline_image_map")
            spline.set("origin_x", _xml_number(m.originX()))
            spline.set("origin_y", _xml_number(m.originY()))
            spline.set("spacing_x", _xml_number(m.spacingX()))
            spline.set("spacing_y", _xml_number(m.spacingY()))
            spline.set("nx", str(m.nx()))
            spline.set("ny", str(m.ny()))
            for tag, values in zip(("dx", "dy"), _spline_arrays(m[0])):
                # One knot row per line keeps large maps readable.
                etree.SubElement(spline, tag).text = "\n".join(
                    " ".join(map(repr, row)) for row in values.tolist())
    reprojection = calibration.reprojectionRms()
    epipolar = calibration.epipolarRms()
    if reprojection == reprojection or epipolar == epipolar:
        quality = etree.SubElement(element, "quality")
        if reprojection == reprojection:
            quality.set("reprojection_rms_px", _xml_number(reprojection))
        if epipolar == epipolar:
            quality.set("epipolar_rms_px", _xml_number(epipolar))
    return element


# ------------------------------------------------------- ProjectCalibration

cdef class ProjectCalibration:
    """The stereo calibration of a project: its cameras (see :class:`Camera`)
    with the projection of world points, undistortion of image points and
    triangulation of point pairs, and the ``calibration`` element of the
    project XML.

    World coordinates are in millimetres, image coordinates in pixels with
    (0, 0) at the centre of the first pixel. Arrays of points are (n, 3) for
    world points and (n, 2) for image points; a single point (3,) or (2,) gives
    a single result. Whatever cannot be computed (a point behind a camera,
    beyond the fold of the distortion, NaN input) is NaN.
    """
    cdef nimbra.StereoCalibration* thisptr
    # Bumped whenever camera indices may change meaning, so that Camera
    # views taken earlier are refused rather than silently retargeted.
    cdef long generation

    def __cinit__(self, *args, **kwargs):
        self.thisptr = new nimbra.StereoCalibration()
        self.generation = 0

    def __init__(self):
        """An empty calibration (no cameras, ``is_valid()`` False)."""

    def __dealloc__(self):
        del self.thisptr
        self.thisptr = NULL

    def __check_thisptr(self):
        if self.thisptr == NULL:
            raise ValueError("C++ object pointer for " + type(self).__name__
                             + " has not been initialized properly.")

    def __reduce__(self):
        raise TypeError("no default __reduce__ due to non-trivial __cinit__")

    def __setstate__(self, state):
        raise TypeError("no default __reduce__ due to non-trivial __cinit__")

    cdef int _camera_index(self, object camera) except -1:
        index = _operator.index(camera)  # any whole number; out of range is an IndexError
        cdef int n = self.thisptr.numCameras()
        if n == 0:
            raise IndexError("Camera index %d outside valid range: the calibration has no cameras" % index)
        if index < 0 or index >= n:
            raise IndexError("Camera index %d outside valid range (0, %d)" % (index, n - 1))
        return <int>index

    cdef void _forget_cameras(self):
        self.thisptr.clear()
        self.generation += 1

    # --------------------------------------------------------- the cameras

    def is_valid(self):
        """True for a stereo calibration: at least two cameras."""
        self.__check_thisptr()
        return self.thisptr.isValid()

    @property
    def cameras(self):
        """The cameras as a list of :class:`Camera` objects that read and
        write this calibration's cameras."""
        self.__check_thisptr()
        return [_camera_view(self, i) for i in range(self.thisptr.numCameras())]

    def camera(self, camera):
        """Camera ``camera`` (an index) as a :class:`Camera` that reads and
        writes this calibration's camera."""
        self.__check_thisptr()
        return _camera_view(self, self._camera_index(camera))

    def add_camera(self, Camera camera not None):
        """Appends a copy of ``camera``; returns its index."""
        self.__check_thisptr()
        cdef nimbra.Camera* c = camera._ptr()
        cdef int index = self.thisptr.addCamera(c[0])
        if index < 0:
            raise ValueError("Camera image size must be positive, got %d x %d." % (c.width(), c.height()))
        return index

    def set_camera(self, index, Camera camera not None):
        """Replaces camera ``index`` by a copy of ``camera``."""
        self.__check_thisptr()
        cdef int i = self._camera_index(index)
        cdef nimbra.Camera copy = camera._ptr()[0]
        if not self.thisptr.setCamera(i, copy):
            raise ValueError("Camera image size must be positive, got %d x %d." % (copy.width(), copy.height()))

    def remove_camera(self, index):
        """Removes camera ``index``; the cameras after it move down by one."""
        self.__check_thisptr()
        cdef int i = self._camera_index(index)
        self.thisptr.removeCamera(i)
        self.generation += 1

    def clear(self):
        """Removes every camera and the quality figures; the world frame
        label becomes empty."""
        self.__check_thisptr()
        self._forget_cameras()

    @property
    def world_frame(self):
        """Free text naming the frame the extrinsics refer to."""
        self.__check_thisptr()
        return _str(self.thisptr.worldFrame())

    @world_frame.setter
    def world_frame(self, str value not None):
        self.__check_thisptr()
        self.thisptr.setWorldFrame(_utf8(value))

    @property
    def reprojection_rms_px(self):
        """RMS reprojection error of the calibration in pixels, or None."""
        self.__check_thisptr()
        value = self.thisptr.reprojectionRms()
        return None if value != value else value

    @reprojection_rms_px.setter
    def reprojection_rms_px(self, value):
        self.__check_thisptr()
        self.thisptr.setQuality(_quality_figure(value, "reprojection_rms_px"), self.thisptr.epipolarRms())

    @property
    def epipolar_rms_px(self):
        """RMS epipolar error of the calibration in pixels, or None."""
        self.__check_thisptr()
        value = self.thisptr.epipolarRms()
        return None if value != value else value

    @epipolar_rms_px.setter
    def epipolar_rms_px(self, value):
        self.__check_thisptr()
        self.thisptr.setQuality(self.thisptr.reprojectionRms(), _quality_figure(value, "epipolar_rms_px"))

    # ----------------------------------------------------------------- XML

    def read_calibration(self, root):
        """Fills the calibration from the ``calibration`` child of ``root``
        (the project's root element). Returns False, leaving the calibration
        empty, when there is none; a malformed element raises ValueError and
        also leaves it empty."""
        self.__check_thisptr()
        _check_element(root)
        self._forget_cameras()
        element = root.find(_CALIBRATION_TAG)
        if element is None:
            return False
        cdef nimbra.StereoCalibration parsed
        _parse_calibration(element, &parsed)
        self.thisptr.assign(parsed)
        return True

    def write_calibration(self, root):
        """Writes the calibration as the ``calibration`` child of ``root``,
        replacing an existing one in place or appending it. An invalid
        calibration (fewer than two cameras) raises ValueError."""
        self.__check_thisptr()
        _check_element(root)
        if not self.thisptr.isValid():
            raise ValueError("Cannot write an invalid calibration: it needs two cameras, it has %d."
                             % self.thisptr.numCameras())
        element = _calibration_element(self.thisptr)
        old = root.find(_CALIBRATION_TAG)
        if old is None:
            root.append(element)
        else:
            element.tail = old.tail
            root.replace(old, element)

    # -------------------------------------------------------------- points

    def project(self, points, camera):
        """Observed pixel positions in camera ``camera`` of world points
        ((n, 3) -> (n, 2), or (3,) -> (2,)). NaN behind the camera and beyond
        the fold of its distortion; positions outside the image are kept."""
        self.__check_thisptr()
        cdef int index = self._camera_index(camera)
        arr, single = _point_array(points, 3, "points")
        out = np.empty((arr.shape[0], 2))
        cdef const double* source = <const double*>cnp.PyArray_DATA(arr)
        cdef double* target = <double*>cnp.PyArray_DATA(out)
        cdef int64_t n = arr.shape[0]
        # A private copy: other threads may change this object meanwhile.
        cdef nimbra.StereoCalibration work = self.thisptr[0]
        with nogil:
            work.projectPoints(index, source, n, target)
        return out[0] if single else out

    def undistort(self, points, camera, normalized=False):
        """Observed pixels of camera ``camera`` without the spline image map
        and the lens distortion: ideal pinhole pixels, or normalised
        coordinates (x', y') = (X_c / Z_c, Y_c / Z_c) with ``normalized``.
        NaN where Newton's method does not reach 1e-9 px or lands beyond the
        fold of the distortion."""
        return self.__distortion(points, camera, normalized, False)

    def distort(self, points, camera, normalized=False):
        """The inverse of :meth:`undistort`: ideal pinhole pixels (or
        normalised coordinates with ``normalized``) to observed pixels."""
        return self.__distortion(points, camera, normalized, True)

    def __distortion(self, points, camera, bint normalized, bint forward):
        self.__check_thisptr()
        cdef int index = self._camera_index(camera)
        arr, single = _point_array(points, 2, "points")
        out = np.empty((arr.shape[0], 2))
        cdef const double* source = <const double*>cnp.PyArray_DATA(arr)
        cdef double* target = <double*>cnp.PyArray_DATA(out)
        cdef int64_t n = arr.shape[0]
        cdef nimbra.StereoCalibration work = self.thisptr[0]
        with nogil:
            if forward:
                work.distortPoints(index, source, n, normalized, target)
            else:
                work.undistortPoints(index, source, n, normalized, target)
        return out[0] if single else out

    def triangulate(self, points_0, points_1, refine=True, return_error=False):
        """World points from pixel pairs of cameras 0 and 1 ((n, 2) each ->
        (n, 3), or (2,) -> (3,)).

        Linear least squares on the undistorted normalised coordinates, then,
        with ``refine``, Gauss-Newton on the pixel reprojection error. With
        ``return_error`` the result is ``(points, error)``, error being the
        RMS over the two cameras of the reprojection distance in pixels, per
        point. NaN for NaN input and for points behind a camera.
        """
        self.__check_thisptr()
        if self.thisptr.numCameras() < 2:
            raise ValueError("Triangulation needs a calibration with two cameras.")
        a, single_0 = _point_array(points_0, 2, "points_0")
        b, single_1 = _point_array(points_1, 2, "points_1")
        if a.shape[0] != b.shape[0] or single_0 != single_1:
            raise ValueError("points_0 and points_1 must have the same shape, got %s and %s."
                             % (np.shape(points_0), np.shape(points_1)))
        out = np.empty((a.shape[0], 3))
        error = np.empty(a.shape[0]) if return_error else None
        cdef const double* uv0 = <const double*>cnp.PyArray_DATA(a)
        cdef const double* uv1 = <const double*>cnp.PyArray_DATA(b)
        cdef double* xyz = <double*>cnp.PyArray_DATA(out)
        cdef double* rms = <double*>cnp.PyArray_DATA(error) if return_error else NULL
        cdef int64_t n = a.shape[0]
        cdef bint do_refine = refine
        cdef nimbra.StereoCalibration work = self.thisptr[0]
        with nogil:
            work.triangulatePoints(uv0, uv1, n, do_refine, xyz, rms)
        if single_0:
            out = out[0]
            if return_error:
                error = float(error[0])
        return (out, error) if return_error else out

    def stereo_transform(self):
        """The transformation from camera 0 coordinates to camera 1
        coordinates: R1 R0^T, t1 - R1 R0^T t0 (its translation's length is the
        baseline)."""
        self.__check_thisptr()
        cdef RigidTransformation result = RigidTransformation()
        if not self.thisptr.stereoTransform(result.thisptr[0]):
            raise ValueError("The stereo transform needs a calibration with two cameras.")
        return result

    def projection_matrix(self, camera):
        """The 3 x 4 matrix K [R | t] of camera ``camera`` (without distortion)."""
        self.__check_thisptr()
        cdef int index = self._camera_index(camera)
        out = np.empty((3, 4))
        self.thisptr.projectionMatrix(index, <double*>cnp.PyArray_DATA(out))
        return out

    def __repr__(self):
        if self.thisptr == NULL:
            return "ProjectCalibration(<uninitialized>)"
        return "ProjectCalibration(%d cameras)" % self.thisptr.numCameras()


cdef double _quality_figure(object value, str name) except? -2.0:
    if value is None:
        return float("nan")
    cdef double figure = value
    if not (figure >= 0.0 and isfinite(figure)):
        raise ValueError("%s must be a finite number >= 0 or None, got %r." % (name, value))
    return figure
