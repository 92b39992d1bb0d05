// The advanced-settings window, shown by a separate plugin for the loaded grabber's feature
// set.
#include "acquisition/CKestorGrabModule.h"

namespace kestor {

bool CKestorGrabModule::IsSupportAdvanceSettings() {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    return static_cast<bool>(DriverInterface<IKAdvancedFeatures>(IID_IKAdvancedFeatures));
}

bool CKestorGrabModule::DoModalAdvanceSettingsWindow() {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    if (!DriverInterface<IKAdvancedFeatures>(IID_IKAdvancedFeatures))
        return SetError(eKErrAdvanceSettingsUnsupported);
    if (advancedSettings_->CanDoModal()) advancedSettings_->DoModal(grabber_.Get(), nullptr);
    // Long-standing behaviour that applications rely on: the modal window reports 83 even when
    // it ran, so its result says nothing about the window.
    return SetError(eKErrAdvanceSettingsUnsupported);
}

// The window operations need a grabber with the feature set (12, 83); a window that the
// plugin cannot provide counts as unsupported too.
bool CKestorGrabModule::CreateAdvanceSettingsWindow(KWindowHandle parent) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    if (!DriverInterface<IKAdvancedFeatures>(IID_IKAdvancedFeatures))
        return SetError(eKErrAdvanceSettingsUnsupported);
    return SetError(advancedSettings_->Create(grabber_.Get(), parent)
                        ? eKErrSuccess
                        : eKErrAdvanceSettingsUnsupported);
}

bool CKestorGrabModule::ReSizeAdvanceSettingsWindow(int x, int y, int width, int height) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    if (!DriverInterface<IKAdvancedFeatures>(IID_IKAdvancedFeatures))
        return SetError(eKErrAdvanceSettingsUnsupported);
    return SetError(advancedSettings_->Resize(x, y, width, height)
                        ? eKErrSuccess
                        : eKErrAdvanceSettingsUnsupported);
}

bool CKestorGrabModule::ShowAdvanceSettingsWindow(bool show) {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    if (!DriverInterface<IKAdvancedFeatures>(IID_IKAdvancedFeatures))
        return SetError(eKErrAdvanceSettingsUnsupported);
    return SetError(advancedSettings_->Show(show) ? eKErrSuccess : eKErrAdvanceSettingsUnsupported);
}

bool CKestorGrabModule::CloseAdvanceSettingsWindow() {
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    if (!DriverInterface<IKAdvancedFeatures>(IID_IKAdvancedFeatures))
        return SetError(eKErrAdvanceSettingsUnsupported);
    return SetError(advancedSettings_->Close() ? eKErrSuccess : eKErrAdvanceSettingsUnsupported);
}

}  // namespace kestor
