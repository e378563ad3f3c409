#include "nimbra/data/ZelDataSet.h"

#include <deque>

namespace nimbra {

struct ZelDataSet::State {
    // A deque keeps every AOI where it is while more are appended (scripts
    // hold pointers to them) and stores them without a heap block each: an
    // AOI without content costs its 8 bytes here and nothing else.
    std::deque<ZelData> data;
    std::string referenceImage;
    std::string deformedImage;
};

ZelDataSet::ZelDataSet() : state_(std::make_unique<State>()) {}
ZelDataSet::~ZelDataSet() = default;

ZelDataSet::ZelDataSet(const ZelDataSet& other) : ZelDataSet() { *this = other; }

ZelDataSet& ZelDataSet::operator=(const ZelDataSet& other) {
    if (this == &other) return *this;
    clear();
    for (const ZelData& aoi : other.state_->data) state_->data.push_back(aoi);
    state_->referenceImage = other.state_->referenceImage;
    state_->deformedImage = other.state_->deformedImage;
    return *this;
}

void ZelDataSet::clear() {
    // clear() alone keeps the deque's block map; a reload of a small file
    // after a huge one should not.
    std::deque<ZelData>().swap(state_->data);
    state_->referenceImage.clear();
    state_->deformedImage.clear();
}

int32_t ZelDataSet::numData() const { return static_cast<int32_t>(state_->data.size()); }

ZelData* ZelDataSet::data(int32_t index) {
    if (index < 0 || index >= numData()) return nullptr;
    return &state_->data[static_cast<std::size_t>(index)];
}

const ZelData* ZelDataSet::data(int32_t index) const {
    if (index < 0 || index >= numData()) return nullptr;
    return &state_->data[static_cast<std::size_t>(index)];
}

int32_t ZelDataSet::appendData(ZelData* data) {
    std::unique_ptr<ZelData> owned(data);
    state_->data.push_back(std::move(*owned));
    return numData() - 1;
}

ZelData& ZelDataSet::appendEmpty() { return state_->data.emplace_back(); }

void ZelDataSet::removeLast() {
    if (!state_->data.empty()) state_->data.pop_back();
}

ZelData* ZelDataSet::addData(int32_t rows, int32_t columns, const std::string& name) {
    ZelData& aoi = appendEmpty();
    aoi.setSize(rows, columns);
    aoi.setName(name);
    return &aoi;
}

const std::string& ZelDataSet::referenceImage() const { return state_->referenceImage; }
void ZelDataSet::setReferenceImage(const std::string& name) { state_->referenceImage = name; }
const std::string& ZelDataSet::deformedImage() const { return state_->deformedImage; }
void ZelDataSet::setDeformedImage(const std::string& name) { state_->deformedImage = name; }

}  // namespace nimbra
