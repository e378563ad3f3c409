#pragma once
// One calibrated camera: pinhole intrinsics, lens distortion (radial with a
// rational part, tangential, thin prism), an optional spline image map and
// the extrinsics that take world points into the camera frame.
//
// Conventions (millimetres and pixels, doubles throughout):
//   P_c = R * P_w + t; only points with Z_c > 0 project.
//   x' = X_c / Z_c, y' = Y_c / Z_c, r2 = x'^2 + y'^2
//   radial = (1 + k1 r2 + k2 r2^2 + k3 r2^3) / (1 + k4 r2 + k5 r2^2 + k6 r2^3)
//   x'' = x' radial + 2 p1 x' y' + p2 (r2 + 2 x'^2) + s1 r2 + s2 r2^2
//   y'' = y' radial + p1 (r2 + 2 y'^2) + 2 p2 x' y' + s3 r2 + s4 r2^2
//   u = fx x'' + skew y'' + cx, v = fy y'' + cy   (pixel (0, 0) is the centre
//   of the first pixel), then the observed position p solves
//   p + Delta(p) = (u, v) for the spline image map Delta.
//
// The distortion is used only where it is one-to-one: inside the radius at
// which r * radial(r2) stops increasing (the fold) and where its Jacobian has
// a positive determinant. Every operation gives NaN outside that region,
// never a finite value from the wrong branch.

#include <array>
#include <cstdint>
#include <string>

#include "nimbra/geometry/Matrix.h"
#include "nimbra/geometry/SplineImageMap.h"

namespace nimbra {

using Vec2 = std::array<double, 2>;

class Camera {
public:
    static constexpr int kDistortionCount = 12;
    // Coefficient order: k1 k2 p1 p2 k3 k4 k5 k6 s1 s2 s3 s4, the order in
    // which other calibration tools exchange them as one vector.
    enum DistortionIndex : int {
        K1 = 0, K2 = 1, P1 = 2, P2 = 3, K3 = 4, K4 = 5, K5 = 6, K6 = 7, S1 = 8, S2 = 9, S3 = 10, S4 = 11
    };
    using Distortion = std::array<double, kDistortionCount>;

    // fx = fy = 1, principal point (0, 0), no distortion, identity
    // extrinsics, no image size (0 x 0) and so not yet valid.
    Camera();

    const std::string& name() const { return name_; }
    void setName(const std::string& name) { name_ = name; }

    int32_t width() const { return width_; }
    int32_t height() const { return height_; }
    // False (unchanged) unless both are positive.
    bool setImageSize(int32_t width, int32_t height);

    double fx() const { return fx_; }
    double fy() const { return fy_; }
    double cx() const { return cx_; }
    double cy() const { return cy_; }
    double skew() const { return skew_; }
    // False (unchanged) for non-finite values or fx, fy <= 0.
    bool setIntrinsics(double fx, double fy, double cx, double cy, double skew);

    const Distortion& distortion() const { return distortion_; }
    // False (unchanged) for non-finite coefficients.
    bool setDistortion(const Distortion& coefficients);
    // r2 at the fold of the radial distortion; infinite when there is none
    // within r2 = 1e4 (89.4 degrees off the axis).
    double foldRadius2() const { return foldRadius2_; }

    const Mat3& rotation() const { return rotation_; }
    const Vec3& translation() const { return translation_; }
    // False (unchanged) for non-finite values or a rotation that is not
    // orthonormal with determinant +1 (to 1e-6 in every entry of R^T R - I).
    bool setExtrinsics(const Mat3& rotation, const Vec3& translation);
    // The projection centre in world coordinates, -R^T t.
    Vec3 centre() const;

    const SplineImageMap& splineImageMap() const { return spline_; }
    void setSplineImageMap(const SplineImageMap& map) { spline_ = map; }

    // True when the image size is set (everything else is checked as it is set).
    bool isValid() const { return width_ > 0 && height_ > 0; }

    // World point to observed pixel; NaN behind the camera or outside the
    // one-to-one region of the distortion.
    Vec2 project(const Vec3& world) const;
    // The same with the 2 x 3 Jacobian d(pixel)/d(world), row-major (the
    // spline map's part taken where the map is inverted, see
    // SplineImageMap::invert). False (pixel NaN) where project gives NaN.
    bool project(const Vec3& world, Vec2& pixel, double* jacobian) const;
    // Normalised undistorted (x', y') to observed pixel.
    Vec2 distort(const Vec2& normalised) const;
    // Observed pixel to normalised undistorted (x', y') by Newton's method on
    // the distortion with its analytic Jacobian, to 1e-9 px in at most 20
    // iterations; NaN when it does not converge, when the residual stops
    // decreasing or when the solution lies beyond the fold.
    Vec2 undistort(const Vec2& pixel) const;
    // The ideal pinhole pixel of a normalised position and back (no distortion).
    Vec2 idealPixel(const Vec2& normalised) const;
    Vec2 normalisedFromIdeal(const Vec2& pixel) const;

private:
    void updateFold();

    std::string name_;
    int32_t width_ = 0;
    int32_t height_ = 0;
    double fx_ = 1.0;
    double fy_ = 1.0;
    double cx_ = 0.0;
    double cy_ = 0.0;
    double skew_ = 0.0;
    Distortion distortion_{};
    double foldRadius2_;
    Mat3 rotation_{1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0};
    Vec3 translation_{0.0, 0.0, 0.0};
    SplineImageMap spline_;
};

}  // namespace nimbra
