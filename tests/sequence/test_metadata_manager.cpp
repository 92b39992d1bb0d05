#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "KMetadataManager.h"
#include "metadata_test_support.h"
#include "platform/Registry.h"
#include "sequence/CKestorMetadataManager.h"

using kestor::RegistryKey;
using kestor::RegStatus;
using kestor::WideString;

namespace {

constexpr const KChar* kRoot = u"Software\\Tavlin\\Metadata";

std::u16string Text(const KChar* text) {
    return text != nullptr ? text : u"(null)";
}

// Every field of a type in one string, so that types compare in one check.
std::u16string Fields(const KMetadataInfo* type) {
    if (type == nullptr) return u"(none)";
    const std::string numbers = "|" + std::to_string(type->GetID()) + "|" +
                                std::to_string(type->GetFormat()) + "|" +
                                std::to_string(type->GetSizeInBytes());
    return Text(type->GetName()) + u"|" + Text(type->GetDescription()) + u"|" +
           Text(type->GetFormatString()) + std::u16string(numbers.begin(), numbers.end());
}

std::u16string Fields(const KMetadataInfo& type) {
    return Fields(&type);
}

template <class T>
KMetadata Item(uint32_t id, T value) {
    return KMetadata(id, &value, sizeof value, u"previous");
}

KMetadata WideItem(uint32_t id, const std::u16string& text, bool withNul = true) {
    return KMetadata(id, text.c_str(),
                     static_cast<uint32_t>((text.size() + (withNul ? 1 : 0)) * sizeof(KChar)),
                     u"previous");
}

std::u16string Shown(KMetadataManager& manager, KMetadata item) {
    manager.RebuildMetadataString(&item);
    return item.GetDisplayString();
}

// Sets TZ for the lifetime of the object.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        if (const char* old = getenv("TZ")) previous_ = old;
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ScopedTimeZone() {
        if (previous_)
            setenv("TZ", previous_->c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    std::optional<std::string> previous_;
};

using MetadataManager = kestor::test::MetadataStoreTest;

TEST_F(MetadataManager, SettingsAreReadFromTheStoreEveryTimeUnderTheirNames) {
    KMetadataManager manager;
    EXPECT_EQ(manager.GetMetadataTypeCount(), 0);
    EXPECT_EQ(manager.GetMetadataTypeByIndex(0), nullptr);
    RegistryKey root;
    EXPECT_EQ(RegistryKey::Open(kRoot, root), RegStatus::Ok) << "an empty store gets the root";
    EXPECT_EQ(manager.GetMetadataMaxSize(), 0);
    EXPECT_FALSE(manager.IsSequenceMetadataDynamic());

    EXPECT_TRUE(manager.SetMetadataMaxSize(4096));
    EXPECT_TRUE(manager.SetMetadataInfoSize(2048));
    EXPECT_TRUE(manager.SetSequenceMetadataDynamic(true));
    // Stored as plain DWORDs under these names, visible to every other manager.
    const std::pair<const KChar*, uint32_t> stored[] = {
        {u"MetadataMaxSize", 4096}, {u"MetadataInfoSize", 2048}, {u"SequenceMetadataDynamic", 1}};
    for (const auto& [name, expected] : stored) {
        uint32_t value = 0;
        EXPECT_EQ(root.QueryDword(name, value), RegStatus::Ok);
        EXPECT_EQ(value, expected);
    }
    KMetadataManager other;
    EXPECT_EQ(other.GetMetadataMaxSize(), 4096);
    EXPECT_EQ(other.GetMetadataInfoSize(), 2048);

    // Not cached: a change made elsewhere is seen at once; any nonzero is true.
    EXPECT_EQ(root.SetDword(u"SequenceMetadataDynamic", 7), RegStatus::Ok);
    EXPECT_TRUE(manager.IsSequenceMetadataDynamic());
    EXPECT_TRUE(other.SetSequenceMetadataDynamic(false));
    EXPECT_FALSE(manager.IsSequenceMetadataDynamic());

    // Without the root key setters fail, and do not create it, and getters give 0.
    ASSERT_EQ(RegistryKey::DeleteTree(u"Software\\Tavlin"), RegStatus::Ok);
    EXPECT_FALSE(manager.SetMetadataMaxSize(5));
    EXPECT_FALSE(manager.SetMetadataInfoSize(5));
    EXPECT_FALSE(manager.SetSequenceMetadataDynamic(true));
    EXPECT_EQ(manager.GetMetadataMaxSize(), 0);
    EXPECT_FALSE(manager.IsSequenceMetadataDynamic());
    EXPECT_EQ(RegistryKey::Open(kRoot, root), RegStatus::NotFound);
}

TEST_F(MetadataManager, RegisteringAnApplicationTypeStoresItAndReplacesBySameId) {
    KMetadataManager manager;
    const KMetadataInfo gain(0x80000001u, u"Gain", u"Sensor gain", eKMetadataInteger, 4, u"%d dB");
    ASSERT_TRUE(manager.RegisterMetadataType(&gain));
    ASSERT_EQ(manager.GetMetadataTypeCount(), 1);
    EXPECT_EQ(Fields(manager.GetMetadataTypeByID(0x80000001u)), Fields(gain));

    // The subkey is the ID in ten digits, strings stored with their NUL.
    RegistryKey key;
    ASSERT_EQ(RegistryKey::Open(u"Software\\Tavlin\\Metadata\\2147483649", key), RegStatus::Ok);
    kestor::RegType type{};
    std::vector<uint8_t> bytes;
    ASSERT_EQ(key.QueryValue(u"Name", type, bytes), RegStatus::Ok);
    EXPECT_EQ(type, kestor::RegType::String);
    EXPECT_EQ(bytes.size(), 10u);
    uint32_t format = 0;
    EXPECT_EQ(key.QueryDword(u"Format", format), RegStatus::Ok);
    EXPECT_EQ(format, 5u);

    const KMetadataInfo again(0x80000001u, u"Gain2", u"", eKMetadataDouble, 8, u"%.1f");
    ASSERT_TRUE(manager.RegisterMetadataType(&again));
    EXPECT_EQ(manager.GetMetadataTypeCount(), 1);
    EXPECT_EQ(Fields(manager.GetMetadataTypeByID(0x80000001u)), Fields(again));

    // Another manager sees the registration when it loads; a null type is refused.
    KMetadataManager other;
    EXPECT_EQ(other.GetMetadataTypeCount(), 1);
    EXPECT_FALSE(manager.RegisterMetadataType(nullptr));
}

TEST_F(MetadataManager, BuiltInTypesComeInAscendingIdOrderWithTheirTableValues) {
    KMetadataManager manager;
    // Registered in reverse so that the order can only come from the store's enumeration.
    ASSERT_TRUE(manager.RegisterTavLinTypes());
    ASSERT_TRUE(manager.RegisterGenericTypes());
    ASSERT_EQ(manager.GetMetadataTypeCount(), 11);
    const uint32_t expected[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 33, 34};
    for (unsigned i = 0; i < 11; ++i) {
        ASSERT_NE(manager.GetMetadataTypeByIndex(i), nullptr);
        EXPECT_EQ(manager.GetMetadataTypeByIndex(i)->GetID(), expected[i]) << "index " << i;
    }
    EXPECT_EQ(manager.GetMetadataTypeByIndex(11), nullptr) << "index == count";

    EXPECT_EQ(Fields(manager.GetMetadataTypeByID(0)),
              Fields(KMetadataInfo(0, u"Boolean", u"Generic boolean value", eKMetadataBoolean, 1,
                                   u"true;false")));
    EXPECT_EQ(Text(manager.GetMetadataTypeByID(3)->GetFormatString()), u"%d");
    EXPECT_EQ(Fields(manager.GetMetadataTypeByID(33)),
              Fields(KMetadataInfo(33, u"Time (64-bit)", u"64-bit timestamp + ms & us",
                                   eKMetadataBinary, 12, u"")));
    EXPECT_EQ(Fields(manager.GetMetadataTypeByID(34)),
              Fields(KMetadataInfo(34, u"LTC Time", u"Time in LTC format",
                                   eKMetadataUnsignedInteger, 8, u"")));
    RegistryKey key;
    EXPECT_EQ(RegistryKey::Open(u"Software\\Tavlin\\Metadata\\0000000033", key), RegStatus::Ok);
}

TEST_F(MetadataManager, OnlyTenDigitSubkeyNamesAreLoaded) {
    RegistryKey loose;
    ASSERT_EQ(RegistryKey::Create(u"Software\\Tavlin\\Metadata\\5", loose), RegStatus::Ok);
    ASSERT_EQ(loose.SetString(u"Name", u"Loose"), RegStatus::Ok);
    EXPECT_EQ(KMetadataManager().GetMetadataTypeCount(), 0);
    // With a ten-digit twin, both subkeys resolve to the twin.
    RegistryKey twin;
    ASSERT_EQ(RegistryKey::Create(u"Software\\Tavlin\\Metadata\\0000000005", twin), RegStatus::Ok);
    ASSERT_EQ(twin.SetString(u"Name", u"Twin"), RegStatus::Ok);
    KMetadataManager manager;
    ASSERT_EQ(manager.GetMetadataTypeCount(), 2);
    for (unsigned i = 0; i < 2; ++i) {
        EXPECT_EQ(manager.GetMetadataTypeByIndex(i)->GetID(), 5u);
        EXPECT_EQ(Text(manager.GetMetadataTypeByIndex(i)->GetName()), u"Twin");
    }
}

TEST_F(MetadataManager, UnreadableValuesFallBackToDefaults) {
    RegistryKey key;
    ASSERT_EQ(RegistryKey::Create(u"Software\\Tavlin\\Metadata\\0000000040", key), RegStatus::Ok);
    // 128 characters + NUL = 258 bytes: one too many for a name.
    ASSERT_EQ(key.SetString(u"Name", WideString(128, u'n')), RegStatus::Ok);
    ASSERT_EQ(key.SetString(u"Description", WideString(255, u'd')), RegStatus::Ok);  // 512 fits
    ASSERT_EQ(key.SetString(u"Format", u"5"), RegStatus::Ok);                        // not a DWORD
    ASSERT_EQ(key.SetDword(u"SizeInBytes", 4), RegStatus::Ok);
    ASSERT_EQ(key.SetDword(u"FormatString", 1), RegStatus::Ok);  // not a string
    EXPECT_EQ(Fields(KMetadataManager().GetMetadataTypeByID(40)),
              Fields(KMetadataInfo(40, u"", WideString(255, u'd').c_str(), 0, 4, u"")));
}

TEST_F(MetadataManager, CopiesShareOneImplementation) {
    KMetadataManager first;
    KMetadataManager copy(first);
    KMetadataManager assigned;
    assigned = copy;
    const KMetadataInfo type(0x80000002u, u"T", u"", eKMetadataByte, 1, u"%d");
    ASSERT_TRUE(copy.RegisterMetadataType(&type));
    // A separate manager would only see it after a reload; copies see it at once.
    EXPECT_EQ(first.GetMetadataTypeCount(), 1);
    EXPECT_EQ(assigned.GetMetadataTypeByID(0x80000002u), first.GetMetadataTypeByID(0x80000002u));
    { KMetadataManager scoped(first); }  // destroying a copy leaves the others working
    EXPECT_EQ(first.GetMetadataTypeCount(), 1);
}

TEST_F(MetadataManager, GenericAndTimeIdsUseFixedRulesWithoutRegistration) {
    KMetadataManager manager;
    ASSERT_EQ(manager.GetMetadataTypeCount(), 0);
    // A registration with another pattern does not change the built-in rules.
    const KMetadataInfo odd(4, u"Integer", u"", eKMetadataInteger, 4, u"[%d]");
    ASSERT_TRUE(manager.RegisterMetadataType(&odd));
    const std::pair<KMetadata, std::u16string> cases[] = {
        {Item<uint8_t>(0, 1), u"true"},
        {Item<uint8_t>(0, 0), u"false"},
        {Item<uint8_t>(1, 200), u"200"},
        {Item<int16_t>(2, -2), u"-2"},
        {Item<uint16_t>(3, 65535), u"65535"},
        {Item<int32_t>(4, -5), u"-5"},
        {Item<uint32_t>(5, 4000000000u), u"4000000000"},
        {Item<double>(6, 1.5), u"1.500000"},
        {WideItem(7, u"hello"), u"hello"},
        {WideItem(7, u"no end", false), u"no end"},  // stops at the data end
        // LTC: flag bits are masked off; the frames are set apart by "-".
        {Item<uint64_t>(34, 0x12345607u), u"12:34:56-07"},
        {Item<uint32_t>(34, 0xFFFFFFFFu), u"3F:7F:7F-3F"},
        // Binary, unregistered IDs and data too short for the layout keep what they had.
        {Item<uint16_t>(34, 0x1234), u"previous"},
        {Item<uint32_t>(8, 1), u"previous"},
        {Item<uint32_t>(9, 1), u"previous"},
        {Item<uint32_t>(0x80000005u, 1), u"previous"},
        {Item<uint16_t>(4, 1), u"previous"},
        {KMetadata(0, nullptr, 0, u"previous"), u"previous"},
        {KMetadata(33, "12345678", 8, u"previous"), u"previous"},
    };
    for (const auto& [item, expected] : cases)
        EXPECT_EQ(Shown(manager, item), expected) << "ID " << item.GetTypeID();
}

TEST_F(MetadataManager, Time64IsShownInLocalTimeWithoutTheYear) {
    const auto item = [](int64_t seconds, uint16_t ms, uint16_t us) {
        uint8_t bytes[12];
        std::memcpy(bytes, &seconds, 8);
        std::memcpy(bytes + 8, &ms, 2);
        std::memcpy(bytes + 10, &us, 2);
        return KMetadata(33, bytes, 12, u"previous");
    };
    KMetadataManager manager;
    {
        ScopedTimeZone utc("UTC");
        EXPECT_EQ(Shown(manager, item(0, 5, 7)), u"Thu Jan 01 00:00:00.005007");
        EXPECT_EQ(Shown(manager, item(1700000000, 999, 0)), u"Tue Nov 14 22:13:20.999000");
    }
    ScopedTimeZone east("XYZ-02");  // two hours ahead of UTC
    EXPECT_EQ(Shown(manager, item(0, 0, 1)), u"Thu Jan 01 02:00:00.000001");
}

TEST_F(MetadataManager, RegisteredTypesAreShownByTheirFormatAndPattern) {
    KMetadataManager manager;
    const KMetadataInfo types[] = {
        {0x80000010u, u"Lamp", u"", eKMetadataBoolean, 1, u"on;off"},
        {0x80000011u, u"NoWords", u"", eKMetadataBoolean, 1, u"onoff"},
        {0x80000012u, u"Gain", u"", eKMetadataShort, 2, u"%d dB"},
        {0x80000013u, u"Label", u"", eKMetadataString, 0, u"<%s>"},
        {0x80000014u, u"Empty", u"", eKMetadataInteger, 4, u""},
        {0x80000015u, u"Blob", u"", eKMetadataBinary, 0, u"%d"},
        {0x80000016u, u"Unsafe", u"", eKMetadataInteger, 4, u"%s"},
        {0x80000017u, u"Two", u"", eKMetadataInteger, 4, u"%d %d"},
        {0x80000018u, u"Star", u"", eKMetadataInteger, 4, u"%*d"},
        {0x80000019u, u"Hex", u"", eKMetadataUnsignedInteger, 4, u"0x%08X (100%%)"},
        {20, u"Ratio", u"", eKMetadataDouble, 8, u"%.2f"},
        {0x8000001Au, u"Long", u"", eKMetadataByte, 1, u"%300d"},
    };
    for (const auto& type : types) ASSERT_TRUE(manager.RegisterMetadataType(&type));

    const std::pair<KMetadata, std::u16string> cases[] = {
        {Item<uint8_t>(0x80000010u, 3), u"on"},
        {Item<uint8_t>(0x80000010u, 0), u"off"},
        {Item<uint8_t>(0x80000011u, 1), u"previous"},  // no ';'
        {Item<int16_t>(0x80000012u, -3), u"-3 dB"},
        {WideItem(0x80000013u, u"cam 1"), u"<cam 1>"},
        {Item<int32_t>(0x80000014u, 1), u"previous"},  // empty pattern
        {Item<int32_t>(0x80000015u, 1), u"previous"},  // binary
        // Patterns whose arguments do not match the data are never applied.
        {Item<int32_t>(0x80000016u, 1), u"previous"},
        {Item<int32_t>(0x80000017u, 1), u"previous"},
        {Item<int32_t>(0x80000018u, 1), u"previous"},
        {Item<uint32_t>(0x80000019u, 0xBEEF), u"0x0000BEEF (100%)"},
        {Item<double>(20, 2.0 / 3), u"0.67"},
    };
    for (const auto& [item, expected] : cases)
        EXPECT_EQ(Shown(manager, item), expected) << "ID " << item.GetTypeID();
    // Display strings are cut to 255 characters.
    EXPECT_EQ(Shown(manager, Item<uint8_t>(0x8000001Au, 1)).size(), 255u);
}

}  // namespace
