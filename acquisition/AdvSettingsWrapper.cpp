#include "acquisition/AdvSettingsWrapper.h"

#include <filesystem>
#include <map>
#include <mutex>
#include <string>

#include "platform/DebugOutput.h"
#include "platform/PluginCatalog.h"
#include "platform/SharedLibrary.h"
#include "platform/WideString.h"

namespace kestor {

namespace {

constexpr const char* kPluginFile = "AdvanceSettings.so";
constexpr const char* kFactoryName = "CreateAdvanceSettingsPtr";

// The plugin stays loaded until the process ends: a window object or a thread it started must
// never outlive its code, whatever the order in which wrappers go.
KCreateAdvanceSettingsFunction LoadFactory() {
    static std::mutex mutex;
    static auto* loaded = new std::map<std::string, SharedLibrary>();
    std::lock_guard lock(mutex);
    for (const std::string& folder : PluginSearchPath()) {
        const std::string file = folder + "/" + kPluginFile;
        std::error_code error;
        if (!std::filesystem::is_regular_file(file, error)) continue;
        auto it = loaded->find(file);
        if (it == loaded->end()) {
            SharedLibrary library;
            if (!library.Open(file)) continue;
            it = loaded->emplace(file, std::move(library)).first;
        }
        if (void* factory = it->second.Symbol(kFactoryName))
            return reinterpret_cast<KCreateAdvanceSettingsFunction>(factory);
    }
    return nullptr;
}

void LogLoading() {
    KChar line[1024];
    WideFormat(line, 1024, u"%s: %s\n", u"Kestor", u"AdvanceSettings.DLL loading is called.");
    DebugOutput(line);
}

using WindowPtr = KComPtr<IKAdvanceSettingsWindow>;

WindowPtr NewWindow(KCreateAdvanceSettingsFunction factory) {
    return factory != nullptr ? WindowPtr::Adopt(factory()) : WindowPtr();
}

}  // namespace

struct CAdvSettingsWrapper::Plugin {
    KCreateAdvanceSettingsFunction factory = nullptr;
    WindowPtr window;  // the modeless window's object, made when the plugin is loaded
};

CAdvSettingsWrapper::CAdvSettingsWrapper() = default;

CAdvSettingsWrapper::~CAdvSettingsWrapper() {
    if (plugin_ != nullptr && plugin_->window) {
        if (IsActive()) plugin_->window->Close();
        plugin_->window->Detach();
    }
    delete plugin_;
}

bool CAdvSettingsWrapper::EnsureLoaded() {
    if (plugin_ != nullptr) return true;
    LogLoading();
    const KCreateAdvanceSettingsFunction factory = LoadFactory();
    WindowPtr window = NewWindow(factory);
    if (!window) return false;
    plugin_ = new Plugin{factory, std::move(window)};
    return true;
}

bool CAdvSettingsWrapper::IsActive() {
    int32_t active = 0;
    return plugin_ != nullptr && KSucceeded(plugin_->window->IsActive(&active)) && active != 0;
}

void CAdvSettingsWrapper::Attach(IKUnknown* grabber) {
    if (plugin_ != nullptr && grabber != nullptr) plugin_->window->Attach(grabber);
}

void CAdvSettingsWrapper::Detach() {
    if (plugin_ != nullptr) plugin_->window->Detach();
}

bool CAdvSettingsWrapper::CanDoModal() {
    int32_t possible = 0;
    return EnsureLoaded() && KSucceeded(plugin_->window->CanDoModal(&possible)) && possible != 0;
}

// The modal window gets an object of its own, so that a modeless window that is open stays as
// it is; the object goes when the window has closed.
bool CAdvSettingsWrapper::DoModal(IKUnknown* grabber, KWindowHandle parent) {
    if (grabber == nullptr || !CanDoModal()) return false;
    WindowPtr modal = NewWindow(plugin_->factory);
    if (!modal || KFailed(modal->Attach(grabber))) return false;
    const KStatus status = modal->DoModal(parent);
    modal->Detach();
    return KSucceeded(status);
}

bool CAdvSettingsWrapper::Create(IKUnknown* grabber, KWindowHandle parent) {
    if (!EnsureLoaded()) return false;
    if (grabber != nullptr && KFailed(plugin_->window->Attach(grabber))) return false;
    return KSucceeded(plugin_->window->Create(parent));
}

bool CAdvSettingsWrapper::Resize(int x, int y, int width, int height) {
    return plugin_ != nullptr && KSucceeded(plugin_->window->Resize(x, y, width, height));
}

bool CAdvSettingsWrapper::Show(bool show) {
    return plugin_ != nullptr && KSucceeded(plugin_->window->Show(show ? 1 : 0));
}

bool CAdvSettingsWrapper::Close() {
    return plugin_ != nullptr && KSucceeded(plugin_->window->Close());
}

}  // namespace kestor
