// The public I/O driver handle: forwards every call to its CKestorIODriver under the handle's
// lock.
#include <memory>
#include <new>

#include "KGrab.h"
#include "acquisition/CKestorIODriver.h"
#include "core/HandleCore.h"

using kestor::CKestorIODriver;

namespace {

// Runs `op` on the implementation; false when it could not be created.
template <class Op>
bool Forward(kestor::HandleCore& core, Op op) {
    auto lock = core.Lock();
    CKestorIODriver* driver = core.As<CKestorIODriver>();
    return driver != nullptr && op(*driver);
}

}  // namespace

KIODriver::KIODriver(IKUnknown* grabber) {
    Core().SetImplementation(
        std::unique_ptr<CKestorIODriver>(new (std::nothrow) CKestorIODriver(grabber)));
}

KIODriver::~KIODriver() = default;

bool KIODriver::IsAvailable() {
    return Forward(Core(), [](CKestorIODriver& d) { return d.IsAvailable(); });
}

bool KIODriver::GetLineCount(long* count) {
    return Forward(Core(), [&](CKestorIODriver& d) { return d.GetLineCount(count); });
}

bool KIODriver::GetLineName(long line, KChar* name, unsigned int capacity) {
    return Forward(Core(), [&](CKestorIODriver& d) { return d.GetLineName(line, name, capacity); });
}

bool KIODriver::IsOutput(long line, bool* output) {
    return Forward(Core(), [&](CKestorIODriver& d) { return d.IsOutput(line, output); });
}

bool KIODriver::GetLine(long line, bool* level) {
    return Forward(Core(), [&](CKestorIODriver& d) { return d.GetLine(line, level); });
}

bool KIODriver::SetLine(long line, bool level) {
    return Forward(Core(), [&](CKestorIODriver& d) { return d.SetLine(line, level); });
}
