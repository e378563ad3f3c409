#pragma once
// A smooth correction of image positions that the pinhole-plus-distortion
// model cannot express (sensor unflatness, lens decentring left over after
// the polynomial terms): a uniform cubic B-spline Delta(u, v) in pixel space,
// applied as p_model = p_observed + Delta(p_observed).
//
// Coefficient (i, j), i < nx along u and j < ny along v, sits at the knot
// (originX + i * spacingX, originY + j * spacingY) and is stored at j * nx + i.
// The spline is fully defined where all 4 x 4 coefficients around a point
// exist, i.e. for u in [originX + spacingX, originX + (nx - 2) * spacingX]
// (likewise for v); outside that rectangle the correction of the nearest
// point inside it applies, so Delta stays continuous with the same bound on
// its gradient everywhere.

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace nimbra {

class SplineImageMap {
public:
    // Projection inverts the map by fixed-point iteration, which converges
    // only for a contraction: maps whose gradient may reach this are refused.
    static constexpr double kMaxGradient = 0.5;

    // An empty map (no correction).
    SplineImageMap() = default;

    // Empty result, with one log line, for fewer than 4 x 4 coefficients,
    // coefficient vectors of another size, non-positive or non-finite
    // spacings, non-finite values or a gradient bound >= kMaxGradient.
    static std::optional<SplineImageMap> create(double originX, double originY, double spacingX,
                                                double spacingY, int32_t nx, int32_t ny,
                                                std::vector<double> dx, std::vector<double> dy);

    // An upper bound of the Frobenius norm of the 2 x 2 gradient of Delta
    // over the whole plane, from the differences of neighbouring
    // coefficients (the derivative of a B-spline lies in the hull of its
    // scaled coefficient differences). Infinite for unusable sizes.
    static double gradientBound(double spacingX, double spacingY, int32_t nx, int32_t ny,
                                const double* dx, const double* dy);

    bool empty() const { return !dx_; }
    double originX() const { return originX_; }
    double originY() const { return originY_; }
    double spacingX() const { return spacingX_; }
    double spacingY() const { return spacingY_; }
    int32_t nx() const { return nx_; }
    int32_t ny() const { return ny_; }
    // nx * ny values each, row-major by v; empty for an empty map.
    const std::vector<double>& dx() const;
    const std::vector<double>& dy() const;

    // Delta at (u, v); zero for an empty map.
    void evaluate(double u, double v, double& du, double& dv) const;
    // Delta and its gradient, row-major: d(du)/du, d(du)/dv, d(dv)/du, d(dv)/dv.
    void evaluate(double u, double v, double& du, double& dv, double* gradient) const;

    // The observed position whose corrected position is (u, v): solves
    // p + Delta(p) = (u, v) by fixed-point iteration. False (outputs NaN)
    // when the iteration does not settle, which a valid map never causes.
    // With `derivative`, also (I + grad Delta)^-1 taken at (u, v), row-major:
    // d(observed)/d(corrected) up to the change of grad Delta over the
    // correction, good for Gauss-Newton steps.
    bool invert(double u, double v, double& observedU, double& observedV, double* derivative = nullptr) const;

private:
    double originX_ = 0.0;
    double originY_ = 0.0;
    double spacingX_ = 1.0;
    double spacingY_ = 1.0;
    int32_t nx_ = 0;
    int32_t ny_ = 0;
    // Shared and never changed after creation, so cameras (and the private
    // copies made for work without the interpreter lock) copy cheaply.
    std::shared_ptr<const std::vector<double>> dx_;
    std::shared_ptr<const std::vector<double>> dy_;
};

}  // namespace nimbra
