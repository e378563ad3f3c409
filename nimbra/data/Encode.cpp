// Encoding of the data file format. The block size is fixed up front from
// the reserved sizes of every piece; each AOI starts at its own reserved slot
// and unused reserved bytes are zero-filled. The same walk writes into memory
// (export) or streams into a file (save), where the value arrays go to the
// file straight from the variables instead of through a copy of the block.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>

#include "nimbra/data/Codec.h"
#include "nimbra/data/Utf.h"
#include "nimbra/data/ZelDataSet.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

using namespace codec;

// Where encoded bytes go. Every put is checked against the space left in the
// current reservation.
class Sink {
public:
    explicit Sink(int64_t limit) : limit_(limit) {}
    virtual ~Sink() = default;
    int64_t position() const { return position_; }

    bool word(uint32_t v) {
        uint8_t b[4];
        writeBE32(b, v);
        return put(b, 4);
    }
    bool text(const std::string& utf8) {
        if (utf8.empty()) return word(kEmptyText);
        const std::u16string units = utf::toUtf16(utf8);
        if (!word(static_cast<uint32_t>(units.size() * 2))) return false;
        uint8_t b[2];
        for (char16_t u : units) {
            b[0] = static_cast<uint8_t>(u >> 8);
            b[1] = static_cast<uint8_t>(u);
            if (!put(b, 2)) return false;
        }
        return true;
    }
    bool values(const float* v, int32_t count) {
        if (count <= 0) return true;
        if (v == nullptr) return false;
        const int64_t bytes = int64_t(count) * 4;
        if (position_ + bytes > limit_) return false;
        if constexpr (std::endian::native == std::endian::big) {
            for (int32_t i = 0; i < count; ++i) {
                uint32_t w;
                std::memcpy(&w, v + i, 4);
                w = __builtin_bswap32(w);
                if (!put(reinterpret_cast<const uint8_t*>(&w), 4)) return false;
            }
            return true;
        }
        return put(reinterpret_cast<const uint8_t*>(v), bytes);
    }
    bool zeros(int64_t n) {
        if (n < 0 || position_ + n > limit_) return false;
        if (!emitZeros(n)) return false;
        position_ += n;
        return true;
    }
    bool put(const uint8_t* bytes, int64_t n) {
        if (position_ + n > limit_) return false;
        if (!emit(bytes, n)) return false;
        position_ += n;
        return true;
    }

protected:
    virtual bool emit(const uint8_t* bytes, int64_t n) = 0;
    virtual bool emitZeros(int64_t n) = 0;

private:
    int64_t limit_;
    int64_t position_ = 0;
};

class MemorySink : public Sink {
public:
    MemorySink(uint8_t* destination, int64_t size) : Sink(size), destination_(destination) {}

protected:
    bool emit(const uint8_t* bytes, int64_t n) override {
        std::memcpy(destination_ + position(), bytes, static_cast<std::size_t>(n));
        return true;
    }
    bool emitZeros(int64_t n) override {
        std::memset(destination_ + position(), 0, static_cast<std::size_t>(n));
        return true;
    }

private:
    uint8_t* destination_;
};

// Streams into a file descriptor: small pieces through a buffer, value
// arrays straight from their variables.
class FileSink : public Sink {
public:
    FileSink(int fd, int64_t size) : Sink(size), fd_(fd), buffer_(new uint8_t[kBuffer]) {}
    bool flush() {
        const bool ok = writeAll(buffer_.get(), used_);
        used_ = 0;
        return ok;
    }

protected:
    bool emit(const uint8_t* bytes, int64_t n) override {
        if (used_ + n <= kBuffer) {
            std::memcpy(buffer_.get() + used_, bytes, static_cast<std::size_t>(n));
            used_ += n;
            return true;
        }
        return flush() && (n < kBuffer ? emit(bytes, n) : writeAll(bytes, n));
    }
    bool emitZeros(int64_t n) override {
        static const uint8_t zero[4096] = {};
        while (n > 0) {
            const int64_t chunk = n < 4096 ? n : 4096;
            if (!emit(zero, chunk)) return false;
            n -= chunk;
        }
        return true;
    }

private:
    static constexpr int64_t kBuffer = 64 * 1024;

    bool writeAll(const uint8_t* bytes, int64_t n) {
        while (n > 0) {
            const ssize_t done = ::write(fd_, bytes, static_cast<std::size_t>(n));
            if (done < 0 && errno == EINTR) continue;
            if (done <= 0) return false;
            bytes += done;
            n -= done;
        }
        return true;
    }

    int fd_;
    std::unique_ptr<uint8_t[]> buffer_;
    int64_t used_ = 0;
};

int64_t utf16Length(const std::string& text) { return static_cast<int64_t>(utf::toUtf16(text).size()); }

// An AOI that cannot carry values (no variables, or an empty grid) is written
// as its header and a lone variable-start tag: that is exactly what the
// decoder consumes for such an AOI, so the AOI after it still decodes.
bool writesVariables(const ZelData& aoi) { return aoi.numVariables() > 0 && aoi.matrixSize() > 0; }

int64_t reservedVariable(const ZelDataVariable& v) {
    return 36 + 2 * (utf16Length(v.name) + utf16Length(v.description)) + 4 * int64_t(v.count > 0 ? v.count : 0);
}

int64_t reservedAoi(const ZelData& aoi) {
    int64_t size = aoi.name().empty() ? 36 : 44 + 2 * static_cast<int64_t>(aoi.name().size());
    if (!writesVariables(aoi)) return size + 4;
    for (int32_t i = 0; i < aoi.numVariables(); ++i) size += reservedVariable(*aoi.variable(i));
    return size;
}

bool encodeVariable(const ZelDataVariable& v, Sink& out) {
    const uint32_t kind = (v.type >= 0 && v.type < kNumVariableTypes) ? static_cast<uint32_t>(v.type)
                                                                       : static_cast<uint32_t>(Unknown);
    return out.word(kTagVariableStart) && out.word(kTagVariableKind) && out.word(kTagValues + kind) &&
           out.word(kTagVariableName) && out.text(v.name) && out.word(kTagVariableDescription) &&
           out.text(v.description) && out.word(kTagValues) &&
           out.word(static_cast<uint32_t>(v.count > 0 ? v.count : 0)) && out.values(v.values.get(), v.count);
}

bool encodeAoi(const ZelData& aoi, Sink& out, int64_t reserved) {
    const int64_t start = out.position();
    bool ok = out.word(kTagAoiStart) && out.word(kTagGridKind) && out.word(kGridKindBase + 2) &&
              out.word(kTagVariableCount) && out.word(static_cast<uint32_t>(aoi.numVariables())) &&
              out.word(kTagRows) && out.word(static_cast<uint32_t>(aoi.numRows())) &&
              out.word(kTagColumns) && out.word(static_cast<uint32_t>(aoi.numColumns()));
    if (ok && !aoi.name().empty()) ok = out.word(kTagAoiName) && out.text(aoi.name());
    if (!ok) return false;
    if (!writesVariables(aoi)) {
        if (!out.word(kTagVariableStart)) return false;
    } else {
        for (int32_t i = 0; i < aoi.numVariables(); ++i)
            if (!encodeVariable(*aoi.variable(i), out)) return false;
    }
    const int64_t used = out.position() - start;
    return used <= reserved && out.zeros(reserved - used);
}

bool encodeDataSet(const ZelDataSet& set, Sink& out, int64_t total, bool primary) {
    bool ok = out.word(primary ? kMagicPrimary : kMagicSecondary) && out.word(kVersion) &&
              out.word(kTagAoiCount) && out.word(static_cast<uint32_t>(set.numData())) &&
              out.word(kTagReferenceImage) && out.text(set.referenceImage()) &&
              out.word(kTagDeformedImage) && out.text(set.deformedImage());
    for (int32_t a = 0; ok && a < set.numData(); ++a) {
        const ZelData& aoi = *set.data(a);
        ok = encodeAoi(aoi, out, reservedAoi(aoi));
    }
    // A non-ASCII image name reserves more than its UTF-16 text needs; the
    // surplus ends up here, after the last AOI, where readers ignore it.
    return ok && out.zeros(total - out.position());
}

// The temporary file of a save: one short, hidden name per target in the
// target's directory, so that a name near the length limit still has room
// for it, the reader never lists it, and the next save of the same target
// takes over what a killed save left behind.
std::string temporaryName(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    uint64_t hash = 0xcbf29ce484222325ull;  // FNV-1a of the file name
    for (std::size_t i = slash == std::string::npos ? 0 : slash + 1; i < path.size(); ++i)
        hash = (hash ^ static_cast<uint8_t>(path[i])) * 0x100000001b3ull;
    static const char digits[] = "0123456789abcdef";
    std::string name = directory + ".zs-";
    for (int shift = 60; shift >= 0; shift -= 4) name += digits[(hash >> shift) & 0xF];
    return name + ".tmp";
}

// Opens the temporary file for writing, empty and locked, or returns -1.
// Saves of the same target take turns on the lock; whoever holds it checks
// that the name still leads to the file it locked (the previous holder may
// have renamed it over its target) before using it. A file left by a
// killed save is reused, or replaced when its permissions might not be the
// default ones a new target gets.
int claimTemporary(const std::string& temporary, bool targetExists) {
    for (int attempt = 0; attempt < 64; ++attempt) {
        bool created = true;
        int fd = ::open(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
        if (fd < 0 && errno == EEXIST) {
            created = false;
            fd = ::open(temporary.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
            if (fd < 0 && errno == ENOENT) continue;
        }
        if (fd < 0) return -1;
        struct stat locked {}, named {};
        while (::flock(fd, LOCK_EX) != 0) {
            if (errno != EINTR) {
                ::close(fd);
                return -1;
            }
        }
        if (::fstat(fd, &locked) != 0 || ::lstat(temporary.c_str(), &named) != 0 ||
            locked.st_dev != named.st_dev || locked.st_ino != named.st_ino) {
            ::close(fd);
            continue;
        }
        if (!created && !targetExists) {
            ::unlink(temporary.c_str());
            ::close(fd);
            continue;
        }
        if (!S_ISREG(locked.st_mode) || ::ftruncate(fd, 0) != 0) {
            ::close(fd);
            return -1;
        }
        return fd;
    }
    return -1;
}

bool fsyncRetrying(int fd) {
    while (::fsync(fd) != 0)
        if (errno != EINTR) return false;
    return true;
}

bool nonAscii(const std::string& text) { return utf16Length(text) != static_cast<int64_t>(text.size()); }

// One error line saying why the encoding of `set` does not read back.
void logUnreadable(const ZelDataSet& set, const codec::Walk& walk) {
    const int32_t failed = walk.aoisRead;  // the AOI the reader stopped at
    if (set.numData() == 0) {
        NIMBRA_LOG(error) << "Not saved: a dataset without AOIs does not read back (a data file "
                             "must hold at least one AOI).";
    } else if (walk.overBudget) {
        NIMBRA_LOG(error) << "Not saved: the dataset holds too many AOIs or variables for its "
                             "size to read back (more than "
                          << codec::kMemoryPerByte << " bytes of memory per byte of file).";
    } else if (failed > 0 && failed < set.numData() && nonAscii(set.data(failed - 1)->name())) {
        NIMBRA_LOG(error) << "Not saved: AOI " << failed - 1 << " '" << set.data(failed - 1)->name()
                          << "' has a non-ASCII name, and the bytes the data file reserves for it "
                             "leave a gap the reader cannot step over before AOI "
                          << failed << ". Give the AOI an ASCII name to save this dataset.";
    } else {
        NIMBRA_LOG(error) << "Not saved: the encoded dataset does not read back (the reader stops "
                             "at AOI "
                          << failed << ").";
    }
}

}  // namespace

bool ZelDataSet::readsBack(const uint8_t* block, int32_t size) const {
    const codec::Walk walk = codec::walkBlock(block, size, false);
    if (!walk.decodes) logUnreadable(*this, walk);
    return walk.decodes;
}

int64_t ZelDataSet::encodedSize() const {
    int64_t size = 16 + 8 + 2 * static_cast<int64_t>(referenceImage().size()) + 8 +
                   2 * static_cast<int64_t>(deformedImage().size());
    for (int32_t a = 0; a < numData(); ++a) size += reservedAoi(*data(a));
    if (size > std::numeric_limits<int32_t>::max()) return -1;
    return size;
}

bool ZelDataSet::encodeInto(uint8_t* destination, int64_t size, bool primary) const {
    if (destination == nullptr || size != encodedSize()) return false;
    MemorySink out(destination, size);
    return encodeDataSet(*this, out, size, primary);
}

uint8_t* ZelDataSet::encode(int32_t& size, bool primary) const {
    const int64_t total = encodedSize();
    if (total < 0) return nullptr;
    auto* block = new uint8_t[static_cast<std::size_t>(total)];
    if (!encodeInto(block, total, primary)) {
        delete[] block;
        return nullptr;
    }
    size = static_cast<int32_t>(total);
    return block;
}

bool ZelDataSet::save(const std::string& path) const {
    const int64_t total = encodedSize();
    if (total < 0 || path.empty()) return false;
    struct stat target {};
    const bool targetExists = ::stat(path.c_str(), &target) == 0 && S_ISREG(target.st_mode);
    const std::string temporary = temporaryName(path);
    const int fd = claimTemporary(temporary, targetExists);
    if (fd < 0) return false;
    // Written beside the target and renamed over it, so that a failed or
    // interrupted save never destroys the file that was there; the new file
    // keeps the old one's permissions.
    bool ok;
    {
        FileSink out(fd, total);
        ok = encodeDataSet(*this, out, total, false) && out.flush();
    }
    if (ok) {
        const codec::Walk walk = codec::walkFile(fd, 0, total);
        if (!walk.decodes) logUnreadable(*this, walk);
        ok = walk.decodes;
    }
    if (ok && targetExists) ok = ::fchmod(fd, target.st_mode & 07777) == 0;
    // On disk before the rename: otherwise a power cut can leave the new name
    // pointing at a file whose data was never written.
    if (ok) ok = fsyncRetrying(fd);
    if (ok) ok = std::rename(temporary.c_str(), path.c_str()) == 0;
    if (!ok) ::unlink(temporary.c_str());
    ::close(fd);
    return ok;
}

}  // namespace nimbra
