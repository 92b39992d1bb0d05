// Arithmetic on the (seconds, milliseconds, microseconds) timestamp triple. The carry rules
// are deliberately one step per part: files and applications depend on these exact results.
#include "KUtils.h"

namespace {

// Wrapping 32-bit arithmetic without signed-overflow undefined behaviour.
int32_t Add32(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
int32_t Sub32(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

}  // namespace

void AbsoluteToRelative(int32_t refSeconds, uint16_t refMilliseconds, uint16_t refMicroseconds,
                        int32_t absSeconds, uint16_t absMilliseconds, uint16_t absMicroseconds,
                        uint32_t& relSeconds, uint16_t& relMilliseconds,
                        uint16_t& relMicroseconds) {
    if (refMicroseconds > absMicroseconds) {
        absMilliseconds = static_cast<uint16_t>(absMilliseconds - 1);
        absMicroseconds = static_cast<uint16_t>(absMicroseconds + 1000);
    }
    if (refMilliseconds > absMilliseconds) {
        absSeconds = Sub32(absSeconds, 1);
        absMilliseconds = static_cast<uint16_t>(absMilliseconds + 1000);
    }
    relSeconds = static_cast<uint32_t>(Sub32(absSeconds, refSeconds));
    relMilliseconds = static_cast<uint16_t>(absMilliseconds - refMilliseconds);
    relMicroseconds = static_cast<uint16_t>(absMicroseconds - refMicroseconds);
}

void RelativeToAbsolute(int32_t refSeconds, uint16_t refMilliseconds, uint16_t refMicroseconds,
                        uint32_t relSeconds, uint16_t relMilliseconds, uint16_t relMicroseconds,
                        int32_t& absSeconds, uint16_t& absMilliseconds, uint16_t& absMicroseconds) {
    int32_t seconds = Add32(refSeconds, static_cast<int32_t>(relSeconds));
    auto milliseconds = static_cast<uint16_t>(refMilliseconds + relMilliseconds);
    auto microseconds = static_cast<uint16_t>(refMicroseconds + relMicroseconds);
    if (microseconds > 999) {
        milliseconds = static_cast<uint16_t>(milliseconds + 1);
        microseconds = static_cast<uint16_t>(microseconds - 1000);
    }
    if (milliseconds >= 1000) {
        seconds = Add32(seconds, 1);
        milliseconds = static_cast<uint16_t>(milliseconds - 1000);
    }
    absSeconds = seconds;
    absMilliseconds = milliseconds;
    absMicroseconds = microseconds;
}

bool ComputeTimeDifference(int32_t firstSeconds, uint16_t firstMilliseconds,
                           uint16_t firstMicroseconds, int32_t secondSeconds,
                           uint16_t secondMilliseconds, uint16_t secondMicroseconds,
                           int32_t& seconds, int16_t& milliseconds, int16_t& microseconds,
                           bool& positive) {
    int32_t s = Sub32(secondSeconds, firstSeconds);
    auto ms = static_cast<int16_t>(secondMilliseconds - firstMilliseconds);
    auto us = static_cast<int16_t>(secondMicroseconds - firstMicroseconds);
    positive = true;
    if (s < 0 || (s == 0 && ms < 0) || (s == 0 && ms == 0 && us < 0)) {
        s = Sub32(firstSeconds, secondSeconds);
        ms = static_cast<int16_t>(firstMilliseconds - secondMilliseconds);
        us = static_cast<int16_t>(firstMicroseconds - secondMicroseconds);
        positive = false;
    }
    if (us < 0) {
        us = static_cast<int16_t>(us + 1000);
        ms = static_cast<int16_t>(ms - 1);
    }
    if (ms < 0) {
        ms = static_cast<int16_t>(ms + 1000);
        s = Sub32(s, 1);
    }
    seconds = s;
    milliseconds = ms;
    microseconds = us;
    return s != 0 || ms != 0 || us != 0;
}

int CompareTimestamps(int32_t firstSeconds, uint16_t firstMilliseconds, uint16_t firstMicroseconds,
                      int32_t secondSeconds, uint16_t secondMilliseconds,
                      uint16_t secondMicroseconds) {
    if (firstSeconds != secondSeconds) return firstSeconds < secondSeconds ? -1 : 1;
    if (firstMilliseconds != secondMilliseconds)
        return firstMilliseconds < secondMilliseconds ? -1 : 1;
    if (firstMicroseconds != secondMicroseconds)
        return firstMicroseconds < secondMicroseconds ? -1 : 1;
    return 0;
}

void AddTimestampOffset(int32_t& seconds, int16_t& milliseconds, int16_t microseconds,
                        int32_t offsetSeconds, int16_t offsetMilliseconds,
                        int16_t offsetMicroseconds) {
    seconds = Add32(seconds, offsetSeconds);
    milliseconds = static_cast<int16_t>(milliseconds + offsetMilliseconds);
    const auto microsecondSum = static_cast<int16_t>(microseconds + offsetMicroseconds);
    if (microsecondSum < 0)
        milliseconds = static_cast<int16_t>(milliseconds - 1);
    else if (microsecondSum > 999)
        milliseconds = static_cast<int16_t>(milliseconds + 1);
    if (milliseconds < 0) {
        milliseconds = static_cast<int16_t>(milliseconds + 1000);
        seconds = Sub32(seconds, 1);
    } else if (milliseconds > 999) {
        milliseconds = static_cast<int16_t>(milliseconds - 1000);
        seconds = Add32(seconds, 1);
    }
}
