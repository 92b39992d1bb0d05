// Recording into memory, measured against the physical limit: a plain memcpy of the same
// frames into memory that is already backed.
//
//   WriteVsMemcpy/<bytes>          sustained Write into preallocated slots (ring recording);
//                                  counter write_over_memcpy is the time ratio to the memcpy.
//   WriteWithoutPreallocation/<b>  every Write takes a fresh slot that must be backed first;
//                                  fault_ms_per_GiB is what that costs beyond the memcpy.
//   Close/<GiB>                    time to close a sequence holding that much.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "KImage.h"
#include "core/CKestorImage.h"
#include "platform/MemoryArena.h"
#include "sequence/CKestorSequencerRAM.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kMiB = uint64_t{1} << 20;
constexpr uint64_t kGiB = uint64_t{1} << 30;
// Memory each ring of frames takes: far beyond the caches, well within a shared machine.
constexpr uint64_t kRingBytes = 512 * kMiB;

struct Geometry {
    uint32_t width;
    uint32_t height;
};

// 0.3 MB (VGA), 5 MB (5 MP) and 24 MB (25 MP) frames of 8-bit mono.
Geometry GeometryFor(int64_t bytes) {
    if (bytes <= 307200) return {640, 480};
    if (bytes <= 5242880) return {2560, 2048};
    return {6144, 4096};
}

std::unique_ptr<KImage> MakeFrame(int64_t bytes) {
    const Geometry geometry = GeometryFor(bytes);
    auto image = std::make_unique<KImage>();
    image->ReallocateImage(geometry.width, geometry.height, 8, 8, eKFormatMono);
    uint8_t* pixels = image->GetRawImageData();
    for (uint32_t i = 0; i < image->GetImageSizeBytes(); ++i)
        pixels[i] = static_cast<uint8_t>(i * 31);
    return image;
}

double Seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

long MinorFaults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

// The reference: the same bytes copied into slots that were backed beforehand, from the same
// kind of memory the sequencer uses.
class MemcpyRing {
public:
    MemcpyRing(uint32_t slotSize, size_t slots) {
        kestor::MemoryArenaOptions options;
        options.hugePages = true;
        arena_ = std::make_unique<kestor::MemoryArena>(slotSize, options);
        for (size_t i = 0; i < slots; ++i) slots_.push_back(arena_->AllocateCommitted());
    }
    bool Ok() const {
        for (void* slot : slots_)
            if (slot == nullptr) return false;
        return !slots_.empty();
    }
    // Copies the pixels and the timestamp, as a slot holds them.
    Clock::duration Copy(const KImage& image) {
        const uint32_t size = image.GetImageSizeBytes();
        auto* slot = static_cast<uint8_t*>(slots_[next_]);
        next_ = (next_ + 1) % slots_.size();
        const uint32_t seconds = image.GetTimestamp();
        const Clock::time_point start = Clock::now();
        std::memcpy(slot, image.GetRawImageData(), size);
        std::memcpy(slot + size, &seconds, sizeof seconds);
        benchmark::ClobberMemory();
        return Clock::now() - start;
    }

private:
    std::unique_ptr<kestor::MemoryArena> arena_;
    std::vector<void*> slots_;
    size_t next_ = 0;
};

uint32_t SlotSizeOf(const KImage& image) {
    return static_cast<uint32_t>(CKestorImage::BufferSizeFor(image.GetImageSizeBytes(), 0));
}

void WriteVsMemcpy(benchmark::State& state) {
    auto frame = MakeFrame(state.range(0));
    const uint32_t slotSize = SlotSizeOf(*frame);
    const uint32_t ring = static_cast<uint32_t>(std::max<uint64_t>(4, kRingBytes / slotSize));
    CKestorSequencerRAM sequencer;
    sequencer.Open();
    if (!sequencer.PreAllocateImages(frame->GetImageSizeBytes(), ring)) {
        state.SkipWithError("preallocation failed");
        return;
    }
    MemcpyRing reference(slotSize, ring);
    if (!reference.Ok()) {
        state.SkipWithError("reference memory not available");
        return;
    }
    Clock::duration writeTime{}, copyTime{};
    uint32_t written = 0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        const bool ok = sequencer.Write(frame.get());
        const Clock::duration elapsed = Clock::now() - start;
        if (!ok) {
            state.SkipWithError("Write failed");
            break;
        }
        state.SetIterationTime(Seconds(elapsed));
        writeTime += elapsed;
        copyTime += reference.Copy(*frame);
        if (++written % ring == 0) sequencer.SetWriteFrame(1);  // ring recording
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * frame->GetImageSizeBytes());
    state.counters["write_over_memcpy"] = Seconds(writeTime) / Seconds(copyTime);
    state.counters["memcpy_GBps"] =
        double(state.iterations()) * frame->GetImageSizeBytes() / Seconds(copyTime) / 1e9;
    state.counters["spares_left"] = sequencer.GetPreAllocatedImages();
}

void WriteWithoutPreallocation(benchmark::State& state) {
    auto frame = MakeFrame(state.range(0));
    const uint32_t slotSize = SlotSizeOf(*frame);
    const uint32_t ring = static_cast<uint32_t>(std::max<uint64_t>(4, kRingBytes / slotSize));
    MemcpyRing reference(slotSize, ring);
    if (!reference.Ok()) {
        state.SkipWithError("reference memory not available");
        return;
    }
    CKestorSequencerRAM sequencer;
    sequencer.Open();
    Clock::duration writeTime{}, copyTime{};
    long faults = 0;
    uint32_t written = 0;
    for (auto _ : state) {
        const long faultsBefore = MinorFaults();
        const Clock::time_point start = Clock::now();
        const bool ok = sequencer.Write(frame.get());
        const Clock::duration elapsed = Clock::now() - start;
        faults += MinorFaults() - faultsBefore;
        if (!ok) {
            state.SkipWithError("Write failed");
            break;
        }
        state.SetIterationTime(Seconds(elapsed));
        writeTime += elapsed;
        copyTime += reference.Copy(*frame);
        if (++written % ring == 0) {
            // Start over with memory the system has to back again (not timed).
            sequencer.Open();
        }
    }
    const double frames = double(state.iterations());
    const double gib = frames * frame->GetImageSizeBytes() / double(kGiB);
    state.SetBytesProcessed(int64_t(state.iterations()) * frame->GetImageSizeBytes());
    state.counters["write_over_memcpy"] = Seconds(writeTime) / Seconds(copyTime);
    state.counters["fault_ms_per_GiB"] = (Seconds(writeTime) - Seconds(copyTime)) * 1e3 / gib;
    state.counters["faults_per_frame"] = double(faults) / frames;
}

uint64_t AvailableMemory() {
    std::ifstream meminfo("/proc/meminfo");
    std::string key;
    uint64_t kib = 0;
    std::string unit;
    while (meminfo >> key >> kib >> unit)
        if (key == "MemAvailable:") return kib * 1024;
    return 0;
}

void Close(benchmark::State& state) {
    const uint64_t held = uint64_t(state.range(0)) * kGiB;
    if (AvailableMemory() < held + 2 * kGiB) {
        state.SkipWithError("not enough free memory on this machine");
        return;
    }
    auto frame = MakeFrame(5242880);
    const uint32_t frames = static_cast<uint32_t>(held / SlotSizeOf(*frame));
    CKestorSequencerRAM sequencer;
    for (auto _ : state) {
        state.PauseTiming();
        sequencer.Open();
        bool ok = sequencer.PreAllocateImages(frame->GetImageSizeBytes(), frames);
        for (uint32_t n = 0; ok && n < frames; ++n) ok = sequencer.Write(frame.get());
        state.ResumeTiming();
        if (!ok) {
            state.SkipWithError("could not fill the sequence");
            break;
        }
        const Clock::time_point start = Clock::now();
        sequencer.Close();
        state.SetIterationTime(Seconds(Clock::now() - start));
    }
    state.counters["frames"] = frames;
    state.counters["held_GiB"] = double(frames) * SlotSizeOf(*frame) / double(kGiB);
}

// The sequencer reads the metadata room of its spares from the user's registry store: give
// the run a scratch store so that the user's settings neither matter nor change.
class ScratchRegistry {
public:
    ScratchRegistry() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kestor-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) return;
        folder_ = pattern;
        setenv("KESTOR_REGISTRY", (folder_ / "registry.db").c_str(), 1);
    }
    ~ScratchRegistry() {
        std::error_code ignored;
        if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
    }

private:
    std::filesystem::path folder_;
};

}  // namespace

BENCHMARK(WriteVsMemcpy)
    ->Arg(307200)
    ->Arg(5242880)
    ->Arg(25165824)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(WriteWithoutPreallocation)
    ->Arg(307200)
    ->Arg(5242880)
    ->Arg(25165824)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
// 8 GiB where the machine has room for it, else 4 GiB (the larger one skips itself).
BENCHMARK(Close)->Arg(8)->Arg(4)->Iterations(2)->UseManualTime()->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    ScratchRegistry registry;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
