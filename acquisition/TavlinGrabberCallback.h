// The notification sink the grab module hands to the driver: forwards each notification to the
// application's current callbacks, on whatever thread the driver raises it.
#pragma once

#include <atomic>

#include "KGrab.h"

namespace kestor {

class CTavlinGrabberCallback final : public IKNotificationSink {
public:
    // `callbacks` is the module's current-callbacks slot; it is read anew for each notification.
    explicit CTavlinGrabberCallback(const std::atomic<KGrabCallbacks*>& callbacks)
        : callbacks_(callbacks) {}

    KStatus QueryInterface(const KGuid& iid, void** out) override;
    // Embedded in the module, which owns it: counting references never deletes it.
    uint32_t AddRef() override { return 1; }
    uint32_t Release() override { return 1; }
    KStatus OnNotification(int32_t notification, int32_t suggestedAction, int64_t extra) override;

private:
    const std::atomic<KGrabCallbacks*>& callbacks_;
};

}  // namespace kestor
