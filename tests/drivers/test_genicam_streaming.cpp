// Streaming from the fake camera through the GenICam driver: recording into a memory sequence
// with every pixel checked, software trigger, and the camera disappearing mid-stream.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "KGrab.h"
#include "KImage.h"
#include "KSequence.h"
#include "genicam/FrameIdTracker.h"
#include "genicam/GenICamCamera.h"
#include "test_genicam_support.h"

namespace kestor::genicam::test {
namespace {

constexpr uint32_t kSide = 256;

class GenICamStreaming : public GenICamCameraTest {
protected:
    void SetUp() override {
        GenICamCameraTest::SetUp();
        if (IsSkipped()) return;
        ASSERT_EQ(camera->Register(&sink), kKOk);
        ASSERT_EQ(camera->SetImageSize(kSide, kSide, 0, 0), kKOk);
        ASSERT_TRUE(sequence.Create(static_cast<const KChar*>(nullptr)));
        ASSERT_TRUE(image.ReallocateImage(kSide, kSide, 8, 8, eKFormatMono));
    }
    void TearDown() override {
        if (camera != nullptr) camera->Register(nullptr);
        sequence.Close();
        GenICamCameraTest::TearDown();
    }

    void SetFrameRate(double rate) {
        const int32_t index = AdjustmentIndex(camera, "AcquisitionFrameRate");
        ASSERT_GE(index, 0);
        ASSERT_EQ(camera->SetDoubleValue(index, rate), kKOk);
    }

    // Copies the image into the sequence with the driver's timestamp; keeps the frame id.
    void Record(const void* pixels) {
        KGrabFrameInfo info{sizeof(KGrabFrameInfo), 0, 0, 0, 0, 0};
        ASSERT_EQ(camera->GetLastImageInfo(&info), kKOk);
        EXPECT_EQ(info.flags & (kKFrameInfoTimestamp | kKFrameInfoFrameId),
                  kKFrameInfoTimestamp | kKFrameInfoFrameId);
        EXPECT_EQ(info.flags & kKFrameInfoDeviceTime, 0u);  // no PTP: host arrival time
        std::memcpy(image.GetRawImageData(), pixels, kSide * kSide);
        image.SetTimestamp(info.seconds, info.milliseconds, info.microseconds);
        ASSERT_TRUE(sequence.Write(&image));
        frameIds.push_back(info.frameId);
    }

    // Reads every recorded frame back and compares every pixel with the fake camera's pattern
    // for the frame id it was recorded with; returns the number of intact frames.
    size_t VerifyRecording() {
        size_t intact = 0;
        KImage frame;
        std::vector<uint8_t> row(kSide);
        for (size_t i = 0; i < frameIds.size(); ++i) {
            if (!sequence.Read(&frame, static_cast<unsigned>(i + 1))) continue;
            const uint8_t* p = frame.GetRawImageData();
            bool good = frame.GetImageWidth() == kSide && frame.GetImageHeight() == kSide;
            for (uint32_t y = 0; good && y < kSide; ++y) {
                for (uint32_t x = 0; x < kSide; ++x) row[x] = FakeMono8(x, y, frameIds[i]);
                good = std::memcmp(p + y * kSide, row.data(), kSide) == 0;
            }
            intact += good ? 1 : 0;
        }
        return intact;
    }

    RecordingSink sink;
    KSequence sequence;
    KImage image;
    std::vector<uint64_t> frameIds;
};

TEST_F(GenICamStreaming, ThousandFramesIntoAMemorySequenceNoneLost) {
    SetFrameRate(500.0);
    ASSERT_EQ(camera->SetBufferCount(16), kKOk);
    const StreamResult run = StreamImages(
        camera,
        [&](void* pixels) {
            Record(pixels);
            return frameIds.size() < 1000;
        },
        120);
    EXPECT_FALSE(run.queueFailed);
    ASSERT_EQ(frameIds.size(), 1000u);
    EXPECT_EQ(sequence.GetImageWidth(), kSide);

    // Consecutive device frame ids (the fake camera's ids are 16 bits wide and wrap to 1).
    size_t consecutive = 0;
    for (size_t i = 1; i < frameIds.size(); ++i) {
        consecutive += frameIds[i] == FrameIdTracker::Next16(frameIds[i - 1]) ? 1 : 0;
    }
    EXPECT_EQ(consecutive, frameIds.size() - 1);
    EXPECT_EQ(VerifyRecording(), 1000u);

    // Timestamps never go backwards.
    int64_t previous = 0;
    size_t ordered = 0;
    for (unsigned frame = 1; frame <= 1000; ++frame) {
        int32_t s = 0;
        unsigned short ms = 0, us = 0;
        ASSERT_TRUE(sequence.ReadTimestamp(frame, s, ms, us));
        const int64_t now = static_cast<int64_t>(s) * 1000000 + ms * 1000 + us;
        ordered += now >= previous ? 1 : 0;
        previous = now;
    }
    EXPECT_EQ(ordered, 1000u);

    uint64_t delivered = 0, lost = 0, incomplete = 0;
    ASSERT_EQ(camera->GetFrameCounters(&delivered, &lost, &incomplete), kKOk);
    EXPECT_GE(delivered, 1000u);
    EXPECT_EQ(lost, 0u);
    EXPECT_EQ(incomplete, 0u);
    for (const RecordingSink::Entry& entry : sink.Entries()) {
        EXPECT_NE(entry.notification, eKNotificationFrameLost);
        EXPECT_NE(entry.notification, eKNotificationIncompleteFrame);
    }
    int32_t total = 0, maxUsage = -1, connected = 0;
    ASSERT_EQ(camera->GetTotalBufferCount(&total), kKOk);
    ASSERT_EQ(camera->GetMaxBufferUsage(&maxUsage), kKOk);
    EXPECT_EQ(total, 16);
    EXPECT_GE(maxUsage, 1);
    EXPECT_LE(maxUsage, 16);
    ASSERT_EQ(camera->Query(kQueryConnected, &connected), kKOk);
    EXPECT_EQ(connected, 1);
}

TEST_F(GenICamStreaming, SoftwareTriggerDeliversOneFramePerTrigger) {
    const int32_t mode = SettingIndex(camera, "TriggerMode");
    const int32_t source = SettingIndex(camera, "TriggerSource");
    ASSERT_GE(mode, 0);
    ASSERT_GE(source, 0);
    ASSERT_EQ(camera->SetCurrentValues(source, ValueIndex(camera, source, "Software")), kKOk);
    ASSERT_EQ(camera->SetCurrentValues(mode, ValueIndex(camera, mode, "On")), kKOk);
    const int32_t category = CategoryIndex(camera, "AcquisitionControl");
    const int32_t command = FeatureIndex(camera, category, "TriggerSoftware");
    ASSERT_GE(command, 0);

    ASSERT_EQ(camera->SetBufferCount(4), kKOk);
    std::mutex mutex;
    std::condition_variable arrived;
    constexpr size_t kTriggers = 5;
    std::thread trigger([&] {
        for (size_t i = 0; i < kTriggers; ++i) {
            EXPECT_EQ(camera->ExecuteCommandFeature(category, command), kKOk);
            std::unique_lock<std::mutex> lock(mutex);
            if (!arrived.wait_for(lock, std::chrono::seconds(10),
                                  [&] { return frameIds.size() > i; })) {
                ADD_FAILURE() << "no frame for trigger " << i;
                return;
            }
        }
    });
    const StreamResult run = StreamImages(
        camera,
        [&](void* pixels) {
            std::lock_guard<std::mutex> lock(mutex);
            Record(pixels);
            arrived.notify_all();
            return frameIds.size() < kTriggers;
        },
        60);
    trigger.join();
    EXPECT_FALSE(run.queueFailed);
    ASSERT_EQ(frameIds.size(), kTriggers);
    for (size_t i = 1; i < frameIds.size(); ++i) {
        EXPECT_EQ(frameIds[i], FrameIdTracker::Next16(frameIds[i - 1]));
    }
    EXPECT_EQ(VerifyRecording(), kTriggers);
}

TEST_F(GenICamStreaming, CameraLostWhileStreamingEndsCleanlyAndKeepsTheRecording) {
    SetFrameRate(100.0);
    ASSERT_EQ(camera->SetBufferCount(8), kKOk);
    const StreamResult run = StreamImages(
        camera,
        [&](void* pixels) {
            Record(pixels);
            if (frameIds.size() == 50) camera_.Kill();
            return true;  // streams until the driver ends it
        },
        60);
    // The loss is noticed by the heartbeat, raised with the advice to stop, and ends the
    // queue thread through a failed QueueGrab.
    EXPECT_TRUE(sink.WaitFor(eKNotificationCameraLost, 1000));
    bool advisedStop = false;
    for (const RecordingSink::Entry& entry : sink.Entries()) {
        if (entry.notification == eKNotificationCameraLost) {
            advisedStop = entry.action == eKActionStopStreaming;
        }
    }
    EXPECT_TRUE(advisedStop);
    EXPECT_TRUE(run.queueFailed);
    int32_t connected = 1;
    ASSERT_EQ(camera->Query(kQueryConnected, &connected), kKOk);
    EXPECT_EQ(connected, 0);
    EXPECT_LT(camera->Start(), 0);

    // Everything recorded before the loss is intact.
    EXPECT_GE(frameIds.size(), 50u);
    EXPECT_EQ(VerifyRecording(), frameIds.size());
}

}  // namespace
}  // namespace kestor::genicam::test
