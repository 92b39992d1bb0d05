// Recovering a sequence file whose recording ended without a close (the process was killed,
// the machine lost power). The header on disk then still describes the first frame only,
// while the frames themselves are in the file: the frame count is rebuilt from the file's
// length, keeping every complete slot up to the last one with a plausible timestamp.
//
// A timestamp is plausible when its milliseconds and microseconds are below 1000 and, if any
// frame of the file carries a wall-clock time (1990 or later), when it is not earlier than
// 1990-01-01: such a recording used the wall clock, and a time before 1990 is unwritten space.
// A file in which no frame reaches 1990 used a relative clock, and only the first rule applies.
// Only frames at the end are dropped; an implausible frame between good ones is kept.
//
// A file is left untouched when its header does not validate, its sizes are absurd, it is too
// short to hold a header, or another writer is recording it.
#pragma once

#include <cstdint>
#include <string>

#include "KTypes.h"

namespace kestor {

// Seconds of 1990-01-01 00:00:00 UTC: wall-clock recordings are never older.
inline constexpr int32_t kEarliestWallClockSeconds = 631152000;

// `frames` receives the frame count the file holds afterwards. On failure `error` tells why:
// 60 no name, 61 the file cannot be opened, 46 another writer holds it, 47 damaged or not a
// sequence file, 48 the corrected header could not be written.
bool RecoverSequenceFile(const std::string& utf8Path, uint32_t& frames, eKErrorCode& error);

}  // namespace kestor
