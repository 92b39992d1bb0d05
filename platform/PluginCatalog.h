// The components the library can create: classes served by plugin libraries (grabber manager,
// grabber drivers) and classes registered in-process. Plugins are the files "kestor-*.so" in
// the "kestor" folder beside the library, the library's own folder, then the folders of
// KESTOR_DRIVER_PATH (separated by ':'), in that order; the first plugin to serve a class wins.
// Plugins stay loaded until the process ends, so no object outlives its code.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "KGrabberAbi.h"

namespace kestor {

// The folders searched, in order, without duplicates.
std::vector<std::string> PluginSearchPath();

// Braced text form "{6B2C1000-4B45-5354-4F52-000400000001}" and back.
std::string GuidToString(const KGuid& guid);
bool GuidFromString(const std::string& text, KGuid& guid);

struct PluginClassInfo {
    KGuid clsid{};
    uint32_t kind = 0;  // KPluginClassKind
    std::string name;   // UTF-8
    std::string path;   // the plugin file; empty for in-process classes
};

class PluginCatalog {
public:
    static PluginCatalog& Instance();

    // Every class known, in-process ones first; scans the search path on first use.
    std::vector<PluginClassInfo> Classes();
    // Forgets what the last scan found (loaded plugins stay loaded) and scans again.
    void Rescan();

    bool IsClassAvailable(const KGuid& clsid);
    // The first class of `kind` whose name equals `name` (ASCII case-insensitive).
    bool FindByName(uint32_t kind, const std::string& name, PluginClassInfo& found);

    // Creates an object of the class through `iid`. kKNoInterface... as the factory answers;
    // kKFail with `error` set when no plugin serves the class.
    KStatus CreateInstance(const KGuid& clsid, const KGuid& iid, void** out,
                           std::string* error = nullptr);

    // In-process classes take precedence over plugins (tests and applications that embed a
    // driver). Registering an existing clsid replaces its factory.
    void RegisterClass(const KGuid& clsid, uint32_t kind, const std::string& name,
                       KCreateInstanceFunction create);
    void UnregisterClass(const KGuid& clsid);

    // Why plugin files were skipped during the last scan, one line per file.
    std::vector<std::string> ScanProblems();

private:
    struct Entry {
        PluginClassInfo info;
        KCreateInstanceFunction create = nullptr;
    };
    void ScanLocked();
    const Entry* FindLocked(const KGuid& clsid);

    std::recursive_mutex mutex_;
    bool scanned_ = false;
    std::vector<Entry> inProcess_;
    std::vector<Entry> plugins_;
    std::vector<std::string> problems_;
};

}  // namespace kestor
