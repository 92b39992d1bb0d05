#include "platform/FileSystem.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace kestor {

std::string NativePath(const std::string& utf8Path) {
    std::string path = utf8Path;
    for (char& c : path)
        if (c == '\\') c = '/';
    return path;
}

bool MakeDirectory(const std::string& utf8Path) {
    return !utf8Path.empty() && ::mkdir(NativePath(utf8Path).c_str(), 0777) == 0;
}

long ReadFileBytes(const std::string& utf8Path, uint64_t offset, void* buffer, size_t bytes) {
    const int fd = ::open(NativePath(utf8Path).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    size_t done = 0;
    while (done < bytes) {
        const ssize_t n = ::pread(fd, static_cast<char*>(buffer) + done, bytes - done,
                                  static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    ::close(fd);
    return static_cast<long>(done);
}

bool PatchFileBytes(const std::string& utf8Path, uint64_t offset, const void* data, size_t bytes) {
    const int fd = ::open(NativePath(utf8Path).c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    // Exclusive use while patching, like an unshared open on Windows.
    bool ok = ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    size_t done = 0;
    while (ok && done < bytes) {
        const ssize_t n = ::pwrite(fd, static_cast<const char*>(data) + done, bytes - done,
                                   static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0)
            ok = false;
        else
            done += static_cast<size_t>(n);
    }
    ::close(fd);
    return ok;
}

}  // namespace kestor
