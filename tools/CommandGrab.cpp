// `kestor grab`: records from a camera driver into a disk or RAM sequence, with a live line of
// frame rate, buffer usage and lost frames, then checks the simulated camera's frames.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "Commands.h"
#include "DriverSettingsFile.h"
#include "GrabFeatures.h"
#include "KGrab.h"
#include "KSequence.h"
#include "KTestPattern.h"
#include "KUtils.h"

namespace kestor::tool {
namespace {

using Clock = std::chrono::steady_clock;

std::string ErrorText(eKErrorCode code) {
    return KWideToUtf8(KErrorManager::GetErrorString(code));
}

// Writes every image it receives, until the target is reached or a write fails.
class Recorder : public KGrabCallbacks {
public:
    Recorder(KSequence& sequence, uint64_t target) : sequence_(sequence), target_(target) {}

    void OnImageReceived(KImage* image, unsigned int, void*) override {
        if (done_.load()) return;
        if (!sequence_.Write(image)) {
            writeFailed_ = true;
            Finish();
            return;
        }
        bytes_ += image->GetImageSizeBytes();
        if (++written_ == target_) Finish();
    }
    void OnNotification(eKGRABBER_NOTIFICATION notification, eKSUGGESTED_ACTION action) override {
        if (notification == eKNotificationCameraLost || action == eKActionStopStreaming) {
            cameraLost_ = notification == eKNotificationCameraLost;
            stopAsked_ = true;
            Finish();
        }
    }

    // Waits until done or `until`; true when done.
    bool WaitUntil(Clock::time_point until) {
        std::unique_lock lock(mutex_);
        return wake_.wait_until(lock, until, [this] { return done_.load(); });
    }
    void Finish() {
        std::lock_guard lock(mutex_);
        done_ = true;
        wake_.notify_all();
    }

    uint64_t Written() const { return written_.load(); }
    uint64_t Bytes() const { return bytes_.load(); }
    bool WriteFailed() const { return writeFailed_.load(); }
    bool CameraLost() const { return cameraLost_.load(); }
    bool StopAsked() const { return stopAsked_.load(); }

private:
    KSequence& sequence_;
    const uint64_t target_;  // 0: no limit
    std::atomic<uint64_t> written_{0}, bytes_{0};
    std::atomic<bool> done_{false}, writeFailed_{false}, cameraLost_{false}, stopAsked_{false};
    std::mutex mutex_;
    std::condition_variable wake_;
};

bool Configure(KGrabModule& module, const GrabOptions& options) {
    std::vector<std::string> assignments;
    if (!options.pixelFormat.empty()) assignments.push_back("PixelFormat=" + options.pixelFormat);
    if (options.freeRun) assignments.push_back("FreeRun=1");
    if (options.rate > 0)
        assignments.push_back("AcquisitionFrameRate=" + std::to_string(options.rate));
    assignments.insert(assignments.end(), options.features.begin(), options.features.end());
    for (const std::string& assignment : assignments) {
        std::string why;
        if (!SetFeature(module, assignment, why)) {
            std::fprintf(stderr, "kestor grab: %s\n", why.c_str());
            return false;
        }
    }
    unsigned x = 0, y = 0, width = 0, height = 0;
    module.GetROI(x, y, width, height);
    if (options.width) width = options.width, x = 0;
    if (options.height) height = options.height, y = 0;
    // Setting the region also refreshes the module's image description after the changes above.
    if (!module.SetROI(x, y, width, height)) {
        std::fprintf(stderr, "kestor grab: the driver refused a %u x %u image: %s\n", width, height,
                     ErrorText(module.GetLastError()).c_str());
        return false;
    }
    return true;
}

void PrintProgress(KGrabModule& module, const Recorder& recorder, Clock::time_point start) {
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    uint64_t delivered = 0, lost = 0, incomplete = 0;
    const bool counted = module.GetFrameCounters(delivered, lost, incomplete);
    const long usage = module.GetBufferUsage(), total = module.GetTotalBufferCount();
    std::fprintf(stderr, "\r%9llu frames  %9.1f frames/s  %8.1f MB/s  buffers %ld/%ld  lost %s   ",
                 static_cast<unsigned long long>(recorder.Written()), recorder.Written() / seconds,
                 recorder.Bytes() / seconds / 1e6, usage == 0xFFFFFFFFL ? 0 : usage,
                 total == 0xFFFFFFFFL ? 0 : total,
                 counted ? std::to_string(lost + incomplete).c_str() : "?");
}

// Reads the recording back and checks every frame's pattern and numbering.
bool VerifyPattern(KSequence& sequence) {
    KImage image;
    uint64_t previous = 0, torn = 0, missing = 0, outOfOrder = 0;
    const unsigned frames = sequence.GetAllocatedFrames();
    for (unsigned n = 1; n <= frames; ++n) {
        uint64_t number = 0;
        if (!sequence.Read(&image, n) ||
            !KTestPatternVerify(image.GetRawImageData(), image.GetImageDescription(), &number)) {
            ++torn;
            continue;
        }
        if (n > 1 && number <= previous) ++outOfOrder;
        if (n > 1 && number > previous + 1) missing += number - previous - 1;
        previous = number;
    }
    std::printf("Checked %u frames: %llu torn or corrupt, %llu out of order, %llu missing\n",
                frames, static_cast<unsigned long long>(torn),
                static_cast<unsigned long long>(outOfOrder),
                static_cast<unsigned long long>(missing));
    return torn == 0 && outOfOrder == 0 && missing == 0;
}

}  // namespace

int RunGrab(const GrabOptions& options) {
    const eKSupportedModule driver = KGrabModule::FindDriverByKey(options.driver.c_str());
    if (driver == eKModuleNone) {
        std::fprintf(stderr, "kestor grab: unknown driver \"%s\" (see kestor drivers)\n",
                     options.driver.c_str());
        return 2;
    }
    KGrabModule module;
    module.SetErrorOutput(false, false, false);
    module.SetBufferCount(options.buffers);

    // Driver settings given on the command line reach the driver through a settings file.
    std::string settingsFile = options.settingsFile;
    TemporarySettingsFile cameraSettings;
    if (!options.camera.empty()) {
        if (!cameraSettings.Write(driver, "Camera", options.camera)) {
            std::fprintf(stderr, "kestor grab: cannot write a temporary settings file\n");
            return 1;
        }
        settingsFile = cameraSettings.Path();
    }
    if (!module.Load(driver, options.company.c_str(), options.reset,
                     settingsFile.empty() ? nullptr : settingsFile.c_str(), false)) {
        std::fprintf(stderr, "kestor grab: cannot load the %s driver: %s\n", options.driver.c_str(),
                     ErrorText(module.GetLastError()).c_str());
        return 1;
    }
    if (!Configure(module, options)) return 1;

    KSequence sequence;
    sequence.SetErrorOutput(false, false, false);
    const bool ram = options.file.empty();
    if (!(ram ? sequence.Create(static_cast<const char*>(nullptr))
              : sequence.Create(options.file.c_str()))) {
        std::fprintf(stderr, "kestor grab: cannot create the sequence: %s\n",
                     ErrorText(sequence.GetLastError()).c_str());
        return 1;
    }
    if (ram && options.frames > 0 &&
        !sequence.PreAllocateImages(module.GetImageSizeBytes(),
                                    static_cast<unsigned>(options.frames))) {
        std::fprintf(stderr, "kestor grab: cannot reserve memory for %llu frames: %s\n",
                     static_cast<unsigned long long>(options.frames),
                     ErrorText(sequence.GetLastError()).c_str());
        return 1;
    }
    std::string rate;
    if (!options.freeRun && GetFeatureText(module, "AcquisitionFrameRate", rate))
        sequence.SetFrameRate(std::atof(rate.c_str()));

    Recorder recorder(sequence, options.frames);
    module.SetCallbacks(&recorder, 0, nullptr);
    const auto start = Clock::now();
    if (!module.StartStreaming()) {
        std::fprintf(stderr, "kestor grab: cannot start streaming: %s\n",
                     ErrorText(module.GetLastError()).c_str());
        return 1;
    }
    const auto deadline = options.seconds > 0
                              ? start + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(options.seconds))
                              : Clock::time_point::max();
    // A stream that delivers nothing for this long has failed (the driver's queue ended).
    const auto stallLimit = std::chrono::seconds(5);
    uint64_t lastCount = 0;
    auto lastChange = start;
    bool stalled = false;
    for (;;) {
        const auto tick = std::min(deadline, Clock::now() + std::chrono::milliseconds(250));
        if (recorder.WaitUntil(tick) || Clock::now() >= deadline) break;
        if (options.progress) PrintProgress(module, recorder, start);
        if (recorder.Written() != lastCount) {
            lastCount = recorder.Written();
            lastChange = Clock::now();
        } else if (Clock::now() - lastChange > stallLimit) {
            stalled = true;
            break;
        }
    }
    recorder.Finish();
    module.StopStreaming();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (options.progress) {
        PrintProgress(module, recorder, start);
        std::fprintf(stderr, "\n");
    }

    // A free-running camera has no nominal rate: the header gets the one achieved.
    if (options.freeRun && seconds > 0) sequence.SetFrameRate(recorder.Written() / seconds);
    eKBayerPatternOrigin origin;
    if (module.GetBayerPattern(origin)) sequence.SetBayerPattern(origin);
    uint64_t delivered = 0, lost = 0, incomplete = 0;
    const bool counted = module.GetFrameCounters(delivered, lost, incomplete);
    std::printf("Grabbed %llu frames of %u x %u (%s) in %.3f s: %.1f frames/s, %.1f MB/s%s\n",
                static_cast<unsigned long long>(recorder.Written()), module.GetImageWidth(),
                module.GetImageHeight(),
                KWideToUtf8(KImageFormatString(module.GetImageFormat())).c_str(), seconds,
                recorder.Written() / seconds, recorder.Bytes() / seconds / 1e6,
                ram ? " (RAM)" : "");
    if (counted) {
        std::printf("Driver: %llu delivered, %llu lost, %llu incomplete\n",
                    static_cast<unsigned long long>(delivered),
                    static_cast<unsigned long long>(lost),
                    static_cast<unsigned long long>(incomplete));
    }
    bool ok = true;
    if (recorder.WriteFailed()) {
        std::fprintf(stderr, "kestor grab: writing the sequence failed: %s\n",
                     ErrorText(sequence.GetLastError()).c_str());
        ok = false;
    }
    if (recorder.CameraLost())
        std::fprintf(stderr, "kestor grab: the camera was lost\n"), ok = false;
    if (stalled) std::fprintf(stderr, "kestor grab: no frame for 5 s, stopped\n"), ok = false;
    if (options.frames > 0 && recorder.Written() < options.frames) ok = false;
    if (counted && lost + incomplete > 0) ok = false;
    if (options.verify && driver == eKModuleSimulatedCamera && !VerifyPattern(sequence)) ok = false;
    module.Unload();
    if (!sequence.Close()) {
        std::fprintf(stderr, "kestor grab: closing the sequence failed: %s\n",
                     ErrorText(sequence.GetLastError()).c_str());
        ok = false;
    }
    return ok ? 0 : 1;
}

int RunDrivers() {
    KGrabModule module;
    module.SetErrorOutput(false, false, false);
    std::printf("%-7s %-24s %-32s %s\n", "Module", "Key", "Name", "Installed");
    const unsigned count = module.GetDriverCount(false);
    for (unsigned i = 0; i < count; ++i) {
        eKSupportedModule value = eKModuleNone;
        const KChar* name = module.GetDriverInfo(i, &value, false);
        const char* key = KGrabModule::GetDriverKey(value);
        const bool installed = module.GetDriverInfo(value, true) != nullptr;
        std::printf("%-7u %-24s %-32s %s\n", static_cast<unsigned>(value), key ? key : "",
                    KWideToUtf8(name).c_str(), installed ? "yes" : "no");
    }
    return 0;
}

}  // namespace kestor::tool
