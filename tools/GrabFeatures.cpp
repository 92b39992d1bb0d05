#include "GrabFeatures.h"

#include <strings.h>

#include <cctype>
#include <cstdlib>

#include "KUtils.h"

namespace kestor::tool {
namespace {

struct FeatureRef {
    long category = -1, feature = -1;
    eAdvanceSettingsFeatureType type = eAdvanceSettingsInteger;
};

std::string NameText(const KChar* name) {
    return KWideToUtf8(name);
}

bool FindFeature(KGrabModule& module, const std::string& wanted, FeatureRef& found) {
    long categories = 0;
    if (!module.GetCategoriesCount(&categories)) return false;
    for (long c = 0; c < categories; ++c) {
        long features = 0;
        if (!module.GetFeatureCount(c, &features)) continue;
        for (long f = 0; f < features; ++f) {
            long id = 0;
            KChar name[kKMaxNameLength] = {};
            eAdvanceSettingsFeatureType type{};
            eAdvanceSettingsLevel level{};
            if (module.GetFeatureCap(c, f, &id, name, &type, &level) &&
                strcasecmp(NameText(name).c_str(), wanted.c_str()) == 0) {
                found = {c, f, type};
                return true;
            }
        }
    }
    return false;
}

// Enumeration entries match ignoring case, spaces, '-' and '_': "Mono8" selects "Mono 8".
std::string Folded(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c != ' ' && c != '-' && c != '_') out += static_cast<char>(std::tolower(c));
    }
    return out;
}

bool ParseLong(const std::string& text, long& value) {
    char* end = nullptr;
    value = std::strtol(text.c_str(), &end, 0);
    return !text.empty() && end && *end == 0;
}

bool ParseBool(const std::string& text, int& value) {
    for (const char* yes : {"1", "true", "on", "yes"}) {
        if (strcasecmp(text.c_str(), yes) == 0) return value = 1, true;
    }
    for (const char* no : {"0", "false", "off", "no"}) {
        if (strcasecmp(text.c_str(), no) == 0) return value = 0, true;
    }
    return false;
}

bool EnumValue(KGrabModule& module, const FeatureRef& ref, const std::string& text, long& value) {
    long count = 0;
    module.GetEnumFeatureValueCount(ref.category, ref.feature, &count);
    for (long i = 0; i < count; ++i) {
        KChar name[kKMaxNameLength] = {};
        long entryValue = 0;
        if (module.GetEnumFeatureValueCap(ref.category, ref.feature, i, name, &entryValue) &&
            Folded(NameText(name)) == Folded(text)) {
            value = entryValue;
            return true;
        }
    }
    return ParseLong(text, value);
}

// Adjustments are the other place a driver lists its controls (a camera's frame rate may live
// only there); names match as enumeration entries do.
struct AdjustmentRef {
    long index = -1;
    bool isDouble = false;
};

bool FindAdjustment(KGrabModule& module, const std::string& wanted, AdjustmentRef& found) {
    long count = 0;
    if (!module.GetAdjustmentCount(&count)) return false;
    for (long i = 0; i < count; ++i) {
        long id = 0, intMin = 0, intMax = 0;
        double doubleMin = 0, doubleMax = 0;
        int isInteger = 0, hasAuto = 0, isDouble = 0, hasOneShot = 0, readOnly = 0;
        KChar name[kKMaxNameLength] = {};
        if (module.GetAdjustmentCaps(i, &id, name, &intMin, &intMax, &doubleMin, &doubleMax,
                                     &isInteger, &hasAuto, &isDouble, &hasOneShot, &readOnly) &&
            Folded(NameText(name)) == Folded(wanted)) {
            found = {i, isDouble != 0};
            return true;
        }
    }
    return false;
}

bool SetAdjustment(KGrabModule& module, const AdjustmentRef& ref, const std::string& name,
                   const std::string& text, std::string& why) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || end == nullptr || *end != 0) {
        why = "\"" + text + "\" is not a valid value for " + name;
        return false;
    }
    const bool ok = ref.isDouble ? module.SetDoubleAdjustment(ref.index, value)
                                 : module.SetIntegerAdjustment(ref.index, static_cast<long>(value));
    if (!ok) why = "the driver refused " + name + "=" + text;
    return ok;
}

}  // namespace

bool SetFeature(KGrabModule& module, const std::string& assignment, std::string& why) {
    const size_t equals = assignment.find('=');
    const std::string name = assignment.substr(0, equals);
    const std::string text = equals == std::string::npos ? "" : assignment.substr(equals + 1);
    FeatureRef ref;
    if (!FindFeature(module, name, ref)) {
        AdjustmentRef adjustment;
        if (FindAdjustment(module, name, adjustment))
            return SetAdjustment(module, adjustment, name, text, why);
        why = "the driver has no feature \"" + name + "\"";
        return false;
    }
    bool ok = false, parsed = true;
    switch (ref.type) {
        case eAdvanceSettingsInteger: {
            long value = 0;
            parsed = ParseLong(text, value);
            ok = parsed && module.SetIntegerFeatureValue(ref.category, ref.feature, value);
            break;
        }
        case eAdvanceSettingsDouble: {
            char* end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            parsed = !text.empty() && end && *end == 0;
            ok = parsed && module.SetDoubleFeatureValue(ref.category, ref.feature, value);
            break;
        }
        case eAdvanceSettingsBool: {
            int value = 0;
            parsed = ParseBool(text, value);
            ok = parsed && module.SetBoolFeatureValue(ref.category, ref.feature, value);
            break;
        }
        case eAdvanceSettingsEnumeration: {
            long value = 0;
            parsed = EnumValue(module, ref, text, value);
            ok = parsed && module.SetEnumFeatureValue(ref.category, ref.feature, value);
            break;
        }
        case eAdvanceSettingsCommand:
            ok = module.ExecuteCommandFeature(ref.category, ref.feature);
            break;
    }
    if (!parsed) {
        why = "\"" + text + "\" is not a valid value for " + name;
    } else if (!ok) {
        why = "the driver refused " + assignment;
    }
    // The module records 0 once the interface exists: read the value back to be sure.
    if (ok && ref.type != eAdvanceSettingsCommand) {
        std::string now;
        if (GetFeatureText(module, name, now) && ref.type == eAdvanceSettingsInteger) {
            long wanted = 0, got = 0;
            if (ParseLong(text, wanted) && ParseLong(now, got) && wanted != got) {
                why = "the driver kept " + name + "=" + now;
                return false;
            }
        }
    }
    return ok;
}

bool GetFeatureText(KGrabModule& module, const std::string& name, std::string& value) {
    FeatureRef ref;
    char text[64] = {};
    if (!FindFeature(module, name, ref)) {
        AdjustmentRef adjustment;
        if (!FindAdjustment(module, name, adjustment)) return false;
        if (adjustment.isDouble) {
            double v = 0;
            module.GetDoubleAdjustment(adjustment.index, &v);
            snprintf(text, sizeof text, "%g", v);
        } else {
            long v = 0;
            module.GetIntegerAdjustment(adjustment.index, &v);
            snprintf(text, sizeof text, "%ld", v);
        }
        value = text;
        return true;
    }
    switch (ref.type) {
        case eAdvanceSettingsInteger: {
            long v = 0;
            module.GetIntegerFeatureValue(ref.category, ref.feature, &v);
            snprintf(text, sizeof text, "%ld", v);
            break;
        }
        case eAdvanceSettingsDouble: {
            double v = 0;
            module.GetDoubleFeatureValue(ref.category, ref.feature, &v);
            snprintf(text, sizeof text, "%g", v);
            break;
        }
        case eAdvanceSettingsBool: {
            int v = 0;
            module.GetBoolFeatureValue(ref.category, ref.feature, &v);
            snprintf(text, sizeof text, "%d", v);
            break;
        }
        case eAdvanceSettingsEnumeration: {
            long v = 0;
            module.GetEnumFeatureValue(ref.category, ref.feature, &v);
            snprintf(text, sizeof text, "%ld", v);
            long count = 0;  // the entry's name reads better than its number
            module.GetEnumFeatureValueCount(ref.category, ref.feature, &count);
            for (long i = 0; i < count; ++i) {
                KChar entry[kKMaxNameLength] = {};
                long entryValue = 0;
                if (module.GetEnumFeatureValueCap(ref.category, ref.feature, i, entry,
                                                  &entryValue) &&
                    entryValue == v) {
                    value = NameText(entry);
                    return true;
                }
            }
            break;
        }
        case eAdvanceSettingsCommand:
            break;
    }
    value = text;
    return true;
}

}  // namespace kestor::tool
