// The grabber manager ("Grabdesk"): finds a driver plugin by name, initialises it with its
// settings key, and from then on answers QueryInterface with the driver's interfaces.
#pragma once

#include "KGrabberAbi.h"
#include "common/ComObject.h"

namespace kestor {

class GrabberManager final : public IKGrabberManager {
public:
    static constexpr uint32_t kVersion = (1u << 16) | 0u;

    KESTOR_COM_STANDARD_METHODS(GrabberManager)

    KStatus GetVersion(uint32_t* version) override;
    KStatus GetDriverCount(int32_t* count) override;
    KStatus GetDriverName(int32_t index, KAbiChar* name, uint32_t capacity) override;
    KStatus IsDriverAvailable(const KAbiChar* name, int32_t* available) override;
    KStatus Initialize(const KAbiChar* driverName, const KAbiChar* settingsKey, KAbiChar* errorText,
                       uint32_t capacity) override;

private:
    ~GrabberManager() = default;
    bool QueryOwnInterface(const KGuid& iid, void** out);

    ComRefCount refs_;
    KComPtr<IKUnknown> driver_;  // the initialised driver object
};

}  // namespace kestor
