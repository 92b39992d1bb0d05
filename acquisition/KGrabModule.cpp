// The public grab module handle: forwards every call to its CKestorGrabModule.
//
// Unlike other handles it does not hold the handle lock during a call: streaming callbacks
// and driver notifications call back into the module from other threads while the
// application thread waits in StopStreaming or Unload, and the module takes no lock of its
// own (its implementation object is created once and lives as long as the handle).
#include <new>

#include "KGrab.h"
#include "acquisition/CKestorGrabModule.h"
#include "acquisition/DriverCatalogue.h"
#include "core/HandleCore.h"
#include "platform/WideString.h"

using kestor::CKestorGrabModule;

namespace {

template <class Result, class Call>
Result Forward(kestor::HandleCore& core, Result fallback, Call&& call) {
    CKestorGrabModule* module = core.As<CKestorGrabModule>();
    if (module == nullptr) return fallback;
    try {
        return call(*module);
    } catch (const std::bad_alloc&) {
        return fallback;
    }
}

}  // namespace

#define KESTOR_FORWARD(fallback, expression) \
    Forward(Core(), fallback, [&](CKestorGrabModule& m) { return m.expression; })

KGrabModule::KGrabModule() {
    try {
        Core().SetImplementation(std::make_unique<CKestorGrabModule>());
    } catch (const std::bad_alloc&) {
        // Left without an implementation: every call answers false, 0 or null.
    }
}

KGrabModule::~KGrabModule() = default;

CKestorGrabModule& KGrabModule::Impl() {
    return *Core().As<CKestorGrabModule>();
}

// --- drivers ---------------------------------------------------------------------------------

bool KGrabModule::Load(eKSupportedModule module, const KChar* company, bool showErrorBox) {
    return KESTOR_FORWARD(false, Load(module, company, false, nullptr, showErrorBox));
}

bool KGrabModule::Load(eKSupportedModule module, const KChar* company, bool resetSettings,
                       const KChar* settingsFile, bool showErrorBox) {
    return KESTOR_FORWARD(false, Load(module, company, resetSettings, settingsFile, showErrorBox));
}

bool KGrabModule::Load(eKSupportedModule module, const char* utf8Company, bool showErrorBox) {
    return Load(module, utf8Company, false, nullptr, showErrorBox);
}

bool KGrabModule::Load(eKSupportedModule module, const char* utf8Company, bool resetSettings,
                       const char* utf8SettingsFile, bool showErrorBox) {
    return Forward(Core(), false, [&](CKestorGrabModule& m) {
        const kestor::WideString company = kestor::Utf8ToWide(utf8Company ? utf8Company : "");
        const kestor::WideString file =
            kestor::Utf8ToWide(utf8SettingsFile ? utf8SettingsFile : "");
        return m.Load(module, company.c_str(), resetSettings,
                      utf8SettingsFile != nullptr ? file.c_str() : nullptr, showErrorBox);
    });
}

bool KGrabModule::Unload() {
    return KESTOR_FORWARD(false, Unload());
}

eKSupportedModule KGrabModule::GetCurrentGrabber() {
    return KESTOR_FORWARD(eKModuleNone, GetCurrentGrabber());
}

unsigned int KGrabModule::GetDriverCount(bool installedOnly) {
    return KESTOR_FORWARD(0u, GetDriverCount(installedOnly));
}

const KChar* KGrabModule::GetDriverInfo(unsigned int index, eKSupportedModule* module,
                                        bool installedOnly) {
    return KESTOR_FORWARD(static_cast<const KChar*>(nullptr),
                          GetDriverInfo(index, module, installedOnly));
}

const KChar* KGrabModule::GetDriverInfo(eKSupportedModule module, bool installedOnly) {
    return KESTOR_FORWARD(static_cast<const KChar*>(nullptr), GetDriverInfo(module, installedOnly));
}

const char* KGrabModule::GetDriverKey(eKSupportedModule module) {
    const kestor::DriverCatalogueEntry* entry = kestor::FindCatalogueEntry(module);
    return entry != nullptr ? entry->key : nullptr;
}

eKSupportedModule KGrabModule::FindDriverByKey(const char* key) {
    const kestor::DriverCatalogueEntry* entry = kestor::FindCatalogueEntryByKey(key);
    return entry != nullptr ? entry->module : eKModuleNone;
}

// --- image description -----------------------------------------------------------------------

unsigned int KGrabModule::GetImageWidth() {
    return KESTOR_FORWARD(0u, Description().width);
}

unsigned int KGrabModule::GetImageHeight() {
    return KESTOR_FORWARD(0u, Description().height);
}

unsigned int KGrabModule::GetImageBitDepth() {
    return KESTOR_FORWARD(0u, Description().bitDepth);
}

unsigned int KGrabModule::GetImageBitDepthReal() {
    return KESTOR_FORWARD(0u, Description().bitDepthReal);
}

unsigned int KGrabModule::GetImageSizeBytes() {
    return KESTOR_FORWARD(0u, Description().sizeBytes);
}

eKImageFormat KGrabModule::GetImageFormat() {
    return Forward(Core(), eKFormatUnknown, [](CKestorGrabModule& m) {
        return static_cast<eKImageFormat>(m.Description().format);
    });
}

bool KGrabModule::GetBayerPattern(eKBayerPatternOrigin& origin) {
    return KESTOR_FORWARD(false, GetBayerPattern(origin));
}

// --- geometry and buffers --------------------------------------------------------------------

bool KGrabModule::ShowProperties(KWindowHandle parent) {
    return KESTOR_FORWARD(false, ShowProperties(parent));
}

bool KGrabModule::SetROI(unsigned int x, unsigned int y, unsigned int width, unsigned int height) {
    return KESTOR_FORWARD(false, SetROI(x, y, width, height));
}

bool KGrabModule::GetROI(unsigned int& x, unsigned int& y, unsigned int& width,
                         unsigned int& height) {
    return KESTOR_FORWARD(false, GetROI(x, y, width, height));
}

bool KGrabModule::SetBinning(unsigned int binning) {
    return KESTOR_FORWARD(false, SetBinning(binning));
}

bool KGrabModule::GetBinning(unsigned int& binning) {
    return KESTOR_FORWARD(false, GetBinning(binning));
}

bool KGrabModule::SetBufferCount(unsigned int count) {
    return KESTOR_FORWARD(false, SetBufferCount(count));
}

unsigned int KGrabModule::GetBufferCount() {
    return KESTOR_FORWARD(0u, GetBufferCount());
}

long KGrabModule::GetBufferUsage() {
    return KESTOR_FORWARD(0xFFFFFFFFL, GetBufferUsage());
}

long KGrabModule::GetMaxBufferUsage() {
    return KESTOR_FORWARD(0xFFFFFFFFL, GetMaxBufferUsage());
}

long KGrabModule::GetTotalBufferCount() {
    return KESTOR_FORWARD(0xFFFFFFFFL, GetTotalBufferCount());
}

bool KGrabModule::GetFrameCounters(uint64_t& delivered, uint64_t& lost, uint64_t& incomplete) {
    return KESTOR_FORWARD(false, GetFrameCounters(delivered, lost, incomplete));
}

bool KGrabModule::QueryGrabber(long query, long* result) {
    return KESTOR_FORWARD(false, QueryGrabber(query, result));
}

// --- settings file ---------------------------------------------------------------------------

bool KGrabModule::ExportGrabberSettings(const KChar* file) {
    return KESTOR_FORWARD(false, ExportGrabberSettings(kestor::WideToUtf8(file)));
}

bool KGrabModule::ExportGrabberSettings(const char* utf8File) {
    return KESTOR_FORWARD(false, ExportGrabberSettings(utf8File != nullptr ? utf8File : ""));
}

// --- advanced-settings window ----------------------------------------------------------------

bool KGrabModule::IsSupportAdvanceSettings() {
    return KESTOR_FORWARD(false, IsSupportAdvanceSettings());
}

bool KGrabModule::DoModalAdvanceSettingsWindow() {
    return KESTOR_FORWARD(false, DoModalAdvanceSettingsWindow());
}

bool KGrabModule::CreateAdvanceSettingsWindow(KWindowHandle parent) {
    return KESTOR_FORWARD(false, CreateAdvanceSettingsWindow(parent));
}

bool KGrabModule::ReSizeAdvanceSettingsWindow(int x, int y, int width, int height) {
    return KESTOR_FORWARD(false, ReSizeAdvanceSettingsWindow(x, y, width, height));
}

bool KGrabModule::ShowAdvanceSettingsWindow(bool show) {
    return KESTOR_FORWARD(false, ShowAdvanceSettingsWindow(show));
}

bool KGrabModule::CloseAdvanceSettingsWindow() {
    return KESTOR_FORWARD(false, CloseAdvanceSettingsWindow());
}

KIODriver* KGrabModule::GetIODriver() {
    return KESTOR_FORWARD(static_cast<KIODriver*>(nullptr), GetIODriver());
}

KVideoOutputDriver* KGrabModule::GetVideoOutputDriver() {
    return KESTOR_FORWARD(static_cast<KVideoOutputDriver*>(nullptr), GetVideoOutputDriver());
}

// --- streaming -------------------------------------------------------------------------------

bool KGrabModule::StartStreaming() {
    return KESTOR_FORWARD(false, StartStreaming());
}

bool KGrabModule::StopStreaming() {
    return KESTOR_FORWARD(false, StopStreaming());
}

bool KGrabModule::IsStreaming() {
    return KESTOR_FORWARD(false, IsStreaming());
}

bool KGrabModule::SetCallbacks(KGrabCallbacks* callbacks, unsigned int id, void* context) {
    return KESTOR_FORWARD(false, SetCallbacks(callbacks, id, context));
}

// --- settings --------------------------------------------------------------------------------

bool KGrabModule::GetSettingsCount(long* count) {
    return KESTOR_FORWARD(false, GetSettingsCount(count));
}

bool KGrabModule::GetValuesCount(long setting, long* count) {
    return KESTOR_FORWARD(false, GetValuesCount(setting, count));
}

bool KGrabModule::GetSettingsCaps(long setting, KChar* name, long* value) {
    return KESTOR_FORWARD(false, GetSettingsCaps(setting, name, value));
}

bool KGrabModule::GetValuesCaps(long setting, long value, KChar* name, long* result) {
    return KESTOR_FORWARD(false, GetValuesCaps(setting, value, name, result));
}

bool KGrabModule::GetCurrentValues(long setting, long* value) {
    return KESTOR_FORWARD(false, GetCurrentValues(setting, value));
}

bool KGrabModule::SetCurrentValues(long setting, long value) {
    return KESTOR_FORWARD(false, SetCurrentValues(setting, value));
}

// --- adjustments -----------------------------------------------------------------------------

bool KGrabModule::GetAdjustmentCount(long* count) {
    return KESTOR_FORWARD(false, GetAdjustmentCount(count));
}

bool KGrabModule::GetAdjustmentCaps(long index, long* id, KChar* name, long* intMin, long* intMax,
                                    double* doubleMin, double* doubleMax, int* flag1, int* flag2,
                                    int* flag3, int* flag4, int* flag5) {
    return KESTOR_FORWARD(false, GetAdjustmentCaps(index, id, name, intMin, intMax, doubleMin,
                                                   doubleMax, flag1, flag2, flag3, flag4, flag5));
}

bool KGrabModule::GetIntegerAdjustment(long index, long* value) {
    return KESTOR_FORWARD(false, GetIntegerAdjustment(index, value));
}

bool KGrabModule::SetIntegerAdjustment(long index, long value) {
    return KESTOR_FORWARD(false, SetIntegerAdjustment(index, value));
}

bool KGrabModule::GetDoubleAdjustment(long index, double* value) {
    return KESTOR_FORWARD(false, GetDoubleAdjustment(index, value));
}

bool KGrabModule::SetDoubleAdjustment(long index, double value) {
    return KESTOR_FORWARD(false, SetDoubleAdjustment(index, value));
}

bool KGrabModule::GetAutomaticAdjustment(long index, int* automatic) {
    return KESTOR_FORWARD(false, GetAutomaticAdjustment(index, automatic));
}

bool KGrabModule::SetAutomaticAdjustment(long index, int automatic) {
    return KESTOR_FORWARD(false, SetAutomaticAdjustment(index, automatic));
}

bool KGrabModule::OneShotAdjustment(long index) {
    return KESTOR_FORWARD(false, OneShotAdjustment(index));
}

// --- advanced-settings features --------------------------------------------------------------

bool KGrabModule::GetCategoriesCount(long* count) {
    return KESTOR_FORWARD(false, GetCategoriesCount(count));
}

bool KGrabModule::GetCategoriesCap(long index, long* id, KChar* name) {
    return KESTOR_FORWARD(false, GetCategoriesCap(index, id, name));
}

bool KGrabModule::GetFeatureCount(long category, long* count) {
    return KESTOR_FORWARD(false, GetFeatureCount(category, count));
}

bool KGrabModule::GetFeatureCap(long category, long index, long* id, KChar* name,
                                eAdvanceSettingsFeatureType* type, eAdvanceSettingsLevel* level) {
    return KESTOR_FORWARD(false, GetFeatureCap(category, index, id, name, type, level));
}

bool KGrabModule::Accessible(long category, long feature, int* accessible) {
    return KESTOR_FORWARD(false, Accessible(category, feature, accessible));
}

bool KGrabModule::GetEnumFeatureValueCount(long category, long feature, long* count) {
    return KESTOR_FORWARD(false, GetEnumFeatureValueCount(category, feature, count));
}

bool KGrabModule::GetEnumFeatureValueCap(long category, long feature, long index, KChar* name,
                                         long* value) {
    return KESTOR_FORWARD(false, GetEnumFeatureValueCap(category, feature, index, name, value));
}

bool KGrabModule::GetEnumFeatureValue(long category, long feature, long* value) {
    return KESTOR_FORWARD(false, GetEnumFeatureValue(category, feature, value));
}

bool KGrabModule::SetEnumFeatureValue(long category, long feature, long value) {
    return KESTOR_FORWARD(false, SetEnumFeatureValue(category, feature, value));
}

bool KGrabModule::GetIntegerFeatureCap(long category, long feature, long* min, long* max) {
    return KESTOR_FORWARD(false, GetIntegerFeatureCap(category, feature, min, max));
}

bool KGrabModule::GetIntegerFeatureValue(long category, long feature, long* value) {
    return KESTOR_FORWARD(false, GetIntegerFeatureValue(category, feature, value));
}

bool KGrabModule::SetIntegerFeatureValue(long category, long feature, long value) {
    return KESTOR_FORWARD(false, SetIntegerFeatureValue(category, feature, value));
}

bool KGrabModule::GetDoubleFeatureCap(long category, long feature, double* min, double* max) {
    return KESTOR_FORWARD(false, GetDoubleFeatureCap(category, feature, min, max));
}

bool KGrabModule::GetDoubleFeatureValue(long category, long feature, double* value) {
    return KESTOR_FORWARD(false, GetDoubleFeatureValue(category, feature, value));
}

bool KGrabModule::SetDoubleFeatureValue(long category, long feature, double value) {
    return KESTOR_FORWARD(false, SetDoubleFeatureValue(category, feature, value));
}

bool KGrabModule::GetBoolFeatureValue(long category, long feature, int* value) {
    return KESTOR_FORWARD(false, GetBoolFeatureValue(category, feature, value));
}

bool KGrabModule::SetBoolFeatureValue(long category, long feature, int value) {
    return KESTOR_FORWARD(false, SetBoolFeatureValue(category, feature, value));
}

bool KGrabModule::ExecuteCommandFeature(long category, long feature) {
    return KESTOR_FORWARD(false, ExecuteCommandFeature(category, feature));
}

// --- serial port -----------------------------------------------------------------------------

bool KGrabModule::IsCOMPortAvailable() {
    return KESTOR_FORWARD(false, IsCOMPortAvailable());
}

bool KGrabModule::Transmit(void* data, unsigned long* count, unsigned long timeoutMs) {
    return KESTOR_FORWARD(false, Transmit(data, count, timeoutMs));
}

bool KGrabModule::Receive(void* data, unsigned long* count, unsigned long timeoutMs) {
    return KESTOR_FORWARD(false, Receive(data, count, timeoutMs));
}

bool KGrabModule::GetEndChar(long* endChar) {
    return KESTOR_FORWARD(false, GetEndChar(endChar));
}

bool KGrabModule::GetTextMode(long* textMode) {
    return KESTOR_FORWARD(false, GetTextMode(textMode));
}

bool KGrabModule::GetProgFolder(KChar* folder) {
    return KESTOR_FORWARD(false, GetProgFolder(folder));
}

bool KGrabModule::GetSavedProgFolder(KChar* folder) {
    return KESTOR_FORWARD(false, GetSavedProgFolder(folder));
}

bool KGrabModule::GetCommunicationType(long* type) {
    return KESTOR_FORWARD(false, GetCommunicationType(type));
}

// --- time source and GPS ---------------------------------------------------------------------

KTimeSourceSyncStatus KGrabModule::GetTimeSourceSyncStatus() {
    return KESTOR_FORWARD(eKTimeSourceNone, GetTimeSourceSyncStatus());
}

bool KGrabModule::IsGPSSupported() {
    return KESTOR_FORWARD(false, IsGPSSupported());
}

bool KGrabModule::GetGPSData(CGPSDataStruct* data, bool flag) {
    return KESTOR_FORWARD(false, GetGPSData(data, flag));
}

bool KGrabModule::StopReadingGPSData() {
    return KESTOR_FORWARD(false, StopReadingGPSData());
}
