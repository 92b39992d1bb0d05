#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "KUtils.h"
#include "platform/WideString.h"
#include "support/TempDir.h"

namespace fs = std::filesystem;
using kestor::test::TempDir;

namespace {

std::vector<uint8_t> ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteAll(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

uint32_t Field(const std::vector<uint8_t>& bytes, size_t at) {
    uint32_t v;
    std::memcpy(&v, bytes.data() + at, 4);
    return v;
}

}  // namespace

TEST(CreateDirectoryRecursive, CreatesFoldersBeforeEachSeparatorButNotTheLastName) {
    TempDir dir;
    const std::string root = dir.Path().string();
    // Both separators are understood.
    CreateDirectoryRecursive((root + "/a\\b/file.seq").c_str());
    EXPECT_TRUE(fs::is_directory(root + "/a"));
    EXPECT_TRUE(fs::is_directory(root + "/a/b"));
    EXPECT_FALSE(fs::exists(root + "/a/b/file.seq"));

    // A trailing separator creates the last component too; existing folders are fine.
    CreateDirectoryRecursive((kestor::Utf8ToWide(root) + u"/a/b/c/").c_str());
    EXPECT_TRUE(fs::is_directory(root + "/a/b/c"));
}

TEST(CreateDirectoryRecursive, NeverCreatesADriveRoot) {
    TempDir dir;
    const auto previous = fs::current_path();
    fs::current_path(dir.Path());
    CreateDirectoryRecursive(u"C:\\a\\b\\file.seq");
    CreateDirectoryRecursive(u"rel\\x\\");
    fs::current_path(previous);
    EXPECT_FALSE(fs::exists(dir.Path() / "C:")) << "the drive part before ':\\' is never made";
    EXPECT_TRUE(fs::is_directory(dir.Path() / "rel" / "x"));
}

TEST(AviFrameRate, PatchesScaleAndRateInPlace) {
    TempDir dir;
    const std::string avi = dir.File("movie.avi");
    std::vector<uint8_t> bytes(256, 0x5A);
    WriteAll(avi, bytes);

    WriteAVIFrameRate(avi.c_str(), 29.97);
    auto patched = ReadAll(avi);
    ASSERT_EQ(patched.size(), 256u);
    EXPECT_EQ(Field(patched, 128), 1000000u);
    EXPECT_EQ(Field(patched, 132), 29970000u);
    patched[128] = patched[129] = patched[130] = patched[131] = 0x5A;
    patched[132] = patched[133] = patched[134] = patched[135] = 0x5A;
    EXPECT_EQ(patched, bytes) << "only bytes 128 to 135 change";

    EXPECT_DOUBLE_EQ(ReadAVIFrameRate(avi.c_str()), 29.97);
    EXPECT_DOUBLE_EQ(ReadAVIFrameRate(kestor::Utf8ToWide(avi).c_str()), 29.97);
}

TEST(AviFrameRate, ReadsRateOverScaleAndFailsQuietly) {
    TempDir dir;
    const std::string avi = dir.File("movie.avi");
    std::vector<uint8_t> bytes(200, 0);
    const uint32_t scale = 1001, rate = 30000;
    std::memcpy(&bytes[128], &scale, 4);
    std::memcpy(&bytes[132], &rate, 4);
    WriteAll(avi, bytes);
    EXPECT_DOUBLE_EQ(ReadAVIFrameRate(avi.c_str()), 30000.0 / 1001.0);

    EXPECT_EQ(ReadAVIFrameRate(dir.File("missing.avi").c_str()), 0.0);
    WriteAll(dir.File("short.avi"), std::vector<uint8_t>(100, 1));
    EXPECT_EQ(ReadAVIFrameRate(dir.File("short.avi").c_str()), 0.0);
    WriteAVIFrameRate(dir.File("missing.avi").c_str(), 25.0);
    EXPECT_FALSE(fs::exists(dir.File("missing.avi"))) << "only existing files are patched";
}

TEST(H264Probe, AnswersConsistently) {
    const bool first = IsSandyBridgeHardwarePresent();
    EXPECT_EQ(IsSandyBridgeHardwarePresent(), first);
}
