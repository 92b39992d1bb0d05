#include "core/HandleCore.h"

namespace kestor {

void HandleCore::SetImplementation(std::unique_ptr<KErrorDetect> impl) {
    std::lock_guard lock(mutex_);
    if (impl) {
        impl->SetErrorOutput(own_.DebugOutputEnabled(), own_.MessageBoxEnabled(),
                             own_.TraceOutputEnabled());
    }
    impl_ = std::move(impl);
}

std::unique_ptr<KErrorDetect> HandleCore::ReleaseImplementation() {
    std::lock_guard lock(mutex_);
    // Keep the implementation's last failure readable after it is gone.
    if (impl_ && impl_->GetLastError() != eKErrSuccess) {
        const bool debug = own_.DebugOutputEnabled();
        const bool box = own_.MessageBoxEnabled();
        const bool trace = own_.TraceOutputEnabled();
        own_.SetErrorOutput(false, false, trace);
        own_.SetError(impl_->GetLastError());
        own_.SetErrorOutput(debug, box, trace);
    }
    return std::move(impl_);
}

bool HandleCore::Fail(eKErrorCode code) {
    std::lock_guard lock(mutex_);
    return impl_ ? impl_->SetError(code) : own_.SetError(code);
}

void HandleCore::SetErrorOutput(bool debugOutput, bool messageBox, bool traceOutput) {
    std::lock_guard lock(mutex_);
    own_.SetErrorOutput(debugOutput, messageBox, traceOutput);
    if (impl_) impl_->SetErrorOutput(debugOutput, messageBox, traceOutput);
}

eKErrorCode HandleCore::GetLastError() {
    std::lock_guard lock(mutex_);
    return impl_ ? impl_->GetLastError() : own_.GetLastError();
}

}  // namespace kestor

KHandleBase::KHandleBase() : core_(std::make_shared<kestor::HandleCore>()) {}
KHandleBase::KHandleBase(const KHandleBase& other) = default;
KHandleBase& KHandleBase::operator=(const KHandleBase& other) = default;
KHandleBase::~KHandleBase() = default;

void KHandleBase::SetErrorOutput(bool debugOutput, bool messageBox, bool traceOutput) {
    core_->SetErrorOutput(debugOutput, messageBox, traceOutput);
}

eKErrorCode KHandleBase::GetLastError() const {
    return core_->GetLastError();
}
