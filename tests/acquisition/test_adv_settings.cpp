// The advanced-settings wrapper against the stand-in plugin of tests/plugins, and without it.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>

#include "acquisition/AdvSettingsWrapper.h"
#include "drivers/common/ComObject.h"
#include "platform/SharedLibrary.h"
#include "support/DebugCapture.h"
#include "support/TempDir.h"

namespace {

using kestor::CAdvSettingsWrapper;

constexpr const char* kLoadingLine = "Kestor: AdvanceSettings.DLL loading is called.\n";

// A grabber that only counts its references.
class CountedGrabber final : public IKUnknown {
public:
    KStatus QueryInterface(const KGuid& iid, void** out) override {
        if (out == nullptr) return kKPointer;
        *out = nullptr;
        return kestor::Offer<IKUnknown>(this, iid, IID_IKUnknown, out) ? kKOk : kKNoInterface;
    }
    uint32_t AddRef() override { return refs_.AddRef(); }
    uint32_t Release() override { return refs_.Release(); }  // lives on the test's stack
    uint32_t References() {
        AddRef();
        return Release();
    }

private:
    kestor::ComRefCount refs_;
};

// Sets KESTOR_DRIVER_PATH for the test and puts the old value back afterwards.
class DriverPath {
public:
    explicit DriverPath(const std::string& folders) {
        if (const char* value = getenv("KESTOR_DRIVER_PATH")) previous_ = value;
        setenv("KESTOR_DRIVER_PATH", folders.c_str(), 1);
    }
    ~DriverPath() {
        previous_ ? setenv("KESTOR_DRIVER_PATH", previous_->c_str(), 1)
                  : unsetenv("KESTOR_DRIVER_PATH");
    }

private:
    std::optional<std::string> previous_;
};

// The stand-in plugins are built into "plugins" beside the test helpers; the explicit
// variable wins when it is set.
std::string TestPluginFolder() {
    if (const char* folder = getenv("KESTOR_TEST_PLUGINS")) return folder;
    if (const char* helpers = getenv("KESTOR_TEST_HELPERS"))
        return std::string(helpers) + "/plugins";
    return "";
}

// Reaches the stand-in plugin's record. Opening the file again yields the copy the wrapper
// loaded, so both see the same record.
class PluginRecord {
public:
    PluginRecord() {
        if (!library_.Open(TestPluginFolder() + "/AdvanceSettings.so")) return;
        events_ = reinterpret_cast<EventsFunction>(library_.Symbol("AdvanceSettingsTestEvents"));
        reset_ = reinterpret_cast<ResetFunction>(library_.Symbol("AdvanceSettingsTestReset"));
    }
    bool IsReady() const { return events_ != nullptr && reset_ != nullptr; }
    void Reset(bool canDoModal) const { reset_(canDoModal ? 1 : 0); }
    std::string Events() const {
        char buffer[1024];
        events_(buffer, sizeof buffer);
        return buffer;
    }

private:
    using EventsFunction = uint32_t (*)(char*, uint32_t);
    using ResetFunction = void (*)(int32_t);
    kestor::SharedLibrary library_;
    EventsFunction events_ = nullptr;
    ResetFunction reset_ = nullptr;
};

long CountLoadingLines(const kestor::test::DebugCapture& capture) {
    const auto lines = capture.Lines();
    return std::count(lines.begin(), lines.end(), std::string(kLoadingLine));
}

class AdvSettingsWithPlugin : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(TestPluginFolder().empty())
            << "neither KESTOR_TEST_PLUGINS nor KESTOR_TEST_HELPERS is set";
        ASSERT_TRUE(record_.IsReady()) << "the stand-in plugin was not built";
        record_.Reset(true);
    }

    DriverPath path_{TestPluginFolder()};
    PluginRecord record_;
    CountedGrabber grabber_;
    int parent_ = 0;  // any address stands for a window
};

TEST(AdvSettingsWithoutPlugin, EveryOperationFailsAndLoadingIsLogged) {
    const kestor::test::TempDir empty;
    DriverPath path(empty.Path().string());
    kestor::test::DebugCapture capture;
    CountedGrabber grabber;
    {
        CAdvSettingsWrapper wrapper;
        EXPECT_EQ(CountLoadingLines(capture), 0) << "nothing is loaded before it is needed";
        EXPECT_FALSE(wrapper.CanDoModal());
        EXPECT_EQ(CountLoadingLines(capture), 1);
        EXPECT_FALSE(wrapper.DoModal(&grabber, nullptr));
        EXPECT_FALSE(wrapper.Create(&grabber, nullptr));
        EXPECT_FALSE(wrapper.Resize(0, 0, 10, 10));
        EXPECT_FALSE(wrapper.Show(true));
        EXPECT_FALSE(wrapper.Close());
        EXPECT_FALSE(wrapper.IsActive());
        wrapper.Attach(&grabber);
        wrapper.Detach();
    }
    EXPECT_EQ(grabber.References(), 1u) << "no reference may be kept without a plugin";
}

TEST_F(AdvSettingsWithPlugin, DoModalAttachesRunsDetachesAndReleases) {
    kestor::test::DebugCapture capture;
    {
        CAdvSettingsWrapper wrapper;
        EXPECT_TRUE(wrapper.CanDoModal());
        EXPECT_TRUE(wrapper.CanDoModal());
        EXPECT_EQ(CountLoadingLines(capture), 1) << "the plugin is loaded once";
        record_.Reset(true);
        EXPECT_TRUE(wrapper.DoModal(&grabber_, &parent_));
        EXPECT_EQ(record_.Events(), "create;attach;modal-with-grabber;detach;destroy;");
        EXPECT_EQ(grabber_.References(), 1u);
        EXPECT_FALSE(wrapper.IsActive()) << "a modal run leaves no window behind";
    }
    // A plugin that refuses modal runs runs nothing.
    record_.Reset(false);
    CAdvSettingsWrapper wrapper;
    EXPECT_FALSE(wrapper.CanDoModal());
    EXPECT_FALSE(wrapper.DoModal(&grabber_, &parent_));
    EXPECT_EQ(record_.Events().find("modal"), std::string::npos) << record_.Events();
    EXPECT_EQ(grabber_.References(), 1u);
}

TEST_F(AdvSettingsWithPlugin, ModelessWindowForwardsEveryCallAndIsClosedWithTheWrapper) {
    {
        CAdvSettingsWrapper wrapper;
        EXPECT_FALSE(wrapper.IsActive());
        EXPECT_FALSE(wrapper.Resize(1, 2, 3, 4)) << "no window before Create";
        EXPECT_TRUE(wrapper.Create(&grabber_, &parent_));
        EXPECT_TRUE(wrapper.IsActive());
        EXPECT_GT(grabber_.References(), 1u) << "the window holds the grabber";
        EXPECT_TRUE(wrapper.Resize(1, 2, 300, 400));
        EXPECT_TRUE(wrapper.Show(false));
        EXPECT_TRUE(wrapper.Show(true));
        EXPECT_TRUE(wrapper.Close());
        EXPECT_FALSE(wrapper.IsActive());
        EXPECT_FALSE(wrapper.Close()) << "the plugin refuses to close twice";

        EXPECT_TRUE(wrapper.Create(&grabber_, &parent_));  // left open for the destructor
    }
    EXPECT_EQ(record_.Events(),
              "create;attach;window-with-grabber;resize 1 2 300 400;hide;show;close;attach;"
              "window-with-grabber;close;detach;destroy;");
    EXPECT_EQ(grabber_.References(), 1u);
}

TEST_F(AdvSettingsWithPlugin, AttachAndDetachFollowTheLoadedGrabber) {
    CountedGrabber other;
    {
        CAdvSettingsWrapper wrapper;
        wrapper.Attach(&grabber_);  // nothing loaded yet: nothing to attach
        EXPECT_EQ(record_.Events(), "");
        ASSERT_TRUE(wrapper.Create(&grabber_, &parent_));
        wrapper.Detach();
        EXPECT_EQ(grabber_.References(), 1u);
        wrapper.Attach(&other);
        EXPECT_GT(other.References(), 1u);
    }
    EXPECT_EQ(other.References(), 1u);
    EXPECT_EQ(grabber_.References(), 1u);
}

}  // namespace
