// Libraries loaded at run time: grabber drivers, vendor decoders and optional system libraries
// that the build does not link against.
#pragma once

#include <string>

namespace kestor {

class SharedLibrary {
public:
    SharedLibrary() = default;
    ~SharedLibrary();  // closes
    SharedLibrary(SharedLibrary&& other) noexcept;
    SharedLibrary& operator=(SharedLibrary&& other) noexcept;
    SharedLibrary(const SharedLibrary&) = delete;
    SharedLibrary& operator=(const SharedLibrary&) = delete;

    // Loads with every symbol resolved now and kept private to this handle, so a missing
    // dependency fails here rather than on first use. A bare name is searched the system's
    // way. Closes a library already held. False with Error() telling why.
    bool Open(const std::string& utf8Path);
    // Address of an exported symbol, or null (Error() then tells why).
    void* Symbol(const char* name) const;
    void Close();
    bool IsOpen() const { return handle_ != nullptr; }
    const std::string& Error() const { return error_; }

private:
    void* handle_ = nullptr;
    mutable std::string error_;
};

// Folder of the executable or shared object that holds this code, without a trailing slash;
// plugins are looked for beside it. Empty when it cannot be found.
std::string ThisLibraryDirectory();

}  // namespace kestor
