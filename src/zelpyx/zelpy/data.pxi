# ZelData and ZelDataSet: the Python faces of one AOI and one data file.

from cython.operator cimport dereference as deref
from cpython.bytes cimport PyBytes_FromStringAndSize, PyBytes_AS_STRING


# Writable numpy views alive, by the address of the values they show. The
# library cannot see writes through them, so a look-up tree over such values
# is never trusted while one is alive (a view keeps its values alive, so no
# other array can take its address meanwhile).
cdef dict _writable_views = {}


cdef class _SharedValues:
    """Keeps one variable's value storage alive for the numpy arrays viewing it."""
    cdef nimbra.SharedValues values
    cdef size_t _writable  # the address registered in _writable_views; 0 when read-only

    def __dealloc__(self):
        if self._writable == 0 or _writable_views is None:  # None at interpreter exit
            return
        left = _writable_views.pop(self._writable, 1) - 1
        if left > 0:
            _writable_views[self._writable] = left


cdef object _view_values(nimbra.ZelDataVariable* record, tuple shape, bint writable):
    cdef cnp.npy_intp dims[2]
    cdef _SharedValues owner
    cdef int nd = len(shape)
    cdef size_t address
    if record.count <= 0 or record.values.get() == NULL:
        return np.empty(shape if nd == 2 and shape[0] * shape[1] == 0 else (0,), dtype=np.float32)
    dims[0] = shape[0]
    if nd == 2:
        dims[1] = shape[1]
    owner = _SharedValues()
    owner.values = record.values
    arr = cnp.PyArray_SimpleNewFromData(nd, dims, cnp.NPY_FLOAT32, <void*>record.values.get())
    cnp.set_array_base(arr, owner)
    if writable:
        address = <size_t>record.values.get()
        _writable_views[address] = _writable_views.get(address, 0) + 1
        owner._writable = address
        # Whatever is written through it, and whenever: the values count as
        # changed from here on.
        record.markChanged()
    else:
        # For good: numpy refuses to make it writable again, since its base
        # offers no writable buffer.
        cnp.PyArray_CLEARFLAGS(<cnp.ndarray>arr, cnp.NPY_ARRAY_WRITEABLE)
    return arr


cdef object _variable_array(nimbra.ZelData* aoi, int32_t index):
    # A flat read-only view without copying; callers copy it into their own arrays.
    cdef nimbra.ZelDataVariable* record = aoi.variable(index)
    return _view_values(record, (record.count,), False)


cdef object _structured(nimbra.ZelData* aoi, list names, object out, Py_ssize_t start):
    cdef int32_t index
    cdef Py_ssize_t n = aoi.matrixSize()
    for name in names:
        index = aoi.variableIndex(_utf8(name))
        if index < 0:
            raise ValueError("Could not find variable " + name)
        values = _variable_array(aoi, index)
        m = min(n, values.shape[0])
        out[name][start:start + m] = values[:m]
    return out


cdef inline int32_t _resolve_variable(nimbra.ZelData* aoi, object variable) except? -2:
    if isinstance(variable, str):
        return aoi.variableIndex(_utf8(variable))
    return <int32_t>variable


cdef _copy_into_variable(nimbra.ZelData* aoi, int32_t index, object values):
    """Writes all values of one variable; the length must be the matrix size."""
    cdef vector[float] converted
    cdef float[::1] view
    cdef Py_ssize_t n
    cdef nimbra.ZelDataVariable* record = aoi.variable(index)
    if record == NULL:
        raise IndexError("Variable index out of range.")
    if isinstance(values, np.ndarray):
        arr = np.ascontiguousarray(np.ravel(values), dtype=np.float32)
        n = arr.shape[0]
    else:
        converted = values
        n = converted.size()
    if n != aoi.matrixSize():
        raise IndexError("Size mismatch. Matrix size is " + str(aoi.matrixSize())
                         + " while values are " + str(n) + ".")
    aoi.resizeValues(index, <int32_t>n)
    if n == 0:
        return
    if isinstance(values, np.ndarray):
        view = arr
        with nogil:
            memcpy(record.values.get(), &view[0], n * sizeof(float))
    else:
        memcpy(record.values.get(), converted.data(), n * sizeof(float))
    # After the copy (by index: the record may have moved meanwhile), so that
    # a reader that derived data while it ran sees the change.
    aoi.markChanged(index)


cdef class ZelData:
    """One area of interest (AOI): a grid of points with named float32 variables.

    Instances come from :meth:`ZelDataSet.data` (borrowing an AOI of that
    dataset) or from :meth:`copy` (owning a deep copy); they are not created
    directly.
    """
    cdef nimbra.ZelData* thisptr
    cdef bint _owned
    cdef ZelDataSet _dataset
    cdef int32_t _index  # in the dataset; 0 for an owned copy
    cdef long _generation
    cdef dict _locators  # look-up trees of an owned copy

    def __cinit__(self, other=None, **kwargs):
        self.thisptr = NULL
        self._owned = False
        self._dataset = None
        self._index = 0
        self._locators = {}
        if other and isinstance(other, ZelData):
            (<ZelData>other).__check_thisptr()
            self.thisptr = new nimbra.ZelData(deref((<ZelData>other).thisptr))
            self._owned = True
        elif kwargs.get("yes_create_the_object_i_know_what_i_do"):
            pass
        else:
            raise TypeError("Instances of " + type(self).__name__ + " must not be created directly.")

    def __dealloc__(self):
        if self._owned and self.thisptr != NULL:
            del self.thisptr
        self.thisptr = NULL

    cdef void _attach(self, ZelDataSet dataset, int32_t index):
        self.thisptr = dataset.thisptr.data(index)
        self._owned = False
        self._dataset = dataset
        self._index = index
        self._generation = dataset._generation

    def __check_thisptr(self):
        # A borrowed AOI dies when its dataset reloads; refuse it then instead
        # of touching freed memory.
        if (self.thisptr != NULL and self._dataset is not None
                and self._dataset._generation != self._generation):
            self.thisptr = NULL
        if self.thisptr == NULL:
            raise ValueError("C++ object pointer for " + type(self).__name__
                             + " has not been initialized properly.")

    def __reduce__(self):
        raise TypeError("no default __reduce__ due to non-trivial __cinit__")

    def __setstate__(self, state):
        raise TypeError("no default __reduce__ due to non-trivial __cinit__")

    cdef dict _locator_cache(self):
        # Trees by (AOI index, pixel space): a borrowed AOI shares its
        # dataset's, so that every ZelData handed out for it uses the same.
        return self._dataset._locators if self._dataset is not None else self._locators

    def clear(self):
        """Removes every variable and sets the grid to 0 x 0."""
        self.__check_thisptr()
        # Not needed for the answers (a tree notices the change itself), but
        # the trees would keep the freed values alive until the next look-up.
        cache = self._locator_cache()
        for pixel in (False, True):
            cache.pop((self._index, pixel), None)
        self.thisptr.clear()

    def copy(self):
        """A new ZelData owning a deep copy of this AOI."""
        self.__check_thisptr()
        return ZelData(self)

    def num_rows(self):
        """Number of grid rows."""
        self.__check_thisptr()
        return self.thisptr.numRows()

    def num_columns(self):
        """Number of grid columns."""
        self.__check_thisptr()
        return self.thisptr.numColumns()

    def num_variables(self):
        """Number of variables."""
        self.__check_thisptr()
        return self.thisptr.numVariables()

    def matrix_size(self):
        """Number of grid points (rows x columns)."""
        self.__check_thisptr()
        return self.thisptr.matrixSize()

    def name(self):
        """The AOI's name (may be empty)."""
        self.__check_thisptr()
        return _str(self.thisptr.name())

    def variable_name(self, int n):
        """Name of variable ``n``; empty when ``n`` is out of range."""
        self.__check_thisptr()
        cdef nimbra.ZelDataVariable* record = self.thisptr.variable(n)
        return "" if record == NULL else _str(record.name)

    def variable_description(self, int n):
        """Description of variable ``n``; empty when ``n`` is out of range."""
        self.__check_thisptr()
        cdef nimbra.ZelDataVariable* record = self.thisptr.variable(n)
        return "" if record == NULL else _str(record.description)

    def variable_type(self, int n):
        """Kind of variable ``n`` as a :class:`ZelDataVariableType`."""
        self.__check_thisptr()
        cdef nimbra.ZelDataVariable* record = self.thisptr.variable(n)
        return ZelDataVariableType(nimbra.Unknown if record == NULL else record.type)

    def grid_is_consistent(self):
        """True when every variable holds ``num_rows() * num_columns()`` values.

        A data file checks value counts against the 32-bit product of rows
        and columns only, so an AOI of 3 x 0x55555556 points (the product
        wraps to 2) loads with two values per variable. The analyses refuse
        such an AOI; code that indexes values by row and column should too.
        """
        self.__check_thisptr()
        return self.thisptr.gridIsConsistent()

    def variable_index(self, str variable):
        """Index of the first variable named ``variable``; -1 when absent."""
        self.__check_thisptr()
        return self.thisptr.variableIndex(_utf8(variable))

    def value(self, int n, int variable_index):
        """Value of point ``n`` of the variable with index ``variable_index``."""
        self.__check_thisptr()
        if n < 0 or n >= self.thisptr.matrixSize():
            raise IndexError("Index " + str(n) + " outside valid range (0, " + str(self.matrixSize()) + ")")
        cdef nimbra.ZelDataVariable* record = self.thisptr.variable(variable_index)
        if record == NULL or n >= record.count:
            raise IndexError("Variable index out of range.")
        return record.values.get()[n]

    def values(self, int n, vector[int] variable_ids):
        """Values of point ``n`` of the listed variables, in list order."""
        self.__check_thisptr()
        if n < 0 or n >= self.thisptr.matrixSize():
            raise IndexError("Index " + str(n) + " outside valid range (0, " + str(self.matrixSize()) + ")")
        cdef nimbra.ZelDataVariable* record
        result = []
        for index in variable_ids:
            record = self.thisptr.variable(index)
            if record == NULL or n >= record.count:
                raise IndexError("Variable index out of range.")
            result.append(record.values.get()[n])
        return result

    def set_value(self, int n, variable_index, float value):
        """Sets point ``n`` of a variable given by name or index."""
        self.__check_thisptr()
        if n < 0 or n >= self.thisptr.matrixSize():
            raise IndexError("Index " + str(n) + " outside valid range (0, " + str(self.matrixSize()) + ")")
        cdef nimbra.ZelDataVariable* record = self.thisptr.variable(
            _resolve_variable(self.thisptr, variable_index))
        if record == NULL or n >= record.count:
            raise IndexError("Variable index out of range.")
        record.values.get()[n] = value
        record.markChanged()

    def set_values(self, variable_index, values):
        """Replaces all values of a variable given by name or index.

        ``values`` is a sequence of numbers or a numpy array with exactly
        ``matrix_size()`` elements.
        """
        self.__check_thisptr()
        _copy_into_variable(self.thisptr, _resolve_variable(self.thisptr, variable_index), values)

    def as_array(self, variables):
        """The listed variables as a numpy structured array of float32 fields."""
        self.__check_thisptr()
        names = list(variables)
        out = np.empty(self.thisptr.matrixSize(), dtype=[(name, np.float32) for name in names])
        return _structured(self.thisptr, names, out, 0)

    def variable_view(self, variable, bint writable=True):
        """One variable's values as a float32 array of shape (rows, columns).

        The array shares memory with the AOI: no copy is made, and writing to
        it changes the dataset. It keeps the values alive on its own, so it
        stays valid (detached) even after the dataset is reloaded.
        ``variable`` is a name or an index.

        With ``writable=False`` the array is read-only for good (numpy
        refuses writes and will not make it writable). Prefer it for reading
        coordinates or the confidence between look-ups with ``use_tree``: the
        library cannot see writes through a writable view, so taking one
        counts as a change of the variable (the next look-up rebuilds its
        kd-tree), and while one is alive look-ups search without the tree.
        """
        self.__check_thisptr()
        cdef int32_t index = _resolve_variable(self.thisptr, variable)
        cdef nimbra.ZelDataVariable* record = self.thisptr.variable(index)
        if record == NULL:
            if isinstance(variable, str):
                raise ValueError("Could not find variable " + variable)
            raise IndexError("Variable index out of range.")
        rows, columns = self.thisptr.numRows(), self.thisptr.numColumns()
        if record.count == self.thisptr.matrixSize() and rows * columns == record.count:
            return _view_values(record, (rows, columns), writable)
        return _view_values(record, (record.count,), writable)

    # ---------------------------------------------------- surface analyses

    def find_minimum(self, variable_index):
        """Smallest value of a variable (name or index) and its point index.

        Only valid points (confidence >= 0) with finite values count; among
        equal values the lowest point index wins. Returns ``(value,
        point_index)``, or ``(None, None)`` when no point qualifies. An unknown
        variable raises ``ValueError("<name> is not a valid variable")``.
        """
        self.__check_thisptr()
        return _aoi_extreme(self, variable_index, False)

    def find_maximum(self, variable_index):
        """Largest value of a variable (name or index) and its point index.

        As :meth:`find_minimum`, with the largest value.
        """
        self.__check_thisptr()
        return _aoi_extreme(self, variable_index, True)

    def at_global_xy(self, double x, double y, variable_list, bint use_tree=False):
        """Values of the listed variables at the reference global position (x, y).

        (x, y) is in the reference coordinates X, Y (planar data: x_c, y_c, or
        x, y). The values are interpolated linearly (barycentrically) inside
        the triangle of the grid mesh (the triangulation at sub-sample 1) that
        contains the position; a position on a valid point gives that point's
        stored values exactly. Returns a list in the order of
        ``variable_list``, or None outside every triangle (outside the AOI,
        in a hole, next to an invalid point). Where triangles overlap the one
        first in mesh order wins, so ``use_tree`` (a kd-tree built on first
        use and kept until the AOI's coordinates, confidence or grid change)
        only changes the speed, never the answer. An unknown name raises
        ``ValueError("Could not find variable <name>")``.
        """
        self.__check_thisptr()
        return _aoi_lookup(self, x, y, variable_list, False, use_tree)

    def lookup_variables(self, double x, double y, variable_list):
        """Values of the listed variables at the reference pixel position (x, y).

        As :meth:`at_global_xy`, with (x, y) in the pixel coordinates x, y of
        the reference image; always searched through the kd-tree.
        """
        self.__check_thisptr()
        return _aoi_lookup(self, x, y, variable_list, True, True)

    def arclength(self, point_a, point_b, int steps):
        """Length of the reference surface along a straight line in global X, Y.

        The segment from ``point_a`` to ``point_b`` (each an (x, y) position
        as for :meth:`at_global_xy`) is cut into ``steps`` equal parts; the
        3-D reference position (X, Y, Z; z = 0 for planar data) is
        interpolated at the steps + 1 samples and the chord lengths are
        summed, in the coordinate unit. None when ``steps`` < 1 or any sample
        lies outside the mesh: a gap is never bridged silently.
        """
        self.__check_thisptr()
        return _aoi_arclength(self, point_a, point_b, steps)

    def _locate(self, double x, double y, bint pixel=False, bint use_tree=True):
        """First half of a look-up: where (x, y) lies in the mesh.

        Returns ``((i0, i1, i2), (w0, w1, w2))``, the point indices of the
        containing triangle's corners and the barycentric weights of the
        position (global X, Y, or pixel x, y with ``pixel``), or None. Pass the
        result to :meth:`_interpolate` of this AOI or of the same AOI of
        another dataset of the same grid.
        """
        self.__check_thisptr()
        return _aoi_locate(self, x, y, pixel, use_tree)

    def _interpolate(self, location, variable_list):
        """Second half of a look-up: the listed variables at a location from
        :meth:`_locate`, or None when a corner is not a valid point here."""
        self.__check_thisptr()
        return _aoi_interpolate(self, location, variable_list)


cdef class ZelDataSet:
    """One data file: the AOIs measured on one image pair.

    Load it with :meth:`load` (a ".out" file or "file.h5:out:N") or
    :meth:`load_from_data`, or build it with :meth:`add_aoi` and
    :meth:`add_variable`; save it with :meth:`save`.
    """
    cdef nimbra.ZelDataSet* thisptr
    cdef object _file_name
    cdef long _generation
    # Look-up trees by (AOI index, pixel space), at most two per AOI. Each
    # checks on every use that it still answers for its AOI as it is now, so
    # no change needs to reach this cache.
    cdef readonly dict _locators

    def __cinit__(self):
        self.thisptr = new nimbra.ZelDataSet()
        self._file_name = None
        self._generation = 0
        self._locators = {}

    cdef void _replace_content(self):
        # Every AOI handed out so far is about to be freed. The trees would
        # notice, but keep the old values alive until then.
        self._generation += 1
        self._locators.clear()

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

    def __is_hdf5(self, file_name):
        parts = file_name.split(":out:")
        if len(parts) == 2 and parts[0].endswith(".h5"):
            return parts
        return None

    cdef bint _decode(self, const uint8_t* data, Py_ssize_t size):
        cdef cbool ok = False
        self._replace_content()
        if size < 0 or size > 0x7FFFFFFF:
            self.thisptr.clear()
            return False
        with nogil:
            ok = self.thisptr.decode(data, <int32_t>size, False)
        return ok

    cdef bint _load_pieces(self, str path, list pieces):
        # Decodes a block stored in a file as (offset, length) pieces (a
        # member of an HDF5 file), read with pread straight into the
        # variables.
        cdef string native = os.fsencode(path)
        cdef vector[nimbra.FilePiece] native_pieces
        cdef nimbra.FilePiece piece
        cdef cbool ok = False
        for start, length in pieces:
            piece.offset = start
            piece.length = length
            native_pieces.push_back(piece)
        self._replace_content()
        with nogil:
            ok = self.thisptr.load(native, native_pieces)
        return ok

    cdef bint _reads_back(self, bytes block):
        # A structural walk of the block: one line on standard error says
        # why it would not read back.
        cdef const uint8_t* data = <const uint8_t*>PyBytes_AS_STRING(block)
        cdef int32_t size = <int32_t>len(block)
        cdef cbool ok = False
        with nogil:
            ok = self.thisptr.readsBack(data, size)
        return ok

    # ------------------------------------------------------------ files

    def load(self, str file_name):
        """Loads a ".out" file, or a dataset stored in an HDF5 file ("file.h5:out:N")."""
        self.__check_thisptr()
        parts = self.__is_hdf5(file_name)
        if parts:
            _load_hdf5_member(self, parts[0], parts[1], file_name)
            return
        cdef string path = _utf8(file_name)
        cdef cbool ok = False
        self._replace_content()
        with nogil:
            ok = self.thisptr.load(path)
        if not ok:
            raise NameError("Unable to find file: " + file_name + " or file is corrupted")
        self._file_name = file_name

    def load_from_data(self, buffer, str file_name):
        """Decodes a data file held in memory (bytes or any byte buffer)."""
        self.__check_thisptr()
        cdef const uint8_t[::1] view = buffer
        cdef Py_ssize_t size = view.shape[0]
        if size == 0 or not self._decode(&view[0], size):
            raise ValueError("Unable to decode memory buffer")
        self._file_name = file_name

    def save(self, str file_name=None):
        """Writes the dataset to a ".out" file or into an HDF5 file ("file.h5:out:N").

        Without a name the dataset's own file name is used. An existing file
        (or member) is replaced only once the new one is completely written
        and found to read back; a ".out" file keeps its permissions. A
        dataset whose data file would not read back (one without AOIs, or an
        AOI with a non-ASCII name followed by another AOI) raises OSError
        "Unable to save file: ..." and leaves the old file untouched; the line
        on standard error says why.
        """
        self.__check_thisptr()
        if file_name is None:
            file_name = self._file_name
            if file_name is None:
                raise NameError("A file name is required")
        parts = self.__is_hdf5(file_name)
        if parts:
            block = self.export_raw()
            if not self._reads_back(block):
                raise OSError("Unable to save file: " + file_name)
            _write_hdf5_member(parts[0], parts[1], block, file_name)
            return
        cdef string path = _utf8(file_name)
        cdef cbool ok = False
        with nogil:
            ok = self.thisptr.save(path)
        if not ok:
            raise OSError("Unable to save file: " + file_name)

    def export_raw(self):
        """The dataset encoded in the data file format, as bytes."""
        self.__check_thisptr()
        cdef int64_t size = self.thisptr.encodedSize()
        if size < 0:
            raise ValueError("The dataset is too large for the data file format")
        result = PyBytes_FromStringAndSize(NULL, size)
        cdef uint8_t* destination = <uint8_t*>PyBytes_AS_STRING(result)
        cdef cbool ok = False
        with nogil:
            ok = self.thisptr.encodeInto(destination, size, False)
        if not ok:
            raise ValueError("Unable to encode the dataset")
        return result

    def copy(self):
        """A new ZelDataSet holding a deep copy of this one (file name included)."""
        self.__check_thisptr()
        cdef ZelDataSet result = ZelDataSet()
        result.thisptr.assign(deref(self.thisptr))
        result._file_name = self._file_name
        return result

    def file_name(self):
        """The dataset's file name, or None when none was set."""
        return self._file_name

    def set_file_name(self, str file_name):
        """Sets the dataset's file name (used by :meth:`save` without a name)."""
        self._file_name = file_name

    def reference_image(self):
        """File name of the reference image."""
        self.__check_thisptr()
        return _str(self.thisptr.referenceImage())

    def deformed_image(self):
        """File name of the deformed image."""
        self.__check_thisptr()
        return _str(self.thisptr.deformedImage())

    def set_reference_image(self, str file_name):
        """Sets the file name of the reference image."""
        self.__check_thisptr()
        self.thisptr.setReferenceImage(_utf8(file_name))

    def set_deformed_image(self, str file_name):
        """Sets the file name of the deformed image."""
        self.__check_thisptr()
        self.thisptr.setDeformedImage(_utf8(file_name))

    # ------------------------------------------------------------- AOIs

    def num_data(self):
        """Number of AOIs."""
        self.__check_thisptr()
        return self.thisptr.numData()

    def data(self, int n):
        """The AOI with index ``n`` as a :class:`ZelData` borrowing it from this dataset."""
        self.__check_thisptr()
        if n < 0 or n >= self.thisptr.numData():
            raise IndexError("Index " + str(n) + " outside valid range (0, " + str(self.thisptr.numData()) + ")")
        cdef ZelData result = ZelData(yes_create_the_object_i_know_what_i_do=True)
        result._attach(self, n)
        return result

    def __getitem__(self, n):
        return self.data(n)

    def add_aoi(self, int rows, int columns, str name=""):
        """Appends an empty AOI with a rows x columns grid and returns it.

        Variables are then added to every AOI with :meth:`add_variable`.
        """
        self.__check_thisptr()
        if rows < 0 or columns < 0 or <int64_t>rows * columns > 0x7FFFFFFF:
            raise ValueError("Invalid grid size " + str(rows) + " x " + str(columns) + ".")
        self.thisptr.addData(rows, columns, _utf8(name))
        return self.data(self.thisptr.numData() - 1)

    def matrix_size(self):
        """Total number of grid points over all AOIs."""
        self.__check_thisptr()
        cdef int64_t total = 0
        for i in range(self.thisptr.numData()):
            total += self.thisptr.data(i).matrixSize()
        return total

    def variables(self):
        """Names of the variables of the first AOI, in index order."""
        self.__check_thisptr()
        aoi = self.data(0)
        return [aoi.variable_name(i) for i in range(aoi.num_variables())]

    def variables_descriptions(self):
        """Descriptions of the variables of the first AOI, in index order."""
        self.__check_thisptr()
        aoi = self.data(0)
        return [aoi.variable_description(i) for i in range(aoi.num_variables())]

    def variables_types(self):
        """Kinds of the variables of the first AOI, in index order."""
        self.__check_thisptr()
        aoi = self.data(0)
        return [aoi.variable_type(i) for i in range(aoi.num_variables())]

    # ----------------------------------------------------------- values

    def get_values(self, variables):
        """The listed variables of all AOIs as a numpy structured array.

        One record per grid point, AOI 0 first, each AOI's points in row-major
        order, one float32 field per name. The triangulation() function
        returns indices into this array.
        """
        self.__check_thisptr()
        names = list(variables)
        out = np.empty(self.matrix_size(), dtype=[(name, np.float32) for name in names])
        cdef Py_ssize_t start = 0
        cdef nimbra.ZelData* aoi
        for i in range(self.thisptr.numData()):
            aoi = self.thisptr.data(i)
            _structured(aoi, names, out, start)
            start += aoi.matrixSize()
        return out

    def set_values(self, variables):
        """Writes variables of all AOIs from a dict of name -> values or a structured array.

        The values are split over the AOIs in order, each taking its
        ``matrix_size()`` values.
        """
        self.__check_thisptr()
        if isinstance(variables, dict):
            items = list(variables.items())
        elif isinstance(variables, np.ndarray) and variables.dtype.names is not None:
            items = [(name, variables[name]) for name in variables.dtype.names]
        else:
            raise ValueError("Expected dict or numpy structured array.")
        cdef nimbra.ZelData* aoi
        cdef Py_ssize_t start, size
        cdef int32_t index
        for name, values in items:
            if not isinstance(values, np.ndarray):
                values = list(values)
            start = 0
            for i in range(self.thisptr.numData()):
                aoi = self.thisptr.data(i)
                index = aoi.variableIndex(_utf8(name))
                if index < 0:
                    raise ValueError("Could not find variable " + name)
                size = aoi.matrixSize()
                _copy_into_variable(aoi, index, values[start:start + size])
                start += size

    def add_variable(self, str variable_name, str variable_description,
                     variable_type=ZelDataVariableType.Unknown, vector[float] values=[]):
        """Adds a variable to every AOI and returns its name.

        The new variable is zero-filled; when ``values`` is given it holds the
        values of all AOIs in order (``matrix_size()`` of them). Names are not
        made unique.
        """
        self.__check_thisptr()
        cdef string name = _utf8(variable_name)
        cdef string description = _utf8(variable_description)
        cdef nimbra.ZelDataVariableType kind = <nimbra.ZelDataVariableType><int>variable_type.value
        cdef nimbra.ZelData* aoi
        cdef int32_t index
        cdef size_t start = 0, size
        result = variable_name
        for i in range(self.thisptr.numData()):
            aoi = self.thisptr.data(i)
            index = aoi.addVariable(kind, name, description)
            result = _str(aoi.variable(index).name)
            if values.size() > 0:
                size = <size_t>aoi.matrixSize()
                if start + size > values.size():
                    raise IndexError("Size mismatch. Matrix size is " + str(size) + " while values are "
                                     + str(values.size() - start if values.size() > start else 0) + ".")
                if size > 0:
                    memcpy(aoi.variable(index).values.get(), values.data() + start, size * sizeof(float))
                    aoi.markChanged(index)
                start += size
        return result

    def add_variables(self, variables):
        """Adds one zero-filled variable per (name, description) pair of a dict."""
        self.__check_thisptr()
        return [self.add_variable(name, description) for name, description in variables.items()]

    # ---------------------------------------------------------- analysis

    def smooth(self, str variable, int window_size=15, bint weighted=True):
        """Applies smoothing to a variable

        Every value of ``variable`` is replaced, in every grid AOI, by the
        value at the centre of a plane fitted by weighted least squares to
        the valid points (confidence >= 0) of a ``window_size`` x
        ``window_size`` window around it. The window is clipped at the grid
        border, not mirrored; a plane stays exactly unchanged.

        Args:
            variable: name of the variable (the first of that name in each
                AOI); its unit is kept.
            window_size: window width in grid points, odd (an even size
                uses the next odd one); at least 1.
            weighted: Gaussian-like weights exp(-6.283 (i**2 + j**2) / N**2)
                over the offsets i, j of a window of N points; equal weights
                when False.

        Invalid points, and points whose window holds no slope information
        (a window of 1, valid points on one line), get 0. Raises ValueError
        "Error in smooth variable." for an unknown variable, an AOI without
        a confidence variable, an AOI whose variables do not fill its grid
        (see ZelData.grid_is_consistent) or a window below 1.
        """
        self.__check_thisptr()
        _dataset_smooth(self, variable, window_size, weighted)

    def compute_strain(self, int window_size=15, tensor_type=TensorType.LagrangeStrainTensor,
                       bint compute_principal_strain=True, bint reuse_variables=True,
                       bint weighted_filter=True, bint compute_tresca=False,
                       bint compute_von_mises=False, bint output_gradient=False):
        """Computes the strain over all AOIs in the dataset.

        The strain of a valid point is the mean of the strains of the (up to
        four) triangles it forms with its valid grid neighbours, each
        triangle flattened into its own plane, so rigid motion gives no
        strain; the point values are then smoothed as :meth:`smooth` does.
        Positions and displacements are X, Y, Z and U, V, W, or the planar
        x_c, y_c / u_c, v_c, or the pixel x, y / u, v (the first complete
        set). A valid point without a usable triangle is marked invalid
        (confidence -1).

        Args:
            window_size: smoothing window in grid points, odd (an even size
                uses the next odd one); below 3 fails.
            tensor_type: a TensorType: Lagrange, Hencky, Euler-Almansi,
                logarithmic Euler, engineering or Biot strain.
            compute_principal_strain: also compute e1, e2 and gamma.
            reuse_variables: update the strain variables of these names
                that exist already; False adds a new set, whose names then
                repeat (look-ups by name reach the first).
            weighted_filter: Gaussian-like weights in the smoothing window;
                equal weights when False.
            compute_tresca: also compute e_tresca.
            compute_von_mises: also compute e_vonmises.
            output_gradient: also store the smoothed displacement gradient
                H = F - I as fxx (dx'/dx - 1), fxy (dx'/dy), fyx (dy'/dx),
                fyy (dy'/dy - 1).

        Outputs, variables of kind Strain in every grid AOI, dimensionless
        (unit [1]) unless stated:

        - exx, eyy: normal strains; exy: shear strain, the tensor component
          (half the engineering shear strain), and for EngineeringStrain the
          shear angle in radians.
        - e1, e2: major and minor principal strain (e1 >= e2).
        - gamma: angle in radians, in (-pi/2, pi/2], from the x axis to
          the direction of e1, positive towards the y axis.
        - e_tresca: the maximum shear strain, (e1 - e2) / 2 when
          e1 > 0 > e2, else the larger of e1 / 2 and -e2 / 2 (for
          EngineeringStrain with exy taken as a tensor component).
        - e_vonmises: (2/3) sqrt(e1**2 - e1 e2 + e2**2).

        Sign convention: x and y are the axes of the specimen's surface,
        with y pointing against the direction in which the grid rows
        advance (up the image, as measured grids run). With world
        coordinates whose +Y points up the image, exy is the usual
        (dU/dY + dV/dX) / 2 and gamma counts counter-clockwise from +X; with
        pixel coordinates (y down the image), or a grid whose rows advance
        along +Y, exy and gamma change sign.

        Invalid points get 0 in e1, e2, gamma, e_tresca and e_vonmises.
        Raises ValueError "Error in calculating strain." when an AOI fails
        (window below 3, no confidence variable, no complete coordinate
        set, variables that do not fill the grid); AOIs before it keep their
        results.
        """
        self.__check_thisptr()
        _dataset_compute_strain(self, window_size, tensor_type, compute_principal_strain,
                                reuse_variables, weighted_filter, compute_tresca,
                                compute_von_mises, output_gradient)

    def triangulation(self, int sub_sample=1):
        """Returns a triangulation for the dataset.

        Every grid cell whose corners are valid (confidence >= 0) gives one
        or two triangles (one when only three corners are valid), all wound
        the same way. Only grid AOIs with variables "x" and "y" and a
        confidence variable are meshed.

        Args:
            sub_sample: 1 to 4; mesh every sub_sample-th row and column
                (coarser meshes for large datasets). ValueError
                "sub_sample must be in range [1,4], got <n>" otherwise.

        Returns:
            A n-by-3 numpy array of triangle indices, where n is the number of triangles.
            The indices are uint32 indices into the records of
            :meth:`get_values` (all AOIs concatenated, AOI 0 first; point
            row * columns + column of AOI k follows the points of AOIs
            0 .. k-1).

        Raises ValueError "Error in calculating triangulation." when an AOI's
        variables do not fill its grid (see ZelData.grid_is_consistent): its
        indices, and those of every AOI after it, would be wrong.
        """
        self.__check_thisptr()
        return _dataset_triangulation(self, sub_sample)

    # ---------------------------------------------------------- geometry

    def transform(self, RigidTransformation rigid_trnasformation not None, cbool displacement_only=False):
        """Moves every AOI into the coordinate system of ``rigid_trnasformation``.

        Valid points (confidence >= 0) of AOIs with X, Y, Z get position
        R p + t, displacement R d and SIGMA_i = sum_j R_ij**4 SIGMA_j. With
        ``displacement_only`` the positions stay and the displacement becomes
        T(p + d) - p.
        """
        self.__check_thisptr()
        _transform_dataset(self, rigid_trnasformation, displacement_only)

    # -------------------------------------------------- surface analyses

    def aoi_area(self, int aoi=-1):
        """Surface area of one AOI, or of all AOIs with -1, in the coordinate unit squared.

        The sum of the areas of the triangles of the grid mesh (the
        triangulation at sub-sample 1) with the reference positions X, Y, Z
        (planar data: x_c, y_c or x, y with z = 0). None when there is no
        triangle. An index outside [0, num_data()) raises ``IndexError`` as
        :meth:`data` does.
        """
        self.__check_thisptr()
        return _dataset_aoi_area(self, aoi)

    def range(self, str variable not None):
        """``(min, max)`` of a variable over the valid points with finite values of every AOI.

        Raises ``ValueError("Error in calculating range for '<variable>'.")``
        when an AOI lacks the variable or no point qualifies.
        """
        self.__check_thisptr()
        return _dataset_range(self, variable)

    def sum_range(self, str variable_0 not None, str variable_1 not None):
        """``(min, max)`` of the point-wise sum variable_0 + variable_1 over every AOI.

        The extremes of the sum itself (not min + min): only valid points
        where both values are finite count. Raises ``ValueError("Error in
        calculating range for the sum of variables '<a>' and '<b>'.")`` when
        an AOI lacks a variable or no point qualifies.
        """
        self.__check_thisptr()
        return _dataset_sum_range(self, variable_0, variable_1)

    def at_global_xy(self, double x, double y, variable_list, bint use_tree=False):
        """Values of the listed variables at the reference global position (x, y).

        As :meth:`ZelData.at_global_xy`, searching the AOIs in index order
        (the first that contains the position answers). Every AOI must have
        the listed variables.
        """
        self.__check_thisptr()
        return _dataset_lookup(self, x, y, variable_list, False, use_tree)

    def lookup_variables(self, double x, double y, variable_list):
        """Values of the listed variables at the reference pixel position (x, y).

        As :meth:`ZelData.lookup_variables`, searching the AOIs in index order.
        """
        self.__check_thisptr()
        return _dataset_lookup(self, x, y, variable_list, True, True)

    def compute_curvature(self, int window_size=15, bint compute_principal_curvature=True,
                          bint reuse_vars=True, bint weighted_filter=True):
        """Computes the surface curvature over all AOIs in the dataset.

        For every valid point a quadric is fitted to the valid points of a
        ``window_size`` x ``window_size`` window (weighted as by
        :meth:`smooth` when ``weighted_filter``), for the reference position
        and, when U, V, W exist, the deformed position X + U. Adds (or with
        ``reuse_vars`` overwrites) variables of kind Curvature, in 1/unit of
        the coordinates: kxx, kyy, kxy (normal and twist curvature of the
        deformed surface in its local frame), kmean, kgauss (1/unit^2); with
        ``compute_principal_curvature`` k1 >= k2 and kangle (degrees from the
        local x axis to the k1 direction, in (-90, 90]); with displacements
        dkxx, dkyy, dkxy (change of curvature, deformed minus reference, in
        the reference frame; 0 under rigid motion) and dk1, dk2. A curvature
        is positive where the surface bends towards the normal
        n = dP/dcolumn x dP/drow. Invalid points and points without a
        usable fit get 0. Raises ``ValueError("Error in calculating
        curvature.")`` for a window below 3, missing confidence or
        coordinates.
        """
        self.__check_thisptr()
        _dataset_compute_curvature(self, window_size, compute_principal_curvature, reuse_vars,
                                   weighted_filter)

    def _locate(self, double x, double y, bint pixel=False, bint use_tree=True):
        """First half of a look-up, for repeated look-ups in a series.

        Returns ``((i0, i1, i2), (w0, w1, w2))``: the global point indices
        (as in :meth:`get_values`) of the corners of the triangle containing
        (x, y) (global X, Y, or pixel x, y with ``pixel``) and the position's
        barycentric weights; None outside every AOI. Locate once, then call
        :meth:`_interpolate` on every dataset of the same grid.
        """
        self.__check_thisptr()
        return _dataset_locate(self, x, y, pixel, use_tree)

    def _interpolate(self, location, variable_list):
        """Second half of a look-up: the listed variables at a location from
        :meth:`_locate` (sum of weight x value over the corners), or None when
        a corner is not a valid point in this dataset (locate again then)."""
        self.__check_thisptr()
        return _dataset_interpolate(self, location, variable_list)


def change_file_extension(str full_file_name not None, str extension not None):
    """The name of the file that belongs to a dataset name, with another extension.

    Works for plain paths and for HDF5 dataset names ("dir/run.h5:out:7" with
    ".csv" gives "dir/run-7_0.csv").
    """
    cdef nimbra.optional_string result = nimbra.changeFileExtension(_utf8(full_file_name), _utf8(extension))
    if not result.has_value():
        raise ValueError("Error in changing the extension for '" + full_file_name + "' to '" + extension + "'.")
    return _str(result.value())


def set_log_severity(int severity):
    """Sets the most verbose severity the library writes to standard error.

    0 none, 1 fatal, 2 error (the default set at import), 3 warning, 4 info,
    5 debug, 6 verbose.
    """
    if severity < 0 or severity > 6:
        raise ValueError("Log severity must be in range [0,6], got " + str(severity))
    nimbra.log_set_max_severity(<nimbra.Severity>severity)


def log_severity():
    """The most verbose severity the library currently writes."""
    return <int>nimbra.log_max_severity()


def log_error_count():
    """How many error messages the library has logged on this thread so far.

    Take it before a call and pass it to :func:`log_errors_since` after a
    failure to learn the library's own explanation (for example "Could not
    find coordinates for strain computation." behind "Error in calculating
    strain.").
    """
    return nimbra.log_thread_error_count()


def log_errors_since(count):
    """The library's error messages logged on this thread after ``count``
    (a :func:`log_error_count`), oldest first, at most the last 16.

    Kept whatever the log severity, so they are there even when standard
    error is silenced with ``set_log_severity(0)``; messages of other threads
    never appear.
    """
    cdef uint64_t mark = count
    cdef string line
    return [_str(line) for line in nimbra.log_thread_errors_since(mark)]
