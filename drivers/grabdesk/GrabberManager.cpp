#include "grabdesk/GrabberManager.h"

#include <string>
#include <vector>

#include "platform/PluginCatalog.h"
#include "platform/WideString.h"

namespace kestor {
namespace {

std::vector<PluginClassInfo> Drivers() {
    std::vector<PluginClassInfo> drivers;
    for (const PluginClassInfo& info : PluginCatalog::Instance().Classes()) {
        if (info.kind == kKPluginGrabberDriver) drivers.push_back(info);
    }
    return drivers;
}

void SetText(KAbiChar* text, uint32_t capacity, const std::string& utf8) {
    KCopyName(text, capacity, Utf8ToWide(utf8).c_str());
}

}  // namespace

bool GrabberManager::QueryOwnInterface(const KGuid& iid, void** out) {
    if (Offer<IKGrabberManager>(this, iid, IID_IKUnknown, out) ||
        Offer<IKGrabberManager>(this, iid, IID_IKGrabberManager, out)) {
        return true;
    }
    // Every other interface is the driver's.
    return driver_ && KSucceeded(driver_->QueryInterface(iid, out));
}

KStatus GrabberManager::GetVersion(uint32_t* version) {
    if (version == nullptr) return kKPointer;
    *version = kVersion;
    return kKOk;
}

KStatus GrabberManager::GetDriverCount(int32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = static_cast<int32_t>(Drivers().size());
    return kKOk;
}

KStatus GrabberManager::GetDriverName(int32_t index, KAbiChar* name, uint32_t capacity) {
    const std::vector<PluginClassInfo> drivers = Drivers();
    if (index < 0 || static_cast<size_t>(index) >= drivers.size()) return kKInvalidArgument;
    SetText(name, capacity, drivers[static_cast<size_t>(index)].name);
    return kKOk;
}

KStatus GrabberManager::IsDriverAvailable(const KAbiChar* name, int32_t* available) {
    if (available == nullptr) return kKPointer;
    PluginClassInfo found;
    *available =
        PluginCatalog::Instance().FindByName(kKPluginGrabberDriver, WideToUtf8(name), found);
    return kKOk;
}

KStatus GrabberManager::Initialize(const KAbiChar* driverName, const KAbiChar* settingsKey,
                                   KAbiChar* errorText, uint32_t capacity) {
    SetText(errorText, capacity, "");
    driver_.Reset();  // a second Initialize replaces the driver
    const std::string name = WideToUtf8(driverName);
    PluginClassInfo found;
    if (!PluginCatalog::Instance().FindByName(kKPluginGrabberDriver, name, found)) {
        std::string folders;
        for (const std::string& folder : PluginSearchPath()) {
            folders += (folders.empty() ? "" : ":") + folder;
        }
        SetText(errorText, capacity,
                "The driver \"" + name + "\" is not installed (no plugin in " +
                    (folders.empty() ? std::string("any folder") : folders) + " serves it).");
        return kKFail;
    }
    KComPtr<IKGrabberDriver> driver;
    std::string why;
    const KStatus created = PluginCatalog::Instance().CreateInstance(
        found.clsid, IID_IKGrabberDriver, driver.Out(), &why);
    if (KFailed(created)) {
        SetText(errorText, capacity, "The driver \"" + name + "\" could not be created: " + why);
        return created;
    }
    const KStatus status = driver->Initialize(settingsKey, errorText, capacity);
    if (KFailed(status)) {
        if (errorText != nullptr && capacity > 0 && errorText[0] == 0) {
            SetText(errorText, capacity, "The driver \"" + name + "\" failed to initialise.");
        }
        return status;
    }
    driver_ = KComPtr<IKUnknown>::Query(driver.Get(), IID_IKUnknown);
    return kKOk;
}

}  // namespace kestor
