// The drivers the library knows: for each eKSupportedModule, the driver's name (what the
// grabber manager is asked to initialise), its class identifier in braced text form, and the
// short key used on command lines.
#pragma once

#include <vector>

#include "KGrab.h"

namespace kestor {

struct DriverCatalogueEntry {
    eKSupportedModule module;
    const KChar* name;    // driver name, at most 256 characters
    const char* classId;  // "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}"
    const char* key;      // "simulated", "genicam", ...
};

// Every entry, in catalogue order.
const std::vector<DriverCatalogueEntry>& DriverCatalogue();
const DriverCatalogueEntry* FindCatalogueEntry(eKSupportedModule module);
const DriverCatalogueEntry* FindCatalogueEntryByKey(const char* key);  // ASCII case-insensitive

// A driver entry of the module's lists: the name (256 characters at most) and the module.
struct DriverListEntry {
    KChar name[257];
    eKSupportedModule module;
};

// The lists the grab module keeps, each sorted by name (then module value):
//  - supported: every catalogue entry;
//  - installed: the entries whose class is served by a plugin that loads.
std::vector<DriverListEntry> SupportedDriverList();
std::vector<DriverListEntry> InstalledDriverList();

}  // namespace kestor
