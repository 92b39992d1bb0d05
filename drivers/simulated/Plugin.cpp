// Exports of the simulated camera plugin.
#include "KGrabberAbi.h"
#include "simulated/SimulatedCamera.h"

namespace {
const KPluginClass kClasses[] = {
    {CLSID_KSimulatedCamera, kKPluginGrabberDriver, "Simulated Camera"},
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
    if (*clsid != CLSID_KSimulatedCamera) return kKNoInterface;
    auto* camera = new kestor::simulated::SimulatedCamera();
    const KStatus status = camera->QueryInterface(*iid, out);
    camera->Release();
    return status;
}
