// Metadata types: what a metadata item's type ID is called, how its data is laid out and how it is
// shown as text. The table and the sizing settings live in the current user's registry store, so
// every program of the user sees the same types.
#pragma once

#include <cstdint>
#include <string>

#include "KError.h"
#include "KImage.h"
#include "KTypes.h"

// Layout of a metadata type's data. Stored in the registry as "Format".
enum eKMetadataFormat : uint32_t {
    eKMetadataBoolean = 1,        // 1 byte, zero is false
    eKMetadataByte = 2,           // unsigned 8-bit
    eKMetadataShort = 3,          // signed 16-bit
    eKMetadataUnsignedShort = 4,  // unsigned 16-bit
    eKMetadataInteger = 5,        // signed 32-bit
    eKMetadataUnsignedInteger = 6,
    eKMetadataDouble = 7,  // 64-bit IEEE
    eKMetadataString = 8,  // NUL-terminated UTF-16
    eKMetadataBinary = 9,  // never shown as text
};

// Well-known type IDs. 0..8 are the generic types, 33 and 34 the built-in time types; IDs from
// 0x80000000 up belong to applications and are described inside every sequence that uses them.
inline constexpr uint32_t kMetadataIdBoolean = 0;
inline constexpr uint32_t kMetadataIdBinary = 8;
inline constexpr uint32_t kMetadataIdTime64 = 33;
inline constexpr uint32_t kMetadataIdLtcTime = 34;
inline constexpr uint32_t kMetadataFirstApplicationId = 0x80000000u;

// One metadata type. Serialised (little-endian, packed) as: record size u32, ID u32, Format u32,
// SizeInBytes u32, then Name, Description and FormatString as NUL-terminated UTF-16.
class KESTOR_API KMetadataInfo {
public:
    KMetadataInfo() = default;
    // Null strings are taken as empty. `format` is an eKMetadataFormat code; other codes are kept
    // as given and simply never shown.
    KMetadataInfo(uint32_t id, const KChar* name, const KChar* description, uint32_t format,
                  uint32_t sizeInBytes, const KChar* formatString);

    uint32_t GetID() const { return id_; }
    const KChar* GetName() const { return name_.c_str(); }
    const KChar* GetDescription() const { return description_.c_str(); }
    eKMetadataFormat GetFormat() const { return static_cast<eKMetadataFormat>(format_); }
    uint32_t GetSizeInBytes() const { return sizeInBytes_; }  // 0 = variable
    // printf-style pattern; for Boolean two words separated by ";".
    const KChar* GetFormatString() const { return formatString_.c_str(); }

    // Length of the serialised record. Computed on first request and kept from then on; a record
    // read back keeps the size it was stored with.
    uint32_t GetSerializedSize() const;
    // Writes the record; returns the bytes written, 0 when it does not fit in `capacity`.
    uint32_t Serialize(void* buffer, uint32_t capacity) const;
    // Reads one record from at most `size` bytes. Returns the bytes consumed (the record size), or
    // 0 when the record is truncated, its size field runs past `size` or is too small, or a
    // string is not terminated inside the record; the object is left unchanged then.
    uint32_t Deserialize(const void* buffer, uint32_t size);
    // Same, as a factory: false when the record is refused.
    static bool FromBytes(const void* buffer, uint32_t size, KMetadataInfo& out,
                          uint32_t* consumed = nullptr);

private:
    uint32_t id_ = 0;
    std::basic_string<KChar> name_;
    std::basic_string<KChar> description_;
    uint32_t format_ = 0;
    uint32_t sizeInBytes_ = 0;
    std::basic_string<KChar> formatString_;
    mutable uint32_t serializedSize_ = 0;  // 0 until first asked for
};

// The metadata type registry and the settings that size the metadata areas of sequences.
// Copies share one implementation. Pointers to types stay valid until the next registration
// through the same manager or its destruction. No operation throws; a manager whose
// implementation could not be created answers false, 0 or null.
class KESTOR_API KMetadataManager : public KHandleBase {
public:
    KMetadataManager();  // loads the type list from the registry store
    KMetadataManager(const KMetadataManager& other);
    KMetadataManager& operator=(const KMetadataManager& other);
    ~KMetadataManager() override;

    // Room reserved per frame for metadata items, in bytes ("MetadataMaxSize").
    bool SetMetadataMaxSize(int bytes);
    int GetMetadataMaxSize();
    // Room reserved in a sequence for type descriptions, in bytes ("MetadataInfoSize").
    bool SetMetadataInfoSize(int bytes);
    int GetMetadataInfoSize();
    // True: sequences size their metadata areas from the first image's items.
    bool IsSequenceMetadataDynamic();
    bool SetSequenceMetadataDynamic(bool dynamic);

    // Stores the type (replacing one with the same ID) and reloads the list.
    bool RegisterMetadataType(const KMetadataInfo* info);
    bool RegisterGenericTypes();  // IDs 0..8
    bool RegisterTavLinTypes();   // IDs 33 and 34

    int GetMetadataTypeCount();
    const KMetadataInfo* GetMetadataTypeByIndex(unsigned int index);  // null when out of range
    const KMetadataInfo* GetMetadataTypeByID(unsigned int id);        // null when unknown

    // Sets the item's display string from its data; unknown and binary types keep theirs.
    void RebuildMetadataString(KMetadata* item);
};
