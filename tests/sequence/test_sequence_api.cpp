// End-to-end behaviour of the public sequence handle over the disk and RAM variants.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <vector>

#include "KSequence.h"
#include "support/DebugCapture.h"
#include "support/TempDir.h"

using kestor::test::DebugCapture;
using kestor::test::TempDir;

namespace {

struct Layout {
    const char* name;
    uint32_t width, height, bitDepth, bitDepthReal;
    eKImageFormat format;
};

// Packed and planar, 8 and 16 bits, and sizes that are not a whole number of sectors.
const Layout kLayouts[] = {
    {"mono8", 64, 48, 8, 8, eKFormatMono},       {"mono16", 33, 17, 16, 12, eKFormatMonoLE},
    {"bayer8", 40, 30, 8, 8, eKFormatMonoBayer}, {"bgr24", 31, 7, 24, 24, eKFormatBGR},
    {"bgrx", 16, 16, 32, 24, eKFormatBGRx},      {"planar", 21, 10, 24, 24, eKFormatBGRPlanar},
};

void Fill(KImage& image, const Layout& l, uint32_t frame) {
    image.ReallocateImage(l.width, l.height, l.bitDepth, l.bitDepthReal, l.format);
    uint8_t* p = image.GetRawImageData();
    for (uint32_t i = 0; i < image.GetImageSizeBytes(); ++i)
        p[i] = static_cast<uint8_t>(i * 31 + frame * 7 + (i >> 8));
    image.SetTimestamp(1700000000 + frame, static_cast<uint16_t>(frame * 3 % 1000),
                       static_cast<uint16_t>(frame * 11 % 1000));
}

bool SameFrame(const KImage& a, const KImage& b) {
    return a.GetImageDescription() == b.GetImageDescription() &&
           std::memcmp(a.GetRawImageData(), b.GetRawImageData(), a.GetImageSizeBytes()) == 0 &&
           a.GetTimestamp() == b.GetTimestamp() && a.GetTimestampMS() == b.GetTimestampMS() &&
           a.GetTimestampUS() == b.GetTimestampUS();
}

// Collects what playback delivers and counts writes.
class Recorder : public KSequencerCallbacks {
public:
    void OnImageRead(KImage* image, unsigned int id, void* context) override {
        std::lock_guard lock(mutex);
        frames.emplace_back();
        KImage::CloneKImage(&frames.back(), image);
        calls.push_back({id, context});
    }
    void OnImageWrite(unsigned int id, void* context) override { calls.push_back({id, context}); }
    void OnEndOfSequence(bool& stop, unsigned int, void*) override { stop = true; }
    void OnPlaybackStopped(unsigned int, void*) override {
        std::lock_guard lock(mutex);
        stopped = true;
        done.notify_all();
    }
    bool WaitStopped() {
        std::unique_lock lock(mutex);
        return done.wait_for(lock, std::chrono::seconds(20), [&] { return stopped; });
    }
    std::mutex mutex;
    std::condition_variable done;
    std::vector<KImage> frames;
    std::vector<std::pair<unsigned, void*>> calls;
    bool stopped = false;
};

class SequenceRoundTrip : public ::testing::TestWithParam<bool> {  // true: RAM
protected:
    bool Create(KSequence& s) {
        return GetParam() ? s.Create(static_cast<const char*>(nullptr)) : s.Create(path.c_str());
    }
    // RAM sequences live only while open; disk ones are reopened to prove they reached the file.
    bool Reopen(KSequence& s) { return GetParam() ? true : s.Close() && s.Open(path.c_str()); }
    TempDir dir;
    std::string path = dir.File("round-trip.seq");
};

}  // namespace

TEST_P(SequenceRoundTrip, EveryLayoutReadsBackBitExactThroughReadAndPlayback) {
    DebugCapture capture;
    for (const Layout& l : kLayouts) {
        SCOPED_TRACE(l.name);
        KSequence sequence;
        ASSERT_TRUE(Create(sequence));
        constexpr uint32_t kFrames = 5;
        std::vector<KImage> written(kFrames);
        for (uint32_t n = 0; n < kFrames; ++n) {
            Fill(written[n], l, n + 1);
            ASSERT_TRUE(sequence.Write(&written[n])) << sequence.GetLastError();
        }
        ASSERT_TRUE(Reopen(sequence));
        ASSERT_EQ(sequence.GetAllocatedFrames(), kFrames);
        EXPECT_EQ(sequence.GetImageFormat(), l.format);
        EXPECT_EQ(sequence.GetImageBitDepthReal(), l.bitDepthReal);
        KImage back;
        for (uint32_t n = 1; n <= kFrames; ++n) {
            ASSERT_TRUE(sequence.Read(&back, n));
            EXPECT_TRUE(SameFrame(back, written[n - 1])) << "frame " << n;
            EXPECT_EQ(back.GetGreenChannel(),
                      l.format == eKFormatBGRPlanar
                          ? back.GetRawImageData() + back.GetImageSizeBytes() / 3
                          : nullptr);
        }

        Recorder recorder;
        int context = 0;
        ASSERT_TRUE(sequence.SetCallbacks(&recorder, 77, &context));
        ASSERT_TRUE(sequence.SetPlaybackPosition(1));
        ASSERT_TRUE(sequence.SetPlaybackSpeed(1000.0));
        ASSERT_TRUE(sequence.Play());
        ASSERT_TRUE(recorder.WaitStopped());
        ASSERT_EQ(recorder.frames.size(), kFrames);
        for (uint32_t n = 0; n < kFrames; ++n) {
            EXPECT_TRUE(SameFrame(recorder.frames[n], written[n])) << "played frame " << n + 1;
            EXPECT_EQ(recorder.calls[n], std::make_pair(77u, static_cast<void*>(&context)));
        }
        EXPECT_TRUE(sequence.Close());
    }
}

TEST_P(SequenceRoundTrip, WriteCallbackTimestampSearchAndHeaderProperties) {
    Recorder counter;
    int context = 0;
    KSequence sequence;
    ASSERT_TRUE(Create(sequence));
    ASSERT_TRUE(sequence.SetCallbacks(&counter, 5, &context));
    KImage image;
    for (uint32_t n = 1; n <= 50; ++n) {
        Fill(image, kLayouts[2], n);  // Bayer
        image.SetTimestamp(1000 + n / 10, static_cast<uint16_t>(n % 10 * 100), 0);
        ASSERT_TRUE(sequence.Write(&image));
    }
    ASSERT_EQ(counter.calls.size(), 50u);
    EXPECT_EQ(counter.calls.back(), std::make_pair(5u, static_cast<void*>(&context)));

    unsigned frame = 0;
    ASSERT_TRUE(sequence.GetIndexAt(1002, 300, 0, frame));
    EXPECT_EQ(frame, 23u);
    EXPECT_FALSE(sequence.GetIndexAt(1002, 301, 0, frame));
    ASSERT_TRUE(sequence.GetIndexNear(1002, 349, 0, frame));
    EXPECT_EQ(frame, 23u);
    ASSERT_TRUE(sequence.GetIndexNear(9999, 0, 0, frame));
    EXPECT_EQ(frame, 50u);
    ASSERT_TRUE(sequence.GetIndexNear(0, 0, 0, frame));
    EXPECT_EQ(frame, 1u);

    ASSERT_TRUE(sequence.SetFrameRate(500.0));
    ASSERT_TRUE(sequence.SetUserData(0xC0FFEE));
    ASSERT_TRUE(sequence.SetBayerPattern(eKBayerOriginBG));
    ASSERT_TRUE(sequence.SetReferenceTime(1700000000, 1, 2));
    ASSERT_TRUE(sequence.SetDescriptionText(u"combustion chamber, run 7"));
    ASSERT_TRUE(Reopen(sequence));
    EXPECT_EQ(sequence.GetFrameRate(), 500.0);
    EXPECT_EQ(sequence.GetUserData(), 0xC0FFEEu);
    eKBayerPatternOrigin origin;
    ASSERT_TRUE(sequence.GetBayerPattern(origin));
    EXPECT_EQ(origin, eKBayerOriginBG);
    int32_t s;
    unsigned short ms, us;
    ASSERT_TRUE(sequence.GetReferenceTime(s, ms, us));
    EXPECT_EQ(s, 1700000000);
    KChar text[64];
    ASSERT_TRUE(sequence.GetDescriptionText(text, 64));
    EXPECT_EQ(std::u16string(text), u"combustion chamber, run 7");
    EXPECT_EQ(sequence.IsRAMSequence(), GetParam());
}

INSTANTIATE_TEST_SUITE_P(DiskAndRam, SequenceRoundTrip, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Ram" : "Disk"; });

TEST(SequenceHandle, ClosedHandleRefusedVariantsAndSwitchesSetBeforeOpening) {
    DebugCapture capture;
    TempDir dir;
    KSequence sequence;
    EXPECT_FALSE(sequence.IsSequenceOpen());
    KImage image;
    EXPECT_FALSE(sequence.Write(&image));
    EXPECT_EQ(sequence.GetLastError(), eKErrNoSequenceOrInvalidImage);
    EXPECT_FALSE(sequence.Create(dir.File("lz.seq").c_str(), eKCompressionLz));
    EXPECT_EQ(sequence.GetLastError(), eKErrUnsupportedFeature);
    EXPECT_FALSE(sequence.Create(static_cast<const char*>(nullptr), eKCompressionWavelet));
    EXPECT_EQ(sequence.GetLastError(), eKErrFormatNotSupportedBySequence);
    EXPECT_FALSE(sequence.Open(""));
    EXPECT_EQ(sequence.GetLastError(), eKErrFileNotFound);

    // The output switches reach the sequencer made later.
    capture.Clear();
    sequence.SetErrorOutput(false, true, false);
    EXPECT_FALSE(sequence.Open(dir.File("missing.seq").c_str()));
    EXPECT_EQ(sequence.GetLastError(), eKErrCreateOpenFile);
    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_EQ(capture.MessageBoxes().size(), 1u);
}

TEST(SequenceHandle, CopiesShareOneSequenceAndItsSettings) {
    DebugCapture capture;
    TempDir dir;
    KSequence sequence;
    EXPECT_EQ(KSequence::GetAvailableCompressorsCount(), 0);
    EXPECT_FALSE(sequence.SetCompressor(0)) << "no compressor is built in";
    EXPECT_EQ(sequence.GetLastError(), eKErrOutOfRange);
    EXPECT_FALSE(sequence.SetThreadCount(-1));
    ASSERT_TRUE(sequence.SetThreadCount(6));
    sequence.SetAutoRecoveryIndexStream(true);
    KSequence copy = sequence;
    EXPECT_EQ(copy.GetThreadCount(), 6);
    EXPECT_TRUE(copy.GetAutoRecoveryIndexStream());

    ASSERT_TRUE(sequence.Create(dir.File("raw.seq").c_str()));
    EXPECT_EQ(sequence.GetThreadCount(), 6) << "settings outlive the creation of a variant";
    KImage image;
    Fill(image, kLayouts[0], 1);
    ASSERT_TRUE(copy.Write(&image));
    EXPECT_EQ(sequence.GetAllocatedFrames(), 1u);

    // Uncompressed sequences have no compressed sizes and no index to rebuild.
    uint32_t bytes = 1;
    EXPECT_FALSE(sequence.GetMinCompressSize(bytes));
    EXPECT_EQ(bytes, 0u);
    EXPECT_EQ(sequence.GetLastError(), eKErrUnsupportedFeature);
    EXPECT_FALSE(sequence.RecoverIndexStream(u"raw.seq"));
    EXPECT_EQ(sequence.GetLastError(), eKErrUnsupportedFeature);
    EXPECT_TRUE(sequence.Close());
    EXPECT_FALSE(copy.IsSequenceOpen());
}
