#include "nimbra/geometry/Camera.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kOrthonormalTolerance = 1e-6;

// Undistortion: the residual aimed for and the one promised, in pixels. The
// gap keeps a point whose residual stalls at rounding level (long focal
// lengths) from being reported as a failure.
constexpr double kTargetResidualPx = 1e-10;
constexpr double kAcceptedResidualPx = 1e-9;
constexpr int kMaxNewtonIterations = 20;
constexpr int kMaxStepHalvings = 10;

// The fold search stops at r2 = 1e4 (r = 100, 89.4 degrees off the axis).
constexpr double kFoldSearchLimit = 100.0;

const Vec2 kNaN2{kNaN, kNaN};

bool finite(double x) { return std::isfinite(x); }

// The radial factor and its derivative with respect to r2, and whether it is
// usable there (positive denominator).
struct Radial {
    double value;
    double slope;
    bool usable;
};

Radial radial(const Camera::Distortion& k, double r2) {
    const double r4 = r2 * r2;
    const double numerator = 1.0 + r2 * (k[Camera::K1] + r2 * (k[Camera::K2] + r2 * k[Camera::K3]));
    const double denominator = 1.0 + r2 * (k[Camera::K4] + r2 * (k[Camera::K5] + r2 * k[Camera::K6]));
    const double dNumerator = k[Camera::K1] + 2.0 * k[Camera::K2] * r2 + 3.0 * k[Camera::K3] * r4;
    const double dDenominator = k[Camera::K4] + 2.0 * k[Camera::K5] * r2 + 3.0 * k[Camera::K6] * r4;
    Radial out;
    out.usable = denominator > 0.0;
    out.value = numerator / denominator;
    out.slope = (dNumerator - out.value * dDenominator) / denominator;
    return out;
}

// d(r * radial)/dr > 0 with a positive denominator: the radial part is still
// increasing at r2.
bool radiallyIncreasing(const Camera::Distortion& k, double r2) {
    const Radial f = radial(k, r2);
    return f.usable && f.value + 2.0 * r2 * f.slope > 0.0;
}

// Normalised (x', y') to distorted (x'', y''), with the Jacobian
// d(x'', y'')/d(x', y') row-major when `jacobian` is given.
void applyDistortion(const Camera::Distortion& k, double x, double y, double& xd, double& yd,
                     double* jacobian) {
    const double r2 = x * x + y * y;
    const double r4 = r2 * r2;
    const Radial f = radial(k, r2);
    const double p1 = k[Camera::P1];
    const double p2 = k[Camera::P2];
    const double xy = x * y;
    xd = x * f.value + 2.0 * p1 * xy + p2 * (r2 + 2.0 * x * x) + k[Camera::S1] * r2 + k[Camera::S2] * r4;
    yd = y * f.value + p1 * (r2 + 2.0 * y * y) + 2.0 * p2 * xy + k[Camera::S3] * r2 + k[Camera::S4] * r4;
    if (jacobian == nullptr) return;
    // The prism terms' derivatives with respect to r2.
    const double prismX = k[Camera::S1] + 2.0 * k[Camera::S2] * r2;
    const double prismY = k[Camera::S3] + 2.0 * k[Camera::S4] * r2;
    const double mixed = 2.0 * xy * f.slope + 2.0 * p1 * x + 2.0 * p2 * y;
    jacobian[0] = f.value + 2.0 * x * x * f.slope + 2.0 * p1 * y + 6.0 * p2 * x + 2.0 * x * prismX;
    jacobian[1] = mixed + 2.0 * y * prismX;
    jacobian[2] = mixed + 2.0 * x * prismY;
    jacobian[3] = f.value + 2.0 * y * y * f.slope + 6.0 * p1 * y + 2.0 * p2 * x + 2.0 * y * prismY;
}

double determinant2(const double* m) { return m[0] * m[3] - m[1] * m[2]; }

// The first r2 at which the radial part stops increasing, found on a scan
// fine enough for the few sign changes a low-order rational can have, then
// narrowed by bisection. Infinite when there is none up to the search limit.
double findFold(const Camera::Distortion& k) {
    double good = 0.0;
    double r = 0.0;
    while (r < kFoldSearchLimit) {
        r = r < 5.0 ? r + 0.005 : r * 1.005;
        const double r2 = r * r;
        if (!radiallyIncreasing(k, r2)) {
            double lo = good, hi = r2;
            for (int i = 0; i < 80 && hi - lo > 1e-15 * hi; ++i) {
                const double mid = 0.5 * (lo + hi);
                (radiallyIncreasing(k, mid) ? lo : hi) = mid;
            }
            return lo;
        }
        good = r2;
    }
    return kInfinity;
}

}  // namespace

Camera::Camera() : foldRadius2_(kInfinity) {}

bool Camera::setImageSize(int32_t width, int32_t height) {
    if (width <= 0 || height <= 0) {
        NIMBRA_LOG(error) << "Camera image size must be positive, got " << width << " x " << height;
        return false;
    }
    width_ = width;
    height_ = height;
    return true;
}

bool Camera::setIntrinsics(double fx, double fy, double cx, double cy, double skew) {
    if (!finite(fx) || !finite(fy) || !finite(cx) || !finite(cy) || !finite(skew) || !(fx > 0.0) ||
        !(fy > 0.0)) {
        NIMBRA_LOG(error) << "Camera intrinsics must be finite with fx > 0 and fy > 0";
        return false;
    }
    fx_ = fx;
    fy_ = fy;
    cx_ = cx;
    cy_ = cy;
    skew_ = skew;
    return true;
}

bool Camera::setDistortion(const Distortion& coefficients) {
    if (!std::all_of(coefficients.begin(), coefficients.end(), finite)) {
        NIMBRA_LOG(error) << "Camera distortion coefficients must be finite";
        return false;
    }
    distortion_ = coefficients;
    updateFold();
    return true;
}

void Camera::updateFold() { foldRadius2_ = findFold(distortion_); }

bool Camera::setExtrinsics(const Mat3& rotation, const Vec3& translation) {
    bool ok = std::all_of(rotation.begin(), rotation.end(), finite) &&
              std::all_of(translation.begin(), translation.end(), finite);
    if (ok) {
        const Mat3 gram = multiply3(transpose3(rotation), rotation);
        const Mat3 one = identity3();
        for (int i = 0; i < 9; ++i) ok = ok && std::fabs(gram[i] - one[i]) <= kOrthonormalTolerance;
        ok = ok && determinant3(rotation) > 0.0;
    }
    if (!ok) {
        NIMBRA_LOG(error) << "Camera rotation must be orthonormal with determinant +1";
        return false;
    }
    rotation_ = rotation;
    translation_ = translation;
    return true;
}

Vec3 Camera::centre() const {
    const Vec3 c = multiply3(transpose3(rotation_), translation_);
    return {-c[0], -c[1], -c[2]};
}

Vec2 Camera::idealPixel(const Vec2& n) const {
    return {fx_ * n[0] + skew_ * n[1] + cx_, fy_ * n[1] + cy_};
}

Vec2 Camera::normalisedFromIdeal(const Vec2& p) const {
    const double y = (p[1] - cy_) / fy_;
    return {(p[0] - cx_ - skew_ * y) / fx_, y};
}

Vec2 Camera::distort(const Vec2& n) const {
    if (!finite(n[0]) || !finite(n[1])) return kNaN2;
    double xd, yd, j[4];
    applyDistortion(distortion_, n[0], n[1], xd, yd, j);
    if (!(n[0] * n[0] + n[1] * n[1] < foldRadius2_) || !(determinant2(j) > 0.0)) return kNaN2;
    Vec2 out;
    spline_.invert(fx_ * xd + skew_ * yd + cx_, fy_ * yd + cy_, out[0], out[1]);
    return out;
}

Vec2 Camera::project(const Vec3& world) const {
    const Vec3 pc = multiply3(rotation_, world);
    const double z = pc[2] + translation_[2];
    if (!(z > 0.0) || !finite(z)) return kNaN2;
    return distort({(pc[0] + translation_[0]) / z, (pc[1] + translation_[1]) / z});
}

bool Camera::project(const Vec3& world, Vec2& pixel, double* jacobian) const {
    const Vec3 r = multiply3(rotation_, world);
    const double X = r[0] + translation_[0];
    const double Y = r[1] + translation_[1];
    const double Z = r[2] + translation_[2];
    pixel = kNaN2;
    if (!(Z > 0.0) || !finite(Z) || !finite(X) || !finite(Y)) return false;
    const double iz = 1.0 / Z;
    const double x = X * iz;
    const double y = Y * iz;
    double xd, yd, jd[4];
    applyDistortion(distortion_, x, y, xd, yd, jd);
    if (!(x * x + y * y < foldRadius2_) || !(determinant2(jd) > 0.0)) return false;
    // d(observed)/d(ideal): the spline map's inverse derivative
    double u, v, m[4];
    if (!spline_.invert(fx_ * xd + skew_ * yd + cx_, fy_ * yd + cy_, u, v, m)) return false;
    // d(ideal pixel)/d(x', y') = [fx skew; 0 fy] * jd
    const double a[4] = {fx_ * jd[0] + skew_ * jd[2], fx_ * jd[1] + skew_ * jd[3], fy_ * jd[2], fy_ * jd[3]};
    const double b[4] = {m[0] * a[0] + m[1] * a[2], m[0] * a[1] + m[1] * a[3], m[2] * a[0] + m[3] * a[2],
                         m[2] * a[1] + m[3] * a[3]};
    // d(x', y')/d(P_c) = [1/Z 0 -x/Z; 0 1/Z -y/Z], then d(P_c)/d(P_w) = R.
    for (int row = 0; row < 2; ++row) {
        const double c0 = b[2 * row] * iz;
        const double c1 = b[2 * row + 1] * iz;
        const double c2 = -(c0 * x + c1 * y);
        for (int col = 0; col < 3; ++col)
            jacobian[3 * row + col] = c0 * rotation_[col] + c1 * rotation_[3 + col] + c2 * rotation_[6 + col];
    }
    pixel = {u, v};
    return true;
}

Vec2 Camera::undistort(const Vec2& pixel) const {
    if (!finite(pixel[0]) || !finite(pixel[1])) return kNaN2;
    double u = pixel[0], v = pixel[1];
    if (!spline_.empty()) {
        double du, dv;
        spline_.evaluate(u, v, du, dv);
        u += du;
        v += dv;
    }
    const Vec2 target = normalisedFromIdeal({u, v});
    // Squared residual in pixels: |[fx skew; 0 fy] (distorted - target)|^2.
    // Pixel residuals are far from overflow, so no hypot is needed.
    auto residual = [&](double x, double y, double* e, double* j) {
        double xd, yd;
        applyDistortion(distortion_, x, y, xd, yd, j);
        e[0] = xd - target[0];
        e[1] = yd - target[1];
        const double du = fx_ * e[0] + skew_ * e[1];
        const double dv = fy_ * e[1];
        return du * du + dv * dv;
    };
    double x = target[0], y = target[1];
    double e[2], j[4];
    double res = residual(x, y, e, j);
    for (int iteration = 0; res > kTargetResidualPx * kTargetResidualPx && iteration < kMaxNewtonIterations;
         ++iteration) {
        const double det = determinant2(j);
        if (!(det > 0.0)) return kNaN2;  // on or beyond a fold
        const double dx = -(j[3] * e[0] - j[1] * e[1]) / det;
        const double dy = -(j[0] * e[1] - j[2] * e[0]) / det;
        // Damped: a step is taken only when it lowers the residual.
        bool lowered = false;
        double step = 1.0;
        for (int h = 0; h < kMaxStepHalvings && !lowered; ++h, step *= 0.5) {
            double en[2], jn[4];
            const double xn = x + step * dx;
            const double yn = y + step * dy;
            const double resn = residual(xn, yn, en, jn);
            if (resn < res) {
                x = xn;
                y = yn;
                res = resn;
                std::copy(en, en + 2, e);
                std::copy(jn, jn + 4, j);
                lowered = true;
            }
        }
        if (!lowered) break;
    }
    if (!(res <= kAcceptedResidualPx * kAcceptedResidualPx)) return kNaN2;
    if (!(x * x + y * y < foldRadius2_) || !(determinant2(j) > 0.0)) return kNaN2;
    return {x, y};
}

}  // namespace nimbra
