// KIODriver and KVideoOutputDriver against a small in-test grabber that offers digital lines
// and a video output (or not).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KGrab.h"
#include "drivers/common/ComObject.h"
#include "platform/WideString.h"

namespace {

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

TEST(IODriver, ReadsAndDrivesTheGrabbersLines) {
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
    }
    EXPECT_EQ(grabber.References(), 1u);
}

TEST(IODriver, RefusesLinesOutOfRangeInputsAndNullOutputs) {
    LinesGrabber grabber(true, false);
    KIODriver io(grabber.Unknown());
    bool level = false;
    KChar name[8];
    EXPECT_FALSE(io.GetLine(3, &level));
    EXPECT_EQ(io.GetLastError(), eKErrOutOfRange);
    EXPECT_FALSE(io.SetLine(-1, true));
    EXPECT_EQ(io.GetLastError(), eKErrOutOfRange);
    EXPECT_FALSE(io.GetLineName(100000, name, 8));
    EXPECT_EQ(io.GetLastError(), eKErrOutOfRange);
    EXPECT_FALSE(io.IsOutput(3, &level));
    EXPECT_EQ(io.GetLastError(), eKErrOutOfRange);

    EXPECT_FALSE(io.SetLine(0, true)) << "line 0 is an input";
    EXPECT_EQ(io.GetLastError(), eKErrParameterNotSupported);
    EXPECT_EQ(grabber.writes, 0);

    EXPECT_FALSE(io.GetLine(0, nullptr));
    EXPECT_EQ(io.GetLastError(), eKErrParameterNotSupported);
    EXPECT_FALSE(io.GetLineName(0, name, 0));
    EXPECT_EQ(io.GetLastError(), eKErrParameterNotSupported);

    grabber.failing = true;
    long count = 0;
    EXPECT_FALSE(io.GetLineCount(&count));
    EXPECT_EQ(io.GetLastError(), eKErrLoadInputDevice);
}

TEST(IODriver, WithoutDigitalLinesEverythingIsUnsupported) {
    LinesGrabber grabber(false, true);
    for (IKUnknown* source : {grabber.Unknown(), static_cast<IKUnknown*>(nullptr)}) {
        KIODriver io(source);
        EXPECT_FALSE(io.IsAvailable());
        long count = 7;
        bool flag = false;
        KChar name[8];
        EXPECT_FALSE(io.GetLineCount(&count));
        EXPECT_EQ(io.GetLastError(), eKErrUnsupportedFeature);
        EXPECT_EQ(count, 7);
        io.SetErrorOutput(false, false, false);
        EXPECT_FALSE(io.GetLineName(0, name, 8));
        EXPECT_FALSE(io.IsOutput(0, &flag));
        EXPECT_FALSE(io.GetLine(0, &flag));
        EXPECT_FALSE(io.SetLine(0, true));
        EXPECT_EQ(io.GetLastError(), eKErrUnsupportedFeature);
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
    EXPECT_FALSE(video.IsEnabled(nullptr));
    EXPECT_EQ(video.GetLastError(), eKErrParameterNotSupported);

    grabber.failing = true;
    EXPECT_FALSE(video.Enable(false));
    EXPECT_EQ(video.GetLastError(), eKErrLoadVideoOutputDevice);
}

TEST(VideoOutputDriver, WithoutVideoOutputEverythingIsUnsupported) {
    LinesGrabber grabber(true, false);
    KVideoOutputDriver video(grabber.Unknown());
    KVideoOutputDriver none(nullptr);
    for (KVideoOutputDriver* driver : {&video, &none}) {
        bool enabled = false;
        EXPECT_FALSE(driver->IsAvailable());
        EXPECT_FALSE(driver->IsEnabled(&enabled));
        EXPECT_EQ(driver->GetLastError(), eKErrUnsupportedFeature);
        EXPECT_FALSE(driver->Enable(true));
        EXPECT_EQ(driver->GetLastError(), eKErrUnsupportedFeature);
    }
}

}  // namespace
