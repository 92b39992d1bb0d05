// Counts frames that never arrived from the gaps in the device's frame ids. GigE Vision 1.x
// block ids are 16 bits wide and skip 0 when they wrap (65535 is followed by 1); 64-bit ids
// (GigE Vision 2 extended ids, USB3 Vision) simply count up.
#pragma once

#include <cstdint>

namespace kestor::genicam {

class FrameIdTracker {
public:
    void Reset() { known_ = false; }

    // Frames missing between the previous id and `id`; 0 for the first id after Reset and
    // for an id that does not move forward (the device restarted its count).
    uint64_t Observe(uint64_t id) {
        uint64_t missing = 0;
        if (known_) {
            if (last_ <= kMax16 && id <= kMax16 && id != 0) {
                const uint64_t expected = last_ == kMax16 ? 1 : last_ + 1;
                // Distance on the ring 1..65535.
                missing = (id + kMax16 - expected) % kMax16;
                // A backwards step of the id is not taken for almost a whole lap of lost frames.
                if (missing > kMax16 / 2) missing = 0;
            } else if (id > last_) {
                missing = id - last_ - 1;
            }
        }
        last_ = id;
        known_ = true;
        return missing;
    }

    // The id that follows `id` on a device with 16-bit ids.
    static uint64_t Next16(uint64_t id) { return id >= kMax16 ? 1 : id + 1; }

private:
    static constexpr uint64_t kMax16 = 0xFFFF;
    bool known_ = false;
    uint64_t last_ = 0;
};

}  // namespace kestor::genicam
