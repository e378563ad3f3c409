// Encoding of the data file format. The block size is fixed up front from
// the reserved sizes of every piece; each AOI starts at its own reserved slot
// and unused reserved bytes are zero-filled. The same walk writes into memory
// (export) or streams into a file (save), where the value arrays go to the
// file straight from the variables instead of through a copy of the block.

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <string>
#include <unistd.h>

#include "nimbra/data/Codec.h"
#include "nimbra/data/Utf.h"
#include "nimbra/data/ZelDataSet.h"

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

class FileSink : public Sink {
public:
    FileSink(std::FILE* file, int64_t size) : Sink(size), file_(file) {}

protected:
    bool emit(const uint8_t* bytes, int64_t n) override {
        return std::fwrite(bytes, 1, static_cast<std::size_t>(n), file_) == static_cast<std::size_t>(n);
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
    std::FILE* file_;
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

std::atomic<unsigned> tempCounter{0};

}  // namespace

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
    // Written beside the target and renamed over it, so that a failed or
    // interrupted save never destroys the file that was there.
    const std::string temporary = path + ".tmp" + std::to_string(::getpid()) + "." +
                                  std::to_string(tempCounter.fetch_add(1));
    std::FILE* file = std::fopen(temporary.c_str(), "wbx");
    if (file == nullptr) return false;
    bool ok;
    {
        FileSink out(file, total);
        ok = encodeDataSet(*this, out, total, false);
    }
    ok = (std::fflush(file) == 0) && ok;
    ok = (std::fclose(file) == 0) && ok;
    if (ok && std::rename(temporary.c_str(), path.c_str()) == 0) return true;
    std::remove(temporary.c_str());
    return false;
}

}  // namespace nimbra
