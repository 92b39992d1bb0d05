#include "sequence/PlaybackSchedule.h"

#include <algorithm>
#include <cmath>

namespace kestor {
namespace {

// About 31 years: longer waits are pointless and would overflow the nanosecond arithmetic.
constexpr double kLongestWaitNs = 1e18;

// Recording time from one frame to another: the difference of their timestamps, or their
// distance in frames at the frame rate.
double RecordedMicroseconds(uint32_t fromFrame, int64_t fromUs, uint32_t toFrame, int64_t toUs,
                            const PlaybackTiming& timing) {
    if (!timing.fixedRate) return static_cast<double>(toUs - fromUs);
    if (!(timing.frameRate > 0.0)) return 0.0;
    return (static_cast<double>(toFrame) - static_cast<double>(fromFrame)) * 1e6 / timing.frameRate;
}

double PlaybackNanoseconds(double recordedUs, const PlaybackTiming& timing) {
    return recordedUs * 1000.0 / timing.speed;
}

double LongestStepNs(const PlaybackTiming& timing) {
    return timing.maxIntervalMs > 0 ? timing.maxIntervalMs * 1e6 : kLongestWaitNs;
}

// Rounded up, so that rounding never makes a frame due before its exact time.
uint64_t WholeNanoseconds(double ns) {
    return static_cast<uint64_t>(std::ceil(std::clamp(ns, 0.0, kLongestWaitNs)));
}

}  // namespace

void PlaybackSchedule::Restart() {
    started_ = false;
    newPass_ = false;
}

void PlaybackSchedule::BeginPass() {
    newPass_ = true;
}

PlannedFrame PlaybackSchedule::Plan(uint32_t frame, int64_t timeUs, const PlaybackTiming& timing,
                                    uint64_t nowNs) const {
    PlannedFrame planned{frame, timeUs, nowNs, true};
    if (!started_) return planned;
    const double longestStep = LongestStepNs(timing);
    if (newPass_) {
        const double period = timing.frameRate > 0.0 ? 1e9 / (timing.frameRate * timing.speed) : 0;
        planned.dueNs = previous_.dueNs + WholeNanoseconds(std::min(period, longestStep));
        return planned;
    }
    const double step = PlaybackNanoseconds(
        RecordedMicroseconds(previous_.frame, previous_.timeUs, frame, timeUs, timing), timing);
    // A capped gap, a step back in time or new settings: measure from the previous frame and
    // make this one the new anchor.
    if (timing != anchorTiming_ || step < 0.0 || step > longestStep) {
        planned.dueNs = previous_.dueNs + WholeNanoseconds(std::min(step, longestStep));
        return planned;
    }
    const double sinceAnchor = PlaybackNanoseconds(
        RecordedMicroseconds(anchor_.frame, anchor_.timeUs, frame, timeUs, timing), timing);
    planned.dueNs = std::max(anchor_.dueNs + WholeNanoseconds(sinceAnchor), previous_.dueNs);
    planned.anchors = false;
    return planned;
}

void PlaybackSchedule::Delivered(const PlannedFrame& planned, const PlaybackTiming& timing) {
    previous_ = Point{planned.frame, planned.timeUs, planned.dueNs};
    if (planned.anchors) {
        anchor_ = previous_;
        anchorTiming_ = timing;
    }
    started_ = true;
    newPass_ = false;
}

}  // namespace kestor
