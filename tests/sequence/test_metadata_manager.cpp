// The metadata manager: its settings and types in the store, and the display strings it builds.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "KMetadataManager.h"
#include "platform/Registry.h"
#include "sequence/CKestorMetadataManager.h"
#include "sequence_test_support.h"

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

void SetTimeZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

using MetadataManager = kestor::test::MetadataStoreTest;

TEST_F(MetadataManager, SettingsAreReadFromTheStoreEveryTimeUnderTheirNames) {
    KMetadataManager manager;
    EXPECT_EQ(manager.GetMetadataTypeCount(), 0);
    EXPECT_EQ(manager.GetMetadataTypeByIndex(0), nullptr);
    RegistryKey root;
    EXPECT_EQ(RegistryKey::Open(kRoot, root), RegStatus::Ok) << "an empty store gets the root";
    EXPECT_EQ(manager.GetMetadataMaxSize(), 0);

    EXPECT_TRUE(manager.SetMetadataMaxSize(4096));
    EXPECT_TRUE(manager.SetMetadataInfoSize(2048));
    EXPECT_TRUE(manager.SetSequenceMetadataDynamic(true));
    const std::pair<const KChar*, uint32_t> stored[] = {
        {u"MetadataMaxSize", 4096}, {u"MetadataInfoSize", 2048}, {u"SequenceMetadataDynamic", 1}};
    for (const auto& [name, expected] : stored) {
        uint32_t value = 0;
        EXPECT_EQ(root.QueryDword(name, value), RegStatus::Ok);
        EXPECT_EQ(value, expected);
    }
    // Not cached: a change made elsewhere is seen at once; any nonzero is true.
    EXPECT_EQ(root.SetDword(u"SequenceMetadataDynamic", 7), RegStatus::Ok);
    EXPECT_TRUE(manager.IsSequenceMetadataDynamic());
    KMetadataManager other;
    EXPECT_EQ(other.GetMetadataInfoSize(), 2048);
    EXPECT_TRUE(other.SetSequenceMetadataDynamic(false));
    EXPECT_FALSE(manager.IsSequenceMetadataDynamic());

    // Without the root key setters fail and do not create it; getters give 0.
    ASSERT_EQ(RegistryKey::DeleteTree(u"Software\\Tavlin"), RegStatus::Ok);
    EXPECT_FALSE(manager.SetMetadataMaxSize(5));
    EXPECT_FALSE(manager.SetSequenceMetadataDynamic(true));
    EXPECT_EQ(manager.GetMetadataMaxSize(), 0);
    EXPECT_EQ(RegistryKey::Open(kRoot, root), RegStatus::NotFound);
}

TEST_F(MetadataManager, TypesAreStoredUnderTenDigitIdsAndSharedByCopies) {
    KMetadataManager manager;
    KMetadataManager copy(manager);
    const KMetadataInfo gain(0x80000001u, u"Gain", u"Sensor gain", eKMetadataInteger, 4, u"%d dB");
    ASSERT_TRUE(copy.RegisterMetadataType(&gain));
    ASSERT_EQ(manager.GetMetadataTypeCount(), 1) << "copies share one implementation";
    EXPECT_EQ(Fields(manager.GetMetadataTypeByID(0x80000001u)), Fields(&gain));
    RegistryKey key;
    ASSERT_EQ(RegistryKey::Open(u"Software\\Tavlin\\Metadata\\2147483649", key), RegStatus::Ok);
    kestor::RegType type{};
    std::vector<uint8_t> bytes;
    ASSERT_EQ(key.QueryValue(u"Name", type, bytes), RegStatus::Ok);
    EXPECT_EQ(type, kestor::RegType::String);
    EXPECT_EQ(bytes.size(), 10u) << "with the NUL";

    const KMetadataInfo again(0x80000001u, u"Gain2", u"", eKMetadataDouble, 8, u"%.1f");
    ASSERT_TRUE(manager.RegisterMetadataType(&again));
    EXPECT_EQ(manager.GetMetadataTypeCount(), 1) << "replaced by the same ID";
    EXPECT_EQ(Fields(KMetadataManager().GetMetadataTypeByID(0x80000001u)), Fields(&again));
    EXPECT_FALSE(manager.RegisterMetadataType(nullptr));

    // Built-in types come in ascending ID order whatever order they were registered in.
    ASSERT_TRUE(manager.RegisterTavLinTypes());
    ASSERT_TRUE(manager.RegisterGenericTypes());
    const uint32_t expected[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 33, 34, 0x80000001u};
    ASSERT_EQ(manager.GetMetadataTypeCount(), 12);
    for (unsigned i = 0; i < 12; ++i)
        EXPECT_EQ(manager.GetMetadataTypeByIndex(i)->GetID(), expected[i]) << "index " << i;
    EXPECT_EQ(manager.GetMetadataTypeByIndex(12), nullptr) << "index == count";
    const KMetadataInfo time64(33, u"Time (64-bit)", u"64-bit timestamp + ms & us",
                               eKMetadataBinary, 12, u"");
    EXPECT_EQ(Fields(manager.GetMetadataTypeByID(33)), Fields(&time64));
}

TEST_F(MetadataManager, OnlyTenDigitSubkeysAreLoadedAndBadValuesFallBackToDefaults) {
    RegistryKey loose;
    ASSERT_EQ(RegistryKey::Create(u"Software\\Tavlin\\Metadata\\5", loose), RegStatus::Ok);
    ASSERT_EQ(loose.SetString(u"Name", u"Loose"), RegStatus::Ok);
    EXPECT_EQ(KMetadataManager().GetMetadataTypeCount(), 0);
    RegistryKey twin;  // with a ten-digit twin, both subkeys resolve to the twin
    ASSERT_EQ(RegistryKey::Create(u"Software\\Tavlin\\Metadata\\0000000005", twin), RegStatus::Ok);
    ASSERT_EQ(twin.SetString(u"Name", u"Twin"), RegStatus::Ok);
    KMetadataManager manager;
    ASSERT_EQ(manager.GetMetadataTypeCount(), 2);
    for (unsigned i = 0; i < 2; ++i)
        EXPECT_EQ(Text(manager.GetMetadataTypeByIndex(i)->GetName()), u"Twin");

    RegistryKey key;
    ASSERT_EQ(RegistryKey::Create(u"Software\\Tavlin\\Metadata\\0000000040", key), RegStatus::Ok);
    ASSERT_EQ(key.SetString(u"Name", WideString(128, u'n')), RegStatus::Ok);  // 258 bytes: too long
    ASSERT_EQ(key.SetString(u"Description", WideString(255, u'd')), RegStatus::Ok);  // 512 fits
    ASSERT_EQ(key.SetString(u"Format", u"5"), RegStatus::Ok);                        // not a DWORD
    ASSERT_EQ(key.SetDword(u"SizeInBytes", 4), RegStatus::Ok);
    ASSERT_EQ(key.SetDword(u"FormatString", 1), RegStatus::Ok);  // not a string
    const KMetadataInfo fallback(40, u"", WideString(255, u'd').c_str(), 0, 4, u"");
    EXPECT_EQ(Fields(KMetadataManager().GetMetadataTypeByID(40)), Fields(&fallback));
}

TEST_F(MetadataManager, DisplayStringsFollowFixedRulesOrTheRegisteredPattern) {
    KMetadataManager manager;
    // A registration with another pattern does not change the built-in rules.
    const KMetadataInfo types[] = {
        {4, u"Integer", u"", eKMetadataInteger, 4, u"[%d]"},
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
        {Item<uint8_t>(0, 1), u"true"},
        {Item<uint8_t>(0, 0), u"false"},
        {Item<int16_t>(2, -2), u"-2"},
        {Item<int32_t>(4, -5), u"-5"},
        {Item<uint32_t>(5, 4000000000u), u"4000000000"},
        {Item<double>(6, 1.5), u"1.500000"},
        {WideItem(7, u"no end", false), u"no end"},  // stops at the data end
        // LTC: flag bits are masked off; the frames are set apart by "-".
        {Item<uint64_t>(34, 0x12345607u), u"12:34:56-07"},
        {Item<uint32_t>(34, 0xFFFFFFFFu), u"3F:7F:7F-3F"},
        // Binary, unregistered IDs and data too short for the layout keep what they had.
        {Item<uint16_t>(34, 0x1234), u"previous"},
        {Item<uint32_t>(8, 1), u"previous"},
        {Item<uint32_t>(0x80000005u, 1), u"previous"},
        {Item<uint16_t>(4, 1), u"previous"},
        {KMetadata(0, nullptr, 0, u"previous"), u"previous"},
        {KMetadata(33, "12345678", 8, u"previous"), u"previous"},
        // Registered application types use their pattern when it fits the data.
        {Item<uint8_t>(0x80000010u, 3), u"on"},
        {Item<uint8_t>(0x80000010u, 0), u"off"},
        {Item<uint8_t>(0x80000011u, 1), u"previous"},  // no ';'
        {Item<int16_t>(0x80000012u, -3), u"-3 dB"},
        {WideItem(0x80000013u, u"cam 1"), u"<cam 1>"},
        {Item<int32_t>(0x80000014u, 1), u"previous"},  // empty pattern
        {Item<int32_t>(0x80000015u, 1), u"previous"},  // binary
        {Item<int32_t>(0x80000016u, 1), u"previous"},  // arguments that do not match the data
        {Item<int32_t>(0x80000017u, 1), u"previous"},
        {Item<int32_t>(0x80000018u, 1), u"previous"},
        {Item<uint32_t>(0x80000019u, 0xBEEF), u"0x0000BEEF (100%)"},
        {Item<double>(20, 2.0 / 3), u"0.67"},
    };
    for (const auto& [item, expected] : cases)
        EXPECT_EQ(Shown(manager, item), expected) << "ID " << item.GetTypeID();
    EXPECT_EQ(Shown(manager, Item<uint8_t>(0x8000001Au, 1)).size(), 255u) << "cut to 255";

    // Time64 is shown in local time without the year.
    const auto time64 = [](int64_t seconds, uint16_t ms, uint16_t us) {
        uint8_t bytes[12];
        std::memcpy(bytes, &seconds, 8);
        std::memcpy(bytes + 8, &ms, 2);
        std::memcpy(bytes + 10, &us, 2);
        return KMetadata(33, bytes, 12, u"previous");
    };
    const std::optional<std::string> zone =
        getenv("TZ") ? std::optional<std::string>(getenv("TZ")) : std::nullopt;
    SetTimeZone("UTC");
    EXPECT_EQ(Shown(manager, time64(1700000000, 999, 0)), u"Tue Nov 14 22:13:20.999000");
    SetTimeZone("XYZ-02");  // two hours ahead of UTC
    EXPECT_EQ(Shown(manager, time64(0, 5, 7)), u"Thu Jan 01 02:00:00.005007");
    if (zone) {
        SetTimeZone(zone->c_str());
    } else {
        unsetenv("TZ");
        tzset();
    }
}

}  // namespace
