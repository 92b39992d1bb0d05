// Shared pieces of the GenICam driver tests: Aravis's fake GigE Vision camera started on
// loopback as a child process, a scratch registry holding the driver's settings, a
// notification sink, a streaming loop shaped like the grab module's two threads, and a
// fixture with an initialised driver.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "KGrabberAbi.h"
#include "genicam/GenICamCamera.h"
#include "platform/WideString.h"
#include "support/TempDir.h"

namespace kestor::genicam::test {

inline constexpr char kLoopback[] = "127.0.0.1";
inline constexpr char16_t kSettingsKey[] = u"Software\\KestorTest\\Grabdesk\\";

// arv-fake-gv-camera-0.8 listening on 127.0.0.1. Only one can listen there, so a lock file
// serialises the tests of every process that uses it; the lock is kept until destruction.
class FakeGigECamera {
public:
    FakeGigECamera() = default;
    ~FakeGigECamera();
    FakeGigECamera(const FakeGigECamera&) = delete;
    FakeGigECamera& operator=(const FakeGigECamera&) = delete;

    // Starts a fresh camera (default settings) and waits (bounded) until it answers; false
    // with a reason when it cannot run here.
    bool Start(std::string& why);
    void Kill();  // SIGKILL, as a camera that loses power

private:
    pid_t pid_ = -1;
    int lockFd_ = -1;
};

class RecordingSink final : public IKNotificationSink {
public:
    KStatus QueryInterface(const KGuid& iid, void** out) override;
    uint32_t AddRef() override { return 1; }
    uint32_t Release() override { return 1; }
    KStatus OnNotification(int32_t notification, int32_t action, int64_t extra) override;

    struct Entry {
        int32_t notification;
        int32_t action;
    };
    std::vector<Entry> Entries();
    bool WaitFor(int32_t notification, int timeoutMs);  // bounded

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<Entry> entries_;
};

// A scratch registry with the driver's settings; the camera value set to `camera`.
class ScratchSettings {
public:
    explicit ScratchSettings(const std::string& camera);
    ~ScratchSettings();

private:
    kestor::test::TempDir folder_;
    std::optional<std::string> previous_;
};

// Streams as the grab module does: a queue thread calling QueueGrab, a read thread calling
// WaitImage/ReleaseImage and `onImage` for each image until it returns false (or `maxSeconds`
// passed), then Stop, CancelQueuedGrabs and FreeQueue.
struct StreamResult {
    uint64_t images = 0;
    bool queueFailed = false;
};
StreamResult StreamImages(IKGrabber* grabber, const std::function<bool(void* pixels)>& onImage,
                          int maxSeconds);

// The fake camera's Mono8 pattern at gain 0 and an exposure of 10 ms.
inline uint8_t FakeMono8(uint32_t x, uint32_t y, uint64_t frameId) {
    return static_cast<uint8_t>((x + y + frameId) % 255);
}

// Index of the named item of the driver, or -1.
int32_t SettingIndex(GenICamCamera* camera, const std::string& name);
int32_t ValueIndex(GenICamCamera* camera, int32_t setting, const std::string& name);
int32_t AdjustmentIndex(GenICamCamera* camera, const std::string& name);
int32_t CategoryIndex(GenICamCamera* camera, const std::string& name);
int32_t FeatureIndex(GenICamCamera* camera, int32_t category, const std::string& name);

// Every test gets a freshly started fake camera (it keeps its settings between connections)
// and a scratch registry naming it; skipped where the fake camera cannot run.
class FakeCameraTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        if (!camera_.Start(why)) GTEST_SKIP() << why;
        settings_.emplace(kLoopback);
    }
    void TearDown() override {
        settings_.reset();
        camera_.Kill();
    }

    FakeGigECamera camera_;
    std::optional<ScratchSettings> settings_;
};

// ... with the driver initialised on it.
class GenICamCameraTest : public FakeCameraTest {
protected:
    void SetUp() override {
        FakeCameraTest::SetUp();
        if (IsSkipped()) return;
        camera = new GenICamCamera();
        KAbiChar error[kKMaxNameLength] = {};
        ASSERT_EQ(camera->Initialize(kSettingsKey, error, kKMaxNameLength), kKOk)
            << WideToUtf8(error);
    }
    void TearDown() override {
        if (camera != nullptr) camera->Release();
        FakeCameraTest::TearDown();
    }

    GenICamCamera* camera = nullptr;
};

}  // namespace kestor::genicam::test
