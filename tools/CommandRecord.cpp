// `kestor record`: records frames from the synthetic source into a disk or RAM sequence.
#include <chrono>
#include <cstdio>
#include <thread>

#include "Commands.h"
#include "KSequence.h"
#include "KUtils.h"
#include "SyntheticSource.h"

namespace kestor::tool {

namespace {

using Clock = std::chrono::steady_clock;

int Failure(KSequence& sequence, const char* what) {
    std::fprintf(stderr, "kestor: %s: %s\n", what,
                 KWideToUtf8(KErrorManager::GetErrorString(sequence.GetLastError())).c_str());
    return 1;
}

}  // namespace

int RunRecord(const RecordOptions& options) {
    KSequence sequence;
    sequence.SetErrorOutput(false, false, false);
    const bool ram = options.file.empty();
    if (!(ram ? sequence.Create(static_cast<const char*>(nullptr))
              : sequence.Create(options.file.c_str())))
        return Failure(sequence, "cannot create the sequence");
    if (options.rate > 0) sequence.SetFrameRate(options.rate);

    SyntheticSource source(options.width, options.height, options.bitDepth);
    KImage image;
    const auto start = Clock::now();
    const auto period = options.rate > 0 ? std::chrono::duration<double>(1.0 / options.rate)
                                         : std::chrono::duration<double>(0);
    const int64_t startMicros = std::chrono::duration_cast<std::chrono::microseconds>(
                                    std::chrono::system_clock::now().time_since_epoch())
                                    .count();
    auto lastReport = start;
    uint64_t written = 0;
    for (;;) {
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        if (options.frames > 0 ? written >= options.frames : elapsed >= options.seconds) break;
        if (options.rate > 0) {
            const auto due = start + std::chrono::duration_cast<Clock::duration>(period * written);
            std::this_thread::sleep_until(due);
        }
        // Paced frames are stamped at their exposure time; free-running ones when made.
        const int64_t exposure =
            options.rate > 0
                ? startMicros +
                      static_cast<int64_t>(1e6 * static_cast<double>(written) / options.rate)
                : startMicros +
                      std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start)
                          .count();
        source.Next(image, written + 1, exposure);
        if (!sequence.Write(&image)) return Failure(sequence, "write failed");
        ++written;
        const auto now = Clock::now();
        if (options.progress && now - lastReport > std::chrono::milliseconds(250)) {
            lastReport = now;
            const double seconds = std::chrono::duration<double>(now - start).count();
            const double bytes = static_cast<double>(written) * image.GetImageSizeBytes();
            std::fprintf(stderr, "\r%8llu frames  %8.1f frames/s  %8.1f MB/s",
                         static_cast<unsigned long long>(written), written / seconds,
                         bytes / seconds / 1e6);
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (options.progress) std::fprintf(stderr, "\n");

    // Prove every frame came back, in order.
    KImage back;
    uint64_t bad = 0;
    for (unsigned int n = 1; n <= sequence.GetAllocatedFrames(); ++n) {
        if (!sequence.Read(&back, n) || SyntheticSource::FrameNumberOf(back) != n) ++bad;
    }
    std::printf("Recorded %llu frames of %ux%u (%u bits) in %.3f s: %.1f frames/s, %.1f MB/s%s\n",
                static_cast<unsigned long long>(written), options.width, options.height,
                options.bitDepth, seconds, written / seconds,
                written * static_cast<double>(image.GetImageSizeBytes()) / seconds / 1e6,
                ram ? " (RAM)" : "");
    std::printf("Read back %u frames, %llu wrong\n", sequence.GetAllocatedFrames(),
                static_cast<unsigned long long>(bad));
    if (!sequence.Close()) return Failure(sequence, "close failed");
    return bad == 0 && sequence.GetLastError() == eKErrSuccess ? 0 : 1;
}

}  // namespace kestor::tool
