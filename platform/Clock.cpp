#include "platform/Clock.h"

#include <time.h>

namespace kestor {

WallTime CurrentWallTime() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const long micros = now.tv_nsec / 1000;
    return WallTime{static_cast<int64_t>(now.tv_sec), static_cast<uint16_t>(micros / 1000),
                    static_cast<uint16_t>(micros % 1000)};
}

uint64_t MonotonicNanoseconds() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace kestor
