// Small file-system operations outside the recording path: folders and in-place patches of a
// few bytes of an existing file. Paths are UTF-8; on POSIX a '\\' is taken as a separator.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kestor {

// Turns a path written with either separator into the platform's form.
std::string NativePath(const std::string& utf8Path);

// Creates one folder; false when it could not be created (it may already exist).
bool MakeDirectory(const std::string& utf8Path);

// Reads up to `bytes` at `offset` of an existing file; returns how many were read, or -1 when
// the file cannot be opened.
long ReadFileBytes(const std::string& utf8Path, uint64_t offset, void* buffer, size_t bytes);

// Writes `bytes` at `offset` of an existing file that no one else holds open for writing
// through this layer. Returns false on any failure.
bool PatchFileBytes(const std::string& utf8Path, uint64_t offset, const void* data, size_t bytes);

}  // namespace kestor
