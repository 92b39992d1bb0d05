#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <string>
#include <utility>

#include "platform/Thread.h"

using kestor::SetCurrentThreadPriority;
using kestor::Thread;
using kestor::ThreadPriority;

namespace {

int CurrentThreadNice() {
    errno = 0;
    return getpriority(PRIO_PROCESS, gettid());
}

}  // namespace

TEST(Thread, RunsTheBodyWithItsNameAndJoins) {
    char seenName[32] = {};
    Thread thread;
    ASSERT_TRUE(
        thread.Start([&] { pthread_getname_np(pthread_self(), seenName, sizeof(seenName)); },
                     "kestor-recorder-thread"));
    EXPECT_TRUE(thread.Joinable());
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
}

TEST(Thread, PriorityChangesAffectOnlyTheCallingThread) {
    const int mainNice = CurrentThreadNice();
    const std::pair<ThreadPriority, int> steps[] = {
        {ThreadPriority::Lowest, 10},   {ThreadPriority::TimeCritical, -20},
        {ThreadPriority::Normal, 0},    {ThreadPriority::AboveNormal, -5},
        {ThreadPriority::Highest, -10}, {ThreadPriority::BelowNormal, 5},
        {ThreadPriority::Idle, 19}};
    Thread thread;
    ASSERT_TRUE(thread.Start([&] {
        for (const auto& [priority, nice] : steps) {
            const bool accepted = SetCurrentThreadPriority(priority);
            EXPECT_TRUE(accepted || nice < 10) << "lowering priority is always allowed";
            if (!accepted) continue;  // unprivileged: best effort only, and the thread goes on
            const bool realTime = sched_getscheduler(0) != SCHED_OTHER;
            EXPECT_EQ(realTime, priority == ThreadPriority::TimeCritical) << nice;
            if (realTime) continue;
            EXPECT_EQ(CurrentThreadNice(), nice);
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

TEST(Thread, JoiningFromInsideTheThreadLetsItGo) {
    Thread thread;
    std::promise<void> joined;
    std::future<void> done = joined.get_future();
    ASSERT_TRUE(thread.Start([&] {
        thread.Join();  // e.g. a playback thread that closes its own sequence
        joined.set_value();
    }));
    done.wait();
    EXPECT_FALSE(thread.Joinable());
    thread.Join();  // harmless
}
