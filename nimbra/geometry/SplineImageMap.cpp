#include "nimbra/geometry/SplineImageMap.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

constexpr int kMaxFixedPointIterations = 100;

// Position of one coordinate within the knot grid: the first of the four
// coefficients that carry it, the cubic B-spline weights of those four and
// their derivatives with respect to the pixel coordinate. Outside the covered
// range the coordinate is held at its border, where the derivative is zero.
struct Axis {
    int32_t first;
    double w[4];
    double dw[4];
};

Axis locate(double p, double origin, double spacing, int32_t n) {
    Axis a{};
    double s = (p - origin) / spacing;
    const double lo = 1.0;
    const double hi = static_cast<double>(n - 2);
    bool held = false;
    if (!(s >= lo)) {  // also catches NaN, which then stays NaN in the weights
        held = !std::isnan(s);
        if (held) s = lo;
    } else if (s > hi) {
        s = hi;
        held = true;
    }
    int32_t i = std::isnan(s) ? 1 : static_cast<int32_t>(std::floor(s));
    i = std::min(i, n - 3);
    const double f = s - i;
    const double g = 1.0 - f;
    const double f2 = f * f;
    const double f3 = f2 * f;
    a.first = i - 1;
    a.w[0] = g * g * g / 6.0;
    a.w[1] = (3.0 * f3 - 6.0 * f2 + 4.0) / 6.0;
    a.w[2] = (-3.0 * f3 + 3.0 * f2 + 3.0 * f + 1.0) / 6.0;
    a.w[3] = f3 / 6.0;
    if (held) {
        std::fill(std::begin(a.dw), std::end(a.dw), 0.0);
    } else {
        const double inv = 1.0 / spacing;
        a.dw[0] = -0.5 * g * g * inv;
        a.dw[1] = (1.5 * f2 - 2.0 * f) * inv;
        a.dw[2] = (-1.5 * f2 + f + 0.5) * inv;
        a.dw[3] = 0.5 * f2 * inv;
    }
    return a;
}

bool allFinite(const std::vector<double>& values) {
    return std::all_of(values.begin(), values.end(), [](double x) { return std::isfinite(x); });
}

const std::vector<double>& emptyValues() {
    static const std::vector<double> none;
    return none;
}

}  // namespace

double SplineImageMap::gradientBound(double spacingX, double spacingY, int32_t nx, int32_t ny,
                                     const double* dx, const double* dy) {
    if (nx < 4 || ny < 4 || !(spacingX > 0.0) || !(spacingY > 0.0))
        return std::numeric_limits<double>::infinity();
    // Bounds of |d(dx)/du|, |d(dx)/dv|, |d(dy)/du|, |d(dy)/dv|.
    double b[4] = {0.0, 0.0, 0.0, 0.0};
    const double* values[2] = {dx, dy};
    for (int c = 0; c < 2; ++c) {
        const double* v = values[c];
        for (int32_t j = 0; j < ny; ++j) {
            for (int32_t i = 0; i < nx; ++i) {
                const double here = v[static_cast<std::size_t>(j) * nx + i];
                if (i + 1 < nx)
                    b[2 * c] = std::max(b[2 * c], std::fabs(v[static_cast<std::size_t>(j) * nx + i + 1] - here));
                if (j + 1 < ny)
                    b[2 * c + 1] =
                        std::max(b[2 * c + 1], std::fabs(v[static_cast<std::size_t>(j + 1) * nx + i] - here));
            }
        }
    }
    b[0] /= spacingX;
    b[2] /= spacingX;
    b[1] /= spacingY;
    b[3] /= spacingY;
    return std::sqrt(b[0] * b[0] + b[1] * b[1] + b[2] * b[2] + b[3] * b[3]);
}

std::optional<SplineImageMap> SplineImageMap::create(double originX, double originY, double spacingX,
                                                     double spacingY, int32_t nx, int32_t ny,
                                                     std::vector<double> dx, std::vector<double> dy) {
    if (nx < 4 || ny < 4) {
        NIMBRA_LOG(error) << "Spline image map needs at least 4 x 4 coefficients, got " << nx << " x " << ny;
        return std::nullopt;
    }
    const std::size_t count = static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny);
    if (dx.size() != count || dy.size() != count) {
        NIMBRA_LOG(error) << "Spline image map coefficient count does not match " << nx << " x " << ny;
        return std::nullopt;
    }
    if (!std::isfinite(originX) || !std::isfinite(originY) || !(spacingX > 0.0) || !(spacingY > 0.0) ||
        !std::isfinite(spacingX) || !std::isfinite(spacingY) || !allFinite(dx) || !allFinite(dy)) {
        NIMBRA_LOG(error) << "Spline image map values must be finite with positive spacings";
        return std::nullopt;
    }
    const double bound = gradientBound(spacingX, spacingY, nx, ny, dx.data(), dy.data());
    if (!(bound < kMaxGradient)) {
        NIMBRA_LOG(error) << "Spline image map gradient bound " << bound << " is not below " << kMaxGradient;
        return std::nullopt;
    }
    SplineImageMap map;
    map.originX_ = originX;
    map.originY_ = originY;
    map.spacingX_ = spacingX;
    map.spacingY_ = spacingY;
    map.nx_ = nx;
    map.ny_ = ny;
    map.dx_ = std::make_shared<const std::vector<double>>(std::move(dx));
    map.dy_ = std::make_shared<const std::vector<double>>(std::move(dy));
    return map;
}

const std::vector<double>& SplineImageMap::dx() const { return dx_ ? *dx_ : emptyValues(); }
const std::vector<double>& SplineImageMap::dy() const { return dy_ ? *dy_ : emptyValues(); }

void SplineImageMap::evaluate(double u, double v, double& du, double& dv) const {
    du = 0.0;
    dv = 0.0;
    if (!dx_) return;
    const Axis a = locate(u, originX_, spacingX_, nx_);
    const Axis b = locate(v, originY_, spacingY_, ny_);
    const double* cx = dx_->data();
    const double* cy = dy_->data();
    for (int j = 0; j < 4; ++j) {
        const std::size_t row = static_cast<std::size_t>(b.first + j) * nx_ + a.first;
        double sx = 0.0, sy = 0.0;
        for (int i = 0; i < 4; ++i) {
            sx += a.w[i] * cx[row + i];
            sy += a.w[i] * cy[row + i];
        }
        du += b.w[j] * sx;
        dv += b.w[j] * sy;
    }
}

void SplineImageMap::evaluate(double u, double v, double& du, double& dv, double* gradient) const {
    du = 0.0;
    dv = 0.0;
    std::fill(gradient, gradient + 4, 0.0);
    if (!dx_) return;
    const Axis a = locate(u, originX_, spacingX_, nx_);
    const Axis b = locate(v, originY_, spacingY_, ny_);
    const double* cx = dx_->data();
    const double* cy = dy_->data();
    for (int j = 0; j < 4; ++j) {
        const std::size_t row = static_cast<std::size_t>(b.first + j) * nx_ + a.first;
        double sx = 0.0, sy = 0.0, sxu = 0.0, syu = 0.0;
        for (int i = 0; i < 4; ++i) {
            sx += a.w[i] * cx[row + i];
            sy += a.w[i] * cy[row + i];
            sxu += a.dw[i] * cx[row + i];
            syu += a.dw[i] * cy[row + i];
        }
        du += b.w[j] * sx;
        dv += b.w[j] * sy;
        gradient[0] += b.w[j] * sxu;
        gradient[1] += b.dw[j] * sx;
        gradient[2] += b.w[j] * syu;
        gradient[3] += b.dw[j] * sy;
    }
}

bool SplineImageMap::invert(double u, double v, double& observedU, double& observedV, double* derivative) const {
    if (derivative != nullptr) {
        derivative[0] = derivative[3] = 1.0;
        derivative[1] = derivative[2] = 0.0;
    }
    if (!dx_) {
        observedU = u;
        observedV = v;
        return true;
    }
    if (!std::isfinite(u) || !std::isfinite(v)) {
        observedU = std::numeric_limits<double>::quiet_NaN();
        observedV = observedU;
        return false;
    }
    // The tolerance allows for the spacing of doubles at the size of the
    // coordinates.
    const double tolerance =
        std::max(1e-12, 8.0 * std::numeric_limits<double>::epsilon() * std::max(std::fabs(u), std::fabs(v)));
    double pu = u, pv = v;
    // First the iteration p <- p - M (p + Delta(p) - q) with M the inverse
    // of I + grad Delta at q: Delta changes little within a pixel, so this
    // settles in two or three evaluations. It is kept only while each step
    // at least halves the one before.
    double du, dv, g[4];
    evaluate(u, v, du, dv, g);
    const double a = 1.0 + g[0], b = g[1], c = g[2], d = 1.0 + g[3];
    const double det = a * d - b * c;
    // Below the gradient bound the singular values of I + grad Delta exceed
    // one half, so det > 1/4: this only guards against misuse.
    if (det > 0.25) {
        const double m[4] = {d / det, -b / det, -c / det, a / det};
        if (derivative != nullptr) std::copy(m, m + 4, derivative);
        double previous = std::numeric_limits<double>::infinity();
        double ru = du, rv = dv;  // residual p + Delta(p) - q at p = q
        for (int k = 0; k < kMaxFixedPointIterations; ++k) {
            const double su = m[0] * ru + m[1] * rv;
            const double sv = m[2] * ru + m[3] * rv;
            const double size = std::max(std::fabs(su), std::fabs(sv));
            if (!(size <= 0.5 * previous)) break;  // not contracting: plain iteration below
            pu -= su;
            pv -= sv;
            if (size <= tolerance) {
                observedU = pu;
                observedV = pv;
                return true;
            }
            previous = size;
            evaluate(pu, pv, du, dv);
            ru = pu + du - u;
            rv = pv + dv - v;
        }
    }
    // p = q - Delta(p) is a contraction (the gradient bound is below one
    // half), so the error at least halves each step from anywhere.
    for (int k = 0; k < kMaxFixedPointIterations; ++k) {
        evaluate(pu, pv, du, dv);
        const double nu = u - du;
        const double nv = v - dv;
        const bool settled = std::fabs(nu - pu) <= tolerance && std::fabs(nv - pv) <= tolerance;
        pu = nu;
        pv = nv;
        if (settled) {
            observedU = pu;
            observedV = pv;
            return true;
        }
    }
    observedU = std::numeric_limits<double>::quiet_NaN();
    observedV = observedU;
    return false;
}

}  // namespace nimbra
