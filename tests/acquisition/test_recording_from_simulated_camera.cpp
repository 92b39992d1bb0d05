// End to end through the real plugins: the grab module loads the grabber manager, which loads
// the simulated camera, and recordings at the highest rate the recording sustains are proven
// complete, in order and untorn from the pixels alone.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "GrabTestSupport.h"
#include "KSequence.h"
#include "KTestPattern.h"

using namespace kestor::test;

namespace {

class Recorder : public KGrabCallbacks {
public:
    Recorder(KSequence& sequence, uint64_t target) : sequence_(sequence), target_(target) {}
    void OnImageReceived(KImage* image, unsigned int, void*) override {
        if (written_ >= target_) return;
        if (!sequence_.Write(image)) failed_ = true;
        if (++written_ == target_ || failed_) {
            std::lock_guard lock(mutex_);
            done_ = true;
            wake_.notify_all();
        }
    }
    // Bounded so that a broken stream fails the test instead of hanging it.
    bool WaitDone() {
        std::unique_lock lock(mutex_);
        return wake_.wait_for(lock, std::chrono::minutes(5), [this] { return done_; });
    }
    bool Failed() const { return failed_; }

private:
    KSequence& sequence_;
    const uint64_t target_;
    std::atomic<uint64_t> written_{0};
    std::atomic<bool> failed_{false};
    std::mutex mutex_;
    std::condition_variable wake_;
    bool done_ = false;
};

bool FindFeature(KGrabModule& module, const std::u16string& wanted, long& category, long& feature) {
    long categories = 0;
    module.GetCategoriesCount(&categories);
    for (category = 0; category < categories; ++category) {
        long count = 0;
        module.GetFeatureCount(category, &count);
        for (feature = 0; feature < count; ++feature) {
            long id = 0;
            KChar name[kKMaxNameLength] = {};
            eAdvanceSettingsFeatureType type{};
            eAdvanceSettingsLevel level{};
            if (module.GetFeatureCap(category, feature, &id, name, &type, &level) && wanted == name)
                return true;
        }
    }
    return false;
}

// The device's frame number that the recording kept with the frame; 0 when none.
uint64_t RecordedFrameId(const KImage& image) {
    KMetadata* item = image.GetSpecificMetadata(kKMetadataIdDeviceFrameId, 0);
    if (item == nullptr || item->GetDataSize() != 8) return 0;
    uint64_t id = 0;
    for (int i = 7; i >= 0; --i) id = id << 8 | item->GetData()[i];
    return id;
}

bool LoadFreeRunning(KGrabModule& module, unsigned width, unsigned height) {
    module.SetBufferCount(16);
    if (!module.Load(eKModuleSimulatedCamera, "KestorTest", true, nullptr, false)) return false;
    long category = -1, feature = -1;
    return FindFeature(module, u"FreeRun", category, feature) &&
           module.SetBoolFeatureValue(category, feature, 1) && module.SetROI(0, 0, width, height);
}

// Streams `frames` frames into `sequence`, then checks every frame's pattern, its frame
// number (consecutive) and the device frame number kept with it.
void RecordAndVerify(KGrabModule& module, KSequence& sequence, uint64_t frames,
                     const std::string& reopen = "") {
    Recorder recorder(sequence, frames);
    module.SetCallbacks(&recorder, 0, nullptr);
    ASSERT_TRUE(module.StartStreaming());
    const bool done = recorder.WaitDone();
    module.StopStreaming();
    module.SetCallbacks(nullptr, 0, nullptr);
    ASSERT_TRUE(done);
    ASSERT_FALSE(recorder.Failed()) << sequence.GetLastError();
    if (!reopen.empty()) {
        ASSERT_TRUE(sequence.Close());
        ASSERT_TRUE(sequence.OpenReadOnly(reopen.c_str()));
    }
    ASSERT_EQ(sequence.GetAllocatedFrames(), frames);
    KImage image;
    uint64_t first = 0, previous = 0, bad = 0, gaps = 0;
    for (unsigned n = 1; n <= frames; ++n) {
        uint64_t number = 0;
        ASSERT_TRUE(sequence.Read(&image, n));
        if (!KTestPatternVerify(image.GetRawImageData(), image.GetImageDescription(), &number)) {
            ++bad;
            continue;
        }
        if (n == 1) first = number;
        if (n > 1 && number != previous + 1) ++gaps;
        if (RecordedFrameId(image) != number) ++bad;
        previous = number;
    }
    EXPECT_EQ(bad, 0u) << "torn or corrupt frames, or a frame number not kept with its frame";
    EXPECT_EQ(gaps, 0u) << "frames lost, repeated or out of order";
    EXPECT_EQ(previous - first + 1, frames);
}

}  // namespace

TEST_F(GrabModuleTest, TenThousandFramesFromTheSimulatedCameraArriveCompleteInOrderAndUntorn) {
    if (!LoadFreeRunning(Module(), 256, 64))
        GTEST_SKIP() << "the simulated camera plugin is not installed";
    constexpr uint64_t kFrames = 10000;
    KSequence sequence;
    sequence.SetErrorOutput(false, false, false);
    ASSERT_TRUE(sequence.Create(static_cast<const char*>(nullptr)));
    ASSERT_TRUE(sequence.PreAllocateImages(Module().GetImageSizeBytes(), kFrames));
    RecordAndVerify(Module(), sequence, kFrames);

    uint64_t delivered = 0, lost = 0, incomplete = 0;
    ASSERT_TRUE(Module().GetFrameCounters(delivered, lost, incomplete));
    EXPECT_EQ(lost, 0u);
    EXPECT_EQ(incomplete, 0u);
}

TEST_F(GrabModuleTest, ARecordedFileKeepsEveryFrameWithItsDeviceFrameNumber) {
    if (!LoadFreeRunning(Module(), 512, 128))
        GTEST_SKIP() << "the simulated camera plugin is not installed";
    const std::string file = folder_.File("grab.seq");
    KSequence sequence;
    sequence.SetErrorOutput(false, false, false);
    ASSERT_TRUE(sequence.Create(file.c_str()));
    RecordAndVerify(Module(), sequence, 300, file);
}
