#include "nimbra/analysis/SurfaceGrid.h"

#include "nimbra/data/ZelData.h"

namespace nimbra {
namespace {

struct Convention {
    ZelDataVariableType position;
    const char* names[3];  // z null: planar
    ZelDataVariableType displacement;
    const char* displacementNames[3];
    const char* defaultUnit;
};
constexpr Convention kConventions[4] = {
    {GlobalCoordinate, {"X", "Y", "Z"}, GlobalDisplacement, {"U", "V", "W"}, "mm"},
    {GlobalCoordinate, {"x_c", "y_c", nullptr}, GlobalDisplacement, {"u_c", "v_c", nullptr}, "mm"},
    {PixelCoordinate, {"x_c", "y_c", nullptr}, PixelDisplacement, {"u_c", "v_c", nullptr}, "pixel"},
    {PixelCoordinate, {"x", "y", nullptr}, PixelDisplacement, {"u", "v", nullptr}, "pixel"},
};

// The unit written in brackets in a description such as "X [mm]".
std::string bracketUnit(const std::string& description) {
    const size_t open = description.rfind('[');
    if (open == std::string::npos) return {};
    const size_t close = description.find(']', open);
    if (close == std::string::npos || close == open + 1) return {};
    return description.substr(open + 1, close - open - 1);
}

}  // namespace

SurfaceChannels findSurfaceChannels(const ZelData& data) {
    SurfaceChannels ch;
    ch.confidence = data.firstVariableOfType(Correlation);
    for (const Convention& c : kConventions) {
        const int dims = c.names[2] != nullptr ? 3 : 2;
        int32_t position[3] = {-1, -1, -1}, displacement[3] = {-1, -1, -1};
        bool complete = true, displaced = true;
        for (int k = 0; k < dims; ++k) {
            position[k] = data.findVariable(c.position, c.names[k]);
            displacement[k] = data.findVariable(c.displacement, c.displacementNames[k]);
            complete = complete && position[k] >= 0;
            displaced = displaced && displacement[k] >= 0;
        }
        if (!complete) continue;
        ch.found = true;
        ch.planar = dims == 2;
        ch.hasDisplacement = displaced;
        for (int k = 0; k < 3; ++k) {
            ch.position[k] = position[k];
            ch.displacement[k] = displaced ? displacement[k] : -1;
        }
        ch.unit = bracketUnit(data.variable(position[0])->description);
        if (ch.unit.empty()) ch.unit = c.defaultUnit;
        break;
    }
    return ch;
}

}  // namespace nimbra
