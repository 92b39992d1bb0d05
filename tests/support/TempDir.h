// A scratch folder that is removed with everything in it when the test ends.
#pragma once

#include <filesystem>
#include <string>

namespace kestor::test {

class TempDir {
public:
    // `base` chooses the volume (for example /dev/shm for tmpfs); empty means the build tree's.
    explicit TempDir(const std::string& base = "");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& Path() const { return path_; }
    std::string File(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

}  // namespace kestor::test
