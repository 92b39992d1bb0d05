// Geometry, pixel format and binning of the GenICam driver.
#include "genicam/GenICamCamera.h"

#include <algorithm>

namespace kestor::genicam {

PixelFormatInfo GenICamCamera::CurrentPixelFormat() {
    std::lock_guard<std::recursive_mutex> lock(Lock());
    GError* error = nullptr;
    const ArvPixelFormat format = arv_camera_get_pixel_format(connection_.Camera(), &error);
    g_clear_error(&error);
    return DescribePixelFormat(static_cast<uint32_t>(format));
}

KStatus GenICamCamera::GetImageSize(uint32_t* width, uint32_t* height, uint32_t* left,
                                    uint32_t* top) {
    if (width == nullptr || height == nullptr || left == nullptr || top == nullptr) {
        return kKPointer;
    }
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    gint x = 0, y = 0, w = 0, h = 0;
    GError* error = nullptr;
    arv_camera_get_region(connection_.Camera(), &x, &y, &w, &h, &error);
    if (error != nullptr) {
        g_clear_error(&error);
        return kKFail;
    }
    *width = static_cast<uint32_t>(w);
    *height = static_cast<uint32_t>(h);
    *left = static_cast<uint32_t>(x);
    *top = static_cast<uint32_t>(y);
    return kKOk;
}

KStatus GenICamCamera::SetImageSize(uint32_t width, uint32_t height, uint32_t left, uint32_t top) {
    if (!IsReady() || stream_.IsStreaming()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    ArvCamera* camera = connection_.Camera();
    gint oldX = 0, oldY = 0, oldW = 0, oldH = 0;
    arv_camera_get_region(camera, &oldX, &oldY, &oldW, &oldH, nullptr);
    // The region must fit the sensor with the camera's increments; checked before anything is
    // written so that a refused region leaves the old one in place.
    gint minW = 0, maxW = 0, minH = 0, maxH = 0, sensorW = 0, sensorH = 0;
    GError* error = nullptr;
    arv_camera_get_width_bounds(camera, &minW, &maxW, &error);
    if (error == nullptr) arv_camera_get_height_bounds(camera, &minH, &maxH, &error);
    if (error == nullptr) arv_camera_get_sensor_size(camera, &sensorW, &sensorH, &error);
    if (error != nullptr) {
        g_clear_error(&error);
        return kKFail;
    }
    const gint incW = std::max(1, arv_camera_get_width_increment(camera, nullptr));
    const gint incH = std::max(1, arv_camera_get_height_increment(camera, nullptr));
    const int64_t w = width, h = height, x = left, y = top;
    const int64_t limitW = sensorW > 0 ? sensorW : maxW;
    const int64_t limitH = sensorH > 0 ? sensorH : maxH;
    if (w < minW || h < minH || (w - minW) % incW != 0 || (h - minH) % incH != 0 ||
        x + w > limitW || y + h > limitH) {
        return kKInvalidArgument;
    }
    arv_camera_set_region(camera, static_cast<gint>(x), static_cast<gint>(y), static_cast<gint>(w),
                          static_cast<gint>(h), &error);
    if (error != nullptr) {
        g_clear_error(&error);
        arv_camera_set_region(camera, oldX, oldY, oldW, oldH, nullptr);
        return kKInvalidArgument;
    }
    return kKOk;
}

KStatus GenICamCamera::GetImageSizeBytes(uint32_t* bytes) {
    if (bytes == nullptr) return kKPointer;
    uint32_t width = 0, height = 0, left = 0, top = 0;
    const KStatus status = GetImageSize(&width, &height, &left, &top);
    if (KFailed(status)) return status;
    *bytes = static_cast<uint32_t>(ImageBytes(CurrentPixelFormat(), width, height));
    return kKOk;
}

KStatus GenICamCamera::GetBitDepth(uint32_t* bits) {
    if (bits == nullptr) return kKPointer;
    if (!IsReady()) return kKFail;
    *bits = CurrentPixelFormat().bitDepth;
    return kKOk;
}

KStatus GenICamCamera::GetRealBitDepth(uint32_t* bits) {
    if (bits == nullptr) return kKPointer;
    if (!IsReady()) return kKFail;
    *bits = CurrentPixelFormat().realBitDepth;
    return kKOk;
}

KStatus GenICamCamera::GetImageFormat(uint32_t* format) {
    if (format == nullptr) return kKPointer;
    if (!IsReady()) return kKFail;
    *format = CurrentPixelFormat().imageFormat;
    return kKOk;
}

KStatus GenICamCamera::GetBinning(uint32_t* factor) {
    if (factor == nullptr) return kKPointer;
    *factor = 1;
    if (!IsReady()) return kKFail;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    GError* error = nullptr;
    if (!arv_camera_is_binning_available(connection_.Camera(), &error)) {
        g_clear_error(&error);
        return kKNotImplemented;
    }
    gint dx = 1, dy = 1;
    arv_camera_get_binning(connection_.Camera(), &dx, &dy, &error);
    if (error != nullptr) {
        g_clear_error(&error);
        return kKFail;
    }
    *factor = static_cast<uint32_t>(std::max(1, dx));
    return kKOk;
}

KStatus GenICamCamera::SetBinning(uint32_t factor) {
    if (!IsReady() || stream_.IsStreaming()) return kKFail;
    if (factor == 0) return kKInvalidArgument;
    std::lock_guard<std::recursive_mutex> lock(Lock());
    ArvCamera* camera = connection_.Camera();
    GError* error = nullptr;
    if (!arv_camera_is_binning_available(camera, &error)) {
        g_clear_error(&error);
        return kKNotImplemented;
    }
    gint minX = 1, maxX = 1, minY = 1, maxY = 1;
    arv_camera_get_x_binning_bounds(camera, &minX, &maxX, &error);
    if (error == nullptr) arv_camera_get_y_binning_bounds(camera, &minY, &maxY, &error);
    if (error != nullptr) {
        g_clear_error(&error);
        return kKFail;
    }
    const int64_t f = factor;
    if (f < minX || f > maxX || f < minY || f > maxY) return kKInvalidArgument;
    arv_camera_set_binning(camera, static_cast<gint>(f), static_cast<gint>(f), &error);
    if (error != nullptr) {
        g_clear_error(&error);
        return kKInvalidArgument;
    }
    return kKOk;
}

}  // namespace kestor::genicam
