// Time sources: wall-clock time for frame timestamps, a monotonic clock for measuring intervals.
#pragma once

#include <cstdint>

namespace kestor {

struct WallTime {
    int64_t seconds;        // since 1970-01-01 UTC
    uint16_t milliseconds;  // 0 to 999
    uint16_t microseconds;  // 0 to 999
};

WallTime CurrentWallTime();

// Never goes backwards, whatever happens to the wall clock; the origin is unspecified.
uint64_t MonotonicNanoseconds();

}  // namespace kestor
