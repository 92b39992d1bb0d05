// `kestor info FILE`: what a sequence holds, and whether its timestamps have gaps or repeats.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

#include "Commands.h"
#include "KSequence.h"
#include "KUtils.h"

namespace kestor::tool {

namespace {

struct Stamp {
    int32_t seconds;
    unsigned short milliseconds, microseconds;
    int64_t Micros() const {
        return int64_t{seconds} * 1000000 + int64_t{milliseconds} * 1000 + microseconds;
    }
};

std::string FormatTime(const Stamp& t) {
    const time_t seconds = t.seconds;
    struct tm utc {};
    gmtime_r(&seconds, &utc);
    char text[64];
    const size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc);
    std::snprintf(text + n, sizeof text - n, ".%03u%03u UTC", t.milliseconds, t.microseconds);
    return text;
}

}  // namespace

int RunInfo(const std::string& file) {
    KSequence sequence;
    sequence.SetErrorOutput(false, false, false);
    if (!sequence.OpenReadOnly(file.c_str())) {
        std::fprintf(stderr, "kestor: cannot open %s: %s\n", file.c_str(),
                     KWideToUtf8(KErrorManager::GetErrorString(sequence.GetLastError())).c_str());
        return 1;
    }
    const unsigned frames = sequence.GetAllocatedFrames();
    KChar description[257];
    sequence.GetDescriptionText(description, 257);

    std::printf("File:          %s\n", file.c_str());
    std::printf("Description:   %s\n", KWideToUtf8(description).c_str());
    std::printf("Image:         %u x %u, %u bits (%u significant), %s\n", sequence.GetImageWidth(),
                sequence.GetImageHeight(), sequence.GetImageBitDepth(),
                sequence.GetImageBitDepthReal(),
                KWideToUtf8(KImageFormatString(sequence.GetImageFormat())).c_str());
    std::printf("Frame size:    %u bytes in slots of %u bytes\n", sequence.GetImageSizeBytes(),
                sequence.GetTrueImageSize());
    std::printf("Compression:   %s\n",
                KWideToUtf8(KImageCompressionString(sequence.GetSequenceCompression())).c_str());
    std::printf("Frames:        %u\n", frames);
    std::printf("Frame rate:    %.3f frames/s (header)\n", sequence.GetFrameRate());
    eKBayerPatternOrigin origin;
    if (sequence.GetBayerPattern(origin)) std::printf("Bayer origin:  %u\n", origin);
    if (frames == 0) return 0;

    std::vector<Stamp> stamps(frames);
    for (unsigned n = 1; n <= frames; ++n) {
        Stamp& t = stamps[n - 1];
        sequence.ReadTimestamp(n, t.seconds, t.milliseconds, t.microseconds);
    }
    std::printf("First frame:   %s\n", FormatTime(stamps.front()).c_str());
    std::printf("Last frame:    %s\n", FormatTime(stamps.back()).c_str());
    if (frames < 2) return 0;

    std::vector<int64_t> intervals;
    for (size_t i = 1; i < stamps.size(); ++i)
        intervals.push_back(stamps[i].Micros() - stamps[i - 1].Micros());
    std::vector<int64_t> sorted = intervals;
    std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
    const int64_t median = sorted[sorted.size() / 2];
    const double span = static_cast<double>(stamps.back().Micros() - stamps.front().Micros()) / 1e6;
    std::printf("Duration:      %.6f s\n", span);
    if (median > 0)
        std::printf("Measured rate: %.3f frames/s (median interval %lld us)\n",
                    1e6 / static_cast<double>(median), static_cast<long long>(median));

    // A gap is an interval of more than one and a half times the usual one.
    unsigned gaps = 0, duplicates = 0, backwards = 0;
    for (size_t i = 0; i < intervals.size(); ++i) {
        const unsigned frame = static_cast<unsigned>(i + 2);
        if (intervals[i] == 0) {
            if (++duplicates <= 10) std::printf("  duplicate timestamp at frame %u\n", frame);
        } else if (intervals[i] < 0) {
            if (++backwards <= 10) std::printf("  time goes back at frame %u\n", frame);
        } else if (median > 0 && intervals[i] * 2 > median * 3) {
            if (++gaps <= 10)
                std::printf("  gap before frame %u: %lld us (about %lld frames missing)\n", frame,
                            static_cast<long long>(intervals[i]),
                            static_cast<long long>((intervals[i] + median / 2) / median - 1));
        }
    }
    std::printf("Gaps:          %u\nDuplicates:    %u\nOut of order:  %u\n", gaps, duplicates,
                backwards);
    return 0;
}

int RunRecover(const std::string& file) {
    KSequence sequence;
    sequence.SetErrorOutput(false, false, false);
    uint32_t frames = 0;
    if (!sequence.Recover(file.c_str(), frames)) {
        std::fprintf(stderr, "kestor: cannot recover %s: %s\n", file.c_str(),
                     KWideToUtf8(KErrorManager::GetErrorString(sequence.GetLastError())).c_str());
        return 1;
    }
    std::printf("%s: %u frames recovered\n", file.c_str(), frames);
    return 0;
}

}  // namespace kestor::tool
