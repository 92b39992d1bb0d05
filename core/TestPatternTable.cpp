#include "core/TestPatternTable.h"

#include <numeric>

namespace kestor {
namespace {

uint32_t DescriptionTag(const KImageDescription& d) {
    const uint32_t fields[] = {d.width,        d.height,    d.bitDepth,
                               d.bitDepthReal, d.sizeBytes, d.format};
    uint32_t hash = 2166136261u;  // FNV-1a over the six values
    for (uint32_t field : fields) {
        for (int shift = 0; shift < 32; shift += 8) {
            hash ^= (field >> shift) & 0xFFu;
            hash *= 16777619u;
        }
    }
    return hash;
}

void PutLittle(uint8_t* out, uint64_t value, uint32_t bytes) {
    for (uint32_t i = 0; i < bytes; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}

void PutBig(uint8_t* out, uint64_t value, uint32_t bytes) {
    for (uint32_t i = 0; i < bytes; ++i)
        out[bytes - 1 - i] = static_cast<uint8_t>(value >> (8 * i));
}

// A `bits`-wide sample of the 16-bit intensity, keeping its most significant bits.
uint64_t Sample(uint32_t intensity, uint32_t bits) {
    if (bits <= 16) return intensity >> (16 - bits);
    const uint64_t repeated = intensity * 0x0001000100010001ull;
    return bits >= 64 ? repeated : repeated & ((1ull << bits) - 1);
}

}  // namespace

bool TestPatternTable::CanCarry(const KImageDescription& d) {
    if (d.width == 0 || d.height == 0 || d.bitDepth == 0 || d.bitDepth > 64) return false;
    const uint64_t rowBits = static_cast<uint64_t>(d.width) * d.bitDepth;
    if (rowBits % 8 != 0) return false;
    const uint64_t size = rowBits / 8 * d.height;
    return size == d.sizeBytes && size >= kHeaderBytes + kTrailerBytes + 16;
}

TestPatternTable::TestPatternTable(const KImageDescription& description)
    : description_(description) {
    const uint32_t bits = description.bitDepth;
    groupPixels_ = 8 / std::gcd(bits, 8u);
    if (description.format == eKFormatYUV422 || description.format == eKFormatUVY422) {
        groupPixels_ = 2;  // a luma pair shares its chroma
    }
    groupBytes_ = bits * groupPixels_ / 8;
    rowBytes_ = static_cast<size_t>(description.width) * bits / 8;
    tag_ = DescriptionTag(description);

    const size_t rowGroups = (rowBytes_ + groupBytes_ - 1) / groupBytes_;
    const size_t groups = kPeriodGroups + rowGroups + 1;
    bytes_.resize(groups * groupBytes_);
    for (size_t group = 0; group < groups; ++group) {
        EncodeGroup(bytes_.data() + group * groupBytes_,
                    static_cast<uint32_t>(group % kPeriodGroups));
    }

    // Row sums for every phase, by sliding a row-long window one group at a time.
    rowSums_.resize(kPeriodGroups);
    uint64_t sum = 0;
    for (size_t i = 0; i < rowBytes_; ++i) sum += bytes_[i];
    for (uint32_t phase = 0; phase < kPeriodGroups; ++phase) {
        rowSums_[phase] = sum;
        const size_t start = static_cast<size_t>(phase) * groupBytes_;
        for (uint32_t i = 0; i < groupBytes_; ++i) {
            sum += bytes_[start + rowBytes_ + i];
            sum -= bytes_[start + i];
        }
    }
}

uint64_t TestPatternTable::Checksum(uint64_t frame) const {
    uint64_t sum = 0;
    for (uint32_t row = 0; row < description_.height; ++row) sum += rowSums_[Phase(frame, row)];
    return sum;
}

void TestPatternTable::EncodeGroup(uint8_t* out, uint32_t periodGroup) const {
    const uint32_t bits = description_.bitDepth;
    const uint32_t real = description_.bitDepthReal == 0 || description_.bitDepthReal > bits
                              ? bits
                              : description_.bitDepthReal;
    const uint64_t periodPixels = static_cast<uint64_t>(kPeriodGroups) * groupPixels_;
    auto intensity = [&](uint32_t pixel) {  // a ramp over the period, 0 to 65535
        const uint64_t index = static_cast<uint64_t>(periodGroup) * groupPixels_ + pixel;
        return static_cast<uint32_t>(index * 65536 / periodPixels);
    };
    const uint32_t format = description_.format;

    if (format == eKFormatYUV422 || format == eKFormatUVY422) {
        const uint8_t y0 = static_cast<uint8_t>(intensity(0) >> 8);
        const uint8_t y1 = static_cast<uint8_t>(intensity(1) >> 8);
        const uint8_t u = static_cast<uint8_t>(255 - y0), v = y0;
        const uint8_t yuyv[4] = {y0, u, y1, v}, uyvy[4] = {u, y0, v, y1};
        const uint8_t* source = format == eKFormatYUV422 ? yuyv : uyvy;
        for (uint32_t i = 0; i < 4 && i < groupBytes_; ++i) out[i] = source[i];
        return;
    }
    if (bits % 8 != 0) {  // bit-packed samples, least significant bit first
        uint64_t accumulator = 0;
        uint32_t filled = 0, written = 0;
        for (uint32_t pixel = 0; pixel < groupPixels_; ++pixel) {
            const uint64_t sample = Sample(intensity(pixel), real) << (bits - real);
            for (uint32_t bit = 0; bit < bits; ++bit) {
                accumulator |= ((sample >> bit) & 1u) << filled;
                if (++filled == 8) {
                    out[written++] = static_cast<uint8_t>(accumulator);
                    accumulator = 0;
                    filled = 0;
                }
            }
        }
        return;
    }
    const uint32_t bytesPerPixel = bits / 8;
    for (uint32_t pixel = 0; pixel < groupPixels_; ++pixel) {
        uint8_t* p = out + pixel * bytesPerPixel;
        const uint32_t i = intensity(pixel);
        const uint8_t level = static_cast<uint8_t>(i >> 8);
        switch (format) {
            case eKFormatBGR:
            case eKFormatBGRx:
            case eKFormatRGB:
                if (bytesPerPixel >= 3) {
                    const uint8_t blue = level, green = static_cast<uint8_t>(255 - level),
                                  red = static_cast<uint8_t>(i >> 7);
                    p[0] = format == eKFormatRGB ? red : blue;
                    p[1] = green;
                    p[2] = format == eKFormatRGB ? blue : red;
                    for (uint32_t k = 3; k < bytesPerPixel; ++k) p[k] = 0xFF;
                    continue;
                }
                break;
            case eKFormatMonoLE:
            case eKFormatMonoBayerLE:  // samples aligned to the most significant bit
                PutLittle(p, Sample(i, real) << (bits - real), bytesPerPixel);
                continue;
            case eKFormatMonoBE:
            case eKFormatMonoBayerBE:
                PutBig(p, Sample(i, real), bytesPerPixel);
                continue;
            default:
                break;
        }
        PutLittle(p, Sample(i, real), bytesPerPixel);
    }
}

std::shared_ptr<const TestPatternTable> TestPatternTableFor(const KImageDescription& description) {
    if (!TestPatternTable::CanCarry(description)) return nullptr;
    thread_local std::shared_ptr<const TestPatternTable> last;
    if (!last || !(last->Description() == description)) {
        last = std::make_shared<const TestPatternTable>(description);
    }
    return last;
}

}  // namespace kestor
