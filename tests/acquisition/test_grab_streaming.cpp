// Streaming: the two threads, callback order, ids and contexts, the images handed over, the
// end of a run (stop, queue failure, images that never come) and notifications.
#include <chrono>
#include <thread>

#include "GrabTestSupport.h"
#include "KSequence.h"
#include "RecordingCallbacks.h"
#include "platform/Clock.h"

using namespace kestor;
using namespace kestor::test;

namespace {

using Names = std::vector<std::string>;

// Polls until `done` (the streaming threads only show their end in the trace and the fake).
bool WaitUntil(const std::function<bool()>& done) {
    for (int i = 0; i < 60000 && !done(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return done();
}

std::vector<std::string> OnThread(const std::vector<CallbackEvent>& events, std::thread::id id) {
    std::vector<std::string> names;
    for (const CallbackEvent& event : events)
        if (event.thread == id) names.push_back(event.name);
    return names;
}

FakeGrabberConfig Limited(uint32_t frames) {
    FakeGrabberConfig config;
    config.frameLimit = frames;
    return config;
}

}  // namespace

class GrabStreamingTest : public GrabModuleTest {
protected:
    bool WaitForTrace(const std::string& line) {
        return WaitUntil([&] { return CountLines(line) > 0; });
    }
    RecordingCallbacks callbacks_;
    int context_ = 0;
};

TEST_F(GrabStreamingTest, AWholeRunCallsBackInOrderWithTheRegisteredIdAndContext) {
    ASSERT_TRUE(LoadFake(Limited(10)));
    ASSERT_TRUE(Module().SetCallbacks(&callbacks_, 7, &context_));
    unsigned widthSeen = 0;  // callbacks may call back into the module
    callbacks_.onImage = [&](KImage*) { widthSeen = Module().GetImageWidth(); };
    debug_.Clear();  // Load stops streaming too, and says so

    ASSERT_TRUE(Module().StartStreaming());
    EXPECT_TRUE(Module().IsStreaming());
    ASSERT_TRUE(callbacks_.WaitFor("ImageReleased", 10));
    ASSERT_TRUE(Module().StopStreaming());
    EXPECT_FALSE(Module().IsStreaming());
    EXPECT_EQ(widthSeen, 64u);

    const std::vector<CallbackEvent> events = callbacks_.Events();
    const std::thread::id self = std::this_thread::get_id();
    EXPECT_EQ(OnThread(events, self), (Names{"BeforeStartStreaming", "AfterStartStreaming",
                                             "BeforeStopStreaming", "AfterStopStreaming"}));
    std::thread::id readThread, queueThread;
    for (const CallbackEvent& event : events) {
        const bool caller = event.thread == self;
        EXPECT_EQ(event.id, caller ? 0u : 7u) << event.name;
        EXPECT_EQ(event.context, caller ? nullptr : &context_) << event.name;
        if (event.name == "ImageReceived") readThread = event.thread;
        if (event.name == "BeforeQueuingGrab") queueThread = event.thread;
    }
    ASSERT_NE(readThread, queueThread);

    // Read thread: Before, Received, Released per image; a last Before may find no image.
    const Names read = OnThread(events, readThread);
    size_t i = 0, images = 0;
    for (; i + 2 < read.size() && read[i + 1] == "ImageReceived"; i += 3, ++images) {
        EXPECT_EQ(read[i], "BeforeImageReceived");
        EXPECT_EQ(read[i + 2], "ImageReleased");
    }
    for (; i < read.size(); ++i) EXPECT_EQ(read[i], "BeforeImageReceived");
    EXPECT_EQ(images, 10u);
    const Names queue = OnThread(events, queueThread);
    ASSERT_EQ(queue.size() % 2, 0u);
    for (size_t q = 0; q < queue.size(); q += 2)
        EXPECT_EQ((Names{queue[q], queue[q + 1]}),
                  (Names{"BeforeQueuingGrab", "AfterQueuingGrab"}));

    // The images: frames 1 to 10 in order, with the driver's time and frame number.
    const std::vector<ReceivedImage> received = callbacks_.Images();
    ASSERT_EQ(received.size(), 10u);
    for (uint64_t frame = 1; frame <= received.size(); ++frame) {
        const ReceivedImage& image = received[frame - 1];
        EXPECT_EQ(image.pixelFrame, frame);
        EXPECT_EQ(image.description.width, 64u);
        EXPECT_EQ(image.description.height, 48u);
        EXPECT_EQ(image.description.sizeBytes, 64u * 48u);
        EXPECT_EQ(image.description.format, static_cast<uint32_t>(eKFormatMono));
        EXPECT_EQ(image.seconds, 1'000'000u + frame);
        EXPECT_EQ(image.milliseconds, frame % 1000);
        EXPECT_EQ(image.microseconds, 7u);
        EXPECT_EQ(image.frameCounter, 5000u + frame);
        ASSERT_EQ(image.metadata.size(), 1u);
        EXPECT_EQ(image.metadata[0].GetTypeID(), kKMetadataIdDeviceFrameId);
        ASSERT_EQ(image.metadata[0].GetDataSize(), 8u);
        uint64_t id = 0;
        for (int b = 7; b >= 0; --b) id = id << 8 | image.metadata[0].GetData()[b];
        EXPECT_EQ(id, 5000u + frame);
    }

    // The driver saw the end of queue in its order, after Stop.
    Names ends;
    for (const std::string& call : Fake().Calls())
        if (call == "Start" || call == "Stop" || call == "CancelQueuedGrabs" || call == "FreeQueue")
            ends.push_back(call);
    EXPECT_EQ(ends, (Names{"Start", "Stop", "CancelQueuedGrabs", "FreeQueue"}));

    // Log lines: the read thread quits before the queue thread that waits for it.
    const std::vector<std::string> lines = TraceLines();
    auto at = [&](const std::string& text) {
        return std::find(lines.begin(), lines.end(), text) - lines.begin();
    };
    for (const char* text : {"Start Streaming", "Entering Read Thread", "Entering Write Thread",
                             "Stop Streaming", "Quitting Read Thread", "Quitting Write Thread"})
        EXPECT_EQ(CountLines(text), 1) << text;
    EXPECT_LT(at("Start Streaming"), at("Stop Streaming"));
    EXPECT_LT(at("Quitting Read Thread"), at("Quitting Write Thread"));
    EXPECT_EQ(CountLines("A queued grab failed to complete"), 0);
}

TEST_F(GrabStreamingTest, StartingTwiceAndStoppingTwice) {
    ASSERT_TRUE(LoadFake(Limited(1)));
    ASSERT_TRUE(Module().SetCallbacks(&callbacks_, 1, nullptr));
    debug_.Clear();
    EXPECT_TRUE(Module().StopStreaming());  // while idle: nothing is called back
    EXPECT_TRUE(callbacks_.Names().empty());
    EXPECT_EQ(CountLines("Stop Streaming"), 1);

    ASSERT_TRUE(Module().StartStreaming());
    EXPECT_TRUE(Module().StartStreaming());
    EXPECT_EQ(CountLines("Already Streaming"), 1);
    EXPECT_EQ(CountLines("Start Streaming"), 2);
    EXPECT_EQ(callbacks_.Count("BeforeStartStreaming"), 1u);
    EXPECT_EQ(callbacks_.Count("AfterStartStreaming"), 1u);
    EXPECT_EQ(Fake().CallsStartingWith("Start"), (Names{"Start"}));

    ASSERT_TRUE(Module().StopStreaming());
    EXPECT_TRUE(Module().StopStreaming());
    EXPECT_EQ(callbacks_.Count("BeforeStopStreaming"), 1u);
    EXPECT_EQ(callbacks_.Count("AfterStopStreaming"), 1u);
    ASSERT_TRUE(Module().StartStreaming());  // a new run after a stop works
    ASSERT_TRUE(Module().StopStreaming());
    EXPECT_EQ(callbacks_.Count("AfterStopStreaming"), 2u);
}

TEST_F(GrabStreamingTest, NullCallbacksStreamWithTheDefaults) {
    ASSERT_TRUE(LoadFake(Limited(3)));
    ASSERT_TRUE(Module().SetCallbacks(&callbacks_, 1, nullptr));
    int p = 0;
    EXPECT_TRUE(Module().SetCallbacks(nullptr, 5, &p));
    ASSERT_TRUE(Module().StartStreaming());
    // Images are taken and given back without anybody watching.
    EXPECT_TRUE(WaitUntil([&] { return Fake().FramesProduced() == 3; }));
    ASSERT_TRUE(Module().StopStreaming());
    EXPECT_TRUE(callbacks_.Names().empty());

    // The recorder again: the registered id and context are what the threads pass.
    ASSERT_TRUE(Module().SetCallbacks(&callbacks_, 5, &p));
    ASSERT_TRUE(Module().StartStreaming());
    ASSERT_TRUE(callbacks_.WaitFor("BeforeImageReceived", 1));
    ASSERT_TRUE(Module().StopStreaming());
    for (const CallbackEvent& event : callbacks_.Events()) {
        if (event.name != "BeforeImageReceived") continue;
        EXPECT_EQ(event.id, 5u);
        EXPECT_EQ(event.context, &p);
    }
}

TEST_F(GrabStreamingTest, AQueueFailureEndsBothThreadsButNotTheStreamingState) {
    FakeGrabberConfig config;
    config.queueFailAfter = 0;
    ASSERT_TRUE(LoadFake(config));
    ASSERT_TRUE(Module().SetCallbacks(&callbacks_, 2, nullptr));
    ASSERT_TRUE(Module().StartStreaming());
    ASSERT_TRUE(WaitForTrace("Quitting Write Thread"));
    EXPECT_EQ(CountLines("A queued grab failed to complete"), 1);
    EXPECT_EQ(CountLines("Quitting Read Thread"), 1);
    EXPECT_EQ(callbacks_.Count("BeforeQueuingGrab"), 1u);
    EXPECT_EQ(callbacks_.Count("AfterQueuingGrab"), 1u);
    EXPECT_EQ(callbacks_.Count("ImageReceived"), 0u);
    EXPECT_TRUE(Module().IsStreaming());
    EXPECT_EQ(Module().GetLastError(), eKErrSuccess);  // nothing recorded

    // Still "streaming": a start does not restart, a stop calls back.
    EXPECT_TRUE(Module().StartStreaming());
    EXPECT_EQ(CountLines("Already Streaming"), 1);
    EXPECT_EQ(Fake().CallsStartingWith("Start"), (Names{"Start"}));
    ASSERT_TRUE(Module().StopStreaming());
    EXPECT_FALSE(Module().IsStreaming());
    EXPECT_EQ(callbacks_.Count("AfterStopStreaming"), 1u);
    EXPECT_EQ(Fake().CallsStartingWith("CancelQueuedGrabs"), (Names{"CancelQueuedGrabs"}));

    // A failure after some frames: whatever was read before the end came in order and was
    // given back.
    RecordingCallbacks later;
    config.queueFailAfter = 3;
    ASSERT_TRUE(LoadFake(config));
    ASSERT_TRUE(Module().SetCallbacks(&later, 2, nullptr));
    debug_.Clear();
    ASSERT_TRUE(Module().StartStreaming());
    ASSERT_TRUE(WaitForTrace("Quitting Write Thread"));
    EXPECT_EQ(later.Count("BeforeQueuingGrab"), 4u);
    EXPECT_EQ(later.Count("AfterQueuingGrab"), 4u);
    const std::vector<ReceivedImage> images = later.Images();
    EXPECT_LE(images.size(), 3u);
    for (size_t i = 0; i < images.size(); ++i) EXPECT_EQ(images[i].pixelFrame, i + 1);
    EXPECT_EQ(later.Count("ImageReleased"), images.size());
    ASSERT_TRUE(Module().StopStreaming());
    Module().SetCallbacks(nullptr, 0, nullptr);  // `later` goes before the module
}

TEST_F(GrabStreamingTest, NoBufferOrALateBufferSkipsTheTurn) {
    FakeGrabberConfig config = Limited(2);
    config.waitImageNull = true;
    ASSERT_TRUE(LoadFake(config));
    ASSERT_TRUE(Module().SetCallbacks(&callbacks_, 3, nullptr));
    ASSERT_TRUE(Module().StartStreaming());
    ASSERT_TRUE(callbacks_.WaitFor("BeforeImageReceived", 5));
    ASSERT_TRUE(Module().StopStreaming());
    EXPECT_EQ(callbacks_.Count("ImageReceived"), 0u);
    EXPECT_EQ(callbacks_.Count("ImageReleased"), 0u);
    EXPECT_EQ(Fake().ImagesReleased(), 0);

    // A buffer that comes back after the read thread was told to end is neither delivered
    // nor given back.
    RecordingCallbacks late;
    config = Limited(1);
    config.imageOnlyAfterCancel = true;
    ASSERT_TRUE(LoadFake(config));
    ASSERT_TRUE(Module().SetCallbacks(&late, 4, nullptr));
    ASSERT_TRUE(Module().StartStreaming());
    ASSERT_TRUE(WaitUntil([&] { return Fake().ReaderWaiting(); }));
    ASSERT_TRUE(Module().StopStreaming());
    EXPECT_EQ(Fake().LateImagesHandedOut(), 1);
    EXPECT_EQ(late.Count("BeforeImageReceived"), 1u);
    EXPECT_EQ(late.Count("ImageReceived") + late.Count("ImageReleased"), 0u);
    EXPECT_EQ(Fake().ImagesReleased(), 0);
    Module().SetCallbacks(nullptr, 0, nullptr);  // `late` goes before the module
}

TEST_F(GrabStreamingTest, WithoutFrameInformationTheHostClockStampsTheImage) {
    FakeGrabberConfig config = Limited(2);
    config.frameInfo = false;
    ASSERT_TRUE(LoadFake(config));
    ASSERT_TRUE(Module().SetCallbacks(&callbacks_, 0, nullptr));
    const WallTime before = CurrentWallTime();
    ASSERT_TRUE(Module().StartStreaming());
    ASSERT_TRUE(callbacks_.WaitFor("ImageReleased", 2));
    ASSERT_TRUE(Module().StopStreaming());
    const WallTime after = CurrentWallTime();
    for (const ReceivedImage& image : callbacks_.Images()) {
        EXPECT_GE(image.seconds, before.seconds);
        EXPECT_LE(image.seconds, after.seconds);
        EXPECT_LT(image.milliseconds, 1000);
        EXPECT_LT(image.microseconds, 1000);
        EXPECT_TRUE(image.metadata.empty());
        EXPECT_EQ(image.frameCounter, 0u);
    }

    // A frame number without a driver timestamp: host clock, and the metadata item.
    config.frameInfo = true;
    config.frameInfoFlags = kKFrameInfoFrameId;
    ASSERT_TRUE(LoadFake(config));
    RecordingCallbacks second;
    ASSERT_TRUE(Module().SetCallbacks(&second, 0, nullptr));
    ASSERT_TRUE(Module().StartStreaming());
    ASSERT_TRUE(second.WaitFor("ImageReleased", 1));
    ASSERT_TRUE(Module().StopStreaming());
    Module().SetCallbacks(nullptr, 0, nullptr);
    const ReceivedImage first = second.Images().at(0);
    EXPECT_GE(first.seconds, before.seconds);
    ASSERT_EQ(first.metadata.size(), 1u);
    EXPECT_EQ(first.frameCounter, 5001u);
}

TEST_F(GrabStreamingTest, NotificationsReachTheCurrentCallbacks) {
    ASSERT_TRUE(LoadFake());
    FakeGrabber& fake = Fake();
    ASSERT_TRUE(fake.RaiseNotification(eKNotificationCameraLost, eKActionStopStreaming));
    ASSERT_TRUE(Module().SetCallbacks(&callbacks_, 9, nullptr));
    ASSERT_TRUE(fake.RaiseNotification(eKNotificationBufferOverflow, eKActionNone));
    std::thread other([&] { fake.RaiseNotification(eKNotificationFrameLost, eKActionNone); });
    other.join();
    EXPECT_EQ(callbacks_.Names(), (Names{"Notification(5,0)", "Notification(1,0)"}));
    ASSERT_TRUE(Module().Unload());
    EXPECT_FALSE(fake.RaiseNotification(eKNotificationFrameLost, eKActionNone));
}

TEST_F(GrabStreamingTest, UnloadAndDestructionStopStreaming) {
    ASSERT_TRUE(LoadFake(Limited(1)));
    ASSERT_TRUE(Module().SetCallbacks(&callbacks_, 0, nullptr));
    ASSERT_TRUE(Module().StartStreaming());
    ASSERT_TRUE(Module().Unload());
    EXPECT_FALSE(Module().IsStreaming());
    EXPECT_EQ(callbacks_.Count("AfterStopStreaming"), 1u);

    FakeGrabber::Install(Limited(1));
    {
        RecordingCallbacks local;
        KGrabModule module;
        module.SetErrorOutput(false, false, false);
        ASSERT_TRUE(module.Load(eKModuleSimulatedCamera, u"Acme", false));
        module.SetCallbacks(&local, 0, nullptr);
        ASSERT_TRUE(module.StartStreaming());
        ASSERT_TRUE(local.WaitFor("ImageReleased", 1));
    }  // the module goes while its threads run
    EXPECT_TRUE(Fake().Called("Stop"));
    EXPECT_TRUE(Fake().Called("FreeQueue"));
}

TEST_F(GrabStreamingTest, ACallbackMayStopStreaming) {
    ASSERT_TRUE(LoadFake());
    ASSERT_TRUE(Module().SetCallbacks(&callbacks_, 0, nullptr));
    callbacks_.onImage = [&](KImage* image) {
        if (image->GetRawImageData()[0] == 3) Module().StopStreaming();
    };
    ASSERT_TRUE(Module().StartStreaming());
    ASSERT_TRUE(callbacks_.WaitFor("AfterStopStreaming", 1));
    EXPECT_FALSE(Module().IsStreaming());
    ASSERT_TRUE(WaitForTrace("Quitting Write Thread"));
    // The threads of that run are joined before the next one starts.
    callbacks_.onImage = nullptr;
    ASSERT_TRUE(Module().StartStreaming());
    ASSERT_TRUE(callbacks_.WaitFor("AfterStartStreaming", 2));
    ASSERT_TRUE(Module().StopStreaming());
}

// Grabbed images show the driver's buffer in place (here neither aligned nor a whole number of
// sectors long); sequences on disk and in memory must still record them exactly.
TEST_F(GrabStreamingTest, GrabbedImagesAreRecordedIntoSequences) {
    FakeGrabberConfig config = Limited(8);
    config.width = 100;
    config.height = 30;  // 3000 bytes
    ASSERT_TRUE(LoadFake(config));
    KSequence disk, ram;
    disk.SetErrorOutput(false, false, false);
    ram.SetErrorOutput(false, false, false);
    const std::string file = folder_.File("grab.seq");
    ASSERT_TRUE(disk.Create(file.c_str()));
    ASSERT_TRUE(ram.Create(static_cast<const char*>(nullptr)));
    int writeFailures = 0;
    callbacks_.onImage = [&](KImage* image) {
        writeFailures += !disk.Write(image) + !ram.Write(image);
    };
    ASSERT_TRUE(Module().SetCallbacks(&callbacks_, 0, nullptr));
    ASSERT_TRUE(Module().StartStreaming());
    ASSERT_TRUE(callbacks_.WaitFor("ImageReleased", 8));
    ASSERT_TRUE(Module().StopStreaming());
    EXPECT_EQ(writeFailures, 0);

    ASSERT_TRUE(disk.Close());
    ASSERT_TRUE(disk.Open(file.c_str()));
    for (KSequence* sequence : {&disk, &ram}) {
        for (unsigned frame = 1; frame <= 8; ++frame) {
            SCOPED_TRACE(frame);
            KImage read;
            ASSERT_TRUE(sequence->Read(&read, frame));
            ASSERT_EQ(read.GetImageSizeBytes(), 3000u);
            const uint8_t* pixels = read.GetRawImageData();
            EXPECT_EQ(FakeGrabber::FrameNumberIn(pixels), frame);
            EXPECT_EQ(pixels[2999], frame & 0xFF);
            EXPECT_EQ(read.GetTimestamp(), 1'000'000u + frame);
            EXPECT_EQ(read.GetTimestampMS(), frame);
            EXPECT_EQ(read.GetTimestampUS(), 7u);
        }
    }
    disk.Close();
    ram.Close();
}
