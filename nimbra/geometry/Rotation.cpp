#include "nimbra/geometry/Rotation.h"

#include <algorithm>
#include <cmath>

namespace nimbra {
namespace {

constexpr double kPi = 3.141592653589793;
// pi^2 / 2: the squared half-turn angle spread over the (m_ii + 1) / 2 terms.
constexpr double kHalfTurnScale = 4.934802200544679;
constexpr double kTiny = 1e-12;
// Below this, m00 + 1 = 2 x^2 of a half turn's axis is too small for the
// products x y and x z to carry a reliable sign.
constexpr double kHalfTurnNoX = 1e-10;

double toRadians(double value, Rotation::AngleType type) {
    return type == Rotation::Deg ? value * kPi / 180.0 : value;
}

double fromRadians(double value, Rotation::AngleType type) {
    return type == Rotation::Deg ? value * 180.0 / kPi : value;
}

}  // namespace

// ------------------------------------------------------------- conversions

// R = Rz(gamma) * Ry(beta) * Rx(alpha): the x rotation acts first.
Mat3 anglesToMatrix(double alpha, double beta, double gamma) {
    const double ca = std::cos(alpha), sa = std::sin(alpha);
    const double cb = std::cos(beta), sb = std::sin(beta);
    const double cg = std::cos(gamma), sg = std::sin(gamma);
    return {cg * cb, sb * sa * cg - sg * ca, sb * ca * cg + sg * sa,
            sg * cb, sb * sa * sg + cg * ca, sb * ca * sg - cg * sa,
            -sb,     cb * sa,                cb * ca};
}

Vec3 matrixToAngles(const Mat3& m) {
    const double s = std::sqrt(m[0] * m[0] + m[3] * m[3]);
    const double beta = std::atan2(-m[6], s);
    if (std::fabs(s) <= kTiny) {
        // Gimbal lock: only alpha - gamma (beta = +90 degrees) or alpha + gamma
        // (beta = -90 degrees) is defined, so all of it goes into alpha. At
        // -90 degrees m01 and m02 are -sin and -cos of that sum, hence the
        // sign flip; without it the angles would name a different rotation.
        if (m[6] > 0.0) return {std::atan2(-m[1], -m[2]), beta, 0.0};
        return {std::atan2(m[1], m[2]), beta, 0.0};
    }
    return {std::atan2(m[7], m[8]), beta, std::atan2(m[3], m[0])};
}

Vec3 matrixToRotationVector(const Mat3& m) {
    const double c = m[0] + m[4] + m[8] - 1.0;  // 2 cos(theta)
    if (std::fabs(c * c - 4.0) > kTiny) {
        const double theta = std::acos(c * 0.5);
        const double k = theta / std::sqrt(4.0 - c * c);
        return {(m[7] - m[5]) * k, (m[2] - m[6]) * k, (m[3] - m[1]) * k};
    }
    if (std::fabs(c + 2.0) <= kTiny) {
        // Half turn: the antisymmetric part vanishes and the axis comes from
        // the diagonal, its signs from the off-diagonal terms.
        double rx = -std::sqrt(std::max(0.0, (m[0] + 1.0) * kHalfTurnScale));
        double ry = std::sqrt(std::max(0.0, (m[4] + 1.0) * kHalfTurnScale));
        double rz = std::sqrt(std::max(0.0, (m[8] + 1.0) * kHalfTurnScale));
        if (m[0] + 1.0 > kHalfTurnNoX) {
            // x is the reference (made negative); m01 = 2xy and m02 = 2xz
            // give the signs of y and z relative to it.
            if (m[1] > 0.0) ry = -ry;
            if (m[2] > 0.0) rz = -rz;
        } else {
            // Axis (nearly) in the y-z plane: m01 and m02 are rounding noise,
            // so y becomes the reference (kept positive) and m12 = 2yz
            // relates z to it, m01 the tiny x.
            if (m[5] < 0.0) rz = -rz;
            if (m[1] > 0.0) rx = -rx;
        }
        return {rx, ry, rz};
    }
    return {0.0, 0.0, 0.0};
}

Mat3 rotationVectorToMatrix(const Vec3& r) {
    const double theta2 = r[0] * r[0] + r[1] * r[1] + r[2] * r[2];
    if (std::fabs(theta2) <= kTiny) return identity3();
    const double theta = std::sqrt(theta2);
    const double c = std::cos(theta);
    const double a = (1.0 - c) / theta2;
    const double s = std::sin(theta) / theta;
    const double rx = r[0], ry = r[1], rz = r[2];
    return {c + a * rx * rx,      a * rx * ry - s * rz, a * rx * rz + s * ry,
            a * rx * ry + s * rz, c + a * ry * ry,      a * ry * rz - s * rx,
            a * rx * rz - s * ry, a * ry * rz + s * rx, c + a * rz * rz};
}

Mat3 quaternionToMatrix(const std::array<double, 4>& q) {
    const double w = q[0], x = q[1], y = q[2], z = q[3];
    return {1 - 2 * y * y - 2 * z * z, 2 * x * y - 2 * w * z,     2 * x * z + 2 * w * y,
            2 * x * y + 2 * w * z,     1 - 2 * x * x - 2 * z * z, 2 * y * z - 2 * w * x,
            2 * x * z - 2 * w * y,     2 * y * z + 2 * w * x,     1 - 2 * x * x - 2 * y * y};
}

// The angle comes from w^2, so it never exceeds pi whatever the sign of w.
// For w < 0 the result is therefore not the rotation of the matrix form;
// callers that mix the two keep w >= 0.
Vec3 quaternionToRotationVector(const std::array<double, 4>& q) {
    const double w = q[0];
    if (std::fabs(1.0 - w * w) <= kTiny) return {0.0, 0.0, 0.0};
    const double theta = std::acos(2.0 * w * w - 1.0);
    const double k = theta / std::sqrt(1.0 - w * w);
    return {q[1] * k, q[2] * k, q[3] * k};
}

// Pivots on the largest of w, x, y, z so that no square root of a small
// difference decides the result; the sign is fixed to w >= 0.
std::array<double, 4> matrixToQuaternion(const Mat3& m) {
    const double trace = m[0] + m[4] + m[8];
    std::array<double, 4> q{};
    if (trace >= m[0] && trace >= m[4] && trace >= m[8]) {
        const double s = 2.0 * std::sqrt(std::max(0.0, 1.0 + trace));
        q = {0.25 * s, (m[7] - m[5]) / s, (m[2] - m[6]) / s, (m[3] - m[1]) / s};
    } else if (m[0] >= m[4] && m[0] >= m[8]) {
        const double s = 2.0 * std::sqrt(std::max(0.0, 1.0 + m[0] - m[4] - m[8]));
        q = {(m[7] - m[5]) / s, 0.25 * s, (m[1] + m[3]) / s, (m[2] + m[6]) / s};
    } else if (m[4] >= m[8]) {
        const double s = 2.0 * std::sqrt(std::max(0.0, 1.0 + m[4] - m[0] - m[8]));
        q = {(m[2] - m[6]) / s, (m[1] + m[3]) / s, 0.25 * s, (m[5] + m[7]) / s};
    } else {
        const double s = 2.0 * std::sqrt(std::max(0.0, 1.0 + m[8] - m[0] - m[4]));
        q = {(m[3] - m[1]) / s, (m[2] + m[6]) / s, (m[5] + m[7]) / s, 0.25 * s};
    }
    if (q[0] < 0.0)
        for (double& x : q) x = -x;
    const double n = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    if (n > 0.0 && std::isfinite(n))
        for (double& x : q) x /= n;
    return q;
}

std::array<double, 4> rotationVectorToQuaternion(const Vec3& r) {
    const double theta = norm(r);
    if (theta == 0.0) return {1.0, 0.0, 0.0, 0.0};
    const double half = 0.5 * theta;
    const double k = std::sin(half) / theta;
    std::array<double, 4> q{std::cos(half), r[0] * k, r[1] * k, r[2] * k};
    // Rotation vectors longer than pi describe the same rotations as shorter
    // ones; keep the quaternion on the w >= 0 side like the matrix path does.
    if (q[0] < 0.0)
        for (double& x : q) x = -x;
    return q;
}

// ------------------------------------------------------------------ Rotation

Rotation::Rotation() : matrix_(identity3()), matrixValid_(true), kind_(KindMatrix) {}

Rotation::Rotation(const Rotation& other) = default;

Rotation& Rotation::operator=(const Rotation& other) = default;

Rotation::~Rotation() = default;

Rotation::Rotation(const Mat3& matrix) { setMatrix(matrix); }

Rotation::Rotation(double alpha, double beta, double gamma, AngleType type) {
    setAngles(alpha, beta, gamma, type);
}

Rotation::Rotation(const Rotation& a, const Rotation& b) { setMatrix(multiply3(a.matrix(), b.matrix())); }

void Rotation::invalidateAll() {
    matrixValid_ = false;
    anglesValid_ = false;
    rotationVectorValid_ = false;
    generalValid_ = false;
    quaternionValid_ = false;
}

void Rotation::setAngles(double alpha, double beta, double gamma, AngleType type) {
    invalidateAll();
    angles_ = {toRadians(alpha, type), toRadians(beta, type), toRadians(gamma, type)};
    anglesValid_ = true;
    kind_ = KindAngles;
}

Vec3 Rotation::angles(AngleType type) const {
    ensureAngles();
    return {fromRadians(angles_[0], type), fromRadians(angles_[1], type), fromRadians(angles_[2], type)};
}

void Rotation::setMatrix(const Mat3& matrix) {
    invalidateAll();
    matrix_ = matrix;
    matrixValid_ = true;
    kind_ = KindMatrix;
}

void Rotation::setMatrix(const double* nineValues) {
    Mat3 m;
    std::copy(nineValues, nineValues + 9, m.begin());
    setMatrix(m);
}

Mat3 Rotation::matrix() const {
    ensureMatrix();
    return matrix_;
}

void Rotation::setRotationVector(const Vec3& r) {
    invalidateAll();
    rotationVector_ = r;
    rotationVectorValid_ = true;
    kind_ = KindRotationVector;
}

Vec3 Rotation::rotationVector() const {
    ensureRotationVector();
    return rotationVector_;
}

void Rotation::setQuaternion(const std::array<double, 4>& q) {
    invalidateAll();
    quaternion_ = q;
    quaternionValid_ = true;
    kind_ = KindQuaternion;
}

std::array<double, 4> Rotation::quaternion() const {
    ensureQuaternion();
    return quaternion_;
}

void Rotation::setGeneralMatrix(const Matrix& m) {
    general_ = m;
    generalValid_ = true;
}

void Rotation::loadIdentity() { setMatrix(identity3()); }

void Rotation::invert() { setMatrix(transpose3(matrix())); }

Vec3 Rotation::apply(const Vec3& p) const {
    ensureMatrix();
    return multiply3(matrix_, p);
}

void Rotation::ensureMatrix() const {
    if (matrixValid_) return;
    switch (kind_) {
        case KindAngles: matrix_ = anglesToMatrix(angles_[0], angles_[1], angles_[2]); break;
        case KindRotationVector: matrix_ = rotationVectorToMatrix(rotationVector_); break;
        case KindQuaternion: matrix_ = quaternionToMatrix(quaternion_); break;
        default: matrix_ = identity3(); break;
    }
    matrixValid_ = true;
}

void Rotation::ensureAngles() const {
    if (anglesValid_) return;
    ensureMatrix();
    angles_ = matrixToAngles(matrix_);
    anglesValid_ = true;
}

void Rotation::ensureRotationVector() const {
    if (rotationVectorValid_) return;
    if (kind_ == KindQuaternion) {
        rotationVector_ = quaternionToRotationVector(quaternion_);
    } else {
        ensureMatrix();
        rotationVector_ = matrixToRotationVector(matrix_);
    }
    rotationVectorValid_ = true;
}

void Rotation::ensureQuaternion() const {
    if (quaternionValid_) return;
    if (kind_ == KindRotationVector) {
        quaternion_ = rotationVectorToQuaternion(rotationVector_);
    } else {
        ensureMatrix();
        quaternion_ = matrixToQuaternion(matrix_);
    }
    quaternionValid_ = true;
}

// ------------------------------------------------------------------- Model

int32_t Rotation::numParameters() const { return 3; }

int32_t Rotation::parameterFlag(int32_t i) const { return (i >= 0 && i < 3) ? flags_[i] : -1; }

void Rotation::setParameterFlag(int32_t i, int32_t flag) {
    if (i >= 0 && i < 3) flags_[i] = flag;
}

double Rotation::parameter(int32_t i) const {
    if (i < 0 || i >= 3) return 0.0;
    ensureRotationVector();
    return rotationVector_[static_cast<std::size_t>(i)];
}

void Rotation::setParameter(int32_t i, double value) {
    if (i < 0 || i >= 3) return;
    Vec3 r = rotationVector();
    r[static_cast<std::size_t>(i)] = value;
    setRotationVector(r);
}

}  // namespace nimbra
