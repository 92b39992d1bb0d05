// Streaming throughput of the GenICam driver: frames and bytes per second delivered from
// Aravis's fake GigE Vision camera (on 127.0.0.1) into a memory sequence, compared with what
// Aravis's own arv-camera-test-0.8 receives from the same camera with the same geometry and
// frame rate for the same time in the same run. The fake camera renders its frames in
// software, so it sets the pace; the ratio shows what the driver loses on the way.
//
//   bench_genicam_stream [seconds] [width] [height] [frames per second]
//   (defaults 5 512 512 1000; KESTOR_DRIVER_PATH names the plugin folder, else the build's)
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "KGrab.h"
#include "KImage.h"
#include "KSequence.h"
#include "core/CKestorImage.h"
#include "platform/PluginCatalog.h"
#include "platform/Registry.h"
#include "platform/WideString.h"

extern char** environ;

namespace {

using namespace kestor;
using Clock = std::chrono::steady_clock;

constexpr char kFakeCamera[] = "/usr/bin/arv-fake-gv-camera-0.8";
constexpr char kCameraTest[] = "/usr/bin/arv-camera-test-0.8";
constexpr char16_t kSettingsKey[] = u"Software\\KestorBench\\Grabdesk\\";

struct Options {
    int seconds = 5;
    int width = 512;
    int height = 512;
    double rate = 1000.0;
};

struct Figures {
    double seconds = 0;
    uint64_t frames = 0;
    uint64_t bytes = 0;
    uint64_t lost = 0;
    double FramesPerSecond() const { return seconds > 0 ? frames / seconds : 0; }
    double MegabytesPerSecond() const { return seconds > 0 ? bytes / seconds / 1e6 : 0; }
};

bool GvcpAnswers(int tries, int timeoutMs) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return false;
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(3956);
    inet_pton(AF_INET, "127.0.0.1", &target.sin_addr);
    bool answered = false;
    for (int i = 0; i < tries && !answered; ++i) {
        const uint8_t packet[12] = {0x42, 0x01, 0x00, 0x80, 0x00, 0x04, 0, 1, 0, 0, 0, 0};
        sendto(fd, packet, sizeof packet, 0, reinterpret_cast<const sockaddr*>(&target),
               sizeof target);
        pollfd pfd{fd, POLLIN, 0};
        uint8_t reply[64];
        answered = poll(&pfd, 1, timeoutMs) > 0 && recv(fd, reply, sizeof reply, 0) >= 8 &&
                   reply[3] == 0x81;
    }
    close(fd);
    return answered;
}

pid_t Spawn(std::vector<std::string> args, int outputFd) {
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (outputFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, outputFd, 1);
    } else {
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    }
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

void Reap(pid_t pid, bool kill) {
    if (pid <= 0) return;
    if (kill) ::kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
}

pid_t StartFakeCamera() {
    const pid_t pid = Spawn({kFakeCamera, "-i", "127.0.0.1"}, -1);
    if (pid <= 0) return -1;
    for (int i = 0; i < 100; ++i) {
        if (GvcpAnswers(1, 100)) return pid;
    }
    Reap(pid, true);
    return -1;
}

uint64_t ValueAfter(const std::string& text, const std::string& name) {
    const size_t at = text.find(name);
    if (at == std::string::npos) return 0;
    const size_t equals = text.find('=', at);
    return equals == std::string::npos ? 0 : std::strtoull(text.c_str() + equals + 1, nullptr, 10);
}

// Aravis's own test client, run for the same time against the same camera.
bool RunAravisClient(const Options& options, Figures& figures, std::string& command) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return false;
    std::vector<std::string> args = {kCameraTest, "-n",
                                     "127.0.0.1", "--duration=" + std::to_string(options.seconds),
                                     "-f",        std::to_string(options.rate),
                                     "-w",        std::to_string(options.width),
                                     "-h",        std::to_string(options.height)};
    command.clear();
    for (const std::string& arg : args) command += (command.empty() ? "" : " ") + arg;
    const pid_t pid = Spawn(args, pipeFds[1]);
    close(pipeFds[1]);
    std::string output;
    char chunk[4096];
    ssize_t n;
    while ((n = read(pipeFds[0], chunk, sizeof chunk)) > 0) output.append(chunk, n);
    close(pipeFds[0]);
    Reap(pid, false);
    figures.seconds = options.seconds;
    figures.frames = ValueAfter(output, "n_completed_buffers");
    figures.bytes = figures.frames * ValueAfter(output, "payload");
    figures.lost = ValueAfter(output, "n_failures") + ValueAfter(output, "n_underruns") +
                   ValueAfter(output, "n_missing_frames");
    return pid > 0 && figures.frames > 0;
}

int32_t AdjustmentIndex(IKAdjustments* adjustments, const std::string& wanted) {
    int32_t count = 0;
    adjustments->GetCount(&count);
    for (int32_t i = 0; i < count; ++i) {
        KAbiChar name[kKMaxNameLength] = {};
        if (adjustments->GetCaps(i, nullptr, name, kKMaxNameLength, nullptr, nullptr, nullptr,
                                 nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) == kKOk &&
            WideToUtf8(name) == wanted) {
            return i;
        }
    }
    return -1;
}

// The driver, streamed the way the grab module streams it, into a memory sequence.
bool RunDriver(const Options& options, Figures& figures, std::string& error) {
    PluginCatalog::Instance().Rescan();
    KComPtr<IKGrabberManager> manager;
    if (KFailed(PluginCatalog::Instance().CreateInstance(
            CLSID_KGrabberManager, IID_IKGrabberManager, manager.Out(), &error))) {
        return false;
    }
    KAbiChar text[kKMaxNameLength] = {};
    if (KFailed(manager->Initialize(u"GenICam", kSettingsKey, text, kKMaxNameLength))) {
        error = WideToUtf8(text);
        return false;
    }
    auto grabber = KComPtr<IKGrabber>::Query(manager.Get(), IID_IKGrabber);
    auto format = KComPtr<IKImageFormat>::Query(manager.Get(), IID_IKImageFormat);
    auto adjustments = KComPtr<IKAdjustments>::Query(manager.Get(), IID_IKAdjustments);
    auto frameInfo = KComPtr<IKFrameInfo>::Query(manager.Get(), IID_IKFrameInfo);
    const int32_t rate = AdjustmentIndex(adjustments.Get(), "AcquisitionFrameRate");
    if (KFailed(format->SetImageSize(options.width, options.height, 0, 0)) || rate < 0 ||
        KFailed(adjustments->SetDoubleValue(rate, options.rate)) ||
        KFailed(grabber->SetBufferCount(32))) {
        error = "the camera refuses the geometry, the frame rate or the buffers";
        return false;
    }
    KImageDescription description{};
    uint32_t left = 0, top = 0;
    format->GetImageSize(&description.width, &description.height, &left, &top);
    format->GetBitDepth(&description.bitDepth);
    format->GetRealBitDepth(&description.bitDepthReal);
    format->GetImageSizeBytes(&description.sizeBytes);
    uint32_t imageFormat = 0;
    format->GetImageFormat(&imageFormat);
    description.format = imageFormat;
    int32_t bufferBytes = 0;
    KComPtr<IKQuery>::Query(manager.Get(), IID_IKQuery)->Query(4, &bufferBytes);  // buffer size

    KSequence sequence;
    if (!sequence.Create(static_cast<const KChar*>(nullptr))) {
        error = "no memory sequence";
        return false;
    }
    CKestorImage wrapper;
    KImage image(&wrapper);
    std::atomic<bool> queueRunning{true}, readRunning{true};
    std::atomic<uint64_t> written{0};
    bool writeFailed = false;
    const auto start = Clock::now();
    grabber->Start();
    std::thread reader([&] {
        while (readRunning.load()) {
            void* pixels = nullptr;
            grabber->WaitImage(&pixels);
            if (pixels == nullptr || !readRunning.load()) continue;
            // Zero copy up to the sequencer: the image shows the driver's buffer.
            wrapper.AttachForeignBuffer(description, static_cast<uint8_t*>(pixels),
                                        static_cast<uint64_t>(bufferBytes));
            KGrabFrameInfo info{sizeof(KGrabFrameInfo), 0, 0, 0, 0, 0};
            frameInfo->GetLastImageInfo(&info);
            image.SetTimestamp(info.seconds, info.milliseconds, info.microseconds);
            if (sequence.Write(&image)) {
                ++written;
            } else {
                writeFailed = true;
            }
            grabber->ReleaseImage();
        }
    });
    std::thread queue([&] {
        while (queueRunning.load()) {
            if (KFailed(grabber->QueueGrab())) queueRunning = false;
        }
        readRunning = false;
        grabber->CancelQueuedGrabs();
        grabber->FreeQueue();
        reader.join();
    });
    std::this_thread::sleep_until(start + std::chrono::seconds(options.seconds));
    const uint64_t frames = written.load();
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    queueRunning = false;
    grabber->Stop();
    queue.join();
    uint64_t delivered = 0, lost = 0, incomplete = 0;
    frameInfo->GetFrameCounters(&delivered, &lost, &incomplete);
    figures.seconds = elapsed;
    figures.frames = frames;
    figures.bytes = frames * description.sizeBytes;
    figures.lost = lost + incomplete;
    if (writeFailed) error = "a frame could not be written to the memory sequence";
    return !writeFailed;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (argc > 1) options.seconds = std::max(1, atoi(argv[1]));
    if (argc > 2) options.width = std::max(1, atoi(argv[2]));
    if (argc > 3) options.height = std::max(1, atoi(argv[3]));
    if (argc > 4) options.rate = std::max(1.0, atof(argv[4]));
    if (access(kFakeCamera, X_OK) != 0 || access(kCameraTest, X_OK) != 0) {
        std::printf("skipped: the Aravis tools (package aravis-tools) are not installed\n");
        return 0;
    }
    if (getenv("KESTOR_DRIVER_PATH") == nullptr) {
        const auto self = std::filesystem::read_symlink("/proc/self/exe").parent_path();
        setenv("KESTOR_DRIVER_PATH", (self.parent_path() / "lib" / "kestor").c_str(), 1);
    }
    char folder[] = "/tmp/kestor-bench-genicam-XXXXXX";
    if (mkdtemp(folder) == nullptr) return 1;
    setenv("KESTOR_REGISTRY", (std::string(folder) + "/registry.db").c_str(), 1);
    {
        RegistryKey key;
        RegistryKey::Create(WideString(kSettingsKey) + u"GenICam", key);
        key.SetString(u"Camera", u"127.0.0.1");
    }

    int result = 1;
    Figures aravis, driver;
    std::string command, error;
    pid_t camera = StartFakeCamera();
    if (camera <= 0) {
        std::printf("skipped: the fake camera does not start on 127.0.0.1\n");
        result = 0;
    } else if (!RunAravisClient(options, aravis, command)) {
        std::printf("failed: %s received nothing\n", kCameraTest);
    } else {
        Reap(camera, true);  // a fresh camera for the driver: same defaults, same state
        camera = StartFakeCamera();
        if (camera > 0 && RunDriver(options, driver, error)) {
            const double frameRatio = driver.FramesPerSecond() / aravis.FramesPerSecond();
            const double byteRatio = driver.MegabytesPerSecond() / aravis.MegabytesPerSecond();
            std::printf(
                "GenICam driver streaming, fake GigE Vision camera on 127.0.0.1, %dx%d "
                "Mono8 at up to %.0f frames/s, %d s each\n",
                options.width, options.height, options.rate, options.seconds);
            std::printf("  peer: %s\n", command.c_str());
            std::printf("  %-32s %10.1f frames/s %10.1f MB/s  lost %llu\n", "arv-camera-test-0.8",
                        aravis.FramesPerSecond(), aravis.MegabytesPerSecond(),
                        static_cast<unsigned long long>(aravis.lost));
            std::printf("  %-32s %10.1f frames/s %10.1f MB/s  lost %llu\n",
                        "driver -> memory sequence", driver.FramesPerSecond(),
                        driver.MegabytesPerSecond(), static_cast<unsigned long long>(driver.lost));
            std::printf(
                "  ratio: %.3f (frames), %.3f (bytes); target >= 0.95 with no frame "
                "lost: %s\n",
                frameRatio, byteRatio, frameRatio >= 0.95 && driver.lost == 0 ? "met" : "NOT met");
            result = 0;
        } else {
            std::printf("failed: %s\n", error.c_str());
        }
    }
    Reap(camera, true);
    std::filesystem::remove_all(folder);
    return result;
}
