// Keys and values of the registry store: case-insensitive names, enumeration order, deletion,
// stale handles, stored bytes, types and limits.
#include <iterator>
#include <string>

#include "platform/RegistryNames.h"
#include "registry_test_support.h"

namespace kestor::testing {
namespace {

using RegistryKeysTest = RegistryTest;
using Names = std::vector<std::u16string>;
using Bytes = std::vector<uint8_t>;

TEST_F(RegistryKeysTest, CreateMakesEveryLevelAndOpenFindsItWhateverTheCase) {
    EXPECT_EQ(MustCreate(u"\\Software\\Tavlin\\Metadata\\").Path(), u"Software\\Tavlin\\Metadata")
        << "outer backslashes are tolerated";
    // Creating an existing key in another case opens it, spelled as first created; no twin.
    EXPECT_EQ(MustCreate(u"software\\TAVLIN\\metadata\\0000000033").Path(),
              u"Software\\Tavlin\\Metadata\\0000000033");
    RegistryKey opened;
    ASSERT_EQ(RegistryKey::Open(u"SOFTWARE\\tavlin", opened), RegStatus::Ok);
    EXPECT_EQ(SubKeyNames(opened), Names{u"Metadata"});
    ASSERT_EQ(RegistryKey::Open(u"", opened), RegStatus::Ok);
    EXPECT_EQ(SubKeyNames(opened), Names{u"Software"}) << "the root";

    MustCreate(u"Software\\\u00c4rger \u0416");  // letters beyond ASCII fold too
    ASSERT_EQ(RegistryKey::Open(u"software\\\u00e4RGER \u0436", opened), RegStatus::Ok);
    EXPECT_EQ(opened.Path(), u"Software\\\u00c4rger \u0416");
    // A key may open its own subkey into itself; a failed open leaves it closed.
    ASSERT_EQ(RegistryKey::Open(u"software", opened), RegStatus::Ok);
    ASSERT_EQ(opened.OpenSubKey(u"tavlin\\metadata", opened), RegStatus::Ok);
    ASSERT_EQ(opened.OpenSubKey(u"", opened), RegStatus::Ok);
    EXPECT_EQ(opened.Path(), u"Software\\Tavlin\\Metadata");
    EXPECT_EQ(opened.OpenSubKey(u"missing", opened), RegStatus::NotFound);
    EXPECT_FALSE(opened.IsOpen());
    EXPECT_EQ(opened.SetDword(u"Closed", 1), RegStatus::InvalidArgument);
    EXPECT_EQ(RegistryKey::Open(u"Software\\Missing", opened), RegStatus::NotFound);

    const std::pair<KChar, KChar> folds[] = {{u'_', u'_'},           {u'\u00f7', u'\u00f7'},
                                             {u'\u00ff', u'\u0178'}, {u'\u03c2', u'\u03a3'},
                                             {u'\uff41', u'\uff21'}, {u'\u4e2d', u'\u4e2d'}};
    for (const auto& [lower, upper] : folds)
        EXPECT_EQ(FoldRegistryChar(lower), upper) << static_cast<int>(lower);

    // Empty or oversized names are refused, also when a parent and a relative part add up.
    EXPECT_EQ(RegistryKey::Create(std::u16string(255, u'k'), opened), RegStatus::Ok);
    std::u16string deep;
    while (deep.size() <= RegistryKey::kMaxPathLength) deep += u"level\\";
    for (const std::u16string& bad :
         {std::u16string(u"Software\\\\Kestor"), std::u16string(256, u'k'),
          std::u16string(u"bad\0name", 8), std::u16string(u"lone \xd800 surrogate"), deep})
        EXPECT_EQ(RegistryKey::Create(bad, opened), RegStatus::InvalidArgument);
    RegistryKey parent = MustCreate(std::u16string(200, u'p'));
    EXPECT_EQ(parent.CreateSubKey(deep.substr(0, RegistryKey::kMaxPathLength - 100), opened),
              RegStatus::InvalidArgument);
}

TEST_F(RegistryKeysTest, SubKeysEnumerateInTheRegistrysCaseInsensitiveOrder) {
    RegistryKey metadata = MustCreate(u"Software\\Tavlin\\Metadata");
    RegistryKey mixed = MustCreate(u"Mixed");
    RegistryKey child;
    for (const char16_t* id : {u"0000000034", u"2147483648", u"0000000033", u"0000000000"})
        ASSERT_EQ(metadata.CreateSubKey(id, child), RegStatus::Ok);
    for (const char16_t* name : {u"b", u"A_B", u"Zed", u"_x", u"AB", u"a"})
        ASSERT_EQ(mixed.CreateSubKey(name, child), RegStatus::Ok);
    EXPECT_EQ(SubKeyNames(metadata),
              (Names{u"0000000000", u"0000000033", u"0000000034", u"2147483648"}));
    // Names compare after upper-case folding: "_" (0x5F) sorts after the letters, "AB" before
    // "A_B".
    EXPECT_EQ(SubKeyNames(mixed), (Names{u"a", u"AB", u"A_B", u"b", u"Zed", u"_x"}));

    WideString name = u"unchanged";
    EXPECT_EQ(mixed.EnumSubKey(UINT32_MAX, name), RegStatus::NoMoreItems);
    EXPECT_EQ(name, u"unchanged");
    uint32_t subKeys = 0, values = 99;
    ASSERT_EQ(mixed.QueryInfo(subKeys, values), RegStatus::Ok);
    EXPECT_EQ(std::pair(subKeys, values), std::pair(6u, 0u));
}

TEST_F(RegistryKeysTest, DeleteTreeRemovesEverythingBelowAndLeavesStaleHandlesDead) {
    RegistryKey stale = MustCreate(u"Software\\Kestor\\Grabdesk\\Lumenera");
    ASSERT_EQ(stale.SetDword(u"Interface", 1), RegStatus::Ok);
    RegistryKey staleParent = MustCreate(u"Software\\Kestor\\Grabdesk");
    ASSERT_EQ(MustCreate(u"Software\\Kestor\\Other").SetDword(u"sibling", 4), RegStatus::Ok);
    ASSERT_EQ(RegistryKey::DeleteTree(u"software\\kestor\\GRABDESK"), RegStatus::Ok);
    RegistryKey child;
    EXPECT_EQ(RegistryKey::Open(u"Software\\Kestor\\Grabdesk\\Lumenera", child),
              RegStatus::NotFound);
    ASSERT_EQ(RegistryKey::Open(u"Software\\Kestor", child), RegStatus::Ok);
    EXPECT_EQ(SubKeyNames(child), Names{u"Other"});
    EXPECT_EQ(Dword(MustCreate(u"Software\\Kestor\\Other"), u"sibling"),
              std::pair(RegStatus::Ok, 4u));
    for (const char16_t* bad : {u"", u"\\"})
        EXPECT_EQ(RegistryKey::DeleteTree(bad), RegStatus::InvalidArgument);
    EXPECT_EQ(RegistryKey::DeleteTree(u"Software\\Kestor\\Grabdesk"), RegStatus::NotFound);

    // Handles to the deleted keys answer NotFound, even after keys of the same names are made.
    MustCreate(u"Software\\Kestor\\Grabdesk\\Lumenera");
    WideString name;
    RegType type = RegType::None;
    Bytes data;
    uint32_t count = 0;
    const RegStatus results[] = {Dword(stale, u"Interface").first,
                                 stale.SetDword(u"Interface", 0),
                                 stale.DeleteValue(u"Interface"),
                                 stale.EnumValue(0, name, type, data),
                                 stale.QueryInfo(count, count),
                                 staleParent.EnumSubKey(0, name),
                                 staleParent.OpenSubKey(u"Lumenera", child),
                                 staleParent.CreateSubKey(u"Orphan", child)};
    for (size_t i = 0; i < std::size(results); ++i)
        EXPECT_EQ(results[i], RegStatus::NotFound) << "call " << i;
    EXPECT_FALSE(child.IsOpen());

    // Nothing written through the stale handles reached the new keys, which start empty.
    RegistryKey fresh = MustCreate(u"Software\\Kestor\\Grabdesk");
    EXPECT_EQ(SubKeyNames(fresh), Names{u"Lumenera"});
    ASSERT_EQ(fresh.OpenSubKey(u"Lumenera", child), RegStatus::Ok);
    EXPECT_EQ(Dword(child, u"Interface").first, RegStatus::NotFound);
}

TEST_F(RegistryKeysTest, ValuesAreStoredAsWindowsStoresThemAndTypedQueriesCheckTheType) {
    RegistryKey key = MustCreate(u"Software\\Tavlin\\Metadata\\0000000004");
    ASSERT_EQ(key.SetString(u"Name", u"In"), RegStatus::Ok);
    ASSERT_EQ(key.SetDword(u"MetadataMaxSize", 0x12345678), RegStatus::Ok);
    ASSERT_EQ(key.SetString(u"Empty", u""), RegStatus::Ok);
    RegType type = RegType::None;
    Bytes data;
    const std::tuple<const char16_t*, RegType, Bytes> stored[] = {
        {u"Name", RegType::String, {'I', 0, 'n', 0, 0, 0}},  // UTF-16, terminator counted
        {u"MetadataMaxSize", RegType::Dword, {0x78, 0x56, 0x34, 0x12}},  // little-endian
        {u"Empty", RegType::String, {0, 0}}};
    for (const auto& [name, expectedType, bytes] : stored) {
        ASSERT_EQ(key.QueryValue(name, type, data), RegStatus::Ok);
        EXPECT_EQ(std::pair(type, data), std::pair(expectedType, bytes)) << WideToUtf8(name);
    }
    EXPECT_EQ(String(key, u"Name"), std::pair(RegStatus::Ok, WideString(u"In")));
    EXPECT_EQ(String(key, u"Empty"), std::pair(RegStatus::Ok, WideString()));
    EXPECT_EQ(Dword(key, u"MetadataMaxSize"), std::pair(RegStatus::Ok, 0x12345678u));
    ASSERT_EQ(key.SetString(u"Description", u"\u00c4\u4e2d\U0001F600"), RegStatus::Ok);
    EXPECT_EQ(String(key, u"Description").second, u"\u00c4\u4e2d\U0001F600");

    // Data written by others without the terminator, or as REG_EXPAND_SZ, reads the same; only
    // one terminator is stripped. Types the library does not name are kept as they are.
    const uint8_t bare[] = {'%', 0, 'd', 0}, twice[] = {'a', 0, 0, 0, 0, 0};
    ASSERT_EQ(key.SetValue(u"Bare", RegType::ExpandString, bare, sizeof(bare)), RegStatus::Ok);
    ASSERT_EQ(key.SetValue(u"Twice", RegType::String, twice, sizeof(twice)), RegStatus::Ok);
    ASSERT_EQ(key.SetValue(u"Link", static_cast<RegType>(6), bare, 3), RegStatus::Ok);
    EXPECT_EQ(String(key, u"Bare").second, u"%d");
    EXPECT_EQ(String(key, u"Twice").second, std::u16string(u"a\0", 2));
    ASSERT_EQ(key.QueryValue(u"Link", type, data), RegStatus::Ok);
    EXPECT_EQ(std::pair(static_cast<uint32_t>(type), data), std::pair(6u, Bytes{'%', 0, 'd'}));

    // Typed queries refuse other types and sizes and leave the output alone when they fail.
    ASSERT_EQ(key.SetValue(u"Short", RegType::Dword, bare, 3), RegStatus::Ok);
    uint32_t number = 7;
    WideString text = u"kept";
    for (const char16_t* name : {u"Short", u"Link", u"Name"})
        EXPECT_EQ(key.QueryDword(name, number), RegStatus::WrongType) << WideToUtf8(name);
    for (const char16_t* name : {u"MetadataMaxSize", u"Link"})
        EXPECT_EQ(key.QueryString(name, text), RegStatus::WrongType) << WideToUtf8(name);
    EXPECT_EQ(key.QueryDword(u"Missing", number), RegStatus::NotFound);
    EXPECT_EQ(key.QueryString(u"Missing", text), RegStatus::NotFound);
    EXPECT_EQ(std::pair(number, text), std::pair(7u, WideString(u"kept")));
}

TEST_F(RegistryKeysTest, NamesAreCaseInsensitiveKeepTheirFirstSpellingAndEnumerateInOrder) {
    RegistryKey key = MustCreate(u"Software\\Tavlin\\Metadata\\0000000033");
    const std::pair<const char16_t*, const char16_t*> values[] = {
        {u"Name", u"Time (64-bit)"}, {u"NAME", u"Time"},  // replaces
        {u"SizeInBytes", u"12"},     {u"description", u"64-bit timestamp"},
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
    EXPECT_EQ(listed, u"=16 description=34 Name=10 SizeInBytes=6 _Hidden=4 ");
    uint32_t subKeys = 9, count = 0;
    ASSERT_EQ(key.QueryInfo(subKeys, count), RegStatus::Ok);
    EXPECT_EQ(std::pair(subKeys, count), std::pair(0u, 5u));

    EXPECT_EQ(key.DeleteValue(u"nAmE"), RegStatus::Ok);
    EXPECT_EQ(String(key, u"Name").first, RegStatus::NotFound);
    EXPECT_EQ(key.DeleteValue(u"Name"), RegStatus::NotFound);
}

TEST_F(RegistryKeysTest, OversizedOrMalformedValuesAreRefused) {
    RegistryKey key = MustCreate(u"Limits");
    const uint32_t max = RegistryKey::kMaxValueSize;
    const size_t maxName = RegistryKey::kMaxValueNameLength;
    Bytes big(max, 0xA5);
    big.front() = 1;
    big.back() = 2;
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
