// Settings, adjustments, feature categories, the serial port, the time source and GPS: which
// driver interface answers, what the caller's outputs hold, and the codes for what is missing.
#include "GrabTestSupport.h"

using namespace kestor;
using namespace kestor::test;

namespace {

using Calls = std::vector<std::string>;
using Flags = std::vector<int>;

struct Caps {
    long id = -1, intMin = -1, intMax = -1;
    double doubleMin = -1, doubleMax = -1;
    int flags[5] = {-1, -1, -1, -1, -1};
    KChar name[kKMaxNameLength] = u"untouched";
    Flags AllFlags() const { return {flags[0], flags[1], flags[2], flags[3], flags[4]}; }
};

Caps AskCaps(KGrabModule& module, long index, bool expectSuccess = true) {
    Caps c;
    EXPECT_EQ(module.GetAdjustmentCaps(index, &c.id, c.name, &c.intMin, &c.intMax, &c.doubleMin,
                                       &c.doubleMax, &c.flags[0], &c.flags[1], &c.flags[2],
                                       &c.flags[3], &c.flags[4]),
              expectSuccess)
        << index;
    return c;
}

// What an index no interface knows gets.
void ExpectDefaults(const Caps& caps) {
    EXPECT_EQ(caps.id, 0);
    EXPECT_EQ(std::u16string(caps.name), u"Index is out of bound");
    EXPECT_EQ((std::vector<double>{double(caps.intMin), double(caps.intMax), caps.doubleMin,
                                   caps.doubleMax}),
              std::vector<double>(4, 0.0));
    EXPECT_EQ(caps.AllFlags(), (Flags{1, 0, 0, 0, 0}));
}

}  // namespace

TEST_F(GrabModuleTest, SettingsAreForwardedWithNamesCopied) {
    ASSERT_TRUE(LoadFake());
    long count = 0, value = 0;
    ASSERT_TRUE(Module().GetSettingsCount(&count));
    EXPECT_EQ(count, 2);
    ASSERT_TRUE(Module().GetValuesCount(1, &count));
    EXPECT_EQ(count, 4);
    KChar name[kKMaxNameLength] = {};
    ASSERT_TRUE(Module().GetSettingsCaps(0, name, &value));
    EXPECT_EQ(std::u16string(name), u"Trigger mode");
    EXPECT_EQ(value, 10);
    ASSERT_TRUE(Module().GetValuesCaps(1, 2, name, &value));
    EXPECT_EQ(std::u16string(name), u"Value 1.2");
    EXPECT_EQ(value, 102);
    ASSERT_TRUE(Module().SetCurrentValues(1, 3));
    ASSERT_TRUE(Module().GetCurrentValues(1, &value));
    EXPECT_EQ(value, 3);
    // A long beyond 32 bits does not wrap into a valid index.
    ASSERT_TRUE(Module().SetCurrentValues(0x100000001L, 1));
    EXPECT_TRUE(Fake().Called("SetCurrentValues(2147483647,1)"));

    FakeGrabberConfig config;
    config.settings = false;
    ASSERT_TRUE(LoadFake(config));
    EXPECT_GRAB_ERROR(Module().GetSettingsCount(&count), eKErrNoSettingsInterface);
    ASSERT_TRUE(Module().Unload());
    EXPECT_GRAB_ERROR(Module().GetSettingsCount(&count), eKErrNoGrabberLoaded);
}

TEST_F(GrabModuleTest, AdjustmentsPreferTheCombinedInterface) {
    ASSERT_TRUE(LoadFake());
    long count = -1, value = 0;
    ASSERT_TRUE(Module().GetAdjustmentCount(&count));
    EXPECT_EQ(count, 2);
    Fake().ClearCalls();
    ASSERT_TRUE(Module().GetIntegerAdjustment(1, &value));
    EXPECT_EQ(value, 41);
    ASSERT_TRUE(Module().SetIntegerAdjustment(1, 6'000'000'000L));
    double real = 0;
    ASSERT_TRUE(Module().GetDoubleAdjustment(0, &real));
    EXPECT_EQ(real, 0.25);
    ASSERT_TRUE(Module().SetDoubleAdjustment(0, 2.0));
    int automatic = 0;
    ASSERT_TRUE(Module().GetAutomaticAdjustment(1, &automatic));
    EXPECT_EQ(automatic, 1);
    ASSERT_TRUE(Module().SetAutomaticAdjustment(1, 0));
    ASSERT_TRUE(Module().OneShotAdjustment(1));
    Calls forwarded;  // nothing but the combined interface is asked
    for (const std::string& call : Fake().Calls())
        if (call.rfind("Release:", 0) != 0) forwarded.push_back(call);
    EXPECT_EQ(forwarded,
              (Calls{"Adjustments.GetIntegerValue(1)", "Adjustments.SetIntegerValue(1,6000000000)",
                     "Adjustments.GetDoubleValue(0)", "Adjustments.SetDoubleValue(0)",
                     "Adjustments.GetAutomatic(1)", "Adjustments.SetAutomatic(1,0)",
                     "Adjustments.OneShot(1)"}));
}

TEST_F(GrabModuleTest, OlderAdjustmentInterfacesAndTheirAbsence) {
    FakeGrabberConfig config;
    config.adjustments = config.integerAdjustments = false;  // only the double interface
    ASSERT_TRUE(LoadFake(config));
    long count = -1, value = 5;
    ASSERT_TRUE(Module().GetAdjustmentCount(&count));
    EXPECT_EQ(count, 4);
    EXPECT_GRAB_ERROR(Module().GetIntegerAdjustment(0, &value), eKErrNoAdjustmentsInterface);
    EXPECT_GRAB_ERROR(Module().SetIntegerAdjustment(0, 1), eKErrNoAdjustmentsInterface);
    EXPECT_GRAB_ERROR(Module().OneShotAdjustment(0), eKErrNoAdjustmentsInterface);
    double real = 0;
    EXPECT_TRUE(Module().GetDoubleAdjustment(0, &real));
    EXPECT_EQ(real, 1.75);
    EXPECT_TRUE(Module().SetDoubleAdjustment(0, 1.0));
    int automatic = 0;
    EXPECT_TRUE(Module().GetAutomaticAdjustment(0, &automatic));
    EXPECT_EQ(automatic, 1);
    EXPECT_TRUE(Module().SetAutomaticAdjustment(0, 1));
    EXPECT_TRUE(Fake().Called("DoubleAdjustments.SetAutomatic(0)"));
    // The double interface's two flags land in flag3 and flag4; flag1 is then 0, flag3 1.
    const Caps caps = AskCaps(Module(), 2);
    EXPECT_EQ(caps.id, 302);
    EXPECT_EQ(std::u16string(caps.name), u"Gamma");
    EXPECT_EQ(caps.doubleMin, 0.25);
    EXPECT_EQ(caps.doubleMax, 2.5);
    EXPECT_EQ(caps.intMin, 0);
    EXPECT_EQ(caps.AllFlags(), (Flags{0, 0, 1, 9, 0}));

    config.doubleAdjustments = false;  // none at all
    ASSERT_TRUE(LoadFake(config));
    count = 9;
    EXPECT_GRAB_ERROR(Module().GetAdjustmentCount(&count), eKErrNoAdjustmentsInterface);
    EXPECT_EQ(count, 0);
    EXPECT_GRAB_ERROR(Module().GetAutomaticAdjustment(0, &automatic), eKErrNoAdjustmentsInterface);
    ExpectDefaults(AskCaps(Module(), 0));  // an index nobody knows: defaults, and success

    ASSERT_TRUE(Module().Unload());  // without a grabber the count is still cleared first
    count = 9;
    EXPECT_GRAB_ERROR(Module().GetAdjustmentCount(&count), eKErrNoGrabberLoaded);
    EXPECT_EQ(count, 0);
}

TEST_F(GrabModuleTest, AdjustmentCapsWalkTheCountsInOrder) {
    ASSERT_TRUE(LoadFake());  // combined 2, integer 3, double 4
    Caps caps = AskCaps(Module(), 1);
    EXPECT_EQ(caps.id, 101);
    EXPECT_EQ(std::u16string(caps.name), u"Gain");
    EXPECT_EQ(caps.intMin, -5'000'000'000L);
    EXPECT_EQ(caps.AllFlags(), (Flags{1, 1, 0, 1, 0}));

    // Index 2 is past the combined count but below the integer one.
    Fake().ClearCalls();
    caps = AskCaps(Module(), 2);
    EXPECT_EQ(caps.id, 202);
    EXPECT_EQ(std::u16string(caps.name), u"Exposure");
    EXPECT_EQ(caps.intMax, 1000);
    EXPECT_EQ(caps.AllFlags(), (Flags{1, 0, 0, 0, 1}));
    EXPECT_EQ(Fake().CallsStartingWith("Adjustments."), (Calls{"Adjustments.GetCount"}));
    EXPECT_EQ(Fake().CallsStartingWith("IntegerAdjustments."),
              (Calls{"IntegerAdjustments.GetCount", "IntegerAdjustments.GetCaps(2)"}));
    EXPECT_EQ(AskCaps(Module(), 3).id, 303);  // below the double count of 4

    // Past the last count: defaults and success; a negative index likewise, asking nobody.
    ExpectDefaults(AskCaps(Module(), 4));
    Fake().ClearCalls();
    ExpectDefaults(AskCaps(Module(), -1));
    EXPECT_TRUE(Fake().CallsStartingWith("Adjustments.").empty());
    EXPECT_EQ(Module().GetLastError(), eKErrSuccess);

    // An absent interface keeps the previous count in the walk.
    FakeGrabberConfig config;
    config.integerAdjustments = false;  // combined 2, double 4
    ASSERT_TRUE(LoadFake(config));
    EXPECT_EQ(AskCaps(Module(), 3).id, 303);
    ExpectDefaults(AskCaps(Module(), 4));

    ASSERT_TRUE(Module().Unload());  // no grabber: 12 with the defaults written
    ExpectDefaults(AskCaps(Module(), 0, false));
    EXPECT_EQ(Module().GetLastError(), eKErrNoGrabberLoaded);
}

TEST_F(GrabModuleTest, FeatureCategoriesAreForwarded) {
    ASSERT_TRUE(LoadFake());
    long categories = 0, features = 0, id = 0, value = 0, min = 0, max = 0;
    KChar name[kKMaxNameLength] = {};
    ASSERT_TRUE(Module().GetCategoriesCount(&categories) && Module().GetFeatureCount(2, &features));
    EXPECT_EQ((std::vector<long>{categories, features}), (std::vector<long>{3, 3}));
    ASSERT_TRUE(Module().GetCategoriesCap(1, &id, name));
    EXPECT_EQ(id, 51);
    EXPECT_EQ(std::u16string(name), u"Acquisition control");
    eAdvanceSettingsFeatureType type{};
    eAdvanceSettingsLevel level{};
    ASSERT_TRUE(Module().GetFeatureCap(2, 1, &id, name, &type, &level));
    EXPECT_EQ(id, 21);
    EXPECT_EQ(type, eAdvanceSettingsEnumeration);
    EXPECT_EQ(level, eAdvanceSettingsExpert);
    int flag = 0;
    ASSERT_TRUE(Module().Accessible(0, 0, &flag));
    EXPECT_EQ(flag, 1);
    ASSERT_TRUE(Module().GetEnumFeatureValueCap(0, 0, 1, name, &value));
    EXPECT_EQ(std::u16string(name), u"Continuous");
    EXPECT_EQ(value, 1'000'000'000'001L);  // 64-bit values survive the public long
    ASSERT_TRUE(Module().SetEnumFeatureValue(0, 0, value));
    ASSERT_TRUE(Module().GetEnumFeatureValue(0, 0, &value));
    EXPECT_EQ(value, 1'000'000'000'001L);
    ASSERT_TRUE(Module().GetIntegerFeatureCap(0, 0, &min, &max));
    EXPECT_EQ((std::vector<long>{min, max}), (std::vector<long>{-3, 1L << 40}));
    ASSERT_TRUE(Module().SetIntegerFeatureValue(0, 0, -2));
    ASSERT_TRUE(Module().GetIntegerFeatureValue(0, 0, &value));
    EXPECT_EQ(value, -2);
    double real = 0, low = 0, high = 0;
    ASSERT_TRUE(Module().GetDoubleFeatureCap(0, 0, &low, &high));
    EXPECT_EQ((std::vector<double>{low, high}), (std::vector<double>{-1.5, 99.5}));
    ASSERT_TRUE(Module().SetDoubleFeatureValue(0, 0, 3.5));
    ASSERT_TRUE(Module().GetDoubleFeatureValue(0, 0, &real));
    EXPECT_EQ(real, 3.5);
    ASSERT_TRUE(Module().SetBoolFeatureValue(0, 0, 1));
    ASSERT_TRUE(Module().GetBoolFeatureValue(0, 0, &flag));
    EXPECT_EQ(flag, 1);
    ASSERT_TRUE(Module().ExecuteCommandFeature(1, 2));
    EXPECT_TRUE(Fake().Called("ExecuteCommandFeature(1,2)"));
    EXPECT_FALSE(Fake().Called("GetFeatureDescription"));

    FakeGrabberConfig config;
    config.advancedFeatures = false;
    ASSERT_TRUE(LoadFake(config));
    EXPECT_GRAB_ERROR(Module().GetCategoriesCount(&categories), eKErrAdvanceSettingsUnsupported);
    ASSERT_TRUE(Module().Unload());
    EXPECT_GRAB_ERROR(Module().ExecuteCommandFeature(0, 0), eKErrNoGrabberLoaded);
}

TEST_F(GrabModuleTest, SerialPort) {
    ASSERT_TRUE(LoadFake());
    EXPECT_TRUE(Module().IsCOMPortAvailable());
    char command[] = "GAIN?";
    unsigned long count = 5;
    ASSERT_TRUE(Module().Transmit(command, &count, 250));
    EXPECT_TRUE(Fake().Called("Transmit(GAIN?,250)"));
    char answer[8] = {};
    count = sizeof answer;
    ASSERT_TRUE(Module().Receive(answer, &count, 250));
    EXPECT_EQ(count, 3u);
    EXPECT_STREQ(answer, "OK\r");
    long end = 0, text = 0, type = 0;
    ASSERT_TRUE(Module().GetEndChar(&end) && Module().GetTextMode(&text) &&
                Module().GetCommunicationType(&type));
    EXPECT_EQ((std::vector<long>{end, text, type}), (std::vector<long>{'\r', 1, 2}));
    KChar folder[kKMaxNameLength] = {};
    ASSERT_TRUE(Module().GetProgFolder(folder));
    EXPECT_EQ(std::u16string(folder), u"/opt/camera/prog");
    ASSERT_TRUE(Module().GetSavedProgFolder(folder));
    EXPECT_EQ(std::u16string(folder), u"/opt/camera/saved");

    FakeGrabberConfig config;
    config.serialPort = false;
    ASSERT_TRUE(LoadFake(config));
    ASSERT_EQ(Module().GetLastError(), eKErrSuccess);
    EXPECT_GRAB_ERROR(Module().IsCOMPortAvailable(), eKErrNoComPort);
    EXPECT_GRAB_ERROR(Module().GetEndChar(&end), eKErrNoComPort);
    ASSERT_TRUE(Module().Unload());
    EXPECT_GRAB_ERROR(Module().IsCOMPortAvailable(), eKErrNoGrabberLoaded);
}

TEST_F(GrabModuleTest, TimeSourceStatusMapping) {
    FakeGrabber::Install({});
    EXPECT_EQ(Module().GetTimeSourceSyncStatus(), eKTimeSourceNone);  // no grabber
    EXPECT_EQ(Module().GetLastError(), eKErrSuccess);                 // and nothing recorded

    const std::pair<uint32_t, KTimeSourceSyncStatus> cases[] = {
        {0xFFFFFFFFu, eKTimeSourceNone},  {0, eKTimeSourceNotSynchronized},
        {1, eKTimeSourceSynchronizing},   {2, eKTimeSourceSynchronized},
        {4, eKTimeSourceHoldover},        {3, eKTimeSourceNotSynchronized},
        {9, eKTimeSourceNotSynchronized},
    };
    for (const auto& [driver, expected] : cases) {
        SCOPED_TRACE(driver);
        FakeGrabberConfig config;
        config.syncStatus = driver;
        ASSERT_TRUE(LoadFake(config));
        debug_.Clear();
        EXPECT_EQ(Module().GetTimeSourceSyncStatus(), expected);
        const bool unknown = driver == 3 || driver == 9;
        const std::string line = "Unknown time source sync status: " + std::to_string(driver);
        EXPECT_EQ(CountLines(line), unknown ? 1 : 0);
    }

    FakeGrabberConfig config;
    config.timeSource = false;
    ASSERT_TRUE(LoadFake(config));
    EXPECT_EQ(Module().GetTimeSourceSyncStatus(), eKTimeSourceNone);
}

TEST_F(GrabModuleTest, GpsForwardsOnlyWhenTheTimeSourceExists) {
    ASSERT_TRUE(LoadFake());
    EXPECT_TRUE(Module().IsGPSSupported());
    CGPSDataStruct data{};
    EXPECT_TRUE(Module().GetGPSData(&data, true));
    EXPECT_EQ(data.latitude, 47.5);
    EXPECT_TRUE(Fake().Called("GetGPSData(1)"));
    EXPECT_TRUE(Module().StopReadingGPSData());
    EXPECT_TRUE(Fake().Called("StopReadingGPSData"));

    FakeGrabberConfig config;
    config.gpsSupported = 0;
    ASSERT_TRUE(LoadFake(config));
    EXPECT_FALSE(Module().IsGPSSupported());

    config.timeSource = false;
    ASSERT_TRUE(LoadFake(config));
    EXPECT_FALSE(Module().IsGPSSupported());
    data.latitude = -1;
    EXPECT_TRUE(Module().GetGPSData(&data, false));
    EXPECT_EQ(data.latitude, -1);
    EXPECT_TRUE(Module().StopReadingGPSData());
    EXPECT_FALSE(Fake().Called("StopReadingGPSData"));
    EXPECT_EQ(Module().GetLastError(), eKErrSuccess);
}
