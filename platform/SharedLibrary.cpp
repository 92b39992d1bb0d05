#include "platform/SharedLibrary.h"

#include <dlfcn.h>
#include <limits.h>
#include <link.h>
#include <stdlib.h>
#include <unistd.h>

#include <utility>

namespace kestor {
namespace {

std::string TakeDlError(const char* fallback) {
    const char* text = dlerror();
    return text ? text : fallback;
}

std::string RealPath(const char* path) {
    char resolved[PATH_MAX];
    return realpath(path, resolved) ? std::string(resolved) : std::string();
}

std::string ExecutablePath() {
    return RealPath("/proc/self/exe");
}

}  // namespace

SharedLibrary::~SharedLibrary() {
    Close();
}

SharedLibrary::SharedLibrary(SharedLibrary&& other) noexcept {
    *this = std::move(other);
}

SharedLibrary& SharedLibrary::operator=(SharedLibrary&& other) noexcept {
    if (this != &other) {
        Close();
        handle_ = std::exchange(other.handle_, nullptr);
        error_ = std::move(other.error_);
    }
    return *this;
}

bool SharedLibrary::Open(const std::string& utf8Path) {
    Close();
    error_.clear();
    if (utf8Path.empty()) {
        error_ = "empty library path";
        return false;
    }
    dlerror();  // forget any earlier failure
    handle_ = dlopen(utf8Path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) error_ = TakeDlError("cannot load library");
    return handle_ != nullptr;
}

void* SharedLibrary::Symbol(const char* name) const {
    if (!handle_ || !name) {
        error_ = handle_ ? "no symbol name" : "library not open";
        return nullptr;
    }
    dlerror();
    void* address = dlsym(handle_, name);
    if (!address) error_ = TakeDlError("symbol has a null address");
    return address;
}

void SharedLibrary::Close() {
    if (handle_) dlclose(handle_);
    handle_ = nullptr;
}

std::string ThisLibraryDirectory() {
    Dl_info info = {};
    link_map* map = nullptr;
    static const int anchor = 0;  // any object inside this module
    if (dladdr1(&anchor, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0) return {};
    // The main program has an empty name in the loader's list (dladdr would give argv[0],
    // which may be relative to a folder we are no longer in).
    std::string path =
        (map && map->l_name && map->l_name[0] != '\0') ? RealPath(map->l_name) : ExecutablePath();
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {};
    return slash == 0 ? std::string("/") : path.substr(0, slash);
}

}  // namespace kestor
