// Calendar fields of an instant in the machine's local time zone.
#pragma once

#include <cstdint>

namespace kestor {

struct LocalTimeFields {
    int64_t year;  // e.g. 1970
    int month;     // 0 = January
    int day;       // 1 to 31
    int weekday;   // 0 = Sunday
    int hour;
    int minute;
    int second;
};

// Converts seconds since 1970-01-01 UTC, following the current TZ setting (re-read on every
// call). False when the instant cannot be represented.
bool ToLocalTime(int64_t secondsSince1970, LocalTimeFields& out);

}  // namespace kestor
