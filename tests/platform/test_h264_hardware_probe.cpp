#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "platform/H264HardwareProbe.h"

using namespace kestor::vaapi;

// Decides as for a VA display that offers the given entrypoints per profile.
static bool Decide(const std::map<int, std::vector<int>>& display) {
    std::vector<int> profiles;
    for (const auto& entry : display) profiles.push_back(entry.first);
    return kestor::OffersH264Encoding(profiles, [&](int profile) { return display.at(profile); });
}

TEST(H264HardwareProbe, DecisionNeedsAnH264ProfileWithSliceEncoding) {
    constexpr int kDecode = 1, kEncodePicture = 7, kHevcMain = 17, kJpegBaseline = 12;
    EXPECT_FALSE(Decide({}));
    EXPECT_FALSE(Decide({{kProfileH264High, {kDecode}}})) << "decoding only";
    EXPECT_FALSE(Decide({{kProfileH264Main, {kEncodePicture}}}));
    EXPECT_FALSE(Decide({{kHevcMain, {kEntrypointEncSlice}}, {kJpegBaseline, {kEncodePicture}}}))
        << "encoders for other codecs do not count";
    EXPECT_TRUE(Decide({{kProfileH264ConstrainedBaseline, {kDecode, kEntrypointEncSliceLP}}}));
    EXPECT_TRUE(Decide({{kProfileH264Main, {kDecode}},
                        {kProfileH264High, {kEntrypointEncSlice}},
                        {kHevcMain, {}}}))
        << "any H.264 profile will do";
}
