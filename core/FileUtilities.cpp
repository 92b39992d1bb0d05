// Folder creation, the AVI frame-rate patch and the hardware H.264 probe.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "KUtils.h"
#include "platform/FileSystem.h"
#include "platform/H264HardwareProbe.h"
#include "platform/WideString.h"

namespace {

constexpr size_t kPathCapacity = 520;
constexpr uint64_t kAviScaleOffset = 128;  // dwScale then dwRate of the first stream header
constexpr uint32_t kAviWrittenScale = 1000000;

uint32_t LoadLittleEndian32(const unsigned char* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

void StoreLittleEndian32(unsigned char* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

}  // namespace

void CreateDirectoryRecursive(const KChar* path) {
    if (path == nullptr) return;
    // Paths longer than the work buffer are cut, as the buffer has always been this size.
    kestor::WideString work(path, std::min(kestor::WideLength(path), kPathCapacity - 1));
    kestor::WideString prefix;
    for (size_t i = 0; i < work.size(); ++i) {
        const KChar c = work[i];
        // A separator right after a colon ends a drive name ("C:\"), which is never created.
        if ((c == u'\\' || c == u'/') && (i == 0 || work[i - 1] != u':'))
            kestor::MakeDirectory(kestor::WideToUtf8(prefix));
        prefix.push_back(c);
    }
}

void CreateDirectoryRecursive(const char* utf8Path) {
    if (utf8Path != nullptr) CreateDirectoryRecursive(kestor::Utf8ToWide(utf8Path).c_str());
}

double ReadAVIFrameRate(const char* utf8FileName) {
    if (utf8FileName == nullptr) return 0.0;
    unsigned char fields[8];
    const long n = kestor::ReadFileBytes(utf8FileName, kAviScaleOffset, fields, sizeof fields);
    if (n < 0) return 0.0;
    uint32_t scale = 1;
    uint32_t rate = 0;
    if (n >= 4) scale = LoadLittleEndian32(fields);
    if (n >= 8) rate = LoadLittleEndian32(fields + 4);
    // A zero scale means the header holds no rate; answer "no rate" rather than infinity.
    if (scale == 0) return 0.0;
    return static_cast<double>(rate) / static_cast<double>(scale);
}

double ReadAVIFrameRate(const KChar* fileName) {
    return fileName == nullptr ? 0.0 : ReadAVIFrameRate(kestor::WideToUtf8(fileName).c_str());
}

void WriteAVIFrameRate(const char* utf8FileName, double rate) {
    if (utf8FileName == nullptr) return;
    double scaled = std::floor(rate * kAviWrittenScale + 0.5);
    // Out-of-range rates are clamped instead of overflowing the 32-bit field.
    if (!(scaled >= 0.0)) scaled = 0.0;
    if (scaled > 4294967295.0) scaled = 4294967295.0;
    unsigned char fields[8];
    StoreLittleEndian32(fields, kAviWrittenScale);
    StoreLittleEndian32(fields + 4, static_cast<uint32_t>(scaled));
    kestor::PatchFileBytes(utf8FileName, kAviScaleOffset, fields, sizeof fields);
}

void WriteAVIFrameRate(const KChar* fileName, double rate) {
    if (fileName != nullptr) WriteAVIFrameRate(kestor::WideToUtf8(fileName).c_str(), rate);
}

bool IsSandyBridgeHardwarePresent() {
    return kestor::IsH264HardwareEncoderPresent();
}
