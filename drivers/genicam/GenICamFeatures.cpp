// Named settings, adjustments and advanced features of the GenICam driver: all of them are
// GenICam features of the camera (see FeatureCatalog.h for which feature serves where).
#include "genicam/GenICamCamera.h"

#include "genicam/TextOut.h"

namespace kestor::genicam {

// --- IKSettings ------------------------------------------------------------------------------

KStatus GenICamCamera::GetSettingsCount(int32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = static_cast<int32_t>(catalog_.Settings().size());
    return kKOk;
}

KStatus GenICamCamera::GetValuesCount(int32_t setting, int32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = 0;
    const Feature* feature = catalog_.Setting(setting);
    if (feature == nullptr) return kKInvalidArgument;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    *count = static_cast<int32_t>(EnumEntries(*feature).size());
    return kKOk;
}

// The further value of a setting is its number of values.
KStatus GenICamCamera::GetSettingsCaps(int32_t setting, KAbiChar* name, uint32_t capacity,
                                       int32_t* value) {
    const Feature* feature = catalog_.Setting(setting);
    if (feature == nullptr) return kKInvalidArgument;
    CopyText(name, capacity, feature->name);
    if (value != nullptr) {
        std::lock_guard<std::recursive_mutex> lock(Lock());
        *value = static_cast<int32_t>(EnumEntries(*feature).size());
    }
    return kKOk;
}

// The further value of a setting's value is the GenICam value of the entry.
KStatus GenICamCamera::GetValuesCaps(int32_t setting, int32_t value, KAbiChar* name,
                                     uint32_t capacity, int32_t* result) {
    const Feature* feature = catalog_.Setting(setting);
    if (feature == nullptr) return kKInvalidArgument;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    const std::vector<EnumEntry> entries = EnumEntries(*feature);
    if (value < 0 || static_cast<size_t>(value) >= entries.size()) return kKInvalidArgument;
    const EnumEntry& entry = entries[static_cast<size_t>(value)];
    CopyText(name, capacity, entry.name);
    if (result != nullptr) *result = static_cast<int32_t>(entry.value);
    return kKOk;
}

KStatus GenICamCamera::GetCurrentValues(int32_t setting, int32_t* value) {
    if (value == nullptr) return kKPointer;
    const Feature* feature = catalog_.Setting(setting);
    if (feature == nullptr) return kKInvalidArgument;
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    int64_t current = 0;
    if (KFailed(GetEnumValue(*feature, current))) return kKFail;
    const std::vector<EnumEntry> entries = EnumEntries(*feature);
    for (size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].value == current) {
            *value = static_cast<int32_t>(i);
            return kKOk;
        }
    }
    return kKFail;
}

KStatus GenICamCamera::SetCurrentValues(int32_t setting, int32_t value) {
    const Feature* feature = catalog_.Setting(setting);
    if (feature == nullptr) return kKInvalidArgument;
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    const std::vector<EnumEntry> entries = EnumEntries(*feature);
    if (value < 0 || static_cast<size_t>(value) >= entries.size()) return kKInvalidArgument;
    return SetEnumValue(*feature, entries[static_cast<size_t>(value)].value);
}

// --- IKAdjustments ---------------------------------------------------------------------------

KStatus GenICamCamera::GetCount(int32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = static_cast<int32_t>(catalog_.Adjustments().size());
    return kKOk;
}

KStatus GenICamCamera::GetCaps(int32_t index, int32_t* id, KAbiChar* name, uint32_t capacity,
                               int64_t* intMin, int64_t* intMax, double* doubleMin,
                               double* doubleMax, int32_t* flag1, int32_t* flag2, int32_t* flag3,
                               int32_t* flag4, int32_t* flag5) {
    const AdjustmentEntry* entry = catalog_.Adjustment(index);
    if (entry == nullptr) return kKInvalidArgument;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    const Feature& feature = catalog_.Tree().Get(entry->value);
    const bool isInteger = feature.kind == FeatureKind::Integer;
    int64_t imin = 0, imax = 0;
    double dmin = 0, dmax = 0;
    genicam::GetIntegerBounds(feature, imin, imax);
    genicam::GetDoubleBounds(feature, dmin, dmax);
    if (id != nullptr) *id = index;
    CopyText(name, capacity, feature.name);
    if (intMin != nullptr) *intMin = imin;
    if (intMax != nullptr) *intMax = imax;
    if (doubleMin != nullptr) *doubleMin = dmin;
    if (doubleMax != nullptr) *doubleMax = dmax;
    if (flag1 != nullptr) *flag1 = isInteger ? 1 : 0;
    if (flag2 != nullptr) *flag2 = entry->hasContinuous ? 1 : 0;
    if (flag3 != nullptr) *flag3 = isInteger ? 0 : 1;
    if (flag4 != nullptr) *flag4 = entry->hasOnce ? 1 : 0;
    if (flag5 != nullptr) *flag5 = IsFeatureWritable(feature) ? 0 : 1;
    return kKOk;
}

KStatus GenICamCamera::GetIntegerValue(int32_t index, int64_t* value) {
    if (value == nullptr) return kKPointer;
    const AdjustmentEntry* entry = catalog_.Adjustment(index);
    if (entry == nullptr) return kKInvalidArgument;
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    return genicam::GetIntegerValue(catalog_.Tree().Get(entry->value), *value);
}

KStatus GenICamCamera::SetIntegerValue(int32_t index, int64_t value) {
    const AdjustmentEntry* entry = catalog_.Adjustment(index);
    if (entry == nullptr) return kKInvalidArgument;
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    return genicam::SetIntegerValue(catalog_.Tree().Get(entry->value), value);
}

KStatus GenICamCamera::GetDoubleValue(int32_t index, double* value) {
    if (value == nullptr) return kKPointer;
    const AdjustmentEntry* entry = catalog_.Adjustment(index);
    if (entry == nullptr) return kKInvalidArgument;
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    return genicam::GetDoubleValue(catalog_.Tree().Get(entry->value), *value);
}

KStatus GenICamCamera::SetDoubleValue(int32_t index, double value) {
    const AdjustmentEntry* entry = catalog_.Adjustment(index);
    if (entry == nullptr) return kKInvalidArgument;
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    return genicam::SetDoubleValue(catalog_.Tree().Get(entry->value), value);
}

KStatus GenICamCamera::GetAutomatic(int32_t index, int32_t* automatic) {
    if (automatic == nullptr) return kKPointer;
    *automatic = 0;
    const AdjustmentEntry* entry = catalog_.Adjustment(index);
    if (entry == nullptr) return kKInvalidArgument;
    if (entry->automatic < 0) return kKOk;
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    std::string mode;
    if (KFailed(GetEnumString(catalog_.Tree().Get(entry->automatic), mode))) return kKFail;
    *automatic = mode == "Continuous" ? 1 : 0;
    return kKOk;
}

KStatus GenICamCamera::SetAutomatic(int32_t index, int32_t automatic) {
    const AdjustmentEntry* entry = catalog_.Adjustment(index);
    if (entry == nullptr) return kKInvalidArgument;
    if (entry->automatic < 0 || (automatic != 0 && !entry->hasContinuous)) {
        return automatic != 0 ? kKNotImplemented : kKOk;
    }
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    return SetEnumString(catalog_.Tree().Get(entry->automatic),
                         automatic != 0 ? "Continuous" : "Off");
}

KStatus GenICamCamera::OneShot(int32_t index) {
    const AdjustmentEntry* entry = catalog_.Adjustment(index);
    if (entry == nullptr) return kKInvalidArgument;
    if (entry->automatic < 0 || !entry->hasOnce) return kKNotImplemented;
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    return SetEnumString(catalog_.Tree().Get(entry->automatic), "Once");
}

// --- IKAdvancedFeatures ----------------------------------------------------------------------

KStatus GenICamCamera::GetCategoriesCount(int32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = static_cast<int32_t>(catalog_.Tree().Categories().size());
    return kKOk;
}

KStatus GenICamCamera::GetCategoriesCap(int32_t index, int32_t* id, KAbiChar* name,
                                        uint32_t capacity) {
    const std::vector<Category>& categories = catalog_.Tree().Categories();
    if (index < 0 || static_cast<size_t>(index) >= categories.size()) return kKInvalidArgument;
    if (id != nullptr) *id = index;
    CopyText(name, capacity, categories[static_cast<size_t>(index)].name);
    return kKOk;
}

KStatus GenICamCamera::GetFeatureCount(int32_t category, int32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = 0;
    const std::vector<Category>& categories = catalog_.Tree().Categories();
    if (category < 0 || static_cast<size_t>(category) >= categories.size()) {
        return kKInvalidArgument;
    }
    *count = static_cast<int32_t>(categories[static_cast<size_t>(category)].features.size());
    return kKOk;
}

KStatus GenICamCamera::GetFeatureCap(int32_t category, int32_t index, int32_t* id, KAbiChar* name,
                                     uint32_t capacity, int32_t* type, int32_t* level) {
    const Feature* feature = catalog_.Tree().At(category, index);
    if (feature == nullptr) return kKInvalidArgument;
    if (id != nullptr) {
        *id = catalog_.Tree()
                  .Categories()[static_cast<size_t>(category)]
                  .features[static_cast<size_t>(index)];
    }
    CopyText(name, capacity, feature->name);
    if (type != nullptr) *type = static_cast<int32_t>(feature->kind);
    if (level != nullptr) *level = feature->level;
    return kKOk;
}

KStatus GenICamCamera::Accessible(int32_t category, int32_t feature, int32_t* accessible) {
    if (accessible == nullptr) return kKPointer;
    *accessible = 0;
    const Feature* node = catalog_.Tree().At(category, feature);
    if (node == nullptr) return kKInvalidArgument;
    if (!IsReady()) return kKOk;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    *accessible = IsFeatureWritable(*node) ? 1 : 0;
    return kKOk;
}

KStatus GenICamCamera::GetEnumFeatureValueCount(int32_t category, int32_t feature, int32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = 0;
    const Feature* node = catalog_.Tree().At(category, feature);
    if (node == nullptr || node->kind != FeatureKind::Enumeration) return kKInvalidArgument;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    *count = static_cast<int32_t>(EnumEntries(*node).size());
    return kKOk;
}

KStatus GenICamCamera::GetEnumFeatureValueCap(int32_t category, int32_t feature, int32_t index,
                                              KAbiChar* name, uint32_t capacity, int64_t* value) {
    const Feature* node = catalog_.Tree().At(category, feature);
    if (node == nullptr || node->kind != FeatureKind::Enumeration) return kKInvalidArgument;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    const std::vector<EnumEntry> entries = EnumEntries(*node);
    if (index < 0 || static_cast<size_t>(index) >= entries.size()) return kKInvalidArgument;
    CopyText(name, capacity, entries[static_cast<size_t>(index)].name);
    if (value != nullptr) *value = entries[static_cast<size_t>(index)].value;
    return kKOk;
}

// The accessors below share one pattern: find the feature, check the camera, lock, forward.
#define KESTOR_GENICAM_FEATURE(node, category, feature)          \
    const Feature* node = catalog_.Tree().At(category, feature); \
    if (node == nullptr) return kKInvalidArgument;               \
    if (!IsReady()) return kKFail;                               \
    std::lock_guard<std::recursive_mutex> featureLock(Lock())

KStatus GenICamCamera::GetEnumFeatureValue(int32_t category, int32_t feature, int64_t* value) {
    if (value == nullptr) return kKPointer;
    KESTOR_GENICAM_FEATURE(node, category, feature);
    return GetEnumValue(*node, *value);
}

KStatus GenICamCamera::SetEnumFeatureValue(int32_t category, int32_t feature, int64_t value) {
    KESTOR_GENICAM_FEATURE(node, category, feature);
    return SetEnumValue(*node, value);
}

KStatus GenICamCamera::GetIntegerFeatureCap(int32_t category, int32_t feature, int64_t* min,
                                            int64_t* max) {
    if (min == nullptr || max == nullptr) return kKPointer;
    KESTOR_GENICAM_FEATURE(node, category, feature);
    return genicam::GetIntegerBounds(*node, *min, *max);
}

KStatus GenICamCamera::GetIntegerFeatureValue(int32_t category, int32_t feature, int64_t* value) {
    if (value == nullptr) return kKPointer;
    KESTOR_GENICAM_FEATURE(node, category, feature);
    return genicam::GetIntegerValue(*node, *value);
}

KStatus GenICamCamera::SetIntegerFeatureValue(int32_t category, int32_t feature, int64_t value) {
    KESTOR_GENICAM_FEATURE(node, category, feature);
    return genicam::SetIntegerValue(*node, value);
}

KStatus GenICamCamera::GetDoubleFeatureCap(int32_t category, int32_t feature, double* min,
                                           double* max) {
    if (min == nullptr || max == nullptr) return kKPointer;
    KESTOR_GENICAM_FEATURE(node, category, feature);
    return genicam::GetDoubleBounds(*node, *min, *max);
}

KStatus GenICamCamera::GetDoubleFeatureValue(int32_t category, int32_t feature, double* value) {
    if (value == nullptr) return kKPointer;
    KESTOR_GENICAM_FEATURE(node, category, feature);
    return genicam::GetDoubleValue(*node, *value);
}

KStatus GenICamCamera::SetDoubleFeatureValue(int32_t category, int32_t feature, double value) {
    KESTOR_GENICAM_FEATURE(node, category, feature);
    return genicam::SetDoubleValue(*node, value);
}

KStatus GenICamCamera::GetFeatureDescription(int32_t category, int32_t feature, KAbiChar* text,
                                             uint32_t capacity) {
    const Feature* node = catalog_.Tree().At(category, feature);
    if (node == nullptr) return kKInvalidArgument;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    CopyText(text, capacity, FeatureDescription(*node));
    return kKOk;
}

KStatus GenICamCamera::GetBoolFeatureValue(int32_t category, int32_t feature, int32_t* value) {
    if (value == nullptr) return kKPointer;
    KESTOR_GENICAM_FEATURE(node, category, feature);
    bool flag = false;
    const KStatus status = GetBoolValue(*node, flag);
    *value = flag ? 1 : 0;
    return status;
}

KStatus GenICamCamera::SetBoolFeatureValue(int32_t category, int32_t feature, int32_t value) {
    KESTOR_GENICAM_FEATURE(node, category, feature);
    return SetBoolValue(*node, value != 0);
}

KStatus GenICamCamera::ExecuteCommandFeature(int32_t category, int32_t feature) {
    KESTOR_GENICAM_FEATURE(node, category, feature);
    return ExecuteCommand(*node);
}

#undef KESTOR_GENICAM_FEATURE

}  // namespace kestor::genicam
