// Decoding of the data file format. Every count is checked against the bytes
// that remain before anything is allocated, so a hostile block can cost no
// more memory than its own size.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <limits>
#include <memory>

#include "nimbra/data/Codec.h"
#include "nimbra/data/Utf.h"
#include "nimbra/data/ZelData.h"
#include "nimbra/data/ZelDataSet.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

using namespace codec;

// A bounded cursor over the block; offsets stay within [0, size], so no
// arithmetic on them can overflow.
struct Cursor {
    const uint8_t* data;
    int32_t size;
    int32_t offset;

    int32_t remaining() const { return size - offset; }
    bool word(uint32_t& out) {
        if (remaining() < 4) return false;
        out = readBE32(data + offset);
        offset += 4;
        return true;
    }
    bool text(std::string& out) {
        uint32_t length = 0;
        if (!word(length)) return false;
        if (length == kEmptyText) {
            out.clear();
            return true;
        }
        if ((length & 1u) != 0) return false;
        if (length > static_cast<uint32_t>(remaining())) return false;
        out = utf::fromUtf16BE(data + offset, length / 2);
        offset += static_cast<int32_t>(length);
        return true;
    }
};

ZelDataVariableType kindFromCode(uint32_t code) {
    const uint32_t k = code - kTagValues;  // wraps for codes below the base
    if (k == 16 || k == 17) return Angle;
    if (k <= 19 && k != 6) return static_cast<ZelDataVariableType>(k);
    return Unknown;
}

}  // namespace

int32_t ZelData::decode(const uint8_t* buffer, int32_t size) {
    clear();
    if (buffer == nullptr || size < 0) return -1;
    Cursor in{buffer, size, 0};
    uint32_t variableCount = 0, rows = 0, columns = 0;
    int32_t grid = 2;
    std::string aoiName;

    for (;;) {
        uint32_t tag = 0;
        if (!in.word(tag)) return -1;
        if (tag == kTagVariableStart) break;
        switch (tag) {
            case kTagAoiStart:
                break;
            case kTagVariableCount:
                if (!in.word(variableCount)) return -1;
                break;
            case kTagRows:
                if (!in.word(rows)) return -1;
                break;
            case kTagColumns:
                if (!in.word(columns)) return -1;
                break;
            case kTagGridKind: {
                uint32_t code = 0;
                if (!in.word(code)) return -1;
                if (code >= kGridKindBase && code <= kGridKindBase + 2)
                    grid = static_cast<int32_t>(code - kGridKindBase);
                break;
            }
            case kTagAoiName:
                if (!in.text(aoiName)) return -1;
                break;
            default:
                NIMBRA_LOG(error) << "Not on variable start tag after aoi header. Likely wrong version.";
                return -1;
        }
    }

    setSize(static_cast<int32_t>(rows), static_cast<int32_t>(columns));
    setGridKind(grid);
    setName(aoiName);
    if (variableCount == 0 || rows == 0 || columns == 0) return in.offset;

    // Each variable needs at least its value tag, its count and one value.
    if (variableCount > static_cast<uint32_t>(in.remaining()) / 12u + 1u) {
        clear();
        return -1;
    }
    const uint32_t expected = rows * columns;  // the format's 32-bit product
    resizeVariables(static_cast<int32_t>(variableCount));

    for (uint32_t v = 0; v < variableCount; ++v) {
        std::string name, description;
        ZelDataVariableType type = Unknown;
        for (bool header = true; header;) {
            uint32_t tag = 0;
            if (!in.word(tag)) return -1;
            switch (tag) {
                case kTagVariableStart:
                    break;
                case kTagVariableKind: {
                    uint32_t code = 0;
                    if (!in.word(code)) return -1;
                    type = kindFromCode(code);
                    break;
                }
                case kTagVariableName:
                    if (!in.text(name)) return -1;
                    break;
                case kTagVariableDescription:
                    if (!in.text(description)) return -1;
                    break;
                case kTagValues:
                    header = false;
                    break;
                default:
                    clear();
                    return -1;
            }
        }
        uint32_t count = 0;
        if (!in.word(count)) return -1;
        if (count == 0 || count != expected ||
            count > static_cast<uint32_t>(in.remaining()) / 4u) {
            clear();
            return -1;
        }
        const int32_t index = static_cast<int32_t>(v);
        ZelDataVariable* record = variable(index);
        record->name = std::move(name);
        record->description = std::move(description);
        record->type = type;
        resizeValuesForOverwrite(index, static_cast<int32_t>(count));
        copyValuesLE(record->values.get(), buffer + in.offset, count);
        in.offset += static_cast<int32_t>(count * 4u);
    }
    canonicalOrder();
    return in.offset;
}

bool ZelDataSet::decode(const uint8_t* buffer, int32_t size, bool strict) {
    if (buffer == nullptr || size < 4) return false;
    Cursor in{buffer, size, 0};
    uint32_t magic = 0;
    in.word(magic);
    if (magic != kMagicPrimary && !(magic == kMagicSecondary && !strict)) {
        NIMBRA_LOG(error) << "Unknown file type. " << magic;
        return false;
    }
    uint32_t version = 0;
    if (!in.word(version)) return false;
    if (version != kVersion) NIMBRA_LOG(error) << "Version mismatch, proceeding anyway...";

    uint32_t aoiCount = 0;
    std::string reference, deformed;
    uint32_t tag = 0;
    for (bool header = true; header;) {
        if (!in.word(tag)) return false;
        switch (tag) {
            case kTagAoiCount:
                if (!in.word(aoiCount)) return false;
                break;
            case kTagReferenceImage:
                if (!in.text(reference)) return false;
                break;
            case kTagDeformedImage:
                if (!in.text(deformed)) return false;
                break;
            default:
                header = false;
        }
    }
    if (tag != kTagAoiStart) {
        NIMBRA_LOG(error) << "Not on data tag after reading header. Likely wrong data file version.";
        return false;
    }

    clear();
    for (uint32_t a = 0; a < aoiCount; ++a) {
        auto aoi = std::make_unique<ZelData>();
        const int32_t consumed = aoi->decode(buffer + in.offset, in.remaining());
        if (consumed < 1) {
            NIMBRA_LOG(error) << "Could not read aoi.";
            return false;
        }
        appendData(aoi.release());
        if (consumed > in.remaining()) {
            NIMBRA_LOG(error) << "Past buffer end, seriously confused.";
            return false;
        }
        in.offset += consumed;
    }
    setReferenceImage(reference);
    setDeformedImage(deformed);
    return true;
}

bool ZelDataSet::decode(std::string_view bytes, bool strict) {
    if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) return false;
    return decode(reinterpret_cast<const uint8_t*>(bytes.data()),
                  static_cast<int32_t>(bytes.size()), strict);
}

bool ZelDataSet::load(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return false;
    if (info.st_size > std::numeric_limits<int32_t>::max()) return false;
    const auto size = static_cast<std::size_t>(info.st_size);
    if (size < 8) {
        uint8_t small[8];
        return ::read(fd, small, size) == static_cast<ssize_t>(size) &&
               decode(small, static_cast<int32_t>(size), false);
    }
    // Decoding straight from a populated mapping of the page cache copies each
    // value block once, into its variable, instead of reading the file into a
    // buffer first and copying again.
    void* mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    if (mapped != MAP_FAILED) {
        const bool ok = decode(static_cast<const uint8_t*>(mapped), static_cast<int32_t>(size), false);
        ::munmap(mapped, size);
        return ok;
    }
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[size]);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::read(fd, buffer.get() + done, size - done);
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return decode(buffer.get(), static_cast<int32_t>(size), false);
}

}  // namespace nimbra
