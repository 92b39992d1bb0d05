// Helpers of the GenICam driver tests (see test_genicam_support.h).
#include "test_genicam_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "platform/Registry.h"
#include "platform/RegistryDatabase.h"

extern char** environ;

namespace kestor::genicam::test {
namespace {

constexpr char kFakeCameraProgram[] = "/usr/bin/arv-fake-gv-camera-0.8";
constexpr char kLockFile[] = "/tmp/kestor-genicam-fake-camera.lock";

// True when a GigE Vision device at `address` answers a register read within `timeoutMs`.
bool GvcpAnswers(const char* address, int timeoutMs) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return false;
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(3956);
    inet_pton(AF_INET, address, &target.sin_addr);
    // READREG of the version register: key 0x42, flag "acknowledge", command 0x0080, 4 bytes
    // of payload, request id 1, register address 0.
    const uint8_t packet[12] = {0x42, 0x01, 0x00, 0x80, 0x00, 0x04, 0x00, 0x01};
    sendto(fd, packet, sizeof packet, 0, reinterpret_cast<const sockaddr*>(&target), sizeof target);
    bool answered = false;
    pollfd pfd{fd, POLLIN, 0};
    if (poll(&pfd, 1, timeoutMs) > 0) {
        uint8_t reply[64];
        const ssize_t n = recv(fd, reply, sizeof reply, 0);
        answered = n >= 8 && reply[2] == 0x00 && reply[3] == 0x81;
    }
    close(fd);
    return answered;
}

template <typename NameOf>
int32_t Find(int32_t count, const std::string& wanted, NameOf nameOf) {
    for (int32_t i = 0; i < count; ++i) {
        KAbiChar text[kKMaxNameLength] = {};
        if (nameOf(i, text) == kKOk && WideToUtf8(text) == wanted) return i;
    }
    return -1;
}

}  // namespace

FakeGigECamera::~FakeGigECamera() {
    Kill();
    if (lockFd_ >= 0) close(lockFd_);  // releases the lock
}

bool FakeGigECamera::Start(std::string& why) {
    if (lockFd_ < 0) {
        lockFd_ = open(kLockFile, O_CREAT | O_RDWR | O_CLOEXEC, 0666);
        if (lockFd_ >= 0) flock(lockFd_, LOCK_EX);
    }
    Kill();
    if (access(kFakeCameraProgram, X_OK) != 0) {
        why = std::string(kFakeCameraProgram) + " is not installed (package aravis-tools)";
        return false;
    }
    if (GvcpAnswers(kLoopback, 50)) {
        why = "another GigE Vision device already answers at 127.0.0.1";
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    char program[] = "/usr/bin/arv-fake-gv-camera-0.8", option[] = "-i", address[] = "127.0.0.1";
    char* argv[] = {program, option, address, nullptr};
    const int spawned = posix_spawn(&pid_, kFakeCameraProgram, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        pid_ = -1;
        why = std::string("cannot start the fake camera: ") + strerror(spawned);
        return false;
    }
    // Up to 10 s for it to answer; it normally does within a few tens of milliseconds.
    for (int i = 0; i < 100; ++i) {
        if (GvcpAnswers(kLoopback, 100)) return true;
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            why = "the fake camera exited at once";
            return false;
        }
    }
    why = "the fake camera does not answer at 127.0.0.1";
    Kill();
    return false;
}

void FakeGigECamera::Kill() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
}

KStatus RecordingSink::QueryInterface(const KGuid& iid, void** out) {
    if (out == nullptr) return kKPointer;
    *out = nullptr;
    if (iid != IID_IKUnknown && iid != IID_IKNotificationSink) return kKNoInterface;
    *out = static_cast<IKNotificationSink*>(this);
    return kKOk;
}

KStatus RecordingSink::OnNotification(int32_t notification, int32_t action, int64_t) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(Entry{notification, action});
    }
    arrived_.notify_all();
    return kKOk;
}

std::vector<RecordingSink::Entry> RecordingSink::Entries() {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
}

bool RecordingSink::WaitFor(int32_t notification, int timeoutMs) {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        for (const Entry& entry : entries_) {
            if (entry.notification == notification) return true;
        }
        return false;
    });
}

ScratchSettings::ScratchSettings(const std::string& camera) {
    if (const char* value = getenv("KESTOR_REGISTRY")) previous_ = value;
    setenv("KESTOR_REGISTRY", folder_.File("registry.db").c_str(), 1);
    RegistryKey key;
    EXPECT_EQ(RegistryKey::Create(WideString(kSettingsKey) + u"GenICam", key), RegStatus::Ok);
    key.SetString(u"Camera", Utf8ToWide(camera));
}

ScratchSettings::~ScratchSettings() {
    RegistryDatabase::CloseUnused();
    previous_ ? setenv("KESTOR_REGISTRY", previous_->c_str(), 1) : unsetenv("KESTOR_REGISTRY");
}

StreamResult StreamImages(IKGrabber* grabber, const std::function<bool(void* pixels)>& onImage,
                          int maxSeconds) {
    StreamResult result;
    std::atomic<bool> queueRunning{true}, readRunning{true}, done{false}, queueFailed{false};
    EXPECT_GE(grabber->Start(), 0);
    std::thread reader([&] {
        while (readRunning.load()) {
            void* pixels = nullptr;
            grabber->WaitImage(&pixels);
            if (pixels == nullptr || !readRunning.load()) continue;
            ++result.images;
            if (!done.load() && !onImage(pixels)) done = true;
            grabber->ReleaseImage();
        }
    });
    std::thread queue([&] {
        while (queueRunning.load()) {
            if (grabber->QueueGrab() < 0) {
                queueFailed = true;
                queueRunning = false;
            }
        }
        readRunning = false;
        grabber->CancelQueuedGrabs();
        grabber->FreeQueue();
        reader.join();
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(maxSeconds);
    while (!done.load() && !queueFailed.load() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    queueRunning = false;
    grabber->Stop();
    queue.join();
    result.queueFailed = queueFailed.load();
    return result;
}

constexpr uint32_t kRoom = kKMaxNameLength;

int32_t SettingIndex(GenICamCamera* c, const std::string& name) {
    int32_t n = 0;
    c->GetSettingsCount(&n);
    return Find(n, name,
                [&](int32_t i, KAbiChar* t) { return c->GetSettingsCaps(i, t, kRoom, 0); });
}

int32_t ValueIndex(GenICamCamera* c, int32_t setting, const std::string& name) {
    int32_t n = 0;
    c->GetValuesCount(setting, &n);
    return Find(n, name,
                [&](int32_t i, KAbiChar* t) { return c->GetValuesCaps(setting, i, t, kRoom, 0); });
}

int32_t AdjustmentIndex(GenICamCamera* c, const std::string& name) {
    int32_t n = 0;
    c->GetCount(&n);
    return Find(n, name, [&](int32_t i, KAbiChar* t) {
        return c->GetCaps(i, 0, t, kRoom, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    });
}

int32_t CategoryIndex(GenICamCamera* c, const std::string& name) {
    int32_t n = 0;
    c->GetCategoriesCount(&n);
    return Find(n, name,
                [&](int32_t i, KAbiChar* t) { return c->GetCategoriesCap(i, 0, t, kRoom); });
}

int32_t FeatureIndex(GenICamCamera* c, int32_t category, const std::string& name) {
    int32_t n = 0;
    c->GetFeatureCount(category, &n);
    return Find(n, name, [&](int32_t i, KAbiChar* t) {
        return c->GetFeatureCap(category, i, 0, t, kRoom, 0, 0);
    });
}

}  // namespace kestor::genicam::test
