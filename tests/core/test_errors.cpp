#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>

#include "KError.h"
#include "core/HandleCore.h"
#include "platform/WideString.h"
#include "support/DebugCapture.h"

using kestor::test::DebugCapture;
using ::testing::ElementsAre;

namespace {

std::string Text(int code) {
    return kestor::WideToUtf8(KErrorManager::GetErrorString(static_cast<eKErrorCode>(code)));
}

// A minimal handle, as every public class builds on the same base.
class TestHandle : public KHandleBase {
public:
    void Open() { Core().SetImplementation(std::make_unique<KErrorDetect>()); }
    bool FailInHandle(eKErrorCode code) { return Core().Fail(code); }
    KErrorDetect* Impl() { return Core().Implementation(); }
};

}  // namespace

TEST(ErrorStrings, TextsKeepTheirExactWordingTyposIncluded) {
    DebugCapture capture;
    const std::pair<int, std::string> texts[] = {
        {0, "Success"},
        {8, "Could not find the grabber manager (Grabdesk.dll)"},
        {47, "No sequence to write to or invalid image"},
        {48, "Could not write the image to the sequence.  (Disk full ?)"},
        {121, "Failed to load audio drvier"},
        {132, "Audio channel npot match with audio channel number"},
        {149,
         "Unsupported image size for H.264 encoding,Width should multiple 16 and height multiple "
         "8"},
        {162, "The key frame not found,the frame skipped."},
        {164, "An error occured trying to reading from the registry."},
        {165, "An error occured trying to writing to the registry."},
        {166,
         "Unsupported format. Createc compression only supports 8 bit mono or mono bayer format."},
        {167, "Invalid LUT file."}};
    for (const auto& [code, text] : texts) EXPECT_EQ(Text(code), text) << code;
    EXPECT_TRUE(capture.Lines().empty()) << "documented codes emit no debug line";
}

TEST(ErrorStrings, GapsOutOfRangeAndNegativeCodesAreUndocumentedWithADebugLine) {
    const std::string undocumented =
        "Sorry, this is an undocumented error, please report this to TavLin";
    const std::set<int> gaps = {81, 82, 88, 90, 91, 102, 103, 104, 105, 106, 110, 111, 112, 114};
    DebugCapture capture;
    for (int code = 0; code < 168; ++code)
        EXPECT_EQ(Text(code) == undocumented, gaps.count(code) == 1) << code;
    ASSERT_EQ(capture.Lines().size(), gaps.size());
    EXPECT_EQ(capture.Lines().front(), "Kestor:Undocumented error 81");

    capture.Clear();
    for (int code : {168, -1, 0x7fffffff}) EXPECT_EQ(Text(code), undocumented) << code;
    EXPECT_THAT(capture.Lines(),
                ElementsAre("Kestor:Undocumented error 168", "Kestor:Undocumented error -1",
                            "Kestor:Undocumented error 2147483647"));
}

TEST(ErrorDetect, FailuresAreRecordedAndSentWhereTheSwitchesSay) {
    DebugCapture capture;
    KErrorDetect detect;
    EXPECT_EQ(detect.GetLastError(), eKErrSuccess);
    EXPECT_FALSE(detect.SetError(eKErrFileNotFound));
    EXPECT_TRUE(detect.SetError(eKErrSuccess));
    EXPECT_EQ(detect.GetLastError(), eKErrFileNotFound) << "a success keeps the earlier failure";
    EXPECT_THAT(capture.Lines(), ElementsAre("Kestor: File not found\n"));
    EXPECT_TRUE(capture.MessageBoxes().empty()) << "message box is off by default";

    capture.Clear();
    detect.SetErrorOutput(false, true, false);
    detect.SetError(eKErrOutOfMemory);
    detect.Trace(u"Trying to open as read-only");
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_THAT(capture.MessageBoxes(), ElementsAre("Kestor says...|Out of memory|16"));

    capture.Clear();
    detect.SetErrorOutput(false, false, true);
    detect.SetError(eKErrInvalidIndex);
    EXPECT_EQ(detect.GetLastError(), eKErrInvalidIndex) << "silent failures are still recorded";
    detect.Trace(u"Trying to open as read-only");
    EXPECT_THAT(capture.Lines(), ElementsAre("Kestor: Trying to open as read-only\n"));
    EXPECT_TRUE(capture.MessageBoxes().empty());

    // Longer texts are cut to the line buffer (1024 units with the terminator), not overflowed.
    capture.Clear();
    detect.Trace(kestor::WideString(3000, u'x').c_str());
    EXPECT_THAT(capture.Lines(), ElementsAre("Kestor: " + std::string(1015, 'x')));
}

TEST(HandleBase, SwitchesSetBeforeTheImplementationReachItAndCopiesShareIt) {
    DebugCapture capture;
    TestHandle handle;
    handle.SetErrorOutput(false, true, false);
    EXPECT_FALSE(handle.FailInHandle(eKErrFileNotFound));
    EXPECT_EQ(handle.GetLastError(), eKErrFileNotFound) << "handle keeps its own last error";

    handle.Open();
    ASSERT_NE(handle.Impl(), nullptr);
    EXPECT_EQ(handle.GetLastError(), eKErrSuccess) << "the implementation's error is reported";
    handle.Impl()->SetError(eKErrInvalidIndex);
    handle.Impl()->Trace(u"trace is off");
    EXPECT_EQ(handle.GetLastError(), eKErrInvalidIndex);
    EXPECT_TRUE(capture.Lines().empty()) << "debug and trace output were switched off early";
    EXPECT_EQ(capture.MessageBoxes().size(), 2u);

    TestHandle copy = handle;
    EXPECT_EQ(copy.Impl(), handle.Impl());
    copy.FailInHandle(eKErrOutOfRange);
    EXPECT_EQ(handle.GetLastError(), eKErrOutOfRange);
    copy.SetErrorOutput(true, false, false);
    EXPECT_TRUE(handle.Impl()->DebugOutputEnabled());
}
