// Construction, the driver lists, the image description, geometry, buffers and the settings
// export of the grab module.
#include "acquisition/CKestorGrabModule.h"

#include "acquisition/SettingsXml.h"

namespace kestor {

namespace {

// What the buffer statistics report when the driver keeps none.
constexpr long kNoStatistics = 0xFFFFFFFFL;

// Names handed out outlive the module: they are the catalogue's own texts.
const KChar* StaticName(const DriverListEntry& entry) {
    const DriverCatalogueEntry* catalogued = FindCatalogueEntry(entry.module);
    return catalogued != nullptr ? catalogued->name : entry.name;
}

}  // namespace

CKestorGrabModule::CKestorGrabModule()
    : installedDrivers_(InstalledDriverList()),
      supportedDrivers_(SupportedDriverList()),
      advancedSettings_(std::make_unique<CAdvSettingsWrapper>()) {}

CKestorGrabModule::~CKestorGrabModule() {
    Unload();
    JoinFinishedThreads();
}

unsigned int CKestorGrabModule::GetDriverCount(bool installedOnly) const {
    return static_cast<unsigned int>(installedOnly ? installedDrivers_.size()
                                                   : supportedDrivers_.size());
}

const KChar* CKestorGrabModule::GetDriverInfo(unsigned int index, eKSupportedModule* module,
                                              bool installedOnly) const {
    const std::vector<DriverListEntry>& list =
        installedOnly ? installedDrivers_ : supportedDrivers_;
    if (index >= list.size()) return nullptr;
    if (module != nullptr) *module = list[index].module;
    return StaticName(list[index]);
}

const KChar* CKestorGrabModule::GetDriverInfo(eKSupportedModule module, bool installedOnly) const {
    const std::vector<DriverListEntry>& list =
        installedOnly ? installedDrivers_ : supportedDrivers_;
    for (const DriverListEntry& entry : list) {
        if (entry.module == module) return StaticName(entry);
    }
    return nullptr;
}

KImageDescription CKestorGrabModule::Description() const {
    std::lock_guard lock(descriptionMutex_);
    return description_;
}

void CKestorGrabModule::RefreshDescription() {
    KImageDescription fresh;
    if (auto format = DriverInterface<IKImageFormat>(IID_IKImageFormat)) {
        uint32_t left = 0, top = 0;
        format->GetImageSize(&fresh.width, &fresh.height, &left, &top);
        format->GetImageSizeBytes(&fresh.sizeBytes);
        format->GetBitDepth(&fresh.bitDepth);
        format->GetRealBitDepth(&fresh.bitDepthReal);
        format->GetImageFormat(&fresh.format);
    }
    std::lock_guard lock(descriptionMutex_);
    description_ = fresh;
}

bool CKestorGrabModule::GetBayerPattern(eKBayerPatternOrigin& origin) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    if (!frameInfo_) return SetError(eKErrUnsupportedFeature);
    uint32_t value = 0;
    if (KFailed(frameInfo_->GetBayerOrigin(&value))) return SetError(eKErrUnsupportedFeature);
    origin = static_cast<eKBayerPatternOrigin>(value);
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::ShowProperties(KWindowHandle parent) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    grabber_->ShowProperties(parent, IsStreaming() ? 1 : 0);
    RefreshDescription();
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::SetROI(unsigned int x, unsigned int y, unsigned int width,
                               unsigned int height) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    if (IsStreaming()) return SetError(eKErrGrabberStreaming);
    auto format = DriverInterface<IKImageFormat>(IID_IKImageFormat);
    if (!format) return SetError(eKErrUnsupportedFeature);
    format->SetImageSize(width, height, x, y);  // size first, offsets last
    RefreshDescription();
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::GetROI(unsigned int& x, unsigned int& y, unsigned int& width,
                               unsigned int& height) {
    x = y = width = height = 0;
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    auto format = DriverInterface<IKImageFormat>(IID_IKImageFormat);
    if (!format) return SetError(eKErrUnsupportedFeature);
    uint32_t w = 0, h = 0, left = 0, top = 0;
    format->GetImageSize(&w, &h, &left, &top);
    x = left;
    y = top;
    width = w;
    height = h;
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::SetBinning(unsigned int binning) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    if (IsStreaming()) return SetError(eKErrGrabberStreaming);
    auto binningInterface = DriverInterface<IKBinning>(IID_IKBinning);
    if (!binningInterface) return SetError(eKErrUnsupportedFeature);
    binningInterface->SetBinning(binning);
    RefreshDescription();
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::GetBinning(unsigned int& binning) {
    binning = 1;  // what a grabber without binning does
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    auto binningInterface = DriverInterface<IKBinning>(IID_IKBinning);
    if (!binningInterface) return SetError(eKErrUnsupportedFeature);
    uint32_t value = 1;
    binningInterface->GetBinning(&value);
    binning = value;
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::SetBufferCount(unsigned int count) {
    bufferCount_ = count;
    return SetError(eKErrSuccess);
}

long CKestorGrabModule::GetBufferUsage() {
    if (!HasGrabber()) {
        SetError(eKErrNoGrabberLoaded);
        return kNoStatistics;
    }
    if (!bufferStatistics_) return kNoStatistics;
    int32_t value = 0;
    bufferStatistics_->GetBufferUsage(&value);
    return value;
}

long CKestorGrabModule::GetMaxBufferUsage() {
    if (!HasGrabber()) {
        SetError(eKErrNoGrabberLoaded);
        return kNoStatistics;
    }
    if (!bufferStatistics_) return kNoStatistics;
    int32_t value = 0;
    bufferStatistics_->GetMaxBufferUsage(&value);
    return value;
}

long CKestorGrabModule::GetTotalBufferCount() {
    if (!HasGrabber()) {
        SetError(eKErrNoGrabberLoaded);
        return kNoStatistics;
    }
    if (!bufferStatistics_) return kNoStatistics;
    int32_t value = 0;
    bufferStatistics_->GetTotalBufferCount(&value);
    return value;
}

bool CKestorGrabModule::GetFrameCounters(uint64_t& delivered, uint64_t& lost,
                                         uint64_t& incomplete) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    if (!frameInfo_) return SetError(eKErrUnsupportedFeature);
    uint64_t d = 0, l = 0, i = 0;
    if (KFailed(frameInfo_->GetFrameCounters(&d, &l, &i))) {
        return SetError(eKErrUnsupportedFeature);
    }
    delivered = d;
    lost = l;
    incomplete = i;
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::QueryGrabber(long query, long* result) {
    if (result != nullptr) *result = 0;
    if (!HasGrabber()) return false;
    auto queryInterface = DriverInterface<IKQuery>(IID_IKQuery);
    if (!queryInterface || query < INT32_MIN || query > INT32_MAX) return false;
    int32_t answer = 0;
    const KStatus status = queryInterface->Query(static_cast<int32_t>(query), &answer);
    if (result != nullptr) *result = answer;
    return KSucceeded(status);
}

bool CKestorGrabModule::ExportGrabberSettings(const std::string& utf8File) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    return SetError(ExportRegistryKeyToXml(settingsKey_, utf8File));
}

KIODriver* CKestorGrabModule::GetIODriver() {
    if (!HasGrabber()) {
        SetError(eKErrNoGrabberLoaded);
        return nullptr;
    }
    if (!ioDriver_) ioDriver_ = std::make_unique<KIODriver>(grabber_.Get());
    return ioDriver_.get();
}

KVideoOutputDriver* CKestorGrabModule::GetVideoOutputDriver() {
    if (!HasGrabber()) {
        SetError(eKErrNoGrabberLoaded);
        return nullptr;
    }
    if (!videoOutputDriver_)
        videoOutputDriver_ = std::make_unique<KVideoOutputDriver>(grabber_.Get());
    return videoOutputDriver_.get();
}

}  // namespace kestor
