// Facts about image format values shared inside the library.
#pragma once

#include <cstdint>

#include "KTypes.h"

namespace kestor {

// Display name of a known format value; null for a value the library does not know (and,
// unlike KImageFormatString, without reporting it).
const KChar* ImageFormatName(uint32_t format);

// The monochrome Bayer formats (8-bit, little- and big-endian 16-bit, packed).
bool IsFormatBayer(uint32_t format);

}  // namespace kestor
