# Rotation and RigidTransformation: rotations, rigid transformations, their
# fits to datasets and point sets, and the transformation of a dataset.

from libc.math cimport sqrt, isfinite


cdef inline nimbra.RotationAngleType _angle_unit(object angle_type) except *:
    # The enum's value goes to the library as is: 1 means degrees, any other
    # value radians; a value outside the library enum's range is refused by
    # the conversion with OverflowError.
    cdef nimbra.RotationAngleType unit
    try:
        unit = angle_type.value
    except OverflowError:
        # Beyond a C long the generic conversion message would name the
        # wrong type; report it like any other value outside the enum.
        raise OverflowError("value too large to convert to enum nimbra::Rotation::AngleType") from None
    return unit


cdef nimbra.Vec3 _vec3(object point) except *:
    # Exactly list or tuple: a numpy array would silently pass through here
    # and come back as a different container, so it is refused instead.
    cdef nimbra.Vec3 v
    if type(point) is not list and type(point) is not tuple:
        raise TypeError("Expected array or tuple.")
    if len(point) != 3:
        raise IndexError("Expected a vector of size 3.")
    v[0] = point[0]
    v[1] = point[1]
    v[2] = point[2]
    return v


cdef object _same_container(object like, nimbra.Vec3 v):
    if type(like) is list:
        return [v[0], v[1], v[2]]
    return (v[0], v[1], v[2])


cdef void _check_dataset(ZelDataSet dataset) except *:
    if dataset.thisptr == NULL:
        raise ValueError("C++ object pointer for ZelDataSet has not been initialized properly.")


cdef void _check_rotation(Rotation rotation) except *:
    if rotation.thisptr == NULL:
        raise ValueError("C++ object pointer for Rotation has not been initialized properly.")


cdef vector[nimbra.Vec3] _points(object points) except *:
    cdef vector[nimbra.Vec3] out
    cdef double[:, ::1] view
    cdef Py_ssize_t i
    arr = np.ascontiguousarray(points, dtype=np.float64)
    if arr.ndim != 2 or arr.shape[1] != 3:
        raise ValueError("Expected an array of shape (n, 3).")
    view = arr
    out.resize(view.shape[0])
    for i in range(view.shape[0]):
        out[i][0] = view[i, 0]
        out[i][1] = view[i, 1]
        out[i][2] = view[i, 2]
    return out


cdef class Rotation:
    """A 3-D rotation acting on column vectors.

    Built from Cardan angles ``alpha`` (about x), ``beta`` (about y) and
    ``gamma`` (about z), composed as ``Rz(gamma) @ Ry(beta) @ Rx(alpha)`` so
    the x rotation acts first; the unit is given by ``angle_type``. It can be
    set and read back as a 3x3 matrix, as Cardan angles, as a rotation vector
    (axis times angle in radians) and as a unit quaternion ``(w, x, y, z)``.
    ``rotation * point`` and ``rotation.apply(point)`` rotate a list or tuple of
    three numbers.
    """
    cdef nimbra.Rotation* thisptr

    def __cinit__(self, *args, **kwargs):
        # Allocation only, so that every instance owns a rotation even when
        # __init__ is bypassed; the arguments are handled by __init__.
        self.thisptr = new nimbra.Rotation()

    def __init__(self, alpha=0, beta=0, gamma=0, angle_type=AngleType.Deg):
        cdef nimbra.RotationAngleType unit = _angle_unit(angle_type)
        cdef double a = alpha
        cdef double b = beta
        cdef double g = gamma
        self.thisptr.setAngles(a, b, g, unit)

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

    def angles(self, angle_type=AngleType.Deg):
        """The Cardan angles (alpha, beta, gamma) in the unit of ``angle_type``.

        When beta is +-90 degrees only alpha -+ gamma is defined; the whole of it
        is then reported in alpha and gamma is 0.
        """
        self.__check_thisptr()
        cdef nimbra.RotationAngleType unit = _angle_unit(angle_type)
        cdef nimbra.Vec3 a = self.thisptr.angles(unit)
        return (a[0], a[1], a[2])

    def set_angles(self, double alpha=0, double beta=0, double gamma=0, angle_type=AngleType.Deg):
        """Sets the rotation from Cardan angles in the unit of ``angle_type``."""
        self.__check_thisptr()
        cdef nimbra.RotationAngleType unit = _angle_unit(angle_type)
        self.thisptr.setAngles(alpha, beta, gamma, unit)

    def matrix(self):
        """The rotation matrix as a new (3, 3) float64 numpy array."""
        self.__check_thisptr()
        cdef nimbra.Mat3 m = self.thisptr.matrix()
        result = np.empty((3, 3))
        for r in range(3):
            for c in range(3):
                result[r, c] = m[3 * r + c]
        return result

    def set_matrix(self, mat):
        """Sets the rotation from a (3, 3) array (taken as given, not re-orthogonalised)."""
        self.__check_thisptr()
        if mat.shape != (3, 3):
            raise TypeError("Expected a 3x3 numpy array.")
        cdef double values[9]
        for r in range(3):
            for c in range(3):
                values[3 * r + c] = mat[r, c]
        self.thisptr.setMatrix(values)

    def rotation_vector(self):
        """The rotation vector (unit axis times angle in radians), a tuple of 3 floats."""
        self.__check_thisptr()
        cdef nimbra.Vec3 v = self.thisptr.rotationVector()
        return (v[0], v[1], v[2])

    def set_rotation_vector(self, vector):
        """Sets the rotation from a rotation vector given as a list or tuple of 3 numbers."""
        self.__check_thisptr()
        cdef nimbra.Vec3 v = _vec3(vector)
        self.thisptr.setRotationVector(v)

    def quaternion(self):
        """The unit quaternion (w, x, y, z) of the rotation, scalar first.

        q and -q are the same rotation; the one returned has w >= 0 unless the
        quaternion was set and not converted since.
        """
        self.__check_thisptr()
        cdef nimbra.Quat q = self.thisptr.quaternion()
        return (q[0], q[1], q[2], q[3])

    def set_quaternion(self, quaternion):
        """Sets the rotation from a quaternion (w, x, y, z), a list or tuple of 4 numbers.

        The quaternion is normalised and, since q and -q are the same rotation,
        stored with w >= 0, so that every representation read back describes the
        same rotation. A zero or non-finite quaternion raises ValueError.
        """
        self.__check_thisptr()
        cdef nimbra.Quat q
        cdef double n = 0.0
        cdef int i
        if type(quaternion) is not list and type(quaternion) is not tuple:
            raise TypeError("Expected array or tuple.")
        if len(quaternion) != 4:
            raise IndexError("Expected a vector of size 4.")
        for i in range(4):
            q[i] = quaternion[i]
            n += q[i] * q[i]
        n = sqrt(n)
        if not (n > 0.0 and isfinite(n)):
            raise ValueError("Expected a finite, non-zero quaternion.")
        if q[0] < 0.0:
            n = -n
        for i in range(4):
            q[i] = q[i] / n
        self.thisptr.setQuaternion(q)

    def apply(self, point):
        """Rotates ``point`` (a list or tuple of 3 numbers); returns the same container type."""
        self.__check_thisptr()
        cdef nimbra.Vec3 p = _vec3(point)
        return _same_container(point, self.thisptr.apply(p))

    def __mul__(self, other):
        # A rotation multiplies points only: composing two rotations goes
        # through RigidTransformation or the matrices.
        return self.apply(other)

    def load_identity(self):
        """Resets the rotation to the identity."""
        self.__check_thisptr()
        self.thisptr.loadIdentity()

    def invert(self):
        """Inverts the rotation in place (the matrix is transposed)."""
        self.__check_thisptr()
        self.thisptr.invert()

    def inverse(self):
        """A new Rotation that undoes this one."""
        self.__check_thisptr()
        cdef Rotation result = Rotation()
        result.thisptr.assign(self.thisptr[0])
        result.thisptr.invert()
        return result

    def __repr__(self):
        if self.thisptr == NULL:
            return "Rotation(<uninitialized>)"
        a = self.angles()
        return "Rotation(%r, %r, %r)" % a


cdef class RigidTransformation:
    """A rigid transformation p -> R p + t.

    Built from Cardan angles (see :class:`Rotation`) and a translation
    (Tx, Ty, Tz). ``A * B`` composes (B acts first), ``A * point`` transforms a
    list or tuple of three numbers.
    """
    cdef nimbra.RigidTransform* thisptr

    def __cinit__(self, *args, **kwargs):
        self.thisptr = new nimbra.RigidTransform()

    def __init__(self, alpha=0, beta=0, gamma=0, Tx=0, Ty=0, Tz=0, angle_type=AngleType.Deg):
        cdef nimbra.RotationAngleType unit = _angle_unit(angle_type)
        cdef double a = alpha
        cdef double b = beta
        cdef double g = gamma
        cdef nimbra.Vec3 t
        t[0] = Tx
        t[1] = Ty
        t[2] = Tz
        self.thisptr.assign(nimbra.RigidTransform(nimbra.Rotation(a, b, g, unit), t))

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

    def rotation(self):
        """A copy of the rotation part as a new :class:`Rotation`."""
        self.__check_thisptr()
        cdef Rotation result = Rotation()
        result.thisptr.assign(self.thisptr.rotation())
        return result

    def translation(self):
        """The translation (tx, ty, tz)."""
        self.__check_thisptr()
        cdef nimbra.Vec3 t = self.thisptr.translation()
        return (t[0], t[1], t[2])

    def set_rotation(self, Rotation rotation not None):
        """Replaces the rotation part with a copy of ``rotation``."""
        self.__check_thisptr()
        _check_rotation(rotation)
        self.thisptr.setRotation(rotation.thisptr[0])

    def set_translation(self, translation):
        """Replaces the translation with a list or tuple of 3 numbers."""
        self.__check_thisptr()
        cdef nimbra.Vec3 t = _vec3(translation)
        self.thisptr.setTranslation(t)

    def matrix(self):
        """The homogeneous form as a new (4, 4) float64 array, last row (0, 0, 0, 1)."""
        self.__check_thisptr()
        cdef nimbra.Mat4 m = self.thisptr.matrix4()
        result = np.empty((4, 4))
        for r in range(4):
            for c in range(4):
                result[r, c] = m[4 * r + c]
        return result

    def apply(self, point):
        """Transforms a point, or composes with another transformation.

        With a :class:`RigidTransformation` the result is a new transformation
        equal to ``self`` after ``point``; with a list or tuple of 3 numbers it
        is R p + t in the same container type.
        """
        self.__check_thisptr()
        cdef RigidTransformation other
        cdef RigidTransformation result
        cdef nimbra.Vec3 p
        if type(point) is RigidTransformation:
            other = point
            other.__check_thisptr()
            result = RigidTransformation()
            del result.thisptr
            result.thisptr = new nimbra.RigidTransform(self.thisptr[0], other.thisptr[0])
            return result
        p = _vec3(point)
        return _same_container(point, self.thisptr.apply(p))

    def __mul__(self, other):
        return self.apply(other)

    def invert(self):
        """Inverts in place: R becomes R^T and t becomes -R^T t."""
        self.__check_thisptr()
        self.thisptr.invert()

    def inverse(self):
        """A new RigidTransformation that undoes this one."""
        self.__check_thisptr()
        cdef RigidTransformation result = RigidTransformation()
        result.thisptr.assign(self.thisptr[0])
        result.thisptr.invert()
        return result

    def plane_fit(self, ZelDataSet dataset not None, cbool ignore_displacement=False):
        """Fits a plane to the valid points of ``dataset``.

        On success this transformation becomes the one that maps the plane onto
        z = 0 with the centroid of the points at the origin, and True is
        returned. The deformed positions (X+U, Y+V, Z+W) are fitted unless
        ``ignore_displacement`` is true or the displacements are missing. On
        failure (fewer than 3 valid points) False is returned and this
        transformation is unchanged.
        """
        self.__check_thisptr()
        _check_dataset(dataset)
        cdef nimbra.RigidTransform fitted
        cdef cbool ok
        with nogil:
            ok = nimbra.planeFit(fitted, dataset.thisptr[0], ignore_displacement)
        if ok:
            self.thisptr.assign(fitted)
        return ok

    def from_displacement(self, ZelDataSet dataset not None):
        """Fits the rigid motion of ``dataset`` from its displacement field.

        On success this transformation becomes the one that maps the deformed
        positions (X+U, Y+V, Z+W) back onto the reference positions (X, Y, Z),
        and ``(True, residual)`` is returned, the residual being the RMS
        per-coordinate distance left after the fit. On failure the result is
        ``(False, -1.0)`` (or ``(False, residual)`` when the fit ran but failed)
        and this transformation is unchanged.
        """
        self.__check_thisptr()
        _check_dataset(dataset)
        cdef nimbra.RigidTransform fitted
        cdef double residual = -1.0
        cdef cbool ok
        with nogil:
            ok = nimbra.rigidTransformFromDisplacement(fitted, residual, dataset.thisptr[0])
        if ok:
            self.thisptr.assign(fitted)
        return (ok, residual)

    def fit_points(self, reference, deformed, int num_points=-1):
        """Fits the rigid motion that maps ``deformed`` points onto ``reference`` points.

        Both are (n, 3) array-likes; ``num_points`` < 1 uses all of
        ``reference``, otherwise the first ``num_points`` pairs. Returns
        ``(ok, residual)`` like :meth:`from_displacement`; on failure (fewer than
        3 points, too few deformed points, degenerate points) this
        transformation is unchanged.
        """
        self.__check_thisptr()
        cdef vector[nimbra.Vec3] ref = _points(reference)
        cdef vector[nimbra.Vec3] dfm = _points(deformed)
        cdef nimbra.RigidTransform fitted
        cdef double residual = -1.0
        cdef cbool ok
        with nogil:
            ok = nimbra.fitRigidTransform(fitted, residual, ref, dfm, num_points)
        if ok:
            self.thisptr.assign(fitted)
        return (ok, residual)

    def __repr__(self):
        if self.thisptr == NULL:
            return "RigidTransformation(<uninitialized>)"
        a = self.rotation().angles()
        t = self.translation()
        return "RigidTransformation(%r, %r, %r, %r, %r, %r)" % (a + t)


cdef void _transform_dataset(ZelDataSet dataset, RigidTransformation transformation,
                             cbool displacement_only) except *:
    _check_dataset(dataset)
    if transformation.thisptr == NULL:
        raise ValueError("C++ object pointer for RigidTransformation has not been initialized properly.")
    # A private copy: reading the rotation fills its lazily converted
    # representations, which must not happen on a shared object without the
    # GIL. Always the 3-D variable set; the planar one is for library callers.
    cdef nimbra.RigidTransform transform = transformation.thisptr[0]
    with nogil:
        nimbra.transformDataSet(dataset.thisptr[0], transform, displacement_only, 1)
