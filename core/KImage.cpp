#include "KImage.h"

#include "core/CKestorImage.h"

KImage::KImage() : image_(new CKestorImage), owned_(true) {
    image_->AddRef();
}

KImage::KImage(const KImage& other) : image_(other.image_), owned_(other.owned_) {
    if (owned_ && image_ != nullptr) image_->AddRef();
}

KImage& KImage::operator=(const KImage& other) {
    if (this == &other || image_ == other.image_) return *this;
    if (other.owned_ && other.image_ != nullptr) other.image_->AddRef();
    Release();
    image_ = other.image_;
    owned_ = other.owned_;
    return *this;
}

KImage::KImage(CKestorImage* image) : image_(image), owned_(false) {}

KImage::~KImage() {
    Release();
}

void KImage::Release() {
    if (owned_ && image_ != nullptr && image_->ReleaseRef()) delete image_;
    image_ = nullptr;
    owned_ = false;
}

CKestorImage& KImage::EnsureImage() {
    if (image_ == nullptr) {
        image_ = new CKestorImage;
        image_->AddRef();
        owned_ = true;
    }
    return *image_;
}

KImage* KImage::CreateKImage() {
    return new KImage;
}

KImage* KImage::CloneKImage(const KImage* source) {
    auto* copy = new KImage;
    CloneKImage(copy, source);
    return copy;
}

void KImage::CloneKImage(KImage* destination, const KImage* source) {
    if (destination == nullptr || source == nullptr || source->image_ == nullptr) return;
    destination->EnsureImage().CopyFrom(*source->image_);
}

void KImage::DeleteKImage(KImage* image) {
    if (image == nullptr) return;
    image->Free();
    delete image;
}

void KImage::AttachImage(CKestorImage* image) {
    Release();
    image_ = image;
    owned_ = false;
}

void KImage::Free() {
    if (image_ == nullptr) return;
    image_->Reset();
    image_->Metadata().clear();
}

bool KImage::ReallocateImage(uint32_t width, uint32_t height, uint32_t bitDepth,
                             uint32_t bitDepthReal, eKImageFormat format) {
    return EnsureImage().Reallocate(width, height, bitDepth, bitDepthReal, format, 0);
}

bool KImage::ReallocateCompressedImage(eKCompression compression, uint32_t payloadSize) {
    return EnsureImage().ReallocateCompressed(compression, payloadSize);
}

void KImage::SetTimestamp(uint32_t seconds, uint16_t milliseconds, uint16_t microseconds) {
    EnsureImage().SetTimestamp(seconds, milliseconds, microseconds);
}

uint32_t KImage::GetImageWidth() const {
    return image_ ? image_->Description().width : 0;
}
uint32_t KImage::GetImageHeight() const {
    return image_ ? image_->Description().height : 0;
}
uint32_t KImage::GetImageBitDepth() const {
    return image_ ? image_->Description().bitDepth : 0;
}
uint32_t KImage::GetImageBitDepthReal() const {
    return image_ ? image_->Description().bitDepthReal : 0;
}
uint32_t KImage::GetImageSizeBytes() const {
    return image_ ? image_->Description().sizeBytes : 0;
}
eKImageFormat KImage::GetImageFormat() const {
    return image_ ? static_cast<eKImageFormat>(image_->Description().format) : eKFormatUnknown;
}
KImageDescription KImage::GetImageDescription() const {
    return image_ ? image_->Description() : KImageDescription{};
}
uint8_t* KImage::GetRawImageData() const {
    return image_ ? image_->Buffer() : nullptr;
}
uint8_t* KImage::GetRedChannel() const {
    return image_ ? image_->Buffer() : nullptr;
}
uint8_t* KImage::GetGreenChannel() const {
    return image_ ? image_->Plane1() : nullptr;
}
uint8_t* KImage::GetBlueChannel() const {
    return image_ ? image_->Plane2() : nullptr;
}
uint32_t KImage::GetBufferSizeBytes() const {
    return image_ ? static_cast<uint32_t>(image_->BufferSize()) : 0;
}

eKCompression KImage::GetCompressionFormat() const {
    return image_ ? static_cast<eKCompression>(image_->Compression()) : eKCompressionNone;
}
uint8_t* KImage::GetCompressedChannel() const {
    return image_ ? image_->CompressedBuffer() : nullptr;
}
uint32_t KImage::GetCompressedChannelSizeBytes() const {
    return image_ ? image_->CompressedChannelSize() : 0;
}
uint8_t* KImage::GetCompressedImage() const {
    return image_ && image_->CompressedBuffer() ? image_->CompressedBuffer() + 4 : nullptr;
}
uint32_t KImage::GetCompressedImageSizeBytes() const {
    const uint32_t stored = GetCompressedChannelSizeBytes();
    return stored >= 4 ? stored - 4 : 0;
}

uint32_t KImage::GetTimestamp() const {
    return image_ ? image_->TimestampSeconds() : 0;
}
uint16_t KImage::GetTimestampMS() const {
    return image_ ? image_->TimestampMilliseconds() : 0;
}
uint16_t KImage::GetTimestampUS() const {
    return image_ ? image_->TimestampMicroseconds() : 0;
}

int KImage::GetMetadataCount() const {
    return image_ ? static_cast<int>(image_->Metadata().size()) : 0;
}

KMetadata* KImage::GetMetadata(int index) const {
    if (image_ == nullptr || index < 0 || index >= GetMetadataCount()) return nullptr;
    return &image_->Metadata()[static_cast<size_t>(index)];
}

int KImage::GetSpecificMetadataCount(uint32_t typeId) const {
    if (image_ == nullptr) return 0;
    int count = 0;
    for (const KMetadata& item : image_->Metadata())
        if (item.GetTypeID() == typeId) ++count;
    return count;
}

KMetadata* KImage::GetSpecificMetadata(uint32_t typeId, int index) const {
    if (image_ == nullptr || index < 0) return nullptr;
    for (KMetadata& item : image_->Metadata()) {
        if (item.GetTypeID() != typeId) continue;
        if (index-- == 0) return &item;
    }
    return nullptr;
}

void KImage::AddMetadata(const KMetadata& item) {
    EnsureImage().Metadata().push_back(item);
}

void KImage::RemoveAllMetadata() {
    if (image_ != nullptr) image_->Metadata().clear();
}
