// How metadata is laid out in a sequence file: the per-frame area behind each frame's timestamp
// and the type section between the header and the first frame. Shared by every sequencer.
//
// Per-frame area: u32 item count, then the items (u32 type ID, u32 data length, data), then
// zeros up to the area size.
// Type section: u32 record count, then the KMetadataInfo records, then zeros up to the section
// size (a whole number of sectors, so that unbuffered writes stay aligned).
#pragma once

#include <cstdint>
#include <vector>

#include "KImage.h"
#include "KMetadataManager.h"
#include "sequence/CKestorMetadataManager.h"

namespace kestor {

// A type section larger than this is taken as damaged and not read at all; the file is then
// treated as carrying no metadata.
inline constexpr uint32_t kMaxReadableTypeSectionSize = 100000;

// The registered application types (ID 0x80000000 and up) that occur among the image's items,
// each once, in order of first occurrence. Unregistered IDs are left out.
std::vector<const KMetadataInfo*> ApplicationTypesOf(const KImage& image,
                                                     const CKestorMetadataManager& manager);

// Size of the per-frame area of a file laid out for `image`. Fixed sizing uses the image's
// metadata capacity; dynamic sizing uses 4 + (8 + data length) per item of the image, cut down
// to that capacity.
uint32_t PerFrameMetadataSize(const KImage& image, uint16_t imageCapacity,
                              CKestorMetadataManager& manager);

// Size of the type section of a file laid out for `image`, rounded up to `sectorSize` (0 or 1:
// no rounding). Fixed sizing uses the MetadataInfoSize setting, so a setting of 0 gives no
// section. Dynamic sizing always has one: 4 + the record sizes of ApplicationTypesOf, so even an
// image without application types gets a section holding a count of 0; existing files were laid
// out that way and their frame offsets depend on it.
uint32_t TypeSectionSize(const KImage& image, CKestorMetadataManager& manager, uint32_t sectorSize);

// Fills the per-frame area. False when the area is smaller than 4 bytes or the items do not all
// fit; the area then holds the leading items that fit, with their count, so it stays readable.
bool EncodeFrameMetadata(const std::vector<KMetadata>& items, uint8_t* area, uint32_t areaSize);

// Reads a per-frame area into `out` (replacing its contents), never reading past `areaSize`.
// False, with the items decoded so far, when the area is smaller than 4 bytes or an item runs
// past its end. With a manager, each item's display string is rebuilt.
bool DecodeFrameMetadata(const uint8_t* area, uint32_t areaSize, std::vector<KMetadata>& out,
                         const CKestorMetadataManager* manager = nullptr);

// A type section of exactly `sectionSize` bytes holding the given types (nulls are skipped).
// Records that do not fit are left out and `complete`, when given, is set to false; the count
// always tells how many records the section holds. Below 4 bytes the section is all zero.
std::vector<uint8_t> BuildTypeSection(const std::vector<const KMetadataInfo*>& types,
                                      uint32_t sectionSize, bool* complete = nullptr);

// Reads a type section into `out` (replacing its contents). A size of 0 is an absent section
// (true, no types). False when the section is over kMaxReadableTypeSectionSize (nothing is read),
// shorter than its count, or a record is refused; the records read before stay in `out`.
bool ParseTypeSection(const uint8_t* section, uint32_t size, std::vector<KMetadataInfo>& out);

// Reads a file's type section and makes its types known to `manager` for display strings,
// without writing them to the registry store. Records read before a damaged one are still
// added. Returns what ParseTypeSection returned.
bool ImportTypeSection(const uint8_t* section, uint32_t size, CKestorMetadataManager& manager);

}  // namespace kestor
