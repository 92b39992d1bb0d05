// `kestor features`: what a driver offers: its advanced-settings features by category, with
// type, access and value, then its adjustments and named settings.
#include <cstdio>

#include "Commands.h"
#include "DriverSettingsFile.h"
#include "GrabFeatures.h"
#include "KGrab.h"
#include "KUtils.h"

namespace kestor::tool {
namespace {

const char* TypeName(eAdvanceSettingsFeatureType type) {
    switch (type) {
        case eAdvanceSettingsInteger:
            return "integer";
        case eAdvanceSettingsDouble:
            return "double";
        case eAdvanceSettingsBool:
            return "bool";
        case eAdvanceSettingsEnumeration:
            return "enumeration";
        case eAdvanceSettingsCommand:
            return "command";
    }
    return "?";
}

std::string Text(const KChar* name) {
    return KWideToUtf8(name);
}

void PrintFeatures(KGrabModule& module) {
    long categories = 0;
    if (!module.GetCategoriesCount(&categories)) {
        std::printf("No advanced-settings features.\n");
        return;
    }
    for (long c = 0; c < categories; ++c) {
        long id = 0, count = 0;
        KChar name[kKMaxNameLength] = {};
        module.GetCategoriesCap(c, &id, name);
        module.GetFeatureCount(c, &count);
        std::printf("%s\n", Text(name).c_str());
        for (long f = 0; f < count; ++f) {
            eAdvanceSettingsFeatureType type{};
            eAdvanceSettingsLevel level{};
            int writable = 0;
            module.GetFeatureCap(c, f, &id, name, &type, &level);
            module.Accessible(c, f, &writable);
            const std::string feature = Text(name);
            std::string value;
            GetFeatureText(module, feature, value);
            std::printf("  %-32s %-12s %-3s %s", feature.c_str(), TypeName(type),
                        writable ? "rw" : "ro", value.c_str());
            if (type == eAdvanceSettingsEnumeration) {
                long entries = 0;
                module.GetEnumFeatureValueCount(c, f, &entries);
                std::printf("  {");
                for (long e = 0; e < entries; ++e) {
                    long entryValue = 0;
                    KChar entry[kKMaxNameLength] = {};
                    module.GetEnumFeatureValueCap(c, f, e, entry, &entryValue);
                    std::printf("%s%s=%ld", e ? ", " : "", Text(entry).c_str(), entryValue);
                }
                std::printf("}");
            } else if (type == eAdvanceSettingsInteger) {
                long min = 0, max = 0;
                if (module.GetIntegerFeatureCap(c, f, &min, &max))
                    std::printf("  [%ld, %ld]", min, max);
            } else if (type == eAdvanceSettingsDouble) {
                double min = 0, max = 0;
                if (module.GetDoubleFeatureCap(c, f, &min, &max))
                    std::printf("  [%g, %g]", min, max);
            }
            std::printf("\n");
        }
    }
}

void PrintAdjustments(KGrabModule& module) {
    long count = 0;
    if (!module.GetAdjustmentCount(&count) || count == 0) return;
    std::printf("Adjustments\n");
    for (long i = 0; i < count; ++i) {
        long id = 0, intMin = 0, intMax = 0;
        double doubleMin = 0, doubleMax = 0;
        int isInteger = 0, hasAuto = 0, isDouble = 0, hasOneShot = 0, readOnly = 0, automatic = 0;
        KChar name[kKMaxNameLength] = {};
        module.GetAdjustmentCaps(i, &id, name, &intMin, &intMax, &doubleMin, &doubleMax, &isInteger,
                                 &hasAuto, &isDouble, &hasOneShot, &readOnly);
        module.GetAutomaticAdjustment(i, &automatic);
        if (isDouble) {
            double value = 0;
            module.GetDoubleAdjustment(i, &value);
            std::printf("  %-32s %-12g [%g, %g]", Text(name).c_str(), value, doubleMin, doubleMax);
        } else {
            long value = 0;
            module.GetIntegerAdjustment(i, &value);
            std::printf("  %-32s %-12ld [%ld, %ld]", Text(name).c_str(), value, intMin, intMax);
        }
        std::printf("%s%s%s\n", hasAuto ? (automatic ? "  auto: on" : "  auto: off") : "",
                    hasOneShot ? "  one-shot" : "", readOnly ? "  read only" : "");
    }
}

void PrintSettings(KGrabModule& module) {
    long count = 0;
    if (!module.GetSettingsCount(&count) || count == 0) return;
    std::printf("Settings\n");
    for (long s = 0; s < count; ++s) {
        long unused = 0, values = 0, current = 0;
        KChar name[kKMaxNameLength] = {};
        module.GetSettingsCaps(s, name, &unused);
        module.GetValuesCount(s, &values);
        module.GetCurrentValues(s, &current);
        std::printf("  %-32s", Text(name).c_str());
        for (long v = 0; v < values; ++v) {
            KChar value[kKMaxNameLength] = {};
            module.GetValuesCaps(s, v, value, &unused);
            std::printf("%s%s%s%s", v ? ", " : " ", v == current ? "[" : "", Text(value).c_str(),
                        v == current ? "]" : "");
        }
        std::printf("\n");
    }
}

}  // namespace

int RunFeatures(const GrabOptions& options) {
    const eKSupportedModule driver = KGrabModule::FindDriverByKey(options.driver.c_str());
    if (driver == eKModuleNone) {
        std::fprintf(stderr, "kestor features: unknown driver \"%s\"\n", options.driver.c_str());
        return 2;
    }
    KGrabModule module;
    module.SetErrorOutput(false, false, false);
    TemporarySettingsFile cameraSettings;
    if (!options.camera.empty() && !cameraSettings.Write(driver, "Camera", options.camera)) {
        std::fprintf(stderr, "kestor features: cannot write a temporary settings file\n");
        return 1;
    }
    const std::string file = options.camera.empty() ? std::string() : cameraSettings.Path();
    if (!module.Load(driver, options.company.c_str(), false, file.empty() ? nullptr : file.c_str(),
                     false)) {
        std::fprintf(stderr, "kestor features: cannot load the %s driver: %s\n",
                     options.driver.c_str(),
                     KWideToUtf8(KErrorManager::GetErrorString(module.GetLastError())).c_str());
        return 1;
    }
    std::printf("%u x %u, %u bits (%u significant), %s\n", module.GetImageWidth(),
                module.GetImageHeight(), module.GetImageBitDepth(), module.GetImageBitDepthReal(),
                KWideToUtf8(KImageFormatString(module.GetImageFormat())).c_str());
    PrintFeatures(module);
    PrintAdjustments(module);
    PrintSettings(module);
    return 0;
}

}  // namespace kestor::tool
