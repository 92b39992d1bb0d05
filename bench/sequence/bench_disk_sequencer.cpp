// Disk sequencer throughput against the volume's own limit, measured in the same run: raw
// sequential O_DIRECT transfers of exactly the sequencer's slot size, then the sequencer
// writing and reading the same number of frames of the same size through KSequence.
//
//   bench_disk_sequencer [--dir DIR] [--megabytes N] [--rounds R] [--verbose]
//
// DIR must be on the volume to measure (default: the working directory). Virtual disks vary
// from second to second and the second of two back-to-back runs is often faster (blocks just
// freed are still cached by the host), so raw and sequencer runs alternate ABBA over an even
// number of rounds, each side leading in half of them, and the mean times are compared.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "KSequence.h"
#include "platform/AlignedMemory.h"
#include "platform/DirectFile.h"
#include "sequence/SequenceHeader.h"

namespace {

using Clock = std::chrono::steady_clock;

struct FrameCase {
    const char* name;
    uint32_t width, height;
};

constexpr FrameCase kCases[] = {
    {"0.3 MB (640x480 mono 8)", 640, 480},
    {"5 MB (2448x2048 mono 8)", 2448, 2048},
    {"24 MB (5120x4800 mono 8)", 5120, 4800},
};

double Mean(const std::vector<double>& v) {
    double sum = 0;
    for (double x : v) sum += x;
    return sum / static_cast<double>(v.size());
}

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// Raw sequential direct I/O of `count` transfers of `slot` bytes: the volume's limit.
bool RawTransfers(const std::string& path, uint32_t slot, uint32_t count, double& writeSeconds,
                  double& readSeconds) {
    kestor::AlignedBuffer buffer(slot);
    std::memset(buffer.Data(), 0x5A, slot);
    kestor::DirectFile file;
    kestor::FileOpenOptions options;
    options.write = options.create = options.truncate = true;
    if (file.Open(path, options) != 0 || !file.IsDirect()) return false;
    auto start = Clock::now();
    for (uint32_t i = 0; i < count; ++i)
        if (!file.WriteAt(buffer.Data(), slot, kestor::kSequenceHeaderSize + uint64_t{i} * slot))
            return false;
    file.Flush();
    writeSeconds = Seconds(start);
    start = Clock::now();
    for (uint32_t i = 0; i < count; ++i)
        if (!file.ReadAt(buffer.Data(), slot, kestor::kSequenceHeaderSize + uint64_t{i} * slot))
            return false;
    readSeconds = Seconds(start);
    file.Close();
    kestor::RemoveFile(path);
    return true;
}

bool SequencerTransfers(const std::string& path, const FrameCase& c, uint32_t count, uint32_t& slot,
                        double& writeSeconds, double& readSeconds) {
    KImage image;
    image.ReallocateImage(c.width, c.height, 8, 8, eKFormatMono);
    std::memset(image.GetRawImageData(), 0x5A, image.GetImageSizeBytes());
    KSequence sequence;
    sequence.SetErrorOutput(false, false, false);
    if (!sequence.Create(path.c_str())) return false;
    auto start = Clock::now();
    for (uint32_t i = 0; i < count; ++i)
        if (!sequence.Write(&image)) return false;
    sequence.Close();
    writeSeconds = Seconds(start);
    if (!sequence.Open(path.c_str())) return false;
    slot = sequence.GetTrueImageSize();
    start = Clock::now();
    for (uint32_t n = 1; n <= count; ++n)
        if (!sequence.Read(&image, n)) return false;
    readSeconds = Seconds(start);
    sequence.Close();
    kestor::RemoveFile(path);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir = ".";
    double megabytes = 1024;
    int rounds = 3;
    bool verbose = false;
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--verbose") == 0) verbose = true;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--dir") == 0) dir = argv[i + 1];
        if (std::strcmp(argv[i], "--megabytes") == 0) megabytes = std::atof(argv[i + 1]);
        if (std::strcmp(argv[i], "--rounds") == 0) rounds = std::max(1, std::atoi(argv[i + 1]));
    }
    rounds += rounds % 2;  // each side leads in exactly half of the rounds
    std::printf(
        "Disk sequencer against raw O_DIRECT on %s (%.0f MB per run, %d rounds, mean times)\n",
        dir.c_str(), megabytes, rounds);
    std::printf("%-26s %10s %12s %12s %7s %12s %12s %7s\n", "frame", "slot B", "raw write",
                "seq write", "ratio", "raw read", "seq read", "ratio");
    int status = 0;
    for (const FrameCase& c : kCases) {
        const double frameBytes = double{c.width} * c.height;
        const auto count = static_cast<uint32_t>(std::max(8.0, megabytes * 1e6 / frameBytes));
        const std::string path = dir + "/bench-disk-sequencer.seq";
        std::vector<double> seqWrite, seqRead, rawWrite, rawRead;
        uint32_t slot = 0;
        bool ok = true;
        for (int round = 0; ok && round < rounds; ++round) {
            // ABBA: each side goes first in half of the rounds. The sequencer's slot size (the
            // volume's sector rounding) is what the raw transfers use.
            for (int step = 0; ok && step < 2; ++step) {
                double w = 0, r = 0;
                const bool sequencer = (step == 0) == (round % 2 == 0);
                if (sequencer) {
                    ok = SequencerTransfers(path, c, count, slot, w, r);
                    seqWrite.push_back(w), seqRead.push_back(r);
                } else {
                    if (slot == 0) ok = SequencerTransfers(path, c, 1, slot, w, r);
                    ok = ok && RawTransfers(path, slot, count, w, r);
                    rawWrite.push_back(w), rawRead.push_back(r);
                }
                if (verbose && ok) {
                    const double mb = double{slot} * count / 1e6;
                    std::printf("  round %d %-9s write %7.0f MB/s  read %7.0f MB/s\n", round,
                                sequencer ? "sequencer" : "raw", mb / w, mb / r);
                }
            }
        }
        if (!ok) {
            std::printf("%-26s failed (is O_DIRECT available on %s?)\n", c.name, dir.c_str());
            status = 1;
            continue;
        }
        const double bytes = double{slot} * count / 1e6;
        const double rw = Mean(rawWrite), sw = Mean(seqWrite);
        const double rr = Mean(rawRead), sr = Mean(seqRead);
        std::printf("%-26s %10u %7.0f MB/s %7.0f MB/s %7.3f %7.0f MB/s %7.0f MB/s %7.3f\n", c.name,
                    slot, bytes / rw, bytes / sw, rw / sw, bytes / rr, bytes / sr, rr / sr);
    }
    return status;
}
