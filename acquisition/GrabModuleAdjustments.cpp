// Named settings and adjustments: the module only picks the driver interface that answers
// (combined adjustments first, then the older integer and double ones) and forwards.
#include "acquisition/AbiConversions.h"
#include "acquisition/CKestorGrabModule.h"

namespace kestor {

// --- settings --------------------------------------------------------------------------------

bool CKestorGrabModule::GetSettingsCount(long* count) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    auto settings = DriverInterface<IKSettings>(IID_IKSettings);
    if (!settings) return SetError(eKErrNoSettingsInterface);
    int32_t value = 0;
    settings->GetSettingsCount(&value);
    Store(count, value);
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::GetValuesCount(long setting, long* count) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    auto settings = DriverInterface<IKSettings>(IID_IKSettings);
    if (!settings) return SetError(eKErrNoSettingsInterface);
    int32_t value = 0;
    settings->GetValuesCount(NarrowToInt32(setting), &value);
    Store(count, value);
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::GetSettingsCaps(long setting, KChar* name, long* value) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    auto settings = DriverInterface<IKSettings>(IID_IKSettings);
    if (!settings) return SetError(eKErrNoSettingsInterface);
    DriverName text;
    int32_t further = 0;
    settings->GetSettingsCaps(NarrowToInt32(setting), text.Buffer(), text.Capacity(), &further);
    text.CopyTo(name);
    Store(value, further);
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::GetValuesCaps(long setting, long value, KChar* name, long* result) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    auto settings = DriverInterface<IKSettings>(IID_IKSettings);
    if (!settings) return SetError(eKErrNoSettingsInterface);
    DriverName text;
    int32_t further = 0;
    settings->GetValuesCaps(NarrowToInt32(setting), NarrowToInt32(value), text.Buffer(),
                            text.Capacity(), &further);
    text.CopyTo(name);
    Store(result, further);
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::GetCurrentValues(long setting, long* value) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    auto settings = DriverInterface<IKSettings>(IID_IKSettings);
    if (!settings) return SetError(eKErrNoSettingsInterface);
    int32_t current = 0;
    settings->GetCurrentValues(NarrowToInt32(setting), &current);
    Store(value, current);
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::SetCurrentValues(long setting, long value) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    auto settings = DriverInterface<IKSettings>(IID_IKSettings);
    if (!settings) return SetError(eKErrNoSettingsInterface);
    settings->SetCurrentValues(NarrowToInt32(setting), NarrowToInt32(value));
    return SetError(eKErrSuccess);
}

// --- adjustments -----------------------------------------------------------------------------

bool CKestorGrabModule::GetAdjustmentCount(long* count) {
    Store(count, 0);
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    int32_t value = 0;
    if (auto combined = DriverInterface<IKAdjustments>(IID_IKAdjustments)) {
        combined->GetCount(&value);
    } else if (auto integer = DriverInterface<IKIntegerAdjustments>(IID_IKIntegerAdjustments)) {
        integer->GetCount(&value);
    } else if (auto real = DriverInterface<IKDoubleAdjustments>(IID_IKDoubleAdjustments)) {
        real->GetCount(&value);
    } else {
        return SetError(eKErrNoAdjustmentsInterface);
    }
    Store(count, value);
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::GetAdjustmentCaps(long index, long* id, KChar* name, long* intMin,
                                          long* intMax, double* doubleMin, double* doubleMax,
                                          int* flag1, int* flag2, int* flag3, int* flag4,
                                          int* flag5) {
    // The defaults stay in place for an index that no interface knows.
    DriverName text(u"Index is out of bound");
    int32_t capsId = 0;
    int64_t capsIntMin = 0, capsIntMax = 0;
    double capsDoubleMin = 0, capsDoubleMax = 0;
    int32_t flags[5] = {1, 0, 0, 0, 0};
    auto publish = [&] {
        Store(id, capsId);
        text.CopyTo(name);
        Store(intMin, capsIntMin);
        Store(intMax, capsIntMax);
        Store(doubleMin, capsDoubleMin);
        Store(doubleMax, capsDoubleMax);
        int* outputs[5] = {flag1, flag2, flag3, flag4, flag5};
        for (int i = 0; i < 5; ++i) Store(outputs[i], flags[i]);
    };
    publish();
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    if (index < 0) return SetError(eKErrSuccess);

    const int32_t abiIndex = NarrowToInt32(index);
    // One count for the walk: an absent interface leaves the previous count in place.
    int32_t count = 0;
    if (auto combined = DriverInterface<IKAdjustments>(IID_IKAdjustments)) {
        combined->GetCount(&count);
        if (index < count) {
            combined->GetCaps(abiIndex, &capsId, text.Buffer(), text.Capacity(), &capsIntMin,
                              &capsIntMax, &capsDoubleMin, &capsDoubleMax, &flags[0], &flags[1],
                              &flags[2], &flags[3], &flags[4]);
            publish();
            return SetError(eKErrSuccess);
        }
    }
    if (auto integer = DriverInterface<IKIntegerAdjustments>(IID_IKIntegerAdjustments)) {
        integer->GetCount(&count);
        if (index < count) {
            integer->GetCaps(abiIndex, &capsId, text.Buffer(), text.Capacity(), &capsIntMin,
                             &capsIntMax, &flags[0], &flags[1], &flags[2], &flags[3], &flags[4]);
            publish();
            return SetError(eKErrSuccess);
        }
    }
    if (auto real = DriverInterface<IKDoubleAdjustments>(IID_IKDoubleAdjustments)) {
        real->GetCount(&count);
        if (index < count) {
            real->GetCaps(abiIndex, &capsId, text.Buffer(), text.Capacity(), &capsDoubleMin,
                          &capsDoubleMax, &flags[2], &flags[3]);
            // The older double interface does not say what the value is: it is a double.
            flags[0] = 0;
            flags[2] = 1;
            publish();
            return SetError(eKErrSuccess);
        }
    }
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::GetIntegerAdjustment(long index, long* value) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    int64_t current = 0;
    if (auto combined = DriverInterface<IKAdjustments>(IID_IKAdjustments)) {
        combined->GetIntegerValue(NarrowToInt32(index), &current);
    } else if (auto integer = DriverInterface<IKIntegerAdjustments>(IID_IKIntegerAdjustments)) {
        integer->GetValue(NarrowToInt32(index), &current);
    } else {
        return SetError(eKErrNoAdjustmentsInterface);
    }
    Store(value, current);
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::SetIntegerAdjustment(long index, long value) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    if (auto combined = DriverInterface<IKAdjustments>(IID_IKAdjustments)) {
        combined->SetIntegerValue(NarrowToInt32(index), value);
    } else if (auto integer = DriverInterface<IKIntegerAdjustments>(IID_IKIntegerAdjustments)) {
        integer->SetValue(NarrowToInt32(index), value);
    } else {
        return SetError(eKErrNoAdjustmentsInterface);
    }
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::GetDoubleAdjustment(long index, double* value) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    double current = 0;
    if (auto combined = DriverInterface<IKAdjustments>(IID_IKAdjustments)) {
        combined->GetDoubleValue(NarrowToInt32(index), &current);
    } else if (auto real = DriverInterface<IKDoubleAdjustments>(IID_IKDoubleAdjustments)) {
        real->GetValue(NarrowToInt32(index), &current);
    } else {
        return SetError(eKErrNoAdjustmentsInterface);
    }
    Store(value, current);
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::SetDoubleAdjustment(long index, double value) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    if (auto combined = DriverInterface<IKAdjustments>(IID_IKAdjustments)) {
        combined->SetDoubleValue(NarrowToInt32(index), value);
    } else if (auto real = DriverInterface<IKDoubleAdjustments>(IID_IKDoubleAdjustments)) {
        real->SetValue(NarrowToInt32(index), value);
    } else {
        return SetError(eKErrNoAdjustmentsInterface);
    }
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::GetAutomaticAdjustment(long index, int* automatic) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    int32_t current = 0;
    const int32_t abiIndex = NarrowToInt32(index);
    if (auto combined = DriverInterface<IKAdjustments>(IID_IKAdjustments)) {
        combined->GetAutomatic(abiIndex, &current);
    } else if (auto integer = DriverInterface<IKIntegerAdjustments>(IID_IKIntegerAdjustments)) {
        integer->GetAutomatic(abiIndex, &current);
    } else if (auto real = DriverInterface<IKDoubleAdjustments>(IID_IKDoubleAdjustments)) {
        real->GetAutomatic(abiIndex, &current);
    } else {
        return SetError(eKErrNoAdjustmentsInterface);
    }
    Store(automatic, current);
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::SetAutomaticAdjustment(long index, int automatic) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    const int32_t abiIndex = NarrowToInt32(index);
    if (auto combined = DriverInterface<IKAdjustments>(IID_IKAdjustments)) {
        combined->SetAutomatic(abiIndex, automatic);
    } else if (auto integer = DriverInterface<IKIntegerAdjustments>(IID_IKIntegerAdjustments)) {
        integer->SetAutomatic(abiIndex, automatic);
    } else if (auto real = DriverInterface<IKDoubleAdjustments>(IID_IKDoubleAdjustments)) {
        real->SetAutomatic(abiIndex, automatic);
    } else {
        return SetError(eKErrNoAdjustmentsInterface);
    }
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::OneShotAdjustment(long index) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    auto combined = DriverInterface<IKAdjustments>(IID_IKAdjustments);
    if (!combined) return SetError(eKErrNoAdjustmentsInterface);
    combined->OneShot(NarrowToInt32(index));
    return SetError(eKErrSuccess);
}

}  // namespace kestor
