#pragma once
// One data file: the two image names and the AOIs measured on them.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "nimbra/data/ZelData.h"

namespace nimbra {

class ZelDataSet {
public:
    ZelDataSet();
    virtual ~ZelDataSet();
    ZelDataSet(const ZelDataSet& other);
    ZelDataSet& operator=(const ZelDataSet& other);

    void clear();

    int32_t numData() const;
    ZelData* data(int32_t index);
    const ZelData* data(int32_t index) const;
    // Takes ownership of `data` and appends it; returns its index.
    int32_t appendData(ZelData* data);
    // Appends an empty AOI of the given shape; returns it.
    ZelData* addData(int32_t rows, int32_t columns, const std::string& name);

    const std::string& referenceImage() const;
    void setReferenceImage(const std::string& name);
    const std::string& deformedImage() const;
    void setDeformedImage(const std::string& name);

    bool decode(const uint8_t* buffer, int32_t size, bool strict);
    bool decode(std::string_view bytes, bool strict);
    // Reads the whole file and decodes it (not strict). False, with nothing
    // logged, when the file cannot be opened.
    bool load(const std::string& path);

    // The encoded block (caller frees with delete[]), or null on failure.
    uint8_t* encode(int32_t& size, bool primary) const;
    // Exact size of the block that encode() produces, or -1 when it does not
    // fit the format's 32-bit offsets.
    int64_t encodedSize() const;
    // Encodes into caller memory of encodedSize() bytes.
    bool encodeInto(uint8_t* destination, int64_t size, bool primary) const;
    // Writes the encoded dataset (magic 0xA24E5154) to `path`.
    bool save(const std::string& path) const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace nimbra
