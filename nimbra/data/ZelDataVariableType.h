#pragma once
#include <cstdint>

namespace nimbra {

// Physical kind of a variable. The numbers are shared with the Python enum and,
// offset by the kind-code base, with the data file.
enum ZelDataVariableType : int32_t {
    PixelCoordinate = 0,
    GlobalCoordinate = 1,
    PixelDisplacement = 2,
    GlobalDisplacement = 3,
    Strain = 4,
    Correlation = 5,
    Unknown = 6,
    Disparity = 7,
    CylinderCoordinate = 8,
    CylinderDisplacement = 9,
    PixelVelocity = 10,
    GlobalVelocity = 11,
    StrainRate = 12,
    Curvature = 13,
    Angle = 14,
    AngularVelocity = 15,
    GlobalAcceleration = 16,
    PixelAcceleration = 17,
    Stress = 18,
    AngularAcceleration = 19,
};

constexpr int32_t kNumVariableTypes = 20;

}  // namespace nimbra
