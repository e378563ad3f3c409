// Decoding of the data file format. Every count is checked against the bytes
// that remain before anything is allocated, and everything the decoded model
// takes is charged against a budget proportional to the block's size, so a
// hostile block costs at most a few times its own size. Files are read with
// pread straight into the variables: a file that another program truncates
// or rewrites while it is read gives a failed decode, never a fault, and
// each value block is still copied once.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "nimbra/data/Codec.h"
#include "nimbra/data/Utf.h"
#include "nimbra/data/ZelData.h"
#include "nimbra/data/ZelDataSet.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

using namespace codec;

class MemorySource {
public:
    explicit MemorySource(const uint8_t* data) : data_(data) {}
    // The caller has checked that [offset, offset + n) lies in the block.
    const uint8_t* bytes(int64_t offset, int64_t) { return data_ + offset; }
    bool copy(int64_t offset, void* out, int64_t n) {
        std::memcpy(out, data_ + offset, static_cast<std::size_t>(n));
        return true;
    }

private:
    const uint8_t* data_;
};

// Reads a block stored in a file as one or more pieces (a member of an
// HDF5 file may be stored in chunks): tags and texts through a small
// window, value blocks with pread straight into their destination. Every
// read that comes back short (the file shrank) fails.
class FileSource {
public:
    FileSource(int fd, std::vector<FilePiece> pieces) : fd_(fd), pieces_(std::move(pieces)) {
        int64_t start = 0;
        for (const FilePiece& piece : pieces_) {
            starts_.push_back(start);
            start += piece.length;
        }
    }

    const uint8_t* bytes(int64_t offset, int64_t n) {
        if (offset < windowStart_ || offset + n > windowStart_ + windowLength_) {
            const int64_t want = std::max<int64_t>(n, kWindow);
            if (static_cast<int64_t>(window_.size()) < want) window_.resize(static_cast<std::size_t>(want));
            const int64_t got = read(offset, window_.data(), want);
            windowStart_ = offset;
            windowLength_ = got;
            if (got < n) return nullptr;
        }
        return window_.data() + (offset - windowStart_);
    }

    bool copy(int64_t offset, void* out, int64_t n) {
        if (n <= kWindow / 4) {
            const uint8_t* p = bytes(offset, n);
            if (p == nullptr) return false;
            std::memcpy(out, p, static_cast<std::size_t>(n));
            return true;
        }
        return read(offset, static_cast<uint8_t*>(out), n) == n;
    }

private:
    // Enough for a variable's header and small value blocks; larger reads
    // would copy value bytes that are then read again into their variable.
    static constexpr int64_t kWindow = 4096;

    // Up to n bytes of the block from `offset`; fewer only at its end or
    // when the file holds fewer.
    int64_t read(int64_t offset, uint8_t* out, int64_t n) {
        // The piece holding `offset`: the last one starting at or before it.
        std::size_t piece = static_cast<std::size_t>(
            std::upper_bound(starts_.begin(), starts_.end(), offset) - starts_.begin());
        if (piece == 0) return 0;
        --piece;
        int64_t done = 0;
        for (; done < n && piece < pieces_.size(); ++piece) {
            const int64_t within = offset + done - starts_[piece];
            const int64_t take = std::min(n - done, pieces_[piece].length - within);
            const int64_t got = readAt(pieces_[piece].offset + within, out + done, take);
            done += got;
            if (got < take) break;
        }
        return done;
    }

    int64_t readAt(int64_t position, uint8_t* out, int64_t n) {
        int64_t done = 0;
        while (done < n) {
            const ssize_t got = ::pread(fd_, out + done, static_cast<std::size_t>(n - done),
                                        static_cast<off_t>(position + done));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            done += got;
        }
        return done;
    }

    int fd_;
    std::vector<FilePiece> pieces_;
    std::vector<int64_t> starts_;  // offset in the block of each piece
    std::vector<uint8_t> window_;
    int64_t windowStart_ = 0;
    int64_t windowLength_ = 0;
};

// One allocation of values: its control block and the allocator's header
// and rounding.
constexpr int64_t kBlockOverhead = 48;
// Variables of fewer values than this share one allocation per AOI, so that
// a block of many tiny variables does not pay an allocation for each.
// Larger ones get their own: the allocator hands freed ones of the same
// size straight back, which matters when a series is read file by file.
constexpr uint64_t kSharedBelow = 16 * 1024;

// What the decoded model may still take, in bytes.
struct Budget {
    int64_t left;
    bool exceeded = false;
    bool charge(int64_t bytes) {
        if (bytes > left) {
            exceeded = true;
            return false;
        }
        left -= bytes;
        return true;
    }
};

// Storage for `count` values that pread fills at once. Large blocks are
// aligned to huge pages and asked for them, as numpy does for its arrays:
// filling 4 KiB pages one fault at a time would cost as much as the read.
std::shared_ptr<float[]> valueBlock(std::size_t count) {
    constexpr std::size_t kHugePage = std::size_t(2) << 20;
    const std::size_t bytes = count * sizeof(float);
    if (bytes >= 2 * kHugePage) {
        void* memory = nullptr;
        if (::posix_memalign(&memory, kHugePage, bytes) == 0) {
#ifdef MADV_HUGEPAGE
            ::madvise(memory, bytes / kHugePage * kHugePage, MADV_HUGEPAGE);
#endif
            return std::shared_ptr<float[]>(static_cast<float*>(memory), [](float* p) { std::free(p); });
        }
    }
    return std::make_shared_for_overwrite<float[]>(count);
}

Budget budgetFor(int64_t size) {
    return Budget{static_cast<int64_t>(kMemoryPerByte * static_cast<double>(size)) + kMemoryAllowance};
}

// UTF-8 takes at most 3 bytes for the 2 of a UTF-16 unit.
int64_t textCost(uint32_t utf16Bytes) { return utf16Bytes == kEmptyText ? 0 : int64_t(utf16Bytes) / 2 * 3; }

// A bounded cursor over [0, size) of a source; offsets stay within it, so
// no arithmetic on them can overflow.
template <class Source>
struct Cursor {
    Source& source;
    int64_t size;
    int64_t offset;

    int64_t remaining() const { return size - offset; }
    bool word(uint32_t& out) {
        if (remaining() < 4) return false;
        const uint8_t* p = source.bytes(offset, 4);
        if (p == nullptr) return false;
        out = readBE32(p);
        offset += 4;
        return true;
    }
    // Reads a text into `out`, or steps over it when `out` is null; `length`
    // receives its byte length (kEmptyText for an empty text).
    bool text(std::string* out, uint32_t& length) {
        if (!word(length)) return false;
        if (length == kEmptyText) {
            if (out != nullptr) out->clear();
            return true;
        }
        if ((length & 1u) != 0 || length > static_cast<uint64_t>(remaining())) return false;
        if (out != nullptr) {
            const uint8_t* p = source.bytes(offset, length);
            if (p == nullptr) return false;
            *out = utf::fromUtf16BE(p, length / 2);
        }
        offset += length;
        return true;
    }
};

ZelDataVariableType kindFromCode(uint32_t code) {
    const uint32_t k = code - kTagValues;  // wraps for codes below the base
    if (k == 16 || k == 17) return Angle;
    if (k <= 19 && k != 6) return static_cast<ZelDataVariableType>(k);
    return Unknown;
}

// Reads one AOI, starting just after its AOI start tag, into `aoi`; with a
// null `aoi` it only walks over it. The walk takes every decision the decode
// takes, budget included, so that it predicts the decode exactly. A failure
// in a variable's tags or values clears the AOI; running out of bytes in a
// tag, count or text leaves what was read.
template <class Source>
bool readAoi(Cursor<Source>& in, ZelData* aoi, Budget& budget, bool logs) {
    const bool store = aoi != nullptr;
    uint32_t variableCount = 0, rows = 0, columns = 0;
    int32_t grid = 2;
    std::string aoiName;
    uint32_t nameLength = kEmptyText;

    for (;;) {
        uint32_t tag = 0;
        if (!in.word(tag)) return false;
        if (tag == kTagVariableStart) break;
        switch (tag) {
            case kTagAoiStart:
                break;
            case kTagVariableCount:
                if (!in.word(variableCount)) return false;
                break;
            case kTagRows:
                if (!in.word(rows)) return false;
                break;
            case kTagColumns:
                if (!in.word(columns)) return false;
                break;
            case kTagGridKind: {
                uint32_t code = 0;
                if (!in.word(code)) return false;
                if (code >= kGridKindBase && code <= kGridKindBase + 2)
                    grid = static_cast<int32_t>(code - kGridKindBase);
                break;
            }
            case kTagAoiName:
                if (!in.text(store ? &aoiName : nullptr, nameLength)) return false;
                break;
            default:
                if (logs)
                    NIMBRA_LOG(error) << "Not on variable start tag after aoi header. Likely wrong version.";
                return false;
        }
    }

    const bool empty = variableCount == 0 || rows == 0 || columns == 0;
    // An AOI of nothing but defaults needs no state (see ZelData).
    const bool needsState = rows != 0 || columns != 0 || grid != 2 ||
                            (nameLength != kEmptyText && nameLength != 0) || !empty;
    if (needsState && !budget.charge(ZelData::kStateBytes + textCost(nameLength)))
        return false;
    if (store) {
        aoi->setSize(static_cast<int32_t>(rows), static_cast<int32_t>(columns));
        aoi->setGridKind(grid);
        aoi->setName(aoiName);
    }
    if (empty) return true;

    // Every variable needs at least its value tag, its count and its values
    // (the format's 32-bit product of rows and columns); this holds them all
    // before anything is allocated for them.
    const uint32_t expected = rows * columns;
    const bool shared = expected < kSharedBelow;
    if (expected == 0 ||
        uint64_t(variableCount) * (8 + 4 * uint64_t(expected)) > static_cast<uint64_t>(in.remaining()) ||
        !budget.charge(int64_t(variableCount) * static_cast<int64_t>(sizeof(ZelDataVariable)) +
                       int64_t(variableCount) * expected * 4 +
                       (shared ? 1 : int64_t(variableCount)) * kBlockOverhead)) {
        if (store) aoi->clear();
        return false;
    }
    // Small variables share one block; each holds a share of it, so a numpy
    // view of one keeps the block alive.
    std::shared_ptr<float[]> block;
    if (store) {
        aoi->resizeVariables(static_cast<int32_t>(variableCount));
        if (shared) block = valueBlock(std::size_t(variableCount) * expected);
    }

    for (uint32_t v = 0; v < variableCount; ++v) {
        std::string name, description;
        uint32_t nameBytes = kEmptyText, descriptionBytes = kEmptyText;
        ZelDataVariableType type = Unknown;
        for (bool header = true; header;) {
            uint32_t tag = 0;
            if (!in.word(tag)) return false;
            switch (tag) {
                case kTagVariableStart:
                    break;
                case kTagVariableKind: {
                    uint32_t code = 0;
                    if (!in.word(code)) return false;
                    type = kindFromCode(code);
                    break;
                }
                case kTagVariableName:
                    if (!in.text(store ? &name : nullptr, nameBytes)) return false;
                    break;
                case kTagVariableDescription:
                    if (!in.text(store ? &description : nullptr, descriptionBytes))
                        return false;
                    break;
                case kTagValues:
                    header = false;
                    break;
                default:
                    if (store) aoi->clear();
                    return false;
            }
        }
        uint32_t count = 0;
        if (!in.word(count)) return false;
        if (count == 0 || count != expected || count > static_cast<uint64_t>(in.remaining()) / 4u ||
            !budget.charge(textCost(nameBytes) + textCost(descriptionBytes))) {
            if (store) aoi->clear();
            return false;
        }
        if (store) {
            ZelDataVariable* record = aoi->variable(static_cast<int32_t>(v));
            record->name = std::move(name);
            record->description = std::move(description);
            record->type = type;
            record->values = shared ? std::shared_ptr<float[]>(block, block.get() + std::size_t(v) * expected)
                                    : valueBlock(expected);
            record->count = static_cast<int32_t>(count);
            if (!in.source.copy(in.offset, record->values.get(), int64_t(count) * 4)) {
                aoi->clear();
                return false;
            }
            if constexpr (std::endian::native == std::endian::big) {
                auto* words = reinterpret_cast<uint32_t*>(record->values.get());
                for (uint32_t i = 0; i < count; ++i) words[i] = __builtin_bswap32(words[i]);
            }
        }
        in.offset += int64_t(count) * 4;
    }
    if (store) aoi->canonicalOrder();
    return true;
}

// Reads a whole block into `target`, or walks over it when `target` is null.
template <class Source>
Walk readBlock(Cursor<Source>& in, ZelDataSet* target, bool strict, bool logs) {
    Walk walk;
    const bool store = target != nullptr;
    uint32_t magic = 0;
    if (!in.word(magic)) return walk;
    if (magic != kMagicPrimary && !(magic == kMagicSecondary && !strict)) {
        if (logs) NIMBRA_LOG(error) << "Unknown file type. " << magic;
        return walk;
    }
    uint32_t version = 0;
    if (!in.word(version)) return walk;
    if (version != kVersion && logs) NIMBRA_LOG(error) << "Version mismatch, proceeding anyway...";

    uint32_t aoiCount = 0;
    std::string reference, deformed;
    uint32_t referenceBytes = kEmptyText, deformedBytes = kEmptyText;
    uint32_t tag = 0;
    for (bool header = true; header;) {
        if (!in.word(tag)) return walk;
        switch (tag) {
            case kTagAoiCount:
                if (!in.word(aoiCount)) return walk;
                break;
            case kTagReferenceImage:
                if (!in.text(store ? &reference : nullptr, referenceBytes)) return walk;
                break;
            case kTagDeformedImage:
                if (!in.text(store ? &deformed : nullptr, deformedBytes)) return walk;
                break;
            default:
                header = false;
        }
    }
    if (tag != kTagAoiStart) {
        if (logs)
            NIMBRA_LOG(error) << "Not on data tag after reading header. Likely wrong data file version.";
        return walk;
    }

    if (store) target->clear();
    Budget budget = budgetFor(in.size);
    budget.charge(textCost(referenceBytes) + textCost(deformedBytes));
    for (uint32_t a = 0; a < aoiCount; ++a) {
        ZelData* aoi = store ? &target->appendEmpty() : nullptr;
        if (!budget.charge(sizeof(ZelData)) || !readAoi(in, aoi, budget, logs)) {
            if (store) target->removeLast();
            if (logs) {
                if (budget.exceeded)
                    NIMBRA_LOG(error) << "Too many AOIs or variables for the size of the data: more than "
                                      << kMemoryPerByte << " bytes of memory per byte.";
                NIMBRA_LOG(error) << "Could not read aoi.";
            }
            walk.overBudget = budget.exceeded;
            return walk;
        }
        ++walk.aoisRead;
    }
    if (store) {
        target->setReferenceImage(reference);
        target->setDeformedImage(deformed);
    }
    walk.decodes = true;
    return walk;
}

}  // namespace

int32_t ZelData::decode(const uint8_t* buffer, int32_t size) {
    clear();
    if (buffer == nullptr || size < 0) return -1;
    MemorySource source(buffer);
    Cursor<MemorySource> in{source, size, 0};
    Budget budget = budgetFor(size);
    if (!readAoi(in, this, budget, true)) return -1;
    return static_cast<int32_t>(in.offset);
}

bool ZelDataSet::decode(const uint8_t* buffer, int32_t size, bool strict) {
    if (buffer == nullptr || size < 4) return false;
    MemorySource source(buffer);
    Cursor<MemorySource> in{source, size, 0};
    return readBlock(in, this, strict, true).decodes;
}

bool ZelDataSet::decode(std::string_view bytes, bool strict) {
    if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) return false;
    return decode(reinterpret_cast<const uint8_t*>(bytes.data()),
                  static_cast<int32_t>(bytes.size()), strict);
}

namespace {

struct FileCloser {
    int fd;
    ~FileCloser() {
        if (fd >= 0) ::close(fd);
    }
};

// Opens a regular file for reading; -1 when it cannot be.
int openRegular(const std::string& path, int64_t& size) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(fd);
        return -1;
    }
    size = info.st_size;
    return fd;
}

}  // namespace

bool ZelDataSet::load(const std::string& path) {
    int64_t size = 0;
    FileCloser file{openRegular(path, size)};
    if (file.fd < 0) return false;
    return load(file.fd, {FilePiece{0, size}});
}

bool ZelDataSet::load(const std::string& path, const std::vector<FilePiece>& pieces) {
    int64_t fileSize = 0;
    FileCloser file{openRegular(path, fileSize)};
    if (file.fd < 0) return false;
    for (const FilePiece& piece : pieces)
        if (piece.offset < 0 || piece.length < 0 || piece.offset > fileSize ||
            piece.length > fileSize - piece.offset)
            return false;
    return load(file.fd, pieces);
}

bool ZelDataSet::load(int fd, const std::vector<FilePiece>& pieces) {
    int64_t size = 0;
    for (const FilePiece& piece : pieces) size += piece.length;
    // The read offset of the format is a signed 32-bit number.
    if (size < 4 || size > std::numeric_limits<int32_t>::max()) return false;
    FileSource source(fd, pieces);
    Cursor<FileSource> in{source, size, 0};
    return readBlock(in, this, false, true).decodes;
}

namespace codec {

Walk walkBlock(const uint8_t* block, int32_t size, bool strict) {
    if (block == nullptr || size < 4) return Walk{};
    MemorySource source(block);
    Cursor<MemorySource> in{source, size, 0};
    return readBlock(in, nullptr, strict, false);
}

Walk walkFile(int fd, int64_t offset, int64_t size) {
    if (size < 4 || size > std::numeric_limits<int32_t>::max()) return Walk{};
    FileSource source(fd, {FilePiece{offset, size}});
    Cursor<FileSource> in{source, size, 0};
    return readBlock(in, nullptr, false, false);
}

}  // namespace codec
}  // namespace nimbra
