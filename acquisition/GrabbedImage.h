// The image the read thread hands to OnImageReceived: one CKestorImage, reused for every
// frame, that shows the driver's buffer in place (no copy of the pixels).
//
// Timestamps: when the driver offers IKFrameInfo, GetLastImageInfo (asked between WaitImage
// and ReleaseImage) supplies the timestamp (kKFrameInfoTimestamp) and the device's frame
// number (kKFrameInfoFrameId). Without them the frame is stamped with the host's UTC clock as
// read when WaitImage returned, which is the closest the library gets to the exposure. The
// frame number goes into the frame counter and into one metadata item of type
// kKMetadataIdDeviceFrameId (8 bytes, little-endian) that is updated in place, so that the
// streaming path allocates nothing per frame. The frame flags carry the kKFrameInfo* bits
// that the driver set (0 when the host clock was used).
#pragma once

#include <cstdint>

#include "KGrab.h"
#include "core/CKestorImage.h"
#include "platform/Clock.h"

namespace kestor {

class GrabbedImage {
public:
    GrabbedImage() = default;
    GrabbedImage(const GrabbedImage&) = delete;
    GrabbedImage& operator=(const GrabbedImage&) = delete;

    // Shows `pixels` with `description`; `hostTime` is the clock at WaitImage's return and
    // `info` what the driver said about the frame (null when it offers no frame information).
    void Show(const KImageDescription& description, void* pixels, const WallTime& hostTime,
              const KGrabFrameInfo* info);
    // Forgets the driver's buffer (after ReleaseImage, the pixels are no longer ours to show).
    void Drop();

    CKestorImage* Image() { return &image_; }

private:
    void SetFrameId(bool known, uint64_t frameId);

    CKestorImage image_;
};

}  // namespace kestor
