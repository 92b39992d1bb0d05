// Values of registry keys: types, the stored bytes of strings, names, limits and enumeration.
#include <cstring>
#include <string>

#include "registry_test_support.h"

namespace kestor::testing {
namespace {

using RegistryValuesTest = RegistryTest;

TEST_F(RegistryValuesTest, StringsAreStoredAsUtf16WithTheirTerminatorCounted) {
    RegistryKey key = MustCreate(u"Software\\Tavlin\\Metadata\\0000000004");
    ASSERT_EQ(key.SetString(u"Name", u"Integer"), RegStatus::Ok);

    RegType type = RegType::None;
    std::vector<uint8_t> data;
    ASSERT_EQ(key.QueryValue(u"Name", type, data), RegStatus::Ok);
    EXPECT_EQ(type, RegType::String);
    const std::vector<uint8_t> expected = {'I', 0, 'n', 0, 't', 0, 'e', 0,
                                           'g', 0, 'e', 0, 'r', 0, 0,   0};
    EXPECT_EQ(data, expected);  // 16 bytes: seven units and the NUL

    WideString text;
    ASSERT_EQ(key.QueryString(u"Name", text), RegStatus::Ok);
    EXPECT_EQ(text, u"Integer");

    // Non-ASCII and empty strings round-trip; the empty one is just the terminator.
    ASSERT_EQ(key.SetString(u"Description", u"\u00c4\u4e2d\U0001F600"), RegStatus::Ok);
    ASSERT_EQ(key.QueryString(u"Description", text), RegStatus::Ok);
    EXPECT_EQ(text, u"\u00c4\u4e2d\U0001F600");
    ASSERT_EQ(key.SetString(u"FormatString", u""), RegStatus::Ok);
    ASSERT_EQ(key.QueryValue(u"FormatString", type, data), RegStatus::Ok);
    EXPECT_EQ(data.size(), 2u);
    ASSERT_EQ(key.QueryString(u"FormatString", text), RegStatus::Ok);
    EXPECT_TRUE(text.empty());

    // Data written by others without the terminator, or as REG_EXPAND_SZ, reads the same.
    const uint8_t bare[] = {'%', 0, 'd', 0};
    ASSERT_EQ(key.SetValue(u"Bare", RegType::ExpandString, bare, sizeof(bare)), RegStatus::Ok);
    ASSERT_EQ(key.QueryString(u"Bare", text), RegStatus::Ok);
    EXPECT_EQ(text, u"%d");
    // Only one terminator is stripped.
    const uint8_t twice[] = {'a', 0, 0, 0, 0, 0};
    ASSERT_EQ(key.SetValue(u"Twice", RegType::String, twice, sizeof(twice)), RegStatus::Ok);
    ASSERT_EQ(key.QueryString(u"Twice", text), RegStatus::Ok);
    EXPECT_EQ(text, std::u16string(u"a\0", 2));
}

TEST_F(RegistryValuesTest, TypedQueriesRefuseOtherTypesAndSizes) {
    RegistryKey key = MustCreate(u"Software\\Tavlin\\Metadata");
    ASSERT_EQ(key.SetDword(u"MetadataMaxSize", 0x12345678), RegStatus::Ok);

    RegType type = RegType::None;
    std::vector<uint8_t> data;
    ASSERT_EQ(key.QueryValue(u"MetadataMaxSize", type, data), RegStatus::Ok);
    EXPECT_EQ(type, RegType::Dword);
    EXPECT_EQ(data, (std::vector<uint8_t>{0x78, 0x56, 0x34, 0x12}));  // little-endian

    uint32_t number = 0;
    ASSERT_EQ(key.QueryDword(u"MetadataMaxSize", number), RegStatus::Ok);
    EXPECT_EQ(number, 0x12345678u);

    const uint8_t three[] = {1, 2, 3};
    ASSERT_EQ(key.SetValue(u"Short", RegType::Dword, three, 3), RegStatus::Ok);
    ASSERT_EQ(key.SetValue(u"Blob", RegType::Binary, three, 3), RegStatus::Ok);
    ASSERT_EQ(key.SetString(u"Text", u"1"), RegStatus::Ok);
    number = 7;
    EXPECT_EQ(key.QueryDword(u"Short", number), RegStatus::WrongType);
    EXPECT_EQ(key.QueryDword(u"Blob", number), RegStatus::WrongType);
    EXPECT_EQ(key.QueryDword(u"Text", number), RegStatus::WrongType);
    EXPECT_EQ(key.QueryDword(u"Missing", number), RegStatus::NotFound);
    EXPECT_EQ(number, 7u);

    WideString text = u"kept";
    EXPECT_EQ(key.QueryString(u"MetadataMaxSize", text), RegStatus::WrongType);
    EXPECT_EQ(key.QueryString(u"Blob", text), RegStatus::WrongType);
    EXPECT_EQ(key.QueryString(u"Missing", text), RegStatus::NotFound);
    EXPECT_EQ(text, u"kept");

    // Types the library does not name are kept as they are.
    const uint64_t quad = 0x0102030405060708ull;
    ASSERT_EQ(key.SetValue(u"Quad", RegType::Qword, &quad, sizeof(quad)), RegStatus::Ok);
    ASSERT_EQ(key.SetValue(u"Link", static_cast<RegType>(6), three, 3), RegStatus::Ok);
    ASSERT_EQ(key.QueryValue(u"Quad", type, data), RegStatus::Ok);
    EXPECT_EQ(type, RegType::Qword);
    ASSERT_EQ(data.size(), 8u);
    uint64_t read = 0;
    std::memcpy(&read, data.data(), 8);
    EXPECT_EQ(read, quad);
    ASSERT_EQ(key.QueryValue(u"Link", type, data), RegStatus::Ok);
    EXPECT_EQ(static_cast<uint32_t>(type), 6u);
}

TEST_F(RegistryValuesTest, NamesAreCaseInsensitiveAndKeepTheirFirstSpelling) {
    RegistryKey key = MustCreate(u"Software\\Tavlin\\Grabdesk");
    ASSERT_EQ(key.SetString(u"RoperSelect", u"CoolSnap"), RegStatus::Ok);
    ASSERT_EQ(key.SetString(u"ROPERSELECT", u"Cascade"), RegStatus::Ok);  // replaces

    WideString text;
    ASSERT_EQ(key.QueryString(u"roperselect", text), RegStatus::Ok);
    EXPECT_EQ(text, u"Cascade");

    WideString name;
    RegType type = RegType::None;
    std::vector<uint8_t> data;
    ASSERT_EQ(key.EnumValue(0, name, type, data), RegStatus::Ok);
    EXPECT_EQ(name, u"RoperSelect");
    EXPECT_EQ(data.size(), 16u);  // "Cascade" with its terminator
    EXPECT_EQ(key.EnumValue(1, name, type, data), RegStatus::NoMoreItems);

    EXPECT_EQ(key.DeleteValue(u"roperSELECT"), RegStatus::Ok);
    EXPECT_EQ(key.QueryString(u"RoperSelect", text), RegStatus::NotFound);
    EXPECT_EQ(key.DeleteValue(u"RoperSelect"), RegStatus::NotFound);
}

TEST_F(RegistryValuesTest, ValuesEnumerateInOrderWithTheDefaultValueFirst) {
    RegistryKey key = MustCreate(u"Software\\Tavlin\\Metadata\\0000000033");
    ASSERT_EQ(key.SetString(u"Name", u"Time (64-bit)"), RegStatus::Ok);
    ASSERT_EQ(key.SetDword(u"SizeInBytes", 12), RegStatus::Ok);
    ASSERT_EQ(key.SetDword(u"Format", 9), RegStatus::Ok);
    ASSERT_EQ(key.SetString(u"FormatString", u""), RegStatus::Ok);
    ASSERT_EQ(key.SetString(u"description", u"64-bit timestamp + ms & us"), RegStatus::Ok);
    ASSERT_EQ(key.SetString(u"_Hidden", u"x"), RegStatus::Ok);
    ASSERT_EQ(key.SetString(u"", u"default"), RegStatus::Ok);  // the key's default value

    std::vector<std::u16string> names;
    WideString name;
    RegType type = RegType::None;
    std::vector<uint8_t> data;
    for (uint32_t i = 0; key.EnumValue(i, name, type, data) == RegStatus::Ok; ++i) {
        names.push_back(name);
        if (name == u"SizeInBytes") {
            EXPECT_EQ(type, RegType::Dword);
            EXPECT_EQ(data, (std::vector<uint8_t>{12, 0, 0, 0}));
        }
    }
    EXPECT_EQ(names, (std::vector<std::u16string>{u"", u"description", u"Format", u"FormatString",
                                                  u"Name", u"SizeInBytes", u"_Hidden"}));

    WideString text;
    ASSERT_EQ(key.QueryString(u"", text), RegStatus::Ok);
    EXPECT_EQ(text, u"default");
    uint32_t subKeys = 9;
    uint32_t values = 0;
    ASSERT_EQ(key.QueryInfo(subKeys, values), RegStatus::Ok);
    EXPECT_EQ(subKeys, 0u);
    EXPECT_EQ(values, 7u);
}

TEST_F(RegistryValuesTest, OversizedOrMalformedValuesAreRefused) {
    RegistryKey key = MustCreate(u"Limits");
    std::vector<uint8_t> big(RegistryKey::kMaxValueSize, 0xA5);
    big.front() = 1;
    big.back() = 2;
    ASSERT_EQ(key.SetValue(u"Largest", RegType::Binary, big.data(), RegistryKey::kMaxValueSize),
              RegStatus::Ok);
    EXPECT_EQ(
        key.SetValue(u"TooLarge", RegType::Binary, big.data(), RegistryKey::kMaxValueSize + 1),
        RegStatus::InvalidArgument);
    EXPECT_EQ(key.SetString(u"TooLong", std::u16string(RegistryKey::kMaxValueSize / 2, u'x')),
              RegStatus::InvalidArgument);
    EXPECT_EQ(key.SetValue(u"Null", RegType::Binary, nullptr, 4), RegStatus::InvalidArgument);
    EXPECT_EQ(key.SetValue(u"Empty", RegType::Binary, nullptr, 0), RegStatus::Ok);
    EXPECT_EQ(key.SetDword(std::u16string(u"nul\0inside", 10), 1), RegStatus::InvalidArgument);
    EXPECT_EQ(key.SetDword(std::u16string(RegistryKey::kMaxValueNameLength + 1, u'n'), 1),
              RegStatus::InvalidArgument);
    EXPECT_EQ(key.SetDword(std::u16string(RegistryKey::kMaxValueNameLength, u'n'), 1),
              RegStatus::Ok);
    EXPECT_EQ(key.SetDword(u"back\\slash", 5), RegStatus::Ok);  // allowed in value names

    RegType type = RegType::None;
    std::vector<uint8_t> data;
    ASSERT_EQ(key.QueryValue(u"Largest", type, data), RegStatus::Ok);
    EXPECT_EQ(data, big);
    ASSERT_EQ(key.QueryValue(u"Empty", type, data), RegStatus::Ok);
    EXPECT_TRUE(data.empty());
    EXPECT_EQ(key.QueryValue(u"TooLarge", type, data), RegStatus::NotFound);
    uint32_t number = 0;
    ASSERT_EQ(key.QueryDword(u"BACK\\SLASH", number), RegStatus::Ok);
    EXPECT_EQ(number, 5u);
}

}  // namespace
}  // namespace kestor::testing
