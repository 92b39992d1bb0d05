// Captures the library's debug-output lines and message boxes for the duration of a test.
#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace kestor::test {

class DebugCapture {
public:
    DebugCapture();
    ~DebugCapture();
    DebugCapture(const DebugCapture&) = delete;
    DebugCapture& operator=(const DebugCapture&) = delete;

    std::vector<std::string> Lines() const;         // debug lines, UTF-8
    std::vector<std::string> MessageBoxes() const;  // "caption|text|style"
    void Clear();

private:
    static void OnLine(const char16_t* line, void* self);
    static void OnMessageBox(const char16_t* caption, const char16_t* text, unsigned style,
                             void* self);
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::vector<std::string> boxes_;
};

}  // namespace kestor::test
