// Feeds arbitrary bytes to the settings-file import: whatever the file holds, the import must
// report a code, never touch a key outside the one it was given, and change nothing at all when
// it refuses the file.
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

#include "acquisition/SettingsXml.h"
#include "platform/RegistryDatabase.h"
#include "platform/RegistryTree.h"
#include "support/TempDir.h"

namespace {

using kestor::RegistryKey;
using kestor::RegistryTree;
using kestor::RegistryTreeValue;
using kestor::RegStatus;

constexpr const char16_t* kTarget = u"Software\\Fuzz\\Grabdesk";

const kestor::test::TempDir& Folder() {
    static const kestor::test::TempDir folder(std::filesystem::temp_directory_path().string());
    return folder;
}

void Describe(const RegistryTree& tree, const std::string& path, std::ostream& out) {
    for (const RegistryTree& key : tree.subKeys) {
        const std::string keyPath = path + "\\" + kestor::WideToUtf8(key.name);
        out << "key " << keyPath << "\n";
        Describe(key, keyPath, out);
    }
    for (const RegistryTreeValue& value : tree.values) {
        out << "value " << path << " [" << kestor::WideToUtf8(value.name) << "] "
            << static_cast<uint32_t>(value.type) << ":";
        for (const uint8_t byte : value.data) out << ' ' << static_cast<int>(byte);
        out << "\n";
    }
}

std::string Snapshot(std::u16string_view path) {
    RegistryTree tree;
    if (kestor::ReadRegistryTree(path, tree) != RegStatus::Ok) std::abort();
    std::ostringstream out;
    Describe(tree, "", out);
    return out.str();
}

// The whole store, with the target's subtree cut out.
std::string SnapshotOutsideTarget() {
    RegistryTree root;
    if (kestor::ReadRegistryTree(u"", root) != RegStatus::Ok) std::abort();
    for (RegistryTree& software : root.subKeys) {
        if (software.name != u"Software") continue;
        for (RegistryTree& fuzz : software.subKeys) {
            if (fuzz.name != u"Fuzz") continue;
            std::erase_if(fuzz.subKeys,
                          [](const RegistryTree& key) { return key.name == u"Grabdesk"; });
        }
    }
    std::ostringstream out;
    Describe(root, "", out);
    return out.str();
}

// A store with neighbours on every side of the target, made once per process.
void PrepareStore() {
    static bool prepared = false;
    if (prepared) return;
    prepared = true;
    setenv("KESTOR_REGISTRY", Folder().File("registry.db").c_str(), 1);
    RegistryKey key;
    if (RegistryKey::Create(u"Software\\Acme\\Grabdesk", key) != RegStatus::Ok) std::abort();
    key.SetString(u"Secret", u"keep");
    if (RegistryKey::Create(u"Software\\Tavlin\\Metadata\\1", key) != RegStatus::Ok) std::abort();
    key.SetDword(u"Size", 8);
    if (RegistryKey::Create(u"Software\\Fuzz\\Grabdesk2", key) != RegStatus::Ok) std::abort();
    key.SetDword(u"Neighbour", 1);
    if (RegistryKey::Create(u"Software\\Fuzz", key) != RegStatus::Ok) std::abort();
    key.SetDword(u"Parent", 2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    PrepareStore();
    RegistryKey::DeleteTree(kTarget);
    RegistryKey target;
    if (RegistryKey::Create(kTarget, target) != RegStatus::Ok) std::abort();
    target.SetDword(u"Exposure", 100);

    const std::string file = Folder().File("settings.xml");
    if (FILE* out = std::fopen(file.c_str(), "wb")) {
        if (size > 0) std::fwrite(data, 1, size, out);
        std::fclose(out);
    }
    const std::string outside = SnapshotOutsideTarget();
    const std::string inside = Snapshot(kTarget);
    const eKErrorCode code = kestor::ImportXmlToRegistryKey(file, kTarget);

    if (code != eKErrSuccess && code != eKErrFileNotFound && code != eKErrRegistryWrite)
        std::abort();
    if (SnapshotOutsideTarget() != outside) std::abort();
    if (code != eKErrSuccess && Snapshot(kTarget) != inside) std::abort();
    kestor::RegistryDatabase::CloseUnused();
    return 0;
}
