#pragma once
// One data file: the two image names and the AOIs measured on them.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "nimbra/data/ZelData.h"

namespace nimbra {

// `length` bytes at `offset` of a file.
struct FilePiece {
    int64_t offset;
    int64_t length;
};

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
    // Appends an AOI holding nothing yet and returns it. AOIs stay where they
    // are while more are appended.
    ZelData& appendEmpty();
    void removeLast();
    // Appends an empty AOI of the given shape; returns it.
    ZelData* addData(int32_t rows, int32_t columns, const std::string& name);

    const std::string& referenceImage() const;
    void setReferenceImage(const std::string& name);
    const std::string& deformedImage() const;
    void setDeformedImage(const std::string& name);

    bool decode(const uint8_t* buffer, int32_t size, bool strict);
    bool decode(std::string_view bytes, bool strict);
    // Reads the whole file and decodes it (not strict). False, with nothing
    // logged, when the file cannot be opened. The file is read with pread
    // straight into the variables, so one that shrinks or is rewritten while
    // it is read gives false, never a fault.
    bool load(const std::string& path);
    // The same for a block stored inside another file (a member of an HDF5
    // file) as pieces, in order; false when the file does not hold them.
    bool load(const std::string& path, const std::vector<FilePiece>& pieces);

    // The encoded block (caller frees with delete[]), or null on failure.
    uint8_t* encode(int32_t& size, bool primary) const;
    // Exact size of the block that encode() produces, or -1 when it does not
    // fit the format's 32-bit offsets.
    int64_t encodedSize() const;
    // Encodes into caller memory of encodedSize() bytes.
    bool encodeInto(uint8_t* destination, int64_t size, bool primary) const;
    // Writes the encoded dataset (magic 0xA24E5154) to `path`: through a
    // temporary file beside it that takes the target's permissions and is
    // renamed over it only once its bytes have been walked and found to read
    // back. False, with the target untouched and one error line saying why
    // when the block would not read back, when it cannot be written.
    bool save(const std::string& path) const;
    // True when `block`, this dataset's encoding, reads back; otherwise false
    // and one error line saying why, naming the AOI at fault. No value is
    // read and nothing is allocated.
    bool readsBack(const uint8_t* block, int32_t size) const;

private:
    bool load(int fd, const std::vector<FilePiece>& pieces);

    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace nimbra
