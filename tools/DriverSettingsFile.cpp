#include "DriverSettingsFile.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

#include "KUtils.h"

namespace kestor::tool {
namespace {

std::string XmlEscaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

}  // namespace

TemporarySettingsFile::~TemporarySettingsFile() {
    if (!path_.empty()) unlink(path_.c_str());
}

bool TemporarySettingsFile::Write(eKSupportedModule driver, const std::string& name,
                                  const std::string& value) {
    KGrabModule module;
    const KChar* driverName = module.GetDriverInfo(driver, false);
    if (driverName == nullptr) return false;
    const char* folder = getenv("TMPDIR");
    std::string pattern =
        std::string(folder && *folder ? folder : "/tmp") + "/kestor-settings-XXXXXX";
    const int fd = mkstemp(pattern.data());
    if (fd < 0) return false;
    path_ = pattern;
    // The driver keeps its settings in a subkey named after it.
    const std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<KestorGrabberSettings version=\"1\">\n"
        "  <Key name=\"" +
        XmlEscaped(KWideToUtf8(driverName)) +
        "\">\n"
        "    <Value name=\"" +
        XmlEscaped(name) + "\" type=\"REG_SZ\">" + XmlEscaped(value) +
        "</Value>\n"
        "  </Key>\n"
        "</KestorGrabberSettings>\n";
    const bool written = ::write(fd, xml.data(), xml.size()) == static_cast<ssize_t>(xml.size());
    close(fd);
    return written;
}

}  // namespace kestor::tool
