#include "sequence/CKestorMetadataManager.h"

#include <algorithm>
#include <limits>

#include "platform/Registry.h"
#include "platform/WideString.h"
#include "sequence/MetadataDisplayString.h"

using kestor::RegistryKey;
using kestor::RegStatus;
using kestor::RegType;
using kestor::WideString;

namespace {

constexpr const KChar* kRootKey = u"Software\\Tavlin\\Metadata";
constexpr const KChar* kTypeKeyPattern = u"Software\\Tavlin\\Metadata\\%.10u";
constexpr size_t kTypeKeyCapacity = 100;

constexpr const KChar* kMaxSizeValue = u"MetadataMaxSize";
constexpr const KChar* kInfoSizeValue = u"MetadataInfoSize";
constexpr const KChar* kDynamicValue = u"SequenceMetadataDynamic";
constexpr const KChar* kNameValue = u"Name";
constexpr const KChar* kDescriptionValue = u"Description";
constexpr const KChar* kFormatValue = u"Format";
constexpr const KChar* kSizeInBytesValue = u"SizeInBytes";
constexpr const KChar* kFormatStringValue = u"FormatString";

// Largest stored strings that are read back, in bytes with the NUL; larger ones are ignored.
constexpr size_t kNameBytes = 256;
constexpr size_t kDescriptionBytes = 512;
constexpr size_t kFormatStringBytes = 256;
// Subkey names longer than this are skipped when the list is loaded.
constexpr size_t kSubKeyNameCapacity = 260;

WideString TypeKeyPath(uint32_t id) {
    KChar path[kTypeKeyCapacity];
    kestor::WideFormat(path, kTypeKeyCapacity, kTypeKeyPattern, id);
    return path;
}

// Leading decimal digits of a subkey name; saturates instead of wrapping.
uint32_t ParseLeadingNumber(const WideString& name) {
    uint64_t value = 0;
    for (KChar c : name) {
        if (c < u'0' || c > u'9') break;
        value = std::min<uint64_t>(value * 10 + (c - u'0'), std::numeric_limits<uint32_t>::max());
    }
    return static_cast<uint32_t>(value);
}

// A string value of at most `limit` bytes (NUL included), else `fallback`.
WideString ReadString(const RegistryKey& key, const KChar* name, size_t limit) {
    RegType type = RegType::None;
    std::vector<uint8_t> data;
    if (key.QueryValue(name, type, data) != RegStatus::Ok || data.size() > limit ||
        (type != RegType::String && type != RegType::ExpandString))
        return {};
    WideString text;
    for (size_t at = 0; at + 1 < data.size(); at += 2) {
        const auto unit = static_cast<KChar>(data[at] | data[at + 1] << 8);
        if (unit == 0) break;
        text.push_back(unit);
    }
    return text;
}

uint32_t ReadDword(const RegistryKey& key, const KChar* name) {
    uint32_t value = 0;
    return key.QueryDword(name, value) == RegStatus::Ok ? value : 0;
}

bool WriteSetting(const KChar* name, uint32_t value) {
    RegistryKey key;
    if (RegistryKey::Open(kRootKey, key) != RegStatus::Ok) return false;
    key.SetDword(name, value);  // the result is deliberately not reported
    return true;
}

uint32_t ReadSetting(const KChar* name) {
    RegistryKey key;
    if (RegistryKey::Open(kRootKey, key) != RegStatus::Ok) return 0;
    return ReadDword(key, name);
}

bool RegisterAll(CKestorMetadataManager& manager, const KMetadataInfo* types, size_t count) {
    bool all = true;
    for (size_t i = 0; i < count; ++i) all = manager.RegisterMetadataType(types[i]) && all;
    return all;
}

}  // namespace

CKestorMetadataManager::CKestorMetadataManager() {
    LoadTypes();
}

CKestorMetadataManager::~CKestorMetadataManager() = default;

bool CKestorMetadataManager::SetMetadataMaxSize(int bytes) {
    return WriteSetting(kMaxSizeValue, static_cast<uint32_t>(bytes));
}

int CKestorMetadataManager::GetMetadataMaxSize() const {
    return static_cast<int>(ReadSetting(kMaxSizeValue));
}

bool CKestorMetadataManager::SetMetadataInfoSize(int bytes) {
    return WriteSetting(kInfoSizeValue, static_cast<uint32_t>(bytes));
}

int CKestorMetadataManager::GetMetadataInfoSize() const {
    return static_cast<int>(ReadSetting(kInfoSizeValue));
}

bool CKestorMetadataManager::IsSequenceMetadataDynamic() const {
    return ReadSetting(kDynamicValue) != 0;
}

bool CKestorMetadataManager::SetSequenceMetadataDynamic(bool dynamic) {
    return WriteSetting(kDynamicValue, dynamic ? 1 : 0);
}

bool CKestorMetadataManager::RegisterMetadataType(const KMetadataInfo& info) {
    RegistryKey key;
    if (RegistryKey::Create(TypeKeyPath(info.GetID()), key) != RegStatus::Ok) return false;
    // Value by value, results ignored: a partial write still leaves a loadable type.
    key.SetString(kNameValue, info.GetName());
    key.SetString(kDescriptionValue, info.GetDescription());
    key.SetDword(kFormatValue, info.GetFormat());
    key.SetDword(kSizeInBytesValue, info.GetSizeInBytes());
    key.SetString(kFormatStringValue, info.GetFormatString());
    key.Close();
    LoadTypes();
    return true;
}

bool CKestorMetadataManager::RegisterGenericTypes() {
    const KMetadataInfo generic[] = {
        {0, u"Boolean", u"Generic boolean value", eKMetadataBoolean, 1, u"true;false"},
        {1, u"Byte", u"Generic byte", eKMetadataByte, 1, u"%d"},
        {2, u"Short", u"Generic short", eKMetadataShort, 2, u"%d"},
        {3, u"Unsigned Short", u"Generic unsigned short", eKMetadataUnsignedShort, 2, u"%d"},
        {4, u"Integer", u"Generic integer", eKMetadataInteger, 4, u"%d"},
        {5, u"Unsigned Integer", u"Generic unsigned integer", eKMetadataUnsignedInteger, 4, u"%u"},
        {6, u"Double", u"Generic double", eKMetadataDouble, 8, u"%f"},
        {7, u"String", u"Generic string", eKMetadataString, 0, u"%s"},
        {8, u"Binary", u"Generic binary data", eKMetadataBinary, 0, u""},
    };
    return RegisterAll(*this, generic, std::size(generic));
}

bool CKestorMetadataManager::RegisterTavLinTypes() {
    // The registered layout codes only matter to programs reading the store: these two IDs are
    // shown by fixed rules.
    const KMetadataInfo time[] = {
        {kMetadataIdTime64, u"Time (64-bit)", u"64-bit timestamp + ms & us", eKMetadataBinary, 12,
         u""},
        {kMetadataIdLtcTime, u"LTC Time", u"Time in LTC format", eKMetadataUnsignedInteger, 8, u""},
    };
    return RegisterAll(*this, time, std::size(time));
}

int CKestorMetadataManager::GetMetadataTypeCount() const {
    return static_cast<int>(types_.size());
}

const KMetadataInfo* CKestorMetadataManager::GetMetadataTypeByIndex(unsigned int index) const {
    return index < types_.size() ? types_[index].get() : nullptr;
}

const KMetadataInfo* CKestorMetadataManager::GetMetadataTypeByID(unsigned int id) const {
    for (const auto& type : types_)
        if (type->GetID() == id) return type.get();
    return nullptr;
}

void CKestorMetadataManager::AddFileTypes(const std::vector<KMetadataInfo>& types) {
    for (const KMetadataInfo& type : types) {
        auto same = std::find_if(fileTypes_.begin(), fileTypes_.end(),
                                 [&](const auto& known) { return known->GetID() == type.GetID(); });
        if (same != fileTypes_.end())
            **same = type;
        else
            fileTypes_.push_back(std::make_unique<KMetadataInfo>(type));
    }
}

void CKestorMetadataManager::ClearFileTypes() {
    fileTypes_.clear();
}

const KMetadataInfo* CKestorMetadataManager::FindTypeForDisplay(uint32_t id) const {
    if (const KMetadataInfo* registered = GetMetadataTypeByID(id)) return registered;
    for (const auto& type : fileTypes_)
        if (type->GetID() == id) return type.get();
    return nullptr;
}

void CKestorMetadataManager::RebuildMetadataString(KMetadata& item) const {
    const uint32_t id = item.GetTypeID();
    const uint8_t* data = item.GetData();
    const uint32_t size = item.GetDataSize();
    WideString text;
    bool made = false;
    if (id <= 7) {
        // The generic types have fixed layouts: layout code = ID + 1.
        made = kestor::FormatMetadataValue(id + 1, kestor::DefaultPatternFor(id + 1), data, size,
                                           text);
    } else if (id == kMetadataIdBinary) {
        return;
    } else if (id == kMetadataIdTime64) {
        made = kestor::FormatTime64Metadata(data, size, text);
    } else if (id == kMetadataIdLtcTime) {
        made = kestor::FormatLtcMetadata(data, size, text);
    } else {
        const KMetadataInfo* type = FindTypeForDisplay(id);
        if (type == nullptr || type->GetFormatString()[0] == 0) return;
        made = kestor::FormatMetadataValue(type->GetFormat(), type->GetFormatString(), data, size,
                                           text);
    }
    if (made) item.SetDisplayString(text.c_str());
}

void CKestorMetadataManager::LoadTypes() {
    types_.clear();
    RegistryKey root;
    if (RegistryKey::Create(kRootKey, root) != RegStatus::Ok) return;

    // The subkey count is asked afresh at every step, so keys added or removed meanwhile by
    // another process neither stop the walk early nor run it past the end.
    const auto subKeyCount = [&root] {
        uint32_t subKeys = 0, values = 0;
        return root.QueryInfo(subKeys, values) == RegStatus::Ok ? subKeys : 0u;
    };
    for (uint32_t index = 0; index < subKeyCount(); ++index) {
        WideString name;
        if (root.EnumSubKey(index, name) != RegStatus::Ok || name.size() >= kSubKeyNameCapacity)
            continue;
        // The subkey is looked up again by its ten-digit spelling: names in any other form are
        // only loaded through a ten-digit twin.
        const uint32_t id = ParseLeadingNumber(name);
        RegistryKey key;
        if (RegistryKey::Open(TypeKeyPath(id), key) != RegStatus::Ok) continue;
        const WideString typeName = ReadString(key, kNameValue, kNameBytes);
        const WideString description = ReadString(key, kDescriptionValue, kDescriptionBytes);
        const uint32_t format = ReadDword(key, kFormatValue);
        const uint32_t sizeInBytes = ReadDword(key, kSizeInBytesValue);
        const WideString formatString = ReadString(key, kFormatStringValue, kFormatStringBytes);
        key.Close();
        types_.push_back(std::make_unique<KMetadataInfo>(
            id, typeName.c_str(), description.c_str(), format, sizeInBytes, formatString.c_str()));
    }
}
