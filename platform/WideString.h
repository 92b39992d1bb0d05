// UTF-16 text as it crosses the API, and its conversion to the UTF-8 that Linux speaks.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

#include "KTypes.h"

namespace kestor {

using WideString = std::basic_string<KChar>;
using WideStringView = std::basic_string_view<KChar>;

// Length in UTF-16 units of a NUL-terminated wide string; 0 for null.
size_t WideLength(const KChar* text);

// Conversions replace malformed input (lone surrogates, invalid UTF-8) with U+FFFD.
WideString Utf8ToWide(std::string_view utf8);
std::string WideToUtf8(WideStringView wide);
std::string WideToUtf8(const KChar* wide);  // null gives ""

// printf-style formatting of wide text, with the conventions of wide printf on Windows:
// %s takes a wide (KChar) string, %S and %hs a narrow UTF-8 string, %c a wide character.
// Integers: %d %i %u %x %X %o with h, l, ll, z and I64 sizes; floats: %f %e %g %a; %%.
// Flags, width and precision (including *) behave as in printf.
// The output is truncated to capacity - 1 characters and always NUL-terminated (when capacity
// is at least 1). Returns the number of characters stored, excluding the NUL.
size_t WideFormat(KChar* buffer, size_t capacity, const KChar* format, ...);
size_t WideFormatV(KChar* buffer, size_t capacity, const KChar* format, va_list args);

// Same formatting into a string of unbounded length.
WideString WideFormatString(const KChar* format, ...);
WideString WideFormatStringV(const KChar* format, va_list args);

}  // namespace kestor
