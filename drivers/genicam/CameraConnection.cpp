#include "genicam/CameraConnection.h"

#include <gio/gio.h>

namespace kestor::genicam {
namespace {

constexpr guint16 kGvcpPort = 3956;

// The address of the local interface that routes to `device`. Connecting a datagram socket
// only consults the routing table: nothing is sent.
GInetAddress* InterfaceAddressFor(GInetAddress* device) {
    GError* error = nullptr;
    GSocket* socket =
        g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_UDP, &error);
    if (socket == nullptr) {
        g_clear_error(&error);
        return nullptr;
    }
    GInetAddress* result = nullptr;
    GSocketAddress* remote = g_inet_socket_address_new(device, kGvcpPort);
    if (g_socket_connect(socket, remote, nullptr, &error)) {
        GSocketAddress* local = g_socket_get_local_address(socket, &error);
        if (local != nullptr) {
            result = G_INET_ADDRESS(
                g_object_ref(g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(local))));
            g_object_unref(local);
        }
    }
    g_clear_error(&error);
    g_object_unref(remote);
    g_object_unref(socket);
    return result;
}

}  // namespace

std::string TakeErrorText(GError*& error) {
    if (error == nullptr) return std::string();
    std::string text = error->message != nullptr ? error->message : "";
    g_clear_error(&error);
    return text;
}

CameraConnection::~CameraConnection() {
    Close();
}

bool CameraConnection::IsIpAddress(const std::string& text) {
    if (text.empty()) return false;
    GInetAddress* address = g_inet_address_new_from_string(text.c_str());
    if (address == nullptr) return false;
    const bool ipv4 = g_inet_address_get_family(address) == G_SOCKET_FAMILY_IPV4;
    g_object_unref(address);
    return ipv4;
}

bool CameraConnection::Open(const std::string& camera, std::string& error) {
    Close();
    GError* gerror = nullptr;
    if (camera.empty()) {
        error =
            "No camera is configured: set the value \"Camera\" to its IP address or serial "
            "number.";
        return false;
    }
    if (IsIpAddress(camera)) {
        GInetAddress* deviceAddress = g_inet_address_new_from_string(camera.c_str());
        GInetAddress* interfaceAddress = InterfaceAddressFor(deviceAddress);
        if (interfaceAddress == nullptr) {
            g_object_unref(deviceAddress);
            error = "No network interface reaches " + camera;
            return false;
        }
        device_ = arv_gv_device_new(interfaceAddress, deviceAddress, &gerror);
        g_object_unref(interfaceAddress);
        g_object_unref(deviceAddress);
        if (device_ == nullptr) {
            g_clear_error(&gerror);
            error = "No camera answers at " + camera;
            return false;
        }
    } else {
        // A serial number or device id: Aravis finds it by discovery.
        device_ = arv_open_device(camera.c_str(), &gerror);
        if (device_ == nullptr) {
            const std::string why = TakeErrorText(gerror);
            error = "No camera \"" + camera + "\" was found" + (why.empty() ? "" : ": " + why);
            return false;
        }
    }
    camera_ = arv_camera_new_with_device(device_, &gerror);
    if (camera_ == nullptr) {
        error = "The camera at " + camera + " cannot be used: " + TakeErrorText(gerror);
        Close();
        return false;
    }
    // Out-of-range values and writes to locked features fail instead of reaching the camera.
    arv_camera_set_range_check_policy(camera_, ARV_RANGE_CHECK_POLICY_ENABLE);
    arv_camera_set_access_check_policy(camera_, ARV_ACCESS_CHECK_POLICY_ENABLE);

    if (ARV_IS_GV_DEVICE(device_)) {
        controlLostSignal_ = g_signal_connect(device_, "control-lost",
                                              G_CALLBACK(&CameraConnection::OnControlLost), this);
    }
    const char* vendor = arv_camera_get_vendor_name(camera_, nullptr);
    const char* model = arv_camera_get_model_name(camera_, nullptr);
    const char* serial = arv_camera_get_device_serial_number(camera_, nullptr);
    description_ = std::string(vendor != nullptr ? vendor : "") + " " +
                   (model != nullptr ? model : "") + " (" + (serial != nullptr ? serial : "") + ")";
    return true;
}

void CameraConnection::StopWatching() {
    if (device_ != nullptr && controlLostSignal_ != 0) {
        g_signal_handler_disconnect(device_, controlLostSignal_);
    }
    controlLostSignal_ = 0;
}

void CameraConnection::Close() {
    StopWatching();
    if (camera_ != nullptr) g_object_unref(camera_);
    camera_ = nullptr;
    if (device_ != nullptr) g_object_unref(device_);
    device_ = nullptr;
    description_.clear();
}

void CameraConnection::SetControlLostHandler(std::function<void()> handler) {
    controlLostHandler_ = std::move(handler);
}

bool CameraConnection::IsGigEVision() const {
    return device_ != nullptr && ARV_IS_GV_DEVICE(device_);
}

ArvGc* CameraConnection::Genicam() const {
    return device_ != nullptr ? arv_device_get_genicam(device_) : nullptr;
}

void CameraConnection::OnControlLost(ArvGvDevice*, gpointer self) {
    auto* connection = static_cast<CameraConnection*>(self);
    if (connection->controlLost_.exchange(true)) return;
    if (connection->controlLostHandler_) connection->controlLostHandler_();
}

}  // namespace kestor::genicam
