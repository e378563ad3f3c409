#include "nimbra/geometry/StereoCalibration.h"

#include <algorithm>
#include <cmath>

#include "nimbra/analysis/Workers.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr int kMaxRefineIterations = 10;
// Below this many points the threads cost more than they save.
constexpr int64_t kPointsPerWorker = 8192;

// Runs fn(begin, end) over [0, n) split among the analysis workers.
template <class Fn>
void forEachRange(int64_t n, Fn&& fn) {
    const int64_t byCount = std::max<int64_t>(1, n / kPointsPerWorker);
    const int workers = static_cast<int>(std::min<int64_t>(analysisWorkerCount(), byCount));
    runWorkers(workers, [&](int k, int count) { fn(n * k / count, n * (k + 1) / count); });
}

// min |A x - b| for a 4 x 3 row-major A by Householder QR (A and b are
// overwritten). False when A is rank deficient to working precision.
bool leastSquares43(double* a, double* b, double* x) {
    double scale = 0.0;
    for (int i = 0; i < 12; ++i) scale = std::max(scale, std::fabs(a[i]));
    if (!(scale > 0.0) || !std::isfinite(scale)) return false;
    double diagonal[3];
    for (int k = 0; k < 3; ++k) {
        double s = 0.0;
        for (int i = k; i < 4; ++i) s += a[3 * i + k] * a[3 * i + k];
        s = std::sqrt(s);
        if (!(s > 1e-13 * scale)) return false;
        const double alpha = a[3 * k + k] > 0.0 ? -s : s;
        double v[4] = {0.0, 0.0, 0.0, 0.0};
        for (int i = k; i < 4; ++i) v[i] = a[3 * i + k];
        v[k] -= alpha;
        double vv = 0.0;
        for (int i = k; i < 4; ++i) vv += v[i] * v[i];
        // H = I - 2 v v^T / (v^T v) on the remaining columns and on b.
        for (int c = k + 1; c < 3; ++c) {
            double d = 0.0;
            for (int i = k; i < 4; ++i) d += v[i] * a[3 * i + c];
            d = 2.0 * d / vv;
            for (int i = k; i < 4; ++i) a[3 * i + c] -= d * v[i];
        }
        double d = 0.0;
        for (int i = k; i < 4; ++i) d += v[i] * b[i];
        d = 2.0 * d / vv;
        for (int i = k; i < 4; ++i) b[i] -= d * v[i];
        diagonal[k] = alpha;
    }
    for (int k = 2; k >= 0; --k) {
        double s = b[k];
        for (int c = k + 1; c < 3; ++c) s -= a[3 * k + c] * x[c];
        x[k] = s / diagonal[k];
    }
    return true;
}

double depth(const Camera& camera, const Vec3& world) {
    const Mat3& r = camera.rotation();
    return r[6] * world[0] + r[7] * world[1] + r[8] * world[2] + camera.translation()[2];
}

// Reprojection residuals (projected - observed) of both cameras and their
// Jacobian, 4 x 3 row-major. False where the point does not project.
bool residuals(const Camera& c0, const Camera& c1, const Vec2& p0, const Vec2& p1, const Vec3& world,
               double* r, double* jacobian) {
    Vec2 q0, q1;
    if (!c0.project(world, q0, jacobian) || !c1.project(world, q1, jacobian + 6)) return false;
    r[0] = q0[0] - p0[0];
    r[1] = q0[1] - p0[1];
    r[2] = q1[0] - p1[0];
    r[3] = q1[1] - p1[1];
    return true;
}

double sumOfSquares(const double* r) { return r[0] * r[0] + r[1] * r[1] + r[2] * r[2] + r[3] * r[3]; }

const Vec3 kNaN3{kNaN, kNaN, kNaN};

}  // namespace

const Camera* StereoCalibration::camera(int32_t index) const {
    return index >= 0 && index < numCameras() ? &cameras_[static_cast<std::size_t>(index)] : nullptr;
}

Camera* StereoCalibration::camera(int32_t index) {
    return index >= 0 && index < numCameras() ? &cameras_[static_cast<std::size_t>(index)] : nullptr;
}

int32_t StereoCalibration::addCamera(const Camera& camera) {
    if (!camera.isValid()) {
        NIMBRA_LOG(error) << "Camera without image size cannot be added to a calibration";
        return -1;
    }
    cameras_.push_back(camera);
    return numCameras() - 1;
}

bool StereoCalibration::setCamera(int32_t index, const Camera& camera) {
    Camera* target = this->camera(index);
    if (target == nullptr || !camera.isValid()) {
        NIMBRA_LOG(error) << "Cannot set calibration camera " << index;
        return false;
    }
    *target = camera;
    return true;
}

bool StereoCalibration::removeCamera(int32_t index) {
    if (camera(index) == nullptr) return false;
    cameras_.erase(cameras_.begin() + index);
    return true;
}

void StereoCalibration::clear() {
    cameras_.clear();
    worldFrame_.clear();
    reprojectionRms_ = kNaN;
    epipolarRms_ = kNaN;
}

bool StereoCalibration::isValid() const {
    return cameras_.size() >= 2 &&
           std::all_of(cameras_.begin(), cameras_.end(), [](const Camera& c) { return c.isValid(); });
}

void StereoCalibration::setQuality(double reprojectionRmsPx, double epipolarRmsPx) {
    reprojectionRms_ = reprojectionRmsPx;
    epipolarRms_ = epipolarRmsPx;
}

bool StereoCalibration::projectPoints(int32_t index, const double* xyz, int64_t n, double* uv) const {
    const Camera* c = camera(index);
    if (c == nullptr) return false;
    forEachRange(n, [&](int64_t begin, int64_t end) {
        for (int64_t i = begin; i < end; ++i) {
            const Vec2 p = c->project({xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2]});
            uv[2 * i] = p[0];
            uv[2 * i + 1] = p[1];
        }
    });
    return true;
}

bool StereoCalibration::undistortPoints(int32_t index, const double* uv, int64_t n, bool normalised,
                                        double* out) const {
    const Camera* c = camera(index);
    if (c == nullptr) return false;
    forEachRange(n, [&](int64_t begin, int64_t end) {
        for (int64_t i = begin; i < end; ++i) {
            Vec2 p = c->undistort({uv[2 * i], uv[2 * i + 1]});
            if (!normalised) p = c->idealPixel(p);
            out[2 * i] = p[0];
            out[2 * i + 1] = p[1];
        }
    });
    return true;
}

bool StereoCalibration::distortPoints(int32_t index, const double* in, int64_t n, bool normalised,
                                      double* uv) const {
    const Camera* c = camera(index);
    if (c == nullptr) return false;
    forEachRange(n, [&](int64_t begin, int64_t end) {
        for (int64_t i = begin; i < end; ++i) {
            Vec2 p{in[2 * i], in[2 * i + 1]};
            if (!normalised) p = c->normalisedFromIdeal(p);
            p = c->distort(p);
            uv[2 * i] = p[0];
            uv[2 * i + 1] = p[1];
        }
    });
    return true;
}

bool StereoCalibration::triangulLinearLS(const Vec2& pixel0, const Vec2& pixel1, Vec3& world) const {
    world = kNaN3;
    if (cameras_.size() < 2) return false;
    const Camera* views[2] = {&cameras_[0], &cameras_[1]};
    const Vec2 pixels[2] = {pixel0, pixel1};
    double a[12], b[4];
    for (int k = 0; k < 2; ++k) {
        const Vec2 n = views[k]->undistort(pixels[k]);
        if (!std::isfinite(n[0]) || !std::isfinite(n[1])) return false;
        const Mat3& r = views[k]->rotation();
        const Vec3& t = views[k]->translation();
        // x' (r3 . P + t3) = r1 . P + t1, likewise for y' with r2.
        for (int e = 0; e < 2; ++e) {
            double* row = a + 6 * k + 3 * e;
            for (int c = 0; c < 3; ++c) row[c] = r[3 * e + c] - n[e] * r[6 + c];
            b[2 * k + e] = n[e] * t[2] - t[e];
        }
    }
    Vec3 p;
    if (!leastSquares43(a, b, p.data())) return false;
    if (!(depth(*views[0], p) > 0.0) || !(depth(*views[1], p) > 0.0)) return false;
    world = p;
    return true;
}

double StereoCalibration::refineTriangulation(const Vec2& pixel0, const Vec2& pixel1, Vec3& world) const {
    if (cameras_.size() < 2) return kNaN;
    const Camera& c0 = cameras_[0];
    const Camera& c1 = cameras_[1];
    double r[4], jacobian[12];
    if (!residuals(c0, c1, pixel0, pixel1, world, r, jacobian)) return kNaN;
    double cost = sumOfSquares(r);
    for (int iteration = 0; iteration < kMaxRefineIterations; ++iteration) {
        double a[12], b[4], step[3];
        std::copy(jacobian, jacobian + 12, a);
        for (int i = 0; i < 4; ++i) b[i] = -r[i];
        if (!leastSquares43(a, b, step)) break;
        // Converged: a step this small is taken without projecting again; it
        // cannot change the error reported to any digit that matters.
        const double size = std::max({1.0, std::fabs(world[0]), std::fabs(world[1]), std::fabs(world[2])});
        if (std::max({std::fabs(step[0]), std::fabs(step[1]), std::fabs(step[2])}) <= 1e-13 * size) {
            for (int k = 0; k < 3; ++k) world[k] += step[k];
            break;
        }
        const Vec3 trial{world[0] + step[0], world[1] + step[1], world[2] + step[2]};
        double rt[4], jt[12];
        if (!residuals(c0, c1, pixel0, pixel1, trial, rt, jt)) break;
        const double trialCost = sumOfSquares(rt);
        if (trialCost > cost) break;
        world = trial;
        cost = trialCost;
        std::copy(rt, rt + 4, r);
        std::copy(jt, jt + 12, jacobian);
    }
    return std::sqrt(0.5 * cost);
}

double StereoCalibration::reprojectionError(const Vec2& pixel0, const Vec2& pixel1, const Vec3& world) const {
    if (cameras_.size() < 2) return kNaN;
    const Vec2 q0 = cameras_[0].project(world);
    const Vec2 q1 = cameras_[1].project(world);
    const double r[4] = {q0[0] - pixel0[0], q0[1] - pixel0[1], q1[0] - pixel1[0], q1[1] - pixel1[1]};
    return std::sqrt(0.5 * sumOfSquares(r));
}

bool StereoCalibration::triangulatePoints(const double* uv0, const double* uv1, int64_t n, bool refine,
                                          double* xyz, double* rms) const {
    if (cameras_.size() < 2) {
        NIMBRA_LOG(error) << "Triangulation needs two cameras";
        return false;
    }
    forEachRange(n, [&](int64_t begin, int64_t end) {
        for (int64_t i = begin; i < end; ++i) {
            const Vec2 p0{uv0[2 * i], uv0[2 * i + 1]};
            const Vec2 p1{uv1[2 * i], uv1[2 * i + 1]};
            Vec3 world;
            double error = kNaN;
            if (triangulLinearLS(p0, p1, world)) {
                if (refine) {
                    error = refineTriangulation(p0, p1, world);
                } else if (rms != nullptr) {
                    error = reprojectionError(p0, p1, world);
                }
            }
            xyz[3 * i] = world[0];
            xyz[3 * i + 1] = world[1];
            xyz[3 * i + 2] = world[2];
            if (rms != nullptr) rms[i] = error;
        }
    });
    return true;
}

bool StereoCalibration::stereoTransform(RigidTransform& transform) const {
    if (cameras_.size() < 2) return false;
    const Mat3 r = multiply3(cameras_[1].rotation(), transpose3(cameras_[0].rotation()));
    const Vec3 rt0 = multiply3(r, cameras_[0].translation());
    const Vec3& t1 = cameras_[1].translation();
    transform = RigidTransform(Rotation(r), Vec3{t1[0] - rt0[0], t1[1] - rt0[1], t1[2] - rt0[2]});
    return true;
}

bool StereoCalibration::projectionMatrix(int32_t index, double* m) const {
    const Camera* c = camera(index);
    if (c == nullptr) return false;
    const Mat3& r = c->rotation();
    const Vec3& t = c->translation();
    const double k[9] = {c->fx(), c->skew(), c->cx(), 0.0, c->fy(), c->cy(), 0.0, 0.0, 1.0};
    for (int row = 0; row < 3; ++row) {
        for (int col = 0; col < 3; ++col)
            m[4 * row + col] = k[3 * row] * r[col] + k[3 * row + 1] * r[3 + col] + k[3 * row + 2] * r[6 + col];
        m[4 * row + 3] = k[3 * row] * t[0] + k[3 * row + 1] * t[1] + k[3 * row + 2] * t[2];
    }
    return true;
}

}  // namespace nimbra
