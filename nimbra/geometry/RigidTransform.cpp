#include "nimbra/geometry/RigidTransform.h"

namespace nimbra {

RigidTransform::RigidTransform() = default;
RigidTransform::RigidTransform(const RigidTransform& other) = default;
RigidTransform& RigidTransform::operator=(const RigidTransform& other) = default;
RigidTransform::~RigidTransform() = default;

RigidTransform::RigidTransform(const Rotation& rotation, const Vec3& translation)
    : rotation_(rotation), translation_(translation), translationValid_(true) {}

RigidTransform::RigidTransform(const RigidTransform& a, const RigidTransform& b)
    : rotation_(a.rotation_, b.rotation_), translationValid_(true) {
    const Vec3 moved = a.rotation_.apply(b.translation_);
    for (std::size_t i = 0; i < 3; ++i) translation_[i] = a.translation_[i] + moved[i];
}

void RigidTransform::setRotation(const Rotation& rotation) { rotation_ = rotation; }

void RigidTransform::setTranslation(const Vec3& translation) {
    translation_ = translation;
    translationValid_ = true;
}

bool RigidTransform::empty() const {
    return rotation_.kind() == Rotation::KindNone || !translationValid_;
}

Vec3 RigidTransform::apply(const Vec3& p) const {
    Vec3 q = rotation_.apply(p);
    for (std::size_t i = 0; i < 3; ++i) q[i] += translation_[i];
    return q;
}

void RigidTransform::invert() {
    rotation_.invert();
    const Vec3 t = rotation_.apply(translation_);
    translation_ = {-t[0], -t[1], -t[2]};
}

std::array<double, 16> RigidTransform::matrix4() const {
    const Mat3 m = rotation_.matrix();
    return {m[0], m[1], m[2], translation_[0],
            m[3], m[4], m[5], translation_[1],
            m[6], m[7], m[8], translation_[2],
            0.0,  0.0,  0.0,  1.0};
}

int32_t RigidTransform::numParameters() const { return 6; }

int32_t RigidTransform::parameterFlag(int32_t i) const {
    if (i >= 0 && i < 3) return rotation_.parameterFlag(i);
    if (i >= 3 && i < 6) return flags_[i - 3];
    return -1;
}

void RigidTransform::setParameterFlag(int32_t i, int32_t flag) {
    if (i >= 0 && i < 3) rotation_.setParameterFlag(i, flag);
    else if (i >= 3 && i < 6) flags_[i - 3] = flag;
}

double RigidTransform::parameter(int32_t i) const {
    if (i >= 0 && i < 3) return rotation_.parameter(i);
    if (i >= 3 && i < 6) return translation_[static_cast<std::size_t>(i - 3)];
    return 0.0;
}

void RigidTransform::setParameter(int32_t i, double value) {
    if (i >= 0 && i < 3) {
        rotation_.setParameter(i, value);
    } else if (i >= 3 && i < 6) {
        translation_[static_cast<std::size_t>(i - 3)] = value;
        translationValid_ = true;
    }
}

}  // namespace nimbra
