#include "platform/VolumeAlignment.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdio>
#include <filesystem>

namespace kestor {
namespace {

constexpr uint32_t kDefaultSectorSize = 512;
// Anything larger is not a sector size but a misreading; keeps slot rounding sane.
constexpr uint32_t kLargestSectorSize = 1u << 20;

bool IsUsableAlignment(uint64_t value) {
    return value != 0 && value <= kLargestSectorSize && (value & (value - 1)) == 0;
}

// Kernels from 6.1 report the exact direct-I/O alignment per file (regular files only).
bool QueryStatxAlignment(int dirFd, const char* path, int flags, DirectIoAlignment* out) {
#ifdef STATX_DIOALIGN
    struct statx info = {};
    if (statx(dirFd, path, flags, STATX_DIOALIGN, &info) != 0) return false;
    if ((info.stx_mask & STATX_DIOALIGN) == 0) return false;
    // 0 means the file system offers no direct I/O for this file: let the caller guess.
    if (!IsUsableAlignment(info.stx_dio_offset_align) || !IsUsableAlignment(info.stx_dio_mem_align))
        return false;
    out->offset = info.stx_dio_offset_align;
    out->memory = info.stx_dio_mem_align;
    return true;
#else
    (void)dirFd, (void)path, (void)flags, (void)out;
    return false;
#endif
}

uint32_t ReadSysfsNumber(const std::string& path) {
    FILE* file = std::fopen(path.c_str(), "re");
    if (!file) return 0;
    unsigned long value = 0;
    if (std::fscanf(file, "%lu", &value) != 1) value = 0;
    std::fclose(file);
    return IsUsableAlignment(value) ? static_cast<uint32_t>(value) : 0;
}

// Logical block size of the block device a file lives on; 0 for volumes without one
// (tmpfs, overlay and network file systems have anonymous device numbers).
uint32_t BlockDeviceSectorSize(dev_t device) {
    if (major(device) == 0) return 0;
    const std::string node =
        "/sys/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
    if (uint32_t size = ReadSysfsNumber(node + "/queue/logical_block_size")) return size;
    // A partition has no queue of its own; its folder sits inside the whole disk's.
    return ReadSysfsNumber(node + "/../queue/logical_block_size");
}

}  // namespace

DirectIoAlignment DirectIoAlignmentOfFile(int fd) {
    DirectIoAlignment alignment;
    if (QueryStatxAlignment(fd, "", AT_EMPTY_PATH, &alignment)) return alignment;
    struct stat info = {};
    uint32_t sector = 0;
    if (fstat(fd, &info) == 0) sector = BlockDeviceSectorSize(info.st_dev);
    if (sector == 0) sector = kDefaultSectorSize;
    // Older kernels want buffers aligned like the transfers themselves.
    alignment.offset = sector;
    alignment.memory = sector;
    return alignment;
}

uint32_t VolumeSectorSize(const std::string& utf8PathOfFileOrFolder) {
    namespace fs = std::filesystem;
    fs::path probe =
        utf8PathOfFileOrFolder.empty() ? fs::path(".") : fs::path(utf8PathOfFileOrFolder);
    struct stat info = {};
    // A file about to be created lives on the volume of its nearest existing folder.
    while (stat(probe.c_str(), &info) != 0) {
        fs::path parent = probe.parent_path();
        if (parent.empty()) parent = ".";
        if (parent == probe) return kDefaultSectorSize;
        probe = parent;
    }
    DirectIoAlignment alignment;
    if (QueryStatxAlignment(AT_FDCWD, probe.c_str(), 0, &alignment)) return alignment.offset;
    const uint32_t sector = BlockDeviceSectorSize(info.st_dev);
    return sector != 0 ? sector : kDefaultSectorSize;
}

}  // namespace kestor
