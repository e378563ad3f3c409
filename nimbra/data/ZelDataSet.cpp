#include "nimbra/data/ZelDataSet.h"

#include <vector>

namespace nimbra {

struct ZelDataSet::State {
    std::vector<std::unique_ptr<ZelData>> data;
    std::string referenceImage;
    std::string deformedImage;
};

ZelDataSet::ZelDataSet() : state_(std::make_unique<State>()) {}
ZelDataSet::~ZelDataSet() = default;

ZelDataSet::ZelDataSet(const ZelDataSet& other) : ZelDataSet() { *this = other; }

ZelDataSet& ZelDataSet::operator=(const ZelDataSet& other) {
    if (this == &other) return *this;
    clear();
    state_->data.reserve(other.state_->data.size());
    for (const auto& aoi : other.state_->data) state_->data.push_back(std::make_unique<ZelData>(*aoi));
    state_->referenceImage = other.state_->referenceImage;
    state_->deformedImage = other.state_->deformedImage;
    return *this;
}

void ZelDataSet::clear() {
    state_->data.clear();
    state_->referenceImage.clear();
    state_->deformedImage.clear();
}

int32_t ZelDataSet::numData() const { return static_cast<int32_t>(state_->data.size()); }

ZelData* ZelDataSet::data(int32_t index) {
    if (index < 0 || index >= numData()) return nullptr;
    return state_->data[static_cast<std::size_t>(index)].get();
}

const ZelData* ZelDataSet::data(int32_t index) const {
    if (index < 0 || index >= numData()) return nullptr;
    return state_->data[static_cast<std::size_t>(index)].get();
}

int32_t ZelDataSet::appendData(ZelData* data) {
    state_->data.emplace_back(data);
    return numData() - 1;
}

ZelData* ZelDataSet::addData(int32_t rows, int32_t columns, const std::string& name) {
    auto aoi = std::make_unique<ZelData>();
    aoi->setSize(rows, columns);
    aoi->setName(name);
    state_->data.push_back(std::move(aoi));
    return state_->data.back().get();
}

const std::string& ZelDataSet::referenceImage() const { return state_->referenceImage; }
void ZelDataSet::setReferenceImage(const std::string& name) { state_->referenceImage = name; }
const std::string& ZelDataSet::deformedImage() const { return state_->deformedImage; }
void ZelDataSet::setDeformedImage(const std::string& name) { state_->deformedImage = name; }

}  // namespace nimbra
