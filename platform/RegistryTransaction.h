// The reads and writes of keys and values that make up one registry access. Only valid inside
// RegistryDatabase::Read / Write; names are passed in UTF-8, `folded` being the upper-case form
// that identifies and orders them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/Registry.h"

struct sqlite3;

namespace kestor {

class RegistryTransaction {
public:
    static constexpr int64_t kRootId = 0;

    explicit RegistryTransaction(sqlite3* db) : db_(db) {}

    // NotFound when the key was deleted.
    RegStatus KeyExists(int64_t id);
    RegStatus FindSubKey(int64_t parent, const std::string& folded, int64_t& id, std::string& name);
    RegStatus AddSubKey(int64_t parent, const std::string& name, const std::string& folded,
                        int64_t& id);
    // NoMoreItems past the last subkey.
    RegStatus SubKeyAt(int64_t parent, uint32_t index, std::string& name);
    RegStatus CountSubKeys(int64_t key, uint32_t& count);
    // Removes the key, everything below it and all their values.
    RegStatus DeleteTree(int64_t id);

    RegStatus FindValue(int64_t key, const std::string& folded, RegType& type,
                        std::vector<uint8_t>& data);
    // NoMoreItems past the last value.
    RegStatus ValueAt(int64_t key, uint32_t index, std::string& name, RegType& type,
                      std::vector<uint8_t>& data);
    RegStatus CountValues(int64_t key, uint32_t& count);
    // Creates or replaces; an existing value keeps the spelling of its name.
    RegStatus PutValue(int64_t key, const std::string& name, const std::string& folded,
                       RegType type, const void* data, uint32_t size);
    // NotFound when there is no such value.
    RegStatus RemoveValue(int64_t key, const std::string& folded);

private:
    sqlite3* db_;
};

}  // namespace kestor
