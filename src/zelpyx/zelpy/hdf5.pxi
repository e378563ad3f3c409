# HDF5 storage of datasets: each dataset is one member of the group "out",
# a one-dimensional array of bytes holding its data file.
#
# A member is untrusted input like any data file: before anything is
# allocated for it, its declared size is held against the size of the file
# and the format's limit, and members whose bytes live elsewhere (links to
# other files, external storage, virtual datasets) are refused. Every way a
# member can fail ends in one of the errors ZelDataSet.load documents.

# The data file format addresses its bytes with signed 32-bit offsets.
_MAX_BLOCK = 0x7FFFFFFF
# Deflate, the strongest filter h5py reads without plugins, expands at most
# 1032-fold; a filtered member that declares more, for the size of its file,
# is not what it claims to be.
_MAX_EXPANSION = 1032
# A save writes the new member under this suffix and renames it over the
# old one once complete; readers never list such members.
_PARTIAL = ".partial"
# Attribute of the group "out" saying how far a save got (see
# _write_hdf5_member): empty when no save is under way, "<key>.partial"
# while that member is written, "<key>" once it is complete and replaces
# member "<key>".
_PARTIAL_MARK = "zelpy_partial"
_PARTIAL_MARK_TYPE = np.dtype("S256")


cdef object _h5py():
    # h5py is imported on first use: it is slow to import and most scripts
    # only read ".out" files.
    import h5py
    return h5py


cdef _log_error(str message):
    cdef string text = _utf8(message)
    nimbra.log_write(nimbra.log_error, text)


cdef object _refused(str path, str key, str why):
    _log_error(path + ":out:" + key + " refused: " + why)
    return ValueError("Unable to decode memory buffer")


cdef object _member_plan(object h5py, object file_id, str path, str key):
    """How to read member ``key``: ("pieces", [(offset, length), ...]) when
    its bytes lie in the file as they are (one piece, or one per run of
    chunks), so they can be read straight into the variables, or ("bytes",
    array) with the bytes read through HDF5."""
    missing = path + " does not contain 'out:" + key + "' dataset."
    try:
        group = h5py.h5g.open(file_id, b"out")
    except Exception:
        raise ValueError(path + " does not contain an 'out' group.") from None
    encoded = _stored_key(h5py.Group(group), key).encode("utf-8")
    try:
        link = group.links.get_info(encoded) if group.links.exists(encoded) else None
    except Exception:
        link = None
    if link is None:
        try:
            keys = _hdf5_keys(h5py.Group(group))
        except Exception:
            keys = None
        error = ValueError(missing)
        if keys is not None:
            _add_note(error, _keys_near(keys, key))
        raise error
    if link.type == h5py.h5l.TYPE_EXTERNAL:
        _log_error(path + ":out:" + key + " is a link to another file, which is not followed.")
        raise ValueError(missing)
    try:
        member = h5py.h5o.open(group, encoded)
    except Exception:
        raise ValueError(missing) from None
    if not isinstance(member, h5py.h5d.DatasetID):
        raise ValueError(missing)

    try:
        dtype = member.dtype
        space = member.get_space()
        plist = member.get_create_plist()
        layout = plist.get_layout()
        external = plist.get_external_count()
        filtered = plist.get_nfilters() > 0
        simple = space.get_simple_extent_type() == h5py.h5s.SIMPLE
        rank = space.get_simple_extent_ndims() if simple else 0
        file_size = os.stat(path).st_size
    except Exception as exc:
        raise _refused(path, key, "its layout cannot be read (" + str(exc) + ").") from None
    if layout == h5py.h5d.VIRTUAL:
        raise _refused(path, key, "it is a virtual dataset.")
    if external:
        raise _refused(path, key, "its bytes are stored in another file.")
    if dtype.kind not in "ui" or dtype.itemsize != 1:
        raise _refused(path, key, "it holds values of type " + str(dtype) + ", not bytes.")
    if rank != 1:
        raise _refused(path, key, "it is not a one-dimensional array of bytes.")
    size = space.shape[0]
    if size > _MAX_BLOCK:
        raise _refused(path, key, "it declares " + str(size) + " bytes, more than a data file "
                       "can hold (" + str(_MAX_BLOCK) + ").")
    if size > file_size * (_MAX_EXPANSION if filtered else 1):
        raise _refused(path, key, "it declares " + str(size) + " bytes in a file of "
                       + str(file_size) + " bytes.")
    mem_type = np.int8 if dtype.kind == "i" else np.uint8

    try:
        # Another handle of this process may hold writes that are not on
        # disk yet; then only HDF5 itself knows the current bytes.
        pieces = None
        if h5py.h5f.get_obj_count(file_id, h5py.h5f.OBJ_FILE) == 1 and not filtered and size:
            pieces = _member_pieces(member, layout, size, file_size)
        if pieces:
            # The first bytes read through HDF5 must be those at the first
            # piece, or the addresses are not trusted.
            count = min(size, 64)
            head = np.empty(count, dtype=mem_type)
            space.select_hyperslab((0,), (count,))
            member.read(h5py.h5s.create_simple((count,)), space, head)
            with open(path, "rb") as stream:
                if os.pread(stream.fileno(), count, pieces[0][0]) == head.tobytes():
                    return ("pieces", pieces)
        block = np.empty(size, dtype=mem_type)
        if size:
            member.read(h5py.h5s.ALL, h5py.h5s.ALL, block)
        return ("bytes", block.view(np.uint8))
    except Exception as exc:
        raise _refused(path, key, "its bytes cannot be read (" + str(exc) + ").") from None


cdef object _member_pieces(object member, int layout, object size, object file_size):
    """Where the bytes of an unfiltered member lie in the file: a list of
    (offset, length) in order, adjacent pieces merged; None when they do not
    all lie there (chunks never written, or a layout without addresses)."""
    h5py = _h5py()
    if layout == h5py.h5d.CONTIGUOUS:
        offset = member.get_offset()
        found = [] if offset is None else [(offset, 0, size)]
    elif layout == h5py.h5d.CHUNKED and hasattr(member, "chunk_iter"):
        found = []
        member.chunk_iter(lambda info: found.append((info.byte_offset, info.chunk_offset[0],
                                                     info.size)))
    else:
        return None
    found.sort(key=lambda chunk: chunk[1])
    pieces = []
    covered = 0
    for offset, start, stored in found:
        if start != covered or offset is None:
            return None
        length = min(stored, size - covered)
        if offset + length > file_size:
            return None
        if pieces and pieces[-1][0] + pieces[-1][1] == offset:
            pieces[-1] = (pieces[-1][0], pieces[-1][1] + length)
        else:
            pieces.append((offset, length))
        covered += length
        if covered == size:
            return pieces
    return None


cdef object _open_member_plan(str path, str key):
    """_member_plan of member ``key`` of the HDF5 file ``path``, opened and
    closed here, with the errors ZelDataSet.load documents."""
    if key.endswith(_PARTIAL):
        # A member still being written, or left by a save that failed.
        raise ValueError(path + " does not contain 'out:" + key + "' dataset.")
    h5py = _h5py()
    try:
        file_id = h5py.h5f.open(os.fsencode(path), h5py.h5f.ACC_RDONLY)
    except Exception:
        raise OSError("Cannot open {}.".format(path)) from None
    try:
        return _member_plan(h5py, file_id, path, key)
    finally:
        file_id.close()


def _hdf5_member_bytes(str path, str key):
    """The stored bytes of member ``key`` of the group "out" of ``path``:
    the data file a load of "path:out:key" decodes, read with the same
    checks and failing with the same errors (a link to another file, a
    member being written or one declaring more bytes than it can hold are
    refused), for code that passes the encoded dataset on."""
    plan = _open_member_plan(path, key)
    if plan[0] == "bytes":
        return plan[1].tobytes()
    parts = []
    try:
        stream = open(path, "rb")
    except OSError:
        raise OSError("Cannot open {}.".format(path)) from None
    with stream:
        for offset, length in plan[1]:
            # One read returns at most about 2 GiB on Linux.
            while length:
                part = os.pread(stream.fileno(), min(length, 1 << 30), offset)
                if not part:
                    # The file shrank since its layout was read.
                    raise _refused(path, key, "its bytes end early (the file changed "
                                   "while it was read).")
                parts.append(part)
                offset += len(part)
                length -= len(part)
    return parts[0] if len(parts) == 1 else b"".join(parts)


cdef _load_hdf5_member(ZelDataSet dataset, str path, str key, str name):
    """Decodes member ``key`` of the group "out" of the HDF5 file ``path``
    into ``dataset`` (as ZelDataSet.load does for "path:out:key")."""
    plan = _open_member_plan(path, key)
    if plan[0] == "bytes":
        dataset.load_from_data(plan[1], name)
    elif dataset._load_pieces(path, plan[1]):
        dataset._file_name = name
    else:
        raise ValueError("Unable to decode memory buffer")


cdef str _partial_mark(object group):
    """The mark a save left on the group "out" ("" for none, or when it is
    not a mark this module wrote)."""
    try:
        mark = group.attrs.get(_PARTIAL_MARK)
    except Exception:
        return ""
    if not isinstance(mark, bytes):
        return ""
    try:
        return mark.decode("utf-8")
    except UnicodeDecodeError:
        return ""


cdef str _stored_key(object group, str key):
    """The member holding dataset ``key``: ``key`` itself, or its complete
    replacement when a save stopped while putting that in its place."""
    try:
        if key and _partial_mark(group) == key and key + _PARTIAL in group:
            return key + _PARTIAL
    except Exception:
        pass  # whatever is wrong with the group, reading the key itself says so
    return key


cdef _mark_partial(object group, bytes name):
    """Records on the group how far a save got (empty: no save under way).

    A fixed-size attribute rewritten in place: adding and deleting one on
    every save would take small pieces out of the space freed by replaced
    members, and the next member would no longer fit there. It grows only
    for a key too long for it.
    """
    attrs = group.attrs
    if _PARTIAL_MARK in attrs:
        dtype = attrs.get_id(_PARTIAL_MARK).dtype
        if dtype.kind == "S" and dtype.itemsize >= len(name):
            attrs.modify(_PARTIAL_MARK, np.bytes_(name))
            return
        del attrs[_PARTIAL_MARK]
    size = max(_PARTIAL_MARK_TYPE.itemsize, len(name))
    attrs.create(_PARTIAL_MARK, np.bytes_(name), dtype=np.dtype("S%d" % size))


cdef _finish_interrupted_save(object group):
    """Completes or undoes what a save that stopped midway left in ``group``.

    A member still being written is incomplete and goes; a complete one
    whose renaming was under way takes its key, whether or not the old
    member had been removed yet.
    """
    mark = _partial_mark(group)
    if not mark:
        return
    if mark.endswith(_PARTIAL):
        if mark in group:
            del group[mark]
    elif mark + _PARTIAL in group:
        if mark in group:
            del group[mark]
        group.move(mark + _PARTIAL, mark)
    _mark_partial(group, b"")


cdef _write_chunked(object group, str key, bytes block):
    """Writes ``block`` as a new member in chunks of one size.

    A replaced member frees whole chunks, which hold the chunks of the next
    member of about the same size whatever its exact length: rewriting a
    member whose size changed by a few bytes then reuses its space instead
    of growing the file. About 16 chunks per member, a power of two of 4 KiB
    to 1 MiB, keep both the calls and the unused tail of the last chunk
    small. The chunks are written straight to the file: a write that fails
    (a full disk) raises here, where HDF5's chunk cache would only fail
    later, when the member is closed, and leave the library unusable.
    """
    cdef Py_ssize_t size = len(block)
    cdef Py_ssize_t chunk = 4096
    while chunk < 1 << 20 and chunk * 16 < size:
        chunk *= 2
    if size <= chunk:
        chunk = size
    member = group.create_dataset(key, shape=(size,), dtype=np.uint8, chunks=(chunk,))
    view = memoryview(block)
    cdef Py_ssize_t whole = size - size % chunk
    cdef Py_ssize_t start
    for start in range(0, whole, chunk):
        member.id.write_direct_chunk((start,), view[start:start + chunk])
    if whole < size:
        last = bytearray(chunk)
        last[:size - whole] = view[whole:]
        member.id.write_direct_chunk((whole,), last)


cdef _write_hdf5_member(str path, str key, bytes block, str name):
    """Stores ``block`` as member ``key`` of the group "out" of ``path``.

    The new member is written under "<key>.partial" and takes the key once
    complete. The mark on the group (see _PARTIAL_MARK) follows each step
    and is on disk before the old member goes, so wherever a save stops,
    the old member or the complete new one holds the dataset: readers find
    it under its key (see _stored_key), and the next save of any key
    finishes the renaming or removes the incomplete member. Files created
    here track their free space on disk, so that the chunks of a replaced
    member (see _write_chunked) are used again by later saves instead of the
    file growing by a copy on every rewrite.
    """
    if key.endswith(_PARTIAL):
        # Readers never list such a member: it would be saved out of sight.
        _log_error("Could not write " + name + ": keys ending in '" + _PARTIAL
                   + "' are reserved for saves in progress.")
        raise OSError("Unable to save file: " + name)
    h5py = _h5py()
    try:
        try:
            handle = h5py.File(path, "x", fs_strategy="fsm", fs_persist=True, fs_threshold=1)
        except FileExistsError:
            handle = h5py.File(path, "a")
    except Exception:
        raise OSError("Cannot open " + path + ".") from None
    try:
        group = handle.require_group("out")
        _finish_interrupted_save(group)
        temporary = key + _PARTIAL
        if temporary in group:
            # Left by a save of this key that could not record its mark (or
            # by an earlier version); this save supersedes it either way.
            del group[temporary]
        _mark_partial(group, temporary.encode("utf-8"))
        try:
            _write_chunked(group, temporary, block)
        except BaseException:
            # Best effort: on a full disk this may fail as well, and the
            # mark then tells the next save what to remove.
            try:
                del group[temporary]
                _mark_partial(group, b"")
            except Exception:
                pass
            raise
        # Complete: from here on the new member is the dataset. The flush
        # puts the member and this mark on disk before the old member goes.
        _mark_partial(group, key.encode("utf-8"))
        handle.flush()
        if key in group:
            del group[key]
        group.move(temporary, key)
        _mark_partial(group, b"")
    except Exception as exc:
        _log_error("Could not write " + name + ": " + str(exc))
        raise OSError("Unable to save file: " + name) from None
    finally:
        handle.close()


cdef str _keys_near(list keys, str index):
    """The keys of the group "out" closest to a missing ``index``, as a note.

    Writers keep the digits of the file name ("0007"), so "7" is usually
    the right number spelt without its zeros: numeric keys are ranked by
    their distance to the wanted number, others by their sorted position.
    """
    if not keys:
        return "The group 'out' is empty."
    keys.sort()
    numeric = [key for key in keys if key.isdigit()]
    if index.isdigit() and numeric:
        near = sorted(sorted(numeric, key=lambda key: (abs(int(key) - int(index)), key))[:5])
    else:
        position = sum(1 for key in keys if key < index)
        start = max(0, min(position - 2, len(keys) - 5))
        near = keys[start:start + 5]
    return ("Keys near '" + index + "': " + ", ".join("'" + key + "'" for key in near)
            + " (" + str(len(keys)) + " in all).")


cdef list _hdf5_keys(object group):
    """The dataset keys of the group "out": not the members of saves in
    progress, but the key of one whose renaming a save left unfinished."""
    keys = [key for key in group.keys() if not key.endswith(_PARTIAL)]
    mark = _partial_mark(group)
    if mark and not mark.endswith(_PARTIAL) and mark not in keys and mark + _PARTIAL in group:
        keys.append(mark)
    return keys
