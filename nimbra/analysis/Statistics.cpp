#include "nimbra/analysis/Statistics.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <vector>

#include "nimbra/analysis/SurfaceGrid.h"
#include "nimbra/analysis/VectorClones.h"
#include "nimbra/analysis/Workers.h"
#include "nimbra/data/ZelData.h"
#include "nimbra/data/ZelDataSet.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

// Points are scanned in blocks of this many lanes, each lane keeping its own
// running result, so that the loops have a fixed trip count the compiler
// turns into vector code at -O2: single-precision values, double ones.
constexpr int kFloatLanes = 8;
constexpr int kLanes = 4;
// Below this many points one thread does the whole scan.
constexpr int64_t kPointsPerWorker = 1 << 18;

constexpr double kInf = std::numeric_limits<double>::infinity();

// A value counts when its point is valid and the value is finite; x - x is 0
// exactly for finite x and NaN otherwise, which vectorises where isfinite
// does not.
inline bool counts(float confidence, float value) {
    return (confidence >= 0.0f) & (value - value == 0.0f);
}

// Runs fn(begin, end, k) over `workers` contiguous chunks of [0, n).
template <class Fn>
void chunks(int64_t n, int workers, Fn&& fn) {
    runWorkers(workers, [&](int k, int count) {
        fn(n * k / count, n * (k + 1) / count, k);
    });
}

int workersFor(int64_t n) {
    return static_cast<int>(std::min<int64_t>(analysisWorkerCount(), n / kPointsPerWorker + 1));
}

// Minimum and maximum over [begin, end); +inf / -inf when nothing counts.
NIMBRA_VECTOR_CLONES void scanRange(const float* v, const float* conf, int64_t begin, int64_t end,
                                    double& lo, double& hi) {
    float l[kFloatLanes], h[kFloatLanes];
    for (int q = 0; q < kFloatLanes; ++q) {
        l[q] = std::numeric_limits<float>::infinity();
        h[q] = -std::numeric_limits<float>::infinity();
    }
    int64_t i = begin;
    for (; i + kFloatLanes <= end; i += kFloatLanes) {
        for (int q = 0; q < kFloatLanes; ++q) {
            const float x = v[i + q];
            const bool ok = counts(conf[i + q], x);
            const float a = ok ? x : l[q], b = ok ? x : h[q];
            l[q] = a < l[q] ? a : l[q];
            h[q] = b > h[q] ? b : h[q];
        }
    }
    float lo32 = std::numeric_limits<float>::infinity(), hi32 = -lo32;
    for (int q = 0; q < kFloatLanes; ++q) {
        lo32 = std::min(lo32, l[q]);
        hi32 = std::max(hi32, h[q]);
    }
    for (; i < end; ++i) {
        if (!counts(conf[i], v[i])) continue;
        lo32 = std::min(lo32, v[i]);
        hi32 = std::max(hi32, v[i]);
    }
    lo = lo32;
    hi = hi32;
}

// The smallest (largest) counting value over [begin, end) and its lowest
// index, in one pass: each lane keeps its best value and the block where it
// first saw it; index -1 when nothing counts.
template <bool Largest>
NIMBRA_ALWAYS_INLINE void scanExtreme(const float* v, const float* conf, int64_t begin, int64_t end,
                                      float& value, int64_t& index) {
    const float worst = Largest ? -std::numeric_limits<float>::infinity()
                                : std::numeric_limits<float>::infinity();
    float best[kFloatLanes];
    int32_t block[kFloatLanes];
    for (int q = 0; q < kFloatLanes; ++q) {
        best[q] = worst;
        block[q] = -1;
    }
    int64_t i = begin;
    for (int32_t n = 0; i + kFloatLanes <= end; i += kFloatLanes, ++n) {
        for (int q = 0; q < kFloatLanes; ++q) {
            const float x = v[i + q];
            const bool better = counts(conf[i + q], x) & (Largest ? x > best[q] : x < best[q]);
            best[q] = better ? x : best[q];
            block[q] = better ? n : block[q];
        }
    }
    value = worst;
    index = -1;
    for (int q = 0; q < kFloatLanes; ++q) {
        if (block[q] < 0) continue;
        const int64_t at = begin + static_cast<int64_t>(block[q]) * kFloatLanes + q;
        if (index < 0 || (Largest ? best[q] > value : best[q] < value) || (best[q] == value && at < index)) {
            value = best[q];
            index = at;
        }
    }
    for (; i < end; ++i) {  // the tail: later than every block, so strictly better only
        if (counts(conf[i], v[i]) && (index < 0 || (Largest ? v[i] > value : v[i] < value))) {
            value = v[i];
            index = i;
        }
    }
}

NIMBRA_VECTOR_CLONES void scanMinimum(const float* v, const float* conf, int64_t begin, int64_t end,
                                      float& value, int64_t& index) {
    scanExtreme<false>(v, conf, begin, end, value, index);
}

NIMBRA_VECTOR_CLONES void scanMaximum(const float* v, const float* conf, int64_t begin, int64_t end,
                                      float& value, int64_t& index) {
    scanExtreme<true>(v, conf, begin, end, value, index);
}

// The same for a[i] + b[i], summed in double.
NIMBRA_VECTOR_CLONES void scanSumRange(const float* a, const float* b, const float* conf,
                                       int64_t begin, int64_t end, double& lo, double& hi) {
    double l[kLanes], h[kLanes];
    for (int q = 0; q < kLanes; ++q) {
        l[q] = kInf;
        h[q] = -kInf;
    }
    int64_t i = begin;
    for (; i + kLanes <= end; i += kLanes) {
        for (int q = 0; q < kLanes; ++q) {
            const double s = static_cast<double>(a[i + q]) + static_cast<double>(b[i + q]);
            // The sum of two floats is finite in double exactly when both are.
            const bool ok = (conf[i + q] >= 0.0f) & (s - s == 0.0);
            const double x = ok ? s : l[q], y = ok ? s : h[q];
            l[q] = x < l[q] ? x : l[q];
            h[q] = y > h[q] ? y : h[q];
        }
    }
    lo = kInf;
    hi = -kInf;
    for (int q = 0; q < kLanes; ++q) {
        lo = std::min(lo, l[q]);
        hi = std::max(hi, h[q]);
    }
    for (; i < end; ++i) {
        const double s = static_cast<double>(a[i]) + static_cast<double>(b[i]);
        if (!(conf[i] >= 0.0f) || !(s - s == 0.0)) continue;
        lo = std::min(lo, s);
        hi = std::max(hi, s);
    }
}

// The confidence and variable arrays of an AOI (`second` -1 for one
// variable), or false when refused.
bool statisticArrays(const ZelData& data, int32_t first, int32_t second, const float*& conf,
                     const float* (&values)[2], int64_t& size, const char* caller) {
    // Without a confidence variable no point is valid.
    const int32_t c = data.firstVariableOfType(Correlation);
    if (!requireConsistentGrid(data, {first, second, c}, caller)) return false;
    size = gridPointCount(data);
    values[0] = data.variableValues(first);
    values[1] = second >= 0 ? data.variableValues(second) : nullptr;
    conf = c >= 0 ? data.variableValues(c) : nullptr;
    return true;
}

bool extreme(const ZelData& data, int32_t variable, bool maximum, ValueExtreme& out,
             const char* caller) {
    out = ValueExtreme{};
    const float* conf;
    const float* values[2];
    int64_t n;
    if (!statisticArrays(data, variable, -1, conf, values, n, caller)) return false;
    if (conf == nullptr || n == 0) return true;
    const float* v = values[0];
    const int workers = workersFor(n);
    std::vector<float> best(static_cast<size_t>(workers));
    std::vector<int64_t> at(static_cast<size_t>(workers));
    chunks(n, workers, [&](int64_t b, int64_t e, int k) {
        if (maximum)
            scanMaximum(v, conf, b, e, best[static_cast<size_t>(k)], at[static_cast<size_t>(k)]);
        else
            scanMinimum(v, conf, b, e, best[static_cast<size_t>(k)], at[static_cast<size_t>(k)]);
    });
    // Chunks in index order: the first one holding the best value wins ties.
    for (int k = 0; k < workers; ++k) {
        const float value = best[static_cast<size_t>(k)];
        if (at[static_cast<size_t>(k)] < 0) continue;
        if (!out.found() || (maximum ? value > out.value : value < out.value)) {
            out.value = value;
            out.index = at[static_cast<size_t>(k)];
        }
    }
    return true;
}

bool range(const ZelData& data, int32_t first, int32_t second, ValueRange& out,
           const char* caller) {
    out = ValueRange{};
    const float* conf;
    const float* values[2];
    int64_t n;
    const bool sum = second >= 0;
    if (!statisticArrays(data, first, second, conf, values, n, caller)) return false;
    if (conf == nullptr || n == 0) return true;
    const int workers = workersFor(n);
    std::vector<double> lo(static_cast<size_t>(workers)), hi(static_cast<size_t>(workers));
    chunks(n, workers, [&](int64_t b, int64_t e, int k) {
        if (sum)
            scanSumRange(values[0], values[1], conf, b, e, lo[static_cast<size_t>(k)],
                         hi[static_cast<size_t>(k)]);
        else
            scanRange(values[0], conf, b, e, lo[static_cast<size_t>(k)], hi[static_cast<size_t>(k)]);
    });
    out.minimum = *std::min_element(lo.begin(), lo.end());
    out.maximum = *std::max_element(hi.begin(), hi.end());
    out.found = out.minimum <= out.maximum;
    if (!out.found) out.minimum = out.maximum = 0.0;
    return true;
}

bool dataSetRange(const ZelDataSet& dataSet, const std::string& first, const std::string* second,
                  double& minimum, double& maximum, const char* caller) {
    minimum = kInf;
    maximum = -kInf;
    for (int32_t i = 0; i < dataSet.numData(); ++i) {
        const ZelData& data = *dataSet.data(i);
        const int32_t a = data.variableIndex(first);
        const int32_t b = second != nullptr ? data.variableIndex(*second) : -1;
        if (a < 0 || (second != nullptr && b < 0)) {
            NIMBRA_LOG(error) << "Could not find variable " << (a < 0 ? first : *second)
                              << " in AOI " << i << " in " << caller << ".";
            return false;
        }
        ValueRange r;
        if (!range(data, a, b, r, caller)) return false;
        if (!r.found) continue;
        minimum = std::min(minimum, r.minimum);
        maximum = std::max(maximum, r.maximum);
    }
    if (minimum > maximum) {
        NIMBRA_LOG(error) << "No valid point with a finite value in " << caller << ".";
        minimum = maximum = 0.0;
        return false;
    }
    return true;
}

// One grid row in double precision: positions and validity (1 or 0). The
// cells are taken kLanes at a time, and the last block reads the right
// corner of its last cell: the padding covers whole blocks of cells plus
// that corner, and holds invalid points.
struct RowBuffer {
    std::vector<double> x, y, z, valid;
    static size_t padded(int64_t columns) {
        const int64_t cells = std::max<int64_t>(columns - 1, 0);
        return static_cast<size_t>(std::max(columns, (cells + kLanes - 1) / kLanes * kLanes + 1));
    }
    explicit RowBuffer(int64_t columns) : x(padded(columns), 0.0), y(x), z(x), valid(x) {}
};

// Loops with a fixed trip count of kLanes, so that they vectorise at -O2.
NIMBRA_VECTOR_CLONES void loadRow(const float* x, const float* y, const float* z, const float* conf,
                                  int64_t columns, RowBuffer& row) {
    double* __restrict rx = row.x.data();
    double* __restrict ry = row.y.data();
    double* __restrict rz = row.z.data();
    double* __restrict rv = row.valid.data();
    const int64_t blocks = columns / kLanes * kLanes;
    for (int64_t j = 0; j < blocks; j += kLanes) {
        for (int q = 0; q < kLanes; ++q) {
            rx[j + q] = x[j + q];
            ry[j + q] = y[j + q];
            rv[j + q] = conf[j + q] >= 0.0f ? 1.0 : 0.0;
        }
    }
    if (z != nullptr)
        for (int64_t j = 0; j < blocks; j += kLanes)
            for (int q = 0; q < kLanes; ++q) rz[j + q] = z[j + q];
    for (int64_t j = blocks; j < columns; ++j) {
        rx[j] = x[j];
        ry[j] = y[j];
        rv[j] = conf[j] >= 0.0f ? 1.0 : 0.0;
        if (z != nullptr) rz[j] = z[j];
    }
}

// Twice the areas of the mesh triangles of the cells between two rows, and
// their number, added to the lanes. Branch-free selects, so that the lanes
// run as vector code: the first triangle of a cell is the one with its
// top-left corner ((TL, TR, BL), or (TL, TR, BR) / (TL, BR, BL) when the
// bottom-left / top-right corner is missing), the second is (TR, BR, BL).
// Cells past the last one (in the padding) have no valid corner.
NIMBRA_VECTOR_CLONES void rowAreas(const RowBuffer& top, const RowBuffer& bottom, int64_t columns,
                                   double (&area)[kLanes], double (&count)[kLanes]) {
    const double* __restrict tx = top.x.data();
    const double* __restrict ty = top.y.data();
    const double* __restrict tz = top.z.data();
    const double* __restrict tv = top.valid.data();
    const double* __restrict bx = bottom.x.data();
    const double* __restrict by = bottom.y.data();
    const double* __restrict bz = bottom.z.data();
    const double* __restrict bv = bottom.valid.data();
    double sum[kLanes], number[kLanes];
    for (int q = 0; q < kLanes; ++q) {
        sum[q] = area[q];
        number[q] = count[q];
    }
    for (int64_t j0 = 0; j0 < columns - 1; j0 += kLanes) {
        for (int q = 0; q < kLanes; ++q) {
            const int64_t j = j0 + q;
            // Beyond the last cell the right corners are padding (invalid).
            const double a = tv[j], b = tv[j + 1], c = bv[j], d = bv[j + 1];
            const double ux = tx[j + 1] - tx[j], uy = ty[j + 1] - ty[j], uz = tz[j + 1] - tz[j];
            const double vx = bx[j] - tx[j], vy = by[j] - ty[j], vz = bz[j] - tz[j];
            const double wx = bx[j + 1] - tx[j], wy = by[j + 1] - ty[j], wz = bz[j + 1] - tz[j];
            const double first = b * c + b * d + c * d > 0.0 ? a : 0.0;
            const double second = b * c * d;
            // Edge pair of the first triangle: (u, v), (u, w) or (w, v).
            const double px = b > 0.0 ? ux : wx, py = b > 0.0 ? uy : wy, pz = b > 0.0 ? uz : wz;
            const double qx = c > 0.0 ? vx : wx, qy = c > 0.0 ? vy : wy, qz = c > 0.0 ? vz : wz;
            const double c1x = py * qz - pz * qy, c1y = pz * qx - px * qz, c1z = px * qy - py * qx;
            // (BR - TR) x (BL - TR) = (w - u) x (v - u)
            const double sx = wx - ux, sy = wy - uy, sz = wz - uz;
            const double rx = vx - ux, ry = vy - uy, rz = vz - uz;
            const double c2x = sy * rz - sz * ry, c2y = sz * rx - sx * rz, c2z = sx * ry - sy * rx;
            const double n1 = std::sqrt(c1x * c1x + c1y * c1y + c1z * c1z);
            const double n2 = std::sqrt(c2x * c2x + c2y * c2y + c2z * c2z);
            // Selects, not products: a missing corner may hold NaN.
            sum[q] += (first > 0.0 ? n1 : 0.0) + (second > 0.0 ? n2 : 0.0);
            number[q] += first + second;
        }
    }
    for (int q = 0; q < kLanes; ++q) {
        area[q] = sum[q];
        count[q] = number[q];
    }
}

// Twice the area and the triangle count of the cells of rows [first, last).
void cellAreas(const float* x, const float* y, const float* z, const float* conf, int64_t columns,
               int64_t first, int64_t last, double& area, int64_t& triangles) {
    double lanes[kLanes] = {}, counts[kLanes] = {};
    RowBuffer rows[2] = {RowBuffer(columns), RowBuffer(columns)};
    auto load = [&](int64_t row, RowBuffer& into) {
        const int64_t offset = row * columns;
        loadRow(x + offset, y + offset, z != nullptr ? z + offset : nullptr, conf + offset, columns, into);
    };
    load(first, rows[0]);
    for (int64_t a = first; a < last; ++a) {
        RowBuffer& top = rows[(a - first) % 2];
        RowBuffer& bottom = rows[(a - first + 1) % 2];
        load(a + 1, bottom);
        rowAreas(top, bottom, columns, lanes, counts);
    }
    double sum = 0.0, count = 0.0;
    for (int q = 0; q < kLanes; ++q) {
        sum += lanes[q];
        count += counts[q];
    }
    area = sum;
    triangles = static_cast<int64_t>(count);
}

}  // namespace

bool findMinimum(const ZelData& data, int32_t variable, ValueExtreme& out) {
    return extreme(data, variable, false, out, "findMinimum()");
}

bool findMaximum(const ZelData& data, int32_t variable, ValueExtreme& out) {
    return extreme(data, variable, true, out, "findMaximum()");
}

bool valueRange(const ZelData& data, int32_t variable, ValueRange& out) {
    return range(data, variable, -1, out, "valueRange()");
}

bool sumRange(const ZelData& data, int32_t first, int32_t second, ValueRange& out) {
    if (second < 0) {
        out = ValueRange{};
        NIMBRA_LOG(error) << "Variable does not hold one value per grid point in sumRange().";
        return false;
    }
    return range(data, first, second, out, "sumRange()");
}

bool valueRange(const ZelDataSet& dataSet, const std::string& variable, double& minimum,
                double& maximum) {
    return dataSetRange(dataSet, variable, nullptr, minimum, maximum, "valueRange()");
}

bool sumRange(const ZelDataSet& dataSet, const std::string& first, const std::string& second,
              double& minimum, double& maximum) {
    return dataSetRange(dataSet, first, &second, minimum, maximum, "sumRange()");
}

bool surfaceArea(const ZelData& data, SurfaceArea& out) {
    out = SurfaceArea{};
    // Meshed as the triangulation meshes it.
    if (data.gridKind() != 2 || data.variableIndex("x") < 0 || data.variableIndex("y") < 0)
        return true;
    const int32_t confidence = data.firstVariableOfType(Correlation);
    const SurfaceChannels ch = findSurfaceChannels(data);
    if (confidence < 0 || !ch.found) return true;
    if (!requireConsistentGrid(data, {ch.position[0], ch.position[1], ch.position[2], confidence},
                               "surfaceArea()"))
        return false;
    const int64_t rows = data.numRows(), columns = data.numColumns();
    if (rows < 2 || columns < 2) return true;
    const float* x = data.variableValues(ch.position[0]);
    const float* y = data.variableValues(ch.position[1]);
    const float* z = ch.planar ? nullptr : data.variableValues(ch.position[2]);
    const float* conf = data.variableValues(confidence);
    const int workers = workersFor(rows * columns);
    std::vector<double> areas(static_cast<size_t>(workers));
    std::vector<int64_t> counts(static_cast<size_t>(workers));
    chunks(rows - 1, workers, [&](int64_t b, int64_t e, int k) {
        if (b < e)
            cellAreas(x, y, z, conf, columns, b, e, areas[static_cast<size_t>(k)],
                      counts[static_cast<size_t>(k)]);
    });
    for (int k = 0; k < workers; ++k) {
        out.area += 0.5 * areas[static_cast<size_t>(k)];
        out.triangles += counts[static_cast<size_t>(k)];
    }
    return true;
}

bool surfaceArea(const ZelDataSet& dataSet, int32_t aoi, SurfaceArea& out) {
    out = SurfaceArea{};
    if (aoi < -1 || aoi >= dataSet.numData()) {
        NIMBRA_LOG(error) << "AOI index " << aoi << " outside the dataset in surfaceArea().";
        return false;
    }
    for (int32_t i = aoi < 0 ? 0 : aoi; i < (aoi < 0 ? dataSet.numData() : aoi + 1); ++i) {
        SurfaceArea one;
        if (!surfaceArea(*dataSet.data(i), one)) return false;
        out.area += one.area;
        out.triangles += one.triangles;
    }
    return true;
}

}  // namespace nimbra
