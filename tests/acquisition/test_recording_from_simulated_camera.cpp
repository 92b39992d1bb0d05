// End to end through the real plugins: the grab module loads the grabber manager, which loads
// the simulated camera, and a recording of 10 000 frames at the highest rate the recording
// sustains is proven complete, in order and untorn from the pixels alone.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

#include "KGrab.h"
#include "KSequence.h"
#include "KTestPattern.h"
#include "support/TempDir.h"

namespace {

// Keeps the driver's settings in a registry of the test's own.
class ScratchRegistry {
public:
    ScratchRegistry() {
        if (const char* previous = getenv("KESTOR_REGISTRY")) previous_ = previous;
        setenv("KESTOR_REGISTRY", folder_.File("registry.db").c_str(), 1);
    }
    ~ScratchRegistry() {
        if (previous_)
            setenv("KESTOR_REGISTRY", previous_->c_str(), 1);
        else
            unsetenv("KESTOR_REGISTRY");
    }

private:
    kestor::test::TempDir folder_;
    std::optional<std::string> previous_;
};

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

// Finds a feature by name in the advanced-settings categories.
bool FindFeature(KGrabModule& module, const std::u16string& wanted, long& category, long& feature) {
    long categories = 0;
    module.GetCategoriesCount(&categories);
    for (long c = 0; c < categories; ++c) {
        long count = 0;
        module.GetFeatureCount(c, &count);
        for (long f = 0; f < count; ++f) {
            long id = 0;
            KChar name[kKMaxNameLength] = {};
            eAdvanceSettingsFeatureType type{};
            eAdvanceSettingsLevel level{};
            if (module.GetFeatureCap(c, f, &id, name, &type, &level) && wanted == name) {
                category = c, feature = f;
                return true;
            }
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
    module.SetErrorOutput(false, false, false);
    module.SetBufferCount(16);
    if (!module.Load(eKModuleSimulatedCamera, "KestorTest", true, nullptr, false)) return false;
    long category = -1, feature = -1;
    return FindFeature(module, u"FreeRun", category, feature) &&
           module.SetBoolFeatureValue(category, feature, 1) && module.SetROI(0, 0, width, height);
}

TEST(RecordingFromSimulatedCamera, TenThousandFramesArriveCompleteInOrderAndUntorn) {
    ScratchRegistry registry;
    KGrabModule module;
    if (!LoadFreeRunning(module, 256, 64))
        GTEST_SKIP() << "the simulated camera plugin is not installed";

    constexpr uint64_t kFrames = 10000;
    KSequence sequence;
    sequence.SetErrorOutput(false, false, false);
    ASSERT_TRUE(sequence.Create(static_cast<const char*>(nullptr)));
    ASSERT_TRUE(sequence.PreAllocateImages(module.GetImageSizeBytes(), kFrames));
    Recorder recorder(sequence, kFrames);
    module.SetCallbacks(&recorder, 0, nullptr);
    ASSERT_TRUE(module.StartStreaming());
    const bool done = recorder.WaitDone();
    module.StopStreaming();
    ASSERT_TRUE(done);
    ASSERT_FALSE(recorder.Failed()) << sequence.GetLastError();

    uint64_t delivered = 0, lost = 0, incomplete = 0;
    ASSERT_TRUE(module.GetFrameCounters(delivered, lost, incomplete));
    EXPECT_EQ(lost, 0u);
    EXPECT_EQ(incomplete, 0u);

    ASSERT_EQ(sequence.GetAllocatedFrames(), kFrames);
    KImage image;
    uint64_t first = 0, previous = 0, bad = 0, gaps = 0;
    for (unsigned n = 1; n <= kFrames; ++n) {
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
    EXPECT_EQ(previous - first + 1, kFrames);
}

TEST(RecordingFromSimulatedCamera, AFileKeepsEveryFrameWithItsDeviceFrameNumber) {
    ScratchRegistry registry;
    kestor::test::TempDir folder;
    KGrabModule module;
    if (!LoadFreeRunning(module, 512, 128))
        GTEST_SKIP() << "the simulated camera plugin is not installed";

    constexpr uint64_t kFrames = 300;
    const std::string file = folder.File("grab.seq");
    KSequence sequence;
    sequence.SetErrorOutput(false, false, false);
    ASSERT_TRUE(sequence.Create(file.c_str()));
    Recorder recorder(sequence, kFrames);
    module.SetCallbacks(&recorder, 0, nullptr);
    ASSERT_TRUE(module.StartStreaming());
    const bool done = recorder.WaitDone();
    module.StopStreaming();
    ASSERT_TRUE(done);
    ASSERT_FALSE(recorder.Failed()) << sequence.GetLastError();
    ASSERT_TRUE(sequence.Close());

    KSequence reopened;
    reopened.SetErrorOutput(false, false, false);
    ASSERT_TRUE(reopened.OpenReadOnly(file.c_str()));
    ASSERT_EQ(reopened.GetAllocatedFrames(), kFrames);
    KImage image;
    uint64_t previous = 0;
    for (unsigned n = 1; n <= kFrames; ++n) {
        uint64_t number = 0;
        ASSERT_TRUE(reopened.Read(&image, n));
        ASSERT_TRUE(
            KTestPatternVerify(image.GetRawImageData(), image.GetImageDescription(), &number))
            << "frame " << n;
        EXPECT_EQ(RecordedFrameId(image), number) << "frame " << n;
        if (n > 1) EXPECT_EQ(number, previous + 1) << "frame " << n;
        previous = number;
    }
}

}  // namespace
