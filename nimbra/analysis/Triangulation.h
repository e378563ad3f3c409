#pragma once
// Triangle mesh over the valid points of grid AOIs, for display and export.
// Vertices are point indices (row * width + column); at dataset level they
// are global: each AOI's indices are offset by the point counts of the AOIs
// before it, the order of ZelDataSet values concatenated AOI by AOI.

#include <cstdint>
#include <vector>

namespace nimbra {

class ZelData;
class ZelDataSet;

// Upper bound of the triangles triangulate() emits for this sub-sampling
// step (2 per full coarse cell); 0 for an AOI that is not meshed.
int64_t maxTriangles(const ZelData& data, int subSample);
int64_t maxTriangles(const ZelDataSet& dataSet, int subSample);

// Appends the triangles of one AOI to `out` (three indices each, plus
// `offset`); returns the number appended.
int64_t triangulate(const ZelData& data, int subSample, std::vector<uint32_t>& out,
                    uint32_t offset = 0);

// The triangles of every AOI, in index order, with global indices.
std::vector<uint32_t> triangulate(const ZelDataSet& dataSet, int subSample);

// The same into caller memory of 3 * maxTriangles(dataSet, subSample)
// indices; returns the number of triangles written. Lets the Python layer
// fill its array without an intermediate copy.
int64_t triangulateInto(const ZelDataSet& dataSet, int subSample, int64_t* out);

}  // namespace nimbra
