// The binary interface between the grab module, the grabber manager and grabber drivers.
//
// Drivers are shared libraries ("plugins") with a small COM-style interface, so that a driver
// built separately, with another compiler version, keeps working with the library:
//  - every interface starts with QueryInterface, AddRef and Release; interfaces have no data
//    and no virtual destructor, so the method order below is the whole contract. Methods keep
//    their positions even where the grab module never calls them;
//  - results are 32-bit statuses: negative is failure, 0 success, positive a qualified success;
//  - text leaves a component by copy into a caller buffer whose capacity (in characters, with
//    the terminator) is passed along: nothing is freed across a library boundary. A name that
//    does not fit is cut and still terminated;
//  - "integer" values that may be large are 64-bit; counts and indexes are 32-bit.
//
// A plugin exports the three C functions declared at the end. This header is installed for
// driver authors and depends only on the standard library.
#pragma once

#include <cstdint>
#include <cstring>

#if defined(_WIN32)
#define KESTOR_PLUGIN_EXPORT extern "C" __declspec(dllexport)
#else
#define KESTOR_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))
#endif

#if defined(_WIN32)
using KAbiChar = wchar_t;
#else
using KAbiChar = char16_t;
#endif

// Identifies classes (components) and interfaces.
struct KGuid {
    uint32_t data1;
    uint16_t data2;
    uint16_t data3;
    uint8_t data4[8];
};

inline bool operator==(const KGuid& a, const KGuid& b) {
    return std::memcmp(&a, &b, sizeof(KGuid)) == 0;
}
inline bool operator!=(const KGuid& a, const KGuid& b) {
    return !(a == b);
}

using KStatus = int32_t;
inline constexpr KStatus kKOk = 0;
inline constexpr KStatus kKFalse = 1;  // success without effect (e.g. a grab aborted by Stop)
inline constexpr KStatus kKNotImplemented = static_cast<KStatus>(0x80004001u);
inline constexpr KStatus kKNoInterface = static_cast<KStatus>(0x80004002u);
inline constexpr KStatus kKPointer = static_cast<KStatus>(0x80004003u);
inline constexpr KStatus kKAbort = static_cast<KStatus>(0x80004004u);
inline constexpr KStatus kKFail = static_cast<KStatus>(0x80004005u);
inline constexpr KStatus kKOutOfMemory = static_cast<KStatus>(0x8007000Eu);
inline constexpr KStatus kKInvalidArgument = static_cast<KStatus>(0x80070057u);
inline constexpr KStatus kKTimeout = static_cast<KStatus>(0x800705B4u);
inline constexpr bool KSucceeded(KStatus status) {
    return status >= 0;
}
inline constexpr bool KFailed(KStatus status) {
    return status < 0;
}

// Longest name a component hands out, terminator included. Callers that own no buffer of
// their own pass one of this size.
inline constexpr uint32_t kKMaxNameLength = 512;

// Copies a terminated string into a caller buffer of `capacity` characters (cut, terminated).
inline void KCopyName(KAbiChar* destination, uint32_t capacity, const KAbiChar* source) {
    if (destination == nullptr || capacity == 0) return;
    uint32_t i = 0;
    for (; source != nullptr && source[i] != 0 && i + 1 < capacity; ++i) destination[i] = source[i];
    destination[i] = 0;
}

// ---------------------------------------------------------------------------------------------
// Interface identifiers (fixed; never reuse or change one).
inline constexpr KGuid IID_IKUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr KGuid IID_IKGrabberManager = {
    0x6b2f0001, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKGrabber = {
    0x6b2f0002, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKGrabberDriver = {
    0x6b2f0003, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKImageFormat = {
    0x6b2f0004, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKBinning = {
    0x6b2f0005, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKBufferStatistics = {
    0x6b2f0006, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKNotificationRegistration = {
    0x6b2f0007, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKNotificationSink = {
    0x6b2f0008, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKQuery = {
    0x6b2f0009, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKSettings = {
    0x6b2f000a, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKAdjustments = {
    0x6b2f000b, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKIntegerAdjustments = {
    0x6b2f000c, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKDoubleAdjustments = {
    0x6b2f000d, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKAdvancedFeatures = {
    0x6b2f000e, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKSerialPort = {
    0x6b2f000f, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKTimeSource = {
    0x6b2f0010, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKFrameInfo = {
    0x6b2f0011, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKAdvanceSettingsWindow = {
    0x6b2f0012, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKDigitalIO = {
    0x6b2f0013, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid IID_IKVideoOutput = {
    0x6b2f0014, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};

// Class identifiers of the components shipped with the library.
inline constexpr KGuid CLSID_KGrabberManager = {
    0x6b2c0001, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid CLSID_KSimulatedCamera = {
    0x6b2c1000, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};
inline constexpr KGuid CLSID_KGenICamCamera = {
    0x6b2c1001, 0x4b45, 0x5354, {0x4f, 0x52, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01}};

// ---------------------------------------------------------------------------------------------
// The standard three methods. The destructor is protected and not virtual: objects are
// destroyed by their own Release, never through an interface pointer.
struct IKUnknown {
    virtual KStatus QueryInterface(const KGuid& iid, void** out) = 0;
    virtual uint32_t AddRef() = 0;
    virtual uint32_t Release() = 0;

protected:
    ~IKUnknown() = default;
};

// The grabber manager: initialises one driver by name and then answers QueryInterface for
// the driver's interfaces (IID_IKGrabber first of all).
struct IKGrabberManager : IKUnknown {
    virtual KStatus GetVersion(uint32_t* version) = 0;   // 1 (major << 16 | minor)
    virtual KStatus GetDriverCount(int32_t* count) = 0;  // 2 drivers found
    virtual KStatus GetDriverName(int32_t index, KAbiChar* name, uint32_t capacity) = 0;  // 3
    virtual KStatus IsDriverAvailable(const KAbiChar* name, int32_t* available) = 0;      // 4
    // 5: loads the named driver, which keeps its settings under `settingsKey` (a key of the
    // current user's registry). On failure `errorText` says why.
    virtual KStatus Initialize(const KAbiChar* driverName, const KAbiChar* settingsKey,
                               KAbiChar* errorText, uint32_t capacity) = 0;

protected:
    ~IKGrabberManager() = default;
};

// What the manager asks of a driver object it created (the module never calls it).
struct IKGrabberDriver : IKUnknown {
    // Reads the driver's settings (under `settingsKey` followed by the driver's own subkey
    // name) and opens the device. Failure leaves a text in `errorText`.
    virtual KStatus Initialize(const KAbiChar* settingsKey, KAbiChar* errorText,
                               uint32_t capacity) = 0;

protected:
    ~IKGrabberDriver() = default;
};

// The main acquisition interface. Streaming protocol, as the grab module drives it:
//  - Start(); then a queue thread calls QueueGrab() in a loop and a read thread calls
//    WaitImage() / ReleaseImage() in a loop;
//  - QueueGrab() queues one grab and returns once it completed (an image became available
//    to WaitImage). Negative: the grab failed and streaming ends. After Stop() a pending
//    or later QueueGrab() returns kKFalse at once;
//  - WaitImage() waits for the next completed image (bounded: it returns with a null buffer
//    after a while, so that the caller can look at its flags), and after CancelQueuedGrabs()
//    returns null at once until Start(). The buffer stays the caller's until ReleaseImage();
//  - the end of streaming calls Stop() (application thread), then on the queue thread
//    CancelQueuedGrabs() and FreeQueue() while the read thread may still hold an image:
//    FreeQueue() forgets queued and completed grabs but must not free a buffer held by the
//    reader; buffers are freed by SetBufferCount() or when the driver is destroyed.
struct IKGrabber : IKUnknown {
    virtual KStatus GetName(KAbiChar* name, uint32_t capacity) = 0;             // 1
    virtual KStatus ShowProperties(void* parentWindow, int32_t streaming) = 0;  // 2
    virtual KStatus SetBufferCount(uint32_t count) = 0;        // 3 negative: not enough memory
    virtual KStatus GetBufferCount(uint32_t* count) = 0;       // 4
    virtual KStatus GetDeliveredFrames(uint64_t* frames) = 0;  // 5
    virtual KStatus GetDroppedFrames(uint64_t* frames) = 0;    // 6
    virtual KStatus ReleaseImage() = 0;                        // 7
    virtual KStatus GetLastImageTime(uint32_t* seconds, uint16_t* milliseconds,
                                     uint16_t* microseconds) = 0;  // 8
    virtual KStatus GetLastImageNumber(uint64_t* number) = 0;      // 9
    virtual KStatus QueueGrab() = 0;                               // 10
    virtual KStatus WaitImage(void** pixels) = 0;                  // 11
    virtual KStatus Start() = 0;                                   // 12
    virtual KStatus CancelQueuedGrabs() = 0;                       // 13
    virtual KStatus Stop() = 0;                                    // 14
    virtual KStatus FreeQueue() = 0;                               // 15

protected:
    ~IKGrabber() = default;
};

// Geometry and pixel format. Sizes in pixels; the image format is an eKImageFormat value.
struct IKImageFormat : IKUnknown {
    virtual KStatus GetImageSize(uint32_t* width, uint32_t* height, uint32_t* left,
                                 uint32_t* top) = 0;
    virtual KStatus SetImageSize(uint32_t width, uint32_t height, uint32_t left, uint32_t top) = 0;
    virtual KStatus GetImageSizeBytes(uint32_t* bytes) = 0;
    virtual KStatus GetBitDepth(uint32_t* bits) = 0;      // bits per pixel as delivered
    virtual KStatus GetRealBitDepth(uint32_t* bits) = 0;  // significant bits
    virtual KStatus GetImageFormat(uint32_t* format) = 0;

protected:
    ~IKImageFormat() = default;
};

struct IKBinning : IKUnknown {
    virtual KStatus GetBinning(uint32_t* factor) = 0;
    virtual KStatus SetBinning(uint32_t factor) = 0;

protected:
    ~IKBinning() = default;
};

struct IKBufferStatistics : IKUnknown {
    virtual KStatus GetBufferUsage(int32_t* buffers) = 0;     // buffers filled, not yet read
    virtual KStatus GetMaxBufferUsage(int32_t* buffers) = 0;  // highest usage since Start
    virtual KStatus GetTotalBufferCount(int32_t* buffers) = 0;

protected:
    ~IKBufferStatistics() = default;
};

// Notifications a driver raises (values of eKGRABBER_NOTIFICATION) and what it suggests
// (eKSUGGESTED_ACTION); see KGrab.h.
struct IKNotificationSink : IKUnknown {
    virtual KStatus OnNotification(int32_t notification, int32_t suggestedAction,
                                   int64_t extra) = 0;

protected:
    ~IKNotificationSink() = default;
};

struct IKNotificationRegistration : IKUnknown {
    // The sink stays valid until Register(nullptr) or the driver's destruction; the driver
    // may call it from any thread.
    virtual KStatus Register(IKNotificationSink* sink) = 0;

protected:
    ~IKNotificationRegistration() = default;
};

struct IKQuery : IKUnknown {
    virtual KStatus Query(int32_t query, int32_t* result) = 0;

protected:
    ~IKQuery() = default;
};

// Named settings with named values (a trigger mode with "Free running" and "External", ...).
struct IKSettings : IKUnknown {
    virtual KStatus GetSettingsCount(int32_t* count) = 0;
    virtual KStatus GetValuesCount(int32_t setting, int32_t* count) = 0;
    virtual KStatus GetSettingsCaps(int32_t setting, KAbiChar* name, uint32_t capacity,
                                    int32_t* value) = 0;
    virtual KStatus GetValuesCaps(int32_t setting, int32_t value, KAbiChar* name, uint32_t capacity,
                                  int32_t* result) = 0;
    virtual KStatus GetCurrentValues(int32_t setting, int32_t* value) = 0;
    virtual KStatus SetCurrentValues(int32_t setting, int32_t value) = 0;

protected:
    ~IKSettings() = default;
};

// Adjustment capability flags as the library's drivers fill them.
//   flag1: the value is an integer          flag2: an automatic mode exists
//   flag3: the value is a double            flag4: a one-shot exists
//   flag5: read only
struct IKAdjustments : IKUnknown {  // integer and double adjustments in one interface
    virtual KStatus GetCount(int32_t* count) = 0;
    virtual KStatus GetCaps(int32_t index, int32_t* id, KAbiChar* name, uint32_t capacity,
                            int64_t* intMin, int64_t* intMax, double* doubleMin, double* doubleMax,
                            int32_t* flag1, int32_t* flag2, int32_t* flag3, int32_t* flag4,
                            int32_t* flag5) = 0;
    virtual KStatus GetIntegerValue(int32_t index, int64_t* value) = 0;
    virtual KStatus SetIntegerValue(int32_t index, int64_t value) = 0;
    virtual KStatus GetDoubleValue(int32_t index, double* value) = 0;
    virtual KStatus SetDoubleValue(int32_t index, double value) = 0;
    virtual KStatus GetAutomatic(int32_t index, int32_t* automatic) = 0;
    virtual KStatus SetAutomatic(int32_t index, int32_t automatic) = 0;
    virtual KStatus OneShot(int32_t index) = 0;

protected:
    ~IKAdjustments() = default;
};

struct IKIntegerAdjustments : IKUnknown {  // older single-type interface
    virtual KStatus GetCount(int32_t* count) = 0;
    virtual KStatus GetCaps(int32_t index, int32_t* id, KAbiChar* name, uint32_t capacity,
                            int64_t* min, int64_t* max, int32_t* flag1, int32_t* flag2,
                            int32_t* flag3, int32_t* flag4, int32_t* flag5) = 0;
    virtual KStatus GetValue(int32_t index, int64_t* value) = 0;
    virtual KStatus SetValue(int32_t index, int64_t value) = 0;
    virtual KStatus GetAutomatic(int32_t index, int32_t* automatic) = 0;
    virtual KStatus SetAutomatic(int32_t index, int32_t automatic) = 0;

protected:
    ~IKIntegerAdjustments() = default;
};

struct IKDoubleAdjustments : IKUnknown {  // older single-type interface
    virtual KStatus GetCount(int32_t* count) = 0;
    virtual KStatus GetCaps(int32_t index, int32_t* id, KAbiChar* name, uint32_t capacity,
                            double* min, double* max, int32_t* flagA, int32_t* flagB) = 0;
    virtual KStatus GetValue(int32_t index, double* value) = 0;
    virtual KStatus SetValue(int32_t index, double value) = 0;
    virtual KStatus GetAutomatic(int32_t index, int32_t* automatic) = 0;
    virtual KStatus SetAutomatic(int32_t index, int32_t automatic) = 0;

protected:
    ~IKDoubleAdjustments() = default;
};

// Categories of typed features (GenICam-like). `category` and `feature` are indexes; the ids
// returned by the caps methods are the driver's own. Types are eAdvanceSettingsFeatureType,
// levels eAdvanceSettingsLevel (KGrab.h). An enumeration's current value is the numeric value
// of one of its entries (as returned by GetEnumFeatureValueCap).
struct IKAdvancedFeatures : IKUnknown {
    virtual KStatus GetCategoriesCount(int32_t* count) = 0;
    virtual KStatus GetCategoriesCap(int32_t index, int32_t* id, KAbiChar* name,
                                     uint32_t capacity) = 0;
    virtual KStatus GetFeatureCount(int32_t category, int32_t* count) = 0;
    virtual KStatus GetFeatureCap(int32_t category, int32_t index, int32_t* id, KAbiChar* name,
                                  uint32_t capacity, int32_t* type, int32_t* level) = 0;
    virtual KStatus Accessible(int32_t category, int32_t feature, int32_t* accessible) = 0;
    virtual KStatus GetEnumFeatureValueCount(int32_t category, int32_t feature, int32_t* count) = 0;
    virtual KStatus GetEnumFeatureValueCap(int32_t category, int32_t feature, int32_t index,
                                           KAbiChar* name, uint32_t capacity, int64_t* value) = 0;
    virtual KStatus GetEnumFeatureValue(int32_t category, int32_t feature, int64_t* value) = 0;
    virtual KStatus SetEnumFeatureValue(int32_t category, int32_t feature, int64_t value) = 0;
    virtual KStatus GetIntegerFeatureCap(int32_t category, int32_t feature, int64_t* min,
                                         int64_t* max) = 0;
    virtual KStatus GetIntegerFeatureValue(int32_t category, int32_t feature, int64_t* value) = 0;
    virtual KStatus SetIntegerFeatureValue(int32_t category, int32_t feature, int64_t value) = 0;
    virtual KStatus GetDoubleFeatureCap(int32_t category, int32_t feature, double* min,
                                        double* max) = 0;
    virtual KStatus GetDoubleFeatureValue(int32_t category, int32_t feature, double* value) = 0;
    virtual KStatus SetDoubleFeatureValue(int32_t category, int32_t feature, double value) = 0;
    // Not used by the grab module: a one-line description for tool tips.
    virtual KStatus GetFeatureDescription(int32_t category, int32_t feature, KAbiChar* text,
                                          uint32_t capacity) = 0;
    virtual KStatus GetBoolFeatureValue(int32_t category, int32_t feature, int32_t* value) = 0;
    virtual KStatus SetBoolFeatureValue(int32_t category, int32_t feature, int32_t value) = 0;
    virtual KStatus ExecuteCommandFeature(int32_t category, int32_t feature) = 0;

protected:
    ~IKAdvancedFeatures() = default;
};

// The serial line of a camera link. `count` is in: bytes offered/room; out: bytes moved.
struct IKSerialPort : IKUnknown {
    virtual KStatus Transmit(const void* data, uint32_t* count, uint32_t timeoutMs) = 0;
    virtual KStatus Receive(void* data, uint32_t* count, uint32_t timeoutMs) = 0;
    virtual KStatus GetEndChar(int32_t* endChar) = 0;
    virtual KStatus GetTextMode(int32_t* textMode) = 0;
    virtual KStatus GetProgFolder(KAbiChar* folder, uint32_t capacity) = 0;
    virtual KStatus GetSavedProgFolder(KAbiChar* folder, uint32_t capacity) = 0;
    virtual KStatus GetCommunicationType(int32_t* type) = 0;

protected:
    ~IKSerialPort() = default;
};

// Position and time from a GPS receiver of the time source.
struct CGPSDataStruct {
    double latitude;     // degrees, north positive
    double longitude;    // degrees, east positive
    double altitude;     // metres above mean sea level
    double speed;        // metres per second over ground
    double heading;      // degrees from true north
    int64_t utcSeconds;  // seconds since 1970-01-01 UTC
    uint32_t utcMicroseconds;
    int32_t satellites;  // in use
    int32_t fixQuality;  // 0 none, 1 GPS, 2 differential
    int32_t valid;       // non-zero when the fields hold a fix
};

// Synchronisation status values a driver reports through IKTimeSource::GetSyncStatus.
inline constexpr uint32_t kKTimeSourceDriverNone = 0xFFFFFFFFu;  // no time source present
inline constexpr uint32_t kKTimeSourceDriverFreeRunning = 0;     // not synchronised
inline constexpr uint32_t kKTimeSourceDriverSynchronizing = 1;
inline constexpr uint32_t kKTimeSourceDriverSynchronized = 2;
inline constexpr uint32_t kKTimeSourceDriverHoldover = 4;  // lost its reference, still close

struct IKTimeSource : IKUnknown {
    virtual KStatus GetSyncStatus(uint32_t* status) = 0;
    virtual KStatus IsGPSSupported(int32_t* supported) = 0;
    virtual KStatus GetGPSData(CGPSDataStruct* data, int32_t flag) = 0;
    virtual KStatus StopReadingGPSData() = 0;

protected:
    ~IKTimeSource() = default;
};

// Per-frame facts a driver knows about the image last returned by WaitImage.
struct KGrabFrameInfo {
    uint32_t size;     // sizeof(KGrabFrameInfo), set by the caller
    uint32_t flags;    // kKFrameInfo* bits
    uint32_t seconds;  // timestamp triple: seconds since 1970-01-01 UTC
    uint16_t milliseconds;
    uint16_t microseconds;
    uint64_t frameId;  // the device's own frame number
};
inline constexpr uint32_t kKFrameInfoTimestamp = 1;   // the timestamp fields are set
inline constexpr uint32_t kKFrameInfoDeviceTime = 2;  // ... and come from the device's clock
inline constexpr uint32_t kKFrameInfoFrameId = 4;     // frameId is set

struct IKFrameInfo : IKUnknown {
    // Called on the read thread between WaitImage and ReleaseImage.
    virtual KStatus GetLastImageInfo(KGrabFrameInfo* info) = 0;
    // eKBayerPatternOrigin of the first pixel of the delivered image (Bayer formats only).
    virtual KStatus GetBayerOrigin(uint32_t* origin) = 0;
    // Counters since Start: images handed over, frames the device produced that were lost
    // (no free buffer, missing packets), frames that arrived incomplete.
    virtual KStatus GetFrameCounters(uint64_t* delivered, uint64_t* lost, uint64_t* incomplete) = 0;

protected:
    ~IKFrameInfo() = default;
};

// Digital lines of the grabber (trigger inputs, strobe outputs).
struct IKDigitalIO : IKUnknown {
    virtual KStatus GetLineCount(int32_t* count) = 0;
    virtual KStatus GetLineName(int32_t line, KAbiChar* name, uint32_t capacity) = 0;
    virtual KStatus IsOutput(int32_t line, int32_t* output) = 0;
    virtual KStatus GetLine(int32_t line, int32_t* level) = 0;
    virtual KStatus SetLine(int32_t line, int32_t level) = 0;

protected:
    ~IKDigitalIO() = default;
};

// The grabber's live video output (an analogue or HDMI monitor port).
struct IKVideoOutput : IKUnknown {
    virtual KStatus IsEnabled(int32_t* enabled) = 0;
    virtual KStatus Enable(int32_t enable) = 0;

protected:
    ~IKVideoOutput() = default;
};

// The advanced-settings window, from the plugin that exports "CreateAdvanceSettingsPtr".
struct IKAdvanceSettingsWindow : IKUnknown {
    virtual KStatus Attach(IKUnknown* grabber) = 0;  // AddRefs the grabber until Detach
    virtual KStatus Detach() = 0;
    virtual KStatus IsActive(int32_t* active) = 0;  // a window exists
    virtual KStatus CanDoModal(int32_t* possible) = 0;
    virtual KStatus DoModal(void* parentWindow) = 0;  // returns when the window closed
    virtual KStatus Create(void* parentWindow) = 0;
    virtual KStatus Resize(int32_t x, int32_t y, int32_t width, int32_t height) = 0;
    virtual KStatus Show(int32_t show) = 0;
    virtual KStatus Close() = 0;

protected:
    ~IKAdvanceSettingsWindow() = default;
};
using KCreateAdvanceSettingsFunction = IKAdvanceSettingsWindow* (*)();

// ---------------------------------------------------------------------------------------------
// Plugin exports.
inline constexpr uint32_t kKPluginAbiVersion = 1;

enum KPluginClassKind : uint32_t {
    kKPluginGrabberManager = 1,
    kKPluginGrabberDriver = 2,
};

struct KPluginClass {
    KGuid clsid;
    uint32_t kind;     // KPluginClassKind
    const char* name;  // UTF-8; a driver's name is what the manager's Initialize is given
};

// uint32_t KestorPluginAbiVersion(void): kKPluginAbiVersion the plugin was built against.
using KPluginAbiVersionFunction = uint32_t (*)();
// uint32_t KestorPluginClasses(const KPluginClass** classes): the classes the plugin serves.
using KPluginClassesFunction = uint32_t (*)(const KPluginClass** classes);
// KStatus KestorCreateInstance(const KGuid* clsid, const KGuid* iid, void** out): a new object
// of the class, AddRef'd once through the interface asked for.
using KCreateInstanceFunction = KStatus (*)(const KGuid* clsid, const KGuid* iid, void** out);

// ---------------------------------------------------------------------------------------------
// A reference to an interface that releases it when it goes (header-only convenience).
template <class T>
class KComPtr {
public:
    KComPtr() = default;
    KComPtr(const KComPtr& other) : p_(other.p_) {
        if (p_) p_->AddRef();
    }
    KComPtr(KComPtr&& other) noexcept : p_(other.p_) { other.p_ = nullptr; }
    KComPtr& operator=(KComPtr other) noexcept {
        T* old = p_;
        p_ = other.p_;
        other.p_ = old;
        return *this;
    }
    ~KComPtr() { Reset(); }

    // Takes over a reference the caller already owns.
    static KComPtr Adopt(T* p) {
        KComPtr result;
        result.p_ = p;
        return result;
    }
    // Queries `iid` from any interface; empty when the object lacks it.
    template <class U>
    static KComPtr Query(U* from, const KGuid& iid) {
        KComPtr result;
        void* out = nullptr;
        if (from != nullptr && KSucceeded(from->QueryInterface(iid, &out))) {
            result.p_ = static_cast<T*>(out);
        }
        return result;
    }

    void Reset() {
        if (p_) {
            T* old = p_;
            p_ = nullptr;
            old->Release();
        }
    }
    T* Get() const { return p_; }
    T* operator->() const { return p_; }
    explicit operator bool() const { return p_ != nullptr; }
    // For out-parameters: releases the current reference and yields the slot.
    void** Out() {
        Reset();
        return reinterpret_cast<void**>(&p_);
    }

private:
    T* p_ = nullptr;
};
