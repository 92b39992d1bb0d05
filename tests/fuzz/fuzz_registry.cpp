// Feeds arbitrary bytes to the registry as its store file: opening, walking, reading and writing
// keys must report a status and never crash, whatever the file holds.
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/Registry.h"
#include "platform/RegistryDatabase.h"
#include "support/TempDir.h"

namespace {

using kestor::RegistryKey;
using kestor::RegStatus;
using kestor::RegType;
using kestor::WideString;

// The scratch folder lives as long as the process and is removed at exit.
const std::string& StoreFile() {
    static const kestor::test::TempDir folder(std::filesystem::temp_directory_path().string());
    static const std::string file = folder.File("registry.db");
    return file;
}

// Reads every value of `key` in every way, then walks its subkeys down to `depth`. Depth and
// breadth are bounded: a damaged file may link keys in a cycle.
void Walk(const RegistryKey& key, int depth) {
    RegType type = RegType::None;
    std::vector<uint8_t> data;
    WideString name, text;
    uint32_t number = 0, subKeys = 0;
    for (uint32_t i = 0; i < 32 && key.EnumValue(i, name, type, data) == RegStatus::Ok; ++i) {
        key.QueryValue(name, type, data);
        key.QueryString(name, text);
        key.QueryDword(name, number);
    }
    key.QueryInfo(subKeys, number);
    for (uint32_t i = 0; depth > 0 && i < 16 && key.EnumSubKey(i, name) == RegStatus::Ok; ++i) {
        RegistryKey child;
        if (key.OpenSubKey(name, child) == RegStatus::Ok) Walk(child, depth - 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& file = StoreFile();
    for (const char* suffix : {"", "-wal", "-shm", "-journal"})
        std::remove((file + suffix).c_str());
    if (FILE* out = std::fopen(file.c_str(), "wb")) {
        if (size > 0) std::fwrite(data, 1, size, out);
        std::fclose(out);
    }
    setenv("KESTOR_REGISTRY", file.c_str(), 1);
    {
        RegistryKey key;
        if (RegistryKey::Open(u"", key) == RegStatus::Ok) Walk(key, 4);
        if (RegistryKey::Open(u"Software\\Tavlin\\Metadata", key) == RegStatus::Ok) Walk(key, 1);
        if (RegistryKey::Create(u"Software\\Kestor\\Fuzz", key) == RegStatus::Ok) {
            key.SetString(u"Name", u"fuzz");
            key.SetDword(u"Format", 5);
            key.DeleteValue(u"name");
            Walk(key, 0);
        }
        RegistryKey::DeleteTree(u"Software\\Kestor");
    }
    kestor::RegistryDatabase::CloseUnused();
    return 0;
}
