// The implementation object behind KImage.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "KImage.h"

class KESTOR_API CKestorImage {
public:
    CKestorImage() = default;
    ~CKestorImage();
    CKestorImage(const CKestorImage&) = delete;
    CKestorImage& operator=(const CKestorImage&) = delete;

    // Allocation rule: size + extra + 8 (the timestamp) rounded up to a multiple of 512.
    static uint64_t BufferSizeFor(uint32_t imageSizeBytes, uint32_t extraBytes);

    // Frees everything and sets the default description; metadata is kept.
    void Reset();
    // Resets, then allocates for the given geometry with `extraBytes` reserved behind the
    // pixels for per-frame metadata, and stamps the current time. False when allocation fails.
    bool Reallocate(uint32_t width, uint32_t height, uint32_t bitDepth, uint32_t bitDepthReal,
                    uint32_t format, uint16_t extraBytes = 0);
    bool ReallocateCompressed(uint32_t compression, uint32_t payloadSize);
    void FreeCompressed();
    // Copies everything from source, reusing this buffer when the description matches and it
    // is large enough.
    bool CopyFrom(const CKestorImage& source);
    // Points planes 1 and 2 one and two thirds into the buffer (the planar BGR layout).
    void SetPlanarPointers();
    // Shows pixels that live elsewhere (a grabber's buffer) without copying them. The image
    // never frees nor reallocates them: Reset and Reallocate only drop the pointer, and
    // CopyFrom into this image allocates a buffer of its own. `bufferSize` is how much of the
    // memory the image may use (at least description.sizeBytes); the extra bytes become 0.
    void AttachForeignBuffer(const KImageDescription& description, uint8_t* pixels,
                             uint64_t bufferSize);
    bool OwnsBuffer() const { return !foreign_; }

    const KImageDescription& Description() const { return description_; }
    uint8_t* Buffer() const { return buffer_; }
    uint64_t BufferSize() const { return bufferSize_; }
    uint8_t* Plane1() const { return plane1_; }
    uint8_t* Plane2() const { return plane2_; }
    uint16_t ExtraBytes() const { return extraBytes_; }
    // Room for per-frame metadata that a sequence reserves when it records a frame whose
    // pixels are borrowed (the room is the sequence's, not the buffer's).
    void SetForeignMetadataRoom(uint16_t bytes) {
        if (foreign_) extraBytes_ = bytes;
    }

    uint32_t Compression() const { return compression_; }
    uint8_t* CompressedBuffer() const { return compressed_; }
    uint32_t CompressedChannelSize() const;  // the stored payload size + 4

    void SetTimestamp(uint32_t seconds, uint16_t milliseconds, uint16_t microseconds);
    uint32_t TimestampSeconds() const { return seconds_; }
    uint16_t TimestampMilliseconds() const { return milliseconds_; }
    uint16_t TimestampMicroseconds() const { return microseconds_; }

    std::vector<KMetadata>& Metadata() { return metadata_; }
    const std::vector<KMetadata>& Metadata() const { return metadata_; }

    // Carried along by cloning: the source's frame counter (for example the grabber's frame
    // number) and its flags.
    uint64_t FrameCounter() const { return frameCounter_; }
    void SetFrameCounter(uint64_t value) { frameCounter_ = value; }
    uint32_t FrameFlags() const { return frameFlags_; }
    void SetFrameFlags(uint32_t value) { frameFlags_ = value; }

    // Reference count of the KImage handles that own this object.
    void AddRef() { refs_.fetch_add(1, std::memory_order_relaxed); }
    bool ReleaseRef() { return refs_.fetch_sub(1, std::memory_order_acq_rel) == 1; }

private:
    bool AllocatePixels(uint64_t bytes);

    KImageDescription description_;
    uint8_t* buffer_ = nullptr;
    uint64_t bufferSize_ = 0;
    uint8_t* plane1_ = nullptr;
    uint8_t* plane2_ = nullptr;
    uint8_t* compressed_ = nullptr;
    uint32_t compression_ = 0;
    uint32_t seconds_ = 0;
    uint16_t milliseconds_ = 0;
    uint16_t microseconds_ = 0;
    uint16_t extraBytes_ = 0;
    std::vector<KMetadata> metadata_;
    uint64_t frameCounter_ = 0;
    uint32_t frameFlags_ = 0;
    bool foreign_ = false;  // buffer_ belongs to someone else
    std::atomic<int> refs_{0};
};
