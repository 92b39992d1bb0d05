#include "acquisition/CKestorVideoOutputDriver.h"

namespace kestor {

CKestorVideoOutputDriver::CKestorVideoOutputDriver(IKUnknown* grabber)
    : output_(KComPtr<IKVideoOutput>::Query(grabber, IID_IKVideoOutput)) {}

bool CKestorVideoOutputDriver::IsEnabled(bool* enabled) {
    if (!output_) return SetError(eKErrUnsupportedFeature);
    if (enabled == nullptr) return SetError(eKErrParameterNotSupported);
    int32_t value = 0;
    if (KFailed(output_->IsEnabled(&value))) return SetError(eKErrLoadVideoOutputDevice);
    *enabled = value != 0;
    return SetError(eKErrSuccess);
}

bool CKestorVideoOutputDriver::Enable(bool enable) {
    if (!output_) return SetError(eKErrUnsupportedFeature);
    if (KFailed(output_->Enable(enable ? 1 : 0))) return SetError(eKErrLoadVideoOutputDevice);
    return SetError(eKErrSuccess);
}

}  // namespace kestor
