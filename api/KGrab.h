// Acquisition: loading a camera or frame-grabber driver, streaming its images to the
// application, and the driver's features.
#pragma once

#include <cstdint>

#include "KError.h"
#include "KGrabberAbi.h"
#include "KImage.h"
#include "KTypes.h"

// A native window (HWND on Windows); drivers without a user interface ignore it.
using KWindowHandle = void*;

// The drivers the library knows. Values are stable (they are stored by applications).
enum eKSupportedModule : uint32_t {
    eKModuleNone = 0,
    eKModuleLumeneraGigE = 38,
    eKModulePleoraIPort = 60,
    eKModulePleoraIPortMulticastMaster = 61,
    eKModulePleoraIPortMulticastSlave = 62,
    eKModuleRoperCascade = 69,
    eKModuleRoperCoolSnap = 70,
    eKModulePleoraIPortEngine = 73,
    eKModulePleoraIPortVision = 74,
    eKModulePleoraIPortGigE = 84,
    eKModuleLumeneraUSB = 121,
    eKModuleSimulatedCamera = 1000,  // built in: a camera simulated in software
    eKModuleGenICam = 1001,          // GigE Vision and USB3 Vision cameras through Aravis
};

// What a driver tells the application through OnNotification.
enum eKGRABBER_NOTIFICATION : int32_t {
    eKNotificationNone = 0,
    eKNotificationFrameLost = 1,          // a frame was produced but could not be delivered
    eKNotificationIncompleteFrame = 2,    // a frame arrived with missing data and was dropped
    eKNotificationCameraLost = 3,         // the device disappeared; streaming cannot go on
    eKNotificationCameraReconnected = 4,  // the device came back
    eKNotificationBufferOverflow = 5,     // every buffer is full: the application is too slow
    eKNotificationTimeSourceChanged = 6,  // the time source's synchronisation status changed
    eKNotificationSettingsChanged = 7,    // the device changed its geometry or format
    eKNotificationAcquisitionEnded = 8,   // the device stopped on its own (frame count reached)
};

// What the driver suggests doing about a notification.
enum eKSUGGESTED_ACTION : int32_t {
    eKActionNone = 0,
    eKActionStopStreaming = 1,
    eKActionRestartStreaming = 2,
    eKActionReloadDriver = 3,
};

enum eAdvanceSettingsFeatureType : int32_t {
    eAdvanceSettingsInteger = 0,
    eAdvanceSettingsDouble = 1,
    eAdvanceSettingsBool = 2,
    eAdvanceSettingsEnumeration = 3,
    eAdvanceSettingsCommand = 4,
};

// Who should see a feature in a user interface.
enum eAdvanceSettingsLevel : int32_t {
    eAdvanceSettingsBeginner = 0,
    eAdvanceSettingsExpert = 1,
    eAdvanceSettingsGuru = 2,
    eAdvanceSettingsInvisible = 3,
};

// Synchronisation of the grabber's time source, as GetTimeSourceSyncStatus reports it.
enum KTimeSourceSyncStatus : int32_t {
    eKTimeSourceNone = 0,             // no time source
    eKTimeSourceNotSynchronized = 1,  // free running (also for statuses the library does not know)
    eKTimeSourceSynchronizing = 2,
    eKTimeSourceSynchronized = 3,
    eKTimeSourceHoldover = 4,  // lost its reference, keeping time on its own
};

// Metadata type of the device's frame number, attached to grabbed images when the driver
// reports it (unsigned 64-bit, little-endian).
inline constexpr uint32_t kKMetadataIdDeviceFrameId = 0x80000100u;

// The application's streaming callbacks. Derive and override what you need; the defaults do
// nothing. Per-image and per-grab callbacks run on the module's streaming threads and get
// the id and context given to SetCallbacks; the start and stop callbacks run on the thread
// that starts or stops streaming and always get id 0 and a null context.
class KESTOR_API KGrabCallbacks {
public:
    virtual ~KGrabCallbacks();
    virtual void OnBeforeImageReceived(unsigned int id, void* context);
    // The image (pixels in the driver's buffer, not copied) is valid only during the call;
    // the buffer goes back to the driver when the call returns.
    virtual void OnImageReceived(KImage* image, unsigned int id, void* context);
    virtual void OnImageReleased(unsigned int id, void* context);
    virtual void OnBeforeQueuingGrab(unsigned int id, void* context);
    virtual void OnAfterQueuingGrab(unsigned int id, void* context);
    virtual void OnBeforeStartStreaming(unsigned int id, void* context);
    virtual void OnAfterStartStreaming(unsigned int id, void* context);
    virtual void OnBeforeStopStreaming(unsigned int id, void* context);
    virtual void OnAfterStopStreaming(unsigned int id, void* context);
    // On whatever thread the driver raises it.
    virtual void OnNotification(eKGRABBER_NOTIFICATION notification,
                                eKSUGGESTED_ACTION suggestedAction);
};

namespace kestor {
class CKestorGrabModule;
}

// Digital lines of the loaded grabber. Obtained from KGrabModule::GetIODriver; valid until
// the module unloads.
class KESTOR_API KIODriver : public KHandleBase {
public:
    explicit KIODriver(IKUnknown* grabber);  // made by the grab module
    ~KIODriver() override;
    bool IsAvailable();  // the grabber has digital lines
    bool GetLineCount(long* count);
    bool GetLineName(long line, KChar* name, unsigned int capacity);
    bool IsOutput(long line, bool* output);
    bool GetLine(long line, bool* level);
    bool SetLine(long line, bool level);
};

// The loaded grabber's live video output. Obtained from KGrabModule::GetVideoOutputDriver.
class KESTOR_API KVideoOutputDriver : public KHandleBase {
public:
    explicit KVideoOutputDriver(IKUnknown* grabber);  // made by the grab module
    ~KVideoOutputDriver() override;
    bool IsAvailable();
    bool IsEnabled(bool* enabled);
    bool Enable(bool enable);
};

// The single entry point to a camera or frame grabber. Operations return false on failure;
// GetLastError() tells why.
class KESTOR_API KGrabModule : public KHandleBase {
public:
    KGrabModule();
    ~KGrabModule() override;
    KGrabModule(const KGrabModule&) = delete;
    KGrabModule& operator=(const KGrabModule&) = delete;

    // --- drivers -----------------------------------------------------------------------------
    // `company` names the settings key "Software\<company>\Grabdesk\" of the current user's
    // registry, under which the driver keeps its settings. `resetSettings` starts the driver
    // from its defaults; `settingsFile` (from ExportGrabberSettings) is imported first.
    bool Load(eKSupportedModule module, const KChar* company, bool showErrorBox);
    bool Load(eKSupportedModule module, const KChar* company, bool resetSettings,
              const KChar* settingsFile, bool showErrorBox);
    // The same with UTF-8 text; the three-argument forms mean the same whatever the text type.
    bool Load(eKSupportedModule module, const char* utf8Company, bool showErrorBox = false);
    bool Load(eKSupportedModule module, const char* utf8Company, bool resetSettings,
              const char* utf8SettingsFile, bool showErrorBox);
    bool Unload();
    eKSupportedModule GetCurrentGrabber();
    unsigned int GetDriverCount(bool installedOnly);
    // Name of the entry at `index` and its module; null past the end (module untouched).
    const KChar* GetDriverInfo(unsigned int index, eKSupportedModule* module, bool installedOnly);
    const KChar* GetDriverInfo(eKSupportedModule module, bool installedOnly);
    // The short name used on command lines ("simulated", "genicam"), null when unknown.
    static const char* GetDriverKey(eKSupportedModule module);
    static eKSupportedModule FindDriverByKey(const char* key);  // eKModuleNone when unknown

    // --- image description (cached; never asks the driver) ------------------------------------
    unsigned int GetImageWidth();
    unsigned int GetImageHeight();
    unsigned int GetImageBitDepth();
    unsigned int GetImageBitDepthReal();
    unsigned int GetImageSizeBytes();
    eKImageFormat GetImageFormat();
    // Bayer origin of the delivered images; false when the driver does not say.
    bool GetBayerPattern(eKBayerPatternOrigin& origin);

    // --- geometry and buffers ------------------------------------------------------------------
    bool ShowProperties(KWindowHandle parent);
    bool SetROI(unsigned int x, unsigned int y, unsigned int width, unsigned int height);
    bool GetROI(unsigned int& x, unsigned int& y, unsigned int& width, unsigned int& height);
    bool SetBinning(unsigned int binning);
    bool GetBinning(unsigned int& binning);
    bool SetBufferCount(unsigned int count);  // used by the next Load
    unsigned int GetBufferCount();
    long GetBufferUsage();  // 0xFFFFFFFF when the driver keeps no statistics
    long GetMaxBufferUsage();
    long GetTotalBufferCount();
    // Frames handed over, lost and incomplete since streaming started; false when the driver
    // does not count them.
    bool GetFrameCounters(uint64_t& delivered, uint64_t& lost, uint64_t& incomplete);
    bool QueryGrabber(long query, long* result);

    // --- settings file ---------------------------------------------------------------------
    bool ExportGrabberSettings(const KChar* file);
    bool ExportGrabberSettings(const char* utf8File);

    // --- advanced-settings window ----------------------------------------------------------
    bool IsSupportAdvanceSettings();
    bool DoModalAdvanceSettingsWindow();  // always false with 83, also after the window ran
    bool CreateAdvanceSettingsWindow(KWindowHandle parent);
    bool ReSizeAdvanceSettingsWindow(int x, int y, int width, int height);
    bool ShowAdvanceSettingsWindow(bool show);
    bool CloseAdvanceSettingsWindow();

    KIODriver* GetIODriver();  // owned by the module; null when no grabber is loaded
    KVideoOutputDriver* GetVideoOutputDriver();

    // --- streaming ---------------------------------------------------------------------------
    bool StartStreaming();
    bool StopStreaming();
    bool IsStreaming();
    bool SetCallbacks(KGrabCallbacks* callbacks, unsigned int id, void* context);

    // --- settings (named settings with named values) -------------------------------------------
    // Names are copied with their terminator into `name`, which must hold kKMaxNameLength.
    bool GetSettingsCount(long* count);
    bool GetValuesCount(long setting, long* count);
    bool GetSettingsCaps(long setting, KChar* name, long* value);
    bool GetValuesCaps(long setting, long value, KChar* name, long* result);
    bool GetCurrentValues(long setting, long* value);
    bool SetCurrentValues(long setting, long value);

    // --- adjustments -------------------------------------------------------------------------
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

    // --- advanced-settings features ------------------------------------------------------------
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

    // --- serial port ---------------------------------------------------------------------------
    bool IsCOMPortAvailable();
    bool Transmit(void* data, unsigned long* count, unsigned long timeoutMs);
    bool Receive(void* data, unsigned long* count, unsigned long timeoutMs);
    bool GetEndChar(long* endChar);
    bool GetTextMode(long* textMode);
    bool GetProgFolder(KChar* folder);
    bool GetSavedProgFolder(KChar* folder);
    bool GetCommunicationType(long* type);

    // --- time source and GPS -------------------------------------------------------------------
    KTimeSourceSyncStatus GetTimeSourceSyncStatus();
    bool IsGPSSupported();
    bool GetGPSData(CGPSDataStruct* data, bool flag);
    bool StopReadingGPSData();

private:
    kestor::CKestorGrabModule& Impl();
};
