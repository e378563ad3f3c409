# Finding datasets (directories, glob patterns, HDF5 files, projects), handing
# them out as ZelDataSet objects and writing them back.

# Extensions a reader source may have, tested in this order and
# case-sensitively: "x.OUT" is not a data file.
_SOURCE_EXTENSIONS = (".z3d", ".z2d", ".h5", ".out")
_PROJECT_EXTENSIONS = (".z3d", ".z2d")
_HDF5_MARK = ":out:"
_OUT_NAME = re.compile(r"^([\S]+)[\-_]([0-9]+)_([0-9])")


cdef extern from "Python.h":
    object PyUnicode_DecodeFSDefaultAndSize(const char* text, Py_ssize_t size)


cdef object _list_out_files(str directory):
    """Sorted paths of the ".out" entries of ``directory``; None when it
    cannot be read."""
    cdef string native
    cdef string suffix = b".out"
    cdef nimbra.optional_path_list listing
    cdef nimbra.PathList* paths
    cdef const char* text
    cdef size_t i, begin = 0
    cdef list result
    if os.name != "posix":
        # Native paths are wide there; the names come from Python instead.
        try:
            names = [name for name in os.listdir(directory) if name.endswith(".out")]
        except OSError:
            return None
        names.sort()
        prefix = os.path.join(directory, "")
        return [prefix + name for name in names]
    native = os.fsencode(directory)
    with nogil:
        listing = nimbra.listDirectory(native, suffix)
    if not listing.has_value():
        return None
    paths = &listing.value()
    text = paths.text.c_str()
    result = [None] * paths.ends.size()
    for i in range(paths.ends.size()):
        result[i] = PyUnicode_DecodeFSDefaultAndSize(text + begin, paths.ends[i] - begin)
        begin = paths.ends[i]
    # The library sorts by bytes, which is the order of the decoded strings
    # except for undecodable bytes (mapped to surrogates); a sort of an
    # already sorted list costs one comparison per name.
    result.sort()
    return result


def _load_dataset(str name):
    dataset = ZelDataSet()
    dataset.load(name)
    return dataset


def _dataset_bytes(str name):
    """The stored bytes of the dataset ``name`` (a ".out" file or
    "file.h5:out:N"): what its load decodes, read with the same checks and
    failing with the same errors, for code that sends the encoded dataset
    to a process that cannot read the file (ZelDataSet.load_from_data)."""
    parts = name.split(":out:")
    if len(parts) == 2 and parts[0].endswith(".h5"):
        return _hdf5_member_bytes(parts[0], parts[1])
    import stat
    try:
        with open(name, "rb") as stream:
            info = os.fstat(stream.fileno())
            # As a load: a regular file, of at most what the format addresses.
            if stat.S_ISREG(info.st_mode) and info.st_size <= _MAX_BLOCK:
                block = stream.read(_MAX_BLOCK + 1)
                if len(block) <= _MAX_BLOCK:
                    return block
    except OSError:
        pass
    raise NameError("Unable to find file: " + name + " or file is corrupted")


def _hdf5_open_failure(str path, bint read_only, bint opened, exc):
    """Why the reader could not list the HDF5 file ``path``, in one line."""
    if opened:
        return str(exc) if isinstance(exc, ValueError) else "The group 'out' cannot be listed."
    if not read_only:
        # Opened for writing; when it opens for reading, being write-protected
        # or open elsewhere is what stood in the way.
        try:
            _h5py().File(path, "r").close()
        except Exception:
            pass
        else:
            return ("The file must be writable and not open in another program: the reader "
                    "opens HDF5 files for writing (read_only=True only reads them).")
    return "The file cannot be read: " + re.sub(r"^\[Errno \d+\] ", "", str(exc))


def _project_data_files(str project):
    """The data-file entries of a project archive (".z3d" or ".z2d")."""
    if not os.path.isfile(project):
        raise FileNotFoundError(project)
    if project.endswith(".z3d"):
        return ProjectFile(project).get_data_files()
    # Planar projects use the same archive layout; ProjectFile itself only
    # accepts the stereo extension, so read the tree here.
    project_file = ProjectFile()
    project_file.root = _read_project_root(project)
    project_file.project_file = project
    return project_file.get_data_files()


class ZelDataSetReader:
    """The datasets of one source, loaded on demand.

    ``source`` is a directory (every ".out" file in it), a ".out" file, an
    HDF5 file with a group "out", a project (".z3d"/".z2d"), a glob pattern,
    or a list/tuple of these. ``dataset_list`` holds the dataset names sorted
    as plain strings; ``reader[i]`` and ``for dataset in reader`` decode the
    datasets one at a time (nothing is cached).
    """

    def __init__(self, source, *, read_only=False):
        """``read_only`` opens an HDF5 source (or the HDF5 file a project
        names) for reading only, see :meth:`load_from_hdf5`."""
        self.__reset()
        if isinstance(source, (str, os.PathLike)):
            source = [source]
        files = []
        for entry in source:
            entry = os.fspath(entry)
            if os.path.isfile(entry):
                if os.path.splitext(entry)[1] in _SOURCE_EXTENSIONS:
                    files.append(entry)
            elif os.path.isdir(entry):
                files.append(entry)
            else:
                for match in glob.glob(entry):
                    if (os.path.splitext(match)[1] in _SOURCE_EXTENSIONS
                            and not os.path.isdir(match)):
                        files.append(match)
        if len(files) == 1:
            path = os.path.abspath(files[0])
            if os.path.isdir(path):
                self.load_from_directory(path)
            else:
                extension = os.path.splitext(path)[1]
                if extension in _PROJECT_EXTENSIONS:
                    self.load_from_project(path, read_only=read_only)
                elif extension == ".h5":
                    self.load_from_hdf5(path, read_only=read_only)
                elif extension == ".out":
                    self.dataset_list.append(path)
                else:
                    raise NameError("Unknown file type: " + path)
        elif len(files) > 1:
            # Several entries are taken as they are: nothing is opened or
            # expanded until a dataset is asked for.
            self.out_directory = os.path.dirname(files[0])
            self.dataset_list = files
            self.dataset_list.sort()
        else:
            self.__reset()
            raise ValueError("Cannot find any valid files")

    def load_from_directory(self, str directory not None):
        """List every ".out" file of ``directory`` (no subdirectories)."""
        self.__reset()
        if not os.path.exists(directory):
            self.__reset()
            raise NameError("Cannot find path '" + directory + "'.")
        self.out_directory = os.path.abspath(directory)
        # A file, or a directory we may not read, has nothing to list either.
        paths = _list_out_files(self.out_directory) if os.path.isdir(self.out_directory) else None
        if paths is None:
            self.__reset()
            raise NameError("Cannot find path '" + directory + "'.")
        self.dataset_list = paths

    def load_from_hdf5(self, str h5_file_name not None, *, read_only=False):
        """List the members of the group "out" of an HDF5 file.

        The file is opened read-write so that a read-only or locked file is
        reported here rather than on the first write-back. With ``read_only``
        it is opened for reading only, so a write-protected file or one that
        another program has open can be listed and read (writing back then
        fails when it is tried). A failure raises NameError "Cannot open
        <name>." with a note saying why.
        """
        self.__reset()
        opened = False
        try:
            with _h5py().File(h5_file_name, "r" if read_only else "r+") as h5_file:
                opened = True
                if "out" not in h5_file.keys():
                    raise ValueError(h5_file_name + " does not contain an 'out' group.")
                self.h5_file_path = os.path.abspath(h5_file_name)
                prefix = self.h5_file_path + _HDF5_MARK
                self.dataset_list = [prefix + key for key in _hdf5_keys(h5_file["out"])]
                self.dataset_list.sort()
        except Exception as exc:
            self.__reset()
            error = NameError("Cannot open " + h5_file_name + ".")
            _add_note(error, _hdf5_open_failure(h5_file_name, read_only, opened, exc))
            raise error from None

    def load_from_project(self, str project not None, *, read_only=False):
        """List the datasets a project names that exist on disk.

        Relative data-file entries are taken from the directory of the project
        archive. Entries pointing into an HDF5 file are looked up in that file
        (the file of the first entry); plain ".out" entries in the directories
        they name. Entries missing on disk are dropped.
        """
        self.__reset()
        try:
            project_path = os.path.abspath(project)
            entries = _project_data_files(project)
        except Exception:
            raise ValueError("Could not process " + project)
        base = os.path.dirname(project_path)

        if entries and ".h5" + _HDF5_MARK in entries[0]:
            position = entries[0].find(_HDF5_MARK)
            h5_path = os.path.abspath(os.path.join(base, entries[0][:position]))
            wanted = set()
            for entry in entries:
                position = entry.find(_HDF5_MARK)
                if (position >= 0 and
                        os.path.abspath(os.path.join(base, entry[:position])) == h5_path):
                    wanted.add(h5_path + entry[position:])
            self.load_from_hdf5(h5_path, read_only=read_only)
            self.dataset_list = sorted(wanted.intersection(self.dataset_list))
            return

        paths = [os.path.abspath(os.path.join(base, entry)) for entry in entries]
        directory = os.path.dirname(paths[0]) if paths else base
        self.load_from_directory(directory)
        found = set(self.dataset_list)
        # Entries may be spread over several directories; each is listed once.
        for other in {os.path.dirname(path) for path in paths} - {directory}:
            try:
                prefix = os.path.join(other, "")
                found.update(prefix + name for name in os.listdir(other) if name.endswith(".out"))
            except OSError:
                pass
        self.dataset_list = sorted(found.intersection(paths))

    def dataset(self, str dataset_name not None):
        """A new ZelDataSet loaded from ``dataset_name``, which must be one of
        ``dataset_list``."""
        if dataset_name not in self.dataset_list:
            raise ValueError(dataset_name + " not in dataset")
        return _load_dataset(dataset_name)

    def __getitem__(self, idx):
        # The name comes from the list itself, so the membership test of
        # dataset() (linear in the list) is skipped.
        return _load_dataset(self.dataset_list[idx])

    def __len__(self):
        return len(self.dataset_list)

    def get_dataset_list(self):
        """``dataset_list`` itself (not a copy)."""
        return self.dataset_list

    def get_data_source(self):
        """The HDF5 file or the directory the datasets come from, or None."""
        if self.h5_file_path:
            return self.h5_file_path
        if self.out_directory:
            return self.out_directory
        return None

    def __reset(self):
        self.out_directory = None
        self.h5_file_path = None
        self.dataset_list = []


class ZelDataSetWriter:
    """Writes datasets to a directory (".out" files) or into the group "out"
    of an HDF5 file, optionally with a name prefix.

    A dataset named ``.../plate-0012_0.out`` or ``.../run.h5:out:0012`` is
    written as ``<dir>/[<prefix>_]plate-0012_0.out`` or
    ``[<prefix>_]<file>.h5:out:0012``.
    """

    def __init__(self, reader=None, output_dest=None, output_prefix=None):
        """Apply, in this order and each only when given: ``output_dest``,
        ``reader`` (its source becomes the destination), ``output_prefix``."""
        self.reset()
        if output_dest is not None:
            self.set_output(output_dest)
        if reader is not None:
            self.set_reader(reader)
        if output_prefix is not None:
            self.set_output_prefix(output_prefix)

    def reset(self):
        """Forget destination and prefix."""
        self.output_dest = None
        self.output_prefix = None
        self.dest_is_h5 = False

    def set_output(self, output_dest):
        """Write to the existing directory ``output_dest`` or into the HDF5
        file ``output_dest`` (".h5", created on the first save if needed)."""
        output_dest = os.fspath(output_dest)
        if os.path.isdir(output_dest):
            self.output_dest = os.path.abspath(output_dest)
            self.dest_is_h5 = False
            return
        if os.path.splitext(output_dest)[1] != ".h5":
            raise AttributeError("Only HDF5 files and directories can be used as output destination")
        self.output_dest = os.path.abspath(output_dest)
        self.dest_is_h5 = True
        self.__update_h5_destination()

    def set_output_prefix(self, output_prefix):
        """Prefix the output names with ``output_prefix`` + "_" (None: none).

        For an HDF5 destination the prefix goes onto the file name, and it is
        applied to the current name each time: prefix "a" then "b" gives
        "b_a_run.h5".
        """
        self.output_prefix = output_prefix
        self.__update_h5_destination()

    def set_reader(self, reader):
        """Write back to the source of ``reader`` (its directory or HDF5 file)."""
        if reader.out_directory:
            self.output_dest = reader.out_directory
            self.dest_is_h5 = False
        elif reader.h5_file_path:
            self.output_dest = reader.h5_file_path
            self.dest_is_h5 = True
            self.__update_h5_destination()
        else:
            raise AttributeError("ZelDatasetReader needs to be initialized")

    def save(self, data):
        """Write the dataset ``data`` under the name derived from its own file
        name."""
        file_name = data.file_name()
        if not file_name:
            raise NameError("A filename is required")
        parts = self.__is_hdf5(file_name)
        if parts:
            file = os.path.basename(os.path.splitext(parts[0])[0])
            index = parts[1]
        else:
            match = _OUT_NAME.findall(file_name)
            if len(match) == 1 and len(match[0]) == 3:
                file = os.path.basename(match[0][0])
                index = match[0][1]
        # A name that fits neither form leaves file/index unassigned; the
        # resulting UnboundLocalError is what callers of this version see.
        if self.dest_is_h5:
            output_name = self.output_dest + _HDF5_MARK + index
        elif self.output_prefix:
            output_name = os.path.join(self.output_dest,
                                       self.output_prefix + "_" + file + "-" + index + "_0.out")
        else:
            output_name = os.path.join(self.output_dest, file + "-" + index + "_0.out")
        try:
            data.save(output_name)
        except Exception:
            raise OSError("Unable to save file: " + output_name)

    def __is_hdf5(self, file_name):
        parts = file_name.split(_HDF5_MARK)
        if len(parts) == 2 and parts[0].endswith(".h5"):
            return parts
        return None

    def __update_h5_destination(self):
        if self.dest_is_h5 and self.output_prefix is not None:
            self.output_dest = os.path.join(os.path.dirname(self.output_dest),
                                            self.output_prefix + "_"
                                            + os.path.basename(self.output_dest))


class ZelDataSetIO:
    """A reader and a writer paired: by default datasets are written back to
    where they were read from (set_output changes that)."""

    def __init__(self, source):
        self.set_reader(ZelDataSetReader(source))

    def set_reader(self, reader):
        """Read from ``reader`` and write back to its source."""
        self.dataset_reader = reader
        self.dataset_writer = ZelDataSetWriter(reader=reader)

    def __getitem__(self, idx):
        names = self.dataset_reader.get_dataset_list()
        if idx >= len(names):
            raise IndexError
        return _load_dataset(names[idx])

    def __len__(self):
        return len(self.dataset_reader.get_dataset_list())

    def reset(self):
        """Kept as in earlier releases: the reader's reset is looked up under
        this class's private name, which the reader does not have, so this
        raises AttributeError and the writer is not reset."""
        self.dataset_reader.__reset()
        self.dataset_writer.reset()

    # ------------------------------------------------------------ reading

    def get_dataset_list(self):
        return self.dataset_reader.get_dataset_list()

    def load_from_hdf5(self, h5_file_name):
        return self.dataset_reader.load_from_hdf5(h5_file_name)

    def load_from_directory(self, directory):
        return self.dataset_reader.load_from_directory(directory)

    def load_from_project(self, project):
        return self.dataset_reader.load_from_project(project)

    def dataset(self, dataset_name):
        return self.dataset_reader.dataset(dataset_name)

    def get_data_source(self):
        return self.dataset_reader.get_data_source()

    # ------------------------------------------------------------ writing

    def set_output(self, output_dest):
        return self.dataset_writer.set_output(output_dest)

    def set_output_prefix(self, output_prefix):
        return self.dataset_writer.set_output_prefix(output_prefix)

    def save(self, data):
        return self.dataset_writer.save(data)
