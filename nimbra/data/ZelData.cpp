#include "nimbra/data/ZelData.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <utility>
#include <vector>

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

// The allocation rounds up to the allocator's next chunk and carries its
// header.
const int64_t ZelData::kStateBytes = (sizeof(ZelData::State) + 8 + 15) / 16 * 16;

namespace {
const std::vector<ZelDataVariable> kNoVariables;
const std::string kNoName;
}  // namespace

ZelData::ZelData() = default;
ZelData::~ZelData() = default;
ZelData::ZelData(const ZelData& other)
    : state_(other.state_ ? std::make_unique<State>(*other.state_) : nullptr) {}
ZelData& ZelData::operator=(const ZelData& other) {
    if (this == &other) return *this;
    if (!other.state_)
        state_.reset();
    else if (state_)
        *state_ = *other.state_;
    else
        state_ = std::make_unique<State>(*other.state_);
    return *this;
}
ZelData::ZelData(ZelData&& other) noexcept = default;
ZelData& ZelData::operator=(ZelData&& other) noexcept {
    std::swap(state_, other.state_);
    return *this;
}

ZelData::State& ZelData::state() {
    if (!state_) state_ = std::make_unique<State>();
    return *state_;
}

void ZelData::clear() { state_.reset(); }

int32_t ZelData::numRows() const { return state_ ? state_->rows : 0; }
int32_t ZelData::numColumns() const { return state_ ? state_->columns : 0; }
int32_t ZelData::matrixSize() const {
    // A 32-bit product that wraps like the file format's counts do, without
    // the undefined behaviour of signed overflow.
    return static_cast<int32_t>(static_cast<uint32_t>(numRows()) *
                                static_cast<uint32_t>(numColumns()));
}
int32_t ZelData::numVariables() const {
    return state_ ? static_cast<int32_t>(state_->variables.size()) : 0;
}

int64_t gridPointCount(const ZelData& data) {
    const int64_t rows = data.numRows(), columns = data.numColumns();
    if (rows < 0 || columns < 0) return -1;
    const int64_t count = rows * columns;
    return count > std::numeric_limits<int32_t>::max() ? -1 : count;
}

bool holdsGrid(const ZelData& data, int32_t variable) {
    const ZelDataVariable* v = data.variable(variable);
    const int64_t count = gridPointCount(data);
    return v != nullptr && count >= 0 && v->count == count && (count == 0 || v->values != nullptr);
}

namespace {

// Why the grid cannot be indexed by row and column through these variables:
// the first (in list order) that does not hold rows x columns values, or the
// grid itself when every variable does but no data matrix can have it.
// False when there is nothing to report.
bool gridFault(const ZelData& data, const int32_t* first, const int32_t* last, std::string& fault) {
    // The 64-bit product, even where the grid is beyond any matrix: a
    // variable that holds the wrapped count is the more telling fault.
    const int64_t points = static_cast<int64_t>(data.numRows()) * data.numColumns();
    for (const int32_t* index = first; index != last; ++index) {
        if (*index == -1) continue;  // an optional channel that is absent
        const ZelDataVariable* v = data.variable(*index);
        if (v == nullptr) {
            fault = "but there is no variable " + std::to_string(*index) + ".";
            return true;
        }
        if (v->count != points || (points > 0 && v->values == nullptr)) {
            fault = "but variable '" + v->name + "' holds " + std::to_string(v->count) + " values.";
            return true;
        }
    }
    if (gridPointCount(data) < 0) {
        fault = "which no data matrix can have.";
        return true;
    }
    return false;
}

bool reportGrid(const ZelData& data, const int32_t* first, const int32_t* last, const char* function) {
    std::string fault;
    if (!gridFault(data, first, last, fault)) return true;
    NIMBRA_LOG(error) << "Inconsistent grid in " << function << ": " << data.numRows() << " x "
                      << data.numColumns() << " points, " << fault;
    return false;
}

std::vector<int32_t> allVariables(const ZelData& data) {
    std::vector<int32_t> all(static_cast<std::size_t>(data.numVariables()));
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<int32_t>(i);
    return all;
}

}  // namespace

bool ZelData::gridIsConsistent() const {
    if (gridPointCount(*this) < 0) return false;
    for (int32_t i = 0; i < numVariables(); ++i)
        if (!holdsGrid(*this, i)) return false;
    return true;
}

bool requireConsistentGrid(const ZelData& data, const char* function) {
    if (data.gridIsConsistent()) return true;
    const std::vector<int32_t> all = allVariables(data);
    return reportGrid(data, all.data(), all.data() + all.size(), function);
}

bool requireConsistentGrid(const ZelData& data, std::initializer_list<int32_t> variables,
                           const char* function) {
    return reportGrid(data, variables.begin(), variables.end(), function);
}

void ZelData::setSize(int32_t rows, int32_t columns) {
    if (!state_ && rows == 0 && columns == 0) return;
    state().rows = rows;
    state().columns = columns;
}

const std::string& ZelData::name() const { return state_ ? state_->name : kNoName; }
void ZelData::setName(const std::string& name) {
    if (!state_ && name.empty()) return;
    state().name = name;
}
int32_t ZelData::gridKind() const { return state_ ? state_->gridKind : 2; }
void ZelData::setGridKind(int32_t kind) {
    if (!state_ && kind == 2) return;
    state().gridKind = kind;
}

int32_t ZelData::variableIndex(const std::string& name) const {
    const auto& vars = state_ ? state_->variables : kNoVariables;
    for (std::size_t i = 0; i < vars.size(); ++i)
        if (vars[i].name == name) return static_cast<int32_t>(i);
    return -1;
}

int32_t ZelData::findVariable(ZelDataVariableType type, const std::string& text) const {
    const auto& vars = state_ ? state_->variables : kNoVariables;
    for (std::size_t i = 0; i < vars.size(); ++i) {
        if (vars[i].type != type) continue;
        if (vars[i].name == text || vars[i].description == text) return static_cast<int32_t>(i);
    }
    return -1;
}

int32_t ZelData::firstVariableOfType(ZelDataVariableType type) const {
    const auto& vars = state_ ? state_->variables : kNoVariables;
    for (std::size_t i = 0; i < vars.size(); ++i)
        if (vars[i].type == type) return static_cast<int32_t>(i);
    return -1;
}

float* ZelData::variableValues(int32_t index) {
    ZelDataVariable* v = variable(index);
    if (v == nullptr) return nullptr;
    v->markChanged();
    return v->values.get();
}

const float* ZelData::variableValues(int32_t index) const {
    const ZelDataVariable* v = variable(index);
    return v == nullptr ? nullptr : v->values.get();
}

uint64_t ZelData::revision(int32_t index) const {
    const ZelDataVariable* v = variable(index);
    return v == nullptr ? 0 : v->currentRevision();
}

void ZelData::markChanged(int32_t index) {
    if (ZelDataVariable* v = variable(index)) v->markChanged();
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
    state().variables.push_back(std::move(record));
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
    if (!state_ && n == 0) return;
    state().variables.resize(static_cast<std::size_t>(n));
}

bool ZelData::removeVariable(int32_t index) {
    if (index < 0 || index >= numVariables()) return false;
    state_->variables.erase(state_->variables.begin() + index);
    return true;
}

void ZelData::shuffle(const std::vector<std::string>& names,
                      const std::vector<ZelDataVariableType>& types) {
    const int32_t count = numVariables();
    if (count == 0) return;
    auto& vars = state_->variables;
    // A flag per variable and the order itself: a block of many small
    // variables must not cost a hash node or a second copy of every record.
    std::vector<int32_t> order;
    order.reserve(vars.size());
    std::vector<char> taken(vars.size(), 0);

    for (const std::string& name : names) {
        const int32_t index = variableIndex(name);
        if (index >= 0) {
            order.push_back(index);
            taken[static_cast<std::size_t>(index)] = 1;
        }
    }
    for (ZelDataVariableType type : types) {
        for (int32_t i = 0; i < count; ++i) {
            const ZelDataVariable& v = vars[static_cast<std::size_t>(i)];
            if (v.type != type || taken[static_cast<std::size_t>(i)]) continue;
            // Sigma values share the displacement kind but belong with the
            // leftovers, after every listed kind.
            if (type == GlobalDisplacement && v.description.size() >= 5 &&
                v.description.find("Sigma") != std::string::npos)
                continue;
            order.push_back(i);
            taken[static_cast<std::size_t>(i)] = 1;
        }
    }
    for (int32_t i = 0; i < count; ++i)
        if (!taken[static_cast<std::size_t>(i)]) order.push_back(i);

    if (order.size() != vars.size()) {
        NIMBRA_LOG(error) << "########## Shuffle index size mismatch, please fix.";
        return;
    }
    // Apply the permutation (new position i takes the record at order[i])
    // in place, one cycle at a time; `taken` now marks placed positions.
    std::fill(taken.begin(), taken.end(), 0);
    for (std::size_t start = 0; start < vars.size(); ++start) {
        if (taken[start] || static_cast<std::size_t>(order[start]) == start) continue;
        ZelDataVariable held = std::move(vars[start]);
        std::size_t position = start;
        for (;;) {
            taken[position] = 1;
            const auto source = static_cast<std::size_t>(order[position]);
            if (source == start) {
                vars[position] = std::move(held);
                break;
            }
            vars[position] = std::move(vars[source]);
            position = source;
        }
    }
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
