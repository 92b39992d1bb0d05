// The advanced-settings window: a plugin ("AdvanceSettings.so", exporting
// "CreateAdvanceSettingsPtr") loaded the first time it is needed and attached to the loaded
// grabber. Without the plugin every operation answers false.
#pragma once

#include "KGrab.h"

namespace kestor {

class CAdvSettingsWrapper {
public:
    CAdvSettingsWrapper();
    ~CAdvSettingsWrapper();  // closes the window, releases the settings object
    CAdvSettingsWrapper(const CAdvSettingsWrapper&) = delete;
    CAdvSettingsWrapper& operator=(const CAdvSettingsWrapper&) = delete;

    // A window exists (created and not closed).
    bool IsActive();
    void Attach(IKUnknown* grabber);
    void Detach();

    // Loads the plugin if needed; false when it is missing or cannot open a modal window.
    bool CanDoModal();
    // Attaches the grabber, runs the window until it closes, detaches and releases it.
    bool DoModal(IKUnknown* grabber, KWindowHandle parent);
    bool Create(IKUnknown* grabber, KWindowHandle parent);
    bool Resize(int x, int y, int width, int height);
    bool Show(bool show);
    bool Close();

private:
    bool EnsureLoaded();  // logs "AdvanceSettings.DLL loading is called."

    struct Plugin;
    Plugin* plugin_ = nullptr;
};

}  // namespace kestor
