// Feeds arbitrary registry values to the GenICam driver's settings reader (the reader only: no
// camera is opened and nothing touches the network). Whatever the store holds, the settings
// come out in range, the camera name without blanks around it, every value is in place as the
// type the reader wants, and a second read gives the same settings.
#include <stdlib.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "genicam/DriverSettings.h"
#include "platform/RegistryDatabase.h"
#include "support/FuzzedRegistryValues.h"
#include "support/TempDir.h"

namespace {

using kestor::RegistryKey;
using kestor::RegStatus;
using kestor::genicam::DriverSettings;

constexpr const char16_t* kSettingsKey = u"Software\\Fuzz\\Grabdesk\\";
constexpr const char16_t* kDriverKey = u"Software\\Fuzz\\Grabdesk\\GenICam";
constexpr const char16_t* const kDwordNames[] = {u"PacketSize",      u"SocketBuffer",
                                                 u"PacketResend",    u"PacketSocket",
                                                 u"BufferTimeoutMs", u"FrameRetentionMs"};
constexpr const char16_t* const kValueNames[] = {
    u"Camera",       u"PacketSize",      u"SocketBuffer",    u"PacketResend",
    u"PacketSocket", u"BufferTimeoutMs", u"FrameRetentionMs"};
constexpr size_t kMaxValues = 16;

void Check(bool condition) {
    if (!condition) std::abort();
}

const kestor::test::TempDir& Folder() {
    static const kestor::test::TempDir folder(std::filesystem::temp_directory_path().string());
    return folder;
}

DriverSettings Load() {
    DriverSettings settings;
    std::string error;
    Check(kestor::genicam::LoadDriverSettings(kSettingsKey, settings, error));
    Check(error.empty());
    return settings;
}

bool Same(const DriverSettings& a, const DriverSettings& b) {
    return a.camera == b.camera && a.packetSize == b.packetSize &&
           a.socketBuffer == b.socketBuffer && a.packetResend == b.packetResend &&
           a.packetSocket == b.packetSocket && a.bufferTimeoutMs == b.bufferTimeoutMs &&
           a.frameRetentionMs == b.frameRetentionMs;
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    setenv("KESTOR_REGISTRY", Folder().File("registry.db").c_str(), 1);
    RegistryKey::DeleteTree(u"Software\\Fuzz");
    kestor::test::FuzzedInput input(data, size);
    const auto values = kestor::test::DecodeRegistryValues(input, kValueNames, kMaxValues);
    if (!values.empty()) {
        RegistryKey key;
        Check(RegistryKey::Create(kDriverKey, key) == RegStatus::Ok);
        kestor::test::WriteRegistryValues(key, values);
    }

    const DriverSettings settings = Load();
    Check(settings.camera.empty() ||
          (!IsBlank(settings.camera.front()) && !IsBlank(settings.camera.back())));
    Check(settings.packetSize <= kestor::genicam::kMaxPacketSize);
    Check(settings.socketBuffer <= kestor::genicam::kMaxSocketBuffer);
    Check(settings.bufferTimeoutMs >= kestor::genicam::kMinBufferTimeoutMs &&
          settings.bufferTimeoutMs <= kestor::genicam::kMaxBufferTimeoutMs);
    Check(settings.frameRetentionMs <= kestor::genicam::kMaxFrameRetentionMs);

    // Missing and mistyped values were replaced, so a user finds each one as it should be.
    {
        RegistryKey key;
        Check(RegistryKey::Open(kDriverKey, key) == RegStatus::Ok);
        kestor::WideString camera;
        Check(key.QueryString(u"Camera", camera) == RegStatus::Ok);
        for (const char16_t* name : kDwordNames) {
            uint32_t value = 0;
            Check(key.QueryDword(name, value) == RegStatus::Ok);
        }
    }
    Check(Same(Load(), settings));
    kestor::RegistryDatabase::CloseUnused();
    return 0;
}
