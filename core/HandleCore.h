// The state behind a public handle: its lock, its own error switches and last error, and the
// implementation object it forwards to. Shared by copies of the handle.
#pragma once

#include <memory>
#include <mutex>

#include "KError.h"

namespace kestor {

class HandleCore {
public:
    HandleCore() = default;
    HandleCore(const HandleCore&) = delete;
    HandleCore& operator=(const HandleCore&) = delete;

    // Every public call holds this for its whole duration; re-entrant so that a callback
    // running on the calling thread may call back into the same handle.
    std::unique_lock<std::recursive_mutex> Lock() { return std::unique_lock(mutex_); }

    KErrorDetect* Implementation() const { return impl_.get(); }

    template <class T>
    T* As() const {
        return static_cast<T*>(impl_.get());
    }

    // Installs a new implementation (destroying any previous one) and gives it the handle's
    // output switches.
    void SetImplementation(std::unique_ptr<KErrorDetect> impl);
    std::unique_ptr<KErrorDetect> ReleaseImplementation();

    // Records a failure detected by the handle itself, on the implementation when there is one
    // so that GetLastError sees it. Returns false.
    bool Fail(eKErrorCode code);

    void SetErrorOutput(bool debugOutput, bool messageBox, bool traceOutput);
    eKErrorCode GetLastError();

private:
    std::recursive_mutex mutex_;
    KErrorDetect own_;  // the handle's own switches and last error
    std::unique_ptr<KErrorDetect> impl_;
};

}  // namespace kestor
