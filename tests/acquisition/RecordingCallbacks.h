// Grab callbacks that record every call (name, id, context, thread) and what each received
// image looked like, and let a test wait for a number of images.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "KGrab.h"
#include "core/CKestorImage.h"

namespace kestor::test {

struct CallbackEvent {
    std::string name;
    unsigned int id;
    void* context;
    std::thread::id thread;
};

struct ReceivedImage {
    KImageDescription description;
    uint64_t pixelFrame;  // the frame number the fake wrote into the pixels
    uint32_t seconds;
    uint16_t milliseconds, microseconds;
    uint64_t frameCounter;
    std::vector<KMetadata> metadata;
};

class RecordingCallbacks : public KGrabCallbacks {
public:
    void OnBeforeImageReceived(unsigned id, void* c) override {
        Record("BeforeImageReceived", id, c);
    }
    void OnImageReceived(KImage* image, unsigned int id, void* context) override {
        ReceivedImage seen{};
        seen.description = image->GetImageDescription();
        uint64_t number = 0;
        if (image->GetRawImageData() != nullptr && image->GetImageSizeBytes() >= 8)
            std::memcpy(&number, image->GetRawImageData(), sizeof number);
        seen.pixelFrame = number;
        seen.seconds = image->GetTimestamp();
        seen.milliseconds = image->GetTimestampMS();
        seen.microseconds = image->GetTimestampUS();
        seen.frameCounter = image->GetImage()->FrameCounter();
        for (int i = 0; i < image->GetMetadataCount(); ++i)
            seen.metadata.push_back(*image->GetMetadata(i));
        if (onImage) onImage(image);
        {
            std::lock_guard lock(mutex_);
            images_.push_back(seen);
        }
        Record("ImageReceived", id, context);
    }
    void OnImageReleased(unsigned id, void* c) override { Record("ImageReleased", id, c); }
    void OnBeforeQueuingGrab(unsigned id, void* c) override { Record("BeforeQueuingGrab", id, c); }
    void OnAfterQueuingGrab(unsigned id, void* c) override { Record("AfterQueuingGrab", id, c); }
    void OnBeforeStartStreaming(unsigned id, void* c) override {
        Record("BeforeStartStreaming", id, c);
    }
    void OnAfterStartStreaming(unsigned id, void* c) override {
        Record("AfterStartStreaming", id, c);
    }
    void OnBeforeStopStreaming(unsigned id, void* c) override {
        Record("BeforeStopStreaming", id, c);
    }
    void OnAfterStopStreaming(unsigned id, void* c) override {
        Record("AfterStopStreaming", id, c);
    }
    void OnNotification(eKGRABBER_NOTIFICATION notification, eKSUGGESTED_ACTION action) override {
        Record("Notification(" + std::to_string(notification) + "," + std::to_string(action) + ")",
               0, nullptr);
    }

    // Waits (generously, only so that a broken module fails instead of hanging) until `count`
    // events named `name` were recorded.
    bool WaitFor(const std::string& name, size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(60),
                                 [&] { return CountLocked(name) >= count; });
    }
    size_t Count(const std::string& name) const {
        std::lock_guard lock(mutex_);
        return CountLocked(name);
    }
    std::vector<CallbackEvent> Events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const CallbackEvent& event : Events()) names.push_back(event.name);
        return names;
    }
    std::vector<ReceivedImage> Images() const {
        std::lock_guard lock(mutex_);
        return images_;
    }

    std::function<void(KImage*)> onImage;  // runs inside OnImageReceived

private:
    void Record(const std::string& name, unsigned int id, void* context) {
        std::lock_guard lock(mutex_);
        events_.push_back({name, id, context, std::this_thread::get_id()});
        changed_.notify_all();
    }
    size_t CountLocked(const std::string& name) const {
        size_t count = 0;
        for (const CallbackEvent& event : events_) count += event.name == name;
        return count;
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<CallbackEvent> events_;
    std::vector<ReceivedImage> images_;
};

}  // namespace kestor::test
