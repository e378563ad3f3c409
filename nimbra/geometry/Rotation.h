#pragma once
// A 3-D rotation acting on column vectors, kept in up to four
// representations at once (matrix, Cardan angles, rotation vector, unit
// quaternion). Only the one set last is authoritative; the others are
// converted from it on first read and cached until the next change. As a
// Model its three parameters are the rotation-vector components.

#include <cstdint>

#include "nimbra/geometry/Matrix.h"
#include "nimbra/geometry/Model.h"

namespace nimbra {

class Rotation : public Model {
public:
    // Signed on purpose: every value other than Deg means radians, negative
    // ones included.
    enum AngleType : int32_t { Rad = 0, Deg = 1 };
    // Which representation was set last.
    enum Kind : int32_t { KindNone = 0, KindMatrix = 1, KindAngles = 2, KindRotationVector = 3, KindQuaternion = 4 };

    Rotation();
    Rotation(const Rotation& other);
    explicit Rotation(const Mat3& matrix);
    Rotation(double alpha, double beta, double gamma, AngleType type);
    // The product: matrix A * B (B acts first).
    Rotation(const Rotation& a, const Rotation& b);
    Rotation& operator=(const Rotation& other);
    ~Rotation() override;

    Kind kind() const { return kind_; }

    void setAngles(double alpha, double beta, double gamma, AngleType type);
    Vec3 angles(AngleType type) const;
    void setMatrix(const Mat3& matrix);
    void setMatrix(const double* nineValues);
    Mat3 matrix() const;
    void setRotationVector(const Vec3& r);
    Vec3 rotationVector() const;
    // (w, x, y, z), stored as given.
    void setQuaternion(const std::array<double, 4>& q);
    // Unit quaternion (w, x, y, z). Converted from a matrix it has w >= 0.
    std::array<double, 4> quaternion() const;

    void loadIdentity();
    void invert();
    Vec3 apply(const Vec3& p) const;

    // The general matrix member: not filled by any conversion here, only
    // cleared whenever another representation is set.
    const Matrix& generalMatrix() const { return general_; }
    bool generalMatrixValid() const { return generalValid_; }
    void setGeneralMatrix(const Matrix& m);

    int32_t numParameters() const override;
    int32_t parameterFlag(int32_t i) const override;
    void setParameterFlag(int32_t i, int32_t flag) override;
    double parameter(int32_t i) const override;
    void setParameter(int32_t i, double value) override;

private:
    void invalidateAll();
    void ensureMatrix() const;
    void ensureAngles() const;
    void ensureRotationVector() const;
    void ensureQuaternion() const;

    // Caches are filled by const readers.
    mutable Mat3 matrix_{1.0, 0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 1.0};
    mutable bool matrixValid_ = false;
    mutable Vec3 angles_{0.0, 0.0, 0.0};  // radians
    mutable bool anglesValid_ = false;
    mutable Vec3 rotationVector_{0.0, 0.0, 0.0};
    mutable bool rotationVectorValid_ = false;
    Matrix general_;
    bool generalValid_ = false;
    int32_t flags_[3] = {0, 0, 0};
    mutable std::array<double, 4> quaternion_{1.0, 0.0, 0.0, 0.0};
    mutable bool quaternionValid_ = false;
    Kind kind_ = KindNone;
};

// The conversions, exposed for callers that work on raw representations.
Mat3 anglesToMatrix(double alpha, double beta, double gamma);
Vec3 matrixToAngles(const Mat3& m);
Vec3 matrixToRotationVector(const Mat3& m);
Mat3 rotationVectorToMatrix(const Vec3& r);
Mat3 quaternionToMatrix(const std::array<double, 4>& q);
Vec3 quaternionToRotationVector(const std::array<double, 4>& q);
std::array<double, 4> matrixToQuaternion(const Mat3& m);
std::array<double, 4> rotationVectorToQuaternion(const Vec3& r);

}  // namespace nimbra
