// The three exports of a plugin that serves one class. In the plugin's Plugin.cpp:
//   KESTOR_DEFINE_PLUGIN(CLSID_KSimulatedCamera, kKPluginGrabberDriver, "Simulated Camera",
//                        kestor::simulated::SimulatedCamera)
// The class is created with `new Class()` holding one reference, and handed out through the
// interface asked for.
#pragma once

#include "KGrabberAbi.h"

#define KESTOR_DEFINE_PLUGIN(classId, kind, name, Class)                                    \
    namespace {                                                                             \
    const KPluginClass kPluginClasses[] = {{classId, kind, name}};                          \
    }                                                                                       \
    KESTOR_PLUGIN_EXPORT uint32_t KestorPluginAbiVersion() {                                \
        return kKPluginAbiVersion;                                                          \
    }                                                                                       \
    KESTOR_PLUGIN_EXPORT uint32_t KestorPluginClasses(const KPluginClass** classes) {       \
        *classes = kPluginClasses;                                                          \
        return sizeof kPluginClasses / sizeof kPluginClasses[0];                            \
    }                                                                                       \
    KESTOR_PLUGIN_EXPORT KStatus KestorCreateInstance(const KGuid* clsid, const KGuid* iid, \
                                                      void** out) {                         \
        if (clsid == nullptr || iid == nullptr || out == nullptr) return kKPointer;         \
        *out = nullptr;                                                                     \
        if (*clsid != (classId)) return kKNoInterface;                                      \
        auto* object = new Class();                                                         \
        const KStatus status = object->QueryInterface(*iid, out);                           \
        object->Release();                                                                  \
        return status;                                                                      \
    }
