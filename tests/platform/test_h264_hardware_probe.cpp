#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <vector>

#include "platform/H264HardwareProbe.h"

namespace vaapi = kestor::vaapi;

namespace {

constexpr int kEntrypointVld = 1;         // decoding
constexpr int kEntrypointEncPicture = 7;  // JPEG-style picture encoding
constexpr int kProfileHevcMain = 17;
constexpr int kProfileJpegBaseline = 12;

// Decides as for a VA display that offers the given entrypoints per profile.
bool Decide(const std::map<int, std::vector<int>>& display) {
    std::vector<int> profiles;
    for (const auto& entry : display) profiles.push_back(entry.first);
    return kestor::OffersH264Encoding(profiles, [&](int profile) { return display.at(profile); });
}

}  // namespace

TEST(H264HardwareProbe, DecisionNeedsAnH264ProfileWithSliceEncoding) {
    EXPECT_FALSE(Decide({}));
    EXPECT_FALSE(Decide({{vaapi::kProfileH264High, {kEntrypointVld}}})) << "decoding only";
    EXPECT_FALSE(Decide({{vaapi::kProfileH264Main, {kEntrypointEncPicture}}}));
    EXPECT_FALSE(Decide({{kProfileHevcMain, {vaapi::kEntrypointEncSlice}},
                         {kProfileJpegBaseline, {kEntrypointEncPicture}}}))
        << "encoders for other codecs do not count";

    EXPECT_TRUE(Decide({{vaapi::kProfileH264Main, {vaapi::kEntrypointEncSlice}}}));
    EXPECT_TRUE(Decide({{vaapi::kProfileH264ConstrainedBaseline,
                         {kEntrypointVld, vaapi::kEntrypointEncSliceLP}}}));
    EXPECT_TRUE(Decide({{vaapi::kProfileH264Main, {kEntrypointVld}},
                        {vaapi::kProfileH264High, {vaapi::kEntrypointEncSliceLP}},
                        {kProfileHevcMain, {}}}))
        << "any H.264 profile will do";
}

TEST(H264HardwareProbe, RealProbeIsCachedAndHonest) {
    EXPECT_EQ(kestor::IsH264HardwareEncoderPresent(), kestor::ProbeH264HardwareEncoder());
    std::error_code ignored;
    EXPECT_TRUE(std::filesystem::exists("/dev/dri", ignored) || !kestor::ProbeH264HardwareEncoder())
        << "no GPU, so no hardware encoder";
}
