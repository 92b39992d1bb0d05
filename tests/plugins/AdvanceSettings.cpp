// Stand-in for the advanced-settings plugin: a window object that shows nothing and records
// every call, so that tests can see what the library asked of it. Tests read the record through
// AdvanceSettingsTestEvents and set the plugin up through AdvanceSettingsTestReset.
#include <mutex>
#include <string>

#include "KGrabberAbi.h"
#include "common/ComObject.h"

namespace {

std::mutex g_mutex;
std::string g_events;
bool g_canDoModal = true;

void Record(const std::string& event) {
    std::lock_guard lock(g_mutex);
    g_events += event;
    g_events += ';';
}

class SettingsWindow final : public IKAdvanceSettingsWindow {
public:
    SettingsWindow() { Record("create"); }

    KESTOR_COM_STANDARD_METHODS(SettingsWindow)

    KStatus Attach(IKUnknown* grabber) override {
        if (grabber == nullptr) return kKPointer;
        grabber->AddRef();
        if (grabber_ != nullptr) grabber_->Release();
        grabber_ = grabber;
        Record("attach");
        return kKOk;
    }
    KStatus Detach() override {
        if (grabber_ != nullptr) grabber_->Release();
        grabber_ = nullptr;
        Record("detach");
        return kKOk;
    }
    KStatus IsActive(int32_t* active) override {
        if (active == nullptr) return kKPointer;
        *active = open_ ? 1 : 0;
        return kKOk;
    }
    KStatus CanDoModal(int32_t* possible) override {
        if (possible == nullptr) return kKPointer;
        std::lock_guard lock(g_mutex);
        *possible = g_canDoModal ? 1 : 0;
        return kKOk;
    }
    KStatus DoModal(void*) override {
        // A modal window without a grabber would have nothing to show.
        Record(grabber_ != nullptr ? "modal-with-grabber" : "modal-without-grabber");
        return grabber_ != nullptr ? kKOk : kKFail;
    }
    KStatus Create(void*) override {
        open_ = true;
        Record(grabber_ != nullptr ? "window-with-grabber" : "window-without-grabber");
        return kKOk;
    }
    KStatus Resize(int32_t x, int32_t y, int32_t width, int32_t height) override {
        if (!open_) return kKFail;
        Record("resize " + std::to_string(x) + " " + std::to_string(y) + " " +
               std::to_string(width) + " " + std::to_string(height));
        return kKOk;
    }
    KStatus Show(int32_t show) override {
        if (!open_) return kKFail;
        Record(show != 0 ? "show" : "hide");
        return kKOk;
    }
    KStatus Close() override {
        if (!open_) return kKFail;
        open_ = false;
        Record("close");
        return kKOk;
    }

private:
    ~SettingsWindow() {
        if (grabber_ != nullptr) {
            grabber_->Release();
            Record("destroy-attached");
        } else {
            Record("destroy");
        }
    }
    bool QueryOwnInterface(const KGuid& iid, void** out) {
        return kestor::Offer<IKAdvanceSettingsWindow>(this, iid, IID_IKAdvanceSettingsWindow,
                                                      out) ||
               kestor::Offer<IKAdvanceSettingsWindow>(this, iid, IID_IKUnknown, out);
    }

    kestor::ComRefCount refs_;
    IKUnknown* grabber_ = nullptr;
    bool open_ = false;
};

}  // namespace

KESTOR_PLUGIN_EXPORT IKAdvanceSettingsWindow* CreateAdvanceSettingsPtr() {
    return new SettingsWindow();
}

// Copies the calls recorded so far ("create;attach;...") into `buffer`, cut and terminated;
// returns the full length.
KESTOR_PLUGIN_EXPORT uint32_t AdvanceSettingsTestEvents(char* buffer, uint32_t capacity) {
    std::lock_guard lock(g_mutex);
    if (buffer != nullptr && capacity > 0) {
        const size_t n = g_events.size() < capacity - 1 ? g_events.size() : capacity - 1;
        g_events.copy(buffer, n);
        buffer[n] = 0;
    }
    return static_cast<uint32_t>(g_events.size());
}

// Forgets the record and chooses whether windows can run modally.
KESTOR_PLUGIN_EXPORT void AdvanceSettingsTestReset(int32_t canDoModal) {
    std::lock_guard lock(g_mutex);
    g_events.clear();
    g_canDoModal = canDoModal != 0;
}
