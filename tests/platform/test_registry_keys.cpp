// Keys of the registry store: creation, lookup, enumeration order, deletion and stale handles.
#include <string>

#include "platform/RegistryNames.h"
#include "registry_test_support.h"

namespace kestor::testing {
namespace {

using RegistryKeysTest = RegistryTest;

TEST_F(RegistryKeysTest, CreateMakesEveryLevelAndOpenFindsItWhateverTheCase) {
    RegistryKey created = MustCreate(u"Software\\Tavlin\\Metadata");
    EXPECT_TRUE(created.IsOpen());
    EXPECT_EQ(created.Path(), u"Software\\Tavlin\\Metadata");

    RegistryKey opened;
    ASSERT_EQ(RegistryKey::Open(u"SOFTWARE\\tavlin\\metaDATA", opened), RegStatus::Ok);
    EXPECT_EQ(opened.Path(), u"Software\\Tavlin\\Metadata");  // spelled as created
    ASSERT_EQ(RegistryKey::Open(u"Software\\Tavlin", opened), RegStatus::Ok);
    EXPECT_EQ(SubKeyNames(opened), std::vector<std::u16string>{u"Metadata"});

    // Creating an existing key in another case opens it; it does not add a twin.
    RegistryKey again = MustCreate(u"software\\TAVLIN\\metadata\\0000000033");
    EXPECT_EQ(again.Path(), u"Software\\Tavlin\\Metadata\\0000000033");
    EXPECT_EQ(SubKeyNames(opened), std::vector<std::u16string>{u"Metadata"});

    // Letters beyond ASCII fold too.
    MustCreate(u"Software\\\u00c4rger \u0416");
    ASSERT_EQ(RegistryKey::Open(u"software\\\u00e4RGER \u0436", opened), RegStatus::Ok);
    EXPECT_EQ(opened.Path(), u"Software\\\u00c4rger \u0416");

    EXPECT_EQ(RegistryKey::Open(u"Software\\Missing", opened), RegStatus::NotFound);
    EXPECT_FALSE(opened.IsOpen());
}

TEST_F(RegistryKeysTest, PathsTolerateOuterBackslashesButRefuseEmptyOrOversizedNames) {
    RegistryKey key = MustCreate(u"\\Software\\Kestor\\");
    EXPECT_EQ(key.Path(), u"Software\\Kestor");

    RegistryKey root;
    ASSERT_EQ(RegistryKey::Open(u"", root), RegStatus::Ok);
    EXPECT_EQ(root.Path(), u"");
    EXPECT_EQ(SubKeyNames(root), std::vector<std::u16string>{u"Software"});

    RegistryKey out;
    EXPECT_EQ(RegistryKey::Create(u"Software\\\\Kestor", out), RegStatus::InvalidArgument);
    EXPECT_EQ(RegistryKey::Create(std::u16string(256, u'k'), out), RegStatus::InvalidArgument);
    EXPECT_EQ(RegistryKey::Create(std::u16string(255, u'k'), out), RegStatus::Ok);
    EXPECT_EQ(RegistryKey::Create(std::u16string(u"bad\0name", 8), out),
              RegStatus::InvalidArgument);
    EXPECT_EQ(RegistryKey::Create(u"lone \xd800 surrogate", out), RegStatus::InvalidArgument);

    std::u16string deep;
    while (deep.size() <= RegistryKey::kMaxPathLength) deep += u"level\\";
    EXPECT_EQ(RegistryKey::Create(deep, out), RegStatus::InvalidArgument);
    // The limit also holds for a path made of a parent and a relative part.
    RegistryKey parent = MustCreate(std::u16string(200, u'p'));
    EXPECT_EQ(parent.CreateSubKey(deep.substr(0, RegistryKey::kMaxPathLength - 100), out),
              RegStatus::InvalidArgument);
}

TEST_F(RegistryKeysTest, SubKeysEnumerateInTheRegistrysCaseInsensitiveOrder) {
    RegistryKey metadata = MustCreate(u"Software\\Tavlin\\Metadata");
    for (const char16_t* id : {u"0000000034", u"0000000005", u"2147483648", u"0000000033",
                               u"0000000000", u"0000000100"}) {
        RegistryKey type;
        ASSERT_EQ(metadata.CreateSubKey(id, type), RegStatus::Ok);
    }
    EXPECT_EQ(SubKeyNames(metadata),
              (std::vector<std::u16string>{u"0000000000", u"0000000005", u"0000000033",
                                           u"0000000034", u"0000000100", u"2147483648"}));

    // Names compare after upper-case folding, as on Windows: "_" (0x5F) sorts after the
    // letters, and "AB" before "A_B".
    RegistryKey mixed = MustCreate(u"Mixed");
    for (const char16_t* name : {u"b", u"A_B", u"Zed", u"_x", u"AB", u"a"}) {
        RegistryKey child;
        ASSERT_EQ(mixed.CreateSubKey(name, child), RegStatus::Ok);
    }
    EXPECT_EQ(SubKeyNames(mixed),
              (std::vector<std::u16string>{u"a", u"AB", u"A_B", u"b", u"Zed", u"_x"}));

    WideString name = u"unchanged";
    EXPECT_EQ(mixed.EnumSubKey(6, name), RegStatus::NoMoreItems);
    EXPECT_EQ(mixed.EnumSubKey(UINT32_MAX, name), RegStatus::NoMoreItems);
    EXPECT_EQ(name, u"unchanged");

    uint32_t subKeys = 0;
    uint32_t values = 99;
    ASSERT_EQ(mixed.QueryInfo(subKeys, values), RegStatus::Ok);
    EXPECT_EQ(subKeys, 6u);
    EXPECT_EQ(values, 0u);
}

TEST_F(RegistryKeysTest, FoldingMapsLowerToUpperCaseAcrossScripts) {
    EXPECT_EQ(FoldRegistryName(u"abz_AZ09"), u"ABZ_AZ09");
    EXPECT_EQ(FoldRegistryChar(u'\u00e9'), u'\u00c9');  // é
    EXPECT_EQ(FoldRegistryChar(u'\u00f7'), u'\u00f7');  // ÷ is no letter
    EXPECT_EQ(FoldRegistryChar(u'\u00ff'), u'\u0178');  // ÿ
    EXPECT_EQ(FoldRegistryChar(u'\u0101'), u'\u0100');  // ā
    EXPECT_EQ(FoldRegistryChar(u'\u0100'), u'\u0100');
    EXPECT_EQ(FoldRegistryChar(u'\u017e'), u'\u017d');  // ž
    EXPECT_EQ(FoldRegistryChar(u'\u03c2'), u'\u03a3');  // final sigma
    EXPECT_EQ(FoldRegistryChar(u'\u044f'), u'\u042f');  // я
    EXPECT_EQ(FoldRegistryChar(u'\u0451'), u'\u0401');  // ё
    EXPECT_EQ(FoldRegistryChar(u'\u0586'), u'\u0556');  // Armenian
    EXPECT_EQ(FoldRegistryChar(u'\uff41'), u'\uff21');  // full-width a
    EXPECT_EQ(FoldRegistryChar(u'\u4e2d'), u'\u4e2d');  // no case
}

TEST_F(RegistryKeysTest, DeleteTreeRemovesTheKeyWithEverythingBelowIt) {
    RegistryKey c = MustCreate(u"A\\B\\C");
    ASSERT_EQ(c.SetDword(u"deep", 3), RegStatus::Ok);
    RegistryKey b;
    ASSERT_EQ(RegistryKey::Open(u"A\\B", b), RegStatus::Ok);
    ASSERT_EQ(b.SetDword(u"middle", 2), RegStatus::Ok);
    RegistryKey d = MustCreate(u"A\\D");
    ASSERT_EQ(d.SetDword(u"sibling", 4), RegStatus::Ok);

    EXPECT_EQ(RegistryKey::DeleteTree(u"a\\b"), RegStatus::Ok);

    RegistryKey out;
    EXPECT_EQ(RegistryKey::Open(u"A\\B", out), RegStatus::NotFound);
    EXPECT_EQ(RegistryKey::Open(u"A\\B\\C", out), RegStatus::NotFound);
    ASSERT_EQ(RegistryKey::Open(u"A", out), RegStatus::Ok);
    EXPECT_EQ(SubKeyNames(out), std::vector<std::u16string>{u"D"});
    uint32_t value = 0;
    ASSERT_EQ(RegistryKey::Open(u"A\\D", out), RegStatus::Ok);
    EXPECT_EQ(out.QueryDword(u"sibling", value), RegStatus::Ok);
    EXPECT_EQ(value, 4u);

    // A key made again under the old name starts empty.
    RegistryKey recreated = MustCreate(u"A\\B\\C");
    EXPECT_EQ(recreated.QueryDword(u"deep", value), RegStatus::NotFound);

    EXPECT_EQ(RegistryKey::DeleteTree(u"A\\Missing"), RegStatus::NotFound);
    EXPECT_EQ(RegistryKey::DeleteTree(u""), RegStatus::InvalidArgument);
    EXPECT_EQ(RegistryKey::DeleteTree(u"\\"), RegStatus::InvalidArgument);
}

TEST_F(RegistryKeysTest, HandlesToADeletedKeyAnswerNotFoundEvenAfterItIsRecreated) {
    RegistryKey stale = MustCreate(u"Software\\Kestor\\Grabdesk\\Lumenera");
    ASSERT_EQ(stale.SetDword(u"Interface", 1), RegStatus::Ok);
    RegistryKey staleParent;
    ASSERT_EQ(RegistryKey::Open(u"Software\\Kestor\\Grabdesk", staleParent), RegStatus::Ok);

    ASSERT_EQ(RegistryKey::DeleteTree(u"Software\\Kestor\\Grabdesk"), RegStatus::Ok);
    MustCreate(u"Software\\Kestor\\Grabdesk\\Lumenera");  // same names, new keys

    uint32_t value = 0;
    WideString name;
    RegType type = RegType::None;
    std::vector<uint8_t> data;
    uint32_t subKeys = 0;
    uint32_t values = 0;
    RegistryKey child;
    EXPECT_EQ(stale.QueryDword(u"Interface", value), RegStatus::NotFound);
    EXPECT_EQ(stale.SetDword(u"Interface", 0), RegStatus::NotFound);
    EXPECT_EQ(stale.DeleteValue(u"Interface"), RegStatus::NotFound);
    EXPECT_EQ(stale.EnumValue(0, name, type, data), RegStatus::NotFound);
    EXPECT_EQ(stale.QueryInfo(subKeys, values), RegStatus::NotFound);
    EXPECT_EQ(staleParent.EnumSubKey(0, name), RegStatus::NotFound);
    EXPECT_EQ(staleParent.OpenSubKey(u"Lumenera", child), RegStatus::NotFound);
    EXPECT_EQ(staleParent.CreateSubKey(u"Orphan", child), RegStatus::NotFound);
    EXPECT_FALSE(child.IsOpen());

    // Nothing written through the stale handles reached the new keys.
    RegistryKey fresh;
    ASSERT_EQ(RegistryKey::Open(u"Software\\Kestor\\Grabdesk", fresh), RegStatus::Ok);
    EXPECT_EQ(SubKeyNames(fresh), std::vector<std::u16string>{u"Lumenera"});
    ASSERT_EQ(fresh.OpenSubKey(u"Lumenera", child), RegStatus::Ok);
    EXPECT_EQ(child.QueryDword(u"Interface", value), RegStatus::NotFound);
}

TEST_F(RegistryKeysTest, SubKeyHandlesAndMovesBehaveLikeIndependentHandles) {
    RegistryKey grabdesk = MustCreate(u"Software\\Kestor\\Grabdesk");
    RegistryKey pleora;
    ASSERT_EQ(grabdesk.CreateSubKey(u"Pleora IPort\\Multicast", pleora), RegStatus::Ok);
    EXPECT_EQ(pleora.Path(), u"Software\\Kestor\\Grabdesk\\Pleora IPort\\Multicast");
    RegistryKey same;
    ASSERT_EQ(grabdesk.OpenSubKey(u"", same), RegStatus::Ok);
    EXPECT_EQ(same.Path(), grabdesk.Path());

    // A key may open its own subkey into itself.
    ASSERT_EQ(grabdesk.OpenSubKey(u"pleora iport", grabdesk), RegStatus::Ok);
    EXPECT_EQ(grabdesk.Path(), u"Software\\Kestor\\Grabdesk\\Pleora IPort");
    EXPECT_EQ(grabdesk.OpenSubKey(u"missing", grabdesk), RegStatus::NotFound);
    EXPECT_FALSE(grabdesk.IsOpen());

    RegistryKey moved(std::move(pleora));
    EXPECT_FALSE(pleora.IsOpen());  // NOLINT(bugprone-use-after-move): moved-from is closed
    EXPECT_TRUE(moved.IsOpen());
    EXPECT_EQ(moved.SetDword(u"MulticastMode", 2), RegStatus::Ok);

    uint32_t value = 0;
    WideString name;
    EXPECT_EQ(pleora.QueryDword(u"MulticastMode", value), RegStatus::InvalidArgument);
    EXPECT_EQ(pleora.EnumSubKey(0, name), RegStatus::InvalidArgument);
    EXPECT_EQ(pleora.SetDword(u"MulticastMode", 1), RegStatus::InvalidArgument);
    moved.Close();
    EXPECT_FALSE(moved.IsOpen());
    EXPECT_TRUE(moved.Path().empty());
}

}  // namespace
}  // namespace kestor::testing
