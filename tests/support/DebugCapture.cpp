#include "support/DebugCapture.h"

#include "KDebug.h"
#include "platform/WideString.h"

namespace kestor::test {

DebugCapture::DebugCapture() {
    KSetDebugOutputSink(&DebugCapture::OnLine, this);
    KSetMessageBoxHandler(&DebugCapture::OnMessageBox, this);
}

DebugCapture::~DebugCapture() {
    KSetDebugOutputSink(nullptr, nullptr);
    KSetMessageBoxHandler(nullptr, nullptr);
}

std::vector<std::string> DebugCapture::Lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::vector<std::string> DebugCapture::MessageBoxes() const {
    std::lock_guard lock(mutex_);
    return boxes_;
}

void DebugCapture::Clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
    boxes_.clear();
}

void DebugCapture::OnLine(const char16_t* line, void* self) {
    auto* capture = static_cast<DebugCapture*>(self);
    std::lock_guard lock(capture->mutex_);
    capture->lines_.push_back(WideToUtf8(line));
}

void DebugCapture::OnMessageBox(const char16_t* caption, const char16_t* text, unsigned style,
                                void* self) {
    auto* capture = static_cast<DebugCapture*>(self);
    std::lock_guard lock(capture->mutex_);
    capture->boxes_.push_back(WideToUtf8(caption) + "|" + WideToUtf8(text) + "|" +
                              std::to_string(style));
}

}  // namespace kestor::test
