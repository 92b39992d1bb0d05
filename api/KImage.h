// The frame type of the library, and the metadata items a frame carries.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "KTypes.h"

// Description of an image: the same six values are stored in a sequence file's header.
struct KImageDescription {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t bitDepth = 0;      // bits per pixel as stored
    uint32_t bitDepthReal = 0;  // significant bits
    uint32_t sizeBytes = 0;     // width * height * bitDepth / 8
    uint32_t format = 0;        // eKImageFormat

    bool operator==(const KImageDescription&) const = default;
};

// One metadata item of an image: a type ID (see KMetadataManager), data bytes and a display
// string. Serialised as 32-bit type ID, 32-bit data length, then the data (little-endian).
class KESTOR_API KMetadata {
public:
    KMetadata() = default;
    KMetadata(uint32_t typeId, const void* data, uint32_t dataSize,
              const KChar* displayString = nullptr);

    uint32_t GetTypeID() const { return typeId_; }
    const uint8_t* GetData() const { return data_.data(); }
    uint8_t* GetData() { return data_.data(); }
    uint32_t GetDataSize() const { return static_cast<uint32_t>(data_.size()); }
    void SetData(const void* data, uint32_t dataSize);

    // Never null; empty until set.
    const KChar* GetDisplayString() const { return display_.c_str(); }
    void SetDisplayString(const KChar* text);

    // Size of the serialised form: 8 + data size.
    uint32_t GetSerializedSize() const { return 8 + GetDataSize(); }
    // Writes the serialised form; returns the bytes written, 0 when it does not fit.
    uint32_t Serialize(void* buffer, uint32_t capacity) const;
    // Reads one serialised item; returns the bytes consumed, 0 when the input is truncated or
    // the stated length runs past its end (the item is left unchanged then).
    uint32_t Deserialize(const void* buffer, uint32_t size);

    bool operator==(const KMetadata&) const = default;

private:
    uint32_t typeId_ = 0;
    std::vector<uint8_t> data_;
    std::basic_string<KChar> display_;
};

class CKestorImage;

// A frame: pixel buffer, description, timestamp, optional compressed payload and metadata.
// Pixel buffers are aligned for unbuffered file I/O and sized as a whole number of 512-byte
// blocks with room for the 8-byte timestamp behind the pixels.
//
// Copies of a KImage share one implementation (the last copy frees it). An image attached to
// a foreign CKestorImage does not own it.
class KESTOR_API KImage {
public:
    KImage();  // an empty image (no buffer, all-zero description)
    KImage(const KImage& other);
    KImage& operator=(const KImage& other);
    explicit KImage(CKestorImage* image);  // attached, not copied, not owned
    virtual ~KImage();

    static KImage* CreateKImage();
    static KImage* CloneKImage(const KImage* source);
    static void CloneKImage(KImage* destination, const KImage* source);
    static void DeleteKImage(KImage* image);

    void AttachImage(CKestorImage* image);  // not owned
    CKestorImage* GetImage() const { return image_; }
    void Free();  // releases the buffers and metadata; the image becomes empty

    // Returns false when the buffer cannot be allocated (the image is then empty).
    bool ReallocateImage(uint32_t width, uint32_t height, uint32_t bitDepth, uint32_t bitDepthReal,
                         eKImageFormat format);
    bool ReallocateCompressedImage(eKCompression compression, uint32_t payloadSize);
    void SetTimestamp(uint32_t seconds, uint16_t milliseconds, uint16_t microseconds);

    uint32_t GetImageWidth() const;
    uint32_t GetImageHeight() const;
    uint32_t GetImageBitDepth() const;
    uint32_t GetImageBitDepthReal() const;
    uint32_t GetImageSizeBytes() const;
    eKImageFormat GetImageFormat() const;
    KImageDescription GetImageDescription() const;
    uint8_t* GetRawImageData() const;
    uint8_t* GetRedChannel() const;
    uint8_t* GetGreenChannel() const;
    uint8_t* GetBlueChannel() const;
    uint32_t GetBufferSizeBytes() const;  // the whole allocation behind GetRawImageData

    eKCompression GetCompressionFormat() const;
    uint8_t* GetCompressedChannel() const;
    uint32_t GetCompressedChannelSizeBytes() const;
    uint8_t* GetCompressedImage() const;
    uint32_t GetCompressedImageSizeBytes() const;

    uint32_t GetTimestamp() const;
    uint16_t GetTimestampMS() const;
    uint16_t GetTimestampUS() const;

    int GetMetadataCount() const;
    KMetadata* GetMetadata(int index) const;
    int GetSpecificMetadataCount(uint32_t typeId) const;
    KMetadata* GetSpecificMetadata(uint32_t typeId, int index) const;
    void AddMetadata(const KMetadata& item);
    void RemoveAllMetadata();

private:
    void Release();
    CKestorImage& EnsureImage();

    CKestorImage* image_ = nullptr;
    bool owned_ = false;
};
