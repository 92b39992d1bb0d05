// The connection to one GenICam camera through Aravis: opening it by IP address without any
// discovery broadcast (or by serial number / device id through Aravis's discovery), the
// device's GenICam node tree, and the "control-lost" signal of GigE Vision devices.
//
// Aravis runs its own threads for what happens while the application waits: the heartbeat
// thread of a GigE Vision device raises "control-lost" and the stream thread calls the
// stream callback, so nothing here needs the application to run a GLib main loop.
#pragma once

#include <arv.h>

#include <atomic>
#include <functional>
#include <string>

namespace kestor::genicam {

class CameraConnection {
public:
    CameraConnection() = default;
    ~CameraConnection();
    CameraConnection(const CameraConnection&) = delete;
    CameraConnection& operator=(const CameraConnection&) = delete;

    // Opens `camera`: an IPv4 address is contacted directly (one unicast control channel);
    // anything else is handed to Aravis as a device id or serial number. False with a text
    // for the user in `error`.
    bool Open(const std::string& camera, std::string& error);
    void Close();

    // Called once, on Aravis's heartbeat thread, when a GigE Vision device stops answering.
    void SetControlLostHandler(std::function<void()> handler);
    // No more control-lost calls from here on (the owner is going away).
    void StopWatching();
    bool IsControlLost() const { return controlLost_.load(); }

    bool IsOpen() const { return camera_ != nullptr; }
    bool IsGigEVision() const;
    ArvCamera* Camera() const { return camera_; }
    ArvDevice* Device() const { return device_; }
    ArvGc* Genicam() const;
    const std::string& Description() const { return description_; }

    // True when `text` is a dotted IPv4 address.
    static bool IsIpAddress(const std::string& text);

private:
    static void OnControlLost(ArvGvDevice* device, gpointer self);

    ArvDevice* device_ = nullptr;
    ArvCamera* camera_ = nullptr;
    gulong controlLostSignal_ = 0;
    std::atomic<bool> controlLost_{false};
    std::function<void()> controlLostHandler_;
    std::string description_;
};

// The text of a GLib error, and frees it; "" for null.
std::string TakeErrorText(GError*& error);

}  // namespace kestor::genicam
