#include "nimbra/analysis/Statistics.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <vector>

#include "nimbra/analysis/SurfaceGrid.h"
#include "nimbra/analysis/Workers.h"
#include "nimbra/data/ZelData.h"
#include "nimbra/data/ZelDataSet.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

// The scans are also built for AVX2 and picked at run time (see the
// smoother); min, max and compare give the same results in every build.
#if defined(__GNUC__) && defined(__x86_64__) && !defined(__clang__)
#define NIMBRA_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define NIMBRA_VECTOR_CLONES
#endif

// Points are scanned in blocks of this many lanes, each lane keeping its own
// running result, so that the loops have a fixed trip count the compiler
// turns into vector code at -O2.
constexpr int kLanes = 8;
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
    float l[kLanes], h[kLanes];
    for (int q = 0; q < kLanes; ++q) {
        l[q] = std::numeric_limits<float>::infinity();
        h[q] = -std::numeric_limits<float>::infinity();
    }
    int64_t i = begin;
    for (; i + kLanes <= end; i += kLanes) {
        for (int q = 0; q < kLanes; ++q) {
            const float x = v[i + q];
            const bool ok = counts(conf[i + q], x);
            const float a = ok ? x : l[q], b = ok ? x : h[q];
            l[q] = a < l[q] ? a : l[q];
            h[q] = b > h[q] ? b : h[q];
        }
    }
    float lo32 = std::numeric_limits<float>::infinity(), hi32 = -lo32;
    for (int q = 0; q < kLanes; ++q) {
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

// First index in [begin, end) holding `target` at a counting point, or -1.
int64_t firstIndexOf(const float* v, const float* conf, int64_t begin, int64_t end, float target) {
    for (int64_t i = begin; i < end; ++i)
        if (v[i] == target && conf[i] >= 0.0f) return i;
    return -1;
}

// The confidence and variable arrays of an AOI, or false when refused.
bool statisticArrays(const ZelData& data, std::initializer_list<int32_t> variables,
                     const float*& conf, std::vector<const float*>& values, int64_t& size,
                     const char* caller) {
    size = gridPointCount(data);
    values.clear();
    for (int32_t v : variables) {
        if (!holdsGrid(data, v)) {
            NIMBRA_LOG(error) << "Variable does not hold one value per grid point in " << caller << ".";
            return false;
        }
        values.push_back(data.variableValues(v));
    }
    // Without a confidence variable no point is valid.
    const int32_t c = data.firstVariableOfType(Correlation);
    conf = nullptr;
    if (c < 0) return true;
    if (!holdsGrid(data, c)) {
        NIMBRA_LOG(error) << "Confidence does not hold one value per grid point in " << caller << ".";
        return false;
    }
    conf = data.variableValues(c);
    return true;
}

bool extreme(const ZelData& data, int32_t variable, bool maximum, ValueExtreme& out,
             const char* caller) {
    out = ValueExtreme{};
    const float* conf;
    std::vector<const float*> values;
    int64_t n;
    if (!statisticArrays(data, {variable}, conf, values, n, caller)) return false;
    if (conf == nullptr || n == 0) return true;
    const float* v = values[0];
    const int workers = workersFor(n);
    std::vector<double> lo(static_cast<size_t>(workers)), hi(static_cast<size_t>(workers));
    chunks(n, workers, [&](int64_t b, int64_t e, int k) {
        scanRange(v, conf, b, e, lo[static_cast<size_t>(k)], hi[static_cast<size_t>(k)]);
    });
    const double best = maximum ? *std::max_element(hi.begin(), hi.end())
                                : *std::min_element(lo.begin(), lo.end());
    if (!std::isfinite(best)) return true;
    // The lowest index holding that value: each chunk finds its first one.
    std::vector<int64_t> first(static_cast<size_t>(workers), -1);
    chunks(n, workers, [&](int64_t b, int64_t e, int k) {
        first[static_cast<size_t>(k)] = firstIndexOf(v, conf, b, e, static_cast<float>(best));
    });
    for (int64_t index : first) {
        if (index >= 0) {
            out.index = index;
            out.value = best;
            break;
        }
    }
    return true;
}

bool range(const ZelData& data, int32_t first, int32_t second, ValueRange& out,
           const char* caller) {
    out = ValueRange{};
    const float* conf;
    std::vector<const float*> values;
    int64_t n;
    const bool sum = second >= 0;
    if (!(sum ? statisticArrays(data, {first, second}, conf, values, n, caller)
              : statisticArrays(data, {first}, conf, values, n, caller)))
        return false;
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

// Twice the area of triangle (p, q, r) of the positions.
struct Positions {
    const float* x;
    const float* y;
    const float* z;  // null: planar

    inline double doubleArea(int64_t p, int64_t q, int64_t r) const {
        const double ax = static_cast<double>(x[q]) - x[p], ay = static_cast<double>(y[q]) - y[p];
        const double bx = static_cast<double>(x[r]) - x[p], by = static_cast<double>(y[r]) - y[p];
        const double az = z != nullptr ? static_cast<double>(z[q]) - z[p] : 0.0;
        const double bz = z != nullptr ? static_cast<double>(z[r]) - z[p] : 0.0;
        const double cx = ay * bz - az * by, cy = az * bx - ax * bz, cz = ax * by - ay * bx;
        return std::sqrt(cx * cx + cy * cy + cz * cz);
    }
};

// Sum of twice the triangle areas of the cells of rows [first, last) and
// the number of triangles. Cells with four valid corners, or three of which
// the left two and the top right (the common cases), are summed without
// branching; the two rarer patterns are added afterwards.
NIMBRA_VECTOR_CLONES void cellAreas(const Positions& pos, const float* conf, int64_t columns,
                                    int64_t first, int64_t last, double& area, int64_t& triangles) {
    double sum = 0.0;
    int64_t count = 0;
    for (int64_t a = first; a < last; ++a) {
        const int64_t top = a * columns, bottom = top + columns;
        double lanes[kLanes] = {};
        int64_t b = 0;
        for (; b + kLanes <= columns - 1; b += kLanes) {
            for (int q = 0; q < kLanes; ++q) {
                const int64_t tl = top + b + q, tr = tl + 1, bl = bottom + b + q, br = bl + 1;
                const bool vtl = conf[tl] >= 0.0f, vtr = conf[tr] >= 0.0f;
                const bool vbl = conf[bl] >= 0.0f, vbr = conf[br] >= 0.0f;
                // (TL, TR, BL) for patterns 15 and 14, (TR, BR, BL) for 15 and 7.
                const double first = vtl & vtr & vbl ? pos.doubleArea(tl, tr, bl) : 0.0;
                const double second = vtr & vbr & vbl ? pos.doubleArea(tr, br, bl) : 0.0;
                lanes[q] += first + second;
            }
        }
        for (int q = 0; q < kLanes; ++q) sum += lanes[q];
        for (; b < columns - 1; ++b) {
            const int64_t tl = top + b, tr = tl + 1, bl = bottom + b, br = bl + 1;
            const bool vtl = conf[tl] >= 0.0f, vtr = conf[tr] >= 0.0f;
            const bool vbl = conf[bl] >= 0.0f, vbr = conf[br] >= 0.0f;
            if (vtl && vtr && vbl) sum += pos.doubleArea(tl, tr, bl);
            if (vtr && vbr && vbl) sum += pos.doubleArea(tr, br, bl);
        }
        // Counting, and the patterns 13 (TL, TR, BR) and 11 (BR, BL, TL).
        for (int64_t c = 0; c < columns - 1; ++c) {
            const int64_t tl = top + c, tr = tl + 1, bl = bottom + c, br = bl + 1;
            const int pattern = (conf[tl] >= 0.0f ? 8 : 0) | (conf[tr] >= 0.0f ? 4 : 0) |
                                (conf[bl] >= 0.0f ? 2 : 0) | (conf[br] >= 0.0f ? 1 : 0);
            count += (pattern == 15) + (pattern == 15 || pattern == 14 || pattern == 13 ||
                                        pattern == 11 || pattern == 7);
            if (pattern == 13) sum += pos.doubleArea(tl, tr, br);
            if (pattern == 11) sum += pos.doubleArea(br, bl, tl);
        }
    }
    area = sum;
    triangles = count;
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
    for (int32_t v : {confidence, ch.position[0], ch.position[1], ch.position[2]}) {
        if (v >= 0 && !holdsGrid(data, v)) {
            NIMBRA_LOG(error) << "Variable does not hold one value per grid point in surfaceArea().";
            return false;
        }
    }
    const int64_t rows = data.numRows(), columns = data.numColumns();
    if (rows < 2 || columns < 2) return true;
    const Positions pos{data.variableValues(ch.position[0]), data.variableValues(ch.position[1]),
                        ch.planar ? nullptr : data.variableValues(ch.position[2])};
    const float* conf = data.variableValues(confidence);
    const int workers = workersFor(rows * columns);
    std::vector<double> areas(static_cast<size_t>(workers));
    std::vector<int64_t> counts(static_cast<size_t>(workers));
    chunks(rows - 1, workers, [&](int64_t b, int64_t e, int k) {
        cellAreas(pos, conf, columns, b, e, areas[static_cast<size_t>(k)], counts[static_cast<size_t>(k)]);
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
