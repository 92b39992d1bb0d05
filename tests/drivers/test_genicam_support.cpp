// Helpers of the GenICam driver tests (see test_genicam_support.h). Not a test file of its
// own: the file name only follows the folder's naming.
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
constexpr uint16_t kGvcpPort = 3956;

}  // namespace

bool GvcpAnswers(const char* address, int tries, int timeoutMs) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return false;
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(kGvcpPort);
    inet_pton(AF_INET, address, &target.sin_addr);
    bool answered = false;
    for (int i = 0; i < tries && !answered; ++i) {
        // READREG of the version register: key 0x42, flag "acknowledge", command 0x0080,
        // 4 bytes of payload, request id, register address 0.
        const uint16_t id = static_cast<uint16_t>(i + 1);
        const uint8_t packet[12] = {0x42,
                                    0x01,
                                    0x00,
                                    0x80,
                                    0x00,
                                    0x04,
                                    static_cast<uint8_t>(id >> 8),
                                    static_cast<uint8_t>(id),
                                    0,
                                    0,
                                    0,
                                    0};
        sendto(fd, packet, sizeof packet, 0, reinterpret_cast<const sockaddr*>(&target),
               sizeof target);
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, timeoutMs) > 0) {
            uint8_t reply[64];
            const ssize_t n = recv(fd, reply, sizeof reply, 0);
            answered = n >= 8 && reply[2] == 0x00 && reply[3] == 0x81;
        }
    }
    close(fd);
    return answered;
}

FakeGigECamera::~FakeGigECamera() {
    Kill();
    if (lockFd_ >= 0) close(lockFd_);  // releases the lock
}

void FakeGigECamera::Lock() {
    if (lockFd_ >= 0) return;
    lockFd_ = open(kLockFile, O_CREAT | O_RDWR | O_CLOEXEC, 0666);
    if (lockFd_ >= 0) flock(lockFd_, LOCK_EX);
}

bool FakeGigECamera::Start(std::string& why) {
    Lock();
    Kill();
    if (access(kFakeCameraProgram, X_OK) != 0) {
        why = std::string(kFakeCameraProgram) + " is not installed (package aravis-tools)";
        return false;
    }
    if (GvcpAnswers(kLoopback, 1, 50)) {
        why = "another GigE Vision device already answers at 127.0.0.1";
        return false;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    char program[] = "/usr/bin/arv-fake-gv-camera-0.8";
    char option[] = "-i";
    char address[] = "127.0.0.1";
    char* argv[] = {program, option, address, nullptr};
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, kFakeCameraProgram, &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        why = std::string("cannot start the fake camera: ") + strerror(spawned);
        return false;
    }
    pid_ = pid;
    // Up to 10 s for it to answer; it normally does within a few tens of milliseconds.
    for (int i = 0; i < 100; ++i) {
        if (GvcpAnswers(kLoopback, 1, 100)) return true;
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
    if (previous_) {
        setenv("KESTOR_REGISTRY", previous_->c_str(), 1);
    } else {
        unsetenv("KESTOR_REGISTRY");
    }
}

void ScratchSettings::SetDword(const char16_t* name, uint32_t value) {
    RegistryKey key;
    ASSERT_EQ(RegistryKey::Create(WideString(kSettingsKey) + u"GenICam", key), RegStatus::Ok);
    key.SetDword(name, value);
}

StreamResult StreamImages(IKGrabber* grabber, const std::function<bool(void* pixels)>& onImage,
                          int maxSeconds) {
    StreamResult result;
    std::atomic<bool> queueRunning{true};
    std::atomic<bool> readRunning{true};
    std::atomic<bool> done{false};
    std::atomic<bool> queueFailed{false};
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

int32_t FindByName(int32_t count, const std::function<bool(int32_t, KAbiChar*, uint32_t)>& name,
                   const std::string& wanted) {
    for (int32_t i = 0; i < count; ++i) {
        KAbiChar text[kKMaxNameLength] = {};
        if (name(i, text, kKMaxNameLength) && WideToUtf8(text) == wanted) return i;
    }
    return -1;
}

}  // namespace kestor::genicam::test
