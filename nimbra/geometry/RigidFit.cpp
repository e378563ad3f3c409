#include <cmath>
#include <cstddef>

#include "nimbra/geometry/Fit.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

constexpr int kParams = 6;
// Only a safety net: the loop below ends long before this on real data.
constexpr int kMaxIterations = 10000;

using Normal = std::array<double, kParams * kParams>;
using Gradient = std::array<double, kParams>;
using Params = std::array<double, kParams>;

Vec3 centroid(const std::vector<Vec3>& points, std::size_t n) {
    Vec3 c{0.0, 0.0, 0.0};
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t k = 0; k < 3; ++k) c[k] += points[i][k];
    for (double& x : c) x /= static_cast<double>(n);
    return c;
}

std::vector<Vec3> centred(const std::vector<Vec3>& points, std::size_t n, const Vec3& c) {
    std::vector<Vec3> out(n);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t k = 0; k < 3; ++k) out[i][k] = points[i][k] - c[k];
    return out;
}

// Forward-difference step: relative to the parameter, but never below 1e-4
// in size (a zero parameter steps downwards).
double differenceStep(double p) {
    double h = 1e-4 * p;
    if (std::fabs(h) < 1e-4) h = h > 0.0 ? 1e-4 : -1e-4;
    return h;
}

// Sum of squared distances between the moved deformed points and the
// reference points, with the normal matrix J^T J and the descent direction
// -J^T r of the forward-difference Jacobian accumulated on the way.
double evaluate(const Params& p, const std::vector<Vec3>& deformed, const std::vector<Vec3>& reference,
                Normal& normal, Gradient& gradient) {
    const Mat3 rotation = rotationVectorToMatrix({p[0], p[1], p[2]});
    const Vec3 translation{p[3], p[4], p[5]};
    Params steps{};
    Mat3 shiftedRotation[3];
    Params inverseSteps{};
    for (int k = 0; k < kParams; ++k) {
        steps[k] = differenceStep(p[k]);
        inverseSteps[k] = 1.0 / steps[k];
    }
    for (int k = 0; k < 3; ++k) {
        Vec3 r{p[0], p[1], p[2]};
        r[static_cast<std::size_t>(k)] += steps[k];
        shiftedRotation[k] = rotationVectorToMatrix(r);
    }
    // Upper triangle only while summing; J^T J is symmetric.
    Normal sums{};
    Gradient g{};
    double chi2 = 0.0;
    for (std::size_t i = 0; i < deformed.size(); ++i) {
        const Vec3& q = deformed[i];
        const Vec3& ref = reference[i];
        const Vec3 moved = multiply3(rotation, q);
        double r[3];
        for (int c = 0; c < 3; ++c) r[c] = moved[c] + translation[c] - ref[c];
        chi2 += r[0] * r[0] + r[1] * r[1] + r[2] * r[2];
        double jac[3][kParams];
        for (int k = 0; k < 3; ++k) {
            const Vec3 mk = multiply3(shiftedRotation[k], q);
            for (int c = 0; c < 3; ++c) jac[c][k] = ((mk[c] + translation[c] - ref[c]) - r[c]) * inverseSteps[k];
        }
        // A translation step leaves the rotated point as it is; only the
        // shifted component's difference is non-zero.
        for (int k = 3; k < kParams; ++k)
            for (int c = 0; c < 3; ++c) {
                const double tk = translation[c] + (c == k - 3 ? steps[k] : 0.0);
                jac[c][k] = ((moved[c] + tk - ref[c]) - r[c]) * inverseSteps[k];
            }
        for (int c = 0; c < 3; ++c)
            for (int a = 0; a < kParams; ++a) {
                const double ja = jac[c][a];
                g[a] -= ja * r[c];
                for (int b = a; b < kParams; ++b) sums[a * kParams + b] += ja * jac[c][b];
            }
    }
    for (int a = 0; a < kParams; ++a)
        for (int b = 0; b < kParams; ++b) normal[a * kParams + b] = b >= a ? sums[a * kParams + b] : sums[b * kParams + a];
    gradient = g;
    return chi2;
}

}  // namespace

bool fitRigidTransform(RigidTransform& transform, double& residual, const std::vector<Vec3>& reference,
                       const std::vector<Vec3>& deformed, int32_t numPts) {
    if (numPts < 1) numPts = static_cast<int32_t>(reference.size());
    if (numPts < 3) {
        NIMBRA_LOG(error) << "Not enough points for fit: " << numPts;
        return false;
    }
    const std::size_t n = static_cast<std::size_t>(numPts);
    if (n > reference.size() || n > deformed.size()) {
        NIMBRA_LOG(error) << "Number of elements in ref or def arrays is less than numPts: " << numPts;
        return false;
    }

    const Vec3 cP = centroid(reference, n);
    const Vec3 cQ = centroid(deformed, n);
    const std::vector<Vec3> pc = centred(reference, n, cP);
    const std::vector<Vec3> qc = centred(deformed, n, cQ);

    // Closed-form start: the rotation that best aligns the centred sets.
    Mat3 h{};
    for (std::size_t k = 0; k < n; ++k)
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) h[3 * i + j] += qc[k][i] * pc[k][j];
    Mat3 u, v;
    Vec3 w;
    if (!svd3(h, u, w, v)) {
        NIMBRA_LOG(warning) << "fitRigidTransform: singular value decomposition failed";
        return false;
    }
    Mat3 r = multiply3(v, transpose3(u));
    if (determinant3(r) < 0.0) {
        // A reflection fits better than any rotation (noisy or flat data):
        // flip the direction of the weakest singular value.
        for (int row = 0; row < 3; ++row) v[3 * row + 2] = -v[3 * row + 2];
        r = multiply3(v, transpose3(u));
    }

    // Levenberg-Marquardt refinement of rotation vector and translation.
    const Vec3 r0 = matrixToRotationVector(r);
    Params p{r0[0], r0[1], r0[2], 0.0, 0.0, 0.0};
    Normal normal;
    Gradient gradient;
    double chi2 = evaluate(p, qc, pc, normal, gradient);
    double chi2Last = chi2;
    double lambda = 0.001;
    for (int iteration = 0; lambda < 1e10 && iteration < kMaxIterations; ++iteration) {
        Normal a = normal;
        for (int i = 0; i < kParams; ++i) a[i * kParams + i] *= 1.0 + lambda;
        if (!invertGaussJordan(a.data(), kParams)) {
            NIMBRA_LOG(warning) << "fitRigidTransform: singular normal matrix";
            return false;
        }
        Params trial = p;
        for (int i = 0; i < kParams; ++i)
            for (int j = 0; j < kParams; ++j) trial[i] += a[i * kParams + j] * gradient[j];
        Normal trialNormal;
        Gradient trialGradient;
        const double chi2New = evaluate(trial, qc, pc, trialNormal, trialGradient);
        chi2Last = chi2New;
        if (chi2 > chi2New) {
            p = trial;
            normal = trialNormal;
            gradient = trialGradient;
            if (lambda > 1e-8) lambda /= 11.0;
            chi2 *= 0.9999999;
            // Less than a relative 1e-7 gained: converged.
            if (chi2New > chi2) break;
            chi2 = chi2New;
        } else {
            lambda *= 13.0;
        }
    }

    Rotation rotation;
    rotation.setRotationVector({p[0], p[1], p[2]});
    const Vec3 rcQ = rotation.apply(cQ);
    transform.setRotation(rotation);
    transform.setTranslation({cP[0] + p[3] - rcQ[0], cP[1] + p[4] - rcQ[1], cP[2] + p[5] - rcQ[2]});
    // The cost of the last trial step, accepted or not.
    residual = std::sqrt(chi2Last / (3.0 * static_cast<double>(n)));
    return true;
}

bool planeFit(RigidTransform& transform, const std::vector<Vec3>& points) {
    if (points.size() < 3) {
        NIMBRA_LOG(warning) << "planeFit: fewer than 3 points";
        return false;
    }
    const Vec3 c = centroid(points, points.size());
    Mat3 s{};
    for (const Vec3& p : points) {
        const Vec3 d{p[0] - c[0], p[1] - c[1], p[2] - c[2]};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) s[3 * i + j] += d[i] * d[j];
    }
    Mat3 u, v;
    Vec3 w;
    if (!svd3(s, u, w, v)) {
        NIMBRA_LOG(warning) << "planeFit: singular value decomposition failed";
        return false;
    }
    Vec3 n{v[2], v[5], v[8]};
    const double length = norm(n);
    if (!(length > 0.0)) {
        NIMBRA_LOG(warning) << "planeFit: no normal direction";
        return false;
    }
    for (double& x : n) x /= length;
    if (n[2] < 0.0)
        for (double& x : n) x = -x;

    // In-plane axes: e1 is the horizontal direction of the plane (no y part).
    // A normal along y leaves it undefined; the division then yields
    // non-finite values rather than a silently arbitrary frame.
    const double h = std::sqrt(n[0] * n[0] + n[2] * n[2]);
    const Vec3 e1{n[2] / h, 0.0, -n[0] / h};
    Vec3 e2 = cross(n, e1);
    const double l2 = norm(e2);
    for (double& x : e2) x /= l2;

    const Mat3 m{e1[0], e1[1], e1[2], e2[0], e2[1], e2[2], n[0], n[1], n[2]};
    Rotation rotation(m);
    const Vec3 rc = multiply3(m, c);
    transform.setRotation(rotation);
    transform.setTranslation({-rc[0], -rc[1], -rc[2]});
    return true;
}

}  // namespace nimbra
