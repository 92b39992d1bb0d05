#include "sequence/MetadataLayout.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace kestor {

namespace {

constexpr uint32_t kCountSize = 4;   // the u32 count in front of items and records
constexpr uint32_t kItemHeader = 8;  // type ID and data length of one item

void Store32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

uint32_t Load32(const uint8_t* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

// Rounds up to a multiple of `unit`; results beyond 32 bits come back as the largest multiple
// that fits, which no writer can allocate anyway.
uint32_t RoundUpTo(uint64_t value, uint32_t unit) {
    const uint64_t step = unit == 0 ? 1 : unit;
    uint64_t rounded = (value + step - 1) / step * step;
    const uint64_t limit = std::numeric_limits<uint32_t>::max() / step * step;
    return static_cast<uint32_t>(std::min(rounded, limit));
}

}  // namespace

std::vector<const KMetadataInfo*> ApplicationTypesOf(const KImage& image,
                                                     const CKestorMetadataManager& manager) {
    std::vector<const KMetadataInfo*> types;
    for (int i = 0; i < image.GetMetadataCount(); ++i) {
        const uint32_t id = image.GetMetadata(i)->GetTypeID();
        if (id < kMetadataFirstApplicationId) continue;
        const KMetadataInfo* type = manager.GetMetadataTypeByID(id);
        if (type != nullptr && std::find(types.begin(), types.end(), type) == types.end())
            types.push_back(type);
    }
    return types;
}

uint32_t PerFrameMetadataSize(const KImage& image, uint16_t imageCapacity,
                              CKestorMetadataManager& manager) {
    if (!manager.IsSequenceMetadataDynamic()) return imageCapacity;
    uint64_t size = kCountSize;
    for (int i = 0; i < image.GetMetadataCount(); ++i)
        size += kItemHeader + image.GetMetadata(i)->GetDataSize();
    return static_cast<uint32_t>(std::min<uint64_t>(size, imageCapacity));
}

uint32_t TypeSectionSize(const KImage& image, CKestorMetadataManager& manager,
                         uint32_t sectorSize) {
    if (!manager.IsSequenceMetadataDynamic())
        return RoundUpTo(static_cast<uint64_t>(std::max(manager.GetMetadataInfoSize(), 0)),
                         sectorSize);
    uint64_t size = kCountSize;
    for (const KMetadataInfo* type : ApplicationTypesOf(image, manager))
        size += type->GetSerializedSize();
    return RoundUpTo(size, sectorSize);
}

bool EncodeFrameMetadata(const std::vector<KMetadata>& items, uint8_t* area, uint32_t areaSize) {
    if (area == nullptr) return false;
    std::memset(area, 0, areaSize);
    if (areaSize < kCountSize) return false;
    uint32_t offset = kCountSize;
    uint32_t written = 0;
    for (const KMetadata& item : items) {
        const uint32_t used = item.Serialize(area + offset, areaSize - offset);
        if (used == 0) break;
        offset += used;
        ++written;
    }
    Store32(area, written);
    return written == items.size();
}

bool DecodeFrameMetadata(const uint8_t* area, uint32_t areaSize, std::vector<KMetadata>& out,
                         const CKestorMetadataManager* manager) {
    out.clear();
    if (area == nullptr || areaSize < kCountSize) return false;
    const uint32_t count = Load32(area);
    uint32_t offset = kCountSize;
    // Every item takes at least 8 bytes, so a hostile count ends at the end of the area.
    for (uint32_t i = 0; i < count; ++i) {
        KMetadata item;
        const uint32_t used = item.Deserialize(area + offset, areaSize - offset);
        if (used == 0) return false;
        offset += used;
        if (manager != nullptr) manager->RebuildMetadataString(item);
        out.push_back(std::move(item));
    }
    return true;
}

std::vector<uint8_t> BuildTypeSection(const std::vector<const KMetadataInfo*>& types,
                                      uint32_t sectionSize, bool* complete) {
    std::vector<uint8_t> section(sectionSize, 0);
    bool all = true;
    if (sectionSize < kCountSize) {
        all = std::all_of(types.begin(), types.end(), [](auto* type) { return type == nullptr; });
    } else {
        uint32_t offset = kCountSize;
        uint32_t written = 0;
        for (const KMetadataInfo* type : types) {
            if (type == nullptr) continue;
            const uint32_t used = type->Serialize(section.data() + offset, sectionSize - offset);
            if (used == 0) {
                all = false;
                continue;
            }
            offset += used;
            ++written;
        }
        Store32(section.data(), written);
    }
    if (complete != nullptr) *complete = all;
    return section;
}

bool ParseTypeSection(const uint8_t* section, uint32_t size, std::vector<KMetadataInfo>& out) {
    out.clear();
    if (size == 0) return true;
    if (section == nullptr || size < kCountSize || size > kMaxReadableTypeSectionSize) return false;
    const uint32_t count = Load32(section);
    uint32_t offset = kCountSize;
    // A record is refused unless it has at least its fixed part, so the loop ends at the end
    // of the section whatever the count says.
    for (uint32_t i = 0; i < count; ++i) {
        KMetadataInfo type;
        const uint32_t used = type.Deserialize(section + offset, size - offset);
        if (used == 0) return false;
        offset += used;
        out.push_back(std::move(type));
    }
    return true;
}

bool ImportTypeSection(const uint8_t* section, uint32_t size, CKestorMetadataManager& manager) {
    std::vector<KMetadataInfo> types;
    const bool complete = ParseTypeSection(section, size, types);
    manager.AddFileTypes(types);
    return complete;
}

}  // namespace kestor
