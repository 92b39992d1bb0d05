// Settings files that are damaged, not ours, or written to do harm: each gives its code and
// leaves the whole registry exactly as it was.
#include <filesystem>
#include <string>
#include <vector>

#include "acquisition/SettingsXml.h"
#include "acquisition/settings_xml_test_support.h"

namespace kestor::testing {
namespace {

constexpr const KChar* kTarget = u"Software\\Acme\\Grabdesk";

std::string Settings(const std::string& body) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<KestorGrabberSettings version=\"1\">" +
           body + "</KestorGrabberSettings>\n";
}

// A good key and value come first, so that a reader writing as it goes would leave traces.
std::string AfterGoodContent(const std::string& bad) {
    return Settings(
        "<Key name=\"Good\"><Value name=\"Written\" type=\"REG_DWORD\">1</Value></Key>"
        "<Value name=\"AlsoWritten\" type=\"REG_SZ\">x</Value>" +
        bad);
}

class SettingsXmlHostileTest : public RegistryTest {
protected:
    void SetUp() override {
        RegistryTest::SetUp();
        RegistryKey target = MustCreate(kTarget);
        target.SetDword(u"Exposure", 100);
        MustCreate(u"Software\\Acme\\Grabdesk\\Pleora IPort").SetDword(u"MulticastMode", 1);
        MustCreate(u"Software\\Acme\\Secret").SetString(u"Password", u"keep me");
        MustCreate(u"Software\\Tavlin\\Metadata\\1").SetString(u"Name", u"Frame id");
        before_ = Snapshot(u"");
    }

    // Imports `content` and checks the code and that nothing at all changed.
    void ExpectRefused(const std::string& content, eKErrorCode expected) {
        const std::string file = (Folder() / "settings.xml").string();
        WriteText(file, content);
        EXPECT_EQ(ImportXmlToRegistryKey(file, kTarget), expected) << content.substr(0, 400);
        EXPECT_EQ(Snapshot(u""), before_) << content.substr(0, 400);
    }

    std::string before_;
};

TEST_F(SettingsXmlHostileTest, UnreadableOrForeignFilesGive60) {
    EXPECT_EQ(ImportXmlToRegistryKey((Folder() / "none.xml").string(), kTarget), eKErrFileNotFound);
    EXPECT_EQ(ImportXmlToRegistryKey(Folder().string(), kTarget), eKErrFileNotFound)
        << "a folder is not a file";
    EXPECT_EQ(Snapshot(u""), before_);

    ExpectRefused("", eKErrFileNotFound);
    ExpectRefused("just some text", eKErrFileNotFound);
    ExpectRefused(Settings("<Key name=\"A\">").substr(0, 60), eKErrFileNotFound);
    ExpectRefused(Settings("<Key name=\"A\"></Value>"), eKErrFileNotFound);
    ExpectRefused("<Settings version=\"1\"/>", eKErrFileNotFound);
    ExpectRefused("<KestorGrabberSettings/>", eKErrFileNotFound);
    ExpectRefused("<KestorGrabberSettings version=\"2\"/>", eKErrFileNotFound);
    ExpectRefused(Settings("") + "<KestorGrabberSettings version=\"1\"/>", eKErrFileNotFound);
    ExpectRefused(Settings("") + std::string(1, '\0') + "<Key name=\"A\"/>", eKErrFileNotFound);
    ExpectRefused("<!DOCTYPE x [<!ENTITY a \"aaaa\">]>" + Settings(""), eKErrFileNotFound);
}

TEST_F(SettingsXmlHostileTest, ElementsAndDataOutsideTheLayoutGive60) {
    for (const char* bad :
         {"<Script>rm -rf</Script>", "stray text", "<Key><Value name=\"a\" type=\"REG_SZ\"/></Key>",
          "<Value type=\"REG_SZ\">no name</Value>", "<Value name=\"a\">no type</Value>",
          "<Value name=\"a\" type=\"REG_DWORD\">12a</Value>",
          "<Value name=\"a\" type=\"REG_DWORD\">-1</Value>",
          "<Value name=\"a\" type=\"REG_DWORD\">4294967296</Value>",
          "<Value name=\"a\" type=\"REG_DWORD\"></Value>",
          "<Value name=\"a\" type=\"REG_QWORD\">18446744073709551616</Value>",
          "<Value name=\"a\" type=\"REG_BINARY\">ABC</Value>",
          "<Value name=\"a\" type=\"REG_BINARY\">GG</Value>",
          "<Value name=\"a\" type=\"REG_SZ\" encoding=\"base64\">QQ==</Value>",
          "<Value name=\"a\" type=\"REG_SZ\"><b>bold</b></Value>",
          "<Value name=\"a\" type=\"REG_MULTI_SZ\">loose</Value>"})
        ExpectRefused(AfterGoodContent(bad), eKErrFileNotFound);
}

TEST_F(SettingsXmlHostileTest, NamesEscapingTheKeyOrUnknownTypesGive165) {
    for (const std::string& bad :
         {std::string("<Key name=\"..\\..\\Secret\"/>"), std::string("<Key name=\"\\Software\"/>"),
          std::string("<Key name=\"\"/>"), std::string("<Key name=\"bell&#7;\"/>"),
          "<Key name=\"" + std::string(256, 'k') + "\"/>",
          std::string("<Value name=\"line&#10;break\" type=\"REG_SZ\"/>"),
          std::string("<Value name=\"a\" type=\"REG_EVIL\">1</Value>"),
          std::string("<Value name=\"a\" type=\"4\">1</Value>")})
        ExpectRefused(AfterGoodContent(bad), eKErrRegistryWrite);
    // A damaged layout further down still makes the file foreign rather than hostile.
    ExpectRefused(AfterGoodContent("<Key name=\"a\\b\"/><Bogus/>"), eKErrFileNotFound);
    ExpectRefused(
        AfterGoodContent("<Key name=\"\"/><Value name=\"x\" type=\"REG_SZ\"><b/></Value>"),
        eKErrFileNotFound);
}

TEST_F(SettingsXmlHostileTest, OversizedContentGives165Or60) {
    std::string deep;
    for (int level = 0; level < 65; ++level) deep += "<Key name=\"L\">";
    for (int level = 0; level < 65; ++level) deep += "</Key>";
    ExpectRefused(AfterGoodContent(deep), eKErrRegistryWrite);

    std::string deeper;  // beyond what the XML parser accepts at all
    for (int level = 0; level < 200; ++level) deeper += "<Key name=\"L\">";
    for (int level = 0; level < 200; ++level) deeper += "</Key>";
    ExpectRefused(AfterGoodContent(deeper), eKErrFileNotFound);

    const std::string huge(2 * (1024 * 1024 + 1), 'A');
    ExpectRefused(AfterGoodContent("<Value name=\"a\" type=\"REG_BINARY\">" + huge + "</Value>"),
                  eKErrRegistryWrite);

    const std::string file = (Folder() / "big.xml").string();
    WriteText(file, Settings(""));
    std::filesystem::resize_file(file, 17u * 1024 * 1024);  // sparse: cheap to make
    EXPECT_EQ(ImportXmlToRegistryKey(file, kTarget), eKErrFileNotFound);
    EXPECT_EQ(Snapshot(u""), before_);
}

TEST_F(SettingsXmlHostileTest, AcceptableFileWithBadTargetKeyGives165) {
    const std::string file = (Folder() / "settings.xml").string();
    WriteText(file, AfterGoodContent(""));
    EXPECT_EQ(ImportXmlToRegistryKey(file, u"Software\\\\Empty level"), eKErrRegistryWrite);
    EXPECT_EQ(Snapshot(u""), before_);

    // The same file is fine under a good key: the refusals above came from the bad parts.
    EXPECT_EQ(ImportXmlToRegistryKey(file, kTarget), eKErrSuccess);
    RegistryKey good;
    ASSERT_EQ(RegistryKey::Open(u"Software\\Acme\\Grabdesk\\Good", good), RegStatus::Ok);
    EXPECT_EQ(Dword(good, u"Written"), std::make_pair(RegStatus::Ok, 1u));
}

TEST_F(SettingsXmlHostileTest, HandWrittenFilesMayUseCommentsWrappedHexAndAnyDigitCase) {
    const std::string file = (Folder() / "settings.xml").string();
    WriteText(file, Settings("<!-- edited by hand -->"
                             "<Value name=\"Blob\" type=\"REG_BINARY\">de ad\n BE EF</Value>"
                             "<Value name=\"Text\" type=\"REG_SZ\"><![CDATA[a<b]]></Value>"
                             "<Value name=\"List\" type=\"REG_MULTI_SZ\">\n  <String>x</String>"
                             "<!-- c --><String>y</String>\n</Value>"));
    ASSERT_EQ(ImportXmlToRegistryKey(file, kTarget), eKErrSuccess);
    RegistryKey target = MustCreate(kTarget);
    RegType type = RegType::None;
    std::vector<uint8_t> data;
    ASSERT_EQ(target.QueryValue(u"Blob", type, data), RegStatus::Ok);
    EXPECT_EQ(data, (std::vector<uint8_t>{0xDE, 0xAD, 0xBE, 0xEF}));
    EXPECT_EQ(String(target, u"Text"), std::make_pair(RegStatus::Ok, std::u16string(u"a<b")));
    ASSERT_EQ(target.QueryValue(u"List", type, data), RegStatus::Ok);
    EXPECT_EQ(type, RegType::MultiString);
    EXPECT_EQ(data, (std::vector<uint8_t>{'x', 0, 0, 0, 'y', 0, 0, 0, 0, 0}));
}

}  // namespace
}  // namespace kestor::testing
