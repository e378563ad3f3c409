#pragma once
// Extreme values, value ranges and surface area of AOIs. Only valid points
// (confidence >= 0) with finite values count; all arithmetic is in double.
// Every function refuses (false, with an error logged) an AOI whose
// variables do not hold one value per grid point.

#include <cstdint>
#include <string>

namespace nimbra {

class ZelData;
class ZelDataSet;

// Smallest (or largest) value of a variable and its point index, the lowest
// index among equal values; index -1 when no point qualifies.
struct ValueExtreme {
    double value = 0.0;
    int64_t index = -1;
    bool found() const { return index >= 0; }
};
bool findMinimum(const ZelData& data, int32_t variable, ValueExtreme& out);
bool findMaximum(const ZelData& data, int32_t variable, ValueExtreme& out);

// Range of one variable, or of the point-wise sum of two, over the
// qualifying points; not found (and 0, 0) when no point qualifies.
struct ValueRange {
    double minimum = 0.0;
    double maximum = 0.0;
    bool found = false;
};
bool valueRange(const ZelData& data, int32_t variable, ValueRange& out);
bool sumRange(const ZelData& data, int32_t first, int32_t second, ValueRange& out);

// Ranges over every AOI of a dataset. False (logged) when an AOI lacks a
// variable of that name or is refused, or when no point of any AOI
// qualifies.
bool valueRange(const ZelDataSet& dataSet, const std::string& variable, double& minimum,
                double& maximum);
bool sumRange(const ZelDataSet& dataSet, const std::string& first, const std::string& second,
              double& minimum, double& maximum);

// Area of the surface meshed by the triangulation (sub-sample 1): the sum of
// half the cross product norms of the triangles, with the reference
// positions X, Y, Z (planar data: x_c, y_c or x, y with z = 0). `triangles`
// receives how many triangles were summed.
struct SurfaceArea {
    double area = 0.0;
    int64_t triangles = 0;
};
bool surfaceArea(const ZelData& data, SurfaceArea& out);
// All AOIs (aoi = -1) or one; false for an index outside the dataset.
bool surfaceArea(const ZelDataSet& dataSet, int32_t aoi, SurfaceArea& out);

}  // namespace nimbra
