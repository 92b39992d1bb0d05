// Settings files written from the registry and read back into it: export, wipe, import must
// give the very same keys and values.
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "acquisition/SettingsXml.h"
#include "acquisition/settings_xml_test_support.h"

namespace kestor::testing {
namespace {

using namespace std::string_view_literals;

constexpr const KChar* kSettingsKey = u"Software\\Acme\\Grabdesk\\";

std::vector<uint8_t> Utf16(std::u16string_view text, bool terminated = true) {
    std::vector<uint8_t> bytes;
    for (const char16_t unit : text) {
        bytes.push_back(static_cast<uint8_t>(unit & 0xFF));
        bytes.push_back(static_cast<uint8_t>(unit >> 8));
    }
    if (terminated) bytes.insert(bytes.end(), {0, 0});
    return bytes;
}

class SettingsXmlTest : public RegistryTest {
protected:
    std::string File(const std::string& name) const { return (Folder() / name).string(); }

    // Every value type in readable and in hex form, names that need escaping, Unicode, empty
    // keys and empty values.
    static void FillSettings() {
        RegistryKey root = MustCreate(kSettingsKey);
        root.SetString(u"", u"default value");
        root.SetString(u"Name", u"Camera <1> & \"friends\" 'quoted' ]]>");
        root.SetString(u"Padded", u"  leading and trailing  ");
        root.SetString(u"Lines", u"first\nsecond\tthird\n");
        root.SetString(u"Blank", u"   ");
        root.SetString(u"CarriageReturn", u"a\r\nb");
        root.SetString(u"Control", u"bell\x07");
        root.SetString(u"Empty", u"");
        root.SetString(u"Größe ✓ 日本 🎥", u"Ünïcödé 相机 🎥");
        root.SetString(u"Back\\slash in value name", u"C:\\Data\\");
        SetRaw(root, u"Unterminated", RegType::String, Utf16(u"abc", false));
        SetRaw(root, u"OddBytes", RegType::String, {0x41, 0x00, 0x42});
        SetRaw(root, u"LoneSurrogate", RegType::String, Utf16(u"x\xD800y"));
        SetRaw(root, u"InnerNul", RegType::String, Utf16(u"a\0b"sv));
        SetRaw(root, u"Expand", RegType::ExpandString, Utf16(u"%HOME%\\kestor"));
        root.SetDword(u"Zero", 0);
        root.SetDword(u"Max", 0xFFFFFFFFu);
        SetRaw(root, u"ShortDword", RegType::Dword, {1, 2, 3});
        SetRaw(root, u"BigEndian", static_cast<RegType>(5), {0x12, 0x34, 0x56, 0x78});
        SetRaw(root, u"Quad", RegType::Qword, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
        SetRaw(root, u"QuadSmall", RegType::Qword, {42, 0, 0, 0, 0, 0, 0, 0});
        SetRaw(root, u"EmptyBinary", RegType::Binary, {});
        std::vector<uint8_t> all(256);
        for (int i = 0; i < 256; ++i) all[i] = static_cast<uint8_t>(i);
        SetRaw(root, u"AllBytes", RegType::Binary, all);
        SetRaw(root, u"Nothing", RegType::None, {});
        SetRaw(root, u"NoneWithData", RegType::None, {9, 8});
        SetRaw(root, u"Link", static_cast<RegType>(6), Utf16(u"\\Registry\\Machine", false));
        SetRaw(root, u"Resources", static_cast<RegType>(8), {1, 0, 0, 0});
        SetRaw(root, u"FullResource", static_cast<RegType>(9), {2});
        SetRaw(root, u"Requirements", static_cast<RegType>(10), {3, 3});
        SetRaw(root, u"List", RegType::MultiString, Utf16(u"alpha\0beta gamma\0"sv));
        SetRaw(root, u"EmptyList", RegType::MultiString, {0, 0});
        SetRaw(root, u"ListWithHole", RegType::MultiString, Utf16(u"a\0\0b\0"sv));
        SetRaw(root, u"ListUnterminated", RegType::MultiString, Utf16(u"a\0b"sv, false));
        SetRaw(root, u"ZeroLength", RegType::MultiString, {});

        MustCreate(u"Software\\Acme\\Grabdesk\\Empty key");
        RegistryKey pleora = MustCreate(u"Software\\Acme\\Grabdesk\\Pleora IPort");
        pleora.SetDword(u"MulticastMode", 2);
        RegistryKey deep = MustCreate(u"Software\\Acme\\Grabdesk\\Pleora IPort\\A\\B\\C\\D");
        deep.SetString(u"Leaf", u"deep");
        RegistryKey unicode = MustCreate(u"Software\\Acme\\Grabdesk\\Kamera ü 相机 🎥 <&>\"");
        unicode.SetDword(u"Öffnung", 7);
    }
};

TEST_F(SettingsXmlTest, ExportWipeImportReproducesEveryKeyAndValue) {
    FillSettings();
    const std::string before = Snapshot(kSettingsKey);
    ASSERT_NE(before.find("Empty key"), std::string::npos);
    const std::string file = File("settings.xml");
    ASSERT_EQ(ExportRegistryKeyToXml(kSettingsKey, file), eKErrSuccess);

    ASSERT_EQ(RegistryKey::DeleteTree(kSettingsKey), RegStatus::Ok);
    ASSERT_EQ(ImportXmlToRegistryKey(file, kSettingsKey), eKErrSuccess);
    EXPECT_EQ(Snapshot(kSettingsKey), before);

    // The same content gives the same file, byte for byte.
    const std::string again = File("again.xml");
    ASSERT_EQ(ExportRegistryKeyToXml(kSettingsKey, again), eKErrSuccess);
    EXPECT_EQ(ReadText(again), ReadText(file));
}

TEST_F(SettingsXmlTest, FileIsReadableAndListsSubkeysBeforeValues) {
    RegistryKey root = MustCreate(kSettingsKey);
    root.SetDword(u"Count", 42);
    root.SetString(u"Name", u"Tom & Jerry");
    SetRaw(root, u"Blob", RegType::Binary, {0xDE, 0xAD, 0x01});
    SetRaw(root, u"Names", RegType::MultiString, Utf16(u"one\0two\0"sv));
    root.SetString(u"Blank", u"  ");
    MustCreate(u"Software\\Acme\\Grabdesk\\Sub").SetDword(u"Inner", 1);
    const std::string file = File("readable.xml");
    ASSERT_EQ(ExportRegistryKeyToXml(kSettingsKey, file), eKErrSuccess);

    const std::string text = ReadText(file);
    EXPECT_NE(text.find("<KestorGrabberSettings version=\"1\""), std::string::npos) << text;
    EXPECT_NE(text.find("<Value name=\"Count\" type=\"REG_DWORD\">42</Value>"), std::string::npos);
    EXPECT_NE(text.find("<Value name=\"Name\" type=\"REG_SZ\">Tom &amp; Jerry</Value>"),
              std::string::npos);
    EXPECT_NE(text.find("<Value name=\"Blob\" type=\"REG_BINARY\">DEAD01</Value>"),
              std::string::npos);
    EXPECT_NE(text.find("<String>one</String>"), std::string::npos);
    EXPECT_NE(text.find("type=\"REG_SZ\" encoding=\"hex\">20002000"), std::string::npos)
        << "text that XML would not keep goes as hex";
    const size_t key = text.find("<Key name=\"Sub\">");
    ASSERT_NE(key, std::string::npos);
    EXPECT_LT(key, text.find("name=\"Blob\"")) << "subkeys come before the key's values";
    EXPECT_LT(text.find("name=\"Inner\""), text.find("</Key>"));
}

TEST_F(SettingsXmlTest, ImportGoesUnderTheGivenKeyAndKeepsWhatIsThere) {
    MustCreate(kSettingsKey).SetDword(u"Exposure", 100);
    MustCreate(u"Software\\Acme\\Grabdesk\\Sub").SetString(u"Mode", u"file");
    const std::string file = File("settings.xml");
    ASSERT_EQ(ExportRegistryKeyToXml(kSettingsKey, file), eKErrSuccess);

    RegistryKey other = MustCreate(u"Software\\Other\\Grabdesk");
    other.SetDword(u"Exposure", 5);
    other.SetDword(u"Gain", 3);
    MustCreate(u"Software\\Other\\Grabdesk\\SUB").SetString(u"Kept", u"yes");
    ASSERT_EQ(ImportXmlToRegistryKey(file, u"Software\\Other\\Grabdesk"), eKErrSuccess);

    EXPECT_EQ(Dword(other, u"Exposure"), std::make_pair(RegStatus::Ok, 100u)) << "replaced";
    EXPECT_EQ(Dword(other, u"Gain"), std::make_pair(RegStatus::Ok, 3u)) << "kept";
    RegistryKey sub;
    ASSERT_EQ(RegistryKey::Open(u"Software\\Other\\Grabdesk\\Sub", sub), RegStatus::Ok);
    EXPECT_EQ(String(sub, u"Mode"), std::make_pair(RegStatus::Ok, std::u16string(u"file")));
    EXPECT_EQ(String(sub, u"Kept"), std::make_pair(RegStatus::Ok, std::u16string(u"yes")));

    ASSERT_EQ(ImportXmlToRegistryKey(file, u"Software\\New\\Levels\\Grabdesk"), eKErrSuccess);
    EXPECT_EQ(Snapshot(u"Software\\New\\Levels\\Grabdesk"), Snapshot(kSettingsKey))
        << "missing levels are created";
}

TEST_F(SettingsXmlTest, ExportWithoutTheKeyOrWithForeignContentGives164AndWritesNothing) {
    const std::string file = File("missing.xml");
    EXPECT_EQ(ExportRegistryKeyToXml(kSettingsKey, file), eKErrRegistryRead);
    EXPECT_FALSE(std::filesystem::exists(file));

    MustCreate(u"Software\\Acme");
    EXPECT_EQ(ExportRegistryKeyToXml(kSettingsKey, file), eKErrRegistryRead);
    EXPECT_EQ(ExportRegistryKeyToXml(u"Software\\Bad\\\\Path", file), eKErrRegistryRead);
    EXPECT_FALSE(std::filesystem::exists(file));

    // Content the file cannot carry is refused, and the old file is left alone.
    RegistryKey root = MustCreate(kSettingsKey);
    WriteText(file, "previous");

    SetRaw(root, u"Custom", static_cast<RegType>(0x4242), {1});
    EXPECT_EQ(ExportRegistryKeyToXml(kSettingsKey, file), eKErrRegistryRead);
    ASSERT_EQ(root.DeleteValue(u"Custom"), RegStatus::Ok);

    root.SetDword(u"Tab\tName", 1);
    EXPECT_EQ(ExportRegistryKeyToXml(kSettingsKey, file), eKErrRegistryRead);
    ASSERT_EQ(root.DeleteValue(u"Tab\tName"), RegStatus::Ok);

    MustCreate(u"Software\\Acme\\Grabdesk\\Line\nBreak");
    EXPECT_EQ(ExportRegistryKeyToXml(kSettingsKey, file), eKErrRegistryRead);
    EXPECT_EQ(ReadText(file), "previous");
}

TEST_F(SettingsXmlTest, ExportReplacesWholeFilesAndLeavesNoScratchFiles) {
    MustCreate(kSettingsKey).SetDword(u"Value", 1);
    const std::string file = File("settings.xml");
    WriteText(file, std::string(100000, 'x'));
    ASSERT_EQ(ExportRegistryKeyToXml(kSettingsKey, file), eKErrSuccess);
    EXPECT_EQ(ReadText(file).find("xxxx"), std::string::npos);
    EXPECT_EQ(ReadText(file).rfind("<?xml", 0), 0u);

    const std::string unwritable = File("no such folder/settings.xml");
    EXPECT_EQ(ExportRegistryKeyToXml(kSettingsKey, unwritable), eKErrCreateOpenFile);

    for (const auto& entry : std::filesystem::directory_iterator(Folder())) {
        const std::string name = entry.path().filename().string();
        EXPECT_TRUE(name == "settings.xml" || name.rfind("registry.db", 0) == 0)
            << "left behind: " << name;
    }
}

}  // namespace
}  // namespace kestor::testing
