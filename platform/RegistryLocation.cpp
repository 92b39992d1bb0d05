#include "platform/RegistryLocation.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>

#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <vector>

namespace kestor {

namespace {

std::string Environment(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string() : std::string(value);
}

std::string HomeFolder() {
    std::string home = Environment("HOME");
    if (!home.empty()) return home;
    // No HOME (daemons, cron): fall back to the password database.
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr)
        return found->pw_dir;
    return {};
}

}  // namespace

std::string RegistryFileLocation() {
    std::string file = Environment("KESTOR_REGISTRY");
    if (!file.empty()) return file;
    const std::string config = Environment("XDG_CONFIG_HOME");
    if (!config.empty() && config.front() == '/') return config + "/kestor/registry.db";
    const std::string home = HomeFolder();
    if (home.empty()) return {};
    return home + "/.config/kestor/registry.db";
}

RegStatus PrepareRegistryFolder(const std::string& file) {
    const std::filesystem::path folder = std::filesystem::path(file).parent_path();
    if (folder.empty()) return RegStatus::Ok;
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (!error) return RegStatus::Ok;
    if (error == std::errc::permission_denied || error == std::errc::operation_not_permitted ||
        error == std::errc::read_only_file_system)
        return RegStatus::AccessDenied;
    return RegStatus::IoError;
}

RegStatus DiagnoseUnopenableFile(const std::string& file) {
    // A missing file needs a folder that may be written; an existing one must be writable.
    std::filesystem::path target = file;
    int wanted = R_OK | W_OK;
    if (faccessat(AT_FDCWD, file.c_str(), F_OK, AT_EACCESS) != 0) {
        target = target.parent_path();
        if (target.empty()) target = ".";
        wanted = W_OK | X_OK;
    }
    if (faccessat(AT_FDCWD, target.c_str(), wanted, AT_EACCESS) != 0 &&
        (errno == EACCES || errno == EPERM || errno == EROFS))
        return RegStatus::AccessDenied;
    return RegStatus::IoError;
}

}  // namespace kestor
