// Error codes, their texts, and the per-object error reporting shared by every Kestor class.
#pragma once

#include <atomic>
#include <memory>

#include "KTypes.h"

// Turns error codes into English text.
class KESTOR_API KErrorManager {
public:
    // The text of a code; never null, static lifetime. Codes without a text of their own give
    // a fixed "undocumented" text and emit one debug line naming the code.
    static const KChar* GetErrorString(eKErrorCode code);
};

// Error state of one object: the last failure code and where failure texts are sent.
// Base of every implementation object of the library.
class KESTOR_API KErrorDetect {
public:
    KErrorDetect() = default;
    virtual ~KErrorDetect();

    // Records a failure and announces it as the output switches say. Returns true only for
    // success (code 0), which leaves the previously recorded failure in place, so a failing
    // operation can `return SetError(code);`.
    bool SetError(eKErrorCode code);

    // Sends an informational line ("Kestor: <text>") when trace output is on.
    void Trace(const KChar* text);

    eKErrorCode GetLastError() const { return lastError_.load(std::memory_order_relaxed); }
    void SetErrorOutput(bool debugOutput, bool messageBox, bool traceOutput);

    bool DebugOutputEnabled() const { return debugOutput_; }
    bool MessageBoxEnabled() const { return messageBox_; }
    bool TraceOutputEnabled() const { return traceOutput_; }

private:
    std::atomic<eKErrorCode> lastError_{eKErrSuccess};
    bool debugOutput_ = true;
    bool messageBox_ = false;
    bool traceOutput_ = true;
};

namespace kestor {
class HandleCore;
}

// Base of the public handle classes. A handle owns one implementation object; copies of a
// handle share it (and its lock, switches and last error). Until the implementation exists
// (for example before a file is opened) the handle keeps its own switches and last error and
// hands the switches on when the implementation is created.
class KESTOR_API KHandleBase {
public:
    void SetErrorOutput(bool debugOutput, bool messageBox, bool traceOutput);
    eKErrorCode GetLastError() const;

protected:
    KHandleBase();
    KHandleBase(const KHandleBase& other);
    KHandleBase& operator=(const KHandleBase& other);
    virtual ~KHandleBase();

    kestor::HandleCore& Core() const { return *core_; }

private:
    std::shared_ptr<kestor::HandleCore> core_;
};
