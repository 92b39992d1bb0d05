// The camera link's serial port, the time source's synchronisation status and GPS.
#include "acquisition/AbiConversions.h"
#include "acquisition/CKestorGrabModule.h"
#include "platform/DebugOutput.h"

namespace kestor {

namespace {

template <class Call>
bool WithSerialPort(CKestorGrabModule& module, bool hasGrabber, const KComPtr<IKSerialPort>& port,
                    Call&& call) {
    if (!hasGrabber) return module.SetError(eKErrNoGrabberLoaded);
    if (!port) return module.SetError(eKErrNoComPort);
    call(*port.Get());
    return module.SetError(eKErrSuccess);
}

}  // namespace

#define KESTOR_WITH_SERIAL_PORT(...) \
    WithSerialPort(                  \
        *this, HasGrabber(),         \
        DriverInterface<IKSerialPort>(IID_IKSerialPort), [&](IKSerialPort & port) __VA_ARGS__)

// Part of the serial port family: a grabber without the port says so with 76, unlike the
// advanced-settings check, which records nothing.
bool CKestorGrabModule::IsCOMPortAvailable() {
    return KESTOR_WITH_SERIAL_PORT({ (void)port; });
}

bool CKestorGrabModule::Transmit(void* data, unsigned long* count, unsigned long timeoutMs) {
    return KESTOR_WITH_SERIAL_PORT({
        uint32_t bytes = count != nullptr ? NarrowToUint32(*count) : 0;
        port.Transmit(data, &bytes, NarrowToUint32(timeoutMs));
        Store(count, bytes);
    });
}

bool CKestorGrabModule::Receive(void* data, unsigned long* count, unsigned long timeoutMs) {
    return KESTOR_WITH_SERIAL_PORT({
        uint32_t bytes = count != nullptr ? NarrowToUint32(*count) : 0;
        port.Receive(data, &bytes, NarrowToUint32(timeoutMs));
        Store(count, bytes);
    });
}

bool CKestorGrabModule::GetEndChar(long* endChar) {
    return KESTOR_WITH_SERIAL_PORT({
        int32_t value = 0;
        port.GetEndChar(&value);
        Store(endChar, value);
    });
}

bool CKestorGrabModule::GetTextMode(long* textMode) {
    return KESTOR_WITH_SERIAL_PORT({
        int32_t value = 0;
        port.GetTextMode(&value);
        Store(textMode, value);
    });
}

bool CKestorGrabModule::GetProgFolder(KChar* folder) {
    return KESTOR_WITH_SERIAL_PORT({
        DriverName text;
        port.GetProgFolder(text.Buffer(), text.Capacity());
        text.CopyTo(folder);
    });
}

bool CKestorGrabModule::GetSavedProgFolder(KChar* folder) {
    return KESTOR_WITH_SERIAL_PORT({
        DriverName text;
        port.GetSavedProgFolder(text.Buffer(), text.Capacity());
        text.CopyTo(folder);
    });
}

bool CKestorGrabModule::GetCommunicationType(long* type) {
    return KESTOR_WITH_SERIAL_PORT({
        int32_t value = 0;
        port.GetCommunicationType(&value);
        Store(type, value);
    });
}

#undef KESTOR_WITH_SERIAL_PORT

// The time-source and GPS calls need no loaded grabber and record nothing: without the
// interface kept from the load they answer "none".
KTimeSourceSyncStatus CKestorGrabModule::GetTimeSourceSyncStatus() {
    if (!timeSource_) return eKTimeSourceNone;
    uint32_t status = kKTimeSourceDriverNone;
    timeSource_->GetSyncStatus(&status);
    switch (status) {
        case kKTimeSourceDriverNone:
            return eKTimeSourceNone;
        case kKTimeSourceDriverFreeRunning:
            return eKTimeSourceNotSynchronized;
        case kKTimeSourceDriverSynchronizing:
            return eKTimeSourceSynchronizing;
        case kKTimeSourceDriverSynchronized:
            return eKTimeSourceSynchronized;
        case kKTimeSourceDriverHoldover:
            return eKTimeSourceHoldover;
        default: {
            // 3 included: drivers do not report it, so it is treated like any unknown value.
            KChar line[128];
            WideFormat(line, 128, u"Unknown time source sync status: %d\n",
                       static_cast<int>(status));
            DebugOutput(line);
            return eKTimeSourceNotSynchronized;
        }
    }
}

bool CKestorGrabModule::IsGPSSupported() {
    if (!timeSource_) return false;
    int32_t supported = 0;
    timeSource_->IsGPSSupported(&supported);
    return supported != 0;
}

bool CKestorGrabModule::GetGPSData(CGPSDataStruct* data, bool flag) {
    if (timeSource_) timeSource_->GetGPSData(data, flag ? 1 : 0);
    return true;
}

bool CKestorGrabModule::StopReadingGPSData() {
    if (timeSource_) timeSource_->StopReadingGPSData();
    return true;
}

}  // namespace kestor
