// The driver's settings in the current user's registry, under the settings key the manager
// hands over followed by "GenICam". Missing values are written with their defaults so that a
// user finds every value in place; values out of range fall back to their defaults.
#pragma once

#include <cstdint>
#include <string>

#include "KGrabberAbi.h"

namespace kestor::genicam {

inline constexpr char16_t kSettingsSubKey[] = u"GenICam";

struct DriverSettings {
    // IP address (opened directly), serial number or Aravis device id (found by discovery).
    std::string camera;
    uint32_t packetSize = 0;         // GVSP packet size in bytes; 0 keeps the camera's value
    uint32_t socketBuffer = 0;       // receive socket buffer in bytes; 0 sizes it to one frame
    bool packetResend = true;        // ask the camera to resend lost packets
    bool packetSocket = true;        // use the packet socket where the process may
    uint32_t bufferTimeoutMs = 200;  // longest WaitImage wait before it returns empty
    uint32_t frameRetentionMs = 0;   // 0 keeps Aravis's value: how long an incomplete
                                     // frame waits for missing packets
};

// Limits of the numeric values; values outside fall back to the default.
inline constexpr uint32_t kMaxPacketSize = 65500;
inline constexpr uint32_t kMaxSocketBuffer = 512u * 1024u * 1024u;
inline constexpr uint32_t kMinBufferTimeoutMs = 1;
inline constexpr uint32_t kMaxBufferTimeoutMs = 60000;
inline constexpr uint32_t kMaxFrameRetentionMs = 60000;

// Reads the settings below `settingsKey` + "GenICam", creating the key and missing values.
// False with `error` set when the registry cannot be used.
bool LoadDriverSettings(const KAbiChar* settingsKey, DriverSettings& settings, std::string& error);

}  // namespace kestor::genicam
