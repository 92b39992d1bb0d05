// Categories of typed features (the advanced-settings feature set), forwarded to the driver.
#include "acquisition/AbiConversions.h"
#include "acquisition/CKestorGrabModule.h"

namespace kestor {

namespace {

// Runs `call` on the feature interface: 12 without a grabber, 83 without the interface.
template <class Call>
bool WithFeatures(CKestorGrabModule& module, bool hasGrabber,
                  const KComPtr<IKAdvancedFeatures>& features, Call&& call) {
    if (!hasGrabber) return module.SetError(eKErrNoGrabberLoaded);
    if (!features) return module.SetError(eKErrAdvanceSettingsUnsupported);
    call(*features.Get());
    return module.SetError(eKErrSuccess);
}

}  // namespace

#define KESTOR_WITH_FEATURES(...)                                                                  \
    WithFeatures(*this, HasGrabber(), DriverInterface<IKAdvancedFeatures>(IID_IKAdvancedFeatures), \
                 [&](IKAdvancedFeatures & features) __VA_ARGS__)

bool CKestorGrabModule::GetCategoriesCount(long* count) {
    return KESTOR_WITH_FEATURES({
        int32_t value = 0;
        features.GetCategoriesCount(&value);
        Store(count, value);
    });
}

bool CKestorGrabModule::GetCategoriesCap(long index, long* id, KChar* name) {
    return KESTOR_WITH_FEATURES({
        int32_t value = 0;
        DriverName text;
        features.GetCategoriesCap(NarrowToInt32(index), &value, text.Buffer(), text.Capacity());
        Store(id, value);
        text.CopyTo(name);
    });
}

bool CKestorGrabModule::GetFeatureCount(long category, long* count) {
    return KESTOR_WITH_FEATURES({
        int32_t value = 0;
        features.GetFeatureCount(NarrowToInt32(category), &value);
        Store(count, value);
    });
}

bool CKestorGrabModule::GetFeatureCap(long category, long index, long* id, KChar* name,
                                      eAdvanceSettingsFeatureType* type,
                                      eAdvanceSettingsLevel* level) {
    return KESTOR_WITH_FEATURES({
        int32_t value = 0, featureType = 0, featureLevel = 0;
        DriverName text;
        features.GetFeatureCap(NarrowToInt32(category), NarrowToInt32(index), &value, text.Buffer(),
                               text.Capacity(), &featureType, &featureLevel);
        Store(id, value);
        text.CopyTo(name);
        Store(type, featureType);
        Store(level, featureLevel);
    });
}

bool CKestorGrabModule::Accessible(long category, long feature, int* accessible) {
    return KESTOR_WITH_FEATURES({
        int32_t value = 0;
        features.Accessible(NarrowToInt32(category), NarrowToInt32(feature), &value);
        Store(accessible, value);
    });
}

bool CKestorGrabModule::GetEnumFeatureValueCount(long category, long feature, long* count) {
    return KESTOR_WITH_FEATURES({
        int32_t value = 0;
        features.GetEnumFeatureValueCount(NarrowToInt32(category), NarrowToInt32(feature), &value);
        Store(count, value);
    });
}

bool CKestorGrabModule::GetEnumFeatureValueCap(long category, long feature, long index, KChar* name,
                                               long* value) {
    return KESTOR_WITH_FEATURES({
        int64_t entry = 0;
        DriverName text;
        features.GetEnumFeatureValueCap(NarrowToInt32(category), NarrowToInt32(feature),
                                        NarrowToInt32(index), text.Buffer(), text.Capacity(),
                                        &entry);
        text.CopyTo(name);
        Store(value, entry);
    });
}

bool CKestorGrabModule::GetEnumFeatureValue(long category, long feature, long* value) {
    return KESTOR_WITH_FEATURES({
        int64_t current = 0;
        features.GetEnumFeatureValue(NarrowToInt32(category), NarrowToInt32(feature), &current);
        Store(value, current);
    });
}

bool CKestorGrabModule::SetEnumFeatureValue(long category, long feature, long value) {
    return KESTOR_WITH_FEATURES(
        { features.SetEnumFeatureValue(NarrowToInt32(category), NarrowToInt32(feature), value); });
}

bool CKestorGrabModule::GetIntegerFeatureCap(long category, long feature, long* min, long* max) {
    return KESTOR_WITH_FEATURES({
        int64_t low = 0, high = 0;
        features.GetIntegerFeatureCap(NarrowToInt32(category), NarrowToInt32(feature), &low, &high);
        Store(min, low);
        Store(max, high);
    });
}

bool CKestorGrabModule::GetIntegerFeatureValue(long category, long feature, long* value) {
    return KESTOR_WITH_FEATURES({
        int64_t current = 0;
        features.GetIntegerFeatureValue(NarrowToInt32(category), NarrowToInt32(feature), &current);
        Store(value, current);
    });
}

bool CKestorGrabModule::SetIntegerFeatureValue(long category, long feature, long value) {
    return KESTOR_WITH_FEATURES({
        features.SetIntegerFeatureValue(NarrowToInt32(category), NarrowToInt32(feature), value);
    });
}

bool CKestorGrabModule::GetDoubleFeatureCap(long category, long feature, double* min, double* max) {
    return KESTOR_WITH_FEATURES({
        double low = 0, high = 0;
        features.GetDoubleFeatureCap(NarrowToInt32(category), NarrowToInt32(feature), &low, &high);
        Store(min, low);
        Store(max, high);
    });
}

bool CKestorGrabModule::GetDoubleFeatureValue(long category, long feature, double* value) {
    return KESTOR_WITH_FEATURES({
        double current = 0;
        features.GetDoubleFeatureValue(NarrowToInt32(category), NarrowToInt32(feature), &current);
        Store(value, current);
    });
}

bool CKestorGrabModule::SetDoubleFeatureValue(long category, long feature, double value) {
    return KESTOR_WITH_FEATURES({
        features.SetDoubleFeatureValue(NarrowToInt32(category), NarrowToInt32(feature), value);
    });
}

bool CKestorGrabModule::GetBoolFeatureValue(long category, long feature, int* value) {
    return KESTOR_WITH_FEATURES({
        int32_t current = 0;
        features.GetBoolFeatureValue(NarrowToInt32(category), NarrowToInt32(feature), &current);
        Store(value, current);
    });
}

bool CKestorGrabModule::SetBoolFeatureValue(long category, long feature, int value) {
    return KESTOR_WITH_FEATURES(
        { features.SetBoolFeatureValue(NarrowToInt32(category), NarrowToInt32(feature), value); });
}

bool CKestorGrabModule::ExecuteCommandFeature(long category, long feature) {
    return KESTOR_WITH_FEATURES(
        { features.ExecuteCommandFeature(NarrowToInt32(category), NarrowToInt32(feature)); });
}

#undef KESTOR_WITH_FEATURES

}  // namespace kestor
