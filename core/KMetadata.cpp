#include <cstring>

#include "KImage.h"
#include "platform/WideString.h"

namespace {

void Store32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint32_t Load32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

}  // namespace

KMetadata::KMetadata(uint32_t typeId, const void* data, uint32_t dataSize,
                     const KChar* displayString)
    : typeId_(typeId) {
    SetData(data, dataSize);
    SetDisplayString(displayString);
}

void KMetadata::SetData(const void* data, uint32_t dataSize) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    if (bytes == nullptr) dataSize = 0;
    data_.assign(bytes, bytes + dataSize);
}

void KMetadata::SetDisplayString(const KChar* text) {
    display_.assign(text != nullptr ? text : u"", kestor::WideLength(text));
}

uint32_t KMetadata::Serialize(void* buffer, uint32_t capacity) const {
    const uint64_t needed = uint64_t{8} + data_.size();
    if (buffer == nullptr || needed > capacity) return 0;
    auto* out = static_cast<uint8_t*>(buffer);
    Store32(out, typeId_);
    Store32(out + 4, GetDataSize());
    if (!data_.empty()) std::memcpy(out + 8, data_.data(), data_.size());
    return static_cast<uint32_t>(needed);
}

uint32_t KMetadata::Deserialize(const void* buffer, uint32_t size) {
    if (buffer == nullptr || size < 8) return 0;
    const auto* in = static_cast<const uint8_t*>(buffer);
    const uint32_t length = Load32(in + 4);
    if (length > size - 8) return 0;
    typeId_ = Load32(in);
    data_.assign(in + 8, in + 8 + length);
    display_.clear();
    return 8 + length;
}
