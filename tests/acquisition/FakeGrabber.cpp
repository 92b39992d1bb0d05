#include "FakeGrabber.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <tuple>

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

// Writes an output and answers success, so that the fake's getters stay one line each.
template <class T, class V>
KStatus Put(T* out, V value) {
    *out = static_cast<T>(value);
    return kKOk;
}

std::string Args(std::initializer_list<int64_t> values) {
    std::string text;
    for (const int64_t value : values) text += (text.empty() ? "" : ",") + std::to_string(value);
    return "(" + text + ")";
}

struct GrabberPart final : IKGrabber {
    FAKE_PART(Grabber)
    KStatus GetName(KAbiChar* name, uint32_t capacity) override {
        KCopyName(name, capacity, u"Fake");
        return kKOk;
    }
    KStatus ShowProperties(void* parent, int32_t streaming) override {
        o->Log("ShowProperties(" + std::string(parent ? "window" : "null") + "," +
               std::to_string(streaming) + ")");
        return Put(&o->width_, 32);  // the dialog changed the geometry
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
        *w = o->width_, *h = o->height_, *left = o->left_, *top = o->top_;
        return kKOk;
    }
    KStatus SetImageSize(uint32_t w, uint32_t h, uint32_t left, uint32_t top) override {
        o->Log("SetImageSize" + Args({w, h, left, top}));
        o->width_ = w, o->height_ = h, o->left_ = left, o->top_ = top;
        return kKOk;
    }
    KStatus GetImageSizeBytes(uint32_t* bytes) override {
        o->Log("GetImageSizeBytes");
        return Put(bytes, o->width_ * o->height_);
    }
    KStatus GetBitDepth(uint32_t* bits) override {
        o->Log("GetBitDepth");
        return Put(bits, 8);
    }
    KStatus GetRealBitDepth(uint32_t* bits) override {
        o->Log("GetRealBitDepth");
        return Put(bits, 8);
    }
    KStatus GetImageFormat(uint32_t* format) override {
        o->Log("GetImageFormat");
        return Put(format, eKFormatMono);
    }
};

struct BinningPart final : IKBinning {
    FAKE_PART(Binning)
    KStatus GetBinning(uint32_t* factor) override { return Put(factor, o->binning_); }
    KStatus SetBinning(uint32_t factor) override {
        o->Log("SetBinning" + Args({factor}));
        o->binning_ = factor;
        o->width_ = o->Config().width / factor;
        o->height_ = o->Config().height / factor;
        return kKOk;
    }
};

struct BufferStatisticsPart final : IKBufferStatistics {
    FAKE_PART(BufferStatistics)
    KStatus GetBufferUsage(int32_t* buffers) override { return Put(buffers, 1); }
    KStatus GetMaxBufferUsage(int32_t* buffers) override { return Put(buffers, 3); }
    KStatus GetTotalBufferCount(int32_t* buffers) override { return Put(buffers, 7); }
};

struct NotificationRegistrationPart final : IKNotificationRegistration {
    FAKE_PART(NotificationRegistration)
    KStatus Register(IKNotificationSink* sink) override {
        o->Log(sink != nullptr ? "Register(sink)" : "Register(null)");
        o->SetSink(sink);
        return kKOk;
    }
};

struct QueryPart final : IKQuery {
    FAKE_PART(Query)
    KStatus Query(int32_t query, int32_t* result) override { return Put(result, query * 2); }
};

struct SettingsPart final : IKSettings {
    FAKE_PART(Settings)
    KStatus GetSettingsCount(int32_t* count) override { return Put(count, 2); }
    KStatus GetValuesCount(int32_t setting, int32_t* count) override {
        return Put(count, setting + 3);
    }
    KStatus GetSettingsCaps(int32_t setting, KAbiChar* name, uint32_t capacity,
                            int32_t* value) override {
        KCopyName(name, capacity, setting == 0 ? u"Trigger mode" : u"Pixel clock");
        return Put(value, 10 + setting);
    }
    KStatus GetValuesCaps(int32_t setting, int32_t value, KAbiChar* name, uint32_t capacity,
                          int32_t* result) override {
        const std::string text = "Value " + std::to_string(setting) + "." + std::to_string(value);
        KCopyName(name, capacity, Utf8ToWide(text).c_str());
        return Put(result, 100 * setting + value);
    }
    KStatus GetCurrentValues(int32_t setting, int32_t* value) override {
        return Put(value, current[setting & 1]);
    }
    KStatus SetCurrentValues(int32_t setting, int32_t value) override {
        o->Log("SetCurrentValues" + Args({setting, value}));
        return Put(&current[setting & 1], value);
    }
    int32_t current[2] = {0, 0};
};

// The adjustment interfaces log every call as "<Interface>.<Method>(<index>[,<value>])".
struct AdjustmentsPart final : IKAdjustments {
    FAKE_PART(Adjustments)
    KStatus Logged(const char* method, std::initializer_list<int64_t> args) {
        o->Log(std::string("Adjustments.") + method + Args(args));
        return kKOk;
    }
    KStatus GetCount(int32_t* count) override {
        o->Log("Adjustments.GetCount");
        return Put(count, 2);
    }
    KStatus GetCaps(int32_t index, int32_t* id, KAbiChar* name, uint32_t capacity, int64_t* intMin,
                    int64_t* intMax, double* doubleMin, double* doubleMax, int32_t* flag1,
                    int32_t* flag2, int32_t* flag3, int32_t* flag4, int32_t* flag5) override {
        KCopyName(name, capacity, u"Gain");
        *id = 100 + index;
        *intMin = -5'000'000'000LL;  // beyond 32 bits: the public long must carry it
        *intMax = 5;
        *doubleMin = 0.5, *doubleMax = 1.5;
        *flag1 = 1, *flag2 = 1, *flag3 = 0, *flag4 = 1, *flag5 = 0;
        return Logged("GetCaps", {index});
    }
    KStatus GetIntegerValue(int32_t index, int64_t* value) override {
        *value = 40 + index;
        return Logged("GetIntegerValue", {index});
    }
    KStatus SetIntegerValue(int32_t index, int64_t value) override {
        return Logged("SetIntegerValue", {index, value});
    }
    KStatus GetDoubleValue(int32_t index, double* value) override {
        *value = 0.25 + index;
        return Logged("GetDoubleValue", {index});
    }
    KStatus SetDoubleValue(int32_t index, double) override {
        return Logged("SetDoubleValue", {index});
    }
    KStatus GetAutomatic(int32_t index, int32_t* automatic) override {
        *automatic = 1;
        return Logged("GetAutomatic", {index});
    }
    KStatus SetAutomatic(int32_t index, int32_t automatic) override {
        return Logged("SetAutomatic", {index, automatic});
    }
    KStatus OneShot(int32_t index) override { return Logged("OneShot", {index}); }
};

struct IntegerAdjustmentsPart final : IKIntegerAdjustments {
    FAKE_PART(IntegerAdjustments)
    KStatus Logged(const char* method, int32_t index) {
        o->Log(std::string("IntegerAdjustments.") + method + Args({index}));
        return kKOk;
    }
    KStatus GetCount(int32_t* count) override {
        o->Log("IntegerAdjustments.GetCount");
        return Put(count, 3);
    }
    KStatus GetCaps(int32_t index, int32_t* id, KAbiChar* name, uint32_t capacity, int64_t* min,
                    int64_t* max, int32_t* flag1, int32_t* flag2, int32_t* flag3, int32_t* flag4,
                    int32_t* flag5) override {
        KCopyName(name, capacity, u"Exposure");
        *id = 200 + index;
        *min = 1, *max = 1000;
        *flag1 = 1, *flag2 = 0, *flag3 = 0, *flag4 = 0, *flag5 = 1;
        return Logged("GetCaps", index);
    }
    KStatus GetValue(int32_t index, int64_t* value) override {
        *value = 7;
        return Logged("GetValue", index);
    }
    KStatus SetValue(int32_t index, int64_t) override { return Logged("SetValue", index); }
    KStatus GetAutomatic(int32_t index, int32_t* automatic) override {
        *automatic = 0;
        return Logged("GetAutomatic", index);
    }
    KStatus SetAutomatic(int32_t index, int32_t) override { return Logged("SetAutomatic", index); }
};

struct DoubleAdjustmentsPart final : IKDoubleAdjustments {
    FAKE_PART(DoubleAdjustments)
    KStatus Logged(const char* method, int32_t index) {
        o->Log(std::string("DoubleAdjustments.") + method + Args({index}));
        return kKOk;
    }
    KStatus GetCount(int32_t* count) override {
        o->Log("DoubleAdjustments.GetCount");
        return Put(count, 4);
    }
    KStatus GetCaps(int32_t index, int32_t* id, KAbiChar* name, uint32_t capacity, double* min,
                    double* max, int32_t* flagA, int32_t* flagB) override {
        KCopyName(name, capacity, u"Gamma");
        *id = 300 + index;
        *min = 0.25, *max = 2.5;
        *flagA = 7, *flagB = 9;
        return Logged("GetCaps", index);
    }
    KStatus GetValue(int32_t index, double* value) override {
        *value = 1.75;
        return Logged("GetValue", index);
    }
    KStatus SetValue(int32_t index, double) override { return Logged("SetValue", index); }
    KStatus GetAutomatic(int32_t index, int32_t* automatic) override {
        *automatic = 1;
        return Logged("GetAutomatic", index);
    }
    KStatus SetAutomatic(int32_t index, int32_t) override { return Logged("SetAutomatic", index); }
};

struct AdvancedFeaturesPart final : IKAdvancedFeatures {
    FAKE_PART(AdvancedFeatures)
    KStatus GetCategoriesCount(int32_t* count) override { return Put(count, 3); }
    KStatus GetCategoriesCap(int32_t index, int32_t* id, KAbiChar* name,
                             uint32_t capacity) override {
        KCopyName(name, capacity, u"Acquisition control");
        return Put(id, 50 + index);
    }
    KStatus GetFeatureCount(int32_t category, int32_t* count) override {
        return Put(count, category + 1);
    }
    KStatus GetFeatureCap(int32_t category, int32_t index, int32_t* id, KAbiChar* name,
                          uint32_t capacity, int32_t* type, int32_t* level) override {
        KCopyName(name, capacity, u"ExposureAuto");
        *id = category * 10 + index;
        *type = eAdvanceSettingsEnumeration;
        return Put(level, eAdvanceSettingsExpert);
    }
    KStatus Accessible(int32_t, int32_t, int32_t* accessible) override {
        return Put(accessible, 1);
    }
    KStatus GetEnumFeatureValueCount(int32_t, int32_t, int32_t* count) override {
        return Put(count, 3);
    }
    KStatus GetEnumFeatureValueCap(int32_t, int32_t, int32_t index, KAbiChar* name,
                                   uint32_t capacity, int64_t* value) override {
        KCopyName(name, capacity, index == 0 ? u"Off" : u"Continuous");
        return Put(value, 1'000'000'000'000LL + index);
    }
    KStatus GetEnumFeatureValue(int32_t, int32_t, int64_t* value) override {
        return Put(value, enumValue);
    }
    KStatus SetEnumFeatureValue(int32_t category, int32_t feature, int64_t value) override {
        o->Log("SetEnumFeatureValue" + Args({category, feature, value}));
        return Put(&enumValue, value);
    }
    KStatus GetIntegerFeatureCap(int32_t, int32_t, int64_t* min, int64_t* max) override {
        *min = -3;
        return Put(max, 1LL << 40);
    }
    KStatus GetIntegerFeatureValue(int32_t, int32_t, int64_t* value) override {
        return Put(value, integerValue);
    }
    KStatus SetIntegerFeatureValue(int32_t, int32_t, int64_t value) override {
        return Put(&integerValue, value);
    }
    KStatus GetDoubleFeatureCap(int32_t, int32_t, double* min, double* max) override {
        *min = -1.5;
        return Put(max, 99.5);
    }
    KStatus GetDoubleFeatureValue(int32_t, int32_t, double* value) override {
        return Put(value, doubleValue);
    }
    KStatus SetDoubleFeatureValue(int32_t, int32_t, double value) override {
        return Put(&doubleValue, value);
    }
    KStatus GetFeatureDescription(int32_t, int32_t, KAbiChar*, uint32_t) override {
        o->Log("GetFeatureDescription");
        return kKOk;
    }
    KStatus GetBoolFeatureValue(int32_t, int32_t, int32_t* value) override {
        return Put(value, boolValue);
    }
    KStatus SetBoolFeatureValue(int32_t, int32_t, int32_t value) override {
        return Put(&boolValue, value);
    }
    KStatus ExecuteCommandFeature(int32_t category, int32_t feature) override {
        o->Log("ExecuteCommandFeature" + Args({category, feature}));
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
        *count = std::min<uint32_t>(*count, 3);
        std::memcpy(data, "OK\r", *count);
        return kKOk;
    }
    KStatus GetEndChar(int32_t* endChar) override { return Put(endChar, '\r'); }
    KStatus GetTextMode(int32_t* textMode) override { return Put(textMode, 1); }
    KStatus GetProgFolder(KAbiChar* folder, uint32_t capacity) override {
        KCopyName(folder, capacity, u"/opt/camera/prog");
        return kKOk;
    }
    KStatus GetSavedProgFolder(KAbiChar* folder, uint32_t capacity) override {
        KCopyName(folder, capacity, u"/opt/camera/saved");
        return kKOk;
    }
    KStatus GetCommunicationType(int32_t* type) override { return Put(type, 2); }
};

struct TimeSourcePart final : IKTimeSource {
    FAKE_PART(TimeSource)
    KStatus GetSyncStatus(uint32_t* status) override { return Put(status, o->Config().syncStatus); }
    KStatus IsGPSSupported(int32_t* supported) override {
        return Put(supported, o->Config().gpsSupported);
    }
    KStatus GetGPSData(CGPSDataStruct* data, int32_t flag) override {
        o->Log("GetGPSData" + Args({flag}));
        data->latitude = 47.5;
        return Put(&data->valid, 1);
    }
    KStatus StopReadingGPSData() override {
        o->Log("StopReadingGPSData");
        return kKOk;
    }
};

struct FrameInfoPart final : IKFrameInfo {
    FAKE_PART(FrameInfo)
    KStatus GetLastImageInfo(KGrabFrameInfo* info) override { return o->GetLastImageInfo(info); }
    KStatus GetBayerOrigin(uint32_t* origin) override { return Put(origin, eKBayerOriginBG); }
    KStatus GetFrameCounters(uint64_t* delivered, uint64_t* lost, uint64_t* incomplete) override {
        *delivered = 11, *lost = 2, *incomplete = 1;
        return kKOk;
    }
};

}  // namespace

struct FakeGrabber::Parts {
    FakeGrabber* o;
    GrabberPart grabber{o};
    ImageFormatPart imageFormat{o};
    BinningPart binning{o};
    BufferStatisticsPart bufferStatistics{o};
    NotificationRegistrationPart registration{o};
    QueryPart query{o};
    SettingsPart settings{o};
    AdjustmentsPart adjustments{o};
    IntegerAdjustmentsPart integerAdjustments{o};
    DoubleAdjustmentsPart doubleAdjustments{o};
    AdvancedFeaturesPart features{o};
    SerialPortPart serialPort{o};
    TimeSourcePart timeSource{o};
    FrameInfoPart frameInfo{o};
};

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
    : width_(config.width), height_(config.height), config_(config), parts_(new Parts{this}) {}

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
    for (const std::string& call : Calls())
        if (call.compare(0, prefix.size(), prefix) == 0) matching.push_back(call);
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
    const std::tuple<const KGuid&, bool, void*> offers[] = {
        {IID_IKUnknown, true, static_cast<IKGrabberManager*>(this)},
        {IID_IKGrabberManager, true, static_cast<IKGrabberManager*>(this)},
        {IID_IKGrabber, true, static_cast<IKGrabber*>(&p.grabber)},
        {IID_IKImageFormat, true, static_cast<IKImageFormat*>(&p.imageFormat)},
        {IID_IKBinning, c.binning, static_cast<IKBinning*>(&p.binning)},
        {IID_IKBufferStatistics, c.bufferStatistics,
         static_cast<IKBufferStatistics*>(&p.bufferStatistics)},
        {IID_IKNotificationRegistration, true,
         static_cast<IKNotificationRegistration*>(&p.registration)},
        {IID_IKQuery, c.query, static_cast<IKQuery*>(&p.query)},
        {IID_IKSettings, c.settings, static_cast<IKSettings*>(&p.settings)},
        {IID_IKAdjustments, c.adjustments, static_cast<IKAdjustments*>(&p.adjustments)},
        {IID_IKIntegerAdjustments, c.integerAdjustments,
         static_cast<IKIntegerAdjustments*>(&p.integerAdjustments)},
        {IID_IKDoubleAdjustments, c.doubleAdjustments,
         static_cast<IKDoubleAdjustments*>(&p.doubleAdjustments)},
        {IID_IKAdvancedFeatures, c.advancedFeatures, static_cast<IKAdvancedFeatures*>(&p.features)},
        {IID_IKSerialPort, c.serialPort, static_cast<IKSerialPort*>(&p.serialPort)},
        {IID_IKTimeSource, c.timeSource, static_cast<IKTimeSource*>(&p.timeSource)},
        {IID_IKFrameInfo, c.frameInfo, static_cast<IKFrameInfo*>(&p.frameInfo)},
    };
    for (const auto& [offered, enabled, object] : offers)
        if (iid == offered && enabled) *out = object;
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
    return Put(version, 1u << 16);
}

KStatus FakeGrabber::GetDriverCount(int32_t* count) {
    return Put(count, 1);
}

KStatus FakeGrabber::GetDriverName(int32_t, KAbiChar* name, uint32_t capacity) {
    KCopyName(name, capacity, u"Fake");
    return kKOk;
}

KStatus FakeGrabber::IsDriverAvailable(const KAbiChar*, int32_t* available) {
    return Put(available, 1);
}

KStatus FakeGrabber::Initialize(const KAbiChar* driverName, const KAbiChar* settingsKey,
                                KAbiChar* errorText, uint32_t capacity) {
    Log("Initialize(" + WideToUtf8(driverName) + "|" + WideToUtf8(settingsKey) + ")");
    if (config_.initializeFails) {
        KCopyName(errorText, capacity, u"The fake camera is switched off");
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
    const uint32_t bytes = width_ * height_;
    const size_t offset = 1;  // buffers not aligned for disk I/O
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
    uint8_t* pixels = buffer.data() + 1;
    const size_t bytes = buffer.size() - 1;
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
    *pixels = buffer.data() + 1;
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
