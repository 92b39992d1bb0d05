#include "platform/PluginCatalog.h"

#include <dirent.h>
#include <stdlib.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>

#include "platform/SharedLibrary.h"

namespace kestor {
namespace {

bool EqualsIgnoringCase(const std::string& a, const std::string& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
               return std::tolower(x) == std::tolower(y);
           });
}

bool IsPluginFileName(const std::string& name) {
    const std::string prefix = "kestor-", suffix = ".so";
    return name.size() > prefix.size() + suffix.size() &&
           name.compare(0, prefix.size(), prefix) == 0 &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::vector<std::string> PluginFilesIn(const std::string& folder) {
    std::vector<std::string> files;
    DIR* dir = opendir(folder.c_str());
    if (!dir) return files;
    while (dirent* entry = readdir(dir)) {
        if (IsPluginFileName(entry->d_name)) files.push_back(folder + "/" + entry->d_name);
    }
    closedir(dir);
    std::sort(files.begin(), files.end());  // a stable order whatever the file system gives
    return files;
}

// Plugins are never unloaded: objects they made may still be alive anywhere in the process.
std::map<std::string, SharedLibrary>& LoadedPlugins() {
    static auto* plugins = new std::map<std::string, SharedLibrary>();
    return *plugins;
}

}  // namespace

std::vector<std::string> PluginSearchPath() {
    std::vector<std::string> folders;
    auto add = [&folders](const std::string& folder) {
        if (!folder.empty() && std::find(folders.begin(), folders.end(), folder) == folders.end()) {
            folders.push_back(folder);
        }
    };
    const std::string own = ThisLibraryDirectory();
    if (!own.empty()) {
        add(own + "/kestor");
        add(own);
    }
    if (const char* path = getenv("KESTOR_DRIVER_PATH")) {
        std::string list = path;
        size_t start = 0;
        while (start <= list.size()) {
            size_t end = list.find(':', start);
            if (end == std::string::npos) end = list.size();
            add(list.substr(start, end - start));
            start = end + 1;
        }
    }
    return folders;
}

std::string GuidToString(const KGuid& g) {
    char text[40];
    snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.data1,
             g.data2, g.data3, g.data4[0], g.data4[1], g.data4[2], g.data4[3], g.data4[4],
             g.data4[5], g.data4[6], g.data4[7]);
    return text;
}

bool GuidFromString(const std::string& text, KGuid& guid) {
    // {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}
    if (text.size() != 38 || text.front() != '{' || text.back() != '}') return false;
    std::string hex;
    for (size_t i = 1; i + 1 < text.size(); ++i) {
        const char c = text[i];
        const bool dash = i == 9 || i == 14 || i == 19 || i == 24;
        if (dash != (c == '-')) return false;
        if (!dash) {
            if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
            hex += c;
        }
    }
    auto field = [&hex](size_t at, size_t digits) {
        return static_cast<uint32_t>(std::stoul(hex.substr(at, digits), nullptr, 16));
    };
    guid.data1 = field(0, 8);
    guid.data2 = static_cast<uint16_t>(field(8, 4));
    guid.data3 = static_cast<uint16_t>(field(12, 4));
    for (size_t i = 0; i < 8; ++i) guid.data4[i] = static_cast<uint8_t>(field(16 + 2 * i, 2));
    return true;
}

PluginCatalog& PluginCatalog::Instance() {
    static auto* catalog = new PluginCatalog();  // outlives every static object that may use it
    return *catalog;
}

void PluginCatalog::ScanLocked() {
    if (scanned_) return;
    scanned_ = true;
    plugins_.clear();
    problems_.clear();
    for (const std::string& folder : PluginSearchPath()) {
        for (const std::string& file : PluginFilesIn(folder)) {
            auto& loaded = LoadedPlugins();
            auto it = loaded.find(file);
            if (it == loaded.end()) {
                SharedLibrary library;
                if (!library.Open(file)) {
                    problems_.push_back(file + ": " + library.Error());
                    continue;
                }
                it = loaded.emplace(file, std::move(library)).first;
            }
            const SharedLibrary& library = it->second;
            auto version = reinterpret_cast<KPluginAbiVersionFunction>(
                library.Symbol("KestorPluginAbiVersion"));
            auto classes =
                reinterpret_cast<KPluginClassesFunction>(library.Symbol("KestorPluginClasses"));
            auto create =
                reinterpret_cast<KCreateInstanceFunction>(library.Symbol("KestorCreateInstance"));
            if (!version || !classes || !create) {
                problems_.push_back(file + ": not a Kestor plugin (missing exports)");
                continue;
            }
            if (version() != kKPluginAbiVersion) {
                problems_.push_back(file + ": built for another plugin interface version");
                continue;
            }
            const KPluginClass* list = nullptr;
            const uint32_t count = classes(&list);
            for (uint32_t i = 0; list != nullptr && i < count; ++i) {
                if (FindLocked(list[i].clsid) != nullptr) continue;  // an earlier folder wins
                Entry entry;
                entry.info = {list[i].clsid, list[i].kind, list[i].name ? list[i].name : "", file};
                entry.create = create;
                plugins_.push_back(std::move(entry));
            }
        }
    }
}

const PluginCatalog::Entry* PluginCatalog::FindLocked(const KGuid& clsid) {
    for (const Entry& entry : inProcess_) {
        if (entry.info.clsid == clsid) return &entry;
    }
    for (const Entry& entry : plugins_) {
        if (entry.info.clsid == clsid) return &entry;
    }
    return nullptr;
}

std::vector<PluginClassInfo> PluginCatalog::Classes() {
    std::lock_guard lock(mutex_);
    ScanLocked();
    std::vector<PluginClassInfo> all;
    for (const Entry& entry : inProcess_) all.push_back(entry.info);
    for (const Entry& entry : plugins_) {
        bool hidden = false;  // an in-process class of the same id replaces the plugin's
        for (const Entry& own : inProcess_) hidden = hidden || own.info.clsid == entry.info.clsid;
        if (!hidden) all.push_back(entry.info);
    }
    return all;
}

void PluginCatalog::Rescan() {
    std::lock_guard lock(mutex_);
    scanned_ = false;
    ScanLocked();
}

bool PluginCatalog::IsClassAvailable(const KGuid& clsid) {
    std::lock_guard lock(mutex_);
    ScanLocked();
    return FindLocked(clsid) != nullptr;
}

bool PluginCatalog::FindByName(uint32_t kind, const std::string& name, PluginClassInfo& found) {
    for (const PluginClassInfo& info : Classes()) {
        if (info.kind == kind && EqualsIgnoringCase(info.name, name)) {
            found = info;
            return true;
        }
    }
    return false;
}

KStatus PluginCatalog::CreateInstance(const KGuid& clsid, const KGuid& iid, void** out,
                                      std::string* error) {
    if (out == nullptr) return kKPointer;
    *out = nullptr;
    KCreateInstanceFunction create = nullptr;
    {
        std::lock_guard lock(mutex_);
        ScanLocked();
        if (const Entry* entry = FindLocked(clsid)) create = entry->create;
    }
    if (create == nullptr) {
        if (error) *error = "no plugin serves class " + GuidToString(clsid);
        return kKFail;
    }
    // Outside the lock: a factory may itself create components (the manager creates drivers).
    const KStatus status = create(&clsid, &iid, out);
    if (KFailed(status) && error) {
        char text[64];
        snprintf(text, sizeof text, "the factory of %s failed (0x%08X)",
                 GuidToString(clsid).c_str(), static_cast<unsigned>(status));
        *error = text;
    }
    return status;
}

void PluginCatalog::RegisterClass(const KGuid& clsid, uint32_t kind, const std::string& name,
                                  KCreateInstanceFunction create) {
    std::lock_guard lock(mutex_);
    UnregisterClass(clsid);
    Entry entry;
    entry.info = {clsid, kind, name, {}};
    entry.create = create;
    inProcess_.push_back(std::move(entry));
}

void PluginCatalog::UnregisterClass(const KGuid& clsid) {
    std::lock_guard lock(mutex_);
    inProcess_.erase(std::remove_if(inProcess_.begin(), inProcess_.end(),
                                    [&](const Entry& e) { return e.info.clsid == clsid; }),
                     inProcess_.end());
}

std::vector<std::string> PluginCatalog::ScanProblems() {
    std::lock_guard lock(mutex_);
    ScanLocked();
    return problems_;
}

}  // namespace kestor
