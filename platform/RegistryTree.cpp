#include "platform/RegistryTree.h"

#include <string>

#include "platform/RegistryDatabase.h"
#include "platform/RegistryLocation.h"
#include "platform/RegistryNames.h"
#include "platform/RegistryTransaction.h"

namespace kestor {

namespace {

std::string Folded(WideStringView name) {
    return WideToUtf8(FoldRegistryName(name));
}

// Finds (or, when `create`, adds) the key `name` below `parent`.
RegStatus Child(RegistryTransaction& transaction, int64_t parent, WideStringView name, bool create,
                int64_t& id) {
    const std::string folded = Folded(name);
    std::string stored;
    const RegStatus status = transaction.FindSubKey(parent, folded, id, stored);
    if (status != RegStatus::NotFound || !create) return status;
    return transaction.AddSubKey(parent, WideToUtf8(name), folded, id);
}

RegStatus Walk(RegistryTransaction& transaction, WideStringView path, bool create, int64_t& id) {
    std::vector<WideStringView> names;
    if (!SplitRegistryPath(path, names)) return RegStatus::InvalidArgument;
    id = RegistryTransaction::kRootId;
    for (const WideStringView name : names) {
        const RegStatus status = Child(transaction, id, name, create, id);
        if (status != RegStatus::Ok) return status;
    }
    return RegStatus::Ok;
}

RegStatus ReadKey(RegistryTransaction& transaction, int64_t id, int depth, RegistryTree& tree) {
    if (depth > kMaxRegistryTreeDepth) return RegStatus::Corrupt;
    std::string name;
    RegStatus status = RegStatus::Ok;
    for (uint32_t index = 0;; ++index) {
        status = transaction.SubKeyAt(id, index, name);
        if (status != RegStatus::Ok) break;
        RegistryTree& child = tree.subKeys.emplace_back();
        child.name = Utf8ToWide(name);
        int64_t childId = 0;
        std::string stored;
        status = transaction.FindSubKey(id, Folded(child.name), childId, stored);
        if (status == RegStatus::Ok) status = ReadKey(transaction, childId, depth + 1, child);
        if (status != RegStatus::Ok) return status;
    }
    if (status != RegStatus::NoMoreItems) return status;
    for (uint32_t index = 0;; ++index) {
        RegistryTreeValue value;
        status = transaction.ValueAt(id, index, name, value.type, value.data);
        if (status != RegStatus::Ok) break;
        value.name = Utf8ToWide(name);
        tree.values.push_back(std::move(value));
    }
    return status == RegStatus::NoMoreItems ? RegStatus::Ok : status;
}

// Refuses what the store would refuse, before anything is written. `pathLength` is the length
// of the full path of `tree`'s key.
bool IsWritable(const RegistryTree& tree, size_t pathLength, int depth) {
    if (depth > kMaxRegistryTreeDepth) return false;
    for (const RegistryTreeValue& value : tree.values) {
        if (!IsValidValueName(value.name) || value.data.size() > RegistryKey::kMaxValueSize)
            return false;
    }
    for (const RegistryTree& child : tree.subKeys) {
        const size_t childLength = pathLength + 1 + child.name.size();
        if (!IsValidKeyName(child.name) || childLength > RegistryKey::kMaxPathLength) return false;
        if (!IsWritable(child, childLength, depth + 1)) return false;
    }
    return true;
}

RegStatus WriteKey(RegistryTransaction& transaction, int64_t id, const RegistryTree& tree) {
    for (const RegistryTreeValue& value : tree.values) {
        const RegStatus status =
            transaction.PutValue(id, WideToUtf8(value.name), Folded(value.name), value.type,
                                 value.data.data(), static_cast<uint32_t>(value.data.size()));
        if (status != RegStatus::Ok) return status;
    }
    for (const RegistryTree& child : tree.subKeys) {
        int64_t childId = 0;
        RegStatus status = Child(transaction, id, child.name, true, childId);
        if (status == RegStatus::Ok) status = WriteKey(transaction, childId, child);
        if (status != RegStatus::Ok) return status;
    }
    return RegStatus::Ok;
}

// The store must never let an exception (in practice std::bad_alloc) reach the caller.
template <typename Body>
RegStatus Guarded(Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return RegStatus::IoError;
    }
}

}  // namespace

RegStatus ReadRegistryTree(WideStringView path, RegistryTree& tree) {
    return Guarded([&] {
        RegistryTree read;
        std::shared_ptr<RegistryDatabase> database;
        RegStatus status = RegistryDatabase::Acquire(RegistryFileLocation(), database);
        if (status != RegStatus::Ok) return status;
        status = database->Read([&](RegistryTransaction& transaction) {
            int64_t id = 0;
            const RegStatus found = Walk(transaction, path, false, id);
            return found == RegStatus::Ok ? ReadKey(transaction, id, 0, read) : found;
        });
        if (status == RegStatus::Ok) tree = std::move(read);
        return status;
    });
}

RegStatus WriteRegistryTree(WideStringView path, const RegistryTree& tree) {
    return Guarded([&] {
        std::vector<WideStringView> names;
        if (!SplitRegistryPath(path, names)) return RegStatus::InvalidArgument;
        size_t pathLength = 0;
        for (const WideStringView name : names) pathLength += (pathLength ? 1 : 0) + name.size();
        if (!IsWritable(tree, pathLength, 0)) return RegStatus::InvalidArgument;
        std::shared_ptr<RegistryDatabase> database;
        const RegStatus status = RegistryDatabase::Acquire(RegistryFileLocation(), database);
        if (status != RegStatus::Ok) return status;
        return database->Write([&](RegistryTransaction& transaction) {
            int64_t id = 0;
            const RegStatus created = Walk(transaction, path, true, id);
            return created == RegStatus::Ok ? WriteKey(transaction, id, tree) : created;
        });
    });
}

}  // namespace kestor
