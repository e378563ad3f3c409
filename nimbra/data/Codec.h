#pragma once
// Tags and small helpers of the data file format shared by the decoder and
// the encoder. Tags, counts and lengths are big-endian 32-bit words; the
// values themselves are little-endian float32 blocks.

#include <bit>
#include <cstdint>
#include <cstring>

namespace nimbra::codec {

constexpr uint32_t kMagicPrimary = 0xC3275B51u;
constexpr uint32_t kMagicSecondary = 0xA24E5154u;
constexpr uint32_t kVersion = 0x312E3030u;  // "1.00"

constexpr uint32_t kTagAoiCount = 0xA0000002u;
constexpr uint32_t kTagReferenceImage = 0xA0000003u;
constexpr uint32_t kTagDeformedImage = 0xA0000004u;
constexpr uint32_t kTagAoiStart = 0xA0000101u;
constexpr uint32_t kTagVariableCount = 0xA0000103u;
constexpr uint32_t kTagRows = 0xA0000104u;
constexpr uint32_t kTagColumns = 0xA0000105u;
constexpr uint32_t kTagGridKind = 0xA0000110u;
constexpr uint32_t kTagAoiName = 0xA0000111u;
constexpr uint32_t kTagVariableStart = 0xA0000201u;
constexpr uint32_t kTagVariableKind = 0xA0000202u;
constexpr uint32_t kTagVariableName = 0xA0000203u;
constexpr uint32_t kTagVariableDescription = 0xA0000204u;
constexpr uint32_t kTagValues = 0xA0201001u;  // also the base of the kind codes

constexpr uint32_t kGridKindBase = 0xA0110000u;
constexpr uint32_t kEmptyText = 0xFFFFFFFFu;

inline uint32_t readBE32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

inline void writeBE32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

// The value blocks are little-endian float32; on a little-endian host they
// move as one block copy.
inline void copyValuesLE(float* destination, const uint8_t* source, std::size_t count) {
    std::memcpy(destination, source, count * sizeof(float));
    if constexpr (std::endian::native == std::endian::big) {
        auto* words = reinterpret_cast<uint32_t*>(destination);
        for (std::size_t i = 0; i < count; ++i) words[i] = __builtin_bswap32(words[i]);
    }
}

}  // namespace nimbra::codec
