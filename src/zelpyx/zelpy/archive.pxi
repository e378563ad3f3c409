# Reading single members of ZIP archives (project files) with a bound on what
# they may expand to.
#
# zipfile takes the sizes in the archive's directory on trust and, for bzip2
# and LZMA members, hands one compressed read to the decompressor without an
# output limit: a member of a few hundred bytes can cost gigabytes before the
# first byte comes back. Members are therefore decompressed here in steps of
# bounded output, and refused as soon as the size the directory declares, or
# the bytes the compressed data actually yields, passes the member's limit.
# zipfile still reads the directory; only the member data is handled here.

import bz2 as _bz2
import lzma as _lzma
import struct as _struct
import zlib as _zlib

# Most decompressed bytes produced per step, and compressed bytes read per step.
_MEMBER_STEP = 1 << 20
_MEMBER_READ = 1 << 16

# Local file header: signature, 22 bytes we take from the directory instead,
# then the lengths of the name and of the extra field that precede the data.
_ZIP_LOCAL_HEADER = _struct.Struct("<4s22xHH")
_ZIP_LOCAL_SIGNATURE = b"PK\x03\x04"
_ZIP_ENCRYPTED = 0x1


class _Stored:
    """Stored (uncompressed) member data, behind the decompressor interface."""

    eof = False

    def __init__(self):
        self.pending = b""

    @property
    def needs_input(self):
        return not self.pending

    def decompress(self, data, max_length):
        data = self.pending + data
        self.pending = data[max_length:]
        return data[:max_length]


class _Inflate:
    """Raw deflate with the interface of the bz2 and lzma decompressors."""

    def __init__(self):
        self.inflater = _zlib.decompressobj(-_zlib.MAX_WBITS)
        self.full = False

    @property
    def eof(self):
        return self.inflater.eof

    @property
    def needs_input(self):
        # A step that filled its output may have left output inside zlib
        # even when all input was taken.
        return not self.inflater.unconsumed_tail and not self.full

    def decompress(self, data, max_length):
        out = self.inflater.decompress(self.inflater.unconsumed_tail + data, max_length)
        self.full = len(out) == max_length
        return out


class _ZipLzma:
    """LZMA as ZIP stores it: a 4-byte prefix (version, size of the
    properties), the 5 bytes of LZMA1 properties, then the raw stream."""

    def __init__(self, declared):
        self.declared = declared
        self.prefix = b""
        self.inner = None

    @property
    def eof(self):
        return self.inner is not None and self.inner.eof

    @property
    def needs_input(self):
        return self.inner is None or self.inner.needs_input

    def decompress(self, data, max_length):
        if self.inner is None:
            self.prefix += data
            if len(self.prefix) < 9:
                return b""
            if _struct.unpack_from("<H", self.prefix, 2)[0] != 5:
                raise zipfile.BadZipFile("LZMA properties of an unexpected size")
            packed = self.prefix[4]
            if packed >= 9 * 5 * 5:
                raise zipfile.BadZipFile("invalid LZMA properties")
            # The dictionary is allocated whole when the decoder starts; no
            # match can reach further back than the member's declared size,
            # so a larger dictionary announced by the archive is never needed.
            dictionary = min(_struct.unpack_from("<I", self.prefix, 5)[0],
                             max(4096, self.declared))
            self.inner = _lzma.LZMADecompressor(_lzma.FORMAT_RAW, filters=[{
                "id": _lzma.FILTER_LZMA1, "dict_size": dictionary,
                "lc": packed % 9, "lp": packed // 9 % 5, "pb": packed // 45}])
            data = self.prefix[9:]
            self.prefix = b""
        return self.inner.decompress(data, max_length)


class _ArchiveMember(io.RawIOBase):
    """The decompressed bytes of the member ``name`` of the ZIP archive
    ``path``, as a read-only binary stream.

    Raises ``ValueError`` (on construction or while reading) when the member
    declares more than ``limit`` bytes or its data expands beyond what it
    declares, and ``zipfile.BadZipFile`` when the data is damaged (size or
    CRC-32 do not match at the end). At most one step of decompressed data
    is held at a time.
    """

    def __init__(self, str path not None, str name not None, limit):
        super().__init__()
        self.stream = None
        with zipfile.PyZipFile(path, "r") as archive:
            info = archive.getinfo(name)
        if info.file_size > limit:
            raise ValueError("{} of {} declares {} bytes, more than the {} allowed".format(
                name, path, info.file_size, limit))
        if info.flag_bits & _ZIP_ENCRYPTED:
            raise ValueError("{} of {} is encrypted".format(name, path))
        if info.compress_type == zipfile.ZIP_STORED:
            decompressor = _Stored()
        elif info.compress_type == zipfile.ZIP_DEFLATED:
            decompressor = _Inflate()
        elif info.compress_type == zipfile.ZIP_BZIP2:
            decompressor = _bz2.BZ2Decompressor()
        elif info.compress_type == zipfile.ZIP_LZMA:
            decompressor = _ZipLzma(info.file_size)
        else:
            raise NotImplementedError("compression method {} of {} in {}".format(
                info.compress_type, name, path))
        self.name = name
        self.path = path
        self.declared = info.file_size
        self.expected_crc = info.CRC
        self.decompressor = decompressor
        self.compressed_left = info.compress_size
        self.produced = 0
        self.crc = 0
        self.done = False
        self.stream = open(path, "rb")
        try:
            self.stream.seek(info.header_offset)
            header = self.stream.read(_ZIP_LOCAL_HEADER.size)
            if len(header) != _ZIP_LOCAL_HEADER.size:
                raise zipfile.BadZipFile("truncated local header of " + name)
            signature, name_length, extra_length = _ZIP_LOCAL_HEADER.unpack(header)
            if signature != _ZIP_LOCAL_SIGNATURE:
                raise zipfile.BadZipFile("bad local header of " + name)
            self.stream.seek(name_length + extra_length, os.SEEK_CUR)
        except BaseException:
            self.close()
            raise

    def readable(self):
        return True

    def readinto(self, buffer):
        with memoryview(buffer) as view, view.cast("B") as target:
            data = self.__step(min(len(target), _MEMBER_STEP))
            target[:len(data)] = data
            return len(data)

    def close(self):
        if self.stream is not None:
            self.stream.close()
            self.stream = None
        super().close()

    def __step(self, size):
        # Compressed data is fed only when the decompressor has given out
        # everything it holds, so each call yields at most `size` bytes.
        stalled = 0
        while not self.done and size > 0:
            if self.decompressor.eof:
                self.__finish()
                break
            if self.decompressor.needs_input:
                if self.compressed_left <= 0:
                    self.__finish()
                    break
                data = self.stream.read(min(_MEMBER_READ, self.compressed_left))
                if not data:
                    raise zipfile.BadZipFile("truncated data of " + self.name)
                self.compressed_left -= len(data)
            else:
                data = b""
            out = self.decompressor.decompress(data, size)
            if out:
                self.produced += len(out)
                if self.produced > self.declared:
                    raise ValueError("{} of {} expands beyond the {} bytes it declares".format(
                        self.name, self.path, self.declared))
                self.crc = _zlib.crc32(out, self.crc)
                return out
            # Guards against a decompressor that neither wants input nor
            # gives output.
            stalled = stalled + 1 if not data else 0
            if stalled > 2:
                raise zipfile.BadZipFile("decompression of {} makes no progress".format(self.name))
        return b""

    def __finish(self):
        self.done = True
        if self.produced != self.declared or self.crc != self.expected_crc:
            raise zipfile.BadZipFile("damaged data of " + self.name)


class _LimitedFile(io.RawIOBase):
    """A binary file read as a stream that fails once more than ``limit``
    bytes came out of it (the file may grow, or be a device or a pipe)."""

    def __init__(self, stream, limit):
        super().__init__()
        self.stream = stream
        self.limit = limit
        self.produced = 0

    def readable(self):
        return True

    def close(self):
        self.stream.close()
        super().close()

    def readinto(self, buffer):
        count = self.stream.readinto(buffer)
        self.produced += count or 0
        if self.produced > self.limit:
            raise ValueError("{} holds more than the {} bytes allowed".format(
                self.stream.name, self.limit))
        return count
