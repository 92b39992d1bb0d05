// A registry key with everything below it, read or written as one unit: what a settings file
// holds. Reading sees one consistent state of the store; writing is all or nothing, so a
// failure half-way leaves the registry as it was.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/Registry.h"

namespace kestor {

struct RegistryTreeValue {
    WideString name;  // empty: the key's default value
    RegType type = RegType::None;
    std::vector<uint8_t> data;
};

struct RegistryTree {
    WideString name;                    // the key's own name; ignored for the top of a tree
    std::vector<RegistryTree> subKeys;  // in the registry's enumeration order when read
    std::vector<RegistryTreeValue> values;
};

// Deepest tree read or written below the given key, well beyond any real settings tree; it
// also ends the walk of a damaged store whose keys link in a cycle.
inline constexpr int kMaxRegistryTreeDepth = 512;

// Reads the key at `path` with all its subkeys and values. NotFound when it does not exist.
RegStatus ReadRegistryTree(WideStringView path, RegistryTree& tree);

// Creates the key at `path` (with missing levels) and merges `tree` into it: subkeys are
// created as needed, values created or replaced, nothing is deleted. One transaction:
// InvalidArgument for a bad name, an oversized value or a path too long, and nothing written.
RegStatus WriteRegistryTree(WideStringView path, const RegistryTree& tree);

}  // namespace kestor
