// The implementation behind KGrabModule: loads one driver through the grabber manager, keeps
// the driver's interfaces, streams its images on two threads of its own and forwards the
// feature calls.
//
// The module takes no lock: its operations are meant for the application's thread, while the
// streaming threads and the driver's notification thread only read the flags and the
// callbacks (atomics below). Callbacks may call back into the module.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "KGrab.h"
#include "acquisition/AdvSettingsWrapper.h"
#include "acquisition/DriverCatalogue.h"
#include "acquisition/GrabbedImage.h"
#include "acquisition/TavlinGrabberCallback.h"
#include "platform/Thread.h"
#include "platform/WideString.h"

namespace kestor {

class CKestorGrabModule : public KErrorDetect {
public:
    static constexpr uint32_t kDefaultBufferCount = 5;
    static constexpr size_t kSettingsKeyLength = 256;

    CKestorGrabModule();
    ~CKestorGrabModule() override;
    CKestorGrabModule(const CKestorGrabModule&) = delete;
    CKestorGrabModule& operator=(const CKestorGrabModule&) = delete;

    // --- drivers (GrabModuleLoad.cpp) ---
    bool Load(eKSupportedModule module, const KChar* company, bool resetSettings,
              const KChar* settingsFile, bool showErrorBox);
    bool Unload();
    eKSupportedModule GetCurrentGrabber() const { return currentGrabber_; }
    unsigned int GetDriverCount(bool installedOnly) const;
    const KChar* GetDriverInfo(unsigned int index, eKSupportedModule* module,
                               bool installedOnly) const;
    const KChar* GetDriverInfo(eKSupportedModule module, bool installedOnly) const;
    const WideString& SettingsKey() const { return settingsKey_; }

    // --- image description and geometry (CKestorGrabModule.cpp) ---
    KImageDescription Description() const;
    bool GetBayerPattern(eKBayerPatternOrigin& origin);
    bool ShowProperties(KWindowHandle parent);
    bool SetROI(unsigned int x, unsigned int y, unsigned int width, unsigned int height);
    bool GetROI(unsigned int& x, unsigned int& y, unsigned int& width, unsigned int& height);
    bool SetBinning(unsigned int binning);
    bool GetBinning(unsigned int& binning);
    bool SetBufferCount(unsigned int count);
    unsigned int GetBufferCount() const { return bufferCount_; }
    long GetBufferUsage();
    long GetMaxBufferUsage();
    long GetTotalBufferCount();
    bool GetFrameCounters(uint64_t& delivered, uint64_t& lost, uint64_t& incomplete);
    bool QueryGrabber(long query, long* result);
    bool ExportGrabberSettings(const std::string& utf8File);
    KIODriver* GetIODriver();
    KVideoOutputDriver* GetVideoOutputDriver();

    // --- advanced-settings window (GrabModuleAdvancedWindow.cpp) ---
    bool IsSupportAdvanceSettings();
    bool DoModalAdvanceSettingsWindow();
    bool CreateAdvanceSettingsWindow(KWindowHandle parent);
    bool ReSizeAdvanceSettingsWindow(int x, int y, int width, int height);
    bool ShowAdvanceSettingsWindow(bool show);
    bool CloseAdvanceSettingsWindow();

    // --- streaming (GrabModuleStreaming.cpp) ---
    bool StartStreaming();
    bool StopStreaming();
    bool IsStreaming() const { return streaming_.load(std::memory_order_acquire); }
    bool SetCallbacks(KGrabCallbacks* callbacks, unsigned int id, void* context);

    // --- settings and adjustments (GrabModuleAdjustments.cpp) ---
    bool GetSettingsCount(long* count);
    bool GetValuesCount(long setting, long* count);
    bool GetSettingsCaps(long setting, KChar* name, long* value);
    bool GetValuesCaps(long setting, long value, KChar* name, long* result);
    bool GetCurrentValues(long setting, long* value);
    bool SetCurrentValues(long setting, long value);
    bool GetAdjustmentCount(long* count);
    bool GetAdjustmentCaps(long index, long* id, KChar* name, long* intMin, long* intMax,
                           double* doubleMin, double* doubleMax, int* flag1, int* flag2, int* flag3,
                           int* flag4, int* flag5);
    bool GetIntegerAdjustment(long index, long* value);
    bool SetIntegerAdjustment(long index, long value);
    bool GetDoubleAdjustment(long index, double* value);
    bool SetDoubleAdjustment(long index, double value);
    bool GetAutomaticAdjustment(long index, int* automatic);
    bool SetAutomaticAdjustment(long index, int automatic);
    bool OneShotAdjustment(long index);

    // --- advanced-settings features (GrabModuleFeatures.cpp) ---
    bool GetCategoriesCount(long* count);
    bool GetCategoriesCap(long index, long* id, KChar* name);
    bool GetFeatureCount(long category, long* count);
    bool GetFeatureCap(long category, long index, long* id, KChar* name,
                       eAdvanceSettingsFeatureType* type, eAdvanceSettingsLevel* level);
    bool Accessible(long category, long feature, int* accessible);
    bool GetEnumFeatureValueCount(long category, long feature, long* count);
    bool GetEnumFeatureValueCap(long category, long feature, long index, KChar* name, long* value);
    bool GetEnumFeatureValue(long category, long feature, long* value);
    bool SetEnumFeatureValue(long category, long feature, long value);
    bool GetIntegerFeatureCap(long category, long feature, long* min, long* max);
    bool GetIntegerFeatureValue(long category, long feature, long* value);
    bool SetIntegerFeatureValue(long category, long feature, long value);
    bool GetDoubleFeatureCap(long category, long feature, double* min, double* max);
    bool GetDoubleFeatureValue(long category, long feature, double* value);
    bool SetDoubleFeatureValue(long category, long feature, double value);
    bool GetBoolFeatureValue(long category, long feature, int* value);
    bool SetBoolFeatureValue(long category, long feature, int value);
    bool ExecuteCommandFeature(long category, long feature);

    // --- serial port, time source and GPS (GrabModuleSerialAndTime.cpp) ---
    bool IsCOMPortAvailable();
    bool Transmit(void* data, unsigned long* count, unsigned long timeoutMs);
    bool Receive(void* data, unsigned long* count, unsigned long timeoutMs);
    bool GetEndChar(long* endChar);
    bool GetTextMode(long* textMode);
    bool GetProgFolder(KChar* folder);
    bool GetSavedProgFolder(KChar* folder);
    bool GetCommunicationType(long* type);
    KTimeSourceSyncStatus GetTimeSourceSyncStatus();
    bool IsGPSSupported();
    bool GetGPSData(CGPSDataStruct* data, bool flag);
    bool StopReadingGPSData();

private:
    bool HasGrabber() const { return static_cast<bool>(manager_); }
    // An interface of the loaded grabber, for the duration of one call (empty when absent).
    template <class T>
    KComPtr<T> DriverInterface(const KGuid& iid) const {
        return KComPtr<T>::Query(grabber_.Get(), iid);
    }
    void RefreshDescription();
    // Releases every driver interface, in the order the driver expects.
    void ReleaseDriver();
    bool PrimeAndAllocateBuffers();
    void PrepareDriverRegistry(eKSupportedModule module) const;

    // Streaming threads and their helpers.
    void QueueThreadBody();
    void ReadThreadBody();
    void DeliverImage(void* pixels);
    void JoinFinishedThreads();
    bool OnStreamingThread() const;
    KGrabCallbacks& Callbacks() const { return *callbacks_.load(std::memory_order_acquire); }
    unsigned int CallbackId() const { return callbackId_.load(std::memory_order_acquire); }
    void* CallbackContext() const { return callbackContext_.load(std::memory_order_acquire); }

    // Licensing: the library has no licence module, so every module counts as licensed and
    // neither the licence object nor its re-check thread exist.
    CTavlinGrabberCallback notificationSink_{callbacks_};
    std::vector<DriverListEntry> installedDrivers_;
    std::vector<DriverListEntry> supportedDrivers_;

    KComPtr<IKGrabberManager> manager_;
    KComPtr<IKGrabber> grabber_;
    KComPtr<IKBufferStatistics> bufferStatistics_;
    KComPtr<IKTimeSource> timeSource_;
    KComPtr<IKNotificationRegistration> notificationRegistration_;
    KComPtr<IKFrameInfo> frameInfo_;  // per-frame timestamps and numbers, when offered

    uint32_t bufferCount_ = kDefaultBufferCount;
    eKSupportedModule currentGrabber_ = eKModuleNone;
    WideString settingsKey_;

    std::atomic<bool> streaming_{false};
    std::atomic<bool> readThreadRunning_{false};
    std::atomic<bool> queueThreadRunning_{false};

    // Written by the application thread (also by ShowProperties while streaming), copied by
    // the read thread for every image.
    mutable std::mutex descriptionMutex_;
    KImageDescription description_;

    std::unique_ptr<KIODriver> ioDriver_;
    std::unique_ptr<KVideoOutputDriver> videoOutputDriver_;
    std::unique_ptr<CAdvSettingsWrapper> advancedSettings_;

    KGrabCallbacks defaultCallbacks_;
    std::atomic<KGrabCallbacks*> callbacks_{&defaultCallbacks_};
    std::atomic<unsigned int> callbackId_{0};
    std::atomic<void*> callbackContext_{nullptr};

    GrabbedImage image_;
    Thread readThread_;
    Thread queueThread_;
    std::atomic<std::thread::id> readThreadId_{};
    std::atomic<std::thread::id> queueThreadId_{};
};

}  // namespace kestor
