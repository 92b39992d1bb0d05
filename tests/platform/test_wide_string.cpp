#include <gtest/gtest.h>

#include <string>

#include "platform/WideString.h"

using kestor::Utf8ToWide;
using kestor::WideString;
using kestor::WideToUtf8;

static std::string Format(const KChar* format, auto... args) {
    return WideToUtf8(kestor::WideFormatString(format, args...));
}

TEST(WideString, Utf8RoundTripsAndMalformedInputBecomesReplacementCharacters) {
    const std::string text = "Kestor \xC3\xA9t\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xA5";  // é € 🎥
    const WideString wide = Utf8ToWide(text);
    EXPECT_EQ(wide.size(), 15u) << "the camera emoji takes two UTF-16 units";
    EXPECT_EQ(WideToUtf8(wide), text);
    EXPECT_EQ(WideToUtf8(static_cast<const KChar*>(nullptr)), "");
    EXPECT_EQ(kestor::WideLength(nullptr), 0u);

    EXPECT_EQ(Utf8ToWide("a\xFF"
                         "b"),
              WideString(u"a\uFFFDb"));
    EXPECT_EQ(Utf8ToWide("\xC3"), WideString(u"\uFFFD")) << "truncated sequence";
    EXPECT_EQ(Utf8ToWide("\xC0\x80"), WideString(u"\uFFFD")) << "overlong encoding";
    const KChar lone[] = {u'x', 0xD800, u'y', 0};
    EXPECT_EQ(WideToUtf8(lone), "x\xEF\xBF\xBDy");
}

TEST(WideFormat, ConversionsFollowWidePrintf) {
    EXPECT_EQ(Format(u"%s: %5s|%-5s|%.2s\n", u"Kestor", u"ab", u"ab", u"abcdef"),
              "Kestor:    ab|ab   |ab\n");
    EXPECT_EQ(Format(u"%d|%u|%.10u", -5, 4000000000u, 33u), "-5|4000000000|0000000033");
    EXPECT_EQ(Format(u"%8.8X|%x|%#x", 0xBEEFu, 255u, 255u), "0000BEEF|ff|0xff");
    EXPECT_EQ(Format(u"%f|%.2f|%e", 1.5, 2.345, 1000.0), "1.500000|2.35|1.000000e+03");
    EXPECT_EQ(Format(u"%S|%hs", "narrow", "\xC3\xA9"), "narrow|\xC3\xA9");
    EXPECT_EQ(Format(u"%c%c", static_cast<int>(u'\u00e9'), static_cast<int>(u'z')), "\xC3\xA9z");
    EXPECT_EQ(Format(u"%ld|%lld|%I64d|%zu", -3L, -4LL, static_cast<int64_t>(1) << 40, size_t{9}),
              "-3|-4|1099511627776|9");
    EXPECT_EQ(Format(u"%hd|%hu", 70000, 70000), "4464|4464") << "h narrows to 16 bits";
    EXPECT_EQ(Format(u"%*d|%-*d|%.*s", 4, 7, 3, 8, 2, u"xyz"), "   7|8  |xy");
    EXPECT_EQ(Format(u"100%%|%s", static_cast<const KChar*>(nullptr)), "100%|(null)");
    EXPECT_EQ(Format(u"%q|tail %"), "%q|tail %") << "unknown conversions stay as written";

    KChar buffer[8];  // fixed buffers truncate and always terminate
    EXPECT_EQ(kestor::WideFormat(buffer, 8, u"%s", u"0123456789"), 7u);
    EXPECT_EQ(WideToUtf8(buffer), "0123456");
    EXPECT_EQ(kestor::WideFormat(buffer, 1, u"abc"), 0u);
    EXPECT_EQ(buffer[0], 0);
}
