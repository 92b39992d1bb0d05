// Recording from the simulated camera through the grab module, against the sequencer alone
// writing the same frames and against the camera alone, all in the same run; then the latency
// from a frame being complete in the driver's buffer to OnImageReceived.
//
//   bench_grab [--dir DIR] [--frames N] [--rounds R] [--latency-frames N]
//
// Throughput: 2048 x 2048 mono 8, the camera free-running (as fast as the recording takes
// frames). "camera alone" streams with a callback that only counts; "sequencer alone" writes
// a ring of 32 pattern frames (as many as the driver's buffers) into the same kind of sequence.
// Disk runs go to DIR (default: the working directory) and alternate ABBA over the rounds.
// Latency: 640 x 480 mono 8 paced at 1000 frames/s; the simulated camera stamps each frame
// when it is complete in its buffer, and the callback compares that with the clock.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "GrabFeatures.h"
#include "KGrab.h"
#include "KSequence.h"
#include "KTestPattern.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

double Mean(const std::vector<double>& v) {
    double sum = 0;
    for (double x : v) sum += x;
    return v.empty() ? 0 : sum / static_cast<double>(v.size());
}

int64_t NowMicros() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

bool Configure(KGrabModule& module, uint32_t width, uint32_t height, bool freeRun, double rate) {
    if (!module.Load(eKModuleSimulatedCamera, "KestorBench", true, nullptr, false)) {
        std::fprintf(stderr, "cannot load the simulated camera (error %d)\n",
                     static_cast<int>(module.GetLastError()));
        return false;
    }
    std::vector<std::string> features = {"PixelFormat=Mono8", freeRun ? "FreeRun=1" : "FreeRun=0"};
    if (rate > 0) features.push_back("AcquisitionFrameRate=" + std::to_string(rate));
    for (const std::string& feature : features) {
        std::string why;
        if (!kestor::tool::SetFeature(module, feature, why)) {
            std::fprintf(stderr, "cannot set %s: %s\n", feature.c_str(), why.c_str());
            return false;
        }
    }
    return module.SetROI(0, 0, width, height);
}

// Streams until `frames` images went through `callbacks`; the seconds it took.
class Counter : public KGrabCallbacks {
public:
    explicit Counter(uint64_t target, KSequence* sequence = nullptr)
        : target_(target), sequence_(sequence) {}
    void OnImageReceived(KImage* image, unsigned int, void*) override {
        if (count_.load() >= target_) return;
        if (sequence_ && !sequence_->Write(image)) failed_ = true;
        if (++count_ == target_) done_ = true;
    }
    bool Done() const { return done_.load() || failed_.load(); }
    bool Failed() const { return failed_.load(); }

private:
    const uint64_t target_;
    KSequence* sequence_;
    std::atomic<uint64_t> count_{0};
    std::atomic<bool> done_{false}, failed_{false};
};

double StreamSeconds(KGrabModule& module, Counter& counter) {
    module.SetCallbacks(&counter, 0, nullptr);
    const auto start = Clock::now();
    module.StartStreaming();
    while (!counter.Done()) std::this_thread::sleep_for(std::chrono::microseconds(200));
    const double seconds = Seconds(start);
    module.StopStreaming();
    return counter.Failed() ? -1 : seconds;
}

bool CreateSequence(KSequence& sequence, const std::string& path, uint32_t sizeBytes,
                    uint32_t frames) {
    sequence.SetErrorOutput(false, false, false);
    if (path.empty()) {
        return sequence.Create(static_cast<const char*>(nullptr)) &&
               sequence.PreAllocateImages(sizeBytes, frames);
    }
    return sequence.Create(path.c_str());
}

double SequencerAloneSeconds(const std::string& path, std::vector<KImage>& ring, uint32_t frames) {
    KSequence sequence;
    if (!CreateSequence(sequence, path, ring[0].GetImageSizeBytes(), frames)) return -1;
    const auto start = Clock::now();
    for (uint32_t i = 0; i < frames; ++i) {
        if (!sequence.Write(&ring[i % ring.size()])) return -1;
    }
    const double seconds = Seconds(start);
    sequence.Close();
    if (!path.empty()) std::remove(path.c_str());
    return seconds;
}

double GrabSeconds(KGrabModule& module, const std::string& path, uint32_t frames) {
    KSequence sequence;
    if (!CreateSequence(sequence, path, module.GetImageSizeBytes(), frames)) return -1;
    Counter counter(frames, &sequence);
    const double seconds = StreamSeconds(module, counter);
    sequence.Close();
    if (!path.empty()) std::remove(path.c_str());
    return seconds;
}

void Report(const char* what, double frames, double bytesPerFrame, double seconds, double peer,
            const char* peerName) {
    std::printf("  %-28s %9.1f frames/s %7.2f GB/s   ratio to %s %.3f\n", what, frames / seconds,
                frames * bytesPerFrame / seconds / 1e9, peerName, peer / seconds);
}

int Throughput(const std::string& dir, uint32_t frames, int rounds) {
    constexpr uint32_t kSide = 2048;
    KGrabModule module;
    module.SetErrorOutput(false, false, false);
    module.SetBufferCount(32);
    if (!Configure(module, kSide, kSide, true, 0)) return 1;
    const uint32_t bytes = module.GetImageSizeBytes();

    std::vector<KImage> ring(32);
    for (size_t i = 0; i < ring.size(); ++i) {
        ring[i].ReallocateImage(kSide, kSide, 8, 8, eKFormatMono);
        KTestPatternFill(ring[i].GetRawImageData(), ring[i].GetImageDescription(), i + 1);
    }
    const std::string file = dir + "/bench_grab.seq";
    std::vector<double> camera, ramAlone, ramGrab, diskAlone, diskGrab;
    for (int round = 0; round < rounds; ++round) {
        Counter counter(frames);
        camera.push_back(StreamSeconds(module, counter));
        ramAlone.push_back(SequencerAloneSeconds("", ring, frames));
        ramGrab.push_back(GrabSeconds(module, "", frames));
        // ABBA: each side leads in half of the rounds.
        if (round % 2 == 0) {
            diskAlone.push_back(SequencerAloneSeconds(file, ring, frames));
            diskGrab.push_back(GrabSeconds(module, file, frames));
        } else {
            diskGrab.push_back(GrabSeconds(module, file, frames));
            diskAlone.push_back(SequencerAloneSeconds(file, ring, frames));
        }
    }
    for (const auto* v : {&camera, &ramAlone, &ramGrab, &diskAlone, &diskGrab}) {
        if (std::any_of(v->begin(), v->end(), [](double s) { return s <= 0; })) {
            std::fprintf(stderr, "a run failed\n");
            return 1;
        }
    }
    const double f = frames;
    std::printf("Throughput, %u x %u mono 8, %u frames, %d rounds (mean times)\n", kSide, kSide,
                frames, rounds);
    std::printf("  %-28s %9.1f frames/s %7.2f GB/s\n", "camera alone", f / Mean(camera),
                f * bytes / Mean(camera) / 1e9);
    Report("sequencer alone, RAM", f, bytes, Mean(ramAlone), Mean(camera), "camera");
    Report("grab into RAM", f, bytes, Mean(ramGrab), Mean(ramAlone), "sequencer");
    Report("sequencer alone, disk", f, bytes, Mean(diskAlone), Mean(camera), "camera");
    Report("grab into disk", f, bytes, Mean(diskGrab), Mean(diskAlone), "sequencer");
    return 0;
}

// Latency from the frame's completion stamp to the callback.
class LatencyProbe : public KGrabCallbacks {
public:
    explicit LatencyProbe(size_t target) : target_(target) { samples_.reserve(target); }
    void OnImageReceived(KImage* image, unsigned int, void*) override {
        const int64_t now = NowMicros();
        if (samples_.size() >= target_) return;
        const int64_t stamp = int64_t{image->GetTimestamp()} * 1000000 +
                              int64_t{image->GetTimestampMS()} * 1000 + image->GetTimestampUS();
        samples_.push_back(now - stamp);
        if (samples_.size() == target_) done_ = true;
    }
    bool Done() const { return done_.load(); }
    std::vector<int64_t>& Samples() { return samples_; }

private:
    const size_t target_;
    std::vector<int64_t> samples_;
    std::atomic<bool> done_{false};
};

int Latency(uint32_t frames) {
    KGrabModule module;
    module.SetErrorOutput(false, false, false);
    module.SetBufferCount(32);
    if (!Configure(module, 640, 480, false, 1000)) return 1;
    LatencyProbe probe(frames);
    module.SetCallbacks(&probe, 0, nullptr);
    module.StartStreaming();
    while (!probe.Done()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    module.StopStreaming();
    std::vector<int64_t>& s = probe.Samples();
    std::sort(s.begin(), s.end());
    auto at = [&s](double q) {
        return s[std::min(s.size() - 1, static_cast<size_t>(q * s.size()))];
    };
    std::printf(
        "Latency, 640 x 480 mono 8 at 1000 frames/s, %u frames: median %lld us, "
        "99th percentile %lld us, max %lld us\n",
        frames, static_cast<long long>(at(0.5)), static_cast<long long>(at(0.99)),
        static_cast<long long>(s.back()));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir = ".";
    uint32_t frames = 500, latencyFrames = 5000;
    int rounds = 2;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--dir")
            dir = argv[i + 1];
        else if (option == "--frames")
            frames = static_cast<uint32_t>(std::atoi(argv[i + 1]));
        else if (option == "--rounds")
            rounds = std::max(2, std::atoi(argv[i + 1]) / 2 * 2);
        else if (option == "--latency-frames")
            latencyFrames = static_cast<uint32_t>(std::atoi(argv[i + 1]));
    }
    if (Throughput(dir, frames, rounds) != 0) return 1;
    return Latency(latencyFrames);
}
