// A temporary grabber settings file holding one driver value given on the command line (for
// example the address of a GigE camera), imported by KGrabModule::Load.
#pragma once

#include <string>

#include "KGrab.h"

namespace kestor::tool {

class TemporarySettingsFile {
public:
    TemporarySettingsFile() = default;
    ~TemporarySettingsFile();  // removes the file
    TemporarySettingsFile(const TemporarySettingsFile&) = delete;
    TemporarySettingsFile& operator=(const TemporarySettingsFile&) = delete;

    // A file that sets the string value `name` in the driver's own key.
    bool Write(eKSupportedModule driver, const std::string& name, const std::string& value);
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

}  // namespace kestor::tool
