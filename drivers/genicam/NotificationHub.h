// The application's notification sink, as registered through IKNotificationRegistration. The
// driver raises notifications from Aravis's threads and from the streaming threads.
#pragma once

#include <mutex>

#include "KGrabberAbi.h"

namespace kestor::genicam {

class NotificationHub {
public:
    void Register(IKNotificationSink* sink) {
        std::lock_guard<std::mutex> lock(mutex_);
        sink_ = sink;
    }
    // The lock is held during the call so that Register(nullptr) returns only when no
    // notification is under way any more.
    void Raise(int32_t notification, int32_t action, int64_t extra) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (sink_ != nullptr) sink_->OnNotification(notification, action, extra);
    }

private:
    std::mutex mutex_;
    IKNotificationSink* sink_ = nullptr;
};

}  // namespace kestor::genicam
