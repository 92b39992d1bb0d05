#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <future>

#include "platform/Thread.h"

using kestor::Thread;
using kestor::ThreadPriority;

static int CurrentThreadNice() {
    errno = 0;
    return getpriority(PRIO_PROCESS, gettid());
}

TEST(Thread, RunsTheBodyWithItsNameAndJoins) {
    char seenName[32] = {};
    Thread thread;
    ASSERT_TRUE(
        thread.Start([&] { pthread_getname_np(pthread_self(), seenName, sizeof(seenName)); },
                     "kestor-recorder-thread"));
    EXPECT_FALSE(thread.Start([] {})) << "one thread per object";
    thread.Join();
    EXPECT_FALSE(thread.Joinable());
    EXPECT_STREQ(seenName, "kestor-recorder") << "cut to the 15 characters Linux keeps";
    EXPECT_FALSE(thread.Start(nullptr)) << "no body, no thread";

    std::atomic<bool> ran{false};
    {
        Thread scoped;
        ASSERT_TRUE(scoped.Start([&] { ran = true; }));
    }  // the destructor joins
    EXPECT_TRUE(ran);

    // Joining from inside the thread (a playback thread closing its own sequence) lets it go.
    std::promise<void> joined;
    ASSERT_TRUE(thread.Start([&] {
        thread.Join();
        joined.set_value();
    }));
    joined.get_future().wait();
    EXPECT_FALSE(thread.Joinable());
    thread.Join();  // harmless
}

TEST(Thread, PriorityChangesAffectOnlyTheCallingThread) {
    const int mainNice = CurrentThreadNice();
    Thread thread;
    ASSERT_TRUE(thread.Start([&] {
        EXPECT_TRUE(kestor::SetCurrentThreadPriority(ThreadPriority::Lowest));
        EXPECT_EQ(CurrentThreadNice(), 10);
        // Unprivileged, raising is best effort only; when granted, only TimeCritical is real-time.
        if (kestor::SetCurrentThreadPriority(ThreadPriority::TimeCritical)) {
            EXPECT_NE(sched_getscheduler(0), SCHED_OTHER);
        }
        if (kestor::SetCurrentThreadPriority(ThreadPriority::AboveNormal)) {
            EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
            EXPECT_EQ(CurrentThreadNice(), -5);
        }
    }));
    thread.Join();
    EXPECT_EQ(CurrentThreadNice(), mainNice) << "the process and other threads are untouched";

    // A started thread takes the priority it was given before its body runs.
    int bodyNice = -100;
    ASSERT_TRUE(thread.Start([&] { bodyNice = CurrentThreadNice(); }, "low", ThreadPriority::Idle));
    thread.Join();
    EXPECT_EQ(bodyNice, 19);
}
