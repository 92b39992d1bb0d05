// Moving the public API's `long` values and name buffers across the driver interface, whose
// indexes and counts are 32-bit and whose names come back in buffers of known capacity.
#pragma once

#include <cstdint>
#include <limits>

#include "KGrab.h"

namespace kestor {

// A long that does not fit stays out of range (saturated) instead of wrapping to some other,
// valid index.
inline int32_t NarrowToInt32(long value) {
    if (value > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
    if (value < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(value);
}

inline uint32_t NarrowToUint32(unsigned long value) {
    return value > std::numeric_limits<uint32_t>::max() ? std::numeric_limits<uint32_t>::max()
                                                        : static_cast<uint32_t>(value);
}

// A name buffer handed to the driver; the caller's buffer (no capacity given by the public
// API) receives the name with its terminator.
class DriverName {
public:
    DriverName() { text_[0] = 0; }
    explicit DriverName(const KAbiChar* initial) { KCopyName(text_, kKMaxNameLength, initial); }
    KAbiChar* Buffer() { return text_; }
    static constexpr uint32_t Capacity() { return kKMaxNameLength; }
    void CopyTo(KChar* destination) const {
        // Stops within the buffer even when the driver left no terminator.
        if (destination != nullptr) KCopyName(destination, kKMaxNameLength, text_);
    }

private:
    KAbiChar text_[kKMaxNameLength];
};

template <class Out, class In>
inline void Store(Out* destination, In value) {
    if (destination != nullptr) *destination = static_cast<Out>(value);
}

}  // namespace kestor
