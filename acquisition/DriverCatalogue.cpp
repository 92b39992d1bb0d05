#include "acquisition/DriverCatalogue.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "platform/PluginCatalog.h"
#include "platform/WideString.h"

namespace kestor {

const std::vector<DriverCatalogueEntry>& DriverCatalogue() {
    // Vendor families whose drivers are not part of the library keep their values (their
    // registry preparation at load is fixed) and class identifiers of their own.
    static const std::vector<DriverCatalogueEntry> catalogue = {
        {eKModuleSimulatedCamera, u"Simulated Camera", "{6B2C1000-4B45-5354-4F52-000400000001}",
         "simulated"},
        {eKModuleGenICam, u"GenICam", "{6B2C1001-4B45-5354-4F52-000400000001}", "genicam"},
        {eKModuleLumeneraGigE, u"Lumenera GigE", "{6B2C0026-4B45-5354-4F52-000400000001}",
         "lumenera-gige"},
        {eKModuleLumeneraUSB, u"Lumenera USB", "{6B2C0079-4B45-5354-4F52-000400000001}",
         "lumenera-usb"},
        {eKModulePleoraIPort, u"Pleora iPORT", "{6B2C003C-4B45-5354-4F52-000400000001}", "iport"},
        {eKModulePleoraIPortMulticastMaster, u"Pleora iPORT Multicast Master",
         "{6B2C003D-4B45-5354-4F52-000400000001}", "iport-multicast-master"},
        {eKModulePleoraIPortMulticastSlave, u"Pleora iPORT Multicast Slave",
         "{6B2C003E-4B45-5354-4F52-000400000001}", "iport-multicast-slave"},
        {eKModulePleoraIPortEngine, u"Pleora iPORT Engine",
         "{6B2C0049-4B45-5354-4F52-000400000001}", "iport-engine"},
        {eKModulePleoraIPortVision, u"Pleora iPORT Vision",
         "{6B2C004A-4B45-5354-4F52-000400000001}", "iport-vision"},
        {eKModulePleoraIPortGigE, u"Pleora iPORT GigE", "{6B2C0054-4B45-5354-4F52-000400000001}",
         "iport-gige"},
        {eKModuleRoperCascade, u"Roper Cascade", "{6B2C0045-4B45-5354-4F52-000400000001}",
         "cascade"},
        {eKModuleRoperCoolSnap, u"Roper CoolSnap", "{6B2C0046-4B45-5354-4F52-000400000001}",
         "coolsnap"},
    };
    return catalogue;
}

const DriverCatalogueEntry* FindCatalogueEntry(eKSupportedModule module) {
    for (const DriverCatalogueEntry& entry : DriverCatalogue()) {
        if (entry.module == module) return &entry;
    }
    return nullptr;
}

const DriverCatalogueEntry* FindCatalogueEntryByKey(const char* key) {
    if (key == nullptr) return nullptr;
    for (const DriverCatalogueEntry& entry : DriverCatalogue()) {
        if (strcasecmp(entry.key, key) == 0) return &entry;
    }
    return nullptr;
}

namespace {

DriverListEntry MakeListEntry(const DriverCatalogueEntry& entry) {
    DriverListEntry item{};
    KCopyName(item.name, 257, entry.name);
    item.module = entry.module;
    return item;
}

void SortList(std::vector<DriverListEntry>& list) {
    std::sort(list.begin(), list.end(), [](const DriverListEntry& a, const DriverListEntry& b) {
        const WideStringView x(a.name), y(b.name);
        return x != y ? x < y : a.module < b.module;
    });
}

}  // namespace

std::vector<DriverListEntry> SupportedDriverList() {
    std::vector<DriverListEntry> list;
    for (const DriverCatalogueEntry& entry : DriverCatalogue())
        list.push_back(MakeListEntry(entry));
    SortList(list);
    return list;
}

std::vector<DriverListEntry> InstalledDriverList() {
    std::vector<DriverListEntry> list;
    for (const DriverCatalogueEntry& entry : DriverCatalogue()) {
        KGuid clsid{};
        if (GuidFromString(entry.classId, clsid) &&
            PluginCatalog::Instance().IsClassAvailable(clsid)) {
            list.push_back(MakeListEntry(entry));
        }
    }
    SortList(list);
    return list;
}

}  // namespace kestor
