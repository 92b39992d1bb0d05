#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "KError.h"
#include "core/HandleCore.h"
#include "platform/WideString.h"
#include "support/DebugCapture.h"

using kestor::WideToUtf8;
using kestor::test::DebugCapture;
using ::testing::ElementsAre;

namespace {

std::string Text(int code) {
    return WideToUtf8(KErrorManager::GetErrorString(static_cast<eKErrorCode>(code)));
}

const std::string kUndocumented = "Sorry, this is an undocumented error, please report this to TavLin";

}  // namespace

TEST(ErrorStrings, TextsKeepTheirExactWording) {
    DebugCapture capture;
    EXPECT_EQ(Text(0), "Success");
    EXPECT_EQ(Text(8), "Could not find the grabber manager (Grabdesk.dll)");
    EXPECT_EQ(Text(47), "No sequence to write to or invalid image");
    EXPECT_EQ(Text(48), "Could not write the image to the sequence.  (Disk full ?)");
    EXPECT_EQ(Text(121), "Failed to load audio drvier");
    EXPECT_EQ(Text(132), "Audio channel npot match with audio channel number");
    EXPECT_EQ(Text(149), "Unsupported image size for H.264 encoding,Width should multiple 16 and "
                         "height multiple 8");
    EXPECT_EQ(Text(162), "The key frame not found,the frame skipped.");
    EXPECT_EQ(Text(164), "An error occured trying to reading from the registry.");
    EXPECT_EQ(Text(165), "An error occured trying to writing to the registry.");
    EXPECT_EQ(Text(166), "Unsupported format. Createc compression only supports 8 bit mono or "
                         "mono bayer format.");
    EXPECT_EQ(Text(167), "Invalid LUT file.");
    EXPECT_TRUE(capture.Lines().empty()) << "documented codes emit no debug line";
}

TEST(ErrorStrings, ExactlyTheGapsAndOutOfRangeCodesAreUndocumented) {
    DebugCapture capture;
    const std::set<int> gaps = {81, 82, 88, 90, 91, 102, 103, 104, 105, 106, 110, 111, 112, 114};
    for (int code = 0; code < 168; ++code) {
        if (gaps.count(code))
            EXPECT_EQ(Text(code), kUndocumented) << code;
        else
            EXPECT_NE(Text(code), kUndocumented) << code;
    }
    EXPECT_EQ(capture.Lines().size(), gaps.size());
}

TEST(ErrorStrings, UndocumentedPathEmitsLineWithTheCodeWhateverTheSwitches) {
    DebugCapture capture;
    EXPECT_EQ(Text(81), kUndocumented);
    EXPECT_EQ(Text(168), kUndocumented);
    EXPECT_EQ(Text(-1), kUndocumented);
    EXPECT_EQ(Text(0x7fffffff), kUndocumented);
    EXPECT_THAT(capture.Lines(),
                ElementsAre("Kestor:Undocumented error 81", "Kestor:Undocumented error 168",
                            "Kestor:Undocumented error -1",
                            "Kestor:Undocumented error 2147483647"));
}

TEST(ErrorDetect, SetErrorRecordsAnnouncesAndReturnsFalse) {
    DebugCapture capture;
    KErrorDetect detect;
    EXPECT_EQ(detect.GetLastError(), eKErrSuccess);
    EXPECT_FALSE(detect.SetError(eKErrFileNotFound));
    EXPECT_EQ(detect.GetLastError(), eKErrFileNotFound);
    EXPECT_THAT(capture.Lines(), ElementsAre("Kestor: File not found\n"));
    EXPECT_TRUE(capture.MessageBoxes().empty()) << "message box is off by default";

    // A success does not clear the earlier failure.
    EXPECT_TRUE(detect.SetError(eKErrSuccess));
    EXPECT_EQ(detect.GetLastError(), eKErrFileNotFound);
    EXPECT_EQ(capture.Lines().size(), 1u);
}

TEST(ErrorDetect, SwitchesChooseWhereTextsGo) {
    DebugCapture capture;
    KErrorDetect detect;
    detect.SetErrorOutput(false, true, false);
    detect.SetError(eKErrOutOfMemory);
    detect.Trace(u"Trying to open as read-only");
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_THAT(capture.MessageBoxes(), ElementsAre("Kestor says...|Out of memory|16"));

    capture.Clear();
    detect.SetErrorOutput(false, false, false);
    detect.SetError(eKErrInvalidIndex);
    EXPECT_EQ(detect.GetLastError(), eKErrInvalidIndex) << "silent failures are still recorded";
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_TRUE(capture.MessageBoxes().empty());

    detect.SetErrorOutput(false, false, true);
    detect.Trace(u"Trying to open as read-only");
    EXPECT_THAT(capture.Lines(), ElementsAre("Kestor: Trying to open as read-only\n"));
}

TEST(ErrorDetect, DebugLineIsTruncatedToItsBuffer) {
    DebugCapture capture;
    KErrorDetect detect;
    const kestor::WideString longText(3000, u'x');
    detect.Trace(longText.c_str());
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0].size(), 1023u);  // 1024 characters with the terminator
    EXPECT_EQ(capture.Lines()[0].substr(0, 8), "Kestor: ");
}

namespace {

// A minimal handle, as every public class builds on the same base.
class TestHandle : public KHandleBase {
public:
    void Open() { Core().SetImplementation(std::make_unique<KErrorDetect>()); }
    bool FailInHandle(eKErrorCode code) { return Core().Fail(code); }
    KErrorDetect* Impl() { return Core().Implementation(); }
};

}  // namespace

TEST(HandleBase, SwitchesSetBeforeTheImplementationExistsReachIt) {
    DebugCapture capture;
    TestHandle handle;
    handle.SetErrorOutput(false, true, false);
    EXPECT_FALSE(handle.FailInHandle(eKErrFileNotFound));
    EXPECT_EQ(handle.GetLastError(), eKErrFileNotFound) << "handle keeps its own last error";

    handle.Open();
    ASSERT_NE(handle.Impl(), nullptr);
    EXPECT_FALSE(handle.Impl()->DebugOutputEnabled());
    EXPECT_TRUE(handle.Impl()->MessageBoxEnabled());
    EXPECT_FALSE(handle.Impl()->TraceOutputEnabled());
    EXPECT_EQ(handle.GetLastError(), eKErrSuccess) << "the implementation's error is reported";

    handle.Impl()->SetError(eKErrInvalidIndex);
    EXPECT_EQ(handle.GetLastError(), eKErrInvalidIndex);
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(capture.MessageBoxes().size(), 2u);
}

TEST(HandleBase, CopiesShareOneImplementation) {
    DebugCapture capture;
    TestHandle first;
    first.Open();
    TestHandle second = first;
    EXPECT_EQ(first.Impl(), second.Impl());
    second.FailInHandle(eKErrOutOfRange);
    EXPECT_EQ(first.GetLastError(), eKErrOutOfRange);
    second.SetErrorOutput(false, false, false);
    EXPECT_FALSE(first.Impl()->DebugOutputEnabled());
}
