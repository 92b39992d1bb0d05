// The current user's registry: a tree of named keys holding typed values, shared by every
// process of the user. On Linux it is a SQLite file (see RegistryLocation.h for where it lives);
// key and value names, value types and the enumeration order are those of the Windows registry,
// so code above this layer does not care which one it talks to.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/WideString.h"

namespace kestor {

// Value types, numbered as on Windows (REG_SZ, REG_DWORD ...). The store keeps any number a
// caller gives; these are the ones the library itself reads and writes.
enum class RegType : uint32_t {
    None = 0,
    String = 1,        // REG_SZ: UTF-16LE including the terminating NUL
    ExpandString = 2,  // REG_EXPAND_SZ
    Binary = 3,        // REG_BINARY
    Dword = 4,         // REG_DWORD: 4 bytes little-endian
    MultiString = 7,   // REG_MULTI_SZ
    Qword = 11,        // REG_QWORD
};

enum class RegStatus {
    Ok,
    NotFound,         // key or value does not exist, or the key was deleted meanwhile
    NoMoreItems,      // enumeration index past the end
    InvalidArgument,  // bad name or path, oversized value, closed key
    WrongType,        // value exists but does not have the requested type or size
    Busy,             // another process kept the store locked longer than the busy timeout
    Corrupt,          // the store file is not a registry store or is damaged
    AccessDenied,     // the store file or its folder may not be written
    IoError,          // any other failure of the file system or of the store
};

// Short English description of a status, for logs.
const char* RegStatusText(RegStatus status);

class RegistryDatabase;

// An open key. Closing or destroying the handle never changes the store. Every operation reports
// its result as a status; a key that was deleted through another handle or by another process
// answers NotFound.
class RegistryKey {
public:
    // Limits, close to those of Windows.
    static constexpr size_t kMaxKeyNameLength = 255;
    static constexpr size_t kMaxValueNameLength = 16383;
    static constexpr size_t kMaxPathLength = 32767;
    static constexpr uint32_t kMaxValueSize = 1024 * 1024;

    RegistryKey();
    ~RegistryKey();
    RegistryKey(RegistryKey&& other) noexcept;
    RegistryKey& operator=(RegistryKey&& other) noexcept;
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    // Paths are backslash-separated and relative to the user's root, e.g.
    // u"Software\\Tavlin\\Metadata"; names compare case-insensitively. Leading and trailing
    // backslashes are ignored, the empty path is the root itself. On failure `out` is closed.
    static RegStatus Open(WideStringView path, RegistryKey& out);
    // Opens the key, creating every missing level.
    static RegStatus Create(WideStringView path, RegistryKey& out);
    // Deletes the key with all its subkeys and values. The root cannot be deleted.
    static RegStatus DeleteTree(WideStringView path);

    bool IsOpen() const;
    void Close();
    // Full path of the key, spelled as its levels were created.
    const WideString& Path() const;

    RegStatus OpenSubKey(WideStringView relative, RegistryKey& out) const;
    RegStatus CreateSubKey(WideStringView relative, RegistryKey& out) const;

    // Subkeys and values are enumerated in the registry's order: by name compared after
    // upper-case folding, so ten-digit numeric names come in ascending numeric order.
    RegStatus EnumSubKey(uint32_t index, WideString& name) const;
    RegStatus EnumValue(uint32_t index, WideString& name, RegType& type,
                        std::vector<uint8_t>& data) const;
    // Current number of direct subkeys and of values.
    RegStatus QueryInfo(uint32_t& subKeyCount, uint32_t& valueCount) const;

    // The empty value name is the key's default value.
    RegStatus QueryValue(WideStringView name, RegType& type, std::vector<uint8_t>& data) const;
    // WrongType unless the value is a REG_DWORD of exactly 4 bytes.
    RegStatus QueryDword(WideStringView name, uint32_t& value) const;
    // REG_SZ or REG_EXPAND_SZ; one trailing NUL is stripped, data without it is accepted.
    RegStatus QueryString(WideStringView name, WideString& value) const;

    // Creates or replaces a value; the last write wins. At most kMaxValueSize bytes.
    RegStatus SetValue(WideStringView name, RegType type, const void* data, uint32_t size);
    RegStatus SetDword(WideStringView name, uint32_t value);
    // Stores REG_SZ with the terminating NUL included in the byte count.
    RegStatus SetString(WideStringView name, WideStringView value);

    RegStatus DeleteValue(WideStringView name);

private:
    static RegStatus OpenOrCreate(WideStringView path, bool create, RegistryKey& out);
    RegStatus OpenRelative(WideStringView relative, bool create, RegistryKey& out) const;

    std::shared_ptr<RegistryDatabase> database_;
    int64_t id_ = -1;
    WideString path_;
};

}  // namespace kestor
