# Analyses of a dataset: smoothing, strain and triangulation. The ZelDataSet
# methods are thin; the work happens here with the GIL released.


cdef _dataset_smooth(ZelDataSet dataset, str variable, int window_size, bint weighted):
    cdef string name = _utf8(variable)
    cdef cbool ok = False
    with nogil:
        ok = nimbra.smoothVariable(deref(dataset.thisptr), name, window_size, weighted, NULL)
    if not ok:
        raise ValueError("Error in smooth variable.")


cdef _dataset_compute_strain(ZelDataSet dataset, int window_size, tensor_type,
                             bint principal, bint reuse, bint weighted, bint tresca,
                             bint von_mises, bint gradient):
    # Converting .value to the library enum raises OverflowError
    # "value too large to convert to enum nimbra::TensorType" for values
    # outside its 32-bit range; other unknown values mean Lagrange.
    cdef nimbra.TensorType kind = tensor_type.value
    cdef cbool ok = False
    with nogil:
        ok = nimbra.computeStrain(deref(dataset.thisptr), window_size, principal, reuse,
                                  weighted, kind, tresca, von_mises, gradient, False, NULL,
                                  False)
    if not ok:
        raise ValueError("Error in calculating strain.")


cdef _dataset_triangulation(ZelDataSet dataset, int sub_sample):
    if sub_sample < 1 or sub_sample > 4:
        raise ValueError("sub_sample must be in range [1,4], got " + str(sub_sample))
    cdef nimbra.GridTriangulation* mesh = NULL
    cdef uint32_t* destination
    with nogil:
        mesh = new nimbra.GridTriangulation(deref(dataset.thisptr), sub_sample, 0)
    try:
        if not mesh.valid():
            raise ValueError("Error in calculating triangulation.")
        # uint32, the library's own index type: it holds every global index
        # and keeps the array half the size of int64 ones.
        result = np.empty((mesh.size(), 3), dtype=np.uint32)
        destination = <uint32_t*>cnp.PyArray_DATA(result)
        with nogil:
            mesh.write(destination)
    finally:
        del mesh
    return result


def _analysis_workers():
    """Worker threads the threaded analyses start (for tests and benchmarks)."""
    return nimbra.analysisWorkerCount()


def _set_analysis_workers(int count):
    """Forces the worker count of the threaded analyses; 0 restores one per
    hardware thread. Returns the previous setting (0 when none was forced)."""
    return nimbra.setAnalysisWorkerCount(count)


def _smooth_channels(channels, confidence, int window_size, bint weighted=True,
                     int workers=0, out=None):
    """Runs the multi-channel smoother on (channels, rows, columns) float32 data.

    Returns ``out`` (a copy of ``channels`` when not given): values of invalid
    points and of points without a defined fit keep what ``out`` held.
    """
    cdef cnp.ndarray src = np.ascontiguousarray(channels, dtype=np.float32)
    cdef cnp.ndarray conf = np.ascontiguousarray(confidence, dtype=np.float32)
    if src.ndim != 3 or conf.ndim != 2 or src.shape[1] != conf.shape[0] \
            or src.shape[2] != conf.shape[1]:
        raise ValueError("Expected channels of shape (n, rows, columns) and confidence (rows, columns).")
    if window_size < 1 or window_size % 2 == 0:
        raise ValueError("window_size must be odd and positive, got " + str(window_size))
    if out is None:
        out = src.copy()
    cdef cnp.ndarray dst = out
    if dst.dtype != np.float32 or not dst.flags.c_contiguous or dst.shape[0] != src.shape[0] \
            or dst.shape[1] != src.shape[1] or dst.shape[2] != src.shape[2]:
        raise ValueError("out must be a C-contiguous float32 array shaped like channels.")
    cdef int rows = <int>src.shape[1]
    cdef int columns = <int>src.shape[2]
    cdef Py_ssize_t plane = <Py_ssize_t>rows * columns
    cdef vector[float*] outputs
    cdef vector[const float*] inputs
    cdef float* dst_data = <float*>cnp.PyArray_DATA(dst)
    cdef float* src_data = <float*>cnp.PyArray_DATA(src)
    cdef Py_ssize_t k
    for k in range(src.shape[0]):
        outputs.push_back(dst_data + k * plane)
        inputs.push_back(src_data + k * plane)
    cdef const float* conf_data = <const float*>cnp.PyArray_DATA(conf)
    with nogil:
        nimbra.smoothChannels(outputs, inputs, conf_data, columns, rows, window_size, weighted,
                              workers)
    return out
