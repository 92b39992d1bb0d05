#include "KError.h"
#include "platform/DebugOutput.h"
#include "platform/WideString.h"

namespace {

constexpr size_t kDebugLineCapacity = 1024;
constexpr unsigned kMessageBoxErrorOk = 16;  // error icon with an OK button

void EmitDebugLine(const KChar* text) {
    KChar line[kDebugLineCapacity];
    kestor::WideFormat(line, kDebugLineCapacity, u"%s: %s\n", u"Kestor", text);
    kestor::DebugOutput(line);
}

}  // namespace

KErrorDetect::~KErrorDetect() = default;

bool KErrorDetect::SetError(eKErrorCode code) {
    if (code == eKErrSuccess) return true;
    lastError_.store(code, std::memory_order_relaxed);
    const KChar* text = KErrorManager::GetErrorString(code);
    if (debugOutput_) EmitDebugLine(text);
    if (messageBox_) kestor::ShowMessageBox(u"Kestor says...", text, kMessageBoxErrorOk);
    return false;
}

void KErrorDetect::Trace(const KChar* text) {
    if (traceOutput_) EmitDebugLine(text != nullptr ? text : u"");
}

void KErrorDetect::SetErrorOutput(bool debugOutput, bool messageBox, bool traceOutput) {
    debugOutput_ = debugOutput;
    messageBox_ = messageBox;
    traceOutput_ = traceOutput;
}
