// Alignment that unbuffered transfers need on a volume: the "bytes per sector" by which the
// sequencers round their slots, and the alignment of the memory they transfer from.
#pragma once

#include <cstdint>
#include <string>

namespace kestor {

struct DirectIoAlignment {
    uint32_t offset = 512;  // file offsets and transfer lengths
    uint32_t memory = 512;  // buffer addresses
};

// Asks the kernel for the direct-I/O alignment of an open file; where it cannot tell, uses the
// logical block size of the device under the file, else 512. Both values are powers of two.
DirectIoAlignment DirectIoAlignmentOfFile(int fd);

// Bytes per sector of the volume holding a file or folder; for a path that does not exist yet
// the nearest existing parent folder is asked. Never 0 (512 when the volume cannot tell).
uint32_t VolumeSectorSize(const std::string& utf8PathOfFileOrFolder);

}  // namespace kestor
