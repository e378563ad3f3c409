#include "nimbra/analysis/Triangulation.h"

#include <algorithm>

#include "nimbra/analysis/SurfaceGrid.h"
#include "nimbra/analysis/Workers.h"
#include "nimbra/data/ZelData.h"
#include "nimbra/data/ZelDataSet.h"

namespace nimbra {
namespace {

// Confidence of an AOI that can be meshed, or null.
const float* meshConfidence(const ZelData& data, int subSample) {
    if (subSample < 1 || data.gridKind() != 2 || !data.gridIsConsistent()) return nullptr;
    if (data.variableIndex("x") < 0 || data.variableIndex("y") < 0) return nullptr;
    const int32_t index = data.firstVariableOfType(Correlation);
    if (index < 0) return nullptr;
    const ZelDataVariable* conf = data.variable(index);
    if (conf->count < data.matrixSize() || data.matrixSize() <= 0) return nullptr;
    return conf->values.get();
}

// Emits the triangles of one AOI through put(a, b, c) with AOI-local indices,
// in the vertex orders of cellTriangles(): consumers rely on their winding,
// and the look-ups walk the same cells.
template <class Put>
void meshCells(const ZelData& data, const float* conf, int s, int64_t firstRow, int64_t lastRow,
               Put&& put) {
    const int64_t width = data.numColumns();
    const int64_t coarseColumns = width / s;
    for (int64_t a = firstRow; a < lastRow; ++a) {
        const int64_t top = a * s * width;
        const int64_t bottom = top + s * width;
        // Validity of the left corners carried over from the previous cell.
        bool tl = conf[top] >= 0.0f;
        bool bl = conf[bottom] >= 0.0f;
        for (int64_t b = 0; b + 1 < coarseColumns; ++b) {
            const int64_t left = b * s, right = left + s;
            const int64_t iTL = top + left, iTR = top + right;
            const int64_t iBL = bottom + left, iBR = bottom + right;
            const bool tr = conf[iTR] >= 0.0f;
            const bool br = conf[iBR] >= 0.0f;
            const int64_t corner[4] = {iTL, iTR, iBL, iBR};
            int64_t triangle[2][3];
            const int n = cellTriangles(tl, tr, bl, br, corner, triangle);
            for (int t = 0; t < n; ++t) put(triangle[t][0], triangle[t][1], triangle[t][2]);
            tl = tr;
            bl = br;
        }
    }
}

// Triangles meshCells() would emit, without branching on the pattern: two
// for four valid corners, one for three.
int64_t countCells(const ZelData& data, const float* conf, int s, int64_t firstRow,
                   int64_t lastRow) {
    const int64_t width = data.numColumns();
    const int64_t coarseColumns = width / s;
    int64_t count = 0;
    for (int64_t a = firstRow; a < lastRow; ++a) {
        const float* top = conf + a * s * width;
        const float* bottom = top + s * width;
        int left = (top[0] >= 0.0f) + (bottom[0] >= 0.0f);
        for (int64_t b = 1; b < coarseColumns; ++b) {
            const int right = (top[b * s] >= 0.0f) + (bottom[b * s] >= 0.0f);
            const int corners = left + right;
            count += (corners == 4) + (corners >= 3);
            left = right;
        }
    }
    return count;
}

int64_t pointCount(const ZelData& data) {
    return static_cast<int64_t>(data.numRows()) * data.numColumns();
}

// Global indices are offsets into the values of all AOIs concatenated; one
// AOI whose grid is not what its variables hold shifts every index after it.
bool consistentGrids(const ZelDataSet& dataSet) {
    for (int32_t i = 0; i < dataSet.numData(); ++i)
        if (!requireConsistentGrid(*dataSet.data(i), "triangulation()")) return false;
    return true;
}

}  // namespace

int64_t maxTriangles(const ZelData& data, int subSample) {
    if (meshConfidence(data, subSample) == nullptr) return 0;
    const int64_t rows = data.numRows() / subSample, columns = data.numColumns() / subSample;
    return rows < 2 || columns < 2 ? 0 : 2 * (rows - 1) * (columns - 1);
}

int64_t maxTriangles(const ZelDataSet& dataSet, int subSample) {
    int64_t total = 0;
    for (int32_t i = 0; i < dataSet.numData(); ++i) total += maxTriangles(*dataSet.data(i), subSample);
    return total;
}

int64_t triangulate(const ZelData& data, int subSample, std::vector<uint32_t>& out,
                    uint32_t offset) {
    const float* conf = meshConfidence(data, subSample);
    if (conf == nullptr) return 0;
    const size_t before = out.size();
    out.reserve(before + 3 * static_cast<size_t>(maxTriangles(data, subSample)));
    meshCells(data, conf, subSample, 0, data.numRows() / subSample - 1,
              [&](int64_t a, int64_t b, int64_t c) {
        out.push_back(static_cast<uint32_t>(a + offset));
        out.push_back(static_cast<uint32_t>(b + offset));
        out.push_back(static_cast<uint32_t>(c + offset));
    });
    return static_cast<int64_t>(out.size() - before) / 3;
}

std::vector<uint32_t> triangulate(const ZelDataSet& dataSet, int subSample) {
    std::vector<uint32_t> out;
    if (!consistentGrids(dataSet)) return out;
    out.reserve(3 * static_cast<size_t>(maxTriangles(dataSet, subSample)));
    uint32_t offset = 0;
    for (int32_t i = 0; i < dataSet.numData(); ++i) {
        triangulate(*dataSet.data(i), subSample, out, offset);
        offset += static_cast<uint32_t>(pointCount(*dataSet.data(i)));
    }
    return out;
}

GridTriangulation::GridTriangulation(const ZelDataSet& dataSet, int subSample, int workers)
    : subSample_(subSample), workers_(resolveWorkerCount(workers)) {
    valid_ = consistentGrids(dataSet);
    if (!valid_) return;
    // Bands of this many cell rows: enough of them to spread over the workers,
    // each large enough that a band's bookkeeping does not matter.
    constexpr int64_t kBandRows = 32;
    int64_t offset = 0;
    for (int32_t i = 0; i < dataSet.numData(); ++i) {
        const ZelData& data = *dataSet.data(i);
        if (const float* conf = meshConfidence(data, subSample)) {
            const int64_t cellRows = data.numRows() / subSample - 1;
            for (int64_t row = 0; row < cellRows; row += kBandRows)
                bands_.push_back({&data, conf, row, std::min(cellRows, row + kBandRows), offset, 0});
        }
        offset += pointCount(data);
    }
    std::vector<int64_t> counts(bands_.size(), 0);
    runWorkers(std::min<int>(workers_, static_cast<int>(bands_.size())), [&](int k, int n) {
        for (size_t b = static_cast<size_t>(k); b < bands_.size(); b += static_cast<size_t>(n)) {
            counts[b] = countCells(*bands_[b].data, bands_[b].confidence, subSample_,
                                   bands_[b].firstRow, bands_[b].lastRow);
        }
    });
    for (size_t b = 0; b < bands_.size(); ++b) {
        bands_[b].start = total_;
        total_ += counts[b];
    }
}

void GridTriangulation::write(uint32_t* out) const {
    runWorkers(std::min<int>(workers_, static_cast<int>(bands_.size())), [this, out](int k, int n) {
        for (size_t b = static_cast<size_t>(k); b < bands_.size(); b += static_cast<size_t>(n)) {
            const Band& band = bands_[b];
            uint32_t* cursor = out + 3 * band.start;
            meshCells(*band.data, band.confidence, subSample_, band.firstRow, band.lastRow,
                      [&](int64_t a, int64_t b2, int64_t c) {
                          cursor[0] = static_cast<uint32_t>(a + band.offset);
                          cursor[1] = static_cast<uint32_t>(b2 + band.offset);
                          cursor[2] = static_cast<uint32_t>(c + band.offset);
                          cursor += 3;
                      });
        }
    });
}

}  // namespace nimbra
