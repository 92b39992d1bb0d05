// Keys of the registry store: creation, lookup, enumeration order, deletion and stale handles.
#include <iterator>
#include <string>

#include "platform/RegistryNames.h"
#include "registry_test_support.h"

namespace kestor::testing {
namespace {

using RegistryKeysTest = RegistryTest;
using Names = std::vector<std::u16string>;

TEST_F(RegistryKeysTest, CreateMakesEveryLevelAndOpenFindsItWhateverTheCase) {
    EXPECT_EQ(MustCreate(u"Software\\Tavlin\\Metadata").Path(), u"Software\\Tavlin\\Metadata");
    RegistryKey opened;
    ASSERT_EQ(RegistryKey::Open(u"SOFTWARE\\tavlin\\metaDATA", opened), RegStatus::Ok);
    EXPECT_EQ(opened.Path(), u"Software\\Tavlin\\Metadata");  // spelled as created

    // Creating an existing key in another case opens it; it does not add a twin.
    RegistryKey again = MustCreate(u"software\\TAVLIN\\metadata\\0000000033");
    EXPECT_EQ(again.Path(), u"Software\\Tavlin\\Metadata\\0000000033");
    ASSERT_EQ(RegistryKey::Open(u"Software\\Tavlin", opened), RegStatus::Ok);
    EXPECT_EQ(SubKeyNames(opened), Names{u"Metadata"});

    MustCreate(u"Software\\\u00c4rger \u0416");  // letters beyond ASCII fold too
    ASSERT_EQ(RegistryKey::Open(u"software\\\u00e4RGER \u0436", opened), RegStatus::Ok);
    EXPECT_EQ(opened.Path(), u"Software\\\u00c4rger \u0416");

    EXPECT_EQ(RegistryKey::Open(u"Software\\Missing", opened), RegStatus::NotFound);
    EXPECT_FALSE(opened.IsOpen());

    const std::pair<KChar, KChar> folds[] = {
        {u'a', u'A'},           {u'_', u'_'},           {u'\u00e9', u'\u00c9'},
        {u'\u00f7', u'\u00f7'}, {u'\u00ff', u'\u0178'}, {u'\u0101', u'\u0100'},
        {u'\u0100', u'\u0100'}, {u'\u017e', u'\u017d'}, {u'\u03c2', u'\u03a3'},
        {u'\u044f', u'\u042f'}, {u'\u0451', u'\u0401'}, {u'\u0586', u'\u0556'},
        {u'\uff41', u'\uff21'}, {u'\u4e2d', u'\u4e2d'}};
    for (const auto& [lower, upper] : folds)
        EXPECT_EQ(FoldRegistryChar(lower), upper) << static_cast<int>(lower);
}

TEST_F(RegistryKeysTest, PathsTolerateOuterBackslashesButRefuseEmptyOrOversizedNames) {
    EXPECT_EQ(MustCreate(u"\\Software\\Kestor\\").Path(), u"Software\\Kestor");
    RegistryKey root;
    ASSERT_EQ(RegistryKey::Open(u"", root), RegStatus::Ok);
    EXPECT_EQ(root.Path(), u"");
    EXPECT_EQ(SubKeyNames(root), Names{u"Software"});

    RegistryKey out;
    EXPECT_EQ(RegistryKey::Create(std::u16string(255, u'k'), out), RegStatus::Ok);
    std::u16string deep;
    while (deep.size() <= RegistryKey::kMaxPathLength) deep += u"level\\";
    for (const std::u16string& bad :
         {std::u16string(u"Software\\\\Kestor"), std::u16string(256, u'k'),
          std::u16string(u"bad\0name", 8), std::u16string(u"lone \xd800 surrogate"), deep})
        EXPECT_EQ(RegistryKey::Create(bad, out), RegStatus::InvalidArgument);
    // The limit also holds for a path made of a parent and a relative part.
    RegistryKey parent = MustCreate(std::u16string(200, u'p'));
    EXPECT_EQ(parent.CreateSubKey(deep.substr(0, RegistryKey::kMaxPathLength - 100), out),
              RegStatus::InvalidArgument);
}

TEST_F(RegistryKeysTest, SubKeysEnumerateInTheRegistrysCaseInsensitiveOrder) {
    RegistryKey metadata = MustCreate(u"Software\\Tavlin\\Metadata");
    RegistryKey mixed = MustCreate(u"Mixed");
    RegistryKey child;
    for (const char16_t* id :
         {u"0000000034", u"0000000005", u"2147483648", u"0000000033", u"0000000000", u"0000000100"})
        ASSERT_EQ(metadata.CreateSubKey(id, child), RegStatus::Ok);
    for (const char16_t* name : {u"b", u"A_B", u"Zed", u"_x", u"AB", u"a"})
        ASSERT_EQ(mixed.CreateSubKey(name, child), RegStatus::Ok);
    EXPECT_EQ(SubKeyNames(metadata), (Names{u"0000000000", u"0000000005", u"0000000033",
                                            u"0000000034", u"0000000100", u"2147483648"}));
    // Names compare after upper-case folding, as on Windows: "_" (0x5F) sorts after the
    // letters, and "AB" before "A_B".
    EXPECT_EQ(SubKeyNames(mixed), (Names{u"a", u"AB", u"A_B", u"b", u"Zed", u"_x"}));

    WideString name = u"unchanged";
    EXPECT_EQ(mixed.EnumSubKey(6, name), RegStatus::NoMoreItems);
    EXPECT_EQ(mixed.EnumSubKey(UINT32_MAX, name), RegStatus::NoMoreItems);
    EXPECT_EQ(name, u"unchanged");
    uint32_t subKeys = 0, values = 99;
    ASSERT_EQ(mixed.QueryInfo(subKeys, values), RegStatus::Ok);
    EXPECT_EQ(std::pair(subKeys, values), std::pair(6u, 0u));
}

TEST_F(RegistryKeysTest, DeleteTreeRemovesTheKeyWithEverythingBelowIt) {
    ASSERT_EQ(MustCreate(u"A\\B\\C").SetDword(u"deep", 3), RegStatus::Ok);
    ASSERT_EQ(MustCreate(u"A\\B").SetDword(u"middle", 2), RegStatus::Ok);
    ASSERT_EQ(MustCreate(u"A\\D").SetDword(u"sibling", 4), RegStatus::Ok);

    EXPECT_EQ(RegistryKey::DeleteTree(u"a\\b"), RegStatus::Ok);
    RegistryKey out;
    EXPECT_EQ(RegistryKey::Open(u"A\\B", out), RegStatus::NotFound);
    EXPECT_EQ(RegistryKey::Open(u"A\\B\\C", out), RegStatus::NotFound);
    ASSERT_EQ(RegistryKey::Open(u"A", out), RegStatus::Ok);
    EXPECT_EQ(SubKeyNames(out), Names{u"D"});
    EXPECT_EQ(Dword(MustCreate(u"A\\D"), u"sibling"), std::pair(RegStatus::Ok, 4u));
    EXPECT_EQ(Dword(MustCreate(u"A\\B\\C"), u"deep").first, RegStatus::NotFound)
        << "a key made again under the old name starts empty";

    for (const char16_t* bad : {u"", u"\\"})
        EXPECT_EQ(RegistryKey::DeleteTree(bad), RegStatus::InvalidArgument);
    EXPECT_EQ(RegistryKey::DeleteTree(u"A\\Missing"), RegStatus::NotFound);
}

TEST_F(RegistryKeysTest, HandlesToADeletedKeyAnswerNotFoundEvenAfterItIsRecreated) {
    RegistryKey stale = MustCreate(u"Software\\Kestor\\Grabdesk\\Lumenera");
    ASSERT_EQ(stale.SetDword(u"Interface", 1), RegStatus::Ok);
    RegistryKey staleParent = MustCreate(u"Software\\Kestor\\Grabdesk");
    ASSERT_EQ(RegistryKey::DeleteTree(u"Software\\Kestor\\Grabdesk"), RegStatus::Ok);
    MustCreate(u"Software\\Kestor\\Grabdesk\\Lumenera");  // same names, new keys

    WideString name;
    RegType type = RegType::None;
    std::vector<uint8_t> data;
    uint32_t count = 0;
    RegistryKey child;
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

    // Nothing written through the stale handles reached the new keys.
    RegistryKey fresh = MustCreate(u"Software\\Kestor\\Grabdesk");
    EXPECT_EQ(SubKeyNames(fresh), Names{u"Lumenera"});
    ASSERT_EQ(fresh.OpenSubKey(u"Lumenera", child), RegStatus::Ok);
    EXPECT_EQ(Dword(child, u"Interface").first, RegStatus::NotFound);
}

TEST_F(RegistryKeysTest, SubKeyHandlesAndMovesBehaveLikeIndependentHandles) {
    RegistryKey grabdesk = MustCreate(u"Software\\Kestor\\Grabdesk");
    RegistryKey pleora, same;
    ASSERT_EQ(grabdesk.CreateSubKey(u"Pleora IPort\\Multicast", pleora), RegStatus::Ok);
    EXPECT_EQ(pleora.Path(), u"Software\\Kestor\\Grabdesk\\Pleora IPort\\Multicast");
    ASSERT_EQ(grabdesk.OpenSubKey(u"", same), RegStatus::Ok);
    EXPECT_EQ(same.Path(), grabdesk.Path());

    // A key may open its own subkey into itself.
    ASSERT_EQ(grabdesk.OpenSubKey(u"pleora iport", grabdesk), RegStatus::Ok);
    EXPECT_EQ(grabdesk.Path(), u"Software\\Kestor\\Grabdesk\\Pleora IPort");
    EXPECT_EQ(grabdesk.OpenSubKey(u"missing", grabdesk), RegStatus::NotFound);
    EXPECT_FALSE(grabdesk.IsOpen());

    RegistryKey moved(std::move(pleora));
    EXPECT_FALSE(pleora.IsOpen());  // NOLINT(bugprone-use-after-move): moved-from is closed
    EXPECT_EQ(moved.SetDword(u"MulticastMode", 2), RegStatus::Ok);
    WideString name;
    EXPECT_EQ(Dword(pleora, u"MulticastMode").first, RegStatus::InvalidArgument);
    EXPECT_EQ(pleora.EnumSubKey(0, name), RegStatus::InvalidArgument);
    EXPECT_EQ(pleora.SetDword(u"MulticastMode", 1), RegStatus::InvalidArgument);
    moved.Close();
    EXPECT_FALSE(moved.IsOpen());
    EXPECT_TRUE(moved.Path().empty());
}

}  // namespace
}  // namespace kestor::testing
