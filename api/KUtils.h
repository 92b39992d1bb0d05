// Free helper functions: format and compression names, timestamp arithmetic, folders, the
// frame rate of AVI files and the hardware H.264 probe.
//
// A timestamp is the triple (seconds since 1970-01-01 UTC, milliseconds 0-999,
// microseconds 0-999). Relative values (offsets from a reference time) use the same triple.
#pragma once

#include <cstdint>
#include <string>

#include "KTypes.h"

// Display name of an image format or compression; never null, static lifetime. Unknown values
// give "Unsupported format" / "Unknown compression" and one debug line naming the value.
KESTOR_API const KChar* KImageFormatString(eKImageFormat format);
KESTOR_API const KChar* KImageCompressionString(eKCompression compression);

// True for the monochrome and monochrome Bayer formats (not for the PCO packed ones).
KESTOR_API bool IsFormatMono(eKImageFormat format);

// absolute - reference, with one borrow per part computed on unsigned 16-bit parts. Meaningful
// only when absolute is not earlier than reference. A microsecond borrow from 0 milliseconds
// leaves 65535 - reference milliseconds and takes no second (kept for file compatibility).
KESTOR_API void AbsoluteToRelative(int32_t refSeconds, uint16_t refMilliseconds,
                                   uint16_t refMicroseconds, int32_t absSeconds,
                                   uint16_t absMilliseconds, uint16_t absMicroseconds,
                                   uint32_t& relSeconds, uint16_t& relMilliseconds,
                                   uint16_t& relMicroseconds);

// reference + offset, part by part with one carry per part; no further normalisation.
KESTOR_API void RelativeToAbsolute(int32_t refSeconds, uint16_t refMilliseconds,
                                   uint16_t refMicroseconds, uint32_t relSeconds,
                                   uint16_t relMilliseconds, uint16_t relMicroseconds,
                                   int32_t& absSeconds, uint16_t& absMilliseconds,
                                   uint16_t& absMicroseconds);

// |second - first| normalised; `positive` tells whether second is not earlier than first.
// Returns false when the two times are equal.
KESTOR_API bool ComputeTimeDifference(int32_t firstSeconds, uint16_t firstMilliseconds,
                                      uint16_t firstMicroseconds, int32_t secondSeconds,
                                      uint16_t secondMilliseconds, uint16_t secondMicroseconds,
                                      int32_t& seconds, int16_t& milliseconds,
                                      int16_t& microseconds, bool& positive);

// -1 when first is earlier, 1 when later, 0 when equal.
KESTOR_API int CompareTimestamps(int32_t firstSeconds, uint16_t firstMilliseconds,
                                 uint16_t firstMicroseconds, int32_t secondSeconds,
                                 uint16_t secondMilliseconds, uint16_t secondMicroseconds);

// Adds an offset to (seconds, milliseconds); the microseconds only contribute their carry and
// are not returned. One carry step per part.
KESTOR_API void AddTimestampOffset(int32_t& seconds, int16_t& milliseconds, int16_t microseconds,
                                   int32_t offsetSeconds, int16_t offsetMilliseconds,
                                   int16_t offsetMicroseconds);

// Creates every folder named before a separator ('\\' or '/') of the path, so that a full
// file path prepares the folders that will hold the file. The last component is created only
// when the path ends with a separator. Failures (existing folders) are ignored.
KESTOR_API void CreateDirectoryRecursive(const KChar* path);
KESTOR_API void CreateDirectoryRecursive(const char* utf8Path);

// Frame rate (rate / scale of the first stream header, bytes 128 to 135) of an AVI file;
// 0.0 when the file cannot be read.
KESTOR_API double ReadAVIFrameRate(const KChar* fileName);
KESTOR_API double ReadAVIFrameRate(const char* utf8FileName);

// Patches that frame rate in place as scale 1000000 and rate round(rate * 1000000).
// Failures are silent.
KESTOR_API void WriteAVIFrameRate(const KChar* fileName, double rate);
KESTOR_API void WriteAVIFrameRate(const char* utf8FileName, double rate);

// Whether this machine can encode H.264 in hardware.
KESTOR_API bool IsSandyBridgeHardwarePresent();

// UTF-8 <-> UTF-16 conversion of the library's texts, for Linux programs and terminals.
// Malformed input becomes U+FFFD.
KESTOR_API std::string KWideToUtf8(const KChar* text);
KESTOR_API std::basic_string<KChar> KUtf8ToWide(const char* text);
