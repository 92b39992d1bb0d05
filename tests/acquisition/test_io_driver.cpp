// KIODriver and KVideoOutputDriver against a small in-test grabber that offers digital lines
// and a video output (or not).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KGrab.h"
#include "drivers/common/ComObject.h"
#include "platform/WideString.h"

namespace {

// A driver call that must fail and record `code`.
#define EXPECT_REFUSED(call, driver, code)                   \
    do {                                                     \
        EXPECT_FALSE(call);                                  \
        EXPECT_EQ((driver).GetLastError(), (code)) << #call; \
    } while (0)

// Two inputs and one output; the output's level reads back. Failing calls can be switched on.
class LinesGrabber final : public IKDigitalIO, public IKVideoOutput {
public:
    LinesGrabber(bool digitalIO, bool videoOutput) : digitalIO_(digitalIO), video_(videoOutput) {}

    KStatus QueryInterface(const KGuid& iid, void** out) override {
        if (out == nullptr) return kKPointer;
        *out = nullptr;
        const bool offered =
            kestor::Offer<IKUnknown>(Unknown(), iid, IID_IKUnknown, out) ||
            (digitalIO_ && kestor::Offer<IKDigitalIO>(this, iid, IID_IKDigitalIO, out)) ||
            (video_ && kestor::Offer<IKVideoOutput>(this, iid, IID_IKVideoOutput, out));
        return offered ? kKOk : kKNoInterface;
    }
    uint32_t AddRef() override { return refs_.AddRef(); }
    uint32_t Release() override { return refs_.Release(); }  // lives on the test's stack
    IKUnknown* Unknown() { return static_cast<IKDigitalIO*>(this); }
    uint32_t References() {
        AddRef();
        return Release();
    }

    KStatus GetLineCount(int32_t* count) override {
        if (failing) return kKFail;
        *count = static_cast<int32_t>(names_.size());
        return kKOk;
    }
    KStatus GetLineName(int32_t line, KAbiChar* name, uint32_t capacity) override {
        KCopyName(name, capacity, names_.at(line).c_str());
        return kKOk;
    }
    KStatus IsOutput(int32_t line, int32_t* output) override {
        *output = line == 2 ? 1 : 0;
        return kKOk;
    }
    KStatus GetLine(int32_t line, int32_t* level) override {
        *level = levels_.at(line);
        return kKOk;
    }
    KStatus SetLine(int32_t line, int32_t level) override {
        if (failing) return kKFail;
        levels_.at(line) = level;
        ++writes;
        return kKOk;
    }
    KStatus IsEnabled(int32_t* enabled) override {
        if (failing) return kKFail;
        *enabled = enabled_;
        return kKOk;
    }
    KStatus Enable(int32_t enable) override {
        if (failing) return kKFail;
        enabled_ = enable;
        return kKOk;
    }

    bool failing = false;
    int writes = 0;

private:
    kestor::ComRefCount refs_;
    bool digitalIO_;
    bool video_;
    std::vector<std::u16string> names_ = {u"Trigger", u"Encoder", u"Strobe"};
    std::vector<int32_t> levels_ = {1, 0, 0};
    int32_t enabled_ = 0;
};

TEST(IODriver, ReadsAndDrivesTheGrabbersLinesAndRefusesBadOnes) {
    LinesGrabber grabber(true, false);
    {
        KIODriver io(grabber.Unknown());
        EXPECT_TRUE(io.IsAvailable());
        long count = 0;
        EXPECT_TRUE(io.GetLineCount(&count));
        EXPECT_EQ(count, 3);

        KChar name[kKMaxNameLength];
        EXPECT_TRUE(io.GetLineName(2, name, kKMaxNameLength));
        EXPECT_EQ(kestor::WideToUtf8(name), "Strobe");
        KChar cut[4];
        EXPECT_TRUE(io.GetLineName(0, cut, 4));
        EXPECT_EQ(kestor::WideToUtf8(cut), "Tri");

        bool output = true, level = false;
        EXPECT_TRUE(io.IsOutput(0, &output));
        EXPECT_FALSE(output);
        EXPECT_TRUE(io.GetLine(0, &level));
        EXPECT_TRUE(level);
        EXPECT_TRUE(io.SetLine(2, true));
        EXPECT_TRUE(io.GetLine(2, &level));
        EXPECT_TRUE(level);
        EXPECT_EQ(io.GetLastError(), eKErrSuccess);
        EXPECT_GT(grabber.References(), 1u) << "the driver holds the grabber";

        // Lines out of range, inputs and null outputs are refused.
        KChar small[8];
        EXPECT_REFUSED(io.GetLine(3, &level), io, eKErrOutOfRange);
        EXPECT_REFUSED(io.SetLine(-1, true), io, eKErrOutOfRange);
        EXPECT_REFUSED(io.GetLineName(100000, small, 8), io, eKErrOutOfRange);
        EXPECT_REFUSED(io.IsOutput(3, &level), io, eKErrOutOfRange);

        EXPECT_REFUSED(io.SetLine(0, true), io, eKErrParameterNotSupported);
        EXPECT_EQ(grabber.writes, 1) << "only the write to the output line";

        EXPECT_REFUSED(io.GetLine(0, nullptr), io, eKErrParameterNotSupported);
        EXPECT_REFUSED(io.GetLineName(0, small, 0), io, eKErrParameterNotSupported);

        grabber.failing = true;
        EXPECT_REFUSED(io.GetLineCount(&count), io, eKErrLoadInputDevice);
    }
    EXPECT_EQ(grabber.References(), 1u);
}

TEST(IODriver, WithoutDigitalLinesEverythingIsUnsupported) {
    LinesGrabber grabber(false, true);
    for (IKUnknown* source : {grabber.Unknown(), static_cast<IKUnknown*>(nullptr)}) {
        KIODriver io(source);
        EXPECT_FALSE(io.IsAvailable());
        long count = 7;
        bool flag = false;
        KChar name[8];
        EXPECT_REFUSED(io.GetLineCount(&count), io, eKErrUnsupportedFeature);
        EXPECT_EQ(count, 7);
        io.SetErrorOutput(false, false, false);
        EXPECT_FALSE(io.GetLineName(0, name, 8));
        EXPECT_FALSE(io.IsOutput(0, &flag));
        EXPECT_FALSE(io.GetLine(0, &flag));
        EXPECT_REFUSED(io.SetLine(0, true), io, eKErrUnsupportedFeature);
    }
    EXPECT_EQ(grabber.References(), 1u);
}

TEST(VideoOutputDriver, EnablesTheOutputAndReportsFailures) {
    LinesGrabber grabber(false, true);
    KVideoOutputDriver video(grabber.Unknown());
    EXPECT_TRUE(video.IsAvailable());
    bool enabled = true;
    EXPECT_TRUE(video.IsEnabled(&enabled));
    EXPECT_FALSE(enabled);
    EXPECT_TRUE(video.Enable(true));
    EXPECT_TRUE(video.IsEnabled(&enabled));
    EXPECT_TRUE(enabled);
    EXPECT_REFUSED(video.IsEnabled(nullptr), video, eKErrParameterNotSupported);
    grabber.failing = true;
    EXPECT_REFUSED(video.Enable(false), video, eKErrLoadVideoOutputDevice);

    // Without a video output (or a grabber) everything is unsupported.
    LinesGrabber linesOnly(true, false);
    KVideoOutputDriver withoutOutput(linesOnly.Unknown());
    KVideoOutputDriver none(nullptr);
    for (KVideoOutputDriver* driver : {&withoutOutput, &none}) {
        EXPECT_FALSE(driver->IsAvailable());
        EXPECT_REFUSED(driver->IsEnabled(&enabled), *driver, eKErrUnsupportedFeature);
        EXPECT_REFUSED(driver->Enable(true), *driver, eKErrUnsupportedFeature);
    }
}

}  // namespace
