#include "nimbra/analysis/Lookup.h"

#include <algorithm>
#include <cmath>

#include "nimbra/analysis/SurfaceGrid.h"
#include "nimbra/data/ZelData.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

// A point inside a triangle is no farther from any corner than the
// triangle's longest edge; the reach stored in the tree is that edge with a
// margin far above the rounding of the containment test.
constexpr double kReachMargin = 1.0 + 1e-6;
// Relative to the coordinates' magnitude, for the same reason: the rounding
// of the containment test grows with the distance from the origin.
constexpr double kAbsoluteMargin = 1e-9;

// The arrays a mesh search reads. Empty (rows 0) when the AOI has no mesh.
struct Mesh {
    const float* x = nullptr;
    const float* y = nullptr;
    const float* confidence = nullptr;
    int64_t rows = 0;
    int64_t columns = 0;

    bool valid(int64_t p) const { return confidence[p] >= 0.0f; }
    int64_t cellRows() const { return rows - 1; }
    int64_t cellColumns() const { return columns - 1; }

    // The triangles of cell (a, b), in emission order.
    int triangles(int64_t a, int64_t b, int64_t (&out)[2][3]) const {
        const int64_t tl = a * columns + b;
        const int64_t corner[4] = {tl, tl + 1, tl + columns, tl + columns + 1};
        return cellTriangles(valid(corner[0]), valid(corner[1]), valid(corner[2]), valid(corner[3]),
                             corner, out);
    }
};

// The variables a mesh search reads; all -1 when the AOI has no mesh.
struct MeshChannels {
    int32_t index[3] = {-1, -1, -1};  // x, y, confidence
    bool mesh() const { return index[0] >= 0; }
};

// False when the AOI is refused, with an error line naming `caller` (none
// when it is null); an AOI without a mesh gives no channels.
bool meshChannels(const ZelData& data, CoordinateSpace space, MeshChannels& out, const char* caller) {
    out = MeshChannels{};
    // The conditions under which the triangulation meshes an AOI.
    if (data.gridKind() != 2 || data.variableIndex("x") < 0 || data.variableIndex("y") < 0)
        return true;
    const int32_t confidence = data.firstVariableOfType(Correlation);
    if (confidence < 0) return true;
    int32_t xi, yi;
    if (space == CoordinateSpace::Pixel) {
        xi = data.variableIndex("x");
        yi = data.variableIndex("y");
    } else {
        const SurfaceChannels ch = findSurfaceChannels(data);
        if (!ch.found) return true;
        xi = ch.position[0];
        yi = ch.position[1];
    }
    if (caller != nullptr ? !requireConsistentGrid(data, {xi, yi, confidence}, caller)
                          : !(holdsGrid(data, xi) && holdsGrid(data, yi) && holdsGrid(data, confidence)))
        return false;
    if (data.numRows() < 2 || data.numColumns() < 2) return true;
    out.index[0] = xi;
    out.index[1] = yi;
    out.index[2] = confidence;
    return true;
}

Mesh meshOf(const float* x, const float* y, const float* confidence, int64_t rows,
            int64_t columns) {
    Mesh mesh;
    mesh.x = x;
    mesh.y = y;
    mesh.confidence = confidence;
    mesh.rows = rows;
    mesh.columns = columns;
    return mesh;
}

Mesh meshOf(const ZelData& data, const MeshChannels& ch) {
    if (!ch.mesh()) return Mesh{};
    return meshOf(data.variableValues(ch.index[0]), data.variableValues(ch.index[1]),
                  data.variableValues(ch.index[2]), data.numRows(), data.numColumns());
}

// Twice the signed area of (a, b, p), computed with the edge's corners in
// index order so that the two triangles sharing an edge see exactly opposite
// values: a position on the edge is never lost between them.
inline double orient(const Mesh& m, int64_t a, int64_t b, double px, double py) {
    const bool swap = b < a;
    const int64_t s = swap ? b : a, e = swap ? a : b;
    const double sx = m.x[s], sy = m.y[s];
    const double v = (static_cast<double>(m.x[e]) - sx) * (py - sy) -
                     (static_cast<double>(m.y[e]) - sy) * (px - sx);
    return swap ? -v : v;
}

// Barycentric weights of (px, py) in the triangle; false when it lies outside
// or the triangle is degenerate. A position on a corner gets exactly 1 there
// and 0 elsewhere.
bool triangleWeights(const Mesh& m, const int64_t (&t)[3], double px, double py, double (&w)[3]) {
    const double o0 = orient(m, t[1], t[2], px, py);
    const double o1 = orient(m, t[2], t[0], px, py);
    const double o2 = orient(m, t[0], t[1], px, py);
    const double det = o0 + o1 + o2;
    const bool inside = det > 0.0 ? (o0 >= 0.0 && o1 >= 0.0 && o2 >= 0.0)
                                  : (det < 0.0 && o0 <= 0.0 && o1 <= 0.0 && o2 <= 0.0);
    if (!inside) return false;
    w[0] = o0 / det;
    w[1] = o1 / det;
    w[2] = o2 / det;
    return true;
}

void store(const int64_t (&t)[3], const double (&w)[3], int64_t rank, PointLocation& out) {
    for (int k = 0; k < 3; ++k) {
        out.corner[k] = t[k];
        out.weight[k] = w[k];
    }
    out.triangle = rank;
}

// Tests the triangles of cell (a, b) whose rank is below out.triangle (or
// all when nothing is found yet) and keeps the first that contains the
// position.
void testCell(const Mesh& m, int64_t a, int64_t b, double px, double py, PointLocation& out) {
    const int64_t cell = a * m.cellColumns() + b;
    if (out.found() && 2 * cell >= out.triangle) return;
    int64_t t[2][3];
    const int n = m.triangles(a, b, t);
    for (int k = 0; k < n; ++k) {
        double w[3];
        if (triangleWeights(m, t[k], px, py, w)) {
            store(t[k], w, 2 * cell + k, out);
            return;
        }
    }
}

}  // namespace

std::unique_ptr<PointLocator> PointLocator::prepare(const ZelData& data, CoordinateSpace space) {
    MeshChannels ch;
    if (!meshChannels(data, space, ch, "PointLocator::create()")) return nullptr;
    std::unique_ptr<PointLocator> locator(new PointLocator());
    locator->space_ = space;
    if (!ch.mesh()) return locator;
    for (int k = 0; k < 3; ++k) {
        const ZelDataVariable* v = data.variable(ch.index[k]);
        // The revision before the values are read: a change made while the
        // tree is built moves it on past the one kept here.
        locator->revisions_[k] = v->currentRevision();
        locator->arrays_[k] = v->values;
    }
    locator->rows_ = data.numRows();
    locator->columns_ = data.numColumns();
    return locator;
}

std::unique_ptr<PointLocator> PointLocator::create(const ZelData& data, CoordinateSpace space) {
    std::unique_ptr<PointLocator> locator = prepare(data, space);
    if (locator) locator->build();
    return locator;
}

bool PointLocator::current(const ZelData& data) const {
    MeshChannels ch;
    if (!meshChannels(data, space_, ch, nullptr)) return false;
    if (!ch.mesh() || !arrays_[0]) return ch.mesh() == static_cast<bool>(arrays_[0]);
    if (data.numRows() != rows_ || data.numColumns() != columns_) return false;
    for (int k = 0; k < 3; ++k) {
        const ZelDataVariable* v = data.variable(ch.index[k]);
        if (v->values.get() != arrays_[k].get() || v->currentRevision() != revisions_[k]) return false;
    }
    return true;
}

void PointLocator::build() {
    tree_ = KDPointStorage();
    if (!arrays_[0]) return;
    const Mesh m = meshOf(this->x(), this->y(), confidence(), rows_, columns_);

    // Reach of every point: the longest edge of the triangles it is a corner
    // of (triangles with a non-finite corner contain nothing). Squared
    // lengths first, one square root per point.
    const int64_t size = m.rows * m.columns;
    std::vector<double> reach(static_cast<size_t>(size), -1.0);
    for (int64_t a = 0; a < m.cellRows(); ++a) {
        for (int64_t b = 0; b < m.cellColumns(); ++b) {
            int64_t t[2][3];
            const int n = m.triangles(a, b, t);
            for (int k = 0; k < n; ++k) {
                double longest = 0.0;
                for (int e = 0; e < 3; ++e) {
                    const int64_t p = t[k][e], q = t[k][(e + 1) % 3];
                    const double dx = static_cast<double>(m.x[p]) - m.x[q];
                    const double dy = static_cast<double>(m.y[p]) - m.y[q];
                    longest = std::max(longest, dx * dx + dy * dy);
                }
                if (!std::isfinite(longest)) continue;
                for (int e = 0; e < 3; ++e) {
                    double& r = reach[static_cast<size_t>(t[k][e])];
                    r = std::max(r, longest);
                }
            }
        }
    }
    std::vector<double> xs, ys, rs;
    std::vector<int32_t> ids;
    for (int64_t p = 0; p < size; ++p) {
        const double r = reach[static_cast<size_t>(p)];
        if (r < 0.0) continue;  // corner of no triangle
        xs.push_back(m.x[p]);
        ys.push_back(m.y[p]);
        rs.push_back(std::sqrt(r) * kReachMargin +
                     kAbsoluteMargin * (std::fabs(xs.back()) + std::fabs(ys.back())));
        ids.push_back(static_cast<int32_t>(p));
    }
    tree_.build(xs, ys, ids, rs);
}

void PointLocator::locate(double x, double y, PointLocation& out) const {
    out = PointLocation{};
    if (!arrays_[0] || !std::isfinite(x) || !std::isfinite(y)) return;
    const Mesh m = meshOf(this->x(), this->y(), confidence(), rows_, columns_);
    // Every triangle containing the position has all its corners within
    // their reach of it; the cells around each such corner are tested.
    tree_.withinReach(x, y, [&](int32_t id) {
        const int64_t r = id / columns_, c = id % columns_;
        for (int64_t a = std::max<int64_t>(r - 1, 0); a <= std::min(r, m.cellRows() - 1); ++a)
            for (int64_t b = std::max<int64_t>(c - 1, 0); b <= std::min(c, m.cellColumns() - 1); ++b)
                testCell(m, a, b, x, y, out);
    });
}

bool locatePoint(const ZelData& data, CoordinateSpace space, double x, double y,
                 PointLocation& out) {
    out = PointLocation{};
    MeshChannels ch;
    if (!meshChannels(data, space, ch, "locatePoint()")) return false;
    const Mesh m = meshOf(data, ch);
    if (m.rows == 0 || !std::isfinite(x) || !std::isfinite(y)) return true;
    for (int64_t a = 0; a < m.cellRows(); ++a) {
        const float* top = m.x + a * m.columns;
        const float* topY = m.y + a * m.columns;
        for (int64_t b = 0; b < m.cellColumns(); ++b) {
            // Cheap rejection on the cell's box. A corner without a position
            // (NaN, typically an invalid point) must not reject the cell: its
            // other triangle may still hold the position. std::min and
            // std::max skip a NaN unless it comes first, and then give NaN,
            // which the test below lets through to the exact test.
            const float* xs[4] = {top + b, top + b + 1, top + b + m.columns, top + b + m.columns + 1};
            const float* ys[4] = {topY + b, topY + b + 1, topY + b + m.columns, topY + b + m.columns + 1};
            const double minX = std::min({*xs[0], *xs[1], *xs[2], *xs[3]});
            const double maxX = std::max({*xs[0], *xs[1], *xs[2], *xs[3]});
            const double minY = std::min({*ys[0], *ys[1], *ys[2], *ys[3]});
            const double maxY = std::max({*ys[0], *ys[1], *ys[2], *ys[3]});
            // The margin keeps the box from rejecting a position that the
            // containment test (with its rounding) would accept.
            const double margin = kAbsoluteMargin * (std::fabs(minX) + std::fabs(maxX) +
                                                     std::fabs(minY) + std::fabs(maxY));
            if (x < minX - margin || x > maxX + margin || y < minY - margin || y > maxY + margin)
                continue;
            testCell(m, a, b, x, y, out);
            if (out.found()) return true;
        }
    }
    return true;
}

bool interpolate(const ZelData& data, const PointLocation& at, const std::vector<int32_t>& variables,
                 double* out) {
    if (!at.found()) return false;
    const int64_t size = gridPointCount(data);
    const int32_t confidence = data.firstVariableOfType(Correlation);
    if (size <= 0 || !holdsGrid(data, confidence)) return false;
    const float* conf = data.variableValues(confidence);
    for (int k = 0; k < 3; ++k) {
        const int64_t p = at.corner[k];
        if (p < 0 || p >= size || !(conf[p] >= 0.0f)) return false;
    }
    for (size_t v = 0; v < variables.size(); ++v) {
        if (!holdsGrid(data, variables[v])) return false;
        const float* values = data.variableValues(variables[v]);
        double sum = 0.0;
        for (int k = 0; k < 3; ++k)
            if (at.weight[k] != 0.0) sum += at.weight[k] * values[at.corner[k]];
        out[v] = sum;
    }
    return true;
}

bool arcLength(const ZelData& data, const PointLocator& locator, double ax, double ay, double bx,
               double by, int32_t steps, double& length) {
    length = 0.0;
    if (steps < 1 || locator.space() != CoordinateSpace::Global) return false;
    const SurfaceChannels ch = findSurfaceChannels(data);
    if (!ch.found) return false;
    std::vector<int32_t> channels = {ch.position[0], ch.position[1]};
    if (!ch.planar) channels.push_back(ch.position[2]);
    double previous[3] = {0.0, 0.0, 0.0};
    for (int32_t i = 0; i <= steps; ++i) {
        const double s = static_cast<double>(i) / steps;
        PointLocation at;
        locator.locate(ax + s * (bx - ax), ay + s * (by - ay), at);
        double p[3] = {0.0, 0.0, 0.0};
        if (!interpolate(data, at, channels, p)) return false;
        if (i > 0) {
            const double dx = p[0] - previous[0], dy = p[1] - previous[1], dz = p[2] - previous[2];
            length += std::sqrt(dx * dx + dy * dy + dz * dz);
        }
        std::copy(p, p + 3, previous);
    }
    return true;
}

}  // namespace nimbra
