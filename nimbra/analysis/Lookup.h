#pragma once
// Values at a position: the grid mesh (the triangles of the triangulation,
// sub-sample 1) is searched for the triangle that contains the position, and
// variables are interpolated linearly (barycentrically) inside it. Among
// several containing triangles the one emitted first by the mesh wins, so the
// kd-tree search and the exhaustive one give identical answers.
//
// A look-up can be split in two steps: locate once (corner indices and
// weights), then interpolate any variables of any AOI of the same grid from
// that location; the corners' validity is checked again by the second step.

#include <cstdint>
#include <memory>
#include <vector>

#include "nimbra/analysis/KDPointStorage.h"

namespace nimbra {

class ZelData;

// Coordinates a position is given in: the reference global positions (X, Y,
// or the planar x_c, y_c / x, y) or the reference pixel coordinates x, y.
enum class CoordinateSpace : int32_t { Global = 0, Pixel = 1 };

// The triangle containing a position: its corners (AOI point indices) and the
// barycentric weights of the position. `triangle` is the triangle's rank in
// mesh order (2 x cell index + triangle within the cell), -1 when no
// triangle contains the position.
struct PointLocation {
    int64_t corner[3] = {-1, -1, -1};
    double weight[3] = {0.0, 0.0, 0.0};
    int64_t triangle = -1;
    bool found() const { return triangle >= 0; }
};

// Locates positions in one AOI through a kd-tree over the mesh points. It
// reads the AOI's coordinate and confidence arrays, so it must be rebuilt
// whenever those (or the grid) change, and must not outlive the AOI.
class PointLocator {
public:
    // Null, with an error logged, when the AOI's coordinate or confidence
    // variables do not hold one value per grid point. An AOI without a mesh
    // (not a grid, no "x"/"y" or confidence variable, no coordinates in the
    // requested space) gives a locator that finds nothing.
    static std::unique_ptr<PointLocator> create(const ZelData& data, CoordinateSpace space);

    // Fills `out` (triangle -1 when the position is outside every triangle).
    void locate(double x, double y, PointLocation& out) const;

    CoordinateSpace space() const { return space_; }
    const KDPointStorage& tree() const { return tree_; }

private:
    PointLocator() = default;
    const float* x_ = nullptr;
    const float* y_ = nullptr;
    const float* confidence_ = nullptr;
    int64_t rows_ = 0;
    int64_t columns_ = 0;
    CoordinateSpace space_ = CoordinateSpace::Global;
    KDPointStorage tree_;
};

// The same search over every triangle in mesh order, without a tree. False
// (logged) when the AOI is refused as by PointLocator::create().
bool locatePoint(const ZelData& data, CoordinateSpace space, double x, double y,
                 PointLocation& out);

// Values of the listed variables at `at`, located in this AOI or in another
// one of the same grid: out[k] = sum of weight x value over the corners with
// a non-zero weight, so a position on a point gives its stored value exactly.
// False when `at` was not found, a corner lies outside this grid or is not
// valid here, or a variable does not hold one value per grid point.
bool interpolate(const ZelData& data, const PointLocation& at, const std::vector<int32_t>& variables,
                 double* out);

// Length of the reference surface along the straight line from (ax, ay) to
// (bx, by) in global X, Y: the 3-D reference position is interpolated at
// steps + 1 equally spaced samples and the chords are summed. False when
// steps < 1, the locator is not in the global space, or a sample lies outside
// the mesh.
bool arcLength(const ZelData& data, const PointLocator& locator, double ax, double ay, double bx,
               double by, int32_t steps, double& length);

}  // namespace nimbra
