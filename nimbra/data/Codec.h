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

// Memory a decoded block may take: this many bytes per byte of the block,
// plus the allowance. Real data costs about one byte per byte (the values
// themselves), and no block the encoder writes costs more than 3.1 (an AOI
// of one point and one variable); only blocks built to cost memory (millions
// of tiny AOIs or variables) reach the limit, and they are refused instead of
// taking many times their size.
constexpr double kMemoryPerByte = 3.5;
constexpr int64_t kMemoryAllowance = int64_t(1) << 20;

// How far a block reads back, found by walking it the way the decoder reads
// it without storing anything: nothing is allocated and no value is read.
struct Walk {
    bool decodes = false;
    int32_t aoisRead = 0;     // AOIs read in full before the walk stopped
    bool overBudget = false;  // stopped because of the memory limit above
};
Walk walkBlock(const uint8_t* block, int32_t size, bool strict);
// The same over `size` bytes at `offset` of an open file, read with pread.
Walk walkFile(int fd, int64_t offset, int64_t size);

}  // namespace nimbra::codec
