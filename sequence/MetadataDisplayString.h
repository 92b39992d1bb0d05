// Turning a metadata item's data into its display string, by layout code or by the fixed rules
// of the built-in time types.
#pragma once

#include <cstdint>

#include "KMetadataManager.h"
#include "platform/WideString.h"

namespace kestor {

// Display strings are made in buffers of this many characters (NUL included); longer texts are
// cut.
inline constexpr size_t kDisplayStringCapacity = 256;

// The pattern the generic type of a layout code uses ("%d", "%u", "%f", "%s", "true;false");
// empty for binary and unknown codes.
const KChar* DefaultPatternFor(uint32_t format);

// True when `pattern` consumes at most one argument and that argument has the type the layout
// code passes (int for the integer codes, double, or a wide string). Patterns read from the
// registry or from a file are untrusted: a "%s" applied to an integer would read through a
// garbage pointer, so such patterns are never used.
bool PatternSuitsFormat(const KChar* pattern, uint32_t format);

// Text of a value of layout code `format` printed with `pattern`. False (text untouched) for
// binary and unknown codes, a Boolean pattern without ";", an unsuitable pattern, or data too
// short for the layout. Strings are read up to their NUL or the end of the data.
bool FormatMetadataValue(uint32_t format, const KChar* pattern, const uint8_t* data, uint32_t size,
                         WideString& text);

// ID 33: 64-bit seconds, 16-bit milliseconds, 16-bit microseconds, shown in local time as
// "Thu Jan 01 00:00:00.005007". False when the data is shorter than 12 bytes or the time cannot
// be converted.
bool FormatTime64Metadata(const uint8_t* data, uint32_t size, WideString& text);

// ID 34: BCD time code in the first 4 bytes, shown as "hh:mm:ss-ff". False when shorter.
bool FormatLtcMetadata(const uint8_t* data, uint32_t size, WideString& text);

}  // namespace kestor
