// The camera's PTP clock: whether frame timestamps come from it, and its synchronisation
// status for the time-source interface. GPS is not part of a GenICam camera.
#include "genicam/GenICamCamera.h"

namespace kestor::genicam {

const Feature* GenICamCamera::PtpEnableFeature() {
    for (const char* name : {"PtpEnable", "GevIEEE1588"}) {
        const int32_t id = catalog_.Tree().Lookup(name);
        if (id >= 0 && catalog_.Tree().Get(id).kind == FeatureKind::Bool) {
            return &catalog_.Tree().Get(id);
        }
    }
    return nullptr;
}

const Feature* GenICamCamera::PtpStatusFeature() {
    for (const char* name : {"PtpStatus", "GevIEEE1588Status"}) {
        const int32_t id = catalog_.Tree().Lookup(name);
        if (id >= 0 && catalog_.Tree().Get(id).kind == FeatureKind::Enumeration) {
            return &catalog_.Tree().Get(id);
        }
    }
    return nullptr;
}

// The camera's clock is taken for wall time only while PTP runs and the clock follows (or
// is) the grandmaster; a free-running camera clock counts from its power-up.
bool GenICamCamera::IsPtpActive() {
    if (!hasPtp_) return false;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    bool enabled = false;
    if (KFailed(GetBoolValue(*PtpEnableFeature(), enabled)) || !enabled) return false;
    const Feature* statusFeature = PtpStatusFeature();
    if (statusFeature == nullptr) return true;
    std::string status;
    if (KFailed(GetEnumString(*statusFeature, status))) return false;
    return status == "Master" || status == "Slave";
}

KStatus GenICamCamera::GetSyncStatus(uint32_t* status) {
    if (status == nullptr) return kKPointer;
    *status = kKTimeSourceDriverNone;
    if (!IsReady() || !hasPtp_) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    bool enabled = false;
    if (KFailed(GetBoolValue(*PtpEnableFeature(), enabled))) return kKFail;
    *status = kKTimeSourceDriverFreeRunning;
    if (!enabled) return kKOk;
    const Feature* statusFeature = PtpStatusFeature();
    std::string text;
    if (statusFeature == nullptr || KFailed(GetEnumString(*statusFeature, text))) return kKOk;
    if (text == "Master" || text == "Slave") {
        *status = kKTimeSourceDriverSynchronized;
    } else if (text == "Listening" || text == "Uncalibrated" || text == "PreMaster" ||
               text == "Passive") {
        *status = kKTimeSourceDriverSynchronizing;
    }
    return kKOk;
}

KStatus GenICamCamera::IsGPSSupported(int32_t* supported) {
    if (supported == nullptr) return kKPointer;
    *supported = 0;
    return kKOk;
}

KStatus GenICamCamera::GetGPSData(CGPSDataStruct*, int32_t) {
    return kKNotImplemented;
}

KStatus GenICamCamera::StopReadingGPSData() {
    return kKOk;
}

}  // namespace kestor::genicam
