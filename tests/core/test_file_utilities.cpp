#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "KUtils.h"
#include "platform/H264HardwareProbe.h"
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
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

uint32_t Field(const std::vector<uint8_t>& bytes, size_t at) {
    uint32_t v;
    std::memcpy(&v, bytes.data() + at, 4);
    return v;
}

}  // namespace

TEST(CreateDirectoryRecursive, MakesTheFoldersBeforeSeparatorsButNeverADriveOrTheFileName) {
    TempDir dir;
    const std::string root = dir.Path().string();
    CreateDirectoryRecursive((root + "/a\\b/file.seq").c_str());  // both separators count
    EXPECT_TRUE(fs::is_directory(root + "/a/b"));
    EXPECT_FALSE(fs::exists(root + "/a/b/file.seq"));

    // A trailing separator makes the last component too; existing folders are fine.
    CreateDirectoryRecursive((kestor::Utf8ToWide(root) + u"/a/b/c/").c_str());
    EXPECT_TRUE(fs::is_directory(root + "/a/b/c"));

    CreateDirectoryRecursive((kestor::Utf8ToWide(root) + u"/C:\\x\\file.seq").c_str());
    EXPECT_FALSE(fs::exists(root + "/C:")) << "the drive part before ':\\' is never made";
}

TEST(AviFrameRate, PatchesOnlyScaleAndRateAndReadsThemBack) {
    TempDir dir;
    const std::string avi = dir.File("movie.avi");
    const std::vector<uint8_t> original(256, 0x5A);
    WriteAll(avi, original);

    WriteAVIFrameRate(kestor::Utf8ToWide(avi).c_str(), 29.97);
    std::vector<uint8_t> patched = ReadAll(avi);
    ASSERT_EQ(patched.size(), 256u);
    EXPECT_EQ(Field(patched, 128), 1000000u);
    EXPECT_EQ(Field(patched, 132), 29970000u);
    std::fill(patched.begin() + 128, patched.begin() + 136, 0x5A);
    EXPECT_EQ(patched, original) << "only bytes 128 to 135 change";

    EXPECT_DOUBLE_EQ(ReadAVIFrameRate(avi.c_str()), 29.97);
    EXPECT_DOUBLE_EQ(ReadAVIFrameRate(kestor::Utf8ToWide(avi).c_str()), 29.97);
}

TEST(AviFrameRate, UnreadableFilesGiveZeroAndMissingOnesAreNotCreated) {
    TempDir dir;
    EXPECT_EQ(ReadAVIFrameRate(dir.File("missing.avi").c_str()), 0.0);
    for (size_t size : {100, 200}) {  // too short for the fields; a zero scale
        WriteAll(dir.File("zero.avi"), std::vector<uint8_t>(size, 0));
        EXPECT_EQ(ReadAVIFrameRate(dir.File("zero.avi").c_str()), 0.0) << size;
    }
    WriteAVIFrameRate(dir.File("missing.avi").c_str(), 25.0);
    EXPECT_FALSE(fs::exists(dir.File("missing.avi"))) << "only existing files are patched";
}

TEST(H264Probe, PublicProbeGivesThePlatformAnswer) {
    EXPECT_EQ(IsSandyBridgeHardwarePresent(), kestor::IsH264HardwareEncoderPresent());
}
