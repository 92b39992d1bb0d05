// Shared by the settings-file tests: a scratch registry store and folder per test, and whole
// registry snapshots to compare.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/RegistryTree.h"
#include "platform/registry_test_support.h"

namespace kestor::testing {

// Every key, value type and data byte of a tree, one line each, for readable comparisons.
inline void Describe(const RegistryTree& tree, const std::string& path, std::ostream& out) {
    for (const RegistryTree& key : tree.subKeys) {
        const std::string keyPath = path + "\\" + WideToUtf8(key.name);
        out << "key " << keyPath << "\n";
        Describe(key, keyPath, out);
    }
    for (const RegistryTreeValue& value : tree.values) {
        out << "value " << path << " [" << WideToUtf8(value.name) << "] type "
            << static_cast<uint32_t>(value.type) << " data";
        for (const uint8_t byte : value.data) out << ' ' << static_cast<int>(byte);
        out << "\n";
    }
}

inline std::string Snapshot(WideStringView path) {
    RegistryTree tree;
    const RegStatus status = ReadRegistryTree(path, tree);
    if (status != RegStatus::Ok) return std::string("unreadable: ") + RegStatusText(status);
    std::ostringstream out;
    Describe(tree, "", out);
    return out.str();
}

inline void WriteText(const std::string& file, const std::string& text) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << text;
}

inline std::string ReadText(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void SetRaw(RegistryKey& key, WideStringView name, RegType type, std::vector<uint8_t> data) {
    EXPECT_EQ(key.SetValue(name, type, data.data(), static_cast<uint32_t>(data.size())),
              RegStatus::Ok);
}

}  // namespace kestor::testing
