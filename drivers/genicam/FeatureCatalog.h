// Which GenICam features the driver offers through which interface: the advanced features
// are the category tree; the named settings are the enumeration features (TriggerMode,
// TriggerSource, PixelFormat, GainAuto ...); the adjustments are the standard numeric
// controls (exposure, gain, black level, frame rate, gamma), each paired with its "...Auto"
// enumeration when the camera has one ("Continuous" = automatic, "Once" = one-shot).
#pragma once

#include <string>
#include <vector>

#include "genicam/FeatureTree.h"

namespace kestor::genicam {

struct AdjustmentEntry {
    int32_t value = -1;      // feature id of the numeric control
    int32_t automatic = -1;  // feature id of its Auto enumeration, or -1
    bool hasContinuous = false;
    bool hasOnce = false;
};

class FeatureCatalog {
public:
    void Build(ArvGc* genicam);
    void Clear();

    FeatureTree& Tree() { return tree_; }
    const FeatureTree& Tree() const { return tree_; }
    const std::vector<int32_t>& Settings() const { return settings_; }
    const std::vector<AdjustmentEntry>& Adjustments() const { return adjustments_; }

    // The setting or adjustment at `index`, or null.
    const Feature* Setting(int32_t index) const;
    const AdjustmentEntry* Adjustment(int32_t index) const;

private:
    FeatureTree tree_;
    std::vector<int32_t> settings_;
    std::vector<AdjustmentEntry> adjustments_;
};

}  // namespace kestor::genicam
