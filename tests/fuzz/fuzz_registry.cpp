// Feeds arbitrary bytes to the registry as its store file: opening, walking, reading and writing
// keys must report a status and never crash, whatever the file holds.
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/Registry.h"
#include "platform/RegistryDatabase.h"

namespace {

using kestor::RegistryKey;
using kestor::RegStatus;
using kestor::RegType;
using kestor::WideString;

// The scratch folder lives as long as the process and is removed at exit.
const std::filesystem::path* gFolder = nullptr;

void RemoveFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(*gFolder, ignored);
}

const std::string& StoreFile() {
    static const std::string file = [] {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kestor-fuzz-registry-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) abort();
        gFolder = new std::filesystem::path(pattern);
        std::atexit(RemoveFolder);
        return pattern + "/registry.db";
    }();
    return file;
}

void ReadEverything(const RegistryKey& key) {
    RegType type = RegType::None;
    std::vector<uint8_t> data;
    WideString name;
    WideString text;
    uint32_t number = 0;
    for (uint32_t i = 0; i < 32 && key.EnumValue(i, name, type, data) == RegStatus::Ok; ++i) {
        key.QueryValue(name, type, data);
        key.QueryString(name, text);
        key.QueryDword(name, number);
    }
    uint32_t subKeys = 0;
    uint32_t values = 0;
    key.QueryInfo(subKeys, values);
}

// Depth and breadth are bounded: a damaged file may link keys in a cycle.
void Walk(const RegistryKey& key, int depth) {
    ReadEverything(key);
    if (depth == 0) return;
    WideString name;
    for (uint32_t i = 0; i < 16 && key.EnumSubKey(i, name) == RegStatus::Ok; ++i) {
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
        RegistryKey root;
        if (RegistryKey::Open(u"", root) == RegStatus::Ok) Walk(root, 4);
        RegistryKey metadata;
        if (RegistryKey::Open(u"Software\\Tavlin\\Metadata", metadata) == RegStatus::Ok)
            Walk(metadata, 1);

        RegistryKey scratch;
        if (RegistryKey::Create(u"Software\\Kestor\\Fuzz", scratch) == RegStatus::Ok) {
            scratch.SetString(u"Name", u"fuzz");
            scratch.SetDword(u"Format", 5);
            scratch.DeleteValue(u"name");
            ReadEverything(scratch);
        }
        RegistryKey::DeleteTree(u"Software\\Kestor");
    }
    kestor::RegistryDatabase::CloseUnused();
    return 0;
}
