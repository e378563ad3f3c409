#include <algorithm>
#include <initializer_list>
#include <vector>

#include "nimbra/data/ZelData.h"
#include "nimbra/data/ZelDataSet.h"
#include "nimbra/geometry/Fit.h"
#include "nimbra/log/Log.h"

namespace nimbra {
namespace {

// Indices of the variables the geometry code works on; -1 where absent.
struct Channels {
    int32_t confidence = -1;
    int32_t position[3] = {-1, -1, -1};
    int32_t displacement[3] = {-1, -1, -1};
    int32_t sigma[3] = {-1, -1, -1};

    bool hasPosition() const { return all(position); }
    bool hasDisplacement() const { return all(displacement); }
    bool hasSigma() const { return all(sigma); }

    static bool all(const int32_t (&v)[3]) { return v[0] >= 0 && v[1] >= 0 && v[2] >= 0; }
};

Channels findChannels3d(const ZelData& data) {
    Channels ch;
    ch.confidence = data.firstVariableOfType(Correlation);
    const char* positions[3] = {"X", "Y", "Z"};
    const char* displacements[3] = {"U", "V", "W"};
    const char* sigmas[3] = {"SIGMA_X", "SIGMA_Y", "SIGMA_Z"};
    for (int i = 0; i < 3; ++i) {
        ch.position[i] = data.findVariable(GlobalCoordinate, positions[i]);
        ch.displacement[i] = data.findVariable(GlobalDisplacement, displacements[i]);
        ch.sigma[i] = data.findVariable(GlobalDisplacement, sigmas[i]);
    }
    return ch;
}

// The planar set has no z channel: index 2 stays -1 and z is taken as 0.
Channels findChannels2d(const ZelData& data) {
    Channels ch;
    ch.confidence = data.firstVariableOfType(Correlation);
    ch.position[0] = data.variableIndex("x_c");
    ch.position[1] = data.variableIndex("y_c");
    ch.displacement[0] = data.variableIndex("u_c");
    ch.displacement[1] = data.variableIndex("v_c");
    return ch;
}

// Number of points that every listed variable really holds values for; a
// variable shorter than the grid (never produced by the codec, but possible
// for a hand-built matrix) limits the points visited instead of overrunning.
int32_t pointCount(const ZelData& data, std::initializer_list<int32_t> variables) {
    int32_t n = std::max(0, data.matrixSize());
    for (int32_t index : variables) {
        if (index < 0) continue;
        const ZelDataVariable* v = data.variable(index);
        n = v == nullptr ? 0 : std::min(n, v->count);
    }
    return n;
}

bool used(const float* confidence, int32_t point) { return confidence[point] >= 0.0f; }

// Positions (deformed ones when `withDisplacement` and U, V, W exist) of the
// used points of every AOI that has a confidence and X, Y, Z.
std::vector<Vec3> collectPlanePoints(const ZelDataSet& dataSet, bool withDisplacement) {
    std::vector<Vec3> points;
    for (int32_t a = 0; a < dataSet.numData(); ++a) {
        const ZelData* data = dataSet.data(a);
        if (data == nullptr) continue;
        const Channels ch = findChannels3d(*data);
        if (ch.confidence < 0 || !ch.hasPosition()) continue;
        const bool displaced = withDisplacement && ch.hasDisplacement();
        const int32_t n = pointCount(*data, {ch.confidence, ch.position[0], ch.position[1], ch.position[2],
                                             displaced ? ch.displacement[0] : -1,
                                             displaced ? ch.displacement[1] : -1,
                                             displaced ? ch.displacement[2] : -1});
        const float* conf = data->variableValues(ch.confidence);
        const float* pos[3];
        const float* dis[3] = {nullptr, nullptr, nullptr};
        for (int k = 0; k < 3; ++k) {
            pos[k] = data->variableValues(ch.position[k]);
            if (displaced) dis[k] = data->variableValues(ch.displacement[k]);
        }
        for (int32_t i = 0; i < n; ++i) {
            if (!used(conf, i)) continue;
            Vec3 p{pos[0][i], pos[1][i], pos[2][i]};
            if (displaced)
                for (int k = 0; k < 3; ++k) p[static_cast<std::size_t>(k)] += dis[k][i];
            points.push_back(p);
        }
    }
    return points;
}

void transformAoi(ZelData& data, const Channels& ch, const RigidTransform& transform, bool displacementOnly,
                  bool planar) {
    if (ch.confidence < 0) return;
    if (planar ? (ch.position[0] < 0 || ch.position[1] < 0) : !ch.hasPosition()) return;
    const bool hasDisplacement =
        planar ? (ch.displacement[0] >= 0 && ch.displacement[1] >= 0) : ch.hasDisplacement();
    const bool hasSigma = !planar && ch.hasSigma();
    if (displacementOnly && !hasDisplacement) return;

    const int dims = planar ? 2 : 3;
    const int32_t n = pointCount(
        data, {ch.confidence, ch.position[0], ch.position[1], ch.position[2], ch.displacement[0],
               ch.displacement[1], ch.displacement[2], hasSigma ? ch.sigma[0] : -1,
               hasSigma ? ch.sigma[1] : -1, hasSigma ? ch.sigma[2] : -1});
    // Write access (which marks a variable changed) only to what is written.
    const ZelData& input = data;
    const float* conf = input.variableValues(ch.confidence);
    const float* pos[3] = {nullptr, nullptr, nullptr};
    float* newPos[3] = {nullptr, nullptr, nullptr};
    float* dis[3] = {nullptr, nullptr, nullptr};
    float* sig[3] = {nullptr, nullptr, nullptr};
    std::vector<int32_t> written;
    const auto write = [&](int32_t index) {
        written.push_back(index);
        return data.variableValues(index);
    };
    for (int k = 0; k < dims; ++k) {
        pos[k] = input.variableValues(ch.position[k]);
        if (!displacementOnly) newPos[k] = write(ch.position[k]);
        if (hasDisplacement) dis[k] = write(ch.displacement[k]);
        if (hasSigma && !displacementOnly) sig[k] = write(ch.sigma[k]);
    }
    const Mat3 m = transform.rotation().matrix();
    // Uncertainties propagate through the fourth power of each matrix entry.
    Mat3 m4;
    for (std::size_t k = 0; k < 9; ++k) m4[k] = m[k] * m[k] * m[k] * m[k];

    for (int32_t i = 0; i < n; ++i) {
        if (!used(conf, i)) continue;
        Vec3 p{0.0, 0.0, 0.0};
        Vec3 d{0.0, 0.0, 0.0};
        for (int k = 0; k < dims; ++k) {
            p[static_cast<std::size_t>(k)] = pos[k][i];
            if (hasDisplacement) d[static_cast<std::size_t>(k)] = dis[k][i];
        }
        if (displacementOnly) {
            const Vec3 moved = transform.apply({p[0] + d[0], p[1] + d[1], p[2] + d[2]});
            for (int k = 0; k < dims; ++k)
                dis[k][i] = static_cast<float>(moved[static_cast<std::size_t>(k)] - p[static_cast<std::size_t>(k)]);
            continue;
        }
        const Vec3 newPosition = transform.apply(p);
        for (int k = 0; k < dims; ++k) newPos[k][i] = static_cast<float>(newPosition[static_cast<std::size_t>(k)]);
        if (hasDisplacement) {
            const Vec3 newDisplacement = multiply3(m, d);
            for (int k = 0; k < dims; ++k)
                dis[k][i] = static_cast<float>(newDisplacement[static_cast<std::size_t>(k)]);
        }
        if (hasSigma) {
            const Vec3 s{sig[0][i], sig[1][i], sig[2][i]};
            const Vec3 newSigma = multiply3(m4, s);
            for (int k = 0; k < 3; ++k) sig[k][i] = static_cast<float>(newSigma[static_cast<std::size_t>(k)]);
        }
    }
    // Done: marked once more for readers on other threads.
    for (int32_t index : written) data.markChanged(index);
}

}  // namespace

bool planeFit(RigidTransform& transform, const ZelDataSet& dataSet, bool ignoreDisplacement) {
    return planeFit(transform, collectPlanePoints(dataSet, !ignoreDisplacement));
}

bool rigidTransformFromDisplacement(RigidTransform& transform, double& residual, const ZelDataSet& dataSet) {
    int64_t gridPoints = 0;
    for (int32_t a = 0; a < dataSet.numData(); ++a) {
        const ZelData* data = dataSet.data(a);
        if (data != nullptr) gridPoints += static_cast<int64_t>(data->numRows()) * data->numColumns();
    }
    if (gridPoints < 3) {
        NIMBRA_LOG(warning) << "rigidTransformFromDisplacement: fewer than 3 grid points";
        return false;
    }
    std::vector<Vec3> reference;
    std::vector<Vec3> deformed;
    for (int32_t a = 0; a < dataSet.numData(); ++a) {
        const ZelData* data = dataSet.data(a);
        if (data == nullptr) continue;
        const Channels ch = findChannels3d(*data);
        if (ch.confidence < 0 || !ch.hasPosition() || !ch.hasDisplacement()) continue;
        const int32_t n = pointCount(*data, {ch.confidence, ch.position[0], ch.position[1], ch.position[2],
                                             ch.displacement[0], ch.displacement[1], ch.displacement[2]});
        const float* conf = data->variableValues(ch.confidence);
        const float* pos[3];
        const float* dis[3];
        for (int k = 0; k < 3; ++k) {
            pos[k] = data->variableValues(ch.position[k]);
            dis[k] = data->variableValues(ch.displacement[k]);
        }
        for (int32_t i = 0; i < n; ++i) {
            if (!used(conf, i)) continue;
            const Vec3 p{pos[0][i], pos[1][i], pos[2][i]};
            reference.push_back(p);
            deformed.push_back({p[0] + dis[0][i], p[1] + dis[1][i], p[2] + dis[2][i]});
        }
    }
    return fitRigidTransform(transform, residual, reference, deformed, -1);
}

void transformDataSet(ZelDataSet& dataSet, const RigidTransform& transform, bool displacementOnly,
                      int32_t dimension) {
    const bool planar = dimension != 1;
    for (int32_t a = 0; a < dataSet.numData(); ++a) {
        ZelData* data = dataSet.data(a);
        if (data == nullptr) continue;
        const Channels ch = planar ? findChannels2d(*data) : findChannels3d(*data);
        transformAoi(*data, ch, transform, displacementOnly, planar);
    }
}

}  // namespace nimbra
