#include "genicam/DriverSettings.h"

#include "platform/Registry.h"
#include "platform/WideString.h"

namespace kestor::genicam {
namespace {

// Reads a DWORD; writes the default when the value is missing or not a DWORD.
uint32_t ReadDword(RegistryKey& key, const char16_t* name, uint32_t fallback, uint32_t min,
                   uint32_t max) {
    uint32_t value = 0;
    if (key.QueryDword(name, value) != RegStatus::Ok) {
        key.SetDword(name, fallback);
        return fallback;
    }
    return (value < min || value > max) ? fallback : value;
}

}  // namespace

bool LoadDriverSettings(const KAbiChar* settingsKey, DriverSettings& settings, std::string& error) {
    WideString path = settingsKey != nullptr ? WideString(settingsKey) : WideString();
    if (!path.empty() && path.back() != u'\\') path += u'\\';
    path += kSettingsSubKey;
    RegistryKey key;
    const RegStatus status = RegistryKey::Create(path, key);
    if (status != RegStatus::Ok) {
        error = "The GenICam settings key \"" + WideToUtf8(path) +
                "\" cannot be opened: " + RegStatusText(status) + ".";
        return false;
    }
    const DriverSettings defaults;
    WideString camera;
    if (key.QueryString(u"Camera", camera) == RegStatus::Ok) {
        settings.camera = WideToUtf8(camera);
    } else {
        key.SetString(u"Camera", u"");
        settings.camera.clear();
    }
    // Trim blanks a user may have typed around the address.
    const size_t first = settings.camera.find_first_not_of(" \t");
    const size_t last = settings.camera.find_last_not_of(" \t");
    settings.camera = first == std::string::npos ? std::string()
                                                 : settings.camera.substr(first, last - first + 1);

    settings.packetSize = ReadDword(key, u"PacketSize", defaults.packetSize, 0, kMaxPacketSize);
    settings.socketBuffer =
        ReadDword(key, u"SocketBuffer", defaults.socketBuffer, 0, kMaxSocketBuffer);
    settings.packetResend = ReadDword(key, u"PacketResend", 1, 0, 1) != 0;
    settings.packetSocket = ReadDword(key, u"PacketSocket", 1, 0, 1) != 0;
    settings.bufferTimeoutMs = ReadDword(key, u"BufferTimeoutMs", defaults.bufferTimeoutMs,
                                         kMinBufferTimeoutMs, kMaxBufferTimeoutMs);
    settings.frameRetentionMs =
        ReadDword(key, u"FrameRetentionMs", defaults.frameRetentionMs, 0, kMaxFrameRetentionMs);
    return true;
}

}  // namespace kestor::genicam
