#include "acquisition/TavlinGrabberCallback.h"

namespace kestor {

KStatus CTavlinGrabberCallback::QueryInterface(const KGuid& iid, void** out) {
    if (out == nullptr) return kKPointer;
    if (iid == IID_IKUnknown || iid == IID_IKNotificationSink) {
        *out = static_cast<IKNotificationSink*>(this);
        return kKOk;
    }
    *out = nullptr;
    return kKNoInterface;
}

KStatus CTavlinGrabberCallback::OnNotification(int32_t notification, int32_t suggestedAction,
                                               int64_t /*extra*/) {
    KGrabCallbacks* callbacks = callbacks_.load(std::memory_order_acquire);
    if (callbacks != nullptr) {
        callbacks->OnNotification(static_cast<eKGRABBER_NOTIFICATION>(notification),
                                  static_cast<eKSUGGESTED_ACTION>(suggestedAction));
    }
    return kKOk;
}

}  // namespace kestor
