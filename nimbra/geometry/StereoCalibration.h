#pragma once
// The calibration of a stereo rig: its cameras, the label of the world frame
// the extrinsics refer to, the quality figures of the calibration, and the
// vectorised projection, undistortion and triangulation built on them.
// Point arrays are interleaved doubles (x y z x y z ..., u v u v ...); every
// result that cannot be computed is NaN, never a stale or wrong number.

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "nimbra/geometry/Camera.h"
#include "nimbra/geometry/RigidTransform.h"

namespace nimbra {

class StereoCalibration {
public:
    const std::vector<Camera>& cameras() const { return cameras_; }
    int32_t numCameras() const { return static_cast<int32_t>(cameras_.size()); }
    // Null for an index out of range.
    const Camera* camera(int32_t index) const;
    Camera* camera(int32_t index);
    // Appends a copy; returns its index, or -1 (nothing added) when the
    // camera is not valid.
    int32_t addCamera(const Camera& camera);
    // False for an index out of range or an invalid camera.
    bool setCamera(int32_t index, const Camera& camera);
    bool removeCamera(int32_t index);
    // No cameras, no quality figures, empty world frame.
    void clear();
    // A stereo calibration: at least two cameras, all valid.
    bool isValid() const;

    const std::string& worldFrame() const { return worldFrame_; }
    void setWorldFrame(const std::string& frame) { worldFrame_ = frame; }
    // NaN when the calibration does not state the figure.
    double reprojectionRms() const { return reprojectionRms_; }
    double epipolarRms() const { return epipolarRms_; }
    void setQuality(double reprojectionRmsPx, double epipolarRmsPx);

    // World points to observed pixels of one camera. False (nothing
    // written) for an index out of range.
    bool projectPoints(int32_t camera, const double* xyz, int64_t n, double* uv) const;
    // Observed pixels to undistorted ones: normalised (x', y') when
    // `normalised`, else ideal pinhole pixels of the same camera.
    bool undistortPoints(int32_t camera, const double* uv, int64_t n, bool normalised, double* out) const;
    // The inverse of undistortPoints.
    bool distortPoints(int32_t camera, const double* in, int64_t n, bool normalised, double* uv) const;

    // Linear least squares in the normalised undistorted coordinates of
    // cameras 0 and 1 (two equations per camera, solved by Householder QR).
    // False, world NaN, for NaN input, a failed undistortion, a degenerate
    // system or a point behind either camera.
    bool triangulLinearLS(const Vec2& pixel0, const Vec2& pixel1, Vec3& world) const;
    // Gauss-Newton on the pixel reprojection error of both cameras, at most
    // 10 iterations, starting from `world`; each step is kept only when it
    // does not raise the error. Returns the RMS over the two cameras of the
    // reprojection distances in pixels (NaN when the start does not project).
    double refineTriangulation(const Vec2& pixel0, const Vec2& pixel1, Vec3& world) const;
    // The RMS reprojection error of a world point against the two observations.
    double reprojectionError(const Vec2& pixel0, const Vec2& pixel1, const Vec3& world) const;
    // Whole arrays; `rms` may be null. False for a calibration with fewer
    // than two cameras.
    bool triangulatePoints(const double* uv0, const double* uv1, int64_t n, bool refine, double* xyz,
                           double* rms) const;

    // Camera 0 coordinates to camera 1 coordinates: R1 R0^T, t1 - R1 R0^T t0.
    bool stereoTransform(RigidTransform& transform) const;
    // K [R | t], row-major 3 x 4 (distortion not included).
    bool projectionMatrix(int32_t camera, double* matrix12) const;

private:
    std::vector<Camera> cameras_;
    std::string worldFrame_;
    double reprojectionRms_ = std::numeric_limits<double>::quiet_NaN();
    double epipolarRms_ = std::numeric_limits<double>::quiet_NaN();
};

}  // namespace nimbra
