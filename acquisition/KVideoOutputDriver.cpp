// The public video output handle: forwards every call to its CKestorVideoOutputDriver under
// the handle's lock.
#include <memory>
#include <new>

#include "KGrab.h"
#include "acquisition/CKestorVideoOutputDriver.h"
#include "core/HandleCore.h"

using kestor::CKestorVideoOutputDriver;

namespace {

template <class Op>
bool Forward(kestor::HandleCore& core, Op op) {
    auto lock = core.Lock();
    CKestorVideoOutputDriver* driver = core.As<CKestorVideoOutputDriver>();
    return driver != nullptr && op(*driver);
}

}  // namespace

KVideoOutputDriver::KVideoOutputDriver(IKUnknown* grabber) {
    Core().SetImplementation(std::unique_ptr<CKestorVideoOutputDriver>(
        new (std::nothrow) CKestorVideoOutputDriver(grabber)));
}

KVideoOutputDriver::~KVideoOutputDriver() = default;

bool KVideoOutputDriver::IsAvailable() {
    return Forward(Core(), [](CKestorVideoOutputDriver& d) { return d.IsAvailable(); });
}

bool KVideoOutputDriver::IsEnabled(bool* enabled) {
    return Forward(Core(), [&](CKestorVideoOutputDriver& d) { return d.IsEnabled(enabled); });
}

bool KVideoOutputDriver::Enable(bool enable) {
    return Forward(Core(), [&](CKestorVideoOutputDriver& d) { return d.Enable(enable); });
}
