#pragma once
// A rigid transformation p -> R p + t. As a Model it has six parameters: the
// rotation's three (its rotation vector, with the rotation's flags) followed
// by the translation.

#include <cstdint>

#include "nimbra/geometry/Matrix.h"
#include "nimbra/geometry/Model.h"
#include "nimbra/geometry/Rotation.h"

namespace nimbra {

class RigidTransform : public Model {
public:
    // Identity rotation, zero translation not yet set (so the transform
    // counts as empty).
    RigidTransform();
    RigidTransform(const RigidTransform& other);
    RigidTransform(const Rotation& rotation, const Vec3& translation);
    // a o b: rotation Ra Rb, translation ta + Ra tb (b acts first).
    RigidTransform(const RigidTransform& a, const RigidTransform& b);
    RigidTransform& operator=(const RigidTransform& other);
    ~RigidTransform() override;

    void setRotation(const Rotation& rotation);
    const Rotation& rotation() const { return rotation_; }
    Rotation& rotation() { return rotation_; }
    void setTranslation(const Vec3& translation);
    const Vec3& translation() const { return translation_; }
    bool translationValid() const { return translationValid_; }
    bool empty() const;

    Vec3 apply(const Vec3& p) const;
    void invert();
    // Row-major 4x4 homogeneous form, last row 0 0 0 1.
    std::array<double, 16> matrix4() const;

    int32_t numParameters() const override;
    int32_t parameterFlag(int32_t i) const override;
    void setParameterFlag(int32_t i, int32_t flag) override;
    double parameter(int32_t i) const override;
    void setParameter(int32_t i, double value) override;

private:
    Rotation rotation_;
    Vec3 translation_{0.0, 0.0, 0.0};
    bool translationValid_ = false;
    int32_t flags_[3] = {0, 0, 0};
};

}  // namespace nimbra
