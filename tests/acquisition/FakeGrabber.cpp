#include "FakeGrabber.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "platform/PluginCatalog.h"
#include "platform/WideString.h"

namespace kestor::test {

namespace {

std::mutex g_lastMutex;
FakeGrabberConfig g_config;
FakeGrabber* g_last = nullptr;

KStatus CreateFake(const KGuid* clsid, const KGuid* iid, void** out) {
    if (clsid == nullptr || iid == nullptr || out == nullptr) return kKPointer;
    FakeGrabberConfig config;
    {
        std::lock_guard lock(g_lastMutex);
        config = g_config;
    }
    auto* fake = new FakeGrabber(config);
    const KStatus status = fake->QueryInterface(*iid, out);
    {
        std::lock_guard lock(g_lastMutex);
        if (g_last != nullptr) g_last->Release();
        g_last = fake;  // keeps the creator's reference
    }
    return status;
}

std::string Narrow(const KAbiChar* text) {
    return WideToUtf8(text);
}

}  // namespace

// The three standard methods of an interface object that belongs to the fake: references are
// the fake's, and each release is recorded with the interface's name.
#define FAKE_PART(Name)                                             \
    explicit Name##Part(FakeGrabber* owner) : o(owner) {}           \
    KStatus QueryInterface(const KGuid& iid, void** out) override { \
        return o->QueryInterface(iid, out);                         \
    }                                                               \
    uint32_t AddRef() override {                                    \
        return o->AddRef();                                         \
    }                                                               \
    uint32_t Release() override {                                   \
        o->Log("Release:" #Name);                                   \
        return o->Release();                                        \
    }                                                               \
    FakeGrabber* o;

namespace {

struct GrabberPart final : IKGrabber {
    FAKE_PART(Grabber)
    KStatus GetName(KAbiChar* name, uint32_t capacity) override {
        KCopyName(name, capacity, u"Fake");
        return kKOk;
    }
    KStatus ShowProperties(void* parent, int32_t streaming) override {
        o->Log("ShowProperties(" + std::string(parent ? "window" : "null") + "," +
               std::to_string(streaming) + ")");
        o->width_ = 32;  // the dialog changed the geometry
        return kKOk;
    }
    KStatus SetBufferCount(uint32_t count) override { return o->SetBufferCount(count); }
    KStatus GetBufferCount(uint32_t*) override { return kKNotImplemented; }
    KStatus GetDeliveredFrames(uint64_t*) override { return kKNotImplemented; }
    KStatus GetDroppedFrames(uint64_t*) override { return kKNotImplemented; }
    KStatus ReleaseImage() override { return o->ReleaseImage(); }
    KStatus GetLastImageTime(uint32_t*, uint16_t*, uint16_t*) override { return kKNotImplemented; }
    KStatus GetLastImageNumber(uint64_t*) override { return kKNotImplemented; }
    KStatus QueueGrab() override { return o->QueueGrab(); }
    KStatus WaitImage(void** pixels) override { return o->WaitImage(pixels); }
    KStatus Start() override { return o->Start(); }
    KStatus CancelQueuedGrabs() override { return o->CancelQueuedGrabs(); }
    KStatus Stop() override { return o->Stop(); }
    KStatus FreeQueue() override { return o->FreeQueue(); }
};

struct ImageFormatPart final : IKImageFormat {
    FAKE_PART(ImageFormat)
    KStatus GetImageSize(uint32_t* w, uint32_t* h, uint32_t* left, uint32_t* top) override {
        o->Log("GetImageSize");
        *w = o->width_;
        *h = o->height_;
        *left = o->left_;
        *top = o->top_;
        return kKOk;
    }
    KStatus SetImageSize(uint32_t w, uint32_t h, uint32_t left, uint32_t top) override {
        o->Log("SetImageSize(" + std::to_string(w) + "," + std::to_string(h) + "," +
               std::to_string(left) + "," + std::to_string(top) + ")");
        o->width_ = w;
        o->height_ = h;
        o->left_ = left;
        o->top_ = top;
        return kKOk;
    }
    KStatus GetImageSizeBytes(uint32_t* bytes) override {
        o->Log("GetImageSizeBytes");
        *bytes = o->width_ * o->height_ * o->Config().bitDepth / 8;
        return kKOk;
    }
    KStatus GetBitDepth(uint32_t* bits) override {
        o->Log("GetBitDepth");
        *bits = o->Config().bitDepth;
        return kKOk;
    }
    KStatus GetRealBitDepth(uint32_t* bits) override {
        o->Log("GetRealBitDepth");
        *bits = o->Config().realBitDepth;
        return kKOk;
    }
    KStatus GetImageFormat(uint32_t* format) override {
        o->Log("GetImageFormat");
        *format = o->Config().format;
        return kKOk;
    }
};

struct BinningPart final : IKBinning {
    FAKE_PART(Binning)
    KStatus GetBinning(uint32_t* factor) override {
        *factor = o->binning_;
        return kKOk;
    }
    KStatus SetBinning(uint32_t factor) override {
        o->Log("SetBinning(" + std::to_string(factor) + ")");
        o->binning_ = factor;
        o->width_ = o->Config().width / factor;
        o->height_ = o->Config().height / factor;
        return kKOk;
    }
};

struct BufferStatisticsPart final : IKBufferStatistics {
    FAKE_PART(BufferStatistics)
    KStatus GetBufferUsage(int32_t* buffers) override {
        *buffers = 1;
        return kKOk;
    }
    KStatus GetMaxBufferUsage(int32_t* buffers) override {
        *buffers = 3;
        return kKOk;
    }
    KStatus GetTotalBufferCount(int32_t* buffers) override {
        *buffers = 7;
        return kKOk;
    }
};

struct NotificationRegistrationPart final : IKNotificationRegistration {
    FAKE_PART(NotificationRegistration)
    KStatus Register(IKNotificationSink* sink) override;
};

struct QueryPart final : IKQuery {
    FAKE_PART(Query)
    KStatus Query(int32_t query, int32_t* result) override {
        o->Log("Query(" + std::to_string(query) + ")");
        *result = query * 2;
        return kKOk;
    }
};

struct SettingsPart final : IKSettings {
    FAKE_PART(Settings)
    KStatus GetSettingsCount(int32_t* count) override {
        *count = 2;
        return kKOk;
    }
    KStatus GetValuesCount(int32_t setting, int32_t* count) override {
        *count = setting + 3;
        return kKOk;
    }
    KStatus GetSettingsCaps(int32_t setting, KAbiChar* name, uint32_t capacity,
                            int32_t* value) override {
        KCopyName(name, capacity, setting == 0 ? u"Trigger mode" : u"Pixel clock");
        *value = 10 + setting;
        return kKOk;
    }
    KStatus GetValuesCaps(int32_t setting, int32_t value, KAbiChar* name, uint32_t capacity,
                          int32_t* result) override {
        KCopyName(
            name, capacity,
            Utf8ToWide("Value " + std::to_string(setting) + "." + std::to_string(value)).c_str());
        *result = 100 * setting + value;
        return kKOk;
    }
    KStatus GetCurrentValues(int32_t setting, int32_t* value) override {
        *value = current[setting & 1];
        return kKOk;
    }
    KStatus SetCurrentValues(int32_t setting, int32_t value) override {
        o->Log("SetCurrentValues(" + std::to_string(setting) + "," + std::to_string(value) + ")");
        current[setting & 1] = value;
        return kKOk;
    }
    int32_t current[2] = {0, 0};
};

struct AdjustmentsPart final : IKAdjustments {
    FAKE_PART(Adjustments)
    KStatus GetCount(int32_t* count) override {
        o->Log("Adjustments.GetCount");
        *count = o->Config().adjustmentCount;
        return kKOk;
    }
    KStatus GetCaps(int32_t index, int32_t* id, KAbiChar* name, uint32_t capacity, int64_t* intMin,
                    int64_t* intMax, double* doubleMin, double* doubleMax, int32_t* flag1,
                    int32_t* flag2, int32_t* flag3, int32_t* flag4, int32_t* flag5) override {
        o->Log("Adjustments.GetCaps(" + std::to_string(index) + ")");
        *id = 100 + index;
        KCopyName(name, capacity, u"Gain");
        *intMin = -5'000'000'000LL;  // beyond 32 bits: the public long must carry it
        *intMax = 5;
        *doubleMin = 0.5;
        *doubleMax = 1.5;
        *flag1 = 1;
        *flag2 = 1;
        *flag3 = 0;
        *flag4 = 1;
        *flag5 = 0;
        return kKOk;
    }
    KStatus GetIntegerValue(int32_t index, int64_t* value) override {
        o->Log("Adjustments.GetIntegerValue(" + std::to_string(index) + ")");
        *value = 40 + index;
        return kKOk;
    }
    KStatus SetIntegerValue(int32_t index, int64_t value) override {
        o->Log("Adjustments.SetIntegerValue(" + std::to_string(index) + "," +
               std::to_string(value) + ")");
        return kKOk;
    }
    KStatus GetDoubleValue(int32_t index, double* value) override {
        o->Log("Adjustments.GetDoubleValue(" + std::to_string(index) + ")");
        *value = 0.25 + index;
        return kKOk;
    }
    KStatus SetDoubleValue(int32_t index, double) override {
        o->Log("Adjustments.SetDoubleValue(" + std::to_string(index) + ")");
        return kKOk;
    }
    KStatus GetAutomatic(int32_t index, int32_t* automatic) override {
        o->Log("Adjustments.GetAutomatic(" + std::to_string(index) + ")");
        *automatic = 1;
        return kKOk;
    }
    KStatus SetAutomatic(int32_t index, int32_t automatic) override {
        o->Log("Adjustments.SetAutomatic(" + std::to_string(index) + "," +
               std::to_string(automatic) + ")");
        return kKOk;
    }
    KStatus OneShot(int32_t index) override {
        o->Log("Adjustments.OneShot(" + std::to_string(index) + ")");
        return kKOk;
    }
};

struct IntegerAdjustmentsPart final : IKIntegerAdjustments {
    FAKE_PART(IntegerAdjustments)
    KStatus GetCount(int32_t* count) override {
        o->Log("IntegerAdjustments.GetCount");
        *count = o->Config().integerAdjustmentCount;
        return kKOk;
    }
    KStatus GetCaps(int32_t index, int32_t* id, KAbiChar* name, uint32_t capacity, int64_t* min,
                    int64_t* max, int32_t* flag1, int32_t* flag2, int32_t* flag3, int32_t* flag4,
                    int32_t* flag5) override {
        o->Log("IntegerAdjustments.GetCaps(" + std::to_string(index) + ")");
        *id = 200 + index;
        KCopyName(name, capacity, u"Exposure");
        *min = 1;
        *max = 1000;
        *flag1 = 1;
        *flag2 = 0;
        *flag3 = 0;
        *flag4 = 0;
        *flag5 = 1;
        return kKOk;
    }
    KStatus GetValue(int32_t index, int64_t* value) override {
        o->Log("IntegerAdjustments.GetValue(" + std::to_string(index) + ")");
        *value = 7;
        return kKOk;
    }
    KStatus SetValue(int32_t index, int64_t value) override {
        o->Log("IntegerAdjustments.SetValue(" + std::to_string(index) + "," +
               std::to_string(value) + ")");
        return kKOk;
    }
    KStatus GetAutomatic(int32_t index, int32_t* automatic) override {
        o->Log("IntegerAdjustments.GetAutomatic(" + std::to_string(index) + ")");
        *automatic = 0;
        return kKOk;
    }
    KStatus SetAutomatic(int32_t index, int32_t) override {
        o->Log("IntegerAdjustments.SetAutomatic(" + std::to_string(index) + ")");
        return kKOk;
    }
};

struct DoubleAdjustmentsPart final : IKDoubleAdjustments {
    FAKE_PART(DoubleAdjustments)
    KStatus GetCount(int32_t* count) override {
        o->Log("DoubleAdjustments.GetCount");
        *count = o->Config().doubleAdjustmentCount;
        return kKOk;
    }
    KStatus GetCaps(int32_t index, int32_t* id, KAbiChar* name, uint32_t capacity, double* min,
                    double* max, int32_t* flagA, int32_t* flagB) override {
        o->Log("DoubleAdjustments.GetCaps(" + std::to_string(index) + ")");
        *id = 300 + index;
        KCopyName(name, capacity, u"Gamma");
        *min = 0.25;
        *max = 2.5;
        *flagA = 7;
        *flagB = 9;
        return kKOk;
    }
    KStatus GetValue(int32_t index, double* value) override {
        o->Log("DoubleAdjustments.GetValue(" + std::to_string(index) + ")");
        *value = 1.75;
        return kKOk;
    }
    KStatus SetValue(int32_t index, double) override {
        o->Log("DoubleAdjustments.SetValue(" + std::to_string(index) + ")");
        return kKOk;
    }
    KStatus GetAutomatic(int32_t index, int32_t* automatic) override {
        o->Log("DoubleAdjustments.GetAutomatic(" + std::to_string(index) + ")");
        *automatic = 1;
        return kKOk;
    }
    KStatus SetAutomatic(int32_t index, int32_t) override {
        o->Log("DoubleAdjustments.SetAutomatic(" + std::to_string(index) + ")");
        return kKOk;
    }
};

struct AdvancedFeaturesPart final : IKAdvancedFeatures {
    FAKE_PART(AdvancedFeatures)
    KStatus GetCategoriesCount(int32_t* count) override {
        *count = 3;
        return kKOk;
    }
    KStatus GetCategoriesCap(int32_t index, int32_t* id, KAbiChar* name,
                             uint32_t capacity) override {
        *id = 50 + index;
        KCopyName(name, capacity, u"Acquisition control");
        return kKOk;
    }
    KStatus GetFeatureCount(int32_t category, int32_t* count) override {
        *count = category + 1;
        return kKOk;
    }
    KStatus GetFeatureCap(int32_t category, int32_t index, int32_t* id, KAbiChar* name,
                          uint32_t capacity, int32_t* type, int32_t* level) override {
        *id = category * 10 + index;
        KCopyName(name, capacity, u"ExposureAuto");
        *type = eAdvanceSettingsEnumeration;
        *level = eAdvanceSettingsExpert;
        return kKOk;
    }
    KStatus Accessible(int32_t, int32_t, int32_t* accessible) override {
        *accessible = 1;
        return kKOk;
    }
    KStatus GetEnumFeatureValueCount(int32_t, int32_t, int32_t* count) override {
        *count = 3;
        return kKOk;
    }
    KStatus GetEnumFeatureValueCap(int32_t, int32_t, int32_t index, KAbiChar* name,
                                   uint32_t capacity, int64_t* value) override {
        KCopyName(name, capacity, index == 0 ? u"Off" : u"Continuous");
        *value = 1'000'000'000'000LL + index;
        return kKOk;
    }
    KStatus GetEnumFeatureValue(int32_t, int32_t, int64_t* value) override {
        *value = enumValue;
        return kKOk;
    }
    KStatus SetEnumFeatureValue(int32_t category, int32_t feature, int64_t value) override {
        o->Log("SetEnumFeatureValue(" + std::to_string(category) + "," + std::to_string(feature) +
               "," + std::to_string(value) + ")");
        enumValue = value;
        return kKOk;
    }
    KStatus GetIntegerFeatureCap(int32_t, int32_t, int64_t* min, int64_t* max) override {
        *min = -3;
        *max = 1LL << 40;
        return kKOk;
    }
    KStatus GetIntegerFeatureValue(int32_t, int32_t, int64_t* value) override {
        *value = integerValue;
        return kKOk;
    }
    KStatus SetIntegerFeatureValue(int32_t, int32_t, int64_t value) override {
        integerValue = value;
        return kKOk;
    }
    KStatus GetDoubleFeatureCap(int32_t, int32_t, double* min, double* max) override {
        *min = -1.5;
        *max = 99.5;
        return kKOk;
    }
    KStatus GetDoubleFeatureValue(int32_t, int32_t, double* value) override {
        *value = doubleValue;
        return kKOk;
    }
    KStatus SetDoubleFeatureValue(int32_t, int32_t, double value) override {
        doubleValue = value;
        return kKOk;
    }
    KStatus GetFeatureDescription(int32_t, int32_t, KAbiChar*, uint32_t) override {
        o->Log("GetFeatureDescription");
        return kKOk;
    }
    KStatus GetBoolFeatureValue(int32_t, int32_t, int32_t* value) override {
        *value = boolValue;
        return kKOk;
    }
    KStatus SetBoolFeatureValue(int32_t, int32_t, int32_t value) override {
        boolValue = value;
        return kKOk;
    }
    KStatus ExecuteCommandFeature(int32_t category, int32_t feature) override {
        o->Log("ExecuteCommandFeature(" + std::to_string(category) + "," + std::to_string(feature) +
               ")");
        return kKOk;
    }
    int64_t enumValue = 0, integerValue = 0;
    double doubleValue = 0;
    int32_t boolValue = 0;
};

struct SerialPortPart final : IKSerialPort {
    FAKE_PART(SerialPort)
    KStatus Transmit(const void* data, uint32_t* count, uint32_t timeoutMs) override {
        o->Log("Transmit(" + std::string(static_cast<const char*>(data), *count) + "," +
               std::to_string(timeoutMs) + ")");
        return kKOk;
    }
    KStatus Receive(void* data, uint32_t* count, uint32_t) override {
        const char answer[] = "OK\r";
        const uint32_t bytes = std::min<uint32_t>(*count, 3);
        std::memcpy(data, answer, bytes);
        *count = bytes;
        return kKOk;
    }
    KStatus GetEndChar(int32_t* endChar) override {
        *endChar = '\r';
        return kKOk;
    }
    KStatus GetTextMode(int32_t* textMode) override {
        *textMode = 1;
        return kKOk;
    }
    KStatus GetProgFolder(KAbiChar* folder, uint32_t capacity) override {
        KCopyName(folder, capacity, u"/opt/camera/prog");
        return kKOk;
    }
    KStatus GetSavedProgFolder(KAbiChar* folder, uint32_t capacity) override {
        KCopyName(folder, capacity, u"/opt/camera/saved");
        return kKOk;
    }
    KStatus GetCommunicationType(int32_t* type) override {
        *type = 2;
        return kKOk;
    }
};

struct TimeSourcePart final : IKTimeSource {
    FAKE_PART(TimeSource)
    KStatus GetSyncStatus(uint32_t* status) override {
        *status = o->Config().syncStatus;
        return kKOk;
    }
    KStatus IsGPSSupported(int32_t* supported) override {
        *supported = o->Config().gpsSupported;
        return kKOk;
    }
    KStatus GetGPSData(CGPSDataStruct* data, int32_t flag) override {
        o->Log("GetGPSData(" + std::to_string(flag) + ")");
        data->latitude = 47.5;
        data->valid = 1;
        return kKOk;
    }
    KStatus StopReadingGPSData() override {
        o->Log("StopReadingGPSData");
        return kKOk;
    }
};

struct FrameInfoPart final : IKFrameInfo {
    FAKE_PART(FrameInfo)
    KStatus GetLastImageInfo(KGrabFrameInfo* info) override { return o->GetLastImageInfo(info); }
    KStatus GetBayerOrigin(uint32_t* origin) override {
        *origin = o->Config().bayerOrigin;
        return kKOk;
    }
    KStatus GetFrameCounters(uint64_t* delivered, uint64_t* lost, uint64_t* incomplete) override {
        *delivered = 11;
        *lost = 2;
        *incomplete = 1;
        return kKOk;
    }
};

}  // namespace

struct FakeGrabber::Parts {
    explicit Parts(FakeGrabber* o)
        : grabber(o),
          imageFormat(o),
          binning(o),
          bufferStatistics(o),
          registration(o),
          query(o),
          settings(o),
          adjustments(o),
          integerAdjustments(o),
          doubleAdjustments(o),
          features(o),
          serialPort(o),
          timeSource(o),
          frameInfo(o) {}
    GrabberPart grabber;
    ImageFormatPart imageFormat;
    BinningPart binning;
    BufferStatisticsPart bufferStatistics;
    NotificationRegistrationPart registration;
    QueryPart query;
    SettingsPart settings;
    AdjustmentsPart adjustments;
    IntegerAdjustmentsPart integerAdjustments;
    DoubleAdjustmentsPart doubleAdjustments;
    AdvancedFeaturesPart features;
    SerialPortPart serialPort;
    TimeSourcePart timeSource;
    FrameInfoPart frameInfo;
};

KStatus NotificationRegistrationPart::Register(IKNotificationSink* sink) {
    o->Log(sink != nullptr ? "Register(sink)" : "Register(null)");
    o->SetSink(sink);
    return kKOk;
}

#undef FAKE_PART

// --- the fake itself -----------------------------------------------------------------------

void FakeGrabber::Install(const FakeGrabberConfig& config) {
    {
        std::lock_guard lock(g_lastMutex);
        g_config = config;
    }
    PluginCatalog::Instance().RegisterClass(CLSID_KGrabberManager, kKPluginGrabberManager,
                                            "Fake grabber manager", &CreateFake);
}

void FakeGrabber::Uninstall() {
    PluginCatalog::Instance().UnregisterClass(CLSID_KGrabberManager);
    std::lock_guard lock(g_lastMutex);
    if (g_last != nullptr) g_last->Release();
    g_last = nullptr;
}

FakeGrabber* FakeGrabber::Last() {
    std::lock_guard lock(g_lastMutex);
    return g_last;
}

FakeGrabber::FakeGrabber(const FakeGrabberConfig& config)
    : width_(config.width), height_(config.height), config_(config), parts_(new Parts(this)) {}

FakeGrabber::~FakeGrabber() {
    delete parts_;
}

void FakeGrabber::Log(const std::string& call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(call);
}

std::vector<std::string> FakeGrabber::Calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

void FakeGrabber::ClearCalls() {
    std::lock_guard lock(mutex_);
    calls_.clear();
}

bool FakeGrabber::Called(const std::string& call) const {
    const std::vector<std::string> calls = Calls();
    return std::find(calls.begin(), calls.end(), call) != calls.end();
}

std::vector<std::string> FakeGrabber::CallsStartingWith(const std::string& prefix) const {
    std::vector<std::string> matching;
    for (const std::string& call : Calls()) {
        if (call.compare(0, prefix.size(), prefix) == 0) matching.push_back(call);
    }
    return matching;
}

void FakeGrabber::SetSink(IKNotificationSink* sink) {
    std::lock_guard lock(mutex_);
    sink_ = sink;
}

bool FakeGrabber::SinkRegistered() const {
    std::lock_guard lock(mutex_);
    return sink_ != nullptr;
}

bool FakeGrabber::RaiseNotification(int32_t notification, int32_t action) {
    IKNotificationSink* sink;
    {
        std::lock_guard lock(mutex_);
        sink = sink_;
    }
    if (sink == nullptr) return false;
    sink->OnNotification(notification, action, 0);
    return true;
}

uint64_t FakeGrabber::FramesProduced() const {
    std::lock_guard lock(mutex_);
    return produced_;
}

uint64_t FakeGrabber::FrameNumberIn(const uint8_t* pixels) {
    uint64_t number;
    std::memcpy(&number, pixels, sizeof number);
    return number;
}

KStatus FakeGrabber::QueryInterface(const KGuid& iid, void** out) {
    if (out == nullptr) return kKPointer;
    *out = nullptr;
    const FakeGrabberConfig& c = config_;
    Parts& p = *parts_;
    if (iid == IID_IKUnknown || iid == IID_IKGrabberManager)
        *out = static_cast<IKGrabberManager*>(this);
    else if (iid == IID_IKGrabber)
        *out = static_cast<IKGrabber*>(&p.grabber);
    else if (iid == IID_IKImageFormat && c.imageFormat)
        *out = static_cast<IKImageFormat*>(&p.imageFormat);
    else if (iid == IID_IKBinning && c.binning)
        *out = static_cast<IKBinning*>(&p.binning);
    else if (iid == IID_IKBufferStatistics && c.bufferStatistics)
        *out = static_cast<IKBufferStatistics*>(&p.bufferStatistics);
    else if (iid == IID_IKNotificationRegistration && c.notificationRegistration)
        *out = static_cast<IKNotificationRegistration*>(&p.registration);
    else if (iid == IID_IKQuery && c.query)
        *out = static_cast<IKQuery*>(&p.query);
    else if (iid == IID_IKSettings && c.settings)
        *out = static_cast<IKSettings*>(&p.settings);
    else if (iid == IID_IKAdjustments && c.adjustments)
        *out = static_cast<IKAdjustments*>(&p.adjustments);
    else if (iid == IID_IKIntegerAdjustments && c.integerAdjustments)
        *out = static_cast<IKIntegerAdjustments*>(&p.integerAdjustments);
    else if (iid == IID_IKDoubleAdjustments && c.doubleAdjustments)
        *out = static_cast<IKDoubleAdjustments*>(&p.doubleAdjustments);
    else if (iid == IID_IKAdvancedFeatures && c.advancedFeatures)
        *out = static_cast<IKAdvancedFeatures*>(&p.features);
    else if (iid == IID_IKSerialPort && c.serialPort)
        *out = static_cast<IKSerialPort*>(&p.serialPort);
    else if (iid == IID_IKTimeSource && c.timeSource)
        *out = static_cast<IKTimeSource*>(&p.timeSource);
    else if (iid == IID_IKFrameInfo && c.frameInfo)
        *out = static_cast<IKFrameInfo*>(&p.frameInfo);
    if (*out == nullptr) return kKNoInterface;
    AddRef();
    return kKOk;
}

uint32_t FakeGrabber::AddRef() {
    return refs_.fetch_add(1) + 1;
}

uint32_t FakeGrabber::Release() {
    const uint32_t left = refs_.fetch_sub(1) - 1;
    if (left == 0) delete this;
    return left;
}

KStatus FakeGrabber::GetVersion(uint32_t* version) {
    *version = 1u << 16;
    return kKOk;
}

KStatus FakeGrabber::GetDriverCount(int32_t* count) {
    *count = 1;
    return kKOk;
}

KStatus FakeGrabber::GetDriverName(int32_t, KAbiChar* name, uint32_t capacity) {
    KCopyName(name, capacity, u"Fake");
    return kKOk;
}

KStatus FakeGrabber::IsDriverAvailable(const KAbiChar*, int32_t* available) {
    *available = 1;
    return kKOk;
}

KStatus FakeGrabber::Initialize(const KAbiChar* driverName, const KAbiChar* settingsKey,
                                KAbiChar* errorText, uint32_t capacity) {
    Log("Initialize(" + Narrow(driverName) + "|" + Narrow(settingsKey) + ")");
    if (config_.initializeFails) {
        KCopyName(errorText, capacity, config_.initializeError.c_str());
        return kKFail;
    }
    return kKOk;
}

// --- streaming model -------------------------------------------------------------------------
// QueueGrab fills a free buffer with the next frame (its number in the first 8 bytes) and
// returns; it waits while every buffer is full or held. WaitImage yields completed buffers in
// order and waits a little when there is none, so that the reader can look at its flags.

KStatus FakeGrabber::SetBufferCount(uint32_t count) {
    Log("SetBufferCount(" + std::to_string(count) + ")");
    if (count > config_.maxBuffers) return kKOutOfMemory;
    std::lock_guard lock(mutex_);
    bufferCount_ = count;
    return kKOk;
}

KStatus FakeGrabber::Start() {
    Log("Start");
    std::lock_guard lock(mutex_);
    const uint32_t bytes = width_ * height_ * config_.bitDepth / 8;
    const size_t offset = config_.unalignedBuffers ? 1 : 0;  // buffers not aligned for disk I/O
    buffers_.assign(bufferCount_, std::vector<uint8_t>(bytes + offset));
    completed_.clear();
    held_ = -1;
    stopped_ = false;
    cancelled_ = false;
    return kKOk;
}

KStatus FakeGrabber::Stop() {
    Log("Stop");
    std::lock_guard lock(mutex_);
    stopped_ = true;
    changed_.notify_all();
    return kKOk;
}

KStatus FakeGrabber::CancelQueuedGrabs() {
    Log("CancelQueuedGrabs");
    std::lock_guard lock(mutex_);
    cancelled_ = true;
    changed_.notify_all();
    return kKOk;
}

KStatus FakeGrabber::FreeQueue() {
    Log("FreeQueue");
    std::lock_guard lock(mutex_);
    completed_.clear();
    return kKOk;
}

KStatus FakeGrabber::QueueGrab() {
    Log("QueueGrab");
    std::unique_lock lock(mutex_);
    if (config_.queueFailAfter >= 0 && grabsSucceeded_ >= config_.queueFailAfter) return kKFail;
    auto freeBuffer = [this]() -> int {
        for (uint32_t i = 0; i < buffers_.size(); ++i) {
            const bool busy =
                static_cast<int>(i) == held_ ||
                std::find(completed_.begin(), completed_.end(), i) != completed_.end();
            if (!busy) return static_cast<int>(i);
        }
        return -1;
    };
    const bool limited = config_.frameLimit != 0;
    changed_.wait(lock, [&] {
        return stopped_ || (freeBuffer() >= 0 && !(limited && produced_ >= config_.frameLimit));
    });
    if (stopped_) return kKFalse;
    const int index = freeBuffer();
    ++produced_;
    std::vector<uint8_t>& buffer = buffers_[static_cast<size_t>(index)];
    uint8_t* pixels = buffer.data() + (config_.unalignedBuffers ? 1 : 0);
    const size_t bytes = buffer.size() - (config_.unalignedBuffers ? 1 : 0);
    std::memset(pixels, static_cast<int>(produced_ & 0xFF), bytes);
    std::memcpy(pixels, &produced_, std::min(sizeof produced_, bytes));
    completed_.push_back(static_cast<uint32_t>(index));
    ++grabsSucceeded_;
    changed_.notify_all();
    return kKOk;
}

KStatus FakeGrabber::WaitImage(void** pixels) {
    *pixels = nullptr;
    std::unique_lock lock(mutex_);
    if (config_.waitImageNull) {
        changed_.wait_for(lock, std::chrono::milliseconds(2));
        return kKTimeout;
    }
    if (config_.imageOnlyAfterCancel) {
        readerWaiting_ = true;
        changed_.wait(lock, [&] { return cancelled_; });
        readerWaiting_ = false;
        if (buffers_.empty()) return kKTimeout;
        ++lateImages_;
        *pixels = buffers_[0].data();
        return kKOk;
    }
    changed_.wait_for(lock, std::chrono::milliseconds(20),
                      [&] { return cancelled_ || !completed_.empty(); });
    if (cancelled_ || completed_.empty()) return kKTimeout;
    held_ = static_cast<int>(completed_.front());
    completed_.pop_front();
    std::vector<uint8_t>& buffer = buffers_[static_cast<size_t>(held_)];
    *pixels = buffer.data() + (config_.unalignedBuffers ? 1 : 0);
    std::memcpy(&lastDelivered_, *pixels, sizeof lastDelivered_);
    return kKOk;
}

KStatus FakeGrabber::ReleaseImage() {
    ++releases_;
    std::lock_guard lock(mutex_);
    held_ = -1;
    changed_.notify_all();
    return kKOk;
}

KStatus FakeGrabber::GetLastImageInfo(KGrabFrameInfo* info) {
    std::lock_guard lock(mutex_);
    info->flags = config_.frameInfoFlags;
    info->seconds = static_cast<uint32_t>(1'000'000 + lastDelivered_);
    info->milliseconds = static_cast<uint16_t>(lastDelivered_ % 1000);
    info->microseconds = 7;
    info->frameId = 5000 + lastDelivered_;
    return kKOk;
}

}  // namespace kestor::test
