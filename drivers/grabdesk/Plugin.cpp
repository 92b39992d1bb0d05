// Exports of the grabber manager plugin.
#include "KGrabberAbi.h"
#include "grabdesk/GrabberManager.h"

namespace {
const KPluginClass kClasses[] = {
    {CLSID_KGrabberManager, kKPluginGrabberManager, "Grabdesk"},
};
}

KESTOR_PLUGIN_EXPORT uint32_t KestorPluginAbiVersion() {
    return kKPluginAbiVersion;
}

KESTOR_PLUGIN_EXPORT uint32_t KestorPluginClasses(const KPluginClass** classes) {
    *classes = kClasses;
    return sizeof kClasses / sizeof kClasses[0];
}

KESTOR_PLUGIN_EXPORT KStatus KestorCreateInstance(const KGuid* clsid, const KGuid* iid,
                                                  void** out) {
    if (clsid == nullptr || iid == nullptr || out == nullptr) return kKPointer;
    *out = nullptr;
    if (*clsid != CLSID_KGrabberManager) return kKNoInterface;
    auto* manager = new kestor::GrabberManager();
    const KStatus status = manager->QueryInterface(*iid, out);
    manager->Release();
    return status;
}
