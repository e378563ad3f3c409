#include "nimbra/data/ZelData.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>
#include <utility>

#include "nimbra/log/Log.h"

namespace nimbra {

ZelDataVariable::ZelDataVariable(const ZelDataVariable& other)
    : name(other.name), description(other.description), type(other.type), count(other.count) {
    if (other.values && other.count > 0) {
        values = std::shared_ptr<float[]>(new float[other.count]);
        std::memcpy(values.get(), other.values.get(), sizeof(float) * other.count);
    }
}

ZelDataVariable& ZelDataVariable::operator=(const ZelDataVariable& other) {
    if (this != &other) {
        ZelDataVariable copy(other);
        *this = std::move(copy);
    }
    return *this;
}

struct ZelData::State {
    std::vector<ZelDataVariable> variables;
    int32_t rows = 0;
    int32_t columns = 0;
    std::string name;
    int32_t gridKind = 2;
};

ZelData::ZelData() : state_(std::make_unique<State>()) {}
ZelData::~ZelData() = default;
ZelData::ZelData(const ZelData& other) : state_(std::make_unique<State>(*other.state_)) {}
ZelData& ZelData::operator=(const ZelData& other) {
    if (this != &other) *state_ = *other.state_;
    return *this;
}
ZelData::ZelData(ZelData&& other) noexcept : state_(std::move(other.state_)) {
    other.state_ = std::make_unique<State>();
}
ZelData& ZelData::operator=(ZelData&& other) noexcept {
    std::swap(state_, other.state_);
    return *this;
}

void ZelData::clear() {
    state_->variables.clear();
    state_->rows = 0;
    state_->columns = 0;
    state_->name.clear();
    state_->gridKind = 2;
}

int32_t ZelData::numRows() const { return state_->rows; }
int32_t ZelData::numColumns() const { return state_->columns; }
int32_t ZelData::matrixSize() const {
    // A 32-bit product that wraps like the file format's counts do, without
    // the undefined behaviour of signed overflow.
    return static_cast<int32_t>(static_cast<uint32_t>(state_->rows) *
                                static_cast<uint32_t>(state_->columns));
}
int32_t ZelData::numVariables() const { return static_cast<int32_t>(state_->variables.size()); }

void ZelData::setSize(int32_t rows, int32_t columns) {
    state_->rows = rows;
    state_->columns = columns;
}

const std::string& ZelData::name() const { return state_->name; }
void ZelData::setName(const std::string& name) { state_->name = name; }
int32_t ZelData::gridKind() const { return state_->gridKind; }
void ZelData::setGridKind(int32_t kind) { state_->gridKind = kind; }

int32_t ZelData::variableIndex(const std::string& name) const {
    const auto& vars = state_->variables;
    for (std::size_t i = 0; i < vars.size(); ++i)
        if (vars[i].name == name) return static_cast<int32_t>(i);
    return -1;
}

int32_t ZelData::findVariable(ZelDataVariableType type, const std::string& text) const {
    const auto& vars = state_->variables;
    for (std::size_t i = 0; i < vars.size(); ++i) {
        if (vars[i].type != type) continue;
        if (vars[i].name == text || vars[i].description == text) return static_cast<int32_t>(i);
    }
    return -1;
}

int32_t ZelData::firstVariableOfType(ZelDataVariableType type) const {
    const auto& vars = state_->variables;
    for (std::size_t i = 0; i < vars.size(); ++i)
        if (vars[i].type == type) return static_cast<int32_t>(i);
    return -1;
}

float* ZelData::variableValues(int32_t index) {
    ZelDataVariable* v = variable(index);
    return v == nullptr ? nullptr : v->values.get();
}

const float* ZelData::variableValues(int32_t index) const {
    const ZelDataVariable* v = variable(index);
    return v == nullptr ? nullptr : v->values.get();
}

ZelDataVariable* ZelData::variable(int32_t index) {
    if (index < 0 || index >= numVariables()) return nullptr;
    return &state_->variables[static_cast<std::size_t>(index)];
}

const ZelDataVariable* ZelData::variable(int32_t index) const {
    if (index < 0 || index >= numVariables()) return nullptr;
    return &state_->variables[static_cast<std::size_t>(index)];
}

int32_t ZelData::addVariable(ZelDataVariableType type, const std::string& name,
                             const std::string& description) {
    const int32_t index = numVariables();
    ZelDataVariable record;
    record.name = name;
    record.description = description;
    record.type = type;
    state_->variables.push_back(std::move(record));
    resizeValues(index, matrixSize());
    return index;
}

namespace {

void reallocate(ZelDataVariable& v, int32_t n, bool zero) {
    v.values.reset();
    v.count = n;
    if (n <= 0) {
        v.count = 0;
        return;
    }
    v.values = std::shared_ptr<float[]>(new float[static_cast<std::size_t>(n)]);
    if (zero) std::memset(v.values.get(), 0, sizeof(float) * static_cast<std::size_t>(n));
}

}  // namespace

void ZelData::resizeValues(int32_t index, int32_t n) {
    ZelDataVariable* v = variable(index);
    if (v == nullptr) return;
    if (v->count == n) return;
    reallocate(*v, n, true);
}

void ZelData::resizeValuesForOverwrite(int32_t index, int32_t n) {
    ZelDataVariable* v = variable(index);
    if (v == nullptr || v->count == n) return;
    reallocate(*v, n, false);
}

void ZelData::resizeVariables(int32_t n) {
    if (n < 0) n = 0;
    state_->variables.resize(static_cast<std::size_t>(n));
}

bool ZelData::removeVariable(int32_t index) {
    if (index < 0 || index >= numVariables()) return false;
    state_->variables.erase(state_->variables.begin() + index);
    return true;
}

void ZelData::shuffle(const std::vector<std::string>& names,
                      const std::vector<ZelDataVariableType>& types) {
    auto& vars = state_->variables;
    const int32_t count = numVariables();
    std::vector<int32_t> order;
    order.reserve(vars.size());
    std::unordered_set<int32_t> taken;

    for (const std::string& name : names) {
        const int32_t index = variableIndex(name);
        if (index >= 0) {
            order.push_back(index);
            taken.insert(index);
        }
    }
    for (ZelDataVariableType type : types) {
        for (int32_t i = 0; i < count; ++i) {
            const ZelDataVariable& v = vars[static_cast<std::size_t>(i)];
            if (v.type != type || taken.count(i) != 0) continue;
            // Sigma values share the displacement kind but belong with the
            // leftovers, after every listed kind.
            if (type == GlobalDisplacement && v.description.size() >= 5 &&
                v.description.find("Sigma") != std::string::npos)
                continue;
            order.push_back(i);
            taken.insert(i);
        }
    }
    for (int32_t i = 0; i < count; ++i)
        if (taken.count(i) == 0) order.push_back(i);

    if (order.size() != vars.size()) {
        NIMBRA_LOG(error) << "########## Shuffle index size mismatch, please fix.";
        return;
    }
    std::vector<ZelDataVariable> reordered;
    reordered.reserve(vars.size());
    for (int32_t i : order) reordered.push_back(std::move(vars[static_cast<std::size_t>(i)]));
    vars = std::move(reordered);
}

CoordinateVariables findCoordinateVariables(const ZelData& data) {
    CoordinateVariables c;
    auto& ix = c.index;
    ix[0] = data.findVariable(GlobalCoordinate, "X");
    ix[1] = data.findVariable(GlobalCoordinate, "Y");
    ix[2] = data.findVariable(GlobalCoordinate, "Z");
    ix[3] = data.findVariable(GlobalDisplacement, "U");
    ix[4] = data.findVariable(GlobalDisplacement, "V");
    ix[5] = data.findVariable(GlobalDisplacement, "W");
    if (std::all_of(std::begin(ix), std::end(ix), [](int32_t i) { return i >= 0; })) {
        c.found = true;
        return c;
    }
    const auto planar = [&](ZelDataVariableType coordinate, ZelDataVariableType displacement,
                            const char* x, const char* y, const char* u, const char* v) {
        ix[0] = data.findVariable(coordinate, x);
        ix[1] = data.findVariable(coordinate, y);
        ix[2] = -1;
        ix[3] = data.findVariable(displacement, u);
        ix[4] = data.findVariable(displacement, v);
        ix[5] = -1;
        return ix[0] >= 0 && ix[1] >= 0 && ix[3] >= 0 && ix[4] >= 0;
    };
    if (planar(GlobalCoordinate, GlobalDisplacement, "x_c", "y_c", "u_c", "v_c") ||
        planar(PixelCoordinate, PixelDisplacement, "x", "y", "u", "v")) {
        c.found = true;
        return c;
    }
    for (auto& i : ix) i = -1;
    return c;
}

void ZelData::canonicalOrder() {
    using T = ZelDataVariableType;
    const CoordinateVariables c = findCoordinateVariables(*this);
    if (c.found && c.index[2] >= 0 && c.index[5] >= 0) {
        static const std::vector<T> kinds3d = {
            GlobalCoordinate, GlobalDisplacement, Strain,          Stress,
            CylinderCoordinate, CylinderDisplacement, GlobalVelocity, GlobalAcceleration,
            StrainRate,       Curvature,          Angle,           AngularVelocity,
            AngularAcceleration, Unknown,         Correlation,     PixelCoordinate,
            PixelDisplacement, Disparity,         PixelVelocity,   PixelAcceleration};
        shuffle({}, kinds3d);
        return;
    }
    static const std::vector<std::string> names2d = {"x_c", "y_c", "u_c", "v_c", "exx",
                                                     "eyy", "exy", "e1",  "e2",  "gamma"};
    static const std::vector<T> kinds2d = {
        GlobalCoordinate, GlobalDisplacement, Strain,           Stress,
        CylinderCoordinate, CylinderDisplacement, GlobalVelocity, GlobalAcceleration,
        PixelVelocity,    PixelAcceleration,  StrainRate,       Curvature,
        Angle,            AngularVelocity,    AngularAcceleration, Unknown,
        Correlation,      PixelCoordinate,    PixelDisplacement, Disparity};
    shuffle(names2d, kinds2d);
}

}  // namespace nimbra
