#include "platform/Registry.h"

#include <new>

#include "platform/RegistryDatabase.h"
#include "platform/RegistryLocation.h"
#include "platform/RegistryNames.h"
#include "platform/RegistryTransaction.h"

namespace kestor {

namespace {

// The store must never let an exception (in practice std::bad_alloc) reach the caller.
template <typename Body>
RegStatus Guarded(Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return RegStatus::IoError;
    }
}

// Runs `work` on the key `id` after checking that the key still exists.
RegStatus OnExistingKey(const std::shared_ptr<RegistryDatabase>& database, int64_t id, bool write,
                        const RegistryDatabase::Work& work) {
    if (database == nullptr) return RegStatus::InvalidArgument;
    auto checked = [&](RegistryTransaction& transaction) {
        const RegStatus status = transaction.KeyExists(id);
        return status == RegStatus::Ok ? work(transaction) : status;
    };
    return write ? database->Write(checked) : database->Read(checked);
}

// Follows `names` down from `start`, creating missing levels when asked. `path` starts as the
// path of `start` and receives the stored spelling of every level walked.
RegStatus WalkPath(RegistryTransaction& transaction, int64_t start,
                   const std::vector<WideStringView>& names, bool create, int64_t& id,
                   WideString& path) {
    id = start;
    for (const WideStringView name : names) {
        const std::string folded = WideToUtf8(FoldRegistryName(name));
        std::string stored;
        int64_t child = 0;
        RegStatus status = transaction.FindSubKey(id, folded, child, stored);
        if (status == RegStatus::NotFound && create) {
            stored = WideToUtf8(name);
            status = transaction.AddSubKey(id, stored, folded, child);
        }
        if (status != RegStatus::Ok) return status;
        id = child;
        if (!path.empty()) path += u'\\';
        path += Utf8ToWide(stored);
    }
    return RegStatus::Ok;
}

std::vector<uint8_t> Utf16LeBytes(WideStringView text, bool withTerminator) {
    std::vector<uint8_t> bytes;
    bytes.reserve((text.size() + 1) * 2);
    for (const KChar unit : text) {
        bytes.push_back(static_cast<uint8_t>(unit & 0xFF));
        bytes.push_back(static_cast<uint8_t>((unit >> 8) & 0xFF));
    }
    if (withTerminator) bytes.insert(bytes.end(), {0, 0});
    return bytes;
}

}  // namespace

const char* RegStatusText(RegStatus status) {
    switch (status) {
        case RegStatus::Ok:
            return "The operation completed successfully";
        case RegStatus::NotFound:
            return "The registry key or value does not exist";
        case RegStatus::NoMoreItems:
            return "No more registry items";
        case RegStatus::InvalidArgument:
            return "Invalid registry key, name or value";
        case RegStatus::WrongType:
            return "The registry value has another type";
        case RegStatus::Busy:
            return "The registry store is locked by another process";
        case RegStatus::Corrupt:
            return "The registry store is damaged or not a registry store";
        case RegStatus::AccessDenied:
            return "Access to the registry store was denied";
        case RegStatus::IoError:
            return "The registry store could not be read or written";
    }
    return "Unknown registry status";
}

RegistryKey::RegistryKey() = default;
RegistryKey::~RegistryKey() = default;
RegistryKey::RegistryKey(RegistryKey&& other) noexcept
    : database_(std::move(other.database_)), id_(other.id_), path_(std::move(other.path_)) {
    other.Close();
}

RegistryKey& RegistryKey::operator=(RegistryKey&& other) noexcept {
    if (this != &other) {
        database_ = std::move(other.database_);
        id_ = other.id_;
        path_ = std::move(other.path_);
        other.Close();
    }
    return *this;
}

bool RegistryKey::IsOpen() const {
    return database_ != nullptr;
}

void RegistryKey::Close() {
    database_.reset();
    id_ = -1;
    path_.clear();
}

const WideString& RegistryKey::Path() const {
    return path_;
}

RegStatus RegistryKey::Open(WideStringView path, RegistryKey& out) {
    return OpenOrCreate(path, false, out);
}

RegStatus RegistryKey::Create(WideStringView path, RegistryKey& out) {
    return OpenOrCreate(path, true, out);
}

RegStatus RegistryKey::OpenOrCreate(WideStringView path, bool create, RegistryKey& out) {
    out.Close();
    return Guarded([&] {
        RegistryKey root;
        const RegStatus status = RegistryDatabase::Acquire(RegistryFileLocation(), root.database_);
        if (status != RegStatus::Ok) return status;
        root.id_ = RegistryTransaction::kRootId;
        return root.OpenRelative(path, create, out);
    });
}

RegStatus RegistryKey::DeleteTree(WideStringView path) {
    return Guarded([&] {
        std::vector<WideStringView> names;
        if (!SplitRegistryPath(path, names) || names.empty()) return RegStatus::InvalidArgument;
        std::shared_ptr<RegistryDatabase> database;
        const RegStatus status = RegistryDatabase::Acquire(RegistryFileLocation(), database);
        if (status != RegStatus::Ok) return status;
        return database->Write([&](RegistryTransaction& transaction) {
            int64_t id = 0;
            WideString walked;
            const RegStatus found =
                WalkPath(transaction, RegistryTransaction::kRootId, names, false, id, walked);
            return found == RegStatus::Ok ? transaction.DeleteTree(id) : found;
        });
    });
}

RegStatus RegistryKey::OpenSubKey(WideStringView relative, RegistryKey& out) const {
    return Guarded([&] { return OpenRelative(relative, false, out); });
}

RegStatus RegistryKey::CreateSubKey(WideStringView relative, RegistryKey& out) const {
    return Guarded([&] { return OpenRelative(relative, true, out); });
}

RegStatus RegistryKey::OpenRelative(WideStringView relative, bool create, RegistryKey& out) const {
    // `out` may be this very key, so it is only touched once the walk is over.
    std::vector<WideStringView> names;
    RegStatus status = RegStatus::InvalidArgument;
    if (IsOpen() && SplitRegistryPath(relative, names) &&
        path_.size() + 1 + relative.size() <= kMaxPathLength) {
        int64_t id = 0;
        WideString path;
        auto walk = [&](bool creating) {
            path = path_;
            return OnExistingKey(database_, id_, creating, [&](RegistryTransaction& transaction) {
                return WalkPath(transaction, id_, names, creating, id, path);
            });
        };
        // Most opens find the key, and then a read is enough: no write lock, and it also works
        // on a store that may only be read.
        status = walk(false);
        if (status == RegStatus::NotFound && create) status = walk(true);
        if (status == RegStatus::Ok) {
            std::shared_ptr<RegistryDatabase> database = database_;
            out.database_ = std::move(database);
            out.id_ = id;
            out.path_ = std::move(path);
            return RegStatus::Ok;
        }
    }
    out.Close();
    return status;
}

RegStatus RegistryKey::EnumSubKey(uint32_t index, WideString& name) const {
    return Guarded([&] {
        std::string stored;
        const RegStatus status =
            OnExistingKey(database_, id_, false, [&](RegistryTransaction& transaction) {
                return transaction.SubKeyAt(id_, index, stored);
            });
        if (status == RegStatus::Ok) name = Utf8ToWide(stored);
        return status;
    });
}

RegStatus RegistryKey::EnumValue(uint32_t index, WideString& name, RegType& type,
                                 std::vector<uint8_t>& data) const {
    return Guarded([&] {
        std::string stored;
        const RegStatus status =
            OnExistingKey(database_, id_, false, [&](RegistryTransaction& transaction) {
                return transaction.ValueAt(id_, index, stored, type, data);
            });
        if (status == RegStatus::Ok) name = Utf8ToWide(stored);
        return status;
    });
}

RegStatus RegistryKey::QueryInfo(uint32_t& subKeyCount, uint32_t& valueCount) const {
    return Guarded([&] {
        return OnExistingKey(database_, id_, false, [&](RegistryTransaction& transaction) {
            const RegStatus status = transaction.CountSubKeys(id_, subKeyCount);
            return status == RegStatus::Ok ? transaction.CountValues(id_, valueCount) : status;
        });
    });
}

RegStatus RegistryKey::QueryValue(WideStringView name, RegType& type,
                                  std::vector<uint8_t>& data) const {
    if (!IsValidValueName(name)) return RegStatus::InvalidArgument;
    return Guarded([&] {
        const std::string folded = WideToUtf8(FoldRegistryName(name));
        return OnExistingKey(database_, id_, false, [&](RegistryTransaction& transaction) {
            return transaction.FindValue(id_, folded, type, data);
        });
    });
}

RegStatus RegistryKey::QueryDword(WideStringView name, uint32_t& value) const {
    return Guarded([&] {
        RegType type = RegType::None;
        std::vector<uint8_t> data;
        const RegStatus status = QueryValue(name, type, data);
        if (status != RegStatus::Ok) return status;
        if (type != RegType::Dword || data.size() != 4) return RegStatus::WrongType;
        value = uint32_t{data[0]} | uint32_t{data[1]} << 8 | uint32_t{data[2]} << 16 |
                uint32_t{data[3]} << 24;
        return RegStatus::Ok;
    });
}

RegStatus RegistryKey::QueryString(WideStringView name, WideString& value) const {
    return Guarded([&] {
        RegType type = RegType::None;
        std::vector<uint8_t> data;
        const RegStatus status = QueryValue(name, type, data);
        if (status != RegStatus::Ok) return status;
        if (type != RegType::String && type != RegType::ExpandString) return RegStatus::WrongType;
        WideString text;
        text.reserve(data.size() / 2);
        for (size_t i = 0; i + 1 < data.size(); i += 2)
            text.push_back(static_cast<KChar>(data[i] | data[i + 1] << 8));
        if (!text.empty() && text.back() == 0) text.pop_back();
        value = std::move(text);
        return RegStatus::Ok;
    });
}

RegStatus RegistryKey::SetValue(WideStringView name, RegType type, const void* data,
                                uint32_t size) {
    if (!IsValidValueName(name) || size > kMaxValueSize || (data == nullptr && size != 0))
        return RegStatus::InvalidArgument;
    return Guarded([&] {
        const std::string stored = WideToUtf8(name);
        const std::string folded = WideToUtf8(FoldRegistryName(name));
        return OnExistingKey(database_, id_, true, [&](RegistryTransaction& transaction) {
            return transaction.PutValue(id_, stored, folded, type, data, size);
        });
    });
}

RegStatus RegistryKey::SetDword(WideStringView name, uint32_t value) {
    const uint8_t bytes[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                              static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    return SetValue(name, RegType::Dword, bytes, sizeof(bytes));
}

RegStatus RegistryKey::SetString(WideStringView name, WideStringView value) {
    if (value.size() >= kMaxValueSize / 2) return RegStatus::InvalidArgument;
    return Guarded([&] {
        const std::vector<uint8_t> bytes = Utf16LeBytes(value, true);
        return SetValue(name, RegType::String, bytes.data(), static_cast<uint32_t>(bytes.size()));
    });
}

RegStatus RegistryKey::DeleteValue(WideStringView name) {
    if (!IsValidValueName(name)) return RegStatus::InvalidArgument;
    return Guarded([&] {
        const std::string folded = WideToUtf8(FoldRegistryName(name));
        return OnExistingKey(database_, id_, true, [&](RegistryTransaction& transaction) {
            return transaction.RemoveValue(id_, folded);
        });
    });
}

}  // namespace kestor
