// The streaming protocol of the simulated camera, driven by the test's own queue and read
// threads as the grab module drives it.
#include <chrono>

#include "KGrab.h"
#include "platform/AlignedMemory.h"
#include "simulated_test_support.h"

namespace kestor::simulated::testing {
namespace {

using SimulatedStreaming = SimulatedCameraTest;
using namespace std::chrono_literals;

KImageDescription DescriptionOf(SimulatedCamera& camera) {
    return DescribeImage(camera.Config());
}

bool Consecutive(const std::vector<uint64_t>& numbers) {
    for (size_t i = 0; i < numbers.size(); ++i) {
        if (numbers[i] != i) return false;
    }
    return true;
}

TEST_F(SimulatedStreaming, BuffersAreAlignedAndLimitedByTheMemoryLimit) {
    auto camera = MakeCamera();
    ASSERT_EQ(camera->SetImageSize(1024, 100, 0, 0), kKOk);  // 102400 bytes: 25 blocks
    ASSERT_EQ(camera->SetBufferCount(3), kKOk);
    ASSERT_EQ(camera->SetBufferCount(3), kKOk);  // again: the same buffers
    ASSERT_EQ(camera->Start(), kKOk);
    ASSERT_EQ(camera->QueueGrab(), kKOk);
    void* pixels = nullptr;
    ASSERT_EQ(camera->WaitImage(&pixels), kKOk);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(pixels) % kDirectIoAlignment, 0u);
    // The reader's buffer survives a refused reallocation.
    EXPECT_TRUE(KFailed(camera->SetBufferCount(1)));
    EXPECT_TRUE(
        KTestPatternVerify(static_cast<uint8_t*>(pixels), DescriptionOf(*camera.Get()), nullptr));
    camera->ReleaseImage();
    camera->Stop();
    EXPECT_EQ(SimulatedStream::SlotBytes(102400), 102400u);
    EXPECT_EQ(SimulatedStream::SlotBytes(102401), 106496u);

    // Three slots of 102400 bytes fit in 307200; four do not, one still does.
    Configure(*camera.Get(), [](SimulatedConfig& c) { c.memoryLimit = 307200; });
    EXPECT_EQ(camera->SetBufferCount(4), kKOutOfMemory);
    EXPECT_EQ(camera->SetBufferCount(3), kKOk);
    // A limit below one frame refuses even a single buffer.
    Configure(*camera.Get(), [](SimulatedConfig& c) { c.memoryLimit = 4096; });
    EXPECT_EQ(camera->SetBufferCount(1), kKOutOfMemory);
    EXPECT_EQ(camera->SetBufferCount(Limits::kMaxBuffers + 1), kKOutOfMemory);
    uint32_t count = 0;
    camera->GetBufferCount(&count);
    EXPECT_EQ(count, 3u);  // a refused count keeps the buffers there were
    EXPECT_EQ(camera->SetBufferCount(0), kKOk);
    EXPECT_TRUE(KFailed(camera->Start()));  // nothing to grab into
}

TEST_F(SimulatedStreaming, PacedFramesArriveInOrderAndIntact) {
    auto camera = MakeCamera();
    UseSmallFrames(*camera.Get(), 2000.0, false);
    ASSERT_EQ(camera->SetBufferCount(8), kKOk);
    ASSERT_EQ(camera->Start(), kKOk);
    StreamingRun run(*camera.Get(), DescriptionOf(*camera.Get()));
    run.Begin();
    run.WaitForImages(200);
    run.Finish();
    EXPECT_EQ(run.badImages, 0u);
    ASSERT_GE(run.numbers.size(), 200u);
    for (size_t i = 1; i < run.numbers.size(); ++i) EXPECT_LT(run.numbers[i - 1], run.numbers[i]);
    EXPECT_EQ(run.queueStatus, kKFalse);  // ended by Stop, not by a failure
    int32_t total = 0, max = 0, usage = -1;
    camera->GetTotalBufferCount(&total);
    camera->GetMaxBufferUsage(&max);
    camera->GetBufferUsage(&usage);
    EXPECT_EQ(total, 8);
    EXPECT_GE(max, 1);
    EXPECT_LE(max, 8);
    EXPECT_EQ(usage, 0);  // FreeQueue forgot what was left
}

TEST_F(SimulatedStreaming, FreeRunWithASlowReaderLosesNothing) {
    auto camera = MakeCamera();
    UseSmallFrames(*camera.Get(), 1.0, true);  // the frame rate does not matter in free run
    ASSERT_EQ(camera->SetBufferCount(2), kKOk);
    ASSERT_EQ(camera->Start(), kKOk);
    StreamingRun run(*camera.Get(), DescriptionOf(*camera.Get()),
                     [] { std::this_thread::sleep_for(2ms); });
    run.Begin();
    run.WaitForImages(30);
    run.Finish();
    EXPECT_EQ(run.badImages, 0u);
    EXPECT_TRUE(Consecutive(run.numbers));
    uint64_t delivered = 0, lost = 1, incomplete = 1;
    camera->GetFrameCounters(&delivered, &lost, &incomplete);
    EXPECT_EQ(std::vector<uint64_t>({delivered, lost, incomplete}),
              std::vector<uint64_t>({run.numbers.size(), 0, 0}));
}

TEST_F(SimulatedStreaming, PacedWithASlowReaderLosesFramesAndCountsThem) {
    auto camera = MakeCamera();
    CountingSink sink;
    camera->Register(&sink);
    UseSmallFrames(*camera.Get(), 1000.0, false);
    ASSERT_EQ(camera->SetBufferCount(2), kKOk);
    ASSERT_EQ(camera->Start(), kKOk);
    StreamingRun run(*camera.Get(), DescriptionOf(*camera.Get()),
                     [] { std::this_thread::sleep_for(20ms); });
    run.Begin();
    run.WaitForImages(6);
    run.Finish();
    camera->Register(nullptr);

    EXPECT_EQ(run.badImages, 0u);
    ASSERT_GE(run.numbers.size(), 6u);
    EXPECT_FALSE(Consecutive(run.numbers));  // the pattern shows the gaps
    for (size_t i = 1; i < run.numbers.size(); ++i) EXPECT_LT(run.numbers[i - 1], run.numbers[i]);
    uint64_t delivered = 0, lost = 0, dropped = 0;
    camera->GetFrameCounters(&delivered, &lost, nullptr);
    camera->GetDroppedFrames(&dropped);
    EXPECT_GT(lost, 0u);
    EXPECT_EQ(dropped, lost);
    // Frame numbers count lost frames too.
    EXPECT_LE(run.numbers.back() + 1, delivered + lost + 2);
    // One notification per burst, so at least one and fewer than the frames lost.
    EXPECT_GE(sink.counts[eKNotificationFrameLost], 1);
    EXPECT_LT(static_cast<uint64_t>(sink.counts[eKNotificationFrameLost]), lost + 1);
}

TEST_F(SimulatedStreaming, StopAndCancelWakeTheWaiters) {
    auto camera = MakeCamera();
    UseSmallFrames(*camera.Get(), 0.1, false);  // the next frame is ten seconds away
    ASSERT_EQ(camera->SetBufferCount(2), kKOk);
    EXPECT_EQ(camera->QueueGrab(), kKFalse);  // not started
    ASSERT_EQ(camera->Start(), kKOk);
    ASSERT_EQ(camera->QueueGrab(), kKOk);  // frame 0 is due at once

    std::atomic<KStatus> queued{kKOk - 1};
    std::thread queue([&] { queued = camera->QueueGrab(); });
    std::this_thread::sleep_for(20ms);
    camera->Stop();
    queue.join();
    EXPECT_EQ(queued, kKFalse);
    EXPECT_EQ(camera->QueueGrab(), kKFalse);  // and at once after Stop

    // The completed frame can still be read after Stop, until the queue is cancelled.
    void* pixels = nullptr;
    ASSERT_EQ(camera->WaitImage(&pixels), kKOk);
    ASSERT_NE(pixels, nullptr);
    camera->ReleaseImage();

    std::atomic<bool> woke{false};
    std::thread reader([&] {
        void* none = reinterpret_cast<void*>(1);
        camera->WaitImage(&none);
        woke = none == nullptr;
    });
    camera->CancelQueuedGrabs();
    reader.join();
    EXPECT_TRUE(woke);
    pixels = reinterpret_cast<void*>(1);
    camera->WaitImage(&pixels);
    EXPECT_EQ(pixels, nullptr);  // null at once until the next Start
}

TEST_F(SimulatedStreaming, FreeQueueKeepsTheBufferTheReaderHolds) {
    auto camera = MakeCamera();
    UseSmallFrames(*camera.Get(), 1.0, true);
    ASSERT_EQ(camera->SetBufferCount(3), kKOk);
    ASSERT_EQ(camera->Start(), kKOk);
    ASSERT_EQ(camera->QueueGrab(), kKOk);
    ASSERT_EQ(camera->QueueGrab(), kKOk);
    void* held = nullptr;
    ASSERT_EQ(camera->WaitImage(&held), kKOk);
    camera->Stop();
    camera->CancelQueuedGrabs();
    camera->FreeQueue();
    int32_t usage = 0;
    camera->GetBufferUsage(&usage);
    EXPECT_EQ(usage, 1);  // only the held one
    // A new run fills the two free buffers and leaves the held one alone.
    ASSERT_EQ(camera->Start(), kKOk);
    ASSERT_EQ(camera->QueueGrab(), kKOk);
    ASSERT_EQ(camera->QueueGrab(), kKOk);
    uint64_t number = 99;
    EXPECT_TRUE(
        KTestPatternVerify(static_cast<uint8_t*>(held), DescriptionOf(*camera.Get()), &number));
    EXPECT_EQ(number, 0u);
    EXPECT_EQ(camera->ReleaseImage(), kKOk);
    EXPECT_EQ(camera->ReleaseImage(), kKFalse);  // nothing held any more
    camera->Stop();
}

TEST_F(SimulatedStreaming, FailAfterFramesEndsTheQueue) {
    auto camera = MakeCamera();
    UseSmallFrames(*camera.Get(), 1.0, true);
    Configure(*camera.Get(), [](SimulatedConfig& c) { c.failAfterFrames = 5; });
    ASSERT_EQ(camera->SetBufferCount(8), kKOk);
    ASSERT_EQ(camera->Start(), kKOk);
    StreamingRun run(*camera.Get(), DescriptionOf(*camera.Get()));
    run.Begin();
    run.WaitForImages(100);  // returns when the queue thread ended
    while (run.images < 5) std::this_thread::yield();
    run.Finish();
    EXPECT_EQ(run.queueStatus, kKFail);
    EXPECT_EQ(run.queued, 5u);
    EXPECT_TRUE(Consecutive(run.numbers));
    EXPECT_EQ(run.numbers.size(), 5u);
}

TEST_F(SimulatedStreaming, NullWaitEveryHoldsAnImageBackWithoutLosingIt) {
    auto camera = MakeCamera();
    UseSmallFrames(*camera.Get(), 1.0, true);
    Configure(*camera.Get(), [](SimulatedConfig& c) { c.nullWaitEvery = 3; });
    ASSERT_EQ(camera->SetBufferCount(4), kKOk);
    ASSERT_EQ(camera->Start(), kKOk);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(camera->QueueGrab(), kKOk);
    std::vector<uint64_t> numbers;
    int nulls = 0;
    while (numbers.size() < 4) {
        void* pixels = nullptr;
        camera->WaitImage(&pixels);
        if (pixels == nullptr) {
            ++nulls;
            continue;
        }
        uint64_t number = 0;
        ASSERT_TRUE(KTestPatternVerify(static_cast<uint8_t*>(pixels), DescriptionOf(*camera.Get()),
                                       &number));
        numbers.push_back(number);
        camera->ReleaseImage();
    }
    EXPECT_EQ(nulls, 1);  // the third image came one call late
    EXPECT_TRUE(Consecutive(numbers));
    camera->Stop();
}

TEST_F(SimulatedStreaming, FrameInfoCarriesHostTimeAndNumber) {
    auto camera = MakeCamera();
    UseSmallFrames(*camera.Get(), 1000.0, false);
    ASSERT_EQ(camera->SetBufferCount(4), kKOk);
    KGrabFrameInfo info{};
    info.size = sizeof info;
    EXPECT_TRUE(KFailed(camera->GetLastImageInfo(&info)));  // nothing delivered yet
    const WallTime before = CurrentWallTime();
    ASSERT_EQ(camera->Start(), kKOk);
    uint64_t previousUs = 0;
    for (uint64_t expected = 0; expected < 3; ++expected) {
        ASSERT_EQ(camera->QueueGrab(), kKOk);
        void* pixels = nullptr;
        ASSERT_EQ(camera->WaitImage(&pixels), kKOk);
        ASSERT_EQ(camera->GetLastImageInfo(&info), kKOk);
        EXPECT_EQ(info.flags, kKFrameInfoTimestamp | kKFrameInfoFrameId);
        EXPECT_EQ(info.frameId, expected);
        EXPECT_GE(info.seconds, static_cast<uint32_t>(before.seconds));
        EXPECT_LT(info.milliseconds, 1000);
        EXPECT_LT(info.microseconds, 1000);
        const uint64_t us =
            info.seconds * 1000000ull + info.milliseconds * 1000u + info.microseconds;
        EXPECT_GT(us, previousUs);  // paced frames are stamped at their own times
        previousUs = us;
        uint64_t number = 0;
        camera->GetLastImageNumber(&number);
        EXPECT_EQ(number, expected);
        camera->ReleaseImage();
    }
    KGrabFrameInfo small{};
    small.size = 4;
    EXPECT_EQ(camera->GetLastImageInfo(&small), kKInvalidArgument);
    camera->Stop();
}

TEST_F(SimulatedStreaming, SoftwareTriggerMakesOneFrameEach) {
    auto camera = MakeCamera();
    UseSmallFrames(*camera.Get(), 1000.0, false);
    ASSERT_EQ(camera->SetCurrentValues(0, 1), kKOk);  // "Trigger Mode" = "Software"
    ASSERT_EQ(camera->SetBufferCount(2), kKOk);
    ASSERT_EQ(camera->Start(), kKOk);
    std::atomic<KStatus> queued{kKOk - 1};
    std::thread queue([&] { queued = camera->QueueGrab(); });
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(queued, kKOk - 1);                           // no trigger, no frame
    ASSERT_EQ(camera->ExecuteCommandFeature(1, 3), kKOk);  // Acquisition / TriggerSoftware
    queue.join();
    EXPECT_EQ(queued, kKOk);
    void* pixels = nullptr;
    ASSERT_EQ(camera->WaitImage(&pixels), kKOk);
    EXPECT_NE(pixels, nullptr);
    camera->ReleaseImage();
    camera->Stop();
}

}  // namespace
}  // namespace kestor::simulated::testing
