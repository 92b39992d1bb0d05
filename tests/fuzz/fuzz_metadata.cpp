// Reads a run of serialised metadata items (type ID, length, data) as a sequence's per-frame
// area holds them, then writes them back: the round trip must reproduce the bytes consumed.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "KImage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto total = static_cast<uint32_t>(size > 0xFFFFFFFFu ? 0xFFFFFFFFu : size);
    uint32_t offset = 0;
    KImage image;
    while (offset < total) {
        KMetadata item;
        const uint32_t used = item.Deserialize(data + offset, total - offset);
        if (used == 0) break;
        std::vector<uint8_t> again(used);
        if (item.Serialize(again.data(), used) != used) std::abort();
        if (std::memcmp(again.data(), data + offset, used) != 0) std::abort();
        image.AddMetadata(item);
        offset += used;
    }
    KImage copy;
    KImage::CloneKImage(&copy, &image);
    if (copy.GetMetadataCount() != image.GetMetadataCount()) std::abort();
    return 0;
}
