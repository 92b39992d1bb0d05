// Values of registry keys: types, the stored bytes of strings, names, limits and enumeration.
#include <iterator>
#include <string>

#include "registry_test_support.h"

namespace kestor::testing {
namespace {

using RegistryValuesTest = RegistryTest;
using Bytes = std::vector<uint8_t>;

TEST_F(RegistryValuesTest, StringsAreStoredAsUtf16WithTheirTerminatorCounted) {
    RegistryKey key = MustCreate(u"Software\\Tavlin\\Metadata\\0000000004");
    ASSERT_EQ(key.SetString(u"Name", u"Integer"), RegStatus::Ok);
    RegType type = RegType::None;
    Bytes data;
    ASSERT_EQ(key.QueryValue(u"Name", type, data), RegStatus::Ok);
    EXPECT_EQ(type, RegType::String);
    EXPECT_EQ(data, (Bytes{'I', 0, 'n', 0, 't', 0, 'e', 0, 'g', 0, 'e', 0, 'r', 0, 0, 0}));
    EXPECT_EQ(String(key, u"Name"), std::pair(RegStatus::Ok, WideString(u"Integer")));

    // Non-ASCII and empty strings round-trip; the empty one is just the terminator.
    ASSERT_EQ(key.SetString(u"Description", u"\u00c4\u4e2d\U0001F600"), RegStatus::Ok);
    EXPECT_EQ(String(key, u"Description").second, u"\u00c4\u4e2d\U0001F600");
    ASSERT_EQ(key.SetString(u"FormatString", u""), RegStatus::Ok);
    ASSERT_EQ(key.QueryValue(u"FormatString", type, data), RegStatus::Ok);
    EXPECT_EQ(data.size(), 2u);
    EXPECT_EQ(String(key, u"FormatString"), std::pair(RegStatus::Ok, WideString()));

    // Data written by others without the terminator, or as REG_EXPAND_SZ, reads the same; only
    // one terminator is stripped.
    const uint8_t bare[] = {'%', 0, 'd', 0}, twice[] = {'a', 0, 0, 0, 0, 0};
    ASSERT_EQ(key.SetValue(u"Bare", RegType::ExpandString, bare, sizeof(bare)), RegStatus::Ok);
    ASSERT_EQ(key.SetValue(u"Twice", RegType::String, twice, sizeof(twice)), RegStatus::Ok);
    EXPECT_EQ(String(key, u"Bare").second, u"%d");
    EXPECT_EQ(String(key, u"Twice").second, std::u16string(u"a\0", 2));
}

TEST_F(RegistryValuesTest, TypedQueriesRefuseOtherTypesAndSizesAndOtherTypesAreKept) {
    RegistryKey key = MustCreate(u"Software\\Tavlin\\Metadata");
    ASSERT_EQ(key.SetDword(u"MetadataMaxSize", 0x12345678), RegStatus::Ok);
    RegType type = RegType::None;
    Bytes data;
    ASSERT_EQ(key.QueryValue(u"MetadataMaxSize", type, data), RegStatus::Ok);
    EXPECT_EQ(type, RegType::Dword);
    EXPECT_EQ(data, (Bytes{0x78, 0x56, 0x34, 0x12})) << "little-endian";
    EXPECT_EQ(Dword(key, u"MetadataMaxSize"), std::pair(RegStatus::Ok, 0x12345678u));

    const uint8_t three[] = {1, 2, 3};
    ASSERT_EQ(key.SetValue(u"Short", RegType::Dword, three, 3), RegStatus::Ok);
    ASSERT_EQ(key.SetValue(u"Blob", RegType::Binary, three, 3), RegStatus::Ok);
    ASSERT_EQ(key.SetString(u"Text", u"1"), RegStatus::Ok);
    uint32_t number = 7;
    WideString text = u"kept";
    for (const char16_t* name : {u"Short", u"Blob", u"Text"})
        EXPECT_EQ(key.QueryDword(name, number), RegStatus::WrongType) << WideToUtf8(name);
    for (const char16_t* name : {u"MetadataMaxSize", u"Blob"})
        EXPECT_EQ(key.QueryString(name, text), RegStatus::WrongType) << WideToUtf8(name);
    EXPECT_EQ(key.QueryDword(u"Missing", number), RegStatus::NotFound);
    EXPECT_EQ(key.QueryString(u"Missing", text), RegStatus::NotFound);
    EXPECT_EQ(number, 7u) << "failed queries leave the output alone";
    EXPECT_EQ(text, u"kept");

    // Types the library does not name are kept as they are.
    ASSERT_EQ(key.SetValue(u"Link", static_cast<RegType>(6), three, 3), RegStatus::Ok);
    ASSERT_EQ(key.QueryValue(u"Link", type, data), RegStatus::Ok);
    EXPECT_EQ(std::pair(static_cast<uint32_t>(type), data), std::pair(6u, Bytes{1, 2, 3}));
}

TEST_F(RegistryValuesTest, NamesAreCaseInsensitiveKeepTheirFirstSpellingAndEnumerateInOrder) {
    RegistryKey key = MustCreate(u"Software\\Tavlin\\Metadata\\0000000033");
    const std::pair<const char16_t*, const char16_t*> values[] = {
        {u"Name", u"Time (64-bit)"}, {u"NAME", u"Time"},  // replaces
        {u"SizeInBytes", u"12"},     {u"Format", u"9"},
        {u"FormatString", u""},      {u"description", u"64-bit timestamp"},
        {u"_Hidden", u"x"},          {u"", u"default"}};  // the key's default value
    for (const auto& [name, text] : values) ASSERT_EQ(key.SetString(name, text), RegStatus::Ok);
    EXPECT_EQ(String(key, u"name").second, u"Time");
    EXPECT_EQ(String(key, u"").second, u"default");

    // Ordered by folded name, with the first spelling and the size of the replacing content.
    std::u16string listed;
    WideString name;
    RegType type = RegType::None;
    Bytes data;
    for (uint32_t i = 0; key.EnumValue(i, name, type, data) == RegStatus::Ok; ++i)
        listed += name + u"=" + Utf8ToWide(std::to_string(data.size())) + u" ";
    EXPECT_EQ(listed,
              u"=16 description=34 Format=4 FormatString=2 Name=10 SizeInBytes=6 _Hidden=4 ");
    uint32_t subKeys = 9, count = 0;
    ASSERT_EQ(key.QueryInfo(subKeys, count), RegStatus::Ok);
    EXPECT_EQ(std::pair(subKeys, count), std::pair(0u, 7u));

    EXPECT_EQ(key.DeleteValue(u"nAmE"), RegStatus::Ok);
    EXPECT_EQ(String(key, u"Name").first, RegStatus::NotFound);
    EXPECT_EQ(key.DeleteValue(u"Name"), RegStatus::NotFound);
}

TEST_F(RegistryValuesTest, OversizedOrMalformedValuesAreRefused) {
    RegistryKey key = MustCreate(u"Limits");
    Bytes big(RegistryKey::kMaxValueSize, 0xA5);
    big.front() = 1;
    big.back() = 2;
    const uint32_t max = RegistryKey::kMaxValueSize;
    const size_t maxName = RegistryKey::kMaxValueNameLength;
    ASSERT_EQ(key.SetValue(u"Largest", RegType::Binary, big.data(), max), RegStatus::Ok);
    EXPECT_EQ(key.SetValue(u"Empty", RegType::Binary, nullptr, 0), RegStatus::Ok);
    EXPECT_EQ(key.SetDword(std::u16string(maxName, u'n'), 1), RegStatus::Ok);
    EXPECT_EQ(key.SetDword(u"back\\slash", 5), RegStatus::Ok);  // allowed in value names
    const RegStatus refused[] = {key.SetValue(u"TooLarge", RegType::Binary, big.data(), max + 1),
                                 key.SetString(u"TooLong", std::u16string(max / 2, u'x')),
                                 key.SetValue(u"Null", RegType::Binary, nullptr, 4),
                                 key.SetDword(std::u16string(u"nul\0inside", 10), 1),
                                 key.SetDword(std::u16string(maxName + 1, u'n'), 1)};
    for (size_t i = 0; i < std::size(refused); ++i)
        EXPECT_EQ(refused[i], RegStatus::InvalidArgument) << "call " << i;

    RegType type = RegType::None;
    Bytes data;
    ASSERT_EQ(key.QueryValue(u"Largest", type, data), RegStatus::Ok);
    EXPECT_EQ(data, big);
    ASSERT_EQ(key.QueryValue(u"Empty", type, data), RegStatus::Ok);
    EXPECT_TRUE(data.empty());
    EXPECT_EQ(key.QueryValue(u"TooLarge", type, data), RegStatus::NotFound);
    EXPECT_EQ(Dword(key, u"BACK\\SLASH"), std::pair(RegStatus::Ok, 5u));
}

}  // namespace
}  // namespace kestor::testing
