// An in-process frame source for recording without a camera: a moving diagonal pattern with
// the frame number stamped into the first eight bytes, so a reader can prove that no frame
// was lost, repeated or reordered.
#pragma once

#include <cstdint>

#include "KImage.h"

namespace kestor::tool {

class SyntheticSource {
public:
    SyntheticSource(uint32_t width, uint32_t height, uint32_t bitDepth);

    // Fills `image` with frame `number` and stamps it with `microsecondsSinceEpoch`, the
    // time the frame was exposed (a camera stamps frames on its own clock, however late the
    // recorder takes them).
    void Next(KImage& image, uint64_t number, int64_t microsecondsSinceEpoch);

    // The frame number stamped into a frame (0 when the frame is too small to hold one).
    static uint64_t FrameNumberOf(const KImage& image);

private:
    uint32_t width_, height_, bitDepth_;
};

}  // namespace kestor::tool
