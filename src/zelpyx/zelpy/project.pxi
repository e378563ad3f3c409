# ProjectFile: the project archive (a ZIP holding "project.xml") of the
# measurement application, edited through its XML tree.

import numbers as _numbers


cdef object _etree_module = None


cdef object _etree():
    # lxml is imported on first use, like h5py: scripts that never touch a
    # project should not pay for it at import.
    global _etree_module
    if _etree_module is None:
        from lxml import etree
        _etree_module = etree
    return _etree_module


_PROJECT_EXTENSION = ".z3d"
_PROJECT_MEMBER = "project.xml"
_ANALOG_CSV_TYPE = "mirolet"
_ARCHIVE_MEMBER_PREFIX = "prj:"
# The most a project may expand to when read: what its archive declares and
# what the compressed data actually yields are both held to these. Real
# projects stay far below; a hostile archive of a few hundred bytes could
# otherwise claim gigabytes.
_PROJECT_XML_LIMIT = 256 * 1024 * 1024
_ANALOG_CSV_LIMIT = 1024 * 1024 * 1024


def _project_xml_parser():
    # Project archives come from anywhere (mail, shared drives), so their XML
    # must never make us fetch URLs, read local files through external
    # entities or load a DTD. A parser per call: lxml parsers are not meant
    # to be shared between threads.
    return _etree().XMLParser(remove_blank_text=True, resolve_entities=False,
                           no_network=True, load_dtd=False)


def _read_project_root(str source not None):
    """Root element of the "project.xml" member of the archive ``source``.

    Raises whatever zipfile or lxml raise, and ValueError for a member that
    expands beyond ``_PROJECT_XML_LIMIT``; callers turn that into their own
    message.
    """
    parser = _project_xml_parser()
    # Fed step by step: the text is never held whole beside its tree.
    with _ArchiveMember(source, _PROJECT_MEMBER, _PROJECT_XML_LIMIT) as member:
        while True:
            chunk = member.read(_MEMBER_STEP)
            if not chunk:
                break
            parser.feed(chunk)
    return parser.close()


def _replace_file(str target, write):
    """Write a file through ``write(binary_file)`` and put it in place of
    ``target`` only once it is complete.

    The data goes to a temporary file in the target's directory (same file
    system, so the final rename is atomic); a failure on the way removes the
    temporary file and leaves an existing ``target`` untouched.
    """
    target = os.path.abspath(target)
    directory, base = os.path.split(target)
    flags = os.O_WRONLY | os.O_CREAT | os.O_EXCL | getattr(os, "O_BINARY", 0)
    while True:
        temporary = os.path.join(directory, "." + base + "." + os.urandom(6).hex() + ".tmp")
        try:
            # 0o666 lets the umask decide the permissions, as for a plain open().
            fd = os.open(temporary, flags, 0o666)
            break
        except FileExistsError:
            continue
    try:
        with os.fdopen(fd, "wb") as stream:
            write(stream)
            stream.flush()
            os.fsync(stream.fileno())
        try:
            os.chmod(temporary, os.stat(target).st_mode & 0o7777)
        except FileNotFoundError:
            pass
        os.replace(temporary, target)
    except BaseException:
        try:
            os.unlink(temporary)
        except OSError:
            pass
        raise


def _numbers_text(values):
    return " ".join("{}".format(value) for value in values)


class ProjectFile:
    """A project archive (".z3d"): a ZIP file whose member "project.xml" holds
    the whole project.

    The parsed tree is kept in ``root``; the methods read and edit the data
    files, images, start points with their guesses, AOI polygon masks and the
    analog-data CSV. Nothing is written to disk before :meth:`save_project`.
    """

    def __init__(self, source=None):
        """Without ``source`` the object is empty. An existing ".z3d" archive
        is loaded; a name that does not exist yet starts a new project in
        memory."""
        self.root = None
        self.project_file = None
        self.startpoint_list = None
        if source is None:
            return
        if not source.endswith(_PROJECT_EXTENSION):
            raise ValueError(source + " is not a valid Zel3D project file.")
        if os.path.exists(source):
            self.load(source)
        else:
            self.create_project_file(source)

    # ------------------------------------------------------------ lifecycle

    def load(self, str source not None):
        """Read the project archive ``source``; a failure leaves the object
        empty. A "project.xml" that declares or expands to more than 256 MiB
        is refused like any unreadable archive."""
        self.reset()
        if not source.endswith(_PROJECT_EXTENSION):
            raise ValueError(source + " is not a valid Zel3D project file.")
        try:
            root = _read_project_root(source)
        except Exception:
            raise ValueError("Could not process " + source)
        self.root = root
        self.project_file = source

    def save_project(self, file_name=None):
        """Write the project as the only member "project.xml" of the archive
        ``file_name`` (default: the project's own file); ".z3d" is appended
        when missing. An existing archive is replaced only once the new one is
        complete."""
        self.__check_root()
        target = file_name or self.project_file
        if not target:
            raise AttributeError("Project file is not initialized")
        if not target.endswith(_PROJECT_EXTENSION):
            target += _PROJECT_EXTENSION
        text = _etree().tostring(self.root, encoding="utf-8", xml_declaration=True,
                              pretty_print=True, doctype="<!DOCTYPE tqml>").decode("utf-8")

        def write(stream):
            with zipfile.ZipFile(stream, "w") as archive:
                archive.writestr(_PROJECT_MEMBER, text)

        _replace_file(target, write)

    def create_project_file(self, str file_name not None, project_directory=None):
        """Start a new, empty project in memory named ``file_name``; its
        directory is ``project_directory`` or else the directory of
        ``file_name``, made absolute."""
        self.reset()
        self.set_project_file_name(file_name)
        root = _etree().Element("project")
        root.set("structure_version", "2")
        root.set("activeWorkspace", "main")
        if project_directory is not None:
            root.set("dir", os.path.abspath(project_directory))
        else:
            root.set("dir", os.path.dirname(os.path.abspath(file_name)))
        self.root = root

    def set_project_file_name(self, str file_name not None):
        """Set the archive name used by :meth:`save_project`; it must end in
        ".z3d"."""
        if os.path.splitext(file_name)[1] != _PROJECT_EXTENSION:
            raise ValueError(file_name + " is not a valid Zel3D project file.")
        self.project_file = file_name

    def reset(self):
        """Forget the project: the object becomes empty."""
        self.root = None
        self.project_file = None
        self.startpoint_list = None

    def is_empty(self):
        """True when no project is held."""
        return self.root is None

    # ------------------------------------------------------ files and images

    def get_data_files(self):
        """The data-file paths of the project, in document order."""
        self.__check_root()
        if self.root.find("files") is None:
            return []
        return ["".join(element.itertext()) for element in self.root.xpath("//files/datafile")]

    def set_data_files(self, list data_files not None):
        """Replace the project's data files by ``data_files``."""
        self.__set_file_list("datafile", data_files)

    def get_deformed_images(self):
        """The deformed-image paths of the project, in document order."""
        self.__check_root()
        if self.root.find("files") is None:
            return []
        return ["".join(element.itertext()) for element in self.root.xpath("//files/deformed")]

    def set_deformed_images(self, list deformed_images not None):
        """Replace the project's deformed images by ``deformed_images``."""
        self.__set_file_list("deformed", deformed_images)

    def get_reference_image(self):
        """The reference image, or None when the project has none."""
        self.__check_root()
        if self.root.find("files/reference") is None:
            return None
        texts = self.root.xpath("//files/reference/text()")
        # An empty element is treated like a missing one: there is no image.
        return str(texts[0]) if texts else None

    def set_reference_image(self, str reference_image not None):
        """Set the reference image."""
        self.__check_root()
        files = self.__files()
        reference = files.find("reference")
        if reference is None:
            reference = _etree().SubElement(files, "reference")
        reference.text = reference_image

    # ----------------------------------------------------------- calibration

    def get_project_calibration(self):
        """The project's stereo calibration as a new ProjectCalibration (empty,
        ``is_valid()`` False, when the project has none)."""
        self.__check_root()
        calibration = ProjectCalibration()
        calibration.read_calibration(self.root)
        return calibration

    def set_project_calibration(self, ProjectCalibration project_calibration not None):
        """Store ``project_calibration`` as the project's calibration element,
        replacing the one it had."""
        self.__check_root()
        project_calibration.write_calibration(self.root)

    # ---------------------------------------------------------- start points

    def get_startpoints(self):
        """The names of the project's start points, in document order; also
        becomes ``startpoint_list``."""
        self.__check_root()
        self.startpoint_list = self.__stored_startpoints()
        return self.startpoint_list

    def add_startpoint(self):
        """Reserve and return a new start-point name "startpoint_<n>" (the
        lowest free n). The element is written by the first guess set for it."""
        self.__check_root()
        if self.startpoint_list is None:
            self.get_startpoints()
        n = 0
        while "startpoint_" + str(n) in self.startpoint_list:
            n += 1
        name = "startpoint_" + str(n)
        self.startpoint_list.append(name)
        return name

    def set_startpoint_guess(self, str start_point not None, str image_name not None,
                             position, du, dv):
        """Set the guess of ``start_point`` on the image ``image_name``: the
        point ``position`` (x, y) and the displacement gradients ``du`` and
        ``dv``, two numbers each. A guess on the reference image is of type
        "ref", any other of type "user"."""
        self.__check_root()
        for name, value in (("position", position), ("du", du), ("dv", dv)):
            if (not isinstance(value, (tuple, list)) or len(value) != 2
                    or not all(isinstance(v, _numbers.Real) and not isinstance(v, bool)
                               for v in value)):
                raise TypeError(name + " must be a tuple or list of size 2")
        reference = self.get_reference_image()
        if reference is None:
            raise AttributeError("The project does not have a reference image")
        known = self.__stored_startpoints()
        if start_point not in known and (self.startpoint_list is None
                                         or start_point not in self.startpoint_list):
            raise AttributeError("The startpoint is not in the project. Use add_startpoint first")
        directory = self.root.get("dir")
        if directory is None:
            raise ValueError("Project does not contain directory parameter.")
        # Images are compared by their path relative to the project; absolute
        # names stay as they are under os.path.join.
        reference_path = os.path.join(directory, reference)
        image_path = os.path.join(directory, image_name)

        aois = self.__project_aois()
        startpoint = None
        for element in aois.findall("startpoint"):
            if element.get("lri") == start_point:
                startpoint = element
                break
        if startpoint is None:
            startpoint = _etree().SubElement(aois, "startpoint")
            startpoint.set("lri", start_point)
            startpoint.set("ref_img", reference_path)
        guess = None
        for element in startpoint.findall("guess"):
            if element.get("img") == image_path:
                guess = element
                break
        if guess is None:
            guess = _etree().SubElement(startpoint, "guess")
            guess.set("img", image_path)
        guess.set("score", "-1")
        guess.set("type", "ref" if os.path.normpath(image_path) == os.path.normpath(reference_path)
                  else "user")
        guess.text = _numbers_text(list(position) + list(du) + list(dv))

    # ------------------------------------------------------------ AOI masks

    def get_aoi_polygon_masks(self):
        """The AOI polygons of the project, in document order. Each polygon
        gets a ``cutouts`` list of its own."""
        self.__check_root()
        masks = []
        if self.root.find("projectaois/aoinode/polygonmask/polygon") is None:
            return masks
        for element in self.root.xpath("//projectaois/aoinode/polygonmask/polygon"):
            polygon = AOIPolygon()
            # Holes read from a project belong to their own polygon, never to
            # the list shared by the class.
            polygon.cutouts = []
            subset_size = element.get("subsetsize")
            if subset_size is not None:
                polygon.set_subset_size(int(subset_size))
            step_size = element.get("stepsize")
            if step_size is not None:
                polygon.set_step_size(int(step_size))
            outline = element.xpath("./outline/text()")
            polygon.set_outline(list(map(float, outline[0].split())) if outline else [])
            for cutout in element.xpath("./cutout"):
                text = cutout.xpath("./text()")
                polygon.add_cutout(list(map(float, text[0].split())) if text else [])
            masks.append(polygon)
        return masks

    def set_aoi_polygon_masks(self, list masks not None, width, height):
        """Store ``masks`` (AOIPolygon objects) as the AOI mask of the
        reference image, an image of ``width`` x ``height`` pixels. A mask
        stored earlier is replaced."""
        self.__check_root()
        width = _int_argument(width, "width")
        height = _int_argument(height, "height")
        reference = self.get_reference_image()
        if reference is None:
            raise AttributeError("The project does not have a reference image")
        aois = self.__project_aois()
        node = aois.find("aoinode")
        if node is None:
            node = _etree().SubElement(aois, "aoinode")
            node.set("lri", "aoinode")
            node.set("img", reference)
        for old in node.findall("polygonmask"):
            node.remove(old)
        mask_element = _etree().SubElement(node, "polygonmask")
        mask_element.set("lri", "polygonmask")
        mask_element.set("width", str(width))
        mask_element.set("height", str(height))
        for mask in masks:
            polygon = _etree().SubElement(mask_element, "polygon")
            polygon.set("stepsize", str(mask.step_size))
            polygon.set("height", "7")
            polygon.set("selected", "false")
            polygon.set("subsetsize", str(mask.subset_size))
            outline = _etree().SubElement(polygon, "outline")
            outline.text = _numbers_text(mask.outline or [])
            for cutout in mask.cutouts:
                _etree().SubElement(polygon, "cutout").text = _numbers_text(cutout)

    # ----------------------------------------------------------- analog data

    def get_analog_data_csv(self):
        """The analog-data CSV of the project as a dict: "header" holds the
        field names, and each field name the list of that column's values (as
        text), in row order. A CSV of more than 1 GiB (as declared in the
        archive or as read) is refused with "Could not process …"."""
        self.__check_root()
        if self.project_file is None:
            raise AttributeError("Project file is not initialized")
        try:
            name = None
            for element in self.root.xpath("//files/csvfile"):
                if element.get("type") == _ANALOG_CSV_TYPE:
                    name = "".join(element.itertext())
                    break
            if name.startswith(_ARCHIVE_MEMBER_PREFIX):
                raw = _ArchiveMember(self.project_file, name[len(_ARCHIVE_MEMBER_PREFIX):],
                                     _ANALOG_CSV_LIMIT)
            else:
                # Not stored in the archive: a file on disk, relative names
                # taken from the archive's directory, held to the same limit.
                path = os.path.join(os.path.dirname(os.path.abspath(self.project_file)), name)
                raw = _LimitedFile(open(path, "rb", buffering=0), _ANALOG_CSV_LIMIT)
            with io.TextIOWrapper(io.BufferedReader(raw, _MEMBER_READ), encoding="utf-8",
                                  newline="") as stream:
                return _read_columns(stream)
        except Exception:
            raise ValueError("Could not process " + self.project_file)

    # ------------------------------------------------------------- private

    def __check_root(self):
        if self.root is None:
            raise AttributeError("ProjectFile is not initialized")

    def __files(self):
        files = self.root.find("files")
        if files is None:
            files = _etree().SubElement(self.root, "files")
            files.set("lri", "files")
        return files

    def __project_aois(self):
        aois = self.root.find("projectaois")
        if aois is None:
            aois = _etree().SubElement(self.root, "projectaois")
            aois.set("lri", "projectaois")
        return aois

    def __stored_startpoints(self):
        if self.root.find("projectaois/startpoint") is None:
            return []
        return [element.get("lri") for element in self.root.xpath("//projectaois/startpoint")]

    def __set_file_list(self, str tag, list entries):
        self.__check_root()
        files = self.__files()
        for element in self.root.xpath("//files/" + tag):
            element.getparent().remove(element)
        for entry in entries:
            _etree().SubElement(files, tag).text = entry


def _read_columns(stream):
    reader = csv.DictReader(stream)
    header = reader.fieldnames
    columns = {name: [] for name in header}
    for row in reader:
        for name in header:
            columns[name].append(row[name])
    result = {"header": header}
    result.update(columns)
    return result
