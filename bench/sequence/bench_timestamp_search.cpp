// Opening a sequence and finding frames by timestamp must not grow with the frame count:
// files of 1 000, 10 000 and 100 000 small frames are opened and searched, and each time is
// compared with the 1 000-frame file's (a linear cost would show ratios of 10 and 100).
//
//   bench_timestamp_search [--dir DIR] [--searches N]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "KSequence.h"
#include "platform/DirectFile.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kSizes[] = {1000, 10000, 100000};

bool MakeFile(const std::string& path, uint32_t frames) {
    KSequence sequence;
    sequence.SetErrorOutput(false, false, false);
    if (!sequence.Create(path.c_str())) return false;
    KImage image;
    image.ReallocateImage(64, 64, 8, 8, eKFormatMono);
    for (uint32_t n = 1; n <= frames; ++n) {
        // 1 kHz camera: one frame per millisecond.
        image.SetTimestamp(1700000000 + n / 1000, static_cast<uint16_t>(n % 1000), 0);
        if (!sequence.Write(&image)) return false;
    }
    return sequence.Close();
}

struct Timing {
    double openMicros;
    double searchMicros;
};

bool Measure(const std::string& path, uint32_t frames, int searches, Timing& timing) {
    // Opening is quick and the disk is not: the median of several opens.
    std::vector<double> opens;
    for (int i = 0; i < 7; ++i) {
        const auto start = Clock::now();
        KSequence probe;
        probe.SetErrorOutput(false, false, false);
        if (!probe.Open(path.c_str())) return false;
        opens.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    std::sort(opens.begin(), opens.end());
    timing.openMicros = opens[opens.size() / 2];

    KSequence sequence;
    sequence.SetErrorOutput(false, false, false);
    if (!sequence.Open(path.c_str())) return false;

    std::mt19937 rng(7);
    const auto start = Clock::now();
    for (int i = 0; i < searches; ++i) {
        const uint32_t n = 1 + rng() % frames;
        unsigned found = 0;
        if (!sequence.GetIndexNear(1700000000 + n / 1000, static_cast<uint16_t>(n % 1000), 400,
                                   found) ||
            found != n)
            return false;
    }
    timing.searchMicros =
        std::chrono::duration<double, std::micro>(Clock::now() - start).count() / searches;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir = ".";
    int searches = 2000;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--dir") == 0) dir = argv[i + 1];
        if (std::strcmp(argv[i], "--searches") == 0) searches = std::atoi(argv[i + 1]);
    }
    std::printf("%10s %12s %10s %14s %10s %14s\n", "frames", "open (us)", "ratio", "search (us)",
                "ratio", "log2 ratio");
    Timing base{};
    for (uint32_t frames : kSizes) {
        const std::string path = dir + "/bench-search-" + std::to_string(frames) + ".seq";
        Timing t{};
        if (!MakeFile(path, frames) || !Measure(path, frames, searches, t)) {
            std::printf("%10u failed\n", frames);
            return 1;
        }
        kestor::RemoveFile(path);
        if (frames == kSizes[0]) base = t;
        std::printf("%10u %12.1f %10.2f %14.2f %10.2f %14.2f\n", frames, t.openMicros,
                    t.openMicros / base.openMicros, t.searchMicros,
                    t.searchMicros / base.searchMicros,
                    std::log2(double(frames)) / std::log2(double(kSizes[0])));
    }
    return 0;
}
