// Shared pieces of the simulated camera tests: a scratch registry store per test, a camera
// made on it, and the two streaming threads of the grab module played by the test itself.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "KTestPattern.h"
#include "platform/RegistryDatabase.h"
#include "simulated/SimulatedCamera.h"
#include "support/TempDir.h"

namespace kestor::simulated::testing {

inline constexpr const KChar* kSettingsKey = u"Software\\KestorTest\\Grabdesk\\";
inline constexpr const KChar* kCameraKey = u"Software\\KestorTest\\Grabdesk\\Simulated Camera";

// Counts the notifications a driver raises.
class CountingSink final : public IKNotificationSink {
public:
    KStatus QueryInterface(const KGuid&, void** out) override {
        *out = nullptr;
        return kKNoInterface;
    }
    uint32_t AddRef() override { return 1; }
    uint32_t Release() override { return 1; }
    KStatus OnNotification(int32_t notification, int32_t, int64_t) override {
        if (notification >= 0 && notification < 16) ++counts[notification];
        return kKOk;
    }
    std::atomic<int> counts[16] = {};
};

class SimulatedCameraTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* value = getenv("KESTOR_REGISTRY")) previous_ = value;
        setenv("KESTOR_REGISTRY", folder_.File("registry.db").c_str(), 1);
    }
    void TearDown() override {
        previous_ ? setenv("KESTOR_REGISTRY", previous_->c_str(), 1) : unsetenv("KESTOR_REGISTRY");
        RegistryDatabase::CloseUnused();
    }

    // A camera initialised on the scratch store; the test fails when it cannot be.
    static KComPtr<SimulatedCamera> MakeCamera() {
        auto camera = KComPtr<SimulatedCamera>::Adopt(new SimulatedCamera());
        KAbiChar error[kKMaxNameLength];
        EXPECT_EQ(camera->Initialize(kSettingsKey, error, kKMaxNameLength), kKOk);
        return camera;
    }

    // Edits the configuration as a change in the registry store would.
    template <typename Edit>
    static void Configure(SimulatedCamera& camera, Edit edit) {
        ASSERT_EQ(camera.Change([&](SimulatedConfig& config) {
            edit(config);
            return true;
        }),
                  kKOk);
    }
    // A small, fast configuration for streaming tests.
    static void UseSmallFrames(SimulatedCamera& camera, double frameRate, bool freeRun) {
        ASSERT_EQ(camera.SetImageSize(128, 64, 0, 0), kKOk);
        Configure(camera, [&](SimulatedConfig& c) {
            c.frameRate = frameRate;
            c.freeRun = freeRun;
        });
    }

    ::kestor::test::TempDir folder_{std::filesystem::temp_directory_path().string()};
    std::optional<std::string> previous_;
};

// The queue and read threads of the grab module. The reader checks every image against the
// test pattern and records its frame number; `readerDelay` runs before each release.
class StreamingRun {
public:
    StreamingRun(SimulatedCamera& camera, KImageDescription description,
                 std::function<void()> readerDelay = {})
        : camera_(camera), description_(description), readerDelay_(std::move(readerDelay)) {}
    ~StreamingRun() { Finish(); }

    void Begin() {
        queueStatus = kKOk;
        queue_ = std::thread([this] {
            KStatus status;
            while ((status = camera_.QueueGrab()) == kKOk) ++queued;
            queueStatus = status;
        });
        reader_ = std::thread([this] {
            while (reading_) {
                void* pixels = nullptr;
                camera_.WaitImage(&pixels);
                if (pixels == nullptr) {
                    ++nullWaits;
                    continue;
                }
                uint64_t number = 0;
                if (KTestPatternVerify(static_cast<uint8_t*>(pixels), description_, &number)) {
                    numbers.push_back(number);
                    ++images;
                } else {
                    ++badImages;
                }
                if (readerDelay_) readerDelay_();
                camera_.ReleaseImage();
            }
        });
    }
    // Waits until the reader saw `count` images or the queue thread ended.
    void WaitForImages(size_t count) {
        while (images + badImages < count && !queueEnded()) std::this_thread::yield();
    }
    bool queueEnded() const { return queueStatus != kKOk; }
    // The grab module's end of streaming: Stop, then cancel and free on the queue side.
    void Finish() {
        if (!queue_.joinable()) return;
        camera_.Stop();
        queue_.join();
        reading_ = false;
        camera_.CancelQueuedGrabs();
        camera_.FreeQueue();
        reader_.join();
    }

    std::vector<uint64_t> numbers;  // written by the reader; read after Finish
    std::atomic<size_t> images{0};
    std::atomic<size_t> badImages{0};
    std::atomic<size_t> nullWaits{0};
    std::atomic<uint64_t> queued{0};
    std::atomic<KStatus> queueStatus{kKOk};

private:
    SimulatedCamera& camera_;
    KImageDescription description_;
    std::function<void()> readerDelay_;
    std::atomic<bool> reading_{true};
    std::thread queue_, reader_;
};

}  // namespace kestor::simulated::testing
