#pragma once
// Fits of rigid transformations to point sets and datasets, and the
// application of a rigid transformation to a dataset. Failures are results:
// a false return leaves the output transform untouched.

#include <cstdint>
#include <vector>

#include "nimbra/geometry/Matrix.h"
#include "nimbra/geometry/RigidTransform.h"

namespace nimbra {

class ZelDataSet;

// Least-squares rigid motion that maps the deformed points onto the reference
// points (transform(deformed[i]) ~ reference[i]) over the first numPts pairs;
// numPts < 1 means all of `reference`. On success `residual` is the RMS of the
// per-coordinate distances of the last trial step.
bool fitRigidTransform(RigidTransform& transform, double& residual,
                       const std::vector<Vec3>& reference, const std::vector<Vec3>& deformed,
                       int32_t numPts);

// The transform that maps the best-fit plane of the points onto z = 0 with
// the centroid at the origin (normal pointing to +z before the mapping).
bool planeFit(RigidTransform& transform, const std::vector<Vec3>& points);

// Plane fit over the valid points of every AOI; with displacement, the
// deformed positions X+U, Y+V, Z+W are fitted where U, V, W exist.
bool planeFit(RigidTransform& transform, const ZelDataSet& dataSet, bool ignoreDisplacement);

// Rigid motion of the whole dataset from its displacement field: maps the
// deformed positions back onto the reference positions.
bool rigidTransformFromDisplacement(RigidTransform& transform, double& residual,
                                    const ZelDataSet& dataSet);

// Moves every AOI into the coordinate system of `transform`. dimension 1
// selects X, Y, Z / U, V, W / SIGMA_X, SIGMA_Y, SIGMA_Z; any other value the
// planar x_c, y_c / u_c, v_c set with z = 0.
void transformDataSet(ZelDataSet& dataSet, const RigidTransform& transform, bool displacementOnly,
                      int32_t dimension);

}  // namespace nimbra
