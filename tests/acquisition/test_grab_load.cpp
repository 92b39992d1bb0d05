// Loading and unloading drivers: the manager, the settings key, the registry preparation,
// the calls made on the driver and their order, the buffer-count negotiation and failures.
#include <filesystem>
#include <tuple>

#include "GrabTestSupport.h"
#include "platform/PluginCatalog.h"
#include "platform/Registry.h"

using namespace kestor;
using namespace kestor::test;

namespace {

using Calls = std::vector<std::string>;

std::optional<uint32_t> DwordAt(const char16_t* path, const char16_t* name) {
    RegistryKey key;
    uint32_t value = 0;
    if (RegistryKey::Open(path, key) != RegStatus::Ok ||
        key.QueryDword(name, value) != RegStatus::Ok)
        return std::nullopt;
    return value;
}

std::optional<std::vector<uint8_t>> StringBytesAt(const char16_t* path, const char16_t* name) {
    RegistryKey key;
    RegType type{};
    std::vector<uint8_t> data;
    if (RegistryKey::Open(path, key) != RegStatus::Ok ||
        key.QueryValue(name, type, data) != RegStatus::Ok || type != RegType::String)
        return std::nullopt;
    return data;
}

}  // namespace

TEST_F(GrabModuleTest, LoadCallsTheDriverInOrderAndLogsIt) {
    ASSERT_TRUE(LoadFake());
    EXPECT_EQ(Module().GetCurrentGrabber(), eKModuleSimulatedCamera);
    EXPECT_EQ(Module().GetLastError(), eKErrSuccess);

    // The driver name comes from the catalogue, the settings key from the company.
    std::string calls;
    for (const std::string& call : Fake().Calls())
        if (call.rfind("Release:", 0) != 0) calls += call + ";";
    EXPECT_EQ(calls,
              "Initialize(Simulated Camera|Software\\Acme\\Grabdesk\\);Register(sink);"
              "GetImageSize;GetBitDepth;GetRealBitDepth;GetImageSizeBytes;GetImageFormat;"
              "SetBufferCount(5);GetImageSize;GetImageSizeBytes;GetBitDepth;GetRealBitDepth;"
              "GetImageFormat;");
    EXPECT_TRUE(Fake().SinkRegistered());
    EXPECT_EQ(CountLines("Loading a card."), 1);

    // The description is cached: reading it asks the driver nothing.
    Fake().ClearCalls();
    EXPECT_EQ(Module().GetImageWidth(), 64u);
    EXPECT_EQ(Module().GetImageHeight(), 48u);
    EXPECT_EQ(Module().GetImageBitDepth(), 8u);
    EXPECT_EQ(Module().GetImageBitDepthReal(), 8u);
    EXPECT_EQ(Module().GetImageSizeBytes(), 64u * 48u);
    EXPECT_EQ(Module().GetImageFormat(), eKFormatMono);
    EXPECT_TRUE(Fake().Calls().empty());
}

TEST_F(GrabModuleTest, UnloadReleasesInterfacesInOrderAfterUnregisteringTheSink) {
    ASSERT_TRUE(LoadFake());
    FakeGrabber& fake = Fake();
    fake.ClearCalls();
    ASSERT_TRUE(Module().Unload());
    EXPECT_EQ(fake.Calls(),
              (Calls{"Register(null)", "Release:NotificationRegistration", "Release:TimeSource",
                     "Release:FrameInfo", "Release:BufferStatistics", "Release:Grabber"}));
    EXPECT_FALSE(fake.SinkRegistered());
    EXPECT_EQ(Module().GetCurrentGrabber(), eKModuleNone);
    // Everything that needs a driver now says so.
    EXPECT_GRAB_ERROR(Module().StartStreaming(), eKErrNoGrabberLoaded);
    // A second Unload is harmless.
    EXPECT_TRUE(Module().Unload());
}

TEST_F(GrabModuleTest, LoadingAgainUnloadsFirst) {
    ASSERT_TRUE(LoadFake());
    FakeGrabber* first = &Fake();
    first->AddRef();  // keep its call log readable after the module lets it go
    ASSERT_TRUE(Module().Load(eKModuleGenICam, u"Other", false));
    EXPECT_TRUE(first->Called("Register(null)"));
    EXPECT_TRUE(first->Called("Release:Grabber"));
    EXPECT_NE(&Fake(), first);
    EXPECT_TRUE(Fake().Called("Initialize(GenICam|Software\\Other\\Grabdesk\\)"));
    EXPECT_EQ(Module().GetCurrentGrabber(), eKModuleGenICam);
    first->Release();
}

TEST_F(GrabModuleTest, RegistryIsPreparedForVendorDrivers) {
    FakeGrabber::Install({});
    const char16_t* pleora = u"Software\\Acme\\Grabdesk\\Pleora IPort";
    const char16_t* lumenera = u"Software\\Acme\\Grabdesk\\Lumenera";
    // Each value follows a different one in the same key, so that a missing write shows.
    const std::tuple<eKSupportedModule, const char16_t*, const char16_t*, uint32_t> cases[] = {
        {eKModulePleoraIPort, pleora, u"MulticastMode", 0},
        {eKModulePleoraIPortMulticastMaster, pleora, u"MulticastMode", 1},
        {eKModulePleoraIPortGigE, pleora, u"MulticastMode", 0},
        {eKModulePleoraIPortMulticastSlave, pleora, u"MulticastMode", 2},
        {eKModulePleoraIPortEngine, pleora, u"MulticastMode", 0},
        {eKModulePleoraIPortMulticastMaster, pleora, u"MulticastMode", 1},
        {eKModulePleoraIPortVision, pleora, u"MulticastMode", 0},
        {eKModuleLumeneraGigE, lumenera, u"Interface", 1},
        {eKModuleLumeneraUSB, lumenera, u"Interface", 0},
        {eKModuleLumeneraGigE, lumenera, u"Interface", 1},
    };
    for (const auto& [module, key, value, expected] : cases) {
        SCOPED_TRACE(static_cast<int>(module));
        ASSERT_TRUE(Module().Load(module, u"Acme", false));
        EXPECT_EQ(DwordAt(key, value), expected);
    }

    // The Roper key is only written when it already exists.
    const char16_t* roper = u"Software\\Tavlin\\Grabdesk";
    ASSERT_TRUE(Module().Load(eKModuleRoperCoolSnap, u"Acme", false));
    EXPECT_FALSE(StringBytesAt(roper, u"RoperSelect"));
    RegistryKey created;
    ASSERT_EQ(RegistryKey::Create(roper, created), RegStatus::Ok);
    created = RegistryKey();
    ASSERT_TRUE(Module().Load(eKModuleRoperCoolSnap, u"Acme", false));
    EXPECT_EQ(StringBytesAt(roper, u"RoperSelect").value_or(std::vector<uint8_t>()).size(), 18u)
        << "\"CoolSnap\" and its terminator, UTF-16";
    ASSERT_TRUE(Module().Load(eKModuleRoperCascade, u"Acme", false));
    const auto cascade = StringBytesAt(roper, u"RoperSelect").value_or(std::vector<uint8_t>());
    ASSERT_EQ(cascade.size(), 16u);
    EXPECT_EQ(cascade[0], 'C');
    EXPECT_EQ(cascade[2], 'a');
}

TEST_F(GrabModuleTest, ResetDeletesTheSettingsKeyAndAFileIsImported) {
    FakeGrabber::Install({});
    EXPECT_GRAB_ERROR(Module().ExportGrabberSettings(folder_.File("x.xml").c_str()),
                      eKErrNoGrabberLoaded);
    const char16_t* deep = u"Software\\Acme\\Grabdesk\\Simulated\\Deep";
    {
        RegistryKey key;
        ASSERT_EQ(RegistryKey::Create(deep, key), RegStatus::Ok);
        key.SetDword(u"Exposure", 1234);
    }
    ASSERT_TRUE(Module().Load(eKModuleSimulatedCamera, u"Acme", false, nullptr, false));
    EXPECT_EQ(DwordAt(deep, u"Exposure"), 1234u);

    // Export, reset (the tree goes), then load with the exported file (it comes back).
    const std::string file = folder_.File("settings.xml");
    ASSERT_TRUE(Module().ExportGrabberSettings(file.c_str()));
    ASSERT_TRUE(std::filesystem::exists(file));
    ASSERT_TRUE(Module().Load(eKModuleSimulatedCamera, u"Acme", true, nullptr, false));
    EXPECT_FALSE(DwordAt(deep, u"Exposure"));
    const std::u16string wideFile = Utf8ToWide(file);
    ASSERT_TRUE(Module().Load(eKModuleSimulatedCamera, u"Acme", true, wideFile.c_str(), false));
    EXPECT_EQ(DwordAt(deep, u"Exposure"), 1234u);

    // A missing settings file is recorded (60) but the driver still loads.
    ASSERT_TRUE(Module().Load(eKModuleSimulatedCamera, "Acme", false,
                              folder_.File("missing.xml").c_str(), false));
    EXPECT_EQ(Module().GetCurrentGrabber(), eKModuleSimulatedCamera);
    EXPECT_EQ(Module().GetLastError(), eKErrFileNotFound);
}

TEST_F(GrabModuleTest, BufferCountIsReducedUntilTheDriverCanAllocate) {
    FakeGrabberConfig config;
    config.maxBuffers = 3;
    ASSERT_TRUE(LoadFake(config));
    EXPECT_EQ(Fake().CallsStartingWith("SetBufferCount"),
              (Calls{"SetBufferCount(5)", "SetBufferCount(4)", "SetBufferCount(3)"}));
    EXPECT_EQ(CountLines("Not enough memory, trying with less buffers."), 2);
    EXPECT_EQ(Module().GetBufferCount(), 3u);  // kept for the next load
    ASSERT_TRUE(Module().Load(eKModuleSimulatedCamera, u"Acme", false));
    EXPECT_EQ(Fake().CallsStartingWith("SetBufferCount"), (Calls{"SetBufferCount(3)"}));
}

TEST_F(GrabModuleTest, NoBufferAtAllFailsWithCode10AndKeepsTheReduction) {
    FakeGrabberConfig config;
    config.maxBuffers = 0;
    EXPECT_GRAB_ERROR(LoadFake(config), eKErrCreateBuffer);
    EXPECT_EQ(Fake().CallsStartingWith("SetBufferCount"),
              (Calls{"SetBufferCount(5)", "SetBufferCount(4)", "SetBufferCount(3)",
                     "SetBufferCount(2)", "SetBufferCount(1)"}));
    EXPECT_EQ(CountLines("Not enough memory, trying with less buffers."), 5);
    EXPECT_EQ(Module().GetBufferCount(), 1u);
    EXPECT_EQ(Module().GetCurrentGrabber(), eKModuleNone);
    EXPECT_FALSE(Fake().SinkRegistered());
    EXPECT_GRAB_ERROR(Module().SetROI(0, 0, 8, 8), eKErrNoGrabberLoaded);

    // SetBufferCount(1) then a driver that cannot allocate one buffer: 10 at once.
    ASSERT_TRUE(Module().SetBufferCount(1));
    EXPECT_GRAB_ERROR(Module().Load(eKModuleSimulatedCamera, u"Acme", false), eKErrCreateBuffer);
    EXPECT_EQ(Fake().CallsStartingWith("SetBufferCount"), (Calls{"SetBufferCount(1)"}));
}

TEST_F(GrabModuleTest, FailedInitializationLogsTheDriverTextAndCanShowIt) {
    FakeGrabberConfig config;
    config.initializeFails = true;
    FakeGrabber::Install(config);
    EXPECT_GRAB_ERROR(Module().Load(eKModuleSimulatedCamera, u"Acme", false),
                      eKErrGrabberInitFailed);
    EXPECT_EQ(CountLines("The fake camera is switched off"), 1);
    EXPECT_TRUE(debug_.MessageBoxes().empty());
    EXPECT_EQ(Module().GetCurrentGrabber(), eKModuleNone);
    EXPECT_FALSE(Fake().Called("SetBufferCount(5)"));

    EXPECT_FALSE(Module().Load(eKModuleSimulatedCamera, u"Acme", true));
    EXPECT_EQ(debug_.MessageBoxes(),
              (Calls{"Error Loading Grabber|The fake camera is switched off|16"}));
}

TEST_F(GrabModuleTest, MissingManagerGivesCode8) {
    const char* previous = getenv("KESTOR_DRIVER_PATH");
    const std::string saved = previous ? previous : "";
    auto restore = [&] {
        previous ? setenv("KESTOR_DRIVER_PATH", saved.c_str(), 1) : unsetenv("KESTOR_DRIVER_PATH");
        PluginCatalog::Instance().Rescan();
    };
    TempDir empty(::testing::TempDir());
    setenv("KESTOR_DRIVER_PATH", empty.Path().c_str(), 1);
    PluginCatalog::Instance().Rescan();
    if (PluginCatalog::Instance().IsClassAvailable(CLSID_KGrabberManager)) {
        restore();  // a manager installed beside the library cannot be hidden from here
        GTEST_SKIP() << "a grabber manager is installed beside the library";
    }
    EXPECT_GRAB_ERROR(Module().Load(eKModuleSimulatedCamera, u"Acme", false),
                      eKErrGrabberManagerNotFound);
    EXPECT_EQ(Module().GetCurrentGrabber(), eKModuleNone);
    EXPECT_EQ(CountLines("Loading a card."), 1);
    restore();
}

TEST_F(GrabModuleTest, DriverListsComeFromTheCatalogue) {
    FakeGrabber::Install({});
    KGrabModule& module = Module();
    const unsigned supported = module.GetDriverCount(false);
    ASSERT_GE(supported, 12u);
    EXPECT_LE(module.GetDriverCount(true), supported);

    eKSupportedModule found = eKModuleNone;
    std::vector<std::u16string> names;
    for (unsigned i = 0; i < supported; ++i) {
        const KChar* name = module.GetDriverInfo(i, &found, false);
        ASSERT_NE(name, nullptr);
        names.emplace_back(name);
        EXPECT_EQ(module.GetDriverInfo(found, false), names.back());
    }
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));

    // Past the end: null, and the module pointer is left alone.
    eKSupportedModule untouched = eKModuleLumeneraUSB;
    EXPECT_EQ(module.GetDriverInfo(supported, &untouched, false), nullptr);
    EXPECT_EQ(untouched, eKModuleLumeneraUSB);
    const unsigned installed = module.GetDriverCount(true);
    EXPECT_EQ(module.GetDriverInfo(installed, &untouched, true), nullptr);
    EXPECT_EQ(untouched, eKModuleLumeneraUSB);
    EXPECT_EQ(module.GetDriverInfo(static_cast<eKSupportedModule>(4242), false), nullptr);
    EXPECT_EQ(std::u16string(module.GetDriverInfo(eKModuleSimulatedCamera, false)),
              u"Simulated Camera");

    EXPECT_STREQ(KGrabModule::GetDriverKey(eKModuleSimulatedCamera), "simulated");
    EXPECT_EQ(KGrabModule::GetDriverKey(static_cast<eKSupportedModule>(4242)), nullptr);
    EXPECT_EQ(KGrabModule::FindDriverByKey("GenICam"), eKModuleGenICam);
    EXPECT_EQ(KGrabModule::FindDriverByKey("nothing"), eKModuleNone);
    EXPECT_EQ(KGrabModule::FindDriverByKey(nullptr), eKModuleNone);
}

TEST_F(GrabModuleTest, ErrorOutputSwitchesReachTheModule) {
    FakeGrabber::Install({});
    KGrabModule module;
    module.SetErrorOutput(true, false, false);
    EXPECT_FALSE(module.SetROI(0, 0, 1, 1));
    EXPECT_EQ(module.GetLastError(), eKErrNoGrabberLoaded);
    EXPECT_EQ(CountLines("No grabber loaded"), 1);
    EXPECT_EQ(CountLines("Start Streaming"), 0);  // trace output off
    module.StartStreaming();
    EXPECT_EQ(CountLines("Start Streaming"), 0);
}
