#include "sequence/TimestampIndex.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

namespace kestor {
namespace {

int64_t ToMicroseconds(const Timestamp& time) {
    return int64_t{time.seconds} * 1000000 + int64_t{time.milliseconds} * 1000 + time.microseconds;
}

// Frames whose timestamps never fall, read on demand. Each frame is read at most once per
// search, so a bisection costs about log2(count) reads.
class RisingFrames {
public:
    explicit RisingFrames(const TimestampIndex::Reader& read) : read_(read) {}

    bool Failed() const { return failed_; }

    std::optional<int64_t> TimeOf(uint32_t frame) {
        for (const auto& [known, time] : seen_)
            if (known == frame) return time;
        Timestamp time;
        if (!read_(frame, time)) {
            failed_ = true;
            return std::nullopt;
        }
        seen_.emplace_back(frame, ToMicroseconds(time));
        return seen_.back().second;
    }

    // The first frame in first..last whose time is not before `target`; last + 1 when none.
    uint32_t LowerBound(int64_t target, uint32_t first, uint32_t last) {
        uint32_t low = first;
        uint32_t high = last + 1;
        while (low < high) {
            const uint32_t middle = low + (high - low) / 2;
            const std::optional<int64_t> time = TimeOf(middle);
            if (!time) return last + 1;
            if (*time < target)
                low = middle + 1;
            else
                high = middle;
        }
        return low;
    }

private:
    const TimestampIndex::Reader& read_;
    std::vector<std::pair<uint32_t, int64_t>> seen_;
    bool failed_ = false;
};

using SortedEntries = std::vector<std::pair<int64_t, uint32_t>>;

// The first entry whose time is not before `target` (the lowest frame among equal times,
// since entries are ordered by time, then frame).
SortedEntries::const_iterator LowerBound(const SortedEntries& entries, int64_t target) {
    return std::lower_bound(
        entries.begin(), entries.end(), target,
        [](const std::pair<int64_t, uint32_t>& entry, int64_t time) { return entry.first < time; });
}

// Of the nearest earlier time and the nearest time not earlier, the closer one; the earlier
// wins a tie.
bool EarlierIsNearer(int64_t target, int64_t earlier, std::optional<int64_t> later) {
    return !later || target - earlier <= *later - target;
}

}  // namespace

void TimestampIndex::Invalidate() {
    sorted_.clear();
    sorted_.shrink_to_fit();
    sortedCount_ = 0;
    sortedValid_ = false;
}

bool TimestampIndex::EnsureSorted(uint32_t frameCount, const Reader& read) {
    if (sortedValid_ && sortedCount_ == frameCount) return true;
    Invalidate();
    SortedEntries entries;
    entries.reserve(frameCount);
    for (uint32_t frame = 1; frame <= frameCount; ++frame) {
        Timestamp time;
        if (!read(frame, time)) return false;
        entries.emplace_back(ToMicroseconds(time), frame);
    }
    // Frame numbers are unique, so ordering by (time, frame) keeps equal times in frame order.
    std::sort(entries.begin(), entries.end());
    sorted_ = std::move(entries);
    sortedCount_ = frameCount;
    sortedValid_ = true;
    return true;
}

bool TimestampIndex::FindExact(const Timestamp& target, uint32_t frameCount, bool knownRising,
                               const Reader& read, uint32_t& frame) {
    if (frameCount == 0) return false;
    const int64_t wanted = ToMicroseconds(target);
    if (knownRising) {
        RisingFrames frames(read);
        const uint32_t found = frames.LowerBound(wanted, 1, frameCount);
        if (frames.Failed() || found > frameCount) return false;
        const std::optional<int64_t> time = frames.TimeOf(found);
        if (!time || *time != wanted) return false;
        frame = found;
        return true;
    }
    if (!EnsureSorted(frameCount, read)) return false;
    const auto found = LowerBound(sorted_, wanted);
    if (found == sorted_.end() || found->first != wanted) return false;
    frame = found->second;
    return true;
}

bool TimestampIndex::FindNearest(const Timestamp& target, uint32_t frameCount, bool knownRising,
                                 const Reader& read, uint32_t& frame) {
    if (frameCount == 0) return false;
    const int64_t wanted = ToMicroseconds(target);
    if (knownRising) {
        RisingFrames frames(read);
        const uint32_t later = frames.LowerBound(wanted, 1, frameCount);
        std::optional<int64_t> laterTime;
        if (later <= frameCount) laterTime = frames.TimeOf(later);
        std::optional<int64_t> earlierTime;
        if (later > 1) earlierTime = frames.TimeOf(later - 1);
        if (frames.Failed()) return false;
        if (earlierTime && EarlierIsNearer(wanted, *earlierTime, laterTime)) {
            // Several frames may share that earlier time: the lowest of them is the answer.
            const uint32_t first = frames.LowerBound(*earlierTime, 1, later - 1);
            if (frames.Failed()) return false;
            frame = first;
        } else {
            frame = later;
        }
        return true;
    }
    if (!EnsureSorted(frameCount, read)) return false;
    const auto later = LowerBound(sorted_, wanted);
    std::optional<int64_t> laterTime;
    if (later != sorted_.end()) laterTime = later->first;
    if (later != sorted_.begin() && EarlierIsNearer(wanted, std::prev(later)->first, laterTime)) {
        frame = LowerBound(sorted_, std::prev(later)->first)->second;
    } else {
        frame = later->second;
    }
    return true;
}

}  // namespace kestor
