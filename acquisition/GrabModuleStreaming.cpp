// Streaming: the queue thread keeps grabs queued on the driver, the read thread hands each
// completed image to the application and gives the buffer back.
#include "KImage.h"
#include "acquisition/CKestorGrabModule.h"
#include "platform/Clock.h"

namespace kestor {

bool CKestorGrabModule::SetCallbacks(KGrabCallbacks* callbacks, unsigned int id, void* context) {
    callbackId_.store(id, std::memory_order_release);
    callbackContext_.store(context, std::memory_order_release);
    callbacks_.store(callbacks != nullptr ? callbacks : &defaultCallbacks_,
                     std::memory_order_release);
    return true;
}

bool CKestorGrabModule::StartStreaming() {
    Trace(u"Start Streaming");
    if (IsStreaming()) {
        Trace(u"Already Streaming");
        return SetError(eKErrSuccess);
    }
    if (!HasGrabber()) return SetError(eKErrNoGrabberLoaded);
    JoinFinishedThreads();  // threads of a run stopped from one of its own callbacks
    RefreshDescription();

    // The start and stop callbacks deliberately get no id and no context.
    Callbacks().OnBeforeStartStreaming(0, nullptr);
    streaming_.store(true, std::memory_order_release);
    grabber_->Start();
    readThreadRunning_.store(true, std::memory_order_release);
    queueThreadRunning_.store(true, std::memory_order_release);
    const bool readStarted =
        readThread_.Start([this] { ReadThreadBody(); }, "kestor-read", ThreadPriority::Normal);
    const bool queueStarted =
        readStarted &&
        queueThread_.Start([this] { QueueThreadBody(); }, "kestor-queue", ThreadPriority::Highest);
    if (!queueStarted) {
        readThreadRunning_.store(false, std::memory_order_release);
        queueThreadRunning_.store(false, std::memory_order_release);
        streaming_.store(false, std::memory_order_release);
        grabber_->Stop();
        readThread_.Join();
        return SetError(eKErrOutOfMemory);
    }
    Callbacks().OnAfterStartStreaming(0, nullptr);
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::StopStreaming() {
    Trace(u"Stop Streaming");
    if (IsStreaming()) {
        Callbacks().OnBeforeStopStreaming(0, nullptr);
        streaming_.store(false, std::memory_order_release);
        queueThreadRunning_.store(false, std::memory_order_release);  // the read thread's flag
                                                                      // is the queue thread's
        grabber_->Stop();  // makes a pending QueueGrab return
        // A callback that stops streaming cannot wait for its own thread: the threads then end
        // on their own and are joined by the next start, unload or the destructor.
        if (!OnStreamingThread()) queueThread_.Join();
        Callbacks().OnAfterStopStreaming(0, nullptr);
    }
    return SetError(eKErrSuccess);
}

bool CKestorGrabModule::OnStreamingThread() const {
    const std::thread::id self = std::this_thread::get_id();
    return self == queueThreadId_.load() || self == readThreadId_.load();
}

void CKestorGrabModule::JoinFinishedThreads() {
    if (OnStreamingThread()) return;
    queueThread_.Join();  // the queue thread joins the read thread before it ends
    readThread_.Join();
}

void CKestorGrabModule::QueueThreadBody() {
    queueThreadId_.store(std::this_thread::get_id());
    Trace(u"Entering Write Thread");
    while (queueThreadRunning_.load(std::memory_order_acquire)) {
        Callbacks().OnBeforeQueuingGrab(CallbackId(), CallbackContext());
        const KStatus status = grabber_->QueueGrab();
        Callbacks().OnAfterQueuingGrab(CallbackId(), CallbackContext());
        if (KFailed(status)) {
            Trace(u"A queued grab failed to complete");
            queueThreadRunning_.store(false, std::memory_order_release);
        }
    }
    readThreadRunning_.store(false, std::memory_order_release);
    grabber_->CancelQueuedGrabs();
    grabber_->FreeQueue();
    readThread_.Join();
    Trace(u"Quitting Write Thread");
    queueThreadId_.store(std::thread::id());
}

void CKestorGrabModule::ReadThreadBody() {
    readThreadId_.store(std::this_thread::get_id());
    Trace(u"Entering Read Thread");
    while (readThreadRunning_.load(std::memory_order_acquire)) {
        Callbacks().OnBeforeImageReceived(CallbackId(), CallbackContext());
        void* pixels = nullptr;
        grabber_->WaitImage(&pixels);
        if (pixels != nullptr && readThreadRunning_.load(std::memory_order_acquire)) {
            DeliverImage(pixels);
            grabber_->ReleaseImage();
            Callbacks().OnImageReleased(CallbackId(), CallbackContext());
        }
    }
    Trace(u"Quitting Read Thread");
    readThreadId_.store(std::thread::id());
}

void CKestorGrabModule::DeliverImage(void* pixels) {
    KGrabFrameInfo info{};
    info.size = sizeof info;
    const bool haveInfo = frameInfo_ && KSucceeded(frameInfo_->GetLastImageInfo(&info));
    // The host clock is read only for frames the driver did not stamp.
    const WallTime hostTime =
        haveInfo && (info.flags & kKFrameInfoTimestamp) != 0 ? WallTime{} : CurrentWallTime();
    image_.Show(Description(), pixels, hostTime, haveInfo ? &info : nullptr);
    KImage image(image_.Image());  // attached: valid only during the call
    Callbacks().OnImageReceived(&image, CallbackId(), CallbackContext());
    image_.Drop();
}

}  // namespace kestor
