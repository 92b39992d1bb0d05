// Finding frames by timestamp. Bisects when the file is known to hold rising timestamps;
// otherwise reads every timestamp once, keeps them sorted in memory and bisects those, so the
// answer is right whatever the order and later searches stay logarithmic.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace kestor {

struct Timestamp {
    int32_t seconds = 0;
    uint16_t milliseconds = 0;
    uint16_t microseconds = 0;
};

class TimestampIndex {
public:
    // Reads frame n's (1-based) timestamp; false when it cannot.
    using Reader = std::function<bool(uint32_t frame, Timestamp& time)>;

    // Drops what was learnt about the frames (they changed).
    void Invalidate();

    // The first frame (lowest number) whose timestamp equals `target`.
    bool FindExact(const Timestamp& target, uint32_t frameCount, bool knownRising,
                   const Reader& read, uint32_t& frame);
    // The frame whose timestamp is nearest to `target`; on a tie the earlier timestamp, then
    // the lower frame number.
    bool FindNearest(const Timestamp& target, uint32_t frameCount, bool knownRising,
                     const Reader& read, uint32_t& frame);

private:
    struct Entry;
    bool EnsureSorted(uint32_t frameCount, const Reader& read);
    std::vector<std::pair<int64_t, uint32_t>> sorted_;  // (microseconds since 1970, frame)
    uint32_t sortedCount_ = 0;
    bool sortedValid_ = false;
};

}  // namespace kestor
