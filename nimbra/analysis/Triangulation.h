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

// The triangles of every AOI, in index order, with global indices; none
// when an AOI's grid is not what its variables hold (requireConsistentGrid).
std::vector<uint32_t> triangulate(const ZelDataSet& dataSet, int subSample);

// A dataset's mesh in two passes over the workers: the constructor counts
// the triangles of bands of cells, write() then fills caller memory of
// 3 * size() indices, each band at its own offset. Lets the Python layer
// allocate its array exactly once and have it filled in parallel.
class GridTriangulation {
public:
    GridTriangulation(const ZelDataSet& dataSet, int subSample, int workers = 0);
    // False (with no triangles) when an AOI's grid is not what its variables
    // hold: its indices, and those of every AOI after it, would be wrong.
    bool valid() const { return valid_; }
    int64_t size() const { return total_; }
    void write(uint32_t* out) const;

private:
    struct Band {
        const ZelData* data;
        const float* confidence;
        int64_t firstRow;  // coarse rows [firstRow, lastRow) of cells
        int64_t lastRow;
        int64_t offset;    // global index of the AOI's first point
        int64_t start;     // first triangle of the band in the output
    };
    std::vector<Band> bands_;
    int subSample_;
    int workers_;
    int64_t total_ = 0;
    bool valid_ = true;
};

}  // namespace nimbra
