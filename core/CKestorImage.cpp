#include "core/CKestorImage.h"

#include <cstring>

#include "platform/AlignedMemory.h"
#include "platform/Clock.h"

namespace {

constexpr uint64_t kBlock = 512;
constexpr uint32_t kTimestampBytes = 8;
constexpr uint32_t kCompressedHeader = 4;  // the stored u32: payload size + 4
constexpr uint32_t kCompressedSlack = 12;  // the allocation is payload size + 12
constexpr uint32_t kPlanarFormat = 300;

}  // namespace

CKestorImage::~CKestorImage() {
    Reset();
}

uint64_t CKestorImage::BufferSizeFor(uint32_t imageSizeBytes, uint32_t extraBytes) {
    const uint64_t bytes = uint64_t{imageSizeBytes} + extraBytes + kTimestampBytes;
    return (bytes + kBlock - 1) / kBlock * kBlock;
}

void CKestorImage::Reset() {
    FreeCompressed();
    if (buffer_ != nullptr && !foreign_) kestor::AlignedFree(buffer_);
    buffer_ = nullptr;
    foreign_ = false;
    bufferSize_ = 0;
    plane1_ = nullptr;
    plane2_ = nullptr;
    extraBytes_ = 0;
    description_ = KImageDescription{};
}

void CKestorImage::FreeCompressed() {
    if (compressed_ != nullptr) kestor::AlignedFree(compressed_);
    compressed_ = nullptr;
    compression_ = 0;
}

bool CKestorImage::AllocatePixels(uint64_t bytes) {
    buffer_ = static_cast<uint8_t*>(kestor::AlignedAlloc(bytes));
    if (buffer_ == nullptr) {
        description_ = KImageDescription{};
        return false;
    }
    bufferSize_ = bytes;
    // The room behind the pixels goes to disk with the frame: never leave stale memory there.
    const uint64_t pixels = description_.sizeBytes;
    if (bytes > pixels) std::memset(buffer_ + pixels, 0, bytes - pixels);
    return true;
}

bool CKestorImage::Reallocate(uint32_t width, uint32_t height, uint32_t bitDepth,
                              uint32_t bitDepthReal, uint32_t format, uint16_t extraBytes) {
    Reset();
    description_.width = width;
    description_.height = height;
    description_.bitDepth = bitDepth;
    description_.bitDepthReal = bitDepthReal;
    description_.format = format;
    // 32-bit arithmetic, as the size field that the file format stores is 32 bits.
    description_.sizeBytes = width * height * bitDepth / 8;
    extraBytes_ = extraBytes;
    if (!AllocatePixels(BufferSizeFor(description_.sizeBytes, extraBytes))) {
        extraBytes_ = 0;
        return false;
    }
    const kestor::WallTime now = kestor::CurrentWallTime();
    SetTimestamp(static_cast<uint32_t>(now.seconds), now.milliseconds, 0);
    return true;
}

bool CKestorImage::ReallocateCompressed(uint32_t compression, uint32_t payloadSize) {
    FreeCompressed();
    const uint64_t bytes = uint64_t{payloadSize} + kCompressedSlack;
    compressed_ = static_cast<uint8_t*>(kestor::AlignedAlloc(bytes));
    if (compressed_ == nullptr) return false;
    compression_ = compression;
    const uint32_t stored = payloadSize + kCompressedHeader;
    std::memcpy(compressed_, &stored, sizeof stored);
    return true;
}

uint32_t CKestorImage::CompressedChannelSize() const {
    if (compressed_ == nullptr) return 0;
    uint32_t stored;
    std::memcpy(&stored, compressed_, sizeof stored);
    return stored;
}

bool CKestorImage::CopyFrom(const CKestorImage& source) {
    if (&source == this) return true;
    const uint64_t needed = BufferSizeFor(source.description_.sizeBytes, source.extraBytes_);
    if (!(description_ == source.description_) || buffer_ == nullptr || bufferSize_ < needed ||
        foreign_) {
        Reset();
        description_ = source.description_;
        if (source.buffer_ != nullptr && !AllocatePixels(needed)) return false;
    }
    frameCounter_ = source.frameCounter_;
    frameFlags_ = source.frameFlags_;
    if (source.buffer_ != nullptr) std::memcpy(buffer_, source.buffer_, description_.sizeBytes);
    plane1_ = nullptr;
    plane2_ = nullptr;
    if (description_.format == kPlanarFormat && buffer_ != nullptr) SetPlanarPointers();
    SetTimestamp(source.seconds_, source.milliseconds_, source.microseconds_);
    if (source.compression_ != 0 && source.compressed_ != nullptr) {
        const uint32_t stored = source.CompressedChannelSize();
        const uint32_t payload = stored > kCompressedHeader ? stored - kCompressedHeader : 0;
        if (!ReallocateCompressed(source.compression_, payload)) return false;
        std::memcpy(compressed_, source.compressed_, uint64_t{payload} + kCompressedSlack);
    } else {
        FreeCompressed();
    }
    extraBytes_ = source.extraBytes_;
    metadata_ = source.metadata_;
    return true;
}

void CKestorImage::AttachForeignBuffer(const KImageDescription& description, uint8_t* pixels,
                                       uint64_t bufferSize) {
    FreeCompressed();
    if (buffer_ != nullptr && !foreign_) kestor::AlignedFree(buffer_);
    description_ = description;
    buffer_ = pixels;
    foreign_ = pixels != nullptr;
    bufferSize_ = pixels != nullptr ? bufferSize : 0;
    extraBytes_ = 0;
    plane1_ = nullptr;
    plane2_ = nullptr;
    if (description_.format == kPlanarFormat && buffer_ != nullptr) SetPlanarPointers();
}

void CKestorImage::SetPlanarPointers() {
    const uint32_t third = description_.sizeBytes / 3;
    plane1_ = buffer_ + third;
    plane2_ = plane1_ + third;
}

void CKestorImage::SetTimestamp(uint32_t seconds, uint16_t milliseconds, uint16_t microseconds) {
    seconds_ = seconds;
    milliseconds_ = milliseconds;
    microseconds_ = microseconds;
}
