#include "acquisition/GrabbedImage.h"

#include <cstring>

namespace kestor {
namespace {
constexpr uint16_t kFrameIdMetadataRoom = 4 + 8 + sizeof(uint64_t);
}

void GrabbedImage::Show(const KImageDescription& description, void* pixels,
                        const WallTime& hostTime, const KGrabFrameInfo* info) {
    image_.AttachForeignBuffer(description, static_cast<uint8_t*>(pixels), description.sizeBytes);
    const uint32_t flags = info != nullptr ? info->flags : 0;
    if ((flags & kKFrameInfoTimestamp) != 0) {
        image_.SetTimestamp(info->seconds, info->milliseconds, info->microseconds);
    } else {
        image_.SetTimestamp(static_cast<uint32_t>(hostTime.seconds), hostTime.milliseconds,
                            hostTime.microseconds);
    }
    image_.SetFrameFlags(flags);
    const bool idKnown = (flags & kKFrameInfoFrameId) != 0;
    SetFrameId(idKnown, idKnown ? info->frameId : 0);
    // A recording keeps the device's frame number with each frame: the item count, then the
    // item (type, length, 8 bytes).
    image_.SetForeignMetadataRoom(idKnown ? kFrameIdMetadataRoom : 0);
}

void GrabbedImage::SetFrameId(bool known, uint64_t frameId) {
    image_.SetFrameCounter(frameId);
    std::vector<KMetadata>& items = image_.Metadata();
    if (!known) {
        items.clear();
        return;
    }
    // The application may have changed the list during the last call: rebuild it only then.
    const bool reusable = items.size() == 1 && items[0].GetTypeID() == kKMetadataIdDeviceFrameId &&
                          items[0].GetDataSize() == sizeof frameId;
    uint8_t bytes[sizeof frameId];
    for (size_t i = 0; i < sizeof frameId; ++i) bytes[i] = static_cast<uint8_t>(frameId >> (8 * i));
    if (reusable) {
        std::memcpy(items[0].GetData(), bytes, sizeof bytes);
    } else {
        items.clear();
        items.emplace_back(kKMetadataIdDeviceFrameId, bytes, static_cast<uint32_t>(sizeof bytes));
    }
}

void GrabbedImage::Drop() {
    image_.AttachForeignBuffer(image_.Description(), nullptr, 0);
}

}  // namespace kestor
