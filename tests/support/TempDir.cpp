#include "support/TempDir.h"

#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>
#include <system_error>

namespace kestor::test {

TempDir::TempDir(const std::string& base) {
    // Default to the working directory (the build tree, on a real disk) rather than /tmp,
    // which may be tmpfs and would hide direct-I/O behaviour.
    std::filesystem::path root =
        base.empty() ? std::filesystem::current_path() : std::filesystem::path(base);
    std::string pattern = (root / "kestor-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed: " + pattern);
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace kestor::test
