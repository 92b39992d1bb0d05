#include "acquisition/CKestorIODriver.h"

namespace kestor {

CKestorIODriver::CKestorIODriver(IKUnknown* grabber)
    : io_(KComPtr<IKDigitalIO>::Query(grabber, IID_IKDigitalIO)) {}

bool CKestorIODriver::GetLineCount(long* count) {
    if (!io_) return SetError(eKErrUnsupportedFeature);
    if (count == nullptr) return SetError(eKErrParameterNotSupported);
    int32_t lines = 0;
    if (KFailed(io_->GetLineCount(&lines)) || lines < 0) return SetError(eKErrLoadInputDevice);
    *count = lines;
    return SetError(eKErrSuccess);
}

bool CKestorIODriver::CheckLine(long line) {
    long count = 0;
    if (!GetLineCount(&count)) return false;
    if (line < 0 || line >= count) return SetError(eKErrOutOfRange);
    return true;
}

bool CKestorIODriver::GetLineName(long line, KChar* name, unsigned int capacity) {
    if (!io_) return SetError(eKErrUnsupportedFeature);
    if (name == nullptr || capacity == 0) return SetError(eKErrParameterNotSupported);
    name[0] = 0;
    if (!CheckLine(line)) return false;
    if (KFailed(io_->GetLineName(static_cast<int32_t>(line), name, capacity)))
        return SetError(eKErrLoadInputDevice);
    name[capacity - 1] = 0;  // a driver that forgets the terminator must not leave a run-on
    return SetError(eKErrSuccess);
}

bool CKestorIODriver::AskIsOutput(int32_t line, bool& output) {
    int32_t value = 0;
    if (KFailed(io_->IsOutput(line, &value))) return SetError(eKErrLoadInputDevice);
    output = value != 0;
    return true;
}

bool CKestorIODriver::IsOutput(long line, bool* output) {
    if (!io_) return SetError(eKErrUnsupportedFeature);
    if (output == nullptr) return SetError(eKErrParameterNotSupported);
    bool value = false;
    if (!CheckLine(line) || !AskIsOutput(static_cast<int32_t>(line), value)) return false;
    *output = value;
    return SetError(eKErrSuccess);
}

bool CKestorIODriver::GetLine(long line, bool* level) {
    if (!io_) return SetError(eKErrUnsupportedFeature);
    if (level == nullptr) return SetError(eKErrParameterNotSupported);
    if (!CheckLine(line)) return false;
    int32_t value = 0;
    if (KFailed(io_->GetLine(static_cast<int32_t>(line), &value)))
        return SetError(eKErrLoadInputDevice);
    *level = value != 0;
    return SetError(eKErrSuccess);
}

// Only outputs can be driven; asking first gives the caller a clear code instead of whatever
// the driver answers for an input.
bool CKestorIODriver::SetLine(long line, bool level) {
    if (!io_) return SetError(eKErrUnsupportedFeature);
    bool output = false;
    if (!CheckLine(line) || !AskIsOutput(static_cast<int32_t>(line), output)) return false;
    if (!output) return SetError(eKErrParameterNotSupported);
    if (KFailed(io_->SetLine(static_cast<int32_t>(line), level ? 1 : 0)))
        return SetError(eKErrLoadOutputDevice);
    return SetError(eKErrSuccess);
}

}  // namespace kestor
