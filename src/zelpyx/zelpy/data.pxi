# ZelData and ZelDataSet: the Python faces of one AOI and one data file.

cdef class ZelDataSet:
    """One data file: the AOIs measured on one image pair."""
    cdef nimbra.ZelDataSet* thisptr
    cdef object _file_name

    def __cinit__(self):
        self.thisptr = new nimbra.ZelDataSet()
        self._file_name = None

    def __dealloc__(self):
        del self.thisptr
        self.thisptr = NULL

    def __check_thisptr(self):
        if self.thisptr == NULL:
            raise ValueError("C++ object pointer for " + type(self).__name__
                             + " has not been initialized properly.")

    # ---------------------------------------------------------- analysis

    # ---------------------------------------------------------- geometry
