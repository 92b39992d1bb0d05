#include "genicam/FeatureCatalog.h"

#include <algorithm>

namespace kestor::genicam {
namespace {

// Standard feature names of one control, the preferred spelling first, and its Auto feature.
struct AdjustmentCandidate {
    const char* names[3];
    const char* automatic;
};

const AdjustmentCandidate kAdjustmentCandidates[] = {
    {{"ExposureTime", "ExposureTimeAbs", "ExposureTimeRaw"}, "ExposureAuto"},
    {{"Gain", "GainAbs", "GainRaw"}, "GainAuto"},
    {{"BlackLevel", "BlackLevelAbs", "BlackLevelRaw"}, "BlackLevelAuto"},
    {{"AcquisitionFrameRate", "AcquisitionFrameRateAbs", nullptr}, nullptr},
    {{"Gamma", nullptr, nullptr}, nullptr},
};

}  // namespace

void FeatureCatalog::Clear() {
    tree_.Clear();
    settings_.clear();
    adjustments_.clear();
}

void FeatureCatalog::Build(ArvGc* genicam) {
    Clear();
    tree_.Build(genicam);
    for (const AdjustmentCandidate& candidate : kAdjustmentCandidates) {
        AdjustmentEntry entry;
        for (const char* name : candidate.names) {
            if (name == nullptr) break;
            const int32_t id = tree_.Lookup(name);
            if (id < 0) continue;
            const FeatureKind kind = tree_.Get(id).kind;
            if (kind != FeatureKind::Integer && kind != FeatureKind::Double) continue;
            entry.value = id;
            break;
        }
        if (entry.value < 0) continue;
        if (candidate.automatic != nullptr) {
            const int32_t id = tree_.Lookup(candidate.automatic);
            if (id >= 0 && tree_.Get(id).kind == FeatureKind::Enumeration) {
                for (const EnumEntry& value : EnumEntries(tree_.Get(id))) {
                    entry.hasContinuous |= value.name == "Continuous";
                    entry.hasOnce |= value.name == "Once";
                }
                if (entry.hasContinuous || entry.hasOnce) entry.automatic = id;
            }
        }
        adjustments_.push_back(entry);
    }
    // Every enumeration of the tree, then the Auto features that no category lists.
    const std::vector<Feature>& features = tree_.Features();
    for (size_t id = 0; id < features.size(); ++id) {
        if (features[id].kind == FeatureKind::Enumeration) {
            settings_.push_back(static_cast<int32_t>(id));
        }
    }
    for (const AdjustmentEntry& entry : adjustments_) {
        if (entry.automatic >= 0 &&
            std::find(settings_.begin(), settings_.end(), entry.automatic) == settings_.end()) {
            settings_.push_back(entry.automatic);
        }
    }
}

const Feature* FeatureCatalog::Setting(int32_t index) const {
    if (index < 0 || static_cast<size_t>(index) >= settings_.size()) return nullptr;
    return &tree_.Get(settings_[static_cast<size_t>(index)]);
}

const AdjustmentEntry* FeatureCatalog::Adjustment(int32_t index) const {
    if (index < 0 || static_cast<size_t>(index) >= adjustments_.size()) return nullptr;
    return &adjustments_[static_cast<size_t>(index)];
}

}  // namespace kestor::genicam
