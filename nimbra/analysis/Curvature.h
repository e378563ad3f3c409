#pragma once
// Surface curvature of grid AOIs from a local weighted quadric fit.
//
// For every valid point the valid points of a window x window neighbourhood
// (weighted as by the smoother) are fitted with a quadratic function of the
// grid offsets, for each coordinate of the reference position and of the
// displacement. The fit's first and second derivatives give the first and
// second fundamental forms, which are expressed in the point's tangent frame:
// n = dP/dcolumn x dP/drow, t1 along global Y x n (the local x axis of the
// strain computation), t2 = t1 x n. A curvature is positive where the
// surface bends towards n.

#include <cstdint>

namespace nimbra {

class ZelData;
class ZelDataSet;

// Curvature of one grid AOI, stored as variables of kind Curvature:
// kxx, kyy, kxy (normal and twist curvature of the deformed surface in its
// own tangent frame; the reference surface when there is no displacement),
// kmean, kgauss, with `principal` k1 >= k2 and kangle (degrees from t1
// towards t2, in (-90, 90]), and with displacements the change of curvature
// dkxx, dkyy, dkxy (deformed minus reference second fundamental form, in the
// reference frame) and, with `principal`, its principal values dk1 >= dk2.
// Invalid points, and points whose window has fewer than 6 valid points,
// fewer than 3 distinct rows or columns or an ill-conditioned fit, get 0 in
// every output. False (logged) for a window below 3, an AOI that is not a
// grid, has no confidence or coordinates, or whose variables do not hold one
// value per grid point. An even window is widened to the next odd size.
// `workers` as in smoothChannels().
bool computeCurvature(ZelData& data, int window, bool principal, bool reuse, bool weighted,
                      int workers = 0);

// Every grid AOI of a dataset in index order (other AOIs are skipped); stops
// with false at the first AOI that fails.
bool computeCurvature(ZelDataSet& dataSet, int window, bool principal, bool reuse, bool weighted);

}  // namespace nimbra
