// The GenICam driver object: one GigE Vision or USB3 Vision camera reached through Aravis,
// offered through the driver interfaces of the grabber manager. The time-source interface is
// offered only by cameras with a PTP clock.
#pragma once

#include <mutex>
#include <string>

#include "KGrabberAbi.h"
#include "common/ComObject.h"
#include "genicam/CameraConnection.h"
#include "genicam/DriverSettings.h"
#include "genicam/FeatureCatalog.h"
#include "genicam/NotificationHub.h"
#include "genicam/PixelFormatMap.h"
#include "genicam/StreamEngine.h"

namespace kestor::genicam {

// Queries answered by IKQuery::Query.
enum GenICamQuery : int32_t {
    kQueryConnected = 1,    // 1 while the camera answers, 0 once it was lost
    kQueryPayloadSize = 2,  // bytes the camera sends per frame
    kQueryPtpActive = 3,    // 1 when frame timestamps come from the camera's PTP clock
    kQueryBufferBytes = 4,  // size of one acquisition buffer
};

class GenICamCamera final : public IKGrabberDriver,
                            public IKGrabber,
                            public IKImageFormat,
                            public IKBinning,
                            public IKBufferStatistics,
                            public IKNotificationRegistration,
                            public IKQuery,
                            public IKSettings,
                            public IKAdjustments,
                            public IKAdvancedFeatures,
                            public IKTimeSource,
                            public IKFrameInfo {
public:
    GenICamCamera();
    KESTOR_COM_STANDARD_METHODS(GenICamCamera)

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

    // IKSettings
    KStatus GetSettingsCount(int32_t* count) override;
    KStatus GetValuesCount(int32_t setting, int32_t* count) override;
    KStatus GetSettingsCaps(int32_t setting, KAbiChar* name, uint32_t capacity,
                            int32_t* value) override;
    KStatus GetValuesCaps(int32_t setting, int32_t value, KAbiChar* name, uint32_t capacity,
                          int32_t* result) override;
    KStatus GetCurrentValues(int32_t setting, int32_t* value) override;
    KStatus SetCurrentValues(int32_t setting, int32_t value) override;

    // IKAdjustments
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

    // IKAdvancedFeatures
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

    // IKTimeSource (offered only when the camera has PTP)
    KStatus GetSyncStatus(uint32_t* status) override;
    KStatus IsGPSSupported(int32_t* supported) override;
    KStatus GetGPSData(CGPSDataStruct* data, int32_t flag) override;
    KStatus StopReadingGPSData() override;

    // IKFrameInfo
    KStatus GetLastImageInfo(KGrabFrameInfo* info) override;
    KStatus GetBayerOrigin(uint32_t* origin) override;
    KStatus GetFrameCounters(uint64_t* delivered, uint64_t* lost, uint64_t* incomplete) override;

private:
    ~GenICamCamera();
    bool QueryOwnInterface(const KGuid& iid, void** out);
    void OnControlLost();
    bool IsReady() const;  // initialised and the camera still answers
    PixelFormatInfo CurrentPixelFormat();
    // The camera's PTP feature (PtpEnable or GevIEEE1588), or null.
    const Feature* PtpEnableFeature();
    const Feature* PtpStatusFeature();
    bool IsPtpActive();
    // Locked while the GenICam description or the registers are used from the caller's thread.
    std::recursive_mutex& Lock() { return featureMutex_; }

    ComRefCount refs_;
    std::recursive_mutex featureMutex_;
    DriverSettings settings_;
    CameraConnection connection_;
    NotificationHub notifications_;
    StreamEngine stream_;
    FeatureCatalog catalog_;
    bool initialized_ = false;
    bool hasPtp_ = false;
};

}  // namespace kestor::genicam
