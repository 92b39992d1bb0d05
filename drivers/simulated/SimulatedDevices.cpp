// The simulated camera's time source with its GPS receiver, digital lines and video output.
#include <cmath>

#include "KGrab.h"
#include "platform/Clock.h"
#include "simulated/SimulatedCamera.h"

namespace kestor::simulated {

// --- time source ----------------------------------------------------------------------------

uint32_t SimulatedCamera::RefreshTimeSourceStatus() {
    uint32_t fallback;
    {
        std::lock_guard lock(configMutex_);
        fallback = config_.timeSourceStatus;
    }
    // The store is read again, so that a test or a tool can change the status from outside.
    const uint32_t status = store_.ReadTimeSourceStatus(fallback);
    {
        std::lock_guard lock(configMutex_);
        config_.timeSourceStatus = status;
    }
    if (knownTimeSourceStatus_.exchange(status) != status) {
        Notify(eKNotificationTimeSourceChanged, eKActionNone);
    }
    return status;
}

KStatus SimulatedCamera::GetSyncStatus(uint32_t* status) {
    if (status == nullptr) return kKPointer;
    *status = RefreshTimeSourceStatus();
    return kKOk;
}

KStatus SimulatedCamera::IsGPSSupported(int32_t* supported) {
    if (supported == nullptr) return kKPointer;
    *supported = 1;
    return kKOk;
}

KStatus SimulatedCamera::GetGPSData(CGPSDataStruct* data, int32_t /*flag*/) {
    if (data == nullptr) return kKPointer;
    const uint32_t status = RefreshTimeSourceStatus();
    const WallTime now = CurrentWallTime();
    // A receiver standing still on a roof, its altitude wandering by a metre or so.
    const double phase = static_cast<double>(now.seconds % 600) / 600.0 * 2.0 * M_PI;
    data->latitude = 47.3769;
    data->longitude = 8.5417;
    data->altitude = 408.0 + std::sin(phase);
    data->speed = 0.0;
    data->heading = 0.0;
    data->utcSeconds = now.seconds;
    data->utcMicroseconds = now.milliseconds * 1000u + now.microseconds;
    const bool fix =
        status == kKTimeSourceDriverSynchronized || status == kKTimeSourceDriverHoldover;
    data->satellites = fix ? 9 : 0;
    data->fixQuality = fix ? 1 : 0;
    data->valid = fix ? 1 : 0;
    return kKOk;
}

KStatus SimulatedCamera::StopReadingGPSData() {
    return kKOk;  // the data is made on request; nothing runs in the background
}

// --- digital lines ---------------------------------------------------------------------------

namespace {

const KChar* const kLineNames[kInputLines + kOutputLines] = {u"Input 1", u"Input 2", u"Output 1",
                                                             u"Output 2"};

bool ValidLine(int32_t line) {
    return line >= 0 && line < kInputLines + kOutputLines;
}

}  // namespace

KStatus SimulatedCamera::GetLineCount(int32_t* count) {
    if (count == nullptr) return kKPointer;
    *count = kInputLines + kOutputLines;
    return kKOk;
}

KStatus SimulatedCamera::GetLineName(int32_t line, KAbiChar* name, uint32_t capacity) {
    if (!ValidLine(line)) return kKInvalidArgument;
    KCopyName(name, capacity, kLineNames[line]);
    return kKOk;
}

KStatus SimulatedCamera::IsOutput(int32_t line, int32_t* output) {
    if (output == nullptr) return kKPointer;
    if (!ValidLine(line)) return kKInvalidArgument;
    *output = line >= kInputLines ? 1 : 0;
    return kKOk;
}

KStatus SimulatedCamera::GetLine(int32_t line, int32_t* level) {
    if (level == nullptr) return kKPointer;
    if (!ValidLine(line)) return kKInvalidArgument;
    // Inputs read the output of the same number: the lines are looped back.
    const int32_t output = line >= kInputLines ? line - kInputLines : line;
    *level = (Config().digitalOutputs >> output) & 1u;
    return kKOk;
}

KStatus SimulatedCamera::SetLine(int32_t line, int32_t level) {
    if (!ValidLine(line) || line < kInputLines) return kKInvalidArgument;
    const uint32_t bit = 1u << (line - kInputLines);
    return Change([&](SimulatedConfig& config) {
        config.digitalOutputs =
            level != 0 ? config.digitalOutputs | bit : config.digitalOutputs & ~bit;
        return true;
    });
}

// --- video output ----------------------------------------------------------------------------

KStatus SimulatedCamera::IsEnabled(int32_t* enabled) {
    if (enabled == nullptr) return kKPointer;
    *enabled = Config().videoOutput ? 1 : 0;
    return kKOk;
}

KStatus SimulatedCamera::Enable(int32_t enable) {
    return Change([&](SimulatedConfig& config) {
        config.videoOutput = enable != 0;
        return true;
    });
}

}  // namespace kestor::simulated
