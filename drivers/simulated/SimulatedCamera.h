// The simulated camera: a grabber driver that produces the library's test pattern in software,
// with every interface a real driver offers, so that the grab module, recording, tools and
// benchmarks can be exercised and measured without hardware. Settings live in the registry
// store under the driver's settings key; faults can be injected through them.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

#include "KGrabberAbi.h"
#include "common/ComObject.h"
#include "simulated/SimulatedConfig.h"
#include "simulated/SimulatedSettingsStore.h"
#include "simulated/SimulatedStream.h"

namespace kestor::simulated {

// Answers of IKQuery::Query.
enum SimulatedQuery : int32_t {
    kQueryStreaming = 1,
    kQuerySensorWidth = 2,
    kQuerySensorHeight = 3,
    kQueryIsBayer = 4,
    kQueryFramesLost = 5,
};

// Digital lines: two inputs, then two outputs; output n is wired back to input n.
inline constexpr int32_t kInputLines = 2;
inline constexpr int32_t kOutputLines = 2;

class SimulatedCamera final : public IKGrabberDriver,
                              public IKGrabber,
                              public IKImageFormat,
                              public IKBinning,
                              public IKBufferStatistics,
                              public IKNotificationRegistration,
                              public IKQuery,
                              public IKSettings,
                              public IKAdjustments,
                              public IKAdvancedFeatures,
                              public IKSerialPort,
                              public IKTimeSource,
                              public IKFrameInfo,
                              public IKDigitalIO,
                              public IKVideoOutput {
public:
    SimulatedCamera();

    KESTOR_COM_STANDARD_METHODS(SimulatedCamera)

    // IKGrabberDriver
    KStatus Initialize(const KAbiChar* settingsKey, KAbiChar* errorText,
                       uint32_t capacity) override;

    // IKGrabber
    KStatus GetName(KAbiChar* name, uint32_t capacity) override;
    KStatus ShowProperties(void* parentWindow, int32_t streaming) override;
    KStatus SetBufferCount(uint32_t count) override;
    KStatus GetBufferCount(uint32_t* count) override;
    KStatus GetDeliveredFrames(uint64_t* frames) override;
    KStatus GetDroppedFrames(uint64_t* frames) override;
    KStatus ReleaseImage() override;
    KStatus GetLastImageTime(uint32_t* seconds, uint16_t* milliseconds,
                             uint16_t* microseconds) override;
    KStatus GetLastImageNumber(uint64_t* number) override;
    KStatus QueueGrab() override;
    KStatus WaitImage(void** pixels) override;
    KStatus Start() override;
    KStatus CancelQueuedGrabs() override;
    KStatus Stop() override;
    KStatus FreeQueue() override;

    // IKImageFormat
    KStatus GetImageSize(uint32_t* width, uint32_t* height, uint32_t* left, uint32_t* top) override;
    KStatus SetImageSize(uint32_t width, uint32_t height, uint32_t left, uint32_t top) override;
    KStatus GetImageSizeBytes(uint32_t* bytes) override;
    KStatus GetBitDepth(uint32_t* bits) override;
    KStatus GetRealBitDepth(uint32_t* bits) override;
    KStatus GetImageFormat(uint32_t* format) override;

    // IKBinning
    KStatus GetBinning(uint32_t* factor) override;
    KStatus SetBinning(uint32_t factor) override;

    // IKBufferStatistics
    KStatus GetBufferUsage(int32_t* buffers) override;
    KStatus GetMaxBufferUsage(int32_t* buffers) override;
    KStatus GetTotalBufferCount(int32_t* buffers) override;

    // IKNotificationRegistration
    KStatus Register(IKNotificationSink* sink) override;

    // IKQuery
    KStatus Query(int32_t query, int32_t* result) override;

    // IKSettings (SimulatedControls.cpp)
    KStatus GetSettingsCount(int32_t* count) override;
    KStatus GetValuesCount(int32_t setting, int32_t* count) override;
    KStatus GetSettingsCaps(int32_t setting, KAbiChar* name, uint32_t capacity,
                            int32_t* value) override;
    KStatus GetValuesCaps(int32_t setting, int32_t value, KAbiChar* name, uint32_t capacity,
                          int32_t* result) override;
    KStatus GetCurrentValues(int32_t setting, int32_t* value) override;
    KStatus SetCurrentValues(int32_t setting, int32_t value) override;

    // IKAdjustments (SimulatedControls.cpp)
    KStatus GetCount(int32_t* count) override;
    KStatus GetCaps(int32_t index, int32_t* id, KAbiChar* name, uint32_t capacity, int64_t* intMin,
                    int64_t* intMax, double* doubleMin, double* doubleMax, int32_t* flag1,
                    int32_t* flag2, int32_t* flag3, int32_t* flag4, int32_t* flag5) override;
    KStatus GetIntegerValue(int32_t index, int64_t* value) override;
    KStatus SetIntegerValue(int32_t index, int64_t value) override;
    KStatus GetDoubleValue(int32_t index, double* value) override;
    KStatus SetDoubleValue(int32_t index, double value) override;
    KStatus GetAutomatic(int32_t index, int32_t* automatic) override;
    KStatus SetAutomatic(int32_t index, int32_t automatic) override;
    KStatus OneShot(int32_t index) override;

    // IKAdvancedFeatures (SimulatedFeatures.cpp)
    KStatus GetCategoriesCount(int32_t* count) override;
    KStatus GetCategoriesCap(int32_t index, int32_t* id, KAbiChar* name,
                             uint32_t capacity) override;
    KStatus GetFeatureCount(int32_t category, int32_t* count) override;
    KStatus GetFeatureCap(int32_t category, int32_t index, int32_t* id, KAbiChar* name,
                          uint32_t capacity, int32_t* type, int32_t* level) override;
    KStatus Accessible(int32_t category, int32_t feature, int32_t* accessible) override;
    KStatus GetEnumFeatureValueCount(int32_t category, int32_t feature, int32_t* count) override;
    KStatus GetEnumFeatureValueCap(int32_t category, int32_t feature, int32_t index, KAbiChar* name,
                                   uint32_t capacity, int64_t* value) override;
    KStatus GetEnumFeatureValue(int32_t category, int32_t feature, int64_t* value) override;
    KStatus SetEnumFeatureValue(int32_t category, int32_t feature, int64_t value) override;
    KStatus GetIntegerFeatureCap(int32_t category, int32_t feature, int64_t* min,
                                 int64_t* max) override;
    KStatus GetIntegerFeatureValue(int32_t category, int32_t feature, int64_t* value) override;
    KStatus SetIntegerFeatureValue(int32_t category, int32_t feature, int64_t value) override;
    KStatus GetDoubleFeatureCap(int32_t category, int32_t feature, double* min,
                                double* max) override;
    KStatus GetDoubleFeatureValue(int32_t category, int32_t feature, double* value) override;
    KStatus SetDoubleFeatureValue(int32_t category, int32_t feature, double value) override;
    KStatus GetFeatureDescription(int32_t category, int32_t feature, KAbiChar* text,
                                  uint32_t capacity) override;
    KStatus GetBoolFeatureValue(int32_t category, int32_t feature, int32_t* value) override;
    KStatus SetBoolFeatureValue(int32_t category, int32_t feature, int32_t value) override;
    KStatus ExecuteCommandFeature(int32_t category, int32_t feature) override;

    // IKSerialPort (SimulatedSerialPort.cpp)
    KStatus Transmit(const void* data, uint32_t* count, uint32_t timeoutMs) override;
    KStatus Receive(void* data, uint32_t* count, uint32_t timeoutMs) override;
    KStatus GetEndChar(int32_t* endChar) override;
    KStatus GetTextMode(int32_t* textMode) override;
    KStatus GetProgFolder(KAbiChar* folder, uint32_t capacity) override;
    KStatus GetSavedProgFolder(KAbiChar* folder, uint32_t capacity) override;
    KStatus GetCommunicationType(int32_t* type) override;

    // IKTimeSource (SimulatedDevices.cpp)
    KStatus GetSyncStatus(uint32_t* status) override;
    KStatus IsGPSSupported(int32_t* supported) override;
    KStatus GetGPSData(CGPSDataStruct* data, int32_t flag) override;
    KStatus StopReadingGPSData() override;

    // IKFrameInfo
    KStatus GetLastImageInfo(KGrabFrameInfo* info) override;
    KStatus GetBayerOrigin(uint32_t* origin) override;
    KStatus GetFrameCounters(uint64_t* delivered, uint64_t* lost, uint64_t* incomplete) override;

    // IKDigitalIO (SimulatedDevices.cpp)
    KStatus GetLineCount(int32_t* count) override;
    KStatus GetLineName(int32_t line, KAbiChar* name, uint32_t capacity) override;
    KStatus IsOutput(int32_t line, int32_t* output) override;
    KStatus GetLine(int32_t line, int32_t* level) override;
    KStatus SetLine(int32_t line, int32_t level) override;

    // IKVideoOutput (SimulatedDevices.cpp)
    KStatus IsEnabled(int32_t* enabled) override;
    KStatus Enable(int32_t enable) override;

    // --- for the interfaces above and for tests ---------------------------------------------
    SimulatedConfig Config() const;
    bool IsStreaming() const { return stream_.IsStreaming(); }
    // Applies `edit` to a copy of the configuration; when it returns true the copy becomes
    // current and is saved. Geometry edits are refused while streaming.
    KStatus Change(const std::function<bool(SimulatedConfig&)>& edit, bool geometry = false);
    void Notify(int32_t notification, int32_t suggestedAction);
    // One command line of the serial protocol (without its end character) and its answer.
    std::string AnswerSerialCommand(const std::string& command);
    // The answer of the time source to the store's current status; raises the change
    // notification when it differs from what was seen last.
    uint32_t RefreshTimeSourceStatus();

private:
    ~SimulatedCamera() = default;
    bool QueryOwnInterface(const KGuid& iid, void** out);
    void ApplyToStream(const SimulatedConfig& config);
    SimulatedStream::FillFunction MakeFill(const KImageDescription& description);

    ComRefCount refs_;
    mutable std::mutex configMutex_;  // config_ and store_
    SimulatedConfig config_;
    SimulatedSettingsStore store_;
    std::atomic<uint32_t> testPattern_{0};
    std::atomic<uint32_t> knownTimeSourceStatus_{2};
    SimulatedStream stream_;

    std::recursive_mutex sinkMutex_;  // held while a notification is delivered
    IKNotificationSink* sink_ = nullptr;

    std::mutex serialMutex_;
    std::string serialInput_;   // received, not yet a whole command
    std::string serialOutput_;  // answers not yet read
};

}  // namespace kestor::simulated
