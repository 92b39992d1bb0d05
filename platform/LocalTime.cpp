#include "platform/LocalTime.h"

#include <ctime>
#include <limits>

namespace kestor {

bool ToLocalTime(int64_t secondsSince1970, LocalTimeFields& out) {
    if (secondsSince1970 < std::numeric_limits<time_t>::min() ||
        secondsSince1970 > std::numeric_limits<time_t>::max())
        return false;
    const auto instant = static_cast<time_t>(secondsSince1970);
    // localtime_r need not look at TZ again by itself; tzset makes a changed zone count.
    tzset();
    struct tm fields {};
    if (localtime_r(&instant, &fields) == nullptr) return false;
    out.year = int64_t{fields.tm_year} + 1900;
    out.month = fields.tm_mon;
    out.day = fields.tm_mday;
    out.weekday = fields.tm_wday;
    out.hour = fields.tm_hour;
    out.minute = fields.tm_min;
    out.second = fields.tm_sec;
    return true;
}

}  // namespace kestor
