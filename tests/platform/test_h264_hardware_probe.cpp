#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <vector>

#include "platform/H264HardwareProbe.h"

using kestor::OffersH264Encoding;
namespace vaapi = kestor::vaapi;

namespace {

using EntrypointsByProfile = std::map<int, std::vector<int>>;

// Decides as for a VA display that offers the given entrypoints per profile.
bool Decide(const EntrypointsByProfile& display) {
    std::vector<int> profiles;
    for (const auto& entry : display) profiles.push_back(entry.first);
    return OffersH264Encoding(profiles, [&](int profile) { return display.at(profile); });
}

constexpr int kEntrypointVld = 1;         // decoding
constexpr int kEntrypointEncPicture = 7;  // JPEG-style picture encoding
constexpr int kProfileHevcMain = 17;
constexpr int kProfileJpegBaseline = 12;

}  // namespace

TEST(H264HardwareProbe, DecisionNeedsAnH264ProfileWithSliceEncoding) {
    const EntrypointsByProfile none;
    const EntrypointsByProfile decodeOnly = {{vaapi::kProfileH264High, {kEntrypointVld}}};
    const EntrypointsByProfile pictureEncode = {{vaapi::kProfileH264Main, {kEntrypointEncPicture}}};
    const EntrypointsByProfile otherCodecs = {{kProfileHevcMain, {vaapi::kEntrypointEncSlice}},
                                              {kProfileJpegBaseline, {kEntrypointEncPicture}}};
    EXPECT_FALSE(Decide(none));
    EXPECT_FALSE(Decide(decodeOnly));
    EXPECT_FALSE(Decide(pictureEncode));
    EXPECT_FALSE(Decide(otherCodecs)) << "encoders for other codecs do not count";

    const EntrypointsByProfile mainSlice = {
        {vaapi::kProfileH264Main, {vaapi::kEntrypointEncSlice}}};
    const EntrypointsByProfile baselineLowPower = {
        {vaapi::kProfileH264ConstrainedBaseline, {kEntrypointVld, vaapi::kEntrypointEncSliceLP}}};
    const EntrypointsByProfile mixed = {{vaapi::kProfileH264Main, {kEntrypointVld}},
                                        {vaapi::kProfileH264High, {vaapi::kEntrypointEncSliceLP}},
                                        {kProfileHevcMain, {}}};
    EXPECT_TRUE(Decide(mainSlice));
    EXPECT_TRUE(Decide(baselineLowPower));
    EXPECT_TRUE(Decide(mixed)) << "any H.264 profile will do";
}

TEST(H264HardwareProbe, RealProbeIsStableAndHonest) {
    const bool first = kestor::IsH264HardwareEncoderPresent();
    EXPECT_EQ(kestor::IsH264HardwareEncoderPresent(), first);
    EXPECT_EQ(kestor::ProbeH264HardwareEncoder(), first);
    std::error_code ignored;
    if (!std::filesystem::exists("/dev/dri", ignored)) {
        EXPECT_FALSE(first) << "no GPU, so no hardware encoder";
    }
}
