#pragma once
// An object described by a short vector of real parameters. Each parameter
// carries a flag (0 or 1) that splits the parameters into two groups, so an
// optimiser can read and write, say, only the free ones (flag 0) while the
// fixed ones (flag 1) stay put. Subclasses provide the per-parameter access;
// the group-wise copies are written once here on top of it.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace nimbra {

class Model {
public:
    virtual ~Model();

    virtual int32_t numParameters0() const;
    virtual int32_t numParameters1() const;
    // Copy the parameters of one group, in parameter order, into `values`
    // from `start` on (growing the vector when needed); return the index after
    // the last one written. The setters read them back the same way and
    // return the next index, or -1 (nothing changed) when `values` is too
    // short.
    virtual int32_t getParameters0(std::vector<double>& values, int32_t start) const;
    virtual int32_t setParameters0(const std::vector<double>& values, int32_t start);
    virtual int32_t getParameters1(std::vector<double>& values, int32_t start) const;
    virtual int32_t setParameters1(const std::vector<double>& values, int32_t start);
    virtual int32_t getParameters(std::vector<double>& values, int32_t start) const;
    virtual int32_t setParameters(const std::vector<double>& values, int32_t start);

    virtual int32_t numParameters() const = 0;
    virtual int32_t parameterFlag(int32_t i) const = 0;
    virtual void setParameterFlag(int32_t i, int32_t flag) = 0;
    virtual double parameter(int32_t i) const = 0;
    virtual void setParameter(int32_t i, double value) = 0;

private:
    int32_t countFlag(int32_t flag) const;
    // flag < 0 selects every parameter.
    int32_t getGroup(int32_t flag, std::vector<double>& values, int32_t start) const;
    int32_t setGroup(int32_t flag, const std::vector<double>& values, int32_t start);
};

}  // namespace nimbra
