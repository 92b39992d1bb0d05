#include <algorithm>
#include <cstring>
#include <limits>

#include "KMetadataManager.h"
#include "platform/WideString.h"

namespace {

constexpr uint32_t kFixedPartSize = 16;  // size, ID, Format, SizeInBytes
constexpr uint32_t kSmallestRecord = kFixedPartSize + 3 * sizeof(KChar);  // three empty strings

void Store32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint32_t Load32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

// Writes the text as UTF-16LE with its NUL; returns the position after it.
uint8_t* StoreText(uint8_t* out, const std::basic_string<KChar>& text) {
    for (KChar c : text) {
        *out++ = static_cast<uint8_t>(c & 0xFF);
        *out++ = static_cast<uint8_t>(c >> 8);
    }
    *out++ = 0;
    *out++ = 0;
    return out;
}

// Reads a NUL-terminated UTF-16LE text that must end before `end`; advances `offset` past the
// NUL. False when no NUL is found in range.
bool LoadText(const uint8_t* bytes, uint32_t end, uint32_t& offset,
              std::basic_string<KChar>& text) {
    text.clear();
    for (uint32_t at = offset; end >= 2 && at <= end - 2; at += 2) {
        const auto unit = static_cast<KChar>(bytes[at] | bytes[at + 1] << 8);
        if (unit == 0) {
            offset = at + 2;
            return true;
        }
        text.push_back(unit);
    }
    return false;
}

uint64_t ComputedSize(size_t name, size_t description, size_t formatString) {
    return kFixedPartSize +
           sizeof(KChar) * (uint64_t{name} + 1 + description + 1 + formatString + 1);
}

}  // namespace

KMetadataInfo::KMetadataInfo(uint32_t id, const KChar* name, const KChar* description,
                             uint32_t format, uint32_t sizeInBytes, const KChar* formatString)
    : id_(id),
      name_(name != nullptr ? name : u"", kestor::WideLength(name)),
      description_(description != nullptr ? description : u"", kestor::WideLength(description)),
      format_(format),
      sizeInBytes_(sizeInBytes),
      formatString_(formatString != nullptr ? formatString : u"",
                    kestor::WideLength(formatString)) {}

uint32_t KMetadataInfo::GetSerializedSize() const {
    if (serializedSize_ == 0) {
        const uint64_t size = ComputedSize(name_.size(), description_.size(), formatString_.size());
        serializedSize_ =
            static_cast<uint32_t>(std::min<uint64_t>(size, std::numeric_limits<uint32_t>::max()));
    }
    return serializedSize_;
}

uint32_t KMetadataInfo::Serialize(void* buffer, uint32_t capacity) const {
    const uint32_t size = GetSerializedSize();
    // A record read back may be longer than its strings need (the rest is zero), never shorter.
    if (buffer == nullptr || size > capacity ||
        size < ComputedSize(name_.size(), description_.size(), formatString_.size()))
        return 0;
    auto* out = static_cast<uint8_t*>(buffer);
    Store32(out, size);
    Store32(out + 4, id_);
    Store32(out + 8, format_);
    Store32(out + 12, sizeInBytes_);
    uint8_t* end = StoreText(out + kFixedPartSize, name_);
    end = StoreText(end, description_);
    end = StoreText(end, formatString_);
    std::memset(end, 0, static_cast<size_t>(out + size - end));
    return size;
}

uint32_t KMetadataInfo::Deserialize(const void* buffer, uint32_t size) {
    if (buffer == nullptr || size < kSmallestRecord) return 0;
    const auto* in = static_cast<const uint8_t*>(buffer);
    const uint32_t recordSize = Load32(in);
    if (recordSize < kSmallestRecord || recordSize > size) return 0;

    std::basic_string<KChar> name, description, formatString;
    uint32_t offset = kFixedPartSize;
    if (!LoadText(in, recordSize, offset, name) || !LoadText(in, recordSize, offset, description) ||
        !LoadText(in, recordSize, offset, formatString))
        return 0;

    id_ = Load32(in + 4);
    format_ = Load32(in + 8);
    sizeInBytes_ = Load32(in + 12);
    name_ = std::move(name);
    description_ = std::move(description);
    formatString_ = std::move(formatString);
    serializedSize_ = recordSize;
    return recordSize;
}

bool KMetadataInfo::FromBytes(const void* buffer, uint32_t size, KMetadataInfo& out,
                              uint32_t* consumed) {
    const uint32_t used = out.Deserialize(buffer, size);
    if (consumed != nullptr) *consumed = used;
    return used != 0;
}
