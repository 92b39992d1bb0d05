#include "platform/H264HardwareProbe.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/SharedLibrary.h"

namespace kestor {
namespace {

// The few libva 2 declarations the probe needs.
using VADisplay = void*;
using VAStatus = int;
constexpr VAStatus kVaStatusSuccess = 0;
using VAMessageCallback = void (*)(void* context, const char* message);

bool IsH264Profile(int profile) {
    return profile == vaapi::kProfileH264ConstrainedBaseline ||
           profile == vaapi::kProfileH264Main || profile == vaapi::kProfileH264High;
}

bool IsEncodeEntrypoint(int entrypoint) {
    return entrypoint == vaapi::kEntrypointEncSlice || entrypoint == vaapi::kEntrypointEncSliceLP;
}

void DiscardMessage(void*, const char*) {}

class VaApi {
public:
    bool Load() {
        if (!va_.Open("libva.so.2") || !vaDrm_.Open("libva-drm.so.2")) return false;
        const bool complete = Bind(vaDrm_, "vaGetDisplayDRM", getDisplayDrm) &&
                              Bind(va_, "vaInitialize", initialize) &&
                              Bind(va_, "vaTerminate", terminate) &&
                              Bind(va_, "vaMaxNumProfiles", maxNumProfiles) &&
                              Bind(va_, "vaMaxNumEntrypoints", maxNumEntrypoints) &&
                              Bind(va_, "vaQueryConfigProfiles", queryConfigProfiles) &&
                              Bind(va_, "vaQueryConfigEntrypoints", queryConfigEntrypoints);
        Bind(va_, "vaSetInfoCallback", setInfoCallback);
        Bind(va_, "vaSetErrorCallback", setErrorCallback);
        return complete;
    }

    VADisplay (*getDisplayDrm)(int fd) = nullptr;
    VAStatus (*initialize)(VADisplay, int* major, int* minor) = nullptr;
    VAStatus (*terminate)(VADisplay) = nullptr;
    int (*maxNumProfiles)(VADisplay) = nullptr;
    int (*maxNumEntrypoints)(VADisplay) = nullptr;
    VAStatus (*queryConfigProfiles)(VADisplay, int* profiles, int* count) = nullptr;
    VAStatus (*queryConfigEntrypoints)(VADisplay, int profile, int* entrypoints,
                                       int* count) = nullptr;
    // Optional: keep the driver's chatter off the application's console.
    VAMessageCallback (*setInfoCallback)(VADisplay, VAMessageCallback, void*) = nullptr;
    VAMessageCallback (*setErrorCallback)(VADisplay, VAMessageCallback, void*) = nullptr;

private:
    template <typename Function>
    static bool Bind(const SharedLibrary& library, const char* name, Function& function) {
        function = reinterpret_cast<Function>(library.Symbol(name));
        return function != nullptr;
    }

    // Declared so that libva-drm, which depends on libva, is unloaded first.
    SharedLibrary va_;
    SharedLibrary vaDrm_;
};

std::vector<std::string> RenderNodes() {
    std::vector<std::string> nodes;
    DIR* folder = opendir("/dev/dri");
    if (!folder) return nodes;
    while (const dirent* entry = readdir(folder)) {
        if (std::string_view(entry->d_name).starts_with("renderD"))
            nodes.push_back(std::string("/dev/dri/") + entry->d_name);
    }
    closedir(folder);
    std::sort(nodes.begin(), nodes.end());
    return nodes;
}

std::vector<int> QueryList(int capacity, const std::function<VAStatus(int*, int*)>& query) {
    if (capacity <= 0) return {};
    std::vector<int> list(static_cast<size_t>(capacity));
    int count = 0;
    if (query(list.data(), &count) != kVaStatusSuccess) return {};
    list.resize(static_cast<size_t>(std::clamp(count, 0, capacity)));
    return list;
}

bool NodeCanEncodeH264(const VaApi& api, const std::string& node) {
    const int fd = open(node.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    bool found = false;
    if (VADisplay display = api.getDisplayDrm(fd)) {
        if (api.setInfoCallback) api.setInfoCallback(display, DiscardMessage, nullptr);
        if (api.setErrorCallback) api.setErrorCallback(display, DiscardMessage, nullptr);
        int major = 0, minor = 0;
        if (api.initialize(display, &major, &minor) == kVaStatusSuccess) {
            const auto profiles = QueryList(api.maxNumProfiles(display), [&](int* list, int* n) {
                return api.queryConfigProfiles(display, list, n);
            });
            const int entrypointCapacity = api.maxNumEntrypoints(display);
            found = OffersH264Encoding(profiles, [&](int profile) {
                return QueryList(entrypointCapacity, [&](int* list, int* n) {
                    return api.queryConfigEntrypoints(display, profile, list, n);
                });
            });
        }
        api.terminate(display);
    }
    close(fd);
    return found;
}

}  // namespace

bool OffersH264Encoding(const std::vector<int>& profiles,
                        const std::function<std::vector<int>(int profile)>& entrypointsOf) {
    for (int profile : profiles) {
        if (!IsH264Profile(profile)) continue;
        const std::vector<int> entrypoints = entrypointsOf(profile);
        if (std::any_of(entrypoints.begin(), entrypoints.end(), IsEncodeEntrypoint)) return true;
    }
    return false;
}

bool ProbeH264HardwareEncoder() {
    const std::vector<std::string> nodes = RenderNodes();
    if (nodes.empty()) return false;  // no GPU: no need to load anything
    VaApi api;
    if (!api.Load()) return false;
    return std::any_of(nodes.begin(), nodes.end(),
                       [&](const std::string& node) { return NodeCanEncodeH264(api, node); });
}

bool IsH264HardwareEncoderPresent() {
    static std::once_flag probed;
    static bool present = false;
    std::call_once(probed, [] { present = ProbeH264HardwareEncoder(); });
    return present;
}

}  // namespace kestor
