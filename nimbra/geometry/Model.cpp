#include "nimbra/geometry/Model.h"

namespace nimbra {

Model::~Model() = default;

int32_t Model::countFlag(int32_t flag) const {
    int32_t n = 0;
    for (int32_t i = 0; i < numParameters(); ++i)
        if (flag < 0 || parameterFlag(i) == flag) ++n;
    return n;
}

int32_t Model::getGroup(int32_t flag, std::vector<double>& values, int32_t start) const {
    if (start < 0) return -1;
    const std::size_t needed = static_cast<std::size_t>(start) + static_cast<std::size_t>(countFlag(flag));
    if (values.size() < needed) values.resize(needed, 0.0);
    int32_t k = start;
    for (int32_t i = 0; i < numParameters(); ++i)
        if (flag < 0 || parameterFlag(i) == flag) values[static_cast<std::size_t>(k++)] = parameter(i);
    return k;
}

int32_t Model::setGroup(int32_t flag, const std::vector<double>& values, int32_t start) {
    if (start < 0) return -1;
    const std::size_t needed = static_cast<std::size_t>(start) + static_cast<std::size_t>(countFlag(flag));
    if (values.size() < needed) return -1;
    int32_t k = start;
    for (int32_t i = 0; i < numParameters(); ++i)
        if (flag < 0 || parameterFlag(i) == flag) setParameter(i, values[static_cast<std::size_t>(k++)]);
    return k;
}

int32_t Model::numParameters0() const { return countFlag(0); }
int32_t Model::numParameters1() const { return countFlag(1); }

int32_t Model::getParameters0(std::vector<double>& values, int32_t start) const {
    return getGroup(0, values, start);
}
int32_t Model::setParameters0(const std::vector<double>& values, int32_t start) {
    return setGroup(0, values, start);
}
int32_t Model::getParameters1(std::vector<double>& values, int32_t start) const {
    return getGroup(1, values, start);
}
int32_t Model::setParameters1(const std::vector<double>& values, int32_t start) {
    return setGroup(1, values, start);
}
int32_t Model::getParameters(std::vector<double>& values, int32_t start) const {
    return getGroup(-1, values, start);
}
int32_t Model::setParameters(const std::vector<double>& values, int32_t start) {
    return setGroup(-1, values, start);
}

}  // namespace nimbra
