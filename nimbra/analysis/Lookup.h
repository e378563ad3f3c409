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
// shares the AOI's x, y and confidence arrays (they stay alive with it, even
// after the AOI lets them go) and remembers their revisions, so that it can
// tell whether it still answers for the AOI as it is now (current()).
class PointLocator {
public:
    // Takes what a look-up in `space` reads of the AOI, without building the
    // tree yet. Null, with an error logged, when the AOI's coordinate or
    // confidence variables do not hold one value per grid point. An AOI
    // without a mesh (not a grid, no "x"/"y" or confidence variable, no
    // coordinates in the requested space) gives a locator that finds
    // nothing.
    static std::unique_ptr<PointLocator> prepare(const ZelData& data, CoordinateSpace space);

    // Builds the tree over the arrays prepare() took. Reads nothing else of
    // the AOI, so the AOI's variable list may change meanwhile; values
    // written meanwhile make current() false.
    void build();

    // prepare() and build() in one.
    static std::unique_ptr<PointLocator> create(const ZelData& data, CoordinateSpace space);

    // True when the AOI would give this locator again: the same grid, the
    // same x, y and confidence arrays (by address: the locator keeps them
    // alive, so no other array can take an address it compares) and the
    // revisions they had when prepare() took them. locate() then answers as
    // locatePoint() on the AOI does. Logs nothing.
    bool current(const ZelData& data) const;

    // Fills `out` (triangle -1 when the position is outside every triangle).
    void locate(double x, double y, PointLocation& out) const;

    CoordinateSpace space() const { return space_; }
    const KDPointStorage& tree() const { return tree_; }
    // The arrays the locator reads, null without a mesh: for callers that
    // know of writers the library does not see (a writable numpy view).
    const float* x() const { return arrays_[0].get(); }
    const float* y() const { return arrays_[1].get(); }
    const float* confidence() const { return arrays_[2].get(); }

private:
    PointLocator() = default;
    std::shared_ptr<float[]> arrays_[3];  // x, y, confidence
    uint64_t revisions_[3] = {0, 0, 0};
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
