// Loading and unloading a driver through the grabber manager.
#include "acquisition/CKestorGrabModule.h"
#include "acquisition/SettingsXml.h"
#include "platform/DebugOutput.h"
#include "platform/PluginCatalog.h"
#include "platform/Registry.h"

namespace kestor {

namespace {

constexpr unsigned kMessageBoxError = 16;  // stop icon with an OK button

void SetDwordIn(WideStringView path, WideStringView name, uint32_t value) {
    RegistryKey key;
    if (RegistryKey::Create(path, key) == RegStatus::Ok) key.SetDword(name, value);
}

// The Roper drivers share one key of their own, which must already exist.
void SetRoperSelection(WideStringView camera) {
    RegistryKey key;
    if (RegistryKey::Open(u"Software\\Tavlin\\Grabdesk", key) == RegStatus::Ok)
        key.SetString(u"RoperSelect", camera);
}

}  // namespace

// Settings some vendor drivers read before they open the device. Failures are ignored: the
// driver then runs with its own defaults.
void CKestorGrabModule::PrepareDriverRegistry(eKSupportedModule module) const {
    const WideString pleora = settingsKey_ + u"Pleora IPort";
    const WideString lumenera = settingsKey_ + u"Lumenera";
    switch (module) {
        case eKModuleRoperCoolSnap:
            SetRoperSelection(u"CoolSnap");
            break;
        case eKModuleRoperCascade:
            SetRoperSelection(u"Cascade");
            break;
        case eKModulePleoraIPort:
        case eKModulePleoraIPortGigE:
        case eKModulePleoraIPortEngine:
        case eKModulePleoraIPortVision:
            SetDwordIn(pleora, u"MulticastMode", 0);
            break;
        case eKModulePleoraIPortMulticastMaster:
            SetDwordIn(pleora, u"MulticastMode", 1);
            break;
        case eKModulePleoraIPortMulticastSlave:
            SetDwordIn(pleora, u"MulticastMode", 2);
            break;
        case eKModuleLumeneraUSB:
            SetDwordIn(lumenera, u"Interface", 0);
            break;
        case eKModuleLumeneraGigE:
            SetDwordIn(lumenera, u"Interface", 1);
            break;
        default:
            break;
    }
}

bool CKestorGrabModule::Load(eKSupportedModule module, const KChar* company, bool resetSettings,
                             const KChar* settingsFile, bool showErrorBox) {
    // Licence checks (module family, then module) have nothing to check here: every module
    // of this library is licensed.
    Trace(u"Loading a card.");
    Unload();

    std::string why;
    if (KFailed(PluginCatalog::Instance().CreateInstance(
            CLSID_KGrabberManager, IID_IKGrabberManager, manager_.Out(), &why))) {
        manager_.Reset();
        if (!why.empty()) Trace(Utf8ToWide(why).c_str());
        return SetError(eKErrGrabberManagerNotFound);
    }

    const DriverCatalogueEntry* entry = FindCatalogueEntry(module);
    const KChar* driverName = entry != nullptr ? entry->name : u"";
    KChar key[kSettingsKeyLength];
    WideFormat(key, kSettingsKeyLength, u"Software\\%s\\Grabdesk\\",
               company != nullptr ? company : u"");
    settingsKey_ = key;

    if (resetSettings && settingsKey_.find(u"Grabdesk") != WideString::npos)
        RegistryKey::DeleteTree(settingsKey_);
    if (settingsFile != nullptr && settingsFile[0] != 0) {
        // Recorded, but the load goes on: the driver falls back to what the registry holds.
        SetError(ImportXmlToRegistryKey(WideToUtf8(settingsFile), settingsKey_));
    }
    PrepareDriverRegistry(module);

    KAbiChar errorText[kKMaxNameLength] = {};
    const KStatus status =
        manager_->Initialize(driverName, settingsKey_.c_str(), errorText, kKMaxNameLength);
    if (KSucceeded(status)) grabber_ = KComPtr<IKGrabber>::Query(manager_.Get(), IID_IKGrabber);
    if (KFailed(status) || !grabber_) {
        if (showErrorBox) ShowMessageBox(u"Error Loading Grabber", errorText, kMessageBoxError);
        Trace(errorText);
        ReleaseDriver();
        return SetError(eKErrGrabberInitFailed);
    }

    bufferStatistics_ = DriverInterface<IKBufferStatistics>(IID_IKBufferStatistics);
    timeSource_ = DriverInterface<IKTimeSource>(IID_IKTimeSource);
    notificationRegistration_ =
        DriverInterface<IKNotificationRegistration>(IID_IKNotificationRegistration);
    frameInfo_ = DriverInterface<IKFrameInfo>(IID_IKFrameInfo);
    if (notificationRegistration_) notificationRegistration_->Register(&notificationSink_);

    if (!PrimeAndAllocateBuffers()) {
        ReleaseDriver();
        return SetError(eKErrCreateBuffer);
    }
    currentGrabber_ = module;
    RefreshDescription();
    if (advancedSettings_->IsActive()) advancedSettings_->Attach(grabber_.Get());
    return SetError(eKErrSuccess);
}

// Asks the format once (some drivers settle it on first request), then negotiates the buffer
// count down until the driver can allocate it. The reduced count is kept for later loads.
bool CKestorGrabModule::PrimeAndAllocateBuffers() {
    if (auto format = DriverInterface<IKImageFormat>(IID_IKImageFormat)) {
        uint32_t width = 0, height = 0, left = 0, top = 0, value = 0;
        format->GetImageSize(&width, &height, &left, &top);
        format->GetBitDepth(&value);
        format->GetRealBitDepth(&value);
        format->GetImageSizeBytes(&value);
        format->GetImageFormat(&value);
    }
    KStatus status = grabber_->SetBufferCount(bufferCount_);
    while (KFailed(status)) {
        Trace(u"Not enough memory, trying with less buffers.");
        if (bufferCount_ <= 1) return false;
        --bufferCount_;
        status = grabber_->SetBufferCount(bufferCount_);
    }
    return true;
}

void CKestorGrabModule::ReleaseDriver() {
    // The driver must stop calling the sink before its registration goes.
    if (notificationRegistration_) notificationRegistration_->Register(nullptr);
    notificationRegistration_.Reset();
    timeSource_.Reset();
    frameInfo_.Reset();
    bufferStatistics_.Reset();
    grabber_.Reset();
    manager_.Reset();
}

bool CKestorGrabModule::Unload() {
    StopStreaming();
    JoinFinishedThreads();
    ioDriver_.reset();
    videoOutputDriver_.reset();
    advancedSettings_->Detach();
    ReleaseDriver();
    currentGrabber_ = eKModuleNone;
    return SetError(eKErrSuccess);
}

}  // namespace kestor
