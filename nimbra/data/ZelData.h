#pragma once
// One area of interest (AOI): a rows x columns grid of points with an ordered
// list of named float32 variables. Index-based operations never throw for a
// bad index; they return null or -1.

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "nimbra/data/ZelDataVariableType.h"

namespace nimbra {

// One variable. The values are a contiguous float32 array so that the codec
// and numpy can move them as one block; the storage is reference counted only
// so that a zero-copy numpy view, or a look-up tree built over it, can outlive
// a reload of its dataset without dangling. The matrix itself never shares
// storage: copies are deep.
struct ZelDataVariable {
    std::string name;
    std::string description;
    ZelDataVariableType type = Unknown;
    std::shared_ptr<float[]> values;  // null while count is 0
    int32_t count = 0;
    // Moves on whenever the values may have changed in place (see
    // ZelData::markChanged); a new array starts a new history, so readers
    // compare it together with the array's address.
    // Mutable only so that const readers can load it atomically.
    alignas(std::atomic_ref<uint64_t>::required_alignment) mutable uint64_t revision = 0;

    uint64_t currentRevision() const noexcept {
        return std::atomic_ref<uint64_t>(revision).load(std::memory_order_acquire);
    }
    void markChanged() noexcept {
        std::atomic_ref<uint64_t>(revision).fetch_add(1, std::memory_order_acq_rel);
    }

    ZelDataVariable() = default;
    ZelDataVariable(const ZelDataVariable& other);
    ZelDataVariable& operator=(const ZelDataVariable& other);
    ZelDataVariable(ZelDataVariable&&) noexcept = default;
    ZelDataVariable& operator=(ZelDataVariable&&) noexcept = default;
};

class ZelData {
public:
    // Bytes of heap one AOI's private state takes, allocator overhead
    // included (the decoder charges it against its memory budget).
    static const int64_t kStateBytes;

    ZelData();
    ~ZelData();
    ZelData(const ZelData& other);
    ZelData& operator=(const ZelData& other);
    ZelData(ZelData&& other) noexcept;
    ZelData& operator=(ZelData&& other) noexcept;

    void clear();

    int32_t numRows() const;
    int32_t numColumns() const;
    int32_t matrixSize() const;  // rows x columns as a 32-bit product
    int32_t numVariables() const;

    // True when every variable holds exactly gridPointCount() values. The
    // data file checks value counts against the 32-bit product only, so a
    // grid of 3 x 0x55555556 points (the product wraps to 2) decodes with two
    // values per variable; anything that walks rows and columns must refuse
    // such a grid (see requireConsistentGrid).
    bool gridIsConsistent() const;

    // Sets the grid shape. Existing variables are left as they are; callers
    // that change the shape of a filled matrix resize the values themselves.
    void setSize(int32_t rows, int32_t columns);

    const std::string& name() const;
    void setName(const std::string& name);
    int32_t gridKind() const;
    void setGridKind(int32_t kind);

    int32_t variableIndex(const std::string& name) const;
    int32_t findVariable(ZelDataVariableType type, const std::string& text) const;
    // First variable of this kind, -1 if none (the confidence is the first
    // variable of kind Correlation).
    int32_t firstVariableOfType(ZelDataVariableType type) const;

    // The non-const overload is write access: it marks the variable changed
    // (markChanged), so a writer that takes its pointer here can never leave
    // a reader with data derived from the old values. Readers use the const
    // one.
    float* variableValues(int32_t index);
    const float* variableValues(int32_t index) const;
    // The variable's revision (0 when the index is out of range): readers
    // that keep data derived from the values, the look-up trees, compare it
    // with the one they saw, along with the array's address.
    uint64_t revision(int32_t index) const;
    // Moves the variable's revision on. Whoever writes values in place
    // through a record (variable()->values) calls it after writing; writers
    // that took variableValues() call it once more when they are done, so
    // that a reader on another thread that derived data while they wrote
    // sees the change.
    void markChanged(int32_t index);
    // The record itself; null when the index is out of range.
    ZelDataVariable* variable(int32_t index);
    const ZelDataVariable* variable(int32_t index) const;

    int32_t addVariable(ZelDataVariableType type, const std::string& name,
                        const std::string& description);
    void resizeValues(int32_t variable, int32_t n);
    // Like resizeValues, but leaves new storage uninitialised; for the decoder,
    // which overwrites every value straight away.
    void resizeValuesForOverwrite(int32_t variable, int32_t n);
    void resizeVariables(int32_t n);
    bool removeVariable(int32_t index);

    void shuffle(const std::vector<std::string>& names,
                 const std::vector<ZelDataVariableType>& types);
    // Reorders the variables into the canonical order used after decoding.
    void canonicalOrder();

    // Decodes one AOI starting just after an AOI start tag; returns the number
    // of bytes consumed or -1.
    int32_t decode(const uint8_t* buffer, int32_t size);

private:
    struct State;
    // An AOI that holds nothing but the defaults (0 x 0, no name, grid kind
    // 2, no variables) has no state at all: a block can declare millions of
    // such AOIs in four bytes each, and each must cost no more than its slot
    // in the dataset. Readers treat a null state as the defaults; writers
    // create it on first use.
    std::unique_ptr<State> state_;
    State& state();
};

// The six coordinate channels of an AOI (X, Y, Z, U, V, W), -1 where absent.
struct CoordinateVariables {
    int32_t index[6] = {-1, -1, -1, -1, -1, -1};
    bool found = false;
};
CoordinateVariables findCoordinateVariables(const ZelData& data);

// The grid checks every analysis uses before it indexes values by row and
// column. rows x columns as a 64-bit product, or -1 when a side is negative
// or the product exceeds the 32-bit matrix size (matrixSize() may wrap).
int64_t gridPointCount(const ZelData& data);

// True when the variable exists and holds exactly gridPointCount() values.
bool holdsGrid(const ZelData& data, int32_t variable);

// gridIsConsistent(), with one error line naming `function` and the first
// variable that does not hold rows x columns values when it is false.
bool requireConsistentGrid(const ZelData& data, const char* function);

// The same for the listed variables only (-1 entries are skipped): what an
// analysis that reads a few channels of an AOI requires. A listed index
// without a variable fails too.
bool requireConsistentGrid(const ZelData& data, std::initializer_list<int32_t> variables,
                           const char* function);

}  // namespace nimbra
